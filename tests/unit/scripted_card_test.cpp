#include "sim/cards/scripted_card.h"

#include <gtest/gtest.h>

using sim::Bytes;
using sim::hex;
using sim::ScriptedCard;
using sim::toHex;

namespace {

TEST(Hexadecimal, IsReadInEitherCaseWithBlanks)
{
    EXPECT_EQ(hex("00 a4\tFf\n09"), (Bytes{0x00, 0xA4, 0xFF, 0x09}));
    EXPECT_EQ(hex("0 0A 4"), (Bytes{0x00, 0xA4}));
    EXPECT_EQ(hex(""), Bytes());
}

TEST(Hexadecimal, IsWrittenInUpperCaseWithoutBlanks)
{
    EXPECT_EQ(toHex(Bytes{0x00, 0xA4, 0xFF, 0x09}), "00A4FF09");
    EXPECT_EQ(toHex(Bytes()), "");
}

TEST(HexadecimalDeathTest, EndsTheProgramForAnythingElse)
{
    EXPECT_DEATH(hex("0G"), "not hexadecimal: \"0G\"");
    EXPECT_DEATH(hex("00:A4"), "not hexadecimal");
    EXPECT_DEATH(hex("00A"), "half a byte: \"00A\"");
}

ScriptedCard twoSteps()
{
    ScriptedCard card(hex("3B021450"), 2, {{hex("00A40000"), hex("6110")}});
    card.expect("00 C0 00 00 10", "AA BB 90 00");
    return card;
}

TEST(ScriptedCard, HasTheAtrAndProtocolItWasGiven)
{
    const ScriptedCard card = twoSteps();
    EXPECT_EQ(card.atr(), hex("3B021450"));
    EXPECT_EQ(card.protocol(), 2u);
}

TEST(ScriptedCard, AnswersTheExpectedCommandsInOrder)
{
    ScriptedCard card = twoSteps();
    EXPECT_EQ(card.transmit(hex("00A40000")), hex("6110"));
    card.reset();
    EXPECT_EQ(card.transmit(hex("00C0000010")), hex("AABB9000"));
    EXPECT_EQ(card.verdict(), "");
}

TEST(ScriptedCard, AnswersWithWhateverTheScriptHolds)
{
    ScriptedCard card(hex("3B00"), 1);
    card.expect(hex("00A40000"), Bytes());
    EXPECT_EQ(card.transmit(hex("00A40000")), Bytes());
    EXPECT_EQ(card.verdict(), "");
}

TEST(ScriptedCard, RefusesAnyOtherCommandAndWaitsForTheRightOne)
{
    for (const char* command : {"00A40001", "00A4000000", "00A400", "", "00C0000010"}) {
        ScriptedCard card = twoSteps();
        EXPECT_EQ(card.transmit(hex(command)), hex("6F00"));
        EXPECT_EQ(card.transmit(hex("00A40000")), hex("6110"));
        EXPECT_EQ(card.transmit(hex("00C0000010")), hex("AABB9000"));
        EXPECT_EQ(card.verdict(), "step 1: asked " + std::string(command) + ", expected 00A40000");
    }
}

TEST(ScriptedCard, NamesTheFirstFaultOnly)
{
    ScriptedCard card = twoSteps();
    card.transmit(hex("00A40000"));
    card.transmit(hex("00B0000000"));
    card.transmit(hex("00B0000001"));
    EXPECT_EQ(card.verdict(), "step 2: asked 00B0000000, expected 00C0000010");
}

TEST(ScriptedCard, NamesACommandAfterTheEnd)
{
    ScriptedCard card(hex("3B00"), 1);
    EXPECT_EQ(card.verdict(), "");
    EXPECT_EQ(card.transmit(hex("00A40000")), hex("6F00"));
    EXPECT_EQ(card.verdict(), "step 1: asked 00A40000, expected nothing");
}

TEST(ScriptedCard, NamesAStepThatWasNotAsked)
{
    ScriptedCard card = twoSteps();
    EXPECT_EQ(card.verdict(), "step 1 of 2 was not asked: 00A40000");
    card.transmit(hex("00A40000"));
    EXPECT_EQ(card.verdict(), "step 2 of 2 was not asked: 00C0000010");
}

} // namespace
