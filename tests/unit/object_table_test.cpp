// The object table: its gate, its entries and blocks, and what stays of it after C_Finalize.
#include "src/objects/object_table.h"

#include "src/tokens/idc/idc.h"
#include "tests/support/messages.h"
#include "tests/support/object_world.h"

#include <cstring>

namespace {

using velt_test::MessageMark;
using velt_test::objects::DriverCall;
using velt_test::objects::scripted;

constexpr std::uint64_t OTHER_FLAGS = 0x30;

class ObjectTable : public velt_test::objects::ObjectWorld {
protected:
    // A table of five entries with a block each.
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

TEST_F(ObjectTable, ACurrentTableIsNotLoadedWhateverTheTokenType)
{
    for (const std::uint64_t tokenType : {0U, 1U, 2U, 3U, 4U, 77U}) {
        oiFlags = OTHER_FLAGS;
        const MessageMark mark;
        EXPECT_EQ(0U, VELTObjectsInit(session(), tokenType));
        EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit CKR_OK");
        EXPECT_EQ(OTHER_FLAGS, oiFlags);
        EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
    }
    EXPECT_TRUE(scripted.calls.empty());
}

TEST_F(ObjectTable, AStaleTableIsLoadedOnceAndAllFlagsAreCleared)
{
    oiFlags = RELOAD_OBJECTS | OTHER_FLAGS;
    const MessageMark mark;
    EXPECT_EQ(0U, VELTObjectsInit(session(), TOKEN_IDC));
    EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true",
                    "VELTObjectsInit complete", "VELTObjectsInit CKR_OK");
    EXPECT_EQ(0U, oiFlags);
    EXPECT_EQ(0U, VELTObjectsInit(session(), TOKEN_IDC));
    EXPECT_EQ((std::vector<DriverCall>{{"ObjectsInit", session(), 0}}), scripted.calls);
}

TEST_F(ObjectTable, TheFlagIsStillSetWhileTheDriverLoads)
{
    std::uint64_t seen = 0;
    scripted.objectsInit = [&seen] {
        seen = oiFlags;
        return CKR_OK;
    };
    oiFlags = RELOAD_OBJECTS;
    EXPECT_EQ(0U, VELTObjectsInit(session(), TOKEN_IDC));
    EXPECT_EQ(RELOAD_OBJECTS, seen);
}

TEST_F(ObjectTable, AnotherFamilyReplacesTheOperationsBeforeTheLoad)
{
    constexpr CK_SESSION_HANDLE NO_SESSION = 0; // the card cannot be asked: its names stay unread
    constexpr std::uint64_t NAMES_UNREADABLE = 6;
    stVELTTokens.type = TOKEN_KT;
    oiFlags = RELOAD_OBJECTS;
    EXPECT_EQ(NAMES_UNREADABLE, VELTObjectsInit(NO_SESSION, TOKEN_IDC));
    EXPECT_TRUE(scripted.calls.empty());
    EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
    EXPECT_EQ(&fObjectsInitIDC, stVELTTokens.ObjectsInit);
    EXPECT_EQ(&fGetCertificateIDC, stVELTTokens.GetCertificate);
}

TEST_F(ObjectTable, AnUnknownFamilyLoadsThroughTheOperationsThatStand)
{
    for (const std::uint64_t tokenType : {0U, 5U}) {
        stVELTTokens.type = TOKEN_IDC;
        oiFlags = RELOAD_OBJECTS;
        scripted.calls.clear();
        EXPECT_EQ(0U, VELTObjectsInit(session(), tokenType));
        EXPECT_EQ(TOKEN_NONE, stVELTTokens.type);
        EXPECT_EQ((std::vector<DriverCall>{{"ObjectsInit", session(), 0}}), scripted.calls);
        EXPECT_EQ(0U, oiFlags);
    }
}

TEST_F(ObjectTable, AFailedLoadIsPassedOnSilentlyAndTriedAgain)
{
    for (const CK_RV code : {CK_RV{1}, CK_RV{2}, CK_RV{6}, CK_RV{84}, ~CK_RV{0}}) {
        scripted.calls.clear();
        scripted.objectsInit = [code] { return code; };
        oiFlags = RELOAD_OBJECTS | OTHER_FLAGS;
        const MessageMark mark;
        EXPECT_EQ(code, VELTObjectsInit(session(), TOKEN_IDC));
        EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true");
        EXPECT_EQ(RELOAD_OBJECTS | OTHER_FLAGS, oiFlags);
        EXPECT_EQ(code, VELTObjectsInit(session(), TOKEN_IDC));
        scripted.objectsInit = [] { return CKR_OK; };
        EXPECT_EQ(0U, VELTObjectsInit(session(), TOKEN_IDC));
        EXPECT_EQ(3U, scripted.calls.size());
        EXPECT_EQ(0U, oiFlags);
    }
}

TEST_F(ObjectTable, ADriverThatCannotLoadIsNotSupported)
{
    stVELTTokens.ObjectsInit = nullptr;
    oiFlags = RELOAD_OBJECTS;
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, VELTObjectsInit(session(), TOKEN_IDC));
    EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
}

TEST_F(ObjectTable, ANewTableIsZeroedAndMarkedAsEmpty)
{
    makeFiveObjects();
    ASSERT_TRUE(velt::rebuildObjects(7));
    EXPECT_EQ(0U, ulObjCount);
    ASSERT_EQ(7U, velt::objectTableSize());
    ObjectEntry empty;
    std::memset(&empty, 0, sizeof empty);
    empty.handle = 0x4B5A0000;
    for (std::uint64_t position = 0; position < 7; ++position) {
        ASSERT_EQ(VELTObj + position, velt::entryAt(position));
        EXPECT_EQ(0, std::memcmp(&empty, velt::entryAt(position), sizeof empty)) << position;
    }
}

