// The PC/SC stand-in: contexts, listings, reader states.
#include "tests/unit/standin_support.h"

#include <cstring>
#include <stdexcept>

using namespace standin_test;
namespace pcsc = sim::pcsc;

namespace {

using Contexts = StandIn;
using Listing = StandIn;
using States = StandIn;

TEST_F(Contexts, HaveDifferentNumbersOtherThanZero)
{
    const SCARDCONTEXT second = establish();
    EXPECT_NE(context_, 0);
    EXPECT_NE(second, 0);
    EXPECT_NE(context_, second);
    EXPECT_EQ(pcsc::openContexts(), 2u);
    for (const SCARDCONTEXT neighbour : {context_ - 1, context_ + 1, second - 1, second + 1}) {
        EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardIsValidContext(neighbour));
    }
}

TEST_F(Contexts, AreValidUntilTheyAreReleased)
{
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardIsValidContext(context_));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardIsValidContext(context_ + 1));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardReleaseContext(context_));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardIsValidContext(context_));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardReleaseContext(context_));
    EXPECT_EQ(pcsc::openContexts(), 0u);
}

TEST_F(Contexts, AreRefusedForAnUnknownScope)
{
    for (DWORD scope = SCARD_SCOPE_USER; scope <= SCARD_SCOPE_GLOBAL; ++scope) {
        SCARDCONTEXT context = 0;
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardEstablishContext(scope, nullptr, nullptr, &context));
    }
    SCARDCONTEXT context = 99;
    EXPECT_RESULT(SCARD_E_INVALID_VALUE, SCardEstablishContext(4, nullptr, nullptr, &context));
    EXPECT_EQ(context, 0);
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER,
                  SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, nullptr));
}

TEST_F(Contexts, OfAnEarlierTestStayInvalid)
{
    pcsc::reset();
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardIsValidContext(context_));
    EXPECT_NE(establish(), context_);
}

TEST_F(Contexts, TakeTheirCardHandlesAlong)
{
    const auto card = plugWithCard("A");
    const SCARDHANDLE mine = connect("A");
    const SCARDCONTEXT other = establish();
    SCARDHANDLE others = 0;
    DWORD active = 0;
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardConnect(other, "A", SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY,
                                                &others, &active));
    EXPECT_EQ(pcsc::openCards(), 2u);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardReleaseContext(context_));
    EXPECT_EQ(pcsc::openCards(), 1u);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardDisconnect(mine, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, transmit(others, {0x00, 0xA4, 0x00, 0x00}, 2).result);
    EXPECT_EQ(card->resets, 1u) << "a released context leaves the card as it is";
}

TEST_F(Contexts, ThatEndInATransactionResetTheCard)
{
    const auto card = plugWithCard("A");
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardBeginTransaction(connect("A")));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardReleaseContext(context_));
    EXPECT_EQ(card->resets, 2u);
}

TEST_F(Contexts, OfAStoppedServiceAreRefusedAndTheCallersNumberStays)
{
    pcsc::setServiceRunning(false);
    SCARDCONTEXT context = 99;
    EXPECT_RESULT(SCARD_E_NO_SERVICE,
                  SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context));
    EXPECT_EQ(context, 99);
    EXPECT_RESULT(SCARD_E_NO_SERVICE, SCardIsValidContext(context_));
    pcsc::setServiceRunning(true);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardIsValidContext(context_));
}

TEST_F(Contexts, ReleasedWhileTheServiceIsStoppedAreGone)
{
    pcsc::setServiceRunning(false);
    EXPECT_RESULT(SCARD_E_NO_SERVICE, SCardReleaseContext(context_));
    pcsc::setServiceRunning(true);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardIsValidContext(context_));
}

TEST_F(Contexts, CanBeCancelled)
{
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardCancel(context_));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardCancel(context_ + 1));
}

// "Reader A", "B" and the closing NUL.
const std::string TWO_NAMES{"Reader A\0B\0\0", 12};

TEST_F(Listing, NamesTheNeededLengthWithoutABuffer)
{
    pcsc::plugReader("Reader A");
    pcsc::plugReader("B");
    DWORD length = 1;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardListReaders(context_, nullptr, nullptr, &length));
    EXPECT_EQ(length, TWO_NAMES.size());
}

