// Contexts, and what is asked of them alone.
#include "sim/pcsc/world.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace sim::pcsc;
using namespace sim::pcsc::detail;

namespace {

constexpr DWORD ALLOCATE = SCARD_AUTOALLOCATE;

LONG establish(DWORD scope, LPSCARDCONTEXT context)
{
    if (context == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    *context = 0;
    if (scope > SCARD_SCOPE_GLOBAL) {
        return SCARD_E_INVALID_VALUE;
    }
    World& w = world();
    const Lock lock(w.mutex);
    w.lastContext += NUMBER_STEP;
    *context = w.lastContext;
    w.contexts.insert(*context);
    return SCARD_S_SUCCESS;
}

// A context that was refused reads as 0, but is not touched where nobody was there to refuse it.
LONG failEstablish(LONG result, LPSCARDCONTEXT context)
{
    if (result != SCARD_S_SUCCESS && result != SCARD_E_NO_SERVICE && context != nullptr) {
        *context = 0;
    }
    return result;
}

// Connections that are still open end as with SCARD_LEAVE_CARD, or with a reset where a transaction
// was open.
LONG release(SCARDCONTEXT context)
{
    World& w = world();
    Lock lock(w.mutex);
    if (w.contexts.erase(context) == 0) {
        return SCARD_E_INVALID_HANDLE;
    }
    std::vector<SCARDHANDLE> open;
    for (const auto& [handle, connection] : w.connections) {
        if (connection.context == context) {
            open.push_back(handle);
        }
    }
    std::vector<std::shared_ptr<Reader>> unsettled;
    for (const SCARDHANDLE handle : open) {
        const std::shared_ptr<Reader> reader = findConnection(handle)->reader;
        if (reader->holder == handle) {
            unsettled.push_back(reader);
        }
        closeConnection(handle);
    }
    for (const auto& reader : unsettled) {
        resetCard(lock, reader);
    }
    return SCARD_S_SUCCESS;
}

LONG isValid(SCARDCONTEXT context)
{
    const Lock lock(world().mutex);
    return world().contexts.contains(context) ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
}

// Hands out a multi-string by the rules for lengths: none, too small, or to be allocated.
LONG giveText(const std::string& text, LPSTR buffer, LPDWORD length)
{
    const DWORD room = *length;
    *length = text.size();
    if (room == ALLOCATE) {
        if (buffer == nullptr) {
            return SCARD_E_INVALID_PARAMETER;
        }
        void* const block = std::malloc(text.size());
        if (block == nullptr) {
            return SCARD_E_NO_MEMORY;
        }
        std::copy(text.begin(), text.end(), static_cast<char*>(block));
        std::memcpy(buffer, &block, sizeof block);
        return SCARD_S_SUCCESS;
    }
    if (buffer == nullptr) {
        return SCARD_S_SUCCESS;
    }
    if (room < text.size()) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    std::copy(text.begin(), text.end(), buffer);
    return SCARD_S_SUCCESS;
}

LONG listReaders(SCARDCONTEXT context, LPSTR names, LPDWORD length)
{
    if (length == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    World& w = world();
    const Lock lock(w.mutex);
    if (!w.contexts.contains(context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (w.readers.empty()) {
        *length = 1;
        return SCARD_E_NO_READERS_AVAILABLE;
    }
    std::string text;
    for (const auto& reader : w.readers) {
        text += reader->name;
        text += '\0';
    }
    text += '\0';
    return giveText(text, names, length);
}

// What a listing that failed in the service leaves in the length: one closing NUL, or nothing.
LONG failListing(LONG result, LPDWORD length)
{
    if (result != SCARD_S_SUCCESS && length != nullptr) {
        *length = result == SCARD_E_NO_READERS_AVAILABLE ? 1 : 0;
    }
    return result;
}

LONG listGroups(SCARDCONTEXT context, LPSTR groups, LPDWORD length)
{
    if (const LONG rv = isValid(context); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (length == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    return giveText(std::string("SCard$DefaultReaders\0\0", 22), groups, length);
}

LONG freeMemory(SCARDCONTEXT context, LPCVOID memory)
{
    if (const LONG rv = isValid(context); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    std::free(const_cast<void*>(memory));
    return SCARD_S_SUCCESS;
}

} // namespace

LONG SCardEstablishContext(DWORD dwScope, LPCVOID, LPCVOID, LPSCARDCONTEXT phContext)
{
    const Entry entry(Function::EstablishContext);
    const LONG rv =
        entry.answer() ? failEstablish(*entry.answer(), phContext) : establish(dwScope, phContext);
    return entry.finish(rv, [&](Call& call) {
        call.scope = dwScope;
        call.context = rv == SCARD_S_SUCCESS && phContext != nullptr ? number(*phContext) : 0;
    });
}

LONG SCardReleaseContext(SCARDCONTEXT hContext)
{
    const Entry entry(Function::ReleaseContext);
    LONG rv = SCARD_S_SUCCESS;
    if (!entry.planned()) {
        rv = release(hContext); // the library forgets the context though the service is stopped
    }
    rv = entry.answer().value_or(rv);
    return entry.finish(rv, [&](Call& call) { call.context = number(hContext); });
}

LONG SCardIsValidContext(SCARDCONTEXT hContext)
{
    const Entry entry(Function::IsValidContext);
    const LONG rv = entry.answer() ? *entry.answer() : isValid(hContext);
    return entry.finish(rv, [&](Call& call) { call.context = number(hContext); });
}

LONG SCardListReaders(SCARDCONTEXT hContext, LPCSTR, LPSTR mszReaders, LPDWORD pcchReaders)
{
    const Entry entry(Function::ListReaders);
    const DWORD capacity = pcchReaders != nullptr ? *pcchReaders : 0;
    const LONG rv = entry.answer() ? failListing(*entry.answer(), pcchReaders)
                                   : listReaders(hContext, mszReaders, pcchReaders);
    return entry.finish(rv, [&](Call& call) {
        call.context = number(hContext);
        call.bufferGiven = mszReaders != nullptr;
        call.capacity = capacity;
    });
}

LONG SCardListReaderGroups(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer() : listGroups(hContext, mszGroups, pcchGroups);
    return entry.finish(rv, [&](Call& call) { call.context = number(hContext); });
}

LONG SCardFreeMemory(SCARDCONTEXT hContext, LPCVOID pvMem)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer() : freeMemory(hContext, pvMem);
    return entry.finish(rv, [&](Call& call) { call.context = number(hContext); });
}

LONG SCardCancel(SCARDCONTEXT hContext)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer() : isValid(hContext);
    return entry.finish(rv, [&](Call& call) { call.context = number(hContext); });
}
