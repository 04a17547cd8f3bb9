// What the simulated identity card answers, byte by byte.
#include "sim/cards/gzip_member.h"
#include "sim/cards/id_card.h"
#include "sim/cards/scripted_card.h"
#include "sim/cards/state_file.h"
#include "sim/cards/test_ca.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <openssl/x509.h>
#include <unistd.h>

namespace sim {
namespace {

constexpr const char* const SELECT_MASTER = "00 A4 00 0C 02 3F 00";
constexpr const char* const SELECT_CERTIFICATES = "00 A4 01 0C 02 08 01";
constexpr const char* const SELECT_KEYS = "00 A4 01 0C 02 01 01";
constexpr const char* const SELECT_FILE_1 = "00 A4 02 0C 02 01 01";
constexpr const char* const SELECT_FILE_2 = "00 A4 02 0C 02 01 02";
constexpr const char* const RIGHT_PIN = "00 20 00 02 08 31 32 33 34 30 30 30 30";
constexpr const char* const WRONG_PIN = "00 20 00 02 08 31 32 33 35 30 30 30 30";
constexpr const char* const USE_KEY_87 = "00 22 41 A4 09 95 01 40 84 01 87 80 01 02";
constexpr const char* const USE_KEY_88 = "00 22 41 A4 09 95 01 40 84 01 88 80 01 02";
constexpr const char* const SIGN_ABC = "00 88 02 00 03 61 62 63";
constexpr const char* const GENERATE_87 = "00 46 02 00 05 A4 03 84 01 87";
constexpr const char* const GENERATE_88 = "00 46 02 00 05 A4 03 84 01 88";
constexpr const char* const PUBLIC_KEY_07 = "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 81 00";
constexpr const char* const PUBLIC_KEY_08 = "00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00";
constexpr const char* const REST_OF_256 = "00 C0 00 00 00";

Bytes answer(Card& card, const std::string& command)
{
    return card.transmit(hex(command));
}

std::string ask(Card& card, const std::string& command)
{
    return toHex(answer(card, command));
}

// A run of equal bytes in hexadecimal.
std::string run(std::size_t count, const std::string& byte)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += byte;
    }
    return text;
}

void walk(Card& card, const std::vector<std::string>& commands)
{
    for (const std::string& command : commands) {
        ASSERT_EQ("9000", ask(card, command)) << command;
    }
}

void openFile(Card& card, const char* selectFile)
{
    walk(card, {SELECT_MASTER, SELECT_CERTIFICATES, selectFile});
}

void logIn(Card& card)
{
    walk(card, {SELECT_MASTER, RIGHT_PIN});
}

void prepareSigning(Card& card, const char* useKey)
{
    walk(card, {SELECT_MASTER, RIGHT_PIN, SELECT_KEYS, useKey});
}

Bytes withoutStatus(Bytes reply)
{
    EXPECT_GE(reply.size(), 2u);
    reply.resize(reply.size() < 2 ? 0 : reply.size() - 2);
    return reply;
}

// Collects what a command brings through GET RESPONSE, as a T=0 host does.
Bytes collect(Card& card, const std::string& command)
{
    Bytes whole;
    Bytes reply = answer(card, command);
    while (reply.size() >= 2 && reply[reply.size() - 2] == 0x61) {
        whole.insert(whole.end(), reply.begin(), reply.end() - 2);
        const Bytes next{0x00, 0xC0, 0x00, 0x00, reply.back()};
        reply = card.transmit(next);
    }
    whole.insert(whole.end(), reply.begin(), reply.end());
    return whole;
}

IdCardOptions withKeys(unsigned firstBits, unsigned secondBits)
{
    IdCardOptions options;
    options.positions[0].keyBits = firstBits;
    options.positions[1].keyBits = secondBits;
    return options;
}

IdCardOptions withFirstFile(const std::string& content, ShortRead shortRead = ShortRead::Warning)
{
    IdCardOptions options;
    options.positions[0].file = hex(content);
    options.shortRead = shortRead;
    return options;
}

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

TEST(IdCard, SendsAPublicKeyBehindAHeaderOf15Bytes)
{
    IdCard card(withKeys(2048, 1024));
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6100", ask(card, PUBLIC_KEY_07));
    const std::string modulus = toHex(card.modulus(0));
    ASSERT_EQ(512u, modulus.size());
    EXPECT_EQ("FFA007820109"
              "7F49820104"
              "81820100" +
                  modulus.substr(0, 482) + "610F",
              ask(card, REST_OF_256));
    EXPECT_EQ(modulus.substr(482) + "9000", ask(card, "00 C0 00 00 0F"));
    EXPECT_EQ("618F", ask(card, PUBLIC_KEY_08));
    EXPECT_EQ("FFA008820089"
              "7F49820084"
              "81820080" +
                  toHex(card.modulus(1)) + "9000",
              ask(card, "00 C0 00 00 8F"));
}

