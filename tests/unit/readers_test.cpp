// The reader table: its records, the reader names behind it, and which states make a record.
#include "sim/pcsc/standin.h"
#include "src/core/readers.h"
#include "src/core/token_driver.h"
#include "src/front/state.h"
#include "tests/support/codes.h"
#include "tests/support/fake_driver.h"
#include "tests/support/known_cards.h"
#include "tests/support/messages.h"
#include "tests/support/refresh_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;
using pcsc::Function;

class ReaderTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        pcsc::reset();
        rCount = 0;
        rgReaderStates = {};
        ASSERT_RV(CKR_OK, C_Initialize(nullptr));
    }

    void TearDown() override
    {
        pcsc::reset();
        EXPECT_RV(CKR_OK, C_SetSCContext(0));
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        stVELTTokens = {};
    }

    static void plug(const std::string& reader, const KnownToken* token = nullptr)
    {
        pcsc::plugReader(reader);
        if (token != nullptr) {
            pcsc::insertCard(reader, refusingCard(*token));
        }
    }

    static std::vector<CK_SLOT_ID> list(CK_BBOOL tokenPresent = CK_FALSE)
    {
        std::vector<CK_SLOT_ID> ids(512, NOT_WRITTEN);
        CK_ULONG count = ids.size();
        EXPECT_RV(CKR_OK, VELT_GetSlotList(tokenPresent, ids.data(), &count));
        ids.erase(std::find(ids.begin(), ids.end(), NOT_WRITTEN), ids.end());
        return ids;
    }

    static const SlotToken* recordOf(std::int32_t slot)
    {
        return static_cast<const SlotToken*>(VELTCardReaders[slot].pvUserData);
    }

    // The status query of the next refresh is not made; these states are its answer.
    static void answerStates(std::vector<SCARD_READERSTATE> states)
    {
        pcsc::Action crafted;
        crafted.before = [states = std::move(states)] {
            ASSERT_NE(nullptr, VELTCardReaders);
            for (std::size_t i = 0; i < states.size(); ++i) {
                VELTCardReaders[i].dwEventState = states[i].dwEventState;
                VELTCardReaders[i].cbAtr = states[i].cbAtr;
                std::copy(std::begin(states[i].rgbAtr), std::end(states[i].rgbAtr),
                          std::begin(VELTCardReaders[i].rgbAtr));
            }
        };
        crafted.result = SCARD_S_SUCCESS;
        pcsc::onNth(Function::GetStatusChange, 3, crafted);
    }

    static SCARD_READERSTATE state(DWORD events, const sim::Bytes& atr = {})
    {
        SCARD_READERSTATE made{};
        made.dwEventState = events;
        made.cbAtr = atr.size();
        std::copy_n(atr.begin(), std::min(atr.size(), sizeof(made.rgbAtr)), made.rgbAtr);
        return made;
    }

    static constexpr CK_SLOT_ID NOT_WRITTEN = 0xBADBAD;
};

// --- The table after a refresh -------------------------------------------------------------------

TEST_F(ReaderTable, HoldsTheReadersInListOrderAndThePseudoReaderBehindThem)
{
    plug("A 0", &ID_CARD);
    plug("B 0");
    plug("C 0", &KAZTOKEN);
    for (const bool plugAndPlay : {true, false}) {
        pcsc::setPlugAndPlay(plugAndPlay);
        list();
        EXPECT_EQ(3, rCount);
        EXPECT_EQ(2, rwtCount);
        EXPECT_EQ(plugAndPlay ? 1 : 0, pnp);
        const std::string names("A 0\0B 0\0C 0\0\0", 13);
        ASSERT_NE(nullptr, pmszReaders);
        EXPECT_EQ(names, std::string(pmszReaders, names.size()));
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(pmszReaders + 4 * i, VELTCardReaders[i].szReader) << "not a copy";
        }
        EXPECT_EQ(PNP_READER, VELTCardReaders[3].szReader);
        EXPECT_EQ(0U, VELTCardReaders[3].dwCurrentState);
        EXPECT_EQ(nullptr, VELTCardReaders[3].pvUserData);
    }
}

