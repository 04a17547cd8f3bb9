// What is the JaCarta's own of its applet.
#pragma once

#include "src/tokens/applet/applet.h"

#include <cstddef>
#include <cstdint>

namespace velt {

// Functions (P1) and capacities that the eToken 72K has no counterpart of, or another.
inline constexpr std::uint8_t JC_GET_RSA_KEY = 0x25;
inline constexpr std::uint8_t JC_WRITE_CERTIFICATE = 0x27;
inline constexpr std::uint8_t JC_READ_CERTIFICATE = 0x28;
inline constexpr std::uint8_t JC_SIGN_GOST = 0x20;
inline constexpr std::uint8_t JC_SIGN_RSA = 0x23;
inline constexpr std::uint8_t JC_SIGN_RSA_P2 = 0x24;
inline constexpr std::uint8_t JC_GET_RANDOM = 0x31;
inline constexpr std::size_t JC_REPLY_NAME = 1026;
inline constexpr std::size_t JC_REPLY_RSA_KEY = 512;
inline constexpr std::size_t JC_REPLY_LONG = 2050;
inline constexpr std::size_t JC_REPLY_GOST = APPLET_GOST_SIZE + STATUS_SIZE;
inline constexpr std::size_t JC_RSA_KEY_HEADER = 3; // before the modulus

// Kept: the vendor's number sign-extended, unlike the one that the mechanism list has.
inline constexpr CK_MECHANISM_TYPE CKM_JC_GOST_SIGN = 0xFFFFFFFF84B5A002;

extern const Applet JC_APPLET;

} // namespace velt
