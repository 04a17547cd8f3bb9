// What is the eToken 72K's own of its applet, which moves at most 32 bytes of data a command.
#pragma once

#include "src/tokens/applet/applet.h"

#include <cstddef>
#include <cstdint>

namespace velt {

// Functions (P1) and capacities that the JaCarta has no counterpart of, or another.
inline constexpr std::uint8_t ET_GET_SERIAL = 0x10;
inline constexpr std::uint8_t ET_GET_GOST_KEY_REST = 0x24;
inline constexpr std::uint8_t ET_GET_RSA_KEY = 0x47; // P2: its size, or a piece of it
inline constexpr std::uint8_t ET_RSA_KEY_SIZE = 0x00;
inline constexpr std::uint8_t ET_RSA_KEY_PIECE = 0x01;
inline constexpr std::uint8_t ET_START_CERTIFICATE = 0x40; // its size, then pieces of it
inline constexpr std::uint8_t ET_READ_CERTIFICATE = 0x41;
inline constexpr std::uint8_t ET_BIND_CERTIFICATE = 0x42;
inline constexpr std::uint8_t ET_SELECT_CERTIFICATE = 0x43;
inline constexpr std::uint8_t ET_READ_SIGNATURE = 0x48;
inline constexpr std::uint8_t ET_PUT_BLOCK = 0x49;
inline constexpr std::uint8_t ET_SIGN_GOST = 0x10;
inline constexpr std::uint8_t ET_GET_GOST_REST = 0x25; // of a signature
inline constexpr std::uint8_t ET_SIGN_RSA = 0x52;
inline constexpr std::uint8_t ET_SIGN_RSA_P2 = 0x77;

inline constexpr std::size_t ET_PIECE = 32;
inline constexpr std::size_t ET_REPLY_NAME = 258;
inline constexpr std::size_t ET_REPLY_SERIAL = 23;
inline constexpr std::size_t ET_REPLY_KEY_SIZE = 8;
inline constexpr std::size_t ET_REPLY_PIECE = ET_PIECE + STATUS_SIZE;

extern const Applet ET72K_APPLET;

} // namespace velt
