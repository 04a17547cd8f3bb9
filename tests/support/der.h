// DER written by hand: items, names and the input of the certificate walker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "src/certdata/der_walker.h"

namespace velt_test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes join(const std::vector<Bytes>& parts)
{
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

inline Bytes text(std::string_view characters)
{
    return {characters.begin(), characters.end()};
}

// `count` characters that differ from their neighbours.
inline Bytes filler(std::size_t count)
{
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<std::uint8_t>('A' + i % 57);
    }
    return bytes;
}

// Identifier octet and the shortest length octets.
inline Bytes header(std::uint8_t identifier, std::size_t length)
{
    if (length < 0x80) {
        return {identifier, static_cast<std::uint8_t>(length)};
    }
    if (length < 0x100) {
        return {identifier, 0x81, static_cast<std::uint8_t>(length)};
    }
    return {identifier, 0x82, static_cast<std::uint8_t>(length >> 8),
            static_cast<std::uint8_t>(length & 0xFF)};
}

inline Bytes item(std::uint8_t identifier, const Bytes& content)
{
    return join({header(identifier, content.size()), content});
}

inline Bytes sequence(const std::vector<Bytes>& parts)
{
    return item(0x30, join(parts));
}

inline Bytes times(std::size_t count, const Bytes& part)
{
    Bytes whole;
    for (std::size_t i = 0; i < count; ++i) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

// OBJECT IDENTIFIER contents.
const Bytes COMMON_NAME{0x55, 0x04, 0x03};
const Bytes SURNAME{0x55, 0x04, 0x04};
const Bytes SERIAL_NUMBER{0x55, 0x04, 0x05};
const Bytes COUNTRY{0x55, 0x04, 0x06};
const Bytes LOCALITY{0x55, 0x04, 0x07};
const Bytes STATE{0x55, 0x04, 0x08};
const Bytes ORGANISATION{0x55, 0x04, 0x0A};
const Bytes UNIT{0x55, 0x04, 0x0B};
const Bytes GIVEN_NAME{0x55, 0x04, 0x2A};
const Bytes EMAIL{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01};
const Bytes RSA_SHA256{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B};

inline Bytes identifier(const Bytes& content)
{
    return item(0x06, content);
}

// A relative distinguished name of one attribute.
inline Bytes attribute(const Bytes& oid, std::uint8_t stringTag, const Bytes& value)
{
    return item(0x31, sequence({identifier(oid), item(stringTag, value)}));
}

// Version 3 and the serial number 5: brings the walk's counter to 1.
const Bytes VERSION_AND_SERIAL{0x02, 0x01, 0x02, 0x02, 0x01, 0x05};

// Walked at any counter it adds exactly 1 to it: two one-byte INTEGERs, and a NULL to end on.
const Bytes ONE_MORE{0x02, 0x01, 0x00, 0x02, 0x01, 0x00, 0x05, 0x00};

// Adds `count` to a counter of 1 or more; keeps 2.5.4.3 as the last identifier.
inline Bytes countUp(std::size_t count)
{
    return times(count, identifier(COMMON_NAME));
}

constexpr std::size_t CERTIFICATE_BUFFER = 4096;

// Walks as the drivers do: the encoding stands at the front of a zero-filled buffer.
inline std::int32_t walk(const Bytes& encoding)
{
    Bytes buffer(std::max(CERTIFICATE_BUFFER, encoding.size()));
    std::copy(encoding.begin(), encoding.end(), buffer.begin());
    return parseASN1(buffer, encoding.size());
}

// Memory that ends where a page without access begins, so that reading on is a crash.
class GuardedBytes {
public:
    explicit GuardedBytes(const Bytes& bytes)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          readable_((bytes.size() / page_ + 1) * page_)
    {
        base_ = mmap(nullptr, readable_ + page_, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base_ == MAP_FAILED ||
            mprotect(static_cast<std::uint8_t*>(base_) + readable_, page_, PROT_NONE) != 0) {
            throw std::runtime_error("no guarded memory");
        }
        std::uint8_t* const start = static_cast<std::uint8_t*>(base_) + readable_ - bytes.size();
        std::copy(bytes.begin(), bytes.end(), start);
        view_ = {start, bytes.size()};
    }
    ~GuardedBytes() { munmap(base_, readable_ + page_); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    std::span<const std::uint8_t> view() const { return view_; }

private:
    std::size_t page_;
    std::size_t readable_;
    void* base_ = nullptr;
    std::span<const std::uint8_t> view_;
};

// Walks an encoding that fills its buffer to the last byte.
inline std::int32_t walkWithoutSlack(const Bytes& encoding)
{
    const GuardedBytes guarded(encoding);
    return parseASN1(guarded.view(), encoding.size());
}

// The first `length` bytes of a result field.
template <std::size_t Size>
Bytes stored(const std::array<std::uint8_t, Size>& field, std::int32_t length)
{
    return {field.begin(), field.begin() + length};
}

template <std::size_t Size>
Bytes slot(const std::array<std::uint8_t, Size>& field, std::size_t position, std::size_t length)
{
    return {field.begin() + static_cast<std::ptrdiff_t>(position),
            field.begin() + static_cast<std::ptrdiff_t>(position + length)};
}

// `bytes` followed by zeros up to `size`, or cut there.
inline Bytes zeroPadded(Bytes bytes, std::size_t size)
{
    bytes.resize(size);
    return bytes;
}

} // namespace velt_test
