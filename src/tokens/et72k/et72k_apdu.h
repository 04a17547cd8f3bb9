// The bytes of the commands that are the eToken 72K's own; those of both applets stand in
// applet/applet_apdu.h. No command moves more than 32 bytes of data.
#pragma once

#include "src/tokens/applet/applet_apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

// Identifiers.
inline constexpr std::array<std::uint8_t, 10> ET_AID{0x00, 0x00, 0x00, 0x00, 0x00,
                                                     0x00, 0x01, 0x02, 0x03, 0x00};

inline constexpr std::size_t ET_PIECE = 32;

// Parameters: P1, a function of its instruction.
inline constexpr std::uint8_t ET_USER_PIN = 0x20;
inline constexpr std::uint8_t ET_GET_SERIAL = 0x10;
inline constexpr std::uint8_t ET_GENERATE_RSA = 0x26;
inline constexpr std::uint8_t ET_GET_GOST_KEY_REST = 0x24;
inline constexpr std::uint8_t ET_GET_GOST_SIGNATURE_REST = 0x25;
inline constexpr std::uint8_t ET_DESTROY = 0x30;
inline constexpr std::uint8_t ET_PUT_CERTIFICATE = 0x40; // its size, or a piece of it
inline constexpr std::uint8_t ET_READ_CERTIFICATE = 0x41;
inline constexpr std::uint8_t ET_BIND_CERTIFICATE = 0x42;
inline constexpr std::uint8_t ET_SELECT_CERTIFICATE = 0x43;
inline constexpr std::uint8_t ET_PROBE = 0x44;
inline constexpr std::uint8_t ET_GET_RSA_KEY = 0x47;
inline constexpr std::uint8_t ET_READ_SIGNATURE = 0x48;
inline constexpr std::uint8_t ET_PUT_BLOCK = 0x49;
inline constexpr std::uint8_t ET_SIGN_GOST = 0x10;
inline constexpr std::uint8_t ET_SIGN_RSA = 0x52;
// P2.
inline constexpr std::uint8_t ET_RSA_KEY_SIZE = 0x00;
inline constexpr std::uint8_t ET_RSA_KEY_PIECE = 0x01;
inline constexpr std::uint8_t ET_SIGN_RSA_P2 = 0x77;

// Fixed commands.
inline constexpr std::array<std::uint8_t, 5> ET_READ_SERIAL{APPLET_CLA, APPLET_INS_STATE,
                                                            ET_GET_SERIAL, 0x00, 0x00};
inline constexpr std::array<std::uint8_t, 7> ET_GET_CERTIFICATE_SIZE{
    APPLET_CLA, APPLET_INS_OBJECTS, ET_READ_CERTIFICATE, 0x00, 0x02, 0x00, 0x00};
inline constexpr std::array<std::uint8_t, 5> ET_GET_GOST_REST{
    APPLET_CLA, APPLET_INS_KEYS, ET_GET_GOST_SIGNATURE_REST, 0x00, 0x00};

// Fixed commands but for a number.
constexpr std::array<std::uint8_t, 9> etReadCertificate(std::size_t offset) noexcept
{
    return {APPLET_CLA, APPLET_INS_OBJECTS, ET_READ_CERTIFICATE, 0x00,           0x04,
            0x00,       lowByte(ET_PIECE),  highByte(offset),    lowByte(offset)};
}

constexpr std::array<std::uint8_t, 9> etPutCertificateSize(std::size_t size) noexcept
{
    return {APPLET_CLA, APPLET_INS_OBJECTS, ET_PUT_CERTIFICATE, 0x00, 0x04, 0x00,
            0x00,       highByte(size),     lowByte(size)};
}

constexpr std::array<std::uint8_t, 7> etReadSignature(std::size_t offset) noexcept
{
    return {APPLET_CLA, APPLET_INS_OBJECTS, ET_READ_SIGNATURE, 0x00,
            0x02,       highByte(offset),   lowByte(offset)};
}

// Reply capacities, status included.
inline constexpr std::size_t ET_REPLY_NAME = 258;
inline constexpr std::size_t ET_REPLY_SERIAL = 23;
inline constexpr std::size_t ET_REPLY_KEY_SIZE = 8;
inline constexpr std::size_t ET_REPLY_PIECE = ET_PIECE + STATUS_SIZE;

} // namespace velt
