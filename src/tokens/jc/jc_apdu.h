// The bytes of the commands that are the JaCarta's own; those of both applets stand in
// applet/applet_apdu.h.
#pragma once

#include "src/tokens/applet/applet_apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

// Identifiers.
inline constexpr std::array<std::uint8_t, 12> JC_AID{0xA0, 0x00, 0x67, 0x61, 0x6D, 0x6D,
                                                     0x61, 0x74, 0x65, 0x63, 0x68, 0x00};

// Parameters: P1, a function of its instruction.
inline constexpr std::uint8_t JC_USER_PIN = 0x21;
inline constexpr std::uint8_t JC_GENERATE_RSA = 0x23;
inline constexpr std::uint8_t JC_DESTROY = 0x23;
inline constexpr std::uint8_t JC_PROBE = 0x24;
inline constexpr std::uint8_t JC_GET_RSA_KEY = 0x25;
inline constexpr std::uint8_t JC_WRITE_CERTIFICATE = 0x27;
inline constexpr std::uint8_t JC_READ_CERTIFICATE = 0x28;
inline constexpr std::uint8_t JC_SIGN_GOST = 0x20;
inline constexpr std::uint8_t JC_SIGN_RSA = 0x23;
inline constexpr std::uint8_t JC_GET_RANDOM = 0x31;
// P2.
inline constexpr std::uint8_t JC_SIGN_RSA_P2 = 0x24;

// Fixed commands but for a number.
constexpr std::array<std::uint8_t, 7> jcGetRandom(std::size_t count) noexcept
{
    return {APPLET_CLA, APPLET_INS_SIGN, JC_GET_RANDOM, 0x00,
            0x02,       highByte(count), lowByte(count)};
}

// Reply capacities, status included.
inline constexpr std::size_t JC_REPLY_NAME = 1026;
inline constexpr std::size_t JC_REPLY_RSA_KEY = 512;
inline constexpr std::size_t JC_REPLY_LONG = 2050;
inline constexpr std::size_t JC_REPLY_GOST = APPLET_GOST_SIZE + STATUS_SIZE;

inline constexpr std::size_t JC_RSA_KEY_HEADER = 3; // before the modulus

} // namespace velt
