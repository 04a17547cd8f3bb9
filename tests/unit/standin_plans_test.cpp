// The PC/SC stand-in: what tests plan, what it logs, and many threads at once.
#include "tests/unit/standin_support.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>

using namespace standin_test;
namespace pcsc = sim::pcsc;

namespace {

using Plans = StandIn;
using Log = StandIn;
using Threads = StandIn;

const Bytes SELECT = {0x00, 0xA4, 0x00, 0x00};

TEST_F(Plans, CountFromTheMomentOfPlanning)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    transmit(handle, SELECT, 2);
    pcsc::failNth(Function::Transmit, 2, SCARD_E_NOT_TRANSACTED);
    pcsc::failNth(Function::Transmit, 4, SCARD_F_COMM_ERROR);
    EXPECT_EQ(pcsc::pendingPlans(), 2u);
    SCardIsValidContext(context_); // other functions do not count
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2).result);
    EXPECT_RESULT(SCARD_E_NOT_TRANSACTED, transmit(handle, SELECT, 2).result);
    pcsc::failNth(Function::Transmit, 1, SCARD_W_UNPOWERED_CARD);
    EXPECT_RESULT(SCARD_W_UNPOWERED_CARD, transmit(handle, SELECT, 2).result);
    EXPECT_RESULT(SCARD_F_COMM_ERROR, transmit(handle, SELECT, 2).result);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2).result);
    EXPECT_EQ(pcsc::pendingPlans(), 0u);
    EXPECT_EQ(card->commands.size(), 3u) << "a call that fails by plan does not reach the card";
}

TEST_F(Plans, ReachEveryFunction)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    SCARDCONTEXT context = 0;
    SCARDHANDLE handle = 0;
    DWORD value = 0;
    SCARD_READERSTATE state = stateOf("A");
    const std::vector<std::pair<Function, std::function<LONG()>>> calls = {
        {Function::EstablishContext,
         [&] { return SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context); }},
        {Function::ReleaseContext, [&] { return SCardReleaseContext(context_); }},
        {Function::IsValidContext, [&] { return SCardIsValidContext(context_); }},
        {Function::ListReaders,
         [&] { return SCardListReaders(context_, nullptr, nullptr, &value); }},
        {Function::GetStatusChange, [&] { return SCardGetStatusChange(context_, 0, &state, 1); }},
        {Function::Connect,
         [&] { return SCardConnect(context_, "A", SCARD_SHARE_SHARED, 3, &handle, &value); }},
        {Function::Disconnect, [&] { return SCardDisconnect(card, SCARD_LEAVE_CARD); }},
        {Function::Transmit, [&] { return transmit(card, SELECT, 2).result; }},
        {Function::Other,
         [&] { return SCardReconnect(card, SCARD_SHARE_SHARED, 3, SCARD_LEAVE_CARD, &value); }},
        {Function::Other, [&] { return SCardBeginTransaction(card); }},
        {Function::Other, [&] { return SCardEndTransaction(card, SCARD_LEAVE_CARD); }},
        {Function::Other,
         [&] { return SCardStatus(card, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }},
        {Function::Other, [&] { return SCardControl(card, 1, nullptr, 0, nullptr, 0, nullptr); }},
        {Function::Other, [&] { return SCardGetAttrib(card, 1, nullptr, &value); }},
        {Function::Other, [&] { return SCardSetAttrib(card, 1, nullptr, 0); }},
        {Function::Other, [&] { return SCardListReaderGroups(context_, nullptr, &value); }},
        {Function::Other, [&] { return SCardFreeMemory(context_, nullptr); }},
        {Function::Other, [&] { return SCardCancel(context_); }},
    };
    pcsc::clearCalls();
    for (const auto& [function, call] : calls) {
        pcsc::failNth(function, 1, SCARD_F_WAITED_TOO_LONG);
        EXPECT_RESULT(SCARD_F_WAITED_TOO_LONG, call());
        EXPECT_EQ(pcsc::pendingPlans(), 0u);
    }
    pcsc::setServiceRunning(false);
    for (const auto& [function, call] : calls) {
        EXPECT_RESULT(SCARD_E_NO_SERVICE, call());
    }
    const std::vector<Call> log = pcsc::calls();
    ASSERT_EQ(log.size(), calls.size() * 2);
    for (std::size_t i = 0; i < log.size(); ++i) {
        EXPECT_EQ(log[i].function, calls[i % calls.size()].first) << i;
    }
}

