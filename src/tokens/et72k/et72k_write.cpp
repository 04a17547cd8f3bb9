// What changes the token: writing a certificate, making a key pair, destroying an object.
#include "src/front/debug.h"
#include "src/tokens/et72k/et72k.h"
#include "src/tokens/et72k/et72k_applet.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>

using velt::ByteView;
using velt::Command;
using velt::ET72K_APPLET;
using velt::ET_PIECE;
using velt::report;

namespace {

constexpr std::size_t NEW_NAME_SIZE = 12;

// The token appends what comes. Kept: the loop ends one byte early, so a last piece of a single
// byte is never sent; and each reply's capacity is the length of the one before.
std::uint64_t sendPieces(CK_SESSION_HANDLE hSession, ByteView stored) noexcept
{
    for (std::size_t offset = 0; offset + 1 < stored.size(); offset += ET_PIECE) {
        const ByteView piece = stored.subspan(offset, std::min(ET_PIECE, stored.size() - offset));
        Command put{velt::APPLET_CLA, velt::APPLET_INS_OBJECTS, velt::ET_PUT_CERTIFICATE, 0x00};
        put.put(velt::lowByte(2 + piece.size())).put(0x00).putCounted(piece);
        const std::uint64_t result = velt::exchangeAsIs(hSession, put);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

// Kept: what was sent stays on the token when a later step fails.
CK_RV sendCertificate(CK_SESSION_HANDLE hSession, ByteView stored, ByteView name) noexcept
{
    std::uint64_t result = velt::exchange(hSession, velt::etPutCertificateSize(stored.size()),
                                          velt::APPLET_REPLY_SHORT);
    if (result != 0) {
        return report("EToken72K CreateObject APDU write certificate size error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result = sendPieces(hSession, stored);
    if (result != 0) {
        return report("EToken72K CreateObject APDU write certificate error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result = velt::exchangeAsIs(
        hSession, velt::commandOn(name, velt::APPLET_INS_OBJECTS, velt::ET_BIND_CERTIFICATE));
    if (result != 0) {
        return report("EToken72K CreateObject APDU set certificate error ", result,
                      CKR_FUNCTION_FAILED);
    }
    return report("EToken72K CreateObject CKR_OK", CKR_OK);
}

// Bytes from 1 to 255, so the name is a text, too. Kept: from the process-wide generator, seeded
// with the time: two names made within a second are the same.
std::array<std::uint8_t, NEW_NAME_SIZE> inventName() noexcept
{
    std::array<std::uint8_t, NEW_NAME_SIZE> name{};
    // The names are told apart, not kept secret. NOLINTBEGIN(cert-msc*)
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (std::uint8_t& byte : name) {
        byte = static_cast<std::uint8_t>(std::rand() % 255 + 1);
    }
    // NOLINTEND(cert-msc*)
    return name;
}

} // namespace

CK_RV fCreateObjectET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                         CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount,
                         CK_OBJECT_HANDLE* /*phObject*/) noexcept
{
    velt::AppletCertificate certificate;
    const CK_RV prepared =
        velt::prepareCertificate(ET72K_APPLET, hSession, {pTemplate, ulCount}, certificate);
    return prepared == CKR_OK
               ? sendCertificate(hSession, certificate.stored.view(), certificate.name.view())
               : prepared;
}

CK_RV fGenerateKeyPairET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                            CK_MECHANISM* pMechanism, CK_ATTRIBUTE* /*pPublicKeyTemplate*/,
                            CK_ULONG /*ulPublicKeyAttributeCount*/,
                            CK_ATTRIBUTE* /*pPrivateKeyTemplate*/,
                            CK_ULONG /*ulPrivateKeyAttributeCount*/, CK_OBJECT_HANDLE* phPublicKey,
                            CK_OBJECT_HANDLE* phPrivateKey) noexcept
{
    const auto name = inventName();
    return velt::generateUnder(ET72K_APPLET, hSession, name, pMechanism->mechanism, phPublicKey,
                               phPrivateKey);
}

CK_RV fDestroyObjectET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                          CK_OBJECT_HANDLE hObject) noexcept
{
    return velt::destroyNamed(ET72K_APPLET, hSession, hObject);
}
