// Replies in pieces: how they are put together, what a broken chain leaves to the next exchange,
// and where the collection and the number of pieces end.
#include "tests/support/exchange_world.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace velt_test::world {
namespace {

constexpr std::size_t KEPT_DATA = COLLECTION_SIZE - 2; // data that leaves room for 90 00
constexpr std::size_t MAX_GET_RESPONSES = 1024;

class ApduChainTest : public ExchangeWorld {
protected:
    // The card delivers `data` in pieces of at most `piece` bytes and ends with 90 00.
    void deliver(const Bytes& data, std::size_t piece = 256)
    {
        std::size_t position = 0;
        std::uint8_t announced = 0;
        for (bool first = true; first || position < data.size(); first = false) {
            const std::size_t size = std::min(piece, data.size() - position);
            Bytes part(data.begin() + static_cast<std::ptrdiff_t>(position),
                       data.begin() + static_cast<std::ptrdiff_t>(position + size));
            position += size;
            const std::size_t rest = std::min(piece, data.size() - position);
            const auto next = static_cast<std::uint8_t>(rest);
            part = join(part, rest == 0 ? hex("90 00") : Bytes{0x61, next});
            if (first) {
                answer(part);
            } else {
                answerMore(announced, part);
            }
            announced = next;
        }
    }

    // A chain of `data` that the card breaks off with 6F 00.
    void breakChainAfter(const Bytes& data)
    {
        answer(join(data, hex("61 05")));
        answerMore(5, "6F 00");
        ASSERT_EQ(0x006FU, ask());
        ASSERT_EQ(data, collected());
        forgetSent();
    }

