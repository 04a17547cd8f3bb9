#include "sim/cards/id_card_words.h"

#include "sim/cards/command_words.h"
#include "sim/cards/scripted_card.h"

namespace sim {

namespace {

constexpr std::uint8_t VERIFY = 0x20;

std::string fileWords(std::span<const std::uint8_t> command)
{
    const std::string file = toHex(command.subspan(COMMAND_HEADER));
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

} // namespace

std::string idCardWords(std::span<const std::uint8_t> command)
{
    if (command.size() < COMMAND_HEADER) {
        return "incomplete command";
    }
    const std::size_t dataLength = command.size() - COMMAND_HEADER;
    switch (command[1]) {
    case 0xA4:
        return fileWords(command);
    case 0xB0:
        return "read " + lengthWords(command[4]) + offsetWords(command);
    case 0xD6:
        return "write " + countWords(dataLength) + offsetWords(command);
    case 0xCA:
        return "get data object " + toHex(command.subspan(2, 2));
    case 0xCB:
        return "get public key " + dataByteWords(command, 4);
    case VERIFY:
        return "verify the PIN";
    case 0x22:
        return "choose key " + dataByteWords(command, 5) + " for signing";
    case 0x88:
        return "sign " + countWords(dataLength);
    case 0x46:
        return "generate key pair " + dataByteWords(command, 4);
    case 0xC0:
        return "get response, " + lengthWords(command[4]);
    default:
        return "unknown command";
    }
}

std::size_t idCardSecretLength(std::span<const std::uint8_t> command)
{
    return command.size() > COMMAND_HEADER && command[1] == VERIFY ? command.size() - COMMAND_HEADER
                                                                   : 0;
}

} // namespace sim
