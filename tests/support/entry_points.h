// Every entry of the function list by name, with a call that passes nothing but zeros.
#pragma once

#include "src/front/pkcs11.h"

#include <array>

namespace velt_test {

struct EntryPoint {
    const char* name;
    CK_RV (*call)(const VeltFunctionList& list);
};

constexpr EntryPoint entryPoint(const char* name, CK_RV (*call)(const VeltFunctionList&))
{
    return {name, call};
}

#define VELT_ENTRY(entry, ...)                                                                     \
    entryPoint(#entry,                                                                             \
               [](const VeltFunctionList& list) { return list.standard.entry(__VA_ARGS__); })

// Entries that answer CKR_CRYPTOKI_NOT_INITIALIZED outside C_Initialize .. C_Finalize.
constexpr std::array<EntryPoint, 23> CHECKED_ENTRIES{
    VELT_ENTRY(C_Finalize, nullptr),
    VELT_ENTRY(C_GetInfo, nullptr),
    VELT_ENTRY(C_GetSlotList, CK_FALSE, nullptr, nullptr),
    VELT_ENTRY(C_GetSlotInfo, 0, nullptr),
    VELT_ENTRY(C_GetTokenInfo, 0, nullptr),
    VELT_ENTRY(C_GetMechanismList, 0, nullptr, nullptr),
    VELT_ENTRY(C_GetMechanismInfo, 0, 0, nullptr),
    VELT_ENTRY(C_OpenSession, 0, 0, nullptr, nullptr, nullptr),
    VELT_ENTRY(C_CloseSession, 0),
    VELT_ENTRY(C_CloseAllSessions, 0),
    VELT_ENTRY(C_GetSessionInfo, 0, nullptr),
    VELT_ENTRY(C_Login, 0, 0, nullptr, 0),
    VELT_ENTRY(C_Logout, 0),
    VELT_ENTRY(C_CreateObject, 0, nullptr, 0, nullptr),
    VELT_ENTRY(C_DestroyObject, 0, 0),
    VELT_ENTRY(C_GetAttributeValue, 0, 0, nullptr, 0),
    VELT_ENTRY(C_FindObjectsInit, 0, nullptr, 0),
    VELT_ENTRY(C_FindObjects, 0, nullptr, 0, nullptr),
    VELT_ENTRY(C_FindObjectsFinal, 0),
    VELT_ENTRY(C_SignInit, 0, nullptr, 0),
    VELT_ENTRY(C_Sign, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_GenerateKeyPair, 0, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_GenerateRandom, 0, nullptr, 0),
};

// Entries that always answer CKR_FUNCTION_NOT_SUPPORTED.
constexpr std::array<EntryPoint, 43> UNSUPPORTED_ENTRIES{
    VELT_ENTRY(C_InitToken, 0, nullptr, 0, nullptr),
    VELT_ENTRY(C_InitPIN, 0, nullptr, 0),
    VELT_ENTRY(C_SetPIN, 0, nullptr, 0, nullptr, 0),
    VELT_ENTRY(C_GetOperationState, 0, nullptr, nullptr),
    VELT_ENTRY(C_SetOperationState, 0, nullptr, 0, 0, 0),
    VELT_ENTRY(C_CopyObject, 0, 0, nullptr, 0, nullptr),
    VELT_ENTRY(C_GetObjectSize, 0, 0, nullptr),
    VELT_ENTRY(C_SetAttributeValue, 0, 0, nullptr, 0),
    VELT_ENTRY(C_EncryptInit, 0, nullptr, 0),
    VELT_ENTRY(C_Encrypt, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_EncryptUpdate, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_EncryptFinal, 0, nullptr, nullptr),
    VELT_ENTRY(C_DecryptInit, 0, nullptr, 0),
    VELT_ENTRY(C_Decrypt, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_DecryptUpdate, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_DecryptFinal, 0, nullptr, nullptr),
    VELT_ENTRY(C_DigestInit, 0, nullptr),
    VELT_ENTRY(C_Digest, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_DigestUpdate, 0, nullptr, 0),
    VELT_ENTRY(C_DigestKey, 0, 0),
    VELT_ENTRY(C_DigestFinal, 0, nullptr, nullptr),
    VELT_ENTRY(C_SignUpdate, 0, nullptr, 0),
    VELT_ENTRY(C_SignFinal, 0, nullptr, nullptr),
    VELT_ENTRY(C_SignRecoverInit, 0, nullptr, 0),
    VELT_ENTRY(C_SignRecover, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_VerifyInit, 0, nullptr, 0),
    VELT_ENTRY(C_Verify, 0, nullptr, 0, nullptr, 0),
    VELT_ENTRY(C_VerifyUpdate, 0, nullptr, 0),
    VELT_ENTRY(C_VerifyFinal, 0, nullptr, 0),
    VELT_ENTRY(C_VerifyRecoverInit, 0, nullptr, 0),
    VELT_ENTRY(C_VerifyRecover, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_DigestEncryptUpdate, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_DecryptDigestUpdate, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_SignEncryptUpdate, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_DecryptVerifyUpdate, 0, nullptr, 0, nullptr, nullptr),
    VELT_ENTRY(C_GenerateKey, 0, nullptr, nullptr, 0, nullptr),
    VELT_ENTRY(C_WrapKey, 0, nullptr, 0, 0, nullptr, nullptr),
    VELT_ENTRY(C_UnwrapKey, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr),
    VELT_ENTRY(C_DeriveKey, 0, nullptr, 0, nullptr, 0, nullptr),
    VELT_ENTRY(C_SeedRandom, 0, nullptr, 0),
    VELT_ENTRY(C_GetFunctionStatus, 0),
    VELT_ENTRY(C_CancelFunction, 0),
    VELT_ENTRY(C_WaitForSlotEvent, 0, nullptr, nullptr),
};

#undef VELT_ENTRY

// The 69 names in the order of the list.
constexpr std::array<const char*, 69> ENTRY_NAMES{
    "C_Initialize",
    "C_Finalize",
    "C_GetInfo",
    "C_GetFunctionList",
    "C_GetSlotList",
    "C_GetSlotInfo",
    "C_GetTokenInfo",
    "C_GetMechanismList",
    "C_GetMechanismInfo",
    "C_InitToken",
    "C_InitPIN",
    "C_SetPIN",
    "C_OpenSession",
    "C_CloseSession",
    "C_CloseAllSessions",
    "C_GetSessionInfo",
    "C_GetOperationState",
    "C_SetOperationState",
    "C_Login",
    "C_Logout",
    "C_CreateObject",
    "C_CopyObject",
    "C_DestroyObject",
    "C_GetObjectSize",
    "C_GetAttributeValue",
    "C_SetAttributeValue",
    "C_FindObjectsInit",
    "C_FindObjects",
    "C_FindObjectsFinal",
    "C_EncryptInit",
    "C_Encrypt",
    "C_EncryptUpdate",
    "C_EncryptFinal",
    "C_DecryptInit",
    "C_Decrypt",
    "C_DecryptUpdate",
    "C_DecryptFinal",
    "C_DigestInit",
    "C_Digest",
    "C_DigestUpdate",
    "C_DigestKey",
    "C_DigestFinal",
    "C_SignInit",
    "C_Sign",
    "C_SignUpdate",
    "C_SignFinal",
    "C_SignRecoverInit",
    "C_SignRecover",
    "C_VerifyInit",
    "C_Verify",
    "C_VerifyUpdate",
    "C_VerifyFinal",
    "C_VerifyRecoverInit",
    "C_VerifyRecover",
    "C_DigestEncryptUpdate",
    "C_DecryptDigestUpdate",
    "C_SignEncryptUpdate",
    "C_DecryptVerifyUpdate",
    "C_GenerateKey",
    "C_GenerateKeyPair",
    "C_WrapKey",
    "C_UnwrapKey",
    "C_DeriveKey",
    "C_SeedRandom",
    "C_GenerateRandom",
    "C_GetFunctionStatus",
    "C_CancelFunction",
    "C_WaitForSlotEvent",
    "C_SetSCContext",
};

} // namespace velt_test
