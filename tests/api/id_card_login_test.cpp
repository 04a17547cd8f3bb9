// From the slot list to a logged-in session on an ID card, with every command the card gets.
// C_GetSlotList, C_OpenSession, C_CloseSession, C_GetSessionInfo, C_Login, C_Logout,
// C_GetTokenInfo, C_GetMechanismList.
#include "tests/support/id_card_host.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velt_test {
namespace {

const Sent VERIFY_1234 = command("00 20 00 02 08 31 32 33 34 30 30 30 30", 2);
const Sent VERIFY_9999 = command("00 20 00 02 08 39 39 39 39 30 30 30 30", 2);

class IdCardLoginTest : public IdCardHost {};

TEST_F(IdCardLoginTest, OpeningLoadsBothPairsFromTheCard)
{
    meet();
    forget();
    session = open(0);
    EXPECT_EQ(loadObjects(*card), sent());
    EXPECT_EQ((std::vector<CK_OBJECT_HANDLE>{1, 2, 3, 4, 5, 6}), find({}));
}

TEST_F(IdCardLoginTest, BothIssuesOfTheCardAreServed)
{
    for (const sim::IdCardIssue issue : {sim::IdCardIssue::Old, sim::IdCardIssue::New}) {
        sim::IdCardOptions options;
        options.issue = issue;
        meet(options);
        session = open(0);
        EXPECT_EQ(6U, find({}).size());
        IdCardHost::TearDown();
    }
}

TEST_F(IdCardLoginTest, TheTokenIsDescribedWithoutAskingTheCard)
{
    meet();
    forget();
    Guarded<CK_TOKEN_INFO> info;
    ASSERT_RV(CKR_OK, p11.C_GetTokenInfo(0, info.get()));
    EXPECT_TRUE(info.endIsUntouched());
    EXPECT_EQ(paddedTo(32, "Kazakhstan IDCard"), text(info->label));
    EXPECT_EQ(paddedTo(32, "KZ"), text(info->manufacturerID));
    EXPECT_EQ(paddedTo(16, "KZIDCARD"), text(info->model));
    EXPECT_EQ(std::string(16, '\0'), text(info->serialNumber));
    EXPECT_EQ(0x40CU, info->flags);
    EXPECT_EQ(1U, info->ulMaxSessionCount);
    EXPECT_EQ(0U, info->ulSessionCount);
    EXPECT_EQ(1U, info->ulMaxRwSessionCount);
    EXPECT_EQ(0U, info->ulRwSessionCount);
    EXPECT_EQ(4U, info->ulMaxPinLen);
    EXPECT_EQ(4U, info->ulMinPinLen);
    EXPECT_EQ(std::string(16, '\0'), text(info->utcTime));
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(IdCardLoginTest, TheMechanismsAreSigningThenKeyGeneration)
{
    meet();
    forget();
    CK_ULONG count = 0;
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, nullptr, &count));
    EXPECT_EQ(2U, count);
    std::array<CK_MECHANISM_TYPE, 5> types{77, 77, 77, 77, 77};
    count = 1;
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types.data(), &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(77U, types[0]);
    count = 5;
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types.data(), &count));
    EXPECT_EQ(5U, count);
    EXPECT_EQ(
        (std::array<CK_MECHANISM_TYPE, 5>{CKM_RSA_PKCS, CKM_RSA_PKCS_KEY_PAIR_GEN, 77, 77, 77}),
        types);
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(IdCardLoginTest, ThePinIsSentWithFourZeroDigitsBehindIt)
{
    openOn();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ((Commands{SELECT_MASTER, VERIFY_1234}), sent());
    EXPECT_TRUE(card->verified());
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
}

TEST_F(IdCardLoginTest, AReadOnlySessionBecomesAReadOnlyUsers)
{
    meet();
    session = open(0, READ_ONLY);
    EXPECT_EQ(CKS_RO_PUBLIC_SESSION, sessionInfo(session).state);
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ(CKS_RO_USER_FUNCTIONS, sessionInfo(session).state);
}

