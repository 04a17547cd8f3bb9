// Object, key, random and signing operations: session checks, one driver operation, and what keeps
// the object table and the signing state in step.
#pragma once

#include "src/front/pkcs11.h"

#include <cstdint>

// 1 from a successful C_SignInit to the next successful C_Sign, whatever their sessions.
extern std::uint8_t bSignOpInit;

CK_RV VELT_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount,
                        CK_OBJECT_HANDLE* phObject) noexcept;
CK_RV VELT_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) noexcept;
CK_RV VELT_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                         CK_ULONG* pulSize) noexcept;
CK_RV VELT_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                           CK_ATTRIBUTE* pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                           CK_ATTRIBUTE* pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                           CK_OBJECT_HANDLE* phPublicKey, CK_OBJECT_HANDLE* phPrivateKey) noexcept;
CK_RV VELT_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                          CK_ULONG ulRandomLen) noexcept;
CK_RV VELT_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                    CK_OBJECT_HANDLE hKey) noexcept;
CK_RV VELT_Sign(CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pSignature,
                CK_ULONG* pulSignatureLen) noexcept;
