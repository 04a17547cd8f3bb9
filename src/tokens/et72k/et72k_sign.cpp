// Signing with RSA and GOST keys, piece by piece; the token gives no random bytes to the host.
#include "src/core/signature.h"
#include "src/front/debug.h"
#include "src/tokens/et72k/et72k.h"
#include "src/tokens/et72k/et72k_applet.h"

#include <algorithm>
#include <array>

using velt::ByteRoom;
using velt::ByteView;
using velt::Command;
using velt::ET72K_APPLET;
using velt::ET_PIECE;
using velt::exchange;
using velt::report;

CK_MECHANISM pSignMechanismET72K{};
std::uint64_t hSignKeyET72K = 0;

namespace {

// A signature as it comes together; bytes that no reply brought are zero.
struct Signature {
    std::array<std::uint8_t, velt::APPLET_RSA_BLOCK> bytes{};
    std::size_t length = 0;

    ByteRoom from(std::size_t place) noexcept { return ByteRoom{bytes}.subspan(place); }
};

CK_RV refuse(velt::Message message, std::uint64_t result) noexcept
{
    return velt::refuseSigning(ET72K_APPLET, message, result, hSignKeyET72K);
}

// The RSA public key right before the signing key, of the same name; or NULL.
PubKeyAttr* publicKeyBefore(const ObjectEntry& signingKey) noexcept
{
    ObjectEntry* entry = velt::entryOf(hSignKeyET72K - 1);
    PubKeyAttr* key = velt::publicKeyOf(entry);
    const bool isPair = key != nullptr && key->keyType == CKK_RSA &&
                        std::ranges::equal(velt::cardNameOf(*entry), velt::cardNameOf(signingKey));
    return isPair ? key : nullptr;
}

std::uint64_t putBlock(CK_SESSION_HANDLE hSession, const velt::RsaBlock& block) noexcept
{
    for (std::size_t offset = 0; offset < block.size(); offset += ET_PIECE) {
        Command put{velt::APPLET_CLA, velt::APPLET_INS_OBJECTS, velt::ET_PUT_BLOCK, 0x00};
        put.put(velt::lowByte(2 + ET_PIECE)).put(0x00).put(velt::lowByte(offset));
        put.put(ByteView{block}.subspan(offset, ET_PIECE));
        const std::uint64_t result = exchange(hSession, put, velt::APPLET_REPLY_SHORT);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

std::uint64_t signBlock(CK_SESSION_HANDLE hSession, ByteView name) noexcept
{
    Command sign{velt::APPLET_CLA, velt::APPLET_INS_SIGN, velt::ET_SIGN_RSA, velt::ET_SIGN_RSA_P2};
    sign.put(velt::lowByte(2 + velt::namedSize(name)))
        .put(velt::highByte(velt::APPLET_RSA_BLOCK))
        .put(velt::lowByte(velt::APPLET_RSA_BLOCK));
    return exchange(hSession, velt::putName(sign, name), velt::APPLET_REPLY_SHORT);
}

// Kept: whole pieces of the reply buffer, also where a reply was shorter.
std::uint64_t readSignature(CK_SESSION_HANDLE hSession, Signature& signature) noexcept
{
    for (std::size_t offset = 0; offset < signature.length; offset += ET_PIECE) {
        const std::uint64_t result =
            exchange(hSession, velt::etReadSignature(offset), velt::ET_REPLY_PIECE);
        if (result != 0) {
            return result;
        }
        velt::copyBounded(signature.from(offset), ByteView{pbyOutput}.first(ET_PIECE));
    }
    return 0;
}

// Kept: without a readable public key the signature is made all the same, and has no bytes.
CK_RV signRsa(CK_SESSION_HANDLE hSession, const ObjectEntry& key, ByteView data,
              Signature& signature) noexcept
{
    const PubKeyAttr* publicKey = publicKeyBefore(key);
    if (publicKey == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    if (data.size() > velt::MAX_BLOCK_DATA) {
        return CKR_DATA_LEN_RANGE;
    }
    if (publicKey->modulusBits == 0) {
        fGetPublicKeyET72K(nullptr, hSession, hSignKeyET72K - 1);
    }
    signature.length = std::min(publicKey->modulusBits / 8, signature.bytes.size());
    std::uint64_t result = putBlock(hSession, velt::padBlock(data));
    if (result != 0) {
        return refuse("EToken72K Sign 1 APDU RSA error ", result);
    }
    result = signBlock(hSession, velt::cardNameOf(key));
    if (result != 0) {
        return refuse("EToken72K Sign 2 APDU RSA error ", result);
    }
    result = readSignature(hSession, signature);
    return result == 0 ? CKR_OK : refuse("EToken72K Sign 3 APDU RSA error ", result);
}

// Stores the half that the last reply brought, turned round. Kept: of a short one the buffer's last
// bytes come first.
void takeHalf(Signature& signature, std::size_t place) noexcept
{
    const std::size_t length = std::min(velt::replyData().size(), velt::APPLET_GOST_HALF);
    velt::turnHalf(signature.from(place).first(length), velt::bufferedHalf(0));
    signature.length += length;
}

CK_RV signGost(CK_SESSION_HANDLE hSession, const ObjectEntry& key, ByteView data,
               Signature& signature) noexcept
{
    const ByteView name = velt::cardNameOf(key);
    if (!velt::fitsGostCommand(name, data)) {
        return CKR_DATA_LEN_RANGE;
    }
    std::uint64_t result =
        exchange(hSession, velt::gostCommand(velt::ET_SIGN_GOST, name, data), velt::ET_REPLY_PIECE);
    if (result != 0) {
        return refuse("EToken72K Sign 1 APDU GOST error ", result);
    }
    takeHalf(signature, 0);
    result = exchange(hSession, velt::ET_GET_GOST_REST, velt::ET_REPLY_PIECE);
    if (result != 0) {
        return refuse("EToken72K Sign 2 APDU GOST error ", result);
    }
    takeHalf(signature, velt::APPLET_GOST_HALF);
    return CKR_OK;
}

} // namespace

CK_RV fSignInitET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/,
                     CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey) noexcept
{
    return velt::recordSigning(ET72K_APPLET, *pMechanism, hKey, pSignMechanismET72K, hSignKeyET72K);
}

CK_RV fSignET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_BYTE* pData,
                 CK_ULONG ulDataLen, CK_BYTE* pSignature, CK_ULONG* pulSignatureLen) noexcept
{
    const bool isRsa = pSignMechanismET72K.mechanism == CKM_RSA_PKCS;
    if (!isRsa && pSignMechanismET72K.mechanism != CKM_VELT_GOST_SIGN) {
        return report("EToken72K Sign Unknown mechanism", CKR_FUNCTION_FAILED);
    }
    const ObjectEntry* key = velt::liveEntryOf(hSignKeyET72K);
    if (key == nullptr) {
        return CKR_KEY_HANDLE_INVALID;
    }
    const auto sign = isRsa ? signRsa : signGost;
    Signature signature;
    CK_RV result = sign(hSession, *key, {pData, ulDataLen}, signature);
    if (result != CKR_OK) {
        return result;
    }
    result = velt::announceSignature(pSignature, pulSignatureLen, signature.length);
    if (result != CKR_OK) {
        return result;
    }
    if (pSignature != nullptr) {
        velt::copyBounded({pSignature, signature.length},
                          ByteView{signature.bytes}.first(signature.length));
    }
    return report("EToken72K Sign CKR_OK", CKR_OK);
}

CK_RV fGenerateRandomET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/,
                           CK_BYTE* /*pRandomData*/, CK_ULONG /*ulRandomLen*/) noexcept
{
    return report("EToken72K GenerateRandom CKR_FUNCTION_NOT_SUPPORTED",
                  CKR_FUNCTION_NOT_SUPPORTED);
}