// The card answers 63 Cx, which the exchange takes for an announcement of Cx bytes; what the card
// says to the GET RESPONSE is the result.
TEST_F(IdCardLoginTest, AWrongPinIsAFailureAndLeavesTheSessionPublic)
{
    openOn();
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "9999"));
    EXPECT_EQ((Commands{SELECT_MASTER, VERIFY_9999, command("00 C0 00 00 C2", 196)}), sent());
    EXPECT_EQ(2U, card->retriesLeft());
    const CK_SESSION_INFO info = sessionInfo(session);
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, info.state);
    EXPECT_EQ(0x8569U, info.ulDeviceError) << "69 85, no response data to fetch";
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError) << "told once";
}

TEST_F(IdCardLoginTest, ThreeWrongPinsBlockTheCard)
{
    openOn();
    MessageMark mark;
    for (unsigned left = 3; left-- > 0;) {
        forget();
        mark.reset();
        EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "9999"));
        const auto le = static_cast<std::uint8_t>(0xC0 + left);
        EXPECT_EQ((Commands{SELECT_MASTER, VERIFY_9999, getResponse(le)}), sent());
        EXPECT_EQ(left, card->retriesLeft());
        EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                        "IDCard Login error 0x8569", "Login APDU error0x6");
    }
    forget();
    mark.reset();
    EXPECT_RV(CKR_PIN_LOCKED, login(session, PIN));
    EXPECT_EQ((Commands{SELECT_MASTER, VERIFY_1234}), sent());
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                    "IDCard Login CKR_PIN_LOCKED", "Login APDU error0xa4");
    EXPECT_EQ(0x8369U, sessionInfo(session).ulDeviceError);
}

TEST_F(IdCardLoginTest, ARightPinAfterAWrongOneLogsIn)
{
    openOn();
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "9999"));
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ(3U, card->retriesLeft());
    EXPECT_RV(CKR_USER_ALREADY_LOGGED_IN, login(session, PIN));
}

TEST_F(IdCardLoginTest, APinOfAnotherLengthIsRefusedBeforeTheCardIsAsked)
{
    openOn();
    for (const std::string pin : {"", "1", "123", "12345", "123456", "12340000"}) {
        EXPECT_RV(CKR_ARGUMENTS_BAD, login(session, pin));
    }
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(3U, card->retriesLeft());
}

TEST_F(IdCardLoginTest, OnlyTheUserLogsIn)
{
    openOn();
    EXPECT_RV(CKR_ARGUMENTS_BAD, login(session, PIN, CKU_SO));
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_Login(session, CKU_USER, nullptr, 4));
    EXPECT_TRUE(sent().empty());
}

TEST_F(IdCardLoginTest, AZeroByteShortensThePin)
{
    openOn();
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, std::string("12\0"
                                                              "4",
                                                              4)));
    EXPECT_EQ((Commands{SELECT_MASTER, command("00 20 00 02 02 31 32", 2)}), sent());
    EXPECT_EQ(3U, card->retriesLeft()) << "the card wants eight bytes: 67 00";
}

TEST_F(IdCardLoginTest, TheCardsOddAnswersAreMappedAsTheyStand)
{
    struct Row {
        const char* status;
        CK_RV result;
        const char* message;
    };
    openOn();
    MessageMark mark;
    for (const Row& row : std::vector<Row>{
             {"84 69", CKR_PIN_LOCKED, "IDCard Login CKR_PIN_LOCKED"},
             {"69 84", CKR_FUNCTION_FAILED, "IDCard Login error 0x8469"},
             {"C1 63", CKR_PIN_INCORRECT, "IDCard Login CKR_PIN_INCORRECT"},
             {"C2 63", CKR_PIN_INCORRECT, "IDCard Login CKR_PIN_INCORRECT"},
             {"C0 63", CKR_FUNCTION_FAILED, "IDCard Login error 0x63c0"},
             {"86 6F", CKR_USER_ALREADY_LOGGED_IN, "IDCard Login CKR_USER_ALREADY_LOGGED_IN"},
             {"6F 86", CKR_FUNCTION_FAILED, "IDCard Login error 0x866f"},
             {"69 83", CKR_PIN_LOCKED, "IDCard Login CKR_PIN_LOCKED"},
             {"6A 88", CKR_FUNCTION_FAILED, "IDCard Login error 0x886a"}}) {
        SCOPED_TRACE(row.status);
        mark.reset();
        pcsc::replyNth(2, hex(row.status));
        EXPECT_RV(row.result, login(session, PIN));
        EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session), row.message,
                        numbered("Login APDU error", row.result));
    }
    mark.reset();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session), "IDCard Login CKR_OK",
                    "Login CKR_OK");
}

