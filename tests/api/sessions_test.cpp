// C_OpenSession, C_CloseSession, C_CloseAllSessions, C_GetSessionInfo.
#include "tests/support/id_card_fixture.h"

using namespace velt_test;

namespace {

CK_RV neverNotified(CK_SESSION_HANDLE /*session*/, CK_NOTIFICATION /*event*/, void* /*application*/)
{
    ADD_FAILURE() << "the host was notified";
    return CKR_OK;
}

class Sessions : public IdCardTest {
protected:
    static std::vector<Call> connects() { return pcsc::calls(Function::Connect); }
    static std::vector<Call> disconnects() { return pcsc::calls(Function::Disconnect); }

    // An opening that is refused hands out no handle.
    void expectNoSession(CK_RV expected, CK_SLOT_ID slot, CK_FLAGS flags = READ_WRITE)
    {
        CK_SESSION_HANDLE session = NO_HANDLE;
        EXPECT_RV(expected, p11.C_OpenSession(slot, flags, nullptr, nullptr, &session));
        EXPECT_EQ(NO_HANDLE, session);
    }

    void expectClosed(CK_SESSION_HANDLE session)
    {
        Guarded<CK_SESSION_INFO> info;
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_GetSessionInfo(session, info.get()));
        EXPECT_TRUE(info.isUntouched());
    }
};

class SessionsFresh : public FreshModuleTest {};

// --- C_OpenSession -------------------------------------------------------------------------------

TEST_F(Sessions, OpeningConnectsInSharedModeWithEitherProtocol)
{
    const auto context = pcsc::openContexts();
    const MessageMark mark;
    const CK_SESSION_HANDLE session = openWithoutObjects();
    EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1", "VELTObjectsInit",
                    "VELTObjectsInit Do init = true",
                    numbered("OpenSession Session number=", session), "OpenSession CKR_OK");
    ASSERT_EQ(1U, connects().size());
    const Call connect = connects()[0];
    EXPECT_EQ(READER, connect.reader);
    EXPECT_EQ(2U, connect.shareMode);
    EXPECT_EQ(3U, connect.protocols);
    EXPECT_EQ(SCARD_S_SUCCESS, connect.result);
    EXPECT_EQ(context, pcsc::openContexts());
    EXPECT_EQ(1U, pcsc::openCards());
    const auto transmits = pcsc::calls(Function::Transmit);
    ASSERT_EQ(1U, transmits.size());
    EXPECT_EQ(connect.card, transmits[0].card);
    EXPECT_FALSE(transmits[0].bufferGiven) << "no receive PCI";
    EXPECT_EQ(2U, transmits[0].capacity);
}

TEST_F(Sessions, EachSessionSendsWithTheProtocolOfItsCard)
{
    for (const unsigned long protocol : {T0, T1}) {
        card = refusingCard(ID_CARD, protocol);
        pcsc::removeCard(READER);
        pcsc::insertCard(READER, card);
        refresh();
        pcsc::clearCalls();
        openWithoutObjects();
        const auto transmits = pcsc::calls(Function::Transmit);
        ASSERT_EQ(1U, transmits.size());
        EXPECT_EQ(protocol, transmits[0].protocols);
        EXPECT_EQ("", card->verdict());
    }
}

TEST_F(Sessions, OverAProtocolThatIsNeitherT0NorT1NothingIsSent)
{
    pcsc::Action raw;
    raw.protocol = SCARD_PROTOCOL_RAW;
    pcsc::onNth(Function::Connect, 1, raw);
    const CK_SESSION_HANDLE session = open(0);
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "1234"));
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                    "IDCard Login error 0x8010000f", "Login APDU error0x6");
    EXPECT_TRUE(pcsc::calls(Function::Transmit).empty());
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_EQ(0U, pcsc::openCards());
}

