// The KAZTOKEN: RSA and GOST key pairs listed in a map file on the token, a certificate each.
#pragma once

#include "src/core/token_driver.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t KT_MAP_SIZE = 2048;
inline constexpr std::size_t KT_MAX_RECORDS = 50;
inline constexpr std::size_t KT_RECORD_ROOM = 40;

// Image of the map file and its length; a 4-byte header and records of an ID byte, a label and a
// zero byte.
extern std::array<std::uint8_t, KT_MAP_SIZE> mapFile;
extern std::uint64_t mapFileLen;
// The records of the last load, each without its terminator, and their lengths.
extern std::array<std::array<std::uint8_t, KT_RECORD_ROOM>, KT_MAX_RECORDS> tmpLabel;
extern std::array<std::uint64_t, KT_MAX_RECORDS> tmpLabelLen;
// ID byte of the last record, 0 when the map file had none.
extern std::uint64_t lastID;
// Size of the file selected last, as its control parameters told.
extern std::uint8_t hiByte;
extern std::uint8_t loByte;
// The last SignInit.
extern CK_MECHANISM pSignMechanismKT;
extern std::uint64_t hSignKeyKT;

CK_RV fGetTokenInfoKT(TokenDriver* table, CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo) noexcept;
CK_RV fGetMechanismListKT(TokenDriver* table, CK_MECHANISM_TYPE* pMechanismList,
                          CK_ULONG* pulCount) noexcept;
CK_RV fLoginKT(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
               CK_ULONG ulPinLen) noexcept;
CK_RV fLogoutKT(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
// 0; 1 out of memory; 2 the token failed; 3 the map file is too large.
CK_RV fObjectsInitKT(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept;
CK_RV fCreateObjectKT(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                      CK_ULONG ulCount, CK_OBJECT_HANDLE* phObject) noexcept;
CK_RV fGenerateKeyPairKT(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                         CK_ATTRIBUTE* pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                         CK_ATTRIBUTE* pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                         CK_OBJECT_HANDLE* phPublicKey, CK_OBJECT_HANDLE* phPrivateKey) noexcept;
CK_RV fSignInitKT(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                  CK_OBJECT_HANDLE hKey) noexcept;
CK_RV fSignKT(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen,
              CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept;
CK_RV fDestroyObjectKT(TokenDriver* table, CK_SESSION_HANDLE hSession,
                       CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGenerateRandomKT(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                        CK_ULONG ulRandomLen) noexcept;
CK_RV fGetPublicKeyKT(TokenDriver* table, CK_SESSION_HANDLE hSession,
                      CK_OBJECT_HANDLE hObject) noexcept;
CK_RV fGetCertificateKT(TokenDriver* table, CK_SESSION_HANDLE hSession,
                        CK_OBJECT_HANDLE hObject) noexcept;

extern const TokenDriver driverKT;
