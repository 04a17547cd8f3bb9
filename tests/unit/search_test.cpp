// Starting and ending a search: what is checked, the load of the table, the memory it takes.
#include "tests/support/search_world.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;

class SearchFrame : public SearchWorld {};

TEST_F(SearchFrame, InitRefusesAHandleNeverIssued)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, sessCount + 1, NEVER_ISSUED}) {
        const MessageMark mark;
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_FindObjectsInit(handle, nullptr, 0));
        EXPECT_MESSAGES(mark, "FindObjectsInit CKR_SESSION_HANDLE_INVALID");
    }
    EXPECT_EQ(0, bFindInit);
}

TEST_F(SearchFrame, InitRefusesAClosedSession)
{
    ASSERT_EQ(CKR_OK, VELT_CloseSession(session()));
    sim::pcsc::unplugReader(READER); // the session comes before its slot
    listSlots();
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_FindObjectsInit(session(), nullptr, 0));
    EXPECT_MESSAGES(mark, "FindObjectsInit CKR_SESSION_CLOSED");
}

TEST_F(SearchFrame, InitRefusesASessionFromBeforeFinalise)
{
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    startModule();
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_FindObjectsInit(session(), nullptr, 0));
    EXPECT_MESSAGES(mark, "FindObjectsInit CKR_SESSION_CLOSED");
}

TEST_F(SearchFrame, InitRefusesASlotThatIsNoMore)
{
    sim::pcsc::plugReader("Reader B");
    sim::pcsc::insertCard("Reader B", std::make_shared<MuteCard>(ATR_OF_ID_CARD));
    listSlots();
    const CK_SESSION_HANDLE onSecond = openSession(1);
    sim::pcsc::unplugReader("Reader B");
    listSlots(); // the slot now has the position of the plug-and-play entry
    const MessageMark mark;
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, VELT_FindObjectsInit(onSecond, nullptr, 0));
    EXPECT_MESSAGES(mark, "FindObjectsInit CKR_TOKEN_NOT_PRESENT");
    sim::pcsc::unplugReader(READER);
    listSlots();
    const MessageMark beyond;
    EXPECT_EQ(CKR_SLOT_ID_INVALID, VELT_FindObjectsInit(onSecond, nullptr, 0));
    EXPECT_MESSAGES(beyond, "FindObjectsInit CKR_SLOT_ID_INVALID");
}

TEST_F(SearchFrame, InitRefusesASlotWithoutACard)
{
    sim::pcsc::removeCard(READER);
    listSlots();
    const MessageMark mark;
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, VELT_FindObjectsInit(session(), nullptr, 0));
    EXPECT_MESSAGES(mark, "FindObjectsInit CKR_TOKEN_NOT_PRESENT");
    EXPECT_EQ(0, bFindInit);
}

TEST_F(SearchFrame, InitReportsItsTemplate)
{
    const MessageMark mark;
    EXPECT_EQ(CKR_OK, init(Template{}.addClass(CKO_PRIVATE_KEY).add(CKA_ID, {1})));
    EXPECT_MESSAGES(mark, numbered("FindObjectsInit ulCount = ", 2),
                    numbered("VELT_PKCS11: Obj.type = ", CKA_CLASS),
                    numbered("VELT_PKCS11: Obj.type = ", CKA_ID), "VELTObjectsInit",
                    "VELTObjectsInit CKR_OK", "FindObjectsInit CKR_OK");
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ(2U, ulTCount);
    EXPECT_EQ(0U, tObjCount);
}

TEST_F(SearchFrame, InitLoadsAStaleTable)
{
    scripted.objectsInit = [] {
        makeTable(3);
        addPublicKey();
        return CKR_OK;
    };
    oiFlags = RELOAD_OBJECTS;
    EXPECT_EQ((Handles{1}), find(empty()));
    EXPECT_EQ((std::vector<DriverCall>{{"ObjectsInit", session(), 0}}), scripted.calls);
}

TEST_F(SearchFrame, InitNamesALoadWithoutMemoryOrCard)
{
    const std::pair<CK_RV, CK_RV> cases[] = {{1, CKR_HOST_MEMORY}, {2, CKR_DEVICE_ERROR}};
    const char* const texts[] = {"FindObjectsInit CKR_HOST_MEMORY",
                                 "FindObjectsInit CKR_DEVICE_ERROR"};
    for (std::size_t i = 0; i < 2; ++i) {
        scripted.objectsInit = [code = cases[i].first] { return code; };
        oiFlags = RELOAD_OBJECTS;
        const MessageMark mark;
        EXPECT_EQ(cases[i].second, init(certificates()));
        EXPECT_MESSAGES(mark, numbered("FindObjectsInit ulCount = ", 1),
                        numbered("VELT_PKCS11: Obj.type = ", CKA_CLASS), "VELTObjectsInit",
                        "VELTObjectsInit Do init = true", texts[i]);
        EXPECT_EQ(0, bFindInit);
        EXPECT_EQ(1U, ulTCount);
    }
}

TEST_F(SearchFrame, InitSearchesWhatThereIsAfterAnyOtherFailure)
{
    makeTable(2);
    addPublicKey();
    for (const CK_RV code : {CK_RV{3}, CK_RV{6}, CK_RV{84}}) {
        scripted.objectsInit = [code] { return code; };
        oiFlags = RELOAD_OBJECTS;
        EXPECT_EQ((Handles{1}), find(empty())) << code;
        EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
    }
    stVELTTokens.ObjectsInit = nullptr;
    EXPECT_EQ((Handles{1}), find(empty()));
}

TEST_F(SearchFrame, AFailedLoadLeavesARunningSearchItsMarks)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ((Handles{1, 2, 3}), next(3, 3));
    scripted.objectsInit = [] { return CK_RV{2}; };
    oiFlags = RELOAD_OBJECTS;
    EXPECT_EQ(CKR_DEVICE_ERROR, init(certificates())); // its template stays, its count too
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ((Handles{4, 5, 6}), next(0, 10));
}

TEST_F(SearchFrame, FinalWithoutAnInitLooksAtNothingElse)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, session(), NEVER_ISSUED}) {
        const MessageMark mark;
        EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, VELT_FindObjectsFinal(handle));
        EXPECT_MESSAGES(mark, "FindObjectsFinal CKR_OPERATION_NOT_INITIALIZED");
    }
}

TEST_F(SearchFrame, FinalChecksHandleAndSessionButNoSlot)
{
    makeMixedTable();
    const CK_SESSION_HANDLE closed = openSession(0);
    ASSERT_EQ(CKR_OK, VELT_CloseSession(closed));
    ASSERT_EQ(CKR_OK, init(certificates()));
    sim::pcsc::unplugReader(READER);
    listSlots();
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_FindObjectsFinal(0));
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_FindObjectsFinal(sessCount + 1));
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_FindObjectsFinal(closed));
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ(1U, ulTCount);
    EXPECT_EQ(CKR_OK, VELT_FindObjectsFinal(session()));
    EXPECT_MESSAGES(mark, "FindObjectsFinal CKR_SESSION_HANDLE_INVALID",
                    "FindObjectsFinal CKR_SESSION_HANDLE_INVALID",
                    "FindObjectsFinal CKR_SESSION_CLOSED", "FindObjectsFinal CKR_OK");
    EXPECT_EQ(0, bFindInit);
    EXPECT_EQ(0U, ulTCount);
    EXPECT_EQ(nullptr, pTempl);
}

} // namespace