    static Bytes firstOf(const Bytes& data, std::size_t count)
    {
        return {data.begin(),
                data.begin() + static_cast<std::ptrdiff_t>(std::min(count, data.size()))};
    }
};

TEST_F(ApduChainTest, TwoPiecesBecomeOneReply)
{
    answer("01 02 03 04 05 61 08");
    answerMore(8, "11 12 13 14 15 16 17 18 90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ((std::vector<Sent>{{ASK, 258}, {hex("00 C0 00 00 08"), 10}}), sent());
    EXPECT_EQ(15U, dwReplyLen);
    EXPECT_EQ(hex("01 02 03 04 05 11 12 13 14 15 16 17 18 90 00"), reply());
    EXPECT_TRUE(untouchedFrom(15));
    EXPECT_TRUE(collectionIsClear());
    EXPECT_EQ(0U, recorded());
}

TEST_F(ApduChainTest, EveryFirstByteOfMoreDataCountsInsideAChain)
{
    const std::vector<std::uint8_t> firsts{0x61, 0x63, 0x65, 0x71, 0x73, 0x75,
                                           0xE1, 0xE3, 0xE5, 0xF1, 0xF3, 0xF5};
    Bytes expected;
    std::vector<Sent> commands{{ASK, 258}};
    for (std::size_t i = 0; i < firsts.size(); ++i) {
        const auto le = static_cast<std::uint8_t>(i + 2);
        const Bytes part{static_cast<std::uint8_t>(0x40 + i), firsts[i], le};
        expected.push_back(part[0]);
        if (i == 0) {
            answer(part);
        } else {
            answerMore(static_cast<std::uint8_t>(i + 1), part);
        }
        commands.push_back(getResponse(le));
    }
    answerMore(static_cast<std::uint8_t>(firsts.size() + 1), "50 90 00");
    expected = join(expected, hex("50 90 00"));
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(commands, sent());
    EXPECT_EQ(expected, reply());
}

TEST_F(ApduChainTest, TheLastPieceMayBringTheStatusAlone)
{
    answer("01 02 61 00");
    answerMore(0, "90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(hex("01 02 90 00"), reply());
}

TEST_F(ApduChainTest, ATokenOfProtocolT0AnnouncesFirstAndDeliversInTwoPieces)
{
    const Bytes data = ramp(271);
    answer("61 00");
    answerMore(0, join(firstOf(data, 256), hex("61 0F")));
    answerMore(0x0F, join(Bytes(data.begin() + 256, data.end()), hex("90 00")));
    EXPECT_EQ(0U, ask(2));
    EXPECT_EQ((std::vector<Sent>{{ASK, 2}, getResponse(0), {hex("00 C0 00 00 0F"), 17}}), sent());
    EXPECT_EQ(273U, dwReplyLen);
    EXPECT_EQ(join(data, hex("90 00")), reply());
}

TEST_F(ApduChainTest, AnAnnouncementWithoutDataInTheMiddleDropsThePiecesBefore)
{
    answer("01 02 03 61 04");
    answerMore(4, "61 05");
    answerMore(5, "11 12 13 14 15 90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ((std::vector<Sent>{{ASK, 258}, getResponse(4), getResponse(5)}), sent());
    EXPECT_EQ(hex("11 12 13 14 15 90 00"), reply());
    EXPECT_TRUE(collectionIsClear());
}

// What a broken chain leaves.

TEST_F(ApduChainTest, AnErrorLeavesThePiecesCollected)
{
    answer("AA BB CC 61 05");
    answerMore(5, "6F 00");
    EXPECT_EQ(0x006FU, ask());
    EXPECT_EQ(0x006FU, recorded());
    EXPECT_EQ(hex("6F 00"), reply());
    EXPECT_EQ(hex("AA BB CC"), collected());
}

TEST_F(ApduChainTest, DataOfTheAnswerThatBreaksTheChainIsNotCollected)
{
    answer("AA BB CC 61 05");
    answerMore(5, "DD EE 69 82");
    EXPECT_EQ(0x8269U, ask());
    EXPECT_EQ(hex("DD EE 69 82"), reply());
    EXPECT_EQ(hex("AA BB CC"), collected());
}

TEST_F(ApduChainTest, APlainSuccessTakesAlongWhatABrokenChainLeft)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    answer("01 02 90 00");
    EXPECT_EQ(0U, ask(22));
    EXPECT_EQ((std::vector<Sent>{{ASK, 22}}), sent());
    EXPECT_EQ(7U, dwReplyLen);
    EXPECT_EQ(hex("AA BB CC 01 02 90 00"), reply());
    EXPECT_TRUE(collectionIsClear());
}

TEST_F(ApduChainTest, APlainSuccessWithoutDataTakesItAlongToo)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    answer("90 00");
    EXPECT_EQ(0U, ask(2));
    EXPECT_EQ(hex("AA BB CC 90 00"), reply());
    answer("90 00");
    EXPECT_EQ(0U, ask(2));
    EXPECT_EQ(hex("90 00"), reply()) << "only once";
}

TEST_F(ApduChainTest, TheNextChainOfPiecesIsPrefixedWithWhatABrokenOneLeft)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    answer("01 61 01");
    answerMore(1, "02 90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(hex("AA BB CC 01 02 90 00"), reply());
    EXPECT_TRUE(collectionIsClear());
}

TEST_F(ApduChainTest, AnAnnouncementWithoutDataClearsWhatABrokenChainLeft)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    answer("61 02");
    answerMore(2, "01 02 90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(hex("01 02 90 00"), reply());
    EXPECT_TRUE(collectionIsClear());
}

TEST_F(ApduChainTest, AnAnnouncementWithoutDataClearsEvenIfTheChainFails)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    answer("63 C1");
    answerMore(0xC1, "6D 00");
    EXPECT_EQ(0x006DU, ask());
    EXPECT_TRUE(collectionIsClear());
}

TEST_F(ApduChainTest, AFailingAnswerDoesNotTouchWhatABrokenChainLeft)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    answer("6A 82");
    EXPECT_EQ(0x826AU, ask());
    EXPECT_EQ(hex("6A 82"), reply());
    EXPECT_EQ(hex("AA BB CC"), collected());
    answer("01 90 01");
    EXPECT_EQ(0x0190U, ask()) << "a warning in the 9x range is a failure as well";
    EXPECT_EQ(hex("AA BB CC"), collected());
}

