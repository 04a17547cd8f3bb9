// What a search reads from the host's template, and how equal fields are counted.
#include "tests/support/search_world.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;

class SearchTemplate : public SearchWorld {
protected:
    // The label of the search template, all of its bytes.
    static std::string labelWanted()
    {
        return {std::begin(pTempl->label), std::end(pTempl->label)};
    }
};

TEST_F(SearchTemplate, AnEmptyTemplateFindsEveryObject)
{
    makeMixedTable();
    velt::entryOf(3)->handle = REMOVED_MARKER;
    EXPECT_EQ((Handles{1, 2, 4, 5, 6, 7, 8, 9, 10}), find(empty()));
}

TEST_F(SearchTemplate, AnEmptyTemplateFindsAnObjectWithoutItsBlock)
{
    makeTable(2);
    addObject(CKO_CERTIFICATE);
    EXPECT_EQ((Handles{1}), find(empty()));
    EXPECT_EQ((Handles{1}), find(certificates().add(CKA_LABEL, {})));
}

TEST_F(SearchTemplate, EachCommonFieldIsCompared)
{
    makeMixedTable();
    // Objects without a label (4, 5, 6) score a point in any template that names none.
    EXPECT_EQ((Handles{4, 5, 6, 7}), find(Template{}.add(CKA_PRIVATE, {1})));
    EXPECT_EQ((Handles{4, 5, 6, 8}), find(Template{}.add(CKA_MODIFIABLE, {1})));
    EXPECT_EQ((Handles{4, 5, 6, 9}), find(Template{}.add(CKA_TOKEN, {0})));
    EXPECT_EQ((Handles{4, 5, 6, 10}), find(Template{}.add(CKA_ID, {0x87})));
    EXPECT_EQ((Handles{7, 8, 9, 10}), find(Template{}.add(CKA_LABEL, bytesOf("two"))));
    EXPECT_EQ((Handles{3, 4, 5, 6, 7}), find(Template{}.addClass(CKO_PRIVATE_KEY)));
}

TEST_F(SearchTemplate, FixedSizesAreReadWhateverLengthIsStated)
{
    makeTable(3);
    addPublicKey("x").isPrivate = 1;
    addPrivateKey("x").id[0] = 0x41;
    EXPECT_EQ((Handles{2}), find(Template{}.addClass(CKO_PRIVATE_KEY).withLength(0)));
    EXPECT_EQ((Handles{2}), find(Template{}.addClass(CKO_PRIVATE_KEY).withLength(1)));
    EXPECT_EQ((Handles{1}), find(Template{}.add(CKA_PRIVATE, {1}).withLength(0)));
    EXPECT_EQ((Handles{2}), find(Template{}.add(CKA_ID, {0x41, 0x42, 0x43})));
}

TEST_F(SearchTemplate, AClassIsComparedInAllItsBytes)
{
    makeTable(2);
    addPublicKey("x");
    constexpr CK_OBJECT_CLASS HIGH_BIT = CK_OBJECT_CLASS{1} << 63;
    EXPECT_EQ((Handles{}), find(Template{}.addClass(CKO_PUBLIC_KEY | HIGH_BIT)));
}

TEST_F(SearchTemplate, UnsetFieldsScoreNothing)
{
    makeTable(3);
    ObjectEntry& entry = addPublicKey("x");
    entry.isPrivate = entry.isToken = entry.isModifiable = entry.id[0] = 0;
    ObjectEntry& other = addPublicKey("y");
    other.isPrivate = other.isToken = other.isModifiable = other.id[0] = 1;
    EXPECT_EQ((Handles{}), find(Template{}.add(UNKNOWN_ATTRIBUTE, {1})));
}

TEST_F(SearchTemplate, AnUnsetByteIsMetByTheByteThatStandsForIt)
{
    makeTable(2);
    addPublicKey("x").id[0] = 0xFF;
    EXPECT_EQ((Handles{1}), find(Template{}.add(UNKNOWN_ATTRIBUTE, {1})));
}

TEST_F(SearchTemplate, ANullValueLeavesItsFieldAndCounts)
{
    makeTable(3);
    addPublicKey("x");
    ASSERT_EQ(CKR_OK, init(Template{}
                               .add(CKA_LABEL, bytesOf("x"))
                               .addNull(CKA_LABEL)
                               .addNull(CKA_LABEL, 1)
                               .addNull(CKA_CLASS, 8)
                               .addNull(CKA_TOKEN, 1)
                               .addNull(CKA_PRIVATE, 1)
                               .addNull(CKA_MODIFIABLE, 1)
                               .addNull(CKA_ID, 1)));
    EXPECT_EQ(8U, ulTCount);
    EXPECT_EQ(0xFFFFFFFFU, pTempl->objClass);
    EXPECT_EQ(0xFF, pTempl->isToken);
    EXPECT_EQ(0xFF, pTempl->isPrivate);
    EXPECT_EQ(0xFF, pTempl->isModifiable);
    EXPECT_EQ(0xFF, pTempl->id[0]);
    EXPECT_EQ('x', pTempl->label[0]);
    EXPECT_EQ(nullptr, pTempl->attrs);
    EXPECT_EQ((Handles{}), next(0, 10));
}

