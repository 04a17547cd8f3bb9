// What the families' token descriptions and mechanism lists have in common.
#pragma once

#include "src/front/pkcs11.h"

#include <array>
#include <cstdint>
#include <span>

namespace velt {

// The fields that differ from family to family; texts are not terminated.
struct TokenDescription {
    std::array<std::uint8_t, 32> label;
    std::array<std::uint8_t, 32> manufacturer;
    std::array<std::uint8_t, 16> model;
    CK_ULONG maxSessions;
    CK_ULONG minPinLength;
    CK_ULONG maxPinLength;
};

// Fills every field of `info`: login required, PIN and token initialised, one read-write session,
// versions 1.0; no serial number (zero bytes), no clock, no memory figures.
void describeToken(const TokenDescription& token, CK_ULONG sessionCount,
                   CK_TOKEN_INFO& info) noexcept;

// What tokens with both kinds of keys offer, as C_GetMechanismList tells it.
inline constexpr std::array<CK_MECHANISM_TYPE, 4> RSA_AND_GOST_MECHANISMS{
    CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_PKCS, CKM_VELT_GOST_KEY_PAIR_GEN, CKM_VELT_GOST_SIGN};

// Answers C_GetMechanismList: always CKR_OK. Without a list, or with too little room for it, the
// count needed is set and nothing is written; otherwise the caller's count stays.
CK_RV listMechanisms(std::span<const CK_MECHANISM_TYPE> mechanisms,
                     CK_MECHANISM_TYPE* pMechanismList, CK_ULONG* pulCount) noexcept;

} // namespace velt
