// The APDU exchange with the card of a session (ISO 7816-4), shared by all token families.
#pragma once

#include "src/core/bytes.h"
#include "src/front/pkcs11.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t OUTPUT_SIZE = 2050;
inline constexpr std::size_t COLLECTION_SIZE = 512;

// Reply of the last exchange: data, then SW1 SW2. Bytes behind a short reply keep what earlier
// exchanges left there.
extern std::array<std::uint8_t, OUTPUT_SIZE> pbyOutput;
// Before an exchange the bytes expected, status included; after it the bytes in pbyOutput.
extern std::uint64_t dwReplyLen;
// Data of replies that arrive in pieces, and how much of it there is.
extern std::array<std::uint8_t, COLLECTION_SIZE> ucTempBigOutput;
extern std::uint64_t ulTempLen;

// Sends a command and fetches pending data with GET RESPONSE. Returns 0 for 90 00, a PC/SC error
// code, or the status word with SW1 in its low byte (69 82 is 0x8269). The reply is in pbyOutput.
std::uint64_t VELTSCProcessAPDUEx(CK_SESSION_HANDLE hSession, const std::uint8_t* pbCommand,
                                  std::uint64_t cbCommand) noexcept;

// One SCardTransmit without a receive PCI; returns its result.
LONG VELTSCSendCmd(SCARDHANDLE hCard, const std::uint8_t* pbSend, std::uint64_t cbSend,
                   std::uint8_t* pbRecv, std::uint64_t* pcbRecv,
                   const SCARD_IO_REQUEST* pioSendPci) noexcept;

// The status word at the end of the dwReplyLen bytes of a response, SW1 in the low byte; 0 for a
// response of fewer than two bytes. `length` is not looked at.
std::uint16_t VELTSCCheckAPDURetcode(const std::uint8_t* pbResponse, std::uint64_t length) noexcept;

namespace velt {

// Status word in the form that the exchange returns.
constexpr std::uint64_t sw(std::uint8_t sw1, std::uint8_t sw2) noexcept
{
    return std::uint64_t{sw1} | (std::uint64_t{sw2} << 8);
}

inline constexpr std::size_t STATUS_SIZE = 2;
inline constexpr std::size_t HEADER_SIZE = 5; // CLA INS P1 P2 Lc
inline constexpr std::size_t COMMAND_SIZE = MAX_BUFFER_SIZE_EXTENDED;
inline constexpr std::size_t MAX_COMMAND_DATA = COMMAND_SIZE - HEADER_SIZE;

// A command under construction in the one static command buffer: only one lives at a time, and a
// new one overwrites it. A put that does not fit writes nothing and marks the command, which is
// then never sent.
class Command {
public:
    Command(std::uint8_t cla, std::uint8_t ins, std::uint8_t p1, std::uint8_t p2) noexcept;

    Command& put(std::uint8_t byte) noexcept;
    Command& put(ByteView bytes) noexcept;
    // Lc, the low eight bits of the size, then the bytes.
    Command& putCounted(ByteView bytes) noexcept;
    // The last byte first.
    Command& putTurned(ByteView bytes) noexcept;
    Command& putRepeated(std::uint8_t byte, std::size_t count) noexcept;

    bool overflowed() const noexcept { return overflowed_; }
    ByteView bytes() const noexcept;
    void wipe() noexcept; // after a command that carried a PIN

private:
    ByteRoom claim(std::size_t size) noexcept; // empty, and the command marked, if it does not fit

    std::size_t length_ = 0;
    bool overflowed_ = false;
};

// Exchanges a command for a reply of at most `capacity` bytes, status included; result as above. A
// marked command is not sent: SCARD_E_INVALID_PARAMETER.
std::uint64_t exchange(CK_SESSION_HANDLE hSession, ByteView command, std::size_t capacity) noexcept;
std::uint64_t exchange(CK_SESSION_HANDLE hSession, const Command& command,
                       std::size_t capacity) noexcept;

// The same with the length of the previous reply as the capacity.
std::uint64_t exchangeAsIs(CK_SESSION_HANDLE hSession, ByteView command) noexcept;
std::uint64_t exchangeAsIs(CK_SESSION_HANDLE hSession, const Command& command) noexcept;

// The last reply without its status bytes; empty for a reply shorter than two bytes.
ByteView replyData() noexcept;

} // namespace velt
