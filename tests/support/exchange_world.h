// Tests of the APDU exchange: one session on a scripted card, and the shared buffers in a known
// state.
#pragma once

#include "sim/cards/scripted_card.h"
#include "tests/support/session_world.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velt_test::world {

using sim::Bytes;
using sim::hex;

constexpr std::uint8_t SENTINEL = 0xA5;
constexpr std::uint64_t OLD_ERROR = 0x5EED; // no exchange of these tests ends in it
const Bytes ASK = hex("00 B0 00 00 10");    // a command; the script decides the answer

// One Transmit call as the card reader saw it.
struct Sent {
    Bytes command;
    unsigned long capacity = 0;
    bool operator==(const Sent&) const = default;
};

inline void PrintTo(const Sent& sent, std::ostream* out)
{
    *out << sim::toHex(sent.command) << " (" << sent.capacity << ")";
}

inline Sent getResponse(std::uint8_t le)
{
    return {Bytes{0x00, 0xC0, 0x00, 0x00, le}, le == 0 ? 258UL : le + 2UL};
}

// `count` bytes that differ from their neighbours, beginning with `first`.
inline Bytes ramp(std::size_t count, std::size_t first = 0)
{
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<std::uint8_t>((first + i) * 7 % 251);
    }
    return bytes;
}

inline Bytes join(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

constexpr std::uint64_t code(LONG result)
{
    return static_cast<std::uint64_t>(result);
}

class ExchangeWorld : public SessionWorld {
protected:
    void SetUp() override
    {
        card = std::make_shared<sim::ScriptedCard>(ID_CARD_ATR, 1UL);
        ASSERT_NO_FATAL_FAILURE(start(card));
        session = open();
        entry(session).deviceError = OLD_ERROR;
        pbyOutput.fill(SENTINEL);
        ucTempBigOutput.fill(0);
        ulTempLen = 0;
        dwReplyLen = 0;
        sim::pcsc::clearCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ("", card->verdict());
        ucTempBigOutput.fill(0);
        ulTempLen = 0;
        SessionWorld::TearDown();
    }

    // The card answers ASK with `reply`.
    void answer(std::string_view reply) { card->expect(ASK, hex(reply)); }
    void answer(const Bytes& reply) { card->expect(ASK, reply); }

    // The card answers GET RESPONSE for `le` bytes with `reply`.
    void answerMore(std::uint8_t le, const Bytes& reply)
    {
        card->expect(getResponse(le).command, reply);
    }
    void answerMore(std::uint8_t le, std::string_view reply) { answerMore(le, hex(reply)); }

    // Sends ASK with a receive capacity.
    std::uint64_t ask(std::uint64_t capacity = 258) { return askOn(session, capacity); }
    static std::uint64_t askOn(CK_SESSION_HANDLE handle, std::uint64_t capacity = 258)
    {
        dwReplyLen = capacity;
        return VELTSCProcessAPDUEx(handle, ASK.data(), ASK.size());
    }

    // The reply that the caller sees.
    static Bytes reply()
    {
        EXPECT_LE(dwReplyLen, OUTPUT_SIZE);
        const auto length =
            static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(dwReplyLen, OUTPUT_SIZE));
        return {pbyOutput.begin(), pbyOutput.begin() + length};
    }

    // Whether everything in pbyOutput from `position` on is as SetUp left it.
    static bool untouchedFrom(std::size_t position)
    {
        return std::all_of(pbyOutput.begin() + static_cast<std::ptrdiff_t>(position),
                           pbyOutput.end(), [](std::uint8_t byte) { return byte == SENTINEL; });
    }

    static Bytes collected()
    {
        EXPECT_LE(ulTempLen, COLLECTION_SIZE);
        return {ucTempBigOutput.begin(),
                ucTempBigOutput.begin() + static_cast<std::ptrdiff_t>(ulTempLen)};
    }

    // Nothing collected, and no byte of it left behind.
    static bool collectionIsClear()
    {
        return ulTempLen == 0 && std::all_of(ucTempBigOutput.begin(), ucTempBigOutput.end(),
                                             [](std::uint8_t byte) { return byte == 0; });
    }

    // Every Transmit since SetUp or the last forgetSent().
    static std::vector<Sent> sent()
    {
        std::vector<Sent> all;
        for (const auto& call : sim::pcsc::calls(sim::pcsc::Function::Transmit)) {
            all.push_back({call.sent, call.capacity});
        }
        return all;
    }
    static void forgetSent() { sim::pcsc::clearCalls(); }

    std::uint64_t recorded() const { return entry(session).deviceError; }

    std::shared_ptr<sim::ScriptedCard> card;
    CK_SESSION_HANDLE session = 0;
};

} // namespace velt_test::world