TEST_F(Plans, ForAnyFunctionCountAllCalls)
{
    pcsc::plugReader("A");
    Action fail;
    fail.result = SCARD_E_SYSTEM_CANCELLED;
    pcsc::onNthOfAny(3, fail);
    DWORD length = 0;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardIsValidContext(context_));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardCancel(context_));
    EXPECT_RESULT(SCARD_E_SYSTEM_CANCELLED, SCardListReaders(context_, nullptr, nullptr, &length));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardListReaders(context_, nullptr, nullptr, &length));
}

TEST_F(Plans, ForAFunctionPrevailOverThoseForAnyAndTheseOverAStoppedService)
{
    pcsc::failNth(Function::IsValidContext, 1, SCARD_E_NOT_READY);
    pcsc::failNth(Function::IsValidContext, 1, SCARD_E_CANCELLED);
    Action fail;
    fail.result = SCARD_E_SYSTEM_CANCELLED;
    pcsc::onNthOfAny(1, fail);
    pcsc::onNthOfAny(2, fail);
    pcsc::setServiceRunning(false);
    EXPECT_RESULT(SCARD_E_NOT_READY, SCardIsValidContext(context_));
    EXPECT_RESULT(SCARD_E_SYSTEM_CANCELLED, SCardIsValidContext(context_));
    EXPECT_RESULT(SCARD_E_NO_SERVICE, SCardIsValidContext(context_));
}

TEST_F(Plans, LeaveOutputsAsAFailureOfTheServiceDoes)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    pcsc::failNth(Function::EstablishContext, 1, SCARD_E_NO_MEMORY);
    SCARDCONTEXT context = 99;
    EXPECT_RESULT(SCARD_E_NO_MEMORY,
                  SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context));
    EXPECT_EQ(context, 0);
    pcsc::failNth(Function::ListReaders, 1, SCARD_F_COMM_ERROR);
    pcsc::failNth(Function::ListReaders, 2, SCARD_E_NO_READERS_AVAILABLE);
    DWORD length = 7;
    EXPECT_RESULT(SCARD_F_COMM_ERROR, SCardListReaders(context_, nullptr, nullptr, &length));
    EXPECT_EQ(length, 0u);
    EXPECT_RESULT(SCARD_E_NO_READERS_AVAILABLE,
                  SCardListReaders(context_, nullptr, nullptr, &length));
    EXPECT_EQ(length, 1u);
    pcsc::failNth(Function::Connect, 1, SCARD_W_UNRESPONSIVE_CARD);
    SCARDHANDLE handle = 99;
    DWORD protocol = 77;
    EXPECT_RESULT(SCARD_W_UNRESPONSIVE_CARD,
                  SCardConnect(context_, "A", SCARD_SHARE_SHARED, 3, &handle, &protocol));
    EXPECT_EQ(handle, 0);
    EXPECT_EQ(protocol, 0u);
    pcsc::failNth(Function::Transmit, 1, SCARD_W_RESET_CARD);
    const Answer reset = transmit(card, SELECT, 10);
    EXPECT_EQ(reset.length, 0u);
    EXPECT_EQ(reset.buffer, Bytes(26, SENTINEL));
    for (const LONG result : {SCARD_E_NO_SERVICE, SCARD_F_COMM_ERROR, SCARD_S_SUCCESS}) {
        pcsc::failNth(Function::Transmit, 1, result);
        const Answer answer = transmit(card, SELECT, 10);
        EXPECT_RESULT(result, answer.result);
        EXPECT_EQ(answer.length, 10u);
        EXPECT_EQ(answer.buffer, Bytes(26, SENTINEL));
    }
    pcsc::failNth(Function::Disconnect, 1, SCARD_F_COMM_ERROR);
    SCardDisconnect(card, SCARD_LEAVE_CARD);
    EXPECT_EQ(pcsc::openCards(), 1u);
    pcsc::failNth(Function::ReleaseContext, 1, SCARD_F_COMM_ERROR);
    SCardReleaseContext(context_);
    EXPECT_EQ(pcsc::openContexts(), 1u);
}

