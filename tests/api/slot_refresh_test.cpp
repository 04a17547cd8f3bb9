// C_GetSlotList, C_GetSlotInfo: what a refresh asks of PC/SC, and what comes of calls that fail.
#include "tests/support/slot_fixture.h"

#include <algorithm>

using namespace velt_test;

namespace {

// --- What PC/SC is asked -------------------------------------------------------------------------

TEST_F(SlotTest, ARefreshProbesWaitsListsAndAsksForTheStates)
{
    plug(READER, refusingCard(ID_CARD));
    plug(SECOND);
    const std::size_t listed = std::string(READER).size() + std::string(SECOND).size() + 3;
    const std::pair<std::string, unsigned long> pnp{PNP_READER, 0};
    refresh();

    const auto calls = pcsc::calls();
    ASSERT_EQ(6U, calls.size()) << pcsc::describeCalls();
    EXPECT_EQ(Function::EstablishContext, calls[0].function);
    EXPECT_EQ(2U, calls[0].scope);
    EXPECT_NE(0U, calls[0].context);

    EXPECT_EQ(Function::GetStatusChange, calls[1].function);
    EXPECT_EQ(0U, calls[1].timeout);
    EXPECT_THAT(askedAbout(calls[1]), ::testing::ElementsAre(pnp));

    EXPECT_EQ(Function::GetStatusChange, calls[2].function);
    EXPECT_EQ(100U, calls[2].timeout);
    EXPECT_THAT(askedAbout(calls[2]), ::testing::ElementsAre(pnp));

    EXPECT_EQ(Function::ListReaders, calls[3].function);
    EXPECT_FALSE(calls[3].bufferGiven);
    EXPECT_EQ(0U, calls[3].capacity);

    EXPECT_EQ(Function::ListReaders, calls[4].function);
    EXPECT_TRUE(calls[4].bufferGiven);
    EXPECT_EQ(listed, calls[4].capacity);

    EXPECT_EQ(Function::GetStatusChange, calls[5].function);
    EXPECT_EQ(1000U, calls[5].timeout);
    EXPECT_THAT(askedAbout(calls[5]),
                ::testing::ElementsAre(std::pair<std::string, unsigned long>{READER, 0},
                                       std::pair<std::string, unsigned long>{SECOND, 0}, pnp));
    for (const Call& call : calls) {
        EXPECT_EQ(calls[0].context, call.context);
    }
}

TEST_F(SlotTest, WithoutPlugAndPlayARefreshListsThreeTimesAndLeavesThePseudoReaderOut)
{
    pcsc::setPlugAndPlay(false);
    plug(READER, refusingCard(ID_CARD));
    const std::size_t listed = std::string(READER).size() + 2;
    refresh();

    const auto calls = pcsc::calls();
    ASSERT_EQ(6U, calls.size()) << pcsc::describeCalls();
    EXPECT_EQ(Function::EstablishContext, calls[0].function);
    EXPECT_EQ(Function::GetStatusChange, calls[1].function);
    EXPECT_EQ(0U, calls[1].timeout);
    EXPECT_THAT(askedAbout(calls[1]),
                ::testing::ElementsAre(std::pair<std::string, unsigned long>{PNP_READER, 0}));
    EXPECT_EQ(Function::ListReaders, calls[2].function);
    EXPECT_FALSE(calls[2].bufferGiven);
    EXPECT_EQ(0U, calls[2].capacity);
    EXPECT_EQ(Function::ListReaders, calls[3].function);
    EXPECT_FALSE(calls[3].bufferGiven);
    EXPECT_EQ(Function::ListReaders, calls[4].function);
    EXPECT_TRUE(calls[4].bufferGiven);
    EXPECT_EQ(listed, calls[4].capacity);
    EXPECT_EQ(Function::GetStatusChange, calls[5].function);
    EXPECT_EQ(1000U, calls[5].timeout);
    EXPECT_THAT(askedAbout(calls[5]),
                ::testing::ElementsAre(std::pair<std::string, unsigned long>{READER, 0}));
}

TEST_F(SlotTest, EveryFurtherRefreshAsksTheSameFromTheStartOnTheSameContext)
{
    for (const bool plugAndPlay : {true, false}) {
        SCOPED_TRACE(plugAndPlay);
        pcsc::setPlugAndPlay(plugAndPlay);
        if (plugAndPlay) {
            plug(READER, refusingCard(ID_CARD));
        }
        refresh();
        const auto first = pcsc::calls();
        for (int again = 0; again < 3; ++again) {
            pcsc::clearCalls();
            refresh();
            const auto next = pcsc::calls();
            ASSERT_EQ(5U, next.size()) << pcsc::describeCalls();
            const auto* const expected = &first[first.size() - 5];
            for (std::size_t i = 0; i < 5; ++i) {
                SCOPED_TRACE(i);
                EXPECT_EQ(expected[i].function, next[i].function);
                EXPECT_EQ(expected[i].timeout, next[i].timeout);
                EXPECT_EQ(expected[i].context, next[i].context);
                EXPECT_EQ(expected[i].bufferGiven, next[i].bufferGiven);
                EXPECT_EQ(askedAbout(expected[i]), askedAbout(next[i]));
            }
        }
        pcsc::clearCalls();
    }
}

TEST_F(SlotTest, WithoutReadersTheRefreshEndsAtTheFirstListing)
{
    const MessageMark mark;
    EXPECT_EQ(firstSlots(0), slots());
    EXPECT_THAT(called(),
                ::testing::ElementsAre(Function::EstablishContext, Function::GetStatusChange,
                                       Function::GetStatusChange, Function::ListReaders));
    EXPECT_MESSAGES(mark, "C_GetSlotList", "GetSlotList: Using reader plug'n play mechanism",
                    "UpdateSlotsStates", "UpdateSlotsStates 1", "UpdateSlotsStates 2",
                    "UpdateSlotsStates 3", "SCARD_E_NO_READERS_AVAILABLE",
                    "GetSlotList pSlotList is not null", "GetSlotList rCount=0x0",
                    "GetSlotList CKR_OK");
    expectNoSlot(0);
}

TEST_F(SlotTest, WithoutReadersAndWithoutPlugAndPlayItEndsAtTheCheckAndSaysNothingMore)
{
    pcsc::setPlugAndPlay(false);
    const MessageMark mark;
    CK_ULONG count = 77;
    EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
    EXPECT_EQ(0U, count);
    EXPECT_THAT(called(), ::testing::ElementsAre(Function::EstablishContext,
                                                 Function::GetStatusChange, Function::ListReaders));
    EXPECT_MESSAGES(mark, "C_GetSlotList", "GetSlotList: Plug'n play reader name not supported.",
                    "UpdateSlotsStates", "UpdateSlotsStates 1", "GetSlotList rCount=0x0",
                    "GetSlotList CKR_OK");
    expectNoSlot(0);
}

TEST_F(SlotTest, ReadersThatAllDisappearLeaveNoSlot)
{
    for (const bool plugAndPlay : {true, false}) {
        SCOPED_TRACE(plugAndPlay);
        pcsc::setPlugAndPlay(plugAndPlay);
        plug(READER, refusingCard(ID_CARD));
        EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
        pcsc::unplugReader(READER);
        EXPECT_EQ(firstSlots(0), slots(CK_TRUE));
        EXPECT_EQ(firstSlots(0), slots(CK_FALSE));
        expectNoSlot(0);
    }
}

TEST_F(SlotTest, TheMessagesFollowTheRefreshStepByStep)
{
    plug("A 0", refusingCard(KAZTOKEN));
    plug("B 0");
    plug("C 0", unknownCard());
    plug("D 0", refusingCard(ETOKEN_72K));
    plug("E 0", refusingCard(JACARTA));
    plug("F 0", refusingCard(NEWER_ID_CARD));
    const Texts families{"KAZTOKEN", "Unknown Token", "EToken 72K", "JaCarta", "KZIDCard"};
    for (const bool plugAndPlay : {true, false}) {
        pcsc::setPlugAndPlay(plugAndPlay);
        const Texts start = Texts{"C_GetSlotList"} + refreshMessages(families, plugAndPlay);

        const MessageMark counting;
        CK_ULONG count = 0;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
        EXPECT_MESSAGES(counting, start + Texts{"GetSlotList rCount=0x6", "GetSlotList CKR_OK"});

        const MessageMark listing;
        slots(CK_TRUE);
        EXPECT_MESSAGES(listing, start + Texts{"GetSlotList pSlotList is not null",
                                               "GetSlotList rCount=0x6", "GetSlotList CKR_OK"});

        const MessageMark tooFew;
        count = 3;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
        EXPECT_MESSAGES(tooFew, start + Texts{"GetSlotList CKR_OK 1"});
    }
}

// --- Failing PC/SC calls -------------------------------------------------------------------------

class FailedEstablish : public SlotTest, public ::testing::WithParamInterface<LONG> {};

TEST_P(FailedEstablish, FailsTheListingAndTheNextOneTriesAgain)
{
    plug(READER, refusingCard(ID_CARD));
    pcsc::failNth(Function::EstablishContext, 1, GetParam());
    CK_SLOT_ID ids[2] = {77, 78};
    CK_ULONG count = 2;
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_MESSAGES(mark, "C_GetSlotList",
                    numbered("Failed SCardEstablishContext: CKR_FUNCTION_FAILED",
                             static_cast<std::uint64_t>(GetParam())));
    EXPECT_EQ(77U, ids[0]);
    EXPECT_EQ(78U, ids[1]);
    EXPECT_EQ(2U, count);
    EXPECT_THAT(called(), ::testing::ElementsAre(Function::EstablishContext));
    expectNoSlot(0);
    EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
}

INSTANTIATE_TEST_SUITE_P(WithAnyCode, FailedEstablish,
                         ::testing::Values(SCARD_E_NO_SERVICE, SCARD_E_NO_MEMORY,
                                           SCARD_F_INTERNAL_ERROR, 1L, -1L));

TEST_F(SlotTest, AFailedListingForgetsTheSlotsOfTheOneBefore)
{
    plug(READER, refusingCard(ID_CARD));
    refresh();
    EXPECT_RV(CKR_OK, list.C_SetSCContext(0));
    pcsc::failNth(Function::EstablishContext, 1, SCARD_E_NO_SERVICE);
    CK_ULONG count = 0;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
    expectNoSlot(0);
    EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
}

TEST_F(SlotTest, BehindAFailedListingSlot0StillNamesTheOldReader)
{
    plug(READER, refusingCard(ID_CARD));
    refresh();
    EXPECT_RV(CKR_OK, list.C_SetSCContext(0));
    pcsc::failNth(Function::EstablishContext, 1, SCARD_E_NO_SERVICE);
    CK_ULONG count = 0;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_GetSlotList(CK_FALSE, nullptr, &count));

