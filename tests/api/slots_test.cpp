// C_GetSlotList, C_GetSlotInfo: listing, slot information, recognised cards, and changes between
// listings.
#include "tests/support/slot_fixture.h"

#include <algorithm>

using namespace velt_test;

namespace {

// --- Numbers of readers --------------------------------------------------------------------------

class ReaderCounts : public SlotTest,
                     public ::testing::WithParamInterface<std::tuple<std::size_t, bool>> {};

TEST_P(ReaderCounts, AllAreListedInOrderAndTheirCardsAreRecognised)
{
    const auto [count, plugAndPlay] = GetParam();
    pcsc::setPlugAndPlay(plugAndPlay);
    plugMany(count, &KAZTOKEN);
    EXPECT_EQ(firstSlots(count), slots(CK_FALSE));
    EXPECT_EQ(firstSlots(count), slots(CK_TRUE));
    for (std::size_t i = 0; i < count; ++i) {
        const CK_SLOT_INFO info = slotInfo(i);
        EXPECT_EQ(paddedTo(64, readerNumber(i)), text(info.slotDescription));
        EXPECT_EQ(0x5U, info.flags);
    }
    expectNoSlot(count);
}

// PC/SC takes at most 16 states in one query, the pseudo-reader among them.
INSTANTIATE_TEST_SUITE_P(PlugAndPlay, ReaderCounts,
                         ::testing::Combine(::testing::Values(0U, 1U, 2U, 15U),
                                            ::testing::Values(true)));
INSTANTIATE_TEST_SUITE_P(NoPlugAndPlay, ReaderCounts,
                         ::testing::Combine(::testing::Values(0U, 1U, 2U, 15U, 16U),
                                            ::testing::Values(false)));

class TooManyReaders : public ReaderCounts {};

TEST_P(TooManyReaders, AreListedButTheirCardsAreNotSeen)
{
    const auto [count, plugAndPlay] = GetParam();
    pcsc::setPlugAndPlay(plugAndPlay);
    plugMany(count, &KAZTOKEN);
    EXPECT_EQ(firstSlots(count), slots(CK_FALSE));
    const auto queries = pcsc::calls(Function::GetStatusChange);
    EXPECT_EQ(count + (plugAndPlay ? 1 : 0), queries.back().capacity);
    EXPECT_NE(SCARD_S_SUCCESS, queries.back().result);
    EXPECT_EQ(firstSlots(0), slots(CK_TRUE));
    for (std::size_t i = 0; i < count; ++i) {
        EXPECT_EQ(CKF_HW_SLOT, slotInfo(i).flags);
    }
    expectNoSlot(count);
}

INSTANTIATE_TEST_SUITE_P(PlugAndPlay, TooManyReaders,
                         ::testing::Combine(::testing::Values(16U, 17U), ::testing::Values(true)));
INSTANTIATE_TEST_SUITE_P(NoPlugAndPlay, TooManyReaders,
                         ::testing::Combine(::testing::Values(17U), ::testing::Values(false)));

// --- Recognition by the answer to reset ----------------------------------------------------------

TEST_F(SlotTest, EachKnownAnswerToResetIsRecognised)
{
    plug(READER, unknownCard());
    for (const KnownToken& token : KNOWN_TOKENS) {
        exchangeCard(sim::hex(token.atr));
        expectRecognised(token, token.name);
    }
}

TEST_F(SlotTest, AnAnswerToResetWithOneByteMoreOrLessIsUnknown)
{
    plug(READER, unknownCard());
    for (const KnownToken& token : KNOWN_TOKENS) {
        const sim::Bytes atr = sim::hex(token.atr);
        sim::Bytes longer = atr;
        longer.push_back(0x00);
        exchangeCard(longer);
        expectUnknown(std::string(token.name) + " and one byte more");
        sim::Bytes shorter = atr;
        shorter.pop_back();
        exchangeCard(shorter);
        expectUnknown(std::string(token.name) + " without its last byte");
        exchangeCard({atr.begin() + 1, atr.end()});
        expectUnknown(std::string(token.name) + " without its first byte");
    }
}

TEST_F(SlotTest, AnAnswerToResetWithOneByteChangedIsUnknownWhereverItIs)
{
    plug(READER, unknownCard());
    for (const KnownToken& token : KNOWN_TOKENS) {
        const sim::Bytes atr = sim::hex(token.atr);
        for (std::size_t i = 0; i < atr.size(); ++i) {
            for (const int change : {0x01, 0x80}) {
                sim::Bytes changed = atr;
                changed[i] = static_cast<std::uint8_t>(changed[i] ^ change);
                exchangeCard(changed);
                expectUnknown(std::string(token.name) + " with byte " + std::to_string(i) +
                              " changed");
            }
        }
    }
}

TEST_F(SlotTest, OtherCardsAreUnknownWhateverTheLengthOfTheirAnswerToReset)
{
    plug(READER, unknownCard());
    for (std::size_t length = 2; length <= 33; ++length) {
        sim::Bytes atr(length, 0x3B);
        exchangeCard(atr);
        expectUnknown(std::to_string(length) + " bytes 3B");
        const sim::Bytes known = sim::hex(JACARTA.atr);
        std::copy_n(known.begin(), std::min(length, known.size()), atr.begin());
        if (length != known.size()) {
            exchangeCard(atr);
            expectUnknown("a JaCarta's cut or padded to " + std::to_string(length) + " bytes");
        }
    }
}

TEST_F(SlotTest, ACardWithoutAnAnswerToResetIsUnknown)
{
    plug(READER, unknownCard());
    exchangeCard({});
    expectUnknown("no bytes at all");
}

// --- Counting and listing ------------------------------------------------------------------------

class ThreeTokens : public SlotTest {
protected:
    void SetUp() override
    {
        SlotTest::SetUp();
        plug("Empty 0");
        plug("Id 0", refusingCard(ID_CARD));
        plug("Unknown 0", unknownCard());
        plug("Kaz 0", refusingCard(KAZTOKEN));
        plug("Java 0", refusingCard(JACARTA));
    }
};

TEST_F(ThreeTokens, TheCountOfTokensIsToldWhateverCountIsPassed)
{
    for (const CK_ULONG passed : {0UL, 1UL, 2UL, 3UL, 4UL, 5UL, ~0UL}) {
        CK_ULONG count = passed;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
        EXPECT_EQ(3U, count) << passed;
        count = passed;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
        EXPECT_EQ(5U, count) << passed;
    }
}

TEST_F(ThreeTokens, OnlySlotsWithARecognisedTokenAreListedWhenAskedFor)
{
    EXPECT_EQ((std::vector<CK_SLOT_ID>{1, 3, 4}), slots(CK_TRUE));
    EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1, 2, 3, 4}), slots(CK_FALSE));
}

