// Token description, mechanisms, and the table of the ID card's operations.
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/token_info.h"
#include "src/tokens/idc/idc.h"

#include <array>

namespace {

constexpr CK_ULONG PIN_LENGTH = 4;

constexpr velt::TokenDescription ID_CARD{
    .label = velt::padded<32>("Kazakhstan IDCard"),
    .manufacturer = velt::padded<32>("KZ"),
    .model = velt::padded<16>("KZIDCARD"),
    .maxSessions = 1,
    .minPinLength = PIN_LENGTH,
    .maxPinLength = PIN_LENGTH,
};

constexpr std::array<CK_MECHANISM_TYPE, 2> MECHANISMS{CKM_RSA_PKCS, CKM_RSA_PKCS_KEY_PAIR_GEN};

} // namespace

CK_RV fGetTokenInfoIDC(TokenDriver* /*table*/, CK_SLOT_ID /*slotID*/, CK_TOKEN_INFO* pInfo) noexcept
{
    velt::describeToken(ID_CARD, 0, *pInfo);
    return CKR_OK;
}

CK_RV fGetMechanismListIDC(TokenDriver* /*table*/, CK_MECHANISM_TYPE* pMechanismList,
                           CK_ULONG* pulCount) noexcept
{
    return velt::listMechanisms(MECHANISMS, pMechanismList, pulCount);
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
