// The stored form of certificates over a zlib that fails: the linker sends the module's calls here
// (--wrap), and from here they go to the library itself.
#include "src/certdata/gzip.h"

#include <limits>
#include <optional>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/support/der.h"
#include "tests/support/messages.h"

extern "C" {
int __real_inflateInit2_(z_streamp stream, int windowBits, const char* version, int size);
int __real_inflate(z_streamp stream, int flush);
int __real_inflateEnd(z_streamp stream);
int __real_deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                         int strategy, const char* version, int size);
int __real_deflate(z_streamp stream, int flush);
int __real_deflateEnd(z_streamp stream);

int __wrap_inflateInit2_(z_streamp stream, int windowBits, const char* version, int size);
int __wrap_inflate(z_streamp stream, int flush);
int __wrap_inflateEnd(z_streamp stream);
int __wrap_deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                         int strategy, const char* version, int size);
int __wrap_deflate(z_streamp stream, int flush);
int __wrap_deflateEnd(z_streamp stream);
}

namespace {

using namespace velt_test;

// What the library is to answer, and what it was asked.
struct Library {
    std::optional<int> startResult; // given instead of starting
    std::optional<int> runResult;   // given after a run, whatever that gave
    std::vector<std::string> calls;
    std::vector<int> parameters; // of the start
    std::string version;
    z_stream stream{}; // as it came to the start
    int flush = -1;
};

Library library;

void noteStart(const char* call, const z_stream& stream, const char* version,
               const std::vector<int>& parameters)
{
    library.calls.emplace_back(call);
    library.stream = stream;
    library.version = version;
    library.parameters = parameters;
}

} // namespace

int __wrap_inflateInit2_(z_streamp stream, int windowBits, const char* version, int size)
{
    noteStart("inflateInit2", *stream, version, {windowBits, size});
    return library.startResult ? *library.startResult
                               : __real_inflateInit2_(stream, windowBits, version, size);
}

int __wrap_inflate(z_streamp stream, int flush)
{
    library.calls.emplace_back("inflate");
    library.flush = flush;
    const int result = __real_inflate(stream, flush);
    return library.runResult.value_or(result);
}

int __wrap_inflateEnd(z_streamp stream)
{
    library.calls.emplace_back("inflateEnd");
    return __real_inflateEnd(stream);
}

int __wrap_deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                         int strategy, const char* version, int size)
{
    noteStart("deflateInit2", *stream, version,
              {level, method, windowBits, memLevel, strategy, size});
    return library.startResult ? *library.startResult
                               : __real_deflateInit2_(stream, level, method, windowBits, memLevel,
                                                      strategy, version, size);
}

int __wrap_deflate(z_streamp stream, int flush)
{
    library.calls.emplace_back("deflate");
    library.flush = flush;
    const int result = __real_deflate(stream, flush);
    return library.runResult.value_or(result);
}

int __wrap_deflateEnd(z_streamp stream)
{
    library.calls.emplace_back("deflateEnd");
    return __real_deflateEnd(stream);
}

namespace {

using Calls = std::vector<std::string>;

const Bytes PLAIN = text("a certificate that is written to a card and read from it");
const Bytes STORED_EMPTY{0x1F, 0x8B, 0x08, 0, 0, 0, 0, 0, 0, 0x03, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0};

// The number that a message shows for a code: sign-extended.
std::uint64_t shown(int code)
{
    return static_cast<std::uint64_t>(std::int64_t{code});
}

struct Failure {
    int code;
    std::string message;
};

const std::string VERSION_MESSAGE =
    "Z_VERSION_ERROR The version of zlib.h and the version of the library linked do not match.";

const std::vector<Failure> START_FAILURES{
    {-4, "Z_MEM_ERROR Insufficient memory."},
    {-2, "Z_STREAM_ERROR Invalid parameter passed in to function."},
    {-6, VERSION_MESSAGE},
    {-1, numbered("GZip Unknown error code: ", shown(-1))},
    {-3, numbered("GZip Unknown error code: ", shown(-3))},
    {-5, numbered("GZip Unknown error code: ", shown(-5))},
    {-7, "GZip Unknown error code: 0xfffffffffffffff9"},
    {1, "GZip Unknown error code: 0x1"},
    {2, "GZip Unknown error code: 0x2"},
    {std::numeric_limits<int>::min(), "GZip Unknown error code: 0xffffffff80000000"},
    {std::numeric_limits<int>::max(), "GZip Unknown error code: 0x7fffffff"},
};

const std::vector<Failure> RUN_FAILURES{
    {-6, VERSION_MESSAGE},
    {-5, "Z_BUF_ERROR Ran out of output buffer for writing compressed bytes."},
    {-4, "Z_MEM_ERROR Memory could not be allocated for processing."},
    {-3, "Z_DATA_ERROR The deflate data was invalid or incomplete."},
    {-2, "Z_STREAM_ERROR The stream state was inconsistent (e.g., next_in or next_out was NULL)."},
    {-1, "Z_ERRNO Error occured while reading file."},
    {0, "Unknown error code: 0x0"},
    {2, "Unknown error code: 0x2"},
    {-7, "Unknown error code: 0xfffffffffffffff9"},
    {-1000, "Unknown error code: 0xfffffffffffffc18"},
    {std::numeric_limits<int>::min(), "Unknown error code: 0xffffffff80000000"},
};

class GzipFault : public ::testing::Test {
protected:
    void SetUp() override { library = {}; }

    std::int32_t compress(std::uint32_t room = 200)
    {
        output_.fill(0xC7);
        length32_ = room;
        return gzip(PLAIN.data(), static_cast<std::uint32_t>(PLAIN.size()), output_.data(),
                    &length32_);
    }

