// What the applets of JaCarta and eToken 72K have in common. Each family states what differs in an
// Applet of its own, member for member in the same order: jc/jc_applet.cpp, et72k/et72k_applet.cpp.
#pragma once

#include "src/core/bytes.h"
#include "src/front/debug.h"
#include "src/front/pkcs11.h"
#include "src/objects/cert_template.h"
#include "src/objects/stored_cert.h"
#include "src/objects/token_objects.h"
#include "src/tokens/applet/applet_apdu.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace velt {

// A key generation command: its function, what precedes the new name, the reply's capacity.
struct AppletGeneration {
    std::uint8_t p1;
    ByteView parameters;
    std::size_t capacity;
};

// Messages of the operations that are shared; none where a family passes none. They stand apart
// from the returns that they explain because each is passed for two families.
struct AppletMessages {
    Message selectFailed;
    Message resetFailed;
    Message wrongPin;
    Message loggedIn;
    Message notLoggedOut;
    Message loggedOut;
    Message countFailed;
    Message noObjects;
    Message nameFailed;
    Message probeFailed;
    Message objectsLoaded; // passed with their number
    Message loaded;
    Message publicKeyRead;
    Message notExpanded;
    Message certificateRead;
    Message badMechanism;
    Message signInitialised;
    Message signFailed; // passed with the key's handle
    TemplateMessages certificateTemplate;
    Message incomplete;
    Message tooLong; // passed with the length
    Message storedNameFailed;
    Message noSuchGeneration;
    Message notLoggedIn;
    Message generationFailed;
    Message generated;
    Message destroyed;
    Message notDestroyed;
};

struct Applet {
    ByteView aid;
    std::uint8_t* selected; // the family's flag
    std::uint64_t (*select)(CK_SESSION_HANDLE hSession) noexcept;
    std::uint8_t pinReference; // P1 of VERIFY
    std::size_t nameCapacity;  // of a name's reply while loading
    std::size_t maxName;       // bytes of a name that a load takes
    ByteView (*nameInReply)() noexcept;
    std::uint8_t probe; // P1 of the question for a type
    CK_MECHANISM_TYPE gostSigning;
    AppletGeneration generateRsa;
    AppletGeneration generateGost;
    EntryText newKeysField; // where a generation looks for the name that it made
    std::uint8_t destroy;   // P1
    AppletMessages messages;
};

// Selects the applet by name (ISO 7816-4, 11.1.1) and resets its state; sets the flag to the
// outcome. 0, or the result of the exchange that failed.
std::uint64_t selectApplet(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept;

// Selects the applet unless the flag is set. Kept: what fails shows at the next command.
void ensureApplet(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept;

// Sends the PIN as it is; CKR_PIN_INCORRECT for that one status, CKR_OK for all others.
CK_RV verifyPin(const Applet& applet, CK_SESSION_HANDLE hSession, ByteView pin) noexcept;

// Resets the applet's state; a success clears the flag. 0, or the result of the exchange.
CK_RV logOut(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept;

// ObjectsInit: asks every name of the token's list for its four types.
CK_RV loadApplet(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept;

// Expands a stored certificate into an entry's block; `complete` tells whether all of it is there.
// An entry that is no certificate takes nothing.
CK_RV takeCertificate(const Applet& applet, ObjectEntry& entry, ByteView stored,
                      bool complete) noexcept;

// SignInit: keeps mechanism and key in the family's record, unchecked but for the mechanism.
CK_RV recordSigning(const Applet& applet, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey,
                    CK_MECHANISM& signMechanism, std::uint64_t& signKey) noexcept;

// A step of signing that the token refused: CKR_FUNCTION_FAILED.
CK_RV refuseSigning(const Applet& applet, Message message, std::uint64_t result,
                    std::uint64_t signKey) noexcept;

using RsaBlock = std::array<std::uint8_t, APPLET_RSA_BLOCK>;
inline constexpr std::size_t MAX_BLOCK_DATA = APPLET_RSA_BLOCK - 3;

// Block of type 1 (RFC 8017, 9.2) around at most MAX_BLOCK_DATA bytes. Kept: of 256 bytes for keys
// of any size, and with as little padding as the data leaves.
RsaBlock padBlock(ByteView data) noexcept;

// Whether GOST data fits the one-byte length of its command.
bool fitsGostCommand(ByteView name, ByteView data) noexcept;

// The GOST signing command: the name, then the data turned round.
Command gostCommand(std::uint8_t p1, ByteView name, ByteView data) noexcept;

// Turns the half at `from` round; of its last bytes as many are written as `to` takes.
void turnHalf(ByteRoom to, std::span<const std::uint8_t, APPLET_GOST_HALF> from) noexcept;

// A half of what stands in the reply buffer, also behind a short reply.
std::span<const std::uint8_t, APPLET_GOST_HALF> bufferedHalf(std::size_t half) noexcept;

// A name within the applet's limits, copied from where it stood.
struct AppletName {
    std::array<std::uint8_t, APPLET_NAME_ROOM> bytes{};
    std::size_t length = 0;

    ByteView view() const noexcept { return ByteView{bytes}.first(length); }
};

// Takes at most `limit` bytes of a name.
AppletName takeName(ByteView name, std::size_t limit) noexcept;

// A certificate to be written: compressed, and the name that it goes under.
struct AppletCertificate {
    StoredCertificate stored;
    AppletName name;
};

// CreateObject up to the writing: reads the template, compresses, and finds the name, by label or
// else by asking the token for the one at the ID's position.
CK_RV prepareCertificate(const Applet& applet, CK_SESSION_HANDLE hSession, Attributes attributes,
                         AppletCertificate& certificate) noexcept;

// GenerateKeyPair once the new name is there.
CK_RV generateUnder(const Applet& applet, CK_SESSION_HANDLE hSession, ByteView name,
                    CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE* phPublicKey,
                    CK_OBJECT_HANDLE* phPrivateKey) noexcept;

// DestroyObject.
CK_RV destroyNamed(const Applet& applet, CK_SESSION_HANDLE hSession,
                   CK_OBJECT_HANDLE hObject) noexcept;

} // namespace velt
