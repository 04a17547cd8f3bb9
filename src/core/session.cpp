#include "src/core/session.h"

#include "src/core/readers.h"
#include "src/core/token_driver.h"
#include "src/front/debug.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"

#include <cstdlib>
#include <type_traits>

using velt::findSession;
using velt::isIssuedHandle;
using velt::isOpenSession;
using velt::note;
using velt::report;

SessionEntry* VELTSessions = nullptr;
std::uint64_t sessCount = 0;

static_assert(std::is_trivially_copyable_v<SessionEntry>, "the table grows by realloc");

namespace {

// Handles up to this one were issued before the last C_Finalize and have no entry; the entry of
// handle h is VELTSessions[h - firstStored].
std::uint64_t firstStored = 0;

// What handle 0 reads as.
SessionEntry unusedEntry{};

bool isReadWrite(const SessionEntry& session) noexcept
{
    return (session.flags & CKF_RW_SESSION) != 0;
}

CK_STATE publicState(const SessionEntry& session) noexcept
{
    return isReadWrite(session) ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
}

CK_STATE userState(const SessionEntry& session) noexcept
{
    return isReadWrite(session) ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
}

const SCARD_IO_REQUEST* sendPciOf(DWORD protocol) noexcept
{
    switch (protocol) {
    case SCARD_PROTOCOL_T0:
        return &g_rgSCardT0Pci;
    case SCARD_PROTOCOL_T1:
        return &g_rgSCardT1Pci;
    default:
        return nullptr;
    }
}

// Room for one entry more, behind the unused one; NULL when memory ran out, with the table intact.
SessionEntry* addEntry() noexcept
{
    if (VELTSessions == nullptr) {
        firstStored = sessCount;
    }
    const std::uint64_t position = sessCount - firstStored + 1;
    void* grown = std::realloc(VELTSessions, (position + 1) * sizeof(SessionEntry));
    if (grown == nullptr) {
        return nullptr;
    }
    VELTSessions = static_cast<SessionEntry*>(grown);
    if (position == 1) {
        VELTSessions[0] = {}; // never used, so that a handle is its position until C_Finalize
    }
    ++sessCount;
    return &VELTSessions[position];
}

// What a session has become of once its objects were to be loaded. Kept: it stays open either way.
CK_RV afterLoad(std::uint64_t loaded) noexcept
{
    switch (loaded) {
    case 1:
        return CKR_TOKEN_NOT_RECOGNIZED;
    case 2:
        return CKR_FUNCTION_FAILED;
    default:
        return CKR_OK;
    }
}

CK_RV loadToken(CK_SESSION_HANDLE hSession, std::uint8_t tokenType) noexcept
{
    const CK_RV loaded = afterLoad(VELTObjectsInit(hSession, tokenType));
    if (loaded != CKR_OK) {
        return loaded;
    }
    if (stVELTTokens.type != tokenType && fVELTTokensInit(&stVELTTokens, tokenType) != 0) {
        return report("OpenSession CKR_FUNCTION_FAILED", CKR_FUNCTION_FAILED);
    }
    note("OpenSession Session number=", hSession);
    return report("OpenSession CKR_OK", CKR_OK);
}

bool tokenIsIdCardWithOtherPinLength(CK_SLOT_ID slotID, CK_ULONG ulPinLen) noexcept
{
    constexpr CK_ULONG ID_CARD_PIN_LENGTH = 4;
    return ulPinLen != ID_CARD_PIN_LENGTH && velt::tokenTypeOf(slotID) == TOKEN_IDC;
}

CK_RV verifyUser(SessionEntry& session, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
                 CK_ULONG ulPinLen) noexcept
{
    const CK_RV verified = velt::callDriver(&TokenDriver::Login, hSession, pPin, ulPinLen);
    if (verified != CKR_OK) {
        return report("Login APDU error", verified, verified);
    }
    session.loginState = LOGGED_IN;
    session.state = userState(session);
    return report("Login CKR_OK", CKR_OK);
}

} // namespace