TEST_F(ApduChainTest, AStatusOfTwoZeroBytesDoesNotEndAChain)
{
    answer("AA 61 01");
    answerMore(1, "BB 00 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(hex("BB 00 00"), reply());
    EXPECT_EQ(hex("AA"), collected());
}

TEST_F(ApduChainTest, SuccessiveBrokenChainsAddUp)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB")));
    answer("CC 61 05");
    answerMore(5, "6F 00");
    EXPECT_EQ(0x006FU, ask());
    EXPECT_EQ(hex("AA BB CC"), collected());
}

TEST_F(ApduChainTest, WhatOneSessionLeftReachesAnother)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    const CK_SESSION_HANDLE other = open();
    answer("01 90 00");
    EXPECT_EQ(0U, askOn(other));
    EXPECT_EQ(hex("AA BB CC 01 90 00"), reply());
}

TEST_F(ApduChainTest, WhatABrokenChainLeftSurvivesFinalize)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    handOver();
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    ASSERT_NO_FATAL_FAILURE(start(card));
    const CK_SESSION_HANDLE later = open();
    answer("01 90 00");
    EXPECT_EQ(0U, askOn(later));
    EXPECT_EQ(hex("AA BB CC 01 90 00"), reply());
}

TEST_F(ApduChainTest, AFailedTransmissionKeepsWhatWasCollected)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    sim::pcsc::failNth(sim::pcsc::Function::Transmit, 1, SCARD_F_COMM_ERROR);
    EXPECT_EQ(code(SCARD_F_COMM_ERROR), ask());
    EXPECT_EQ(hex("AA BB CC"), collected());
}

// Bounds.

TEST_F(ApduChainTest, TheCollectionHolds510BytesOfDataAndTheStatus)
{
    for (const std::size_t total : {257U, 509U, 510U, 511U, 512U, 513U, 514U, 600U, 768U, 2000U}) {
        SCOPED_TRACE(total);
        pbyOutput.fill(SENTINEL);
        const Bytes data = ramp(total);
        deliver(data);
        EXPECT_EQ(0U, ask());
        EXPECT_EQ(join(firstOf(data, KEPT_DATA), hex("90 00")), reply());
        EXPECT_TRUE(untouchedFrom(COLLECTION_SIZE));
        EXPECT_TRUE(collectionIsClear());
        EXPECT_EQ(0U, recorded());
    }
}

TEST_F(ApduChainTest, EverySplitOfAFullCollectionGivesTheSameReply)
{
    const Bytes data = ramp(KEPT_DATA + 3);
    for (const std::size_t piece : {13U, 100U, 171U, 255U, 256U}) {
        SCOPED_TRACE(piece);
        deliver(data, piece);
        EXPECT_EQ(0U, ask());
        EXPECT_EQ(join(firstOf(data, KEPT_DATA), hex("90 00")), reply());
    }
}

