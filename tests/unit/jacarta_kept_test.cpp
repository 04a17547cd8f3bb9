// What the simulated JaCarta keeps: certificates, new pairs, its state; and how it is traced.
#include "tests/support/jacarta_talk.h"

#include <stdexcept>

namespace sim {
namespace {

using namespace jacarta_talk;

TEST(JacartaKept, KeepsACertificateUnderANameThatStands)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("9000", ask(card, writeCertificate(RSA_NAME, "AA BB CC")));
    EXPECT_EQ("AABBCC9000", ask(card, named(READ_CERTIFICATE, RSA_NAME)));
    EXPECT_EQ("9000", ask(card, writeCertificate(RSA_NAME, "DD"))) << "replaced whole";
    EXPECT_EQ("DD9000", ask(card, named(READ_CERTIFICATE, RSA_NAME)));
    EXPECT_EQ("9000", ask(card, writeCertificate(GOST_NAME, run(2048, "5A"))));
    EXPECT_EQ(run(2048, "5A") + "9000", ask(card, named(READ_CERTIFICATE, GOST_NAME)));
    EXPECT_EQ("6A84", ask(card, writeCertificate(GOST_NAME, run(2049, "5B"))));
    EXPECT_EQ("6428", ask(card, writeCertificate(ABSENT_NAME, "AA")));
    EXPECT_EQ(3u, card.objects().size());
}

TEST(JacartaKept, RefusesCertificatesWhoseLengthDoesNotFit)
{
    Jacarta card(threeObjects());
    logIn(card);
    const Bytes before = card.state();
    EXPECT_EQ("6A80", ask(card, extendedCommand(WRITE_CERTIFICATE, "00 02 00 01 43 AA")));
    EXPECT_EQ("6A80", ask(card, extendedCommand(WRITE_CERTIFICATE, "00 01 00 01 43 AA BB")));
    EXPECT_EQ("6A80", ask(card, extendedCommand(WRITE_CERTIFICATE, "00 00 00 01 43")));
    EXPECT_EQ("6A80", ask(card, extendedCommand(WRITE_CERTIFICATE, "00 01 01 01 43 AA")));
    EXPECT_EQ("6A80", ask(card, extendedCommand(WRITE_CERTIFICATE, "00")));
    EXPECT_EQ(before, card.state());
}

TEST(JacartaKept, GeneratesPairsUnderNewNames)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_RSA, "08 00 08 00 02 4E 00")));
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_GOST, "01 00 01 4E")));
    EXPECT_EQ("00059000", ask(card, COUNT_OBJECTS));
    EXPECT_EQ("4E009000", ask(card, "80 12 21 00 02 00 03"));
    const Bytes rsaName = hex("4E 00");
    EXPECT_EQ("9000", ask(card, named(PROBE, rsaName, "00 03")));
    const Bytes signature = dataOf(answer(card, signRsa(rsaName, block("61"))));
    EXPECT_EQ("61", toHex(card.object(rsaName)->rsa.recover(signature)));
    const Bytes gostName = hex("4E");
    const Bytes halves = dataOf(answer(card, named(SIGN_GOST, gostName, reversedDigest())));
    EXPECT_TRUE(card.object(gostName)->gost.verify(digest(), turnHalves(halves)));
    EXPECT_EQ(2u, card.counters().generations);
}

TEST(JacartaKept, AddsAPairToANameThatLacksOne)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_GOST, "01 00" + counted(RSA_NAME))));
    EXPECT_EQ("6A89", ask(card, shortCommand(GENERATE_GOST, "01 00" + counted(RSA_NAME))));
    EXPECT_EQ("6A89", ask(card, shortCommand(GENERATE_RSA, "08 00 08 00" + counted(RSA_NAME))));
    EXPECT_EQ("00039000", ask(card, COUNT_OBJECTS));
    for (const char* const part : {"00 00", "00 01", "00 03"}) {
        EXPECT_EQ("9000", ask(card, named(PROBE, RSA_NAME, part)));
    }
}

TEST(JacartaKept, RefusesOtherFormsOfGeneration)
{
    Jacarta card(threeObjects());
    logIn(card);
    const Bytes before = card.state();
    for (const std::string data : {"04 00 04 00 01 4E", "08 00 04 00 01 4E", "08 00 08 00 02 4E",
                                   "08 00 08 00 01 4E 00", "08 00 08 00 00", "08 00 08 00", "08"}) {
        EXPECT_EQ("6A80", ask(card, shortCommand(GENERATE_RSA, data))) << data;
    }
    for (const std::string data : {"00 00 01 4E", "02 00 01 4E", "01 00 02 4E", "01 00 00", "01"}) {
        EXPECT_EQ("6A80", ask(card, shortCommand(GENERATE_GOST, data))) << data;
    }
    EXPECT_EQ("6A80", ask(card, shortCommand(GENERATE_GOST, "01 00 15" + run(21, "4E"))));
    EXPECT_EQ(before, card.state());
}

