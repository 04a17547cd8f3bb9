// Headers of DER items and what can be read behind them.
#include "src/certdata/der_item.h"

#include <gtest/gtest.h>

#include "tests/support/der.h"

namespace {

using namespace velt_test;
using velt::DerInput;
using velt::DerItem;
using velt::DerResult;

struct Decoding {
    DerResult result;
    DerItem item;
};

Decoding decode(const Bytes& encoding, std::uint64_t position = 0)
{
    const GuardedBytes guarded(encoding);
    Decoding decoding{};
    decoding.result =
        velt::decodeHeader(DerInput{guarded.view(), encoding.size()}, position, decoding.item);
    return decoding;
}

Bytes headerOf(const DerItem& item)
{
    return {item.header.begin(), item.header.begin() + item.headerSize};
}

TEST(DerHeader, GivesClassTagAndLength)
{
    for (unsigned identifier = 0; identifier < 256; ++identifier) {
        if ((identifier & 0x1F) == 0x1F) {
            continue;
        }
        const auto octet = static_cast<std::uint8_t>(identifier);
        const Decoding decoding = decode({octet, 0x03, 1, 2, 3});
        ASSERT_EQ(decoding.result, DerResult::ITEM);
        EXPECT_EQ(decoding.item.id, octet & 0xE0);
        EXPECT_EQ(decoding.item.tag, octet & 0x1F);
        EXPECT_EQ(decoding.item.length, 3);
        EXPECT_FALSE(decoding.item.indefinite);
        EXPECT_EQ(headerOf(decoding.item), (Bytes{octet, 0x03}));
    }
}

TEST(DerHeader, ReadsTagNumbersOfUpToThreeOctets)
{
    struct Case {
        Bytes header;
        std::int32_t tag;
    };
    const std::vector<Case> cases{
        {{0x3F, 0x02, 0x01}, 2},
        {{0x3F, 0x7F, 0x01}, 127},
        {{0x3F, 0x81, 0x00, 0x01}, 128},
        {{0x3F, 0x80, 0x80, 0x05, 0x01}, 5},
        {{0x3F, 0xFF, 0xFF, 0x7F, 0x01}, 0x1FFFFF},
    };
    for (const Case& one : cases) {
        const Decoding decoding = decode(join({one.header, {0xAA}}));
        ASSERT_EQ(decoding.result, DerResult::ITEM);
        EXPECT_EQ(decoding.item.id, 0x20);
        EXPECT_EQ(decoding.item.tag, one.tag);
        EXPECT_EQ(decoding.item.length, 1);
        EXPECT_EQ(headerOf(decoding.item), one.header);
    }
}

TEST(DerHeader, EndsAtTheFourthOctetOfATagNumber)
{
    for (const std::uint8_t fourth : Bytes{0x05, 0x85}) {
        const Decoding decoding = decode({0x1F, 0x80, 0x80, 0x80, fourth, 0x00, 0x00, 0x00});
        EXPECT_EQ(decoding.result, DerResult::ENDED);
        EXPECT_EQ(decoding.item.headerSize, 5);
    }
}

TEST(DerHeader, ReadsLengthsOfUpToFourOctets)
{
    struct Case {
        Bytes lengthOctets;
        std::int64_t length;
        int nonCanonical;
    };
    const std::vector<Case> cases{
        {{0x00}, 0, 0},
        {{0x7F}, 127, 0},
        {{0x81, 0x00}, 0, 1},
        {{0x81, 0x7F}, 127, 1},
        {{0x81, 0x80}, 128, 0},
        {{0x82, 0x00, 0x80}, 128, 1},
        {{0x82, 0x01, 0x00}, 256, 0},
        {{0x83, 0x00, 0xFF, 0xFF}, 0xFFFF, 1},
        {{0x83, 0x01, 0x00, 0x00}, 0x10000, 0},
        {{0x84, 0x00, 0x00, 0x00, 0x01}, 1, 1},
        {{0x84, 0x80, 0x00, 0x00, 0x00}, 0x80000000, 0},
        {{0x84, 0xFF, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFF, 0},
    };
    for (const Case& one : cases) {
        const Bytes whole = join({{0x04}, one.lengthOctets});
        const Decoding decoding = decode(join({whole, {0xAA}}));
        ASSERT_EQ(decoding.result, DerResult::ITEM);
        EXPECT_EQ(decoding.item.length, one.length);
        EXPECT_EQ(decoding.item.nonCanonical, one.nonCanonical);
        EXPECT_FALSE(decoding.item.indefinite);
        EXPECT_EQ(headerOf(decoding.item), whole);
    }
}

TEST(DerHeader, KnowsTheIndefiniteLength)
{
    const Decoding decoding = decode({0x30, 0x80, 0x00, 0x00});
    ASSERT_EQ(decoding.result, DerResult::ITEM);
    EXPECT_TRUE(decoding.item.indefinite);
    EXPECT_EQ(decoding.item.length, 0);
    EXPECT_EQ(decoding.item.nonCanonical, 0);
    EXPECT_EQ(headerOf(decoding.item), (Bytes{0x30, 0x80}));
}

TEST(DerHeader, RefusesMoreThanFourLengthOctets)
{
    for (unsigned count = 5; count < 0x80; ++count) {
        const auto octet = static_cast<std::uint8_t>(0x80 | count);
        const Decoding decoding = decode(join({{0x30, octet}, Bytes(count)}));
        EXPECT_EQ(decoding.result, DerResult::BAD_LENGTH);
        EXPECT_EQ(headerOf(decoding.item), (Bytes{0x30, octet}));
    }
}

TEST(DerHeader, EndsWhereTheEncodingEnds)
{
    struct Case {
        Bytes encoding;
        int octetsRead;
    };
    const std::vector<Case> cases{
        {{}, 1},                 // nothing there: the octet read counts nevertheless
        {{0x30}, 1},             // the identifier is the last octet
        {{0x30, 0x00}, 2},       // so is the length
        {{0x30, 0x85}, 2},       // and then its value does not matter
        {{0x30, 0x81}, 2},       // no length octet follows
        {{0x30, 0x82, 0x01}, 3}, // one of two is missing
        {{0x30, 0x84, 0, 0, 0}, 5},
        {{0x3F, 0x81}, 4}, // a tag number is read on past the end
    };
    for (const Case& one : cases) {
        const Decoding decoding = decode(one.encoding);
        EXPECT_EQ(decoding.result, DerResult::ENDED);
        EXPECT_EQ(decoding.item.headerSize, one.octetsRead);
    }
}

TEST(DerHeader, IsCompleteWithItsLastLengthOctetAtTheEnd)
{
    const Decoding decoding = decode({0x02, 0x81, 0x05});
    EXPECT_EQ(decoding.result, DerResult::ITEM);
    EXPECT_EQ(decoding.item.length, 5);
}

TEST(DerHeader, EndsAtTheLengthToldNotAtTheBuffersEnd)
{
    const Bytes buffer{0x02, 0x82, 0x00, 0x05, 0x00};
    DerItem item;
    EXPECT_EQ(velt::decodeHeader({buffer, 1}, 0, item), DerResult::ENDED);
    EXPECT_EQ(velt::decodeHeader({buffer, 2}, 0, item), DerResult::ENDED);
    EXPECT_EQ(velt::decodeHeader({buffer, 3}, 0, item), DerResult::ENDED);
    EXPECT_EQ(velt::decodeHeader({buffer, 4}, 0, item), DerResult::ITEM);
}

TEST(DerHeader, EndsAtTheBuffersEndWhenTheLengthToldIsLonger)
{
    const GuardedBytes guarded(Bytes{0x02, 0x82, 0x00});
    DerItem item;
    EXPECT_EQ(velt::decodeHeader({guarded.view(), 100}, 0, item), DerResult::ENDED);
    EXPECT_EQ(velt::decodeHeader({guarded.view(), 100}, 50, item), DerResult::ENDED);
}

TEST(DerInput, CutsContentsAtTheBuffersEnd)
{
    const GuardedBytes guarded(filler(10));
    const DerInput input{guarded.view(), 4};
    const auto content = [&](std::uint64_t position, std::int64_t count) {
        const auto view = input.content(position, count);
        return Bytes(view.begin(), view.end());
    };
    EXPECT_EQ(content(2, 3), slot(std::array<std::uint8_t, 3>{'C', 'D', 'E'}, 0, 3));
    EXPECT_EQ(content(8, 2), (Bytes{'I', 'J'}));
    EXPECT_EQ(content(8, 0xFFFFFFFF), (Bytes{'I', 'J'}));
    EXPECT_EQ(content(9, 2), (Bytes{'J'}));
    EXPECT_EQ(content(10, 1), Bytes{});
    EXPECT_EQ(content(0x1FFFFFFFF, 1), Bytes{});
    EXPECT_EQ(content(2, 0), Bytes{});
    EXPECT_EQ(input.octet(9), 'J');
    EXPECT_EQ(input.octet(10), 0);
}

} // namespace
