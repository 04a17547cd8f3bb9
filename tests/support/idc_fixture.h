// A session on a scripted ID card. A test states every exchange with its receive capacity before
// the operation; the end of the test compares them with what was sent, in order and completely.
#pragma once

#include "sim/cards/scripted_card.h"
#include "sim/pcsc/standin.h"
#include "src/core/apdu.h"
#include "src/core/dispatch.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "src/tokens/idc/idc.h"
#include "tests/support/failing_alloc.h"
#include "tests/support/messages.h"
#include "tests/support/resource_faults.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace velt_test {

using sim::Bytes;
using sim::hex;
using sim::toHex;

constexpr std::uint8_t SENTINEL = 0xA5;
constexpr std::string_view IDC_ATR = "3B 77 18 00 00 4B 41 53 41 4B 49 44";
constexpr std::string_view OK = "90 00";

constexpr std::string_view SELECT_MF = "00 A4 00 0C 02 3F 00";
constexpr std::string_view SELECT_DF_0801 = "00 A4 01 0C 02 08 01";
constexpr std::string_view SELECT_DF_0101 = "00 A4 01 0C 02 01 01";
constexpr std::string_view SELECT_EF_0101 = "00 A4 02 0C 02 01 01";
constexpr std::string_view SELECT_EF_0102 = "00 A4 02 0C 02 01 02";
constexpr std::string_view READ_LENGTH = "00 B0 00 00 02";
constexpr std::string_view GET_DATA_DF01 = "00 CA DF 01 09";
constexpr std::string_view CLEAR_LENGTH = "00 D6 00 00 02 00 00";
constexpr std::string_view DF01 = "01 02 03 04 05 06 07 08 09";
constexpr std::string_view ALIAS_1 = "RSA1010203040506070809";
constexpr std::string_view ALIAS_2 = "RSA2010203040506070809";

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes text(std::string_view characters)
{
    return {characters.begin(), characters.end()};
}

inline Bytes bigEndian(std::size_t number)
{
    return {static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number & 0xFF)};
}

