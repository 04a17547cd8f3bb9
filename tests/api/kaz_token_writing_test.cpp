// What changes a KAZTOKEN: writing certificates and destroying key pairs.
// C_CreateObject, C_DestroyObject.
#include "sim/cards/gzip_member.h"
#include "sim/cards/test_ca.h"
#include "tests/support/kaz_token_host.h"

#include <string>

namespace velt_test {
namespace {

const Sent SELECT_CERTIFICATES = command("00 A4 08 04 06 10 00 10 00 60 04", 4);
const Sent SELECT_LIST_DIRECTORY = command("00 A4 08 04 04 10 00 10 10", 4);
const Sent DELETE_LIST = command("00 E4 00 00 02 10 10", 4);
const Sent DELETE_SELECTED = command("00 E4 00 00", 4);

class KazTokenWritingTest : public KazTokenHost {
protected:
    CK_RV create(std::vector<CK_ATTRIBUTE> attributes)
    {
        return p11.C_CreateObject(session, attributes.data(), attributes.size(), &created);
    }
    std::vector<CK_ATTRIBUTE> byLabel(Bytes& label)
    {
        return {attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_TOKEN, yes),
                attributeOf(CKA_LABEL, label), attributeOf(CKA_VALUE, der)};
    }
    std::vector<CK_ATTRIBUTE> byId(CK_BYTE& id)
    {
        return {attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_TOKEN, yes),
                attributeOf(CKA_ID, id), attributeOf(CKA_VALUE, der)};
    }
    // What the token gets; UPDATE BINARY keeps the room of the command before.
    static Commands writing(std::uint8_t id, const Bytes& member)
    {
        Commands commands{SELECT_CERTIFICATES,
                          selectPlain(0x04, id),
                          {Bytes{0x00, 0xE4, 0x00, 0x00, 0x02, 0x00, id}, 4},
                          createFile(0x00, id, member)};
        return commands + written(member);
    }
    static Commands written(const Bytes& content)
    {
        Commands commands = writeFile(content);
        for (Sent& chunk : commands) {
            chunk.capacity = 2; // as long as the reply to the command before
        }
        return commands;
    }
    static Bytes member(const sim::KazToken& held, std::uint8_t id)
    {
        return held.file({0x1000, 0x1000, 0x6004, id}).value_or(Bytes{});
    }
    static Commands destroying(const Bytes& list, std::uint8_t id)
    {
        return Commands{SELECT_LIST_DIRECTORY, DELETE_LIST, createFile(0x10, 0x10, list)} +
               written(list) +
               Commands{selectPlain(0x01, id), DELETE_SELECTED,       selectPlain(0x02, id),
                        DELETE_SELECTED,       selectPlain(0x04, id), DELETE_SELECTED};
    }

    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_BBOOL yes = CK_TRUE;
    Bytes der = sim::authorityCertificate();
    CK_OBJECT_HANDLE created = NO_HANDLE;
};

TEST_F(KazTokenWritingTest, ACertificateIsWrittenUnderTheLabelOfAKey)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes label = bytesOf(labelOf(1));
    label.push_back(0x00);
    ASSERT_NE(der, token->certificate(1));
    ASSERT_RV(CKR_OK, create(byLabel(label)));
    EXPECT_EQ(NO_HANDLE, created) << "no handle is told";
    EXPECT_EQ(der, token->certificate(1));
    EXPECT_EQ(writing(1, member(*token, 1)) + loadObjects(*token, {1, 2, 3}), sent());
    EXPECT_EQ(der, value(RSA_CERTIFICATE, CKA_VALUE));
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
}

TEST_F(KazTokenWritingTest, AFirstCertificateIsWrittenUnderTheIdOfAKey)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    CK_BYTE id = 3;
    ASSERT_RV(CKR_OK, create(byId(id)));
    EXPECT_EQ(der, token->certificate(3));
    EXPECT_EQ(writing(3, member(*token, 3)) + loadObjects(*token, {1, 2, 3}), sent());
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6, 7, 8, 9}), find({}));
    EXPECT_EQ(der, value(9, CKA_VALUE));
    EXPECT_EQ(Bytes{3}, value(9, CKA_ID));
    EXPECT_EQ(bytesOf(labelOf(3)), value(9, CKA_LABEL));
}

TEST_F(KazTokenWritingTest, AWrittenCertificateStaysOnTheToken)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    CK_BYTE id = 2;
    ASSERT_RV(CKR_OK, create(byId(id)));
    ASSERT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    slots();
    session = open(0);
    EXPECT_EQ(der, value(GOST_CERTIFICATE, CKA_VALUE));
}

