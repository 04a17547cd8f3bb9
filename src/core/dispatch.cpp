#include "src/core/dispatch.h"

#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/debug.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"

using velt::callDriver;
using velt::findSession;
using velt::isIssuedHandle;
using velt::isOpenSession;
using velt::report;

std::uint8_t bSignOpInit = 0;

namespace {

// Kept: a session that never logged in counts as logged in here; the card decides.
bool passesAsLoggedIn(CK_SESSION_HANDLE hSession) noexcept
{
    return findSession(hSession)->loginState != LOGGED_OUT;
}

std::uint64_t reloadObjects(CK_SESSION_HANDLE hSession) noexcept
{
    oiFlags |= RELOAD_OBJECTS;
    return VELTObjectsInit(hSession, velt::sessionTokenType(hSession));
}

} // namespace

CK_RV VELT_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount,
                        CK_OBJECT_HANDLE* phObject) noexcept
{
    if (!isIssuedHandle(hSession)) {
        return report("CreateObject CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) {
        return report("CreateObject CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    if (pTemplate == nullptr || ulCount == 0) {
        return report("CreateObject CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    if (!passesAsLoggedIn(hSession)) {
        return report("CreateObject CKR_USER_NOT_LOGGED_IN", CKR_USER_NOT_LOGGED_IN);
    }
    const CK_RV created =
        callDriver(&TokenDriver::CreateObject, hSession, pTemplate, ulCount, phObject);
    if (created != CKR_OK) {
        return report("CreateObject error ", created, created);
    }
    findSession(hSession)->deviceError = 0;
    reloadObjects(hSession);
    return report("CreateObject CKR_OK", CKR_OK);
}

// Kept: the card's answer is not told, only whether the objects could be loaded again.
CK_RV VELT_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) noexcept
{
    if (!isIssuedHandle(hSession)) {
        return report("DestroyObject CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) {
        return report("DestroyObject CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    callDriver(&TokenDriver::DestroyObject, hSession, hObject);
    const std::uint64_t reloaded = reloadObjects(hSession);
    if (reloaded != 0) {
        return report("DestroyObject error ", reloaded, CK_RV{reloaded});
    }
    return report("DestroyObject CKR_OK", CKR_OK);
}

// No entry point leads here: C_GetObjectSize is not offered.
CK_RV VELT_GetObjectSize(CK_SESSION_HANDLE /*hSession*/, CK_OBJECT_HANDLE /*hObject*/,
                         CK_ULONG* /*pulSize*/) noexcept
{
    return report("GetObjectSize CKR_OK", CKR_OK);
}

// Kept: refused with the same code for a valid session, which is not reported.
CK_RV VELT_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM* /*pMechanism*/,
                           CK_ATTRIBUTE* /*pPublicKeyTemplate*/,
                           CK_ULONG /*ulPublicKeyAttributeCount*/,
                           CK_ATTRIBUTE* /*pPrivateKeyTemplate*/,
                           CK_ULONG /*ulPrivateKeyAttributeCount*/,
                           CK_OBJECT_HANDLE* /*phPublicKey*/,
                           CK_OBJECT_HANDLE* /*phPrivateKey*/) noexcept
{
    if (!isIssuedHandle(hSession)) {
        velt::note("GenerateKeyPair CKR_SESSION_HANDLE_INVALID");
    }
    return CKR_SESSION_HANDLE_INVALID;
}

// Kept: always a success, also when the card gave nothing.
CK_RV VELT_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                          CK_ULONG ulRandomLen) noexcept
{
    callDriver(&TokenDriver::GenerateRandom, hSession, pRandomData, ulRandomLen);
    return report("GenerateRandom CKR_OK", CKR_OK);
}

CK_RV VELT_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                    CK_OBJECT_HANDLE hKey) noexcept
{
    if (!isIssuedHandle(hSession)) {
        return report("SignInit CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) {
        return report("SignInit CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    if (!passesAsLoggedIn(hSession)) {
        return report("SignInit CKR_USER_NOT_LOGGED_IN", CKR_USER_NOT_LOGGED_IN);
    }
    if (hKey > ulObjCount) {
        return report("SignInit CKR_KEY_HANDLE_INVALID", CKR_KEY_HANDLE_INVALID);
    }
    const CK_RV begun = callDriver(&TokenDriver::SignInit, hSession, pMechanism, hKey);
    if (begun != CKR_OK) {
        return report("SignInit error ", begun, begun);
    }
    bSignOpInit = 1;
    return report("SignInit CKR_OK", CKR_OK);
}

CK_RV VELT_Sign(CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pSignature,
                CK_ULONG* pulSignatureLen) noexcept
{
    const SessionEntry* session = findSession(hSession);
    if (session != nullptr && velt::tokenTypeOf(session->slotID) == TOKEN_NONE) {
        return report("Sign CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    if (!isIssuedHandle(hSession)) {
        return report("Sign CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!isOpenSession(hSession)) {
        return report("Sign CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    if (!passesAsLoggedIn(hSession)) {
        return report("Sign CKR_USER_NOT_LOGGED_IN", CKR_USER_NOT_LOGGED_IN);
    }
    if (pData == nullptr || ulDataLen == 0) {
        return report("Sign CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    if (bSignOpInit == 0) {
        return report("Sign CKR_OPERATION_NOT_INITIALIZED", CKR_OPERATION_NOT_INITIALIZED);
    }
    const CK_RV signedResult =
        callDriver(&TokenDriver::Sign, hSession, pData, ulDataLen, pSignature, pulSignatureLen);
    if (signedResult != CKR_OK) {
        return report("Sign error ", signedResult, signedResult);
    }
    bSignOpInit = 0;
    return report("Sign CKR_OK", CKR_OK);
}
