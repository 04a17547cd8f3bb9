// C_Login, C_Logout, and C_GetSessionInfo as it shows what they change.
#include "tests/support/id_card_fixture.h"

using namespace velt_test;

namespace {

class Login : public IdCardTest {
protected:
    // A login that is refused before any card command.
    void expectRefused(CK_RV expected, CK_SESSION_HANDLE session, CK_USER_TYPE user,
                       std::string_view pin, const char* message)
    {
        pcsc::clearCalls();
        const MessageMark mark;
        EXPECT_RV(expected, login(session, pin, user));
        EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session), message);
        EXPECT_EQ(0U, pcsc::callCount());
    }

    void expectNullPinRefused(CK_RV expected, CK_SESSION_HANDLE session, const char* message)
    {
        for (const CK_ULONG length : {0UL, 4UL, 6UL}) {
            pcsc::clearCalls();
            const MessageMark mark;
            EXPECT_RV(expected, p11.C_Login(session, CKU_USER, nullptr, length));
            EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session), message);
            EXPECT_EQ(0U, pcsc::callCount());
        }
    }

    void logoutWell(CK_SESSION_HANDLE session) { ASSERT_RV(CKR_OK, p11.C_Logout(session)); }
};

// --- C_Login -------------------------------------------------------------------------------------

TEST_F(Login, TheRightPinOpensTheUserFunctions)
{
    for (const CK_FLAGS flags : {READ_ONLY, READ_WRITE}) {
        const CK_SESSION_HANDLE session = openWithoutObjects(flags);
        expectVerify("90 00");
        const MessageMark mark;
        EXPECT_RV(CKR_OK, login(session, "1234"));
        EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                        "IDCard Login CKR_OK", "Login CKR_OK");
        expectState(session, flags == READ_WRITE ? 3 : 1);
    }
}

TEST_F(Login, OnlyTheSessionThatLogsInChanges)
{
    const CK_SESSION_HANDLE first = openWithoutObjects(READ_WRITE);
    const CK_SESSION_HANDLE second = openWithoutObjects(READ_ONLY);
    const CK_SESSION_HANDLE third = openWithoutObjects(READ_WRITE);
    loginWell(second);
    expectState(first, 2);
    expectState(second, 1);
    expectState(third, 2);
    loginWell(first);
    expectState(first, 3);
    expectState(third, 2);
}

TEST_F(Login, ARefusedPinLeavesTheSessionPublicAndTheCardsAnswerIsPassedOn)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    expectVerify("69 83");
    const MessageMark mark;
    EXPECT_RV(CKR_PIN_LOCKED, login(session, "1234"));
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                    "IDCard Login CKR_PIN_LOCKED", "Login APDU error0xa4");
    expectState(session, 2);
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session));
    loginWell(session);
    expectState(session, 3);
}

TEST_F(Login, AnyOtherRefusalIsAFailedFunction)
{
    const CK_SESSION_HANDLE session = openWithoutObjects(READ_ONLY);
    expectVerify("6A 86");
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "1234"));
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                    "IDCard Login error 0x866a", "Login APDU error0x6");
    expectState(session, 0);
}

TEST_F(Login, ASecondLoginIsRefusedWhateverItsArguments)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    loginWell(session);
    const char* const message = "Login CKR_USER_ALREADY_LOGGED_IN";
    expectRefused(CKR_USER_ALREADY_LOGGED_IN, session, CKU_USER, "1234", message);
    expectRefused(CKR_USER_ALREADY_LOGGED_IN, session, CKU_SO, "1234", message);
    expectRefused(CKR_USER_ALREADY_LOGGED_IN, session, CKU_USER, "123456", message);
    expectNullPinRefused(CKR_USER_ALREADY_LOGGED_IN, session, message);
    pcsc::removeCard(READER);
    refresh();
    expectRefused(CKR_USER_ALREADY_LOGGED_IN, session, CKU_USER, "1234", message);
}

