// Writing transparent files in chunks (UPDATE BINARY, ISO 7816-4).
#pragma once

#include "src/core/bytes.h"
#include "src/front/pkcs11.h"

#include <cstdint>

namespace velt {

// Writes `length` bytes to the selected file from `offset` on, each chunk with the capacity that
// the reply before it left. 0, or the result of the first chunk that the card refused.
std::uint64_t writeChunks(CK_SESSION_HANDLE hSession, const std::uint8_t* data, std::int16_t offset,
                          std::int16_t length) noexcept;

} // namespace velt
