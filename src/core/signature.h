// Handing a signature to the host (PKCS#11 v2.20, 11.2, with a rule of its own).
#pragma once

#include "src/front/pkcs11.h"

#include <cstddef>

namespace velt {

// Whether the host's buffer takes a signature of `length` bytes. CKR_OK sets *pulSignatureLen, also
// without a buffer; CKR_BUFFER_TOO_SMALL leaves it. Kept: by then the card has signed, for a length
// query too, and a buffer that is too small does not learn the length.
inline CK_RV announceSignature(const CK_BYTE* pSignature, CK_ULONG* pulSignatureLen,
                               std::size_t length) noexcept
{
    if (pSignature != nullptr && *pulSignatureLen < length) {
        return CKR_BUFFER_TOO_SMALL;
    }
    *pulSignatureLen = length;
    return CKR_OK;
}

} // namespace velt
