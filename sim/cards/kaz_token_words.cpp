#include "sim/cards/kaz_token_words.h"

#include "sim/cards/command_words.h"
#include "sim/cards/scripted_card.h"

namespace sim {

namespace {

constexpr std::uint8_t VERIFY = 0x20;
constexpr std::uint8_t CHAINED = 0x10;

// The data field, as far as the length byte tells and the command reaches.
std::span<const std::uint8_t> dataOf(std::span<const std::uint8_t> command)
{
    if (command.size() <= COMMAND_HEADER) {
        return {};
    }
    const auto rest = command.subspan(COMMAND_HEADER);
    return rest.first(std::min<std::size_t>(rest.size(), command[4]));
}

std::string pathWords(std::span<const std::uint8_t> command)
{
    std::string words = "select";
    char before = ' ';
    const auto data = dataOf(command);
    for (std::size_t at = 0; at < data.size(); at += 2) {
        words += before + toHex(data.subspan(at, std::min<std::size_t>(2, data.size() - at)));
        before = '/';
    }
    return words;
}

// In the form that the token takes, kind, size and identifier have their fixed places.
std::string createWords(std::span<const std::uint8_t> command)
{
    const auto data = dataOf(command);
    if (data.size() < 14) {
        return "create a file";
    }
    const std::string id = toHex(data.subspan(12, 2));
    switch (data[4]) {
    case 0x38:
        return "create directory " + id;
    case 0x10:
        return "create key file " + id;
    default:
        return "create file " + id + " of " +
               countWords(static_cast<std::size_t>(data[8] * 256 + data[9]));
    }
}

std::string deleteWords(std::span<const std::uint8_t> command)
{
    const auto data = dataOf(command);
    return data.empty() ? "delete the selected file" : "delete file " + toHex(data);
}

std::string keyWords(std::span<const std::uint8_t> command)
{
    const std::string kind = dataByteWords(command, 0) == "91" ? "GOST" : "RSA";
    return "choose " + kind + " key " + dataByteWords(command, 5) + " for signing";
}

std::string signWords(std::span<const std::uint8_t> command)
{
    const std::string size = countWords(dataOf(command).size());
    return command[0] == CHAINED ? "sign, first part: " + size : "sign " + size;
}

} // namespace

std::string kazTokenWords(std::span<const std::uint8_t> command)
{
    if (command.size() < COMMAND_HEADER - 1) {
        return "incomplete command";
    }
    const std::uint8_t length = command.size() < COMMAND_HEADER ? std::uint8_t{0} : command[4];
    const std::string reference = toHex(command.subspan(3, 1));
    switch (command[1]) {
    case 0xA4:
        return pathWords(command);
    case 0xB0:
        return "read " + lengthWords(length) + offsetWords(command);
    case 0xD6:
        return "write " + countWords(dataOf(command).size()) + offsetWords(command);
    case 0xE0:
        return createWords(command);
    case 0xE4:
        return deleteWords(command);
    case VERIFY:
        return "verify the PIN";
    case 0x40:
        return "log out";
    case 0x22:
        return keyWords(command);
    case 0x2A:
        return signWords(command);
    case 0x46:
        return (command[2] == 0x80 ? "generate key pair " : "get public key ") + reference;
    case 0x84:
        return "get " + (length == 0 ? "256 bytes" : countWords(length)) + " at random";
    default:
        return "unknown command";
    }
}

std::size_t kazTokenSecretLength(std::span<const std::uint8_t> command)
{
    return command.size() > COMMAND_HEADER && command[1] == VERIFY ? command.size() - COMMAND_HEADER
                                                                   : 0;
}

} // namespace sim