TEST(JacartaKept, DeletesAWholeObjectAndTheOnesBehindMoveUp)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("9000", ask(card, named(DESTROY, GOST_NAME)));
    EXPECT_EQ("6428", ask(card, named(DESTROY, GOST_NAME)));
    EXPECT_EQ("00029000", ask(card, COUNT_OBJECTS));
    EXPECT_EQ("439000", ask(card, "80 12 21 00 02 00 01"));
    EXPECT_EQ("6428", ask(card, named(PROBE, GOST_NAME, "00 00")));
    EXPECT_EQ("6A80", ask(card, named(DESTROY, RSA_NAME, "00")));
    EXPECT_EQ("00029000", ask(card, COUNT_OBJECTS));
}

TEST(JacartaKept, BringsAnRsaAndAGostPairWithCertificatesOfTheirKeys)
{
    const Jacarta card;
    ASSERT_EQ(2u, card.objects().size());
    EXPECT_EQ(16u, card.objects()[0].name.size());
    EXPECT_EQ(7u, card.objects()[1].name.size());
    EXPECT_EQ(2048u, card.objects()[0].rsa.bits());
    EXPECT_THAT(toHex(card.objects()[0].certificate()),
                ::testing::HasSubstr(toHex(card.objects()[0].rsa.modulus())));
    EXPECT_THAT(toHex(card.objects()[1].certificate()),
                ::testing::HasSubstr(toHex(card.objects()[1].gost.publicKey())));
}

TEST(JacartaKept, RefusesOptionsThatNoTokenCanHave)
{
    const auto refused = [](auto change) {
        JacartaOptions options;
        options.objects.emplace();
        change(options);
        EXPECT_THROW(Jacarta{options}, std::invalid_argument);
    };
    refused([](JacartaOptions& options) { options.pin = "123"; });
    refused([](JacartaOptions& options) { options.pin = "12345678901"; });
    refused([](JacartaOptions& options) { options.retryLimit = 0; });
    refused([](JacartaOptions& options) { options.retryLimit = 16; });
    refused([](JacartaOptions& options) { options.objects = {objectNamed("")}; });
    refused(
        [](JacartaOptions& options) { options.objects = {objectNamed("123456789012345678901")}; });
    refused([](JacartaOptions& options) {
        options.objects = {objectNamed("twice"), objectNamed("twice")};
    });
    refused([](JacartaOptions& options) {
        options.objects = {containerObject("large", Bytes(0x10000))};
    });
    JacartaOptions options;
    options.objects = {objectNamed("12345678901234567890")};
    EXPECT_NO_THROW(Jacarta{options});
}

TEST(JacartaKept, KeepsObjectsAndPinWithoutPower)
{
    Jacarta card(threeObjects());
    start(card);
    EXPECT_EQ("6413", ask(card, WRONG_PIN));
    Jacarta other;
    const unsigned long before = other.revision();
    other.restore(card.state());
    EXPECT_LT(before, other.revision());
    EXPECT_EQ(card.state(), other.state());
    EXPECT_EQ(2u, other.retriesLeft());
    EXPECT_EQ(3u, other.objects().size());
    EXPECT_EQ("6985", ask(other, COUNT_OBJECTS)) << "power was lost";
    logIn(other);
    const Bytes signature = dataOf(answer(other, signRsa(RSA_NAME, block("61"))));
    EXPECT_EQ("61", toHex(card.object(RSA_NAME)->rsa.recover(signature)));
    const Bytes halves = dataOf(answer(other, named(SIGN_GOST, GOST_NAME, reversedDigest())));
    EXPECT_TRUE(card.object(GOST_NAME)->gost.verify(digest(), turnHalves(halves)));
}

TEST(JacartaKept, ItsRevisionGrowsWithEveryChangeOfItsState)
{
    Jacarta card(threeObjects());
    start(card);
    unsigned long revision = card.revision();
    for (const std::string& command :
         {std::string(WRONG_PIN), std::string(RIGHT_PIN), writeCertificate(RSA_NAME, "AA"),
          shortCommand(GENERATE_GOST, "01 00 01 4E"), named(DESTROY, RSA_NAME)}) {
        answer(card, command);
        EXPECT_LT(revision, card.revision()) << command;
        revision = card.revision();
    }
    for (const char* const command : {COUNT_OBJECTS, RIGHT_PIN, INITIALISE, SELECT}) {
        answer(card, command);
        EXPECT_EQ(revision, card.revision()) << command;
    }
}

