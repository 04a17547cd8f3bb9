// C_GetTokenInfo, C_GetMechanismList, C_GetMechanismInfo.
#include "tests/support/slot_fixture.h"

using namespace velt_test;

namespace {

constexpr CK_MECHANISM_TYPE GOST_KEY_PAIR_GEN = 0x84B5A001;
constexpr CK_MECHANISM_TYPE GOST_SIGN = 0x84B5A002;

// Slot 0 an ID card, slot 1 empty, slot 2 an unknown card, slot 3 a KAZTOKEN, slot 4 the
// pseudo-reader.
class TokenQuery : public SlotTest {
protected:
    void SetUp() override
    {
        SlotTest::SetUp();
        plug("Id 0", card);
        plug("Empty 0");
        plug("Unknown 0", unknownCard());
        plug("Kaz 0", refusingCard(KAZTOKEN));
        refresh();
        pcsc::clearCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ("", card->verdict()) << "token queries never touch the card";
        SlotTest::TearDown();
    }

    std::shared_ptr<sim::ScriptedCard> card = refusingCard(ID_CARD);
};

class TokenQueryFresh : public FreshModuleTest {};

// --- C_GetTokenInfo ------------------------------------------------------------------------------

TEST_F(TokenQuery, TheIdCardIsDescribedWithoutAskingIt)
{
    Guarded<CK_TOKEN_INFO> info;
    const MessageMark mark;
    ASSERT_RV(CKR_OK, p11.C_GetTokenInfo(0, info.get()));
    EXPECT_MESSAGES(mark, "C_GetTokenInfo", "GetTokenInfo CKR_OK");
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
    EXPECT_EQ(0U, info->ulTotalPublicMemory);
    EXPECT_EQ(0U, info->ulFreePublicMemory);
    EXPECT_EQ(0U, info->ulTotalPrivateMemory);
    EXPECT_EQ(0U, info->ulFreePrivateMemory);
    EXPECT_EQ(1, info->hardwareVersion.major);
    EXPECT_EQ(0, info->hardwareVersion.minor);
    EXPECT_EQ(1, info->firmwareVersion.major);
    EXPECT_EQ(0, info->firmwareVersion.minor);
    EXPECT_EQ(std::string(16, '\0'), text(info->utcTime));
    EXPECT_TRUE(info.endIsUntouched());
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(TokenQuery, WithoutRoomForTheTokenInformationTheSlotIsNotLookedAt)
{
    for (const CK_SLOT_ID slot : {0UL, 1UL, 4UL, 5UL, ~0UL}) {
        const MessageMark mark;
        EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_GetTokenInfo(slot, nullptr));
        EXPECT_MESSAGES(mark, "C_GetTokenInfo", "GetTokenInfo CKR_ARGUMENTS_BAD");
    }
}

TEST_F(TokenQuery, TokenInformationOfThePseudoReaderOrBehindIsRefused)
{
    for (const CK_SLOT_ID slot : {4UL, 5UL, 256UL, 0x100000000UL, ~0UL}) {
        Guarded<CK_TOKEN_INFO> info;
        const MessageMark mark;
        EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetTokenInfo(slot, info.get())) << slot;
        EXPECT_MESSAGES(mark, "C_GetTokenInfo", "GetTokenInfo CKR_SLOT_ID_INVALID");
        EXPECT_TRUE(info.isUntouched());
    }
}

TEST_F(TokenQuery, AnEmptySlotAndAnUnknownCardAreNoToken)
{
    for (const CK_SLOT_ID slot : {1UL, 2UL}) {
        Guarded<CK_TOKEN_INFO> info;
        const MessageMark mark;
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(slot, info.get()));
        EXPECT_MESSAGES(mark, "C_GetTokenInfo", "GetTokenInfo CKR_TOKEN_NOT_PRESENT");
        EXPECT_TRUE(info.isUntouched());
    }
}

// --- C_GetMechanismList --------------------------------------------------------------------------