TEST_F(KazTokenWritingTest, ALabelThatNoKeyHasIsNoPlace)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes label = bytesOf(labelOf(4));
    label.push_back(0x00);
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create(byLabel(label)));
    Bytes longLabel(41, 'a');
    EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create(byLabel(longLabel)));
    EXPECT_TRUE(sent().empty());
}

TEST_F(KazTokenWritingTest, WithoutThePinTheTokenRefusesTheNewFile)
{
    openOn();
    const Bytes before = token->certificate(1);
    CK_BYTE id = 1;
    EXPECT_RV(CKR_FUNCTION_FAILED, create(byId(id)));
    EXPECT_EQ(before, token->certificate(1));
    EXPECT_EQ(0x8269U, sessionInfo(session).ulDeviceError);
}

TEST_F(KazTokenWritingTest, DestroyingAnyObjectOfAPairDestroysThePair)
{
    for (const CK_OBJECT_HANDLE object : {GOST_PRIVATE, GOST_PUBLIC, GOST_CERTIFICATE}) {
        ASSERT_NO_FATAL_FAILURE(openAndLogin());
        const Bytes before = token->list().value_or(Bytes{});
        ASSERT_EQ(4U + 3 * 34, before.size());
        Bytes shorter(before.begin(), before.begin() + 38);
        shorter.insert(shorter.end(), before.begin() + 72, before.end());
        ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, object));
        EXPECT_EQ(shorter, token->list());
        EXPECT_EQ(destroying(shorter, 2) + loadObjects(*token, {1, 3}), sent());
        for (const std::uint16_t directory : sim::KazPath{0x6001, 0x6002, 0x6004}) {
            EXPECT_FALSE(token->hasFile({0x1000, 0x1000, directory, 0x0002}));
            EXPECT_EQ(directory != 0x6004, token->hasFile({0x1000, 0x1000, directory, 0x0003}));
        }
        EXPECT_EQ((Handles{1, 2, 3, 4, 5}), find({}));
        EXPECT_EQ(Bytes{3}, value(4, CKA_ID));
        KazTokenHost::TearDown();
    }
}

TEST_F(KazTokenWritingTest, DestroyingEveryPairLeavesAnEmptyList)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t left : {5U, 2U, 0U}) {
        ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, 1));
        EXPECT_EQ(left, find({}).size());
    }
    EXPECT_EQ(hex("01 00 00 10"), token->list());
}

TEST_F(KazTokenWritingTest, APairWithoutACertificateIsDestroyedToo)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, SMALL_PRIVATE));
    EXPECT_FALSE(token->hasFile({0x1000, 0x1000, 0x6001, 0x0003}));
    EXPECT_FALSE(token->hasFile({0x1000, 0x1000, 0x6002, 0x0003}));
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({}));
}

TEST_F(KazTokenWritingTest, WithoutThePinNothingIsDestroyed)
{
    openOn();
    const Bytes before = token->state();
    EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, RSA_PUBLIC)) << "told by the next load";
    EXPECT_EQ(before, token->state());
    EXPECT_EQ(8U, find({}).size());
}

TEST_F(KazTokenWritingTest, HandlesOfNoObjectChangeNothing)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes before = token->state();
    for (const CK_OBJECT_HANDLE stray :
         {CK_OBJECT_HANDLE{0}, CK_OBJECT_HANDLE{9}, CK_OBJECT_HANDLE{10}, CK_OBJECT_HANDLE{1000},
          ~CK_OBJECT_HANDLE{0}}) {
        EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, stray));
    }
    EXPECT_EQ(before, token->state());
    EXPECT_EQ(8U, find({}).size());
}

TEST_F(KazTokenWritingTest, ALongListIsWrittenInChunks)
{
    std::vector<sim::KazPair> pairs;
    for (std::uint8_t id = 1; id <= 51; ++id) {
        pairs.push_back({.id = id, .kind = sim::KazKeyKind::Rsa1024, .certificate = id == 2});
    }
    ASSERT_NO_FATAL_FAILURE(openAndLogin(withPairs(pairs)));
    const Bytes before = token->list().value_or(Bytes{});
    ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, 5)) << "the certificate of the second pair";
    Bytes shorter(before.begin(), before.begin() + 38);
    shorter.insert(shorter.end(), before.begin() + 72, before.end());
    EXPECT_EQ(shorter, token->list()) << "with the record that is not shown";
    EXPECT_EQ(100U, find({}).size()) << "which takes the place that is free";
    CK_BYTE last = 51;
    EXPECT_EQ((Handles{99, 100}), find({attributeOf(CKA_ID, last)}));
}

} // namespace
} // namespace velt_test