TEST_F(ThreeTokens, TheListIsWrittenWholeHoweverSmallTheCountIs)
{
    for (const CK_ULONG passed : {0UL, 1UL, 2UL}) {
        std::vector<CK_SLOT_ID> ids(8, 77);
        CK_ULONG count = passed;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_TRUE, ids.data(), &count));
        EXPECT_EQ(3U, count);
        EXPECT_EQ((std::vector<CK_SLOT_ID>{1, 3, 4, 77, 77, 77, 77, 77}), ids);

        ids.assign(8, 77);
        count = passed;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_FALSE, ids.data(), &count));
        EXPECT_EQ(5U, count);
        EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1, 2, 3, 4, 77, 77, 77}), ids);
    }
}

// --- C_GetSlotInfo -------------------------------------------------------------------------------

TEST_F(SlotTest, TheInformationTellsReaderFlagsAndVersions)
{
    plug(READER);
    refresh();
    Guarded<CK_SLOT_INFO> info;
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_GetSlotInfo(0, info.get()));
    EXPECT_MESSAGES(mark, "C_GetSlotInfo", "GetSlotInfo - 1", "GetSlotInfo - 2", "GetSlotInfo - 3",
                    "GetSlotInfo - 4", "GetSlotInfo CKR_OK");
    EXPECT_EQ(paddedTo(64, READER), text(info->slotDescription));
    EXPECT_EQ(paddedTo(32, "Stand-in"), text(info->manufacturerID));
    EXPECT_EQ(0x4U, info->flags);
    EXPECT_EQ(1, info->hardwareVersion.major);
    EXPECT_EQ(0, info->hardwareVersion.minor);
    EXPECT_EQ(1, info->firmwareVersion.major);
    EXPECT_EQ(0, info->firmwareVersion.minor);
    EXPECT_TRUE(info.endIsUntouched());
}

TEST_F(SlotTest, TheKaztokenIsTheOneTokenThatCountsAsBuiltIn)
{
    plug("0 0", refusingCard(ID_CARD));
    plug("1 0", refusingCard(NEWER_ID_CARD));
    plug("2 0", refusingCard(JACARTA));
    plug("3 0", refusingCard(KAZTOKEN));
    plug("4 0", refusingCard(ETOKEN_72K));
    plug("5 0", unknownCard());
    plug("6 0");
    refresh();
    const std::vector<CK_FLAGS> expected{0x7, 0x7, 0x7, 0x5, 0x7, 0x4, 0x4};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], slotInfo(i).flags) << i;
    }
}

