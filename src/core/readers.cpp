#include "src/core/readers.h"

#include "src/core/bytes.h"
#include "src/front/debug.h"
#include "src/front/state.h"

#include <cstdlib>
#include <span>
#include <string_view>

using velt::note;
using velt::report;

ReaderEntry* VELTCardReaders = nullptr;
char* pmszReaders = nullptr;
std::int32_t rCount = 0;
std::int32_t rwtCount = 0;
std::int32_t pnp = 0;
SCARD_READERSTATE rgReaderStates{};

namespace {

constexpr const char* PSEUDO_READER = "\\\\?PnP?\\Notification";
constexpr DWORD NO_WAIT = 0;
constexpr DWORD READER_CHANGE_WAIT_MS = 100;
constexpr DWORD STATUS_QUERY_WAIT_MS = 1000;
constexpr std::int32_t OUT_OF_MEMORY = 1;

// Entries that VELTCardReaders has, the pseudo-reader included.
std::size_t tableEntries = 0;
// Names that C_Finalize took from pmszReaders while the table may still point at them.
char* retiredNames = nullptr;

// The ATRs that tell the families, in the order in which they are tried.
struct AtrMask {
    std::array<std::uint8_t, 22> bytes;
    std::size_t length;
    TokenType type;
    const char* familyName;
};

constexpr AtrMask atrMaskIDC{
    .bytes = {0x3B, 0x77, 0x18, 0x00, 0x00, 0x4B, 0x41, 0x53, 0x41, 0x4B, 0x49, 0x44},
    .length = 12,
    .type = TOKEN_IDC,
    .familyName = "KZIDCard"};
constexpr AtrMask atrMaskNewIDC{
    .bytes = {0x3B, 0x39, 0x19, 0x00, 0x53, 0x4F, 0x4D, 0x41, 0x44, 0x53, 0x33, 0x30, 0x31},
    .length = 13,
    .type = TOKEN_IDC,
    .familyName = "KZIDCard"};
constexpr AtrMask atrMaskJC{.bytes = {0x3B, 0xDC, 0x18, 0xFF, 0x81, 0x91, 0xFE, 0x1F,
                                      0xC3, 0x80, 0x73, 0xC8, 0x21, 0x13, 0x66, 0x01,
                                      0x06, 0x11, 0x59, 0x00, 0x01, 0x28},
                            .length = 22,
                            .type = TOKEN_JC,
                            .familyName = "JaCarta"};
constexpr AtrMask atrMaskKT{
    .bytes = {0x3B, 0x88, 0x01, 0x4B, 0x41, 0x5A, 0x54, 0x4F, 0x4B, 0x45, 0x4E, 0x82},
    .length = 12,
    .type = TOKEN_KT,
    .familyName = "KAZTOKEN"};
constexpr AtrMask atrMaskET72K{
    .bytes = {0x3B, 0xD5, 0x18, 0x00, 0x81, 0x31, 0xFE, 0x7D, 0x80, 0x73, 0xC8, 0x21, 0x10, 0xF4},
    .length = 14,
    .type = TOKEN_ET72K,
    .familyName = "EToken 72K"};

constexpr std::array KNOWN_ATRS{&atrMaskIDC, &atrMaskNewIDC, &atrMaskJC, &atrMaskKT, &atrMaskET72K};
static_assert(sizeof(SlotToken) == 2);

bool hasState(const ReaderEntry& reader, DWORD bit) noexcept
{
    return (reader.dwEventState & bit) != 0;
}

// NULL for a card of no known family. The whole ATR must be equal.
const AtrMask* recogniseCard(const ReaderEntry& reader) noexcept
{
    for (const AtrMask* known : KNOWN_ATRS) {
        if (reader.cbAtr == known->length &&
            std::memcmp(reader.rgbAtr, known->bytes.data(), known->length) == 0) {
            return known;
        }
    }
    return nullptr;
}

const SlotToken* recordOf(const ReaderEntry& reader) noexcept
{
    return static_cast<const SlotToken*>(reader.pvUserData);
}

// False when there is no memory for the record: the slot then reads as empty.
bool setRecord(ReaderEntry& reader, std::size_t position, std::uint8_t tokenType) noexcept
{
    if (reader.pvUserData == nullptr) {
        reader.pvUserData = std::calloc(1, sizeof(SlotToken));
    }
    auto* record = static_cast<SlotToken*>(reader.pvUserData);
    if (record == nullptr) {
        return false;
    }
    *record = {.slotIndex = velt::lowByte(position), .tokenType = tokenType};
    return true;
}

void identifyCard(ReaderEntry& reader, std::size_t position) noexcept
{
    const AtrMask* known = recogniseCard(reader);
    const bool recorded = setRecord(reader, position, known == nullptr ? TOKEN_NONE : known->type);
    if (known == nullptr) {
        note("Unknown Token");
        return;
    }
    note(known->familyName);
    if (recorded) {
        ++rwtCount;
    }
}

// Asks for the pseudo-reader's state in rgReaderStates; the result code does not matter.
void queryPseudoReader(DWORD timeout) noexcept
{
    rgReaderStates.szReader = PSEUDO_READER;
    rgReaderStates.dwCurrentState = SCARD_STATE_UNAWARE;
    SCardGetStatusChange(hSC, timeout, &rgReaderStates, 1);
}

// Reads the names into pmszReaders, a zero-filled buffer one byte longer than `length`.
bool listNames(DWORD length) noexcept
{
    std::free(pmszReaders);
    pmszReaders = nullptr;
    note("UpdateSlotsStates 4");
    if (length < SCARD_AUTOALLOCATE) {
        pmszReaders = static_cast<char*>(std::calloc(length + 1, 1));
    }
    if (pmszReaders == nullptr) {
        if (length != 0) {
            note("malloc: not enough memory");
        }
        return false;
    }
    SCardListReaders(hSC, nullptr, pmszReaders, &length);
    return true;
}

// Calls `each` with every name of a multi-string; the buffer's last byte is zero.
template <class Each>
void forEachName(std::string_view names, Each each) noexcept
{
    while (!names.empty() && names.front() != '\0') {
        each(names.data());
        names.remove_prefix(std::min(names.find('\0'), names.size() - 1) + 1);
    }
}

bool buildTable(std::string_view names) noexcept
{
    note("UpdateSlotsStates 5");
    forEachName(names, [](const char*) { ++rCount; });
    note("UpdateSlotsStates 6");
    const auto entries = static_cast<std::size_t>(rCount) + 1;
    VELTCardReaders = static_cast<ReaderEntry*>(std::calloc(entries, sizeof(ReaderEntry)));
    if (VELTCardReaders == nullptr) {
        return false;
    }
    tableEntries = entries;
    note("UpdateSlotsStates 7");
    ReaderEntry* next = VELTCardReaders;
    forEachName(names, [&next](const char* name) { (next++)->szReader = name; });
    next->szReader = PSEUDO_READER;
    return true;
}

void queryReaders() noexcept
{
    note("UpdateSlotsStates 8");
    const std::size_t queried = tableEntries - (pnp == 1 ? 0 : 1);
    SCardGetStatusChange(hSC, STATUS_QUERY_WAIT_MS, VELTCardReaders, queried);
    note("UpdateSlotsStates 9");
    for (ReaderEntry& reader : std::span(VELTCardReaders, tableEntries)) {
        reader.dwCurrentState = reader.dwEventState;
    }
    note("UpdateSlotsStates 10");
    for (std::size_t position = 0; position < queried; ++position) {
        ReaderEntry& reader = VELTCardReaders[position];
        if (!hasState(reader, SCARD_STATE_CHANGED)) {
            continue;
        }
        if (hasState(reader, SCARD_STATE_EMPTY)) {
            setRecord(reader, position, TOKEN_NONE);
        }
        if (hasState(reader, SCARD_STATE_PRESENT)) {
            identifyCard(reader, position);
        }
    }
}

// False: the service tells that there is no reader. `length` is set only if the listing succeeds.
bool readersListed(DWORD& length) noexcept
{
    return SCardListReaders(hSC, nullptr, nullptr, &length) != SCARD_E_NO_READERS_AVAILABLE;
}

void probePlugAndPlay() noexcept
{
    queryPseudoReader(NO_WAIT);
    if (hasState(rgReaderStates, SCARD_STATE_UNKNOWN)) {
        note("GetSlotList: Plug'n play reader name not supported.");
        pnp = 0;
    } else {
        note("GetSlotList: Using reader plug'n play mechanism");
    }
}

// Kept: the list is written without regard to the room that the host has for it.
void writeSlotList(bool tokenPresent, CK_SLOT_ID* pSlotList) noexcept
{
    note("GetSlotList pSlotList is not null");
    for (std::size_t position = 0; position + 1 < tableEntries; ++position) {
        if (!tokenPresent || velt::tokenTypeOf(position) != TOKEN_NONE) {
            const SlotToken* record = recordOf(VELTCardReaders[position]);
            *pSlotList++ = record == nullptr ? position : record->slotIndex;
        }
    }
}

CK_FLAGS slotFlags(std::uint8_t tokenType) noexcept
{
    switch (tokenType) {
    case TOKEN_NONE:
        return CKF_HW_SLOT;
    case TOKEN_KT: // Kept: the one family that is not marked as removable.
        return CKF_HW_SLOT | CKF_TOKEN_PRESENT;
    default:
        return CKF_HW_SLOT | CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE;
    }
}

void describeReader(std::string_view name, CK_SLOT_INFO& info) noexcept
{
    const auto fillText = [](std::span<CK_BYTE> field, std::string_view text) {
        velt::fill(field, ' ');
        std::ranges::copy(text.substr(0, field.size()), field.begin());
    };
    note("GetSlotInfo - 1");
    fillText(info.slotDescription, name);
    note("GetSlotInfo - 2");
    fillText(info.manufacturerID, name.substr(0, name.find(' ')));
}

} // namespace

