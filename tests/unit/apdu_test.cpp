// One exchange: how each status word is judged, which commands follow and with what room, what a
// failed transmission leaves, and which session handles reach a card at all.
#include "tests/support/exchange_world.h"

#include <array>
#include <cstdint>
#include <vector>

namespace velt_test::world {
namespace {

// First status bytes that announce more data. They are found by bit tests, so more of them pass
// than the 61 of ISO 7816: 63 Cx, the usual answer to a wrong PIN, is one.
constexpr std::array<std::uint8_t, 12> MORE_DATA{0x61, 0x63, 0x65, 0x71, 0x73, 0x75,
                                                 0xE1, 0xE3, 0xE5, 0xF1, 0xF3, 0xF5};
constexpr std::array<std::uint8_t, 7> SECOND_BYTES{0x00, 0x01, 0x10, 0x69, 0x90, 0xC2, 0xFF};

bool announcesMore(std::uint8_t sw1)
{
    return std::find(MORE_DATA.begin(), MORE_DATA.end(), sw1) != MORE_DATA.end();
}

std::uint64_t swapped(std::uint8_t sw1, std::uint8_t sw2)
{
    return static_cast<std::uint64_t>(sw1 + sw2 * 256);
}

class ApduTest : public ExchangeWorld {};

TEST_F(ApduTest, SuccessLeavesTheReplyAndItsLength)
{
    answer("01 02 03 04 05 90 00");
    EXPECT_EQ(0U, ask(34));
    EXPECT_EQ(hex("01 02 03 04 05 90 00"), reply());
    EXPECT_TRUE(untouchedFrom(7));
    EXPECT_EQ(0U, recorded());
    EXPECT_EQ((std::vector<Sent>{{ASK, 34}}), sent());
    EXPECT_TRUE(collectionIsClear());
}

TEST_F(ApduTest, EveryFirstStatusByteThatIsNoMoreDataEndsTheExchangeWithItsStatus)
{
    for (unsigned sw1 = 0; sw1 < 0x100; ++sw1) {
        for (const std::uint8_t sw2 : SECOND_BYTES) {
            const auto first = static_cast<std::uint8_t>(sw1);
            if (announcesMore(first) || (first == 0x90 && sw2 == 0x00)) {
                continue;
            }
            SCOPED_TRACE(sim::toHex(Bytes{first, sw2}));
            forgetSent();
            entry(session).deviceError = OLD_ERROR;
            answer(Bytes{0xAB, first, sw2});
            EXPECT_EQ(swapped(first, sw2), ask());
            EXPECT_EQ(swapped(first, sw2), recorded());
            EXPECT_EQ((std::vector<Sent>{{ASK, 258}}), sent());
            EXPECT_EQ((Bytes{0xAB, first, sw2}), reply());
            EXPECT_TRUE(collectionIsClear());
        }
    }
}

TEST_F(ApduTest, EveryFirstStatusByteOfMoreDataFetchesTheLengthInTheSecond)
{
    for (const std::uint8_t sw1 : MORE_DATA) {
        for (const std::uint8_t sw2 : SECOND_BYTES) {
            SCOPED_TRACE(sim::toHex(Bytes{sw1, sw2}));
            forgetSent();
            entry(session).deviceError = OLD_ERROR;
            const Bytes data = ramp(sw2 == 0 ? 256 : sw2, sw1);
            answer(Bytes{sw1, sw2});
            answerMore(sw2, join(data, hex("90 00")));
            EXPECT_EQ(0U, ask(2));
            EXPECT_EQ((std::vector<Sent>{{ASK, 2}, getResponse(sw2)}), sent());
            EXPECT_EQ(join(data, hex("90 00")), reply());
            EXPECT_EQ(0U, recorded());
            EXPECT_TRUE(collectionIsClear());
        }
    }
}

TEST_F(ApduTest, ExactlyTwelveFirstBytesAskForMore)
{
    std::vector<std::uint8_t> asked;
    for (unsigned sw1 = 0; sw1 < 0x100; ++sw1) {
        forgetSent();
        sim::pcsc::replyNth(1, Bytes{static_cast<std::uint8_t>(sw1), 0x05});
        sim::pcsc::replyNth(2, hex("6F 00"));
        ask();
        if (sent().size() == 2) {
            asked.push_back(static_cast<std::uint8_t>(sw1));
        }
        sim::pcsc::clearPlans();
    }
    EXPECT_EQ(std::vector<std::uint8_t>(MORE_DATA.begin(), MORE_DATA.end()), asked);
}

TEST_F(ApduTest, AZeroSecondByteAsksFor256)
{
    answer("61 00");
    answerMore(0x00, join(ramp(256), hex("90 00")));
    EXPECT_EQ(0U, ask(2));
    EXPECT_EQ((std::vector<Sent>{{ASK, 2}, {hex("00 C0 00 00 00"), 258}}), sent());
    EXPECT_EQ(join(ramp(256), hex("90 00")), reply());
}

TEST_F(ApduTest, TheLargestSecondByteAsksFor255)
{
    answer("61 FF");
    answerMore(0xFF, join(ramp(255), hex("90 00")));
    EXPECT_EQ(0U, ask(2));
    EXPECT_EQ((std::vector<Sent>{{ASK, 2}, {hex("00 C0 00 00 FF"), 257}}), sent());
}

TEST_F(ApduTest, AWrongPinStatusBecomesTheResultOfItsGetResponse)
{
    answer("63 C2");
    answerMore(0xC2, "6D 00");
    EXPECT_EQ(0x006DU, ask(2));
    EXPECT_EQ((std::vector<Sent>{{ASK, 2}, {hex("00 C0 00 00 C2"), 196}}), sent());
    EXPECT_EQ(0x006DU, recorded());
    EXPECT_EQ(hex("6D 00"), reply());
}

TEST_F(ApduTest, AWrongPinStatusWhoseGetResponseSucceedsIsASuccess)
{
    answer("63 C2");
    answerMore(0xC2, "90 00");
    EXPECT_EQ(0U, ask(2));
    EXPECT_EQ(0U, recorded());
}

TEST_F(ApduTest, AWrongLengthIsNotAskedAgain)
{
    answer("6C 20");
    EXPECT_EQ(0x206CU, ask());
    EXPECT_EQ((std::vector<Sent>{{ASK, 258}}), sent());
}

// Kept by the module: a failing status is returned as a number, and this one is 0.
TEST_F(ApduTest, AStatusOfTwoZeroBytesReadsAsSuccess)
{
    answer("11 22 00 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(0U, recorded());
    EXPECT_EQ(hex("11 22 00 00"), reply());
}

TEST_F(ApduTest, ALaterExchangeReplacesTheRecordedError)
{
    answer("6A 82");
    EXPECT_EQ(0x826AU, ask());
    EXPECT_EQ(0x826AU, recorded());
    answer("90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(0U, recorded());
}

TEST_F(ApduTest, BytesBehindAShortReplyKeepWhatEarlierExchangesLeft)
{
    answer("01 02 03 04 05 06 07 08 90 00");
    ASSERT_EQ(0U, ask());
    answer("6A 82");
    EXPECT_EQ(0x826AU, ask());
    EXPECT_EQ(2U, dwReplyLen);
    const Bytes start(pbyOutput.begin(), pbyOutput.begin() + 12);
    EXPECT_EQ(hex("6A 82 03 04 05 06 07 08 90 00 A5 A5"), start);
}

TEST_F(ApduTest, TheCapacityIsWhatTheCallerExpectsUpToTheBuffer)
{
    for (const std::uint64_t capacity : {2U, 4U, 22U, 258U, 2049U, 2050U}) {
        answer("90 00");
        ask(capacity);
    }
    for (const std::uint64_t capacity :
         std::vector<std::uint64_t>{2051, 4096, 0xFFFFFFFF, 0x100000002, UINT64_MAX}) {
        answer("90 00");
        ask(capacity);
    }
    std::vector<unsigned long> capacities;
    for (const Sent& one : sent()) {
        capacities.push_back(one.capacity);
    }
    EXPECT_EQ((std::vector<unsigned long>{2, 4, 22, 258, 2049, 2050, 2050, 2050, 2050, 2050, 2050}),
              capacities);
}

TEST_F(ApduTest, TheLargestReplyFillsTheBuffer)
{
    const Bytes data = ramp(OUTPUT_SIZE - 2);
    answer(join(data, hex("90 00")));
    EXPECT_EQ(0U, ask(OUTPUT_SIZE));
    EXPECT_EQ(OUTPUT_SIZE, dwReplyLen);
    EXPECT_EQ(join(data, hex("90 00")), reply());
}

// Transmissions that fail.

TEST_F(ApduTest, AFailedTransmissionIsReturnedAndNotRecorded)
{
    for (const LONG failure : {SCARD_E_NO_SMARTCARD, SCARD_W_REMOVED_CARD, SCARD_W_RESET_CARD,
                               SCARD_F_COMM_ERROR, SCARD_E_NO_SERVICE}) {
        forgetSent();
        entry(session).deviceError = OLD_ERROR;
        sim::pcsc::failNth(sim::pcsc::Function::Transmit, 1, failure);
        EXPECT_EQ(code(failure), ask());
        EXPECT_EQ(OLD_ERROR, recorded());
        EXPECT_EQ(1U, sent().size());
        EXPECT_TRUE(untouchedFrom(0));
        EXPECT_TRUE(collectionIsClear());
    }
}

TEST_F(ApduTest, AFailedTransmissionInsideAChainIsRecorded)
{
    answer("AA BB 61 02");
    sim::pcsc::failNth(sim::pcsc::Function::Transmit, 2, SCARD_F_COMM_ERROR);
    EXPECT_EQ(code(SCARD_F_COMM_ERROR), ask());
    EXPECT_EQ(code(SCARD_F_COMM_ERROR), recorded());
    EXPECT_EQ((std::vector<Sent>{{ASK, 258}, getResponse(2)}), sent());
    EXPECT_EQ(hex("AA BB"), collected());
}

TEST_F(ApduTest, AFailedTransmissionDeepInsideAChainIsRecorded)
{
    answer("61 02");
    answerMore(2, "AA BB 61 03");
    sim::pcsc::failNth(sim::pcsc::Function::Transmit, 3, SCARD_W_REMOVED_CARD);
    EXPECT_EQ(code(SCARD_W_REMOVED_CARD), ask());
    EXPECT_EQ(code(SCARD_W_REMOVED_CARD), recorded());
    EXPECT_EQ(3U, sent().size());
    EXPECT_EQ(hex("AA BB"), collected());
}

TEST_F(ApduTest, AReplyTooLongForItsRoomIsATransmissionFailure)
{
    answer("01 02 03 90 00");
    EXPECT_EQ(code(SCARD_E_INSUFFICIENT_BUFFER), ask(4));
    EXPECT_EQ(OLD_ERROR, recorded());
    EXPECT_TRUE(untouchedFrom(4));
}

TEST_F(ApduTest, ALengthBeyondTheBufferIsNeverBelieved)
{
    answer(join(ramp(4000), hex("90 00")));
    EXPECT_EQ(code(SCARD_E_INSUFFICIENT_BUFFER), ask(OUTPUT_SIZE));
    EXPECT_LE(velt::replyData().size(), OUTPUT_SIZE);
    EXPECT_EQ(code(SCARD_E_INVALID_HANDLE), velt::exchange(0, ASK, 65538));
    EXPECT_LE(velt::replyData().size(), OUTPUT_SIZE);
    answer("01 90 00");
    EXPECT_EQ(0U, velt::exchangeAsIs(session, ASK));
    EXPECT_LE(sent().back().capacity, OUTPUT_SIZE);
    EXPECT_EQ(hex("01 90 00"), reply());
}

TEST_F(ApduTest, AReplyWithoutAStatusIsAProtocolMismatch)
{
    for (const Bytes& stub : {Bytes{}, Bytes{0x90}, Bytes{0x61}}) {
        SCOPED_TRACE(stub.size());
        forgetSent();
        sim::pcsc::replyNth(1, stub);
        EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
        EXPECT_EQ(OLD_ERROR, recorded());
        EXPECT_EQ(1U, sent().size());
        EXPECT_TRUE(collectionIsClear());
    }
}

TEST_F(ApduTest, AReplyWithoutAStatusIsJudgedByItselfNotByWhatStoodInTheBuffer)
{
    answer("90 00");
    ASSERT_EQ(0U, ask());
    sim::pcsc::replyNth(1, {});
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
}

TEST_F(ApduTest, AReplyWithoutAStatusInsideAChainIsRecorded)
{
    for (const Bytes& stub : {Bytes{}, Bytes{0x90}}) {
        SCOPED_TRACE(stub.size());
        forgetSent();
        entry(session).deviceError = OLD_ERROR;
        answer("61 05");
        sim::pcsc::replyNth(2, stub);
        EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
        EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), recorded());
        EXPECT_EQ((std::vector<Sent>{{ASK, 258}, getResponse(5)}), sent());
    }
}

TEST_F(ApduTest, AReplyWithoutAStatusAtTheEndOfALongChainIsRecorded)
{
    answer("01 61 01");
    answerMore(1, "02 61 01");
    sim::pcsc::replyNth(3, Bytes{0x00});
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), recorded());
    EXPECT_EQ(hex("01 02"), collected());
}

