// From the slot list to a logged-in session on a KAZTOKEN, with every command the token gets.
// C_GetSlotList, C_GetSlotInfo, C_GetTokenInfo, C_GetMechanismList, C_OpenSession,
// C_GetSessionInfo, C_Login, C_Logout.
#include "tests/support/kaz_token_host.h"

#include <array>
#include <string>

namespace velt_test {
namespace {

class KazTokenLoginTest : public KazTokenHost {};

TEST_F(KazTokenLoginTest, TheSlotHoldsATokenThatIsNotRemovable)
{
    meet();
    EXPECT_EQ(CKF_HW_SLOT | CKF_TOKEN_PRESENT, slotInfo(0).flags);
}

TEST_F(KazTokenLoginTest, OpeningLoadsTheListAndLooksAtEveryPair)
{
    meet();
    forget();
    session = open(0);
    EXPECT_EQ(loadObjects(*token, {1, 2, 3}), sent());
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6, 7, 8}), find({}));
}

TEST_F(KazTokenLoginTest, TheTokenIsDescribedWithoutAskingIt)
{
    meet();
    forget();
    Guarded<CK_TOKEN_INFO> info;
    ASSERT_RV(CKR_OK, p11.C_GetTokenInfo(0, info.get()));
    EXPECT_TRUE(info.endIsUntouched());
    EXPECT_EQ(std::string("KAZTOKEN") + std::string(14, ' ') + std::string(1, '\0') + "Fliokluv ",
              text(info->label));
    EXPECT_EQ(paddedTo(32, "Fliokluv LLP"), text(info->manufacturerID));
    EXPECT_EQ(paddedTo(16, "KAZTOKEN"), text(info->model));
    EXPECT_EQ(0x40CU, info->flags);
    EXPECT_EQ(10U, info->ulMaxPinLen);
    EXPECT_EQ(4U, info->ulMinPinLen);
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(KazTokenLoginTest, ItOffersRsaAndGost)
{
    meet();
    std::array<CK_MECHANISM_TYPE, 4> types{};
    CK_ULONG count = types.size();
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types.data(), &count));
    EXPECT_EQ((std::array<CK_MECHANISM_TYPE, 4>{CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_PKCS,
                                                GOST_KEY_PAIR_GEN, GOST_SIGN}),
              types);
}

TEST_F(KazTokenLoginTest, ThePinIsSentAsItIs)
{
    openOn();
    EXPECT_RV(CKR_OK, login(session, TOKEN_PIN));
    EXPECT_EQ(Commands{VERIFY_123456}, sent());
    EXPECT_TRUE(token->verified());
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
}

TEST_F(KazTokenLoginTest, APinOfAnyLengthReachesTheToken)
{
    for (const std::string pin : {"1", "0000", "0123456789ABCDEF"}) {
        sim::KazTokenOptions options;
        options.pin = pin;
        openOn(options);
        EXPECT_RV(CKR_OK, login(session, pin));
        EXPECT_TRUE(token->verified()) << pin;
        KazTokenHost::TearDown();
    }
}

TEST_F(KazTokenLoginTest, AWrongPinLeavesTheSessionPublic)
{
    openOn();
    const MessageMark mark;
    EXPECT_RV(CKR_PIN_INCORRECT, login(session, "654321"));
    EXPECT_EQ(Commands{VERIFY_654321}, sent());
    EXPECT_EQ(2U, token->retriesLeft());
    EXPECT_FALSE(token->verified());
    EXPECT_MESSAGES(mark, "C_Login", numbered("Login hSession=", session),
                    "KAZTOKEN Login CKR_PIN_INCORRECT", "Login APDU error0xa0");
    const CK_SESSION_INFO info = sessionInfo(session);
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, info.state);
    EXPECT_EQ(0x63C2U, info.ulDeviceError);
    EXPECT_RV(CKR_OK, login(session, TOKEN_PIN));
    EXPECT_EQ(3U, token->retriesLeft());
}

// Only the bits of a wrong PIN are a failure: the block itself is told as a success, and shows when
// the token refuses to work.
TEST_F(KazTokenLoginTest, ABlockedPinIsToldAsALoginThatOpensNothing)
{
    openOn();
    for (unsigned left = 3; left-- > 0;) {
        EXPECT_RV(CKR_PIN_INCORRECT, login(session, "654321"));
        EXPECT_EQ(left, token->retriesLeft());
    }
    EXPECT_RV(CKR_OK, login(session, TOKEN_PIN));
    EXPECT_FALSE(token->verified());
    const CK_SESSION_INFO info = sessionInfo(session);
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, info.state);
    EXPECT_EQ(0x8369U, info.ulDeviceError);
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    Bytes signature;
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(hex("01"), signature));
    EXPECT_EQ(0x8269U, sessionInfo(session).ulDeviceError);
}

TEST_F(KazTokenLoginTest, ABlockedPinMayHaveTheBitsOfAWrongOne)
{
    sim::KazTokenOptions options;
    options.retryLimit = 1;
    options.blockedPin = 0x6963;
    openOn(options);
    EXPECT_RV(CKR_PIN_INCORRECT, login(session, "654321"));
    EXPECT_RV(CKR_PIN_INCORRECT, login(session, TOKEN_PIN));
    EXPECT_EQ(0x6369U, sessionInfo(session).ulDeviceError);
}

// An answer of 63 Cx is taken for an announcement of Cx bytes, which the token does not have.
TEST_F(KazTokenLoginTest, TheUsualAnswerToAWrongPinIsNotUnderstood)
{
    sim::KazTokenOptions options;
    options.wrongPin = 0x63C0;
    openOn(options);
    EXPECT_RV(CKR_OK, login(session, "654321"));
    EXPECT_EQ((Commands{VERIFY_654321, command("00 C0 00 00 C2", 196)}), sent());
    EXPECT_FALSE(token->verified());
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
}

// With the attempts left in the last digit of Fx, the bits are all there for three, seven and so
// on.
TEST_F(KazTokenLoginTest, SomeCountsOfAttemptsCarryTheBitsOfAWrongPin)
{
    sim::KazTokenOptions options;
    options.wrongPin = 0x60F0;
    options.retryLimit = 15;
    openOn(options);
    for (unsigned left = 15; left-- > 0;) {
        const bool told = left % 4 == 3;
        EXPECT_RV(told ? CKR_PIN_INCORRECT : CKR_OK, login(session, "654321")) << left;
        if (!told) {
            EXPECT_RV(CKR_OK, p11.C_Logout(session));
        }
    }
}

TEST_F(KazTokenLoginTest, LoggingOutIsToldToTheToken)
{
    openOn();
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session));
    EXPECT_TRUE(sent().empty());
    loginAs(TOKEN_PIN);
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_EQ(Commands{LOG_OUT}, sent());
    EXPECT_FALSE(token->verified());
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, sessionInfo(session).state);
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_Logout(session));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, signInit(RSA_PRIVATE));
}

TEST_F(KazTokenLoginTest, ARefusedLogoutLeavesTheSessionLoggedIn)
{
    openOn();
    loginAs(TOKEN_PIN);
    pcsc::replyNth(1, hex("69 85"));
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_Logout(session));
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
}

} // namespace
} // namespace velt_test
