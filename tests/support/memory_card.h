// An ID card that answers from memory and computes nothing, for tests that make very many calls or
// measure time: two key pairs with a certificate each, no PIN check, signatures of fixed bytes.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/id_card.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

namespace velt_test {

class MemoryCard final : public sim::Card {
public:
    MemoryCard()
    {
        const sim::IdCard original;
        for (std::size_t i = 0; i < 2; ++i) {
            certificates_[i] = original.certificate(i);
            files_[i] = original.file(i);
            moduli_[i] = original.modulus(i);
            signatures_[i] = sim::Bytes(moduli_[i].rbegin(), moduli_[i].rend());
        }
    }

    // Of key pair 1 (index 0) and 2.
    const sim::Bytes& certificate(std::size_t pair) const { return certificates_[pair]; }
    const sim::Bytes& modulus(std::size_t pair) const { return moduli_[pair]; }
    const sim::Bytes& signature(std::size_t pair) const { return signatures_[pair]; }

    sim::Bytes atr() const override
    {
        return {0x3B, 0x77, 0x18, 0x00, 0x00, 0x4B, 0x41, 0x53, 0x41, 0x4B, 0x49, 0x44};
    }
    unsigned long protocol() const override { return 1; }

    void reset() override
    {
        pending_.clear();
        file_ = NO_FILE;
    }

    sim::Bytes transmit(std::span<const std::uint8_t> command) override
    {
        if (command.size() < 5 || command[0] != 0x00) {
            return {0x6E, 0x00};
        }
        switch (command[1]) {
        case 0xA4: // SELECT
            return select(command);
        case 0xB0: // READ BINARY
            return read(command);
        case 0xC0: // GET RESPONSE
            return deliver(command[4]);
        case 0xCA: // GET DATA
            return {1, 2, 3, 4, 5, 6, 7, 8, 9, 0x90, 0x00};
        case 0xCB: // GET PUBLIC KEY
            return command.size() == 16 ? announce(publicKey(command[9] == 0x08 ? 1 : 0))
                                        : sim::Bytes{0x67, 0x00};
        case 0x20: // VERIFY
            return {0x90, 0x00};
        case 0x22: // MANAGE SECURITY ENVIRONMENT
            return chooseKey(command);
        case 0x88: // INTERNAL AUTHENTICATE
            return announce(signatures_[key_]);
        default:
            return {0x6D, 0x00};
        }
    }

private:
    static constexpr std::size_t NO_FILE = 2;

    // 15 bytes of template header, then the modulus.
    sim::Bytes publicKey(std::size_t pair) const
    {
        sim::Bytes bytes{0x7F, 0x49, 0x82, 0x01, 0x0A, 0x81, 0x82, 0x01,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
        bytes.insert(bytes.end(), moduli_[pair].begin(), moduli_[pair].end());
        return bytes;
    }

    sim::Bytes chooseKey(std::span<const std::uint8_t> command)
    {
        if (command.size() != 14) {
            return {0x67, 0x00};
        }
        key_ = command[10] == 0x88 ? 1 : 0;
        return {0x90, 0x00};
    }

    sim::Bytes select(std::span<const std::uint8_t> command)
    {
        const bool elementary = command[2] == 0x02 && command.size() >= 7;
        file_ = elementary ? static_cast<std::size_t>(command[6] - 1) % 2 : NO_FILE;
        return {0x90, 0x00};
    }

    sim::Bytes read(std::span<const std::uint8_t> command) const
    {
        if (file_ == NO_FILE) {
            return {0x69, 0x86};
        }
        const sim::Bytes& file = files_[file_];
        const auto from = static_cast<std::size_t>(command[2] * 256 + command[3]);
        const std::size_t wanted = command[4] == 0 ? 256 : command[4];
        if (from + wanted > file.size()) {
            return {0x6B, 0x00};
        }
        const auto start = file.begin() + static_cast<std::ptrdiff_t>(from);
        sim::Bytes reply(start, start + static_cast<std::ptrdiff_t>(wanted));
        reply.insert(reply.end(), {0x90, 0x00});
        return reply;
    }

    static std::uint8_t announced(std::size_t left)
    {
        return left > 255 ? std::uint8_t{0} : static_cast<std::uint8_t>(left);
    }

    sim::Bytes announce(sim::Bytes data)
    {
        pending_ = std::move(data);
        return {0x61, announced(pending_.size())};
    }

    sim::Bytes deliver(std::uint8_t le)
    {
        const std::size_t wanted = le == 0 ? 256 : le;
        if (pending_.size() < wanted) {
            return {0x6C, announced(pending_.size())};
        }
        const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(wanted);
        sim::Bytes reply(pending_.begin(), end);
        pending_.erase(pending_.begin(), end);
        if (pending_.empty()) {
            reply.insert(reply.end(), {0x90, 0x00});
        } else {
            reply.insert(reply.end(), {0x61, announced(pending_.size())});
        }
        return reply;
    }

    std::array<sim::Bytes, 2> certificates_;
    std::array<sim::Bytes, 2> files_;
    std::array<sim::Bytes, 2> moduli_;
    std::array<sim::Bytes, 2> signatures_;
    sim::Bytes pending_;
    std::size_t file_ = NO_FILE;
    std::size_t key_ = 0;
};

} // namespace velt_test
