// What the simulated eToken 72K answers, byte by byte: names, pieces, signatures, refusals. What
// it shares with the JaCarta is tested there.
#include "tests/support/etoken_72k_talk.h"

namespace sim {
namespace {

using namespace etoken_72k_talk;

TEST(Etoken72k, OffersProtocolT1UnderItsAtr)
{
    EXPECT_EQ("3BD518008131FE7D8073C82110F4", toHex(Etoken72k().atr()));
    EXPECT_EQ(2u, Etoken72k().protocol());
}

TEST(Etoken72k, KnowsNothingBeforeItsAppletIsSelectedAndInitialised)
{
    Etoken72k card;
    EXPECT_EQ("6985", ask(card, "80 15 10 00 00"));
    EXPECT_EQ("6A82", ask(card, "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00"));
    EXPECT_EQ("6A82", ask(card, "00 A4 04 00 09 00 00 00 00 00 00 01 02 03"));
    walk(card, {SELECT});
    EXPECT_EQ("6985", ask(card, "80 15 10 00 00"));
    EXPECT_EQ("6985", ask(card, RIGHT_PIN));
    walk(card, {INITIALISE, RIGHT_PIN});
    EXPECT_EQ("00039000", ask(card, COUNT_OBJECTS));
}

TEST(Etoken72k, FillsItsSerialNumberWithZeroBytes)
{
    Etoken72k card;
    start(card);
    EXPECT_EQ("455437324B2D3030343231" + run(10, "00") + "9000", ask(card, "80 15 10 00 00"));
    Etoken72kOptions options;
    options.serial = "123456789012345678901";
    Etoken72k full(options);
    start(full);
    EXPECT_EQ("3132333435363738393031323334353637383930319000", ask(full, "80 15 10 00 00"));
    EXPECT_EQ("6700", ask(full, "80 15 10 00 15"));
}

TEST(Etoken72k, SendsNamesWithOrWithoutAZeroByteBehindThem)
{
    Etoken72kOptions options = fourObjects();
    Etoken72k terminated(options);
    options.terminatedNames = false;
    Etoken72k bare(options);
    start(terminated);
    start(bare);
    EXPECT_EQ("676F7374009000", ask(terminated, "80 12 21 00 02 00 02"));
    EXPECT_EQ("676F73749000", ask(bare, "80 12 21 00 02 00 02"));
    EXPECT_EQ("6A83", ask(bare, "80 12 21 00 02 00 04"));
}

TEST(Etoken72k, AnUnterminatedNameIsKnownWithTheStatusCountedAlong)
{
    Etoken72kOptions options = fourObjects();
    Etoken72k terminated(options);
    options.terminatedNames = false;
    Etoken72k bare(options);
    start(terminated);
    start(bare);
    const Bytes countedAlong = hex("67 6F 73 74 90");
    EXPECT_EQ("6428", ask(terminated, named(PROBE, countedAlong, "00 00")));
    EXPECT_EQ("9000", ask(bare, named(PROBE, countedAlong, "00 00")));
    EXPECT_EQ("9000", ask(bare, named(PROBE, GOST_NAME, "00 00")));
    EXPECT_EQ("6428", ask(bare, named(PROBE, hex("67 6F 73 74 00"), "00 00")));
    EXPECT_EQ("6428", ask(bare, named(PROBE, hex("67 6F 73 74 90 90"), "00 00")));
    EXPECT_EQ("6428", ask(bare, named(PROBE, hex("67 6F 73"), "00 00")));
}

TEST(Etoken72k, RefusesItsSiblingsCommandsAndExtendedOnes)
{
    Etoken72k card(fourObjects());
    logIn(card);
    for (const char* const command :
         {"80 10 21 00 04 31 32 33 34", "80 12 24 00 05 00 01 43 00 02", "80 12 25 00 03 00 01 43",
          "80 12 28 00 03 00 01 43", "80 12 23 00 03 00 01 43", "80 14 20 00 03 00 01 43",
          "80 14 31 00 02 00 10", "80 11 23 00 06 08 00 08 00 01 4E",
          "80 12 27 00 00 00 06 00 01 00 01 43 55", "80 12 47 02 00", "80 14 52 00 00"}) {
        EXPECT_EQ("6A86", ask(card, command)) << command;
    }
    EXPECT_EQ("6700", ask(card, "80 12 43 00 00 00 03 00 01 43"));
    EXPECT_EQ("6700", ask(card, "80 12 43 00 03 00 01 43 00"));
    EXPECT_EQ("6D00", ask(card, "80 16 00 00 00"));
    EXPECT_EQ("6E00", ask(card, "90 12 22 00 00"));
}

TEST(Etoken72k, TellsWhichPartsAnObjectHas)
{
    Etoken72k card(fourObjects());
    start(card);
    EXPECT_EQ("6428", ask(card, named(PROBE, RSA_NAME, "00 00")));
    EXPECT_EQ("6419", ask(card, named(PROBE, RSA_NAME, "00 02")));
    EXPECT_EQ("9000", ask(card, named(PROBE, RSA_NAME, "00 03")));
    EXPECT_EQ("9000", ask(card, named(PROBE, GOST_NAME, "00 00")));
    EXPECT_EQ("9000", ask(card, named(PROBE, GOST_NAME, "00 01")));
    EXPECT_EQ("9000", ask(card, named(PROBE, BARE_NAME, "00 02")));
    EXPECT_EQ("6A80", ask(card, named(PROBE, BARE_NAME, "00 04")));
}

TEST(Etoken72k, SendsTheSizeOfAnRsaKeyAndItsModulusInPieces)
{
    Etoken72k card(fourObjects());
    start(card);
    EXPECT_EQ("0800000100019000", ask(card, keySize(RSA_NAME)));
    EXPECT_EQ("0400000100019000", ask(card, keySize(OLD_NAME)));
    for (const Bytes& name : {RSA_NAME, OLD_NAME}) {
        EXPECT_EQ(card.object(name)->rsa.modulus(), collectPieces(card, [&](std::size_t offset) {
                      return modulusPiece(name, offset);
                  }));
    }
    EXPECT_EQ("6B00", ask(card, modulusPiece(RSA_NAME, 16)));
    EXPECT_EQ("6428", ask(card, keySize(GOST_NAME)));
    EXPECT_EQ("6428", ask(card, modulusPiece(GOST_NAME, 0)));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 12 47 00", "00 01 00" + counted(RSA_NAME))));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 12 47 00", "00 00 01" + counted(RSA_NAME))));
    EXPECT_EQ("6A80", ask(card, named("80 12 47 00", RSA_NAME)));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 12 47 01", "00")));
}

