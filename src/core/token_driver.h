// The table of a token family's thirteen operations, and the default attribute blocks.
#pragma once

#include "src/front/pkcs11.h"

#include <cstdint>

// Every operation takes the table itself first and returns a CK_RV (ObjectsInit: 0 done, 1 out of
// memory, 2 card failure, 6 names unreadable).
struct TokenDriver {
    std::uint64_t type; // TokenType of the family loaded; 0: none
    CK_RV (*GetTokenInfo)(TokenDriver*, CK_SLOT_ID, CK_TOKEN_INFO*) noexcept;
    CK_RV (*GetMechanismList)(TokenDriver*, CK_MECHANISM_TYPE*, CK_ULONG*) noexcept;
    CK_RV (*Login)(TokenDriver*, CK_SESSION_HANDLE, CK_UTF8CHAR*, CK_ULONG) noexcept;
    CK_RV (*Logout)(TokenDriver*, CK_SESSION_HANDLE) noexcept;
    CK_RV (*ObjectsInit)(TokenDriver*, CK_SESSION_HANDLE) noexcept;
    CK_RV(*CreateObject)
    (TokenDriver*, CK_SESSION_HANDLE, CK_ATTRIBUTE*, CK_ULONG, CK_OBJECT_HANDLE*) noexcept;
    CK_RV(*GenerateKeyPair)
    (TokenDriver*, CK_SESSION_HANDLE, CK_MECHANISM*, CK_ATTRIBUTE*, CK_ULONG, CK_ATTRIBUTE*,
     CK_ULONG, CK_OBJECT_HANDLE*, CK_OBJECT_HANDLE*) noexcept;
    CK_RV (*SignInit)(TokenDriver*, CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE) noexcept;
    CK_RV(*Sign)
    (TokenDriver*, CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*) noexcept;
    CK_RV (*DestroyObject)(TokenDriver*, CK_SESSION_HANDLE, CK_OBJECT_HANDLE) noexcept;
    CK_RV (*GenerateRandom)(TokenDriver*, CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG) noexcept;
    CK_RV (*GetPublicKey)(TokenDriver*, CK_SESSION_HANDLE, CK_OBJECT_HANDLE) noexcept;
    CK_RV (*GetCertificate)(TokenDriver*, CK_SESSION_HANDLE, CK_OBJECT_HANDLE) noexcept;
};

// The operations in use. Session operations call it as it stands.
extern TokenDriver stVELTTokens;

// Loads a family's operations into the table and sets up the default attribute blocks once. An
// unknown type sets the table's type to 0 and leaves the operations. Always 0.
std::uint64_t fVELTTokensInit(TokenDriver* table, std::uint64_t tokenType) noexcept;

inline constexpr std::uint64_t STRINDEX_NOT_FOUND = 0xFFFFFFFF;

// Position of the first occurrence of needle in haystack, or STRINDEX_NOT_FOUND; an empty needle is
// never found. Only the position is bounded by haystackLen: an occurrence may end behind it, so
// needleLen - 1 bytes must be readable there.
std::uint64_t strindex(const std::uint8_t* haystack, std::uint64_t haystackLen,
                       const std::uint8_t* needle, std::uint64_t needleLen) noexcept;

// C_GetTokenInfo, C_GetMechanismList, C_GetMechanismInfo.
CK_RV VELT_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo) noexcept;
CK_RV VELT_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE* pMechanismList,
                            CK_ULONG* pulCount) noexcept;
CK_RV VELT_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type,
                            CK_MECHANISM_INFO* pInfo) noexcept;

namespace velt {

// Whether an operation is not NULL, for a static_assert: what is no constant is the address of a
// function, which g++ will not compare with NULL at compile time under the sanitizers.
template <class Operation>
consteval bool isFilled(Operation operation) noexcept
{
    return !__builtin_constant_p(operation == nullptr) || operation != nullptr;
}

// Whether a family's table has its type and every operation.
consteval bool complete(const TokenDriver& table) noexcept
{
    return table.type != 0 && isFilled(table.GetTokenInfo) && isFilled(table.GetMechanismList) &&
           isFilled(table.Login) && isFilled(table.Logout) && isFilled(table.ObjectsInit) &&
           isFilled(table.CreateObject) && isFilled(table.GenerateKeyPair) &&
           isFilled(table.SignInit) && isFilled(table.Sign) && isFilled(table.DestroyObject) &&
           isFilled(table.GenerateRandom) && isFilled(table.GetPublicKey) &&
           isFilled(table.GetCertificate);
}

// Loads the family's operations if the table is empty or holds another family's.
void ensureDriver(std::uint64_t tokenType) noexcept;

// Calls an operation of the table in use; one that was never filled is CKR_FUNCTION_NOT_SUPPORTED.
template <class... Parameters, class... Arguments>
CK_RV callDriver(CK_RV (*TokenDriver::*operation)(TokenDriver*, Parameters...) noexcept,
                 Arguments... arguments) noexcept
{
    const auto call = stVELTTokens.*operation;
    return call == nullptr ? CKR_FUNCTION_NOT_SUPPORTED : call(&stVELTTokens, arguments...);
}

} // namespace velt
