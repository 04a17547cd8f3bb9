// The session table and what sessions do with the driver table in use.
#include "src/core/session.h"
#include "src/front/lock.h"
#include "src/objects/object_table.h"
#include "tests/support/codes.h"
#include "tests/support/fake_driver.h"
#include "tests/support/fields.h"
#include "tests/support/known_cards.h"
#include "tests/support/messages.h"
#include "tests/support/session_world.h"

#include <array>
#include <cstring>
#include <span>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;

constexpr CK_FLAGS READ_ONLY = CKF_SERIAL_SESSION;
constexpr CK_SESSION_HANDLE NO_HANDLE = 0xD15EA5ED;

// The only reader's card is an ID card's; the family behind the driver table is the test's own.
class SessionTable : public SessionWorld {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(start(card));
        stVELTTokens = fake::driver(TOKEN_IDC);
        fake::world() = {};
    }

    void TearDown() override
    {
        EXPECT_TRUE(pcsc::sentCommands().empty());
        fake::world() = {};
        SessionWorld::TearDown();
    }

    // Opens as the host does, objects included.
    static CK_RV openAs(CK_FLAGS flags, CK_SESSION_HANDLE* session)
    {
        return VELT_OpenSession(0, flags, nullptr, nullptr, session);
    }

    static void answer(const char* operation, CK_RV rv) { fake::world().answers[operation] = rv; }
    static const std::vector<fake::Asked>& asked() { return fake::world().asked; }

    static CK_RV login(CK_SESSION_HANDLE session, std::size_t length = 4)
    {
        static std::array<CK_UTF8CHAR, 512> pin{'1', '2', '3', '4'};
        return VELT_Login(session, CKU_USER, pin.data(), length);
    }

    static void setTokenType(std::uint8_t type)
    {
        static_cast<SlotToken*>(VELTCardReaders[0].pvUserData)->tokenType = type;
    }

    std::shared_ptr<sim::ScriptedCard> card = refusingCard(ID_CARD);
};

CK_RV notified(CK_SESSION_HANDLE /*session*/, CK_NOTIFICATION /*event*/, void* /*application*/)
{
    return CKR_OK;
}

// --- Entries -------------------------------------------------------------------------------------

TEST_F(SessionTable, AFreshEntryHoldsWhatTheHostAndTheServiceGave)
{
    int application = 0;
    CK_SESSION_HANDLE session = NO_HANDLE;
    const CK_FLAGS flags = READ_WRITE | 0x700;
    ASSERT_RV(CKR_OK, VELT_OpenSession(0, flags, &application, notified, &session));
    const SessionEntry& fresh = entry(session);
    EXPECT_EQ(session, fresh.hSession);
    EXPECT_EQ(session, sessCount);
    EXPECT_EQ(1, fresh.isOpen);
    EXPECT_EQ(0U, fresh.slotID);
    EXPECT_EQ(flags, fresh.flags);
    EXPECT_EQ(&application, fresh.pApplication);
    EXPECT_EQ(notified, fresh.notify);
    EXPECT_EQ(2U, fresh.state);
    const auto connects = pcsc::calls(pcsc::Function::Connect);
    EXPECT_EQ(connects.back().card, static_cast<unsigned long>(fresh.hCard));
    EXPECT_EQ(SCARD_PROTOCOL_T0, fresh.activeProtocol);
    EXPECT_EQ(SCARD_PCI_T0, fresh.pioSendPci);
    EXPECT_EQ(NEVER_LOGGED_IN, fresh.loginState);
    EXPECT_EQ(0U, fresh.deviceError);
}

TEST_F(SessionTable, TheSendPciFollowsTheProtocol)
{
    const std::vector<std::pair<unsigned long, const SCARD_IO_REQUEST*>> cases{
        {SCARD_PROTOCOL_T0, SCARD_PCI_T0},
        {SCARD_PROTOCOL_T1, SCARD_PCI_T1},
        {SCARD_PROTOCOL_RAW, nullptr},
        {0, nullptr},
        {3, nullptr},
        {~0UL, nullptr}};
    for (const auto& [protocol, pci] : cases) {
        pcsc::Action told;
        told.protocol = protocol;
        pcsc::onNth(pcsc::Function::Connect, 1, told);
        const CK_SESSION_HANDLE session = open();
        EXPECT_EQ(protocol, entry(session).activeProtocol);
        EXPECT_EQ(pci, entry(session).pioSendPci) << protocol;
    }
}

