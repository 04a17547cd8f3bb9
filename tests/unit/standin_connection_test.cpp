// The PC/SC stand-in: connections, exchanges with a card, transactions.
#include "tests/unit/standin_support.h"

#include <reader.h>

#include <algorithm>
#include <cstring>

using namespace standin_test;
namespace pcsc = sim::pcsc;

namespace {

using Connections = StandIn;
using Power = StandIn;
using Exchanges = StandIn;
using Transactions = StandIn;

const Bytes SELECT = {0x00, 0xA4, 0x00, 0x00};

struct Connected {
    LONG result;
    SCARDHANDLE card;
    DWORD protocol;
    bool operator==(const Connected&) const = default;
};

Connected tryConnect(SCARDCONTEXT context, const char* reader, DWORD share = SCARD_SHARE_SHARED,
                     DWORD protocols = SCARD_PROTOCOL_ANY)
{
    Connected outcome{0, 5, 77};
    outcome.result =
        SCardConnect(context, reader, share, protocols, &outcome.card, &outcome.protocol);
    return outcome;
}

TEST_F(Connections, HandOutTheProtocolOfTheCard)
{
    plugWithCard("Zero", SCARD_PROTOCOL_T0);
    plugWithCard("One", SCARD_PROTOCOL_T1);
    const Connected zero = tryConnect(context_, "Zero");
    EXPECT_RESULT(SCARD_S_SUCCESS, zero.result);
    EXPECT_EQ(zero.protocol, SCARD_PROTOCOL_T0);
    const Connected one = tryConnect(context_, "One");
    EXPECT_RESULT(SCARD_S_SUCCESS, one.result);
    EXPECT_EQ(one.protocol, SCARD_PROTOCOL_T1);
    EXPECT_NE(zero.card, 0);
    EXPECT_NE(one.card, 0);
    EXPECT_NE(zero.card, one.card);
    EXPECT_EQ(pcsc::openCards(), 2u);
}

TEST_F(Connections, AreRefusedByTheServiceWithNothingHandedOut)
{
    plugWithCard("A");
    pcsc::plugReader("Empty");
    const std::string tooLong(128, 'x');
    EXPECT_EQ(tryConnect(context_, "Empty"), (Connected{SCARD_E_NO_SMARTCARD, 0, 0}));
    EXPECT_EQ(tryConnect(context_, "Nobody"), (Connected{SCARD_E_UNKNOWN_READER, 0, 0}));
    EXPECT_EQ(tryConnect(context_, tooLong.c_str()), (Connected{SCARD_E_UNKNOWN_READER, 0, 0}));
    EXPECT_EQ(tryConnect(context_, "A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1),
              (Connected{SCARD_E_PROTO_MISMATCH, 0, 0}));
    EXPECT_EQ(tryConnect(context_, "A", SCARD_SHARE_SHARED, 0),
              (Connected{SCARD_E_PROTO_MISMATCH, 0, 0}));
    EXPECT_EQ(tryConnect(context_, "A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T15),
              (Connected{SCARD_E_PROTO_MISMATCH, 0, 0}));
    EXPECT_EQ(tryConnect(context_, "A", 0), (Connected{SCARD_E_INVALID_VALUE, 0, 0}));
    EXPECT_EQ(tryConnect(context_, "A", 9), (Connected{SCARD_E_INVALID_VALUE, 0, 0}));
    EXPECT_EQ(pcsc::openCards(), 0u);
}

TEST_F(Connections, AreRefusedByTheLibraryWithTheProtocolUntouched)
{
    plugWithCard("A");
    const std::string tooLong(129, 'x');
    EXPECT_EQ(tryConnect(context_ + 1, "A"), (Connected{SCARD_E_INVALID_HANDLE, 0, 77}));
    EXPECT_EQ(tryConnect(context_, nullptr), (Connected{SCARD_E_UNKNOWN_READER, 0, 77}));
    EXPECT_EQ(tryConnect(context_, tooLong.c_str()), (Connected{SCARD_E_INVALID_VALUE, 0, 77}));
    pcsc::setServiceRunning(false);
    EXPECT_EQ(tryConnect(context_, "A"), (Connected{SCARD_E_NO_SERVICE, 0, 77}));
    pcsc::setServiceRunning(true);
    SCARDHANDLE card = 5;
    DWORD protocol = 77;
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER,
                  SCardConnect(context_, "A", SCARD_SHARE_SHARED, 3, nullptr, &protocol));
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER,
                  SCardConnect(context_, "A", SCARD_SHARE_SHARED, 3, &card, nullptr));
    EXPECT_EQ(card, 5);
    EXPECT_EQ(protocol, 77u);
}

TEST_F(Connections, ShareAReaderUnlessOneIsExclusive)
{
    plugWithCard("A");
    const SCARDHANDLE first = connect("A");
    EXPECT_EQ(tryConnect(context_, "A", SCARD_SHARE_EXCLUSIVE),
              (Connected{SCARD_E_SHARING_VIOLATION, 0, SCARD_PROTOCOL_T0}));
    const SCARDHANDLE second = connect("A");
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(first, SCARD_LEAVE_CARD));
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(second, SCARD_LEAVE_CARD));
    const SCARDHANDLE sole = connect("A", SCARD_SHARE_EXCLUSIVE);
    for (const DWORD share : std::initializer_list<DWORD>{SCARD_SHARE_SHARED, SCARD_SHARE_EXCLUSIVE,
                                                          SCARD_SHARE_DIRECT}) {
        EXPECT_EQ(tryConnect(establish(), "A", share),
                  (Connected{SCARD_E_SHARING_VIOLATION, 0, 0}));
    }
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(sole, SELECT, 2).result);
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(sole, SCARD_LEAVE_CARD));
    connect("A");
    connect("A");
    EXPECT_EQ(pcsc::openCards(), 2u);
}

