// SCardGetStatusChange, which reports and never waits.
#include "sim/pcsc/world.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

using namespace sim::pcsc;
using namespace sim::pcsc::detail;

namespace {

constexpr DWORD EVENT_SHIFT = 16; // the event counter's place in a state
constexpr DWORD EVENT_MASK = 0xFFFF;

// The readers there were when the caller came in: what changes while the call's `before` action
// runs changes while the caller waits.
struct Arrival {
    std::vector<std::string> names;
    std::size_t count = 0;
};

Arrival arrive(bool mayChange)
{
    const Lock lock(world().mutex);
    Arrival arrival;
    arrival.count = world().readers.size();
    if (mayChange) {
        for (const auto& reader : world().readers) {
            arrival.names.push_back(reader->name);
        }
    }
    return arrival;
}

bool isPnp(const SCARD_READERSTATE& state)
{
    return strcasecmp(state.szReader, PNP_READER) == 0;
}

// Whether all names are ones the service can speak of. One without the pseudo-reader speaks of
// names that it does not know, too.
bool allKnown(const SCARD_READERSTATE* states, DWORD count, const Arrival& arrival)
{
    if (!world().plugAndPlay) {
        return true;
    }
    return std::all_of(states, states + count, [&](const SCARD_READERSTATE& state) {
        return findReader(state.szReader) || isPnp(state) ||
               std::find(arrival.names.begin(), arrival.names.end(), state.szReader) !=
                   arrival.names.end();
    });
}

// Whether the sharing told by `believed` has ended.
bool sharingChanged(const Reader& reader, DWORD believed)
{
    if (reader.sharing == EXCLUSIVE) {
        return (believed & SCARD_STATE_INUSE) != 0;
    }
    if (reader.sharing > 0) {
        return reader.card && (believed & SCARD_STATE_EXCLUSIVE) != 0;
    }
    return (believed & (SCARD_STATE_INUSE | SCARD_STATE_EXCLUSIVE)) != 0;
}

DWORD sharingBits(const Reader& reader)
{
    if (reader.sharing == EXCLUSIVE) {
        return SCARD_STATE_EXCLUSIVE;
    }
    return reader.sharing > 0 && reader.card ? SCARD_STATE_INUSE : 0;
}

bool hasChanged(const Reader& reader, DWORD believed)
{
    const DWORD contradicted =
        reader.card ? SCARD_STATE_EMPTY | SCARD_STATE_MUTE : SCARD_STATE_PRESENT;
    const DWORD counted = believed >> EVENT_SHIFT & EVENT_MASK;
    return believed == SCARD_STATE_UNAWARE ||
           (believed & (SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE | contradicted)) != 0 ||
           (counted != 0 && counted != (reader.events & EVENT_MASK)) ||
           sharingChanged(reader, believed);
}

void reportReader(const Reader& reader, SCARD_READERSTATE& state)
{
    state.dwEventState = (reader.events & EVENT_MASK) << EVENT_SHIFT | sharingBits(reader) |
                         (reader.card ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY);
    if (hasChanged(reader, state.dwCurrentState)) {
        state.dwEventState |= SCARD_STATE_CHANGED;
    }
    state.cbAtr = std::min<std::size_t>(reader.atr.size(), sizeof state.rgbAtr);
    std::copy_n(reader.atr.begin(), state.cbAtr, state.rgbAtr);
}

void reportUnknown(SCARD_READERSTATE& state)
{
    state.dwEventState = SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE;
    if ((state.dwCurrentState & SCARD_STATE_UNKNOWN) == 0) {
        state.dwEventState |= SCARD_STATE_CHANGED;
    }
}

void report(SCARD_READERSTATE& state, const Arrival& arrival)
{
    state.dwEventState = 0;
    if ((state.dwCurrentState & SCARD_STATE_IGNORE) != 0) {
        return;
    }
    if (const std::shared_ptr<Reader> reader = findReader(state.szReader)) {
        reportReader(*reader, state);
    } else if (!isPnp(state) || !world().plugAndPlay) {
        reportUnknown(state);
    } else if (world().readers.size() != arrival.count) {
        state.dwEventState = SCARD_STATE_CHANGED;
    }
}

bool allIgnored(const SCARD_READERSTATE* states, DWORD count)
{
    return std::all_of(states, states + count, [](const SCARD_READERSTATE& state) {
        return (state.dwCurrentState & SCARD_STATE_IGNORE) != 0;
    });
}

LONG statusChange(SCARDCONTEXT context, SCARD_READERSTATE* states, DWORD count,
                  const Arrival& arrival, bool& reported)
{
    if ((states == nullptr && count > 0) || count > PCSCLITE_MAX_READERS_CONTEXTS) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (std::any_of(states, states + count,
                    [](const SCARD_READERSTATE& state) { return state.szReader == nullptr; })) {
        return SCARD_E_INVALID_VALUE;
    }
    if (allIgnored(states, count)) {
        return SCARD_S_SUCCESS;
    }
    const Lock lock(world().mutex);
    if (!world().contexts.contains(context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (!allKnown(states, count, arrival)) {
        return SCARD_E_UNKNOWN_READER;
    }
    reported = true;
    bool changed = false;
    for (DWORD i = 0; i < count; ++i) {
        report(states[i], arrival);
        changed = changed || (states[i].dwEventState & SCARD_STATE_CHANGED) != 0;
    }
    return changed ? SCARD_S_SUCCESS : SCARD_E_TIMEOUT;
}

StateRecord recordOf(const SCARD_READERSTATE& state, bool reported)
{
    StateRecord record;
    record.reader = state.szReader != nullptr ? state.szReader : "";
    record.currentState = state.dwCurrentState;
    record.eventState = state.dwEventState;
    if (reported && (state.dwEventState & SCARD_STATE_PRESENT) != 0) {
        record.atr.assign(state.rgbAtr, state.rgbAtr + state.cbAtr);
    }
    return record;
}

} // namespace

LONG SCardGetStatusChange(SCARDCONTEXT hContext, DWORD dwTimeout, SCARD_READERSTATE* rgReaderStates,
                          DWORD cReaders)
{
    Entry entry(Function::GetStatusChange, Entry::Before::Later);
    const Arrival arrival = arrive(entry.hasBefore());
    entry.runBefore();
    bool reported = false;
    const LONG rv = entry.answer()
                        ? *entry.answer()
                        : statusChange(hContext, rgReaderStates, cReaders, arrival, reported);
    return entry.finish(rv, [&](Call& call) {
        call.context = number(hContext);
        call.timeout = dwTimeout;
        call.capacity = cReaders;
        if (rgReaderStates == nullptr || cReaders > PCSCLITE_MAX_READERS_CONTEXTS) {
            return; // refused without a look at them
        }
        for (DWORD i = 0; i < cReaders; ++i) {
            call.states.push_back(recordOf(rgReaderStates[i], reported));
        }
    });
}
