// A command to the simulated KAZTOKEN, taken apart.
#pragma once

#include "sim/cards/answer.h"
#include "sim/cards/kaz_token.h"

namespace sim {

// Classes of commands.
namespace kaz_class {
inline constexpr std::uint8_t PLAIN = 0x00;
inline constexpr std::uint8_t CHAINED = 0x10; // class: more of the same command follows
inline constexpr std::uint8_t OWN = 0x80;     // class of the commands that only this token has
} // namespace kaz_class

// Data with its length before it, and the length wanted behind it.
struct KazToken::Command {
    std::uint8_t cla;
    std::uint8_t p1;
    std::uint8_t p2;
    std::span<const std::uint8_t> data;
    std::optional<std::uint8_t> le;

    bool parameters(std::uint8_t first, std::uint8_t second) const
    {
        return p1 == first && p2 == second;
    }
    bool bare() const { return data.empty() && !le; }
    bool onlyData() const { return !data.empty() && !le; }
    bool onlyWants() const { return data.empty() && le; }
    std::size_t wanted() const { return *le == 0 ? SHORT_MOST : *le; }
    std::size_t offset() const { return (std::size_t{p1} << 8) | p2; }

    // Nothing if the lengths do not fit together.
    static std::optional<Command> parse(std::span<const std::uint8_t> bytes)
    {
        constexpr std::size_t HEADER = 4;
        Command command{bytes[0], bytes[2], bytes[3], {}, std::nullopt};
        if (bytes.size() == HEADER) {
            return command;
        }
        if (bytes.size() == HEADER + 1) {
            command.le = bytes[HEADER];
            return command;
        }
        const std::size_t count = bytes[HEADER];
        const std::size_t rest = bytes.size() - HEADER - 1;
        if (count == 0 || rest < count || rest > count + 1) {
            return std::nullopt;
        }
        command.data = bytes.subspan(HEADER + 1, count);
        if (rest > count) {
            command.le = bytes.back();
        }
        return command;
    }
};

} // namespace sim
