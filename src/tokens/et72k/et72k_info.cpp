// Token description, mechanisms, login, and the table of the eToken 72K's operations.
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_info.h"
#include "src/front/debug.h"
#include "src/tokens/et72k/et72k.h"
#include "src/tokens/et72k/et72k_applet.h"

#include <algorithm>
#include <array>

using velt::ByteView;
using velt::ET72K_APPLET;
using velt::report;

std::array<std::uint8_t, ET72K_SERIAL_SIZE> tokenSN{};
std::int32_t tokenSNLen = 0;

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

constexpr std::array<CK_MECHANISM_TYPE, 4> MECHANISMS{
    CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_PKCS, CKM_VELT_GOST_KEY_PAIR_GEN, CKM_VELT_GOST_SIGN};

constexpr std::array<std::uint8_t, 5> GET_SERIAL{velt::APPLET_CLA, velt::APPLET_INS_STATE,
                                                 velt::ET_GET_SERIAL, 0x00, 0x00};

// What is searched for the end of the serial number. Kept: without a whole reply it is whatever the
// buffer holds.
ByteView serialReply() noexcept
{
    return dwReplyLen < velt::STATUS_SIZE ? ByteView{pbyOutput} : velt::replyData();
}

// Kept: a serial number that cannot be read is no failure, and two zero bytes end it; without them
// there is none.
void readSerial(CK_SESSION_HANDLE hSession) noexcept
{
    tokenSN.fill(0);
    tokenSNLen = 0;
    velt::exchange(hSession, GET_SERIAL, velt::ET_REPLY_SERIAL);
    const ByteView reply = serialReply();
    const auto end = std::search_n(reply.begin(), reply.end(), 2, std::uint8_t{0});
    if (end != reply.end()) {
        const auto length = static_cast<std::size_t>(end - reply.begin());
        tokenSNLen = static_cast<std::int32_t>(velt::copyBounded(tokenSN, reply.first(length)));
    }
}

} // namespace

std::uint64_t fSelectAppletET72K(CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t result = velt::selectApplet(ET72K_APPLET, hSession);
    if (result == 0) {
        readSerial(hSession);
    }
    return result;
}

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
    return velt::listMechanisms(MECHANISMS, pMechanismList, pulCount);
}

CK_RV fLoginET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
                  CK_ULONG ulPinLen) noexcept
{
    return velt::verifyPin(ET72K_APPLET, hSession, {pPin, ulPinLen});
}

CK_RV fLogoutET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t result =
        velt::exchange(hSession, velt::APPLET_RESET, velt::APPLET_REPLY_SHORT);
    if (result != 0) {
        return report("EToken72K Logout error", result, result);
    }
    ET72KAppletSelected = 0;
    return report("EToken72K Logout CKR_OK", CKR_OK);
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
