#include "sim/cards/scripted_card.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace sim {

static constexpr std::string_view DIGITS = "0123456789ABCDEF";

static unsigned digitValue(char digit, std::string_view text)
{
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    const char lower = static_cast<char>(digit | 0x20);
    if (lower >= 'a' && lower <= 'f') {
        return static_cast<unsigned>(lower - 'a') + 10;
    }
    std::fprintf(stderr, "not hexadecimal: \"%.*s\"\n", static_cast<int>(text.size()), text.data());
    std::abort();
}

Bytes hex(std::string_view text)
{
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (c != ' ' && c != '\t' && c != '\n') {
            digits += c;
        }
    }
    if (digits.size() % 2 != 0) {
        std::fprintf(stderr, "half a byte: \"%s\"\n", digits.c_str());
        std::abort();
    }
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(digitValue(digits[i], text) << 4 |
                                                  digitValue(digits[i + 1], text)));
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
