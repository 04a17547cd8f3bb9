// What the simulated cards answer with: data and the status words of ISO 7816-4.
#pragma once

#include "sim/cards/card.h"

#include <algorithm>
#include <cstddef>

namespace sim {

enum Status : unsigned {
    DONE = 0x9000,
    FILE_ENDS_EARLY = 0x6282,
    WRONG_PIN = 0x63C0, // and the attempts left
    WRONG_LENGTH = 0x6700,
    NO_CHAINING = 0x6884,
    WRONG_KIND_OF_FILE = 0x6981,
    SECURITY_STATUS = 0x6982,
    PIN_BLOCKED = 0x6983,
    CONDITIONS = 0x6985,
    NO_CURRENT_FILE = 0x6986,
    WRONG_DATA = 0x6A80,
    FILE_NOT_FOUND = 0x6A82,
    FILE_FULL = 0x6A84,
    WRONG_PARAMETERS = 0x6A86,
    OBJECT_NOT_FOUND = 0x6A88,
    FILE_EXISTS = 0x6A89,
    DIRECTORY_EXISTS = 0x6A8A,
    WRONG_OFFSET = 0x6B00,
    UNKNOWN_INSTRUCTION = 0x6D00,
    UNKNOWN_CLASS = 0x6E00,
};

inline constexpr std::uint8_t MORE_DATA = 0x61;    // SW1; SW2 is how many bytes
inline constexpr std::uint8_t EXACT_LENGTH = 0x6C; // SW1; SW2 is the length to ask for

inline constexpr std::size_t SHORT_MOST = 256;              // length that a byte of 00 stands for
inline constexpr std::uint8_t SHORT_FILE_IDENTIFIER = 0x80; // P1 names a file, not an offset

constexpr std::uint8_t lowByte(std::size_t value)
{
    return static_cast<std::uint8_t>(value & 0xFFU);
}

inline Bytes with(std::span<const std::uint8_t> data, unsigned value)
{
    Bytes answer(data.begin(), data.end());
    answer.push_back(lowByte(value >> 8));
    answer.push_back(lowByte(value));
    return answer;
}

inline Bytes status(unsigned value)
{
    return with({}, value);
}

inline bool same(std::span<const std::uint8_t> left, std::span<const std::uint8_t> right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

} // namespace sim
