// Memory of the core: what happens when there is none, what is given back, and what takes none.
#include "sim/pcsc/standin.h"
#include "src/core/dispatch.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/lock.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "tests/support/codes.h"
#include "tests/support/failing_alloc.h"
#include "tests/support/fake_driver.h"
#include "tests/support/known_cards.h"
#include "tests/support/messages.h"
#include "tests/support/refresh_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;

constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;
constexpr CK_SESSION_HANDLE NO_HANDLE = 0xD15EA5ED;

class Memory : public ::testing::Test {
protected:
    void SetUp() override
    {
        pcsc::reset();
        alloc::clear();
        rCount = 0;
        fake::world() = {};
        ASSERT_EQ(0U, alloc::held());
        ASSERT_RV(CKR_OK, C_Initialize(nullptr));
    }

    // Whatever a test did, finalising gives everything back.
    void TearDown() override
    {
        alloc::clear();
        if (velt::isInitialised()) {
            pcsc::reset();
            EXPECT_RV(CKR_OK, C_SetSCContext(0));
            EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        }
        restart();
        stVELTTokens = {};
        EXPECT_EQ(0U, alloc::held());
    }

    // A life that loads nothing: what the one before left is reclaimed at its end.
    static void restart()
    {
        EXPECT_RV(CKR_OK, C_Initialize(nullptr));
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
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
        std::vector<CK_SLOT_ID> ids(64);
        CK_ULONG count = ids.size();
        EXPECT_RV(CKR_OK, C_GetSlotList(tokenPresent, ids.data(), &count));
        ids.resize(std::min<std::size_t>(count, ids.size()));
        return ids;
    }

    // Lists an ID card in slot 0 whose operations are the tests'.
    static void listFakeCard()
    {
        plug("A 0", &ID_CARD);
        list();
        stVELTTokens = fake::driver(TOKEN_IDC);
    }

    static CK_SESSION_HANDLE open()
    {
        CK_SESSION_HANDLE session = NO_HANDLE;
        EXPECT_RV(CKR_OK, C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
        return session;
    }
};

// --- Refreshing without memory -------------------------------------------------------------------

class RefreshMemory : public Memory {
protected:
    void SetUp() override
    {
        Memory::SetUp();
        plug("A 0", &ID_CARD);
        plug("B 0");
        plug("C 0", &KAZTOKEN);
        plug("D 0", &JACARTA);
    }

    static void expectNoReaders()
    {
        EXPECT_EQ(0, rCount);
        EXPECT_EQ(nullptr, VELTCardReaders);
        CK_SLOT_INFO info{};
        EXPECT_RV(CKR_SLOT_ID_INVALID, C_GetSlotInfo(0, &info));
    }

    static void expectAllReaders()
    {
        EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 2, 3}), list(CK_TRUE));
        EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1, 2, 3}), list(CK_FALSE));
    }
};

TEST_F(RefreshMemory, WithoutRoomForTheNamesTheListingIsADeviceError)
{
    for (int again = 0; again < 2; ++again) { // without and with a table from before
        oiFlags = 0;
        alloc::failNth(1);
        CK_SLOT_ID ids[4] = {77, 78, 79, 80};
        CK_ULONG count = 4;
        const MessageMark mark;
        EXPECT_RV(CKR_DEVICE_ERROR, C_GetSlotList(CK_FALSE, ids, &count));
        EXPECT_MESSAGES(mark, "C_GetSlotList", "GetSlotList: Using reader plug'n play mechanism",
                        "UpdateSlotsStates", "UpdateSlotsStates 1", "UpdateSlotsStates 2",
                        "UpdateSlotsStates 3", "UpdateSlotsStates 4", "malloc: not enough memory",
                        "UpdateSlotsStates return error: 0x1");
        EXPECT_EQ(1U, alloc::refused());
        EXPECT_EQ(77U, ids[0]);
        EXPECT_EQ(4U, count);
        EXPECT_EQ(1U, oiFlags) << "the objects are to be loaded again all the same";
        EXPECT_EQ(nullptr, pmszReaders);
        expectNoReaders();
        alloc::clear();
        expectAllReaders();
    }
}