TEST_F(ApduChainTest, AFullCollectionStillTakesTheStatus)
{
    const Bytes data = ramp(512);
    answer(join(firstOf(data, 256), hex("61 00")));
    answerMore(0, join(Bytes(data.begin() + 256, data.end()), hex("61 05")));
    answerMore(5, "90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(join(firstOf(data, KEPT_DATA), hex("90 00")), reply());
}

TEST_F(ApduChainTest, ABrokenChainBeyondTheCollectionStaysBounded)
{
    const Bytes data = ramp(768);
    answer(join(firstOf(data, 256), hex("61 00")));
    answerMore(0, join(Bytes(data.begin() + 256, data.begin() + 512), hex("61 00")));
    answerMore(0, join(Bytes(data.begin() + 512, data.end()), hex("61 00")));
    answerMore(0, "6F 00");
    EXPECT_EQ(0x006FU, ask());
    const Bytes kept = collected(); // holds the bound itself
    EXPECT_GE(kept.size(), KEPT_DATA);
    EXPECT_EQ(firstOf(data, kept.size()), kept);
    answer("01 02 90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(join(firstOf(data, KEPT_DATA), hex("90 00")), reply());
}

TEST_F(ApduChainTest, ALongPlainReplyBehindABrokenChainIsCutToTheCollection)
{
    ASSERT_NO_FATAL_FAILURE(breakChainAfter(hex("AA BB CC")));
    const Bytes data = ramp(1000);
    answer(join(data, hex("90 00")));
    EXPECT_EQ(0U, ask(OUTPUT_SIZE));
    EXPECT_EQ(join(join(hex("AA BB CC"), firstOf(data, KEPT_DATA - 3)), hex("90 00")), reply());
}

TEST_F(ApduChainTest, ALongPlainReplyAloneIsNotCut)
{
    const Bytes data = ramp(2000);
    answer(join(data, hex("90 00")));
    EXPECT_EQ(0U, ask(OUTPUT_SIZE));
    EXPECT_EQ(join(data, hex("90 00")), reply());
}

TEST_F(ApduChainTest, ALongFirstPieceIsCutToTheCollection)
{
    const Bytes data = ramp(1000);
    answer(join(data, hex("61 02")));
    answerMore(2, "01 02 90 00");
    EXPECT_EQ(0U, ask(OUTPUT_SIZE));
    EXPECT_EQ(join(firstOf(data, KEPT_DATA), hex("90 00")), reply());
}

// Answers ASK and every GET RESPONSE with "61 01" or one byte and "61 01"; the n-th GET RESPONSE
// gets the last word.
class EndlessCard final : public sim::Card {
public:
    EndlessCard(std::size_t responses, bool withData) : responses_(responses), withData_(withData)
    {
    }
    Bytes atr() const override { return ID_CARD_ATR; }
    unsigned long protocol() const override { return 1; }
    void reset() override {}
    Bytes transmit(std::span<const std::uint8_t> /*command*/) override
    {
        const bool last = asked_++ == responses_;
        const Bytes data = withData_ ? ramp(1, asked_ - 1) : Bytes{};
        return join(data, last ? hex("90 00") : hex("61 01"));
    }

private:
    std::size_t responses_;
    bool withData_;
    std::size_t asked_ = 0;
};

class ApduChainLengthTest : public ApduChainTest {
protected:
    void meet(std::size_t responses, bool withData)
    {
        sim::pcsc::removeCard(READER);
        sim::pcsc::insertCard(READER, std::make_shared<EndlessCard>(responses, withData));
        session = open();
        entry(session).deviceError = OLD_ERROR;
        forgetSent();
    }
};

TEST_F(ApduChainLengthTest, AChainOf1023FetchesIsServed)
{
    meet(MAX_GET_RESPONSES - 1, false);
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(MAX_GET_RESPONSES, sent().size());
    EXPECT_EQ(hex("90 00"), reply());
    EXPECT_EQ(0U, recorded());
}

TEST_F(ApduChainLengthTest, AChainOf1024FetchesIsServed)
{
    meet(MAX_GET_RESPONSES, false);
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(MAX_GET_RESPONSES + 1, sent().size());
    EXPECT_EQ(hex("90 00"), reply());
    EXPECT_EQ(0U, recorded());
}

TEST_F(ApduChainLengthTest, AChainOf1024PiecesKeepsTheFirst510Bytes)
{
    meet(MAX_GET_RESPONSES, true);
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(join(ramp(KEPT_DATA), hex("90 00")), reply());
    EXPECT_TRUE(collectionIsClear());
}

TEST_F(ApduChainLengthTest, AChainOf1025FetchesIsGivenUp)
{
    meet(MAX_GET_RESPONSES + 1, false);
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
    EXPECT_EQ(MAX_GET_RESPONSES + 1, sent().size());
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), recorded());
    EXPECT_LE(dwReplyLen, OUTPUT_SIZE);
}

TEST_F(ApduChainLengthTest, ACardThatNeverEndsIsGivenUpAndCanBeAskedAgain)
{
    meet(1000000, true);
    for (int round = 0; round < 3; ++round) {
        forgetSent();
        EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
        EXPECT_EQ(MAX_GET_RESPONSES + 1, sent().size());
        EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), recorded());
        EXPECT_LE(ulTempLen, COLLECTION_SIZE);
    }
    sim::pcsc::replyNth(1, hex("01 90 00"));
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(join(ramp(KEPT_DATA), hex("90 00")), reply());
}

} // namespace
} // namespace velt_test::world
