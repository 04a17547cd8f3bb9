// Byte helpers that every folder shares; nothing here allocates or fails.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace velt {

using ByteView = std::span<const std::uint8_t>; // bytes to read
using ByteRoom = std::span<std::uint8_t>;       // room to write to

constexpr std::uint8_t lowByte(std::uint64_t number) noexcept
{
    return static_cast<std::uint8_t>(number & 0xFF);
}

// Bits 8 to 15.
constexpr std::uint8_t highByte(std::uint64_t number) noexcept
{
    return static_cast<std::uint8_t>((number >> 8) & 0xFF);
}

constexpr std::size_t bigEndian16(std::uint8_t high, std::uint8_t low) noexcept
{
    return (std::size_t{high} << 8) | low;
}

inline void fill(ByteRoom room, std::uint8_t byte) noexcept
{
    std::ranges::fill(room, byte);
}

// Copies as much of `from` as `to` holds; returns the number of bytes copied. No overlap.
inline std::size_t copyBounded(ByteRoom to, ByteView from) noexcept
{
    const std::size_t count = std::min(to.size(), from.size());
    std::ranges::copy(from.first(count), to.begin());
    return count;
}

// Number of bytes before the first zero byte, or all of them.
inline std::size_t textLength(ByteView text) noexcept
{
    return static_cast<std::size_t>(std::ranges::find(text, std::uint8_t{0}) - text.begin());
}

// Equality as text: up to the first zero byte, over at most `length` bytes, which both must hold.
inline bool equalText(const std::uint8_t* left, const std::uint8_t* right,
                      std::size_t length) noexcept
{
    return std::strncmp(reinterpret_cast<const char*>(left), reinterpret_cast<const char*>(right),
                        length) == 0;
}

// Zeroes bytes that held a secret; not optimised away.
inline void wipe(ByteRoom secret) noexcept
{
    explicit_bzero(secret.data(), secret.size());
}

// `text` padded with blanks to Size bytes, without a terminator.
template <std::size_t Size, std::size_t Length>
consteval std::array<std::uint8_t, Size> padded(const char (&text)[Length])
{
    static_assert(Length - 1 <= Size, "the text is longer than its field");
    std::array<std::uint8_t, Size> field{};
    field.fill(' ');
    for (std::size_t i = 0; i + 1 < Length; ++i) {
        field[i] = static_cast<std::uint8_t>(text[i]);
    }
    return field;
}

} // namespace velt