TEST_F(SlotTest, ReaderNamesOfAnyLengthFillTheirFieldsAndNoMore)
{
    const auto name = [](std::size_t length, std::size_t blank) {
        std::string made;
        for (std::size_t i = 0; i < length; ++i) {
            made.push_back(i == blank ? ' ' : static_cast<char>('a' + i % 26));
        }
        return made;
    };
    const std::size_t none = ~std::size_t{0};
    for (const std::size_t length : {1U, 31U, 32U, 33U, 63U, 64U, 65U, 96U, 126U}) {
        for (const std::size_t blank : {std::size_t{0}, std::size_t{1}, std::size_t{31},
                                        std::size_t{32}, std::size_t{33}, std::size_t{64}, none}) {
            if (blank != none && blank + 1 >= length) {
                continue;
            }
            const std::string reader = name(length, blank);
            SCOPED_TRACE(reader);
            pcsc::plugReader(reader);
            refresh();
            Guarded<CK_SLOT_INFO> info;
            EXPECT_RV(CKR_OK, p11.C_GetSlotInfo(0, info.get()));
            EXPECT_EQ(paddedTo(64, reader.substr(0, 64)), text(info->slotDescription));
            EXPECT_EQ(paddedTo(32, reader.substr(0, std::min(blank, std::size_t{32}))),
                      text(info->manufacturerID));
            EXPECT_EQ(CKF_HW_SLOT, info->flags);
            EXPECT_TRUE(info.endIsUntouched());
            pcsc::unplugReader(reader);
        }
    }
}

TEST_F(SlotTest, WithoutRoomForTheInformationTheSlotIsNotLookedAt)
{
    plug(READER);
    refresh();
    for (const CK_SLOT_ID slot : {0UL, 1UL, ~0UL}) {
        const MessageMark mark;
        EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_GetSlotInfo(slot, nullptr));
        EXPECT_MESSAGES(mark, "C_GetSlotInfo", "GetSlotInfo CKR_ARGUMENTS_BAD");
    }
}

TEST_F(SlotTest, ThePseudoReaderAndEverythingBehindItIsNoSlot)
{
    plug(READER);
    plug(SECOND);
    refresh();
    for (const CK_SLOT_ID slot : {2UL, 3UL, 255UL, 256UL, 0x100000000UL, 0xFFFFFFFFUL, ~0UL}) {
        SCOPED_TRACE(slot);
        const MessageMark mark;
        expectNoSlot(slot);
        EXPECT_MESSAGES(mark, "C_GetSlotInfo", numbered("GetSlotInfo slotID=", slot),
                        "GetSlotInfo slots Count=0x2", "GetSlotInfo CKR_SLOT_ID_INVALID ");
    }
}

class SlotFresh : public FreshModuleTest {};

TEST_F(SlotFresh, BeforeAnyListingThereIsNoSlot)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    Guarded<CK_SLOT_INFO> info;
    const MessageMark mark;
    EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetSlotInfo(0, info.get()));
    EXPECT_MESSAGES(mark, "C_GetSlotInfo", "GetSlotInfo slotID=0x0", "GetSlotInfo slots Count=0x0",
                    "GetSlotInfo CKR_SLOT_ID_INVALID ");
    EXPECT_TRUE(info.isUntouched());
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(SlotTest, AfterFinalisationTheSlotsAreGoneUntilTheNextListing)
{
    plug(READER, refusingCard(ID_CARD));
    refresh();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    pcsc::clearCalls();
    expectNoSlot(0);
    expectNoSlot(1);
    CK_TOKEN_INFO token{};
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(0, &token));
    CK_SESSION_HANDLE session = NO_HANDLE;
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_EQ(NO_HANDLE, session);
    EXPECT_EQ(0U, pcsc::callCount());
    refresh();
    EXPECT_EQ(0x7U, slotInfo(0).flags);
}

// --- Changes between refreshes -------------------------------------------------------------------

TEST_F(SlotTest, ACardThatComesOrGoesIsSeenAtTheNextListingOnly)
{
    plug(READER);
    refresh();
    pcsc::insertCard(READER, refusingCard(JACARTA));
    pcsc::clearCalls();
    EXPECT_EQ(0x4U, slotInfo(0).flags);
    EXPECT_EQ(0U, pcsc::callCount());
    EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
    EXPECT_EQ(0x7U, slotInfo(0).flags);

    pcsc::removeCard(READER);
    EXPECT_EQ(0x7U, slotInfo(0).flags);
    EXPECT_EQ(firstSlots(0), slots(CK_TRUE));
    EXPECT_EQ(0x4U, slotInfo(0).flags);

    pcsc::insertCard(READER, refusingCard(KAZTOKEN));
    EXPECT_EQ(0x4U, slotInfo(0).flags);
    refresh();
    EXPECT_EQ(0x5U, slotInfo(0).flags);
    exchangeCard(sim::hex(ID_CARD.atr));
    refresh();
    EXPECT_EQ(0x7U, slotInfo(0).flags);
}