TEST_F(SessionTable, EveryEntryKeepsItsContentsWhileTheTableGrows)
{
    constexpr CK_SESSION_HANDLE COUNT = 200;
    const CK_SESSION_HANDLE first = open();
    std::vector<SCARDHANDLE> cards{entry(first).hCard};
    for (CK_SESSION_HANDLE i = 1; i < COUNT; ++i) {
        ASSERT_EQ(first + i, open(i % 2 == 0 ? READ_WRITE : READ_ONLY));
        ASSERT_EQ(0U, entry(first + i).deviceError);
        cards.push_back(entry(first + i).hCard);
        entry(first + i).deviceError = i;
    }
    for (CK_SESSION_HANDLE i = 0; i < COUNT; ++i) {
        const SessionEntry& kept = entry(first + i);
        ASSERT_EQ(first + i, kept.hSession);
        ASSERT_EQ(i % 2 == 0 ? 2U : 0U, kept.state);
        ASSERT_EQ(cards[i], kept.hCard);
        ASSERT_EQ(i, kept.deviceError);
    }
}

TEST_F(SessionTable, Entry0ReadsAsZerosAtAllTimes)
{
    const auto isZero = [] {
        const SessionEntry* const unused = velt::findSession(0);
        return unused != nullptr && unused->hSession == 0 && unused->isOpen == 0 &&
               unused->slotID == 0 && unused->flags == 0 && unused->state == 0 &&
               unused->hCard == 0 && unused->pioSendPci == nullptr && unused->loginState == 0 &&
               unused->deviceError == 0;
    };
    EXPECT_TRUE(isZero());
    for (int i = 0; i < 40; ++i) {
        open();
        EXPECT_TRUE(isZero());
    }
    handOver();
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_TRUE(isZero());
}

TEST_F(SessionTable, LookUpsTellIssuedOpenAndForgottenHandlesApart)
{
    const CK_SESSION_HANDLE session = open();
    const CK_SESSION_HANDLE closed = open();
    EXPECT_RV(CKR_OK, VELT_CloseSession(closed));
    EXPECT_TRUE(velt::isIssuedHandle(session));
    EXPECT_TRUE(velt::isIssuedHandle(closed));
    EXPECT_FALSE(velt::isIssuedHandle(0));
    EXPECT_FALSE(velt::isIssuedHandle(closed + 1));
    EXPECT_FALSE(velt::isIssuedHandle(UINT64_MAX));
    EXPECT_TRUE(velt::isOpenSession(session));
    EXPECT_FALSE(velt::isOpenSession(closed));
    EXPECT_FALSE(velt::isOpenSession(0));
    EXPECT_FALSE(velt::isOpenSession(closed + 1));
    EXPECT_EQ(nullptr, velt::findSession(closed + 1));
    EXPECT_EQ(nullptr, velt::findSession(UINT64_MAX));
    EXPECT_EQ(TOKEN_IDC, velt::sessionTokenType(session));
    EXPECT_EQ(TOKEN_IDC, velt::sessionTokenType(closed));
    EXPECT_EQ(TOKEN_NONE, velt::sessionTokenType(closed + 1));

    handOver();
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(nullptr, VELTSessions);
    EXPECT_EQ(closed, sessCount);
    EXPECT_TRUE(velt::isIssuedHandle(session));
    EXPECT_FALSE(velt::isOpenSession(session));
    EXPECT_EQ(nullptr, velt::findSession(session));
    EXPECT_EQ(TOKEN_NONE, velt::sessionTokenType(session));
}

TEST_F(SessionTable, TheCountOfHandlesOutlivesTheTable)
{
    const CK_SESSION_HANDLE last = open();
    handOver();
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    ASSERT_NO_FATAL_FAILURE(start(card));
    EXPECT_EQ(last, sessCount);
    const CK_SESSION_HANDLE next = open();
    EXPECT_EQ(last + 1, next);
    EXPECT_EQ(next, entry(next).hSession);
    EXPECT_EQ(nullptr, velt::findSession(last));
    EXPECT_EQ(0, velt::findSession(0)->isOpen);
    EXPECT_EQ(next + 1, open());
    EXPECT_EQ(1, entry(next).isOpen);
}

// --- Opening and the objects ---------------------------------------------------------------------

