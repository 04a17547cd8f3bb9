// Steps of a search: their checks, and how handles are handed out.
#include "tests/support/search_world.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;

class SearchStep : public SearchWorld {
protected:
    // A step that must fail and write nothing.
    static CK_RV step(CK_SESSION_HANDLE hSession)
    {
        CK_OBJECT_HANDLE handle = SENTINEL;
        CK_ULONG count = SENTINEL;
        const CK_RV result = VELT_FindObjects(hSession, &handle, 1, &count);
        EXPECT_EQ(SENTINEL, handle);
        EXPECT_EQ(SENTINEL, count);
        return result;
    }
};

TEST_F(SearchStep, WithoutAnInitNothingElseIsLookedAt)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, session(), NEVER_ISSUED}) {
        const MessageMark mark;
        EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, VELT_FindObjects(handle, nullptr, 0, nullptr));
        EXPECT_MESSAGES(mark, "FindObjects CKR_OPERATION_NOT_INITIALIZED");
    }
}

TEST_F(SearchStep, HandleZeroIsJudgedBySlotZeroFirst)
{
    ASSERT_EQ(CKR_OK, init(empty()));
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, step(0));
    EXPECT_MESSAGES(mark, "FindObjects CKR_SESSION_HANDLE_INVALID");
    sim::pcsc::removeCard(READER);
    listSlots();
    const MessageMark without;
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, step(0));
    EXPECT_MESSAGES(without, "FindObjects CKR_TOKEN_NOT_PRESENT");
}

TEST_F(SearchStep, AHandleNeverIssuedHasNoSlot)
{
    ASSERT_EQ(CKR_OK, init(empty()));
    sim::pcsc::removeCard(READER);
    listSlots();
    for (const CK_SESSION_HANDLE handle : {sessCount + 1, NEVER_ISSUED}) {
        const MessageMark mark;
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, step(handle));
        EXPECT_MESSAGES(mark, "FindObjects CKR_SESSION_HANDLE_INVALID");
    }
}

TEST_F(SearchStep, ASessionFromBeforeFinaliseIsClosedAndHasNoSlot)
{
    ASSERT_EQ(CKR_OK, init(empty()));
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    sim::pcsc::removeCard(READER);
    startModule();
    ASSERT_EQ(1, bFindInit) << "the search outlives the module's session";
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_CLOSED, step(session()));
    EXPECT_MESSAGES(mark, "FindObjects CKR_SESSION_CLOSED");
}

TEST_F(SearchStep, TheSlotIsJudgedBeforeTheSession)
{
    sim::pcsc::plugReader("Reader B");
    sim::pcsc::insertCard("Reader B", std::make_shared<MuteCard>(ATR_OF_ID_CARD));
    listSlots();
    const CK_SESSION_HANDLE onSecond = openSession(1);
    ASSERT_EQ(CKR_OK, VELT_FindObjectsInit(onSecond, nullptr, 0));
    ASSERT_EQ(CKR_OK, VELT_CloseSession(onSecond));
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_CLOSED, step(onSecond));
    EXPECT_MESSAGES(mark, "FindObjects CKR_SESSION_CLOSED");

    sim::pcsc::unplugReader("Reader B");
    listSlots(); // the slot now has the position of the plug-and-play entry
    const MessageMark without;
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, step(onSecond));
    EXPECT_MESSAGES(without, "FindObjects CKR_TOKEN_NOT_PRESENT");

    sim::pcsc::unplugReader(READER);
    listSlots();
    const MessageMark beyond;
    EXPECT_EQ(CKR_SLOT_ID_INVALID, step(onSecond));
    EXPECT_MESSAGES(beyond, "FindObjects CKR_SLOT_ID_INVALID");
}

TEST_F(SearchStep, MissingOutputsAreBadArguments)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    CK_OBJECT_HANDLE handle = SENTINEL;
    CK_ULONG count = SENTINEL;
    const MessageMark mark;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_FindObjects(session(), nullptr, 1, &count));
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_FindObjects(session(), &handle, 1, nullptr));
    EXPECT_MESSAGES(mark, "FindObjects CKR_ARGUMENTS_BAD", "FindObjects CKR_ARGUMENTS_BAD");
    EXPECT_EQ(SENTINEL, handle);
    EXPECT_EQ(SENTINEL, count);
    ASSERT_EQ(CKR_OK, VELT_CloseSession(session())); // the session comes first
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_FindObjects(session(), nullptr, 1, nullptr));
}

TEST_F(SearchStep, AStepReportsHowMuchItFound)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    const MessageMark mark;
    EXPECT_EQ(10U, next(0, 10).size());
    EXPECT_MESSAGES(mark, numbered("FindObjects Found objects ", 10), "FindObjects CKR_OK");
    const MessageMark again;
    EXPECT_EQ(0U, next(5, 5).size());
    EXPECT_MESSAGES(again, numbered("FindObjects Found objects ", 0), "FindObjects CKR_OK");
}

TEST_F(SearchStep, AFailedStepLeavesTheSearchAsItWas)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ((Handles{1, 2}), next(2, 2));
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, step(0));
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_FindObjects(session(), nullptr, 0, &count));
    EXPECT_EQ(2U, tObjCount);
    EXPECT_EQ((Handles{3, 4}), next(2, 2));
}

TEST_F(SearchStep, OneByOneGivesEachHandleOnce)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    for (CK_OBJECT_HANDLE handle = 1; handle <= 10; ++handle) {
        EXPECT_EQ((Handles{handle}), next(1, 1));
        EXPECT_EQ(handle, tObjCount);
    }
    EXPECT_EQ((Handles{}), next(1, 1));
    EXPECT_EQ(10U, tObjCount);
}

