// The commands of the applets on JaCarta and eToken 72K, as far as they are the same; all are of
// one proprietary class. Every object has a name, and a command on it carries 00, the name's length
// and the name.
#pragma once

#include "src/core/apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

// Classes. The applet itself is selected as ISO 7816-4 has it.
inline constexpr std::uint8_t APPLET_CLA = 0x80;
inline constexpr std::uint8_t APPLET_CLA_ISO = 0x00;

// Instructions; P1 tells the function.
inline constexpr std::uint8_t APPLET_INS_SELECT = 0xA4;
inline constexpr std::uint8_t APPLET_INS_PIN = 0x10;
inline constexpr std::uint8_t APPLET_INS_KEYS = 0x11;
inline constexpr std::uint8_t APPLET_INS_OBJECTS = 0x12;
inline constexpr std::uint8_t APPLET_INS_SIGN = 0x14;
inline constexpr std::uint8_t APPLET_INS_STATE = 0x15;

// Functions that both have under one number.
inline constexpr std::uint8_t APPLET_SELECT_BY_NAME = 0x04;
inline constexpr std::uint8_t APPLET_GENERATE_GOST = 0x20;
inline constexpr std::uint8_t APPLET_GET_GOST_KEY = 0x21; // the eToken 72K's first half
inline constexpr std::uint8_t APPLET_GET_NAME = 0x21;
inline constexpr std::uint8_t APPLET_GET_COUNT = 0x22;
inline constexpr std::uint8_t APPLET_RESET_STATE = 0x20;

// Forgets who is logged in and initialises the applet's variables.
inline constexpr std::array<std::uint8_t, 5> APPLET_RESET{APPLET_CLA, APPLET_INS_STATE,
                                                          APPLET_RESET_STATE, 0x00, 0x00};
inline constexpr std::array<std::uint8_t, 5> APPLET_COUNT_OBJECTS{APPLET_CLA, APPLET_INS_OBJECTS,
                                                                  APPLET_GET_COUNT, 0x00, 0x00};

constexpr std::array<std::uint8_t, 7> appletGetName(std::uint8_t position) noexcept
{
    return {APPLET_CLA, APPLET_INS_OBJECTS, APPLET_GET_NAME, 0x00, 0x02, 0x00, position};
}

// What a key generation command tells of the keys: RSA of 2,048 bits, GOST of 256.
inline constexpr std::array<std::uint8_t, 4> APPLET_RSA_PARAMETERS{0x08, 0x00, 0x08, 0x00};
inline constexpr std::array<std::uint8_t, 2> APPLET_GOST_PARAMETERS{0x01, 0x00};

// Reply capacities, status included.
inline constexpr std::size_t APPLET_REPLY_STATUS = STATUS_SIZE;
inline constexpr std::size_t APPLET_REPLY_SHORT = 4;
inline constexpr std::size_t APPLET_REPLY_PROBE = 258;
inline constexpr std::size_t APPLET_REPLY_STORED_NAME = 22; // a name of at most 20 bytes

// What a name can hold at one of the types.
inline constexpr std::uint8_t APPLET_GOST_PRIVATE_KEY = 0;
inline constexpr std::uint8_t APPLET_GOST_PUBLIC_KEY = 1;
inline constexpr std::uint8_t APPLET_CERTIFICATE = 2;
inline constexpr std::uint8_t APPLET_RSA_KEY_PAIR = 3;
inline constexpr std::uint8_t APPLET_TYPES = 4;

inline constexpr std::size_t APPLET_MAX_NAME = 20;
inline constexpr std::size_t APPLET_NAME_ROOM = 24; // a name read as text may be longer
inline constexpr std::size_t APPLET_GOST_HALF = 32; // of a public key or a signature
inline constexpr std::size_t APPLET_GOST_SIZE = 2 * APPLET_GOST_HALF;
inline constexpr std::size_t APPLET_RSA_BLOCK = 256;

// Status words of both applets.
inline constexpr std::uint64_t APPLET_SW_WRONG_PIN = sw(0x64, 0x13);
inline constexpr std::uint64_t APPLET_SW_NOT_LOGGED_IN = sw(0x64, 0x14);
inline constexpr std::uint64_t APPLET_SW_NO_OBJECT = sw(0x64, 0x28);
inline constexpr std::uint64_t APPLET_SW_NO_SUCH_TYPE = sw(0x64, 0x19);

// The size of a name within a command.
constexpr std::size_t namedSize(ByteView name) noexcept
{
    return 2 + name.size();
}

inline Command& putName(Command& command, ByteView name) noexcept
{
    return command.put(0x00).put(lowByte(name.size())).put(name);
}

// Lc of extended length (ISO 7816-4, 5.1).
inline Command& putExtendedLength(Command& command, std::size_t size) noexcept
{
    return command.put(0x00).put(highByte(size)).put(lowByte(size));
}

// A command whose data is a name alone.
inline Command commandOn(ByteView name, std::uint8_t ins, std::uint8_t p1) noexcept
{
    Command command{APPLET_CLA, ins, p1, 0x00};
    putName(command.put(lowByte(namedSize(name))), name);
    return command;
}

} // namespace velt