TEST_F(Login, OnlyTheUserLogsIn)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const CK_USER_TYPE user : {CK_USER_TYPE{CKU_SO}, CK_USER_TYPE{2}, CK_USER_TYPE{3},
                                    CK_USER_TYPE{0x100000001}, ~CK_USER_TYPE{0}}) {
        expectRefused(CKR_ARGUMENTS_BAD, session, user, "1234", "Login CKR_ARGUMENTS_BAD");
    }
    expectState(session, 2);
}

TEST_F(Login, WithoutAPinThereIsNoLogin)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    expectNullPinRefused(CKR_ARGUMENTS_BAD, session, "Login CKR_ARGUMENTS_BAD");
}

TEST_F(Login, AnIdCardTakesFourCharactersAndNothingElse)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const std::string_view pin : {"", "1", "12", "123", "12345", "123456", "12345678",
                                       "1234567890123456789012345678901234567890"}) {
        expectRefused(CKR_ARGUMENTS_BAD, session, CKU_USER, pin, "Login CKR_ARGUMENTS_BAD");
    }
    loginWell(session);
}

TEST_F(Login, TheNewerIdCardTakesFourCharactersToo)
{
    card = refusingCard(NEWER_ID_CARD);
    pcsc::removeCard(READER);
    pcsc::insertCard(READER, card);
    refresh();
    const CK_SESSION_HANDLE session = openWithoutObjects();
    expectRefused(CKR_ARGUMENTS_BAD, session, CKU_USER, "12345", "Login CKR_ARGUMENTS_BAD");
    loginWell(session);
}

TEST_F(Login, AnEmptySlotIsNoticedAfterTheArguments)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    pcsc::removeCard(READER);
    refresh();
    expectRefused(CKR_TOKEN_NOT_PRESENT, session, CKU_USER, "1234", "Login CKR_TOKEN_NOT_PRESENT");
    // The length of the PIN is no business of a slot without an ID card.
    expectRefused(CKR_TOKEN_NOT_PRESENT, session, CKU_USER, "123456",
                  "Login CKR_TOKEN_NOT_PRESENT");
    expectRefused(CKR_ARGUMENTS_BAD, session, CKU_SO, "1234", "Login CKR_ARGUMENTS_BAD");
    expectNullPinRefused(CKR_ARGUMENTS_BAD, session, "Login CKR_ARGUMENTS_BAD");
}

TEST_F(Login, AClosedSessionCannotLogIn)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    const CK_SESSION_HANDLE loggedIn = openWithoutObjects();
    loginWell(loggedIn);
    for (const CK_SESSION_HANDLE closed : {session, loggedIn}) {
        EXPECT_RV(CKR_OK, p11.C_CloseSession(closed));
        expectRefused(CKR_SESSION_CLOSED, closed, CKU_USER, "1234", "Login CKR_SESSION_CLOSED");
        expectRefused(CKR_SESSION_CLOSED, closed, CKU_SO, "", "Login CKR_SESSION_CLOSED");
    }
}

TEST_F(Login, AHandleThatWasNeverIssuedCannotLogIn)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const CK_SESSION_HANDLE handle : {session + 1, session + 2, ~CK_SESSION_HANDLE{0}}) {
        expectRefused(CKR_SESSION_HANDLE_INVALID, handle, CKU_USER, "1234",
                      "Login CKR_SESSION_HANDLE_INVALID");
    }
    const MessageMark mark;
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, login(0, "1234"));
    EXPECT_MESSAGES(mark, "C_Login", "Login hSession is NULL!", "Login CKR_SESSION_HANDLE_INVALID");
}

TEST_F(Login, ACardThatIsPulledDuringTheLoginFailsIt)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    EXPECT_EQ(0x826AU, sessionInfo(session).ulDeviceError);
    pcsc::Action pulled;
    pulled.before = [] { pcsc::removeCard(READER); };
    pcsc::onNth(Function::Transmit, 2, pulled);
    card->expect(SELECT_MASTER_FILE, "90 00");
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "1234"));
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                    "IDCard Login error 0x80100069", "Login APDU error0x6");
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError) << "a failed transmission is not kept";
    expectState(session, 2);
}

// --- C_Logout ------------------------------------------------------------------------------------

