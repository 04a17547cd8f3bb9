// Serial number, names and times: when the walk of a certificate keeps them and how much of them.
#include "src/certdata/der_walker.h"

#include <gtest/gtest.h>

#include "tests/support/der.h"

namespace {

using namespace velt_test;

const Bytes VERSION{0x02, 0x01, 0x02};
const Bytes END{0x05, 0x00, 0x00}; // keeps the last item of interest away from the encoding's end

void walkAll(const std::vector<Bytes>& parts)
{
    ASSERT_EQ(walk(join({join(parts), END})), 0);
}

// An item of `total` octets in all.
Bytes sized(std::uint8_t tag, std::size_t total)
{
    const std::size_t lengthOctets = total < 0x82 ? 1 : total < 0x103 ? 2 : 3;
    return item(tag, filler(total - 1 - lengthOctets));
}

// A constructed item of `total` octets that holds one string.
Bytes sizedName(std::size_t total)
{
    const std::size_t lengthOctets = total < 0x82 ? 1 : total < 0x103 ? 2 : 3;
    return item(0x30, sized(0x0C, total - 1 - lengthOctets));
}

// The parts of a certificate up to its times, with the counter at 7 there.
const Bytes UP_TO_TIMES =
    join({VERSION_AND_SERIAL, sequence({identifier(RSA_SHA256)}), sequence({countUp(6)})});
const Bytes TWO_TIMES =
    join({item(0x17, text("250131120000Z")), item(0x17, text("260228235959Z"))});

TEST(DerSerial, IsTheIntegerAfterTheVersion)
{
    walkAll({VERSION, item(0x02, {0x12, 0x34, 0x56, 0x78, 0x9A})});
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x05, 0x12, 0x34, 0x56, 0x78, 0x9A}));
    EXPECT_EQ(slot(ucSN, 7, 57), Bytes(57));
}

TEST(DerSerial, IsKeptWithItsHeaderAsItStands)
{
    walkAll({VERSION, {0x02, 0x83, 0x00, 0x00, 0x02, 0xAB, 0xCD}});
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x83, 0x00, 0x00, 0x02, 0xAB, 0xCD}));
    walkAll({VERSION, {0x02, 0x00}});
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x00}));
    walkAll({VERSION, {0x02, 0x80}});
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x80}));
}

TEST(DerSerial, IsCutAt64Bytes)
{
    for (std::size_t total = 2; total <= 140; ++total) {
        const Bytes serial = sized(0x02, total);
        walkAll({VERSION, serial});
        const std::size_t kept = std::min<std::size_t>(total, 64);
        ASSERT_EQ(snLen, static_cast<std::int32_t>(kept));
        EXPECT_EQ(slot(ucSN, 0, 64), zeroPadded(serial, 64));
    }
}

TEST(DerSerial, RunsOnBehindTheCertificateUpToTheBuffersEnd)
{
    const Bytes cut = join({VERSION, {0x02, 0x20, 0xAA, 0xBB}});
    EXPECT_EQ(walk(cut), 0);
    EXPECT_EQ(stored(ucSN, snLen), zeroPadded({0x02, 0x20, 0xAA, 0xBB}, 0x22));
    EXPECT_EQ(walkWithoutSlack(cut), 0);
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x20, 0xAA, 0xBB}));
    EXPECT_EQ(slot(ucSN, 4, 60), Bytes(60));
    const Bytes longer = join({cut, {0xCC, 0xDD}});
    EXPECT_EQ(parseASN1(GuardedBytes(longer).view(), cut.size()), 0);
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x20, 0xAA, 0xBB, 0xCC, 0xDD}));
}

TEST(DerSerial, OfALaterIntegerReplacesOnlyItsOwnBytes)
{
    walkAll({VERSION, item(0x02, {0x11, 0x22, 0x33}), item(0x0A, {0x44})});
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x0A, 0x01, 0x44}));
    EXPECT_EQ(slot(ucSN, 0, 6), (Bytes{0x0A, 0x01, 0x44, 0x22, 0x33, 0x00}));
}

