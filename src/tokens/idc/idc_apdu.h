// Every byte that the ID card is sent, what its replies may bring, and the status words it is
// judged by (ISO 7816-4 and -8).
#pragma once

#include "src/core/apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

// Identifiers. Certificates are in 3F00/0801/0101 and 3F00/0801/0102, the keys in 3F00/0101.
inline constexpr std::uint8_t IDC_KEY_ID_1 = 0x87; // references of the private keys
inline constexpr std::uint8_t IDC_KEY_ID_2 = 0x88;
inline constexpr std::uint8_t IDC_PUBLIC_KEY_1 = 0x07; // references of their public keys
inline constexpr std::uint8_t IDC_PUBLIC_KEY_2 = 0x08;

// Classes.
inline constexpr std::uint8_t IDC_CLA = 0x00;

// Instructions.
inline constexpr std::uint8_t IDC_INS_VERIFY = 0x20;
inline constexpr std::uint8_t IDC_INS_MANAGE_SECURITY = 0x22;
inline constexpr std::uint8_t IDC_INS_GENERATE_KEY_PAIR = 0x46;
inline constexpr std::uint8_t IDC_INS_INTERNAL_AUTHENTICATE = 0x88;
inline constexpr std::uint8_t IDC_INS_READ_BINARY = 0xB0;
inline constexpr std::uint8_t IDC_INS_GET_KEY = 0xCB;
inline constexpr std::uint8_t IDC_INS_UPDATE_BINARY = 0xD6;

// Parameters.
inline constexpr std::uint8_t IDC_P1_VERIFY = 0x00;
inline constexpr std::uint8_t IDC_P2_USER_PIN = 0x02;
inline constexpr std::uint8_t IDC_P1_SIGN = 0x02;
inline constexpr std::uint8_t IDC_P2_SIGN = 0x00;
inline constexpr std::uint8_t IDC_PIN_FILLER = '0';

// Certificate file: the length of the content in two bytes, then the content.
inline constexpr std::uint8_t IDC_CONTENT_OFFSET = 2;
inline constexpr std::size_t IDC_BLOCK_SIZE = 256;
inline constexpr std::size_t IDC_CHUNK_SIZE = 255;

// Fixed commands.
inline constexpr std::array<std::uint8_t, 7> IDC_SELECT_MF{0x00, 0xA4, 0x00, 0x0C,
                                                           0x02, 0x3F, 0x00};
inline constexpr std::array<std::uint8_t, 7> IDC_SELECT_CERTIFICATES{0x00, 0xA4, 0x01, 0x0C,
                                                                     0x02, 0x08, 0x01};
inline constexpr std::array<std::uint8_t, 7> IDC_SELECT_KEYS{0x00, 0xA4, 0x01, 0x0C,
                                                             0x02, 0x01, 0x01};
inline constexpr std::array<std::uint8_t, 7> IDC_SELECT_CERTIFICATE_1{0x00, 0xA4, 0x02, 0x0C,
                                                                      0x02, 0x01, 0x01};
inline constexpr std::array<std::uint8_t, 7> IDC_SELECT_CERTIFICATE_2{0x00, 0xA4, 0x02, 0x0C,
                                                                      0x02, 0x01, 0x02};
inline constexpr std::array<std::uint8_t, 5> IDC_READ_LENGTH{0x00, IDC_INS_READ_BINARY, 0x00, 0x00,
                                                             IDC_CONTENT_OFFSET};
inline constexpr std::array<std::uint8_t, 5> IDC_GET_ALIAS_NUMBER{0x00, 0xCA, 0xDF, 0x01, 0x09};

// Fixed commands but for a number.
constexpr std::array<std::uint8_t, 5> idcReadBlock(std::uint8_t block) noexcept
{
    return {IDC_CLA, IDC_INS_READ_BINARY, block, IDC_CONTENT_OFFSET, 0x00};
}

constexpr std::array<std::uint8_t, 5> idcReadRest(std::uint8_t block, std::uint8_t rest) noexcept
{
    return {IDC_CLA, IDC_INS_READ_BINARY, block, IDC_CONTENT_OFFSET, rest};
}

constexpr std::array<std::uint8_t, 7> idcWriteLength(std::size_t length) noexcept
{
    return {IDC_CLA,
            IDC_INS_UPDATE_BINARY,
            0x00,
            0x00,
            IDC_CONTENT_OFFSET,
            velt::highByte(length),
            velt::lowByte(length)};
}

constexpr std::array<std::uint8_t, 16> idcGetPublicKey(std::uint8_t publicKey) noexcept
{
    return {IDC_CLA, IDC_INS_GET_KEY, 0x3F, 0xFF, 0x0B, 0x4D, 0x09, 0xFF,
            0xA0,    publicKey,       0x05, 0x7F, 0x49, 0x02, 0x81, 0x00};
}

// Usage, key reference and algorithm reference for INTERNAL AUTHENTICATE.
constexpr std::array<std::uint8_t, 14> idcSetSigningKey(std::uint8_t keyId) noexcept
{
    return {IDC_CLA, IDC_INS_MANAGE_SECURITY,
            0x41,    0xA4,
            0x09,    0x95,
            0x01,    0x40,
            0x84,    0x01,
            keyId,   0x80,
            0x01,    0x02};
}

constexpr std::array<std::uint8_t, 10> idcGenerateKeyPair(std::uint8_t keyId) noexcept
{
    return {IDC_CLA, IDC_INS_GENERATE_KEY_PAIR, 0x02, 0x00, 0x05, 0xA4, 0x03, 0x84, 0x01, keyId};
}

// Reply capacities, status included.
inline constexpr std::size_t IDC_REPLY_STATUS = velt::STATUS_SIZE;
inline constexpr std::size_t IDC_REPLY_LENGTH = 4;
inline constexpr std::size_t IDC_REPLY_ALIAS_NUMBER = 11;
inline constexpr std::size_t IDC_REPLY_BLOCK = IDC_BLOCK_SIZE + velt::STATUS_SIZE;

// Public key reply: a template header, the modulus, the status. Two data bytes alone: no key.
inline constexpr std::size_t IDC_PUBLIC_KEY_HEADER = 15;
inline constexpr std::size_t IDC_PUBLIC_KEY_FRAME = IDC_PUBLIC_KEY_HEADER + velt::STATUS_SIZE;

// Status words.
inline constexpr std::uint64_t IDC_SW_PIN_BLOCKED = velt::sw(0x69, 0x83);
inline constexpr std::uint64_t IDC_SW_FILE_NOT_FOUND = velt::sw(0x6A, 0x82);

// Kept: compared in the card's byte order, so only a card that swaps its status bytes meets these:
// 84 69, C1 63, C2 63, 86 6F. A 69 84 or a 6F 86 is an error like any other.
inline constexpr std::uint64_t IDC_PIN_LOCKED_CARD_ORDER = 0x6984;
inline constexpr std::uint64_t IDC_ONE_TRY_LEFT_CARD_ORDER = 0x63C1;
inline constexpr std::uint64_t IDC_TWO_TRIES_LEFT_CARD_ORDER = 0x63C2;
inline constexpr std::uint64_t IDC_ALREADY_VERIFIED_CARD_ORDER = 0x6F86;