TEST_F(Connections, KeepTheProtocolUntilAReset)
{
    plugWithCard("A");
    const SCARDHANDLE raw = connect("A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_RAW);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(raw, SELECT, 2, SCARD_PCI_RAW).result);
    EXPECT_RESULT(SCARD_E_PROTO_MISMATCH, transmit(raw, SELECT, 2).result);
    EXPECT_RESULT(SCARD_E_PROTO_MISMATCH, tryConnect(context_, "A").result);
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(raw, SCARD_RESET_CARD));
    EXPECT_EQ(tryConnect(context_, "A").protocol, SCARD_PROTOCOL_T0);
}

TEST_F(Connections, WithoutACardReachTheReaderAlone)
{
    pcsc::plugReader("A");
    const Connected direct = tryConnect(context_, "A", SCARD_SHARE_DIRECT, 0);
    EXPECT_RESULT(SCARD_S_SUCCESS, direct.result);
    EXPECT_EQ(direct.protocol, 0u);
    const Answer answer = transmit(direct.card, SELECT, 10);
    EXPECT_RESULT(SCARD_E_NO_SMARTCARD, answer.result);
    EXPECT_EQ(answer.length, 0u);
    EXPECT_RESULT(SCARD_E_NOT_TRANSACTED, transmit(direct.card, SELECT, 10, SCARD_PCI_RAW).result);
    const auto card = std::make_shared<CountingCard>();
    pcsc::insertCard("A", card);
    EXPECT_RESULT(SCARD_E_PROTO_MISMATCH, transmit(direct.card, SELECT, 10).result);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(direct.card, SELECT, 10, SCARD_PCI_RAW).result);
    EXPECT_EQ(card->resets, 1u);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(direct.card, SCARD_LEAVE_CARD));
}

