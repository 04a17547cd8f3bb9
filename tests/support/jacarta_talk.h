// Talking to the simulated JaCarta in hexadecimal, for its tests.
#pragma once

#include "sim/cards/jacarta.h"
#include "tests/support/applet_talk.h"

namespace sim::jacarta_talk {

using namespace applet_talk;

constexpr const char* SELECT = "00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00";
constexpr const char* RIGHT_PIN = "80 10 21 00 04 31 32 33 34";
constexpr const char* WRONG_PIN = "80 10 21 00 04 31 32 33 35";
constexpr const char* PROBE = "80 12 24 00";
constexpr const char* READ_RSA = "80 12 25 00";
constexpr const char* READ_GOST = "80 11 21 00";
constexpr const char* READ_CERTIFICATE = "80 12 28 00";
constexpr const char* WRITE_CERTIFICATE = "80 12 27 00";
constexpr const char* SIGN_RSA = "80 14 23 24";
constexpr const char* SIGN_GOST = "80 14 20 00";
constexpr const char* DESTROY = "80 12 23 00";
constexpr const char* GENERATE_RSA = "80 11 23 00";
constexpr const char* GENERATE_GOST = "80 11 20 00";

const Bytes RSA_NAME = hex("52 53 41");        // "RSA"
const Bytes GOST_NAME = hex("67 00 6F 73 74"); // "g\0ost"
const Bytes BARE_NAME = hex("43");             // "C"
const Bytes ABSENT_NAME = hex("52 53 41 00");

inline JacartaOptions threeObjects()
{
    JacartaOptions options;
    AppletObject gost = gostObject("");
    gost.name = GOST_NAME;
    options.objects = {rsaObject("RSA"), gost, containerObject("C", hex("01 02 03"))};
    return options;
}

inline void start(Jacarta& card)
{
    walk(card, {SELECT, INITIALISE});
}

inline void logIn(Jacarta& card)
{
    walk(card, {SELECT, INITIALISE, RIGHT_PIN});
}

inline std::string signRsa(const Bytes& name, const std::string& padded)
{
    return extendedCommand(SIGN_RSA, "00" + counted(name) + "0100" + padded);
}

inline std::string writeCertificate(const Bytes& name, const std::string& container)
{
    const std::size_t length = hex(container).size();
    return extendedCommand(WRITE_CERTIFICATE, hexByte(length >> 8) + hexByte(length & 0xFFu) +
                                                  "00" + counted(name) + container);
}

} // namespace sim::jacarta_talk
