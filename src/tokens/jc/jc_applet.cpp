#include "src/tokens/jc/jc_applet.h"

#include "src/tokens/jc/jc.h"

std::uint8_t JCAppletSelected = 0;

namespace velt {

constexpr Applet JC_APPLET{
    .aid = JC_AID,
    .selected = &JCAppletSelected,
    .select = fSelectAppletJC,
    .pinReference = JC_USER_PIN,
    .nameCapacity = JC_REPLY_NAME,
    .maxName = APPLET_MAX_NAME,
    .nameInReply = replyData,
    .probe = JC_PROBE,
    .gostSigning = CKM_JC_GOST_SIGN,
    .generateRsa = {.p1 = JC_GENERATE_RSA,
                    .parameters = APPLET_RSA_PARAMETERS,
                    .capacity = JC_REPLY_LONG},
    .generateGost = {.p1 = APPLET_GENERATE_GOST,
                     .parameters = APPLET_GOST_PARAMETERS,
                     .capacity = JC_REPLY_LONG},
    .newKeysField = &ObjectEntry::label, // Kept: labels are hexadecimal, so nothing is found.
    .destroy = JC_DESTROY,
    .messages =
        {
            .selectFailed = "JaCarta select applet APDU error",
            .resetFailed = "JaCarta init vars APDU error",
            .wrongPin = "JaCarta Login CKR_PIN_INCORRECT ",
            .loggedIn = "JaCarta Login CKR_OK",
            .notLoggedOut = {},
            .loggedOut = "JaCarta Logout CKR_OK",
            .countFailed = "JaCarta ObjectsInit APDU get objects count error ",
            .noObjects = {},
            .nameFailed = "JaCarta ObjectsInit APDU get object name error ",
            .probeFailed = "JaCarta ObjectsInit APDU check object type error ",
            .objectsLoaded = "JaCarta ObjectsInit Objects Count = ",
            .loaded = "JaCarta ObjectsInit CKR_OK",
            .publicKeyRead = "JaCarta GetPublicKey CKR_OK",
            .notExpanded = "JaCarta GetCertificate cert ungzip error ",
            .certificateRead = "JaCarta GetCertificate CKR_OK",
            .badMechanism = "JaCarta SignInit CKR_MECHANISM_INVALID",
            .signInitialised = "JaCarta SignInit CKR_OK",
            .signFailed = "JaCarta Sign key handle ",
            .certificateTemplate = {.unknownType = "JaCarta CreateObject unknown type: "},
            .incomplete = "JaCarta CreateObject CKR_TEMPLATE_INCOMPLETE",
            .tooLong = "JaCarta CreateObject error gzipped cert length ",
            .storedNameFailed = "JaCarta CreateObject APDU get object name error ",
            .noSuchGeneration = {},
            .notLoggedIn = "JaCarta GenerateKeyPair CKR_USER_NOT_LOGGED_IN",
            .generationFailed = "JaCarta GenerateKeyPair CKR_FUNCTION_FAILED",
            .generated = "JaCarta GenerateKeyPair CKR_OK",
            .destroyed = "JaCarta DestroyObject CKR_OK",
            .notDestroyed = "JaCarta DestroyObject APDU error ",
        },
};

} // namespace velt

std::uint64_t fSelectAppletJC(CK_SESSION_HANDLE hSession) noexcept
{
    return velt::selectApplet(velt::JC_APPLET, hSession);
}