// `count` bytes that differ from their neighbours and from one seed to the next.
inline Bytes pattern(std::size_t count, std::uint32_t seed = 1)
{
    Bytes bytes(count);
    std::uint32_t state = seed * 2654435761U + 12345U;
    for (auto& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

inline Bytes slice(const Bytes& from, std::size_t start, std::size_t count)
{
    const auto begin = from.begin() + static_cast<std::ptrdiff_t>(start);
    return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

// A status word as the exchange returns it: SW1 in the low byte.
inline std::uint64_t value(std::string_view status)
{
    const Bytes word = hex(status);
    return std::uint64_t{word.at(0)} | (std::uint64_t{word.at(1)} << 8);
}

inline std::uint64_t pcscCode(long result)
{
    return static_cast<std::uint64_t>(result);
}

inline std::string_view selectCertificateFile(std::size_t keyPair)
{
    return keyPair == 1 ? SELECT_EF_0101 : SELECT_EF_0102;
}

inline Bytes getPublicKey(std::size_t keyPair)
{
    return hex(keyPair == 1 ? "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 81 00"
                            : "00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00");
}

// The fifteen bytes in front of a modulus; their content is the card's business.
inline Bytes publicKeyHeader()
{
    return hex("4D 82 01 0D 7F 49 82 01 08 81 82 01 00 11 22");
}

class IdcTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim::pcsc::reset();
        sim::pcsc::plugReader("Test Reader 00");
        card = std::make_shared<sim::ScriptedCard>(hex(IDC_ATR), 1UL);
        sim::pcsc::insertCard("Test Reader 00", card);
        ASSERT_EQ(CKR_OK, C_Initialize(nullptr));
        std::array<CK_SLOT_ID, 1> slots{};
        CK_ULONG count = slots.size();
        ASSERT_EQ(CKR_OK, VELT_GetSlotList(CK_TRUE, slots.data(), &count));
        ASSERT_EQ(1U, count);
        oiFlags = 0; // the opening loads nothing
        ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                           &session));
        start();
    }

    void TearDown() override
    {
        alloc::clear();
        stopFailing();
        expectAllExchanged();
        EXPECT_EQ(CKR_OK, C_Finalize(nullptr));
        sim::pcsc::reset();
    }

    // Known content in everything that the driver reads or leaves behind.
    void start()
    {
        velt::rebuildObjects(0);
        Alias1.fill(0);
        Alias2.fill(0);
        pSignMechanismIDC = {};
        hSignKeyIDC = 0;
        pbyOutput.fill(SENTINEL);
        dwReplyLen = 0;
        ucTempBigOutput.fill(0);
        ulTempLen = 0;
        sim::pcsc::clearCalls();
        mark.reset();
    }

    // The next exchange: the command, the card's reply, the receive capacity.
    void expect(const Bytes& command, const Bytes& reply, std::size_t capacity = 2)
    {
        card->expect(command, reply);
        expected.push_back(line(command, capacity));
    }
    void expect(std::string_view command, std::string_view reply, std::size_t capacity = 2)
    {
        expect(hex(command), hex(reply), capacity);
    }

    // The next exchange never reaches the card: PC/SC answers with `result`.
    void expectLost(const Bytes& command, long result, std::size_t capacity = 2)
    {
        const std::size_t sent = sim::pcsc::calls(sim::pcsc::Function::Transmit).size();
        sim::pcsc::failNth(sim::pcsc::Function::Transmit, expected.size() + 1 - sent, result);
        expected.push_back(line(command, capacity));
    }
    void expectLost(std::string_view command, long result, std::size_t capacity = 2)
    {
        expectLost(hex(command), result, capacity);
    }

    // The next exchange reaches the module with another reply than any that the card could give.
    void expectReplaced(const Bytes& command, const Bytes& reply, std::size_t capacity = 2)
    {
        const std::size_t sent = sim::pcsc::calls(sim::pcsc::Function::Transmit).size();
        sim::pcsc::replyNth(expected.size() + 1 - sent, reply);
        expected.push_back(line(command, capacity));
    }

    void expectGetResponse(std::uint8_t le, const Bytes& reply)
    {
        expect(Bytes{0x00, 0xC0, 0x00, 0x00, le}, reply, le == 0 ? 258 : le + std::size_t{2});
    }

    // A command whose data the card hands out with GET RESPONSE, at most 256 bytes a time.
    void expectFetched(const Bytes& command, const Bytes& data, std::size_t capacity = 2)
    {
        expect(command, announce(data.size()), capacity);
        for (std::size_t done = 0; done < data.size();) {
            const std::size_t piece = std::min<std::size_t>(data.size() - done, 256);
            const Bytes part = slice(data, done, piece);
            done += piece;
            expectGetResponse(static_cast<std::uint8_t>(piece & 0xFF),
                              part + announce(data.size() - done));
        }
    }

    // The exchanges that read the labels, select a certificate file, read content from it, select
    // the keys, and read a modulus or learn that there is no key.
    void expectAliases()
    {
        expect(SELECT_MF, OK);
        expect(hex(GET_DATA_DF01), hex(DF01) + hex(OK), 11);
    }
    void expectCertificateFile(std::size_t keyPair)
    {
        expect(SELECT_MF, OK);
        expect(SELECT_DF_0801, OK);
        expect(selectCertificateFile(keyPair), OK);
    }
    void expectLength(std::size_t length)
    {
        expect(hex(READ_LENGTH), bigEndian(length) + hex(OK), 4);
    }
    // As far as the certificate buffer reaches.
    void expectContent(const Bytes& whole)
    {
        const Bytes content = slice(whole, 0, std::min<std::size_t>(whole.size(), 4096));
        for (std::size_t done = 0; done < content.size();) {
            const std::size_t piece = std::min<std::size_t>(content.size() - done, 256);
            expect(readCommand(done / 256, piece), slice(content, done, piece) + hex(OK),
                   piece + 2);
            done += piece;
        }
    }
    void expectCertificate(std::size_t keyPair, const Bytes& content)
    {
        expectCertificateFile(keyPair);
        expectLength(content.size());
        expectContent(content);
    }
    void expectNoCertificate(std::size_t keyPair) { expectCertificate(keyPair, {}); }
    void expectKeyDirectory()
    {
        expect(SELECT_MF, OK);
        expect(SELECT_DF_0101, OK);
    }
    void expectKey(std::size_t keyPair, const Bytes& modulus)
    {
        expectKeyDirectory();
        expectFetched(getPublicKey(keyPair), publicKeyHeader() + modulus);
    }
    void expectNoKey(std::size_t keyPair)
    {
        expectKeyDirectory();
        expectFetched(getPublicKey(keyPair), hex("00 00"));
    }
    // A load that finds nothing.
    void expectEmptyLoad()
    {
        expectAliases();
        for (const std::size_t keyPair : {1U, 2U}) {
            expectNoCertificate(keyPair);
            expectNoKey(keyPair);
        }
    }

    // What was sent since the last comparison is what was stated.
    void expectAllExchanged()
    {
        EXPECT_EQ("", card->verdict());
        std::vector<std::string> sent;
        for (const auto& call : sim::pcsc::calls(sim::pcsc::Function::Transmit)) {
            sent.push_back(line(call.sent, call.capacity));
        }
        EXPECT_EQ(expected, sent) << sim::pcsc::describeCalls();
        expected.clear();
        sim::pcsc::clearCalls();
    }

    // Ten entries, of which those at `positions` and no others are made.
    static void expectMade(const std::vector<std::size_t>& positions)
    {
        ASSERT_EQ(10U, velt::objectTableSize());
        EXPECT_EQ(positions.size(), ulObjCount);
        for (std::size_t i = 0; i < 10; ++i) {
            const bool made = std::ranges::find(positions, i) != positions.end();
            EXPECT_EQ(made ? i + 1 : 0x4B5A0000, velt::entryAt(i)->handle) << i;
            EXPECT_EQ(made, velt::entryAt(i)->attrs != nullptr) << i;
        }
    }

    static std::string line(const Bytes& command, std::size_t capacity)
    {
        return toHex(command) + " (" + std::to_string(capacity) + ")";
    }

    static Bytes announce(std::size_t waiting)
    {
        if (waiting == 0) {
            return hex(OK);
        }
        return {0x61, static_cast<std::uint8_t>(waiting < 256 ? waiting : 0)};
    }

    // READ BINARY behind the length field.
    static Bytes readCommand(std::size_t block, std::size_t count)
    {
        return {0x00, 0xB0, static_cast<std::uint8_t>(block), 0x02,
                static_cast<std::uint8_t>(count & 0xFF)};
    }

    std::uint64_t deviceError() const { return velt::findSession(session)->deviceError; }

    TokenDriver* table = &stVELTTokens;
    std::shared_ptr<sim::ScriptedCard> card;
    std::vector<std::string> expected;
    CK_SESSION_HANDLE session = 0;
    MessageMark mark;
};

} // namespace velt_test