TEST_F(Plans, AnswerInPlaceOfTheCardWithAnyLength)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    for (const std::size_t size : {0u, 1u, 2u, 258u, 3000u}) {
        const Bytes reply(size, 0x5C);
        pcsc::replyNth(1, reply);
        pcsc::replyNth(2, reply);
        const Answer whole = transmit(handle, SELECT, size);
        EXPECT_RESULT(SCARD_S_SUCCESS, whole.result);
        EXPECT_EQ(whole.length, size);
        EXPECT_EQ(whole.buffer, padded(reply, size + 16));
        const Answer tight = transmit(handle, SELECT, size == 0 ? 0 : size - 1);
        EXPECT_RESULT(size == 0 ? SCARD_S_SUCCESS : SCARD_E_INSUFFICIENT_BUFFER, tight.result);
        EXPECT_EQ(tight.length, size);
        EXPECT_EQ(tight.buffer, Bytes(tight.buffer.size(), SENTINEL));
    }
    EXPECT_TRUE(card->commands.empty());
}

TEST_F(Plans, AlterTheReplyOfTheCard)
{
    const auto card = plugWithCard("A");
    Action alter;
    alter.alter = [](const Bytes& reply) {
        Bytes longer = reply;
        longer.push_back(0xFF);
        return longer;
    };
    pcsc::onNth(Function::Transmit, 1, alter);
    pcsc::onNthOfAny(2, alter);
    const Answer answer = transmit(connect("A"), SELECT, 10);
    EXPECT_EQ(answer.buffer, padded({0x90, 0x00, 0xFF, 0xFF}, 26));
    EXPECT_EQ(card->commands, std::vector<Bytes>{SELECT});
}

TEST_F(Plans, RunFirstAndMayChangeTheWorld)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    Action remove;
    remove.before = [] { pcsc::removeCard("A"); };
    remove.reply = Bytes{0x90, 0x00};
    pcsc::onNth(Function::Transmit, 2, remove);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2).result);
    EXPECT_RESULT(SCARD_W_REMOVED_CARD, transmit(handle, SELECT, 2).result);
    Action stop;
    stop.before = [] { pcsc::setServiceRunning(false); };
    pcsc::onNth(Function::Connect, 1, stop);
    DWORD active = 0;
    SCARDHANDLE other = 0;
    EXPECT_RESULT(SCARD_E_NO_SERVICE,
                  SCardConnect(context_, "A", SCARD_SHARE_SHARED, 3, &other, &active));
    EXPECT_EQ(card->commands.size(), 1u);
}

TEST_F(Plans, MayCallTheServiceThemselves)
{
    plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    Action nested;
    nested.before = [handle] { transmit(handle, {0x00, 0xB0, 0x00, 0x00}, 2); };
    pcsc::onNth(Function::Transmit, 1, nested);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2).result);
    EXPECT_EQ(pcsc::sentCommands(), (std::vector<Bytes>{{0x00, 0xB0, 0x00, 0x00}, SELECT}));
}

