// Memory of the object store: what the table, a search and attribute reads hold, and what happens
// when there is none.
#include "tests/support/failing_alloc.h"
#include "tests/support/retrieval_world.h"
#include "tests/support/search_world.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;
using alloc::asked;
using alloc::held;

// While one lives, the n-th allocation of the module finds no memory.
class FailingAllocation {
public:
    explicit FailingAllocation(std::size_t n) { alloc::failNth(n); }
    ~FailingAllocation()
    {
        EXPECT_EQ(1U, alloc::refused());
        alloc::clear();
    }
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

// --- The table --------------------------------------------------------------------------------

class TableMemory : public ObjectWorld {
protected:
    // A table of five entries with a block each: six blocks of memory.
    static void makeFiveObjects()
    {
        makeTable(5);
        addCertificate();
        addPublicKey();
        addPrivateKey();
        addPublicKey();
        addPrivateKey();
    }
};

TEST_F(TableMemory, ARebuildFreesTheTableBeforeWithItsBlocks)
{
    ASSERT_TRUE(velt::rebuildObjects(0));
    const std::size_t before = held();
    makeFiveObjects();
    EXPECT_EQ(before + 6, held());
    makeFiveObjects();
    EXPECT_EQ(before + 6, held());
    ASSERT_TRUE(velt::rebuildObjects(0));
    EXPECT_EQ(before, held());
}

TEST_F(TableMemory, ARebuildWithoutMemoryLeavesNoTable)
{
    ASSERT_TRUE(velt::rebuildObjects(0));
    const std::size_t before = held();
    makeFiveObjects();
    {
        const FailingAllocation failing(1);
        EXPECT_FALSE(velt::rebuildObjects(10));
    }
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_EQ(0U, ulObjCount);
    EXPECT_EQ(0U, velt::objectTableSize());
    EXPECT_EQ(before, held());
    makeFiveObjects();
    EXPECT_EQ(5U, velt::objectTableSize());
}

TEST_F(TableMemory, WithoutMemoryToGrowTheTableStaysAsItWas)
{
    makeFiveObjects();
    const ObjectEntry* const before = VELTObj;
    for (const std::size_t failingCall : {1U, 2U}) { // the search's marks, then the table
        const FailingAllocation failing(failingCall);
        EXPECT_FALSE(velt::growObjects(failingCall * 5000));
    }
    EXPECT_EQ(before, VELTObj);
    EXPECT_EQ(5U, ulObjCount);
    EXPECT_EQ(5U, velt::objectTableSize());
}

TEST_F(TableMemory, ASecondBlockReplacesTheFirst)
{
    makeTable(1);
    ASSERT_NE(nullptr, velt::attachCertificate(VELTObj[0]));
    const std::size_t before = held();
    velt::attachCertificate(VELTObj[0])->valueLen = 1;
    EXPECT_EQ(0U, velt::attachCertificate(VELTObj[0])->valueLen) << "a new one";
    EXPECT_EQ(before, held());
}

TEST_F(TableMemory, WithoutMemoryAnEntryStaysWithoutABlock)
{
    makeTable(3);
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(nullptr, velt::attachCertificate(VELTObj[0]));
    }
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(nullptr, velt::attachPublicKey(VELTObj[1]));
    }
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(nullptr, velt::attachPrivateKey(VELTObj[2]));
    }
    for (std::uint64_t position = 0; position < 3; ++position) {
        EXPECT_EQ(nullptr, VELTObj[position].attrs);
    }
}

