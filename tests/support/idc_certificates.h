// Certificates and their stored form for tests of the ID card: DER written by hand, gzip members
// of a chosen length.
#pragma once

#include "sim/cards/scripted_card.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <zlib.h>

namespace velt_test {

using sim::Bytes;

// One DER item with a minimal definite length.
inline Bytes der(std::uint8_t identifier, const Bytes& content)
{
    Bytes item{identifier};
    const std::size_t size = content.size();
    if (size < 0x80) {
        item.push_back(static_cast<std::uint8_t>(size));
    } else if (size < 0x100) {
        item.insert(item.end(), {0x81, static_cast<std::uint8_t>(size)});
    } else {
        item.insert(item.end(), {0x82, static_cast<std::uint8_t>(size >> 8),
                                 static_cast<std::uint8_t>(size & 0xFF)});
    }
    item.insert(item.end(), content.begin(), content.end());
    return item;
}

inline Bytes derText(std::uint8_t identifier, std::string_view characters)
{
    return der(identifier, Bytes(characters.begin(), characters.end()));
}

inline Bytes join(const std::vector<Bytes>& parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// A Name of six attributes of 2.5.4: C, ST, L, O, OU and CN.
inline Bytes sixAttributeName(std::string_view commonName)
{
    Bytes content;
    for (const std::uint8_t attribute : Bytes{0x06, 0x08, 0x07, 0x0A, 0x0B, 0x03}) {
        const std::string_view shown = attribute == 0x06   ? std::string_view("KZ")
                                       : attribute == 0x03 ? commonName
                                                           : std::string_view("Test");
        const Bytes pair = join({der(0x06, {0x55, 0x04, attribute}), derText(0x0C, shown)});
        const Bytes set = der(0x31, der(0x30, pair));
        content.insert(content.end(), set.begin(), set.end());
    }
    return der(0x30, content);
}

// A version 3 certificate without key and signature: what a token's certificate is shown by.
struct Certificate {
    Bytes serial = der(0x02, sim::hex("01 23 45 67 89 AB CD EF"));
    Bytes issuer = sixAttributeName("Test CA");
    std::string notBefore = "250131120000Z";
    std::string notAfter = "290630235959Z";
    Bytes subject = sixAttributeName("Card Holder");

    // With `filler` as the content of an OCTET STRING at the end. One that begins with a zero byte
    // is not taken for encoded data.
    Bytes encode(const Bytes& filler = {}) const
    {
        const Bytes algorithm =
            der(0x30, join({der(0x06, sim::hex("2A 86 48 86 F7 0D 01 01 0B")), der(0x05, {})}));
        const Bytes validity = der(0x30, join({derText(0x17, notBefore), derText(0x17, notAfter)}));
        const Bytes version = der(0xA0, der(0x02, {0x02}));
        return der(0x30, der(0x30, join({version, serial, algorithm, issuer, validity, subject,
                                         der(0x04, filler)})));
    }

    // The encoding with as many zero bytes of filler as make it `size` bytes.
    Bytes encodeTo(std::size_t size) const
    {
        const std::size_t shortest = encode().size() + 8; // longer lengths take a few bytes
        for (std::size_t padding = size < shortest ? 0 : size - shortest; padding <= size;
             ++padding) {
            Bytes encoded = encode(Bytes(padding));
            if (encoded.size() == size) {
                return encoded;
            }
        }
        throw std::logic_error("no filler gives this size");
    }
};

// A gzip member (RFC 1952) as a default compression makes it, or with an extra field of zero bytes
// in its header, which starts at byte 12.
inline Bytes gzipMember(const Bytes& content, std::size_t extraLength = 0)
{
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        throw std::runtime_error("deflateInit2");
    }
    Bytes extra(extraLength);
    gz_header header{};
    header.extra = extra.data();
    header.extra_len = static_cast<uInt>(extraLength);
    if (extraLength != 0) {
        deflateSetHeader(&stream, &header);
    }
    Bytes input = content;
    Bytes member(content.size() + extraLength + 1024);
    stream.next_in = input.data();
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = member.data();
    stream.avail_out = static_cast<uInt>(member.size());
    const int code = deflate(&stream, Z_FINISH);
    member.resize(stream.total_out);
    deflateEnd(&stream);
    if (code != Z_STREAM_END) {
        throw std::runtime_error("deflate");
    }
    return member;
}

// A member of exactly `size` bytes, by the length of its extra field.
inline Bytes gzipMemberOf(const Bytes& content, std::size_t size)
{
    const std::size_t shortest = gzipMember(content).size();
    if (shortest == size) {
        return gzipMember(content);
    }
    if (size < shortest + 3) {
        throw std::logic_error("no extra field gives this size");
    }
    Bytes member = gzipMember(content, size - shortest - 2); // two bytes are its length
    if (member.size() != size) {
        throw std::logic_error("the header has another size");
    }
    return member;
}

} // namespace velt_test
