// What the simulated identity card answers, byte by byte: files, PIN and refusals.
#include "sim/cards/gzip_member.h"
#include "tests/support/id_card_talk.h"

#include <stdexcept>

namespace sim {
namespace {

using namespace id_card_talk;

TEST(IdCard, BothIssuesOfferProtocolT0UnderTheirOwnAtr)
{
    IdCardOptions old;
    old.issue = IdCardIssue::Old;
    EXPECT_EQ("3B771800004B4153414B4944", toHex(IdCard(old).atr()));
    EXPECT_EQ("3B391900534F4D414453333031", toHex(IdCard().atr()));
    EXPECT_EQ(1u, IdCard(old).protocol());
    EXPECT_EQ(1u, IdCard().protocol());
}

TEST(IdCard, RefusesClassesAndInstructionsItDoesNotKnow)
{
    IdCard card;
    EXPECT_EQ("6E00", ask(card, "80 A4 00 0C 02 3F 00"));
    EXPECT_EQ("6E00", ask(card, "01 C0 00 00 00"));
    EXPECT_EQ("6D00", ask(card, "00 84 00 00 08"));
    EXPECT_EQ("6D00", ask(card, "00 A5 00 0C 02 3F 00"));
}

TEST(IdCard, RefusesCommandsShorterThanAHeader)
{
    IdCard card;
    EXPECT_EQ("6700", ask(card, ""));
    EXPECT_EQ("6700", ask(card, "00"));
    EXPECT_EQ("6700", ask(card, "00 A4 00"));
    EXPECT_EQ("6700", ask(card, "00 A4 00 0C"));
    EXPECT_EQ("6700", ask(card, "00 B0 00 00"));
}

TEST(IdCard, SelectsItsFilesOnTheirPathsAlone)
{
    IdCard card;
    EXPECT_EQ("6A82", ask(card, SELECT_CERTIFICATES)) << "nothing is selected after power-up";
    EXPECT_EQ("6A82", ask(card, SELECT_FILE_1));
    walk(card, {SELECT_MASTER, SELECT_CERTIFICATES, SELECT_FILE_1, SELECT_FILE_2});
    EXPECT_EQ("6A82", ask(card, SELECT_KEYS)) << "not below 0801";
    EXPECT_EQ("6A82", ask(card, "00 A4 02 0C 02 01 03"));
    EXPECT_EQ("6A82", ask(card, "00 A4 02 0C 02 01 00"));
    EXPECT_EQ("6A82", ask(card, "00 A4 02 0C 02 02 01"));
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6A82", ask(card, SELECT_FILE_1)) << "not below the keys";
    EXPECT_EQ("6A82", ask(card, "00 A4 01 0C 02 08 02"));
    EXPECT_EQ("6A82", ask(card, "00 A4 00 0C 02 3F 01"));
    EXPECT_EQ("6A82", ask(card, "00 A4 00 0C 02 08 01"));
}

TEST(IdCard, RefusesOtherFormsOfSelect)
{
    IdCard card;
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6A86", ask(card, "00 A4 03 0C 02 3F 00"));
    EXPECT_EQ("6A86", ask(card, "00 A4 04 0C 02 3F 00"));
    EXPECT_EQ("6A86", ask(card, "00 A4 00 00 02 3F 00"));
    EXPECT_EQ("6A86", ask(card, "00 A4 00 04 02 3F 00"));
    EXPECT_EQ("6700", ask(card, "00 A4 00 0C 02 3F"));
    EXPECT_EQ("6700", ask(card, "00 A4 00 0C 02 3F 00 00"));
    EXPECT_EQ("6700", ask(card, "00 A4 00 0C 01 3F"));
    EXPECT_EQ("6700", ask(card, "00 A4 00 0C 03 3F 00 00"));
    EXPECT_EQ("6700", ask(card, "00 A4 00 0C 00"));
}

TEST(IdCard, ARefusedSelectLeavesTheSelectionAsItWas)
{
    IdCard card(withFirstFile("00 02 AB CD"));
    openFile(card, SELECT_FILE_1);
    EXPECT_EQ("6A82", ask(card, "00 A4 02 0C 02 01 09"));
    EXPECT_EQ("ABCD9000", ask(card, "00 B0 00 02 02"));
}

TEST(IdCard, SelectingADirectoryClosesTheOpenFile)
{
    IdCard card;
    openFile(card, SELECT_FILE_1);
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6986", ask(card, "00 B0 00 00 02"));
    walk(card, {SELECT_CERTIFICATES});
    EXPECT_EQ("6986", ask(card, "00 B0 00 00 02"));
}

TEST(IdCard, GivesItsDataObjectBelowTheMasterFile)
{
    IdCardOptions options;
    options.cardObject = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    IdCard card(options);
    EXPECT_EQ("6A88", ask(card, "00 CA DF 01 09"));
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("0102030405060708099000", ask(card, "00 CA DF 01 09"));
    EXPECT_EQ("6C09", ask(card, "00 CA DF 01 08"));
    EXPECT_EQ("6C09", ask(card, "00 CA DF 01 0A"));
    EXPECT_EQ("6C09", ask(card, "00 CA DF 01 00"));
    EXPECT_EQ("6A88", ask(card, "00 CA DF 02 09"));
    EXPECT_EQ("6700", ask(card, "00 CA DF 01 09 00"));
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6A88", ask(card, "00 CA DF 01 09"));
}

TEST(IdCard, CertificateFilesHoldALengthAndAGzipMember)
{
    IdCard card;
    for (const std::size_t position : {std::size_t{0}, std::size_t{1}}) {
        openFile(card, position == 0 ? SELECT_FILE_1 : SELECT_FILE_2);
        const Bytes length = answer(card, "00 B0 00 00 02");
        ASSERT_EQ(4u, length.size());
        Bytes member;
        for (std::uint8_t block = 0; block < length[0]; ++block) {
            const Bytes read{0x00, 0xB0, block, 0x02, 0x00};
            const Bytes data = withoutStatus(card.transmit(read));
            ASSERT_EQ(256u, data.size());
            member.insert(member.end(), data.begin(), data.end());
        }
        const Bytes readRest{0x00, 0xB0, length[0], 0x02, length[1]};
        const Bytes rest = withoutStatus(card.transmit(readRest));
        ASSERT_EQ(length[1], rest.size());
        member.insert(member.end(), rest.begin(), rest.end());
        EXPECT_EQ(card.certificate(position), gzipContent(member));
        EXPECT_EQ(2u + 4096u, card.file(position).size());
    }
    EXPECT_NE(card.certificate(0), card.certificate(1));
}

TEST(IdCard, ReadsFromAnOffset)
{
    IdCard card(withFirstFile("00 03 AA BB CC"));
    openFile(card, SELECT_FILE_1);
    EXPECT_EQ("00039000", ask(card, "00 B0 00 00 02"));
    EXPECT_EQ("BBCC9000", ask(card, "00 B0 00 03 02"));
    EXPECT_EQ("CC9000", ask(card, "00 B0 00 04 01"));
    EXPECT_EQ("6B00", ask(card, "00 B0 00 05 01"));
    EXPECT_EQ("6B00", ask(card, "00 B0 01 00 00"));
    EXPECT_EQ("6A86", ask(card, "00 B0 81 00 02")) << "no short file identifiers";
    EXPECT_EQ("6700", ask(card, "00 B0 00 00 02 00"));
}

TEST(IdCard, ReadsAWholeBlockWhereTheLengthIsZero)
{
    IdCard card;
    Bytes content(600);
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
    }
    card.setFile(0, content);
    openFile(card, SELECT_FILE_1);
    for (const std::size_t offset : {0u, 2u, 258u, 344u}) {
        Bytes expected(content.begin() + static_cast<std::ptrdiff_t>(offset),
                       content.begin() + static_cast<std::ptrdiff_t>(offset + 256));
        expected.insert(expected.end(), {0x90, 0x00});
        const Bytes read{0x00, 0xB0, static_cast<std::uint8_t>(offset >> 8),
                         static_cast<std::uint8_t>(offset & 0xFFu), 0x00};
        EXPECT_EQ(expected, card.transmit(read)) << offset;
    }
}

TEST(IdCard, AFileThatEndsEarlyIsAnsweredAsTheCardIsMade)
{
    const std::string content = "00 03 AA BB CC";
    IdCard warning(withFirstFile(content));
    IdCard silent(withFirstFile(content, ShortRead::Silent));
    IdCard strict(withFirstFile(content, ShortRead::WrongLength));
    for (IdCard* const card : {&warning, &silent, &strict}) {
        openFile(*card, SELECT_FILE_1);
        EXPECT_EQ("AABBCC9000", ask(*card, "00 B0 00 02 03"));
    }
    EXPECT_EQ("AABBCC6282", ask(warning, "00 B0 00 02 04"));
    EXPECT_EQ("AABBCC9000", ask(silent, "00 B0 00 02 04"));
    EXPECT_EQ("6C03", ask(strict, "00 B0 00 02 04"));
    EXPECT_EQ("AABBCC9000", ask(warning, "00 B0 00 02 00"));
    EXPECT_EQ("AABBCC9000", ask(silent, "00 B0 00 02 00"));
    EXPECT_EQ("6C03", ask(strict, "00 B0 00 02 00"));
}

TEST(IdCard, ReadingNeedsAnOpenFile)
{
    IdCard card;
    EXPECT_EQ("6986", ask(card, "00 B0 00 00 02"));
    walk(card, {SELECT_MASTER, SELECT_CERTIFICATES});
    EXPECT_EQ("6986", ask(card, "00 B0 00 00 02"));
}

TEST(IdCard, UpdatesTheOpenFileAfterTheRightPin)
{
    IdCard card(withFirstFile("00 03 AA BB CC"));
    EXPECT_EQ("6986", ask(card, "00 D6 00 00 01 11"));
    openFile(card, SELECT_FILE_1);
    EXPECT_EQ("6982", ask(card, "00 D6 00 00 01 11"));
    EXPECT_EQ("0003AABBCC", toHex(card.file(0)));
    logIn(card);
    openFile(card, SELECT_FILE_1);
    EXPECT_EQ("9000", ask(card, "00 D6 00 02 02 11 22"));
    EXPECT_EQ("00031122CC", toHex(card.file(0)));
    EXPECT_EQ("9000", ask(card, "00 D6 00 04 01 33"));
    EXPECT_EQ("0003112233", toHex(card.file(0)));
}

TEST(IdCard, RefusesUpdatesThatDoNotFit)
{
    IdCard card(withFirstFile("00 03 AA BB CC"));
    logIn(card);
    openFile(card, SELECT_FILE_1);
    EXPECT_EQ("6A84", ask(card, "00 D6 00 04 02 11 22"));
    EXPECT_EQ("6B00", ask(card, "00 D6 00 05 01 11"));
    EXPECT_EQ("6A86", ask(card, "00 D6 81 00 01 11"));
    EXPECT_EQ("6700", ask(card, "00 D6 00 00 00"));
    EXPECT_EQ("6700", ask(card, "00 D6 00 00 02 11"));
    EXPECT_EQ("6700", ask(card, "00 D6 00 00 01 11 22"));
    EXPECT_EQ("6700", ask(card, "00 D6 00 00 00 11"));
    EXPECT_EQ("6700", ask(card, "00 D6 00 00 00" + run(255, "11")));
    EXPECT_EQ("6700", ask(card, "00 D6 00 00 00" + run(257, "11")));
    EXPECT_EQ("0003AABBCC", toHex(card.file(0)));
}

TEST(IdCard, TakesALengthByteOfZeroWith256BytesAs256)
{
    IdCard card;
    logIn(card);
    openFile(card, SELECT_FILE_2);
    EXPECT_EQ("9000", ask(card, "00 D6 00 02 00" + run(256, "5A")));
    EXPECT_EQ("9000", ask(card, "00 D6 01 02 FF" + run(255, "A5")));
    EXPECT_EQ(run(256, "5A") + "9000", ask(card, "00 B0 00 02 00"));
    EXPECT_EQ(run(255, "A5") + "9000", ask(card, "00 B0 01 02 FF"));
    EXPECT_NE("A5", toHex(std::span(card.file(1)).subspan(0x201, 1)));
}

TEST(IdCard, GetResponseServesPiecesOfTheSizeAskedFor)
{
    IdCard card(withKeys(1024, 0));
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("618F", ask(card, PUBLIC_KEY_07));
    EXPECT_EQ("6C8F", ask(card, "00 C0 00 00 90"));
    EXPECT_EQ("6C8F", ask(card, REST_OF_256));
    EXPECT_EQ("FFA0618D", ask(card, "00 C0 00 00 02"));
    EXPECT_EQ("078200897F4982008481820080" + toHex(card.modulus(0)) + "9000",
              ask(card, "00 C0 00 00 8D"));
    EXPECT_EQ("6985", ask(card, "00 C0 00 00 01"));
}

TEST(IdCard, GetResponseIsRefusedWhenNothingIsPending)
{
    IdCard card;
    EXPECT_EQ("6985", ask(card, REST_OF_256));
    EXPECT_EQ("6985", ask(card, "00 C0 00 00 C2"));
    EXPECT_EQ("6A86", ask(card, "00 C0 01 00 00"));
    EXPECT_EQ("6A86", ask(card, "00 C0 00 01 00"));
    EXPECT_EQ("6700", ask(card, "00 C0 00 00 00 00"));
}

TEST(IdCard, AnyOtherCommandDropsPendingData)
{
    const std::vector<std::string> others = {
        SELECT_MASTER, "00 B0 00 00 02", "80 C0 00 00 00",    "00 84 00 00 00",
        "00 C0 00 00", "00 C0 00 01 00", "00 C0 00 00 00 00", ""};
    for (const std::string& other : others) {
        IdCard card;
        walk(card, {SELECT_MASTER, SELECT_KEYS});
        EXPECT_EQ("6100", ask(card, PUBLIC_KEY_07));
        answer(card, other);
        EXPECT_EQ("6985", ask(card, REST_OF_256)) << other;
    }
}

TEST(IdCard, CountsWrongPinsDownAndBlocks)
{
    IdCard card;
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("63C2", ask(card, WRONG_PIN));
    EXPECT_EQ("6985", ask(card, "00 C0 00 00 C2")) << "there is no data behind a wrong PIN";
    EXPECT_EQ("63C1", ask(card, WRONG_PIN));
    EXPECT_EQ(1u, card.retriesLeft());
    EXPECT_EQ("63C0", ask(card, WRONG_PIN));
    EXPECT_EQ("6983", ask(card, WRONG_PIN));
    EXPECT_EQ("6983", ask(card, RIGHT_PIN));
    EXPECT_FALSE(card.verified());
    EXPECT_EQ(0u, card.retriesLeft());
    EXPECT_EQ(6u, card.counters().verifies + card.counters().getResponses);
}

TEST(IdCard, TheRightPinRestoresTheAttempts)
{
    IdCardOptions options;
    options.retryLimit = 5;
    options.pin = "98-z";
    IdCard card(options);
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("63C4", ask(card, RIGHT_PIN));
    EXPECT_EQ("63C3", ask(card, RIGHT_PIN));
    EXPECT_EQ("9000", ask(card, "00 20 00 02 08 39 38 2D 7A 30 30 30 30"));
    EXPECT_TRUE(card.verified());
    EXPECT_EQ(5u, card.retriesLeft());
    EXPECT_EQ("63C4", ask(card, RIGHT_PIN));
    EXPECT_FALSE(card.verified()) << "a wrong PIN ends what an earlier one opened";
}

TEST(IdCard, APinOfAnotherLengthOrFormCostsNoAttempt)
{
    IdCard card;
    EXPECT_EQ("6A88", ask(card, RIGHT_PIN)) << "the PIN lies below the master file";
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6700", ask(card, "00 20 00 02 04 31 32 33 34"));
    EXPECT_EQ("6700", ask(card, "00 20 00 02 00"));
    EXPECT_EQ("6700", ask(card, "00 20 00 02 09 31 32 33 34 30 30 30 30 00"));
    EXPECT_EQ("6700", ask(card, "00 20 00 02 08 31 32 33 34 30 30 30 30 00"));
    EXPECT_EQ("6700", ask(card, "00 20 00 02 08 31 32 33 34 30 30 30"));
    EXPECT_EQ("6A86", ask(card, "00 20 00 01 08 31 32 33 34 30 30 30 30"));
    EXPECT_EQ("6A86", ask(card, "00 20 01 02 08 31 32 33 34 30 30 30 30"));
    EXPECT_EQ(3u, card.retriesLeft());
    EXPECT_EQ("63C2", ask(card, "00 20 00 02 08 31 32 33 34 30 30 30 31")) << "the filler counts";
}

TEST(IdCard, ALossOfPowerTakesSelectionSecurityAndPendingData)
{
    IdCard card;
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6100", ask(card, SIGN_ABC));
    card.reset();
    EXPECT_FALSE(card.verified());
    EXPECT_EQ("6985", ask(card, REST_OF_256));
    EXPECT_EQ("6A82", ask(card, SELECT_KEYS));
    walk(card, {SELECT_MASTER, SELECT_KEYS, USE_KEY_87});
    EXPECT_EQ("6982", ask(card, SIGN_ABC));
}

TEST(IdCard, SelectionAndReadingKeepTheVerifiedState)
{
    IdCard card;
    logIn(card);
    openFile(card, SELECT_FILE_2);
    answer(card, REST_OF_256);
    EXPECT_TRUE(card.verified());
}

TEST(IdCard, EachPositionIsEquippedAsAsked)
{
    IdCardOptions options = withKeys(0, 1024);
    options.positions[1].certificate = false;
    IdCard card(options);
    EXPECT_FALSE(card.key(0));
    EXPECT_FALSE(card.certificate(0).empty()) << "a certificate may stand without its key";
    EXPECT_EQ(1024u, card.key(1).bits());
    EXPECT_EQ(Bytes(4098), card.file(1));
    EXPECT_TRUE(card.certificate(1).empty());
    const Bytes other = authorityCertificate();
    options.positions[1].certificateDer = other;
    EXPECT_EQ(other, IdCard(options).certificate(1));
}

TEST(IdCard, AnUnreadableCertificateFileHoldsNoCertificate)
{
    IdCard card;
    for (const char* const content : {"", "00", "00 00", "00 05 01 02", "00 02 01 02"}) {
        card.setFile(0, hex(content));
        EXPECT_TRUE(card.certificate(0).empty()) << content;
    }
}

TEST(IdCard, RefusesOptionsThatNoCardCanHave)
{
    IdCardOptions options;
    options.pin = "123";
    EXPECT_THROW(IdCard{options}, std::invalid_argument);
    options.pin = "12345";
    EXPECT_THROW(IdCard{options}, std::invalid_argument);
    options.pin = "1234";
    options.retryLimit = 0;
    EXPECT_THROW(IdCard{options}, std::invalid_argument);
    options.retryLimit = 16;
    EXPECT_THROW(IdCard{options}, std::invalid_argument);
    options.retryLimit = 15;
    options.fileSize = 100;
    EXPECT_THROW(IdCard{options}, std::invalid_argument) << "no room for the certificate";
    options.fileSize = 32769;
    EXPECT_THROW(IdCard{options}, std::invalid_argument);
    options.fileSize = 32768;
    EXPECT_NO_THROW(IdCard{options});
}

TEST(IdCard, CountsWhatItIsAsked)
{
    IdCard card;
    openFile(card, SELECT_FILE_1);
    answer(card, "00 B0 00 00 02");
    answer(card, "00 B0 00 02 00");
    answer(card, "00 D6 00 00 01 11");
    answer(card, WRONG_PIN);
    answer(card, USE_KEY_87);
    answer(card, SIGN_ABC);
    answer(card, GENERATE_87);
    answer(card, PUBLIC_KEY_07);
    answer(card, "00 CA DF 01 09");
    answer(card, REST_OF_256);
    answer(card, "00 84 00 00 00");
    const IdCardCounters& counters = card.counters();
    EXPECT_EQ(14u, counters.commands);
    EXPECT_EQ(3u, counters.selects);
    EXPECT_EQ(2u, counters.reads);
    EXPECT_EQ(1u, counters.updates);
    EXPECT_EQ(1u, counters.verifies);
    EXPECT_EQ(1u, counters.environments);
    EXPECT_EQ(1u, counters.signCommands);
    EXPECT_EQ(0u, counters.signatures);
    EXPECT_EQ(1u, counters.generations);
    EXPECT_EQ(1u, counters.publicKeys);
    EXPECT_EQ(1u, counters.dataObjects);
    EXPECT_EQ(1u, counters.getResponses);
    card.clearCounters();
    EXPECT_EQ(0u, card.counters().commands);
}

} // namespace
} // namespace sim