TEST_F(TokenQuery, TheIdCardsMechanismsAreListedWhereThereIsRoom)
{
    CK_ULONG count = 77;
    const MessageMark mark;
    ASSERT_RV(CKR_OK, p11.C_GetMechanismList(0, nullptr, &count));
    EXPECT_MESSAGES(mark, "C_GetMechanismList", "GetMechanismList CKR_OK");
    EXPECT_EQ(2U, count);

    for (const CK_ULONG tooSmall : {0UL, 1UL}) {
        CK_MECHANISM_TYPE types[3] = {77, 78, 79};
        count = tooSmall;
        EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types, &count));
        EXPECT_EQ(2U, count);
        EXPECT_THAT(types, ::testing::ElementsAre(77U, 78U, 79U));
    }
    for (const CK_ULONG enough : {2UL, 5UL}) {
        CK_MECHANISM_TYPE types[3] = {77, 78, 79};
        count = enough;
        EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types, &count));
        EXPECT_EQ(enough, count) << "the count stays as it was passed";
        EXPECT_THAT(types, ::testing::ElementsAre(CKM_RSA_PKCS, CKM_RSA_PKCS_KEY_PAIR_GEN, 79U));
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(TokenQuery, MechanismsOfSlotsBehindThePseudoReaderAreRefused)
{
    for (const CK_SLOT_ID slot : {5UL, 256UL, 0x100000000UL, ~0UL}) {
        CK_ULONG count = 77;
        const MessageMark mark;
        EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismList(slot, nullptr, &count)) << slot;
        EXPECT_MESSAGES(mark, "C_GetMechanismList", "GetMechanismList CKR_SLOT_ID_INVALID");
        EXPECT_EQ(77U, count);
    }
}

TEST_F(TokenQuery, ThePseudoReaderPassesTheMechanismListsSlotCheckAndIsEmpty)
{
    for (const CK_SLOT_ID slot : {1UL, 2UL, 4UL}) {
        CK_ULONG count = 77;
        const MessageMark mark;
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetMechanismList(slot, nullptr, &count)) << slot;
        EXPECT_MESSAGES(mark, "C_GetMechanismList", "GetMechanismList CKR_TOKEN_NOT_PRESENT");
        EXPECT_EQ(77U, count);
    }
}

// --- C_GetMechanismInfo --------------------------------------------------------------------------

struct KnownMechanism {
    CK_MECHANISM_TYPE type;
    CK_ULONG minimum;
    CK_ULONG maximum;
    CK_FLAGS flags;
};

constexpr KnownMechanism KNOWN_MECHANISMS[] = {
    {0x0, 1024, 2048, 0x10001},
    {0x1, 1024, 2048, 0x801},
    {GOST_KEY_PAIR_GEN, 256, 512, 0x10001},
    {GOST_SIGN, 256, 512, 0x801},
};

TEST_F(TokenQuery, TheFourMechanismsAreDescribedForEverySlotThePseudoReaderAmongThem)
{
    for (const CK_SLOT_ID slot : {0UL, 1UL, 2UL, 3UL, 4UL}) {
        for (const KnownMechanism& known : KNOWN_MECHANISMS) {
            SCOPED_TRACE(known.type);
            Guarded<CK_MECHANISM_INFO> info;
            const MessageMark mark;
            EXPECT_RV(CKR_OK, p11.C_GetMechanismInfo(slot, known.type, info.get()));
            EXPECT_MESSAGES(mark, "C_GetMechanismInfo", "GetMechanismInfo CKR_OK");
            EXPECT_EQ(known.minimum, info->ulMinKeySize);
            EXPECT_EQ(known.maximum, info->ulMaxKeySize);
            EXPECT_EQ(known.flags, info->flags);
            EXPECT_TRUE(info.endIsUntouched());
        }
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(TokenQuery, OtherMechanismsAreInvalid)
{
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{2}, CK_MECHANISM_TYPE{3}, CK_MECHANISM_TYPE{CKM_SHA1_RSA_PKCS},
          GOST_KEY_PAIR_GEN - 1, GOST_SIGN + 1, CK_MECHANISM_TYPE{0x100000001},
          0xFFFFFFFF00000000 | GOST_SIGN, CK_MECHANISM_TYPE{0x01A0B584}, ~CK_MECHANISM_TYPE{0}}) {
        Guarded<CK_MECHANISM_INFO> info;
        const MessageMark mark;
        EXPECT_RV(CKR_MECHANISM_INVALID, p11.C_GetMechanismInfo(0, type, info.get())) << type;
        EXPECT_MESSAGES(mark, "C_GetMechanismInfo", "GetMechanismInfo CKR_MECHANISM_INVALID");
        EXPECT_TRUE(info.isUntouched());
    }
}