TEST_F(IdCardLoginTest, ARefusedSelectionOfTheMasterFileDoesNotStopTheLogin)
{
    openOn();
    pcsc::Action refusal;
    refusal.alter = [](const Bytes&) { return hex("6A 82"); };
    pcsc::onNth(pcsc::Function::Transmit, 1, refusal);
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ((Commands{SELECT_MASTER, VERIFY_1234}), sent());
}

TEST_F(IdCardLoginTest, ACardPulledOutBeforeTheLoginIsAFailure)
{
    openOn();
    pcsc::removeCard(CARD_READER);
    EXPECT_RV(CKR_FUNCTION_FAILED, login(session, PIN));
    EXPECT_EQ(2U, sent().size());
    refresh();
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, login(session, PIN));
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_DEVICE_REMOVED, p11.C_GetSessionInfo(session, &info));
}

TEST_F(IdCardLoginTest, LoggingOutSendsNothingAndHappensOnce)
{
    openOn();
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session));
    loginAs();
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(card->verified()) << "the card is not told";
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, sessionInfo(session).state);
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_Logout(session));
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
}

TEST_F(IdCardLoginTest, ASecondSessionHasItsOwnLoginAndLoadsNothing)
{
    openOn();
    loginAs();
    const CK_SESSION_HANDLE second = open(0, READ_ONLY);
    EXPECT_EQ(session + 1, second);
    EXPECT_TRUE(sent().empty()) << "the objects are current";
    EXPECT_EQ(CKS_RO_PUBLIC_SESSION, sessionInfo(second).state);
    EXPECT_RV(CKR_OK, login(second, PIN));
    EXPECT_EQ(CKS_RO_USER_FUNCTIONS, sessionInfo(second).state);
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state)
        << "the state of the session opened last is set back instead";
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, sessionInfo(second).state) << "by the other's flags";
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_RV(CKR_OK, p11.C_CloseSession(second));
    EXPECT_EQ(0U, pcsc::openCards());
}

TEST_F(IdCardLoginTest, ASecondListingMakesTheNextOpeningLoadAgain)
{
    openOn();
    refresh();
    forget();
    open(0);
    EXPECT_EQ(loadObjects(*card), sent());
}

TEST_F(IdCardLoginTest, AFileThatCannotBeSelectedFailsTheOpeningButTheSessionStands)
{
    meet();
    pcsc::replyNth(5, hex("6A 82")); // the first certificate's file
    CK_SESSION_HANDLE handle = NO_HANDLE;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &handle));
    ASSERT_NE(NO_HANDLE, handle);
    session = handle;
    EXPECT_EQ(0x826AU, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(6U, find({}).size()) << "the search loads again";
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

TEST_F(IdCardLoginTest, AliasesThatCannotBeReadDoNotFailTheOpening)
{
    meet();
    pcsc::replyNth(2, hex("6A 88")); // the data object
    session = open(0);
    EXPECT_EQ(6U, find({}).size()) << "the search loads again";
}

TEST_F(IdCardLoginTest, SessionHandlesThatNoOneHasAreRefused)
{
    openOn();
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, login(stray, PIN));
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Logout(stray));
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(stray));
        CK_SESSION_INFO info{};
        EXPECT_RV(stray == 0 ? CKR_SESSION_CLOSED : CKR_SESSION_HANDLE_INVALID,
                  p11.C_GetSessionInfo(stray, &info));
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

} // namespace
} // namespace velt_test
