// Card readers as slots: the reader table, its refresh, and which token family sits in each reader.
#pragma once

#include "src/front/pkcs11.h"

#include <cstddef>
#include <cstdint>

// Token family codes. 0: no card, or a card of no known family.
enum TokenType : std::uint8_t {
    TOKEN_NONE = 0,
    TOKEN_IDC = 1,
    TOKEN_ET72K = 2,
    TOKEN_KT = 3,
    TOKEN_JC = 4,
};

// One reader; pvUserData points to its SlotToken, NULL until the reader first reported a state.
using ReaderEntry = SCARD_READERSTATE;

struct SlotToken {
    std::uint8_t slotIndex; // position in the table, low eight bits: the slot ID handed out
    std::uint8_t tokenType; // TokenType
};

// rCount readers and the plug-and-play pseudo-reader behind them; NULL when none was built.
extern ReaderEntry* VELTCardReaders;
// Reader names as PC/SC lists them (multi-string); the table's names point into it.
extern char* pmszReaders;
// Readers found, and readers with a recognised card, at the last refresh.
extern std::int32_t rCount;
extern std::int32_t rwtCount;
// 1 when the PC/SC service knows the pseudo-reader.
extern std::int32_t pnp;
// The record that probes the pseudo-reader.
extern SCARD_READERSTATE rgReaderStates;

// Rebuilds the table from PC/SC. 0: done, also without readers; 1: out of memory.
std::int32_t VELT_UpdateSlotsStates() noexcept;

// C_GetSlotList and C_GetSlotInfo.
CK_RV VELT_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* pSlotList, CK_ULONG* pulCount) noexcept;
CK_RV VELT_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO* pInfo) noexcept;

namespace velt {

// Family of the token in a slot; TOKEN_NONE also for a slot outside the table.
std::uint8_t tokenTypeOf(CK_SLOT_ID slotID) noexcept;

// Name of a slot's reader; "" for a slot outside the table.
const char* readerName(CK_SLOT_ID slotID) noexcept;

// Whether a slot ID is one of the rCount readers of the last refresh.
bool isReaderSlot(CK_SLOT_ID slotID) noexcept;

// Whether it is one of them or the pseudo-reader behind them (which some checks let pass).
bool isReaderOrPseudoSlot(CK_SLOT_ID slotID) noexcept;

// C_Finalize, first half: the names leave pmszReaders but stay readable through the table.
void retireReaderNames() noexcept;

// Frees the table, its records and retired names. rCount stays.
void freeReaders() noexcept;

} // namespace velt