TEST_F(Plans, TellAnotherProtocol)
{
    plugWithCard("A");
    Action odd;
    odd.protocol = SCARD_PROTOCOL_T15;
    pcsc::onNth(Function::Connect, 1, odd);
    SCARDHANDLE card = 0;
    DWORD active = 0;
    EXPECT_RESULT(SCARD_S_SUCCESS,
                  SCardConnect(context_, "A", SCARD_SHARE_SHARED, 3, &card, &active));
    EXPECT_EQ(active, SCARD_PROTOCOL_T15);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(card, SELECT, 2).result);
}

TEST_F(Plans, AreForgottenOnRequestAndOnReset)
{
    for (const bool whole : {false, true}) {
        pcsc::failNth(Function::IsValidContext, 1, SCARD_F_COMM_ERROR);
        Action fail;
        fail.result = SCARD_F_COMM_ERROR;
        pcsc::onNthOfAny(1, fail);
        if (whole) {
            pcsc::reset();
            context_ = establish();
        } else {
            pcsc::clearPlans();
        }
        EXPECT_EQ(pcsc::pendingPlans(), 0u);
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardIsValidContext(context_));
    }
    EXPECT_THROW(pcsc::failNth(Function::Connect, 0, SCARD_F_COMM_ERROR), std::logic_error);
}

TEST_F(Log, HoldsWhatWentInAndOut)
{
    plugWithCard("A");
    DWORD length = 33;
    char names[33];
    SCardListReaders(context_, nullptr, names, &length);
    std::array states{stateOf("A", 0x30)};
    SCardGetStatusChange(context_, 1000, states.data(), 1);
    const SCARDHANDLE card = connect("A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY);
    SCARD_IO_REQUEST received{};
    transmit(card, SELECT, 258, SCARD_PCI_T0, &received);
    transmit(card, {0x00}, 1);
    SCardDisconnect(card, SCARD_UNPOWER_CARD);
    SCardReleaseContext(context_);
    const std::vector<Call> log = pcsc::calls();
    ASSERT_EQ(log.size(), 8u);
    const auto context = static_cast<unsigned long>(context_);
    const auto handle = static_cast<unsigned long>(card);
    EXPECT_EQ(log[0].function, Function::EstablishContext);
    EXPECT_EQ(log[0].scope, SCARD_SCOPE_SYSTEM);
    EXPECT_EQ(log[0].context, context);
    EXPECT_EQ(log[1].function, Function::ListReaders);
    EXPECT_EQ(log[1].context, context);
    EXPECT_TRUE(log[1].bufferGiven);
    EXPECT_EQ(log[1].capacity, 33u);
    EXPECT_EQ(log[2].function, Function::GetStatusChange);
    EXPECT_EQ(log[2].context, context);
    EXPECT_EQ(log[2].timeout, 1000u);
    EXPECT_EQ(log[2].capacity, 1u);
    EXPECT_EQ(log[2].states,
              (std::vector<pcsc::StateRecord>{{"A", 0x30, 0x00010022, {0x3B, 0x02, 0x14, 0x50}}}));
    EXPECT_EQ(log[3].function, Function::Connect);
    EXPECT_EQ(log[3].context, context);
    EXPECT_EQ(log[3].reader, "A");
    EXPECT_EQ(log[3].shareMode, SCARD_SHARE_SHARED);
    EXPECT_EQ(log[3].protocols, SCARD_PROTOCOL_ANY);
    EXPECT_EQ(log[3].card, handle);
    EXPECT_EQ(log[4].function, Function::Transmit);
    EXPECT_EQ(log[4].card, handle);
    EXPECT_EQ(log[4].reader, "A");
    EXPECT_EQ(log[4].protocols, SCARD_PROTOCOL_T0);
    EXPECT_TRUE(log[4].bufferGiven);
    EXPECT_EQ(log[4].capacity, 258u);
    EXPECT_EQ(log[4].sent, SELECT);
    EXPECT_EQ(log[4].received, (Bytes{0x90, 0x00}));
    EXPECT_EQ(log[5].result, SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_FALSE(log[5].bufferGiven);
    EXPECT_EQ(log[5].capacity, 1u);
    EXPECT_TRUE(log[5].received.empty());
    EXPECT_EQ(log[6].function, Function::Disconnect);
    EXPECT_EQ(log[6].card, handle);
    EXPECT_EQ(log[6].reader, "A");
    EXPECT_EQ(log[6].disposition, SCARD_UNPOWER_CARD);
    EXPECT_EQ(log[7].function, Function::ReleaseContext);
    EXPECT_EQ(log[7].context, context);
}

TEST_F(Log, HoldsFailedCallsToo)
{
    pcsc::clearCalls();
    SCARDHANDLE card = 0;
    DWORD active = 0;
    SCardListReaders(context_, nullptr, nullptr, nullptr);
    SCardConnect(context_, nullptr, SCARD_SHARE_SHARED, 3, &card, &active);
    SCardTransmit(1, nullptr, nullptr, 4, nullptr, nullptr, nullptr);
    SCardGetStatusChange(context_, 0, nullptr, 3);
    std::array states{stateOf("Nobody", 0x30)};
    SCardGetStatusChange(context_, 0, states.data(), 1);
    const std::vector<Call> log = pcsc::calls();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, log[0].result);
    EXPECT_FALSE(log[0].bufferGiven);
    EXPECT_RESULT(SCARD_E_UNKNOWN_READER, log[1].result);
    EXPECT_EQ(log[1].reader, "");
    EXPECT_EQ(log[1].card, 0u);
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, log[2].result);
    EXPECT_TRUE(log[2].sent.empty());
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, log[3].result);
    EXPECT_EQ(log[3].capacity, 3u);
    EXPECT_TRUE(log[3].states.empty());
    EXPECT_RESULT(SCARD_E_UNKNOWN_READER, log[4].result);
    EXPECT_EQ(log[4].states, (std::vector<pcsc::StateRecord>{{"Nobody", 0x30, 0x5A5A5A5A, {}}}));
}

