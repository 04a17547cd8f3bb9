// Every byte that the KAZTOKEN is sent, what its replies may bring, and the status words it is
// judged by (ISO 7816-4, -8 and -9).
#pragma once

#include "src/core/apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

// Identifiers. The map file is 1000/1010/1010; a key pair's files are 1000/1000/60xx/00 ID.
inline constexpr std::uint8_t KT_DIR_PRIVATE = 0x01; // low bytes of 60xx
inline constexpr std::uint8_t KT_DIR_KEY = 0x02;
inline constexpr std::uint8_t KT_DIR_CERTIFICATE = 0x04;

// Classes.
inline constexpr std::uint8_t KT_CLA = 0x00;
inline constexpr std::uint8_t KT_CLA_CHAINED = 0x10;

// Instructions.
inline constexpr std::uint8_t KT_INS_VERIFY = 0x20;
inline constexpr std::uint8_t KT_INS_MANAGE_SECURITY = 0x22;
inline constexpr std::uint8_t KT_INS_PERFORM_SECURITY = 0x2A;
inline constexpr std::uint8_t KT_INS_KEY_PAIR = 0x46;
inline constexpr std::uint8_t KT_INS_GET_CHALLENGE = 0x84;
inline constexpr std::uint8_t KT_INS_SELECT = 0xA4;
inline constexpr std::uint8_t KT_INS_READ_BINARY = 0xB0;
inline constexpr std::uint8_t KT_INS_CREATE = 0xE0;
inline constexpr std::uint8_t KT_INS_DELETE = 0xE4;

// Parameters.
inline constexpr std::uint8_t KT_P1_VERIFY = 0x00;
inline constexpr std::uint8_t KT_P2_USER_PIN = 0x02;
inline constexpr std::uint8_t KT_P1_SIGNATURE = 0x9E;  // out: a signature
inline constexpr std::uint8_t KT_P2_SIGN_INPUT = 0x9A; // in: the data it is made of
inline constexpr std::uint8_t KT_P1_GENERATE_KEYS = 0x80;
inline constexpr std::uint8_t KT_P1_READ_PUBLIC_KEY = 0x81;
inline constexpr std::uint8_t KT_USE_RSA = 0x95; // tags of the usage qualifier
inline constexpr std::uint8_t KT_USE_GOST = 0x91;
inline constexpr std::uint8_t KT_LE_RSA = 0x00;
inline constexpr std::uint8_t KT_LE_GOST = 0x40;
inline constexpr std::uint8_t KT_LE_GOST_KEY = 0x42;

inline constexpr std::size_t KT_BLOCK_SIZE = 256;

// Fixed commands.
inline constexpr std::array<std::uint8_t, 11> KT_SELECT_MAP_FILE{0x00, 0xA4, 0x08, 0x04, 0x06, 0x10,
                                                                 0x00, 0x10, 0x10, 0x10, 0x10};
inline constexpr std::array<std::uint8_t, 8> KT_SELECT_MAP_FILE_FCP{0x00, 0xA4, 0x00, 0x04,
                                                                    0x02, 0x10, 0x10, 0xFF};
inline constexpr std::array<std::uint8_t, 7> KT_SELECT_DIRECTORY{0x00, 0xA4, 0x08, 0x04,
                                                                 0x02, 0x10, 0x00};
inline constexpr std::array<std::uint8_t, 9> KT_SELECT_MAP_DIRECTORY{0x00, 0xA4, 0x08, 0x04, 0x04,
                                                                     0x10, 0x00, 0x10, 0x10};