TEST_F(SessionTable, TheObjectsAreLoadedThroughTheNewSession)
{
    CK_SESSION_HANDLE session = NO_HANDLE;
    ASSERT_EQ(1U, oiFlags);
    ASSERT_RV(CKR_OK, openAs(READ_WRITE, &session));
    ASSERT_EQ(1U, asked().size());
    EXPECT_EQ((fake::Asked{"ObjectsInit", session, {}, {}, true, true}), asked()[0]);
    EXPECT_EQ(0U, oiFlags);
    ASSERT_RV(CKR_OK, openAs(READ_WRITE, &session));
    EXPECT_EQ(1U, asked().size()) << "they are current";
}

struct LoadCase {
    CK_RV loaded;
    CK_RV opened;
};

class SessionLoads : public SessionTable, public ::testing::WithParamInterface<LoadCase> {};

TEST_P(SessionLoads, DecideTheAnswerButNeverTheSession)
{
    const auto [loaded, opened] = GetParam();
    answer("ObjectsInit", loaded);
    oiFlags = 5;
    CK_SESSION_HANDLE session = NO_HANDLE;
    const MessageMark mark;
    EXPECT_RV(opened, openAs(READ_ONLY, &session));
    std::vector<std::string> messages{"OpenSession TokenID = 0x1", "VELTObjectsInit",
                                      "VELTObjectsInit Do init = true"};
    if (loaded == 0) {
        messages.insert(messages.end(), {"VELTObjectsInit complete", "VELTObjectsInit CKR_OK"});
    }
    if (opened == CKR_OK) {
        messages.push_back(numbered("OpenSession Session number=", session));
        messages.push_back("OpenSession CKR_OK");
    }
    EXPECT_MESSAGES(mark, messages);
    ASSERT_EQ(sessCount, session);
    EXPECT_EQ(1, entry(session).isOpen);
    EXPECT_EQ(1U, pcsc::openCards());
    EXPECT_EQ(loaded == 0 ? 0U : 5U, oiFlags);
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_OK, VELT_GetSessionInfo(session, &info));
    EXPECT_EQ(0U, info.state);
}

INSTANTIATE_TEST_SUITE_P(
    ByResult, SessionLoads,
    ::testing::Values(LoadCase{0, CKR_OK}, LoadCase{1, CKR_TOKEN_NOT_RECOGNIZED},
                      LoadCase{2, CKR_FUNCTION_FAILED}, LoadCase{3, CKR_OK}, LoadCase{6, CKR_OK},
                      LoadCase{CKR_FUNCTION_NOT_SUPPORTED, CKR_OK}, LoadCase{0x8010000F, CKR_OK},
                      LoadCase{0x100000001, CKR_OK}));

TEST_F(SessionTable, OpeningLoadsTheOperationsOfTheSlotsFamily)
{
    // With the objects to be loaded, the loader does it; otherwise the opening itself.
    for (const std::uint64_t flags : {1U, 0U}) {
        for (const std::uint64_t held : {std::uint64_t{TOKEN_NONE}, std::uint64_t{TOKEN_ET72K}}) {
            stVELTTokens = fake::driver(held);
            setTokenType(TOKEN_IDC);
            oiFlags = flags;
            CK_SESSION_HANDLE session = NO_HANDLE;
            EXPECT_RV(CKR_OK, openAs(READ_WRITE, &session));
            EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
            EXPECT_NE(fake::login, stVELTTokens.Login);
            pcsc::clearCalls();
        }
    }
    EXPECT_TRUE(asked().empty());
}

TEST_F(SessionTable, OpeningLeavesTheOperationsOfTheSameFamilyAlone)
{
    open();
    EXPECT_EQ(fake::login, stVELTTokens.Login);
}

// --- Information ---------------------------------------------------------------------------------

TEST_F(SessionTable, TheCardErrorIsClearedByBeingTold)
{
    const CK_SESSION_HANDLE session = open();
    for (const std::uint64_t error : {0x826AUL, 0x8010000FUL, ~0UL}) {
        entry(session).deviceError = error;
        Guarded<CK_SESSION_INFO> info;
        EXPECT_RV(CKR_OK, VELT_GetSessionInfo(session, info.get()));
        EXPECT_EQ(error, info->ulDeviceError);
        EXPECT_TRUE(info.endIsUntouched());
        EXPECT_EQ(0U, entry(session).deviceError);
    }
}

