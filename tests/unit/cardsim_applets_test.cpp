// The JaCarta and the eToken 72K that velt-cardsim serves.
#include "sim/cards/etoken_72k.h"
#include "sim/cards/jacarta.h"
#include "tests/support/cardsim_run.h"

namespace velt_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* const SELECT_JACARTA = "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00";
constexpr const char* const SELECT_ETOKEN = "00 A4 04 00 0A 00 00 00 00 00 00 01 02 03 00";
constexpr const char* const INITIALISE = "80 15 20 00 00";

class CardsimApplets : public Cardsim {
protected:
    void walk(const std::vector<std::string>& commands)
    {
        for (const std::string& command : commands) {
            ASSERT_EQ("9000", ask(command)) << command;
        }
    }
};

TEST_F(CardsimApplets, TheHelpNamesEveryOption)
{
    EXPECT_EQ(0, run({"--help"}));
    for (const char* const option :
         {"Options of family jc (JaCarta)", "Options of family et72k (eToken 72K)", "--objects",
          "--names", "--serial", "--unterminated-names"}) {
        EXPECT_THAT(output(), HasSubstr(option));
    }
}

TEST_F(CardsimApplets, WrongOptionsAreExplainedWithExitCode2)
{
    const std::vector<std::pair<std::vector<std::string>, const char*>> wrong = {
        {{"--old-atr"}, "unknown option --old-atr"},
        {{"--pin", "123"}, "the token's PIN has between 4 and 10 characters"},
        {{"--retries", "16"}, "--retries takes a number from 1 to 15, not \"16\""},
        {{"--issuer", "one"}, "--issuer takes two, six or seven, not \"one\""},
        {{"--objects", "rsa512"}, "--objects takes rsa2048, rsa1024, gost2012 and gost2001, not"},
        {{"--objects", "rsa2048,"}, "and gost2001, not \"\""},
        {{"--objects", "gost2012+cert"}, "and gost2001, not \"gost2012+cert\""},
        {{"--names", "41"}, "--names needs --objects"},
        {{"--objects", "none", "--names", "41"}, "--names and --objects have different numbers"},
        {{"--objects", "gost2012", "--names", "4"}, "--names takes hexadecimal names, not \"4\""},
        {{"--objects", "gost2012", "--names", "4G"}, "--names takes hexadecimal names"},
        {{"--objects", "gost2012,gost2001", "--names", "41,41"}, "two objects have the same name"}};
    for (const char* const family : {"jc", "et72k"}) {
        for (auto [arguments, message] : wrong) {
            arguments.insert(arguments.begin(), {"--family", family});
            EXPECT_EQ(2, run(arguments)) << message;
            EXPECT_THAT(errors(), HasSubstr(message));
        }
    }
    EXPECT_EQ(2, run({"--family", "jc", "--serial", "1"}));
    EXPECT_THAT(errors(), HasSubstr("unknown option --serial"));
    EXPECT_EQ(2, run({"--family", "et72k", "--serial="}));
    EXPECT_THAT(errors(), HasSubstr("the token's serial number has between 1 and 21 bytes"));
}

TEST_F(CardsimApplets, TheJacartaIsMadeAsTheOptionsSay)
{
    insert({"--family", "jc", "--pin", "98765", "--retries", "7", "--objects",
            "gost2012,fresh-rsa1024+certificate,rsa2048", "--names", "41,4200,434445", "--issuer",
            "two", "--state", path("state")});
    EXPECT_EQ("3BDC18FF8191FE1FC38073C821136601061159000128", ask("04"));
    walk({SELECT_JACARTA, INITIALISE});
    EXPECT_EQ("00039000", ask("80 12 22 00 00"));
    EXPECT_EQ("42009000", ask("80 12 21 00 02 00 01"));
    EXPECT_EQ("6413", ask("80 10 21 00 04 31 32 33 34"));
    EXPECT_EQ("9000", ask("80 10 21 00 05 39 38 37 36 35"));
    EXPECT_EQ(0, end());
    sim::Jacarta kept;
    kept.load(path("state"));
    ASSERT_EQ(3u, kept.objects().size());
    EXPECT_EQ(7u, kept.retriesLeft());
    EXPECT_EQ(sim::GostKey::fromTestKey(sim::GostTestKey::First2012).publicKey(),
              kept.objects()[0].gost.publicKey());
    EXPECT_TRUE(kept.objects()[0].container.empty());
    EXPECT_EQ(1024u, kept.objects()[1].rsa.bits());
    EXPECT_NE(sim::RsaKey::fromTestKey(sim::TestKey::First1024).modulus(),
              kept.objects()[1].rsa.modulus());
    EXPECT_THAT(toHex(kept.objects()[1].certificate()),
                HasSubstr(toHex(kept.objects()[1].rsa.modulus())));
    EXPECT_EQ(2048u, kept.objects()[2].rsa.bits());
}