TEST_F(Sessions, AParallelSessionIsRefusedBeforeTheSlotIsLookedAt)
{
    for (const CK_FLAGS flags : {CK_FLAGS{0}, CK_FLAGS{CKF_RW_SESSION}, CK_FLAGS{3}, CK_FLAGS{8},
                                 ~CK_FLAGS{CKF_SERIAL_SESSION}}) {
        for (const CK_SLOT_ID slot : {0UL, 1UL, 2UL, ~0UL}) {
            const MessageMark mark;
            expectNoSession(CKR_SESSION_PARALLEL_NOT_SUPPORTED, slot, flags);
            EXPECT_MESSAGES(mark, "C_OpenSession",
                            "OpenSession CKR_SESSION_PARALLEL_NOT_SUPPORTED");
        }
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(Sessions, ASlotBehindThePseudoReaderIsRefused)
{
    for (const CK_SLOT_ID slot : {2UL, 256UL, 0x100000000UL, 0xFFFFFFFFUL, ~0UL}) {
        const MessageMark mark;
        expectNoSession(CKR_SLOT_ID_INVALID, slot);
        EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession CKR_SLOT_ID_INVALID");
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(Sessions, WithoutATokenThereIsNoSession)
{
    plug("Empty 0");
    plug("Unknown 0", unknownCard());
    refresh();
    pcsc::clearCalls();
    for (const CK_SLOT_ID slot : {1UL, 2UL, 3UL}) { // 3 is the pseudo-reader
        const MessageMark mark;
        expectNoSession(CKR_TOKEN_NOT_PRESENT, slot);
        EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x0",
                        "OpenSession CKR_TOKEN_NOT_PRESENT");
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(SessionsFresh, BeforeAnyListingSlot0IsEmptyAndTheOthersAreNone)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    CK_SESSION_HANDLE session = NO_HANDLE;
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_OpenSession(1, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_EQ(NO_HANDLE, session);
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_CloseAllSessions(1));
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(Sessions, WithoutReadersSlot0IsEmptyAndTheOthersAreNone)
{
    pcsc::unplugReader(READER);
    for (const bool running : {true, false}) { // no table, or one of the pseudo-reader alone
        pcsc::setServiceRunning(running);
        refresh();
        expectNoSession(CKR_TOKEN_NOT_PRESENT, 0);
        expectNoSession(CKR_SLOT_ID_INVALID, 1);
        EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
        EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_CloseAllSessions(1));
    }
}

class FailedConnect : public Sessions, public ::testing::WithParamInterface<LONG> {};

TEST_P(FailedConnect, LeavesNoSessionAndTakesNoHandle)
{
    const CK_SESSION_HANDLE before = openWithoutObjects();
    pcsc::failNth(Function::Connect, 1, GetParam());
    const MessageMark mark;
    expectNoSession(CKR_DEVICE_ERROR, 0);
    EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1",
                    numbered("OpenSession CKR_DEVICE_ERROR SCardConnect err: ",
                             static_cast<std::uint64_t>(GetParam())));
    EXPECT_EQ(1U, pcsc::openCards());
    EXPECT_EQ(before + 1, openWithoutObjects());
}

INSTANTIATE_TEST_SUITE_P(WithAnyCode, FailedConnect,
                         ::testing::Values(SCARD_E_NO_SMARTCARD, SCARD_W_REMOVED_CARD,
                                           SCARD_E_SHARING_VIOLATION, SCARD_E_PROTO_MISMATCH,
                                           SCARD_E_NO_SERVICE, 1L, -1L));

TEST_F(Sessions, ACardThatWentSinceTheListingFailsTheConnection)
{
    pcsc::removeCard(READER);
    const MessageMark mark;
    expectNoSession(CKR_DEVICE_ERROR, 0);
    EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1",
                    "OpenSession CKR_DEVICE_ERROR SCardConnect err: 0x8010000c");
}

TEST_F(SessionsFresh, HandlesCountUpFrom1AndAreNeverUsedAgain)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    EXPECT_EQ(1U, open(0));
    EXPECT_EQ(2U, open(0));
    EXPECT_RV(CKR_OK, p11.C_CloseSession(1));
    EXPECT_EQ(3U, open(0));
    EXPECT_RV(CKR_OK, p11.C_CloseSession(2));
    EXPECT_RV(CKR_OK, p11.C_CloseSession(3));
    EXPECT_EQ(4U, open(0));
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    refresh();
    EXPECT_EQ(5U, open(0));
}

TEST_F(Sessions, ThereIsNoLimitOnSessions)
{
    constexpr CK_SESSION_HANDLE COUNT = 300;
    const CK_SESSION_HANDLE first = openWithoutObjects();
    for (CK_SESSION_HANDLE i = 1; i < COUNT; ++i) {
        ASSERT_EQ(first + i, openWithoutObjects(i % 2 == 0 ? READ_WRITE : READ_ONLY));
    }
    EXPECT_EQ(COUNT, pcsc::openCards());
    for (CK_SESSION_HANDLE i = 0; i < COUNT; ++i) {
        ASSERT_EQ(i % 2 == 0 ? READ_WRITE : READ_ONLY, sessionInfo(first + i).flags);
    }
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
    EXPECT_EQ(0U, pcsc::openCards());
}

TEST_F(Sessions, TheHostIsNeverNotified)
{
    int application = 0;
    card->expect(SELECT_MASTER_FILE, "6A 82");
    CK_SESSION_HANDLE session = NO_HANDLE;
    ASSERT_RV(CKR_OK, p11.C_OpenSession(0, READ_WRITE, &application, neverNotified, &session));
    pcsc::removeCard(READER);
    refresh();
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

// --- Loading the objects at an opening -----------------------------------------------------------

TEST_F(Sessions, AFailedLoadAnswersFunctionFailedThoughTheSessionIsOpen)
{
    card->expect(SELECT_MASTER_FILE, "90 00");
    card->expect("00 CA DF 01 09", "01 02 03 04 05 06 07 08 09 90 00");
    card->expect(SELECT_MASTER_FILE, "90 00");
    card->expect("00 A4 01 0C 02 08 01", "6A 82");
    CK_SESSION_HANDLE session = NO_HANDLE;
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1", "VELTObjectsInit",
                    "VELTObjectsInit Do init = true");
    ASSERT_NE(NO_HANDLE, session);
    EXPECT_EQ(1U, pcsc::openCards());
    const CK_SESSION_INFO info = sessionInfo(session);
    EXPECT_EQ(2U, info.state);
    EXPECT_EQ(0x826AU, info.ulDeviceError);
    loginWell(session);
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_EQ(0U, pcsc::openCards());
}

class EmptyIdCard : public Sessions {
protected:
    // The load of a card without certificates and keys.
    void expectLoad()
    {
        card->expect(SELECT_MASTER_FILE, "90 00");
        card->expect("00 CA DF 01 09", "01 02 03 04 05 06 07 08 09 90 00");
        for (const char* pair : {"1", "2"}) {
            const std::string number = pair;
            card->expect(SELECT_MASTER_FILE, "90 00");
            card->expect("00 A4 01 0C 02 08 01", "90 00");
            card->expect("00 A4 02 0C 02 01 0" + number, "90 00");
            card->expect("00 B0 00 00 02", "00 00 90 00");
            card->expect(SELECT_MASTER_FILE, "90 00");
            card->expect("00 A4 01 0C 02 01 01", "90 00");
            card->expect("00 CB 3F FF 0B 4D 09 FF A0 0" + std::string(number == "1" ? "7" : "8") +
                             " 05 7F 49 02 81 00",
                         "6A 88");
        }
    }
};

TEST_F(EmptyIdCard, ObjectsAreLoadedByTheFirstOpeningAfterEachListing)
{
    for (int round = 0; round < 2; ++round) {
        expectLoad();
        open(0);
        EXPECT_EQ("", card->verdict());
        pcsc::clearCalls();
        const MessageMark mark;
        const CK_SESSION_HANDLE second = open(0);
        EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1", "VELTObjectsInit",
                        "VELTObjectsInit CKR_OK", numbered("OpenSession Session number=", second),
                        "OpenSession CKR_OK");
        EXPECT_TRUE(pcsc::sentCommands().empty());
        refresh();
    }
}

