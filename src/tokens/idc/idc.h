// The ID card: two RSA key pairs, a certificate each, a four-digit PIN; T=0.
#pragma once

#include "src/core/token_driver.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t IDC_ALIAS_SIZE = 50;

// Labels of key pair 1 and 2, zero-padded; empty until read from the card.
extern std::array<std::uint8_t, IDC_ALIAS_SIZE> Alias1;
extern std::array<std::uint8_t, IDC_ALIAS_SIZE> Alias2;
// The last SignInit.
extern CK_MECHANISM pSignMechanismIDC;
extern std::uint64_t hSignKeyIDC;

CK_RV fGetTokenInfoIDC(TokenDriver* table, CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo) noexcept;
CK_RV fGetMechanismListIDC(TokenDriver* table, CK_MECHANISM_TYPE* pMechanismList,
                           CK_ULONG* pulCount) noexcept;
CK_RV fLoginIDC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
                CK_ULONG ulPinLen) noexcept;
CK_RV fLogoutIDC(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
// 0; 1 out of memory; 2 a certificate could not be selected or read; 6 no aliases.
CK_RV fObjectsInitIDC(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
CK_RV fCreateObjectIDC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                       CK_ULONG ulCount, CK_OBJECT_HANDLE* phObject) noexcept;
CK_RV fGenerateKeyPairIDC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                          CK_ATTRIBUTE* pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                          CK_ATTRIBUTE* pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                          CK_OBJECT_HANDLE* phPublicKey, CK_OBJECT_HANDLE* phPrivateKey) noexcept;
CK_RV fSignInitIDC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                   CK_OBJECT_HANDLE hKey) noexcept;
CK_RV fSignIDC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen,
               CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept;
CK_RV fDestroyObjectIDC(TokenDriver* table, CK_SESSION_HANDLE hSession,
                        CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGenerateRandomIDC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                         CK_ULONG ulRandomLen) noexcept;
CK_RV fGetPublicKeyIDC(TokenDriver* table, CK_SESSION_HANDLE hSession,
                       CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGetCertificateIDC(TokenDriver* table, CK_SESSION_HANDLE hSession,
                         CK_OBJECT_HANDLE hObject) noexcept;

// Reads both labels from the card: 0; 1 the master file, 2 the data object could not be had.
std::uint64_t VELT_SetAliasesIDC(CK_SESSION_HANDLE hSession) noexcept;

// Writes a key's label into its certificate file, which then holds no certificate: 0; 6 no labels;
// 1 to 4 the step that the card refused; 10 the text could not be written.
std::uint64_t VELT_WriteAliasIDC(CK_SESSION_HANDLE hSession, std::uint8_t keyId) noexcept;

// Writes `length` bytes to the selected file from `offset` on: 0, or 10 after a refused chunk.
std::uint64_t VELT_WriteBinaryIDC(CK_SESSION_HANDLE hSession, const std::uint8_t* data,
                                  std::int16_t offset, std::int16_t length) noexcept;

extern const TokenDriver driverIDC;
