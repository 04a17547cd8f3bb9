// What the exchange is made of: building a command, the transmission itself, reading the status,
// and the short forms that the token families use.
#include "tests/support/exchange_world.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace velt_test::world {
namespace {

using velt::ByteView;
using velt::Command;

Bytes bytesOf(ByteView view)
{
    return {view.begin(), view.end()};
}

class ApduCommandTest : public ExchangeWorld {
protected:
    // Another card in the reader, and the session on it.
    void meetCardOf(unsigned long protocol)
    {
        sim::pcsc::removeCard(READER);
        card = std::make_shared<sim::ScriptedCard>(ID_CARD_ATR, protocol);
        sim::pcsc::insertCard(READER, card);
        session = open();
        sim::pcsc::clearCalls();
    }
};

TEST_F(ApduCommandTest, ACommandIsItsHeaderAndWhatIsPut)
{
    Command command(0x00, 0xA4, 0x01, 0x0C);
    EXPECT_EQ(hex("00 A4 01 0C"), bytesOf(command.bytes()));
    command.put(0x02).put(hex("08 01"));
    EXPECT_EQ(hex("00 A4 01 0C 02 08 01"), bytesOf(command.bytes()));
    EXPECT_FALSE(command.overflowed());
}

TEST_F(ApduCommandTest, CountedBytesBringTheirLength)
{
    Command command(0x80, 0x20, 0xFF, 0x02);
    command.putCounted(hex("31 32 33 34")).put(0x00);
    EXPECT_EQ(hex("80 20 FF 02 04 31 32 33 34 00"), bytesOf(command.bytes()));
}

TEST_F(ApduCommandTest, NoBytesAreCountedAsZero)
{
    Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted(ByteView{});
    EXPECT_EQ(hex("00 88 02 00 00"), bytesOf(command.bytes()));
}

TEST_F(ApduCommandTest, TheLengthByteIsTheLowEightBitsOfTheLength)
{
    for (const std::size_t size : {1U, 255U, 256U, 257U, 300U, 511U, 512U, 4096U, 65535U}) {
        SCOPED_TRACE(size);
        const Bytes data = ramp(size);
        Command command(0x00, 0x88, 0x02, 0x00);
        command.putCounted(data);
        Bytes expected = hex("00 88 02 00");
        expected.push_back(static_cast<std::uint8_t>(size % 256));
        EXPECT_EQ(join(expected, data), bytesOf(command.bytes()));
        EXPECT_FALSE(command.overflowed());
    }
}

TEST_F(ApduCommandTest, ANewCommandOverwritesTheOneBefore)
{
    Command first(0x00, 0xA4, 0x00, 0x0C);
    first.putCounted(hex("3F 00"));
    const ByteView before = first.bytes();
    Command second(0x80, 0x20, 0x00, 0x02);
    EXPECT_EQ(before.data(), second.bytes().data());
    EXPECT_EQ(hex("80 20 00 02"), bytesOf(second.bytes()));
}

TEST_F(ApduCommandTest, TheLargestCommandFits)
{
    const Bytes data = ramp(velt::MAX_COMMAND_DATA);
    Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted(data);
    EXPECT_FALSE(command.overflowed());
    EXPECT_EQ(65548U, command.bytes().size());
    EXPECT_EQ(data.back(), command.bytes().back());
}

TEST_F(ApduCommandTest, CountedBytesThatDoNotFitAreLeftOut)
{
    Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted(ramp(velt::MAX_COMMAND_DATA + 1));
    EXPECT_TRUE(command.overflowed());
    EXPECT_LE(command.bytes().size(), velt::HEADER_SIZE);
}

TEST_F(ApduCommandTest, BytesThatDoNotFitWriteNothing)
{
    Command command(0x00, 0x88, 0x02, 0x00);
    command.put(ramp(velt::COMMAND_SIZE - 4));
    EXPECT_FALSE(command.overflowed());
    const Bytes full = bytesOf(command.bytes());
    EXPECT_EQ(velt::COMMAND_SIZE, full.size());
    command.put(0x77);
    EXPECT_TRUE(command.overflowed());
    EXPECT_EQ(full, bytesOf(command.bytes()));
}

TEST_F(ApduCommandTest, BytesAreTurnedRoundAndRepeated)
{
    Command command(0x00, 0x2A, 0x9E, 0x9A);
    command.putTurned(hex("01 02 03")).putTurned(ByteView{});
    command.putRepeated(0xFF, 4).putRepeated(0xEE, 0).put(0x05);
    EXPECT_FALSE(command.overflowed());
    EXPECT_EQ(hex("00 2A 9E 9A 03 02 01 FF FF FF FF 05"), bytesOf(command.bytes()));
}

TEST_F(ApduCommandTest, TurnedAndRepeatedBytesThatDoNotFitWriteNothing)
{
    for (const bool turned : {false, true}) {
        Command command(0x00, 0x2A, 0x9E, 0x9A);
        command.put(ramp(velt::COMMAND_SIZE - 6));
        const Bytes before = bytesOf(command.bytes());
        turned ? command.putTurned(hex("01 02 03")) : command.putRepeated(0xFF, 3);
        EXPECT_TRUE(command.overflowed());
        EXPECT_EQ(before, bytesOf(command.bytes()));
    }
}

TEST_F(ApduCommandTest, ACommandThatOverflowedOnceStaysMarked)
{
    Command command(0x00, 0x88, 0x02, 0x00);
    command.put(ramp(velt::COMMAND_SIZE));
    command.put(0x01);
    EXPECT_TRUE(command.overflowed());
    EXPECT_FALSE(Command(0x00, 0xB0, 0x00, 0x00).overflowed()) << "the next one is not";
}

TEST_F(ApduCommandTest, AMarkedCommandIsNotSent)
{
    Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted(ramp(velt::MAX_COMMAND_DATA + 1));
    EXPECT_EQ(code(SCARD_E_INVALID_PARAMETER), velt::exchange(session, command, 258));
    EXPECT_EQ(code(SCARD_E_INVALID_PARAMETER), velt::exchangeAsIs(session, command));
    EXPECT_TRUE(sent().empty());
}

TEST_F(ApduCommandTest, AWipedCommandLeavesNoByteBehind)
{
    Command command(0x00, 0x20, 0x00, 0x02);
    command.putCounted(hex("31 32 33 34 30 30 30 30"));
    const ByteView view = command.bytes();
    ASSERT_EQ(13U, view.size());
    command.wipe();
    EXPECT_EQ(Bytes(13, 0x00), bytesOf(view));
}

TEST_F(ApduCommandTest, ALongPinIsWipedToItsEnd)
{
    Command command(0x00, 0x20, 0x00, 0x02);
    command.putCounted(Bytes(60000, 0x39));
    const ByteView view = command.bytes();
    command.wipe();
    EXPECT_EQ(Bytes(60005, 0x00), bytesOf(view));
}

// The short forms.

TEST_F(ApduCommandTest, ExchangeSendsWithItsCapacity)
{
    answer("01 02 90 00");
    EXPECT_EQ(0U, velt::exchange(session, ASK, 4));
    EXPECT_EQ((std::vector<Sent>{{ASK, 4}}), sent());
    EXPECT_EQ(hex("01 02 90 00"), reply());
}

TEST_F(ApduCommandTest, ExchangeOfABuiltCommandSendsItsBytes)
{
    card->expect("00 A4 00 0C 02 3F 00", "6A 82");
    Command select(0x00, 0xA4, 0x00, 0x0C);
    select.putCounted(hex("3F 00"));
    EXPECT_EQ(0x826AU, velt::exchange(session, select, 2));
    EXPECT_EQ((std::vector<Sent>{{hex("00 A4 00 0C 02 3F 00"), 2}}), sent());
    EXPECT_EQ(0x826AU, recorded());
}

TEST_F(ApduCommandTest, ExchangeNeverGivesMoreRoomThanThereIs)
{
    answer("90 00");
    EXPECT_EQ(0U, velt::exchange(session, ASK, 65538));
    EXPECT_EQ((std::vector<Sent>{{ASK, 2050}}), sent());
}

TEST_F(ApduCommandTest, ExchangeAsIsUsesThePreviousReplysLength)
{
    answer("01 02 03 04 05 90 00");
    ASSERT_EQ(0U, velt::exchange(session, ASK, 258));
    answer("90 00");
    EXPECT_EQ(0U, velt::exchangeAsIs(session, ASK));
    const Bytes update = hex("00 D6 00 00 02 00 00");
    card->expect(update, hex("90 00"));
    Command command(0x00, 0xD6, 0x00, 0x00);
    command.putCounted(hex("00 00"));
    EXPECT_EQ(0U, velt::exchangeAsIs(session, command));
    EXPECT_EQ((std::vector<Sent>{{ASK, 258}, {ASK, 7}, {update, 2}}), sent());
}

TEST_F(ApduCommandTest, ExchangeAsIsFollowsAJoinedReply)
{
    answer("01 02 61 02");
    answerMore(2, "03 04 90 00");
    ASSERT_EQ(0U, velt::exchange(session, ASK, 258));
    answer("90 00");
    EXPECT_EQ(0U, velt::exchangeAsIs(session, ASK));
    EXPECT_EQ((Sent{ASK, 6}), sent().back());
}

TEST_F(ApduCommandTest, TheLongestCommandReachesTheCardWhole)
{
    const Bytes data = ramp(velt::MAX_COMMAND_DATA);
    Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted(data);
    const Bytes whole = bytesOf(command.bytes());
    card->expect(whole, hex("90 00"));
    EXPECT_EQ(0U, velt::exchange(session, command, 258));
    ASSERT_EQ(1U, sent().size());
    EXPECT_EQ(whole, sent()[0].command);
}

TEST_F(ApduCommandTest, ReplyDataIsTheReplyWithoutItsStatus)
{
    answer("01 02 03 6A 82");
    EXPECT_EQ(0x826AU, ask());
    EXPECT_EQ(hex("01 02 03"), bytesOf(velt::replyData()));
    EXPECT_EQ(pbyOutput.data(), velt::replyData().data());
    answer("90 00");
    EXPECT_EQ(0U, ask());
    EXPECT_TRUE(velt::replyData().empty());
}

TEST_F(ApduCommandTest, AReplyShorterThanAStatusHasNoData)
{
    for (const std::uint64_t length : {0U, 1U, 2U}) {
        dwReplyLen = length;
        EXPECT_TRUE(velt::replyData().empty()) << length;
    }
    dwReplyLen = 3;
    EXPECT_EQ(1U, velt::replyData().size());
}

// The parts of the exchange.

TEST_F(ApduCommandTest, ATransmissionCarriesTheProtocolAndNoReceivePci)
{
    for (const unsigned long protocol : {1UL, 2UL}) {
        SCOPED_TRACE(protocol);
        meetCardOf(protocol);
        answer("01 90 00");
        Bytes room(10, SENTINEL);
        std::uint64_t length = 8;
        EXPECT_EQ(SCARD_S_SUCCESS,
                  VELTSCSendCmd(entry(session).hCard, ASK.data(), ASK.size(), room.data(), &length,
                                protocol == 1 ? SCARD_PCI_T0 : SCARD_PCI_T1));
        EXPECT_EQ(3U, length);
        EXPECT_EQ(hex("01 90 00 A5 A5 A5 A5 A5 A5 A5"), room);
        const auto calls = sim::pcsc::calls(sim::pcsc::Function::Transmit);
        ASSERT_EQ(1U, calls.size());
        EXPECT_EQ(protocol, calls[0].protocols);
        EXPECT_FALSE(calls[0].bufferGiven);
        EXPECT_EQ(8U, calls[0].capacity);
        EXPECT_EQ(ASK, calls[0].sent);
    }
}

TEST_F(ApduCommandTest, ATransmissionReturnsTheServicesResult)
{
    sim::pcsc::failNth(sim::pcsc::Function::Transmit, 1, SCARD_W_UNPOWERED_CARD);
    Bytes room(8, SENTINEL);
    std::uint64_t length = room.size();
    EXPECT_EQ(static_cast<LONG>(SCARD_W_UNPOWERED_CARD),
              VELTSCSendCmd(entry(session).hCard, ASK.data(), ASK.size(), room.data(), &length,
                            SCARD_PCI_T0));
    EXPECT_EQ(Bytes(8, SENTINEL), room);
}

TEST_F(ApduCommandTest, TheSessionsProtocolIsTheOneSent)
{
    for (const unsigned long protocol : {1UL, 2UL}) {
        SCOPED_TRACE(protocol);
        meetCardOf(protocol);
        answer("01 61 01");
        answerMore(1, "02 90 00");
        EXPECT_EQ(0U, ask());
        const auto calls = sim::pcsc::calls(sim::pcsc::Function::Transmit);
        ASSERT_EQ(2U, calls.size());
        for (const auto& call : calls) {
            EXPECT_EQ(protocol, call.protocols);
            EXPECT_FALSE(call.bufferGiven);
        }
    }
}

TEST_F(ApduCommandTest, APciThatIsNotTheConnectionsIsTheServicesError)
{
    entry(session).pioSendPci = SCARD_PCI_T1;
    EXPECT_EQ(code(SCARD_E_PROTO_MISMATCH), ask());
    EXPECT_EQ(1U, sent().size());
    EXPECT_EQ(OLD_ERROR, recorded());
}

TEST_F(ApduCommandTest, TheStatusIsReadWhereTheGlobalLengthEnds)
{
    const Bytes response = hex("69 82 6A 82 90 00");
    dwReplyLen = 4;
    EXPECT_EQ(0x826AU, VELTSCCheckAPDURetcode(response.data(), 6));
    EXPECT_EQ(0x826AU, VELTSCCheckAPDURetcode(response.data(), 2));
    EXPECT_EQ(0x826AU, VELTSCCheckAPDURetcode(response.data(), 0));
    dwReplyLen = 2;
    EXPECT_EQ(0x8269U, VELTSCCheckAPDURetcode(response.data(), 6));
    dwReplyLen = 6;
    EXPECT_EQ(0x0090U, VELTSCCheckAPDURetcode(response.data(), 2));
    EXPECT_EQ(6U, dwReplyLen);
}

TEST_F(ApduCommandTest, AResponseWithoutAStatusHasNone)
{
    const Bytes response = hex("90 00");
    for (const std::uint64_t length : {0U, 1U}) {
        dwReplyLen = length;
        EXPECT_EQ(0U, VELTSCCheckAPDURetcode(response.data(), response.size())) << length;
    }
}

} // namespace
} // namespace velt_test::world
