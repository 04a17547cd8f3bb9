// Loading the objects, and what is read on first use, piece by piece: public keys and certificates.
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
using velt::LOAD_CARD_FAILURE;
using velt::LOAD_DONE;
using velt::report;

namespace {

constexpr std::size_t MAX_MODULUS_BITS = 8 * MODULUS_SIZE;

// Asks for an RSA key's size, or for the piece of its modulus at an offset.
std::uint64_t askRsaKey(CK_SESSION_HANDLE hSession, ByteView name, std::uint8_t part,
                        std::size_t offset, std::size_t capacity) noexcept
{
    Command get{velt::APPLET_CLA, velt::APPLET_INS_OBJECTS, velt::ET_GET_RSA_KEY, part};
    get.put(velt::lowByte(2 + velt::namedSize(name)))
        .put(velt::highByte(offset))
        .put(velt::lowByte(offset));
    return exchange(hSession, velt::putName(get, name), capacity);
}

// Kept: nothing is taken back when a piece cannot be read.
CK_RV readRsaKey(CK_SESSION_HANDLE hSession, const ObjectEntry& entry, PubKeyAttr& key) noexcept
{
    const ByteView name = velt::cardNameOf(entry);
    std::uint64_t result =
        askRsaKey(hSession, name, velt::ET_RSA_KEY_SIZE, 0, velt::ET_REPLY_KEY_SIZE);
    if (result != 0) {
        return report("EToken72K GetPublicKey 1 APDU get RSA public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    // Kept: behind a short reply its status counts.
    key.modulusBits = std::min(velt::bigEndian16(pbyOutput[0], pbyOutput[1]), MAX_MODULUS_BITS);
    for (std::size_t offset = 0; offset < key.modulusBits / 8; offset += ET_PIECE) {
        result = askRsaKey(hSession, name, velt::ET_RSA_KEY_PIECE, offset, velt::ET_REPLY_PIECE);
        if (result != 0) {
            return report("EToken72K GetPublicKey 2 APDU get RSA public key error ", result,
                          LOAD_CARD_FAILURE);
        }
        velt::copyBounded(ByteRoom{key.modulus}.subspan(offset), velt::replyData());
    }
    return LOAD_DONE;
}

// Asks for half of a GOST key and tells how much of it the reply brought.
std::uint64_t askGostHalf(CK_SESSION_HANDLE hSession, ByteView name, std::uint8_t p1,
                          std::size_t& length) noexcept
{
    const Command get = velt::commandOn(name, velt::APPLET_INS_KEYS, p1);
    const std::uint64_t result = exchange(hSession, get, velt::ET_REPLY_PIECE);
    length = std::min(velt::replyData().size(), velt::APPLET_GOST_HALF);
    return result;
}

// Kept: the second half is not taken from its reply, which stands where the first one stood, but
// from behind it in the buffer, where longer replies left their bytes.
CK_RV readGostKey(CK_SESSION_HANDLE hSession, const ObjectEntry& entry, PubKeyAttr& key) noexcept
{
    const ByteView name = velt::cardNameOf(entry);
    const ByteRoom value{key.value};
    std::size_t length = 0;
    std::uint64_t result = askGostHalf(hSession, name, velt::APPLET_GET_GOST_KEY, length);
    if (result != 0) {
        return report("EToken72K GetPublicKey 1 APDU get GOST public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    velt::turnHalf(value.first(velt::APPLET_GOST_HALF), velt::bufferedHalf(0));
    key.valueLen = length;
    result = askGostHalf(hSession, name, velt::ET_GET_GOST_KEY_REST, length);
    if (result != 0) {
        return report("EToken72K GetPublicKey 2 APDU get GOST public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    velt::turnHalf(value.last(velt::APPLET_GOST_HALF), velt::bufferedHalf(1));
    key.valueLen += length;
    return LOAD_DONE;
}

using Container = std::array<std::uint8_t, CERT_VALUE_SIZE>;
static_assert(std::tuple_size_v<Container> % ET_PIECE == 0);

// Reads the selected certificate as far as the container goes. Kept: whole pieces, also the last.
CK_RV readContainer(CK_SESSION_HANDLE hSession, Container& container, std::size_t size) noexcept
{
    for (std::size_t offset = 0; offset < std::min(size, container.size()); offset += ET_PIECE) {
        const std::uint64_t result =
            exchange(hSession, velt::etReadCertificate(offset), velt::ET_REPLY_PIECE);
        if (result != 0) {
            return report("EToken72K GetCertificate 3 APDU error ", result, LOAD_CARD_FAILURE);
        }
        velt::copyBounded(ByteRoom{container}.subspan(offset), ByteView{pbyOutput}.first(ET_PIECE));
    }
    return LOAD_DONE;
}

} // namespace

CK_RV fObjectsInitET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    return velt::loadApplet(ET72K_APPLET, hSession);
}

CK_RV fGetPublicKeyET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                         CK_OBJECT_HANDLE hObject) noexcept
{
    return velt::readPublicKey(hSession, hObject, readRsaKey, readGostKey,
                               ET72K_APPLET.messages.publicKeyRead);
}

CK_RV fGetCertificateET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                           CK_OBJECT_HANDLE hObject) noexcept
{
    ObjectEntry* entry = velt::entryOf(hObject);
    if (entry == nullptr) {
        return CKR_OK; // a search may ask for the object before the first
    }
    const Command select = velt::commandOn(velt::cardNameOf(*entry), velt::APPLET_INS_OBJECTS,
                                           velt::ET_SELECT_CERTIFICATE);
    std::uint64_t result = exchange(hSession, select, velt::APPLET_REPLY_SHORT);
    if (result != 0) {
        return report("EToken72K GetCertificate 1 APDU error ", result, LOAD_CARD_FAILURE);
    }
    result = exchange(hSession, velt::ET_GET_CERTIFICATE_SIZE, velt::APPLET_REPLY_SHORT);
    if (result != 0) {
        return report("EToken72K GetCertificate 2 APDU error ", result, LOAD_CARD_FAILURE);
    }
    // Kept: behind a short reply its status counts.
    const std::size_t size = velt::bigEndian16(pbyOutput[0], pbyOutput[1]);
    Container container{};
    const CK_RV read = readContainer(hSession, container, size);
    if (read != LOAD_DONE) {
        return read;
    }
    const ByteView stored = ByteView{container}.first(std::min(size, container.size()));
    return velt::takeCertificate(ET72K_APPLET, *entry, stored, stored.size() == size);
}