TEST_F(SessionTable, TheCardErrorStaysWhereTheInformationIsRefused)
{
    const CK_SESSION_HANDLE session = open();
    entry(session).deviceError = 0x826A;
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_ARGUMENTS_BAD, VELT_GetSessionInfo(session, nullptr));
    setTokenType(TOKEN_NONE);
    EXPECT_RV(CKR_DEVICE_REMOVED, VELT_GetSessionInfo(session, &info));
    EXPECT_EQ(0x826AU, entry(session).deviceError);
    EXPECT_RV(CKR_OK, VELT_CloseSession(session));
    EXPECT_RV(CKR_SESSION_CLOSED, VELT_GetSessionInfo(session, &info));
    EXPECT_EQ(0x826AU, entry(session).deviceError);
}

TEST_F(SessionTable, TheStateIsToldAsItStands)
{
    const CK_SESSION_HANDLE session = open();
    for (const CK_STATE state : {0UL, 1UL, 2UL, 3UL, 4UL, ~0UL}) {
        entry(session).state = state;
        CK_SESSION_INFO info{};
        EXPECT_RV(CKR_OK, VELT_GetSessionInfo(session, &info));
        EXPECT_EQ(state, info.state);
    }
}

// --- Closing -------------------------------------------------------------------------------------

TEST_F(SessionTable, ClosingLeavesLoginSigningAndObjectsAsTheyAre)
{
    const CK_SESSION_HANDLE session = open();
    entry(session).loginState = LOGGED_IN;
    entry(session).state = 3;
    bSignOpInit = 1;
    ulObjCount = 4;
    oiFlags = 0;
    EXPECT_RV(CKR_OK, VELT_CloseSession(session));
    EXPECT_EQ(0, entry(session).isOpen);
    EXPECT_EQ(LOGGED_IN, entry(session).loginState);
    EXPECT_EQ(3U, entry(session).state);
    EXPECT_EQ(1, bSignOpInit);
    EXPECT_EQ(4U, ulObjCount);
    EXPECT_EQ(0U, oiFlags);
    EXPECT_TRUE(asked().empty());
}

TEST_F(SessionTable, ClosingAllGoesByTheSlotAtTheOpening)
{
    const CK_SESSION_HANDLE first = open();
    const CK_SESSION_HANDLE second = open();
    entry(second).slotID = 1; // the pseudo-reader's
    EXPECT_RV(CKR_OK, VELT_CloseAllSessions(0));
    EXPECT_EQ(0, entry(first).isOpen);
    EXPECT_EQ(1, entry(second).isOpen);
    EXPECT_RV(CKR_OK, VELT_CloseAllSessions(1));
    EXPECT_EQ(0, entry(second).isOpen);
}

// --- Login and logout ----------------------------------------------------------------------------

TEST_F(SessionTable, ThePinIsPassedToTheDriverAsItIs)
{
    const CK_SESSION_HANDLE session = open();
    std::array<CK_UTF8CHAR, 4> pin{0, 0xFF, 'x', 0};
    const MessageMark mark;
    EXPECT_RV(CKR_OK, VELT_Login(session, CKU_USER, pin.data(), pin.size()));
    EXPECT_MESSAGES(mark, numbered("Login hSession=", session), "Login CKR_OK");
    ASSERT_EQ(1U, asked().size());
    EXPECT_EQ((fake::Asked{"Login", session, {pin.data()}, {4}, false, true}), asked()[0]);
    EXPECT_EQ(LOGGED_IN, entry(session).loginState);
    EXPECT_EQ(3U, entry(session).state);
    EXPECT_EQ(0U, oiFlags);
}

TEST_F(SessionTable, OtherFamiliesTakePinsOfAnyLength)
{
    for (const std::uint8_t type : {TOKEN_ET72K, TOKEN_KT, TOKEN_JC}) {
        for (const std::size_t length : {0U, 1U, 4U, 6U, 300U}) {
            const CK_SESSION_HANDLE session = open();
            setTokenType(type);
            fake::world().asked.clear();
            EXPECT_RV(CKR_OK, login(session, length));
            ASSERT_EQ(1U, asked().size());
            EXPECT_EQ(std::vector<CK_ULONG>{length}, asked()[0].numbers);
            setTokenType(TOKEN_IDC);
        }
    }
}

