// Tokens of families that are recognised and not served yet: every call answers, no card is asked.
// Covers: C_GetSlotList, C_GetTokenInfo, C_GetMechanismList, C_OpenSession, C_Login, C_Logout,
// C_FindObjectsInit, C_FindObjects, C_CreateObject, C_DestroyObject, C_SignInit, C_GenerateRandom.
#include "tests/support/known_cards.h"
#include "tests/support/module_fixture.h"

namespace {

using velt_test::KnownToken;

class OtherFamilies : public velt_test::ModuleTest,
                      public ::testing::WithParamInterface<KnownToken> {};

TEST_P(OtherFamilies, AnswerThatTheirOperationsAreMissing)
{
    const auto card = velt_test::refusingCard(GetParam());
    plug("Reader", card);
    initialise();
    EXPECT_EQ((std::vector<CK_SLOT_ID>{0}), slots(CK_TRUE));

    CK_TOKEN_INFO info{};
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_GetTokenInfo(0, &info));
    CK_ULONG count = 0;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_GetMechanismList(0, nullptr, &count));

    const CK_SESSION_HANDLE session = open(0);
    EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, login(session, "1234"));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session));

    EXPECT_RV(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    CK_OBJECT_HANDLE object = velt_test::NO_HANDLE;
    EXPECT_RV(CKR_OK, p11.C_FindObjects(session, &object, 1, &count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ(velt_test::NO_HANDLE, object);
    EXPECT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
    CK_ATTRIBUTE attribute{CKA_CLASS, nullptr, 0};
    EXPECT_RV(CKR_OBJECT_HANDLE_INVALID, p11.C_GetAttributeValue(session, 1, &attribute, 1));

    EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, p11.C_CreateObject(session, &attribute, 1, &object));
    EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, p11.C_DestroyObject(session, 1));
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, p11.C_SignInit(session, &mechanism, 0));
    CK_BYTE random[4] = {0xA5, 0xA5, 0xA5, 0xA5};
    EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, random, sizeof random));
    EXPECT_EQ(0xA5, random[0]);

    EXPECT_TRUE(velt_test::pcsc::sentCommands().empty());
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

INSTANTIATE_TEST_SUITE_P(Tokens, OtherFamilies,
                         ::testing::Values(velt_test::JACARTA, velt_test::ETOKEN_72K));

} // namespace
