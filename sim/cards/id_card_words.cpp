#include "sim/cards/id_card_words.h"

#include "sim/cards/scripted_card.h"

namespace sim {

namespace {

constexpr std::size_t HEADER_LENGTH = 5;
constexpr std::uint8_t VERIFY = 0x20;

std::string fileWords(std::span<const std::uint8_t> command)
{
    const std::string file = toHex(command.subspan(HEADER_LENGTH));
    switch (command[2]) {
    case 0x00:
        return "select the master file " + file;
    case 0x01:
        return "select directory " + file;
    case 0x02:
        return "select file " + file;
    case 0x04:
        return "select application " + file;
    default:
        return "select " + file;
    }
}

std::string count(std::size_t bytes)
{
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

std::string lengthWords(std::uint8_t length)
{
    return length == 0 ? "up to 256 bytes" : count(length);
}

std::string offsetWords(std::span<const std::uint8_t> command)
{
    return " at offset " + std::to_string(command[2] * 256 + command[3]);
}

// A byte of the data field in hexadecimal, if the command is long enough to have it.
std::string dataByte(std::span<const std::uint8_t> command, std::size_t index)
{
    const std::size_t at = HEADER_LENGTH + index;
    return at < command.size() ? toHex(command.subspan(at, 1)) : "(missing)";
}

} // namespace

std::string idCardWords(std::span<const std::uint8_t> command)
{
    if (command.size() < HEADER_LENGTH) {
        return "incomplete command";
    }
    const std::size_t dataLength = command.size() - HEADER_LENGTH;
    switch (command[1]) {
    case 0xA4:
        return fileWords(command);
    case 0xB0:
        return "read " + lengthWords(command[4]) + offsetWords(command);
    case 0xD6:
        return "write " + count(dataLength) + offsetWords(command);
    case 0xCA:
        return "get data object " + toHex(command.subspan(2, 2));
    case 0xCB:
        return "get public key " + dataByte(command, 4);
    case VERIFY:
        return "verify the PIN";
    case 0x22:
        return "choose key " + dataByte(command, 5) + " for signing";
    case 0x88:
        return "sign " + count(dataLength);
    case 0x46:
        return "generate key pair " + dataByte(command, 4);
    case 0xC0:
        return "get response, " + lengthWords(command[4]);
    default:
        return "unknown command";
    }
}

std::size_t idCardSecretLength(std::span<const std::uint8_t> command)
{
    return command.size() > HEADER_LENGTH && command[1] == VERIFY ? command.size() - HEADER_LENGTH
                                                                  : 0;
}

} // namespace sim