TEST_F(Listing, FillsABufferOnlyWhenAllFits)
{
    pcsc::plugReader("Reader A");
    pcsc::plugReader("B");
    for (DWORD room = 0; room <= TWO_NAMES.size() + 3; ++room) {
        std::string buffer(32, '#');
        DWORD length = room;
        const bool fits = room >= TWO_NAMES.size();
        EXPECT_RESULT(fits ? SCARD_S_SUCCESS : SCARD_E_INSUFFICIENT_BUFFER,
                      SCardListReaders(context_, nullptr, buffer.data(), &length));
        EXPECT_EQ(length, TWO_NAMES.size());
        const std::string expected = fits ? TWO_NAMES : "";
        EXPECT_EQ(buffer, expected + std::string(32 - expected.size(), '#')) << room;
    }
}

TEST_F(Listing, WithoutReadersNamesTheClosingNulAlone)
{
    for (const bool withBuffer : {false, true}) {
        std::string buffer(8, '#');
        DWORD length = 8;
        EXPECT_RESULT(
            SCARD_E_NO_READERS_AVAILABLE,
            SCardListReaders(context_, nullptr, withBuffer ? buffer.data() : nullptr, &length));
        EXPECT_EQ(length, 1u);
        EXPECT_EQ(buffer, "########");
    }
}

TEST_F(Listing, AllocatesOnRequest)
{
    pcsc::plugReader("Reader A");
    pcsc::plugReader("B");
    char* names = nullptr;
    void* const place = &names;
    DWORD length = SCARD_AUTOALLOCATE;
    ASSERT_RESULT(SCARD_S_SUCCESS,
                  SCardListReaders(context_, nullptr, static_cast<LPSTR>(place), &length));
    EXPECT_EQ(std::string(names, length), TWO_NAMES);
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardFreeMemory(context_ + 1, names));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardFreeMemory(context_, names));
    length = SCARD_AUTOALLOCATE;
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardListReaders(context_, nullptr, nullptr, &length));
    EXPECT_EQ(length, TWO_NAMES.size());
}

TEST_F(Listing, RefusesAMissingLengthAndAForeignContext)
{
    pcsc::plugReader("Reader A");
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardListReaders(context_, nullptr, nullptr, nullptr));
    DWORD length = 7;
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE,
                  SCardListReaders(context_ + 1, nullptr, nullptr, &length));
    EXPECT_EQ(length, 7u);
}

TEST_F(Listing, KeepsTheOrderWhenAReaderGoesAndComesBack)
{
    for (const char* name : {"A", "B", "C"}) {
        pcsc::plugReader(name);
    }
    pcsc::unplugReader("A");
    pcsc::plugReader("A");
    std::string buffer(7, '#');
    DWORD length = 7;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardListReaders(context_, nullptr, buffer.data(), &length));
    EXPECT_EQ(buffer, std::string("B\0C\0A\0\0", 7));
}

TEST_F(Listing, OfAStoppedServiceLeavesNoLength)
{
    pcsc::plugReader("A");
    pcsc::setServiceRunning(false);
    DWORD length = 7;
    EXPECT_RESULT(SCARD_E_NO_SERVICE, SCardListReaders(context_, nullptr, nullptr, &length));
    EXPECT_EQ(length, 0u);
}

TEST_F(Listing, KnowsOneGroup)
{
    const std::string group{"SCard$DefaultReaders\0\0", 22};
    DWORD length = 0;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardListReaderGroups(context_, nullptr, &length));
    EXPECT_EQ(length, 22u);
    std::string buffer(24, '#');
    length = 21;
    EXPECT_RESULT(SCARD_E_INSUFFICIENT_BUFFER,
                  SCardListReaderGroups(context_, buffer.data(), &length));
    EXPECT_EQ(buffer, std::string(24, '#'));
    length = 24;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardListReaderGroups(context_, buffer.data(), &length));
    EXPECT_EQ(buffer, group + "##");
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardListReaderGroups(context_ + 1, nullptr, &length));
}

TEST_F(Listing, RefusesReadersAndCardsThatCannotBe)
{
    pcsc::plugReader("A");
    EXPECT_THROW(pcsc::plugReader("A"), std::logic_error);
    EXPECT_THROW(pcsc::plugReader(""), std::logic_error);
    EXPECT_THROW(pcsc::unplugReader("B"), std::logic_error);
    EXPECT_THROW(pcsc::removeCard("A"), std::logic_error);
    EXPECT_THROW(pcsc::insertCard("B", std::make_shared<CountingCard>()), std::logic_error);
    EXPECT_THROW(pcsc::insertCard("A", nullptr), std::logic_error);
    pcsc::insertCard("A", std::make_shared<CountingCard>());
    EXPECT_THROW(pcsc::insertCard("A", std::make_shared<CountingCard>()), std::logic_error);
}