    CK_MECHANISM_INFO mechanism{};
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetMechanismInfo(0, CKM_RSA_PKCS, &mechanism));
    CK_TOKEN_INFO token{};
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetTokenInfo(0, &token));
    CK_SESSION_HANDLE session = NO_HANDLE;
    const MessageMark mark;
    EXPECT_RV(CKR_DEVICE_ERROR, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_MESSAGES(mark, "C_OpenSession", "OpenSession TokenID = 0x1",
                    "OpenSession CKR_DEVICE_ERROR SCardConnect err: 0x80100003");
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_OpenSession(1, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_EQ(NO_HANDLE, session);
    const auto connects = pcsc::calls(Function::Connect);
    ASSERT_EQ(1U, connects.size());
    EXPECT_EQ(READER, connects[0].reader);
    EXPECT_EQ(0U, connects[0].context);
}

TEST_F(SlotTest, AFailingStatusQueryLeavesReadersListedByPositionWithoutCards)
{
    plug(READER, refusingCard(ID_CARD));
    plug(SECOND, refusingCard(KAZTOKEN));
    refresh();
    for (const LONG result : {SCARD_E_TIMEOUT, SCARD_E_NO_SERVICE, SCARD_F_INTERNAL_ERROR}) {
        pcsc::failNth(Function::GetStatusChange, 3, result);
        const MessageMark mark;
        EXPECT_EQ(firstSlots(2), slots(CK_FALSE));
        EXPECT_MESSAGES(mark, Texts{"C_GetSlotList"} + refreshMessages({}) +
                                  Texts{"GetSlotList pSlotList is not null",
                                        "GetSlotList rCount=0x2", "GetSlotList CKR_OK"});
        EXPECT_EQ(paddedTo(64, SECOND), text(slotInfo(1).slotDescription));
        EXPECT_EQ(CKF_HW_SLOT, slotInfo(0).flags);
        EXPECT_EQ(CKF_HW_SLOT, slotInfo(1).flags);
        CK_TOKEN_INFO token{};
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(0, &token));

        pcsc::failNth(Function::GetStatusChange, 3, result);
        CK_ULONG count = 5;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
        EXPECT_EQ(0U, count);
    }
}

