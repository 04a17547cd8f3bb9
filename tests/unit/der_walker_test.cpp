// How a certificate is walked: runs inside runs, where the walk ends, what is looked into.
#include "src/certdata/der_walker.h"

#include <limits>

#include <gtest/gtest.h>

#include "tests/support/der.h"

namespace {

using namespace velt_test;

// The counter after a walk; ONE_MORE in an encoding tells whether the walk came by there.
std::int32_t countOf(const Bytes& encoding)
{
    EXPECT_EQ(walk(encoding), 0);
    return cIndex;
}

TEST(DerWalk, TakesItemsInDocumentOrder)
{
    EXPECT_EQ(countOf(join({VERSION_AND_SERIAL, {0x05, 0x00}})), 1);
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x01, 0x05}));
    EXPECT_EQ(bufIndex, 8U);
    EXPECT_EQ(bufLength, 8U);
}

TEST(DerWalk, OfNothingReadsNothing)
{
    fPos = 77;
    EXPECT_EQ(parseASN1({}, 0), 0);
    EXPECT_EQ(bufIndex, 0U);
    EXPECT_EQ(fPos, 77);
    EXPECT_EQ(walk({}), 0);
    EXPECT_EQ(fPos, 77);
}

TEST(DerWalk, EndsAtTheLengthTold)
{
    Bytes buffer(CERTIFICATE_BUFFER);
    const Bytes encoding = join({ONE_MORE, ONE_MORE});
    std::copy(encoding.begin(), encoding.end(), buffer.begin());
    EXPECT_EQ(parseASN1(buffer, ONE_MORE.size()), 0);
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(bufIndex, ONE_MORE.size());
    EXPECT_EQ(parseASN1(buffer, encoding.size()), 0);
    EXPECT_EQ(cIndex, 2);
}

TEST(DerWalk, EndsAtTheBuffersEndWhenTheLengthToldIsLonger)
{
    const GuardedBytes guarded(ONE_MORE);
    EXPECT_EQ(parseASN1(guarded.view(), std::numeric_limits<std::uint64_t>::max()), 0);
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(bufLength, std::numeric_limits<std::uint64_t>::max());
}

TEST(DerWalk, DoesNotProcessAnItemWhoseHeaderEndsTheEncoding)
{
    // A serial number of no bytes would be stored with its header.
    const Bytes serial{0x02, 0x01, 0x05, 0x0A, 0x00};
    walk(join({{0x02, 0x01, 0x02}, serial}));
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x01, 0x05}));
    walk(join({{0x02, 0x01, 0x02}, serial, {0x05}}));
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x0A, 0x00}));
}

TEST(DerWalk, ProcessesAnItemWhoseLastLengthOctetEndsTheEncoding)
{
    walk(join({VERSION_AND_SERIAL, {0x0A, 0x81, 0x03}}));
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x0A, 0x81, 0x03, 0x00, 0x00, 0x00}));
    walk(join({VERSION_AND_SERIAL, {0x0A, 0x82, 0x00}}));
    EXPECT_EQ(stored(ucSN, snLen), (Bytes{0x02, 0x01, 0x05}));
}

TEST(DerWalk, CountsOctetsReadAndSkippedFromWalkToWalk)
{
    fPos = 0;
    const Bytes encoding =
        sequence({VERSION_AND_SERIAL, item(0x04, filler(300)), item(0x03, filler(20)),
                  identifier(EMAIL), item(0x17, filler(13)), item(0xA0, item(0x80, filler(3)))});
    walk(encoding);
    EXPECT_EQ(bufIndex, encoding.size());
    EXPECT_EQ(fPos, static_cast<std::int32_t>(encoding.size()));
    walk(encoding);
    EXPECT_EQ(fPos, 2 * static_cast<std::int32_t>(encoding.size()));
    walk({0x30, 0x82, 0x01}); // ends inside the header, of which three octets were read
    EXPECT_EQ(fPos, 2 * static_cast<std::int32_t>(encoding.size()) + 3);
}

TEST(DerWalk, CountsOctetsBeyondTheEncoding)
{
    fPos = 0;
    walk({0x0C, 0x7F, 0x41});
    EXPECT_EQ(bufIndex, 2U + 127U);
    EXPECT_EQ(fPos, 2 + 127);
    // A run that is not used up looks for one more item.
    fPos = 0;
    walk({0x30, 0x05, 0x0C, 0x01, 0x41});
    EXPECT_EQ(fPos, 6);
}

