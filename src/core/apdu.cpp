#include "src/core/apdu.h"

#include "src/core/session.h"

#include <type_traits>

std::array<std::uint8_t, OUTPUT_SIZE> pbyOutput{};
std::uint64_t dwReplyLen = 0;
std::array<std::uint8_t, COLLECTION_SIZE> ucTempBigOutput{};
std::uint64_t ulTempLen = 0;

static_assert(std::is_same_v<std::uint64_t, DWORD>, "lengths go to PC/SC as they are");

namespace {

using velt::highByte;
using velt::lowByte;
using velt::STATUS_SIZE;

constexpr std::uint64_t SUCCESS = velt::sw(0x90, 0x00);
constexpr std::uint8_t INS_GET_RESPONSE = 0xC0;
constexpr std::size_t MAX_SHORT_REPLY = 258; // 256 bytes of data and the status
constexpr unsigned MAX_FETCHES = 1024;       // GET RESPONSE commands for one reply

std::array<std::uint8_t, velt::COMMAND_SIZE> commandBuffer{};

enum class Answer { Success, MoreData, Failure };

// Kept: SW1 is tested by bits, so that beside 61 also 63, 65, 71, 73, 75, E1, E3, E5, F1, F3 and F5
// fetch more data.
Answer judge(std::uint16_t status) noexcept
{
    const std::uint8_t sw1 = lowByte(status);
    if (status == SUCCESS) {
        return Answer::Success;
    }
    if ((sw1 & 0x61) != 0x61 || (sw1 & 0x69) == 0x69 || (sw1 & 0x67) == 0x67) {
        return Answer::Failure;
    }
    return Answer::MoreData;
}

// 0, or why there is no reply with a status to judge.
std::uint64_t transmit(const SessionEntry& session, velt::ByteView command) noexcept
{
    if (session.pioSendPci == nullptr) {
        return SCARD_E_PROTO_MISMATCH;
    }
    dwReplyLen = std::min<std::uint64_t>(dwReplyLen, OUTPUT_SIZE);
    const LONG sent = VELTSCSendCmd(session.hCard, command.data(), command.size(), pbyOutput.data(),
                                    &dwReplyLen, session.pioSendPci);
    dwReplyLen = std::min<std::uint64_t>(dwReplyLen, OUTPUT_SIZE); // a failure may tell the need
    if (sent != SCARD_S_SUCCESS) {
        return static_cast<std::uint64_t>(sent);
    }
    return dwReplyLen < STATUS_SIZE ? std::uint64_t{SCARD_E_PROTO_MISMATCH} : 0;
}

void clearCollection() noexcept
{
    ulTempLen = 0;
    ucTempBigOutput.fill(0);
}

void collect(velt::ByteView piece) noexcept
{
    ulTempLen += velt::copyBounded(velt::ByteRoom(ucTempBigOutput).subspan(ulTempLen), piece);
}

void collectPiece() noexcept
{
    if (dwReplyLen > STATUS_SIZE) {
        collect(velt::replyData());
    } else {
        clearCollection();
    }
}

// Ends a chain: the pieces, the last of them and its status become one reply. What is too much for
// the collection is dropped from the end of the data, never the status.
void joinPieces() noexcept
{
    const std::array status{pbyOutput[dwReplyLen - 2], pbyOutput[dwReplyLen - 1]};
    collect(velt::replyData());
    ulTempLen = std::min<std::uint64_t>(ulTempLen, COLLECTION_SIZE - STATUS_SIZE);
    collect(status);
    dwReplyLen = velt::copyBounded(pbyOutput, velt::ByteView(ucTempBigOutput).first(ulTempLen));
    clearCollection();
}

// Fetches data until the card has no more. Kept: a chain that ends in an error leaves its pieces,
// which the next reply that ends in 90 00 takes along.
std::uint64_t finishReply(const SessionEntry& session) noexcept
{
    for (unsigned fetches = 0;; ++fetches) {
        const std::uint16_t status = VELTSCCheckAPDURetcode(pbyOutput.data(), dwReplyLen);
        const Answer answer = judge(status);
        if (answer == Answer::Failure) {
            return status;
        }
        if (answer == Answer::Success) {
            if (ulTempLen != 0) {
                joinPieces();
            }
            return 0;
        }
        const std::uint8_t expected = highByte(status);
        collectPiece();
        const std::array<std::uint8_t, 5> getResponse{0x00, INS_GET_RESPONSE, 0x00, 0x00, expected};
        dwReplyLen = expected == 0 ? MAX_SHORT_REPLY : expected + STATUS_SIZE;
        const std::uint64_t failed = fetches == MAX_FETCHES ? std::uint64_t{SCARD_E_PROTO_MISMATCH}
                                                            : transmit(session, getResponse);
        if (failed != 0) {
            return failed;
        }
    }
}

} // namespace