TEST(DerSerial, IsNotTakenBeforeOrAfterItsTurn)
{
    walkAll({item(0x02, {0x11, 0x22}), item(0x0A, {0x33})});
    EXPECT_EQ(cIndex, 0);
    EXPECT_EQ(snLen, 0);
    EXPECT_EQ(slot(ucSN, 0, 64), Bytes(64));
    walkAll({VERSION_AND_SERIAL, countUp(1), item(0x02, {0x66, 0x77})});
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x01, 0x05}));
}

TEST(DerVersion, CountsOnlyAsOneByteBeforeAnInteger)
{
    const Bytes serial{0x02, 0x02, 0x01, 0x01};
    for (const std::uint8_t tag : Bytes{0x02, 0x0A}) {
        for (std::size_t length = 0; length <= 6; ++length) {
            walkAll({item(tag, Bytes(length, 0x02)), serial});
            EXPECT_EQ(cIndex, length == 1 ? 1 : 0) << unsigned{tag} << ' ' << length;
        }
        walkAll({item(tag, {0x02}), item(0x0A, {0x01, 0x01})});
        EXPECT_EQ(cIndex, 0);
        walkAll({item(tag, {0x02}), {0x22, 0x00}});
        EXPECT_EQ(cIndex, 0);
    }
    walkAll({{0x02, 0x81, 0x01, 0x02}, serial});
    EXPECT_EQ(cIndex, 1);
    walkAll({item(0x01, {0x02}), serial});
    EXPECT_EQ(cIndex, 0);
}

TEST(DerVersion, LooksAtTheByteBehindWhateverItBelongsTo)
{
    walkAll({item(0xA0, VERSION), {0x02, 0x02, 0x01, 0x01}});
    EXPECT_EQ(cIndex, 1);
    const Bytes behind = join({VERSION, {0x02}});
    EXPECT_EQ(parseASN1(behind, VERSION.size()), 0);
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(walkWithoutSlack(VERSION), 0);
    EXPECT_EQ(cIndex, 0);
}

TEST(DerVersion, CountsAgainAtEveryCounter)
{
    walkAll({times(5, VERSION), {0x05, 0x00}});
    EXPECT_EQ(cIndex, 4);
    // A one-byte serial number before another INTEGER is kept, then counts as a version.
    EXPECT_EQ(stored(ucSN, snLen), VERSION);
}

TEST(DerIssuer, IsTheSecondConstructedItemAfterTheSerial)
{
    const Bytes algorithm = sequence({identifier(RSA_SHA256), {0x05, 0x00}});
    const Bytes name = item(0x31, item(0x0C, text("name")));
    const Bytes third = sequence({item(0x0C, text("third"))});
    walkAll({VERSION_AND_SERIAL, algorithm});
    EXPECT_EQ(stored(ucIssuer, isLen), algorithm);
    EXPECT_EQ(atribInd, 1);
    walkAll({VERSION_AND_SERIAL, algorithm, name});
    EXPECT_EQ(stored(ucIssuer, isLen), name);
    EXPECT_EQ(atribInd, 2);
    walkAll({VERSION_AND_SERIAL, algorithm, name, third});
    EXPECT_EQ(stored(ucIssuer, isLen), name);
    EXPECT_EQ(slot(ucIssuer, name.size(), 512 - name.size()), Bytes(512 - name.size()));
    EXPECT_EQ(atribInd, 2);
}

TEST(DerIssuer, MayLieInsideTheItemBeforeIt)
{
    const Bytes inner = sequence({item(0x0C, text("inner"))});
    walkAll({VERSION_AND_SERIAL, sequence({inner, inner})});
    EXPECT_EQ(stored(ucIssuer, isLen), inner);
}

