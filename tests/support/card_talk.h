// Talking to a simulated card in hexadecimal, for the tests of the cards.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/scripted_card.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace sim::card_talk {

inline Bytes answer(Card& card, const std::string& command)
{
    return card.transmit(hex(command));
}

inline std::string ask(Card& card, const std::string& command)
{
    return toHex(answer(card, command));
}

// A run of equal bytes in hexadecimal.
inline std::string run(std::size_t count, const std::string& byte)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += byte;
    }
    return text;
}

inline void walk(Card& card, const std::vector<std::string>& commands)
{
    for (const std::string& command : commands) {
        ASSERT_EQ("9000", ask(card, command)) << command;
    }
}

inline Bytes withoutStatus(Bytes reply)
{
    EXPECT_GE(reply.size(), 2u);
    reply.resize(reply.size() < 2 ? 0 : reply.size() - 2);
    return reply;
}

} // namespace sim::card_talk