TEST_F(RefreshMemory, WithoutRoomForTheTableTheListingIsADeviceError)
{
    for (int again = 0; again < 2; ++again) {
        oiFlags = 0;
        alloc::failNth(2);
        CK_SLOT_ID ids[4] = {77, 78, 79, 80};
        CK_ULONG count = 4;
        const MessageMark mark;
        EXPECT_RV(CKR_DEVICE_ERROR, C_GetSlotList(CK_TRUE, ids, &count));
        EXPECT_MESSAGES(mark, "C_GetSlotList", "GetSlotList: Using reader plug'n play mechanism",
                        "UpdateSlotsStates", "UpdateSlotsStates 1", "UpdateSlotsStates 2",
                        "UpdateSlotsStates 3", "UpdateSlotsStates 4", "UpdateSlotsStates 5",
                        "UpdateSlotsStates 6", "UpdateSlotsStates return error: 0x1");
        EXPECT_EQ(1U, alloc::refused());
        EXPECT_EQ(77U, ids[0]);
        EXPECT_EQ(4U, count);
        EXPECT_EQ(1U, oiFlags);
        EXPECT_EQ(TOKEN_NONE, velt::tokenTypeOf(0));
        EXPECT_EQ(nullptr, VELTCardReaders);
        alloc::clear();
        expectAllReaders();
    }
}

TEST_F(RefreshMemory, AReaderWithoutItsRecordReadsAsEmptyAndTheOthersDoNot)
{
    const std::vector<std::uint8_t> families{TOKEN_IDC, TOKEN_NONE, TOKEN_KT, TOKEN_JC};
    for (std::size_t missing = 0; missing < families.size(); ++missing) {
        SCOPED_TRACE(missing);
        alloc::failNth(3 + missing);
        EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1, 2, 3}), list());
        EXPECT_EQ(1U, alloc::refused());
        for (std::size_t slot = 0; slot < families.size(); ++slot) {
            const std::uint8_t expected = families[slot];
            EXPECT_EQ(slot == missing ? 0 : expected, velt::tokenTypeOf(slot));
        }
        CK_SLOT_INFO info{};
        EXPECT_RV(CKR_OK, C_GetSlotInfo(missing, &info));
        EXPECT_EQ(CKF_HW_SLOT, info.flags);
        CK_SESSION_HANDLE session = NO_HANDLE;
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT,
                  C_OpenSession(missing, READ_WRITE, nullptr, nullptr, &session));
        EXPECT_EQ(NO_HANDLE, session);
    }
    alloc::clear();
    expectAllReaders();
}

TEST_F(RefreshMemory, NoReadersNeedNoMemory)
{
    for (const bool plugAndPlay : {true, false}) {
        pcsc::reset();
        EXPECT_RV(CKR_OK, C_SetSCContext(0));
        pcsc::setPlugAndPlay(plugAndPlay);
        alloc::failFrom(1);
        EXPECT_TRUE(list().empty());
        EXPECT_EQ(0U, alloc::asked());
    }
}

// --- What a refresh gives back -------------------------------------------------------------------

TEST_F(RefreshMemory, EachRefreshReplacesTheRecordsOfTheOneBefore)
{
    list();
    const std::size_t held = alloc::held();
    EXPECT_EQ(2U + 4U, held) << "names, table, a record each";
    for (int again = 0; again < 5; ++again) {
        const void* const table = VELTCardReaders;
        EXPECT_TRUE(alloc::isHeld(table));
        list();
        EXPECT_EQ(held, alloc::held());
    }
    pcsc::unplugReader("D 0");
    list();
    EXPECT_EQ(held - 1, alloc::held());
    for (const char* reader : {"A 0", "B 0", "C 0"}) {
        pcsc::unplugReader(reader);
    }
    list();
    EXPECT_LE(alloc::held(), 1U) << "at most the old names";
}

TEST_F(RefreshMemory, ARecordOfThePseudoReaderIsGivenBackToo)
{
    pcsc::Action crafted;
    crafted.before = [] {
        VELTCardReaders[4].dwEventState = SCARD_STATE_CHANGED | SCARD_STATE_EMPTY;
    };
    crafted.result = SCARD_S_SUCCESS;
    pcsc::onNth(pcsc::Function::GetStatusChange, 3, crafted);
    list();
    ASSERT_NE(nullptr, VELTCardReaders[4].pvUserData);
    EXPECT_EQ(3U, alloc::held());
    list();
    EXPECT_EQ(6U, alloc::held());
}

TEST_F(RefreshMemory, FinalisingGivesBackEverything)
{
    list();
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(0U, alloc::held());
}

TEST_F(RefreshMemory, FinalisingGivesBackEverythingAlsoAfterAFailedListing)
{
    list();
    EXPECT_RV(CKR_OK, C_SetSCContext(0));
    pcsc::failNth(pcsc::Function::EstablishContext, 1, SCARD_E_NO_SERVICE);
    CK_ULONG count = 0;
    EXPECT_RV(CKR_FUNCTION_FAILED, C_GetSlotList(CK_FALSE, nullptr, &count));
    ASSERT_EQ(0, rCount);
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(0U, alloc::held());
}