TEST_F(States, OfAnUnawareCallerAlwaysChanged)
{
    plugWithCard("Full");
    pcsc::plugReader("Empty");
    std::array states{stateOf("Full"), stateOf("Empty")};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, INFINITE, states.data(), 2));
    EXPECT_EQ(states[0].dwEventState, 0x00010000u | SCARD_STATE_CHANGED | SCARD_STATE_PRESENT);
    EXPECT_EQ(states[0].cbAtr, 4u);
    EXPECT_EQ(Bytes(states[0].rgbAtr, states[0].rgbAtr + 33), padded({0x3B, 0x02, 0x14, 0x50}, 33));
    EXPECT_EQ(states[1].dwEventState, SCARD_STATE_CHANGED | SCARD_STATE_EMPTY);
    EXPECT_EQ(states[1].cbAtr, 0u);
    EXPECT_EQ(Bytes(states[1].rgbAtr, states[1].rgbAtr + 33), padded({}, 33));
}

TEST_F(States, ThatDidNotChangeEndInATimeoutWithoutWaiting)
{
    plugWithCard("Full");
    std::array states{stateOf("Full", SCARD_STATE_PRESENT)};
    EXPECT_RESULT(SCARD_E_TIMEOUT, SCardGetStatusChange(context_, INFINITE, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState, 0x00010000u | SCARD_STATE_PRESENT);
    EXPECT_EQ(states[0].cbAtr, 4u);
}

struct Belief {
    bool card;
    DWORD current;
    bool changed;
};

// The reader with a card has seen one event, the empty one two.
class BelievedStates : public StandIn, public ::testing::WithParamInterface<Belief> {};

TEST_P(BelievedStates, DecideWhetherAReaderChanged)
{
    const Belief belief = GetParam();
    plugWithCard("Full");
    plugWithCard("Empty");
    pcsc::removeCard("Empty");
    std::array states{stateOf(belief.card ? "Full" : "Empty", belief.current)};
    EXPECT_RESULT(belief.changed ? SCARD_S_SUCCESS : SCARD_E_TIMEOUT,
                  SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState,
              (belief.card ? 0x00010000u | SCARD_STATE_PRESENT : 0x00020000u | SCARD_STATE_EMPTY) |
                  (belief.changed ? SCARD_STATE_CHANGED : 0u));
}

INSTANTIATE_TEST_SUITE_P(
    Card, BelievedStates,
    ::testing::Values(Belief{true, SCARD_STATE_UNAWARE, true},
                      Belief{true, SCARD_STATE_PRESENT, false},
                      Belief{true, SCARD_STATE_PRESENT | SCARD_STATE_CHANGED, false},
                      Belief{true, SCARD_STATE_CHANGED, false},
                      Belief{true, SCARD_STATE_EMPTY, true},
                      Belief{true, SCARD_STATE_PRESENT | SCARD_STATE_UNKNOWN, true},
                      Belief{true, SCARD_STATE_PRESENT | SCARD_STATE_UNAVAILABLE, true},
                      Belief{true, SCARD_STATE_PRESENT | SCARD_STATE_MUTE, true},
                      Belief{true, SCARD_STATE_PRESENT | SCARD_STATE_INUSE, true},
                      Belief{true, SCARD_STATE_PRESENT | SCARD_STATE_EXCLUSIVE, true},
                      Belief{true, 0x00010000 | SCARD_STATE_PRESENT, false},
                      Belief{true, 0x00020000 | SCARD_STATE_PRESENT, true}));

INSTANTIATE_TEST_SUITE_P(
    NoCard, BelievedStates,
    ::testing::Values(Belief{false, SCARD_STATE_UNAWARE, true},
                      Belief{false, SCARD_STATE_EMPTY, false},
                      Belief{false, SCARD_STATE_CHANGED, false},
                      Belief{false, SCARD_STATE_PRESENT, true},
                      Belief{false, SCARD_STATE_EMPTY | SCARD_STATE_UNKNOWN, true},
                      Belief{false, SCARD_STATE_EMPTY | SCARD_STATE_UNAVAILABLE, true},
                      Belief{false, SCARD_STATE_EMPTY | SCARD_STATE_MUTE, false},
                      Belief{false, SCARD_STATE_EMPTY | SCARD_STATE_INUSE, true},
                      Belief{false, 0x00020000 | SCARD_STATE_EMPTY, false},
                      Belief{false, 0x00010000 | SCARD_STATE_EMPTY, true}));

TEST_F(States, CountInsertionsAndRemovals)
{
    pcsc::plugReader("A");
    for (DWORD events = 1; events <= 6; ++events) {
        if (events % 2 == 1) {
            pcsc::insertCard("A", std::make_shared<CountingCard>());
        } else {
            pcsc::removeCard("A");
        }
        std::array states{stateOf("A")};
        EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
        EXPECT_EQ(states[0].dwEventState >> 16, events);
    }
}

TEST_F(States, CountInSixteenBits)
{
    pcsc::plugReader("A");
    const auto card = std::make_shared<CountingCard>();
    for (int i = 0; i < 0x8000; ++i) {
        pcsc::insertCard("A", card);
        pcsc::removeCard("A");
    }
    std::array states{stateOf("A", SCARD_STATE_EMPTY)};
    EXPECT_RESULT(SCARD_E_TIMEOUT, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState, SCARD_STATE_EMPTY);
}

TEST_F(States, TellOfConnections)
{
    plugWithCard("A");
    const SCARDHANDLE shared = connect("A");
    std::array states{stateOf("A")};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState,
              0x00010000u | SCARD_STATE_CHANGED | SCARD_STATE_PRESENT | SCARD_STATE_INUSE);
    states[0].dwCurrentState = SCARD_STATE_PRESENT | SCARD_STATE_EXCLUSIVE;
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    states[0].dwCurrentState = SCARD_STATE_PRESENT | SCARD_STATE_INUSE;
    EXPECT_RESULT(SCARD_E_TIMEOUT, SCardGetStatusChange(context_, 0, states.data(), 1));
    ASSERT_RESULT(SCARD_S_SUCCESS, SCardDisconnect(shared, SCARD_LEAVE_CARD));
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState, 0x00010000u | SCARD_STATE_CHANGED | SCARD_STATE_PRESENT);
    connect("A", SCARD_SHARE_EXCLUSIVE);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState,
              0x00010000u | SCARD_STATE_CHANGED | SCARD_STATE_PRESENT | SCARD_STATE_EXCLUSIVE);
}