TEST_F(Connections, ChooseTheProtocolAnewForANewCard)
{
    plugWithCard("A");
    connect("A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_RAW);
    pcsc::removeCard("A");
    pcsc::insertCard("A", std::make_shared<CountingCard>(SCARD_PROTOCOL_T1));
    EXPECT_EQ(tryConnect(context_, "A").protocol, SCARD_PROTOCOL_T1);
}

TEST_F(Connections, EndOnlyByAKnownHandleAndDisposition)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardDisconnect(card + 1, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardDisconnect(0, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_INVALID_VALUE, SCardDisconnect(card, 4));
    EXPECT_EQ(pcsc::openCards(), 1u);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(card, SCARD_EJECT_CARD));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardDisconnect(card, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, transmit(card, SELECT, 2).result);
    EXPECT_EQ(pcsc::openCards(), 0u);
}

TEST_F(Connections, OfAStoppedServiceStayOpen)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    pcsc::setServiceRunning(false);
    EXPECT_RESULT(SCARD_E_NO_SERVICE, SCardDisconnect(card, SCARD_LEAVE_CARD));
    const Answer answer = transmit(card, SELECT, 10);
    EXPECT_RESULT(SCARD_E_NO_SERVICE, answer.result);
    EXPECT_EQ(answer.length, 10u);
    pcsc::setServiceRunning(true);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(card, SCARD_LEAVE_CARD));
}

TEST_F(Power, ComesWithTheFirstConnectionAndStays)
{
    const auto card = plugWithCard("A");
    EXPECT_EQ(card->resets, 0u);
    for (int round = 0; round < 3; ++round) {
        const SCARDHANDLE handle = connect("A");
        transmit(handle, SELECT, 2);
        SCardDisconnect(handle, SCARD_LEAVE_CARD);
        EXPECT_EQ(card->resets, 1u);
    }
    EXPECT_EQ(card->commands, std::vector<Bytes>(3, SELECT));
}

TEST_F(Power, IsNotGivenForADirectConnection)
{
    const auto card = plugWithCard("A");
    connect("A", SCARD_SHARE_DIRECT, 0);
    EXPECT_EQ(card->resets, 0u);
}

TEST_F(Power, ReturnsOnceAfterEachDispositionThatAsksForIt)
{
    struct Row {
        DWORD disposition;
        std::size_t atOnce;
        std::size_t atNextConnection;
    };
    const auto card = plugWithCard("A");
    for (const Row row : {Row{SCARD_LEAVE_CARD, 0, 0}, Row{SCARD_RESET_CARD, 1, 0},
                          Row{SCARD_UNPOWER_CARD, 0, 1}, Row{SCARD_EJECT_CARD, 0, 0}}) {
        const SCARDHANDLE handle = connect("A");
        card->resets = 0;
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(handle, row.disposition));
        EXPECT_EQ(card->resets, row.atOnce) << row.disposition;
        SCardDisconnect(connect("A"), SCARD_LEAVE_CARD);
        EXPECT_EQ(card->resets, row.atOnce + row.atNextConnection) << row.disposition;
    }
}

TEST_F(Power, ReturnsAfterANewInsertion)
{
    const auto card = plugWithCard("A");
    SCardDisconnect(connect("A"), SCARD_LEAVE_CARD);
    pcsc::removeCard("A");
    pcsc::insertCard("A", card);
    SCardDisconnect(connect("A"), SCARD_LEAVE_CARD);
    EXPECT_EQ(card->resets, 2u);
}

TEST_F(Power, LostBehindAConnectionsBackMustBeAcknowledged)
{
    for (const DWORD disposition :
         std::initializer_list<DWORD>{SCARD_RESET_CARD, SCARD_UNPOWER_CARD}) {
        pcsc::reset();
        context_ = establish();
        plugWithCard("A");
        const SCARDHANDLE mine = connect("A");
        SCardDisconnect(connect("A"), disposition);
        const Answer refused = transmit(mine, SELECT, 10);
        EXPECT_RESULT(SCARD_W_RESET_CARD, refused.result);
        EXPECT_EQ(refused.length, 0u);
        EXPECT_EQ(refused.buffer, Bytes(26, SENTINEL));
        EXPECT_RESULT(SCARD_W_RESET_CARD, SCardBeginTransaction(mine));
        DWORD protocol = 77;
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardReconnect(mine, SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY,
                                                      SCARD_LEAVE_CARD, &protocol));
        EXPECT_EQ(protocol, SCARD_PROTOCOL_T0);
        EXPECT_RESULT(SCARD_S_SUCCESS, transmit(mine, SELECT, 10).result);
    }
}

