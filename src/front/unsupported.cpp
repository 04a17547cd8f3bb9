// The entry points that the module does not offer. They need no initialisation and no lock.
#include "src/front/debug.h"
#include "src/front/pkcs11.h"

namespace {

CK_RV unsupported(const char* name) noexcept
{
    velt::note(name);
    return velt::report("CKR_FUNCTION_NOT_SUPPORTED", CKR_FUNCTION_NOT_SUPPORTED);
}

} // namespace

extern "C" {

CK_RV C_WaitForSlotEvent(CK_FLAGS, CK_SLOT_ID*, void*)
{
    return unsupported("C_WaitForSlotEvent");
}

CK_RV C_InitToken(CK_SLOT_ID, CK_BYTE*, CK_ULONG, CK_BYTE*)
{
    return unsupported("C_InitToken");
}

CK_RV C_InitPIN(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_InitPIN");
}

CK_RV C_SetPIN(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_SetPIN");
}

CK_RV C_GetOperationState(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_GetOperationState");
}

CK_RV C_SetOperationState(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE)
{
    return unsupported("C_SetOperationState");
}

CK_RV C_CopyObject(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE*, CK_ULONG, CK_OBJECT_HANDLE*)
{
    return unsupported("C_CopyObject");
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ULONG*)
{
    return unsupported("C_GetObjectSize");
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE*, CK_ULONG)
{
    return unsupported("C_SetAttributeValue");
}

CK_RV C_EncryptInit(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE)
{
    return unsupported("C_EncryptInit");
}

CK_RV C_Encrypt(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_Encrypt");
}

CK_RV C_EncryptUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_EncryptUpdate");
}

CK_RV C_EncryptFinal(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_EncryptFinal");
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE)
{
    return unsupported("C_DecryptInit");
}

CK_RV C_Decrypt(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_Decrypt");
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_DecryptUpdate");
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_DecryptFinal");
}

CK_RV C_DigestInit(CK_SESSION_HANDLE, CK_MECHANISM*)
{
    return unsupported("C_DigestInit");
}

CK_RV C_Digest(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_Digest");
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_DigestUpdate");
}

CK_RV C_DigestKey(CK_SESSION_HANDLE, CK_OBJECT_HANDLE)
{
    return unsupported("C_DigestKey");
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_DigestFinal");
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_SignUpdate");
}

CK_RV C_SignFinal(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_SignFinal");
}

CK_RV C_SignRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE)
{
    return unsupported("C_SignRecoverInit");
}

CK_RV C_SignRecover(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_SignRecover");
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE)
{
    return unsupported("C_VerifyInit");
}

CK_RV C_Verify(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_Verify");
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_VerifyUpdate");
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_VerifyFinal");
}

CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE)
{
    return unsupported("C_VerifyRecoverInit");
}

CK_RV C_VerifyRecover(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_VerifyRecover");
}

CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_DigestEncryptUpdate");
}

CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_DecryptDigestUpdate");
}

CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_SignEncryptUpdate");
}

CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)
{
    return unsupported("C_DecryptVerifyUpdate");
}

CK_RV C_GenerateKey(CK_SESSION_HANDLE, CK_MECHANISM*, CK_ATTRIBUTE*, CK_ULONG, CK_OBJECT_HANDLE*)
{
    return unsupported("C_GenerateKey");
}

CK_RV C_WrapKey(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE, CK_OBJECT_HANDLE, CK_BYTE*,
                CK_ULONG*)
{
    return unsupported("C_WrapKey");
}

CK_RV C_UnwrapKey(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE, CK_BYTE*, CK_ULONG,
                  CK_ATTRIBUTE*, CK_ULONG, CK_OBJECT_HANDLE*)
{
    return unsupported("C_UnwrapKey");
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE, CK_ATTRIBUTE*, CK_ULONG,
                  CK_OBJECT_HANDLE*)
{
    return unsupported("C_DeriveKey");
}

CK_RV C_SeedRandom(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG)
{
    return unsupported("C_SeedRandom");
}

CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE)
{
    return unsupported("C_GetFunctionStatus");
}

CK_RV C_CancelFunction(CK_SESSION_HANDLE)
{
    return unsupported("C_CancelFunction");
}

} // extern "C"