TEST_F(States, OfAnEmptyReaderAreNotInUse)
{
    pcsc::plugReader("A");
    connect("A", SCARD_SHARE_DIRECT, 0);
    std::array states{stateOf("A")};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState, SCARD_STATE_CHANGED | SCARD_STATE_EMPTY);
}

TEST_F(States, CarryAtMostThirtyThreeBytesOfAtr)
{
    pcsc::plugReader("A");
    pcsc::insertCard("A", std::make_shared<CountingCard>(SCARD_PROTOCOL_T0, Bytes(40, 0x3B)));
    std::array states{stateOf("A"), stateOf("A", SCARD_STATE_IGNORE)};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 2));
    EXPECT_EQ(states[0].cbAtr, 33u);
    EXPECT_EQ(Bytes(states[0].rgbAtr, states[0].rgbAtr + 33), Bytes(33, 0x3B));
    EXPECT_STREQ(states[1].szReader, "A");
}

TEST_F(States, ToBeIgnoredAreOnlyCleared)
{
    plugWithCard("A");
    std::array states{stateOf("A", SCARD_STATE_IGNORE), stateOf("A")};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 2));
    EXPECT_EQ(states[0].dwEventState, 0u);
    EXPECT_EQ(states[0].cbAtr, 77u);
    states = {stateOf("A", SCARD_STATE_IGNORE), stateOf("Nobody", SCARD_STATE_IGNORE)};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(0, 0, states.data(), 2));
    EXPECT_EQ(states[0].dwEventState, 0x5A5A5A5Au);
}

TEST_F(States, AreAtMostSixteenInACall)
{
    plugWithCard("A");
    std::vector<SCARD_READERSTATE> states(17, stateOf("A"));
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardGetStatusChange(context_, 0, states.data(), 17));
    EXPECT_EQ(states[0].dwEventState, 0x5A5A5A5Au);
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 16));
    EXPECT_EQ(states[15].dwEventState, 0x00010000u | SCARD_STATE_CHANGED | SCARD_STATE_PRESENT);
    EXPECT_EQ(states[16].dwEventState, 0x5A5A5A5Au);
}

TEST_F(States, AreCheckedBeforeTheContext)
{
    plugWithCard("A");
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(0, 0, nullptr, 0));
    EXPECT_RESULT(SCARD_E_INVALID_PARAMETER, SCardGetStatusChange(0, 0, nullptr, 1));
    std::array states{stateOf("A"), stateOf(nullptr)};
    EXPECT_RESULT(SCARD_E_INVALID_VALUE, SCardGetStatusChange(0, 0, states.data(), 2));
    EXPECT_RESULT(SCARD_E_INVALID_HANDLE, SCardGetStatusChange(0, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState, 0x5A5A5A5Au);
}