TEST_F(Power, ReturnsWithAReconnectionThatAsksForIt)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE mine = connect("A");
    const SCARDHANDLE other = connect("A");
    for (const DWORD initialization :
         std::initializer_list<DWORD>{SCARD_RESET_CARD, SCARD_UNPOWER_CARD}) {
        card->resets = 0;
        DWORD protocol = 77;
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardReconnect(mine, SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY,
                                                      initialization, &protocol));
        EXPECT_EQ(card->resets, 1u);
        EXPECT_RESULT(SCARD_S_SUCCESS, transmit(mine, SELECT, 2).result);
        EXPECT_RESULT(SCARD_W_RESET_CARD, transmit(other, SELECT, 2).result);
    }
}

TEST_F(Connections, AreRenewedByTheRulesOfNewOnes)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    const auto renew = [card](DWORD share, DWORD protocols, DWORD initialization) {
        DWORD protocol = 77;
        const LONG rv = SCardReconnect(card, share, protocols, initialization, &protocol);
        EXPECT_EQ(protocol, rv == SCARD_S_SUCCESS ? 1u : 0u);
        return rv;
    };
    EXPECT_RESULT(SCARD_E_INVALID_VALUE, renew(SCARD_SHARE_SHARED, 3, SCARD_EJECT_CARD));
    EXPECT_RESULT(SCARD_E_INVALID_VALUE, renew(9, 3, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_PROTO_MISMATCH, renew(SCARD_SHARE_SHARED, 2, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, renew(SCARD_SHARE_EXCLUSIVE, 3, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, tryConnect(context_, "A").result);
    EXPECT_RESULT(SCARD_S_SUCCESS, renew(SCARD_SHARE_SHARED, 3, SCARD_LEAVE_CARD));
    connect("A");
    DWORD protocol = 77;
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION,
                  SCardReconnect(card, SCARD_SHARE_EXCLUSIVE, 3, SCARD_LEAVE_CARD, &protocol));
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER,
                  SCardReconnect(card, SCARD_SHARE_SHARED, 3, SCARD_LEAVE_CARD, nullptr));
    protocol = 77;
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE,
                  SCardReconnect(card + 1, SCARD_SHARE_SHARED, 3, SCARD_LEAVE_CARD, &protocol));
    EXPECT_EQ(protocol, 77u);
}

TEST_F(Exchanges, FitOrLeaveTheBufferAlone)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    for (const std::size_t size : {0u, 1u, 2u, 10u, 300u}) {
        card->reply = Bytes(size, 0x42);
        for (DWORD room = 0; room <= size + 2; ++room) {
            const Answer answer = transmit(handle, SELECT, room);
            const bool fits = size <= room;
            EXPECT_RESULT(fits ? SCARD_S_SUCCESS : SCARD_E_INSUFFICIENT_BUFFER, answer.result);
            EXPECT_EQ(answer.length, size);
            EXPECT_EQ(answer.buffer, padded(fits ? card->reply : Bytes(), room + 16));
        }
    }
}

TEST_F(Exchanges, CarryCommandsOfAnyLengthThePcscHeaderAllows)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    Bytes command(MAX_BUFFER_SIZE_EXTENDED + 1, 0x20);
    for (const DWORD size :
         std::initializer_list<DWORD>{0, 1, 3, 4, 5, 261, MAX_BUFFER_SIZE_EXTENDED}) {
        DWORD length = 2;
        Bytes buffer(2);
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardTransmit(handle, SCARD_PCI_T0, command.data(), size,
                                                     nullptr, buffer.data(), &length));
        EXPECT_EQ(card->commands.back(), Bytes(size, 0x20));
    }
    const Answer answer = transmit(handle, command, 10);
    EXPECT_RESULT(SCARD_E_INSUFFICIENT_BUFFER, answer.result);
    EXPECT_EQ(answer.length, 10u);
    EXPECT_EQ(card->commands.size(), 7u);
    const Answer unknown = transmit(handle + 1, command, 10);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, unknown.result);
    EXPECT_EQ(unknown.length, 0u);
}

