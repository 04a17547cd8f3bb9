// Talking to the simulated KAZTOKEN in hexadecimal, for its tests.
#pragma once

#include "sim/cards/kaz_token.h"
#include "tests/support/card_talk.h"

namespace sim::kaz_token_talk {

using namespace card_talk;

constexpr const char* SELECT_LIST = "00 A4 08 04 06 10 00 10 10 10 10";
constexpr const char* SELECT_LIST_DIRECTORY = "00 A4 08 04 04 10 00 10 10";
constexpr const char* LIST_PARAMETERS = "00 A4 00 04 02 10 10 FF";
constexpr const char* SELECT_APPLICATION = "00 A4 08 04 02 10 00";
constexpr const char* SELECT_PRIVATE_KEYS = "00 A4 08 04 06 10 00 10 00 60 01";
constexpr const char* SELECT_PUBLIC_KEYS = "00 A4 08 04 06 10 00 10 00 60 02";
constexpr const char* SELECT_CERTIFICATES = "00 A4 08 04 06 10 00 10 00 60 04";

constexpr const char* RIGHT_PIN = "00 20 00 02 06 31 32 33 34 35 36";
constexpr const char* WRONG_PIN = "00 20 00 02 06 36 35 34 33 32 31";
constexpr const char* LOG_OUT = "80 40 00 00";

constexpr const char* CREATE_LIST_DIRECTORY =
    "00 E0 00 00 1F 62 1D 82 02 38 00 80 02 00 10 83 02 10 10"
    " 86 0F 43 02 02 00 00 00 00 FF 00 00 00 00 00 00 00";

// A transparent file of a size, with the identifier behind it; four hexadecimal digits each.
inline std::string createFile(const std::string& size, const std::string& id)
{
    return "00 E0 00 00 1F 62 1D 82 02 01 00 80 02" + size + "83 02" + id +
           "86 0F 42 00 02 00 00 00 00 02 00 00 00 00 00 00 00";
}

inline std::string createKeyFile(const std::string& size, const std::string& id,
                                 const std::string& kind)
{
    return "00 E0 00 00 27 62 25 82 02 10 00 80 02" + size + "83 02" + id + "85 06" + kind +
           "00 00 00 00 00 86 0F 42 00 02 00 00 00 00 02 00 00 00 00 00 00 00";
}

inline std::string useRsaKey(const std::string& id)
{
    return "00 22 41 B6 06 95 01 40 84 01" + id;
}

inline std::string useGostKey(const std::string& id)
{
    return "00 22 41 B6 06 91 01 40 84 01" + id;
}

// SELECT of a file of a pair, with its control parameters: the directory is 6001, 6002 or 6004.
inline std::string selectOfPair(const std::string& directory, const std::string& id)
{
    return "00 A4 08 04 08 10 00 10 00" + directory + "00" + id + "00";
}

// A block of k bytes that a host pads around data, as it is sent: first and last command.
inline std::pair<std::string, std::string> signCommands(const Bytes& data, std::size_t k)
{
    const Bytes first(data.rbegin(), data.rend());
    Bytes last(k - data.size(), 0xFF);
    last.front() = 0x00;
    last[last.size() - 2] = 0x01;
    last.back() = 0x00;
    const auto lengthOf = [](const Bytes& bytes) {
        const std::uint8_t length = static_cast<std::uint8_t>(bytes.size());
        return toHex({&length, 1});
    };
    return {"10 2A 9E 9A" + lengthOf(first) + toHex(first),
            "00 2A 9E 9A" + lengthOf(last) + toHex(last) + "00"};
}

inline Bytes turned(const Bytes& bytes)
{
    return {bytes.rbegin(), bytes.rend()};
}

} // namespace sim::kaz_token_talk
