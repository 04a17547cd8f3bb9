// C_CloseSession, C_CloseAllSessions, and handles from before C_Finalize in every call on sessions.
#include "tests/support/id_card_fixture.h"

using namespace velt_test;

namespace {

class Closing : public IdCardTest {
protected:
    static std::vector<Call> disconnects() { return pcsc::calls(Function::Disconnect); }

    bool isOpen(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO info{};
        return p11.C_GetSessionInfo(session, &info) == CKR_OK;
    }
};

// --- C_CloseSession ------------------------------------------------------------------------------

TEST_F(Closing, ClosingLeavesTheCardAsItIs)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    const unsigned long handle = pcsc::calls(Function::Connect).back().card;
    pcsc::clearCalls();
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_MESSAGES(mark, "C_CloseSession", numbered("CloseSession Session number=", session),
                    "CloseSession CKR_OK");
    ASSERT_EQ(1U, pcsc::callCount());
    ASSERT_EQ(1U, disconnects().size());
    EXPECT_EQ(handle, disconnects()[0].card);
    EXPECT_EQ(0U, disconnects()[0].disposition);
    EXPECT_EQ(0U, pcsc::openCards());
    EXPECT_FALSE(isOpen(session));
}

TEST_F(Closing, AClosedSessionStaysClosed)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    openWithoutObjects();
    pcsc::clearCalls();
    const MessageMark mark;
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CloseSession(session));
    EXPECT_MESSAGES(mark, "C_CloseSession", numbered("CloseSession Session number=", session),
                    "CloseSession CKR_SESSION_CLOSED");
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(Closing, AHandleThatWasNeverIssuedCannotBeClosed)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    pcsc::clearCalls();
    for (const CK_SESSION_HANDLE handle :
         {CK_SESSION_HANDLE{0}, session + 1, session + 2, ~CK_SESSION_HANDLE{0}}) {
        const MessageMark mark;
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(handle)) << handle;
        EXPECT_MESSAGES(mark, "C_CloseSession", numbered("CloseSession Session number=", handle),
                        "CloseSession CKR_SESSION_HANDLE_INVALID");
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

class FailedDisconnect : public Closing, public ::testing::WithParamInterface<LONG> {};

TEST_P(FailedDisconnect, LeavesTheSessionOpen)
{
    const CK_SESSION_HANDLE session = openWithoutObjects(READ_ONLY);
    pcsc::failNth(Function::Disconnect, 1, GetParam());
    const MessageMark mark;
    EXPECT_RV(CKR_DEVICE_ERROR, p11.C_CloseSession(session));
    EXPECT_MESSAGES(mark, "C_CloseSession", numbered("CloseSession Session number=", session),
                    "CloseSession CKR_DEVICE_ERROR");
    EXPECT_EQ(1U, pcsc::openCards());
    expectState(session, 0);
    loginWell(session);
    expectState(session, 1);
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

INSTANTIATE_TEST_SUITE_P(WithAnyCode, FailedDisconnect,
                         ::testing::Values(SCARD_E_INVALID_HANDLE, SCARD_E_NO_SERVICE,
                                           SCARD_F_INTERNAL_ERROR, 1L, -1L));

// --- C_CloseAllSessions --------------------------------------------------------------------------

TEST_F(Closing, AllSessionsOfASlotAreClosedInTheOrderOfTheirOpening)
{
    std::vector<CK_SESSION_HANDLE> sessions;
    for (int i = 0; i < 3; ++i) {
        sessions.push_back(openWithoutObjects());
    }
    const auto connects = pcsc::calls(Function::Connect);
    pcsc::clearCalls();
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
    Texts expected{"C_CloseAllSessions"};
    for (const CK_SESSION_HANDLE session : sessions) {
        expected = expected +
                   Texts{numbered("CloseSession Session number=", session), "CloseSession CKR_OK"};
    }
    EXPECT_MESSAGES(mark, expected + Texts{"CloseAllSessions CKR_OK"});
    ASSERT_EQ(3U, disconnects().size());
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(connects[i].card, disconnects()[i].card);
        EXPECT_EQ(0U, disconnects()[i].disposition);
    }
}

TEST_F(Closing, SessionsOfOtherSlotsStayOpen)
{
    auto other = refusingCard(NEWER_ID_CARD);
    plug("Other 0", other);
    refresh();
    const CK_SESSION_HANDLE first = openWithoutObjects();
    other->expect(SELECT_MASTER_FILE, "6A 82");
    const CK_SESSION_HANDLE onOther = open(1);
    const CK_SESSION_HANDLE last = openWithoutObjects();
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(onOther));
    EXPECT_FALSE(isOpen(last));
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(1));
    EXPECT_EQ(0U, pcsc::openCards());
    EXPECT_EQ("", other->verdict());
}

TEST_F(Closing, ASessionClosedEarlierStopsTheClosingOfAll)
{
    const CK_SESSION_HANDLE first = openWithoutObjects();
    const CK_SESSION_HANDLE second = openWithoutObjects();
    const CK_SESSION_HANDLE third = openWithoutObjects();
    EXPECT_RV(CKR_OK, p11.C_CloseSession(second));
    const MessageMark mark;
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CloseAllSessions(0));
    EXPECT_MESSAGES(mark, "C_CloseAllSessions", numbered("CloseSession Session number=", first),
                    "CloseSession CKR_OK", numbered("CloseSession Session number=", second),
                    "CloseSession CKR_SESSION_CLOSED",
                    numbered("CloseAllSessions Session number=", second),
                    "CloseAllSessions error0xb0");
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(third));
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CloseAllSessions(0));
    EXPECT_TRUE(isOpen(third));
}

