// The program velt-cardsim, run as a user runs it; the tests play the reader.
#include "sim/cards/id_card.h"
#include "sim/cards/kaz_token.h"
#include "sim/cards/test_ca.h"
#include "tests/support/cardsim_run.h"

#include <openssl/evp.h>

namespace velt_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

std::string pemOf(const sim::Bytes& der)
{
    std::vector<unsigned char> encoded(der.size() * 2);
    const int length = EVP_EncodeBlock(encoded.data(), der.data(), static_cast<int>(der.size()));
    const std::string base64(encoded.begin(), encoded.begin() + length);
    std::string pem = "-----BEGIN CERTIFICATE-----\n";
    for (std::size_t at = 0; at < base64.size(); at += 64) {
        pem += base64.substr(at, 64) + '\n';
    }
    return pem + "-----END CERTIFICATE-----\n";
}

constexpr const char* const SELECT_MASTER = "00 A4 00 0C 02 3F 00";
constexpr const char* const RIGHT_PIN = "00 20 00 02 08 31 32 33 34 30 30 30 30";
constexpr const char* const WRONG_PIN = "00 20 00 02 08 39 38 37 36 30 30 30 30";

TEST_F(Cardsim, TheHelpNamesEveryOption)
{
    EXPECT_EQ(0, run({"--help"}));
    for (const char* const option : {"--family",
                                     "--port",
                                     "--readers",
                                     "--wait",
                                     "--state",
                                     "--trace",
                                     "--notice",
                                     "--vanish-after",
                                     "--raise-loopback",
                                     "--old-atr",
                                     "--new-atr",
                                     "--pin",
                                     "--retries",
                                     "--keys",
                                     "--generated-bits",
                                     "--empty-certificates",
                                     "--certificate1",
                                     "--certificate2",
                                     "--issuer",
                                     "--data-object",
                                     "--wrong-pin-status",
                                     "--blocked-pin-status",
                                     "--pairs",
                                     "--certificate N=FILE",
                                     "--no-list",
                                     "--no-list-directory",
                                     "--end-of-file"}) {
        EXPECT_THAT(output(), HasSubstr(option));
    }
    EXPECT_EQ("", errors());
}

TEST_F(Cardsim, WrongOptionsAreExplainedWithExitCode2)
{
    const std::vector<std::pair<std::vector<std::string>, const char*>> wrong = {
        {{"--nonsense"}, "unknown option --nonsense"},
        {{"card"}, "not an option: card"},
        {{"--family", "none"}, "there is no family \"none\""},
        {{"--port"}, "--port needs a value"},
        {{"--port", "65536"}, "--port takes a number from 1 to 65535, not \"65536\""},
        {{"--port", "12x"}, "--port takes a number from 1 to 65535, not \"12x\""},
        {{"--port=7", "--port=7"}, "the same port is given twice"},
        {{"--readers", "2", "--state", "x"}, "--state keeps one card"},
        {{"--trace=yes"}, "--trace takes no value"},
        {{"--pin", "12345"}, "the card's PIN has four characters"},
        {{"--retries", "0"}, "--retries takes a number from 1 to 15, not \"0\""},
        {{"--keys", "2048"}, "--keys takes two values"},
        {{"--keys", "2048,512"}, "--keys takes none, fresh, 1024 or 2048, not \"512\""},
        {{"--issuer", "five"}, "--issuer takes two, six or seven, not \"five\""},
        {{"--data-object", "12"}, "--data-object takes 18 hexadecimal digits"},
        {{"--certificate1", "/nowhere"}, "cannot read certificate /nowhere"},
        {{"--certificate1", "/dev/null"}, "no certificate in /dev/null"}};
    for (const auto& [arguments, message] : wrong) {
        EXPECT_EQ(2, run(arguments)) << message;
        EXPECT_THAT(errors(), StartsWith("velt-cardsim: "));
        EXPECT_THAT(errors(), HasSubstr(message));
    }
}