TEST_F(TableMemory, RetiringFreesTheBlocksBelowTheBoundAndKeepsTheOthersOwned)
{
    ASSERT_TRUE(velt::rebuildObjects(0));
    const std::size_t before = held();
    for (std::size_t bound = 0; bound <= 6; ++bound) {
        makeFiveObjects();
        velt::retireObjects(bound);
        EXPECT_EQ(nullptr, VELTObj);
        EXPECT_EQ(0U, velt::objectTableSize());
        EXPECT_EQ(5U, ulObjCount) << "the count outlives the table";
        const std::size_t kept = bound < 5 ? 5 - bound : 0;
        EXPECT_EQ(before + kept + (kept == 0 ? 0 : 1), held()) << bound;
        velt::retireObjects(0);
        EXPECT_EQ(before, held()) << "reclaimed by the next call";
    }
}

TEST_F(TableMemory, TheNextLoadReclaimsWhatWasRetired)
{
    ASSERT_TRUE(velt::rebuildObjects(0));
    const std::size_t before = held();
    makeFiveObjects();
    velt::retireObjects(1);
    EXPECT_EQ(before + 5, held());
    makeTable(4);
    EXPECT_EQ(before + 1, held());
}

TEST_F(TableMemory, FinaliseFreesAsManyBlocksAsThereAreReaders)
{
    for (std::size_t readers = 1; readers <= 3; ++readers) {
        ASSERT_EQ(readers, static_cast<std::size_t>(rCount));
        makeFiveObjects();
        EXPECT_EQ(CKR_OK, C_Finalize(nullptr));
        EXPECT_EQ(nullptr, VELTObj);
        EXPECT_EQ(5U, ulObjCount);
        const std::size_t before = held();
        velt::retireObjects(0); // the blocks behind the bound, and the array that owned them
        EXPECT_EQ(before - (5 - readers) - 1, held());
        sim::pcsc::plugReader("Reader " + std::to_string(readers));
        startModule();
    }
}

TEST_F(TableMemory, RoundsOfLoadingAndFinalisingDoNotGrow)
{
    std::size_t afterFirst = 0;
    for (int round = 0; round < 5; ++round) {
        makeFiveObjects();
        EXPECT_EQ(CKR_OK, C_Finalize(nullptr));
        afterFirst = round == 0 ? held() : afterFirst;
        EXPECT_EQ(afterFirst, held()) << round;
        startModule();
    }
}

// --- A search ---------------------------------------------------------------------------------

class SearchMemory : public SearchWorld {
protected:
    // Leaves nothing of a search behind.
    void TearDown() override
    {
        EXPECT_EQ(CKR_OK, init(empty()));
        EXPECT_EQ(CKR_OK, VELT_FindObjectsFinal(session()));
        SearchWorld::TearDown();
        EXPECT_EQ(0U, held());
    }
};

TEST_F(SearchMemory, FinalFreesAllThatASearchOwns)
{
    makeMixedTable();
    find(certificates().add(CKA_ISSUER, {1}));
    const std::size_t before = held();
    for (int round = 0; round < 3; ++round) {
        find(certificates().add(CKA_ISSUER, {1}));
    }
    EXPECT_EQ(before, held());
}

TEST_F(SearchMemory, AReplacedTemplateIsFreed)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(certificates().add(CKA_ISSUER, {1})));
    const std::size_t before = held();
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(CKR_OK, init(certificates().add(CKA_VALUE, {1}).add(CKA_ISSUER, {1})));
    }
    EXPECT_EQ(before, held());
}

TEST_F(SearchMemory, WithoutMemoryForATemplateTheOldOneStays)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(certificates().add(CKA_LABEL, bytesOf("one"))));
    EXPECT_EQ((Handles{1}), next(1, 1));
    const ObjectEntry* before = pTempl;
    Template search = certificates().add(CKA_ISSUER, {1});
    {
        const FailingAllocation failing(1);
        const MessageMark mark;
        EXPECT_EQ(CKR_HOST_MEMORY, init(search));
        EXPECT_MESSAGES(mark);
    }
    EXPECT_EQ(before, pTempl);
    EXPECT_EQ('o', pTempl->label[0]);
    EXPECT_EQ(0U, ulTCount);
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ(9U, next(0, 20).size());
}