TEST_F(Log, IsChosenByFunctionClearedAndTurnedOff)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    transmit(card, SELECT, 2);
    transmit(card, SELECT, 2);
    EXPECT_EQ(pcsc::callCount(), 4u);
    EXPECT_EQ(pcsc::calls(Function::Transmit).size(), 2u);
    EXPECT_EQ(pcsc::calls(Function::Other).size(), 0u);
    pcsc::clearCalls();
    EXPECT_EQ(pcsc::callCount(), 0u);
    pcsc::setLogging(false);
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(card, SELECT, 2).result);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardIsValidContext(context_));
    EXPECT_EQ(pcsc::callCount(), 0u);
    pcsc::setLogging(true);
    transmit(card, SELECT, 2);
    EXPECT_EQ(pcsc::callCount(), 1u);
}

TEST_F(Log, DescribesExchanges)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    card->reply = {0xAB, 0x61, 0x10};
    transmit(handle, SELECT, 258);
    pcsc::failNth(Function::Transmit, 1, SCARD_W_REMOVED_CARD);
    transmit(handle, {0x00, 0xC0, 0x00, 0x00, 0x10}, 18);
    EXPECT_EQ(pcsc::describeCalls(), "00A40000 (258) -> AB6110\n"
                                     "00C0000010 (18) -> error 80100069\n");
}

TEST_F(Log, GrowsWithoutSlowingDown)
{
    plugWithCard("A");
    const SCARDHANDLE card = connect("A");
    pcsc::clearCalls();
    for (int i = 0; i < 100000; ++i) {
        transmit(card, SELECT, 2);
    }
    EXPECT_EQ(pcsc::callCount(), 100000u);
}

