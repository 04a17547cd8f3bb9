#include "src/certdata/der_item.h"

#include "src/front/lock.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace velt {

namespace {

constexpr std::uint8_t MORE_BIT = 0x80; // another tag octet follows; a length of several octets
constexpr std::uint8_t LOW_BITS = 0x7F;
constexpr int MAX_TAG_OCTETS = 3;
constexpr std::uint8_t MAX_LENGTH_OCTETS = 4;

std::uint64_t positionAfter(std::uint64_t position, const DerItem& item)
{
    return position + item.headerSize;
}

std::uint8_t take(const DerInput& input, std::uint64_t position, DerItem& item)
{
    const std::uint8_t octet = input.octet(positionAfter(position, item));
    item.header[item.headerSize++] = octet;
    return octet;
}

// Tag numbers from 31 on, in base 128; false when the number goes on after three octets.
bool takeLongTag(const DerInput& input, std::uint64_t position, DerItem& item)
{
    item.tag = 0;
    for (int i = 0; i < MAX_TAG_OCTETS; ++i) {
        const std::uint8_t octet = take(input, position, item);
        item.tag = (item.tag << 7) | (octet & LOW_BITS);
        if ((octet & MORE_BIT) == 0) {
            return true;
        }
    }
    take(input, position, item);
    return false;
}

DerResult takeLongLength(const DerInput& input, std::uint64_t position, DerItem& item,
                         std::uint8_t count)
{
    if (count > MAX_LENGTH_OCTETS) {
        return DerResult::BAD_LENGTH;
    }
    if (count == 0) {
        item.indefinite = true;
        return DerResult::ITEM;
    }
    const auto lengthOffset = static_cast<std::uint8_t>(item.headerSize - 1);
    for (std::uint8_t i = 0; i < count; ++i) {
        if (input.endsAt(positionAfter(position, item))) {
            return DerResult::ENDED;
        }
        item.length = (item.length << 8) | take(input, position, item);
    }
    const bool needless = item.length <= LOW_BITS || (item.length >> (8 * (count - 1))) == 0;
    item.nonCanonical = needless ? lengthOffset : std::uint8_t{0};
    return DerResult::ITEM;
}

unsigned asNumber(std::uint8_t octet)
{
    return octet;
}

[[noreturn]] void endProcess()
{
    // The host's exit handlers may call the module again, and other threads may be waiting for it;
    // whoever meets such data while the process ends, ends it at once.
    static std::atomic_flag ending;
    if (ending.test_and_set()) {
        std::_Exit(EXIT_FAILURE);
    }
    UnLock();
    std::exit(EXIT_FAILURE);
}

} // namespace

ByteView DerInput::content(std::uint64_t position, std::int64_t count) const noexcept
{
    if (position >= buffer.size() || count <= 0) {
        return {};
    }
    const ByteView rest = buffer.subspan(static_cast<std::size_t>(position));
    return rest.first(std::min(rest.size(), static_cast<std::size_t>(count)));
}

DerResult decodeHeader(const DerInput& input, std::uint64_t position, DerItem& item) noexcept
{
    item = {};
    const std::uint8_t identifier = take(input, position, item);
    if (input.endsAt(positionAfter(position, item))) {
        return DerResult::ENDED;
    }
    item.id = static_cast<std::uint8_t>(identifier & ~DER_TAG_BITS);
    item.tag = identifier & DER_TAG_BITS;
    if (item.tag == DER_TAG_BITS && !takeLongTag(input, position, item)) {
        return DerResult::ENDED;
    }
    const std::uint8_t first = take(input, position, item);
    if (input.endsAt(positionAfter(position, item))) {
        return DerResult::ENDED;
    }
    if ((first & MORE_BIT) == 0) {
        item.length = first;
        return DerResult::ITEM;
    }
    return takeLongLength(input, position, item, first & LOW_BITS);
}

void endOnBadHeader(std::int32_t position, const DerItem& item) noexcept
{
    std::fflush(stdout);
    std::fprintf(stderr, "\nError: Invalid data encountered at position %d:", position);
    for (std::size_t i = 0; i < item.headerSize; ++i) {
        std::fprintf(stderr, " %02X", asNumber(item.header[i]));
    }
    std::fprintf(stderr, ".\n");
    endProcess();
}

void endOnNegativeLength(const DerItem& item) noexcept
{
    std::fflush(stdout);
    std::fprintf(stderr, "\nError: Object has bad length field, tag = %02X, length = %lX, value =",
                 static_cast<unsigned>(item.tag), static_cast<unsigned long>(item.length));
    for (std::size_t i = 0; i < item.headerSize; ++i) {
        std::fprintf(stderr, i == 0 ? "<%02X" : " %02X", asNumber(item.header[i]));
    }
    std::fprintf(stderr, ">.\n");
    endProcess();
}

void endOnLongIdentifier(std::int64_t length) noexcept
{
    std::fflush(stdout);
    std::fprintf(stderr, "\nError: Object identifier length %ld too large.\n",
                 static_cast<long>(length));
    endProcess();
}

} // namespace velt
