// The process-wide table of the token's objects, and the gate through which it is (re)loaded.
#pragma once

#include "src/front/pkcs11.h"
#include "src/objects/attr_blocks.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

inline constexpr std::uint64_t REMOVED_MARKER = 0x4B5A0000; // handle of an empty or destroyed entry
inline constexpr std::size_t LABEL_SIZE = 50;
inline constexpr std::size_t CARD_NAME_SIZE = 50;
inline constexpr std::size_t ID_SIZE = 64;

// The code that a driver writes into its entries; the object store never reads it.
inline constexpr std::uint64_t FAMILY_CODE_IDC = 1;
inline constexpr std::uint64_t FAMILY_CODE_KT = 3;
inline constexpr std::uint64_t FAMILY_CODE_JC = 4; // Kept: the eToken 72K's entries have it, too.

struct ObjectEntry {
    std::uint64_t handle; // position + 1, or REMOVED_MARKER
    std::uint64_t familyCode;
    CK_OBJECT_CLASS objClass; // CKO_CERTIFICATE, CKO_PUBLIC_KEY or CKO_PRIVATE_KEY
    std::uint8_t isPrivate;
    std::uint8_t label[LABEL_SIZE];        // a full label has no terminator and
    std::uint8_t cardName[CARD_NAME_SIZE]; // reads on here
    std::uint64_t cardNameLen;
    std::uint8_t isToken;
    std::uint8_t isModifiable;
    std::uint8_t id[ID_SIZE]; // only the first byte is the ID
    void* attrs;              // CertAttr, PubKeyAttr or PrivKeyAttr, owned; NULL before it is made
};

static_assert(std::is_trivially_copyable_v<ObjectEntry>);
static_assert(offsetof(ObjectEntry, cardName) == offsetof(ObjectEntry, label) + LABEL_SIZE,
              "a label of 50 bytes reads on into the card name");

extern ObjectEntry* VELTObj;      // NULL when no table is loaded
extern std::uint64_t ulObjCount;  // entries in use, as the driver counts them
extern std::uint64_t tmpObjCount; // map records or names that a driver found on the token

// Makes sure that the table is current: reloads it through the driver's ObjectsInit when
// RELOAD_OBJECTS is set. Returns 0 or the driver's code, after which the next call tries again.
std::uint64_t VELTObjectsInit(CK_SESSION_HANDLE hSession, std::uint64_t tokenType) noexcept;

namespace velt {

// Entries that the table has room for; 0 without a table.
std::size_t objectTableSize() noexcept;

// The entry at a position, or NULL outside the table. It may be an empty one.
ObjectEntry* entryAt(std::uint64_t position) noexcept;

// The entry of a handle (position handle - 1), or NULL: outside the table, or handle 0.
ObjectEntry* entryOf(CK_OBJECT_HANDLE handle) noexcept;

// Whether an entry is there and holds an object with its class block.
bool isLive(const ObjectEntry* entry) noexcept;

// The entry of a handle if it is live, or NULL.
ObjectEntry* liveEntryOf(CK_OBJECT_HANDLE handle) noexcept;

// The block of a live entry of the class, or NULL.
CertAttr* certificateOf(ObjectEntry* entry) noexcept;
PubKeyAttr* publicKeyOf(ObjectEntry* entry) noexcept;
PrivKeyAttr* privateKeyOf(ObjectEntry* entry) noexcept;

// Frees the table with all its blocks and allocates `entries` new ones, zeroed and marked as empty;
// for 0 there is no table. ulObjCount becomes 0. False: out of memory, and there is no table.
bool rebuildObjects(std::size_t entries) noexcept;

// Gives the table room for as many entries; those there stay, new ones are empty. False: out of
// memory, and nothing has changed.
bool growObjects(std::size_t entries) noexcept;

// Allocates a zeroed class block for an entry; NULL when memory ran out.
CertAttr* attachCertificate(ObjectEntry& entry) noexcept;
PubKeyAttr* attachPublicKey(ObjectEntry& entry) noexcept;
PrivKeyAttr* attachPrivateKey(ObjectEntry& entry) noexcept;

// C_Finalize: frees the blocks below position `bound` and drops the table. Blocks at or behind the
// bound stay owned until the next rebuild or the next call.
void retireObjects(std::size_t bound) noexcept;

} // namespace velt
