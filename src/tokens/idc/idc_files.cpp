// Key pair look-up and the chunked writer of the card's files.
#include "src/tokens/idc/idc_files.h"

#include "src/core/file_write.h"
#include "src/front/debug.h"
#include "src/tokens/idc/idc.h"

#include <algorithm>

const velt::IdcKeyPair* velt::idcKeyPairOf(std::uint8_t keyId) noexcept
{
    const auto* pair = std::ranges::find(IDC_KEY_PAIRS, keyId, &IdcKeyPair::keyId);
    return pair == IDC_KEY_PAIRS.end() ? nullptr : pair;
}

std::uint64_t VELT_WriteBinaryIDC(CK_SESSION_HANDLE hSession, const std::uint8_t* data,
                                  std::int16_t offset, std::int16_t length) noexcept
{
    constexpr std::uint64_t CHUNK_REFUSED = 10;
    const std::uint64_t result = velt::writeChunks(hSession, data, offset, length);
    return result == 0 ? 0 : velt::report("IDCard WriteBinary error ", result, CHUNK_REFUSED);
}
