// Tests through the built module of what a host does with an ID card: the simulated card in a
// reader of the stand-in, and the card's commands spelled afresh.
#pragma once

#include "sim/cards/id_card.h"
#include "tests/support/card_host.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace velt_test {

// Handles of the objects: certificate, public key, private key of pair 1, then of pair 2.
constexpr CK_OBJECT_HANDLE CERTIFICATE_1 = 1;
constexpr CK_OBJECT_HANDLE PUBLIC_1 = 2;
constexpr CK_OBJECT_HANDLE PRIVATE_1 = 3;
constexpr CK_OBJECT_HANDLE CERTIFICATE_2 = 4;
constexpr CK_OBJECT_HANDLE PUBLIC_2 = 5;
constexpr CK_OBJECT_HANDLE PRIVATE_2 = 6;
constexpr CK_BYTE ID_1 = 0x87;
constexpr CK_BYTE ID_2 = 0x88;

const Sent SELECT_MASTER = command("00 A4 00 0C 02 3F 00", 2);
const Sent SELECT_CERTIFICATES = command("00 A4 01 0C 02 08 01", 2);
const Sent SELECT_KEYS = command("00 A4 01 0C 02 01 01", 2);
const Sent READ_LENGTH = command("00 B0 00 00 02", 4);
const Sent GET_CARD_OBJECT = command("00 CA DF 01 09", 11);

// The file of a key pair (0 or 1) in the certificates' directory.
inline Sent selectFile(std::size_t pair)
{
    return command(pair == 0 ? "00 A4 02 0C 02 01 01" : "00 A4 02 0C 02 01 02", 2);
}

inline Sent getResponse(std::uint8_t le)
{
    return {Bytes{0x00, 0xC0, 0x00, 0x00, le}, le == 0 ? 258UL : le + 2UL};
}

// Reading the certificate of a pair whose file begins with `content`.
inline Commands readCertificate(std::size_t pair, const Bytes& content)
{
    Commands commands{SELECT_MASTER, SELECT_CERTIFICATES, selectFile(pair), READ_LENGTH};
    for (std::uint8_t block = 0; block < content[0]; ++block) {
        commands.push_back({Bytes{0x00, 0xB0, block, 0x02, 0x00}, 258});
    }
    if (content[1] != 0) {
        commands.push_back({Bytes{0x00, 0xB0, content[0], 0x02, content[1]}, content[1] + 2UL});
    }
    return commands;
}

// Reading the public key of a pair whose modulus has 2,048 bits, or that is absent.
inline Commands readPublicKey(std::size_t pair, bool present = true)
{
    const Commands asked{SELECT_MASTER, SELECT_KEYS,
                         command(pair == 0 ? "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 81 00"
                                           : "00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00",
                                 2)};
    return asked +
           (present ? Commands{getResponse(0x00), getResponse(0x0F)} : Commands{getResponse(0x02)});
}

// Everything that loading the objects of a card sends.
inline Commands loadObjects(const sim::IdCard& card)
{
    return Commands{SELECT_MASTER, GET_CARD_OBJECT} + readCertificate(0, card.file(0)) +
           readPublicKey(0, !card.modulus(0).empty()) + readCertificate(1, card.file(1)) +
           readPublicKey(1, !card.modulus(1).empty());
}

// Signing with the key of a reference; the card delivers a signature of 256 bytes.
inline Commands signCommands(std::uint8_t keyReference, const Bytes& data)
{
    Bytes environment = hex("00 22 41 A4 09 95 01 40 84 01 00 80 01 02");
    environment[10] = keyReference;
    Bytes authenticate{0x00, 0x88, 0x02, 0x00, static_cast<std::uint8_t>(data.size())};
    authenticate.insert(authenticate.end(), data.begin(), data.end());
    return {SELECT_MASTER, SELECT_KEYS, {environment, 2}, {authenticate, 258}};
}

class IdCardHost : public CardHost {
protected:
    // Puts a card into the reader, initialises and lists.
    void meet(const sim::IdCardOptions& options = {})
    {
        card = std::make_shared<sim::IdCard>(options);
        insert(card);
    }

    // The same, and a session on it.
    void openOn(const sim::IdCardOptions& options = {})
    {
        meet(options);
        session = open(0);
        forget();
    }

    std::shared_ptr<sim::IdCard> card;
};

} // namespace velt_test