std::uint64_t VELTSCProcessAPDUEx(CK_SESSION_HANDLE hSession, const std::uint8_t* pbCommand,
                                  std::uint64_t cbCommand) noexcept
{
    SessionEntry* session = hSession == 0 ? nullptr : velt::findSession(hSession);
    if (session == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    const std::uint64_t failed = transmit(*session, {pbCommand, cbCommand});
    if (failed != 0) {
        return failed; // Kept: not recorded in the session, unlike a failure further on.
    }
    session->deviceError = finishReply(*session);
    return session->deviceError;
}

LONG VELTSCSendCmd(SCARDHANDLE hCard, const std::uint8_t* pbSend, std::uint64_t cbSend,
                   std::uint8_t* pbRecv, std::uint64_t* pcbRecv,
                   const SCARD_IO_REQUEST* pioSendPci) noexcept
{
    return SCardTransmit(hCard, pioSendPci, pbSend, cbSend, nullptr, pbRecv, pcbRecv);
}

std::uint16_t VELTSCCheckAPDURetcode(const std::uint8_t* pbResponse,
                                     std::uint64_t /*length*/) noexcept
{
    if (dwReplyLen < STATUS_SIZE) {
        return 0;
    }
    const std::uint8_t* status = pbResponse + (dwReplyLen - STATUS_SIZE);
    return static_cast<std::uint16_t>(velt::sw(status[0], status[1]));
}

namespace velt {

Command::Command(std::uint8_t cla, std::uint8_t ins, std::uint8_t p1, std::uint8_t p2) noexcept
{
    put(std::array{cla, ins, p1, p2});
}

ByteRoom Command::claim(std::size_t size) noexcept
{
    if (size > commandBuffer.size() - length_) {
        overflowed_ = true;
        return {};
    }
    const std::size_t start = length_;
    length_ += size;
    return ByteRoom(commandBuffer).subspan(start, size);
}

Command& Command::put(std::uint8_t byte) noexcept
{
    return putRepeated(byte, 1);
}

Command& Command::put(ByteView bytes) noexcept
{
    copyBounded(claim(bytes.size()), bytes);
    return *this;
}

Command& Command::putCounted(ByteView bytes) noexcept
{
    if (bytes.size() >= commandBuffer.size() - length_) { // Lc takes a byte, too
        overflowed_ = true;
        return *this;
    }
    return put(lowByte(bytes.size())).put(bytes);
}

Command& Command::putTurned(ByteView bytes) noexcept
{
    const ByteRoom room = claim(bytes.size());
    std::ranges::reverse_copy(bytes.first(room.size()), room.begin());
    return *this;
}

Command& Command::putRepeated(std::uint8_t byte, std::size_t count) noexcept
{
    fill(claim(count), byte);
    return *this;
}

ByteView Command::bytes() const noexcept
{
    return ByteView(commandBuffer).first(length_);
}

void Command::wipe() noexcept
{
    velt::wipe(ByteRoom(commandBuffer).first(length_));
}

std::uint64_t exchange(CK_SESSION_HANDLE hSession, ByteView command, std::size_t capacity) noexcept
{
    dwReplyLen = capacity;
    return exchangeAsIs(hSession, command);
}

std::uint64_t exchange(CK_SESSION_HANDLE hSession, const Command& command,
                       std::size_t capacity) noexcept
{
    dwReplyLen = capacity;
    return exchangeAsIs(hSession, command);
}

std::uint64_t exchangeAsIs(CK_SESSION_HANDLE hSession, ByteView command) noexcept
{
    return VELTSCProcessAPDUEx(hSession, command.data(), command.size());
}

std::uint64_t exchangeAsIs(CK_SESSION_HANDLE hSession, const Command& command) noexcept
{
    if (command.overflowed()) {
        return SCARD_E_INVALID_PARAMETER;
    }
    return exchangeAsIs(hSession, command.bytes());
}

ByteView replyData() noexcept
{
    const std::uint64_t length = std::min<std::uint64_t>(dwReplyLen, OUTPUT_SIZE);
    return ByteView(pbyOutput).first(length < STATUS_SIZE ? 0 : length - STATUS_SIZE);
}

} // namespace velt