TEST_F(Threads, TakeTurnsWithACard)
{
    constexpr int THREADS = 16;
    constexpr int ROUNDS = 200;
    const auto card = plugWithCard("A");
    std::atomic<int> inside = 0;
    std::atomic<int> overlaps = 0;
    card->onTransmit = [&] {
        overlaps += inside++ != 0;
        std::this_thread::yield();
        --inside;
    };
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&] {
            SCARDCONTEXT context = 0;
            SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context);
            for (int i = 0; i < ROUNDS; ++i) {
                SCARDHANDLE handle = 0;
                DWORD active = 0;
                failures += SCardConnect(context, "A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY,
                                         &handle, &active) != SCARD_S_SUCCESS;
                failures += transmit(handle, SELECT, 2).result != SCARD_S_SUCCESS;
                std::array states{stateOf("A")};
                failures += SCardGetStatusChange(context, 0, states.data(), 1) != SCARD_S_SUCCESS;
                failures += SCardDisconnect(handle, SCARD_LEAVE_CARD) != SCARD_S_SUCCESS;
            }
            SCardReleaseContext(context);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(card->commands.size(), std::size_t{THREADS * ROUNDS});
    EXPECT_EQ(card->resets, 1u);
    EXPECT_EQ(pcsc::calls(Function::Transmit).size(), std::size_t{THREADS * ROUNDS});
    EXPECT_EQ(pcsc::openCards(), 0u);
    EXPECT_EQ(pcsc::openContexts(), 1u);
}

TEST_F(Threads, MayChangeTheWorldUnderEachOther)
{
    constexpr int THREADS = 15;
    constexpr int ROUNDS = 500;
    const auto card = plugWithCard("A");
    std::atomic<int> busy = THREADS;
    std::atomic<int> strange = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            const SCARDCONTEXT context = establish();
            for (int i = 0; i < ROUNDS; ++i) {
                SCARDHANDLE handle = 0;
                DWORD active = 0;
                const LONG rv = SCardConnect(context, "A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY,
                                             &handle, &active);
                strange += rv != SCARD_S_SUCCESS && rv != SCARD_E_NO_SMARTCARD &&
                           rv != SCARD_E_UNKNOWN_READER && rv != SCARD_E_READER_UNAVAILABLE;
                transmit(handle, SELECT, 2);
                SCardDisconnect(handle, static_cast<DWORD>(t) % 3);
                pcsc::calls(Function::Disconnect);
                pcsc::clearCalls();
            }
            SCardReleaseContext(context);
            --busy;
        });
    }
    while (busy != 0) {
        pcsc::removeCard("A");
        pcsc::failNth(Function::Transmit, 1, SCARD_F_COMM_ERROR);
        pcsc::insertCard("A", card);
        pcsc::unplugReader("A");
        pcsc::plugReader("A");
        pcsc::insertCard("A", card);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(strange, 0);
    EXPECT_EQ(pcsc::openCards(), 0u);
}

TEST_F(Threads, ReachTwoCardsAtTheSameTime)
{
    const auto first = plugWithCard("A");
    const auto second = plugWithCard("B");
    std::mutex mutex;
    std::condition_variable arrived;
    int inside = 0;
    bool met = true;
    const auto meet = [&] {
        std::unique_lock lock(mutex);
        ++inside;
        arrived.notify_all();
        met = arrived.wait_for(lock, std::chrono::seconds(20), [&] { return inside == 2; }) && met;
    };
    first->onTransmit = meet;
    second->onTransmit = meet;
    const SCARDHANDLE one = connect("A");
    const SCARDHANDLE two = connect("B");
    std::thread other([two] { transmit(two, SELECT, 2); });
    transmit(one, SELECT, 2);
    other.join();
    EXPECT_TRUE(met) << "one card waited for the other's answer";
}

TEST_F(Threads, OfACardMayChangeTheWorldWhileItAnswers)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE handle = connect("A");
    card->onTransmit = [] { pcsc::removeCard("A"); };
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(handle, SELECT, 2).result);
    EXPECT_RESULT(SCARD_W_REMOVED_CARD, transmit(handle, SELECT, 2).result);
}

} // namespace
