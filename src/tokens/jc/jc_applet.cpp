#include "src/tokens/jc/jc_applet.h"

#include "src/tokens/jc/jc.h"

std::uint8_t JCAppletSelected = 0;

namespace velt {

namespace {

constexpr std::array<std::uint8_t, 12> AID{0xA0, 0x00, 0x67, 0x61, 0x6D, 0x6D,
                                           0x61, 0x74, 0x65, 0x63, 0x68, 0x00};
constexpr std::array<std::uint8_t, 4> RSA_2048{0x08, 0x00, 0x08, 0x00};
constexpr std::array<std::uint8_t, 2> GOST_256{0x01, 0x00};

} // namespace

constexpr Applet JC_APPLET{
    .aid = AID,
    .selected = &JCAppletSelected,
    .select = fSelectAppletJC,
    .pinReference = 0x21,
    .nameCapacity = JC_REPLY_NAME,
    .maxName = APPLET_MAX_NAME,
    .nameInReply = replyData,
    .probe = 0x24,
    .gostSigning = CKM_JC_GOST_SIGN,
    .generateRsa = {.p1 = 0x23, .parameters = RSA_2048, .capacity = JC_REPLY_LONG},
    .generateGost = {.p1 = APPLET_GENERATE_GOST, .parameters = GOST_256, .capacity = JC_REPLY_LONG},
    .newKeysField = &ObjectEntry::label, // Kept: labels are hexadecimal, so nothing is found.
    .destroy = 0x23,
    .messages =
        {
            .selectFailed = "JaCarta select applet APDU error",
            .resetFailed = "JaCarta init vars APDU error",
            .wrongPin = "JaCarta Login CKR_PIN_INCORRECT ",
            .loggedIn = "JaCarta Login CKR_OK",
            .countFailed = "JaCarta ObjectsInit APDU get objects count error ",
            .noObjects = nullptr,
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
            .noSuchGeneration = nullptr,
            .notLoggedIn = "JaCarta GenerateKeyPair CKR_USER_NOT_LOGGED_IN",
            .generationFailed = "JaCarta GenerateKeyPair CKR_FUNCTION_FAILED",
            .generated = "JaCarta GenerateKeyPair CKR_OK",
            .destroyed = "JaCarta DestroyObject CKR_OK",
            .notDestroyed = "JaCarta DestroyObject APDU error ",
        },
};

} // namespace velt
