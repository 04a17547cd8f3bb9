// What drivers do with the objects of their tokens: list them, and fill them on first use.
#pragma once

#include "src/core/bytes.h"
#include "src/front/debug.h"
#include "src/front/pkcs11.h"
#include "src/objects/object_table.h"

#include <cstdint>

namespace velt {

// Results of a load.
inline constexpr CK_RV LOAD_DONE = 0;
inline constexpr CK_RV LOAD_NO_MEMORY = 1;
inline constexpr CK_RV LOAD_CARD_FAILURE = 2;

// What the objects of one name on a token have in common.
struct TokenObject {
    std::uint64_t familyCode;
    ByteView label;    // at most LABEL_SIZE bytes of it count
    ByteView cardName; // at most CARD_NAME_SIZE
    std::uint8_t id;
};

// Each appends an object with default attributes, growing a table that is full. LOAD_DONE or
// LOAD_NO_MEMORY.
CK_RV appendPublicKey(const TokenObject& object, CK_KEY_TYPE keyType) noexcept;
CK_RV appendPrivateKey(const TokenObject& object, CK_KEY_TYPE keyType,
                       std::uint8_t isPrivate) noexcept;
CK_RV appendCertificate(const TokenObject& object) noexcept;

// An entry's name on its token.
ByteView cardNameOf(const ObjectEntry& entry) noexcept;

// How a family reads a public key into its block; LOAD_DONE or what the operation answers.
using ReadKey = CK_RV (*)(CK_SESSION_HANDLE hSession, const ObjectEntry& entry,
                          PubKeyAttr& key) noexcept;

// GetPublicKey: reads the key of a public-key entry by its type; any other entry, or type, is done
// without the token. Passes `done` after a success.
CK_RV readPublicKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, ReadKey readRsa,
                    ReadKey readGost, Message done) noexcept;

// Loads the objects anew after a key generation: CKR_OK, CKR_HOST_MEMORY or CKR_DEVICE_ERROR. Kept:
// no other failure of the load counts.
CK_RV reloadAfterGeneration(CK_SESSION_HANDLE hSession) noexcept;

// A text field of the entries: label or card name.
using EntryText = std::uint8_t (ObjectEntry::*)[LABEL_SIZE];
static_assert(LABEL_SIZE == CARD_NAME_SIZE);

// Tells the handles of the keys whose field is `text`, which ends at its first zero byte; the last
// of each class counts. What is not found, or not asked for (NULL), stays as it is.
void tellKeyPair(EntryText field, ByteView text, CK_OBJECT_HANDLE* phPublicKey,
                 CK_OBJECT_HANDLE* phPrivateKey) noexcept;

} // namespace velt
