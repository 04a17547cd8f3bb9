// The identity card's commands in plain words, for traces.
#pragma once

#include "sim/cards/card.h"

#include <string>

namespace sim {

// What a command asks for; "unknown command" if the card knows none like it.
std::string idCardWords(std::span<const std::uint8_t> command);

// How many bytes at a command's end must not be shown: the PIN of a VERIFY.
std::size_t idCardSecretLength(std::span<const std::uint8_t> command);

} // namespace sim
