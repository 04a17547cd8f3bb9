// Every exchange with a KAZTOKEN is refused once, or finds the token gone: what the host is told,
// what is left on the token and of the objects, and that the next attempt succeeds.
// C_OpenSession, C_FindObjectsInit, C_Sign, C_CreateObject, C_DestroyObject.
#include "sim/cards/test_ca.h"
#include "tests/support/kaz_token_host.h"

#include <map>
#include <string>

namespace velt_test {
namespace {

const Handles ALL{1, 2, 3, 4, 5, 6, 7, 8};
const Bytes REFUSAL = hex("6F 00");

class KazTokenFaultsTest : public KazTokenHost {
protected:
    // The n-th command from here on does not reach the token.
    static void refuse(std::size_t n) { pcsc::replyNth(n, REFUSAL); }

    CK_RV openFails()
    {
        session = NO_HANDLE;
        const CK_RV result = p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session);
        EXPECT_NE(NO_HANDLE, session) << "the session stands all the same";
        return result;
    }
    CK_RV writeCertificate(CK_BYTE id, Bytes& der)
    {
        CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
        CK_BBOOL yes = CK_TRUE;
        std::vector<CK_ATTRIBUTE> attributes{attributeOf(CKA_CLASS, objectClass),
                                             attributeOf(CKA_TOKEN, yes), attributeOf(CKA_ID, id),
                                             attributeOf(CKA_VALUE, der)};
        CK_OBJECT_HANDLE handle = NO_HANDLE;
        return p11.C_CreateObject(session, attributes.data(), attributes.size(), &handle);
    }
    // The state of a fresh, logged-in token is put back.
    void putBack(const Bytes& state)
    {
        token->restore(state);
        EXPECT_EQ(Bytes(hex("90 00")), token->transmit(hex("00 20 00 02 06 31 32 33 34 35 36")));
        refresh();
        EXPECT_EQ(ALL, find({}));
        forget();
    }
};

TEST_F(KazTokenFaultsTest, LoadingMayBeRefusedAtEachExchange)
{
    meet();
    const Commands commands = loadObjects(*token, {1, 2, 3});
    const std::map<std::size_t, Handles> withoutCertificate{
        {4, {1, 2, 3, 4, 5, 6, 7}}, {6, {1, 2, 3, 4, 5, 6, 7}}, {8, ALL}};
    for (std::size_t at = 0; at < commands.size(); ++at) {
        SCOPED_TRACE("command " + std::to_string(at + 1));
        const auto left = withoutCertificate.find(at);
        refresh();
        refuse(at + 1);
        EXPECT_RV(left == withoutCertificate.end() ? CKR_FUNCTION_FAILED : CKR_OK, openFails());
        pcsc::clearPlans();
        EXPECT_EQ(left == withoutCertificate.end() ? ALL : left->second, find({}))
            << "a failed load is repeated";
        refresh();
        EXPECT_EQ(ALL, find({}));
        EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    }
}

TEST_F(KazTokenFaultsTest, TheTokenMayBePulledOutAtEachExchangeOfALoad)
{
    meet();
    const std::size_t exchanges = loadObjects(*token, {1, 2, 3}).size();
    for (std::size_t n = 1; n <= exchanges; ++n) {
        SCOPED_TRACE(n);
        refresh();
        pcsc::Action pull;
        pull.before = [] { pcsc::removeCard(CARD_READER); };
        pcsc::onNth(pcsc::Function::Transmit, n, pull);
        const CK_RV result = openFails();
        EXPECT_TRUE(result == CKR_OK || result == CKR_FUNCTION_FAILED) << codeName(result);
        EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
        pcsc::clearPlans();
        pcsc::insertCard(CARD_READER, token);
        refresh();
        session = open(0);
        EXPECT_EQ(ALL, find({}));
        EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    }
}

TEST_F(KazTokenFaultsTest, SigningMayBeRefusedAtEachExchangeAndGoesOn)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes digest(32, 0x21);
    Bytes signature;
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    // Choosing the key, reading the public key for its size, both parts of the block.
    for (std::size_t n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        refresh();
        find({}); // loads the objects anew: the public key has not been read
        forget();
        refuse(n);
        EXPECT_RV(n == 2 ? CKR_KEY_HANDLE_INVALID : CKR_FUNCTION_FAILED, sign(digest, signature));
        EXPECT_EQ(n, sent().size()) << "nothing is sent behind a refusal";
        EXPECT_EQ(0x006FU, sessionInfo(session).ulDeviceError);
    }
    EXPECT_EQ(0U, token->counters().signatures);
    ASSERT_RV(CKR_OK, sign(digest, signature));
    EXPECT_EQ(digest, token->rsaKey(1).recover(signature));
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GOST_SIGN));
    for (std::size_t n = 1; n <= 2; ++n) {
        forget();
        refuse(n);
        EXPECT_RV(CKR_FUNCTION_FAILED, sign(digest, signature));
        EXPECT_EQ(n, sent().size());
    }
    ASSERT_RV(CKR_OK, sign(digest, signature));
    EXPECT_TRUE(token->gostKey(2).verify(digest, signature));
}

