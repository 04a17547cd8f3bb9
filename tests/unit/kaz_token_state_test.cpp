// What of the simulated KAZTOKEN outlives its program.
#include "sim/cards/kaz_token_words.h"
#include "sim/cards/state_file.h"
#include "tests/support/kaz_token_talk.h"

#include <filesystem>

#include <unistd.h>

namespace sim {
namespace {

using namespace kaz_token_talk;

TEST(KazTokenState, SurvivesInAFile)
{
    KazTokenOptions options;
    options.pin = "98765";
    options.wrongPin = 0x63C0;
    options.blockedPin = 0x6984;
    options.retryLimit = 2;
    options.endOfFile = EndOfFile::WrongOffset;
    options.generatedGost = GostAlgorithm::Gost2001;
    KazToken token(options);
    EXPECT_EQ("63C1", ask(token, WRONG_PIN));
    token.setFile(kazPairFile(0x6004, 3), hex("01 02"));
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("kaz-token-state." + std::to_string(getpid()));
    token.save(path);

    KazToken other;
    walk(other, {RIGHT_PIN});
    other.load(path);
    std::filesystem::remove(path);
    EXPECT_FALSE(other.verified());
    EXPECT_EQ(1u, other.retriesLeft());
    EXPECT_EQ(token.list(), other.list());
    EXPECT_EQ(token.certificate(1), other.certificate(1));
    EXPECT_EQ(token.rsaKey(1).privateDer(), other.rsaKey(1).privateDer());
    EXPECT_EQ(token.gostKey(2).privateDer(), other.gostKey(2).privateDer());
    EXPECT_EQ(hex("0102"), other.file(kazPairFile(0x6004, 3)));
    EXPECT_EQ(token.state(), other.state());
    EXPECT_EQ("63C0", ask(other, WRONG_PIN));
    EXPECT_EQ("6984", ask(other, WRONG_PIN));
    answer(other, selectOfPair("6004", "03"));
    EXPECT_EQ("6B00", ask(other, "00 B0 00 02 00"));

    KazToken again;
    again.restore(token.state());
    walk(again, {"00 20 00 02 05 39 38 37 36 35", SELECT_PRIVATE_KEYS,
                 createKeyFile("00 40", "00 09", "03"), SELECT_PUBLIC_KEYS,
                 createKeyFile("00 40", "00 09", "03")});
    other.restore(again.state());
    EXPECT_EQ("9000", ask(again, "00 46 80 09"));
    EXPECT_EQ(GostAlgorithm::Gost2001, again.gostKey(9).algorithm());
    EXPECT_TRUE(other.hasFile(kazPairFile(0x6001, 9))) << "a key file without its key";
    EXPECT_FALSE(other.gostKey(9));
}

TEST(KazTokenState, ChangesWithEveryLastingChangeAndNothingElse)
{
    KazToken token;
    const unsigned long start = token.revision();
    EXPECT_EQ(0u, start);
    walk(token, {RIGHT_PIN, useGostKey("02"), SELECT_LIST});
    answer(token, "00 2A 9E 9A 20" + run(32, "11") + "40");
    answer(token, "00 46 81 01 00");
    walk(token, {LOG_OUT, RIGHT_PIN});
    token.reset();
    EXPECT_EQ(start, token.revision());
    unsigned long before = start;
    const auto changes = [&](const std::string& command) {
        const Bytes state = token.state();
        answer(token, command);
        EXPECT_EQ(before + 1, token.revision()) << command;
        EXPECT_NE(state, token.state()) << command;
        before = token.revision();
    };
    changes(WRONG_PIN);
    changes(RIGHT_PIN);
    walk(token, {SELECT_LIST});
    changes("00 D6 00 00 01 77");
    changes("00 E4 00 00");
    changes(createFile("00 01", "10 10"));
    walk(token, {SELECT_PRIVATE_KEYS});
    changes(createKeyFile("00 40", "00 09", "03"));
    walk(token, {SELECT_PUBLIC_KEYS});
    changes(createKeyFile("00 40", "00 09", "03"));
    changes("00 46 80 09");
}

TEST(KazTokenState, WhatIsNoStateLeavesTheTokenAsItWas)
{
    KazToken token;
    const Bytes good = token.state();
    const StateRecords records = unpackState("VELTKTC1", good);
    const auto refused = [&](std::uint8_t tag, const Bytes& value) {
        StateRecords changed = records;
        changed[tag] = value;
        EXPECT_THROW(token.restore(packState("VELTKTC1", changed)), StateError) << int{tag};
        EXPECT_EQ(good, token.state());
    };
    refused(0x01, {0x02});
    refused(0x02, {0x63});
    refused(0x03, {0x10});
    refused(0x04, {0x09});
    refused(0x06, {});
    refused(0x07, {0x02});
    refused(0x10, {});
    Bytes files = records.at(0x10);
    files.push_back(0x00);
    refused(0x10, files);
    files.resize(files.size() - 2);
    refused(0x10, files);
    files = records.at(0x10);
    files[1] = 0x39; // the master file's kind
    refused(0x10, files);
    files[1] = 0x01; // a transparent file with others below it
    refused(0x10, files);
    // The master file twice, and a file below a directory that is missing.
    const Bytes head(records.at(0x10).begin(), records.at(0x10).begin() + 22);
    refused(0x10, [&] {
        Bytes twice = head;
        twice.insert(twice.end(), head.begin(), head.end());
        return twice;
    }());
    refused(0x10, [&] {
        Bytes orphan = head;
        orphan.insert(orphan.end(), {0x02, 0x10, 0x00, 0x10, 0x10});
        orphan.insert(orphan.end(), head.begin() + 1, head.end());
        return orphan;
    }());
    EXPECT_THROW(token.restore(hex("00")), StateError);
    EXPECT_THROW(token.restore(packState("VELTIDC1", records)), StateError);
}

TEST(KazTokenWords, EveryCommandHasItsOwn)
{
    const auto words = [](const std::string& command) { return kazTokenWords(hex(command)); };
    EXPECT_EQ("select 1000/1010/1010", words(SELECT_LIST));
    EXPECT_EQ("select 1010", words(LIST_PARAMETERS));
    EXPECT_EQ("select 1000/1000/6002/0001", words(selectOfPair("6002", "01")));
    EXPECT_EQ("read up to 256 bytes at offset 256", words("00 B0 01 00 00"));
    EXPECT_EQ("read 2 bytes at offset 513", words("00 B0 02 01 02"));
    EXPECT_EQ("write 1 byte at offset 255", words("00 D6 00 FF 01 AA"));
    EXPECT_EQ("create directory 1010", words(CREATE_LIST_DIRECTORY));
    EXPECT_EQ("create file 0005 of 1026 bytes", words(createFile("04 02", "00 05")));
    EXPECT_EQ("create key file 0006", words(createKeyFile("01 00", "00 06", "23")));
    EXPECT_EQ("create a file", words("00 E0 00 00 02 62 00"));
    EXPECT_EQ("delete file 0005", words("00 E4 00 00 02 00 05"));
    EXPECT_EQ("delete the selected file", words("00 E4 00 00"));
    EXPECT_EQ("verify the PIN", words(RIGHT_PIN));
    EXPECT_EQ("log out", words(LOG_OUT));
    EXPECT_EQ("choose RSA key 03 for signing", words(useRsaKey("03")));
    EXPECT_EQ("choose GOST key 04 for signing", words(useGostKey("04")));
    EXPECT_EQ("choose RSA key (missing) for signing", words("00 22 41 B6 01 95"));
    EXPECT_EQ("sign, first part: 2 bytes", words("10 2A 9E 9A 02 AA BB"));
    EXPECT_EQ("sign 3 bytes", words("00 2A 9E 9A 03 AA BB CC 00"));
    EXPECT_EQ("generate key pair 09", words("00 46 80 09"));
    EXPECT_EQ("get public key 09", words("00 46 81 09 00"));
    EXPECT_EQ("get 16 bytes at random", words("00 84 00 00 10"));
    EXPECT_EQ("get 256 bytes at random", words("00 84 00 00 00"));
    EXPECT_EQ("unknown command", words("00 88 00 00 00"));
    EXPECT_EQ("incomplete command", words("00 A4 08"));
}

TEST(KazTokenWords, ThePinAloneIsSecret)
{
    EXPECT_EQ(6u, kazTokenSecretLength(hex(RIGHT_PIN)));
    EXPECT_EQ(3u, kazTokenSecretLength(hex("00 20 00 02 09 31 32 33")));
    EXPECT_EQ(0u, kazTokenSecretLength(hex("00 20 00 02")));
    EXPECT_EQ(0u, kazTokenSecretLength(hex(SELECT_LIST)));
}

} // namespace
} // namespace sim
