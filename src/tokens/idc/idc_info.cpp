// Token description, mechanisms, and the table of the ID card's operations.
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/tokens/idc/idc.h"

#include <algorithm>
#include <array>

namespace {

constexpr auto LABEL = velt::padded<32>("Kazakhstan IDCard");
constexpr auto MANUFACTURER = velt::padded<32>("KZ");
constexpr auto MODEL = velt::padded<16>("KZIDCARD");
constexpr CK_ULONG PIN_LENGTH = 4;
constexpr CK_VERSION VERSION_1_0{1, 0};

constexpr std::array<CK_MECHANISM_TYPE, 2> MECHANISMS{CKM_RSA_PKCS, CKM_RSA_PKCS_KEY_PAIR_GEN};

} // namespace

CK_RV fGetTokenInfoIDC(TokenDriver* /*table*/, CK_SLOT_ID /*slotID*/, CK_TOKEN_INFO* pInfo) noexcept
{
    // The serial number and the time stay zero bytes: the card has no clock, and its number is not
    // read.
    *pInfo = CK_TOKEN_INFO{};
    std::ranges::copy(LABEL, pInfo->label);
    std::ranges::copy(MANUFACTURER, pInfo->manufacturerID);
    std::ranges::copy(MODEL, pInfo->model);
    pInfo->flags = CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    pInfo->ulMaxSessionCount = 1;
    pInfo->ulMaxRwSessionCount = 1;
    pInfo->ulMaxPinLen = PIN_LENGTH;
    pInfo->ulMinPinLen = PIN_LENGTH;
    pInfo->hardwareVersion = VERSION_1_0;
    pInfo->firmwareVersion = VERSION_1_0;
    return CKR_OK;
}

CK_RV fGetMechanismListIDC(TokenDriver* /*table*/, CK_MECHANISM_TYPE* pMechanismList,
                           CK_ULONG* pulCount) noexcept
{
    // Kept: a list that is too short is a success, with the count it needs and nothing written; one
    // that is long enough keeps the caller's count.
    if (pMechanismList == nullptr || *pulCount < MECHANISMS.size()) {
        *pulCount = MECHANISMS.size();
        return CKR_OK;
    }
    std::ranges::copy(MECHANISMS, pMechanismList);
    return CKR_OK;
}

constexpr TokenDriver driverIDC{
    .type = TOKEN_IDC,
    .GetTokenInfo = fGetTokenInfoIDC,
    .GetMechanismList = fGetMechanismListIDC,
    .Login = fLoginIDC,
    .Logout = fLogoutIDC,
    .ObjectsInit = fObjectsInitIDC,
    .CreateObject = fCreateObjectIDC,
    .GenerateKeyPair = fGenerateKeyPairIDC,
    .SignInit = fSignInitIDC,
    .Sign = fSignIDC,
    .DestroyObject = fDestroyObjectIDC,
    .GenerateRandom = fGenerateRandomIDC,
    .GetPublicKey = fGetPublicKeyIDC,
    .GetCertificate = fGetCertificateIDC,
};
static_assert(velt::complete(driverIDC));
