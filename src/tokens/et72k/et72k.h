// The eToken 72K: a sibling of the JaCarta's applet that moves 32 bytes of data a command.
#pragma once

#include "src/core/token_driver.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t ET72K_SERIAL_SIZE = 21;

// 1 once the applet is selected and initialised, on whichever token.
extern std::uint8_t ET72KAppletSelected;
// The serial number that the last selection read, and its length; not terminated.
extern std::array<std::uint8_t, ET72K_SERIAL_SIZE> tokenSN;
extern std::int32_t tokenSNLen;
// The last SignInit.
extern CK_MECHANISM pSignMechanismET72K;
extern std::uint64_t hSignKeyET72K;

// Selects and initialises the applet, logged out, and reads the serial number, which may fail. 0,
// or the result of the exchange that failed.
std::uint64_t fSelectAppletET72K(CK_SESSION_HANDLE hSession) noexcept;

CK_RV fGetTokenInfoET72K(TokenDriver* table, CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo) noexcept;
CK_RV fGetMechanismListET72K(TokenDriver* table, CK_MECHANISM_TYPE* pMechanismList,
                             CK_ULONG* pulCount) noexcept;
CK_RV fLoginET72K(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
                  CK_ULONG ulPinLen) noexcept;
CK_RV fLogoutET72K(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
// 0; 1 out of memory; 2 the token failed.
CK_RV fObjectsInitET72K(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
CK_RV fCreateObjectET72K(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                         CK_ULONG ulCount, CK_OBJECT_HANDLE* phObject) noexcept;
CK_RV fGenerateKeyPairET72K(TokenDriver* table, CK_SESSION_HANDLE hSession,
                            CK_MECHANISM* pMechanism, CK_ATTRIBUTE* pPublicKeyTemplate,
                            CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE* pPrivateKeyTemplate,
                            CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE* phPublicKey,
                            CK_OBJECT_HANDLE* phPrivateKey) noexcept;
CK_RV fSignInitET72K(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                     CK_OBJECT_HANDLE hKey) noexcept;
CK_RV fSignET72K(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen,
                 CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept;
CK_RV fDestroyObjectET72K(TokenDriver* table, CK_SESSION_HANDLE hSession,
                          CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGenerateRandomET72K(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                           CK_ULONG ulRandomLen) noexcept;
CK_RV fGetPublicKeyET72K(TokenDriver* table, CK_SESSION_HANDLE hSession,
                         CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGetCertificateET72K(TokenDriver* table, CK_SESSION_HANDLE hSession,
                           CK_OBJECT_HANDLE hObject) noexcept;

extern const TokenDriver driverET72K;
