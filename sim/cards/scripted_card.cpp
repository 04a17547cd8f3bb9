#include "sim/cards/scripted_card.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace sim {

static constexpr std::string_view DIGITS = "0123456789ABCDEF";

[[noreturn]] static void refuse(const char* what, std::string_view text)
{
    std::fprintf(stderr, "%s: \"%.*s\"\n", what, static_cast<int>(text.size()), text.data());
    std::abort();
}

static unsigned digitValue(char digit, std::string_view text)
{
    const char upper = digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
    const std::size_t value = DIGITS.find(upper);
    if (value == std::string_view::npos) {
        refuse("not hexadecimal", text);
    }
    return static_cast<unsigned>(value);
}

Bytes hex(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r\n";
    std::vector<unsigned> digits;
    for (const char c : text) {
        if (BLANKS.find(c) == std::string_view::npos) {
            digits.push_back(digitValue(c, text));
        }
    }
    if (digits.size() % 2 != 0) {
        refuse("half a byte", text);
    }
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(digits[i] << 4 | digits[i + 1]));
    }
    return bytes;
}

std::string toHex(std::span<const std::uint8_t> bytes)
{
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

ScriptedCard::ScriptedCard(Bytes atrBytes, unsigned long protocolNumber, std::vector<Step> steps)
    : atr_(std::move(atrBytes)), protocol_(protocolNumber), steps_(std::move(steps))
{
}

void ScriptedCard::expect(Bytes command, Bytes reply)
{
    steps_.push_back({std::move(command), std::move(reply)});
}

void ScriptedCard::expect(std::string_view command, std::string_view reply)
{
    expect(hex(command), hex(reply));
}

std::string ScriptedCard::verdict() const
{
    if (!firstFault_.empty() || next_ == steps_.size()) {
        return firstFault_;
    }
    return "step " + std::to_string(next_ + 1) + " of " + std::to_string(steps_.size()) +
           " was not asked: " + toHex(steps_[next_].command);
}

Bytes ScriptedCard::transmit(std::span<const std::uint8_t> command)
{
    const bool more = next_ < steps_.size();
    if (more && std::equal(command.begin(), command.end(), steps_[next_].command.begin(),
                           steps_[next_].command.end())) {
        return steps_[next_++].reply;
    }
    if (firstFault_.empty()) {
        firstFault_ = "step " + std::to_string(next_ + 1) + ": asked " + toHex(command) +
                      ", expected " + (more ? toHex(steps_[next_].command) : "nothing");
    }
    return {0x6F, 0x00};
}

} // namespace sim
