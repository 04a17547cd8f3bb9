// State of a card in a file, so that it outlives the program.
//
// Layout, numbers most significant byte first:
//     8 bytes   magic: what the file holds, and the version of its layout
//     then records until the end of the file, each
//       1 byte    tag
//       4 bytes   length n of the value
//       n bytes   value
// A tag stands at most once. What the tags mean is the card's affair.
#pragma once

#include "sim/cards/card.h"

#include <filesystem>
#include <map>
#include <stdexcept>
#include <string_view>

namespace sim {

inline constexpr std::size_t STATE_MAGIC_LENGTH = 8;

using StateRecords = std::map<std::uint8_t, Bytes>;

// The file cannot be read or written, or does not hold what it should.
class StateError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Bytes packState(std::string_view magic, const StateRecords& records);
StateRecords unpackState(std::string_view magic, std::span<const std::uint8_t> state);

// The value of a record that must be there, of this length unless length is 0.
const Bytes& stateRecord(const StateRecords& records, std::uint8_t tag, std::size_t length = 0);

// Writes beside the file and renames, so that a reader finds the old state or the new one.
void writeStateFile(const std::filesystem::path& path, std::span<const std::uint8_t> state);
Bytes readStateFile(const std::filesystem::path& path);

} // namespace sim
