// Talking to the simulated tokens with an applet in hexadecimal, for their tests.
#pragma once

#include "sim/cards/applet_card.h"
#include "tests/support/card_talk.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace sim::applet_talk {

using namespace card_talk;

constexpr const char* INITIALISE = "80 15 20 00 00";
constexpr const char* COUNT_OBJECTS = "80 12 22 00 00";

inline std::string hexByte(std::size_t value)
{
    const auto byte = static_cast<std::uint8_t>(value);
    return toHex(std::span(&byte, 1));
}

// A short command: header, one byte of length, data.
inline std::string shortCommand(const std::string& header, const std::string& data)
{
    const Bytes bytes = hex(data);
    return toHex(hex(header)) + hexByte(bytes.size()) + toHex(bytes);
}

inline std::string extendedCommand(const std::string& header, const std::string& data)
{
    const Bytes bytes = hex(data);
    return toHex(hex(header)) + "00" + hexByte(bytes.size() >> 8) + hexByte(bytes.size() & 0xFFu) +
           toHex(bytes);
}

// One byte of length and the name.
inline std::string counted(const Bytes& name)
{
    return hexByte(name.size()) + toHex(name);
}

// A command whose data is 00 and a name.
inline std::string named(const std::string& header, const Bytes& name,
                         const std::string& behind = "")
{
    return shortCommand(header, "00" + counted(name) + behind);
}

// The data of a reply that ends with 90 00.
inline Bytes dataOf(const Bytes& reply)
{
    EXPECT_THAT(toHex(reply), ::testing::EndsWith("9000"));
    return withoutStatus(reply);
}

// 64 bytes, each half of them with its last byte first.
inline Bytes turnHalves(const Bytes& bytes)
{
    EXPECT_EQ(64u, bytes.size());
    Bytes turned(bytes.size());
    for (std::size_t k = 0; k < 32 && bytes.size() == 64; ++k) {
        turned[k] = bytes[31 - k];
        turned[32 + k] = bytes[63 - k];
    }
    return turned;
}

// A digest whose bytes all differ, and it with its last byte first.
inline Bytes digest()
{
    Bytes bytes(32);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(7 * i + 3);
    }
    return bytes;
}

inline std::string reversedDigest()
{
    const Bytes bytes = digest();
    return toHex(Bytes(bytes.rbegin(), bytes.rend()));
}

// A padded block of 256 bytes around some data.
inline std::string block(const std::string& data)
{
    const std::string content = toHex(hex(data));
    return "0001" + run(253 - content.size() / 2, "FF") + "00" + content;
}

inline AppletObject objectNamed(const std::string& name)
{
    AppletObject object;
    object.name.assign(name.begin(), name.end());
    return object;
}

inline AppletObject rsaObject(const std::string& name, TestKey key = TestKey::First2048)
{
    AppletObject object = objectNamed(name);
    object.rsa = RsaKey::fromTestKey(key);
    return object;
}

inline AppletObject gostObject(const std::string& name)
{
    AppletObject object = objectNamed(name);
    object.gost = GostKey::fromTestKey(GostTestKey::First2012);
    return object;
}

inline AppletObject containerObject(const std::string& name, const Bytes& container)
{
    AppletObject object = objectNamed(name);
    object.container = container;
    return object;
}

} // namespace sim::applet_talk
