// What changes the token: writing a certificate, making a key pair, destroying an object.
#include "src/front/debug.h"
#include "src/tokens/jc/jc.h"
#include "src/tokens/jc/jc_applet.h"

#include <array>

using velt::ByteView;
using velt::JC_APPLET;
using velt::report;

namespace {

constexpr std::size_t NEW_NAME_SIZE = 16;

// The whole certificate in one command of extended length.
std::uint64_t sendCertificate(CK_SESSION_HANDLE hSession, ByteView stored, ByteView name) noexcept
{
    velt::Command write{velt::APPLET_CLA, velt::APPLET_INS_OBJECTS, velt::JC_WRITE_CERTIFICATE,
                        0x00};
    velt::putExtendedLength(write, 2 + velt::namedSize(name) + stored.size());
    write.put(velt::highByte(stored.size())).put(velt::lowByte(stored.size()));
    velt::putName(write, name).put(stored);
    return velt::exchange(hSession, write, velt::APPLET_REPLY_SHORT);
}

} // namespace

CK_RV fCreateObjectJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                      CK_ULONG ulCount, CK_OBJECT_HANDLE* /*phObject*/) noexcept
{
    velt::AppletCertificate certificate;
    const CK_RV prepared =
        velt::prepareCertificate(JC_APPLET, hSession, {pTemplate, ulCount}, certificate);
    if (prepared != CKR_OK) {
        return prepared;
    }
    const std::uint64_t result =
        sendCertificate(hSession, certificate.stored.view(), certificate.name.view());
    if (result != 0) {
        return report("JaCarta CreateObject APDU write certificate error ", result,
                      CKR_FUNCTION_FAILED);
    }
    return report("JaCarta CreateObject CKR_OK", CKR_OK);
}

// Kept: the token is asked for the name's random bytes before the mechanism is looked at.
CK_RV fGenerateKeyPairJC(TokenDriver* table, CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism,
                         CK_ATTRIBUTE* /*pPublicKeyTemplate*/,
                         CK_ULONG /*ulPublicKeyAttributeCount*/,
                         CK_ATTRIBUTE* /*pPrivateKeyTemplate*/,
                         CK_ULONG /*ulPrivateKeyAttributeCount*/, CK_OBJECT_HANDLE* phPublicKey,
                         CK_OBJECT_HANDLE* phPrivateKey) noexcept
{
    std::array<std::uint8_t, NEW_NAME_SIZE> name{};
    const CK_RV drawn = fGenerateRandomJC(table, hSession, name.data(), name.size());
    if (drawn != CKR_OK) {
        return report("JaCarta GenerateKeyPair gen label error ", drawn, CKR_FUNCTION_FAILED);
    }
    return velt::generateUnder(JC_APPLET, hSession, name, pMechanism->mechanism, phPublicKey,
                               phPrivateKey);
}

CK_RV fDestroyObjectJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                       CK_OBJECT_HANDLE hObject) noexcept
{
    return velt::destroyNamed(JC_APPLET, hSession, hObject);
}