TEST_F(Login, LoggingOutMakesTheSessionPublicAndSendsNothing)
{
    for (const CK_FLAGS flags : {READ_ONLY, READ_WRITE}) {
        const CK_SESSION_HANDLE session = openWithoutObjects(flags);
        loginWell(session);
        pcsc::clearCalls();
        const MessageMark mark;
        EXPECT_RV(CKR_OK, p11.C_Logout(session));
        EXPECT_MESSAGES(mark, "C_Logout", "Logout CKR_OK");
        EXPECT_EQ(0U, pcsc::callCount());
        expectState(session, flags == READ_WRITE ? 2 : 0);
    }
}

TEST_F(Login, ASessionThatNeverLoggedInCannotLogOut)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (int again = 0; again < 2; ++again) {
        const MessageMark mark;
        EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session));
        EXPECT_MESSAGES(mark, "C_Logout", "Logout CKR_USER_NOT_LOGGED_IN");
    }
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session)) << "not even a closed one";
}

TEST_F(Login, ASecondLogoutSaysThatTheSessionIsClosed)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    loginWell(session);
    logoutWell(session);
    const MessageMark mark;
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_Logout(session));
    EXPECT_MESSAGES(mark, "C_Logout", "Logout CKR_SESSION_CLOSED");
    expectState(session, 2);
}

TEST_F(Login, LoginAndLogoutCanFollowEachOtherWithoutEnd)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (int round = 0; round < 3; ++round) {
        loginWell(session);
        expectState(session, 3);
        logoutWell(session);
        expectState(session, 2);
    }
}

TEST_F(Login, AHandleThatWasNeverIssuedCannotLogOut)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const CK_SESSION_HANDLE handle :
         {CK_SESSION_HANDLE{0}, session + 1, session + 2, ~CK_SESSION_HANDLE{0}}) {
        const MessageMark mark;
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Logout(handle)) << handle;
        EXPECT_MESSAGES(mark, "C_Logout", "Logout CKR_SESSION_HANDLE_INVALID");
    }
}

TEST_F(Login, AClosedSessionThatWasLoggedInStillLogsOut)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    loginWell(session);
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_Logout(session));
}

TEST_F(Login, LoggingOutWorksWithoutTheCard)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    loginWell(session);
    pcsc::removeCard(READER);
    refresh();
    logoutWell(session);
}

TEST_F(Login, LoggingOutRewritesTheStateOfTheSessionOpenedLast)
{
    const CK_SESSION_HANDLE readWrite = openWithoutObjects(READ_WRITE);
    const CK_SESSION_HANDLE last = openWithoutObjects(READ_ONLY);
    loginWell(readWrite);
    loginWell(last);
    logoutWell(readWrite);
    expectState(readWrite, 3);
    expectState(last, 2);
    EXPECT_RV(CKR_USER_ALREADY_LOGGED_IN, login(last, "1234")) << "it is still logged in";
    loginWell(readWrite);
    expectState(readWrite, 3);
}

TEST_F(Login, TheStateThatIsRewrittenFollowsTheFlagsOfTheSessionThatLogsOut)
{
    const CK_SESSION_HANDLE readOnly = openWithoutObjects(READ_ONLY);
    const CK_SESSION_HANDLE last = openWithoutObjects(READ_WRITE);
    loginWell(readOnly);
    logoutWell(readOnly);
    expectState(readOnly, 1);
    expectState(last, 0);
    EXPECT_EQ(READ_WRITE, sessionInfo(last).flags);
}

TEST_F(Login, LoggingOutTheSessionOpenedLastLeavesTheOthersAlone)
{
    const CK_SESSION_HANDLE first = openWithoutObjects(READ_WRITE);
    const CK_SESSION_HANDLE last = openWithoutObjects(READ_ONLY);
    loginWell(first);
    loginWell(last);
    logoutWell(last);
    expectState(first, 3);
    expectState(last, 0);
}

TEST_F(Login, NeitherLoginNorLogoutAsksForTheObjectsAgain)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    pcsc::clearCalls();
    loginWell(session);
    logoutWell(session);
    EXPECT_EQ(2U, pcsc::sentCommands().size()) << pcsc::describeCalls();
}

} // namespace