TEST(JacartaKept, RefusesStatesThatNoTokenCanHave)
{
    Jacarta card(threeObjects());
    const Bytes good = card.state();
    for (std::size_t length = 0; length < good.size(); length += 7) {
        EXPECT_THROW(card.restore(std::span(good).first(length)), StateError) << length;
    }
    const StateRecords records = unpackState("VELTJCA1", good);
    const Bytes& objects = records.at(0x04);
    const std::vector<std::pair<std::uint8_t, Bytes>> wrong = {
        {0x01, {0}},
        {0x01, {16}},
        {0x02, {4}},
        {0x03, hex("31 32 33")},
        {0x04, {0x00}},
        {0x04, Bytes(objects.begin(), objects.end() - 1)},
        {0x04, hex("0000 0000 0000 0001 03 0000")},       // no name
        {0x04, hex("0001 41 0001 55 0000 0001 03 0000")}, // no RSA key
        {0x04, hex("0001 41 0000 0001 55 0001 03 0000")}, // no GOST key
        {0x04, hex("0001 41 0000 0000 0001 04 0000")},    // parts that there are not
        {0x04, hex("0001 41 0000 0000 0000 0000")},
        {0x04, hex("0001 41 0000 0000 0001 03 0000 0001 41 0000 0000 0001 03 0000")}};
    for (const auto& [tag, value] : wrong) {
        StateRecords changed = records;
        changed[tag] = value;
        EXPECT_THROW(card.restore(packState("VELTJCA1", changed)), StateError)
            << int{tag} << " " << toHex(value);
    }
    EXPECT_THROW(card.restore(packState("VELTE721", records)), StateError);
    EXPECT_EQ(good, card.state());
}

TEST(JacartaKept, TellsItsCommandsInPlainWords)
{
    const Jacarta card;
    const std::vector<std::pair<std::string, std::string>> told = {
        {SELECT, "select applet A00067616D6D617465636800"},
        {INITIALISE, "log out and initialise"},
        {RIGHT_PIN, "verify the PIN"},
        {COUNT_OBJECTS, "count the objects"},
        {"80 12 21 00 02 00 01", "name an object"},
        {named(PROBE, RSA_NAME, "00 03"), "look for a part of 525341"},
        {named(READ_RSA, RSA_NAME), "read RSA key 525341"},
        {named(READ_GOST, GOST_NAME), "read GOST key 67006F7374"},
        {named(READ_CERTIFICATE, BARE_NAME), "read certificate 43"},
        {writeCertificate(BARE_NAME, "01 02"), "write certificate 43"},
        {signRsa(RSA_NAME, block("61")), "sign with RSA key 525341"},
        {named(SIGN_GOST, GOST_NAME, reversedDigest()), "sign with GOST key 67006F7374"},
        {"80 14 31 00 02 00 20", "make random bytes"},
        {shortCommand(GENERATE_RSA, "08 00 08 00 02 4E 00"), "generate RSA key pair 4E00"},
        {shortCommand(GENERATE_GOST, "01 00 01 4E"), "generate GOST key pair 4E"},
        {named(DESTROY, RSA_NAME), "delete object 525341"},
        {"80 12 25 00 05 00 09 43", "read RSA key (missing)"},
        {"80 12 25 00 00", "read RSA key (missing)"},
        {"80 99 00 00 00", "unknown command"},
        {"80 12", "incomplete command"}};
    for (const auto& [command, words] : told) {
        EXPECT_EQ(words, card.words(hex(command))) << command;
    }
}

TEST(JacartaKept, OnlyAPinIsSecret)
{
    EXPECT_EQ(4u, Jacarta::secretLength(hex(RIGHT_PIN)));
    EXPECT_EQ(6u, Jacarta::secretLength(hex("80 10 20 00 03 31 32 33 34 35 36")));
    EXPECT_EQ(4u, Jacarta::secretLength(hex("00 10 21 00 04 31 32 33 34")));
    EXPECT_EQ(0u, Jacarta::secretLength(hex("80 10 21 00 00")));
    EXPECT_EQ(0u, Jacarta::secretLength(hex(SELECT)));
    EXPECT_EQ(0u, Jacarta::secretLength({}));
}

} // namespace
} // namespace sim
