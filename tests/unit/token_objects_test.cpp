// What drivers do with their tokens' objects: listing them, reading a public key, telling the
// handles of a new key pair.
#include "src/objects/token_objects.h"

#include "tests/support/failing_alloc.h"
#include "tests/support/messages.h"
#include "tests/support/object_world.h"

#include <cstring>
#include <string>

namespace {

namespace alloc = velt_test::alloc;

using velt::ByteView;
using velt_test::MessageMark;
using velt_test::objects::Bytes;

class TokenObjects : public velt_test::objects::ObjectWorld {
protected:
    void SetUp() override
    {
        ObjectWorld::SetUp();
        ASSERT_TRUE(velt::rebuildObjects(1));
    }

    void TearDown() override
    {
        alloc::clear();
        ObjectWorld::TearDown();
    }

    static velt::TokenObject named(const Bytes& name, std::uint8_t id = 7)
    {
        return {.familyCode = 9, .label = name, .cardName = name, .id = id};
    }
};

const Bytes NAME{'k', 'e', 'y'};

TEST_F(TokenObjects, AnObjectIsAppendedWithItsFieldsAndDefaults)
{
    privKeyAttrTempl.sign = 1;
    EXPECT_EQ(velt::LOAD_DONE, velt::appendPrivateKey(named(NAME), CKK_VELT_GOST, CK_TRUE));
    ASSERT_EQ(1U, ulObjCount);
    ObjectEntry expected;
    std::memset(&expected, 0, sizeof expected);
    expected.handle = 1;
    expected.familyCode = 9;
    expected.objClass = CKO_PRIVATE_KEY;
    expected.isPrivate = 1;
    std::memcpy(expected.label, "key", 3);
    std::memcpy(expected.cardName, "key", 3);
    expected.cardNameLen = 3;
    expected.isToken = 1;
    expected.id[0] = 7;
    expected.attrs = VELTObj->attrs;
    EXPECT_EQ(0, std::memcmp(&expected, VELTObj, sizeof expected));
    const PrivKeyAttr* block = velt::privateKeyOf(VELTObj);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(CKK_VELT_GOST, block->keyType);
    EXPECT_EQ(1, block->sign);
}

TEST_F(TokenObjects, AFullTableGrowsAndNoObjectIsLost)
{
    for (std::uint8_t i = 0; i < 9; ++i) {
        ASSERT_EQ(velt::LOAD_DONE, velt::appendCertificate(named(NAME, i)));
    }
    ASSERT_EQ(9U, ulObjCount);
    for (std::uint64_t position = 0; position < 9; ++position) {
        EXPECT_EQ(position + 1, VELTObj[position].handle);
        EXPECT_EQ(position, VELTObj[position].id[0]);
        EXPECT_NE(nullptr, velt::certificateOf(VELTObj + position));
    }
}

TEST_F(TokenObjects, WithoutATableTheFirstObjectMakesOne)
{
    ASSERT_TRUE(velt::rebuildObjects(0));
    EXPECT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(NAME), CKK_RSA));
    EXPECT_EQ(1U, ulObjCount);
    EXPECT_NE(nullptr, velt::publicKeyOf(velt::entryOf(1)));
}

TEST_F(TokenObjects, WithoutMemoryNothingIsCounted)
{
    alloc::failNth(1); // the block: there is room in the table
    EXPECT_EQ(velt::LOAD_NO_MEMORY, velt::appendPublicKey(named(NAME), CKK_RSA));
    EXPECT_EQ(1U, alloc::refused());
    alloc::clear();
    EXPECT_EQ(0U, ulObjCount);
    EXPECT_EQ(REMOVED_MARKER, VELTObj->handle);
    ASSERT_EQ(velt::LOAD_DONE, velt::appendCertificate(named(NAME)));
    alloc::failNth(1); // the table
    EXPECT_EQ(velt::LOAD_NO_MEMORY, velt::appendPrivateKey(named(NAME), CKK_RSA, CK_FALSE));
    EXPECT_EQ(1U, alloc::refused());
    EXPECT_EQ(1U, ulObjCount);
    EXPECT_NE(nullptr, velt::certificateOf(VELTObj));
}

TEST_F(TokenObjects, LabelsAndNamesAreCutToTheirFields)
{
    const Bytes longName(60, 'x');
    ASSERT_EQ(velt::LOAD_DONE, velt::appendCertificate(named(longName)));
    EXPECT_EQ(50U, VELTObj->cardNameLen);
    EXPECT_EQ(50U, velt::cardNameOf(*VELTObj).size());
    EXPECT_EQ(7, VELTObj->id[0]);
    VELTObj->cardNameLen = 4000;
    EXPECT_EQ(50U, velt::cardNameOf(*VELTObj).size());
}

std::string readerCalled;

CK_RV readRsa(CK_SESSION_HANDLE, const ObjectEntry&, PubKeyAttr&) noexcept
{
    readerCalled = "rsa";
    return velt::LOAD_DONE;
}

CK_RV readGost(CK_SESSION_HANDLE, const ObjectEntry&, PubKeyAttr&) noexcept
{
    readerCalled = "gost";
    return velt::LOAD_CARD_FAILURE;
}

TEST_F(TokenObjects, APublicKeyIsReadByItsType)
{
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(NAME), CKK_RSA));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(NAME), CKK_VELT_GOST));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(NAME), CKK_DSA));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPrivateKey(named(NAME), CKK_RSA, CK_FALSE));
    struct {
        CK_OBJECT_HANDLE handle;
        const char* reader;
        CK_RV result;
    } const cases[]{{1, "rsa", CKR_OK}, {2, "gost", velt::LOAD_CARD_FAILURE},
                    {3, "", CKR_OK},    {4, "", CKR_OK},
                    {0, "", CKR_OK},    {99, "", CKR_OK}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.handle);
        readerCalled.clear();
        const MessageMark mark;
        EXPECT_EQ(one.result, velt::readPublicKey(session(), one.handle, readRsa, readGost,
                                                  "KAZTOKEN GetPublicKey CKR_OK"));
        EXPECT_EQ(one.reader, readerCalled);
        if (one.result == CKR_OK) {
            EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK");
        } else {
            EXPECT_MESSAGES(mark);
        }
    }
}

TEST_F(TokenObjects, TheLastKeysOfANameAreTold)
{
    const Bytes other{'k', 'e', 'y', 's'};
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(NAME), CKK_RSA));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPrivateKey(named(NAME), CKK_RSA, CK_FALSE));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendCertificate(named(NAME)));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(NAME), CKK_VELT_GOST));
    ASSERT_EQ(velt::LOAD_DONE, velt::appendPublicKey(named(other), CKK_RSA));
    CK_OBJECT_HANDLE publicKey = 55;
    CK_OBJECT_HANDLE privateKey = 66;
    const Bytes wanted{'k', 'e', 'y', 0, 'z'};
    velt::tellKeyPair(&ObjectEntry::label, wanted, &publicKey, &privateKey);
    EXPECT_EQ(4U, publicKey);
    EXPECT_EQ(2U, privateKey);
    velt::tellKeyPair(&ObjectEntry::cardName, Bytes{'k'}, &publicKey, &privateKey);
    EXPECT_EQ(4U, publicKey) << "what is not found stays";
    velt::tellKeyPair(&ObjectEntry::cardName, other, nullptr, nullptr);
    velt::tellKeyPair(&ObjectEntry::cardName, other, &publicKey, nullptr);
    EXPECT_EQ(5U, publicKey);
}

} // namespace
