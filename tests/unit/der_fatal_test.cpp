// The three kinds of malformed data that end the process.
#include "src/certdata/der_item.h"
#include "src/certdata/der_walker.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "src/front/lock.h"
#include "tests/support/der.h"

namespace {

using namespace velt_test;
using ::testing::ExitedWithCode;
using ::testing::StrEq;
using velt::DerItem;

// Joins the child's standard output with its standard error, so that the order shows.
void joinOutputs()
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOFBF, 4096);
    std::printf("unwritten output of the host");
}

void takeLockAtExit()
{
    Lock(); // would wait for ever for a lock that was not freed
    std::fprintf(stderr, "the lock was free");
}

DerItem negativeItem()
{
    DerItem item{};
    item.id = 0x20;
    item.tag = velt::DER_SEQUENCE;
    item.length = -2;
    item.header = {0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFE};
    item.headerSize = 6;
    return item;
}

TEST(DerFatalDeathTest, ANegativeLengthIsShownWithItsHeader)
{
    EXPECT_EXIT(velt::endOnNegativeLength(negativeItem()), ExitedWithCode(1),
                StrEq("\nError: Object has bad length field, tag = 10, length = "
                      "FFFFFFFFFFFFFFFE, value =<30 84 FF FF FF FE>.\n"));
}

TEST(DerFatalDeathTest, TagsOfOneDigitAreShownWithTwo)
{
    DerItem item = negativeItem();
    item.tag = velt::DER_INTEGER;
    item.header = {0x02};
    item.headerSize = 1;
    EXPECT_EXIT(velt::endOnNegativeLength(item), ExitedWithCode(1),
                StrEq("\nError: Object has bad length field, tag = 02, length = "
                      "FFFFFFFFFFFFFFFE, value =<02>.\n"));
}

TEST(DerFatalDeathTest, EachEndingWritesPendingOutputFirstAndFreesTheLock)
{
    const auto prepare = [] {
        joinOutputs();
        std::atexit(takeLockAtExit);
        Lock();
    };
    EXPECT_EXIT((prepare(), velt::endOnNegativeLength(negativeItem())), ExitedWithCode(1),
                StrEq("unwritten output of the host\nError: Object has bad length "
                      "field, tag = 10, length = FFFFFFFFFFFFFFFE, value =<30 84 FF "
                      "FF FF FE>.\nthe lock was free"));
    EXPECT_EXIT((prepare(), velt::endOnBadHeader(-7, negativeItem())), ExitedWithCode(1),
                StrEq("unwritten output of the host\nError: Invalid data encountered "
                      "at position -7: 30 84 FF FF FF FE.\nthe lock was free"));
    EXPECT_EXIT((prepare(), velt::endOnLongIdentifier(33)), ExitedWithCode(1),
                StrEq("unwritten output of the host\nError: Object identifier length "
                      "33 too large.\nthe lock was free"));
}

std::string badHeader(int position, const std::string& octets)
{
    return "\nError: Invalid data encountered at position " + std::to_string(position) + ":" +
           octets + ".\n";
}

std::string longIdentifier(std::size_t length)
{
    return "\nError: Object identifier length " + std::to_string(length) + " too large.\n";
}

// Walks with the position counter at a known start; it counts on from walk to walk.
void walkFrom(std::int32_t position, const Bytes& encoding)
{
    fPos = position;
    walk(encoding);
}

TEST(DerFatalDeathTest, MoreThanFourLengthOctetsEndTheProcess)
{
    for (unsigned count = 5; count < 0x80; count += 7) {
        const auto octet = static_cast<std::uint8_t>(0x80 | count);
        std::array<char, 8> shown{};
        std::snprintf(shown.data(), shown.size(), " 30 %02X", octet);
        EXPECT_EXIT(walkFrom(0, join({{0x30, octet}, Bytes(10)})), ExitedWithCode(1),
                    StrEq(badHeader(2, shown.data())));
    }
}

TEST(DerFatalDeathTest, AllOctetsOfTheHeaderAreShown)
{
    EXPECT_EXIT(walkFrom(0, {0x1F, 0x81, 0x02, 0x85, 0x00, 0x00}), ExitedWithCode(1),
                StrEq(badHeader(4, " 1F 81 02 85")));
}

