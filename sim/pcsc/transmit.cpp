// What is exchanged with a card or asked of its reader.
#include "sim/pcsc/world.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <reader.h>

using namespace sim::pcsc;
using namespace sim::pcsc::detail;

const SCARD_IO_REQUEST g_rgSCardT0Pci = {SCARD_PROTOCOL_T0, sizeof(SCARD_IO_REQUEST)};
const SCARD_IO_REQUEST g_rgSCardT1Pci = {SCARD_PROTOCOL_T1, sizeof(SCARD_IO_REQUEST)};
const SCARD_IO_REQUEST g_rgSCardRawPci = {SCARD_PROTOCOL_RAW, sizeof(SCARD_IO_REQUEST)};

namespace {

LONG checkExchange(const Connection& connection, SCARDHANDLE handle, unsigned long protocol)
{
    if (const LONG rv = checkReader(connection, handle); rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (!connection.reader->card) {
        return protocol == SCARD_PROTOCOL_RAW ? SCARD_E_NOT_TRANSACTED : SCARD_E_NO_SMARTCARD;
    }
    return protocol != SCARD_PROTOCOL_RAW && protocol != connection.reader->protocol
               ? SCARD_E_PROTO_MISMATCH
               : SCARD_S_SUCCESS;
}

// The card that is to answer; null with the reason in rv.
std::shared_ptr<sim::Card> findCard(SCARDHANDLE handle, unsigned long protocol, LONG& rv)
{
    Lock lock(world().mutex);
    const Connection* connection = findConnection(handle);
    if (connection == nullptr) {
        rv = SCARD_E_INVALID_HANDLE;
        return nullptr;
    }
    const std::shared_ptr<Reader> reader = connection->reader;
    rv = checkExchange(*connection, handle, protocol);
    if (rv == SCARD_S_SUCCESS && !reader->powered) {
        powerUp(lock, reader);
        rv = reader->card ? rv : SCARD_W_REMOVED_CARD;
    }
    return rv == SCARD_S_SUCCESS ? reader->card : nullptr;
}

sim::Bytes ask(sim::Card& card, LPCBYTE command, DWORD size)
{
    const auto serial = cardLock(card);
    return card.transmit({command, size});
}

LONG deliver(const sim::Bytes& reply, unsigned long protocol, SCARD_IO_REQUEST* pci, LPBYTE buffer,
             LPDWORD length)
{
    const DWORD room = *length;
    *length = reply.size();
    if (reply.size() > room) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    std::copy(reply.begin(), reply.end(), buffer);
    if (pci != nullptr) {
        *pci = {protocol, sizeof *pci};
    }
    return SCARD_S_SUCCESS;
}

LONG transmit(Entry& entry, SCARDHANDLE handle, const SCARD_IO_REQUEST* sendPci, LPCBYTE command,
              DWORD size, SCARD_IO_REQUEST* recvPci, LPBYTE buffer, LPDWORD length)
{
    if (command == nullptr || buffer == nullptr || length == nullptr || sendPci == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const unsigned long protocol = sendPci->dwProtocol;
    LONG rv = SCARD_S_SUCCESS;
    const std::shared_ptr<sim::Card> card = findCard(handle, protocol, rv);
    if (rv != SCARD_E_INVALID_HANDLE && size > MAX_BUFFER_SIZE_EXTENDED) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (!card) {
        *length = 0;
        return rv;
    }
    sim::Bytes reply = entry.reply() ? std::move(*entry.reply()) : ask(*card, command, size);
    if (entry.altersReply()) {
        reply = entry.altered(std::move(reply));
    }
    return deliver(reply, protocol, recvPci, buffer, length);
}

// A failure inside the service leaves no length; one on the way to it leaves the caller's.
LONG failTransmit(LONG result, LPDWORD length)
{
    const bool inService = result != SCARD_S_SUCCESS && result != SCARD_E_NO_SERVICE &&
                           result != SCARD_F_COMM_ERROR && result != SCARD_E_INVALID_PARAMETER &&
                           result != SCARD_E_INSUFFICIENT_BUFFER;
    if (inService && length != nullptr) {
        *length = 0;
    }
    return result;
}

LONG checkHandle(SCARDHANDLE handle)
{
    const Lock lock(world().mutex);
    const Connection* const connection = findConnection(handle);
    return connection != nullptr ? checkReader(*connection, handle) : SCARD_E_INVALID_HANDLE;
}

// The attributes a reader knows without its driver's help.
LONG readAttribute(SCARDHANDLE handle, DWORD attribute, sim::Bytes& value)
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
    if (attribute == SCARD_ATTR_ATR_STRING && reader.card) {
        value = reader.atr;
        return SCARD_S_SUCCESS;
    }
    if (attribute == SCARD_ATTR_DEVICE_FRIENDLY_NAME ||
        attribute == SCARD_ATTR_DEVICE_SYSTEM_NAME) {
        value.assign(reader.name.begin(), reader.name.end());
        value.push_back(0);
        return SCARD_S_SUCCESS;
    }
    return SCARD_E_UNSUPPORTED_FEATURE;
}

LONG getAttribute(SCARDHANDLE handle, DWORD attribute, LPBYTE buffer, LPDWORD length)
{
    if (length == nullptr || (buffer == nullptr && *length == SCARD_AUTOALLOCATE)) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const bool allocate = *length == SCARD_AUTOALLOCATE;
    const DWORD room = allocate || buffer == nullptr ? MAX_BUFFER_SIZE : *length;
    sim::Bytes value;
    const LONG rv = readAttribute(handle, attribute, value);
    if (rv != SCARD_E_INVALID_HANDLE && room > MAX_BUFFER_SIZE) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    *length = value.size();
    if (value.size() > room) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (allocate) {
        void* const block = std::malloc(value.size());
        if (block == nullptr) {
            return SCARD_E_NO_MEMORY;
        }
        std::memcpy(block, value.data(), value.size());
        std::memcpy(buffer, &block, sizeof block);
    } else if (buffer != nullptr) {
        std::copy(value.begin(), value.end(), buffer);
    }
    return SCARD_S_SUCCESS;
}

LONG setAttribute(SCARDHANDLE handle, LPCBYTE value, DWORD length)
{
    if (value == nullptr || length == 0) {
        return SCARD_E_INVALID_PARAMETER;
    }
    const LONG rv = checkHandle(handle);
    return rv == SCARD_S_SUCCESS ? SCARD_E_UNSUPPORTED_FEATURE : rv;
}

} // namespace

LONG SCardTransmit(SCARDHANDLE hCard, const SCARD_IO_REQUEST* pioSendPci, LPCBYTE pbSendBuffer,
                   DWORD cbSendLength, SCARD_IO_REQUEST* pioRecvPci, LPBYTE pbRecvBuffer,
                   LPDWORD pcbRecvLength)
{
    Entry entry(Function::Transmit);
    const bool logged = world().logging;
    sim::Bytes sent; // taken now: both buffers may be the same
    if (logged && pbSendBuffer != nullptr) {
        sent.assign(pbSendBuffer, pbSendBuffer + cbSendLength);
    }
    const DWORD capacity = pcbRecvLength != nullptr ? *pcbRecvLength : 0;
    const LONG rv = entry.answer() ? failTransmit(*entry.answer(), pcbRecvLength)
                                   : transmit(entry, hCard, pioSendPci, pbSendBuffer, cbSendLength,
                                              pioRecvPci, pbRecvBuffer, pcbRecvLength);
    if (!logged) {
        return rv;
    }
    return entry.finish(rv, [&](Call& call) {
        call.card = number(hCard);
        call.reader = readerName(hCard);
        call.protocols = pioSendPci != nullptr ? pioSendPci->dwProtocol : 0;
        call.bufferGiven = pioRecvPci != nullptr;
        call.capacity = capacity;
        call.sent = std::move(sent);
        if (rv == SCARD_S_SUCCESS && !entry.answer()) {
            call.received.assign(pbRecvBuffer, pbRecvBuffer + *pcbRecvLength);
        }
    });
}

LONG SCardControl(SCARDHANDLE hCard, DWORD, LPCVOID, DWORD, LPVOID, DWORD, LPDWORD lpBytesReturned)
{
    const Entry entry(Function::Other);
    if (lpBytesReturned != nullptr) {
        *lpBytesReturned = 0;
    }
    LONG rv = entry.answer() ? *entry.answer() : checkHandle(hCard);
    if (!entry.answer() && rv == SCARD_S_SUCCESS) {
        rv = SCARD_E_UNSUPPORTED_FEATURE; // no control code means anything to these readers
    }
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}

LONG SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen)
{
    const Entry entry(Function::Other);
    const LONG rv =
        entry.answer() ? *entry.answer() : getAttribute(hCard, dwAttrId, pbAttr, pcbAttrLen);
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}

LONG SCardSetAttrib(SCARDHANDLE hCard, DWORD, LPCBYTE pbAttr, DWORD cbAttrLen)
{
    const Entry entry(Function::Other);
    const LONG rv = entry.answer() ? *entry.answer() : setAttribute(hCard, pbAttr, cbAttrLen);
    return entry.finish(rv, [&](Call& call) { call.card = number(hCard); });
}
