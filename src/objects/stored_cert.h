// Certificates as tokens store them: compressed on the way out, expanded on the way in.
#pragma once

#include "src/core/bytes.h"
#include "src/objects/attr_blocks.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

inline constexpr std::size_t GZIP_ROOM = 4096;              // for a certificate being compressed
inline constexpr std::size_t MAX_STORED_CERTIFICATE = 2048; // what tokens take of it

struct StoredCertificate {
    std::array<std::uint8_t, GZIP_ROOM> bytes{};
    std::uint32_t length = 0;

    ByteView view() const noexcept { return ByteView{bytes}.first(length); }
};

// Compresses a DER certificate. True, or false with zlib's code, sign-extended, in `error`, which
// also becomes the session's device error.
bool compressCertificate(CK_SESSION_HANDLE hSession, ByteView der, StoredCertificate& stored,
                         std::uint64_t& error) noexcept;

// Whether zlib's code counts as success.
constexpr bool isConverted(std::int32_t code) noexcept
{
    return code == 0 || code == 1;
}

struct ExpandedCertificate {
    std::array<std::uint8_t, CERT_VALUE_SIZE> bytes{};
    std::size_t length = 0;
};

// Expands a stored certificate; returns zlib's code.
std::int32_t expandCertificate(ByteView stored, ExpandedCertificate& expanded) noexcept;

// Stores an expanded certificate with the fields taken from it. Malformed data can end the process.
void storeCertificate(CertAttr& attr, const ExpandedCertificate& expanded) noexcept;

} // namespace velt