TEST_F(Cardsim, WrongOptionsOfTheKaztokenAreExplainedLikewise)
{
    const std::vector<std::pair<std::vector<std::string>, const char*>> wrong = {
        {{"--old-atr"}, "unknown option --old-atr"},
        {{"--pin="}, "the token's PIN has between 1 and 16 characters"},
        {{"--retries", "16"}, "--retries takes a number from 1 to 15, not \"16\""},
        {{"--wrong-pin-status", "63C"}, "--wrong-pin-status takes four hexadecimal digits"},
        {{"--blocked-pin-status", "69 3"}, "--blocked-pin-status takes four hexadecimal digits"},
        {{"--pairs", "rsa512"}, "--pairs takes rsa2048, rsa1024, gost2012 and gost2001"},
        {{"--pairs", "rsa2048,"}, "and gost2001, not \"\""},
        {{"--certificate", "x"}, "--certificate takes the number of a pair, = and a file"},
        {{"--certificate", "0=x"}, "--certificate takes a number from 1 to 254, not \"0\""},
        {{"--certificate", "4=none"}, "--certificate: there is no pair 4"},
        {{"--certificate", "1=/nowhere"}, "cannot read certificate /nowhere"},
        {{"--end-of-file", "6A82"}, "--end-of-file takes bare or 6B00, not \"6A82\""},
        {{"--no-list=yes"}, "--no-list takes no value"}};
    for (auto [arguments, message] : wrong) {
        arguments.insert(arguments.begin(), {"--family", "kt"});
        EXPECT_EQ(2, run(arguments)) << message;
        EXPECT_THAT(errors(), HasSubstr(message));
    }
}

TEST_F(Cardsim, EndsWithExitCode3WhereNoReaderListens)
{
    reader.stopListening();
    EXPECT_EQ(3, run({"--wait", "0", "--port", std::to_string(reader.port())}));
    EXPECT_EQ("velt-cardsim: no virtual reader listens on port " + std::to_string(reader.port()) +
                  "\n",
              errors());
}

TEST_F(Cardsim, ServesTheCardUntilASignalEndsIt)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        insert();
        EXPECT_EQ("3B391900534F4D414453333031", ask("04"));
        reader.send({0x01});
        EXPECT_EQ("9000", ask(SELECT_MASTER));
        EXPECT_EQ("19860217350100427C9000", ask("00 CA DF 01 09"));
        reader.send({0x02});
        EXPECT_EQ("6A88", ask("00 CA DF 01 09"));
        EXPECT_EQ(0, end(signal));
        EXPECT_TRUE(reader.cardHasGone());
    }
}

TEST_F(Cardsim, TheCardIsMadeAsTheOptionsSay)
{
    insert({"--old-atr", "--pin=9876", "--retries", "7", "--keys", "none,1024",
            "--empty-certificates", "--data-object", "0102030405060708AF"});
    EXPECT_EQ("3B771800004B4153414B4944", ask("04"));
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("0102030405060708AF9000", ask("00 CA DF 01 09"));
    EXPECT_EQ("63C6", ask(RIGHT_PIN));
    EXPECT_EQ("9000", ask(WRONG_PIN)) << "it is the right one here";
    EXPECT_EQ("9000", ask("00 A4 01 0C 02 01 01"));
    EXPECT_EQ("6102", ask("00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 81 00"));
    EXPECT_EQ("618F", ask("00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00"));
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("9000", ask("00 A4 01 0C 02 08 01"));
    for (const char* const file : {"00 A4 02 0C 02 01 01", "00 A4 02 0C 02 01 02"}) {
        EXPECT_EQ("9000", ask(file));
        EXPECT_EQ("00009000", ask("00 B0 00 00 02"));
    }
}

TEST_F(Cardsim, TakesCertificatesFromFilesInEitherForm)
{
    const sim::Bytes der = sim::authorityCertificate();
    std::ofstream(path("ca.der"), std::ios::binary) << std::string(der.begin(), der.end());
    std::ofstream(path("ca.pem")) << pemOf(der);
    insert({"--certificate1", path("ca.der"), "--certificate2", path("ca.pem"), "--state",
            path("state")});
    end();
    sim::IdCard card;
    card.load(path("state"));
    EXPECT_EQ(der, card.certificate(0));
    EXPECT_EQ(der, card.certificate(1));
}

