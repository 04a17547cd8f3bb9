// What of the simulated identity card outlives its program.
#include "sim/cards/state_file.h"
#include "tests/support/id_card_talk.h"

#include <filesystem>
#include <utility>

#include <unistd.h>

namespace sim {
namespace {

using namespace id_card_talk;

TEST(IdCardState, SurvivesInAFile)
{
    IdCardOptions options = withKeys(1024, 0);
    options.issue = IdCardIssue::Old;
    options.pin = "5678";
    options.shortRead = ShortRead::Silent;
    options.generatedBits = 1024;
    options.cardObject = {9, 8, 7, 6, 5, 4, 3, 2, 1};
    IdCard card(options);
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("63C2", ask(card, WRONG_PIN));
    card.setFile(1, hex("00 01 77"));
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("id-card-state." + std::to_string(getpid()));
    card.save(path);

    IdCard other;
    logIn(other);
    other.load(path);
    std::filesystem::remove(path);
    EXPECT_FALSE(other.verified());
    EXPECT_EQ("3B771800004B4153414B4944", toHex(other.atr()));
    EXPECT_EQ(2u, other.retriesLeft());
    EXPECT_EQ(card.modulus(0), other.modulus(0));
    EXPECT_FALSE(other.key(1));
    EXPECT_EQ(card.certificate(0), other.certificate(0));
    EXPECT_EQ("000177", toHex(other.file(1)));
    walk(other, {SELECT_MASTER});
    EXPECT_EQ("0908070605040302019000", ask(other, "00 CA DF 01 09"));
    EXPECT_EQ("9000", ask(other, "00 20 00 02 08 35 36 37 38 30 30 30 30"));
    walk(other, {SELECT_CERTIFICATES, SELECT_FILE_2});
    EXPECT_EQ("0001779000", ask(other, "00 B0 00 00 05"));
    walk(other, {SELECT_MASTER, SELECT_KEYS, USE_KEY_87});
    EXPECT_EQ("616263", toHex(card.key(0).recover(withoutStatus(collect(other, SIGN_ABC)))));
    walk(other, {GENERATE_88});
    EXPECT_EQ(1024u, other.key(1).bits());
}

TEST(IdCardState, ChangesWithEveryLastingChangeAndNothingElse)
{
    IdCard card(withFirstFile("00 01 AA"));
    const unsigned long start = card.revision();
    walk(card, {SELECT_MASTER, RIGHT_PIN, SELECT_KEYS, USE_KEY_87});
    collect(card, SIGN_ABC);
    card.reset();
    EXPECT_EQ(start, card.revision());
    walk(card, {SELECT_MASTER});
    answer(card, WRONG_PIN);
    EXPECT_EQ(start + 1, card.revision());
    walk(card, {RIGHT_PIN});
    EXPECT_EQ(start + 2, card.revision());
    walk(card, {SELECT_CERTIFICATES, SELECT_FILE_1, "00 D6 00 02 01 BB"});
    EXPECT_EQ(start + 3, card.revision());
    answer(card, "00 D6 00 03 01 BB");
    EXPECT_EQ(start + 3, card.revision());
}

TEST(IdCardState, AWrongStateLeavesTheCardAsItWas)
{
    IdCard card(withFirstFile("00 01 AA"));
    const Bytes good = card.state();
    Bytes otherMagic = good;
    otherMagic[0] ^= 1;
    EXPECT_THROW(card.restore(otherMagic), StateError);
    EXPECT_THROW(card.restore({}), StateError);
    for (std::size_t length = 8; length < good.size(); length += 7) {
        EXPECT_THROW(card.restore(std::span(good).first(length)), StateError) << length;
    }
    EXPECT_EQ(good, card.state());
}

TEST(IdCardState, RefusesRecordsThatNoCardCanHave)
{
    IdCard card;
    const StateRecords good = unpackState("VELTIDC1", card.state());
    const std::vector<std::pair<std::uint8_t, Bytes>> wrong = {{0x01, {2}},
                                                               {0x02, {3}},
                                                               {0x03, {16}},
                                                               {0x04, {4}},
                                                               {0x05, {1, 2}},
                                                               {0x06, Bytes(8)},
                                                               {0x07, {8}},
                                                               {0x11, {1, 2, 3}},
                                                               {0x12, {}},
                                                               {0x21, Bytes(0x8001)},
                                                               {0x22, Bytes(0x10000)},
                                                               {0x04, {}}};
    for (const auto& [tag, value] : wrong) {
        StateRecords records = good;
        records[tag] = value;
        EXPECT_THROW(card.restore(packState("VELTIDC1", records)), StateError) << int{tag};
    }
    EXPECT_NO_THROW(card.restore(packState("VELTIDC1", good)));
}

} // namespace
} // namespace sim
