// What the simulated JaCarta answers, byte by byte: objects, PIN, keys, certificates, refusals.
#include "sim/cards/gzip_member.h"
#include "sim/cards/jacarta.h"
#include "tests/support/applet_talk.h"

#include <stdexcept>

namespace sim {
namespace {

using namespace applet_talk;

constexpr const char* SELECT = "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00";
constexpr const char* RIGHT_PIN = "80 10 21 00 04 31 32 33 34";
constexpr const char* WRONG_PIN = "80 10 21 00 04 31 32 33 35";
constexpr const char* PROBE = "80 12 24 00";
constexpr const char* READ_RSA = "80 12 25 00";
constexpr const char* READ_GOST = "80 11 21 00";
constexpr const char* READ_CERTIFICATE = "80 12 28 00";
constexpr const char* WRITE_CERTIFICATE = "80 12 27 00";
constexpr const char* SIGN_RSA = "80 14 23 24";
constexpr const char* SIGN_GOST = "80 14 20 00";
constexpr const char* DESTROY = "80 12 23 00";
constexpr const char* GENERATE_RSA = "80 11 23 00";
constexpr const char* GENERATE_GOST = "80 11 20 00";

const Bytes RSA_NAME = hex("52 53 41");        // "RSA"
const Bytes GOST_NAME = hex("67 00 6F 73 74"); // "g\0ost"
const Bytes BARE_NAME = hex("43");             // "C"
const Bytes ABSENT_NAME = hex("52 53 41 00");

JacartaOptions threeObjects()
{
    JacartaOptions options;
    AppletObject gost = gostObject("");
    gost.name = GOST_NAME;
    options.objects = {rsaObject("RSA"), gost, containerObject("C", hex("01 02 03"))};
    return options;
}

void start(Jacarta& card)
{
    walk(card, {SELECT, INITIALISE});
}

void logIn(Jacarta& card)
{
    walk(card, {SELECT, INITIALISE, RIGHT_PIN});
}

std::string signRsa(const Bytes& name, const std::string& padded)
{
    return extendedCommand(SIGN_RSA, "00" + counted(name) + "0100" + padded);
}

std::string writeCertificate(const Bytes& name, const std::string& container)
{
    const std::size_t length = hex(container).size();
    return extendedCommand(WRITE_CERTIFICATE, hexByte(length >> 8) + hexByte(length & 0xFFu) +
                                                  "00" + counted(name) + container);
}

TEST(Jacarta, OffersProtocolT1UnderItsAtr)
{
    EXPECT_EQ("3BDC18FF8191FE1FC38073C821136601061159000128", toHex(Jacarta().atr()));
    EXPECT_EQ(2u, Jacarta().protocol());
}

TEST(Jacarta, KnowsNothingBeforeItsAppletIsSelectedAndInitialised)
{
    Jacarta card(threeObjects());
    EXPECT_EQ("6985", ask(card, COUNT_OBJECTS));
    EXPECT_EQ("6985", ask(card, INITIALISE));
    EXPECT_EQ("6985", ask(card, RIGHT_PIN));
    walk(card, {SELECT});
    EXPECT_EQ("6985", ask(card, COUNT_OBJECTS));
    EXPECT_EQ("6985", ask(card, RIGHT_PIN));
    walk(card, {INITIALISE});
    EXPECT_EQ("00039000", ask(card, COUNT_OBJECTS));
    card.reset();
    EXPECT_EQ("6985", ask(card, COUNT_OBJECTS));
}

TEST(Jacarta, SelectsItsOwnAppletAlone)
{
    Jacarta card;
    EXPECT_EQ("6A82", ask(card, "00 A4 04 00 0B A0 00 67 61 6D 6D 61 74 65 63 68"));
    EXPECT_EQ("6A82", ask(card, "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 01"));
    EXPECT_EQ("6A82", ask(card, "00 A4 04 00 0A 00 00 00 00 00 00 01 02 03 00"));
    EXPECT_EQ("6A86", ask(card, "00 A4 00 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00"));
    EXPECT_EQ("6A86", ask(card, "00 A4 04 0C 0C A0 00 67 61 6D 6D 61 74 65 63 68 00"));
    EXPECT_EQ("6700", ask(card, "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68"));
    EXPECT_EQ("6700", ask(card, "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00 00"));
    EXPECT_EQ("6700", ask(card, "00 A4 04 00 00"));
    EXPECT_EQ("6985", ask(card, INITIALISE)) << "none of these selected anything";
}

TEST(Jacarta, RefusesClassesInstructionsAndParametersItDoesNotKnow)
{
    Jacarta card;
    start(card);
    EXPECT_EQ("6E00", ask(card, "81 12 22 00 00"));
    EXPECT_EQ("6E00", ask(card, "84 12 22 00 00"));
    EXPECT_EQ("6D00", ask(card, "00 12 22 00 00"));
    EXPECT_EQ("6D00", ask(card, "80 13 22 00 00"));
    EXPECT_EQ("6A86", ask(card, "80 12 23 01 03 00 01 43"));
    EXPECT_EQ("6A86", ask(card, "80 12 44 00 05 00 01 43 00 00")) << "its sibling's probe";
    EXPECT_EQ("6A86", ask(card, "80 10 20 00 04 31 32 33 34")) << "its sibling's PIN";
    EXPECT_EQ("6A86", ask(card, "80 14 23 00 05 00 01 43 01 00"));
}

TEST(Jacarta, RefusesCommandsOfAnotherLength)
{
    Jacarta card(threeObjects());
    logIn(card);
    for (const char* const command :
         {"", "80", "80 12 22 00", "80 12 22 00 02", "80 12 22 00 00 00", "80 12 22 00 01 00",
          "80 15 20 00 02", "80 12 21 00 00", "80 12 21 00 02 00", "80 12 21 00 02 00 00 00",
          "80 12 25 00 03 00 01 43 00", "80 12 25 00 00 00 03 00 01 43",
          "80 14 20 00 00 00 05 00 01 43 00 00", "80 12 27 00 06 00 01 00 01 43 55",
          "80 12 27 00 00 00 06 00 01 00 01 43", "80 12 27 00 00 00 06 00 01 00 01 43 55 66"}) {
        EXPECT_EQ("6700", ask(card, command)) << command;
    }
}

TEST(Jacarta, NamesItsObjectsByPosition)
{
    Jacarta card(threeObjects());
    start(card);
    EXPECT_EQ("5253419000", ask(card, "80 12 21 00 02 00 00"));
    EXPECT_EQ("67006F73749000", ask(card, "80 12 21 00 02 00 01"));
    EXPECT_EQ("439000", ask(card, "80 12 21 00 02 00 02"));
    EXPECT_EQ("6A83", ask(card, "80 12 21 00 02 00 03"));
    EXPECT_EQ("6A80", ask(card, "80 12 21 00 02 01 00"));
    EXPECT_EQ("6A80", ask(card, "80 12 21 00 01 00"));
}

TEST(Jacarta, TellsWhichPartsAnObjectHas)
{
    Jacarta card(threeObjects());
    start(card);
    EXPECT_EQ("6428", ask(card, named(PROBE, RSA_NAME, "00 00")));
    EXPECT_EQ("6428", ask(card, named(PROBE, RSA_NAME, "00 01")));
    EXPECT_EQ("6419", ask(card, named(PROBE, RSA_NAME, "00 02")));
    EXPECT_EQ("9000", ask(card, named(PROBE, RSA_NAME, "00 03")));
    EXPECT_EQ("9000", ask(card, named(PROBE, GOST_NAME, "00 00")));
    EXPECT_EQ("9000", ask(card, named(PROBE, GOST_NAME, "00 01")));
    EXPECT_EQ("6428", ask(card, named(PROBE, GOST_NAME, "00 03")));
    EXPECT_EQ("9000", ask(card, named(PROBE, BARE_NAME, "00 02")));
    EXPECT_EQ("6428", ask(card, named(PROBE, ABSENT_NAME, "00 03")));
    EXPECT_EQ("6419", ask(card, named(PROBE, ABSENT_NAME, "00 02")));
}

TEST(Jacarta, RefusesProbesMadeOtherwise)
{
    Jacarta card(threeObjects());
    start(card);
    EXPECT_EQ("6A80", ask(card, named(PROBE, BARE_NAME, "00 04")));
    EXPECT_EQ("6A80", ask(card, named(PROBE, BARE_NAME, "01 02")));
    EXPECT_EQ("6A80", ask(card, named(PROBE, BARE_NAME, "02")));
    EXPECT_EQ("6A80", ask(card, named(PROBE, BARE_NAME, "00 02 00")));
    EXPECT_EQ("6A80", ask(card, shortCommand(PROBE, "01 01 43 00 02")));
    EXPECT_EQ("6A80", ask(card, shortCommand(PROBE, "00 00 00 02")));
    EXPECT_EQ("6A80", ask(card, shortCommand(PROBE, "00 05 43 00 02")));
}

TEST(Jacarta, AnObjectMayHoldOneHalfOfAGostPair)
{
    JacartaOptions options;
    options.objects = {gostObject("A"), gostObject("B")};
    options.objects->front().gostPrivate = false;
    options.objects->back().gostPublic = false;
    Jacarta card(options);
    logIn(card);
    const Bytes first = hex("41");
    const Bytes second = hex("42");
    EXPECT_EQ("6428", ask(card, named(PROBE, first, "00 00")));
    EXPECT_EQ("9000", ask(card, named(PROBE, first, "00 01")));
    EXPECT_EQ("9000", ask(card, named(PROBE, second, "00 00")));
    EXPECT_EQ("6428", ask(card, named(PROBE, second, "00 01")));
    EXPECT_EQ("6428", ask(card, named(SIGN_GOST, first, reversedDigest())));
    EXPECT_EQ(66u, answer(card, named(READ_GOST, first)).size());
    EXPECT_EQ(66u, answer(card, named(SIGN_GOST, second, reversedDigest())).size());
    EXPECT_EQ("6428", ask(card, named(READ_GOST, second)));
}

TEST(Jacarta, SendsAModulusBehindThreeBytes)
{
    Jacarta card(threeObjects());
    start(card);
    const std::string modulus = toHex(card.object(RSA_NAME)->rsa.modulus());
    EXPECT_EQ("820100" + modulus + "9000", ask(card, named(READ_RSA, RSA_NAME)));
    EXPECT_EQ("6428", ask(card, named(READ_RSA, GOST_NAME)));
    EXPECT_EQ("6428", ask(card, named(READ_RSA, ABSENT_NAME)));
    EXPECT_EQ("6A80", ask(card, named(READ_RSA, RSA_NAME, "00")));
}

TEST(Jacarta, SendsEachHalfOfAGostKeyLastByteFirst)
{
    Jacarta card(threeObjects());
    start(card);
    const Bytes sent = withoutStatus(answer(card, named(READ_GOST, GOST_NAME)));
    EXPECT_EQ(card.object(GOST_NAME)->gost.publicKey(), turnHalves(sent));
    EXPECT_EQ("6428", ask(card, named(READ_GOST, RSA_NAME)));
    EXPECT_EQ("6A80", ask(card, named(READ_GOST, GOST_NAME, "00")));
}

TEST(Jacarta, SendsACertificateAsOneGzipMember)
{
    Jacarta card;
    start(card);
    for (const AppletObject& object : card.objects()) {
        const Bytes container = withoutStatus(answer(card, named(READ_CERTIFICATE, object.name)));
        EXPECT_EQ(object.container, container);
        EXPECT_EQ(object.certificate(), gzipContent(container));
        EXPECT_LT(256u, container.size());
    }
    EXPECT_EQ("6419", ask(card, named(READ_CERTIFICATE, ABSENT_NAME)));
    EXPECT_EQ("6A80", ask(card, named(READ_CERTIFICATE, card.objects()[0].name, "00")));
}

TEST(Jacarta, CountsWrongPinsDownAndBlocks)
{
    Jacarta card;
    start(card);
    EXPECT_EQ("6413", ask(card, WRONG_PIN));
    EXPECT_EQ("6413", ask(card, "80 10 21 00 05 31 32 33 34 00")) << "its length counts";
    EXPECT_EQ(1u, card.retriesLeft());
    EXPECT_EQ("6413", ask(card, "80 10 21 00 03 31 32 33"));
    EXPECT_EQ("6415", ask(card, WRONG_PIN));
    EXPECT_EQ("6415", ask(card, RIGHT_PIN));
    EXPECT_FALSE(card.loggedIn());
    EXPECT_EQ(0u, card.retriesLeft());
}

TEST(Jacarta, TheRightPinRestoresTheAttempts)
{
    JacartaOptions options;
    options.retryLimit = 5;
    options.pin = "0123456789";
    Jacarta card(options);
    start(card);
    EXPECT_EQ("6413", ask(card, RIGHT_PIN));
    EXPECT_EQ(4u, card.retriesLeft());
    EXPECT_EQ("9000", ask(card, "80 10 21 00 0A 30 31 32 33 34 35 36 37 38 39"));
    EXPECT_TRUE(card.loggedIn());
    EXPECT_EQ(5u, card.retriesLeft());
    EXPECT_EQ("6413", ask(card, WRONG_PIN));
    EXPECT_FALSE(card.loggedIn()) << "a wrong PIN ends what an earlier one opened";
}

TEST(Jacarta, APinThatIsNotThereCostsNoAttempt)
{
    Jacarta card;
    start(card);
    EXPECT_EQ("6700", ask(card, "80 10 21 00 00"));
    EXPECT_EQ("6700", ask(card, "80 10 21 00 05 31 32 33 34"));
    EXPECT_EQ(3u, card.retriesLeft());
}

TEST(Jacarta, InitialisingAndSelectingLogOut)
{
    Jacarta card;
    logIn(card);
    EXPECT_TRUE(card.loggedIn());
    walk(card, {INITIALISE});
    EXPECT_FALSE(card.loggedIn());
    walk(card, {RIGHT_PIN, SELECT});
    EXPECT_FALSE(card.loggedIn());
    logIn(card);
    card.reset();
    EXPECT_FALSE(card.loggedIn());
}

TEST(Jacarta, AskingForAnotherAppletLeavesTheLoginAlone)
{
    Jacarta card;
    logIn(card);
    EXPECT_EQ("6A82", ask(card, "00 A4 04 00 02 A0 00"));
    EXPECT_TRUE(card.loggedIn());
}

TEST(Jacarta, NothingThatChangesOrSignsWorksWithoutALogin)
{
    Jacarta card(threeObjects());
    start(card);
    const Bytes before = card.state();
    for (const std::string& command :
         {signRsa(RSA_NAME, block("61 62 63")), named(SIGN_GOST, GOST_NAME, reversedDigest()),
          writeCertificate(RSA_NAME, "01 02"), named(DESTROY, RSA_NAME),
          shortCommand(GENERATE_RSA, "08 00 08 00 01 4E"),
          shortCommand(GENERATE_GOST, "01 00 01 4E"), std::string("80 14 31 00 02 00 10")}) {
        EXPECT_EQ("6414", ask(card, command)) << command;
    }
    EXPECT_EQ(before, card.state());
    EXPECT_EQ(0u, card.counters().signatures);
}

TEST(Jacarta, RaisesAPaddedBlockWithTheRsaKey)
{
    Jacarta card(threeObjects());
    logIn(card);
    const Bytes signature = withoutStatus(answer(card, signRsa(RSA_NAME, block("61 62 63"))));
    ASSERT_EQ(256u, signature.size());
    EXPECT_EQ("616263", toHex(card.object(RSA_NAME)->rsa.recover(signature)));
    EXPECT_EQ(1u, card.counters().signatures);
    EXPECT_EQ(256u, withoutStatus(answer(card, signRsa(RSA_NAME, block("")))).size());
    const std::string longest = run(253, "A7");
    EXPECT_EQ(256u, withoutStatus(answer(card, signRsa(RSA_NAME, block(longest)))).size());
}

TEST(Jacarta, RefusesBlocksMadeOtherwise)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME, "0002" + run(250, "FF") + "00616263")));
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME, "0101" + run(250, "FF") + "00616263")));
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME, "0001" + run(250, "FF") + "01616263")));
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME, "0001" + run(254, "FF"))));
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME, block("61") + "00")));
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME, run(255, "00"))));
    EXPECT_EQ("6A80", ask(card, extendedCommand(SIGN_RSA,
                                                "00" + counted(RSA_NAME) + "00FF" + block("61"))));
    EXPECT_EQ("6428", ask(card, signRsa(GOST_NAME, block("61"))));
    EXPECT_EQ("6428", ask(card, signRsa(ABSENT_NAME, block("61"))));
    EXPECT_EQ(0u, card.counters().signatures);
}