TEST_F(RefreshMemory, AFailedReleaseKeepsTheNamesUntilTheTableGoes)
{
    list();
    const std::size_t held = alloc::held();
    for (int again = 0; again < 3; ++again) {
        pcsc::failNth(pcsc::Function::ReleaseContext, 1, SCARD_E_NO_SERVICE);
        EXPECT_RV(CKR_FUNCTION_FAILED, C_Finalize(nullptr));
        EXPECT_EQ(nullptr, pmszReaders);
        EXPECT_EQ(held, alloc::held());
        EXPECT_STREQ("D 0", VELTCardReaders[3].szReader);
    }
    list();
    EXPECT_EQ(held, alloc::held());
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(0U, alloc::held());
}

// --- Sessions ------------------------------------------------------------------------------------

class SessionMemory : public Memory {
protected:
    void SetUp() override
    {
        Memory::SetUp();
        listFakeCard();
        pcsc::clearCalls();
    }

    // The next opening finds no memory for its entry.
    static void expectRefusedOpening()
    {
        const std::uint64_t issued = sessCount;
        const std::size_t cards = pcsc::openCards();
        pcsc::clearCalls();
        alloc::failNth(1);
        CK_SESSION_HANDLE session = NO_HANDLE;
        const MessageMark mark;
        EXPECT_RV(CKR_HOST_MEMORY, C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
        EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1");
        EXPECT_EQ(1U, alloc::refused());
        alloc::clear();
        EXPECT_EQ(NO_HANDLE, session);
        EXPECT_EQ(issued, sessCount);
        EXPECT_EQ(cards, pcsc::openCards());
        const auto calls = pcsc::calls();
        ASSERT_EQ(2U, calls.size());
        EXPECT_EQ(pcsc::Function::Connect, calls[0].function);
        EXPECT_EQ(pcsc::Function::Disconnect, calls[1].function);
        EXPECT_EQ(calls[0].card, calls[1].card);
        EXPECT_EQ(0U, calls[1].disposition);
        EXPECT_TRUE(fake::world().asked.empty()) << "no objects are loaded";
    }
};

TEST_F(SessionMemory, AnOpeningWithoutRoomDisconnectsAndHandsOutNothing)
{
    expectRefusedOpening();
    const CK_SESSION_HANDLE first = open();
    EXPECT_EQ(sessCount, first);
    fake::world().asked.clear();
    for (int again = 0; again < 3; ++again) {
        expectRefusedOpening();
        EXPECT_TRUE(velt::isOpenSession(first));
        EXPECT_EQ(READ_WRITE, velt::findSession(first)->flags);
    }
    EXPECT_EQ(first + 1, open());
}

TEST_F(SessionMemory, ARefusedFirstOpeningAfterFinalisationKeepsOlderHandlesClosed)
{
    const CK_SESSION_HANDLE older = open();
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_RV(CKR_OK, C_Initialize(nullptr));
    list();
    fake::world().asked.clear();
    expectRefusedOpening();
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_SESSION_CLOSED, C_GetSessionInfo(older, &info));
    EXPECT_RV(CKR_SESSION_CLOSED, C_GetSessionInfo(0, &info));
    EXPECT_RV(CKR_SESSION_CLOSED, C_Logout(older));
    EXPECT_EQ(older + 1, open());
}

TEST_F(SessionMemory, ClosedAndOpenSessionsAreGivenBackByFinalising)
{
    const std::size_t before = alloc::held();
    for (int i = 0; i < 50; ++i) {
        const CK_SESSION_HANDLE session = open();
        if (i % 2 == 0) {
            EXPECT_RV(CKR_OK, C_CloseSession(session));
        }
    }
    EXPECT_EQ(before + 1, alloc::held()) << "one table";
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(0U, alloc::held());
}

TEST_F(SessionMemory, RoundsOfLifeHoldNothingInBetween)
{
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    for (int round = 0; round < 20; ++round) {
        EXPECT_RV(CKR_OK, C_Initialize(nullptr));
        list();
        stVELTTokens = fake::driver(TOKEN_IDC);
        open();
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        EXPECT_EQ(0U, alloc::held());
    }
    EXPECT_RV(CKR_OK, C_Initialize(nullptr));
}

// --- Blocks of objects at the end ----------------------------------------------------------------

class RetiredBlocks : public Memory {
protected:
    static constexpr std::size_t ENTRIES = 10;

