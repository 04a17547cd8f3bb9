// Signing with RSA and GOST keys, and random bytes.
#include "src/core/signature.h"
#include "src/front/debug.h"
#include "src/objects/object_table.h"
#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_apdu.h"

#include <algorithm>

using velt::ByteView;
using velt::Command;
using velt::exchange;
using velt::report;

CK_MECHANISM pSignMechanismKT{};
std::uint64_t hSignKeyKT = 0;

namespace {

constexpr std::size_t PADDING_FRAME = 3; // 00 01 before the padding and 00 behind it
constexpr std::size_t MAX_RANDOM = 256;

// A step that the token refused.
CK_RV refuse(const char* message, std::uint64_t result) noexcept
{
    velt::note(message, result);
    return report("KAZTOKEN Sign key handle ", hSignKeyKT, CKR_FUNCTION_FAILED);
}

PubKeyAttr* rsaKeyBefore() noexcept
{
    PubKeyAttr* key = velt::publicKeyOf(velt::entryOf(hSignKeyKT - 1));
    return key != nullptr && key->keyType == CKK_RSA ? key : nullptr;
}

// Whether a block of `size` bytes holds the data and its frame.
bool blockHolds(std::size_t size, std::size_t dataSize) noexcept
{
    return size >= PADDING_FRAME && dataSize <= size - PADDING_FRAME;
}

// Sends the PKCS#1 block (RFC 8017, 9.2) with its lowest byte first: the data turned round in a
// chained command, then the padding.
CK_RV signBlock(CK_SESSION_HANDLE hSession, std::size_t blockSize, ByteView data) noexcept
{
    const std::size_t capacity = blockSize + velt::STATUS_SIZE;
    Command first{KT_CLA_CHAINED, KT_INS_PERFORM_SECURITY, KT_P1_SIGNATURE, KT_P2_SIGN_INPUT};
    first.put(velt::lowByte(data.size())).putTurned(data);
    std::uint64_t result = exchange(hSession, first, capacity);
    if (result != 0) {
        return refuse("KAZTOKEN Sign 1 APDU sign RSA error ", result);
    }
    const std::size_t rest = blockSize - data.size();
    Command last{KT_CLA, KT_INS_PERFORM_SECURITY, KT_P1_SIGNATURE, KT_P2_SIGN_INPUT};
    last.put(velt::lowByte(rest)).put(0x00).putRepeated(0xFF, rest - PADDING_FRAME);
    last.put(0x01).put(0x00).put(KT_LE_RSA);
    result = exchange(hSession, last, capacity);
    return result == 0 ? CKR_OK : refuse("KAZTOKEN Sign 2 APDU sign RSA error ", result);
}

CK_RV signRsa(CK_SESSION_HANDLE hSession, std::uint8_t id, ByteView data) noexcept
{
    const PubKeyAttr* key = rsaKeyBefore();
    if (key == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    if (key->modulusBits != 0 && !blockHolds(key->modulusBits / 8, data.size())) {
        return CKR_DATA_LEN_RANGE;
    }
    const std::uint64_t result =
        exchange(hSession, ktSetSigningKey(KT_USE_RSA, id), KT_REPLY_SHORT);
    if (result != 0) {
        return refuse("KAZTOKEN Sign APDU RSA select key error ", result);
    }
    if (key->modulusBits == 0) {
        fGetPublicKeyKT(nullptr, hSession, hSignKeyKT - 1);
    }
    if (key->modulusBits == 0) {
        return CKR_KEY_HANDLE_INVALID;
    }
    const std::size_t blockSize = key->modulusBits / 8;
    return blockHolds(blockSize, data.size()) ? signBlock(hSession, blockSize, data)
                                              : CKR_DATA_LEN_RANGE;
}

CK_RV signGost(CK_SESSION_HANDLE hSession, std::uint8_t id, ByteView data) noexcept
{
    constexpr std::size_t LE_SIZE = 1;
    if (data.size() > velt::MAX_COMMAND_DATA - LE_SIZE) {
        return CKR_DATA_LEN_RANGE;
    }
    std::uint64_t result = exchange(hSession, ktSetSigningKey(KT_USE_GOST, id), KT_REPLY_SHORT);
    if (result != 0) {
        return refuse("KAZTOKEN Sign APDU GOST select key error ", result);
    }
    Command sign{KT_CLA, KT_INS_PERFORM_SECURITY, KT_P1_SIGNATURE, KT_P2_SIGN_INPUT};
    sign.putCounted(data).put(KT_LE_GOST);
    result = exchange(hSession, sign, KT_REPLY_GOST);
    return result == 0 ? CKR_OK : refuse("KAZTOKEN Sign APDU sign GOST error ", result);
}

// Kept: of an RSA signature of odd length the last byte is not written.
void writeSignature(bool isRsa, ByteView reply, CK_BYTE* pSignature) noexcept
{
    if (isRsa) {
        std::ranges::reverse_copy(reply.subspan(reply.size() % 2), pSignature);
    } else {
        std::ranges::copy(reply, pSignature);
    }
}

} // namespace

CK_RV fSignInitKT(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/, CK_MECHANISM* pMechanism,
                  CK_OBJECT_HANDLE hKey) noexcept
{
    if (pMechanism->mechanism != CKM_RSA_PKCS && pMechanism->mechanism != CKM_VELT_GOST_SIGN) {
        return report("KAZTOKEN SignInit CKR_MECHANISM_INVALID", CKR_MECHANISM_INVALID);
    }
    pSignMechanismKT = *pMechanism;
    hSignKeyKT = hKey;
    return report("KAZTOKEN SignInit CKR_OK", CKR_OK);
}

CK_RV fSignKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_BYTE* pData,
              CK_ULONG ulDataLen, CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept
{
    const bool isRsa = pSignMechanismKT.mechanism == CKM_RSA_PKCS;
    if (!isRsa && pSignMechanismKT.mechanism != CKM_VELT_GOST_SIGN) {
        return report("KAZTOKEN Sign Unknown mechanism", CKR_FUNCTION_FAILED);
    }
    const ObjectEntry* key = velt::liveEntryOf(hSignKeyKT);
    if (key == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    const auto sign = isRsa ? signRsa : signGost;
    const CK_RV result = sign(hSession, key->id[0], {pData, ulDataLen});
    if (result != CKR_OK) {
        return result;
    }
    const ByteView reply = velt::replyData();
    const CK_RV announced = velt::announceSignature(pSignature, pulSignatureLen, reply.size());
    if (announced != CKR_OK) {
        return announced;
    }
    if (pSignature != nullptr) {
        writeSignature(isRsa, reply, pSignature);
    }
    return report("KAZTOKEN Sign CKR_OK", CKR_OK);
}

CK_RV fGenerateRandomKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_BYTE* pRandomData,
                        CK_ULONG ulRandomLen) noexcept
{
    if (ulRandomLen > MAX_RANDOM) {
        return report("KAZTOKEN GenerateRandom error too big len ", ulRandomLen, CKR_ARGUMENTS_BAD);
    }
    const std::uint64_t result =
        exchange(hSession, ktGetChallenge(ulRandomLen), ulRandomLen + velt::STATUS_SIZE);
    if (result != 0) {
        return report("KAZTOKEN GenerateRandom APDU error ", result, CKR_FUNCTION_FAILED);
    }
    velt::copyBounded({pRandomData, ulRandomLen}, velt::replyData());
    return report("KAZTOKEN GenerateRandom CKR_OK", CKR_OK);
}
