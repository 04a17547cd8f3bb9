// Key pair look-up and the chunked writer of the card's files.
#include "src/tokens/idc/idc_files.h"

#include "src/front/debug.h"
#include "src/tokens/idc/idc.h"

#include <algorithm>

const velt::IdcKeyPair* velt::idcKeyPairOf(std::uint8_t keyId) noexcept
{
    const auto* pair = std::ranges::find(IDC_KEY_PAIRS, keyId, &IdcKeyPair::keyId);
    return pair == IDC_KEY_PAIRS.end() ? nullptr : pair;
}

std::size_t velt::nextChunk(std::size_t remaining, std::int32_t length,
                            std::int32_t position) noexcept
{
    // Kept: the whole length is compared with the position in the file, not with what remains, so
    // that the last chunk from offset 2 can hold 256 bytes, with an Lc of 00.
    if (length < position + static_cast<std::int32_t>(IDC_CHUNK_SIZE)) {
        return remaining;
    }
    return std::min(remaining, IDC_CHUNK_SIZE); // fewer remain only before a negative position
}

std::uint64_t VELT_WriteBinaryIDC(CK_SESSION_HANDLE hSession, const std::uint8_t* data,
                                  std::int16_t offset, std::int16_t length) noexcept
{
    constexpr std::uint64_t CHUNK_REFUSED = 10;
    const velt::ByteView all{data, length > 0 ? static_cast<std::size_t>(length) : 0};
    std::int32_t position = offset;
    for (std::size_t written = 0; written < all.size();) {
        const std::size_t count = velt::nextChunk(all.size() - written, length, position);
        const auto place = static_cast<std::uint16_t>(position);
        velt::Command update{IDC_CLA, IDC_INS_UPDATE_BINARY, velt::highByte(place),
                             velt::lowByte(place)};
        update.putCounted(all.subspan(written, count));
        const std::uint64_t result = velt::exchangeAsIs(hSession, update);
        if (result != 0) {
            return velt::report("IDCard WriteBinary error ", result, CHUNK_REFUSED);
        }
        written += count;
        position += static_cast<std::int32_t>(count);
    }
    return 0;
}