TEST(Jacarta, AGostSignatureVerifiesOnceItsHalvesAreTurned)
{
    Jacarta card(threeObjects());
    logIn(card);
    const Bytes sent = withoutStatus(answer(card, named(SIGN_GOST, GOST_NAME, reversedDigest())));
    const GostKey& key = card.object(GOST_NAME)->gost;
    EXPECT_TRUE(key.verify(digest(), turnHalves(sent)));
    EXPECT_FALSE(key.verify(digest(), sent));
    EXPECT_EQ(1u, card.counters().signatures);
}

TEST(Jacarta, RefusesDigestsOfAnotherLength)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("6A80", ask(card, named(SIGN_GOST, GOST_NAME, run(31, "AB"))));
    EXPECT_EQ("6A80", ask(card, named(SIGN_GOST, GOST_NAME, run(33, "AB"))));
    EXPECT_EQ("6A80", ask(card, named(SIGN_GOST, GOST_NAME)));
    EXPECT_EQ("6428", ask(card, named(SIGN_GOST, RSA_NAME, run(32, "AB"))));
}

TEST(Jacarta, MakesUpTo256RandomBytes)
{
    Jacarta card;
    logIn(card);
    const Bytes first = withoutStatus(answer(card, "80 14 31 00 02 00 20"));
    const Bytes second = withoutStatus(answer(card, "80 14 31 00 02 00 20"));
    EXPECT_EQ(32u, first.size());
    EXPECT_NE(first, second);
    EXPECT_EQ(256u, withoutStatus(answer(card, "80 14 31 00 02 01 00")).size());
    EXPECT_EQ("9000", ask(card, "80 14 31 00 02 00 00"));
    EXPECT_EQ("6A80", ask(card, "80 14 31 00 02 01 01"));
    EXPECT_EQ("6A80", ask(card, "80 14 31 00 01 10"));
}