TEST_F(EmptyIdCard, AFailedLoadIsTriedAgainAtTheNextOpening)
{
    openWithoutObjects();
    expectLoad();
    open(0);
}

// --- C_GetSessionInfo ----------------------------------------------------------------------------

TEST_F(Sessions, AFreshSessionIsPublicReadOnlyOrReadWriteByItsFlags)
{
    for (const CK_FLAGS flags : {READ_ONLY, READ_WRITE, READ_ONLY | 0x100, READ_WRITE | 0x81}) {
        const CK_SESSION_HANDLE session = openWithoutObjects(flags);
        Guarded<CK_SESSION_INFO> info;
        const MessageMark mark;
        EXPECT_RV(CKR_OK, p11.C_GetSessionInfo(session, info.get()));
        EXPECT_MESSAGES(mark, "C_GetSessionInfo", numbered("GetSessionInfo hSession=", session),
                        "GetSessionInfo CKR_OK");
        EXPECT_EQ(0U, info->slotID);
        EXPECT_EQ((flags & CKF_RW_SESSION) != 0 ? 2U : 0U, info->state);
        EXPECT_EQ(flags, info->flags);
        EXPECT_TRUE(info.endIsUntouched());
    }
}

TEST_F(Sessions, TheLastCardErrorIsToldOnce)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    EXPECT_EQ(0x826AU, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
    expectVerify("69 83");
    EXPECT_RV(CKR_PIN_LOCKED, login(session, "1234"));
    EXPECT_EQ(0x8369U, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
    expectVerify("69 83");
    EXPECT_RV(CKR_PIN_LOCKED, login(session, "1234"));
    loginWell(session);
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError) << "each exchange overwrites it";
}