TEST_F(SearchStep, BatchesOfAnySizeListTheSameHandles)
{
    constexpr std::size_t OBJECTS = 300; // far more than one word of marks
    makeTable(OBJECTS + 5);
    Handles all;
    for (std::size_t i = 0; i < OBJECTS; ++i) {
        ObjectEntry& entry = addPublicKey("x");
        if (i % 7 == 3) {
            entry.handle = REMOVED_MARKER;
        } else {
            all.push_back(i + 1);
        }
    }
    for (const std::size_t batch : {1U, 10U, 60U, 61U, 64U, 1024U}) {
        ASSERT_EQ(CKR_OK, init(empty()));
        Handles found;
        for (Handles step = next(batch, batch); !step.empty(); step = next(batch, batch)) {
            found.insert(found.end(), step.begin(), step.end());
        }
        EXPECT_EQ(all, found) << batch;
        EXPECT_EQ(all.size(), tObjCount);
        EXPECT_EQ(CKR_OK, VELT_FindObjectsFinal(session()));
    }
}

TEST_F(SearchStep, ALimitOfZeroIsNoLimit)
{
    makeTable(100);
    for (int i = 0; i < 100; ++i) {
        addPublicKey();
    }
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ(100U, next(0, 100).size());
}

TEST_F(SearchStep, TheWalkEndsWhereTheCountOrTheTableDoes)
{
    makeMixedTable();
    ulObjCount = 4;
    EXPECT_EQ((Handles{1, 2, 3, 4}), find(empty()));
    ulObjCount = 5000; // two empty entries, then no table
    EXPECT_EQ(10U, find(empty()).size());
    ulObjCount = ~std::uint64_t{0};
    EXPECT_EQ(10U, find(empty()).size());
}

TEST_F(SearchStep, ACountWithoutATableFindsNothing)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    velt::retireObjects(0);
    ASSERT_EQ(10U, ulObjCount);
    EXPECT_EQ((Handles{}), next(0, 10));
}

TEST_F(SearchStep, ASecondInitRestarts)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ(4U, next(4, 4).size());
    ASSERT_EQ(CKR_OK, init(certificates()));
    EXPECT_EQ(0U, tObjCount);
    EXPECT_EQ((Handles{1, 4, 5, 6}), next(0, 10));
}

TEST_F(SearchStep, AnySessionContinuesAndEndsTheSearch)
{
    makeMixedTable();
    const CK_SESSION_HANDLE other = openSession(0);
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ((Handles{1, 2, 3}), next(3, 3));
    CK_OBJECT_HANDLE handle = 0;
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_OK, VELT_FindObjects(other, &handle, 1, &count));
    EXPECT_EQ(4U, handle);
    EXPECT_EQ(CKR_OK, VELT_FindObjectsFinal(other));
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, VELT_FindObjectsFinal(session()));
}

TEST_F(SearchStep, ARefusedInitLetsTheRunningSearchMatchEverything)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(Template{}.addClass(CKO_PRIVATE_KEY).add(CKA_PRIVATE, {1})));
    EXPECT_EQ((Handles{6}), next(1, 1)); // its class and its missing label
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_FindObjectsInit(0, nullptr, 0));
    EXPECT_EQ(0U, ulTCount);
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 7, 8, 9, 10}), next(0, 20));
}

TEST_F(SearchStep, AnInitRefusedForItsTemplateLetsTheRunningSearchMatchEverything)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(certificates()));
    EXPECT_EQ((Handles{1}), next(1, 1));
    EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID, init(Template{}.add(CKA_VALUE, {1})));
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ((Handles{2, 3, 4, 5, 6, 7, 8, 9, 10}), next(0, 20));
}

TEST_F(SearchStep, MarksStayWithTheHandlesThroughAReload)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ((Handles{1, 2, 3}), next(3, 3));
    makeTable(500);
    for (int i = 0; i < 500; ++i) {
        addPublicKey();
    }
    const Handles rest = next(0, 500);
    ASSERT_EQ(497U, rest.size());
    EXPECT_EQ(4U, rest.front());
    EXPECT_EQ(500U, rest.back());
    EXPECT_EQ(500U, tObjCount);
    EXPECT_EQ((Handles{}), next(0, 500));
}

TEST_F(SearchStep, AReloadLetsObjectsMatchThatWerePassedBefore)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(Template{}
                               .addClass(CKO_PRIVATE_KEY)
                               .add(CKA_ID, {0x88})
                               .add(CKA_LABEL, bytesOf("other"))));
    EXPECT_EQ((Handles{}), next(0, 10)); // to the end of the table
    makeTable(3);
    addPublicKey("other");
    addPrivateKey("other").id[0] = 0x88;
    EXPECT_EQ((Handles{2}), next(1, 1));
    ASSERT_TRUE(velt::growObjects(100));
    velt::entryAt(0)->objClass = CKO_PRIVATE_KEY;
    velt::entryAt(0)->id[0] = 0x88;
    ASSERT_TRUE(velt::growObjects(200));
    EXPECT_EQ((Handles{1}), next(1, 1));
}

TEST_F(SearchStep, EmptyEntriesOfARebuiltTableAreNeverHandedOut)
{
    makeMixedTable();
    scripted.objectsInit = [] {
        makeTable(6);
        addPublicKey();
        addPublicKey().handle = REMOVED_MARKER;
        addPublicKey();
        ulObjCount = 6;
        return CKR_OK;
    };
    oiFlags = RELOAD_OBJECTS;
    EXPECT_EQ((Handles{1, 3}), find(empty()));
}

} // namespace
