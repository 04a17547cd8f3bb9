#include "src/core/file_write.h"

#include "src/core/apdu.h"

#include <algorithm>

namespace {

constexpr std::uint8_t CLA_ISO = 0x00;
constexpr std::uint8_t INS_UPDATE_BINARY = 0xD6;
constexpr std::size_t CHUNK_SIZE = 255;

// Kept: the whole length is compared with the position in the file, not with what remains, so that
// the last chunk from offset 2 can hold 256 bytes, with an Lc of 00.
std::size_t nextChunk(std::size_t remaining, std::int32_t length, std::int32_t position) noexcept
{
    if (length < position + static_cast<std::int32_t>(CHUNK_SIZE)) {
        return remaining;
    }
    return std::min(remaining, CHUNK_SIZE); // fewer remain only before a negative position
}

} // namespace

std::uint64_t velt::writeChunks(CK_SESSION_HANDLE hSession, const std::uint8_t* data,
                                std::int16_t offset, std::int16_t length) noexcept
{
    const ByteView all{data, length > 0 ? static_cast<std::size_t>(length) : 0};
    std::int32_t position = offset;
    for (std::size_t written = 0; written < all.size();) {
        const std::size_t count = nextChunk(all.size() - written, length, position);
        const auto place = static_cast<std::uint16_t>(position);
        Command update{CLA_ISO, INS_UPDATE_BINARY, highByte(place), lowByte(place)};
        update.putCounted(all.subspan(written, count));
        const std::uint64_t result = exchangeAsIs(hSession, update);
        if (result != 0) {
            return result;
        }
        written += count;
        position += static_cast<std::int32_t>(count);
    }
    return 0;
}
