#include "src/tokens/et72k/et72k_applet.h"

#include "src/tokens/et72k/et72k.h"

std::uint8_t ET72KAppletSelected = 0;
std::array<std::uint8_t, ET72K_SERIAL_SIZE> tokenSN{};
std::int32_t tokenSNLen = 0;

namespace velt {

namespace {

// Kept: a name is read as text. One that the token sends without a zero byte behind it is counted
// up to the zero of its status word, so the word's 90 belongs to it.
ByteView nameAsText() noexcept
{
    const ByteView reply{pbyOutput};
    return reply.first(textLength(reply));
}

// Kept: a serial number that cannot be read is no failure, and two zero bytes end it; without them
// there is none. Without a whole reply it is whatever the buffer holds.
void readSerial(CK_SESSION_HANDLE hSession) noexcept
{
    constexpr std::array<std::uint8_t, 2> END{};
    tokenSN.fill(0);
    tokenSNLen = 0;
    exchange(hSession, ET_READ_SERIAL, ET_REPLY_SERIAL);
    // strindex() compares one byte behind the place where an end may begin.
    const std::size_t length = dwReplyLen < STATUS_SIZE ? OUTPUT_SIZE - 1 : replyData().size();
    const std::uint64_t end = strindex(pbyOutput.data(), length, END.data(), END.size());
    if (end != STRINDEX_NOT_FOUND) {
        tokenSNLen =
            static_cast<std::int32_t>(copyBounded(tokenSN, ByteView{pbyOutput}.first(end)));
    }
}

} // namespace

constexpr Applet ET72K_APPLET{
    .aid = ET_AID,
    .selected = &ET72KAppletSelected,
    .select = fSelectAppletET72K,
    .pinReference = ET_USER_PIN,
    .nameCapacity = ET_REPLY_NAME,
    .maxName = APPLET_NAME_ROOM,
    .nameInReply = nameAsText,
    .probe = ET_PROBE,
    .gostSigning = CKM_VELT_GOST_SIGN,
    .generateRsa = {.p1 = ET_GENERATE_RSA,
                    .parameters = APPLET_RSA_PARAMETERS,
                    .capacity = APPLET_REPLY_SHORT},
    .generateGost = {.p1 = APPLET_GENERATE_GOST,
                     .parameters = APPLET_GOST_PARAMETERS,
                     .capacity = ET_REPLY_PIECE},
    .newKeysField = &ObjectEntry::cardName,
    .destroy = ET_DESTROY,
    .messages =
        {
            .selectFailed = "EToken72K select applet APDU error",
            .resetFailed = "EToken72K init vars APDU error",
            .wrongPin = "EToken72K Login CKR_PIN_INCORRECT ",
            .loggedIn = "EToken72K Login CKR_OK",
            .notLoggedOut = "EToken72K Logout error",
            .loggedOut = "EToken72K Logout CKR_OK",
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

std::uint64_t fSelectAppletET72K(CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t result = velt::selectApplet(velt::ET72K_APPLET, hSession);
    if (result == 0) {
        velt::readSerial(hSession);
    }
    return result;
}
