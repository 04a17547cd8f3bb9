// Loading a token's objects, and taking a certificate that was read.
#include "src/front/debug.h"
#include "src/tokens/applet/applet.h"

#include <zlib.h>

namespace velt {

namespace {

constexpr std::size_t ENTRIES_PER_NAME = 3; // to begin with; a name can bring five
constexpr std::size_t CLEARED_BEFORE_LOADING = 258;
constexpr std::uint8_t PROBE_ANSWERED = 0x90;

using NameText = std::array<std::uint8_t, LABEL_SIZE>;
static_assert(2 * APPLET_NAME_ROOM < LABEL_SIZE);

// Upper-case hexadecimal, terminated by the zeros behind it.
NameText spell(ByteView name) noexcept
{
    constexpr char DIGITS[] = "0123456789ABCDEF";
    NameText text{};
    std::size_t place = 0;
    for (const std::uint8_t byte : name) {
        text[place++] = static_cast<std::uint8_t>(DIGITS[byte >> 4]);
        text[place++] = static_cast<std::uint8_t>(DIGITS[byte & 0x0F]);
    }
    return text;
}

// Whether the name holds a part of the type: a success without data.
bool holds(const Applet& applet, CK_SESSION_HANDLE hSession, ByteView name,
           std::uint8_t type) noexcept
{
    Command probe{APPLET_CLA, APPLET_INS_OBJECTS, applet.probe, 0x00};
    putName(probe.put(lowByte(namedSize(name) + 2)), name).put(0x00).put(type);
    const std::uint64_t result = exchange(hSession, probe, APPLET_REPLY_PROBE);
    if (result == APPLET_SW_NO_OBJECT || result == APPLET_SW_NO_SUCH_TYPE) {
        return false;
    }
    if (result != 0) {
        return report(applet.messages.probeFailed, result, false);
    }
    return dwReplyLen == STATUS_SIZE;
}

CK_RV addPart(const TokenObject& object, std::uint8_t type) noexcept
{
    switch (type) {
    case APPLET_GOST_PRIVATE_KEY:
        return appendPrivateKey(object, CKK_VELT_GOST, CK_TRUE);
    case APPLET_GOST_PUBLIC_KEY:
        return appendPublicKey(object, CKK_VELT_GOST);
    case APPLET_CERTIFICATE:
        return appendCertificate(object);
    default: // the private key right behind its public key, from which its modulus is served
        const CK_RV made = appendPublicKey(object, CKK_RSA);
        return made == LOAD_DONE ? appendPrivateKey(object, CKK_RSA, CK_TRUE) : made;
    }
}

CK_RV loadName(const Applet& applet, CK_SESSION_HANDLE hSession, std::uint8_t position) noexcept
{
    const std::uint64_t result = exchange(hSession, appletGetName(position), applet.nameCapacity);
    if (result != 0) {
        return report(applet.messages.nameFailed, result, LOAD_CARD_FAILURE);
    }
    const AppletName name = takeName(applet.nameInReply(), applet.maxName);
    const NameText label = spell(name.view());
    const TokenObject object{
        .familyCode = FAMILY_CODE_JC, .label = label, .cardName = name.view(), .id = position};
    for (std::uint8_t type = 0; type < APPLET_TYPES; ++type) {
        if (!holds(applet, hSession, name.view(), type)) {
            continue;
        }
        pbyOutput[0] = PROBE_ANSWERED; // Kept: a card may have answered 00 00.
        if (addPart(object, type) != LOAD_DONE) {
            return LOAD_NO_MEMORY;
        }
    }
    return LOAD_DONE;
}

} // namespace

AppletName takeName(ByteView name, std::size_t limit) noexcept
{
    AppletName taken;
    taken.length = copyBounded(ByteRoom{taken.bytes}.first(limit), name);
    return taken;
}

CK_RV loadApplet(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept
{
    ensureApplet(applet, hSession);
    fill(ByteRoom{pbyOutput}.first(CLEARED_BEFORE_LOADING), 0);
    const std::uint64_t result = exchange(hSession, APPLET_COUNT_OBJECTS, APPLET_REPLY_SHORT);
    if (result != 0) {
        return report(applet.messages.countFailed, result, LOAD_CARD_FAILURE);
    }
    tmpObjCount = bigEndian16(pbyOutput[0], pbyOutput[1]); // Kept: also the status of a bare one.
    if (!rebuildObjects(tmpObjCount * ENTRIES_PER_NAME)) {
        return LOAD_NO_MEMORY;
    }
    if (tmpObjCount == 0) {
        return report(applet.messages.noObjects, LOAD_DONE);
    }
    for (std::uint64_t position = 0; position < tmpObjCount; ++position) {
        const CK_RV loaded = loadName(applet, hSession, lowByte(position));
        if (loaded != LOAD_DONE) {
            return loaded;
        }
    }
    note(applet.messages.objectsLoaded, ulObjCount);
    return report(applet.messages.loaded, LOAD_DONE);
}

CK_RV takeCertificate(const Applet& applet, ObjectEntry& entry, ByteView stored,
                      bool complete) noexcept
{
    ExpandedCertificate expanded;
    const std::int32_t code = complete ? expandCertificate(stored, expanded) : Z_BUF_ERROR;
    if (!isConverted(code)) {
        return report(applet.messages.notExpanded, static_cast<std::uint64_t>(std::int64_t{code}),
                      LOAD_CARD_FAILURE);
    }
    if (CertAttr* attr = certificateOf(&entry); attr != nullptr) {
        storeCertificate(*attr, expanded);
    }
    return report(applet.messages.certificateRead, CKR_OK);
}

} // namespace velt
