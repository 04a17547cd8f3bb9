// What counts as asking for tokens only, and the order of a short list's messages.
// Covers: C_GetSlotList.
#include "tests/support/known_cards.h"
#include "tests/support/module_fixture.h"

namespace {

class SlotListTest : public velt_test::ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        plug("Empty");
        plug("Full", velt_test::refusingCard(velt_test::ID_CARD));
        initialise();
    }
};

TEST_F(SlotListTest, AnyByteButZeroAsksForTokensOnly)
{
    for (const unsigned present : {1U, 2U, 0x80U, 0xFFU}) {
        EXPECT_EQ((std::vector<CK_SLOT_ID>{1}), slots(static_cast<CK_BBOOL>(present))) << present;
    }
    EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1}), slots(0));
}

TEST_F(SlotListTest, TooSmallACountIsToldBehindTheList)
{
    std::vector<CK_SLOT_ID> ids(3, 77);
    CK_ULONG count = 0;
    const velt_test::MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_TRUE, ids.data(), &count));
    EXPECT_EQ(1U, count);
    EXPECT_EQ((std::vector<CK_SLOT_ID>{1, 77, 77}), ids);
    if (velt_test::messagesAreKept) {
        const std::vector<std::string> passed = mark.passed();
        ASSERT_GE(passed.size(), 3U);
        EXPECT_EQ("UpdateSlotstates CKR_OK", passed[passed.size() - 3]);
        EXPECT_EQ("GetSlotList pSlotList is not null", passed[passed.size() - 2]);
        EXPECT_EQ("GetSlotList CKR_OK 1", passed[passed.size() - 1]);
    }
}

} // namespace
