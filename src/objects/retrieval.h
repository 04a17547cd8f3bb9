// C_GetAttributeValue (PKCS#11 v2.20, 11.7).
#pragma once

#include "src/front/pkcs11.h"

#include <cstdint>

// Serves each attribute in place; CKR_OK if any one was served.
CK_RV VELT_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                             CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) noexcept;

namespace velt {

// Why an attribute was not served.
enum class Refusal : std::uint8_t {
    None,
    TypeInvalid, // the attribute of another class of objects
    Sensitive,   // an attribute of no class
    TooSmall,
};

// Result of a whole call: whether any attribute was served, and the last refusal if none was.
CK_RV attributeVerdict(bool served, Refusal last) noexcept;

} // namespace velt
