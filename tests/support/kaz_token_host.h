// Tests through the built module of what a host does with a KAZTOKEN: the simulated token in a
// reader of the stand-in, and the token's commands spelled afresh.
#pragma once

#include "sim/cards/kaz_token.h"
#include "tests/support/card_host.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velt_test {

constexpr std::string_view TOKEN_PIN = "123456";

constexpr CK_KEY_TYPE GOST_KEY = 0x84B5A001;
constexpr CK_MECHANISM_TYPE GOST_KEY_PAIR_GEN = 0x84B5A001;
constexpr CK_MECHANISM_TYPE GOST_SIGN = 0x84B5A002;

// Handles of the objects of a new token: an RSA pair has its public key first, a GOST pair its
// private key; the third pair has no certificate.
constexpr CK_OBJECT_HANDLE RSA_PUBLIC = 1;
constexpr CK_OBJECT_HANDLE RSA_PRIVATE = 2;
constexpr CK_OBJECT_HANDLE RSA_CERTIFICATE = 3;
constexpr CK_OBJECT_HANDLE GOST_PRIVATE = 4;
constexpr CK_OBJECT_HANDLE GOST_PUBLIC = 5;
constexpr CK_OBJECT_HANDLE GOST_CERTIFICATE = 6;
constexpr CK_OBJECT_HANDLE SMALL_PUBLIC = 7;
constexpr CK_OBJECT_HANDLE SMALL_PRIVATE = 8;

using Handles = std::vector<CK_OBJECT_HANDLE>;

const Sent SELECT_LIST = command("00 A4 08 04 06 10 00 10 10 10 10", 4);
const Sent LIST_PARAMETERS = command("00 A4 00 04 02 10 10 FF", 258);
const Sent SELECT_APPLICATION = command("00 A4 08 04 02 10 00", 4);
const Sent CREATE_LIST_DIRECTORY =
    command("00 E0 00 00 1F 62 1D 82 02 38 00 80 02 00 10 83 02 10 10"
            " 86 0F 43 02 02 00 00 00 00 FF 00 00 00 00 00 00 00",
            4);
const Sent VERIFY_123456 = command("00 20 00 02 06 31 32 33 34 35 36", 2);
const Sent VERIFY_654321 = command("00 20 00 02 06 36 35 34 33 32 31", 2);
const Sent LOG_OUT = command("80 40 00 00", 4);

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes sizeOf(const Bytes& content)
{
    return {static_cast<std::uint8_t>(content.size() >> 8),
            static_cast<std::uint8_t>(content.size())};
}

// Selecting a file of a pair for its control parameters; the directory is 01, 02 or 04.
inline Sent selectParameters(std::uint8_t directory, std::uint8_t id)
{
    return {hex("00 A4 08 04 08 10 00 10 00 60") + Bytes{directory, 0x00, id, 0x00}, 258};
}

// The same without them.
inline Sent selectPlain(std::uint8_t directory, std::uint8_t id)
{
    return {hex("00 A4 08 04 08 10 00 10 00 60") + Bytes{directory, 0x00, id}, 4};
}

// Reading a whole selected file: blocks of 256 bytes, then what is left, which may be nothing.
inline Commands readFile(std::size_t size)
{
    Commands commands;
    const auto blocks = static_cast<std::uint8_t>(size / 256);
    for (std::uint8_t block = 0; block < blocks; ++block) {
        commands.push_back({Bytes{0x00, 0xB0, block, 0x00, 0x00}, 258});
    }
    commands.push_back(
        {Bytes{0x00, 0xB0, blocks, 0x00, static_cast<std::uint8_t>(size % 256)}, size % 256 + 2});
    return commands;
}

// Writing from the start of a selected file. A chunk carries 255 bytes unless the data ends before
// that; of exactly 255 bytes nothing is left for another chunk.
inline Commands writeFile(const Bytes& content)
{
    Commands commands;
    for (std::size_t at = 0; at < content.size();) {
        const std::size_t size = std::min<std::size_t>(255, content.size() - at);
        const auto from = content.begin() + static_cast<std::ptrdiff_t>(at);
        commands.push_back({Bytes{0x00, 0xD6, static_cast<std::uint8_t>(at >> 8),
                                  static_cast<std::uint8_t>(at), static_cast<std::uint8_t>(size)} +
                                Bytes(from, from + static_cast<std::ptrdiff_t>(size)),
                            0});
        at += size;
    }
    return commands;
}

// CREATE of a transparent file for some content.
inline Sent createFile(std::uint8_t idHigh, std::uint8_t idLow, const Bytes& content)
{
    return {hex("00 E0 00 00 1F 62 1D 82 02 01 00 80 02") + sizeOf(content) + hex("83 02") +
                Bytes{idHigh, idLow} + hex("86 0F 42 00 02 00 00 00 00 02 00 00 00 00 00 00 00"),
            4};
}

// Everything that loading the objects of a token sends, whose list holds these IDs.
inline Commands loadObjects(const sim::KazToken& token, const std::vector<std::uint8_t>& ids)
{
    Commands commands =
        Commands{SELECT_LIST, LIST_PARAMETERS} + readFile(token.list().value_or(Bytes{}).size());
    for (const std::uint8_t id : ids) {
        commands.push_back(selectParameters(0x02, id));
        commands.push_back(selectParameters(0x04, id));
    }
    return commands;
}

inline std::string labelOf(std::uint8_t id)
{
    constexpr const char* DIGITS = "0123456789abcdef";
    return std::string("a1b2c3d4e5f60718293a4b5c6d7e8f") + DIGITS[id >> 4] + DIGITS[id & 0x0F];
}

class KazTokenHost : public CardHost {
protected:
    void meet(const sim::KazTokenOptions& options = {})
    {
        token = std::make_shared<sim::KazToken>(options);
        insert(token);
    }

    void openOn(const sim::KazTokenOptions& options = {})
    {
        meet(options);
        session = open(0);
        forget();
    }

    void openAndLogin(const sim::KazTokenOptions& options = {})
    {
        openOn(options);
        ASSERT_NO_FATAL_FAILURE(loginAs(TOKEN_PIN));
    }

    std::shared_ptr<sim::KazToken> token;
};

inline sim::KazTokenOptions withPairs(std::vector<sim::KazPair> pairs)
{
    sim::KazTokenOptions options;
    options.pairs = std::move(pairs);
    return options;
}

} // namespace velt_test
