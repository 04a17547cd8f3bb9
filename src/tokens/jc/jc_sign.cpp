// Signing with RSA and GOST keys, and random bytes.
#include "src/core/signature.h"
#include "src/front/debug.h"
#include "src/tokens/jc/jc.h"
#include "src/tokens/jc/jc_applet.h"

#include <array>

using velt::ByteRoom;
using velt::ByteView;
using velt::Command;
using velt::exchange;
using velt::JC_APPLET;
using velt::report;

CK_MECHANISM pSignMechanismJC{};
std::uint64_t hSignKeyJC = 0;

namespace {

constexpr std::size_t MAX_RANDOM = 256;

Command rsaCommand(ByteView name, ByteView data) noexcept
{
    Command command{velt::APPLET_CLA, velt::APPLET_INS_SIGN, velt::JC_SIGN_RSA,
                    velt::JC_SIGN_RSA_P2};
    velt::putExtendedLength(command, velt::namedSize(name) + 2 + velt::APPLET_RSA_BLOCK);
    velt::putName(command, name)
        .put(velt::highByte(velt::APPLET_RSA_BLOCK))
        .put(velt::lowByte(velt::APPLET_RSA_BLOCK))
        .put(velt::padBlock(data));
    return command;
}

CK_RV signRsa(CK_SESSION_HANDLE hSession, ByteView name, ByteView data,
              std::uint64_t& result) noexcept
{
    if (data.size() > velt::MAX_BLOCK_DATA) {
        return CKR_DATA_LEN_RANGE;
    }
    result = exchange(hSession, rsaCommand(name, data), velt::JC_REPLY_LONG);
    return CKR_OK;
}

CK_RV signGost(CK_SESSION_HANDLE hSession, ByteView name, ByteView data,
               std::uint64_t& result) noexcept
{
    if (!velt::fitsGostCommand(name, data)) {
        return CKR_DATA_LEN_RANGE;
    }
    result =
        exchange(hSession, velt::gostCommand(velt::JC_SIGN_GOST, name, data), velt::JC_REPLY_GOST);
    return CKR_OK;
}

// Kept: of a GOST signature always both halves, whatever the reply's length; the buffer is the
// host's and ends where it said.
void writeSignature(bool isRsa, std::size_t length, ByteRoom signature) noexcept
{
    if (isRsa) {
        velt::copyBounded(signature, ByteView{pbyOutput}.first(length));
        return;
    }
    std::array<std::uint8_t, velt::APPLET_GOST_SIZE> halves;
    velt::turnHalf(ByteRoom{halves}.first(velt::APPLET_GOST_HALF), velt::bufferedHalf(0));
    velt::turnHalf(ByteRoom{halves}.last(velt::APPLET_GOST_HALF), velt::bufferedHalf(1));
    velt::copyBounded(signature, halves);
}

} // namespace

CK_RV fSignInitJC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM* pMechanism,
                  CK_OBJECT_HANDLE hKey) noexcept
{
    return velt::recordSigning(JC_APPLET, *pMechanism, hKey, pSignMechanismJC, hSignKeyJC);
}

CK_RV fSignJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_BYTE* pData,
              CK_ULONG ulDataLen, CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept
{
    const bool isRsa = pSignMechanismJC.mechanism == CKM_RSA_PKCS;
    if (!isRsa && pSignMechanismJC.mechanism != velt::CKM_JC_GOST_SIGN) {
        return report("JaCarta Sign Unknown mechanism", CKR_FUNCTION_FAILED);
    }
    const ObjectEntry* key = velt::liveEntryOf(hSignKeyJC);
    if (key == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    const auto sign = isRsa ? signRsa : signGost;
    std::uint64_t result = 0;
    if (const CK_RV refused = sign(hSession, velt::cardNameOf(*key), {pData, ulDataLen}, result);
        refused != CKR_OK) {
        return refused;
    }
    if (result != 0) { // Kept: this message for GOST, too.
        return velt::refuseSigning(JC_APPLET, "JaCarta Sign APDU sign RSA error ", result,
                                   hSignKeyJC);
    }
    const std::size_t room = pSignature == nullptr ? 0 : *pulSignatureLen;
    dwReplyLen = velt::replyData().size(); // Kept: the next VERIFY offers it as its capacity.
    if (velt::announceSignature(pSignature, pulSignatureLen, dwReplyLen) != CKR_OK) {
        return report("JaCarta Sign CKR_BUFFER_TOO_SMALL", CKR_BUFFER_TOO_SMALL);
    }
    writeSignature(isRsa, dwReplyLen, {pSignature, room});
    return report("JaCarta Sign CKR_OK", CKR_OK);
}

CK_RV fGenerateRandomJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                        CK_ULONG ulRandomLen) noexcept
{
    if (ulRandomLen > MAX_RANDOM) {
        return report("JaCarta GenerateRandom error too big len ", ulRandomLen, CKR_ARGUMENTS_BAD);
    }
    const std::uint64_t result =
        exchange(hSession, velt::jcGetRandom(ulRandomLen), ulRandomLen + velt::STATUS_SIZE);
    if (result == velt::APPLET_SW_NOT_LOGGED_IN) {
        return report("JaCarta GenerateRandom CKR_USER_NOT_LOGGED_IN", CKR_USER_NOT_LOGGED_IN);
    }
    if (result != 0) {
        return report("JaCarta GenerateRandom CKR_FUNCTION_FAILED", result, CKR_FUNCTION_FAILED);
    }
    velt::copyBounded({pRandomData, ulRandomLen}, velt::replyData());
    return report("JaCarta GenerateRandom CKR_OK", CKR_OK);
}
