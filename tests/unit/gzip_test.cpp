// The stored form of certificates: gzip members of any size, and what is none.
#include "src/certdata/gzip.h"

#include <numeric>
#include <random>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/support/certificates.h"
#include "tests/support/messages.h"

namespace {

using namespace velt_test;

constexpr std::uint8_t SENTINEL = 0xC7;
constexpr std::size_t MARGIN = 64;
constexpr const char* NO_ROOM =
    "Z_BUF_ERROR Ran out of output buffer for writing compressed bytes.";
constexpr const char* BAD_DATA = "Z_DATA_ERROR The deflate data was invalid or incomplete.";
constexpr const char* BAD_STREAM =
    "Z_STREAM_ERROR The stream state was inconsistent (e.g., next_in or next_out was NULL).";

struct Conversion {
    std::int32_t result;
    std::uint64_t length; // as left by the conversion
    Bytes output;         // up to `length`
};

// Room of `capacity` bytes; fails when anything behind it changes.
class Room {
public:
    explicit Room(std::size_t capacity) : capacity_(capacity), bytes_(capacity + MARGIN, SENTINEL)
    {
    }
    std::uint8_t* data() { return bytes_.data(); }
    Bytes front(std::size_t length) const
    {
        EXPECT_EQ(Bytes(bytes_.begin() + static_cast<std::ptrdiff_t>(capacity_), bytes_.end()),
                  Bytes(MARGIN, SENTINEL));
        EXPECT_LE(length, capacity_);
        return {bytes_.begin(),
                bytes_.begin() + static_cast<std::ptrdiff_t>(std::min(length, capacity_))};
    }

private:
    std::size_t capacity_;
    Bytes bytes_;
};

Conversion expand(const Bytes& stored, std::size_t capacity)
{
    Room room(capacity);
    std::uint64_t length = capacity;
    const std::int32_t result =
        ungzip(stored.data(), static_cast<std::uint32_t>(stored.size()), room.data(), &length);
    return {result, length, room.front(length)};
}

Conversion compress(const Bytes& plain, std::size_t capacity)
{
    Room room(capacity);
    auto length = static_cast<std::uint32_t>(capacity);
    const std::int32_t result =
        gzip(plain.data(), static_cast<std::uint32_t>(plain.size()), room.data(), &length);
    return {result, length, room.front(length)};
}

Bytes compressed(const Bytes& plain)
{
    const Conversion conversion = compress(plain, plain.size() + 1000);
    EXPECT_EQ(conversion.result, Z_STREAM_END);
    return conversion.output;
}

Bytes noise(std::size_t count)
{
    std::mt19937 random(20260711);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

Bytes certificate()
{
    CertificateSpec spec;
    spec.issuer = FULL_ISSUER;
    spec.subject = FULL_SUBJECT;
    return makeCertificate(spec).der;
}

// A member or stream that zlib itself makes with other window bits.
Bytes deflated(const Bytes& plain, int windowBits)
{
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, windowBits, 9, Z_DEFAULT_STRATEGY), Z_OK);
    Bytes input = plain;
    Bytes output(plain.size() + 100);
    stream.next_in = input.data();
    stream.avail_in = static_cast<unsigned>(input.size());
    stream.next_out = output.data();
    stream.avail_out = static_cast<unsigned>(output.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    output.resize(stream.total_out);
    deflateEnd(&stream);
    return output;
}

TEST(Compression, BringsACertificateBack)
{
    const Bytes plain = certificate();
    const MessageMark mark;
    const Conversion stored = compress(plain, 4096);
    ASSERT_EQ(stored.result, 1);
    const Conversion back = expand(stored.output, 4096);
    EXPECT_EQ(back.result, 1);
    EXPECT_EQ(back.length, plain.size());
    EXPECT_EQ(back.output, plain);
    EXPECT_MESSAGES(mark);
}

TEST(Compression, WritesAGzipMemberWithItsTrailer)
{
    const Bytes plain = certificate();
    const Bytes stored = compressed(plain);
    // Magic, deflate, no flags, no time, no extra flags, Unix.
    EXPECT_EQ(Bytes(stored.begin(), stored.begin() + 10),
              (Bytes{0x1F, 0x8B, 0x08, 0, 0, 0, 0, 0, 0, 0x03}));
    const uLong sum = crc32(0, plain.data(), static_cast<unsigned>(plain.size()));
    Bytes trailer;
    for (const std::uint64_t number : {std::uint64_t{sum}, std::uint64_t{plain.size()}}) {
        for (unsigned shift = 0; shift < 32; shift += 8) {
            trailer.push_back(static_cast<std::uint8_t>((number >> shift) & 0xFF));
        }
    }
    EXPECT_EQ(Bytes(stored.end() - 8, stored.end()), trailer);
}

TEST(Compression, OfNothingIsACompleteMemberOf20Bytes)
{
    const MessageMark mark;
    const Conversion stored = compress({}, 100);
    EXPECT_EQ(stored.result, 1);
    EXPECT_EQ(stored.length, 20U);
    EXPECT_EQ(stored.output,
              (Bytes{0x1F, 0x8B, 0x08, 0, 0, 0, 0, 0, 0, 0x03, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    const Conversion back = expand(stored.output, 100);
    EXPECT_EQ(back.result, 1);
    EXPECT_EQ(back.length, 0U);
    EXPECT_MESSAGES(mark);
}

TEST(Compression, BringsEveryLengthBack)
{
    const Bytes pattern = noise(4200);
    for (std::size_t length = 0; length <= pattern.size(); length += 1 + length / 16) {
        const Bytes plain(pattern.begin(), pattern.begin() + static_cast<std::ptrdiff_t>(length));
        const Conversion back = expand(compressed(plain), length + 1);
        ASSERT_EQ(back.result, 1) << length;
        ASSERT_EQ(back.output, plain);
    }
}

TEST(Compression, NeedsRoomForEveryByteOfTheMember)
{
    const Bytes plain = certificate();
    const Bytes stored = compressed(plain);
    const MessageMark full;
    const Conversion exact = compress(plain, stored.size());
    EXPECT_EQ(exact.result, 1);
    EXPECT_EQ(exact.output, stored);
    EXPECT_MESSAGES(full);
    for (std::size_t room = 0; room < stored.size(); ++room) {
        const MessageMark mark;
        const Conversion cut = compress(plain, room);
        if (room == 0) {
            EXPECT_EQ(cut.result, Z_BUF_ERROR);
            EXPECT_MESSAGES(mark, NO_ROOM);
        } else {
            EXPECT_EQ(cut.result, Z_OK) << room;
            EXPECT_MESSAGES(mark, numbered("Unknown error code: ", 0));
        }
        EXPECT_EQ(cut.length, room);
        EXPECT_EQ(cut.output,
                  Bytes(stored.begin(), stored.begin() + static_cast<std::ptrdiff_t>(room)));
    }
}

TEST(Expansion, FillsItsRoomToTheLastByte)
{
    const Bytes plain = noise(4096);
    const Conversion exact = expand(compressed(plain), plain.size());
    EXPECT_EQ(exact.result, 1);
    EXPECT_EQ(exact.length, 4096U);
    EXPECT_EQ(exact.output, plain);
}

TEST(Expansion, BeyondItsRoomKeepsWhatFits)
{
    for (const Bytes& plain : {noise(5000), Bytes(5000, 0x30), certificate()}) {
        const Bytes stored = compressed(plain);
        for (std::size_t room = 1; room < plain.size(); room += 1 + plain.size() / 40) {
            const MessageMark mark;
            const Conversion cut = expand(stored, room);
            EXPECT_EQ(cut.result, Z_BUF_ERROR) << room;
            EXPECT_EQ(cut.length, room);
            EXPECT_EQ(cut.output,
                      Bytes(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(room)));
            EXPECT_MESSAGES(mark, NO_ROOM);
        }
    }
}

TEST(Expansion, IntoNoRoomGivesNothing)
{
    const MessageMark mark;
    const Conversion cut = expand(compressed(certificate()), 0);
    EXPECT_EQ(cut.result, Z_BUF_ERROR);
    EXPECT_EQ(cut.length, 0U);
    EXPECT_MESSAGES(mark, NO_ROOM);
}

TEST(Expansion, TakesItsRoomFromTheLow32BitsAndWritesAll64)
{
    const Bytes plain = noise(50);
    const Bytes stored = compressed(plain);
    Room room(50);
    std::uint64_t length = 0xDEADBEEF00000032;
    EXPECT_EQ(
        ungzip(stored.data(), static_cast<std::uint32_t>(stored.size()), room.data(), &length), 1);
    EXPECT_EQ(length, 50U);
    EXPECT_EQ(room.front(50), plain);
    length = 0xFFFFFFFF00000010;
    EXPECT_EQ(
        ungzip(stored.data(), static_cast<std::uint32_t>(stored.size()), room.data(), &length),
        Z_BUF_ERROR);
    EXPECT_EQ(length, 16U);
}

TEST(Expansion, OfATruncatedMemberTellsHowMuchCame)
{
    const Bytes plain = certificate();
    const Bytes stored = compressed(plain);
    for (std::size_t length = 0; length < stored.size(); ++length) {
        const MessageMark mark;
        const Bytes prefix(stored.begin(), stored.begin() + static_cast<std::ptrdiff_t>(length));
        const Conversion cut = expand(prefix, 4096);
        EXPECT_EQ(cut.result, Z_BUF_ERROR) << length;
        EXPECT_EQ(cut.output,
                  Bytes(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(cut.length)));
        if (length + 8 >= stored.size()) {
            EXPECT_EQ(cut.length, plain.size()); // only the trailer is cut
        }
        EXPECT_MESSAGES(mark, NO_ROOM);
    }
}

TEST(Expansion, RefusesWhatIsNoGzipMember)
{
    const Bytes plain = certificate();
    for (const Bytes& other :
         {plain, deflated(plain, 15), deflated(plain, -15), Bytes(40, 0), Bytes(40, 0xFF)}) {
        const MessageMark mark;
        const Conversion refused = expand(other, 4096);
        EXPECT_EQ(refused.result, Z_DATA_ERROR);
        EXPECT_EQ(refused.length, 0U);
        EXPECT_MESSAGES(mark, BAD_DATA);
    }
}

TEST(Expansion, TakesMembersThatOthersMade)
{
    const Bytes plain = certificate();
    for (const int windowBits : {16 + 9, 16 + 12, 16 + 15}) {
        const Conversion back = expand(deflated(plain, windowBits), 4096);
        EXPECT_EQ(back.result, 1);
        EXPECT_EQ(back.output, plain);
    }
}

TEST(Expansion, StopsAtTheMembersEnd)
{
    const Bytes plain = certificate();
    Bytes stored = compressed(plain);
    stored.insert(stored.end(), 500, 0xFF);
    const Conversion back = expand(stored, 4096);
    EXPECT_EQ(back.result, 1);
    EXPECT_EQ(back.output, plain);
}

TEST(Expansion, RefusesAMemberWhoseTrailerDisagrees)
{
    const Bytes plain = certificate();
    const Bytes good = compressed(plain);
    for (std::size_t i = 1; i <= 8; ++i) {
        Bytes stored = good;
        stored[stored.size() - i] = static_cast<std::uint8_t>(stored[stored.size() - i] ^ 0x01);
        const MessageMark mark;
        const Conversion refused = expand(stored, 4096);
        EXPECT_EQ(refused.result, Z_DATA_ERROR) << i;
        EXPECT_EQ(refused.output, plain);
        EXPECT_MESSAGES(mark, BAD_DATA);
    }
}

TEST(Expansion, OfDamagedMembersNeverLeavesItsRoom)
{
    const Bytes good = compressed(certificate());
    std::mt19937 random(7);
    for (int i = 0; i < 2000; ++i) {
        Bytes stored = good;
        for (std::uint32_t changes = 1 + random() % 4; changes > 0; --changes) {
            stored[random() % stored.size()] = static_cast<std::uint8_t>(random());
        }
        const Conversion back = expand(stored, 1 + random() % 2000);
        EXPECT_TRUE(back.result == Z_STREAM_END || back.result == Z_DATA_ERROR ||
                    back.result == Z_BUF_ERROR)
            << back.result;
    }
}

TEST(Compression, RefusesAbsentBuffers)
{
    const Bytes plain = certificate();
    const MessageMark mark;
    std::uint32_t room = 100;
    EXPECT_EQ(gzip(plain.data(), static_cast<std::uint32_t>(plain.size()), nullptr, &room),
              Z_STREAM_ERROR);
    EXPECT_EQ(room, 0U);
    std::array<std::uint8_t, 100> output{};
    room = 100;
    EXPECT_EQ(gzip(nullptr, 10, output.data(), &room), Z_STREAM_ERROR);
    std::uint64_t length = 100;
    EXPECT_EQ(ungzip(nullptr, 10, output.data(), &length), Z_STREAM_ERROR);
    EXPECT_EQ(length, 0U);
    EXPECT_MESSAGES(mark, BAD_STREAM, BAD_STREAM, BAD_STREAM);
}

} // namespace