TEST(Etoken72k, SendsAGostKeyInTwoHalvesLastByteFirst)
{
    Etoken72k card(fourObjects());
    start(card);
    Bytes sent = dataOf(answer(card, named(GOST_FIRST, GOST_NAME)));
    EXPECT_EQ(32u, sent.size());
    const Bytes second = dataOf(answer(card, named(GOST_SECOND, GOST_NAME)));
    sent.insert(sent.end(), second.begin(), second.end());
    EXPECT_EQ(card.object(GOST_NAME)->gost.publicKey(), turnHalves(sent));
    for (const char* const header : {GOST_FIRST, GOST_SECOND}) {
        EXPECT_EQ("6428", ask(card, named(header, RSA_NAME)));
        EXPECT_EQ("6A80", ask(card, named(header, GOST_NAME, "00")));
    }
}

TEST(Etoken72k, SendsTheChosenCertificateInPieces)
{
    Etoken72k card(fourObjects());
    start(card);
    EXPECT_EQ("6985", ask(card, GET_SIZE)) << "nothing is chosen";
    EXPECT_EQ("6985", ask(card, certificatePiece(0)));
    walk(card, {named(CHOOSE, BARE_NAME)});
    EXPECT_EQ("00469000", ask(card, GET_SIZE));
    EXPECT_EQ(counting(70), collectPieces(card, certificatePiece));
    EXPECT_EQ(8u, answer(card, certificatePiece(64)).size()) << "six bytes are left";
    EXPECT_EQ("6B00", ask(card, certificatePiece(6)));
    EXPECT_EQ("6A80", ask(card, "80 12 41 00 04 00 10 00 00"));
    EXPECT_EQ("6A80", ask(card, "80 12 41 00 04 00 00 00 00"));
    EXPECT_EQ("6A80", ask(card, "80 12 41 00 02 00 01"));
    EXPECT_EQ("6A80", ask(card, "80 12 41 00 01 00"));
}

TEST(Etoken72k, ChoosingAnObjectWithoutACertificateForgetsTheChosenOne)
{
    Etoken72k card(fourObjects());
    start(card);
    walk(card, {named(CHOOSE, BARE_NAME)});
    EXPECT_EQ("6419", ask(card, named(CHOOSE, RSA_NAME)));
    EXPECT_EQ("6985", ask(card, GET_SIZE));
    walk(card, {named(CHOOSE, BARE_NAME), INITIALISE});
    EXPECT_EQ("6985", ask(card, GET_SIZE));
    EXPECT_EQ("6A80", ask(card, named(CHOOSE, BARE_NAME, "00")));
}

TEST(Etoken72k, CountsWrongPinsDownAndBlocks)
{
    Etoken72k card;
    start(card);
    for (unsigned left = 3; left-- > 0;) {
        EXPECT_EQ("6413", ask(card, WRONG_PIN));
        EXPECT_EQ(left, card.retriesLeft());
    }
    EXPECT_EQ("6415", ask(card, RIGHT_PIN));
    EXPECT_FALSE(card.loggedIn());
}

TEST(Etoken72k, NothingThatChangesOrSignsWorksWithoutALogin)
{
    Etoken72k card(fourObjects());
    start(card);
    const Bytes before = card.state();
    for (const std::string& command :
         {uploadPiece(0, run(32, "00")), signRsa(RSA_NAME),
          named(SIGN_GOST, GOST_NAME, reversedDigest()), announce(20), append("01"),
          named(BIND, RSA_NAME), named(DESTROY, RSA_NAME),
          shortCommand(GENERATE_RSA, "08 00 08 00 01 4E"),
          shortCommand(GENERATE_GOST, "01 00 01 4E")}) {
        EXPECT_EQ("6414", ask(card, command)) << command;
    }
    EXPECT_EQ(before, card.state());
}