TEST_F(ObjectTable, AGrowingTableKeepsItsObjectsAndTheNewEntriesAreEmpty)
{
    makeFiveObjects();
    const std::vector<ObjectEntry> before(VELTObj, VELTObj + 5);
    ASSERT_TRUE(velt::growObjects(300));
    EXPECT_EQ(5U, ulObjCount);
    ASSERT_EQ(300U, velt::objectTableSize());
    EXPECT_EQ(0, std::memcmp(before.data(), VELTObj, 5 * sizeof(ObjectEntry)));
    ObjectEntry empty;
    std::memset(&empty, 0, sizeof empty);
    empty.handle = 0x4B5A0000;
    for (std::uint64_t position = 5; position < 300; ++position) {
        EXPECT_EQ(0, std::memcmp(&empty, velt::entryAt(position), sizeof empty)) << position;
    }
    EXPECT_EQ(nullptr, velt::entryAt(300));
}

TEST_F(ObjectTable, ATableNeverShrinksByGrowing)
{
    makeFiveObjects();
    const ObjectEntry* before = VELTObj;
    ASSERT_TRUE(velt::growObjects(5));
    ASSERT_TRUE(velt::growObjects(0));
    EXPECT_EQ(before, VELTObj);
    EXPECT_EQ(5U, velt::objectTableSize());
}

TEST_F(ObjectTable, EntriesAreFoundInsideTheTableOnly)
{
    makeTable(5);
    EXPECT_EQ(nullptr, velt::entryAt(5));
    EXPECT_EQ(nullptr, velt::entryAt(~std::uint64_t{0}));
    EXPECT_EQ(nullptr, velt::entryOf(0));
    EXPECT_EQ(VELTObj, velt::entryOf(1));
    EXPECT_EQ(VELTObj + 4, velt::entryOf(5));
    EXPECT_EQ(nullptr, velt::entryOf(6));
    EXPECT_EQ(nullptr, velt::entryOf(~CK_OBJECT_HANDLE{0}));
}

TEST_F(ObjectTable, NoTableHasNoEntries)
{
    makeFiveObjects();
    ASSERT_TRUE(velt::rebuildObjects(0));
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_EQ(0U, ulObjCount);
    EXPECT_EQ(0U, velt::objectTableSize());
    EXPECT_EQ(nullptr, velt::entryAt(0));
    EXPECT_EQ(nullptr, velt::entryOf(1));
}

template <class Block>
void expectZeroed(const Block* block)
{
    ASSERT_NE(nullptr, block);
    const Block zeros{};
    EXPECT_EQ(0, std::memcmp(&zeros, block, sizeof zeros));
}

TEST_F(ObjectTable, AttachedBlocksAreZeroedAndOwnedByTheirEntry)
{
    makeTable(3);
    const CertAttr* certificate = velt::attachCertificate(VELTObj[0]);
    expectZeroed(certificate);
    EXPECT_EQ(certificate, VELTObj[0].attrs);
    const PubKeyAttr* publicKey = velt::attachPublicKey(VELTObj[1]);
    expectZeroed(publicKey);
    EXPECT_EQ(publicKey, VELTObj[1].attrs);
    const PrivKeyAttr* privateKey = velt::attachPrivateKey(VELTObj[2]);
    expectZeroed(privateKey);
    EXPECT_EQ(privateKey, VELTObj[2].attrs);
}

TEST_F(ObjectTable, OnlyAMarkedOrBlocklessEntryIsNotLive)
{
    makeTable(2);
    ObjectEntry& entry = addCertificate();
    EXPECT_TRUE(velt::isLive(&entry));
    ulObjCount = 0; // the count does not matter
    EXPECT_TRUE(velt::isLive(velt::entryOf(1)));
    entry.handle = REMOVED_MARKER;
    EXPECT_FALSE(velt::isLive(&entry));
    entry.handle = 1;
    const velt_test::objects::WithoutBlock without(entry);
    EXPECT_FALSE(velt::isLive(&entry));
    EXPECT_FALSE(velt::isLive(velt::entryAt(1)));
    EXPECT_FALSE(velt::isLive(nullptr));
}

TEST_F(ObjectTable, ABlockIsReachedByItsClassAlone)
{
    makeFiveObjects();
    ObjectEntry* certificate = velt::entryOf(1);
    ObjectEntry* publicKey = velt::entryOf(2);
    ObjectEntry* privateKey = velt::entryOf(3);
    EXPECT_EQ(certificate->attrs, velt::certificateOf(certificate));
    EXPECT_EQ(nullptr, velt::publicKeyOf(certificate));
    EXPECT_EQ(nullptr, velt::privateKeyOf(certificate));
    EXPECT_EQ(nullptr, velt::certificateOf(publicKey));
    EXPECT_EQ(publicKey->attrs, velt::publicKeyOf(publicKey));
    EXPECT_EQ(nullptr, velt::privateKeyOf(publicKey));
    EXPECT_EQ(nullptr, velt::certificateOf(privateKey));
    EXPECT_EQ(nullptr, velt::publicKeyOf(privateKey));
    EXPECT_EQ(privateKey->attrs, velt::privateKeyOf(privateKey));
    publicKey->handle = REMOVED_MARKER;
    EXPECT_EQ(nullptr, velt::publicKeyOf(publicKey));
    EXPECT_EQ(nullptr, velt::certificateOf(nullptr));
}

} // namespace
