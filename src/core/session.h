// Sessions: one card connection each, and the PKCS#11 session state (PKCS#11 v2.20, 11.6).
#pragma once

#include "src/front/pkcs11.h"

#include <cstdint>

inline constexpr std::uint8_t LOGGED_OUT = 0;
inline constexpr std::uint8_t LOGGED_IN = 1;
inline constexpr std::uint8_t NEVER_LOGGED_IN = 2;

struct SessionEntry {
    CK_SESSION_HANDLE hSession;
    std::uint8_t isOpen;
    CK_SLOT_ID slotID;
    CK_FLAGS flags;
    void* pApplication;
    CK_NOTIFY notify;
    CK_STATE state;
    SCARDHANDLE hCard;
    std::uint64_t activeProtocol;       // SCARD_PROTOCOL_T0 or SCARD_PROTOCOL_T1
    const SCARD_IO_REQUEST* pioSendPci; // NULL for any other protocol: nothing can be sent
    std::uint8_t loginState;            // LOGGED_OUT, LOGGED_IN or NEVER_LOGGED_IN
    std::uint64_t deviceError;          // result of the last card exchange, told once
};

// Entry 0 is never used. NULL until the first opening and after C_Finalize.
extern SessionEntry* VELTSessions;
// Highest handle issued so far; handles are never reused, not even after C_Finalize.
extern std::uint64_t sessCount;

CK_RV VELT_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, void* pApplication, CK_NOTIFY notify,
                       CK_SESSION_HANDLE* phSession) noexcept;
CK_RV VELT_CloseSession(CK_SESSION_HANDLE hSession) noexcept;
CK_RV VELT_CloseAllSessions(CK_SLOT_ID slotID) noexcept;
CK_RV VELT_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO* pInfo) noexcept;
CK_RV VELT_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR* pPin,
                 CK_ULONG ulPinLen) noexcept;
CK_RV VELT_Logout(CK_SESSION_HANDLE hSession) noexcept;

namespace velt {

// Whether the handle was ever issued.
bool isIssuedHandle(CK_SESSION_HANDLE hSession) noexcept;

// The entry of a handle, open or closed; the unused entry, which reads as zeros, for 0; NULL for a
// handle never issued and for one from before C_Finalize, which has no entry any more.
SessionEntry* findSession(CK_SESSION_HANDLE hSession) noexcept;

// Whether the handle's session is open.
bool isOpenSession(CK_SESSION_HANDLE hSession) noexcept;

// Family of the token in the session's slot; TOKEN_NONE for a handle without an entry.
std::uint8_t sessionTokenType(CK_SESSION_HANDLE hSession) noexcept;

// C_Finalize: frees the table; sessCount stays.
void freeSessions() noexcept;

} // namespace velt