// Session handles.

TEST_F(ApduTest, HandleZeroSendsNothing)
{
    EXPECT_EQ(code(SCARD_E_INVALID_HANDLE), askOn(0));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(untouchedFrom(0));
}

TEST_F(ApduTest, HandlesBeyondTheTableSendNothing)
{
    for (const CK_SESSION_HANDLE handle :
         std::vector<CK_SESSION_HANDLE>{sessCount + 1, sessCount + 2, 1000000, UINT64_MAX}) {
        EXPECT_EQ(code(SCARD_E_INVALID_HANDLE), askOn(handle));
    }
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(OLD_ERROR, recorded());
}

TEST_F(ApduTest, AClosedSessionIsUsedAsItStands)
{
    const SCARDHANDLE connection = entry(session).hCard;
    ASSERT_EQ(CKR_OK, VELT_CloseSession(session));
    forgetSent();
    EXPECT_EQ(code(SCARD_E_INVALID_HANDLE), ask());
    const auto calls = sim::pcsc::calls(sim::pcsc::Function::Transmit);
    ASSERT_EQ(1U, calls.size()) << "the reader service refuses the connection, not the module";
    EXPECT_EQ(static_cast<unsigned long>(connection), calls[0].card);
    EXPECT_EQ(ASK, calls[0].sent);
    EXPECT_EQ(OLD_ERROR, recorded());
}