inline constexpr std::array<std::uint8_t, 36> KT_CREATE_MAP_DIRECTORY{
    0x00, 0xE0, 0x00, 0x00, 0x1F, 0x62, 0x1D, 0x82, 0x02, 0x38, 0x00, 0x80,
    0x02, 0x00, 0x10, 0x83, 0x02, 0x10, 0x10, 0x86, 0x0F, 0x43, 0x02, 0x02,
    0x00, 0x00, 0x00, 0x00, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
inline constexpr std::array<std::uint8_t, 7> KT_DELETE_MAP_FILE{0x00, 0xE4, 0x00, 0x00,
                                                                0x02, 0x10, 0x10};
inline constexpr std::array<std::uint8_t, 4> KT_DELETE_SELECTED{0x00, 0xE4, 0x00, 0x00};
inline constexpr std::array<std::uint8_t, 4> KT_LOGOUT{0x80, 0x40, 0x00, 0x00};
inline constexpr std::uint16_t KT_MAP_FILE_ID = 0x1010;

// Fixed commands but for a number.

// Creates a transparent file of a size below the selected directory.
constexpr std::array<std::uint8_t, 36> ktCreateFile(std::uint16_t fileId, std::size_t size) noexcept
{
    return {KT_CLA,
            KT_INS_CREATE,
            0x00,
            0x00,
            0x1F,
            0x62,
            0x1D,
            0x82,
            0x02,
            0x01,
            0x00,
            0x80,
            0x02,
            velt::highByte(size),
            velt::lowByte(size),
            0x83,
            0x02,
            velt::highByte(fileId),
            velt::lowByte(fileId),
            0x86,
            0x0F,
            0x42,
            0x00,
            0x02,
            0x00,
            0x00,
            0x00,
            0x00,
            0x02,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00};
}

// Creates one of a key pair's files; `kind` is KT_KIND_RSA or KT_KIND_GOST.
constexpr std::array<std::uint8_t, 44> ktCreateKeyFile(std::uint8_t id, std::uint8_t kind,
                                                       std::size_t size) noexcept
{
    return {KT_CLA,
            KT_INS_CREATE,
            0x00,
            0x00,
            0x27,
            0x62,
            0x25,
            0x82,
            0x02,
            0x10,
            0x00,
            0x80,
            0x02,
            velt::highByte(size),
            velt::lowByte(size),
            0x83,
            0x02,
            0x00,
            id,
            0x85,
            0x06,
            kind,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00,
            0x86,
            0x0F,
            0x42,
            0x00,
            0x02,
            0x00,
            0x00,
            0x00,
            0x00,
            0x02,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00,
            0x00};
}

constexpr std::array<std::uint8_t, 11> ktSelectFileDirectory(std::uint8_t directory) noexcept
{
    return {KT_CLA, KT_INS_SELECT, 0x08, 0x04, 0x06, 0x10, 0x00, 0x10, 0x00, 0x60, directory};
}

constexpr std::array<std::uint8_t, 13> ktSelectFile(std::uint8_t directory,
                                                    std::uint8_t id) noexcept
{
    return {KT_CLA, KT_INS_SELECT, 0x08, 0x04,      0x08, 0x10, 0x00,
            0x10,   0x00,          0x60, directory, 0x00, id};
}

// The same for the file's control parameters.
constexpr std::array<std::uint8_t, 14> ktSelectFileFcp(std::uint8_t directory,
                                                       std::uint8_t id) noexcept
{
    return {KT_CLA, KT_INS_SELECT, 0x08, 0x04,      0x08, 0x10, 0x00,
            0x10,   0x00,          0x60, directory, 0x00, id,   0x00};
}

constexpr std::array<std::uint8_t, 7> ktDeleteFile(std::uint8_t id) noexcept
{
    return {KT_CLA, KT_INS_DELETE, 0x00, 0x00, 0x02, 0x00, id};
}

constexpr std::array<std::uint8_t, 5> ktReadBinary(std::uint8_t block, std::uint8_t count) noexcept
{
    return {KT_CLA, KT_INS_READ_BINARY, block, 0x00, count};
}

constexpr std::array<std::uint8_t, 5> ktReadPublicKey(std::uint8_t id, std::uint8_t le) noexcept
{
    return {KT_CLA, KT_INS_KEY_PAIR, KT_P1_READ_PUBLIC_KEY, id, le};
}

constexpr std::array<std::uint8_t, 4> ktGenerateKeyPair(std::uint8_t id) noexcept
{
    return {KT_CLA, KT_INS_KEY_PAIR, KT_P1_GENERATE_KEYS, id};
}

constexpr std::array<std::uint8_t, 11> ktSetSigningKey(std::uint8_t usage, std::uint8_t id) noexcept
{
    return {KT_CLA, KT_INS_MANAGE_SECURITY, 0x41, 0xB6, 0x06, usage, 0x01, 0x40, 0x84, 0x01, id};
}

constexpr std::array<std::uint8_t, 5> ktGetChallenge(std::size_t count) noexcept
{
    return {KT_CLA, KT_INS_GET_CHALLENGE, 0x00, 0x00, velt::lowByte(count)};
}

// Reply capacities, status included.
inline constexpr std::size_t KT_REPLY_STATUS = velt::STATUS_SIZE;
inline constexpr std::size_t KT_REPLY_SHORT = 4;
inline constexpr std::size_t KT_REPLY_BLOCK = KT_BLOCK_SIZE + velt::STATUS_SIZE;
inline constexpr std::size_t KT_REPLY_GOST = 64 + velt::STATUS_SIZE;

// Control parameters: 62 L 80 02 size, and from byte 10 on what kind of key a key file holds.
inline constexpr std::uint8_t KT_FCP_TAG = 0x62;
inline constexpr std::size_t KT_FCP_SIZE_POSITION = 4;
inline constexpr std::size_t KT_FCP_KIND_POSITION = 10;
inline constexpr std::uint8_t KT_KIND_RSA = 0x23;
inline constexpr std::uint8_t KT_KIND_GOST = 0x03;
inline constexpr std::array<std::uint8_t, 3> KT_RSA_KEY_FILE{0x85, 0x06, KT_KIND_RSA};
inline constexpr std::array<std::uint8_t, 3> KT_GOST_KEY_FILE{0x85, 0x06, KT_KIND_GOST};

// Status words.
inline constexpr std::uint64_t KT_SW_FILE_NOT_FOUND = velt::sw(0x6A, 0x82);
inline constexpr std::uint64_t KT_SW_FILE_EXISTS = velt::sw(0x6A, 0x8A);
inline constexpr std::uint64_t KT_SW_NOT_PERMITTED = velt::sw(0x69, 0x82);

// Kept: a wrong PIN is told by these bits of the exchange's value, which a card's 63 Cx (arriving
// as Cx 63) has only when its second byte has them, too.
inline constexpr std::uint64_t KT_WRONG_PIN_BITS_CARD_ORDER = 0x6300;
