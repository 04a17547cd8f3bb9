// Token description, mechanisms, and the table of the eToken 72K's operations.
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_info.h"
#include "src/tokens/et72k/et72k.h"

using velt::ByteView;

namespace {

// Kept: behind the label's blanks stand zero bytes and the start of the maker's name.
constexpr velt::TokenDescription ETOKEN_72K{
    .label = velt::padded<32>("EToken                \0\0\0Aladdin"),
    .manufacturer = velt::padded<32>("Aladdin"),
    .model = velt::padded<16>("EToken 72K"),
    .maxSessions = 10,
    .minPinLength = 4,
    .maxPinLength = 10,
};

} // namespace

CK_RV fGetTokenInfoET72K(TokenDriver* /*table*/, CK_SLOT_ID /*slotID*/,
                         CK_TOKEN_INFO* pInfo) noexcept
{
    velt::describeToken(ETOKEN_72K, sessCount, *pInfo);
    velt::copyBounded(pInfo->serialNumber,
                      ByteView{tokenSN}.first(static_cast<std::size_t>(tokenSNLen)));
    return CKR_OK;
}

CK_RV fGetMechanismListET72K(TokenDriver* /*table*/, CK_MECHANISM_TYPE* pMechanismList,
                             CK_ULONG* pulCount) noexcept
{
    return velt::listMechanisms(velt::RSA_AND_GOST_MECHANISMS, pMechanismList, pulCount);
}

constexpr TokenDriver driverET72K{
    .type = TOKEN_ET72K,
    .GetTokenInfo = fGetTokenInfoET72K,
    .GetMechanismList = fGetMechanismListET72K,
    .Login = fLoginET72K,
    .Logout = fLogoutET72K,
    .ObjectsInit = fObjectsInitET72K,
    .CreateObject = fCreateObjectET72K,
    .GenerateKeyPair = fGenerateKeyPairET72K,
    .SignInit = fSignInitET72K,
    .Sign = fSignET72K,
    .DestroyObject = fDestroyObjectET72K,
    .GenerateRandom = fGenerateRandomET72K,
    .GetPublicKey = fGetPublicKeyET72K,
    .GetCertificate = fGetCertificateET72K,
};
static_assert(velt::complete(driverET72K));
