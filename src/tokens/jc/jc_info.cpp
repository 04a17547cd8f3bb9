// Token description, mechanisms, and the table of the JaCarta's operations.
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_info.h"
#include "src/tokens/jc/jc.h"

namespace {

// Kept: behind the label's blanks stand zero bytes and the start of the maker's name.
constexpr velt::TokenDescription JACARTA{
    .label = velt::padded<32>("JaCarta               \0\0\0\0Aladdi"),
    .manufacturer = velt::padded<32>("Aladdin"),
    .model = velt::padded<16>("JaCarta PKI"),
    .maxSessions = 10,
    .minPinLength = 4,
    .maxPinLength = 10,
};

} // namespace

CK_RV fGetTokenInfoJC(TokenDriver* /*table*/, CK_SLOT_ID /*slotID*/, CK_TOKEN_INFO* pInfo) noexcept
{
    velt::describeToken(JACARTA, sessCount, *pInfo);
    return CKR_OK;
}

CK_RV fGetMechanismListJC(TokenDriver* /*table*/, CK_MECHANISM_TYPE* pMechanismList,
                          CK_ULONG* pulCount) noexcept
{
    // Kept: the signing mechanism is listed under another number than SignInit takes.
    return velt::listMechanisms(velt::RSA_AND_GOST_MECHANISMS, pMechanismList, pulCount);
}

constexpr TokenDriver driverJC{
    .type = TOKEN_JC,
    .GetTokenInfo = fGetTokenInfoJC,
    .GetMechanismList = fGetMechanismListJC,
    .Login = fLoginJC,
    .Logout = fLogoutJC,
    .ObjectsInit = fObjectsInitJC,
    .CreateObject = fCreateObjectJC,
    .GenerateKeyPair = fGenerateKeyPairJC,
    .SignInit = fSignInitJC,
    .Sign = fSignJC,
    .DestroyObject = fDestroyObjectJC,
    .GenerateRandom = fGenerateRandomJC,
    .GetPublicKey = fGetPublicKeyJC,
    .GetCertificate = fGetCertificateJC,
};
static_assert(velt::complete(driverJC));