TEST_F(Exchanges, MayUseOneBufferForBothWays)
{
    const auto card = plugWithCard("A");
    card->reply = {0x01, 0x02, 0x90, 0x00};
    const SCARDHANDLE handle = connect("A");
    Bytes buffer = SELECT;
    DWORD length = 4;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardTransmit(handle, SCARD_PCI_T0, buffer.data(), 4, nullptr,
                                                 buffer.data(), &length));
    EXPECT_EQ(buffer, card->reply);
    EXPECT_EQ(pcsc::sentCommands(), std::vector<Bytes>{SELECT});
}

TEST_F(Exchanges, NeedTheProtocolOfTheConnection)
{
    const auto card = plugWithCard("A", SCARD_PROTOCOL_T1);
    const SCARDHANDLE handle = connect("A");
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2, SCARD_PCI_T1).result);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2, SCARD_PCI_RAW).result);
    for (const unsigned long protocol : {0ul, 1ul, 3ul, 8ul}) {
        const SCARD_IO_REQUEST pci{protocol, sizeof pci};
        const Answer answer = transmit(handle, SELECT, 10, &pci);
        EXPECT_RESULT(SCARD_E_PROTO_MISMATCH, answer.result);
        EXPECT_EQ(answer.length, 0u);
    }
    EXPECT_EQ(card->commands.size(), 2u);
}

TEST_F(Exchanges, FillInTheReceivePci)
{
    plugWithCard("A");
    SCARD_IO_REQUEST received{9, 9};
    EXPECT_RESULT(SCARD_S_SUCCESS,
                  transmit(connect("A"), SELECT, 2, SCARD_PCI_T0, &received).result);
    EXPECT_EQ(received.dwProtocol, SCARD_PROTOCOL_T0);
    EXPECT_EQ(received.cbPciLength, sizeof received);
}

TEST_F(Exchanges, AreRefusedForMissingArgumentsBeforeTheHandle)
{
    plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    for (const SCARDHANDLE card : {handle, handle + 1}) {
        DWORD length = 10;
        Bytes buffer(10, SENTINEL);
        EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardTransmit(card, nullptr, SELECT.data(), 4,
                                                               nullptr, buffer.data(), &length));
        EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardTransmit(card, SCARD_PCI_T0, nullptr, 4,
                                                               nullptr, buffer.data(), &length));
        EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardTransmit(card, SCARD_PCI_T0, SELECT.data(), 4,
                                                               nullptr, nullptr, &length));
        EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardTransmit(card, SCARD_PCI_T0, SELECT.data(), 4,
                                                               nullptr, buffer.data(), nullptr));
        EXPECT_EQ(length, 10u);
    }
    const Answer answer = transmit(handle + 1, SELECT, 10);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, answer.result);
    EXPECT_EQ(answer.length, 0u);
}

TEST_F(Exchanges, WithARemovedCardFailUntilTheConnectionIsRenewed)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    pcsc::removeCard("A");
    const Answer removed = transmit(handle, SELECT, 10);
    EXPECT_RESULT(SCARD_W_REMOVED_CARD, removed.result);
    EXPECT_EQ(removed.length, 0u);
    EXPECT_EQ(removed.buffer, Bytes(26, SENTINEL));
    DWORD protocol = 77;
    EXPECT_RESULT(SCARD_E_NO_SMARTCARD,
                  SCardReconnect(handle, SCARD_SHARE_SHARED, 3, SCARD_LEAVE_CARD, &protocol));
    EXPECT_EQ(protocol, 0u);
    pcsc::insertCard("A", card);
    EXPECT_RESULT(SCARD_W_REMOVED_CARD, transmit(handle, SELECT, 10).result);
    EXPECT_RESULT(SCARD_S_SUCCESS,
                  SCardReconnect(handle, SCARD_SHARE_SHARED, 3, SCARD_LEAVE_CARD, &protocol));
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 10).result);
    EXPECT_EQ(card->commands.size(), 1u);
}

