// Talking to the simulated eToken 72K in hexadecimal, for its tests.
#pragma once

#include "sim/cards/etoken_72k.h"
#include "tests/support/applet_talk.h"

namespace sim::etoken_72k_talk {

using namespace applet_talk;

constexpr const char* SELECT = "00 A4 04 00 0A 00 00 00 00 00 00 01 02 03 00";
constexpr const char* RIGHT_PIN = "80 10 20 00 04 31 32 33 34";
constexpr const char* WRONG_PIN = "80 10 20 00 04 31 32 33 35";
constexpr const char* PROBE = "80 12 44 00";
constexpr const char* GOST_FIRST = "80 11 21 00";
constexpr const char* GOST_SECOND = "80 11 24 00";
constexpr const char* CHOOSE = "80 12 43 00";
constexpr const char* GET_SIZE = "80 12 41 00 02 00 00";
constexpr const char* BIND = "80 12 42 00";
constexpr const char* SIGN_GOST = "80 14 10 00";
constexpr const char* REST_OF_SIGNATURE = "80 11 25 00 00";
constexpr const char* DESTROY = "80 12 30 00";
constexpr const char* GENERATE_RSA = "80 11 26 00";
constexpr const char* GENERATE_GOST = "80 11 20 00";

const Bytes RSA_NAME = hex("52 53 41");     // "RSA"
const Bytes OLD_NAME = hex("4F 4C 44");     // "OLD"
const Bytes GOST_NAME = hex("67 6F 73 74"); // "gost"
const Bytes BARE_NAME = hex("43");          // "C"
const Bytes ABSENT_NAME = hex("52 53");

inline Bytes counting(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 5 + i / 256 + 1);
    }
    return bytes;
}

inline Etoken72kOptions fourObjects()
{
    Etoken72kOptions options;
    options.objects = {rsaObject("RSA"), rsaObject("OLD", TestKey::First1024), gostObject("gost"),
                       containerObject("C", counting(70))};
    return options;
}

inline void start(Etoken72k& card)
{
    walk(card, {SELECT, INITIALISE});
}

inline void logIn(Etoken72k& card)
{
    walk(card, {SELECT, INITIALISE, RIGHT_PIN});
}

inline std::string keySize(const Bytes& name)
{
    return shortCommand("80 12 47 00", "00 00 00" + counted(name));
}

inline std::string modulusPiece(const Bytes& name, std::size_t offset)
{
    return shortCommand("80 12 47 01",
                        hexByte(offset >> 8) + hexByte(offset & 0xFFu) + "00" + counted(name));
}

inline std::string certificatePiece(std::size_t offset)
{
    return "80 12 41 00 04 00 20" + hexByte(offset >> 8) + hexByte(offset & 0xFFu);
}

inline std::string announce(std::size_t length)
{
    return "80 12 40 00 04 00 00" + hexByte(length >> 8) + hexByte(length & 0xFFu);
}

inline std::string append(const std::string& data)
{
    return shortCommand("80 12 40 00", "00" + hexByte(hex(data).size()) + data);
}

inline std::string uploadPiece(std::size_t offset, const std::string& data)
{
    return shortCommand("80 12 49 00", "00" + hexByte(offset) + data);
}

inline std::string signRsa(const Bytes& name)
{
    return shortCommand("80 14 52 77", "01 00 00" + counted(name));
}

inline std::string signaturePiece(std::size_t offset)
{
    return "80 12 48 00 02" + hexByte(offset >> 8) + hexByte(offset & 0xFFu);
}

inline void upload(Etoken72k& card, const std::string& padded)
{
    for (std::size_t offset = 0; offset < 256; offset += 32) {
        ASSERT_EQ("9000", ask(card, uploadPiece(offset, padded.substr(2 * offset, 64))));
    }
}

// All pieces of something, from offset 0 to the refusal behind its end.
template <class Command>
inline Bytes collectPieces(Etoken72k& card, Command command)
{
    Bytes whole;
    std::string reply = ask(card, command(0));
    for (std::size_t offset = 32; reply.ends_with("9000"); offset += 32) {
        const Bytes piece = dataOf(hex(reply));
        EXPECT_TRUE(!piece.empty() && piece.size() <= 32);
        whole.insert(whole.end(), piece.begin(), piece.end());
        reply = ask(card, command(offset));
    }
    EXPECT_EQ("6B00", reply);
    return whole;
}

} // namespace sim::etoken_72k_talk