TEST_F(SlotTest, AFailingProbeOrWaitIsPassedOver)
{
    plug(READER, refusingCard(ID_CARD));
    refresh();
    pcsc::clearCalls();
    pcsc::failNth(Function::GetStatusChange, 1, SCARD_E_TIMEOUT);
    pcsc::failNth(Function::GetStatusChange, 2, SCARD_E_TIMEOUT);
    EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
    EXPECT_EQ(3U, pcsc::calls(Function::GetStatusChange).size());
}

TEST_F(SlotTest, ListingsThatFailOtherwiseLeaveNoReaders)
{
    plug(READER, refusingCard(ID_CARD));
    refresh();
    for (const std::size_t failing : {1U, 2U}) {
        SCOPED_TRACE(failing);
        for (std::size_t n = failing; n <= 2; ++n) {
            pcsc::failNth(Function::ListReaders, n, SCARD_E_NO_SERVICE);
        }
        pcsc::clearCalls();
        EXPECT_EQ(firstSlots(0), slots());
        const auto listings = pcsc::calls(Function::ListReaders);
        ASSERT_EQ(2U, listings.size()) << pcsc::describeCalls();
        EXPECT_TRUE(listings[1].bufferGiven);
        EXPECT_EQ(failing == 1 ? 0U : std::string(READER).size() + 2, listings[1].capacity);
        const auto query = pcsc::calls(Function::GetStatusChange).back();
        EXPECT_EQ(1000U, query.timeout);
        EXPECT_THAT(askedAbout(query),
                    ::testing::ElementsAre(std::pair<std::string, unsigned long>{PNP_READER, 0}));
        expectNoSlot(0);
        pcsc::clearPlans();
    }
    EXPECT_EQ(firstSlots(1), slots());
}