    // A table with a block in each of its entries, over `readers` readers.
    void load(std::size_t readers)
    {
        for (std::size_t i = 0; i < readers; ++i) {
            plug("Reader " + std::to_string(i));
        }
        list();
        ASSERT_TRUE(velt::rebuildObjects(ENTRIES));
        blocks.clear();
        for (std::size_t i = 0; i < ENTRIES; ++i) {
            ObjectEntry& entry = VELTObj[i];
            const void* const block = i % 3 == 0   ? attach(velt::attachCertificate(entry))
                                      : i % 3 == 1 ? attach(velt::attachPublicKey(entry))
                                                   : attach(velt::attachPrivateKey(entry));
            ASSERT_TRUE(alloc::isHeld(block));
            blocks.push_back(block);
        }
    }

    static const void* attach(const void* block) { return block; }

    std::size_t blocksHeld() const
    {
        return static_cast<std::size_t>(std::count_if(blocks.begin(), blocks.end(), alloc::isHeld));
    }

    std::vector<const void*> blocks;
};

TEST_F(RetiredBlocks, BelowTheNumberOfReadersAreFreedTheOthersAtTheNextEnd)
{
    load(3);
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(nullptr, VELTObj);
    for (std::size_t i = 0; i < ENTRIES; ++i) {
        EXPECT_EQ(i >= 3, alloc::isHeld(blocks[i])) << i;
    }
    restart();
    EXPECT_EQ(0U, blocksHeld());
    EXPECT_EQ(0U, alloc::held());
}

TEST_F(RetiredBlocks, AreReclaimedByTheNextLoadToo)
{
    load(1);
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(ENTRIES - 1, blocksHeld());
    EXPECT_RV(CKR_OK, C_Initialize(nullptr));
    ASSERT_TRUE(velt::rebuildObjects(2));
    EXPECT_EQ(1U, alloc::held()) << "the new table";
}

TEST_F(RetiredBlocks, AreAllFreedWhereThereAreMoreReadersThanEntries)
{
    load(15);
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(0U, alloc::held());
}

TEST_F(RetiredBlocks, AreAllKeptForLaterWithoutReaders)
{
    load(1);
    pcsc::unplugReader("Reader 0");
    list();
    ASSERT_EQ(0, rCount);
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(ENTRIES, blocksHeld());
}

TEST_F(RetiredBlocks, OfSeveralLivesAreNotLost)
{
    for (int life = 0; life < 5; ++life) {
        SCOPED_TRACE(life);
        load(2);
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        EXPECT_EQ(ENTRIES - 2, blocksHeld());
        EXPECT_LE(alloc::held(), ENTRIES);
        EXPECT_RV(CKR_OK, C_Initialize(nullptr));
        pcsc::unplugReader("Reader 0");
        pcsc::unplugReader("Reader 1");
    }
}

// --- Calls that take no memory -------------------------------------------------------------------

TEST_F(SessionMemory, QueriesLoginAndClosingAllocateNothing)
{
    const CK_SESSION_HANDLE session = open();
    CK_UTF8CHAR pin[] = {'1', '2', '3', '4'};
    alloc::failFrom(1);
    CK_INFO info{};
    CK_SLOT_INFO slot{};
    CK_TOKEN_INFO token{};
    CK_MECHANISM_INFO mechanism{};
    CK_SESSION_INFO sessionInfo{};
    CK_ULONG count = 0;
    CK_FUNCTION_LIST* handedOut = nullptr;
    EXPECT_RV(CKR_OK, C_GetFunctionList(&handedOut));
    EXPECT_RV(CKR_OK, C_GetInfo(&info));
    EXPECT_RV(CKR_OK, C_GetSlotInfo(0, &slot));
    EXPECT_RV(CKR_OK, C_GetTokenInfo(0, &token));
    EXPECT_RV(CKR_OK, C_GetMechanismList(0, nullptr, &count));
    EXPECT_RV(CKR_OK, C_GetMechanismInfo(0, CKM_RSA_PKCS, &mechanism));
    EXPECT_RV(CKR_OK, C_GetSessionInfo(session, &sessionInfo));
    EXPECT_RV(CKR_OK, C_Login(session, CKU_USER, pin, sizeof(pin)));
    EXPECT_RV(CKR_OK, C_Logout(session));
    EXPECT_RV(CKR_OK, C_CloseSession(session));
    EXPECT_RV(CKR_SESSION_CLOSED, C_CloseAllSessions(0));
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_RV(CKR_OK, C_Initialize(nullptr));
    EXPECT_EQ(0U, alloc::asked());
}

} // namespace
} // namespace velt_test
