// The frames between a simulated card and the virtual reader.
#include "sim/cards/id_card_words.h"
#include "sim/cards/scripted_card.h"
#include "sim/cards/vpcd_link.h"
#include "tests/support/virtual_reader.h"

#include <string>

#include <gmock/gmock.h>

namespace sim {
namespace {

// A card that notes what it is asked and answers each command with its bytes doubled.
class EchoCard final : public Card {
public:
    Bytes atr() const override { return hex("3B 02 14 50"); }
    unsigned long protocol() const override { return 1; }
    void reset() override { asked += "reset "; }
    Bytes transmit(std::span<const std::uint8_t> command) override
    {
        asked += toHex(command) + ' ';
        Bytes reply(command.begin(), command.end());
        reply.insert(reply.end(), command.begin(), command.end());
        return reply;
    }

    std::string asked;
};

class VpcdLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(link.connect(reader.port()));
        ASSERT_TRUE(reader.takeCard());
    }
    std::string exchange(const std::string& payload)
    {
        reader.send(hex(payload));
        EXPECT_TRUE(link.serve(card));
        return toHex(reader.receive());
    }
    void control(std::uint8_t code)
    {
        reader.send({code});
        EXPECT_TRUE(link.serve(card));
    }

    VirtualReader reader;
    VpcdLink link;
    EchoCard card;
};

TEST_F(VpcdLinkTest, AnswersCommandsWithTheirReplies)
{
    EXPECT_EQ("00A4000C00A4000C", exchange("00 A4 00 0C"));
    EXPECT_EQ("00B000000200B0000002", exchange("00 B0 00 00 02"));
    EXPECT_EQ("", exchange("")) << "an empty payload is a command too";
    EXPECT_EQ("00A4000C 00B0000002  ", card.asked);
}

TEST_F(VpcdLinkTest, AnswersOnlyOneKindOfControl)
{
    control(0x01);
    control(0x02);
    control(0x00);
    control(0x03);
    control(0xFF);
    EXPECT_EQ("reset reset reset ", card.asked);
    EXPECT_TRUE(reader.cardSaysNothing(100));
    EXPECT_EQ("3B021450", exchange("04"));
    EXPECT_EQ("reset reset reset ", card.asked);
}

TEST_F(VpcdLinkTest, PutsFramesTogetherThatArriveInPieces)
{
    const Bytes frame = hex("00 03 AA BB CC");
    for (const std::uint8_t byte : frame) {
        EXPECT_TRUE(reader.cardSaysNothing(0));
        reader.sendRaw({byte});
        EXPECT_TRUE(link.serve(card));
    }
    EXPECT_EQ("AABBCCAABBCC", toHex(reader.receive()));
    EXPECT_EQ("AABBCC ", card.asked);
}

TEST_F(VpcdLinkTest, AnswersFramesThatArriveTogetherInTheirOrder)
{
    reader.sendRaw(hex("00 01 01  00 02 AA BB  00 01 04  00 02 CC"));
    EXPECT_TRUE(link.serve(card));
    EXPECT_EQ("AABBAABB", toHex(reader.receive()));
    EXPECT_EQ("3B021450", toHex(reader.receive()));
    EXPECT_EQ("reset AABB ", card.asked);
    reader.sendRaw(hex("DD"));
    EXPECT_TRUE(link.serve(card));
    EXPECT_EQ("CCDDCCDD", toHex(reader.receive()));
}

TEST_F(VpcdLinkTest, CarriesLongCommandsAndReplies)
{
    const Bytes command(20000, 0x5A);
    reader.send(command);
    Bytes reply;
    while (card.asked.empty()) {
        ASSERT_TRUE(link.serve(card));
    }
    reply = reader.receive();
    EXPECT_EQ(Bytes(40000, 0x5A), reply);
}

TEST_F(VpcdLinkTest, NoticesThatTheReaderHasGone)
{
    reader.hangUp();
    EXPECT_FALSE(link.serve(card));
    EXPECT_FALSE(link.connected());
    EXPECT_EQ(-1, link.descriptor());
}