TEST_F(ReaderTable, KeepsTheStatesSeenAndTheAnswersToReset)
{
    plug("A 0", &JACARTA);
    plug("B 0");
    list();
    const auto query = pcsc::calls(Function::GetStatusChange).back();
    ASSERT_EQ(3U, query.states.size());
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(query.states[i].eventState, VELTCardReaders[i].dwEventState);
        EXPECT_EQ(query.states[i].eventState, VELTCardReaders[i].dwCurrentState);
    }
    const sim::Bytes atr = sim::hex(JACARTA.atr);
    ASSERT_EQ(atr.size(), VELTCardReaders[0].cbAtr);
    EXPECT_TRUE(std::equal(atr.begin(), atr.end(), VELTCardReaders[0].rgbAtr));
    EXPECT_EQ(0U, VELTCardReaders[1].cbAtr);
}

TEST_F(ReaderTable, RecordsPositionAndFamilyOfEveryReader)
{
    plug("0 0", &ID_CARD);
    plug("1 0", &ETOKEN_72K);
    plug("2 0");
    plug("3 0", &KAZTOKEN);
    plug("4 0", &JACARTA);
    plug("5 0", &NEWER_ID_CARD);
    pcsc::plugReader("6 0");
    pcsc::insertCard("6 0", unknownCard());
    list();
    const std::vector<std::uint8_t> families{1, 2, 0, 3, 4, 1, 0};
    ASSERT_EQ(7, rCount);
    EXPECT_EQ(5, rwtCount);
    for (std::int32_t i = 0; i < 7; ++i) {
        ASSERT_NE(nullptr, recordOf(i)) << i;
        EXPECT_EQ(i, recordOf(i)->slotIndex);
        EXPECT_EQ(families[static_cast<std::size_t>(i)], recordOf(i)->tokenType) << i;
        EXPECT_EQ(families[static_cast<std::size_t>(i)],
                  velt::tokenTypeOf(static_cast<CK_SLOT_ID>(i)));
    }
}

TEST_F(ReaderTable, IsGoneWithoutReadersAndTheCountsAreZero)
{
    for (const bool plugAndPlay : {true, false}) {
        pcsc::setPlugAndPlay(plugAndPlay);
        plug("A 0", &ID_CARD);
        list();
        pcsc::unplugReader("A 0");
        EXPECT_EQ(0, VELT_UpdateSlotsStates());
        EXPECT_EQ(nullptr, VELTCardReaders);
        EXPECT_EQ(0, rCount);
        EXPECT_EQ(0, rwtCount);
    }
}

TEST_F(ReaderTable, ARefreshSucceedsWithAndWithoutReaders)
{
    ASSERT_EQ(SCARD_S_SUCCESS, SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &hSC));
    EXPECT_EQ(0, VELT_UpdateSlotsStates());
    plug("A 0", &ID_CARD);
    EXPECT_EQ(0, VELT_UpdateSlotsStates());
    EXPECT_EQ(1, rCount);
}

TEST_F(ReaderTable, HelpersJudgeSlotsByTheCount)
{
    EXPECT_FALSE(velt::isReaderSlot(0));
    EXPECT_TRUE(velt::isReaderOrPseudoSlot(0));
    EXPECT_FALSE(velt::isReaderOrPseudoSlot(1));
    EXPECT_EQ(TOKEN_NONE, velt::tokenTypeOf(0));
    EXPECT_STREQ("", velt::readerName(0));
    plug("A 0", &KAZTOKEN);
    plug("B 0");
    list();
    for (const CK_SLOT_ID slot : {0UL, 1UL, 2UL, 3UL, 0x100000000UL, ~0UL}) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(slot < 2, velt::isReaderSlot(slot));
        EXPECT_EQ(slot < 3, velt::isReaderOrPseudoSlot(slot));
        EXPECT_EQ(slot == 0 ? TOKEN_KT : TOKEN_NONE, velt::tokenTypeOf(slot));
    }
    EXPECT_STREQ("A 0", velt::readerName(0));
    EXPECT_STREQ("B 0", velt::readerName(1));
    EXPECT_STREQ("", velt::readerName(3));
    EXPECT_STREQ("", velt::readerName(~0UL));
}

// --- The probe of the pseudo-reader --------------------------------------------------------------

TEST_F(ReaderTable, TheProbeRecordNamesThePseudoReader)
{
    list();
    EXPECT_EQ(PNP_READER, rgReaderStates.szReader);
    EXPECT_EQ(0U, rgReaderStates.dwCurrentState);
}