TEST(DerFatalDeathTest, ThePositionCountsEveryOctetReadOrSkipped)
{
    const Bytes bad{0x0C, 0xFF, 0x00};
    EXPECT_EXIT(walkFrom(0, join({item(0x04, filler(100)), bad})), ExitedWithCode(1),
                StrEq(badHeader(104, " 0C FF")));
    EXPECT_EXIT(walkFrom(0, join({item(0x02, {0x05}), identifier(EMAIL), item(0x17, filler(13)),
                                  item(0x03, filler(9)), bad})),
                ExitedWithCode(1), StrEq(badHeader(3 + 11 + 15 + 11 + 2, " 0C FF")));
    // A content that was looked into for an item does not count twice.
    EXPECT_EXIT(walkFrom(0, join({item(0x04, item(0x04, item(0x05, {}))), bad})), ExitedWithCode(1),
                StrEq(badHeader(6 + 2, " 0C FF")));
    EXPECT_EXIT(walkFrom(0, join({item(0x04, {0x30, 0x80, 0x05, 0x00, 0x7F, 0x05}), bad})),
                ExitedWithCode(1), StrEq(badHeader(8 + 2, " 0C FF")));
}

TEST(DerFatalDeathTest, ThePositionCountsOnFromWalkToWalk)
{
    EXPECT_EXIT((walkFrom(1000, item(0x04, filler(50))), walk({0x30, 0x85, 0x00})),
                ExitedWithCode(1), StrEq(badHeader(1000 + 52 + 2, " 30 85")));
    // The walk that ends inside a header has counted the octets that it read.
    EXPECT_EXIT((walkFrom(0, {0x30, 0x82, 0x01}), walk({0x30, 0x85, 0x00})), ExitedWithCode(1),
                StrEq(badHeader(3 + 2, " 30 85")));
    EXPECT_EXIT((walkFrom(0, {0x1F, 0x80, 0x80, 0x80, 0x80, 0x00}), walk({0x30, 0x85, 0x00})),
                ExitedWithCode(1), StrEq(badHeader(5 + 2, " 30 85")));
    EXPECT_EXIT((walkFrom(0, {}), walk({0x30, 0x85, 0x00})), ExitedWithCode(1),
                StrEq(badHeader(2, " 30 85")));
}

TEST(DerFatalDeathTest, AnObjectIdentifierOf33BytesEndsTheProcess)
{
    EXPECT_EXIT(walk(join({identifier(filler(33)), {0x05, 0x00}})), ExitedWithCode(1),
                StrEq(longIdentifier(33)));
    EXPECT_EXIT(walk(join({identifier(filler(200)), {0x05, 0x00}})), ExitedWithCode(1),
                StrEq(longIdentifier(200)));
    EXPECT_EXIT(walk({0x06, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}), ExitedWithCode(1),
                StrEq(longIdentifier(0xFFFFFFFF)));
}

TEST(DerFatalDeathTest, ItemsInsideOthersEndTheProcessToo)
{
    EXPECT_EXIT(walk(sequence({sequence({identifier(filler(33))})})), ExitedWithCode(1),
                StrEq(longIdentifier(33)));
    EXPECT_EXIT(walk(item(0x04, identifier(filler(33)))), ExitedWithCode(1),
                StrEq(longIdentifier(33)));
    EXPECT_EXIT(walk(item(0x03, join({{0x00}, sequence({identifier(filler(33))})}))),
                ExitedWithCode(1), StrEq(longIdentifier(33)));
}

TEST(DerFatalDeathTest, AFatalWalkFreesTheLock)
{
    const auto walkLocked = [](const Bytes& encoding) {
        joinOutputs();
        std::atexit(takeLockAtExit);
        Lock();
        walkFrom(0, encoding);
    };
    EXPECT_EXIT(walkLocked(identifier(filler(33))), ExitedWithCode(1),
                StrEq("unwritten output of the host" + longIdentifier(33) + "the lock was free"));
    EXPECT_EXIT(
        walkLocked({0x30, 0x88, 0x00}), ExitedWithCode(1),
        StrEq("unwritten output of the host" + badHeader(2, " 30 88") + "the lock was free"));
}

TEST(DerFatal, WhatIsNearlyMalformedIsWalked)
{
    EXPECT_EQ(walk(join({identifier(filler(32)), {0x05, 0x00}})), 0);
    EXPECT_EQ(walk({0x30, 0x84, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00}), 0);
    EXPECT_EQ(walk({0x30, 0x85}), 0);                                   // the encoding ends first
    EXPECT_EQ(walk(join({item(0x86, filler(33)), {0x05, 0x00}})), 0);   // no OBJECT IDENTIFIER
    EXPECT_EQ(walk(join({item(0x04, {0x30, 0x85}), {0x05, 0x00}})), 0); // only looked at
}

} // namespace
