// The card's two key pairs: where their parts lie on the card and in the object table.
#pragma once

#include "src/tokens/idc/idc_apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

struct IdcKeyPair {
    std::uint8_t keyId;
    std::uint8_t publicKey;
    std::array<std::uint8_t, 7> selectCertificate;
    // Position of the certificate in the object table; public and private key follow.
    std::size_t firstObject;
};

inline constexpr std::array<IdcKeyPair, 2> IDC_KEY_PAIRS{
    IdcKeyPair{.keyId = IDC_KEY_ID_1,
               .publicKey = IDC_PUBLIC_KEY_1,
               .selectCertificate = IDC_SELECT_CERTIFICATE_1,
               .firstObject = 0},
    IdcKeyPair{.keyId = IDC_KEY_ID_2,
               .publicKey = IDC_PUBLIC_KEY_2,
               .selectCertificate = IDC_SELECT_CERTIFICATE_2,
               .firstObject = 3},
};

// The key pair of a key ID, or NULL.
const IdcKeyPair* idcKeyPairOf(std::uint8_t keyId) noexcept;

// Bytes that the next UPDATE BINARY carries: all `remaining` ones in the last chunk, else 255. The
// chunk is the last one when the whole length is less than the file position plus 255.
std::size_t nextChunk(std::size_t remaining, std::int32_t length, std::int32_t position) noexcept;

} // namespace velt