TEST_F(ReaderTable, AProbeThatFailsIsJudgedByWhatTheLastOneLeft)
{
    plug("A 0");
    pcsc::setPlugAndPlay(false);
    list();
    EXPECT_EQ(0, pnp);
    pcsc::setPlugAndPlay(true);
    pcsc::failNth(Function::GetStatusChange, 1, SCARD_E_NO_SERVICE);
    list();
    EXPECT_EQ(0, pnp);
    list();
    EXPECT_EQ(1, pnp);
    pcsc::setPlugAndPlay(false);
    pcsc::failNth(Function::GetStatusChange, 1, SCARD_E_NO_SERVICE);
    list();
    EXPECT_EQ(1, pnp);
}

TEST_F(ReaderTable, OnlyTheUnknownBitOfTheProbeSaysThatThereIsNoPseudoReader)
{
    plug("A 0");
    for (const DWORD events : {0x0U, 0x2U, 0x8U, 0x10U, 0x20U, 0x3FBU, 0x4U, 0xEU}) {
        SCOPED_TRACE(events);
        pcsc::Action crafted;
        crafted.before = [events] { rgReaderStates.dwEventState = events; };
        crafted.result = SCARD_E_TIMEOUT;
        pcsc::onNth(Function::GetStatusChange, 1, crafted);
        list();
        EXPECT_EQ((events & 0x4) != 0 ? 0 : 1, pnp);
    }
}

TEST_F(ReaderTable, AFailedContextForgetsTheReadersAndTheProbeButKeepsTheFlags)
{
    plug("A 0", &ID_CARD);
    pcsc::setPlugAndPlay(false);
    list();
    EXPECT_EQ(0, pnp);
    hSC = 0;
    oiFlags = 0;
    pcsc::failNth(Function::EstablishContext, 1, SCARD_E_NO_SERVICE);
    CK_ULONG count = 77;
    EXPECT_RV(CKR_FUNCTION_FAILED, VELT_GetSlotList(CK_FALSE, nullptr, &count));
    EXPECT_EQ(77U, count);
    EXPECT_EQ(0, rCount);
    EXPECT_EQ(1, pnp);
    EXPECT_EQ(0U, oiFlags);
    EXPECT_EQ(0, hSC);
}

TEST_F(ReaderTable, EveryListingAsksForTheObjectsAgain)
{
    for (const std::uint64_t before : {0UL, 1UL, 4UL, 0x8000000000000000UL}) {
        oiFlags = before;
        list();
        EXPECT_EQ(before | 1, oiFlags);
        oiFlags = before;
        CK_ULONG count = 0;
        EXPECT_RV(CKR_OK, VELT_GetSlotList(CK_TRUE, nullptr, &count));
        EXPECT_EQ(before | 1, oiFlags);
    }
}

// --- Which states make a record ------------------------------------------------------------------

constexpr DWORD CHANGED = 0x2;
constexpr DWORD UNKNOWN = 0x4;
constexpr DWORD UNAVAILABLE = 0x8;
constexpr DWORD EMPTY = 0x10;
constexpr DWORD PRESENT = 0x20;
constexpr DWORD EXCLUSIVE = 0x80;
constexpr DWORD IN_USE = 0x100;
constexpr DWORD MUTE = 0x200;
constexpr int NO_RECORD = -1;

struct StateCase {
    const char* what;
    DWORD events;
    const KnownToken* token; // whose answer to reset is there, or NULL
    int family;              // of the record, or NO_RECORD
};

void PrintTo(const StateCase& tested, std::ostream* out)
{
    *out << tested.what;
}

class ReaderStates : public ReaderTable, public ::testing::WithParamInterface<StateCase> {};

TEST_P(ReaderStates, MakeARecordOrNone)
{
    plug("A 0");
    plug("B 0");
    const StateCase& tested = GetParam();
    const sim::Bytes atr = tested.token == nullptr ? sim::Bytes{} : sim::hex(tested.token->atr);
    answerStates({state(tested.events, atr), state(CHANGED | EMPTY)});
    EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1}), list());
    const bool recognised = tested.family > 0;
    EXPECT_EQ(recognised ? 1 : 0, rwtCount);
    EXPECT_EQ(tested.events, VELTCardReaders[0].dwCurrentState);
    if (tested.family == NO_RECORD) {
        EXPECT_EQ(nullptr, recordOf(0));
    } else {
        ASSERT_NE(nullptr, recordOf(0));
        EXPECT_EQ(0, recordOf(0)->slotIndex);
        EXPECT_EQ(tested.family, recordOf(0)->tokenType);
    }
    ASSERT_NE(nullptr, recordOf(1));
    EXPECT_EQ(1, recordOf(1)->slotIndex);
    EXPECT_EQ(0, recordOf(1)->tokenType);
    CK_SLOT_INFO info{};
    EXPECT_RV(CKR_OK, VELT_GetSlotInfo(0, &info));
    EXPECT_EQ(recognised ? tested.token->flags : 0x4UL, info.flags);
}