TEST_F(Sessions, TheLastCardErrorIsEachSessionsOwn)
{
    const CK_SESSION_HANDLE first = openWithoutObjects();
    const CK_SESSION_HANDLE second = openWithoutObjects();
    EXPECT_EQ(0x826AU, sessionInfo(second).ulDeviceError);
    EXPECT_EQ(0x826AU, sessionInfo(first).ulDeviceError);
    expectVerify("69 83");
    EXPECT_RV(CKR_PIN_LOCKED, login(first, "1234"));
    EXPECT_EQ(0U, sessionInfo(second).ulDeviceError);
    EXPECT_EQ(0x8369U, sessionInfo(first).ulDeviceError);
}

TEST_F(Sessions, WithoutRoomForTheSessionInformationTheHandleIsNotLookedAt)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, session, session + 1}) {
        const MessageMark mark;
        EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_GetSessionInfo(handle, nullptr));
        EXPECT_MESSAGES(mark, "C_GetSessionInfo", numbered("GetSessionInfo hSession=", handle),
                        "GetSessionInfo CKR_ARGUMENTS_BAD");
    }
    EXPECT_EQ(0x826AU, sessionInfo(session).ulDeviceError) << "nothing was told yet";
}

TEST_F(Sessions, InformationOnAHandleThatWasNeverIssuedIsRefused)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    for (const CK_SESSION_HANDLE handle : {session + 1, session + 2, ~CK_SESSION_HANDLE{0}}) {
        Guarded<CK_SESSION_INFO> info;
        const MessageMark mark;
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_GetSessionInfo(handle, info.get()));
        EXPECT_MESSAGES(mark, "C_GetSessionInfo", numbered("GetSessionInfo hSession=", handle),
                        "GetSessionInfo CKR_SESSION_HANDLE_INVALID");
        EXPECT_TRUE(info.isUntouched());
    }
}

TEST_F(Sessions, InformationOnHandle0OrAClosedSessionSaysClosed)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, session}) {
        const MessageMark mark;
        expectClosed(handle);
        EXPECT_MESSAGES(mark, "C_GetSessionInfo", numbered("GetSessionInfo hSession=", handle),
                        "GetSessionInfo CKR_SESSION_CLOSED");
    }
}

TEST_F(SessionsFresh, BeforeAnyOpeningHandle0IsClosedAndHandle1WasNeverIssued)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_GetSessionInfo(0, &info));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_GetSessionInfo(1, &info));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(0));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(1));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, login(0, "1234"));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, login(1, "1234"));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Logout(0));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Logout(1));
    EXPECT_RV(CKR_OK, p11.C_CloseAllSessions(0));
}

TEST_F(Sessions, ASessionOutlivesItsCard)
{
    const CK_SESSION_HANDLE session = openWithoutObjects();
    pcsc::removeCard(READER);
    EXPECT_EQ(2U, sessionInfo(session).state) << "not yet known";
    refresh();
    for (int again = 0; again < 2; ++again) {
        Guarded<CK_SESSION_INFO> info;
        const MessageMark mark;
        EXPECT_RV(CKR_DEVICE_REMOVED, p11.C_GetSessionInfo(session, info.get()));
        EXPECT_MESSAGES(mark, "C_GetSessionInfo", numbered("GetSessionInfo hSession=", session),
                        "GetSessionInfo CKR_DEVICE_REMOVED");
        EXPECT_TRUE(info.isUntouched());
    }
    pcsc::insertCard(READER, card);
    refresh();
    EXPECT_EQ(2U, sessionInfo(session).state);
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "1234")) << "the connection is still the old one";
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    loginWell(openWithoutObjects());
}

TEST_F(Sessions, ASessionKeepsItsSlotNumberWhenReadersMove)
{
    plug("Kaz 0", refusingCard(KAZTOKEN));
    refresh();
    const CK_SESSION_HANDLE session = openWithoutObjects();
    pcsc::unplugReader(READER);
    refresh();
    EXPECT_EQ(0U, sessionInfo(session).slotID);
    EXPECT_EQ(paddedTo(64, "Kaz 0"), text(slotInfo(0).slotDescription));
    pcsc::unplugReader("Kaz 0");
    refresh();
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_DEVICE_REMOVED, p11.C_GetSessionInfo(session, &info));
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

} // namespace
