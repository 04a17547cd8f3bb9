// Loading the objects, and what is read on first use: public keys and certificates.
#include "src/front/debug.h"
#include "src/tokens/jc/jc.h"
#include "src/tokens/jc/jc_applet.h"

#include <algorithm>

using velt::ByteRoom;
using velt::ByteView;
using velt::exchange;
using velt::JC_APPLET;
using velt::LOAD_CARD_FAILURE;
using velt::LOAD_DONE;
using velt::report;

namespace {

CK_RV readRsaKey(CK_SESSION_HANDLE hSession, const ObjectEntry& entry, PubKeyAttr& key) noexcept
{
    const velt::Command get =
        velt::commandOn(velt::cardNameOf(entry), velt::APPLET_INS_OBJECTS, velt::JC_GET_RSA_KEY);
    const std::uint64_t result = exchange(hSession, get, velt::JC_REPLY_RSA_KEY);
    if (result != 0) {
        return report("JaCarta GetPublicKey APDU get RSA public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    const ByteView reply = velt::replyData();
    const std::size_t header = std::min(reply.size(), velt::JC_RSA_KEY_HEADER);
    key.modulusBits = 8 * velt::copyBounded(key.modulus, reply.subspan(header));
    return LOAD_DONE;
}

// Kept: a short reply is filled up with what earlier ones left behind it.
CK_RV readGostKey(CK_SESSION_HANDLE hSession, const ObjectEntry& entry, PubKeyAttr& key) noexcept
{
    const velt::Command get =
        velt::commandOn(velt::cardNameOf(entry), velt::APPLET_INS_KEYS, velt::APPLET_GET_GOST_KEY);
    const std::uint64_t result = exchange(hSession, get, velt::JC_REPLY_GOST);
    if (result != 0) {
        return report("JaCarta GetPublicKey APDU get GOST public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    const ByteRoom value{key.value};
    velt::turnHalf(value.first(velt::APPLET_GOST_HALF), velt::bufferedHalf(0));
    velt::turnHalf(value.last(velt::APPLET_GOST_HALF), velt::bufferedHalf(1));
    key.valueLen = std::min(velt::replyData().size(), value.size());
    return LOAD_DONE;
}

} // namespace

CK_RV fObjectsInitJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    return velt::loadApplet(JC_APPLET, hSession);
}

CK_RV fGetPublicKeyJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                      CK_OBJECT_HANDLE hObject) noexcept
{
    return velt::readPublicKey(hSession, hObject, readRsaKey, readGostKey,
                               JC_APPLET.messages.publicKeyRead);
}

CK_RV fGetCertificateJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                        CK_OBJECT_HANDLE hObject) noexcept
{
    ObjectEntry* entry = velt::entryOf(hObject);
    if (entry == nullptr) {
        return CKR_OK; // a search may ask for the object before the first
    }
    const velt::Command read = velt::commandOn(velt::cardNameOf(*entry), velt::APPLET_INS_OBJECTS,
                                               velt::JC_READ_CERTIFICATE);
    const std::uint64_t result = exchange(hSession, read, velt::JC_REPLY_LONG);
    if (result != 0) {
        return report("JaCarta GetCertificate APDU error ", result, LOAD_CARD_FAILURE);
    }
    return velt::takeCertificate(JC_APPLET, *entry, velt::replyData(), true);
}
