#include "src/objects/token_objects.h"

#include "src/core/session.h"
#include "src/front/state.h"

#include <algorithm>
#include <array>

namespace velt {

namespace {

// The entry behind the last object, or NULL: out of memory.
ObjectEntry* nextEntry() noexcept
{
    const std::size_t size = objectTableSize();
    if (ulObjCount >= size && !growObjects(std::max<std::size_t>(2 * size, 1))) {
        return nullptr;
    }
    return entryAt(ulObjCount);
}

// Fills what all classes have and counts the object; its block is there already.
void countObject(const TokenObject& object, CK_OBJECT_CLASS objClass,
                 std::uint8_t isPrivate) noexcept
{
    ObjectEntry& entry = *entryAt(ulObjCount);
    entry.handle = ++ulObjCount;
    entry.familyCode = object.familyCode;
    entry.objClass = objClass;
    entry.isPrivate = isPrivate;
    copyBounded(entry.label, object.label);
    entry.cardNameLen = copyBounded(entry.cardName, object.cardName);
    entry.isToken = CK_TRUE;
    entry.isModifiable = CK_FALSE;
    entry.id[0] = object.id;
}

} // namespace

CK_RV appendPublicKey(const TokenObject& object, CK_KEY_TYPE keyType) noexcept
{
    ObjectEntry* entry = nextEntry();
    PubKeyAttr* attr = entry == nullptr ? nullptr : attachPublicKey(*entry);
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = pubKeyAttrTempl;
    attr->keyType = keyType;
    countObject(object, CKO_PUBLIC_KEY, CK_FALSE);
    return LOAD_DONE;
}

CK_RV appendPrivateKey(const TokenObject& object, CK_KEY_TYPE keyType,
                       std::uint8_t isPrivate) noexcept
{
    ObjectEntry* entry = nextEntry();
    PrivKeyAttr* attr = entry == nullptr ? nullptr : attachPrivateKey(*entry);
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = privKeyAttrTempl;
    attr->keyType = keyType;
    countObject(object, CKO_PRIVATE_KEY, isPrivate);
    return LOAD_DONE;
}

CK_RV appendCertificate(const TokenObject& object) noexcept
{
    ObjectEntry* entry = nextEntry();
    CertAttr* attr = entry == nullptr ? nullptr : attachCertificate(*entry);
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    setCertificateDefaults(*attr);
    countObject(object, CKO_CERTIFICATE, CK_FALSE);
    return LOAD_DONE;
}

ByteView cardNameOf(const ObjectEntry& entry) noexcept
{
    return ByteView{entry.cardName}.first(std::min<std::size_t>(entry.cardNameLen, CARD_NAME_SIZE));
}

CK_RV readPublicKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, ReadKey readRsa,
                    ReadKey readGost, Message done) noexcept
{
    ObjectEntry* entry = entryOf(hObject);
    PubKeyAttr* key = publicKeyOf(entry);
    CK_RV result = LOAD_DONE;
    if (key != nullptr && key->keyType == CKK_RSA) {
        result = readRsa(hSession, *entry, *key);
    } else if (key != nullptr && key->keyType == CKK_VELT_GOST) {
        result = readGost(hSession, *entry, *key);
    }
    return result == LOAD_DONE ? report(done, CKR_OK) : result;
}

CK_RV reloadAfterGeneration(CK_SESSION_HANDLE hSession) noexcept
{
    oiFlags |= RELOAD_OBJECTS;
    switch (VELTObjectsInit(hSession, sessionTokenType(hSession))) {
    case LOAD_NO_MEMORY:
        return CKR_HOST_MEMORY;
    case LOAD_CARD_FAILURE:
        return CKR_DEVICE_ERROR;
    default:
        return CKR_OK;
    }
}

void tellKeyPair(EntryText field, ByteView text, CK_OBJECT_HANDLE* phPublicKey,
                 CK_OBJECT_HANDLE* phPrivateKey) noexcept
{
    std::array<std::uint8_t, LABEL_SIZE> wanted{};
    copyBounded(wanted, text.first(textLength(text)));
    for (std::uint64_t position = 0; position < ulObjCount; ++position) {
        const ObjectEntry* entry = entryAt(position);
        if (entry == nullptr || !equalText(entry->*field, wanted.data(), LABEL_SIZE)) {
            continue;
        }
        if (entry->objClass == CKO_PUBLIC_KEY && phPublicKey != nullptr) {
            *phPublicKey = entry->handle;
        }
        if (entry->objClass == CKO_PRIVATE_KEY && phPrivateKey != nullptr) {
            *phPrivateKey = entry->handle;
        }
    }
}

} // namespace velt