TEST_F(Cardsim, WritesEveryChangeToTheStateFileAndStartsFromIt)
{
    insert({"--state", path("state")});
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("63C2", ask(WRONG_PIN));
    sim::IdCard kept;
    kept.load(path("state"));
    EXPECT_EQ(2u, kept.retriesLeft()) << "written before the answer left";
    EXPECT_EQ(-SIGKILL, end(SIGKILL));

    insert({"--state", path("state"), "--pin", "9876"});
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("63C1", ask(WRONG_PIN)) << "options do nothing to a card that exists";
    EXPECT_EQ("9000", ask(RIGHT_PIN));
    EXPECT_EQ("9000", ask("00 A4 01 0C 02 08 01"));
    EXPECT_EQ("9000", ask("00 A4 02 0C 02 01 02"));
    EXPECT_EQ("9000", ask("00 D6 00 00 02 00 00"));
    EXPECT_EQ(0, end());
    kept.load(path("state"));
    EXPECT_EQ(3u, kept.retriesLeft());
    EXPECT_EQ("0000", toHex(std::span(kept.file(1)).first(2)));
}

TEST_F(Cardsim, AStateFileThatCannotBeUsedIsExitCode4)
{
    std::ofstream(path("state")) << "something else";
    EXPECT_EQ(4, run({"--state", path("state")}));
    EXPECT_EQ("velt-cardsim: this is not the state of such a card\n", errors());
    EXPECT_EQ(4, run({"--state", path("missing/state")}));
    EXPECT_THAT(errors(), HasSubstr("missing/state"));
}

TEST_F(Cardsim, TheTraceHidesThePin)
{
    insert({"--trace"});
    ask(SELECT_MASTER);
    ask(WRONG_PIN);
    ask("00 20 00 01 04 39 38 37 36");
    EXPECT_EQ(0, end());
    const std::string port = std::to_string(reader.port());
    EXPECT_EQ("velt-cardsim: port " + port + ": the card is in the reader\n" + port +
                  " > 00A4000C023F00  select the master file 3F00\n" + port + " < 9000  done\n" +
                  port + " > 0020000208****************  verify the PIN\n" + port +
                  " < 63C2  wrong PIN, attempts left: 2\n" + port +
                  " > 0020000104********  verify the PIN\n" + port +
                  " < 6A86  refused: wrong parameters\n",
              errors());
}

TEST_F(Cardsim, WithoutTraceNoCommandIsShown)
{
    insert();
    ask(SELECT_MASTER);
    EXPECT_EQ(0, end());
    EXPECT_THAT(errors(), Not(HasSubstr("00A4")));
}

TEST_F(Cardsim, SignalsPullTheCardOutAndPutItBack)
{
    insert({"--notice", path("noticed")});
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("9000", ask(RIGHT_PIN));
    EXPECT_FALSE(std::filesystem::exists(path("noticed")));
    reader.send({0x01});
    ask("04");
    ask("04");
    EXPECT_TRUE(await([&] { return std::filesystem::exists(path("noticed")); }));
    ::kill(process, SIGUSR1);
    EXPECT_TRUE(reader.cardHasGone());
    EXPECT_FALSE(reader.takeCard(300)) << "it stays out";
    EXPECT_TRUE(await([&] { return !std::filesystem::exists(path("noticed")); }));
    ::kill(process, SIGUSR2);
    ASSERT_TRUE(reader.takeCard());
    EXPECT_EQ("6A88", ask("00 CA DF 01 09")) << "nothing is selected";
    reader.send({0x01});
    ask("04");
    ask("04");
    EXPECT_TRUE(await([&] { return std::filesystem::exists(path("noticed")); }));
    EXPECT_EQ(0, end());
    EXPECT_FALSE(std::filesystem::exists(path("noticed")));
}

TEST_F(Cardsim, LeavesInsteadOfAnsweringAfterTheCommandsAllowed)
{
    insert({"--vanish-after", "2"});
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("9000", ask(RIGHT_PIN));
    reader.send(hex(SELECT_MASTER));
    EXPECT_TRUE(reader.cardHasGone());
    EXPECT_FALSE(reader.takeCard(300));
    ::kill(process, SIGUSR2);
    ASSERT_TRUE(reader.takeCard());
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ("9000", ask(SELECT_MASTER)) << "it leaves once";
    }
    EXPECT_EQ(0, end());
}

TEST_F(Cardsim, ComesBackToAReaderThatWasRestarted)
{
    insert();
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    reader.hangUp();
    ASSERT_TRUE(reader.takeCard());
    EXPECT_EQ("6A88", ask("00 CA DF 01 09")) << "power was lost";
    EXPECT_EQ(0, end());
}

