// A card that plays a fixed script: each command must be the next one expected, byte for byte.
#pragma once

#include "sim/cards/card.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// Bytes from hexadecimal text; blanks are skipped. Aborts on any other character.
Bytes hex(std::string_view text);
std::string toHex(std::span<const std::uint8_t> bytes);

struct Step {
    Bytes command;
    Bytes reply;
};

class ScriptedCard final : public Card {
public:
    ScriptedCard(Bytes atrBytes, unsigned long protocolNumber, std::vector<Step> steps = {});

    void expect(Bytes command, Bytes reply);                       // appends a step
    void expect(std::string_view command, std::string_view reply); // the same in hexadecimal

    // Empty if every step was played and nothing else was asked; otherwise what went wrong first.
    std::string verdict() const;

    Bytes atr() const override { return atr_; }
    unsigned long protocol() const override { return protocol_; }
    void reset() override {}
    Bytes transmit(std::span<const std::uint8_t> command) override; // unexpected: 6F 00

private:
    Bytes atr_;
    unsigned long protocol_;
    std::vector<Step> steps_;
    std::size_t next_ = 0;
    std::string firstFault_;
};

} // namespace sim