TEST_F(VpcdLinkTest, ClosingPullsTheCardOut)
{
    link.close();
    EXPECT_TRUE(reader.cardHasGone());
    ASSERT_TRUE(link.connect(reader.port()));
    EXPECT_TRUE(reader.takeCard());
}

TEST_F(VpcdLinkTest, HalfAFrameDoesNotOutliveItsConnection)
{
    reader.sendRaw(hex("00 05 AA BB"));
    EXPECT_TRUE(link.serve(card));
    link.close();
    ASSERT_TRUE(link.connect(reader.port()));
    ASSERT_TRUE(reader.takeCard());
    EXPECT_EQ("CCDDCCDD", exchange("CC DD"));
}

TEST_F(VpcdLinkTest, TheCardIsNoticedOnceItIsLookedForAfterPowerUp)
{
    exchange("04");
    exchange("04");
    EXPECT_FALSE(link.noticed()) << "not powered up yet";
    control(0x01);
    exchange("04");
    EXPECT_FALSE(link.noticed()) << "the reader may not have passed the news on";
    exchange("04");
    EXPECT_TRUE(link.noticed());
    control(0x00);
    control(0x01);
    EXPECT_TRUE(link.noticed());
    link.close();
    EXPECT_FALSE(link.noticed());
}

TEST(VpcdLink, DoesNotConnectWhereNobodyListens)
{
    VirtualReader reader;
    reader.stopListening();
    VpcdLink link;
    EXPECT_FALSE(link.connect(reader.port()));
    EXPECT_FALSE(link.connected());
}

TEST(IdCardWords, SayWhatACommandAsksFor)
{
    const std::vector<std::pair<const char*, const char*>> words = {
        {"00 A4 00 0C 02 3F 00", "select the master file 3F00"},
        {"00 A4 01 0C 02 08 01", "select directory 0801"},
        {"00 A4 02 0C 02 01 02", "select file 0102"},
        {"00 A4 04 00 02 A0 00", "select application A000"},
        {"00 A4 09 00 02 A0 00", "select A000"},
        {"00 B0 01 02 23", "read 35 bytes at offset 258"},
        {"00 B0 00 02 00", "read up to 256 bytes at offset 2"},
        {"00 B0 00 00 01", "read 1 byte at offset 0"},
        {"00 D6 00 00 02 00 00", "write 2 bytes at offset 0"},
        {"00 CA DF 01 09", "get data object DF01"},
        {"00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00", "get public key 08"},
        {"00 CB 3F FF 01 4D", "get public key (missing)"},
        {"00 20 00 02 08 31 32 33 34 30 30 30 30", "verify the PIN"},
        {"00 22 41 A4 09 95 01 40 84 01 87 80 01 02", "choose key 87 for signing"},
        {"00 88 02 00 03 61 62 63", "sign 3 bytes"},
        {"00 46 02 00 05 A4 03 84 01 88", "generate key pair 88"},
        {"00 C0 00 00 0F", "get response, 15 bytes"},
        {"00 84 00 00 08", "unknown command"},
        {"00 A4 00 0C", "incomplete command"},
        {"", "incomplete command"}};
    for (const auto& [command, text] : words) {
        EXPECT_EQ(text, idCardWords(hex(command))) << command;
    }
}

TEST(IdCardWords, CountTheBytesOfAPinAsSecret)
{
    EXPECT_EQ(8u, idCardSecretLength(hex("00 20 00 02 08 31 32 33 34 30 30 30 30")));
    EXPECT_EQ(3u, idCardSecretLength(hex("00 20 00 02 08 31 32 33")));
    EXPECT_EQ(0u, idCardSecretLength(hex("00 20 00 02 00")));
    EXPECT_EQ(0u, idCardSecretLength(hex("00 20")));
    EXPECT_EQ(0u, idCardSecretLength(hex("00 A4 00 0C 02 3F 00")));
}

} // namespace
} // namespace sim
