// The parts of writing that both applets share.
#include "src/front/debug.h"
#include "src/tokens/applet/applet.h"

namespace velt {

namespace {

CK_RV readTemplate(const Applet& applet, Attributes attributes,
                   CertificateTemplate& request) noexcept
{
    const CK_RV result =
        readCertificateTemplate(attributes, applet.messages.certificateTemplate, request);
    if (result != CKR_OK) {
        return result;
    }
    const bool isNamed = request.named != nullptr && request.named->cardNameLen != 0;
    if (request.counted < CERT_TEMPLATE_ATTRIBUTES ||
        (request.statedId == NO_CERT_ID && !isNamed)) {
        return report(applet.messages.incomplete, CKR_TEMPLATE_INCOMPLETE);
    }
    return CKR_OK;
}

CK_RV compress(const Applet& applet, CK_SESSION_HANDLE hSession, ByteView value,
               StoredCertificate& stored) noexcept
{
    std::uint64_t error = 0;
    if (!compressCertificate(hSession, value, stored, error)) {
        return CKR_FUNCTION_FAILED;
    }
    if (stored.length > MAX_STORED_CERTIFICATE) {
        return report(applet.messages.tooLong, stored.length, CKR_DEVICE_MEMORY);
    }
    return CKR_OK;
}

// Kept: a name found by label is taken before the ID.
CK_RV findName(const Applet& applet, CK_SESSION_HANDLE hSession, const CertificateTemplate& request,
               AppletName& name) noexcept
{
    if (request.named != nullptr) {
        name = takeName(cardNameOf(*request.named), APPLET_MAX_NAME);
    }
    if (name.length != 0) {
        return CKR_OK;
    }
    const std::uint64_t result =
        exchange(hSession, appletGetName(request.statedId), APPLET_REPLY_STORED_NAME);
    if (result != 0) {
        return report(applet.messages.storedNameFailed, result, CKR_FUNCTION_FAILED);
    }
    name = takeName(applet.nameInReply(), APPLET_MAX_NAME);
    return CKR_OK;
}

std::uint64_t sendGeneration(CK_SESSION_HANDLE hSession, const AppletGeneration& generation,
                             ByteView name) noexcept
{
    Command command{APPLET_CLA, APPLET_INS_KEYS, generation.p1, 0x00};
    command.put(lowByte(generation.parameters.size() + 1 + name.size()))
        .put(generation.parameters)
        .putCounted(name);
    return exchange(hSession, command, generation.capacity);
}

} // namespace

CK_RV prepareCertificate(const Applet& applet, CK_SESSION_HANDLE hSession, Attributes attributes,
                         AppletCertificate& certificate) noexcept
{
    CertificateTemplate request;
    CK_RV result = readTemplate(applet, attributes, request);
    if (result != CKR_OK) {
        return result;
    }
    result = compress(applet, hSession, request.value, certificate.stored);
    return result == CKR_OK ? findName(applet, hSession, request, certificate.name) : result;
}

CK_RV generateUnder(const Applet& applet, CK_SESSION_HANDLE hSession, ByteView name,
                    CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE* phPublicKey,
                    CK_OBJECT_HANDLE* phPrivateKey) noexcept
{
    const bool isRsa = mechanism == CKM_RSA_PKCS_KEY_PAIR_GEN;
    if (!isRsa && mechanism != CKM_VELT_GOST_KEY_PAIR_GEN) {
        return report(applet.messages.noSuchGeneration, CKR_MECHANISM_INVALID);
    }
    const std::uint64_t made =
        sendGeneration(hSession, isRsa ? applet.generateRsa : applet.generateGost, name);
    if (made == APPLET_SW_NOT_LOGGED_IN) {
        return report(applet.messages.notLoggedIn, CKR_USER_NOT_LOGGED_IN);
    }
    if (made != 0) {
        return report(applet.messages.generationFailed, made, CKR_FUNCTION_FAILED);
    }
    const CK_RV reloaded = reloadAfterGeneration(hSession);
    if (reloaded != CKR_OK) {
        return reloaded;
    }
    tellKeyPair(applet.newKeysField, name, phPublicKey, phPrivateKey);
    return report(applet.messages.generated, CKR_OK);
}

CK_RV destroyNamed(const Applet& applet, CK_SESSION_HANDLE hSession,
                   CK_OBJECT_HANDLE hObject) noexcept
{
    const ObjectEntry* entry = liveEntryOf(hObject);
    if (entry == nullptr) {
        return CKR_FUNCTION_FAILED;
    }
    const Command destroy = commandOn(cardNameOf(*entry), APPLET_INS_OBJECTS, applet.destroy);
    const std::uint64_t result = exchange(hSession, destroy, APPLET_REPLY_STATUS);
    if (result != 0) {
        return report(applet.messages.notDestroyed, result, CKR_FUNCTION_FAILED);
    }
    return report(applet.messages.destroyed, CKR_OK);
}

} // namespace velt
