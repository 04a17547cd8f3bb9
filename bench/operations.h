// The calls that are measured, the same for every module and for every way of measuring.
#pragma once

#include "bench/host.h"
#include "bench/tape_card.h"

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Operation {
    std::string name;
    std::function<void()> prepare; // once, before the first run
    std::function<void()> run;
};

// What any module with a token does: descriptions, attributes, a search, a signature. The session
// is logged in. `card` is NULL for a module whose token is none of our cards; otherwise it plays
// what the signature needs of it.
std::vector<Operation> commonOperations(const Session& session, TapeCard* card);

// What only our module lets a host ask for by itself.
std::vector<Operation> cardOperations(const Session& session, TapeCard& card);

// Lets the card play what the operation asks of it.
void tape(TapeCard& card, const std::function<void()>& operation);

} // namespace bench