TEST_F(SearchMemory, WithoutMemoryForCertificateFieldsTheSearchDoesNotStart)
{
    makeMixedTable();
    Template search = certificates().add(CKA_ISSUER, {1});
    {
        const FailingAllocation failing(2);
        EXPECT_EQ(CKR_HOST_MEMORY, init(search));
    }
    EXPECT_EQ(0, bFindInit);
    EXPECT_EQ(0U, ulTCount);
    ASSERT_NE(nullptr, pTempl);
    EXPECT_EQ(nullptr, pTempl->attrs);
    EXPECT_EQ((Handles{1, 4}), find(certificates().add(CKA_ISSUER, {0x30, 0x02})));
}

TEST_F(SearchMemory, WithoutMemoryForItsMarksATableIsNotBuilt)
{
    makeMixedTable();
    {
        const FailingAllocation failing(1);
        EXPECT_FALSE(velt::rebuildObjects(2000));
    }
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_EQ(0U, velt::objectTableSize());
    makeMixedTable();
    EXPECT_EQ((Handles{1, 4, 5, 6}), find(certificates()));
}

TEST_F(SearchMemory, WithoutMemoryForItsMarksASearchOfALargeTableDoesNotStart)
{
    makeTable(2000);
    ASSERT_EQ(CKR_OK, init(empty()));
    ASSERT_EQ(CKR_OK, VELT_FindObjectsFinal(session()));
    Template all = empty();
    {
        const FailingAllocation failing(2); // the first is the template's
        EXPECT_EQ(CKR_HOST_MEMORY, init(all));
    }
    EXPECT_EQ(0, bFindInit);
    EXPECT_EQ(Handles{}, find(empty()));
}

TEST_F(SearchMemory, AStepAllocatesNothingForATableThatHasGrown)
{
    makeMixedTable();
    ASSERT_EQ(CKR_OK, init(empty()));
    EXPECT_EQ((Handles{1, 2, 3}), next(3, 3));
    makeTable(2000);
    for (int i = 0; i < 2000; ++i) {
        addPublicKey();
    }
    Handles handles(2000);
    CK_ULONG count = 0;
    const std::size_t before = asked();
    EXPECT_EQ(CKR_OK, VELT_FindObjects(session(), handles.data(), 2000, &count));
    EXPECT_EQ(before, asked());
    EXPECT_EQ(1997U, count);
    EXPECT_EQ(4U, handles[0]);
}

TEST_F(SearchMemory, AStepAllocatesNothing)
{
    makeTable(200);
    for (int i = 0; i < 200; ++i) {
        addLoadedCertificate();
    }
    ASSERT_EQ(CKR_OK, init(certificates().add(CKA_ISSUER, {0x30, 0x02})));
    const std::size_t before = asked();
    Handles handles(200);
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_OK, VELT_FindObjects(session(), handles.data(), 50, &count));
    EXPECT_EQ(CKR_OK, VELT_FindObjects(session(), handles.data(), 200, &count));
    EXPECT_EQ(150U, count);
    EXPECT_EQ(before, asked());
}

// --- Attributes -------------------------------------------------------------------------------

using AttributeMemory = RetrievalWorld;

TEST_F(AttributeMemory, AReadAllocatesNothing)
{
    certificate().valueLen = 0;
    std::uint8_t buffer[1024];
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, buffer, sizeof buffer},
                                 {CKA_VALUE, buffer, sizeof buffer},
                                 {CKA_ISSUER, buffer, sizeof buffer},
                                 {CKA_LABEL, buffer, 1},
                                 {CKA_SIGN, nullptr, 0},
                                 {CKA_APPLICATION, nullptr, 0}};
    const std::size_t before = asked();
    EXPECT_EQ(CKR_OK, VELT_GetAttributeValue(session(), CERTIFICATE, attributes, 6));
    EXPECT_EQ(before, asked());
}

} // namespace