TEST(Jacarta, KeepsACertificateUnderANameThatStands)
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

TEST(Jacarta, RefusesCertificatesWhoseLengthDoesNotFit)
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

TEST(Jacarta, GeneratesPairsUnderNewNames)
{
    Jacarta card(threeObjects());
    logIn(card);
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_RSA, "08 00 08 00 02 4E 00")));
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_GOST, "01 00 01 4E")));
    EXPECT_EQ("00059000", ask(card, COUNT_OBJECTS));
    EXPECT_EQ("4E009000", ask(card, "80 12 21 00 02 00 03"));
    const Bytes rsaName = hex("4E 00");
    EXPECT_EQ("9000", ask(card, named(PROBE, rsaName, "00 03")));
    const Bytes signature = withoutStatus(answer(card, signRsa(rsaName, block("61"))));
    EXPECT_EQ("61", toHex(card.object(rsaName)->rsa.recover(signature)));
    const Bytes gostName = hex("4E");
    const Bytes halves = withoutStatus(answer(card, named(SIGN_GOST, gostName, reversedDigest())));
    EXPECT_TRUE(card.object(gostName)->gost.verify(digest(), turnHalves(halves)));
    EXPECT_EQ(2u, card.counters().generations);
}

TEST(Jacarta, AddsAPairToANameThatLacksOne)
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

TEST(Jacarta, RefusesOtherFormsOfGeneration)
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

TEST(Jacarta, DeletesAWholeObjectAndTheOnesBehindMoveUp)
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

TEST(Jacarta, BringsAnRsaAndAGostPairWithCertificatesOfTheirKeys)
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

TEST(Jacarta, RefusesOptionsThatNoTokenCanHave)
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

TEST(Jacarta, KeepsObjectsAndPinWithoutPower)
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
    const Bytes signature = withoutStatus(answer(other, signRsa(RSA_NAME, block("61"))));
    EXPECT_EQ("61", toHex(card.object(RSA_NAME)->rsa.recover(signature)));
    const Bytes halves =
        withoutStatus(answer(other, named(SIGN_GOST, GOST_NAME, reversedDigest())));
    EXPECT_TRUE(card.object(GOST_NAME)->gost.verify(digest(), turnHalves(halves)));
}

TEST(Jacarta, ItsRevisionGrowsWithEveryChangeOfItsState)
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

TEST(Jacarta, RefusesStatesThatNoTokenCanHave)
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

TEST(Jacarta, TellsItsCommandsInPlainWords)
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

TEST(Jacarta, OnlyAPinIsSecret)
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