TEST_F(TokenQuery, TheSlotIsJudgedBeforeTheMechanism)
{
    for (const CK_SLOT_ID slot : {5UL, 256UL, 0x100000000UL, ~0UL}) {
        for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, GOST_SIGN + 1}) {
            Guarded<CK_MECHANISM_INFO> info;
            const MessageMark mark;
            EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismInfo(slot, type, info.get()));
            EXPECT_MESSAGES(mark, "C_GetMechanismInfo", "GetMechanismInfo CKR_SLOT_ID_INVALID");
            EXPECT_TRUE(info.isUntouched());
        }
    }
}

// --- Without readers -----------------------------------------------------------------------------

TEST_F(SlotTest, WithoutReadersNoQueryKnowsAnySlot)
{
    refresh();
    Guarded<CK_TOKEN_INFO> token;
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetTokenInfo(0, token.get()));
    EXPECT_TRUE(token.isUntouched());
    CK_ULONG count = 77;
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismList(0, nullptr, &count));
    EXPECT_EQ(77U, count);
    Guarded<CK_MECHANISM_INFO> mechanism;
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismInfo(0, CKM_RSA_PKCS, mechanism.get()));
    EXPECT_TRUE(mechanism.isUntouched());
}

TEST_F(TokenQueryFresh, BeforeAnyListingNoQueryKnowsAnySlot)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    CK_TOKEN_INFO token{};
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetTokenInfo(0, &token));
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_GetTokenInfo(0, nullptr));
    CK_ULONG count = 77;
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismList(0, nullptr, &count));
    CK_MECHANISM_INFO mechanism{};
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismInfo(0, CKM_RSA_PKCS, &mechanism));
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(TokenQuery, AfterFinalisationTheReaderCountLivesOnAndEverySlotIsEmpty)
{
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    CK_TOKEN_INFO token{};
    CK_ULONG count = 77;
    CK_MECHANISM_INFO mechanism{};
    for (const CK_SLOT_ID slot : {0UL, 3UL}) {
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(slot, &token));
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetMechanismList(slot, nullptr, &count));
        EXPECT_RV(CKR_OK, p11.C_GetMechanismInfo(slot, CKM_RSA_PKCS, &mechanism));
    }
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetTokenInfo(4, &token));
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetMechanismList(4, nullptr, &count));
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismList(5, nullptr, &count));
    EXPECT_RV(CKR_OK, p11.C_GetMechanismInfo(4, CKM_RSA_PKCS, &mechanism));
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismInfo(5, CKM_RSA_PKCS, &mechanism));
}

TEST_F(TokenQuery, ATokenThatWentIsMissedAtTheNextListingOnly)
{
    pcsc::removeCard("Id 0");
    CK_TOKEN_INFO token{};
    EXPECT_RV(CKR_OK, p11.C_GetTokenInfo(0, &token));
    refresh();
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(0, &token));
    pcsc::insertCard("Id 0", card);
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(0, &token));
    refresh();
    EXPECT_RV(CKR_OK, p11.C_GetTokenInfo(0, &token));
}

} // namespace
