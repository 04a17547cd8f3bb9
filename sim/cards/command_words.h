// Phrases that the cards' command words are put together from.
#pragma once

#include "sim/cards/card.h"

#include <cstddef>
#include <string>

namespace sim {

inline constexpr std::size_t COMMAND_HEADER = 5; // up to the length byte

std::string countWords(std::size_t bytes);                      // "1 byte", "5 bytes"
std::string lengthWords(std::uint8_t length);                   // 00 is "up to 256 bytes"
std::string offsetWords(std::span<const std::uint8_t> command); // " at offset 256", of P1 and P2
// A byte of the data field in hexadecimal; "(missing)" if the command is not long enough.
std::string dataByteWords(std::span<const std::uint8_t> command, std::size_t index);

} // namespace sim