TEST_F(KazTokenFaultsTest, WritingACertificateMayBeRefusedAtEachExchange)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes fresh = token->state();
    const Bytes before = token->certificate(1);
    Bytes der = sim::authorityCertificate();
    // Directory, file, deletion, creation, three or four chunks.
    ASSERT_RV(CKR_OK, writeCertificate(1, der));
    const std::size_t exchanges = sent().size() - loadObjects(*token, {1, 2, 3}).size();
    ASSERT_LT(6U, exchanges);
    for (std::size_t n = 1; n <= exchanges; ++n) {
        SCOPED_TRACE(n);
        putBack(fresh);
        refuse(n);
        EXPECT_RV(CKR_FUNCTION_FAILED, writeCertificate(1, der));
        const bool gone = n > 3; // the old file was deleted before its successor was made
        EXPECT_EQ(gone ? Bytes{} : before, token->certificate(1));
        EXPECT_EQ(n != 4, token->hasFile({0x1000, 0x1000, 0x6004, 0x0001}));
        // A refused deletion is passed over, and the creation then finds the old file.
        EXPECT_EQ(n == 3 ? 0x896AU : 0x006FU, sessionInfo(session).ulDeviceError);
        pcsc::clearPlans();
        ASSERT_RV(CKR_OK, writeCertificate(1, der));
        EXPECT_EQ(der, token->certificate(1));
    }
}

TEST_F(KazTokenFaultsTest, DestroyingAPairMayBeRefusedAtEachExchange)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes fresh = token->state();
    // The list's directory, its deletion, creation and content; then two for each of three files.
    for (std::size_t n = 1; n <= 10; ++n) {
        SCOPED_TRACE(n);
        putBack(fresh);
        refuse(n);
        const bool unwritten = n == 4; // nothing but zero bytes: records of an ID that no pair has
        EXPECT_RV(unwritten ? CKR_HOST_MEMORY : CKR_OK, p11.C_DestroyObject(session, RSA_PUBLIC))
            << "the result of the next load";
        EXPECT_EQ(n <= 6, token->hasFile({0x1000, 0x1000, 0x6001, 0x0001}));
        EXPECT_EQ(n <= 8, token->hasFile({0x1000, 0x1000, 0x6002, 0x0001}));
        EXPECT_TRUE(token->hasFile({0x1000, 0x1000, 0x6004, 0x0001}));
        if (unwritten) {
            EXPECT_EQ(Bytes(72, 0x00), token->list());
            EXPECT_RV(CKR_DEVICE_ERROR, p11.C_FindObjectsInit(session, nullptr, 0));
            continue;
        }
        const std::size_t objects = find({}).size();
        if (n <= 2) {
            EXPECT_EQ(8U, objects) << "nothing was changed";
        } else if (n == 3) {
            EXPECT_EQ(std::nullopt, token->list());
            EXPECT_EQ(0U, objects) << "the list is gone, and with it every pair";
        } else {
            EXPECT_EQ(5U, objects);
            EXPECT_EQ(72U, token->list()->size());
        }
    }
}

} // namespace
} // namespace velt_test
