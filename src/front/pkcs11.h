// PKCS#11 types and constants (p11-kit's header, standard names), the module's own entry, and the
// vendor numbers.
#pragma once

#pragma GCC visibility push(default)
#include <p11-kit/pkcs11.h>
#include <winscard.h>

extern "C" {
// Takes over a PC/SC context that the host has established; the module releases it at C_Finalize.
CK_RV C_SetSCContext(SCARDCONTEXT hContext);
}
#pragma GCC visibility pop

// The vendor's GOST mechanisms; the key-pair number is also the vendor's key type.
inline constexpr CK_MECHANISM_TYPE CKM_VELT_GOST_KEY_PAIR_GEN = 0x84B5A001;
inline constexpr CK_MECHANISM_TYPE CKM_VELT_GOST_SIGN = 0x84B5A002;
inline constexpr CK_KEY_TYPE CKK_VELT_GOST = 0x84B5A001;

// A vendor attribute of certificates, always 1.
inline constexpr CK_ATTRIBUTE_TYPE CKA_VELT_CERTIFICATE_FLAG = 0xCE534352;

// The standard's function list, then the module's own entry.
struct VeltFunctionList {
    CK_FUNCTION_LIST standard;
    CK_RV (*C_SetSCContext)(SCARDCONTEXT hContext);
};
