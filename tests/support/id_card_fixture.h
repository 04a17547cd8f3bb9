// Tests of sessions through the module: one reader with an ID card that plays a script.
#pragma once

#include "tests/support/slot_fixture.h"

namespace velt_test {

constexpr std::string_view SELECT_MASTER_FILE = "00 A4 00 0C 02 3F 00";

class IdCardTest : public SlotTest {
protected:
    void SetUp() override
    {
        SlotTest::SetUp();
        plug(READER, card);
        refresh();
        pcsc::clearCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ("", card->verdict());
        SlotTest::TearDown();
    }

    // Opens a session while the card has no master file: no objects are loaded, which is no error.
    CK_SESSION_HANDLE openWithoutObjects(CK_FLAGS flags = READ_WRITE)
    {
        card->expect(SELECT_MASTER_FILE, "6A 82");
        return open(0, flags);
    }

    // The exchanges of one login with the PIN "1234".
    void expectVerify(std::string_view reply)
    {
        card->expect(SELECT_MASTER_FILE, "90 00");
        card->expect("00 20 00 02 08 31 32 33 34 30 30 30 30", reply);
    }

    void loginWell(CK_SESSION_HANDLE session)
    {
        expectVerify("90 00");
        ASSERT_RV(CKR_OK, login(session, "1234"));
    }

    // What the host reads of a session, and that its last card error reads as 0 afterwards.
    void expectState(CK_SESSION_HANDLE session, CK_STATE state)
    {
        EXPECT_EQ(state, sessionInfo(session).state);
    }

    std::shared_ptr<sim::ScriptedCard> card = refusingCard(ID_CARD);
};

} // namespace velt_test