TEST(IdCard, AnAbsentKeyBringsTwoBytes)
{
    IdCard card(withKeys(0, 2048));
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6102", ask(card, PUBLIC_KEY_07));
    EXPECT_EQ("4D009000", ask(card, "00 C0 00 00 02"));
    EXPECT_EQ("6100", ask(card, PUBLIC_KEY_08));
    EXPECT_TRUE(card.modulus(0).empty());
}

TEST(IdCard, RefusesOtherQuestionsForPublicKeys)
{
    IdCard card;
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6A88", ask(card, PUBLIC_KEY_07)) << "the keys are not selected";
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6A88", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 06 05 7F 49 02 81 00"));
    EXPECT_EQ("6A88", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 09 05 7F 49 02 81 00"));
    EXPECT_EQ("6A88", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 87 05 7F 49 02 81 00"));
    EXPECT_EQ("6A80", ask(card, "00 CB 3F FF 0B 4D 09 FF A1 07 05 7F 49 02 81 00"));
    EXPECT_EQ("6A80", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 82 00"));
    EXPECT_EQ("6A80", ask(card, "00 CB 3F FF 02 4D 00"));
    EXPECT_EQ("6A86", ask(card, "00 CB 3F FE 0B 4D 09 FF A0 07 05 7F 49 02 81 00"));
    EXPECT_EQ("6700", ask(card, std::string(PUBLIC_KEY_07) + "00")) << "T=0 sends no Le here";
    EXPECT_EQ("6700", ask(card, "00 CB 3F FF 0C 4D 09 FF A0 07 05 7F 49 02 81 00"));
    EXPECT_EQ("6700", ask(card, "00 CB 3F FF 00"));
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

TEST(IdCard, SignaturesOfBothKeysHoldTheDataUnderThePadding)
{
    IdCard card(withKeys(2048, 1024));
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6100", ask(card, SIGN_ABC));
    const Bytes first = answer(card, REST_OF_256);
    ASSERT_EQ(258u, first.size());
    EXPECT_EQ("616263", toHex(card.key(0).recover(withoutStatus(first))));
    walk(card, {SELECT_MASTER, SELECT_KEYS, USE_KEY_88});
    EXPECT_EQ("6180", ask(card, SIGN_ABC));
    const Bytes second = answer(card, "00 C0 00 00 80");
    ASSERT_EQ(130u, second.size());
    EXPECT_EQ("616263", toHex(card.key(1).recover(withoutStatus(second))));
    EXPECT_EQ(2u, card.counters().signatures);
}

TEST(IdCard, SignaturesVerifyAgainstTheCertificate)
{
    IdCard card;
    prepareSigning(card, USE_KEY_88);
    const std::string message = "to be signed";
    Bytes digest(32);
    ASSERT_EQ(1, EVP_Digest(message.data(), message.size(), digest.data(), nullptr, EVP_sha256(),
                            nullptr));
    const std::string digestInfo = "3031300D060960864801650304020105000420" + toHex(digest);
    const Bytes signature = withoutStatus(collect(card, "00 88 02 00 33" + digestInfo));
    const Bytes der = card.certificate(1);
    const unsigned char* at = der.data();
    X509* const certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
    ASSERT_NE(nullptr, certificate);
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    ASSERT_EQ(1, EVP_DigestVerifyInit(context, nullptr, EVP_sha256(), nullptr,
                                      X509_get0_pubkey(certificate)));
    const Bytes text(message.begin(), message.end());
    EXPECT_EQ(
        1, EVP_DigestVerify(context, signature.data(), signature.size(), text.data(), text.size()));
    EVP_MD_CTX_free(context);
    X509_free(certificate);
}

TEST(IdCard, SignsAsMuchAsTheKeyHoldsAndNoMore)
{
    IdCard card(withKeys(2048, 1024));
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6100", ask(card, "00 88 02 00 F5" + run(245, "AB")));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 F6" + run(246, "AB")));
    walk(card, {USE_KEY_88});
    EXPECT_EQ("6180", ask(card, "00 88 02 00 75" + run(117, "AB")));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 76" + run(118, "AB")));
    EXPECT_EQ(4u, card.counters().signCommands);
    EXPECT_EQ(2u, card.counters().signatures);
}

TEST(IdCard, RefusesToSignWithoutThePin)
{
    IdCard card;
    walk(card, {SELECT_MASTER, SELECT_KEYS, USE_KEY_87});
    EXPECT_EQ("6982", ask(card, SIGN_ABC));
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("63C2", ask(card, WRONG_PIN));
    walk(card, {SELECT_KEYS, USE_KEY_87});
    EXPECT_EQ("6982", ask(card, SIGN_ABC));
    EXPECT_EQ(2u, card.counters().signCommands);
    EXPECT_EQ(0u, card.counters().signatures);
}

TEST(IdCard, RefusesToSignWithoutAKeyChosenInTheKeyDirectory)
{
    IdCard card;
    logIn(card);
    EXPECT_EQ("6985", ask(card, SIGN_ABC));
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6985", ask(card, SIGN_ABC));
    walk(card, {USE_KEY_87, SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6985", ask(card, SIGN_ABC)) << "selecting a directory forgets the chosen key";
}

TEST(IdCard, RefusesOtherFormsOfSigning)
{
    IdCard card;
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6A86", ask(card, "00 88 00 00 03 61 62 63"));
    EXPECT_EQ("6A86", ask(card, "00 88 02 01 03 61 62 63"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 03 61 62 63 00"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 04 61 62 63"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 00"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 00" + run(256, "AB")));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 01" + run(257, "AB")));
    EXPECT_EQ("6100", ask(card, SIGN_ABC));
}

TEST(IdCard, ChoosesAKeyByTheOneTemplateAlone)
{
    IdCard card(withKeys(2048, 0));
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6985", ask(card, USE_KEY_87)) << "the keys are not selected";
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6A88", ask(card, USE_KEY_88)) << "there is no such key";
    EXPECT_EQ("6A88", ask(card, "00 22 41 A4 09 95 01 40 84 01 07 80 01 02"));
    EXPECT_EQ("6A88", ask(card, "00 22 41 A4 09 95 01 40 84 01 00 80 01 02"));
    EXPECT_EQ("6A88", ask(card, "00 22 41 A4 09 95 01 40 84 01 89 80 01 02"));
    EXPECT_EQ("6A80", ask(card, "00 22 41 A4 09 95 01 80 84 01 87 80 01 02"));
    EXPECT_EQ("6A80", ask(card, "00 22 41 A4 09 95 01 40 84 01 87 80 01 01"));
    EXPECT_EQ("6A80", ask(card, "00 22 41 A4 06 84 01 87 80 01 02"));
    EXPECT_EQ("6A86", ask(card, "00 22 41 B6 09 95 01 40 84 01 87 80 01 02"));
    EXPECT_EQ("6A86", ask(card, "00 22 81 A4 09 95 01 40 84 01 87 80 01 02"));
    EXPECT_EQ("6700", ask(card, "00 22 41 A4 09 95 01 40 84 01 87 80 01"));
    EXPECT_EQ("6700", ask(card, std::string(USE_KEY_87) + "00"));
    EXPECT_EQ("6700", ask(card, "00 22 41 A4 00"));
    EXPECT_EQ("9000", ask(card, USE_KEY_87));
}

TEST(IdCard, GeneratesAKeyOfItsOwnSizeAfterThePin)
{
    IdCardOptions options = withKeys(2048, 0);
    options.generatedBits = 1024;
    IdCard card(options);
    const Bytes before = card.modulus(0);
    const Bytes certificateFile = card.file(1);
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6982", ask(card, GENERATE_87));
    EXPECT_EQ(before, card.modulus(0));
    logIn(card);
    walk(card, {SELECT_KEYS, GENERATE_87, GENERATE_88});
    EXPECT_EQ(1024u, card.key(0).bits());
    EXPECT_EQ(1024u, card.key(1).bits());
    EXPECT_NE(card.modulus(0), card.modulus(1));
    EXPECT_EQ(certificateFile, card.file(1));
    walk(card, {USE_KEY_88});
    EXPECT_EQ("616263", toHex(card.key(1).recover(withoutStatus(collect(card, SIGN_ABC)))));
    EXPECT_EQ(3u, card.counters().generations);
}

TEST(IdCard, RefusesOtherFormsOfKeyGeneration)
{
    IdCard card;
    logIn(card);
    EXPECT_EQ("6985", ask(card, GENERATE_87)) << "the keys are not selected";
    walk(card, {SELECT_KEYS});
    const Bytes before = card.modulus(0);
    EXPECT_EQ("6A88", ask(card, "00 46 02 00 05 A4 03 84 01 86"));
    EXPECT_EQ("6A88", ask(card, "00 46 02 00 05 A4 03 84 01 89"));
    EXPECT_EQ("6A80", ask(card, "00 46 02 00 05 A5 03 84 01 87"));
    EXPECT_EQ("6A80", ask(card, "00 46 02 00 06 A4 04 84 02 87 00"));
    EXPECT_EQ("6A86", ask(card, "00 46 00 00 05 A4 03 84 01 87"));
    EXPECT_EQ("6A86", ask(card, "00 46 02 01 05 A4 03 84 01 87"));
    EXPECT_EQ("6700", ask(card, "00 46 02 00 05 A4 03 84 01 87 00"));
    EXPECT_EQ("6700", ask(card, "00 46 02 00 00"));
    EXPECT_EQ(before, card.modulus(0));
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

TEST(IdCard, AFreshKeyDiffersFromTheOneThatStandsReady)
{
    IdCardOptions options = withKeys(1024, 0);
    const Bytes ready = IdCard(options).modulus(0);
    EXPECT_EQ(ready, IdCard(options).modulus(0));
    options.positions[0].freshKey = true;
    const IdCard fresh(options);
    EXPECT_EQ(128u, fresh.modulus(0).size());
    EXPECT_NE(ready, fresh.modulus(0));
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