TEST_F(SlotTest, AReaderThatGoesMovesThoseBehindItDown)
{
    plug("A 0", refusingCard(ID_CARD));
    plug("B 0", refusingCard(KAZTOKEN));
    plug("C 0");
    refresh();
    pcsc::unplugReader("A 0");
    EXPECT_EQ(paddedTo(64, "A 0"), text(slotInfo(0).slotDescription));
    EXPECT_EQ(0x7U, slotInfo(0).flags);
    EXPECT_EQ(firstSlots(2), slots());
    EXPECT_EQ(paddedTo(64, "B 0"), text(slotInfo(0).slotDescription));
    EXPECT_EQ(0x5U, slotInfo(0).flags);
    EXPECT_EQ(paddedTo(64, "C 0"), text(slotInfo(1).slotDescription));
    expectNoSlot(2);
}

TEST_F(SlotTest, AReaderThatComesIsListedBehindTheOthers)
{
    plug("A 0");
    EXPECT_EQ(firstSlots(1), slots());
    plug("B 0", refusingCard(KAZTOKEN));
    expectNoSlot(1);
    EXPECT_EQ((std::vector<CK_SLOT_ID>{1}), slots(CK_TRUE));
    EXPECT_EQ(paddedTo(64, "B 0"), text(slotInfo(1).slotDescription));
}

TEST_F(SlotTest, AReaderThatComesBetweenTheTwoListingsLeavesNone)
{
    for (const bool plugAndPlay : {true, false}) {
        SCOPED_TRACE(plugAndPlay);
        pcsc::reset();
        EXPECT_RV(CKR_OK, list.C_SetSCContext(0));
        pcsc::setPlugAndPlay(plugAndPlay);
        plug(READER, refusingCard(ID_CARD));
        refresh();
        pcsc::Action late;
        late.before = [] { pcsc::plugReader(SECOND); };
        pcsc::onNth(Function::ListReaders, plugAndPlay ? 2 : 3, late);
        pcsc::clearCalls();

        const MessageMark mark;
        EXPECT_EQ(firstSlots(0), slots());
        EXPECT_MESSAGES(mark, Texts{"C_GetSlotList"} + refreshMessages({}, plugAndPlay) +
                                  Texts{"GetSlotList pSlotList is not null",
                                        "GetSlotList rCount=0x0", "GetSlotList CKR_OK"});
        const auto listings = pcsc::calls(Function::ListReaders);
        EXPECT_EQ(SCARD_E_INSUFFICIENT_BUFFER, listings.back().result);
        EXPECT_EQ(std::string(READER).size() + 2, listings.back().capacity);
        const auto query = pcsc::calls(Function::GetStatusChange).back();
        EXPECT_EQ(1000U, query.timeout);
        EXPECT_EQ(plugAndPlay ? 1U : 0U, query.states.size());
        expectNoSlot(0);

        EXPECT_EQ(firstSlots(2), slots());
        EXPECT_EQ(0x7U, slotInfo(0).flags);
    }
}

TEST_F(SlotTest, AReaderThatGoesBetweenTheTwoListingsIsLeftOut)
{
    plug(READER, refusingCard(ID_CARD));
    plug(SECOND, refusingCard(KAZTOKEN));
    pcsc::Action gone;
    gone.before = [] { pcsc::unplugReader(READER); };
    pcsc::onNth(Function::ListReaders, 2, gone);
    EXPECT_EQ(firstSlots(1), slots());
    EXPECT_EQ(paddedTo(64, SECOND), text(slotInfo(0).slotDescription));
    EXPECT_EQ(0x5U, slotInfo(0).flags);
}

TEST_F(SlotTest, AReaderThatGoesBeforeTheStatusQueryIsListedWithoutACard)
{
    plug(READER, refusingCard(ID_CARD));
    plug(SECOND, refusingCard(KAZTOKEN));
    pcsc::Action gone;
    gone.before = [] { pcsc::unplugReader(READER); };
    pcsc::onNth(Function::GetStatusChange, 3, gone);
    EXPECT_EQ(firstSlots(2), slots());
    EXPECT_EQ(paddedTo(64, READER), text(slotInfo(0).slotDescription));
    EXPECT_EQ(CKF_HW_SLOT, slotInfo(0).flags);
    EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
    EXPECT_EQ(paddedTo(64, SECOND), text(slotInfo(0).slotDescription));
}

} // namespace
