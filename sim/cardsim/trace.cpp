#include "sim/cardsim/trace.h"

#include "sim/cards/scripted_card.h"

#include <algorithm>
#include <cstdio>

static std::string statusWords(std::uint8_t first, std::uint8_t second)
{
    const unsigned status = first * 256U + second;
    if (first == 0x61) {
        return second == 0 ? "256 bytes or more are waiting"
                           : std::to_string(second) + " bytes are waiting";
    }
    if (first == 0x6C) {
        return "wrong length, " + std::to_string(second) + " is right";
    }
    if ((status & 0xFFF0U) == 0x63C0) {
        return "wrong PIN, attempts left: " + std::to_string(second & 0x0FU);
    }
    if ((status & 0xF0FFU) == 0xC063) {
        return "wrong PIN, attempts left: " + std::to_string(first & 0x0FU);
    }
    switch (status) {
    case 0x9000:
        return "done";
    case 0x6282:
        return "the file ends early";
    case 0x6413:
        return "wrong PIN";
    case 0x6414:
        return "refused: nobody is logged in";
    case 0x6415:
        return "refused: the PIN is blocked";
    case 0x6419:
        return "refused: no such certificate";
    case 0x6428:
        return "refused: no such object or key";
    case 0x6700:
        return "refused: wrong length";
    case 0x6884:
        return "refused: this command is not chained";
    case 0x6981:
        return "refused: not such a file";
    case 0x6982:
        return "refused: a PIN is needed";
    case 0x6983:
        return "refused: the PIN is blocked";
    case 0x6985:
        return "refused: something must come first";
    case 0x6986:
        return "refused: no file is selected";
    case 0x6A80:
        return "refused: wrong data";
    case 0x6A82:
        return "refused: no such file";
    case 0x6A83:
        return "refused: no such position";
    case 0x6A84:
        return "refused: the file is full";
    case 0x6A86:
        return "refused: wrong parameters";
    case 0x6A88:
        return "refused: no such object or key";
    case 0x6A89:
    case 0x6A8A:
        return "refused: it is there already";
    case 0x6B00:
        return "refused: beyond the end of the file";
    case 0x6D00:
        return "refused: unknown instruction";
    case 0x6E00:
        return "refused: unknown class";
    default:
        return "refused";
    }
}

void traceCommand(std::uint16_t port, std::span<const std::uint8_t> command, std::size_t secret,
                  const std::string& words)
{
    secret = std::min(secret, command.size());
    std::string shown = sim::toHex(command.first(command.size() - secret));
    shown.append(secret * 2, '*');
    std::fprintf(stderr, "%u > %s  %s\n", unsigned{port}, shown.c_str(), words.c_str());
}

void traceReply(std::uint16_t port, std::span<const std::uint8_t> reply)
{
    const std::string words = reply.size() < 2
                                  ? "incomplete answer"
                                  : statusWords(reply[reply.size() - 2], reply[reply.size() - 1]);
    std::fprintf(stderr, "%u < %s  %s\n", unsigned{port}, sim::toHex(reply).c_str(), words.c_str());
}
