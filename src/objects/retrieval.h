// C_GetAttributeValue (PKCS#11 v2.20, 11.7).
#pragma once

#include "src/front/pkcs11.h"

// Serves each attribute in place; CKR_OK if any one was served.
CK_RV VELT_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                             CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) noexcept;