INSTANTIATE_TEST_SUITE_P(
    Bits, ReaderStates,
    ::testing::Values(
        StateCase{"nothing", 0, nullptr, NO_RECORD},
        StateCase{"changed alone", CHANGED, &ID_CARD, NO_RECORD},
        StateCase{"a card that did not change", PRESENT, &ID_CARD, NO_RECORD},
        StateCase{"an empty reader that did not change", EMPTY, nullptr, NO_RECORD},
        StateCase{"every bit but changed", ~CHANGED, &ID_CARD, NO_RECORD},
        StateCase{"a reader that went", CHANGED | UNKNOWN | UNAVAILABLE, nullptr, NO_RECORD},
        StateCase{"an empty reader", CHANGED | EMPTY, nullptr, 0},
        StateCase{"an empty reader with an old answer", CHANGED | EMPTY, &ID_CARD, 0},
        StateCase{"a card", CHANGED | PRESENT, &KAZTOKEN, 3},
        StateCase{"a card and an event count", CHANGED | PRESENT | 0x70000, &JACARTA, 4},
        StateCase{"a card in use", CHANGED | PRESENT | IN_USE | EXCLUSIVE, &ETOKEN_72K, 2},
        StateCase{"empty and present at once", CHANGED | EMPTY | PRESENT, &NEWER_ID_CARD, 1},
        StateCase{"a card of an unknown reader", CHANGED | UNKNOWN | PRESENT, &ID_CARD, 1},
        StateCase{"a mute card", CHANGED | PRESENT | MUTE, nullptr, 0}));

TEST_F(ReaderTable, TheLengthOfTheAnswerToResetDecidesWhateverItsBytesAre)
{
    plug("A 0");
    for (const KnownToken& token : KNOWN_TOKENS) {
        SCARD_READERSTATE reported = state(CHANGED | PRESENT, sim::hex(token.atr));
        const DWORD right = reported.cbAtr;
        for (const DWORD length : {DWORD{0}, DWORD{11}, right - 1, right, right + 1, DWORD{33},
                                   DWORD{34}, DWORD{0x100} + right, ~DWORD{0}}) {
            reported.cbAtr = length;
            answerStates({reported});
            list();
            EXPECT_EQ(length == right ? token.type : 0, velt::tokenTypeOf(0))
                << token.name << ", length " << length;
        }
    }
}

TEST_F(ReaderTable, APseudoReaderThatClaimsACardCountsAsATokenButIsNotListed)
{
    plug("A 0");
    answerStates({state(CHANGED | EMPTY), state(CHANGED | PRESENT, sim::hex(ID_CARD.atr))});
    EXPECT_TRUE(list(CK_TRUE).empty());
    EXPECT_EQ(1, rwtCount);
    ASSERT_NE(nullptr, recordOf(1));
    EXPECT_EQ(1, recordOf(1)->slotIndex);
    EXPECT_EQ(TOKEN_IDC, velt::tokenTypeOf(1));

    stVELTTokens = fake::driver(TOKEN_IDC);
    fake::world() = {};
    CK_ULONG mechanisms = 0;
    EXPECT_RV(CKR_OK, VELT_GetMechanismList(1, nullptr, &mechanisms));
    EXPECT_EQ(1U, fake::world().asked.size());
    CK_TOKEN_INFO info{};
    EXPECT_RV(CKR_SLOT_ID_INVALID, VELT_GetTokenInfo(1, &info));
    CK_SLOT_INFO slot{};
    EXPECT_RV(CKR_SLOT_ID_INVALID, VELT_GetSlotInfo(1, &slot));
}