std::int32_t VELT_UpdateSlotsStates() noexcept
{
    note("UpdateSlotsStates");
    note("UpdateSlotsStates 1");
    rCount = 0;
    rwtCount = 0;
    velt::freeReaders();
    DWORD length = 0;
    if (pnp == 1) {
        queryPseudoReader(READER_CHANGE_WAIT_MS);
    } else if (!readersListed(length)) {
        return 0;
    }
    note("UpdateSlotsStates 2");
    note("UpdateSlotsStates 3");
    if (!readersListed(length)) {
        return report("SCARD_E_NO_READERS_AVAILABLE", std::int32_t{0});
    }
    if (!listNames(length) || !buildTable({pmszReaders, length + 1})) {
        return OUT_OF_MEMORY;
    }
    queryReaders();
    return report("UpdateSlotstates CKR_OK", std::int32_t{0});
}

CK_RV VELT_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* pSlotList, CK_ULONG* pulCount) noexcept
{
    rCount = 0;
    pnp = 1;
    if (hSC == 0) {
        const LONG result = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &hSC);
        if (result != SCARD_S_SUCCESS) {
            return report("Failed SCardEstablishContext: CKR_FUNCTION_FAILED",
                          static_cast<std::uint64_t>(result), CKR_FUNCTION_FAILED);
        }
    }
    probePlugAndPlay();
    const std::int32_t refreshed = VELT_UpdateSlotsStates();
    oiFlags |= RELOAD_OBJECTS;
    if (refreshed != 0) {
        return report("UpdateSlotsStates return error: ", static_cast<std::uint64_t>(refreshed),
                      CKR_DEVICE_ERROR);
    }
    const bool onlyWithToken = tokenPresent != 0;
    if (pSlotList != nullptr) {
        writeSlotList(onlyWithToken, pSlotList);
    }
    const auto recognised = static_cast<CK_ULONG>(rwtCount);
    if (onlyWithToken && *pulCount < recognised) {
        *pulCount = recognised;
        return report("GetSlotList CKR_OK 1", CKR_OK); // Kept: not CKR_BUFFER_TOO_SMALL.
    }
    const auto readers = static_cast<CK_ULONG>(rCount);
    *pulCount = onlyWithToken ? recognised : readers;
    note("GetSlotList rCount=", readers);
    oiFlags |= RELOAD_OBJECTS;
    return report("GetSlotList CKR_OK", CKR_OK);
}

