// Tests through the built module of what a host does with an ID card: the simulated card in a
// reader of the stand-in, and the card's commands spelled afresh.
#pragma once

#include "sim/cards/id_card.h"
#include "tests/support/module_fixture.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velt_test {

using sim::Bytes;
using sim::hex;

inline constexpr const char* CARD_READER = "Stand-in Reader 00 00";
inline constexpr std::string_view PIN = "1234";
inline constexpr CK_BYTE SENTINEL = 0xA5;

// Handles of the objects: certificate, public key, private key of pair 1, then of pair 2.
inline constexpr CK_OBJECT_HANDLE CERTIFICATE_1 = 1;
inline constexpr CK_OBJECT_HANDLE PUBLIC_1 = 2;
inline constexpr CK_OBJECT_HANDLE PRIVATE_1 = 3;
inline constexpr CK_OBJECT_HANDLE CERTIFICATE_2 = 4;
inline constexpr CK_OBJECT_HANDLE PUBLIC_2 = 5;
inline constexpr CK_OBJECT_HANDLE PRIVATE_2 = 6;
inline constexpr CK_BYTE ID_1 = 0x87;
inline constexpr CK_BYTE ID_2 = 0x88;

// A command as the reader saw it, with the room for its reply.
struct Sent {
    Bytes command;
    unsigned long capacity = 0;
    bool operator==(const Sent&) const = default;
};

inline void PrintTo(const Sent& sent, std::ostream* out)
{
    *out << sim::toHex(sent.command) << " (" << sent.capacity << ")";
}

inline Sent command(std::string_view text, unsigned long capacity)
{
    return {hex(text), capacity};
}

inline const Sent SELECT_MASTER = command("00 A4 00 0C 02 3F 00", 2);
inline const Sent SELECT_CERTIFICATES = command("00 A4 01 0C 02 08 01", 2);
inline const Sent SELECT_KEYS = command("00 A4 01 0C 02 01 01", 2);
inline const Sent READ_LENGTH = command("00 B0 00 00 02", 4);
inline const Sent GET_CARD_OBJECT = command("00 CA DF 01 09", 11);

// The file of a key pair (0 or 1) in the certificates' directory.
inline Sent selectFile(std::size_t pair)
{
    return command(pair == 0 ? "00 A4 02 0C 02 01 01" : "00 A4 02 0C 02 01 02", 2);
}

inline Sent getResponse(std::uint8_t le)
{
    return {Bytes{0x00, 0xC0, 0x00, 0x00, le}, le == 0 ? 258UL : le + 2UL};
}

using Commands = std::vector<Sent>;

inline Commands operator+(Commands left, const Commands& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
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

// Each test has an instance of the module to itself: pending operations outlive C_Finalize.
class IdCardHost : public FreshModuleTest {
protected:
    void TearDown() override
    {
        pcsc::clearPlans();
        FreshModuleTest::TearDown();
    }

    // Puts a card into the reader, initialises and lists.
    void meet(const sim::IdCardOptions& options = {})
    {
        card = std::make_shared<sim::IdCard>(options);
        plug(CARD_READER, card);
        initialise();
        EXPECT_EQ(std::vector<CK_SLOT_ID>{0}, slots(CK_TRUE));
    }

    // The same, and a session on it.
    void openOn(const sim::IdCardOptions& options = {})
    {
        meet(options);
        session = open(0);
        forget();
    }

    void loginAs(std::string_view pin = PIN)
    {
        ASSERT_RV(CKR_OK, login(session, pin));
        forget();
    }

    // Commands since the last forget(), with their capacities.
    static Commands sent()
    {
        Commands commands;
        for (const auto& call : pcsc::calls(pcsc::Function::Transmit)) {
            commands.push_back({call.sent, call.capacity});
        }
        return commands;
    }
    static void forget() { pcsc::clearCalls(); }

    // The handles that a search finds, all in one call.
    std::vector<CK_OBJECT_HANDLE> find(std::vector<CK_ATTRIBUTE> wanted)
    {
        EXPECT_RV(CKR_OK, p11.C_FindObjectsInit(session, wanted.data(), wanted.size()));
        std::vector<CK_OBJECT_HANDLE> handles(64, NO_HANDLE);
        CK_ULONG count = 0;
        EXPECT_RV(CKR_OK, p11.C_FindObjects(session, handles.data(), handles.size(), &count));
        EXPECT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
        EXPECT_LE(count, handles.size());
        for (std::size_t i = count; i < handles.size(); ++i) {
            EXPECT_EQ(NO_HANDLE, handles[i]);
        }
        handles.resize(std::min<std::size_t>(count, handles.size()));
        return handles;
    }

    // The value of one attribute; empty and a failure if it is not served.
    Bytes value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        Bytes bytes(5000, SENTINEL);
        CK_ATTRIBUTE attribute{type, bytes.data(), bytes.size()};
        EXPECT_RV(CKR_OK, p11.C_GetAttributeValue(session, object, &attribute, 1));
        if (attribute.ulValueLen > bytes.size()) {
            ADD_FAILURE() << "attribute " << type << " has the length " << attribute.ulValueLen;
            return {};
        }
        const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(attribute.ulValueLen);
        EXPECT_TRUE(std::all_of(end, bytes.end(), [](CK_BYTE byte) { return byte == SENTINEL; }));
        bytes.erase(end, bytes.end());
        return bytes;
    }

    CK_RV signInit(CK_OBJECT_HANDLE key, CK_MECHANISM_TYPE type = CKM_RSA_PKCS)
    {
        CK_MECHANISM mechanism{type, nullptr, 0};
        return p11.C_SignInit(session, &mechanism, key);
    }

    // C_Sign into room for `room` bytes.
    CK_RV sign(const Bytes& data, Bytes& signature, std::size_t room = 256)
    {
        Bytes input = data;
        Bytes output(room + 16, SENTINEL);
        CK_ULONG length = room;
        const CK_RV result =
            p11.C_Sign(session, input.data(), input.size(), output.data(), &length);
        EXPECT_EQ(data, input);
        const std::size_t written = result == CKR_OK ? length : 0;
        for (std::size_t i = written; i < output.size(); ++i) {
            EXPECT_EQ(SENTINEL, output[i]) << "at " << i;
        }
        if (result != CKR_OK) {
            EXPECT_EQ(room, length);
        }
        output.resize(written);
        signature = output;
        return result;
    }

    // Session handles that were never handed out.
    std::vector<CK_SESSION_HANDLE> strayHandles() const
    {
        return {0, session + 1, session + 1000, 0xFFFFFFFF, ~CK_SESSION_HANDLE{0}};
    }

    std::shared_ptr<sim::IdCard> card;
    CK_SESSION_HANDLE session = 0;
};

// An attribute of a template over one value.
template <class Value>
CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, Value& value)
{
    return {type, &value, sizeof value};
}

inline CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, Bytes& value)
{
    return {type, value.data(), value.size()};
}

inline Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

// What PKCS#11 writes for a CK_ULONG.
inline Bytes bytesOfNumber(CK_ULONG number)
{
    Bytes bytes(sizeof number);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(number >> (8 * i));
    }
    return bytes;
}

} // namespace velt_test