TEST_F(Exchanges, WithAVanishedReaderFailForGood)
{
    plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    pcsc::unplugReader("A");
    const Answer gone = transmit(handle, SELECT, 10);
    EXPECT_RESULT(SCARD_E_READER_UNAVAILABLE, gone.result);
    EXPECT_EQ(gone.length, 0u);
    plugWithCard("A");
    EXPECT_RESULT(SCARD_E_READER_UNAVAILABLE, transmit(handle, SELECT, 10).result);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(handle, SCARD_LEAVE_CARD));
    EXPECT_EQ(pcsc::openCards(), 0u);
    connect("A");
}

TEST_F(Transactions, KeepOthersOut)
{
    plugWithCard("A");
    const SCARDHANDLE mine = connect("A");
    const SCARDHANDLE other = connect("A");
    const SCARDHANDLE leaving = connect("A");
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardBeginTransaction(mine));
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(mine, SELECT, 2).result);
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, transmit(other, SELECT, 2).result);
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, SCardBeginTransaction(other));
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, SCardEndTransaction(other, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, tryConnect(context_, "A").result);
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, SCardDisconnect(other, SCARD_RESET_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(leaving, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardEndTransaction(mine, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(other, SELECT, 2).result);
}

TEST_F(Transactions, NestAndEndWithTheirConnection)
{
    plugWithCard("A");
    const SCARDHANDLE mine = connect("A");
    const SCARDHANDLE other = connect("A");
    EXPECT_RESULT(SCARD_E_NOT_TRANSACTED, SCardEndTransaction(mine, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardBeginTransaction(mine));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardBeginTransaction(mine));
    EXPECT_RESULT(SCARD_E_INVALID_VALUE, SCardEndTransaction(mine, 4));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardEndTransaction(mine, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_E_SHARING_VIOLATION, SCardBeginTransaction(other));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(mine, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardBeginTransaction(other));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardBeginTransaction(mine));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardEndTransaction(mine, SCARD_LEAVE_CARD));
}

TEST_F(Transactions, ThatEndInAResetTellEveryone)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE mine = connect("A");
    const SCARDHANDLE other = connect("A");
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardBeginTransaction(mine));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardEndTransaction(mine, SCARD_RESET_CARD));
    EXPECT_EQ(card->resets, 2u);
    EXPECT_RESULT(SCARD_W_RESET_CARD, transmit(mine, SELECT, 2).result);
    EXPECT_RESULT(SCARD_W_RESET_CARD, transmit(other, SELECT, 2).result);
}

