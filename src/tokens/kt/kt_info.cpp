// Token description, mechanisms, and the table of the KAZTOKEN's operations.
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_info.h"
#include "src/tokens/kt/kt.h"

namespace {

// Kept: the label has a zero byte behind its blanks and then the start of the maker's name.
constexpr velt::TokenDescription KAZTOKEN{
    .label = velt::padded<32>("KAZTOKEN              \0Fliokluv "),
    .manufacturer = velt::padded<32>("Fliokluv LLP"),
    .model = velt::padded<16>("KAZTOKEN"),
    .maxSessions = 10,
    .minPinLength = 4,
    .maxPinLength = 10,
};

} // namespace

CK_RV fGetTokenInfoKT(TokenDriver* /*table*/, CK_SLOT_ID /*slotID*/, CK_TOKEN_INFO* pInfo) noexcept
{
    velt::describeToken(KAZTOKEN, sessCount, *pInfo);
    return CKR_OK;
}

CK_RV fGetMechanismListKT(TokenDriver* /*table*/, CK_MECHANISM_TYPE* pMechanismList,
                          CK_ULONG* pulCount) noexcept
{
    return velt::listMechanisms(velt::RSA_AND_GOST_MECHANISMS, pMechanismList, pulCount);
}

constexpr TokenDriver driverKT{
    .type = TOKEN_KT,
    .GetTokenInfo = fGetTokenInfoKT,
    .GetMechanismList = fGetMechanismListKT,
    .Login = fLoginKT,
    .Logout = fLogoutKT,
    .ObjectsInit = fObjectsInitKT,
    .CreateObject = fCreateObjectKT,
    .GenerateKeyPair = fGenerateKeyPairKT,
    .SignInit = fSignInitKT,
    .Sign = fSignKT,
    .DestroyObject = fDestroyObjectKT,
    .GenerateRandom = fGenerateRandomKT,
    .GetPublicKey = fGetPublicKeyKT,
    .GetCertificate = fGetCertificateKT,
};
static_assert(velt::complete(driverKT));