TEST(DerWalk, CountsPositionsRoundTheirRange)
{
    fPos = std::numeric_limits<std::int32_t>::max();
    walk({0x05, 0x00, 0x00, 0x00});
    EXPECT_EQ(fPos, std::numeric_limits<std::int32_t>::min() + 3);
    fPos = 0;
    walk({0x0C, 0x84, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(bufIndex, 6 + 0xFFFFFFFFULL);
    EXPECT_EQ(fPos, 5);
}

TEST(DerWalk, EntersConstructedItemsOfEveryClass)
{
    for (const std::uint8_t constructed : Bytes{0x30, 0x31, 0x24, 0x60, 0xA0, 0xA3, 0xE5}) {
        EXPECT_EQ(countOf(item(constructed, ONE_MORE)), 1) << unsigned{constructed};
    }
    EXPECT_EQ(countOf(join({{0xBF, 0x82, 0x01, 0x08}, ONE_MORE})), 1);
}

TEST(DerWalk, SkipsPrimitivesOfOtherClasses)
{
    // Were they universal, each would count: tags 2, 4, 6.
    for (const std::uint8_t itemClass : Bytes{0x40, 0x80, 0xC0}) {
        const auto of = [itemClass](std::uint8_t tag) {
            return static_cast<std::uint8_t>(itemClass | tag);
        };
        EXPECT_EQ(countOf(join({item(of(2), {0x00}), {0x02, 0x01, 0x00}, {0x05, 0x00}})), 0);
        EXPECT_EQ(countOf(item(of(4), item(0x30, ONE_MORE))), 0);
        EXPECT_EQ(countOf(join({VERSION_AND_SERIAL, item(of(6), COMMON_NAME), {0x05, 0x00}})), 1);
    }
}

// Whether a run of indefinite length is still open behind `encoding`: the walk then looks for one
// more identifier when all octets are used up.
bool leavesRunOpen(const Bytes& encoding)
{
    const Bytes whole = join({encoding, item(0x0C, {0x41})});
    EXPECT_EQ(walk(whole), 0);
    EXPECT_GE(bufIndex, whole.size());
    EXPECT_LE(bufIndex, whole.size() + 1);
    return bufIndex > whole.size();
}

TEST(DerWalk, EndOfContentsEndsTheInnermostRunOfIndefiniteLength)
{
    const Bytes open{0x30, 0x80};
    const Bytes end{0x00, 0x00};
    EXPECT_TRUE(leavesRunOpen(open));
    EXPECT_FALSE(leavesRunOpen(join({open, end})));
    EXPECT_FALSE(leavesRunOpen(join({open, ONE_MORE, end})));
    EXPECT_TRUE(leavesRunOpen(join({open, open, end})));
    EXPECT_TRUE(leavesRunOpen(join({open, end, open})));
    EXPECT_FALSE(leavesRunOpen(join({open, open, end, end})));
    EXPECT_FALSE(leavesRunOpen(join({open, open, end, open, end, end})));
    EXPECT_FALSE(leavesRunOpen(join({sequence({open, end}), end})));
    EXPECT_FALSE(leavesRunOpen(join({{0xA0, 0x80}, {0x00, 0x81, 0x00}})));
}

TEST(DerWalk, WhatLooksLikeEndOfContentsEndsNoRun)
{
    const Bytes open{0x30, 0x80};
    EXPECT_TRUE(leavesRunOpen(join({open, {0x00, 0x01, 0x00}}))) << "it has a length";
    EXPECT_TRUE(leavesRunOpen(join({open, {0x80, 0x00}}))) << "another class";
    EXPECT_TRUE(leavesRunOpen(join({open, {0x20, 0x00}}))) << "constructed";
    EXPECT_TRUE(leavesRunOpen(join({open, {0x05, 0x00}}))) << "another tag";
    EXPECT_TRUE(leavesRunOpen(join({open, {0x30, 0x02, 0x00, 0x00}}))) << "in a definite run";
    EXPECT_TRUE(leavesRunOpen(join({open, {0x04, 0x02, 0x00, 0x00}}))) << "in an OCTET STRING";
}

TEST(DerWalk, EndOfContentsInADefiniteRunIsIgnored)
{
    EXPECT_EQ(countOf(sequence({{0x00, 0x00}, ONE_MORE, {0x00, 0x00}, ONE_MORE})), 2);
    EXPECT_EQ(countOf(join({{0x00, 0x00}, ONE_MORE})), 1);
}

TEST(DerWalk, IndefiniteItemsThatAreNotConstructedHaveNoContent)
{
    for (const std::uint8_t primitive : Bytes{0x02, 0x03, 0x04, 0x06, 0x0C, 0x16, 0x17, 0x80}) {
        EXPECT_EQ(countOf(join({{primitive, 0x80}, ONE_MORE})), 1) << unsigned{primitive};
    }
}

TEST(DerWalk, AnItemLongerThanItsRunEndsTheRunAfterIt)
{
    // The sequence has room for two octets; its INTEGER takes them and one more.
    EXPECT_EQ(countOf(join({{0x30, 0x02, 0x02, 0x01, 0x00}, ONE_MORE})), 2);
    EXPECT_EQ(bufIndex, 5 + ONE_MORE.size());
    EXPECT_FALSE(leavesRunOpen({0x30, 0x02, 0x02, 0x01, 0x00}));
    // So does a run inside a run: each ends once its octets are used up.
    EXPECT_EQ(countOf(join({{0x30, 0x02, 0x30, 0x02, 0x02, 0x01, 0x00}, ONE_MORE})), 2);
}

TEST(DerWalk, AnIndefiniteRunGoesOnBeyondTheDefiniteRunAroundIt)
{
    const Bytes encoding =
        join({{0x30, 0x02, 0x30, 0x80}, ONE_MORE, {0x00, 0x00}, ONE_MORE, {0x30, 0x00}});
    EXPECT_EQ(countOf(encoding), 2);
}

TEST(DerWalk, AnEndInsideANestedRunEndsTheWholeWalk)
{
    const Bytes endless{0x1F, 0x80, 0x80, 0x80, 0x00, 0x00}; // a tag number of four octets
    EXPECT_EQ(countOf(join({ONE_MORE, sequence({sequence({endless})}), ONE_MORE})), 1);
    EXPECT_EQ(countOf(join({ONE_MORE, item(0x04, sequence({endless})), ONE_MORE})), 1);
}

TEST(DerWalk, LooksIntoOctetStringsThatHoldAnItem)
{
    for (const Bytes& hole :
         {sequence({ONE_MORE}), item(0x31, ONE_MORE), item(0x04, sequence({ONE_MORE})),
          join({{0x30, 0x81, 0x08}, ONE_MORE}), join({{0x3F, 0x10, 0x08}, ONE_MORE})}) {
        EXPECT_EQ(countOf(item(0x04, hole)), 1);
    }
    // A primitive item: the INTEGER inside counts because of the byte that follows it.
    EXPECT_EQ(countOf(join({item(0x04, {0x02, 0x01, 0x00}), {0x02, 0x00, 0x00}})), 1);
    EXPECT_EQ(countOf(join({item(0x04, {0x02, 0x01, 0x00}), {0x0A, 0x00, 0x00}})), 0);
}

// What an OCTET STRING's content must be like for a walk to enter it. Only the header changes.
TEST(DerWalk, SkipsOctetStringsThatHoldNoItem)
{
    struct Case {
        const char* reason;
        Bytes hole;
    };
    const std::vector<Case> cases{
        {"application class", item(0x70, ONE_MORE)},
        {"private class", item(0xF0, ONE_MORE)},
        {"constructed, context-specific 16", item(0xB0, ONE_MORE)},
        {"constructed, no SEQUENCE or SET", item(0x24, ONE_MORE)},
        {"tag 0", join({{0xA0, 0x08}, ONE_MORE})},
        {"one octet too many", join({sequence({ONE_MORE}), {0x00}})},
        {"one octet too few", join({{0x30, 0x09}, ONE_MORE})},
        {"two items", join({sequence({ONE_MORE}), sequence({ONE_MORE})})},
        {"long length", join({{0x30, 0x85, 0, 0, 0, 0, 0x08}, ONE_MORE})},
        {"long tag", join({{0x3F, 0x80, 0x80, 0x80, 0x10, 0x08}, ONE_MORE})},
        {"nothing", {}},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(countOf(item(0x04, one.hole)), 0) << one.reason;
    }
}

// An OCTET STRING that starts like an indefinite SEQUENCE is judged by the two headers behind it.
Bytes indefiniteHole(const Bytes& first, const Bytes& second)
{
    return item(0x04, join({{0x30, 0x80}, first, second, sequence({ONE_MORE}), {0x00, 0x00}}));
}

TEST(DerWalk, LooksIntoOctetStringsThatHoldAnIndefiniteSequence)
{
    const Bytes null{0x05, 0x00};
    EXPECT_EQ(countOf(indefiniteHole(null, null)), 1);
    EXPECT_EQ(countOf(indefiniteHole({0x9F, 0x31, 0x00}, {0xC1, 0x00})), 1);
    // The second header follows the first one directly: it stands where the content does.
    EXPECT_EQ(countOf(indefiniteHole({0x0C, 0x02}, null)), 1);
    EXPECT_EQ(countOf(indefiniteHole({0x0C, 0x02}, {0x80, 0x00})), 0);
    EXPECT_EQ(countOf(indefiniteHole(null, {0x30, 0x85})), 0);
    EXPECT_EQ(countOf(item(0x04, join({{0x31, 0x80}, null, null, ONE_MORE, {0x00, 0x00}}))), 0);
    EXPECT_EQ(countOf(item(0x04, join({{0x10, 0x80}, null, null, sequence({ONE_MORE})}))), 0);
    EXPECT_EQ(countOf(item(0x04, join({{0xB0, 0x80}, null, null, ONE_MORE, {0x00, 0x00}}))), 0);
}

TEST(DerWalk, TagsBehindAHeldSequenceLieBetween1And49)
{
    const Bytes null{0x05, 0x00};
    for (unsigned tag = 0; tag < 0x80; ++tag) {
        const auto octet = static_cast<std::uint8_t>(tag);
        const Bytes empty = tag < 0x1F ? Bytes{static_cast<std::uint8_t>(0x80 | octet), 0x00}
                                       : Bytes{0x9F, octet, 0x00};
        const std::int32_t expected = tag >= 1 && tag <= 49 ? 1 : 0;
        EXPECT_EQ(countOf(indefiniteHole(empty, null)), expected) << tag;
        EXPECT_EQ(countOf(indefiniteHole(null, empty)), expected) << tag;
    }
}

TEST(DerWalk, TheLastHeaderBehindAHeldSequenceIsShorterThanTheContent)
{
    // Of six octets of content the last header tells `length`. Its own content, behind the OCTET
    // STRING, reads as an item that swallows ONE_MORE if the walk did not go inside.
    for (std::uint8_t length = 2; length < 12; ++length) {
        const Bytes swallower =
            join({header(0x0C, length - 2U + ONE_MORE.size()), Bytes(length - 2U)});
        const Bytes encoding = join({item(0x04, {0x30, 0x80, 0x05, 0x00, 0x0C, length}),
                                     swallower,
                                     ONE_MORE,
                                     {0x05, 0x00, 0x00}});
        EXPECT_EQ(countOf(encoding), length < 6 ? 1 : 0) << unsigned{length};
    }
}

TEST(DerWalk, LooksIntoBitStringsOfFiveOctetsOrMore)
{
    for (const std::uint8_t unused : Bytes{0x00, 0x07, 0xFF}) {
        EXPECT_EQ(countOf(item(0x03, join({{unused}, sequence({ONE_MORE})}))), 1);
    }
    // INTEGERs that would count because of the byte that follows the BIT STRING.
    const Bytes follower{0x02, 0x00, 0x00};
    const auto holding = [&](const Bytes& held) {
        return countOf(join({item(0x03, join({{0x00}, held})), follower}));
    };
    EXPECT_EQ(holding(join({{0x30, 0x03}, {0x02, 0x01, 0x00}})), 1); // five
    EXPECT_EQ(holding({0x02, 0x01, 0x00}), 0);                       // three
    EXPECT_EQ(holding({0x02, 0x81, 0x01, 0x00}), 0);                 // four
    EXPECT_EQ(holding({0x02, 0x82, 0x00, 0x01, 0x00}), 1);           // five
    EXPECT_EQ(countOf(join({item(0x04, {0x02, 0x81, 0x01, 0x00}), follower})), 1);
    // The octet of unused bits is no part of what is looked into.
    EXPECT_EQ(countOf(item(0x03, sequence({ONE_MORE}))), 0);
}

TEST(DerWalk, SkipsBitStringsOfAnyLengthThatHoldNoItem)
{
    for (std::size_t length = 0; length < 140; ++length) {
        const Bytes encoding = join({item(0x03, Bytes(length, 0xFF)), ONE_MORE});
        EXPECT_EQ(countOf(encoding), 1) << length;
        EXPECT_EQ(bufIndex, encoding.size());
    }
}

TEST(DerWalk, LooksIntoAContentCutByTheEndOfTheEncodingOnlyWithAWholeHeader)
{
    EXPECT_EQ(countOf({0x04, 0x0A, 0x30, 0x08}), 0);
    Bytes buffer(CERTIFICATE_BUFFER);
    const Bytes encoding = item(0x04, sequence({ONE_MORE}));
    std::copy(encoding.begin(), encoding.end(), buffer.begin());
    for (std::size_t length = 0; length <= encoding.size(); ++length) {
        EXPECT_EQ(parseASN1(buffer, length), 0);
        // The INTEGER counts once its own header is followed by anything.
        EXPECT_EQ(cIndex, length > 6 ? 1 : 0) << length;
    }
}

} // namespace
