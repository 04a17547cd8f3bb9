#include "sim/cards/gzip_member.h"

#include <stdexcept>

#include <zlib.h>

namespace sim {

namespace {

constexpr int GZIP_WINDOW = 15 + 16; // the largest window, with the gzip wrapper
constexpr int MEMORY_LEVEL = 8;

unsigned countOf(std::size_t size)
{
    return static_cast<unsigned>(size);
}

} // namespace

Bytes gzipMember(std::span<const std::uint8_t> plain)
{
    Bytes input(plain.begin(), plain.end());
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, GZIP_WINDOW, MEMORY_LEVEL,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("gzip: no memory");
    }
    Bytes member(deflateBound(&stream, input.size()));
    stream.next_in = input.data();
    stream.avail_in = countOf(input.size());
    stream.next_out = member.data();
    stream.avail_out = countOf(member.size());
    const int result = deflate(&stream, Z_FINISH);
    member.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("gzip: the data could not be compressed");
    }
    return member;
}

Bytes gzipContent(std::span<const std::uint8_t> member, std::size_t limit)
{
    Bytes input(member.begin(), member.end());
    Bytes plain(limit);
    z_stream stream{};
    if (inflateInit2(&stream, GZIP_WINDOW) != Z_OK) {
        throw std::runtime_error("gzip: no memory");
    }
    stream.next_in = input.data();
    stream.avail_in = countOf(input.size());
    stream.next_out = plain.data();
    stream.avail_out = countOf(plain.size());
    const int result = inflate(&stream, Z_FINISH);
    plain.resize(stream.total_out);
    inflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("gzip: not one complete member");
    }
    return plain;
}

} // namespace sim
