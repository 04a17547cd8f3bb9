// A JaCarta with as many objects as wanted, each a name with an RSA key pair and a certificate. It
// answers from memory and computes nothing.
#pragma once

#include "sim/cards/card.h"

#include <cstddef>

namespace bench {

class ManyNamesCard final : public sim::Card {
public:
    ManyNamesCard(std::size_t names, sim::Bytes storedCertificate);

    sim::Bytes atr() const override;
    unsigned long protocol() const override { return 2; }
    void reset() override {}
    sim::Bytes transmit(std::span<const std::uint8_t> command) override;

private:
    sim::Bytes nextName();

    std::size_t names_;
    sim::Bytes storedCertificate_; // compressed
    std::size_t told_ = 0;         // names since they were counted
};

} // namespace bench
