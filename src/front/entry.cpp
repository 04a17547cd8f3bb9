// The entry points that the module offers: each reports its name, checks that the module is
// initialised, takes the lock and passes its arguments to the core untouched.
#include "src/core/bytes.h"
#include "src/core/dispatch.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/debug.h"
#include "src/front/lock.h"
#include "src/front/pkcs11.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "src/objects/retrieval.h"
#include "src/objects/search.h"

using velt::isInitialised;
using velt::LockHolder;
using velt::note;
using velt::report;

namespace {

constexpr auto MANUFACTURER = velt::padded<32>("VELT (velt.example)");
constexpr auto DESCRIPTION = velt::padded<32>("VELT PKCS11 Library");

template <class... Parameters, class... Arguments>
CK_RV enter(const char* name, CK_RV (*operation)(Parameters...) noexcept,
            Arguments... arguments) noexcept
{
    note(name);
    if (!isInitialised()) {
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    }
    const LockHolder lock;
    if (!isInitialised()) { // finalised while this call waited
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    }
    return operation(arguments...);
}

// False: PC/SC keeps the context; the tables then stay, too.
bool releaseContext() noexcept
{
    return hSC == 0 || SCardReleaseContext(hSC) == SCARD_S_SUCCESS;
}

// Kept: counted by readers, not by objects; the other blocks are held until the next load.
std::size_t blocksFreedAtFinalise() noexcept
{
    return rCount > 0 ? static_cast<std::size_t>(rCount) : 0;
}

CK_RV finaliseLocked() noexcept
{
    velt::retireReaderNames();
    if (!releaseContext()) {
        return report("Failed SCardReleaseContext", CKR_FUNCTION_FAILED);
    }
    velt::retireObjects(blocksFreedAtFinalise());
    velt::freeSessions();
    velt::freeReaders();
    hSC = 0;
    velt::setInitialised(false);
    return CKR_OK;
}

CK_RV fillInfo(CK_INFO* pInfo) noexcept
{
    pInfo->cryptokiVersion = {2, 20};
    velt::copyBounded(pInfo->manufacturerID, MANUFACTURER);
    pInfo->flags = 0;
    velt::copyBounded(pInfo->libraryDescription, DESCRIPTION);
    pInfo->libraryVersion = {1, 0};
    return CKR_OK;
}

} // namespace

extern "C" {

CK_RV C_Initialize(void* /*pInitArgs*/)
{
    note("C_Initialize");
    if (isInitialised()) {
        return CKR_CRYPTOKI_ALREADY_INITIALIZED;
    }
    const LockHolder lock;
    if (isInitialised()) { // by another thread while this one waited
        return CKR_CRYPTOKI_ALREADY_INITIALIZED;
    }
    velt::setInitialised(true);
    hSC = 0;
    oiFlags = RELOAD_OBJECTS;
    return CKR_OK;
}

CK_RV C_Finalize(void* pReserved)
{
    note("C_Finalize");
    if (!isInitialised()) {
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    }
    if (pReserved != nullptr) {
        return CKR_ARGUMENTS_BAD;
    }
    const LockHolder lock;
    return isInitialised() ? finaliseLocked() : CKR_CRYPTOKI_NOT_INITIALIZED;
}

CK_RV C_GetInfo(CK_INFO* pInfo)
{
    return enter("C_GetInfo", fillInfo, pInfo);
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** ppFunctionList)
{
    VELT_PKCS11_InitDebug();
    note("C_GetFunctionList");
    *ppFunctionList = &functions.standard;
    return CKR_OK;
}

CK_RV C_SetSCContext(SCARDCONTEXT hContext)
{
    note("C_SetSCContext");
    const LockHolder lock;
    hSC = hContext;
    return CKR_OK;
}

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* pSlotList, CK_ULONG* pulCount)
{
    return enter("C_GetSlotList", VELT_GetSlotList, tokenPresent, pSlotList, pulCount);
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO* pInfo)
{
    return enter("C_GetSlotInfo", VELT_GetSlotInfo, slotID, pInfo);
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo)
{
    return enter("C_GetTokenInfo", VELT_GetTokenInfo, slotID, pInfo);
}

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE* pMechanismList, CK_ULONG* pulCount)
{
    return enter("C_GetMechanismList", VELT_GetMechanismList, slotID, pMechanismList, pulCount);
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* pInfo)
{
    return enter("C_GetMechanismInfo", VELT_GetMechanismInfo, slotID, type, pInfo);
}

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, void* pApplication, CK_NOTIFY notify,
                    CK_SESSION_HANDLE* phSession)
{
    return enter("C_OpenSession", VELT_OpenSession, slotID, flags, pApplication, notify, phSession);
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession)
{
    return enter("C_CloseSession", VELT_CloseSession, hSession);
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return enter("C_CloseAllSessions", VELT_CloseAllSessions, slotID);
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO* pInfo)
{
    return enter("C_GetSessionInfo", VELT_GetSessionInfo, hSession, pInfo);
}

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_BYTE* pPin, CK_ULONG ulPinLen)
{
    return enter("C_Login", VELT_Login, hSession, userType, pPin, ulPinLen);
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession)
{
    return enter("C_Logout", VELT_Logout, hSession);
}

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE* phObject)
{
    return enter("C_CreateObject", VELT_CreateObject, hSession, pTemplate, ulCount, phObject);
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    return enter("C_DestroyObject", VELT_DestroyObject, hSession, hObject);
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount)
{
    return enter("C_GetAttributeValue", VELT_GetAttributeValue, hSession, hObject, pTemplate,
                 ulCount);
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount)
{
    return enter("C_FindObjectsInit", VELT_FindObjectsInit, hSession, pTemplate, ulCount);
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* phObject,
                    CK_ULONG ulMaxObjectCount, CK_ULONG* pulObjectCount)
{
    return enter("C_FindObjects", VELT_FindObjects, hSession, phObject, ulMaxObjectCount,
                 pulObjectCount);
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    return enter("C_FindObjectsFinal", VELT_FindObjectsFinal, hSession);
}

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey)
{
    return enter("C_SignInit", VELT_SignInit, hSession, pMechanism, hKey);
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE* pData, CK_ULONG ulDataLen, CK_BYTE* pSignature,
             CK_ULONG* pulSignatureLen)
{
    return enter("C_Sign", VELT_Sign, hSession, pData, ulDataLen, pSignature, pulSignatureLen);
}

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                        CK_ATTRIBUTE* pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                        CK_ATTRIBUTE* pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                        CK_OBJECT_HANDLE* phPublicKey, CK_OBJECT_HANDLE* phPrivateKey)
{
    return enter("C_GenerateKeyPair", VELT_GenerateKeyPair, hSession, pMechanism,
                 pPublicKeyTemplate, ulPublicKeyAttributeCount, pPrivateKeyTemplate,
                 ulPrivateKeyAttributeCount, phPublicKey, phPrivateKey);
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData, CK_ULONG ulRandomLen)
{
    return enter("C_GenerateRandom", VELT_GenerateRandom, hSession, pRandomData, ulRandomLen);
}

} // extern "C"