TEST_F(Cardsim, EveryReaderGetsACardOfItsOwn)
{
    VirtualReader second;
    insert({"--port", std::to_string(second.port())});
    ASSERT_TRUE(second.takeCard());
    EXPECT_EQ("9000", ask(SELECT_MASTER));
    EXPECT_EQ("6A88", toHex(second.exchange(hex(RIGHT_PIN)))) << "nothing is selected there";
    EXPECT_EQ("63C2", ask(WRONG_PIN));
    EXPECT_EQ("9000", toHex(second.exchange(hex(SELECT_MASTER))));
    EXPECT_EQ("63C2", toHex(second.exchange(hex(WRONG_PIN))));
    EXPECT_EQ(0, end());
}

TEST_F(Cardsim, ServesAKaztokenMadeAsTheOptionsSay)
{
    const sim::Bytes der = sim::authorityCertificate();
    std::ofstream(path("ca.der"), std::ios::binary) << std::string(der.begin(), der.end());
    insert({"--family",
            "kt",
            "--pin",
            "0000",
            "--retries",
            "3",
            "--wrong-pin-status",
            "63C0",
            "--blocked-pin-status",
            "6984",
            "--pairs",
            "gost2001,fresh-rsa1024,rsa1024",
            "--empty-certificates",
            "--certificate",
            "3=" + path("ca.der"),
            "--end-of-file",
            "6B00",
            "--state",
            path("state"),
            "--trace"});
    EXPECT_EQ("3B88014B415A544F4B454E82", ask("04"));
    EXPECT_EQ("63C2", ask("00 20 00 02 04 31 32 33 34"));
    EXPECT_EQ("9000", ask("00 20 00 02 04 30 30 30 30"));
    EXPECT_EQ("9000", ask("00 22 41 B6 06 91 01 40 84 01 01"));
    EXPECT_EQ("9000", ask("00 A4 08 04 08 10 00 10 00 60 04 00 03"));
    EXPECT_EQ("6A82", ask("00 A4 08 04 08 10 00 10 00 60 04 00 01"));
    EXPECT_EQ("9000", ask("00 E4 00 00"));
    EXPECT_EQ(0, end());

    sim::KazToken kept;
    kept.load(path("state"));
    EXPECT_EQ(sim::Bytes{}, kept.certificate(3)) << "deleted before the program ended";
    EXPECT_EQ(sim::GostKey::fromTestKey(sim::GostTestKey::First2001).publicKey(),
              kept.gostKey(1).publicKey());
    EXPECT_EQ(1024u, kept.rsaKey(2).bits());
    EXPECT_NE(kept.rsaKey(2).modulus(), kept.rsaKey(3).modulus());
    EXPECT_EQ(4u + 3u * 34u, kept.list()->size());
    const std::string port = std::to_string(reader.port());
    EXPECT_THAT(errors(), HasSubstr(port + " > 0020000204********  verify the PIN\n" + port +
                                    " < 63C2  wrong PIN, attempts left: 2\n"));
    EXPECT_THAT(errors(), HasSubstr(port + " > 00E40000  delete the selected file\n"));
    EXPECT_THAT(errors(), Not(HasSubstr("30303030")));
}

TEST_F(Cardsim, AKaztokenMayBeEmptyOrWithoutItsList)
{
    insert({"--family=kt", "--pairs", "none"});
    EXPECT_EQ("9000", ask("00 A4 08 04 06 10 00 10 10 10 10"));
    EXPECT_EQ("010000109000", ask("00 B0 00 00 00"));
    EXPECT_EQ("9000", ask("00 B0 00 04 00"));
    EXPECT_EQ("C263", ask("00 20 00 02 01 31"));
    end();
    insert({"--family=kt", "--no-list", "--trace"});
    EXPECT_EQ("C263", ask("00 20 00 02 01 31"));
    EXPECT_EQ("6A82", ask("00 A4 08 04 06 10 00 10 10 10 10"));
    EXPECT_EQ("9000", ask("00 A4 08 04 04 10 00 10 10"));
    end();
    EXPECT_THAT(errors(), HasSubstr(" < C263  wrong PIN, attempts left: 2\n"));
    insert({"--family=kt", "--no-list-directory"});
    EXPECT_EQ("6A82", ask("00 A4 08 04 04 10 00 10 10"));
    end();
}

} // namespace
} // namespace velt_test
