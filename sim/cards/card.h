// A simulated smart card: what a reader needs of one.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sim {

using Bytes = std::vector<std::uint8_t>;

// One card. It keeps its files, keys and counters over power cycles, and its selection and
// security state only while it is powered.
class Card {
public:
    virtual ~Card() = default;

    // Answer to reset, at most 33 bytes.
    virtual Bytes atr() const = 0;

    // Transmission protocol the card offers, as PC/SC numbers it: 1 is T=0, 2 is T=1.
    virtual unsigned long protocol() const = 0;

    // Power-up or reset: nothing selected, nobody verified, no response data pending.
    virtual void reset() = 0;

    // Answers one command APDU with data and the two status bytes, SW1 first. A card of protocol
    // T=0 answers case 4 commands with 61 xx and waits for GET RESPONSE.
    virtual Bytes transmit(std::span<const std::uint8_t> command) = 0;
};

} // namespace sim
