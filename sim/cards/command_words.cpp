#include "sim/cards/command_words.h"

#include "sim/cards/scripted_card.h"

namespace sim {

std::string countWords(std::size_t bytes)
{
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

std::string lengthWords(std::uint8_t length)
{
    return length == 0 ? "up to 256 bytes" : countWords(length);
}

std::string offsetWords(std::span<const std::uint8_t> command)
{
    return " at offset " + std::to_string(command[2] * 256 + command[3]);
}

std::string dataByteWords(std::span<const std::uint8_t> command, std::size_t index)
{
    const std::size_t at = COMMAND_HEADER + index;
    return at < command.size() ? toHex(command.subspan(at, 1)) : "(missing)";
}

} // namespace sim
