#include "src/objects/object_table.h"

#include "src/core/token_driver.h"
#include "src/front/debug.h"
#include "src/front/state.h"
#include "src/objects/search.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

ObjectEntry* VELTObj = nullptr;
std::uint64_t ulObjCount = 0;
std::uint64_t tmpObjCount = 0;

namespace {

using EntryView = std::span<ObjectEntry>;

std::size_t tableSize = 0; // entries allocated at VELTObj
EntryView retired;         // the table that C_Finalize dropped, while it still owns blocks

EntryView table() noexcept
{
    return {VELTObj, velt::objectTableSize()};
}

void freeBlocks(EntryView entries) noexcept
{
    for (ObjectEntry& entry : entries) {
        std::free(entry.attrs);
        entry.attrs = nullptr;
    }
}

void freeTable(EntryView entries) noexcept
{
    freeBlocks(entries);
    std::free(entries.data());
}

void freeRetired() noexcept
{
    freeTable(retired);
    retired = {};
}

void dropTable() noexcept
{
    VELTObj = nullptr;
    tableSize = 0;
    velt::restartSearch();
}

// Zeroed, because a length of 0 means "not read yet".
template <class Block>
Block* attachBlock(ObjectEntry& entry) noexcept
{
    std::free(entry.attrs);
    auto* block = static_cast<Block*>(std::calloc(1, sizeof(Block)));
    entry.attrs = block;
    return block;
}

template <class Block>
Block* blockOf(ObjectEntry* entry, CK_OBJECT_CLASS objClass) noexcept
{
    const bool matches = velt::isLive(entry) && entry->objClass == objClass;
    return matches ? static_cast<Block*>(entry->attrs) : nullptr;
}

} // namespace

std::uint64_t VELTObjectsInit(CK_SESSION_HANDLE hSession, std::uint64_t tokenType) noexcept
{
    velt::note("VELTObjectsInit");
    if ((oiFlags & RELOAD_OBJECTS) == 0) {
        return velt::report("VELTObjectsInit CKR_OK", CKR_OK);
    }
    velt::note("VELTObjectsInit Do init = true");
    // For a slot that holds no known token this clears the type alone; what stands in the table is
    // called all the same.
    if (stVELTTokens.type != tokenType) {
        fVELTTokensInit(&stVELTTokens, tokenType);
    }
    const CK_RV result = velt::callDriver(&TokenDriver::ObjectsInit, hSession);
    if (result != 0) {
        return result; // the flag stays set: the next call tries again
    }
    oiFlags = 0;
    velt::note("VELTObjectsInit complete");
    return velt::report("VELTObjectsInit CKR_OK", CKR_OK);
}

namespace velt {

std::size_t objectTableSize() noexcept
{
    return VELTObj == nullptr ? 0 : tableSize;
}

ObjectEntry* entryAt(std::uint64_t position) noexcept
{
    return position < objectTableSize() ? VELTObj + position : nullptr;
}

ObjectEntry* entryOf(CK_OBJECT_HANDLE handle) noexcept
{
    return handle == 0 ? nullptr : entryAt(handle - 1);
}

bool isLive(const ObjectEntry* entry) noexcept
{
    return entry != nullptr && entry->handle != REMOVED_MARKER && entry->attrs != nullptr;
}

ObjectEntry* liveEntryOf(CK_OBJECT_HANDLE handle) noexcept
{
    ObjectEntry* entry = entryOf(handle);
    return isLive(entry) ? entry : nullptr;
}

CertAttr* certificateOf(ObjectEntry* entry) noexcept
{
    return blockOf<CertAttr>(entry, CKO_CERTIFICATE);
}

PubKeyAttr* publicKeyOf(ObjectEntry* entry) noexcept
{
    return blockOf<PubKeyAttr>(entry, CKO_PUBLIC_KEY);
}

PrivKeyAttr* privateKeyOf(ObjectEntry* entry) noexcept
{
    return blockOf<PrivKeyAttr>(entry, CKO_PRIVATE_KEY);
}

// The old table goes first, also when there is no memory for the new one: its objects are those of
// a token that may be gone.
bool rebuildObjects(std::size_t entries) noexcept
{
    freeRetired();
    freeTable(table());
    dropTable();
    ulObjCount = 0;
    if (entries == 0) {
        return true; // a token without objects has no table
    }
    return growObjects(entries);
}

bool growObjects(std::size_t entries) noexcept
{
    const std::size_t before = objectTableSize();
    if (entries <= before) {
        return true;
    }
    if (!coverPositions(entries)) {
        return false;
    }
    void* room = reallocarray(VELTObj, entries, sizeof(ObjectEntry));
    if (room == nullptr) {
        return false;
    }
    VELTObj = static_cast<ObjectEntry*>(room);
    tableSize = entries;
    restartSearch();
    for (ObjectEntry& entry : table().subspan(before)) {
        std::memset(&entry, 0, sizeof entry);
        entry.handle = REMOVED_MARKER;
    }
    return true;
}

CertAttr* attachCertificate(ObjectEntry& entry) noexcept
{
    return attachBlock<CertAttr>(entry);
}

PubKeyAttr* attachPublicKey(ObjectEntry& entry) noexcept
{
    return attachBlock<PubKeyAttr>(entry);
}

PrivKeyAttr* attachPrivateKey(ObjectEntry& entry) noexcept
{
    return attachBlock<PrivKeyAttr>(entry);
}

// The blocks that stay are owned through the array, which therefore stays with them.
void retireObjects(std::size_t bound) noexcept
{
    freeRetired();
    retired = table();
    dropTable();
    freeBlocks(retired.first(std::min(bound, retired.size())));
    if (bound >= retired.size()) {
        freeRetired();
    }
}

} // namespace velt
