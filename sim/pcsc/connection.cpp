// Connections to a card: opening, ending, sharing, transactions.
#include "sim/pcsc/world.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace sim::pcsc;
using namespace sim::pcsc::detail;

namespace {

constexpr DWORD KNOWN_PROTOCOLS = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1 | SCARD_PROTOCOL_RAW;

LONG checkModes(DWORD share, DWORD preferred)
{
    if (share != SCARD_SHARE_DIRECT && (preferred & KNOWN_PROTOCOLS) == 0) {
        return SCARD_E_PROTO_MISMATCH;
    }
    return share < SCARD_SHARE_EXCLUSIVE || share > SCARD_SHARE_DIRECT ? SCARD_E_INVALID_VALUE
                                                                       : SCARD_S_SUCCESS;
}

// Once a connection has chosen a protocol, the card keeps it until it is reset.
LONG chooseProtocol(Reader& reader, DWORD share, DWORD preferred)
{
    if ((preferred & SCARD_PROTOCOL_RAW) != 0) {
        reader.protocol = SCARD_PROTOCOL_RAW;
        return SCARD_S_SUCCESS;
    }
    if (share == SCARD_SHARE_DIRECT) {
        return SCARD_S_SUCCESS;
    }
    const unsigned long fixed = reader.protocol != 0 ? reader.protocol : reader.offered;
    if ((preferred & fixed) == 0) {
        return SCARD_E_PROTO_MISMATCH;
    }
    reader.protocol = fixed;
    return SCARD_S_SUCCESS;
}

LONG checkAdmission(SCARDCONTEXT context, const Reader& reader, DWORD share)
{
    if (!world().contexts.contains(context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (!reader.plugged) {
        return SCARD_E_READER_UNAVAILABLE;
    }
    if (reader.sharing == EXCLUSIVE || reader.holder != 0) {
        return SCARD_E_SHARING_VIOLATION; // the service would wait for the end of a transaction
    }
    return share != SCARD_SHARE_DIRECT && !reader.card ? SCARD_E_NO_SMARTCARD : SCARD_S_SUCCESS;
}

// Admission to the reader, and its card under power.
LONG admit(Lock& lock, SCARDCONTEXT context, const std::shared_ptr<Reader>& reader, DWORD share)
{
    LONG rv = checkAdmission(context, *reader, share);
    while (rv == SCARD_S_SUCCESS && share != SCARD_SHARE_DIRECT && !reader->powered) {
        powerUp(lock, reader);
        rv = checkAdmission(context, *reader, share);
    }
    return rv;
}

LONG connectReader(SCARDCONTEXT context, LPCSTR name, DWORD share, DWORD preferred,
                   LPSCARDHANDLE handle, LPDWORD protocol)
{
    World& w = world();
    Lock lock(w.mutex);
    if (!w.contexts.contains(context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    *protocol = 0;
    if (const LONG rv = checkModes(share, preferred); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    const std::shared_ptr<Reader> reader = findReader(name);
    if (!reader) {
        return SCARD_E_UNKNOWN_READER;
    }
    if (const LONG rv = admit(lock, context, reader, share); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (const LONG rv = chooseProtocol(*reader, share, preferred); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    *protocol = reader->protocol;
    if (share == SCARD_SHARE_EXCLUSIVE && reader->sharing != 0) {
        return SCARD_E_SHARING_VIOLATION;
    }
    reader->sharing = share == SCARD_SHARE_EXCLUSIVE ? EXCLUSIVE : reader->sharing + 1;
    w.lastHandle += NUMBER_STEP;
    *handle = w.lastHandle;
    w.connections[*handle] = {context, reader, Event::None};
    return SCARD_S_SUCCESS;
}

LONG connect(SCARDCONTEXT context, LPCSTR name, DWORD share, DWORD preferred, LPSCARDHANDLE handle,
             LPDWORD protocol)
{
    if (handle == nullptr || protocol == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    *handle = 0;
    if (name == nullptr) {
        return SCARD_E_UNKNOWN_READER;
    }
    if (std::strlen(name) > MAX_READERNAME) {
        return SCARD_E_INVALID_VALUE;
    }
    return connectReader(context, name, share, preferred, handle, protocol);
}

// What the caller finds after a connection that the service refused, or never heard of.
LONG failConnect(LONG result, LPSCARDHANDLE handle, LPDWORD protocol)
{
    if (result != SCARD_S_SUCCESS && handle != nullptr) {
        *handle = 0;
    }
    if (result != SCARD_S_SUCCESS && result != SCARD_E_NO_SERVICE && protocol != nullptr) {
        *protocol = 0;
    }
    return result;
}

bool lockedByOther(const Reader& reader, SCARDHANDLE handle)
{
    return reader.holder != 0 && reader.holder != handle;
}

LONG changeSharing(Reader& reader, DWORD share)
{
    if (share != SCARD_SHARE_EXCLUSIVE) {
        reader.sharing = reader.sharing == EXCLUSIVE ? 1 : reader.sharing;
        return SCARD_S_SUCCESS;
    }
    if (reader.sharing > 1) {
        return SCARD_E_SHARING_VIOLATION;
    }
    reader.sharing = EXCLUSIVE;
    return SCARD_S_SUCCESS;
}

// What the service checks of a reconnection before it touches the card.
LONG checkReconnection(const Reader& reader, SCARDHANDLE handle, DWORD share, DWORD preferred,
                       DWORD initialization)
{
    if (initialization > SCARD_UNPOWER_CARD) {
        return SCARD_E_INVALID_VALUE;
    }
    if (const LONG rv = checkModes(share, preferred); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (!reader.plugged) {
        return SCARD_E_READER_UNAVAILABLE;
    }
    return lockedByOther(reader, handle) ? SCARD_E_SHARING_VIOLATION : SCARD_S_SUCCESS;
}

LONG restart(Lock& lock, const std::shared_ptr<Reader>& reader, DWORD initialization)
{
    if (initialization != SCARD_LEAVE_CARD) {
        resetCard(lock, reader);
    }
    powerUp(lock, reader);
    return reader->card ? SCARD_S_SUCCESS : SCARD_E_NO_SMARTCARD;
}

// Ends what checkReader() holds against the connection.
LONG reconnect(SCARDHANDLE handle, DWORD share, DWORD preferred, DWORD initialization,
               LPDWORD protocol)
{
    if (protocol == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Lock lock(world().mutex);
    Connection* connection = findConnection(handle);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    *protocol = 0;
    const std::shared_ptr<Reader> reader = connection->reader;
    LONG rv = checkReconnection(*reader, handle, share, preferred, initialization);
    if (rv == SCARD_S_SUCCESS) {
        rv = restart(lock, reader, initialization);
        connection = findConnection(handle); // the mutex was open meanwhile
    }
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (rv == SCARD_S_SUCCESS) {
        rv = chooseProtocol(*reader, share, preferred);
    }
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    *protocol = reader->protocol;
    rv = changeSharing(*reader, share);
    if (rv == SCARD_S_SUCCESS) {
        connection->event = Event::None;
    }
    return rv;
}

LONG disconnect(SCARDHANDLE handle, DWORD disposition)
{
    Lock lock(world().mutex);
    const Connection* const connection = findConnection(handle);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (disposition > SCARD_EJECT_CARD) {
        return SCARD_E_INVALID_VALUE;
    }
    const std::shared_ptr<Reader> reader = connection->reader;
    if (disposition != SCARD_LEAVE_CARD && lockedByOther(*reader, handle)) {
        return SCARD_E_SHARING_VIOLATION; // the service would wait for the end of the transaction
    }
    closeConnection(handle);
    if (disposition == SCARD_RESET_CARD) {
        resetCard(lock, reader);
    } else if (disposition == SCARD_UNPOWER_CARD) {
        tell(*reader, Event::Reset);
        reader->protocol = 0;
        reader->powered = false;
    }
    return SCARD_S_SUCCESS;
}

LONG beginTransaction(SCARDHANDLE handle)
{
    const Lock lock(world().mutex);
    const Connection* const connection = findConnection(handle);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (const LONG rv = checkReader(*connection, handle); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    connection->reader->holder = handle;
    ++connection->reader->depth;
    return SCARD_S_SUCCESS;
}

LONG endTransaction(SCARDHANDLE handle, DWORD disposition)
{
    Lock lock(world().mutex);
    const Connection* const connection = findConnection(handle);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (disposition > SCARD_EJECT_CARD) {
        return SCARD_E_INVALID_VALUE;
    }
    if (const LONG rv = checkReader(*connection, handle); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    const std::shared_ptr<Reader> reader = connection->reader;
    if (disposition == SCARD_RESET_CARD || disposition == SCARD_UNPOWER_CARD) {
        resetCard(lock, reader);
    }
    if (reader->holder != handle) {
        return SCARD_E_NOT_TRANSACTED;
    }
    if (--reader->depth == 0) {
        reader->holder = 0;
    }
    return SCARD_S_SUCCESS;
}

DWORD stateOf(const Reader& reader)
{
    const DWORD events = (reader.events & 0xFFFF) << 16;
    if (!reader.card) {
        return events | SCARD_ABSENT;
    }
    return events | SCARD_PRESENT | (reader.powered ? SCARD_POWERED | SCARD_NEGOTIABLE : 0UL);
}

// Copies what fits; a block of the service's own is given where the caller asked for one.
LONG giveBytes(const void* data, std::size_t size, void* buffer, LPDWORD length, DWORD room)
{
    *length = size;
    if (room == SCARD_AUTOALLOCATE) {
        if (buffer == nullptr) {
            return SCARD_E_INVALID_PARAMETER;
        }
        void* const block = std::malloc(std::max<std::size_t>(size, 1));
        if (block == nullptr) {
            return SCARD_E_NO_MEMORY;
        }
        std::memcpy(block, data, size);
        std::memcpy(buffer, &block, sizeof block);
        return SCARD_S_SUCCESS;
    }
    if (buffer != nullptr) {
        std::memcpy(buffer, data, std::min<std::size_t>(size, room));
    }
    return buffer != nullptr && size > room ? SCARD_E_INSUFFICIENT_BUFFER : SCARD_S_SUCCESS;
}

struct StatusPlaces {
    LPSTR name;
    LPDWORD nameLength;
    LPDWORD state;
    LPDWORD protocol;
    LPBYTE atr;
    LPDWORD atrLength;
};

LONG status(SCARDHANDLE handle, const StatusPlaces& to, DWORD nameRoom, DWORD atrRoom)
{
    const Lock lock(world().mutex);
    const Connection* const connection = findConnection(handle);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (const LONG rv = checkReader(*connection, handle); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    const Reader& reader = *connection->reader;
    *to.state = stateOf(reader);
    *to.protocol = reader.protocol;
    const std::size_t atrSize = std::min<std::size_t>(reader.atr.size(), MAX_ATR_SIZE);
    const LONG first =
        giveBytes(reader.name.c_str(), reader.name.size() + 1, to.name, to.nameLength, nameRoom);
    *to.atrLength = atrSize;
    if (first != SCARD_S_SUCCESS && first != SCARD_E_INSUFFICIENT_BUFFER) {
        return first;
    }
    const LONG second = giveBytes(reader.atr.data(), atrSize, to.atr, to.atrLength, atrRoom);
    return second != SCARD_S_SUCCESS ? second : first;
}

} // namespace

LONG SCardConnect(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode,
                  DWORD dwPreferredProtocols, LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol)
{
    const Entry entry(Function::Connect);
    const LONG rv = entry.answer() ? failConnect(*entry.answer(), phCard, pdwActiveProtocol)
                                   : connect(hContext, szReader, dwShareMode, dwPreferredProtocols,
                                             phCard, pdwActiveProtocol);
    if (rv == SCARD_S_SUCCESS && entry.protocol() && pdwActiveProtocol != nullptr) {
        *pdwActiveProtocol = *entry.protocol();
    }
    return entry.finish(rv, [&](Call& call) {
        call.context = number(hContext);
        call.reader = szReader != nullptr ? szReader : "";
        call.shareMode = dwShareMode;
        call.protocols = dwPreferredProtocols;
        call.card = rv == SCARD_S_SUCCESS && phCard != nullptr ? number(*phCard) : 0;
    });
}

LONG SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols,
                    DWORD dwInitialization, LPDWORD pdwActiveProtocol)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer()
                                   : reconnect(hCard, dwShareMode, dwPreferredProtocols,
                                               dwInitialization, pdwActiveProtocol);
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}

LONG SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition)
{
    const Entry entry(Function::Disconnect);
    const std::string reader = readerName(hCard);
    const LONG rv = entry.answer() ? *entry.answer() : disconnect(hCard, dwDisposition);
    return entry.finish(rv, [&](Call& call) {
        call.card = number(hCard);
        call.reader = reader;
        call.disposition = dwDisposition;
    });
}

LONG SCardBeginTransaction(SCARDHANDLE hCard)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer() : beginTransaction(hCard);
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}

LONG SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer() : endTransaction(hCard, dwDisposition);
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}

// The parameters are the header's. NOLINTNEXTLINE(readability-non-const-parameter)
LONG SCardStatus(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState,
                 LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen)
{
    const Entry entry(Function::Other);
    DWORD spare = 0;
    const StatusPlaces to{szReaderName,
                          pcchReaderLen != nullptr ? pcchReaderLen : &spare,
                          pdwState != nullptr ? pdwState : &spare,
                          pdwProtocol != nullptr ? pdwProtocol : &spare,
                          pbAtr,
                          pcbAtrLen != nullptr ? pcbAtrLen : &spare};
    const DWORD nameRoom = pcchReaderLen != nullptr ? *pcchReaderLen : 0;
    const DWORD atrRoom = pcbAtrLen != nullptr ? *pcbAtrLen : 0;
    *to.nameLength = *to.state = *to.protocol = *to.atrLength = 0;
    const LONG rv = entry.answer() ? *entry.answer() : status(hCard, to, nameRoom, atrRoom);
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}