TEST(DerIssuer, IsOfTheUniversalClass)
{
    for (const std::uint8_t constructed : Bytes{0x60, 0xA0, 0xA3, 0xE0}) {
        walkAll({VERSION_AND_SERIAL, item(constructed, filler(3))});
        EXPECT_EQ(isLen, 0);
        EXPECT_EQ(atribInd, 0);
    }
    for (const std::uint8_t constructed : Bytes{0x30, 0x31, 0x24, 0x23}) {
        const Bytes kept = item(constructed, item(0x0C, filler(3)));
        walkAll({VERSION_AND_SERIAL, kept});
        EXPECT_EQ(stored(ucIssuer, isLen), kept);
    }
}

TEST(DerIssuer, WaitsForTheSerial)
{
    walkAll({sequence({item(0x0C, filler(3))}), VERSION_AND_SERIAL});
    EXPECT_EQ(isLen, 0);
    EXPECT_EQ(atribInd, 0);
    walkAll({VERSION_AND_SERIAL, countUp(1), sequence({item(0x0C, filler(3))})});
    EXPECT_EQ(isLen, 0);
}

TEST(DerIssuer, OfNoContentIsItsHeader)
{
    walkAll({VERSION_AND_SERIAL, {0x30, 0x00}});
    EXPECT_EQ(stored(ucIssuer, isLen), (Bytes{0x30, 0x00}));
    walkAll({VERSION_AND_SERIAL, {0x30, 0x80}, item(0x0C, filler(3)), {0x00, 0x00}});
    EXPECT_EQ(stored(ucIssuer, isLen), (Bytes{0x30, 0x80}));
    EXPECT_EQ(slot(ucIssuer, 2, 510), Bytes(510));
}

TEST(DerIssuer, IsCutAt1024Bytes)
{
    for (std::size_t total = 1000; total <= 1100; ++total) {
        const Bytes name = sizedName(total);
        ASSERT_EQ(name.size(), total);
        walkAll({VERSION_AND_SERIAL, sequence({}), name});
        ASSERT_EQ(isLen, static_cast<std::int32_t>(std::min<std::size_t>(total, 1024)));
        EXPECT_EQ(stored(ucIssuer, isLen), Bytes(name.begin(), name.begin() + isLen));
    }
}

TEST(DerIssuer, RunsOnBehindTheCertificateUpToTheBuffersEnd)
{
    const Bytes name{0x30, 0x82, 0x01, 0x00, 0x0C, 0x01, 'x'};
    const Bytes cut = join({VERSION_AND_SERIAL, sequence({}), name});
    EXPECT_EQ(walk(cut), 0);
    EXPECT_EQ(stored(ucIssuer, isLen), zeroPadded(name, 0x104));
    EXPECT_EQ(walkWithoutSlack(cut), 0);
    EXPECT_EQ(stored(ucIssuer, isLen), name);
    // A length beyond any buffer.
    const Bytes huge{0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0x0C, 0x01, 'x'};
    EXPECT_EQ(walk(join({VERSION_AND_SERIAL, sequence({}), huge})), 0);
    EXPECT_EQ(isLen, 1024);
    EXPECT_EQ(slot(ucIssuer, 0, 1024), zeroPadded(huge, 1024));
}

TEST(DerIssuer, ClearsHalfTheFieldBeforeItIsKept)
{
    const Bytes longer = sizedName(900);
    const Bytes shorter = sequence({item(0x0C, text("name"))});
    walkAll({VERSION_AND_SERIAL, longer, shorter});
    EXPECT_EQ(slot(ucIssuer, 0, 512), zeroPadded(shorter, 512));
    EXPECT_EQ(slot(ucIssuer, 512, 388), Bytes(longer.begin() + 512, longer.end()));
}

TEST(DerSubject, IsTheNextConstructedItemAfterTheTimes)
{
    const Bytes subject = item(0x31, item(0x0C, text("subject")));
    walkAll({UP_TO_TIMES, TWO_TIMES, item(0x0C, text("between")), subject, sequence({})});
    EXPECT_EQ(cIndex, 9);
    EXPECT_EQ(stored(ucSubject, sjLen), subject);
    EXPECT_EQ(atribInd, 3);
}