TEST_F(SessionTable, TheDriversRefusalIsPassedOnUnchanged)
{
    const CK_SESSION_HANDLE session = open(READ_ONLY);
    for (const CK_RV refusal : {CK_RV{CKR_PIN_INCORRECT}, CK_RV{CKR_PIN_LOCKED}, CK_RV{1},
                                CK_RV{CKR_USER_ALREADY_LOGGED_IN}, CK_RV{0x80000001}, ~CK_RV{0}}) {
        answer("Login", refusal);
        const MessageMark mark;
        EXPECT_RV(refusal, login(session));
        EXPECT_MESSAGES(mark, numbered("Login hSession=", session),
                        numbered("Login APDU error", refusal));
        EXPECT_EQ(NEVER_LOGGED_IN, entry(session).loginState);
        EXPECT_EQ(0U, entry(session).state);
    }
}

TEST_F(SessionTable, ARefusedLoginAfterALogoutLeavesTheSessionLoggedOut)
{
    const CK_SESSION_HANDLE session = open();
    EXPECT_RV(CKR_OK, login(session));
    EXPECT_RV(CKR_OK, VELT_Logout(session));
    EXPECT_EQ(LOGGED_OUT, entry(session).loginState);
    answer("Login", CKR_PIN_INCORRECT);
    EXPECT_RV(CKR_PIN_INCORRECT, login(session));
    EXPECT_EQ(LOGGED_OUT, entry(session).loginState);
    EXPECT_RV(CKR_SESSION_CLOSED, VELT_Logout(session));
}

TEST_F(SessionTable, LoginAndLogoutUseTheOperationsAsTheyStand)
{
    const CK_SESSION_HANDLE session = open();
    for (const std::uint64_t other : {TOKEN_NONE, TOKEN_KT, TOKEN_JC}) {
        stVELTTokens.type = other;
        EXPECT_RV(CKR_OK, login(session));
        EXPECT_RV(CKR_OK, VELT_Logout(session));
        EXPECT_EQ(other, stVELTTokens.type);
    }
    EXPECT_EQ(6U, asked().size());
}

TEST_F(SessionTable, AnOperationThatWasNeverFilledIsNotSupported)
{
    const CK_SESSION_HANDLE session = open();
    stVELTTokens = fake::emptyDriver(TOKEN_IDC);
    EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, login(session));
    EXPECT_EQ(NEVER_LOGGED_IN, entry(session).loginState);
}

TEST_F(SessionTable, ADriverThatRefusesTheLogoutLeavesTheSessionLoggedIn)
{
    const CK_SESSION_HANDLE session = open();
    const CK_SESSION_HANDLE last = open(READ_ONLY);
    EXPECT_RV(CKR_OK, login(session));
    for (const CK_RV refusal : {CK_RV{1}, CK_RV{CKR_USER_NOT_LOGGED_IN}, ~CK_RV{0}}) {
        answer("Logout", refusal);
        const MessageMark mark;
        EXPECT_RV(CKR_FUNCTION_FAILED, VELT_Logout(session));
        EXPECT_MESSAGES(mark, numbered("Logout APDU error", refusal));
        EXPECT_EQ(LOGGED_IN, entry(session).loginState);
        EXPECT_EQ(3U, entry(session).state);
        EXPECT_EQ(0U, entry(last).state);
    }
}

TEST_F(SessionTable, LogoutNamesItsSessionToTheDriverAndRewritesTheLastOnesState)
{
    const CK_SESSION_HANDLE session = open(READ_WRITE);
    const CK_SESSION_HANDLE last = open(READ_ONLY);
    EXPECT_RV(CKR_OK, login(session));
    EXPECT_RV(CKR_OK, VELT_CloseSession(last));
    fake::world().asked.clear();
    EXPECT_RV(CKR_OK, VELT_Logout(session));
    ASSERT_EQ(1U, asked().size());
    EXPECT_EQ((fake::Asked{"Logout", session, {}, {}, false, true}), asked()[0]);
    EXPECT_EQ(LOGGED_OUT, entry(session).loginState);
    EXPECT_EQ(3U, entry(session).state);
    EXPECT_EQ(2U, entry(last).state) << "even of a closed one";
    EXPECT_EQ(NEVER_LOGGED_IN, entry(last).loginState);
}

TEST_F(SessionTable, ARefusedArgumentNeverReachesTheDriver)
{
    const CK_SESSION_HANDLE session = open();
    EXPECT_RV(CKR_ARGUMENTS_BAD, login(session, 6));
    EXPECT_RV(CKR_ARGUMENTS_BAD, VELT_Login(session, CKU_SO, nullptr, 4));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, login(session + 1));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, VELT_Logout(session));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, VELT_Logout(0));
    setTokenType(TOKEN_NONE);
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, login(session));
    EXPECT_TRUE(asked().empty());
}

} // namespace
} // namespace velt_test
