// The JaCarta: an applet that keeps RSA and GOST key pairs and certificates as named objects.
#pragma once

#include "src/core/token_driver.h"

#include <cstdint>

// 1 once the applet is selected and initialised, on whichever token.
extern std::uint8_t JCAppletSelected;
// The last SignInit.
extern CK_MECHANISM pSignMechanismJC;
extern std::uint64_t hSignKeyJC;

// Selects and initialises the applet, logged out. 0, or the result of the exchange that failed.
std::uint64_t fSelectAppletJC(CK_SESSION_HANDLE hSession) noexcept;

CK_RV fGetTokenInfoJC(TokenDriver* table, CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo) noexcept;
CK_RV fGetMechanismListJC(TokenDriver* table, CK_MECHANISM_TYPE* pMechanismList,
                          CK_ULONG* pulCount) noexcept;
CK_RV fLoginJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
               CK_ULONG ulPinLen) noexcept;
CK_RV fLogoutJC(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
// 0; 1 out of memory; 2 the token failed.
CK_RV fObjectsInitJC(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
CK_RV fCreateObjectJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                      CK_ULONG ulCount, CK_OBJECT_HANDLE* phObject) noexcept;
CK_RV fGenerateKeyPairJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                         CK_ATTRIBUTE* pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                         CK_ATTRIBUTE* pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                         CK_OBJECT_HANDLE* phPublicKey, CK_OBJECT_HANDLE* phPrivateKey) noexcept;
CK_RV fSignInitJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                  CK_OBJECT_HANDLE hKey) noexcept;
CK_RV fSignJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen,
              CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept;
CK_RV fDestroyObjectJC(TokenDriver* table, CK_SESSION_HANDLE hSession,
                       CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGenerateRandomJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                        CK_ULONG ulRandomLen) noexcept;
CK_RV fGetPublicKeyJC(TokenDriver* table, CK_SESSION_HANDLE hSession,
                      CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGetCertificateJC(TokenDriver* table, CK_SESSION_HANDLE hSession,
                        CK_OBJECT_HANDLE hObject) noexcept;

extern const TokenDriver driverJC;
