// Talking to the simulated identity card in hexadecimal, for its tests.
#pragma once

#include "sim/cards/id_card.h"
#include "tests/support/card_talk.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace sim::id_card_talk {

using namespace card_talk;

constexpr const char* SELECT_MASTER = "00 A4 00 0C 02 3F 00";
constexpr const char* SELECT_CERTIFICATES = "00 A4 01 0C 02 08 01";
constexpr const char* SELECT_KEYS = "00 A4 01 0C 02 01 01";
constexpr const char* SELECT_FILE_1 = "00 A4 02 0C 02 01 01";
constexpr const char* SELECT_FILE_2 = "00 A4 02 0C 02 01 02";
constexpr const char* RIGHT_PIN = "00 20 00 02 08 31 32 33 34 30 30 30 30";
constexpr const char* WRONG_PIN = "00 20 00 02 08 31 32 33 35 30 30 30 30";
constexpr const char* USE_KEY_87 = "00 22 41 A4 09 95 01 40 84 01 87 80 01 02";
constexpr const char* USE_KEY_88 = "00 22 41 A4 09 95 01 40 84 01 88 80 01 02";
constexpr const char* SIGN_ABC = "00 88 02 00 03 61 62 63";
constexpr const char* GENERATE_87 = "00 46 02 00 05 A4 03 84 01 87";
constexpr const char* GENERATE_88 = "00 46 02 00 05 A4 03 84 01 88";
constexpr const char* PUBLIC_KEY_07 = "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 81 00";
constexpr const char* PUBLIC_KEY_08 = "00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00";
constexpr const char* REST_OF_256 = "00 C0 00 00 00";

inline void openFile(Card& card, const char* selectFile)
{
    walk(card, {SELECT_MASTER, SELECT_CERTIFICATES, selectFile});
}

inline void logIn(Card& card)
{
    walk(card, {SELECT_MASTER, RIGHT_PIN});
}

inline void prepareSigning(Card& card, const char* useKey)
{
    walk(card, {SELECT_MASTER, RIGHT_PIN, SELECT_KEYS, useKey});
}

// Collects what a command brings through GET RESPONSE, as a T=0 host does.
inline Bytes collect(Card& card, const std::string& command)
{
    Bytes whole;
    Bytes reply = answer(card, command);
    while (reply.size() >= 2 && reply[reply.size() - 2] == 0x61) {
        whole.insert(whole.end(), reply.begin(), reply.end() - 2);
        const Bytes next{0x00, 0xC0, 0x00, 0x00, reply.back()};
        reply = card.transmit(next);
    }
    whole.insert(whole.end(), reply.begin(), reply.end());
    return whole;
}

inline IdCardOptions withKeys(unsigned firstBits, unsigned secondBits)
{
    IdCardOptions options;
    options.positions[0].keyBits = firstBits;
    options.positions[1].keyBits = secondBits;
    return options;
}

inline IdCardOptions withFirstFile(const std::string& content,
                                   ShortRead shortRead = ShortRead::Warning)
{
    IdCardOptions options;
    options.positions[0].file = hex(content);
    options.shortRead = shortRead;
    return options;
}

} // namespace sim::id_card_talk