TEST(DerSubject, NeedsTheCounterAt9AndTwoNamesBefore)
{
    const Bytes name = sequence({item(0x0C, text("subject"))});
    walkAll({VERSION_AND_SERIAL, countUp(8), name});
    EXPECT_EQ(cIndex, 9);
    EXPECT_EQ(sjLen, 0);
    walkAll({VERSION_AND_SERIAL, sequence({}), countUp(8), name});
    EXPECT_EQ(sjLen, 0);
    for (std::size_t count = 0; count < 12; ++count) {
        walkAll({VERSION_AND_SERIAL, sequence({}), sequence({}), countUp(count), name});
        EXPECT_EQ(cIndex, static_cast<std::int32_t>(1 + count));
        EXPECT_EQ(stored(ucSubject, sjLen), count == 8 ? name : Bytes{}) << count;
    }
}

TEST(DerSubject, IsCutAt1024Bytes)
{
    for (std::size_t total = 1000; total <= 1100; ++total) {
        const Bytes name = sizedName(total);
        walkAll({UP_TO_TIMES, TWO_TIMES, name});
        ASSERT_EQ(sjLen, static_cast<std::int32_t>(std::min<std::size_t>(total, 1024)));
        EXPECT_EQ(stored(ucSubject, sjLen), Bytes(name.begin(), name.begin() + sjLen));
    }
}

TEST(DerTimes, FillNotBeforeThenNotAfter)
{
    walkAll({UP_TO_TIMES, TWO_TIMES});
    EXPECT_EQ(slot(notBefore, 0, 13), text("250131120000Z"));
    EXPECT_EQ(slot(notAfter, 0, 13), text("260228235959Z"));
    EXPECT_EQ(cIndex, 9);
    walkAll({UP_TO_TIMES, TWO_TIMES, item(0x17, text("990101000000Z"))});
    EXPECT_EQ(slot(notAfter, 0, 13), text("260228235959Z"));
    EXPECT_EQ(cIndex, 9);
}

TEST(DerTimes, OfGeneralizedTimeFillBothFieldsAtOnce)
{
    walkAll(
        {UP_TO_TIMES, item(0x18, text("20250131120000Z")), item(0x18, text("20260228235959Z"))});
    EXPECT_EQ(slot(notBefore, 0, 13), text("2025013112000"));
    EXPECT_EQ(slot(notAfter, 0, 13), text("2025013112000"));
    EXPECT_EQ(cIndex, 9);
}

TEST(DerTimes, OfBothKindsFillOneFieldEach)
{
    walkAll({UP_TO_TIMES, item(0x17, text("250131120000Z")), item(0x18, text("20500228235959Z"))});
    EXPECT_EQ(slot(notBefore, 0, 13), text("250131120000Z"));
    EXPECT_EQ(slot(notAfter, 0, 13), text("2050022823595"));
    EXPECT_EQ(cIndex, 9);
}

TEST(DerTimes, MetOneAttributeLateFillNotAfterOnly)
{
    for (const std::uint8_t tag : Bytes{0x17, 0x18}) {
        walkAll({UP_TO_TIMES, countUp(1), item(tag, text("250131120000Z")), item(tag, filler(13))});
        EXPECT_EQ(slot(notBefore, 0, 13), Bytes(13));
        EXPECT_EQ(slot(notAfter, 0, 13), text("250131120000Z"));
        EXPECT_EQ(cIndex, 9);
    }
}

