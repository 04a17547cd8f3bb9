// Token description, mechanisms, login, and the table of the JaCarta's operations.
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_info.h"
#include "src/front/debug.h"
#include "src/tokens/jc/jc.h"
#include "src/tokens/jc/jc_applet.h"

#include <array>

using velt::JC_APPLET;
using velt::report;

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

// Kept: the signing mechanism is listed under another number than SignInit takes.
constexpr std::array<CK_MECHANISM_TYPE, 4> MECHANISMS{
    CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_PKCS, CKM_VELT_GOST_KEY_PAIR_GEN, CKM_VELT_GOST_SIGN};

} // namespace

std::uint64_t fSelectAppletJC(CK_SESSION_HANDLE hSession) noexcept
{
    return velt::selectApplet(JC_APPLET, hSession);
}

CK_RV fGetTokenInfoJC(TokenDriver* /*table*/, CK_SLOT_ID /*slotID*/, CK_TOKEN_INFO* pInfo) noexcept
{
    velt::describeToken(JACARTA, sessCount, *pInfo);
    return CKR_OK;
}

CK_RV fGetMechanismListJC(TokenDriver* /*table*/, CK_MECHANISM_TYPE* pMechanismList,
                          CK_ULONG* pulCount) noexcept
{
    return velt::listMechanisms(MECHANISMS, pMechanismList, pulCount);
}

CK_RV fLoginJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
               CK_ULONG ulPinLen) noexcept
{
    return velt::verifyPin(JC_APPLET, hSession, {pPin, ulPinLen});
}

CK_RV fLogoutJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t result =
        velt::exchange(hSession, velt::APPLET_RESET, velt::APPLET_REPLY_SHORT);
    if (result != 0) {
        return result;
    }
    JCAppletSelected = 0;
    return report("JaCarta Logout CKR_OK", CKR_OK);
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
