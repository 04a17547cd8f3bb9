// The KAZTOKEN's commands in plain words, for traces.
#pragma once

#include "sim/cards/card.h"

#include <string>

namespace sim {

// What a command asks for; "unknown command" if the token knows none like it.
std::string kazTokenWords(std::span<const std::uint8_t> command);

// How many bytes at a command's end must not be shown: the PIN of a VERIFY.
std::size_t kazTokenSecretLength(std::span<const std::uint8_t> command);

} // namespace sim
