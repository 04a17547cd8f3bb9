// The five answers to reset that the module recognises, and cards for tests of the core.
#pragma once

#include "sim/cards/scripted_card.h"

#include <array>
#include <memory>
#include <string_view>
#include <utility>

namespace velt_test {

// PC/SC's protocol numbers.
constexpr unsigned long T0 = 1;
constexpr unsigned long T1 = 2;

struct KnownToken {
    const char* name;     // of the answer to reset
    const char* message;  // what the module reports when it recognises it
    unsigned char type;   // family code
    unsigned long flags;  // of a slot that holds it
    std::string_view atr; // hexadecimal
};

constexpr std::array<KnownToken, 5> KNOWN_TOKENS{{
    {"the ID card", "KZIDCard", 1, 0x7, "3B 77 18 00 00 4B 41 53 41 4B 49 44"},
    {"the newer ID card", "KZIDCard", 1, 0x7, "3B 39 19 00 53 4F 4D 41 44 53 33 30 31"},
    {"the JaCarta", "JaCarta", 4, 0x7,
     "3B DC 18 FF 81 91 FE 1F C3 80 73 C8 21 13 66 01 06 11 59 00 01 28"},
    {"the KAZTOKEN", "KAZTOKEN", 3, 0x5, "3B 88 01 4B 41 5A 54 4F 4B 45 4E 82"},
    {"the eToken 72K", "EToken 72K", 2, 0x7, "3B D5 18 00 81 31 FE 7D 80 73 C8 21 10 F4"},
}};

constexpr KnownToken ID_CARD = KNOWN_TOKENS[0];
constexpr KnownToken NEWER_ID_CARD = KNOWN_TOKENS[1];
constexpr KnownToken JACARTA = KNOWN_TOKENS[2];
constexpr KnownToken KAZTOKEN = KNOWN_TOKENS[3];
constexpr KnownToken ETOKEN_72K = KNOWN_TOKENS[4];

// A card that refuses every command with 6F 00.
inline std::shared_ptr<sim::ScriptedCard> refusingCard(sim::Bytes atr, unsigned long protocol = T0)
{
    return std::make_shared<sim::ScriptedCard>(std::move(atr), protocol);
}

inline std::shared_ptr<sim::ScriptedCard> refusingCard(const KnownToken& token,
                                                       unsigned long protocol = T0)
{
    return refusingCard(sim::hex(token.atr), protocol);
}

// An ATR of no known family.
inline std::shared_ptr<sim::ScriptedCard> unknownCard()
{
    return refusingCard(sim::hex("3B 65 00 00 9C 02 02 07 02"));
}

} // namespace velt_test
