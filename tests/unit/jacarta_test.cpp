// What the simulated JaCarta answers, byte by byte: names, PIN, keys, signatures, refusals.
#include "sim/cards/gzip_member.h"
#include "tests/support/jacarta_talk.h"

namespace sim {
namespace {

using namespace jacarta_talk;

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
    const Bytes sent = dataOf(answer(card, named(READ_GOST, GOST_NAME)));
    EXPECT_EQ(card.object(GOST_NAME)->gost.publicKey(), turnHalves(sent));
    EXPECT_EQ("6428", ask(card, named(READ_GOST, RSA_NAME)));
    EXPECT_EQ("6A80", ask(card, named(READ_GOST, GOST_NAME, "00")));
}

TEST(Jacarta, SendsACertificateAsOneGzipMember)
{
    Jacarta card;
    start(card);
    for (const AppletObject& object : card.objects()) {
        const Bytes container = dataOf(answer(card, named(READ_CERTIFICATE, object.name)));
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
    const Bytes signature = dataOf(answer(card, signRsa(RSA_NAME, block("61 62 63"))));
    ASSERT_EQ(256u, signature.size());
    EXPECT_EQ("616263", toHex(card.object(RSA_NAME)->rsa.recover(signature)));
    EXPECT_EQ(1u, card.counters().signatures);
    EXPECT_EQ(256u, dataOf(answer(card, signRsa(RSA_NAME, block("")))).size());
    const std::string longest = run(253, "A7");
    EXPECT_EQ(256u, dataOf(answer(card, signRsa(RSA_NAME, block(longest)))).size());
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
    const Bytes sent = dataOf(answer(card, named(SIGN_GOST, GOST_NAME, reversedDigest())));
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
    const Bytes first = dataOf(answer(card, "80 14 31 00 02 00 20"));
    const Bytes second = dataOf(answer(card, "80 14 31 00 02 00 20"));
    EXPECT_EQ(32u, first.size());
    EXPECT_NE(first, second);
    EXPECT_EQ(256u, dataOf(answer(card, "80 14 31 00 02 01 00")).size());
    EXPECT_EQ("9000", ask(card, "80 14 31 00 02 00 00"));
    EXPECT_EQ("6A80", ask(card, "80 14 31 00 02 01 01"));
    EXPECT_EQ("6A80", ask(card, "80 14 31 00 01 10"));
}

} // namespace
} // namespace sim
