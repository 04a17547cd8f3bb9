#include "bench/many_names_card.h"

#include <utility>

namespace bench {

ManyNamesCard::ManyNamesCard(std::size_t names, sim::Bytes storedCertificate)
    : names_(names), storedCertificate_(std::move(storedCertificate))
{
}

sim::Bytes ManyNamesCard::atr() const
{
    return {0x3B, 0xDC, 0x18, 0xFF, 0x81, 0x91, 0xFE, 0x1F, 0xC3, 0x80, 0x73,
            0xC8, 0x21, 0x13, 0x66, 0x01, 0x06, 0x11, 0x59, 0x00, 0x01, 0x28};
}

// The position asked for has eight bits: whoever asks for all asks in order.
sim::Bytes ManyNamesCard::nextName()
{
    const std::size_t number = told_++;
    return {static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number), 0x90, 0x00};
}

sim::Bytes ManyNamesCard::transmit(std::span<const std::uint8_t> command)
{
    if (command.size() < 5 || command[0] != 0x80 || command[1] != 0x12) {
        return {0x90, 0x00};
    }
    switch (command[2]) {
    case 0x21: // GET OBJECT NAME
        return nextName();
    case 0x22: // GET OBJECT COUNT
        told_ = 0;
        return {static_cast<std::uint8_t>(names_ >> 8), static_cast<std::uint8_t>(names_), 0x90,
                0x00};
    case 0x24: // whether a name holds an object of a type: 2 a certificate, 3 an RSA key pair
        return command.back() >= 2 ? sim::Bytes{0x90, 0x00} : sim::Bytes{0x64, 0x28};
    default: { // READ CERTIFICATE
        sim::Bytes reply = storedCertificate_;
        reply.insert(reply.end(), {0x90, 0x00});
        return reply;
    }
    }
}

} // namespace bench
