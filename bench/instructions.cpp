// Counts the module's own instructions: run it under callgrind, which counts within C_* calls and
// not within SCard* calls, and writes the sum for each operation to a file of its own. Outside
// callgrind it does the same and tells nothing.
// usage: velt-bench-instructions FAMILY MODULE (see bench/instructions)
#include "bench/operations.h"

#include <cstdio>

#include <valgrind/callgrind.h>

namespace {

constexpr int ROUNDS = 100;

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        bench::fail("usage: velt-bench-instructions FAMILY MODULE");
    }
    const Family* const family = findFamily(argv[1]);
    bench::require(family != nullptr, "finding the family");
    const std::shared_ptr<bench::TapeCard> card = bench::makeTapeCard(*family);
    bench::insertAlone(card);
    const bench::Module module(argv[2]);
    const bench::Session session(module);
    session.login();
    std::vector<bench::Operation> operations = bench::commonOperations(session, card.get());
    for (bench::Operation& operation : bench::cardOperations(session, *card)) {
        operations.push_back(std::move(operation));
    }
    for (const bench::Operation& operation : operations) {
        operation.prepare();
        CALLGRIND_ZERO_STATS;
        for (int round = 0; round < ROUNDS; ++round) {
            operation.run();
        }
        CALLGRIND_DUMP_STATS_AT(operation.name.c_str());
    }
    card->stop();
    std::printf("%d\n", ROUNDS);
    return 0;
}