TEST(Etoken72k, SignsAnUploadedBlockAndSendsTheSignatureInPieces)
{
    Etoken72k card(fourObjects());
    logIn(card);
    EXPECT_EQ("6985", ask(card, signaturePiece(0)));
    upload(card, block("61 62 63"));
    EXPECT_EQ("9000", ask(card, signRsa(RSA_NAME)));
    const Bytes signature = collectPieces(card, signaturePiece);
    ASSERT_EQ(256u, signature.size());
    EXPECT_EQ("616263", toHex(card.object(RSA_NAME)->rsa.recover(signature)));
    EXPECT_EQ("6B00", ask(card, signaturePiece(31)));
    EXPECT_EQ("6A80", ask(card, "80 12 48 00 01 00"));
    EXPECT_EQ("6985", ask(card, signRsa(RSA_NAME))) << "the block is used up";
    walk(card, {INITIALISE});
    EXPECT_EQ("6985", ask(card, signaturePiece(0)));
}

TEST(Etoken72k, AShorterKeySignsWhatIsInTheBlock)
{
    Etoken72k card(fourObjects());
    logIn(card);
    upload(card, block("61 62 63"));
    EXPECT_EQ("9000", ask(card, signRsa(OLD_NAME)));
    const Bytes signature = collectPieces(card, signaturePiece);
    ASSERT_EQ(128u, signature.size());
    EXPECT_EQ("616263", toHex(card.object(OLD_NAME)->rsa.recover(signature)));
    upload(card, block(run(117, "5A")));
    EXPECT_EQ("9000", ask(card, signRsa(OLD_NAME)));
    upload(card, block(run(118, "5A")));
    EXPECT_EQ("6A80", ask(card, signRsa(OLD_NAME)));
    EXPECT_EQ("6985", ask(card, signaturePiece(0))) << "no signature was made";
}

TEST(Etoken72k, SignsOnlyABlockThatIsComplete)
{
    Etoken72k card(fourObjects());
    logIn(card);
    const std::string padded = block("61");
    for (const std::size_t offset : {224u, 0u, 64u, 32u, 96u, 160u, 128u}) {
        EXPECT_EQ("9000", ask(card, uploadPiece(offset, padded.substr(2 * offset, 64))));
        EXPECT_EQ("6985", ask(card, signRsa(RSA_NAME)));
    }
    EXPECT_EQ("9000", ask(card, uploadPiece(192, padded.substr(2 * 192, 64))));
    EXPECT_EQ("6428", ask(card, signRsa(GOST_NAME))) << "which leaves the block";
    EXPECT_EQ("9000", ask(card, signRsa(RSA_NAME))) << "the order does not matter";
    EXPECT_EQ(1u, card.counters().signatures);
}

TEST(Etoken72k, RefusesPiecesAndBlocksMadeOtherwise)
{
    Etoken72k card(fourObjects());
    logIn(card);
    EXPECT_EQ("6A80", ask(card, uploadPiece(16, run(32, "00"))));
    EXPECT_EQ("6A80", ask(card, uploadPiece(0, run(31, "00"))));
    EXPECT_EQ("6A80", ask(card, uploadPiece(0, run(33, "00"))));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 12 49 00", "01 00" + run(32, "00"))));
    upload(card, run(256, "FF"));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 14 52 77", "00 80 00" + counted(RSA_NAME))));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 14 52 77", "01 00 01" + counted(RSA_NAME))));
    EXPECT_EQ("6A80", ask(card, shortCommand("80 14 52 77", "01")));
    EXPECT_EQ("6A80", ask(card, signRsa(RSA_NAME))) << "the block is no padded one";
    EXPECT_EQ(0u, card.counters().signatures);
}

TEST(Etoken72k, SendsAGostSignatureInTwoHalves)
{
    Etoken72k card(fourObjects());
    logIn(card);
    EXPECT_EQ("6985", ask(card, REST_OF_SIGNATURE));
    Bytes sent = dataOf(answer(card, named(SIGN_GOST, GOST_NAME, reversedDigest())));
    EXPECT_EQ(32u, sent.size());
    const Bytes rest = dataOf(answer(card, REST_OF_SIGNATURE));
    sent.insert(sent.end(), rest.begin(), rest.end());
    EXPECT_TRUE(card.object(GOST_NAME)->gost.verify(digest(), turnHalves(sent)));
    EXPECT_EQ("6985", ask(card, REST_OF_SIGNATURE)) << "told once";
    EXPECT_EQ("6A80", ask(card, named(SIGN_GOST, GOST_NAME, run(31, "AB"))));
    EXPECT_EQ("6428", ask(card, named(SIGN_GOST, RSA_NAME, run(32, "AB"))));
}

} // namespace
} // namespace sim