TEST_F(Connections, TellTheirStatus)
{
    plugWithCard("Reader A");
    const SCARDHANDLE card = connect("Reader A");
    std::string name(12, '#');
    DWORD nameLength = 12;
    DWORD state = 0;
    DWORD protocol = 0;
    Bytes atr(8, SENTINEL);
    DWORD atrLength = 8;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardStatus(card, name.data(), &nameLength, &state, &protocol,
                                               atr.data(), &atrLength));
    EXPECT_EQ(name, std::string("Reader A\0###", 12));
    EXPECT_EQ(nameLength, 9u);
    EXPECT_EQ(state, 0x00010000u | SCARD_PRESENT | SCARD_POWERED | SCARD_NEGOTIABLE);
    EXPECT_EQ(protocol, SCARD_PROTOCOL_T0);
    EXPECT_EQ(atr, padded({0x3B, 0x02, 0x14, 0x50}, 8));
    EXPECT_EQ(atrLength, 4u);
    name.assign(12, '#');
    nameLength = 3;
    EXPECT_RESULT(SCARD_E_INSUFFICIENT_BUFFER,
                  SCardStatus(card, name.data(), &nameLength, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(name, "Rea#########");
    EXPECT_EQ(nameLength, 9u);
    pcsc::removeCard("Reader A");
    EXPECT_RESULT(SCARD_W_REMOVED_CARD,
                  SCardStatus(card, nullptr, &nameLength, &state, &protocol, nullptr, &atrLength));
    EXPECT_EQ(nameLength + state + protocol + atrLength, 0u);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE,
                  SCardStatus(card + 1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(Connections, TellAttributesOfTheReader)
{
    plugWithCard("Reader A");
    const SCARDHANDLE card = connect("Reader A");
    Bytes value(12, SENTINEL);
    DWORD length = 12;
    EXPECT_RESULT(SCARD_S_SUCCESS,
                  SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, value.data(), &length));
    EXPECT_EQ(value, padded({0x3B, 0x02, 0x14, 0x50}, 12));
    EXPECT_EQ(length, 4u);
    length = 8;
    value.assign(12, SENTINEL);
    EXPECT_RESULT(SCARD_E_INSUFFICIENT_BUFFER,
                  SCardGetAttrib(card, SCARD_ATTR_DEVICE_FRIENDLY_NAME, value.data(), &length));
    EXPECT_EQ(length, 9u);
    EXPECT_EQ(value, padded({}, 12));
    EXPECT_RESULT(SCARD_S_SUCCESS,
                  SCardGetAttrib(card, SCARD_ATTR_DEVICE_SYSTEM_NAME, nullptr, &length));
    EXPECT_EQ(length, 9u);
    length = MAX_BUFFER_SIZE + 1;
    Bytes large(length);
    EXPECT_RESULT(SCARD_E_INSUFFICIENT_BUFFER,
                  SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, large.data(), &length));
    EXPECT_RESULT(SCARD_E_UNSUPPORTED_FEATURE,
                  SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, nullptr, &length));
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER,
                  SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, value.data(), nullptr));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE,
                  SCardGetAttrib(card + 1, SCARD_ATTR_ATR_STRING, nullptr, &length));
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER,
                  SCardSetAttrib(card, SCARD_ATTR_ATR_STRING, value.data(), 0));
    EXPECT_RESULT(SCARD_E_UNSUPPORTED_FEATURE,
                  SCardSetAttrib(card, SCARD_ATTR_ATR_STRING, value.data(), 4));
}

TEST_F(Connections, KnowNoControlCode)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    DWORD length = 7;
    EXPECT_RESULT(SCARD_E_UNSUPPORTED_FEATURE, SCardControl(card, CM_IOCTL_GET_FEATURE_REQUEST,
                                                            nullptr, 0, nullptr, 0, &length));
    EXPECT_EQ(length, 0u);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardControl(card + 1, CM_IOCTL_GET_FEATURE_REQUEST,
                                                       nullptr, 0, nullptr, 0, nullptr));
}

TEST(Results, AreNamed)
{
    EXPECT_STREQ(pcsc_stringify_error(SCARD_S_SUCCESS), "SCARD_S_SUCCESS");
    EXPECT_STREQ(pcsc_stringify_error(SCARD_W_REMOVED_CARD), "SCARD_W_REMOVED_CARD");
    EXPECT_STREQ(pcsc_stringify_error(0x12345), "Unknown error: 0x00012345");
}

TEST(ProtocolInformation, NamesTheProtocolAndItsOwnLength)
{
    EXPECT_EQ(SCARD_PCI_T0->dwProtocol, SCARD_PROTOCOL_T0);
    EXPECT_EQ(SCARD_PCI_T1->dwProtocol, SCARD_PROTOCOL_T1);
    EXPECT_EQ(SCARD_PCI_RAW->dwProtocol, SCARD_PROTOCOL_RAW);
    for (const SCARD_IO_REQUEST* pci : {SCARD_PCI_T0, SCARD_PCI_T1, SCARD_PCI_RAW}) {
        EXPECT_EQ(pci->cbPciLength, 16u);
    }
}

} // namespace
