// Object search (PKCS#11 v2.20, 11.7): one search for the whole process, scored, not matched.
#pragma once

#include "src/front/pkcs11.h"
#include "src/objects/object_table.h"

#include <cstddef>
#include <cstdint>

extern ObjectEntry* pTempl;     // the search template; NULL when there is none
extern std::uint64_t ulTCount;  // attributes in the caller's template: the score that matches
extern std::uint8_t bFindInit;  // 1 while a search is active
extern std::uint64_t tObjCount; // handles already handed out by this search

CK_RV VELT_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                           CK_ULONG ulCount) noexcept;
CK_RV VELT_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* phObject,
                       CK_ULONG ulMaxObjectCount, CK_ULONG* pulObjectCount) noexcept;
CK_RV VELT_FindObjectsFinal(CK_SESSION_HANDLE hSession) noexcept;

namespace velt {

// The table has changed: objects that a search has passed may match now.
void restartSearch() noexcept;

// Makes room for marking as many positions of the object table as handed out; what is marked stays
// marked. False: out of memory, and nothing has changed.
bool coverPositions(std::size_t positions) noexcept;

} // namespace velt