TEST_F(ReaderTable, WithoutPlugAndPlayThePseudoReadersStateIsNotLookedAt)
{
    plug("A 0");
    pcsc::setPlugAndPlay(false);
    pcsc::Action crafted;
    crafted.before = [] { VELTCardReaders[1].dwEventState = CHANGED | EMPTY; };
    pcsc::onNth(Function::GetStatusChange, 2, crafted);
    list();
    EXPECT_EQ(nullptr, recordOf(1));
}

// --- More readers than a slot ID has room for ----------------------------------------------------

class ManyReaders : public ReaderTable {
protected:
    static constexpr std::size_t COUNT = 258;

    void SetUp() override
    {
        ReaderTable::SetUp();
        for (std::size_t i = 0; i < COUNT; ++i) {
            plug("Reader " + std::to_string(i));
        }
    }
};

TEST_F(ManyReaders, SlotIdsHaveEightBitsOfTheReadersPosition)
{
    answerStates(
        std::vector<SCARD_READERSTATE>(COUNT, state(CHANGED | PRESENT, sim::hex(KAZTOKEN.atr))));
    const std::vector<CK_SLOT_ID> ids = list(CK_TRUE);
    ASSERT_EQ(COUNT, ids.size());
    for (std::size_t i = 0; i < COUNT; ++i) {
        EXPECT_EQ(i % 256, ids[i]);
        EXPECT_EQ(TOKEN_KT, velt::tokenTypeOf(i));
    }
    EXPECT_EQ(0, recordOf(256)->slotIndex);
    EXPECT_EQ(static_cast<std::int32_t>(COUNT), rwtCount);
    CK_SLOT_INFO info{};
    EXPECT_RV(CKR_OK, VELT_GetSlotInfo(257, &info));
    EXPECT_EQ(0, std::memcmp("Reader 257  ", info.slotDescription, 12));
}

TEST_F(ManyReaders, WithoutARecordAReaderIsListedUnderItsFullPosition)
{
    const std::vector<CK_SLOT_ID> ids = list(); // PC/SC refuses to tell so many states
    ASSERT_EQ(COUNT, ids.size());
    for (std::size_t i = 0; i < COUNT; ++i) {
        EXPECT_EQ(i, ids[i]);
        EXPECT_EQ(nullptr, recordOf(static_cast<std::int32_t>(i)));
    }
    EXPECT_TRUE(list(CK_TRUE).empty());
}

// --- The end of the table ------------------------------------------------------------------------

TEST_F(ReaderTable, NamesStayReadableThroughAFailedRelease)
{
    plug("A 0", &ID_CARD);
    plug("B 0");
    list();
    pcsc::failNth(Function::ReleaseContext, 1, SCARD_F_INTERNAL_ERROR);
    EXPECT_RV(CKR_FUNCTION_FAILED, C_Finalize(nullptr));
    EXPECT_EQ(nullptr, pmszReaders);
    ASSERT_NE(nullptr, VELTCardReaders);
    EXPECT_STREQ("A 0", VELTCardReaders[0].szReader);
    EXPECT_STREQ("B 0", velt::readerName(1));
    EXPECT_NE(0, hSC);

    plug("C 0");
    EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1, 2}), list());
    EXPECT_STREQ("C 0", velt::readerName(2));
}

TEST_F(ReaderTable, FinalisingDropsTableAndNamesAndKeepsTheCounts)
{
    plug("A 0", &ID_CARD);
    plug("B 0");
    list();
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(nullptr, VELTCardReaders);
    EXPECT_EQ(nullptr, pmszReaders);
    EXPECT_EQ(0, hSC);
    EXPECT_EQ(2, rCount);
    EXPECT_EQ(1, rwtCount);
    for (const CK_SLOT_ID slot : {0UL, 1UL, 2UL}) {
        EXPECT_EQ(TOKEN_NONE, velt::tokenTypeOf(slot));
        EXPECT_STREQ("", velt::readerName(slot));
    }
    ASSERT_RV(CKR_OK, C_Initialize(nullptr));
    EXPECT_EQ(2, rCount);
}

TEST_F(ReaderTable, TheMessagesOfARefreshStandWithoutASlotListToo)
{
    plug("A 0", &ETOKEN_72K);
    list();
    const MessageMark mark;
    EXPECT_EQ(0, VELT_UpdateSlotsStates());
    Texts expected = refreshMessages({"EToken 72K"});
    expected.erase(expected.begin());
    EXPECT_MESSAGES(mark, expected);
}

} // namespace
} // namespace velt_test
