// What the simulated KAZTOKEN answers, byte by byte: files, PIN and refusals.
#include "sim/cards/gzip_member.h"
#include "tests/support/kaz_token_talk.h"

#include <stdexcept>

namespace sim {
namespace {

using namespace kaz_token_talk;

constexpr const char* LABEL_1 = "6131623263336434653566363037313832393361346235633664376538663031";
constexpr const char* LABEL_3 = "6131623263336434653566363037313832393361346235633664376538663033";

KazTokenOptions withPairs(std::vector<KazPair> pairs)
{
    KazTokenOptions options;
    options.pairs = std::move(pairs);
    return options;
}

TEST(KazToken, OffersProtocolT1UnderItsAtr)
{
    KazToken token;
    EXPECT_EQ("3B88014B415A544F4B454E82", toHex(token.atr()));
    EXPECT_EQ(2u, token.protocol());
}

TEST(KazToken, RefusesClassesAndInstructionsItDoesNotKnow)
{
    KazToken token;
    EXPECT_EQ("6E00", ask(token, "01 84 00 00 08"));
    EXPECT_EQ("6E00", ask(token, "80 84 00 00 08"));
    EXPECT_EQ("6E00", ask(token, "00 40 00 00"));
    EXPECT_EQ("6D00", ask(token, "00 88 00 00 08"));
    EXPECT_EQ("6D00", ask(token, "00 C0 00 00 00")) << "there is nothing to fetch in T=1";
    EXPECT_EQ("6884", ask(token, "10 84 00 00 08"));
    EXPECT_EQ("6884", ask(token, "10 40 00 00"));
}

TEST(KazToken, RefusesCommandsWhoseLengthsDoNotFit)
{
    KazToken token;
    for (const char* const command :
         {"", "00", "00 A4 08", "00 A4 08 04 03 10 00", "00 A4 08 04 01 10 00 00 00", "00 84 00 00",
          "00 84 00 00 00 00 08", "00 A4 08 04 00 10 00", "00 B0 00 00", "00 B0 00 00 01 00",
          "80 40 00 00 00", "80 40 00 00 01 00", "00 20 00 02", "00 20 00 02 00", "00 D6 00 00 00",
          "00 E0 00 00", "00 E4 00 00 01 10", "00 E4 00 00 02 10 10 00", "00 E4 00 00 00"}) {
        EXPECT_EQ("6700", ask(token, command)) << command;
    }
}

TEST(KazToken, SelectsByPathFromTheMasterFile)
{
    KazToken token;
    walk(token, {SELECT_APPLICATION, SELECT_LIST_DIRECTORY, SELECT_LIST, SELECT_PRIVATE_KEYS,
                 SELECT_PUBLIC_KEYS, SELECT_CERTIFICATES, "00 A4 08 04 04 10 00 10 00"});
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 02 10 10"));
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 04 3F 00 10 00"));
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 06 10 00 10 00 60 03"));
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 08 10 00 10 00 60 01 00 04"));
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 08 10 00 10 00 60 04 00 03"))
        << "the third pair has no certificate";
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 08 10 00 10 10 10 10 10 10"));
}

TEST(KazToken, SelectsByIdentifierBelowTheDirectoryFirst)
{
    KazToken token;
    EXPECT_EQ("6A82", ask(token, LIST_PARAMETERS)) << "not below the master file";
    walk(token, {SELECT_LIST, "00 A4 00 04 02 10 10", SELECT_LIST_DIRECTORY});
    EXPECT_EQ("621D8002006A82020100", ask(token, LIST_PARAMETERS).substr(0, 20));
    token.removeList();
    EXPECT_EQ("621D8002001082023800", ask(token, LIST_PARAMETERS).substr(0, 20))
        << "the directory itself, of the same identifier";
    walk(token, {"00 A4 00 04 02 3F 00", "00 A4 00 04 02 10 00"});
    EXPECT_EQ("6A82", ask(token, "00 A4 00 04 02 60 01"));
}

TEST(KazToken, RefusesOtherFormsOfSelect)
{
    KazToken token;
    EXPECT_EQ("6A86", ask(token, "00 A4 01 04 02 10 00"));
    EXPECT_EQ("6A86", ask(token, "00 A4 09 04 02 10 00"));
    EXPECT_EQ("6A86", ask(token, "00 A4 08 00 02 10 00"));
    EXPECT_EQ("6A86", ask(token, "00 A4 08 0C 02 10 00"));
    EXPECT_EQ("6700", ask(token, "00 A4 08 04"));
    EXPECT_EQ("6700", ask(token, "00 A4 08 04 01 10"));
    EXPECT_EQ("6700", ask(token, "00 A4 08 04 03 10 00 10"));
    EXPECT_EQ("6700", ask(token, "00 A4 00 04 04 10 00 10 10"));
}

TEST(KazToken, ARefusedSelectLeavesTheSelectionAsItWas)
{
    KazToken token;
    walk(token, {SELECT_LIST});
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 02 20 00"));
    EXPECT_EQ("010000109000", ask(token, "00 B0 00 00 04"));
}

TEST(KazToken, ControlParametersTellSizeAndKind)
{
    KazToken token;
    EXPECT_EQ("621D800200108202380083021000860F430202000000"
              "00FF000000000000009000",
              ask(token, "00 A4 08 04 02 10 00 00"));
    walk(token, {SELECT_LIST});
    EXPECT_EQ("621D8002006A8202010083021010860F420002000000"
              "0002000000000000009000",
              ask(token, LIST_PARAMETERS));
    EXPECT_EQ("622580020100820210008506230000000000"
              "83020001860F4200020000000002000000000000009000",
              ask(token, selectOfPair("6002", "01")));
    EXPECT_EQ("622580020040820210008506030000000000"
              "83020002860F4200020000000002000000000000009000",
              ask(token, selectOfPair("6001", "02")));
    EXPECT_EQ("622580020080820210008506230000000000"
              "83020003860F4200020000000002000000000000009000",
              ask(token, selectOfPair("6002", "03")));
    EXPECT_EQ("6C27", ask(token, "00 A4 08 04 08 10 00 10 00 60 02 00 01 26"));
    EXPECT_EQ("6C1F", ask(token, "00 A4 00 04 02 3F 00 1E"));
}

TEST(KazToken, TheListNamesEveryPairWithItsLabel)
{
    KazToken token;
    walk(token, {SELECT_LIST});
    const Bytes list = withoutStatus(answer(token, "00 B0 00 00 6A"));
    EXPECT_EQ(token.list(), list);
    EXPECT_EQ(hex("01000010 01" + std::string(LABEL_1) + "00"),
              Bytes(list.begin(), list.begin() + 38));
    EXPECT_EQ(hex("03" + std::string(LABEL_3) + "00"), Bytes(list.end() - 34, list.end()));

    KazPair named{.id = 0xFE};
    named.label = "A";
    EXPECT_EQ(hex("01000010 FE4100"), KazToken(withPairs({named})).list());
    EXPECT_EQ(hex("01000010"), KazToken(withPairs({})).list());
}

TEST(KazToken, ATokenMayLackTheListOrItsDirectory)
{
    KazTokenOptions options;
    options.list = false;
    KazToken without(options);
    EXPECT_EQ("6A82", ask(without, SELECT_LIST));
    EXPECT_EQ("9000", ask(without, SELECT_LIST_DIRECTORY));
    EXPECT_EQ(std::nullopt, without.list());
    options.listDirectory = false;
    KazToken bare(options);
    EXPECT_EQ("6A82", ask(bare, SELECT_LIST_DIRECTORY));
    EXPECT_EQ("9000", ask(bare, SELECT_APPLICATION));
    bare.setList(hex("01000010"));
    EXPECT_EQ("9000", ask(bare, SELECT_LIST)) << "with its directory";
}

class KazTokenReading : public ::testing::TestWithParam<EndOfFile> {};

INSTANTIATE_TEST_SUITE_P(EitherEnd, KazTokenReading,
                         ::testing::Values(EndOfFile::Bare, EndOfFile::WrongOffset));

TEST_P(KazTokenReading, TheEndOfAFileIsAnsweredAsSet)
{
    KazTokenOptions options;
    options.endOfFile = GetParam();
    KazToken token(options);
    const std::string atTheEnd = GetParam() == EndOfFile::Bare ? "9000" : "6B00";
    for (const std::size_t size : {0U, 1U, 255U, 256U, 257U, 511U, 512U}) {
        Bytes content(size);
        for (std::size_t i = 0; i < size; ++i) {
            content[i] = static_cast<std::uint8_t>(i * 7 + 1);
        }
        token.setList(content);
        walk(token, {SELECT_LIST});
        Bytes read;
        for (std::uint8_t block = 0; block < size / 256; ++block) {
            const Bytes part = token.transmit(Bytes{0x00, 0xB0, block, 0x00, 0x00});
            ASSERT_EQ(258u, part.size());
            read.insert(read.end(), part.begin(), part.end() - 2);
        }
        const std::uint8_t full = static_cast<std::uint8_t>(size / 256);
        const std::uint8_t rest = static_cast<std::uint8_t>(size % 256);
        const Bytes last = token.transmit(Bytes{0x00, 0xB0, full, 0x00, rest});
        EXPECT_EQ(rest == 0 ? atTheEnd : "9000", toHex(std::span(last).last(2))) << size;
        read.insert(read.end(), last.begin(), last.end() - 2);
        EXPECT_EQ(content, read) << size;
        const std::size_t beyond = size + 1;
        EXPECT_EQ("6B00", toHex(token.transmit(Bytes{0x00, 0xB0, static_cast<uint8_t>(beyond >> 8),
                                                     static_cast<uint8_t>(beyond), 0x00})))
            << size;
    }
}

TEST(KazToken, AReadBeyondTheEndGivesWhatThereIs)
{
    KazToken token;
    token.setList(hex("01 02 03"));
    walk(token, {SELECT_LIST});
    EXPECT_EQ("0102036282", ask(token, "00 B0 00 00 04"));
    EXPECT_EQ("0102039000", ask(token, "00 B0 00 00 00"));
    EXPECT_EQ("039000", ask(token, "00 B0 00 02 01"));
    EXPECT_EQ("6A86", ask(token, "00 B0 81 00 01")) << "no short file identifiers";
}

TEST(KazToken, OnlyAnOpenTransparentFileIsReadAndWritten)
{
    KazToken token;
    walk(token, {RIGHT_PIN});
    for (const char* const command : {"00 B0 00 00 01", "00 D6 00 00 01 AA"}) {
        walk(token, {SELECT_LIST_DIRECTORY});
        EXPECT_EQ("6986", ask(token, command)) << command;
        answer(token, selectOfPair("6002", "01"));
        EXPECT_EQ("6981", ask(token, command)) << command;
    }
}

TEST(KazToken, WritesWithinTheFileAfterThePin)
{
    KazToken token;
    token.setList(hex("01 02 03 04"));
    walk(token, {SELECT_LIST});
    EXPECT_EQ("6982", ask(token, "00 D6 00 00 01 AA"));
    walk(token, {RIGHT_PIN, "00 D6 00 01 02 AA BB"});
    EXPECT_EQ(hex("01AABB04"), token.list());
    EXPECT_EQ("6A84", ask(token, "00 D6 00 03 02 CC DD"));
    EXPECT_EQ("6A84", ask(token, "00 D6 00 04 01 CC"));
    EXPECT_EQ("6B00", ask(token, "00 D6 00 05 01 CC"));
    EXPECT_EQ("6A86", ask(token, "00 D6 80 00 01 CC"));
    EXPECT_EQ(hex("01AABB04"), token.list());
    walk(token, {LOG_OUT});
    EXPECT_EQ("6982", ask(token, "00 D6 00 00 01 AA"));
}

TEST(KazToken, TheListIsDeletedAndMadeAgainAtAnotherSize)
{
    KazToken token;
    walk(token, {SELECT_LIST_DIRECTORY});
    EXPECT_EQ("6982", ask(token, "00 E4 00 00 02 10 10"));
    EXPECT_EQ("6982", ask(token, createFile("00 06", "10 10")));
    walk(token, {RIGHT_PIN});
    EXPECT_EQ("6A89", ask(token, createFile("00 06", "10 10")));
    walk(token, {"00 E4 00 00 02 10 10"});
    EXPECT_EQ("6A82", ask(token, "00 E4 00 00 02 10 10"));
    walk(token, {createFile("00 06", "10 10"), "00 D6 00 00 06 01 00 00 10 05 06"});
    EXPECT_EQ(hex("010000100506"), token.list());
    EXPECT_EQ("010000100506"
              "9000",
              ask(token, "00 B0 00 00 06"))
        << "the new file is open";
}

TEST(KazToken, TheListsDirectoryIsMadeOnceAndNeverDeleted)
{
    KazTokenOptions options;
    options.listDirectory = false;
    KazToken token(options);
    walk(token, {SELECT_APPLICATION});
    EXPECT_EQ("6982", ask(token, CREATE_LIST_DIRECTORY));
    walk(token, {RIGHT_PIN, CREATE_LIST_DIRECTORY, createFile("00 00", "10 10")});
    EXPECT_EQ(Bytes{}, token.list()) << "the new directory is the current one";
    walk(token, {SELECT_APPLICATION});
    EXPECT_EQ("6A8A", ask(token, CREATE_LIST_DIRECTORY));
    EXPECT_EQ("6982", ask(token, "00 E4 00 00 02 10 10"));
}

TEST(KazToken, EveryKindOfFileIsMadeInItsOwnDirectoryAlone)
{
    KazToken token(withPairs({}));
    walk(token,
         {RIGHT_PIN, SELECT_CERTIFICATES, createFile("7F FF", "00 FE"),
          createFile("00 01", "00 01"), SELECT_PRIVATE_KEYS, createKeyFile("01 00", "00 01", "23"),
          SELECT_PUBLIC_KEYS, createKeyFile("00 40", "00 01", "03")});
    EXPECT_EQ("6A80", ask(token, createFile("00 01", "00 01"))) << "no key file";
    EXPECT_EQ("6A80", ask(token, createKeyFile("01 00", "00 FF", "23")));
    EXPECT_EQ("6A80", ask(token, createKeyFile("01 00", "00 00", "23")));
    EXPECT_EQ("6A89", ask(token, createKeyFile("01 00", "00 01", "23")));
    EXPECT_EQ("6A80", ask(token, CREATE_LIST_DIRECTORY));
    walk(token, {SELECT_CERTIFICATES});
    EXPECT_EQ("6A80", ask(token, createKeyFile("01 00", "00 02", "23")));
    EXPECT_EQ("6A80", ask(token, createFile("00 01", "01 01")));
    walk(token, {SELECT_LIST_DIRECTORY});
    EXPECT_EQ("6A80", ask(token, createFile("00 01", "10 11")));
    walk(token, {SELECT_APPLICATION});
    EXPECT_EQ("6A80", ask(token, createFile("00 01", "00 02")));
    EXPECT_FALSE(token.hasFile({0x1000, 0x0002}));
}

TEST(KazToken, FilesAreMadeFromExactlyOneFormOfParameters)
{
    KazToken token(withPairs({}));
    walk(token, {RIGHT_PIN, SELECT_CERTIFICATES});
    const std::string right = createFile("00 01", "00 01");
    for (std::size_t at = 0; at < 36; ++at) {
        const bool free = at == 13 || at == 14 || at == 18; // the size, the ID
        Bytes command = hex(right);
        command[at] ^= 0x40;
        EXPECT_EQ(free, toHex(token.transmit(command)) == "9000") << at;
        token.removeFile({0x1000, 0x1000, 0x6004, 0x0001});
        token.removeFile({0x1000, 0x1000, 0x6004, 0x0041});
    }
    Bytes longer = hex(right);
    longer[4] = 0x20;
    longer.push_back(0x00);
    EXPECT_EQ("6A80", toHex(token.transmit(longer)));
    longer[6] = 0x1E;
    EXPECT_EQ("6A80", toHex(token.transmit(longer)));
    EXPECT_EQ("6700", ask(token, right + "00")) << "no answer is wanted";
    EXPECT_EQ("6A80", ask(token, createFile("80 00", "00 01")));

    walk(token, {SELECT_PUBLIC_KEYS});
    const std::string key = createKeyFile("01 00", "00 01", "23");
    for (std::size_t at = 0; at < 44; ++at) {
        Bytes command = hex(key);
        command[at] ^= 0x40;
        EXPECT_EQ(at == 18, toHex(token.transmit(command)) == "9000") << at;
        token.removeFile({0x1000, 0x1000, 0x6002, 0x0041});
    }
    EXPECT_EQ("6A80", ask(token, createKeyFile("00 40", "00 01", "23")));
    EXPECT_EQ("6A80", ask(token, createKeyFile("01 00", "00 01", "03")));
    EXPECT_EQ("6A80", ask(token, createKeyFile("00 80", "00 01", "23")));
}

TEST(KazToken, TheOpenFileIsDeletedWithoutNamingIt)
{
    KazToken token;
    EXPECT_EQ("6986", ask(token, "00 E4 00 00"));
    answer(token, selectOfPair("6004", "01"));
    EXPECT_EQ("6982", ask(token, "00 E4 00 00"));
    walk(token, {RIGHT_PIN, "00 E4 00 00"});
    EXPECT_FALSE(token.hasFile({0x1000, 0x1000, 0x6004, 0x0001}));
    EXPECT_EQ("6986", ask(token, "00 E4 00 00"));
    EXPECT_EQ("6986", ask(token, "00 B0 00 00 00"));
    EXPECT_EQ("6A86", ask(token, "00 E4 00 01"));
    EXPECT_TRUE(token.hasFile({0x1000, 0x1000, 0x6004, 0x0002}));
}

TEST(KazToken, AMissingFileIsMadeAfterItsDirectoryWasSelected)
{
    KazToken token(withPairs({{.id = 0x05, .certificate = false}}));
    walk(token, {RIGHT_PIN, SELECT_CERTIFICATES});
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 08 10 00 10 00 60 04 00 05"));
    EXPECT_EQ("6A82", ask(token, "00 E4 00 00 02 00 05"));
    walk(token, {createFile("00 02", "00 05"), "00 D6 00 00 02 1F 8B"});
    EXPECT_EQ(hex("1F8B"), token.file({0x1000, 0x1000, 0x6004, 0x0005}));
}

TEST(KazToken, TheRightPinOpensUntilPowerIsLostOrTheUserLogsOut)
{
    KazToken token;
    EXPECT_FALSE(token.verified());
    walk(token, {RIGHT_PIN});
    EXPECT_TRUE(token.verified());
    walk(token, {LOG_OUT});
    EXPECT_FALSE(token.verified());
    walk(token, {LOG_OUT, RIGHT_PIN});
    token.reset();
    EXPECT_FALSE(token.verified());
    EXPECT_EQ("6986", ask(token, "00 B0 00 00 01"));
}

TEST(KazToken, WrongPinsCountDownUntilThePinIsBlocked)
{
    KazToken token;
    walk(token, {RIGHT_PIN});
    EXPECT_EQ("C263", ask(token, WRONG_PIN));
    EXPECT_FALSE(token.verified()) << "a wrong PIN also closes what was open";
    EXPECT_EQ("C163", ask(token, "00 20 00 02 05 31 32 33 34 35")) << "the right one's beginning";
    walk(token, {RIGHT_PIN});
    EXPECT_EQ(3u, token.retriesLeft());
    EXPECT_EQ("C263", ask(token, "00 20 00 02 07 31 32 33 34 35 36 37"));
    EXPECT_EQ("C163", ask(token, WRONG_PIN));
    EXPECT_EQ("C063", ask(token, WRONG_PIN));
    EXPECT_EQ("6983", ask(token, WRONG_PIN));
    EXPECT_EQ("6983", ask(token, RIGHT_PIN));
    EXPECT_FALSE(token.verified());
    token.reset();
    EXPECT_EQ("6983", ask(token, RIGHT_PIN)) << "power does not help";
    EXPECT_EQ("6A86", ask(token, "00 20 00 01 06 31 32 33 34 35 36"));
    EXPECT_EQ("6A86", ask(token, "00 20 01 02 06 31 32 33 34 35 36"));
}

TEST(KazToken, TheStatusOfAWrongAndABlockedPinCanBeSet)
{
    KazTokenOptions options;
    options.retryLimit = 2;
    options.wrongPin = 0x63C0;
    options.blockedPin = 0x63E3;
    KazToken counting(options);
    EXPECT_EQ("63C1", ask(counting, WRONG_PIN));
    EXPECT_EQ("63C0", ask(counting, WRONG_PIN));
    EXPECT_EQ("63E3", ask(counting, WRONG_PIN));
    options.wrongPin = 0x60F0;
    EXPECT_EQ("60F1", ask(*std::make_unique<KazToken>(options), WRONG_PIN));
    options.wrongPin = 0x6363;
    KazToken fixed(options);
    EXPECT_EQ("6363", ask(fixed, WRONG_PIN));
    EXPECT_EQ("6363", ask(fixed, WRONG_PIN));
    EXPECT_EQ("63E3", ask(fixed, WRONG_PIN));
}

TEST(KazToken, OptionsThatNoTokenCanHaveAreRefused)
{
    KazTokenOptions options;
    options.pin.clear();
    EXPECT_THROW(KazToken{options}, std::invalid_argument);
    options.pin.assign(17, '1');
    EXPECT_THROW(KazToken{options}, std::invalid_argument);
    options = {};
    options.retryLimit = 0;
    EXPECT_THROW(KazToken{options}, std::invalid_argument);
    options.retryLimit = 16;
    EXPECT_THROW(KazToken{options}, std::invalid_argument);
    EXPECT_THROW(KazToken{withPairs({{.id = 7}, {.id = 7}})}, std::invalid_argument);
    KazPair large{.id = 1};
    large.file = Bytes(0x8000);
    EXPECT_THROW(KazToken{withPairs({large})}, std::invalid_argument);
}

TEST(KazToken, CountsWhatItIsAsked)
{
    KazToken token;
    walk(token, {SELECT_LIST, RIGHT_PIN, LOG_OUT, useRsaKey("01")});
    ask(token, "00 B0 00 00 01");
    ask(token, "00 B0 00 00 01");
    ask(token, "00 D6 00 00 01 00");
    ask(token, "00 E0 00 00 01 00");
    ask(token, "00 E4 00 00 01 00");
    ask(token, "00 2A 9E 9A 01 00");
    ask(token, "00 46 81 01 00");
    ask(token, "00 84 00 00 01");
    ask(token, "00 FF 00 00");
    const KazTokenCounters& counters = token.counters();
    EXPECT_EQ(13u, counters.commands);
    EXPECT_EQ(2u, counters.reads);
    for (const unsigned long once :
         {counters.selects, counters.updates, counters.creates, counters.deletes, counters.verifies,
          counters.logouts, counters.environments, counters.signCommands, counters.keyPairs,
          counters.challenges}) {
        EXPECT_EQ(1u, once);
    }
    EXPECT_EQ(0u, counters.signatures);
    token.clearCounters();
    EXPECT_EQ(0u, counters.commands);
}

} // namespace
} // namespace sim
