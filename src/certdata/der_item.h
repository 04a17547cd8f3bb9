// Headers of DER items (X.690), and the malformed data that ends the process.
#pragma once

#include "src/core/bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

inline constexpr std::uint8_t DER_TAG_BITS = 0x1F;
inline constexpr std::uint8_t DER_CONSTRUCTED = 0x20; // alone: universal and constructed
inline constexpr std::uint8_t DER_CONTEXT = 0x80;
inline constexpr std::uint8_t DER_CLASS_BITS = 0xC0;

// Universal tag numbers.
inline constexpr std::int32_t DER_END_OF_CONTENTS = 0;
inline constexpr std::int32_t DER_INTEGER = 2;
inline constexpr std::int32_t DER_BIT_STRING = 3;
inline constexpr std::int32_t DER_OCTET_STRING = 4;
inline constexpr std::int32_t DER_OBJECT_IDENTIFIER = 6;
inline constexpr std::int32_t DER_OBJECT_DESCRIPTOR = 7;
inline constexpr std::int32_t DER_ENUMERATED = 10;
inline constexpr std::int32_t DER_UTF8_STRING = 12;
inline constexpr std::int32_t DER_SEQUENCE = 16;
inline constexpr std::int32_t DER_SET = 17;
inline constexpr std::int32_t DER_NUMERIC_STRING = 18;
inline constexpr std::int32_t DER_PRINTABLE_STRING = 19;
inline constexpr std::int32_t DER_VIDEOTEX_STRING = 21;
inline constexpr std::int32_t DER_IA5_STRING = 22;
inline constexpr std::int32_t DER_UTC_TIME = 23;
inline constexpr std::int32_t DER_GENERALIZED_TIME = 24;
inline constexpr std::int32_t DER_GRAPHIC_STRING = 25;
inline constexpr std::int32_t DER_VISIBLE_STRING = 26;
inline constexpr std::int32_t DER_GENERAL_STRING = 27;
inline constexpr std::int32_t DER_UNIVERSAL_STRING = 28;

struct DerItem {
    std::uint8_t id;                     // identifier octet without its tag number
    std::int32_t tag;                    // tag number
    std::int64_t length;                 // 0 when indefinite
    bool indefinite;                     // ends at an end-of-contents item
    std::uint8_t nonCanonical;           // header offset of a needlessly long length, or 0
    std::array<std::uint8_t, 16> header; // identifier and length octets
    std::uint8_t headerSize;             // octets read into `header`
};

struct DerInput {
    ByteView buffer;      // bounds every read; octets beyond it read as 0
    std::uint64_t length; // the encoding's octets, at which a walk ends

    std::uint8_t octet(std::uint64_t position) const noexcept
    {
        return position < buffer.size() ? buffer[static_cast<std::size_t>(position)]
                                        : std::uint8_t{0};
    }

    bool endsAt(std::uint64_t position) const noexcept
    {
        return position >= length || position >= buffer.size();
    }

    // The octets of a content, cut where the buffer ends.
    ByteView content(std::uint64_t position, std::int64_t count) const noexcept;
};

enum class DerResult {
    ITEM,      // the header is complete
    ENDED,     // the encoding ends inside it, or its tag number is too long
    BAD_LENGTH // more than four length octets
};

// Decodes the header at `position`. In each case `header` holds the octets read.
DerResult decodeHeader(const DerInput& input, std::uint64_t position, DerItem& item) noexcept;

// Each writes its message to standard error, frees the module's lock and ends the process with
// status 1.
[[noreturn]] void endOnBadHeader(std::int32_t position, const DerItem& item) noexcept;
[[noreturn]] void endOnNegativeLength(const DerItem& item) noexcept;
[[noreturn]] void endOnLongIdentifier(std::int64_t length) noexcept;

} // namespace velt
