// Signing with one of the two private keys, and the two operations that the card refuses.
#include "src/core/signature.h"
#include "src/front/debug.h"
#include "src/objects/object_table.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/idc/idc_apdu.h"

#include <algorithm>

using velt::ByteView;
using velt::exchange;
using velt::report;

CK_MECHANISM pSignMechanismIDC{};
std::uint64_t hSignKeyIDC = 0;

namespace {

// Has the card sign; the signature is then the last reply's data.
CK_RV signOnCard(CK_SESSION_HANDLE hSession, std::uint8_t keyId, ByteView data) noexcept
{
    exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS); // Kept: the next SELECT tells
    std::uint64_t result = exchange(hSession, IDC_SELECT_KEYS, IDC_REPLY_STATUS);
    // Kept: a card without the key directory is asked to sign all the same.
    if (result != 0 && result != IDC_SW_FILE_NOT_FOUND) {
        return report("IDCard Sign 1 APDU error ", result, CKR_DEVICE_ERROR);
    }
    result = exchange(hSession, idcSetSigningKey(keyId), IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard Sign 2 APDU error ", result, CKR_DEVICE_ERROR);
    }
    // Kept: the data goes as it is, neither hashed nor padded, with the low eight bits of its
    // length as Lc and no Le.
    velt::Command sign{IDC_CLA, IDC_INS_INTERNAL_AUTHENTICATE, IDC_P1_SIGN, IDC_P2_SIGN};
    sign.putCounted(data);
    result = exchange(hSession, sign, IDC_REPLY_BLOCK);
    if (result != 0) {
        return report("IDCard Sign 3 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    return CKR_OK;
}

} // namespace

CK_RV fSignInitIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM* pMechanism,
                   CK_OBJECT_HANDLE hKey) noexcept
{
    if (pMechanism->mechanism != CKM_RSA_PKCS) {
        return report("IDCard SignInit CKR_MECHANISM_INVALID", CKR_MECHANISM_INVALID);
    }
    pSignMechanismIDC = *pMechanism;
    hSignKeyIDC = hKey;
    return CKR_OK;
}

CK_RV fSignIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_BYTE* pData,
               CK_ULONG ulDataLen, CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept
{
    const ObjectEntry* key = velt::entryOf(hSignKeyIDC);
    if (key == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    if (ulDataLen > velt::MAX_COMMAND_DATA) {
        return CKR_DATA_LEN_RANGE;
    }
    // Kept: an entry of any class signs with its ID, an empty one with key reference 00.
    const CK_RV result = signOnCard(hSession, key->id[0], {pData, ulDataLen});
    if (result != CKR_OK) {
        return result;
    }
    const ByteView signature = velt::replyData();
    const CK_RV announced = velt::announceSignature(pSignature, pulSignatureLen, signature.size());
    if (announced == CKR_OK && pSignature != nullptr) {
        std::ranges::copy(signature, pSignature);
    }
    return announced;
}

CK_RV fDestroyObjectIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/,
                        CK_OBJECT_HANDLE /*hObject*/) noexcept
{
    return report("IDCard DestroyObject CKR_FUNCTION_NOT_SUPPORTED", CKR_FUNCTION_NOT_SUPPORTED);
}

CK_RV fGenerateRandomIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/,
                         CK_BYTE* /*pRandomData*/, CK_ULONG /*ulRandomLen*/) noexcept
{
    return report("IDCard GenerateRandom CKR_FUNCTION_NOT_SUPPORTED", CKR_FUNCTION_NOT_SUPPORTED);
}
