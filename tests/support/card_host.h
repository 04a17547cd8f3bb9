// Tests through the built module of what a host does with a card that the simulator plays: the
// commands as the reader saw them, objects, attributes and signatures.
#pragma once

#include "sim/cards/scripted_card.h"
#include "tests/support/module_fixture.h"

#include <algorithm>
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

constexpr const char* CARD_READER = "Stand-in Reader 00 00";
constexpr std::string_view PIN = "1234";
constexpr CK_BYTE SENTINEL = 0xA5;

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

using Commands = std::vector<Sent>;

inline Commands operator+(Commands left, const Commands& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Each test has an instance of the module to itself: pending operations outlive C_Finalize.
class CardHost : public FreshModuleTest {
protected:
    void TearDown() override
    {
        pcsc::clearPlans();
        FreshModuleTest::TearDown();
    }

    // Puts a card into the reader, initialises and lists.
    void insert(std::shared_ptr<sim::Card> card)
    {
        plug(CARD_READER, std::move(card));
        initialise();
        EXPECT_EQ(std::vector<CK_SLOT_ID>{0}, slots(CK_TRUE));
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
        std::vector<CK_OBJECT_HANDLE> handles(256, NO_HANDLE);
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