TEST_F(CardsimApplets, TheEtokenIsMadeAsTheOptionsSay)
{
    insert({"--family", "et72k", "--serial", "77", "--unterminated-names", "--objects", "rsa1024"});
    EXPECT_EQ("3BD518008131FE7D8073C82110F4", ask("04"));
    walk({SELECT_ETOKEN, INITIALISE});
    EXPECT_EQ("373700000000000000000000000000000000000000"
              "9000",
              ask("80 15 10 00 00"));
    EXPECT_EQ("6F626A6563742D319000", ask("80 12 21 00 02 00 00"));
    EXPECT_EQ(0, end());
    insert({"--family", "et72k"});
    walk({SELECT_ETOKEN, INITIALISE});
    EXPECT_EQ("00039000", ask("80 12 22 00 00"));
    EXPECT_EQ("73686F7274009000", ask("80 12 21 00 02 00 02"));
    EXPECT_EQ(0, end());
    insert({"--family", "et72k", "--objects", "none"});
    walk({SELECT_ETOKEN, INITIALISE});
    EXPECT_EQ("00009000", ask("80 12 22 00 00"));
    EXPECT_EQ(0, end());
}

TEST_F(CardsimApplets, EveryChangeIsInTheStateFileBeforeTheAnswerLeaves)
{
    insert({"--family", "et72k", "--state", path("state")});
    walk({SELECT_ETOKEN, INITIALISE});
    EXPECT_EQ("6413", ask("80 10 20 00 04 39 39 39 39"));
    sim::Etoken72k kept;
    kept.load(path("state"));
    EXPECT_EQ(2u, kept.retriesLeft());
    walk({"80 10 20 00 04 31 32 33 34", "80 12 40 00 04 00 00 00 02", "80 12 40 00 04 00 02 AA BB",
          "80 12 42 00 07 00 05 73 68 6F 72 74"});
    EXPECT_EQ(-SIGKILL, end(SIGKILL));
    kept.load(path("state"));
    EXPECT_EQ("AABB", toHex(kept.objects()[2].container));

    insert({"--family", "et72k", "--state", path("state"), "--objects", "none"});
    walk({SELECT_ETOKEN, INITIALISE});
    EXPECT_EQ("00039000", ask("80 12 22 00 00")) << "options do nothing to a token that exists";
    EXPECT_EQ(0, end());
    EXPECT_EQ(4, run({"--family", "jc", "--state", path("state")}));
    EXPECT_THAT(errors(), HasSubstr("this is not the state of such a card"));
}

TEST_F(CardsimApplets, TheTraceTellsCommandsAndAnswersAndHidesThePin)
{
    insert({"--family", "jc", "--trace"});
    ask("80 10 21 00 04 39 38 37 36");
    walk({SELECT_JACARTA, INITIALISE});
    ask("80 10 21 00 04 39 38 37 36");
    ask("80 14 31 00 02 00 10");
    ask("80 12 28 00 03 00 01 41");
    ask("80 12 25 00 03 00 01 41");
    ask("80 12 21 00 02 00 09");
    EXPECT_EQ(0, end());
    const std::string port = std::to_string(reader.port());
    EXPECT_EQ(
        "velt-cardsim: port " + port + ": the card is in the reader\n" + port +
            " > 8010210004********  verify the PIN\n" + port +
            " < 6985  refused: something must come first\n" + port +
            " > 00A404000CA00067616D6D617465636800  select applet A00067616D6D617465636800\n" +
            port + " < 9000  done\n" + port + " > 8015200000  log out and initialise\n" + port +
            " < 9000  done\n" + port + " > 8010210004********  verify the PIN\n" + port +
            " < 6413  wrong PIN\n" + port + " > 80143100020010  make random bytes\n" + port +
            " < 6414  refused: nobody is logged in\n" + port +
            " > 8012280003000141  read certificate 41\n" + port +
            " < 6419  refused: no such certificate\n" + port +
            " > 8012250003000141  read RSA key 41\n" + port +
            " < 6428  refused: no such object or key\n" + port +
            " > 80122100020009  name an object\n" + port + " < 6A83  refused: no such position\n",
        errors());
    EXPECT_THAT(errors(), Not(HasSubstr("39383736")));
}

TEST_F(CardsimApplets, ALongCommandAndALongAnswerPassWhole)
{
    insert({"--family", "jc", "--objects", "rsa2048", "--names", "41"});
    walk({SELECT_JACARTA, INITIALISE, "80 10 21 00 04 31 32 33 34"});
    const sim::Bytes container(2048, 0x5A);
    EXPECT_EQ("9000", ask("80 12 27 00 00 08 05 08 00 00 01 41" + toHex(container)));
    EXPECT_EQ(toHex(container) + "9000", ask("80 12 28 00 03 00 01 41"));
    EXPECT_EQ(0, end());
}

} // namespace
} // namespace velt_test