TEST(DerTimes, AtAnyOtherCounterAreNotKept)
{
    for (std::size_t count = 0; count < 16; ++count) {
        for (const std::uint8_t tag : Bytes{0x17, 0x18}) {
            walkAll(
                {VERSION_AND_SERIAL, countUp(count), item(tag, filler(13)), item(tag, filler(13))});
            if (count != 6 && count != 7) {
                EXPECT_EQ(slot(notBefore, 0, 13), Bytes(13)) << count;
                EXPECT_EQ(slot(notAfter, 0, 13), Bytes(13)) << count;
                EXPECT_EQ(cIndex, static_cast<std::int32_t>(1 + count));
            } else {
                EXPECT_EQ(slot(notAfter, 0, 13), filler(13));
                EXPECT_EQ(cIndex, 9);
            }
        }
    }
}

TEST(DerTimes, AreCutAt13Bytes)
{
    for (std::size_t length = 0; length <= 130; ++length) {
        const Bytes first = filler(length);
        const Bytes second(length, 'z');
        walkAll({UP_TO_TIMES, item(0x17, first), item(0x17, second)});
        EXPECT_EQ(slot(notBefore, 0, 13), zeroPadded(first, 13)) << length;
        EXPECT_EQ(slot(notAfter, 0, 13), zeroPadded(second, 13)) << length;
        EXPECT_EQ(cIndex, 9);
    }
}

TEST(DerTimes, RunOnBehindTheCertificateUpToTheBuffersEnd)
{
    const Bytes cut = join({UP_TO_TIMES, {0x17, 0x0D, '2', '5'}});
    EXPECT_EQ(walk(cut), 0);
    EXPECT_EQ(slot(notBefore, 0, 13), zeroPadded(text("25"), 13));
    EXPECT_EQ(walkWithoutSlack(cut), 0);
    EXPECT_EQ(slot(notBefore, 0, 13), zeroPadded(text("25"), 13));
    const Bytes longer = join({cut, text("0131")});
    EXPECT_EQ(parseASN1(GuardedBytes(longer).view(), cut.size()), 0);
    EXPECT_EQ(slot(notBefore, 0, 13), zeroPadded(text("250131"), 13));
    EXPECT_EQ(cIndex, 8);
}

TEST(DerResults, AreClearedByTheNextWalkButForTheSecondHalvesOfTheNames)
{
    const Bytes name = sizedName(1024);
    walkAll({VERSION_AND_SERIAL, sequence({}), name, countUp(6), TWO_TIMES, name,
             identifier(COMMON_NAME), item(0x0C, text("holder")), identifier(EMAIL),
             item(0x16, text("a@b"))});
    ASSERT_EQ(isLen, 1024);
    ASSERT_EQ(sjLen, 1024);
    ASSERT_EQ(slot(sSubject, 258, 6), text("holder"));
    walk(join({identifier(EMAIL), {0x05, 0x00, 0x00}}));
    EXPECT_EQ(isEmail, 1);
    walk({});
    EXPECT_EQ(snLen, 0);
    EXPECT_EQ(isLen, 0);
    EXPECT_EQ(sjLen, 0);
    EXPECT_EQ(slot(ucSN, 0, 64), Bytes(64));
    EXPECT_EQ(slot(notBefore, 0, 13), Bytes(13));
    EXPECT_EQ(slot(notAfter, 0, 13), Bytes(13));
    EXPECT_EQ(slot(sIssuer, 0, 642), Bytes(642));
    EXPECT_EQ(slot(sSubject, 0, 898), Bytes(898));
    EXPECT_EQ(std::string(lastOID.data(), lastOID.size()), std::string(128, '\0'));
    EXPECT_EQ(bufIndex, 0U);
    EXPECT_EQ(bufLength, 0U);
    EXPECT_EQ(cIndex, 0);
    EXPECT_EQ(atribInd, 0);
    EXPECT_EQ(isEmail, 0);
    for (const auto& field : {ucIssuer, ucSubject}) {
        EXPECT_EQ(slot(field, 0, 512), Bytes(512));
        EXPECT_EQ(slot(field, 512, 512), Bytes(name.begin() + 512, name.end()));
    }
}

} // namespace