TEST_F(States, OfUnknownReadersAreRefused)
{
    plugWithCard("A");
    std::array states{stateOf("A"), stateOf("Nobody", SCARD_STATE_IGNORE)};
    EXPECT_RESULT(SCARD_E_UNKNOWN_READER, SCardGetStatusChange(context_, 0, states.data(), 2));
    EXPECT_EQ(states[0].dwEventState, 0x5A5A5A5Au);
    EXPECT_EQ(states[1].dwEventState, 0x5A5A5A5Au);
}

TEST_F(States, OfUnknownReadersAreMarkedByAServiceWithoutPlugAndPlay)
{
    plugWithCard("A");
    pcsc::setPlugAndPlay(false);
    std::array states{stateOf("A", SCARD_STATE_PRESENT), stateOf("Nobody")};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 2));
    EXPECT_EQ(states[0].dwEventState, 0x00010000u | SCARD_STATE_PRESENT);
    const DWORD unknown = SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE;
    EXPECT_EQ(states[1].dwEventState, unknown | SCARD_STATE_CHANGED);
    states[1].dwCurrentState = states[1].dwEventState;
    EXPECT_RESULT(SCARD_E_TIMEOUT, SCardGetStatusChange(context_, 0, states.data(), 2));
    EXPECT_EQ(states[1].dwEventState, unknown);
}

TEST_F(States, OfThePseudoReaderStayQuietWhileTheReadersStay)
{
    for (const char* name : {PNP, "\\\\?pnp?\\NOTIFICATION"}) {
        std::array states{stateOf(name)};
        EXPECT_RESULT(SCARD_E_TIMEOUT, SCardGetStatusChange(context_, 100, states.data(), 1));
        EXPECT_EQ(states[0].dwEventState, 0u);
        EXPECT_EQ(states[0].cbAtr, 77u);
    }
}

TEST_F(States, OfThePseudoReaderTellOfReadersThatComeAndGo)
{
    pcsc::plugReader("A");
    Action plug;
    plug.before = [] { pcsc::plugReader("B"); };
    pcsc::onNth(Function::GetStatusChange, 1, plug);
    Action unplug;
    unplug.before = [] { pcsc::unplugReader("B"); };
    pcsc::onNth(Function::GetStatusChange, 2, unplug);
    Action swap;
    swap.before = [] {
        pcsc::unplugReader("A");
        pcsc::plugReader("C");
    };
    pcsc::onNth(Function::GetStatusChange, 3, swap);
    for (const bool counted : {true, true, false}) {
        std::array states{stateOf(PNP)};
        EXPECT_RESULT(counted ? SCARD_S_SUCCESS : SCARD_E_TIMEOUT,
                      SCardGetStatusChange(context_, 100, states.data(), 1));
        EXPECT_EQ(states[0].dwEventState, counted ? SCARD_STATE_CHANGED : 0u);
    }
}

TEST_F(States, OfThePseudoReaderAreUnknownToAServiceWithoutIt)
{
    pcsc::setPlugAndPlay(false);
    std::array states{stateOf(PNP)};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState,
              SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE | SCARD_STATE_CHANGED);
}

TEST_F(States, OfAReaderThatVanishesDuringTheCallAreUnknown)
{
    plugWithCard("A");
    Action unplug;
    unplug.before = [] { pcsc::unplugReader("A"); };
    pcsc::onNth(Function::GetStatusChange, 1, unplug);
    std::array states{stateOf("A", SCARD_STATE_PRESENT)};
    EXPECT_RESULT(SCARD_S_SUCCESS, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState,
              SCARD_STATE_UNKNOWN | SCARD_STATE_UNAVAILABLE | SCARD_STATE_CHANGED);
    EXPECT_RESULT(SCARD_E_UNKNOWN_READER, SCardGetStatusChange(context_, 0, states.data(), 1));
}

TEST_F(States, OfAStoppedServiceAreNotWritten)
{
    plugWithCard("A");
    pcsc::setServiceRunning(false);
    std::array states{stateOf("A")};
    EXPECT_RESULT(SCARD_E_NO_SERVICE, SCardGetStatusChange(context_, 0, states.data(), 1));
    EXPECT_EQ(states[0].dwEventState, 0x5A5A5A5Au);
}

} // namespace
