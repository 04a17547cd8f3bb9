#include "src/certdata/gzip.h"

#include "src/front/debug.h"

#include <array>
#include <span>

#define ZLIB_CONST
#include <zlib.h>

namespace {

constexpr int GZIP_WINDOW = 15 + 16; // a window of 32 KiB; gzip's wrapper and no other
constexpr int MEMORY_LEVEL = 8;

constexpr const char* VERSION_TEXT =
    "Z_VERSION_ERROR The version of zlib.h and the version of the library linked do not match.";
constexpr const char* STREAM_TEXT =
    "Z_STREAM_ERROR The stream state was inconsistent (e.g., next_in or next_out was NULL).";

struct CodeText {
    std::int32_t code;
    const char* text;
};

constexpr std::array<CodeText, 3> START_TEXTS{{
    {Z_MEM_ERROR, "Z_MEM_ERROR Insufficient memory."},
    {Z_STREAM_ERROR, "Z_STREAM_ERROR Invalid parameter passed in to function."},
    {Z_VERSION_ERROR, VERSION_TEXT},
}};
constexpr const char* START_UNKNOWN = "GZip Unknown error code: ";

// Kept: Z_BUF_ERROR speaks of compressed bytes when expanding, too.
constexpr std::array<CodeText, 6> RUN_TEXTS{{
    {Z_VERSION_ERROR, VERSION_TEXT},
    {Z_BUF_ERROR, "Z_BUF_ERROR Ran out of output buffer for writing compressed bytes."},
    {Z_MEM_ERROR, "Z_MEM_ERROR Memory could not be allocated for processing."},
    {Z_DATA_ERROR, "Z_DATA_ERROR The deflate data was invalid or incomplete."},
    {Z_STREAM_ERROR, STREAM_TEXT},
    {Z_ERRNO, "Z_ERRNO Error occured while reading file."},
}};
constexpr const char* RUN_UNKNOWN = "Unknown error code: ";

std::int32_t reportCode(std::span<const CodeText> texts, const char* unknown, std::int32_t code)
{
    for (const CodeText& entry : texts) {
        if (entry.code == code) {
            return velt::report(entry.text, code);
        }
    }
    return velt::report(unknown, static_cast<std::uint64_t>(std::int64_t{code}), code);
}

z_stream makeStream(const std::uint8_t* in, std::uint32_t inLen, std::uint8_t* out,
                    std::uint32_t room)
{
    z_stream stream{};
    stream.next_in = in;
    stream.avail_in = inLen;
    stream.next_out = out;
    stream.avail_out = room;
    return stream;
}

} // namespace

std::int32_t ungzip(const std::uint8_t* in, std::uint32_t inLen, std::uint8_t* out,
                    std::uint64_t* outLen) noexcept
{
    z_stream stream = makeStream(in, inLen, out, static_cast<std::uint32_t>(*outLen));
    std::int32_t result = inflateInit2(&stream, GZIP_WINDOW);
    if (result != Z_OK) {
        return reportCode(START_TEXTS, START_UNKNOWN, result);
    }
    result = inflate(&stream, Z_FINISH);
    *outLen = stream.total_out;
    if (result != Z_STREAM_END) {
        reportCode(RUN_TEXTS, RUN_UNKNOWN, result);
    }
    inflateEnd(&stream);
    return result;
}

std::int32_t gzip(const std::uint8_t* in, std::uint32_t inLen, std::uint8_t* out,
                  std::uint32_t* outLen) noexcept
{
    z_stream stream = makeStream(in, inLen, out, *outLen);
    std::int32_t result = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, GZIP_WINDOW,
                                       MEMORY_LEVEL, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) {
        return reportCode(START_TEXTS, START_UNKNOWN, result);
    }
    result = deflate(&stream, Z_FINISH);
    if (result != Z_STREAM_END) {
        reportCode(RUN_TEXTS, RUN_UNKNOWN, result);
    }
    *outLen = static_cast<std::uint32_t>(stream.total_out);
    deflateEnd(&stream);
    return result;
}