TEST_F(SlotTest, ALengthThatCannotBeToldIsTakenAsNone)
{
    plug(READER, refusingCard(ID_CARD));
    pcsc::failNth(Function::ListReaders, 1, SCARD_E_NO_SERVICE);
    EXPECT_EQ(firstSlots(0), slots());
    const auto listings = pcsc::calls(Function::ListReaders);
    ASSERT_EQ(2U, listings.size());
    EXPECT_EQ(0U, listings[1].capacity);
    EXPECT_EQ(SCARD_E_INSUFFICIENT_BUFFER, listings[1].result);
}

TEST_F(SlotTest, AStoppedServiceListsNothingAndKeepsTheContext)
{
    plug(READER, refusingCard(ID_CARD));
    refresh();
    pcsc::setServiceRunning(false);
    EXPECT_EQ(firstSlots(0), slots());
    expectNoSlot(0);
    pcsc::setServiceRunning(true);
    pcsc::clearCalls();
    EXPECT_EQ(firstSlots(1), slots());
    EXPECT_TRUE(pcsc::calls(Function::EstablishContext).empty());
}

TEST_F(SlotTest, NoReadersAtTheSecondListingIsNoDifferentFromAnyFailure)
{
    plug(READER, refusingCard(ID_CARD));
    pcsc::failNth(Function::ListReaders, 2, SCARD_E_NO_READERS_AVAILABLE);
    const MessageMark mark;
    EXPECT_EQ(firstSlots(0), slots());
    EXPECT_MESSAGES(mark, Texts{"C_GetSlotList"} + refreshMessages({}) +
                              Texts{"GetSlotList pSlotList is not null", "GetSlotList rCount=0x0",
                                    "GetSlotList CKR_OK"});
}

} // namespace