CK_RV VELT_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, void* pApplication, CK_NOTIFY notify,
                       CK_SESSION_HANDLE* phSession) noexcept
{
    if ((flags & CKF_SERIAL_SESSION) == 0) {
        return report("OpenSession CKR_SESSION_PARALLEL_NOT_SUPPORTED",
                      CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    }
    if (!velt::isReaderOrPseudoSlot(slotID)) {
        return report("OpenSession CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    const std::uint8_t tokenType = velt::tokenTypeOf(slotID);
    note("OpenSession TokenID = ", tokenType);
    if (tokenType == TOKEN_NONE) {
        return report("OpenSession CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    SCARDHANDLE hCard = 0;
    DWORD protocol = 0;
    const LONG connected = SCardConnect(hSC, velt::readerName(slotID), SCARD_SHARE_SHARED,
                                        SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &hCard, &protocol);
    if (connected != SCARD_S_SUCCESS) {
        return report("OpenSession CKR_DEVICE_ERROR SCardConnect err: ",
                      static_cast<std::uint64_t>(connected), CKR_DEVICE_ERROR);
    }
    SessionEntry* session = addEntry();
    if (session == nullptr) {
        SCardDisconnect(hCard, SCARD_LEAVE_CARD);
        return CKR_HOST_MEMORY;
    }
    *session = {.hSession = sessCount,
                .isOpen = 1,
                .slotID = slotID,
                .flags = flags,
                .pApplication = pApplication,
                .notify = notify,
                .state = 0,
                .hCard = hCard,
                .activeProtocol = protocol,
                .pioSendPci = sendPciOf(protocol),
                .loginState = NEVER_LOGGED_IN,
                .deviceError = 0};
    session->state = publicState(*session);
    *phSession = sessCount;
    return loadToken(sessCount, tokenType);
}

CK_RV VELT_CloseSession(CK_SESSION_HANDLE hSession) noexcept
{
    note("CloseSession Session number=", hSession);
    if (!isIssuedHandle(hSession)) {
        return report("CloseSession CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) {
        return report("CloseSession CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    SessionEntry* session = findSession(hSession);
    if (SCardDisconnect(session->hCard, SCARD_LEAVE_CARD) != SCARD_S_SUCCESS) {
        return report("CloseSession CKR_DEVICE_ERROR", CKR_DEVICE_ERROR);
    }
    session->isOpen = 0;
    return report("CloseSession CKR_OK", CKR_OK);
}

// Kept: a session of the slot that is closed already ends the walk with CKR_SESSION_CLOSED, and the
// sessions behind it stay open.
CK_RV VELT_CloseAllSessions(CK_SLOT_ID slotID) noexcept
{
    if (!velt::isReaderOrPseudoSlot(slotID)) {
        return report("CloseAllSessions CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    for (CK_SESSION_HANDLE handle = firstStored + 1; handle <= sessCount; ++handle) {
        const SessionEntry* session = findSession(handle);
        if (session == nullptr || session->slotID != slotID) {
            continue;
        }
        const CK_RV closed = VELT_CloseSession(handle);
        if (closed != CKR_OK) {
            note("CloseAllSessions Session number=", handle);
            return report("CloseAllSessions error", closed, closed);
        }
    }
    return report("CloseAllSessions CKR_OK", CKR_OK);
}

CK_RV VELT_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO* pInfo) noexcept
{
    note("GetSessionInfo hSession=", hSession);
    if (pInfo == nullptr) {
        return report("GetSessionInfo CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    if (hSession > sessCount) {
        return report("GetSessionInfo CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) { // handle 0 among them
        return report("GetSessionInfo CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    SessionEntry* session = findSession(hSession);
    if (velt::tokenTypeOf(session->slotID) == TOKEN_NONE) {
        return report("GetSessionInfo CKR_DEVICE_REMOVED", CKR_DEVICE_REMOVED);
    }
    pInfo->slotID = session->slotID;
    pInfo->state = session->state;
    pInfo->flags = session->flags;
    pInfo->ulDeviceError = session->deviceError;
    session->deviceError = 0;
    return report("GetSessionInfo CKR_OK", CKR_OK);
}

CK_RV VELT_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR* pPin,
                 CK_ULONG ulPinLen) noexcept
{
    if (hSession == 0) {
        note("Login hSession is NULL!");
    } else {
        note("Login hSession=", hSession);
    }
    if (!isIssuedHandle(hSession)) {
        return report("Login CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) {
        return report("Login CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    SessionEntry* session = findSession(hSession);
    if (session->loginState == LOGGED_IN) {
        return report("Login CKR_USER_ALREADY_LOGGED_IN", CKR_USER_ALREADY_LOGGED_IN);
    }
    if (userType != CKU_USER || pPin == nullptr ||
        tokenIsIdCardWithOtherPinLength(session->slotID, ulPinLen)) {
        return report("Login CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    if (velt::tokenTypeOf(session->slotID) == TOKEN_NONE) {
        return report("Login CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    return verifyUser(*session, hSession, pPin, ulPinLen);
}

// Kept: the login state is read before the handle is checked, and the state that is set back is
// that of the session opened last.
CK_RV VELT_Logout(CK_SESSION_HANDLE hSession) noexcept
{
    SessionEntry* session = findSession(hSession);
    if (session != nullptr && session->loginState == NEVER_LOGGED_IN) {
        return report("Logout CKR_USER_NOT_LOGGED_IN", CKR_USER_NOT_LOGGED_IN);
    }
    if (!isIssuedHandle(hSession)) {
        return report("Logout CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (session == nullptr || session->loginState == LOGGED_OUT) {
        return report("Logout CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    const CK_RV result = velt::callDriver(&TokenDriver::Logout, hSession);
    if (result != CKR_OK) {
        return report("Logout APDU error", result, CKR_FUNCTION_FAILED);
    }
    session->loginState = LOGGED_OUT;
    findSession(sessCount)->state = publicState(*session);
    return report("Logout CKR_OK", CKR_OK);
}

namespace velt {

bool isIssuedHandle(CK_SESSION_HANDLE hSession) noexcept
{
    return hSession != 0 && hSession <= sessCount;
}

SessionEntry* findSession(CK_SESSION_HANDLE hSession) noexcept
{
    if (hSession == 0) {
        return &unusedEntry;
    }
    if (VELTSessions == nullptr || hSession <= firstStored || hSession > sessCount) {
        return nullptr;
    }
    return &VELTSessions[hSession - firstStored];
}

bool isOpenSession(CK_SESSION_HANDLE hSession) noexcept
{
    const SessionEntry* session = findSession(hSession);
    return session != nullptr && session->isOpen != 0;
}

std::uint8_t sessionTokenType(CK_SESSION_HANDLE hSession) noexcept
{
    const SessionEntry* session = findSession(hSession);
    return session == nullptr ? std::uint8_t{TOKEN_NONE} : tokenTypeOf(session->slotID);
}

void freeSessions() noexcept
{
    std::free(VELTSessions);
    VELTSessions = nullptr;
}

} // namespace velt