TEST_F(Closing, AFailedDisconnectStopsTheClosingOfAll)
{
    const CK_SESSION_HANDLE first = openWithoutObjects();
    const CK_SESSION_HANDLE second = openWithoutObjects();
    const CK_SESSION_HANDLE third = openWithoutObjects();
    pcsc::failNth(Function::Disconnect, 2, SCARD_E_NO_SERVICE);
    const MessageMark mark;
    EXPECT_RV(CKR_DEVICE_ERROR, p11.C_CloseAllSessions(0));
    EXPECT_MESSAGES(mark, "C_CloseAllSessions", numbered("CloseSession Session number=", first),
                    "CloseSession CKR_OK", numbered("CloseSession Session number=", second),
                    "CloseSession CKR_DEVICE_ERROR",
                    numbered("CloseAllSessions Session number=", second),
                    "CloseAllSessions error0x30");
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    EXPECT_TRUE(isOpen(third));
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CloseAllSessions(0));
}

TEST_F(Closing, AllSessionsOfThePseudoReaderAreNone)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(1));
    EXPECT_MESSAGES(mark, "C_CloseAllSessions", "CloseAllSessions CKR_OK");
    EXPECT_TRUE(isOpen(session));
}

TEST_F(Closing, AllSessionsOfASlotBehindThePseudoReaderCannotBeClosed)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const CK_SLOT_ID slot : {2UL, 256UL, 0x100000000UL, ~0UL}) {
        const MessageMark mark;
        EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_CloseAllSessions(slot)) << slot;
        EXPECT_MESSAGES(mark, "C_CloseAllSessions", "CloseAllSessions CKR_SLOT_ID_INVALID");
    }
    EXPECT_TRUE(isOpen(session));
}

TEST_F(Closing, SessionsOfASlotThatWentCannotBeClosedTogether)
{
    plug("Other 0");
    plug("Last 0", refusingCard(NEWER_ID_CARD));
    refresh();
    const CK_SESSION_HANDLE session = open(2);
    pcsc::unplugReader("Other 0");
    pcsc::unplugReader(READER);
    pcsc::unplugReader("Last 0");
    refresh();
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_CloseAllSessions(2));
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0)) << "slot 0 holds no session";
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

// --- Handles from before C_Finalize --------------------------------------------------------------

class OlderHandles : public Closing {
protected:
    // Three handles whose sessions were open, logged in and logged out; the module starts over.
    void SetUp() override
    {
        Closing::SetUp();
        for (int i = 0; i < 3; ++i) {
            older.push_back(openWithoutObjects());
        }
        loginWell(older[1]);
        loginWell(older[2]);
        EXPECT_RV(CKR_OK, p11.C_Logout(older[2]));
        EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
        initialise();
        refresh();
        pcsc::clearCalls();
    }

    void expectAllClosed()
    {
        for (const CK_SESSION_HANDLE session : older) {
            SCOPED_TRACE(session);
            Guarded<CK_SESSION_INFO> info;
            EXPECT_RV(CKR_SESSION_CLOSED, p11.C_GetSessionInfo(session, info.get()));
            EXPECT_TRUE(info.isUntouched());
            EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CloseSession(session));
            EXPECT_RV(CKR_SESSION_CLOSED, login(session, "1234"));
            const MessageMark mark;
            EXPECT_RV(CKR_SESSION_CLOSED, p11.C_Logout(session));
            EXPECT_MESSAGES(mark, "C_Logout", "Logout CKR_SESSION_CLOSED");
        }
        CK_SESSION_INFO info{};
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_GetSessionInfo(0, &info));
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(0));
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Logout(0));
    }

    std::vector<CK_SESSION_HANDLE> older;
};

TEST_F(OlderHandles, AreClosedBeforeAnythingIsOpenedAgain)
{
    expectAllClosed();
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(older.back() + 1));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Logout(older.back() + 1));
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(OlderHandles, AreClosedAlsoNextToNewSessions)
{
    const CK_SESSION_HANDLE fresh = openWithoutObjects();
    EXPECT_EQ(older.back() + 1, fresh);
    EXPECT_EQ(older.back() + 2, openWithoutObjects());
    expectAllClosed();
    loginWell(fresh);
    expectAllClosed();
    expectState(fresh, 3);
}

TEST_F(OlderHandles, DoNotStopTheClosingOfAll)
{
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
    const CK_SESSION_HANDLE fresh = openWithoutObjects();
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
    EXPECT_MESSAGES(mark, "C_CloseAllSessions", numbered("CloseSession Session number=", fresh),
                    "CloseSession CKR_OK", "CloseAllSessions CKR_OK");
    EXPECT_FALSE(isOpen(fresh));
}

TEST_F(OlderHandles, StayClosedOverSeveralLives)
{
    for (int life = 0; life < 3; ++life) {
        older.push_back(openWithoutObjects());
        EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
        initialise();
        refresh();
        expectAllClosed();
    }
    EXPECT_EQ(older.back() + 1, openWithoutObjects());
}

} // namespace