TEST_F(ApduTest, AClosedSessionWhoseConnectionAnswersIsServed)
{
    entry(session).isOpen = 0;
    answer("6A 82");
    EXPECT_EQ(0x826AU, ask());
    EXPECT_EQ(0x826AU, recorded());
    entry(session).isOpen = 1;
}

TEST_F(ApduTest, ASessionFromBeforeFinalizeSendsNothing)
{
    handOver();
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    sim::pcsc::clearCalls();
    EXPECT_EQ(code(SCARD_E_INVALID_HANDLE), ask());
    EXPECT_EQ(0U, sim::pcsc::callCount());
}

TEST_F(ApduTest, ASessionFromBeforeFinalizeSendsNothingBesideANewOne)
{
    handOver();
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    ASSERT_NO_FATAL_FAILURE(start(card));
    const CK_SESSION_HANDLE later = open();
    EXPECT_EQ(session + 1, later);
    forgetSent();
    EXPECT_EQ(code(SCARD_E_INVALID_HANDLE), ask());
    EXPECT_TRUE(sent().empty());
    answer("90 00");
    EXPECT_EQ(0U, askOn(later));
}

TEST_F(ApduTest, AnEntryWithoutASendPciSendsNothing)
{
    entry(session).pioSendPci = nullptr;
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(OLD_ERROR, recorded());
}

TEST_F(ApduTest, EachSessionHasItsOwnErrorAndConnection)
{
    const CK_SESSION_HANDLE other = open();
    entry(other).deviceError = 0x1234;
    forgetSent();
    answer("6A 82");
    EXPECT_EQ(0x826AU, ask());
    EXPECT_EQ(0x1234U, entry(other).deviceError);
    answer("69 82");
    EXPECT_EQ(0x8269U, askOn(other));
    EXPECT_EQ(0x826AU, recorded());
    EXPECT_EQ(0x8269U, entry(other).deviceError);
    const auto calls = sim::pcsc::calls(sim::pcsc::Function::Transmit);
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(static_cast<unsigned long>(entry(session).hCard), calls[0].card);
    EXPECT_EQ(static_cast<unsigned long>(entry(other).hCard), calls[1].card);
    EXPECT_NE(calls[0].card, calls[1].card);
}

} // namespace
} // namespace velt_test::world