TEST_F(SearchTemplate, ALabelIsComparedUpToItsFirstZeroByte)
{
    makeTable(4);
    addPublicKey("key");
    put(addPublicKey().label, Bytes{'k', 'e', 'y', 0, 'A'});
    addPublicKey("keys");
    EXPECT_EQ((Handles{1, 2}), find(Template{}.add(CKA_LABEL, bytesOf("key"))));
    EXPECT_EQ((Handles{1, 2}), find(Template{}.add(CKA_LABEL, {'k', 'e', 'y', 0, 'B'})));
    EXPECT_EQ((Handles{3}), find(Template{}.add(CKA_LABEL, bytesOf("keys"))));
    EXPECT_EQ((Handles{}), find(Template{}.add(CKA_LABEL, bytesOf("ke"))));
    EXPECT_EQ((Handles{}), find(Template{}.add(CKA_LABEL, bytesOf("KEY"))));
}

TEST_F(SearchTemplate, ALabelOfFiftyBytesIsComparedWhole)
{
    const std::string fifty(50, 'L');
    std::string other = fifty;
    other.back() = 'M';
    makeTable(5);
    addPublicKey(fifty).cardName[0] = 'c'; // what follows the field does not matter
    addPublicKey(fifty).cardName[0] = 'd';
    addPublicKey(other);
    addPublicKey();
    EXPECT_EQ((Handles{1, 2}), find(Template{}.add(CKA_LABEL, bytesOf(fifty))));
    EXPECT_EQ((Handles{3}), find(Template{}.add(CKA_LABEL, bytesOf(other))));
}

TEST_F(SearchTemplate, ALabelOfFiftyOneBytesSearchesForNone)
{
    makeTable(3);
    addPublicKey(std::string(50, 'L'));
    addPublicKey();
    EXPECT_EQ((Handles{2}), find(Template{}.add(CKA_LABEL, bytesOf(std::string(51, 'L')))));
    ASSERT_EQ(CKR_OK, init(Template{}
                               .add(CKA_LABEL, bytesOf(std::string(50, 'L')))
                               .add(CKA_LABEL, bytesOf(std::string(51, 'L')))));
    EXPECT_EQ(std::string(50, '\0'), labelWanted()) << "the one before is gone as well";
}

TEST_F(SearchTemplate, ALaterLabelReplacesAllOfTheEarlier)
{
    ASSERT_EQ(CKR_OK,
              init(Template{}.add(CKA_LABEL, bytesOf("xyab")).add(CKA_LABEL, bytesOf("ab"))));
    EXPECT_EQ("ab" + std::string(48, '\0'), labelWanted());
}

TEST_F(SearchTemplate, AnEmptyLabelFindsObjectsWithoutOne)
{
    makeMixedTable();
    EXPECT_EQ((Handles{4, 5, 6}), find(Template{}.add(CKA_LABEL, {})));
}

TEST_F(SearchTemplate, AClassFindsItsObjectsAndThoseWithoutALabel)
{
    makeMixedTable();
    EXPECT_EQ((Handles{1, 4, 5, 6}), find(certificates()));
    EXPECT_EQ((Handles{2, 4, 5, 6, 8, 9, 10}), find(Template{}.addClass(CKO_PUBLIC_KEY)));
}

TEST_F(SearchTemplate, AnUnknownAttributeCostsAPoint)
{
    makeMixedTable();
    EXPECT_EQ((Handles{4}), find(certificates().add(UNKNOWN_ATTRIBUTE, {1})));
    EXPECT_EQ((Handles{4}), find(certificates().addNull(UNKNOWN_ATTRIBUTE)));
    EXPECT_EQ((Handles{4, 5, 6}), find(Template{}.add(UNKNOWN_ATTRIBUTE, {1})));
}

TEST_F(SearchTemplate, AnAttributeGivenTwiceCountsTwiceAndScoresOnce)
{
    makeMixedTable();
    EXPECT_EQ((Handles{4}), find(certificates().addClass(CKO_CERTIFICATE)));
    EXPECT_EQ((Handles{}),
              find(certificates().addClass(CKO_CERTIFICATE).addClass(CKO_CERTIFICATE)));
}

TEST_F(SearchTemplate, TheLastOfAnAttributeGivenTwiceIsCompared)
{
    makeMixedTable();
    EXPECT_EQ((Handles{5}), find(certificates().addClass(CKO_PUBLIC_KEY)));
}

TEST_F(SearchTemplate, MoreEqualFieldsThanAttributesMatchToo)
{
    makeTable(2);
    addPublicKey("x").id[0] = 0x87;
    EXPECT_EQ((Handles{1}), find(Template{}
                                     .addClass(CKO_PUBLIC_KEY)
                                     .add(CKA_TOKEN, {1})
                                     .add(CKA_PRIVATE, {0})
                                     .add(CKA_MODIFIABLE, {0})
                                     .add(CKA_ID, {0x87})
                                     .add(CKA_LABEL, bytesOf("x"))));
    EXPECT_EQ((Handles{}), find(Template{}
                                    .addClass(CKO_PUBLIC_KEY)
                                    .add(CKA_TOKEN, {1})
                                    .add(CKA_PRIVATE, {0})
                                    .add(CKA_MODIFIABLE, {0})
                                    .add(CKA_ID, {0x88})
                                    .add(CKA_LABEL, bytesOf("x"))));
}

} // namespace
