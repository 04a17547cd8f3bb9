#include "src/tokens/et72k/et72k_applet.h"

#include "src/tokens/et72k/et72k.h"

std::uint8_t ET72KAppletSelected = 0;

namespace velt {

namespace {

constexpr std::array<std::uint8_t, 10> AID{0x00, 0x00, 0x00, 0x00, 0x00,
                                           0x00, 0x01, 0x02, 0x03, 0x00};
constexpr std::array<std::uint8_t, 4> RSA_2048{0x08, 0x00, 0x08, 0x00};
constexpr std::array<std::uint8_t, 2> GOST_256{0x01, 0x00};

// Kept: a name is read as text. One that the token sends without a zero byte behind it is counted
// up to the zero of its status word, so the word's 90 belongs to it.
ByteView nameAsText() noexcept
{
    const ByteView reply{pbyOutput};
    return reply.first(textLength(reply));
}

} // namespace

constexpr Applet ET72K_APPLET{
    .aid = AID,
    .selected = &ET72KAppletSelected,
    .select = fSelectAppletET72K,
    .pinReference = 0x20,
    .nameCapacity = ET_REPLY_NAME,
    .maxName = APPLET_NAME_ROOM,
    .nameInReply = nameAsText,
    .probe = 0x44,
    .gostSigning = CKM_VELT_GOST_SIGN,
    .generateRsa = {.p1 = 0x26, .parameters = RSA_2048, .capacity = APPLET_REPLY_SHORT},
    .generateGost = {.p1 = APPLET_GENERATE_GOST,
                     .parameters = GOST_256,
                     .capacity = ET_REPLY_PIECE},
    .newKeysField = &ObjectEntry::cardName,
    .destroy = 0x30,
    .messages =
        {
            .selectFailed = "EToken72K select applet APDU error",
            .resetFailed = "EToken72K init vars APDU error",
            .wrongPin = "EToken72K Login CKR_PIN_INCORRECT ",
            .loggedIn = "EToken72K Login CKR_OK",
            .countFailed = "EToken72K ObjectsInit APDU get objects count error ",
            .noObjects = "EToken72K ObjectsInit objects count = 0",
            .nameFailed = "EToken72K ObjectsInit APDU get object name error ",
            .probeFailed = "EToken72K ObjectsInit APDU check object type error ",
            .objectsLoaded = "EToken72K ObjectsInit Objects Count = ",
            .loaded = "EToken72K ObjectsInit CKR_OK",
            .publicKeyRead = "EToken72K GetPublicKey CKR_OK",
            .notExpanded = "EToken72K GetCertificate cert ungzip error ",
            .certificateRead = "EToken72K GetCertificate CKR_OK",
            .badMechanism = "EToken72K SignInit CKR_MECHANISM_INVALID",
            .signInitialised = "EToken72K SignInit CKR_OK",
            .signFailed = "EToken72K Sign key handle ",
            .certificateTemplate = {.unknownType =
                                        "EToken72K CreateObject CreateObject unknown type: ",
                                    .longLabel = "EToken72K CreateObject CKA_LABEL len > 40 bytes",
                                    .badId = "EToken72K CreateObject CKA_ID len > 1 byte"},
            .incomplete = "EToken72K CreateObject CKR_TEMPLATE_INCOMPLETE",
            .tooLong = "EToken72K CreateObject error gzipped cert length ",
            .storedNameFailed = "EToken72K CreateObject APDU get object name error ",
            .noSuchGeneration = "EToken72K GenerateKeyPair CKR_MECHANISM_INVALID",
            .notLoggedIn = "EToken72K GenerateKeyPair CKR_USER_NOT_LOGGED_IN",
            .generationFailed = "EToken72K GenerateKeyPair CKR_FUNCTION_FAILED",
            .generated = "EToken72K GenerateKeyPair CKR_OK",
            .destroyed = "EToken72K DestroyObject CKR_OK",
            .notDestroyed = "EToken72K DestroyObject APDU error ",
        },
};

} // namespace velt
