// What passes between reader and card, in hexadecimal and in plain words.
#pragma once

#include "sim/cards/card.h"

#include <cstddef>
#include <string>

// The last secret bytes of the command are shown as asterisks.
void traceCommand(std::uint16_t port, std::span<const std::uint8_t> command, std::size_t secret,
                  const std::string& words);
void traceReply(std::uint16_t port, std::span<const std::uint8_t> reply);