    std::int32_t expand(const Bytes& stored, std::uint64_t room = 200)
    {
        output_.fill(0xC7);
        length64_ = room;
        return ungzip(stored.data(), static_cast<std::uint32_t>(stored.size()), output_.data(),
                      &length64_);
    }

    Bytes compressedPlain()
    {
        EXPECT_EQ(compress(), Z_STREAM_END);
        const Bytes stored(output_.begin(), output_.begin() + length32_);
        library = {};
        return stored;
    }

    Bytes output() const { return {output_.begin(), output_.end()}; }

    std::array<std::uint8_t, 200> output_{};
    std::uint32_t length32_ = 0;
    std::uint64_t length64_ = 0;
};

TEST_F(GzipFault, CompressionThatCannotStartTouchesNothing)
{
    for (const Failure& failure : START_FAILURES) {
        library = {};
        library.startResult = failure.code;
        const MessageMark mark;
        EXPECT_EQ(compress(), failure.code);
        EXPECT_EQ(length32_, 200U);
        EXPECT_EQ(output(), Bytes(200, 0xC7));
        EXPECT_EQ(library.calls, Calls{"deflateInit2"});
        EXPECT_MESSAGES(mark, failure.message);
    }
}

TEST_F(GzipFault, ExpansionThatCannotStartTouchesNothing)
{
    for (const Failure& failure : START_FAILURES) {
        library = {};
        library.startResult = failure.code;
        const MessageMark mark;
        EXPECT_EQ(expand(STORED_EMPTY, 0xABCD000000C8), failure.code);
        EXPECT_EQ(length64_, 0xABCD000000C8U);
        EXPECT_EQ(output(), Bytes(200, 0xC7));
        EXPECT_EQ(library.calls, Calls{"inflateInit2"});
        EXPECT_MESSAGES(mark, failure.message);
    }
}

TEST_F(GzipFault, CompressionThatFailsStillTellsWhatItWroteAndCleansUp)
{
    const Bytes stored = compressedPlain();
    for (const Failure& failure : RUN_FAILURES) {
        library = {};
        library.runResult = failure.code;
        const MessageMark mark;
        EXPECT_EQ(compress(), failure.code);
        EXPECT_EQ(length32_, stored.size());
        EXPECT_EQ(output(), join({stored, Bytes(200 - stored.size(), 0xC7)}));
        EXPECT_EQ(library.calls, (Calls{"deflateInit2", "deflate", "deflateEnd"}));
        EXPECT_MESSAGES(mark, failure.message);
    }
}

TEST_F(GzipFault, ExpansionThatFailsStillTellsWhatItWroteAndCleansUp)
{
    const Bytes stored = compressedPlain();
    for (const Failure& failure : RUN_FAILURES) {
        library = {};
        library.runResult = failure.code;
        const MessageMark mark;
        EXPECT_EQ(expand(stored), failure.code);
        EXPECT_EQ(length64_, PLAIN.size());
        EXPECT_EQ(output(), join({PLAIN, Bytes(200 - PLAIN.size(), 0xC7)}));
        EXPECT_EQ(library.calls, (Calls{"inflateInit2", "inflate", "inflateEnd"}));
        EXPECT_MESSAGES(mark, failure.message);
    }
}

TEST_F(GzipFault, SuccessReportsNothingAndCleansUp)
{
    const MessageMark mark;
    EXPECT_EQ(compress(), Z_STREAM_END);
    EXPECT_EQ(library.calls, (Calls{"deflateInit2", "deflate", "deflateEnd"}));
    const Bytes stored(output_.begin(), output_.begin() + length32_);
    library = {};
    EXPECT_EQ(expand(stored), Z_STREAM_END);
    EXPECT_EQ(library.calls, (Calls{"inflateInit2", "inflate", "inflateEnd"}));
    EXPECT_MESSAGES(mark);
}

TEST_F(GzipFault, CompressionAsksForGzipAtTheDefaultLevel)
{
    EXPECT_EQ(compress(150), Z_STREAM_END);
    EXPECT_EQ(library.parameters,
              (std::vector<int>{-1, 8, 31, 8, 0, static_cast<int>(sizeof(z_stream))}));
    EXPECT_EQ(library.version, ZLIB_VERSION);
    EXPECT_EQ(library.flush, 4);
    EXPECT_EQ(library.stream.next_in, PLAIN.data());
    EXPECT_EQ(library.stream.avail_in, PLAIN.size());
    EXPECT_EQ(library.stream.next_out, output_.data());
    EXPECT_EQ(library.stream.avail_out, 150U);
    EXPECT_EQ(library.stream.total_out, 0U);
    EXPECT_EQ(library.stream.zalloc, nullptr);
    EXPECT_EQ(library.stream.opaque, nullptr);
}

TEST_F(GzipFault, ExpansionAsksForGzipOnly)
{
    EXPECT_EQ(expand(STORED_EMPTY, 0xFFFFFFFF00000096), Z_STREAM_END);
    EXPECT_EQ(library.parameters, (std::vector<int>{31, static_cast<int>(sizeof(z_stream))}));
    EXPECT_EQ(library.version, ZLIB_VERSION);
    EXPECT_EQ(library.flush, 4);
    EXPECT_EQ(library.stream.next_in, STORED_EMPTY.data());
    EXPECT_EQ(library.stream.avail_in, STORED_EMPTY.size());
    EXPECT_EQ(library.stream.next_out, output_.data());
    EXPECT_EQ(library.stream.avail_out, 150U);
    EXPECT_EQ(library.stream.total_out, 0U);
    EXPECT_EQ(library.stream.zalloc, nullptr);
    EXPECT_EQ(library.stream.opaque, nullptr);
}

} // namespace
