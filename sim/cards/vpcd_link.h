// The wire between a simulated card and the virtual reader of package vsmartcard-vpcd.
//
// The reader listens on a TCP port of the loopback and the card connects. Both send frames: a
// length of two bytes, most significant first, and a payload of that length. A payload of one byte
// from the reader is control:
//     00  power off        02  reset
//     01  power on         04  send the answer to reset
// Only the last is answered. Every other payload is a command and brings its answer.
#pragma once

#include "sim/cards/card.h"

#include <cstdint>

namespace sim {

inline constexpr std::uint16_t VPCD_FIRST_PORT = 35963; // of a reader with channel 0x8C7B

class VpcdLink {
public:
    VpcdLink() = default;
    ~VpcdLink() { close(); }
    VpcdLink(const VpcdLink&) = delete;
    VpcdLink& operator=(const VpcdLink&) = delete;

    // Puts the card in: connects to the reader at this port of the loopback. False if nobody
    // listens there.
    bool connect(std::uint16_t port);
    // Pulls the card out.
    void close();
    bool connected() const { return socket_ >= 0; }
    int descriptor() const { return socket_; } // to wait on until it is readable; -1 if closed

    // Takes what has arrived, at least one byte of it (it waits for that), and answers each frame
    // that is complete. False, and the link is closed, if the reader has gone.
    bool serve(Card& card);

    // Whether the reader's service has surely told its clients of this card: it has powered the
    // card up, read the answer to reset and then looked for the card again.
    bool noticed() const { return noticed_; }

private:
    bool receive();
    bool answer(Card& card, std::span<const std::uint8_t> payload);
    bool send(const Bytes& payload);

    int socket_ = -1;
    Bytes arrived_;
    bool poweredUp_ = false;
    bool atrRead_ = false; // since the card was powered up
    bool noticed_ = false;
};

} // namespace sim