CK_RV VELT_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO* pInfo) noexcept
{
    if (pInfo == nullptr) {
        return report("GetSlotInfo CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    if (!velt::isReaderSlot(slotID) || slotID >= tableEntries) {
        note("GetSlotInfo slotID=", slotID);
        note("GetSlotInfo slots Count=", static_cast<std::uint64_t>(rCount));
        return report("GetSlotInfo CKR_SLOT_ID_INVALID ", CKR_SLOT_ID_INVALID);
    }
    describeReader(velt::readerName(slotID), *pInfo);
    note("GetSlotInfo - 3");
    pInfo->flags = slotFlags(velt::tokenTypeOf(slotID));
    note("GetSlotInfo - 4");
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = {1, 0};
    return report("GetSlotInfo CKR_OK", CKR_OK);
}

namespace velt {

std::uint8_t tokenTypeOf(CK_SLOT_ID slotID) noexcept
{
    if (slotID >= tableEntries) {
        return TOKEN_NONE;
    }
    const SlotToken* record = recordOf(VELTCardReaders[slotID]);
    return record == nullptr ? std::uint8_t{TOKEN_NONE} : record->tokenType;
}

const char* readerName(CK_SLOT_ID slotID) noexcept
{
    return slotID < tableEntries ? VELTCardReaders[slotID].szReader : "";
}

bool isReaderSlot(CK_SLOT_ID slotID) noexcept
{
    return rCount != 0 && slotID <= static_cast<CK_SLOT_ID>(rCount) - 1;
}

bool isReaderOrPseudoSlot(CK_SLOT_ID slotID) noexcept
{
    return slotID <= static_cast<CK_SLOT_ID>(rCount);
}

void retireReaderNames() noexcept
{
    if (pmszReaders != nullptr) {
        retiredNames = pmszReaders; // none are retired yet: the refresh that made these saw to it
        pmszReaders = nullptr;
    }
}

void freeReaders() noexcept
{
    for (ReaderEntry& reader : std::span(VELTCardReaders, tableEntries)) {
        std::free(reader.pvUserData);
    }
    std::free(VELTCardReaders);
    VELTCardReaders = nullptr;
    tableEntries = 0;
    std::free(retiredNames);
    retiredNames = nullptr;
}

} // namespace velt
