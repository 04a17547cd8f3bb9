// Nesting: no encoding decides how much memory a walk takes.
#include "src/certdata/der_walker.h"

#include <functional>
#include <pthread.h>

#include <gtest/gtest.h>

#include "tests/support/der.h"

namespace {

using namespace velt_test;

constexpr std::size_t SMALL_STACK = 64 * 1024;

void* runTask(void* task)
{
    (*static_cast<std::function<void()>*>(task))();
    return nullptr;
}

// Runs `task` on a stack that a function calling itself for each level would overrun.
void onSmallStack(std::function<void()> task)
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, SMALL_STACK), 0);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, runTask, &task), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

// Wraps `content` in items of this identifier as often as the certificate buffer allows.
Bytes wrapped(std::uint8_t identifier, const Bytes& content, std::size_t& levels)
{
    Bytes whole = content;
    levels = 0;
    for (;;) {
        Bytes next = item(identifier, whole);
        if (next.size() > CERTIFICATE_BUFFER) {
            return whole;
        }
        whole = std::move(next);
        ++levels;
    }
}

TEST(DerDepth, DefiniteRunsNestAsDeepAsTheBufferReaches)
{
    for (const std::uint8_t constructed : Bytes{0x30, 0x31, 0xA0, 0x24}) {
        std::size_t levels = 0;
        const Bytes encoding = wrapped(constructed, ONE_MORE, levels);
        ASSERT_GT(levels, 1000U);
        onSmallStack([&] { EXPECT_EQ(walk(encoding), 0); });
        EXPECT_EQ(cIndex, 1);
        EXPECT_EQ(bufIndex, encoding.size());
    }
}

TEST(DerDepth, OctetStringsNestAsDeepAsTheBufferReaches)
{
    std::size_t levels = 0;
    const Bytes encoding = wrapped(0x04, sequence({ONE_MORE}), levels);
    ASSERT_GT(levels, 1000U);
    onSmallStack([&] { EXPECT_EQ(walk(encoding), 0); });
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(bufIndex, encoding.size());
}

TEST(DerDepth, AWalkFindsBackFromAThousandIndefiniteRuns)
{
    constexpr std::size_t LEVELS = 1020;
    const auto closing = [](std::size_t ends) {
        const Bytes encoding = join(
            {times(LEVELS, {0x30, 0x80}), times(ends, {0x00, 0x00}), ONE_MORE, item(0x0C, {0x41})});
        onSmallStack([&] { EXPECT_EQ(walk(encoding), 0); });
        EXPECT_EQ(cIndex, 1);
        return bufIndex - encoding.size();
    };
    EXPECT_EQ(closing(LEVELS), 0U);
    // With one run still open the walk looks for one more identifier.
    EXPECT_EQ(closing(LEVELS - 1), 1U);
}

TEST(DerDepth, AWalkFindsBackFromTwoThousandRunsThatClaimTooMuch)
{
    const Bytes encoding = join({times(2000, {0x30, 0x7F}), ONE_MORE, ONE_MORE});
    onSmallStack([&] { EXPECT_EQ(walk(encoding), 0); });
    EXPECT_EQ(cIndex, 2);
}

TEST(DerDepth, TheDeepestRunsThatABufferCanHoldAreWalked)
{
    for (const std::uint8_t length : Bytes{0x80, 0x7F}) {
        const Bytes encoding = join({times(2047, {0x30, length}), {0x05, 0x00}});
        ASSERT_EQ(encoding.size(), CERTIFICATE_BUFFER);
        onSmallStack([&] { EXPECT_EQ(walk(encoding), 0); });
        EXPECT_EQ(bufIndex, CERTIFICATE_BUFFER); // the octets 05 00 were read too
    }
    const Bytes items = join({times(2044, {0x30, 0x80}), ONE_MORE});
    ASSERT_EQ(items.size(), CERTIFICATE_BUFFER);
    EXPECT_EQ(walk(items), 0);
    EXPECT_EQ(cIndex, 1);
}

TEST(DerDepth, LargerBuffersEndTheWalkInsteadOfTheProcess)
{
    for (const std::uint8_t length : Bytes{0x80, 0x7F}) {
        const Bytes encoding = times(32768, {0x30, length});
        onSmallStack([&] { EXPECT_EQ(walk(encoding), 0); });
        EXPECT_LE(bufIndex, encoding.size());
    }
}

TEST(DerDepth, LargerBuffersAreWalkedToTheirEnd)
{
    const Bytes encoding =
        sequence({times(60, join({item(0x04, filler(1000)), sequence({})})), ONE_MORE});
    EXPECT_EQ(walk(encoding), 0);
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(bufIndex, encoding.size());
}

} // namespace
