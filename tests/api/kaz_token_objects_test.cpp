// Which objects a KAZTOKEN has, and what they tell; lists and files of every size.
// C_OpenSession, C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal, C_GetAttributeValue.
#include "sim/cards/gzip_member.h"
#include "sim/cards/test_ca.h"
#include "tests/support/kaz_token_host.h"

#include <openssl/x509.h>

#include <map>
#include <string>
#include <utility>

namespace velt_test {
namespace {

const Bytes YES{1};
const Bytes NO{0};

using Values = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

Values common(CK_OBJECT_CLASS objectClass, std::uint8_t id)
{
    return {{CKA_CLASS, bytesOfNumber(objectClass)},
            {CKA_TOKEN, YES},
            {CKA_PRIVATE, NO},
            {CKA_MODIFIABLE, NO},
            {CKA_LABEL, bytesOf(labelOf(id))},
            {CKA_ID, Bytes{id}}};
}

Values publicKey(std::uint8_t id, CK_KEY_TYPE type, const Values& more)
{
    Values values = common(CKO_PUBLIC_KEY, id);
    values.insert({{CKA_KEY_TYPE, bytesOfNumber(type)},
                   {CKA_ENCRYPT, YES},
                   {CKA_WRAP, NO},
                   {CKA_VERIFY, YES},
                   {CKA_LOCAL, YES}});
    values.insert(more.begin(), more.end());
    return values;
}

Values privateKey(std::uint8_t id, CK_KEY_TYPE type, const Values& more = {})
{
    Values values = common(CKO_PRIVATE_KEY, id);
    values.insert({{CKA_KEY_TYPE, bytesOfNumber(type)},
                   {CKA_SENSITIVE, YES},
                   {CKA_DECRYPT, YES},
                   {CKA_SIGN, YES},
                   {CKA_EXTRACTABLE, NO},
                   {CKA_NEVER_EXTRACTABLE, YES}});
    values.insert(more.begin(), more.end());
    return values;
}

Values modulusOf(const sim::RsaKey& key)
{
    return {{CKA_MODULUS, key.modulus()},
            {CKA_MODULUS_BITS, bytesOfNumber(key.bits())},
            {CKA_PUBLIC_EXPONENT, hex("01 00 01")}};
}

Bytes subjectOf(const Bytes& der)
{
    const unsigned char* at = der.data();
    const std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &at, static_cast<long>(der.size())), X509_free);
    unsigned char* encoded = nullptr;
    const int length = i2d_X509_NAME(X509_get_subject_name(x509.get()), &encoded);
    Bytes name(encoded, encoded + length);
    OPENSSL_free(encoded);
    return name;
}

Values certificate(std::uint8_t id, const Bytes& der)
{
    Values values = common(CKO_CERTIFICATE, id);
    values.insert({{CKA_CERTIFICATE_TYPE, bytesOfNumber(CKC_X_509)},
                   {CKA_VALUE, der},
                   {CKA_SUBJECT, subjectOf(der)},
                   {CKA_START_DATE, bytesOf(std::string("2124030\0", 8))},
                   {CKA_END_DATE, bytesOf(std::string("2134030\0", 8))}});
    return values;
}

class KazTokenObjectsTest : public KazTokenHost {
protected:
    void expectValues(CK_OBJECT_HANDLE object, const Values& values)
    {
        for (const auto& [type, expected] : values) {
            SCOPED_TRACE(numbered("object ", object) + numbered(", attribute ", type));
            EXPECT_EQ(expected, value(object, type));
        }
    }
};

TEST_F(KazTokenObjectsTest, EveryObjectServesItsAttributes)
{
    openOn();
    const sim::RsaKey rsa = token->rsaKey(1);
    const sim::RsaKey small = token->rsaKey(3);
    Values modulus = modulusOf(rsa);
    expectValues(RSA_PUBLIC, publicKey(1, CKK_RSA, modulus));
    modulus.erase(CKA_MODULUS_BITS);
    expectValues(RSA_PRIVATE, privateKey(1, CKK_RSA, modulus));
    expectValues(RSA_CERTIFICATE, certificate(1, token->certificate(1)));
    expectValues(GOST_PRIVATE, privateKey(2, GOST_KEY));
    expectValues(GOST_PUBLIC, publicKey(2, GOST_KEY, {{CKA_VALUE, token->gostKey(2).publicKey()}}));
    expectValues(GOST_CERTIFICATE, certificate(2, token->certificate(2)));
    expectValues(SMALL_PUBLIC, publicKey(3, CKK_RSA, modulusOf(small)));
    expectValues(SMALL_PRIVATE, privateKey(3, CKK_RSA, {{CKA_MODULUS, small.modulus()}}));
}

TEST_F(KazTokenObjectsTest, KeysAndCertificatesAreReadOnFirstUseAndOnce)
{
    openOn();
    value(RSA_PRIVATE, CKA_LABEL);
    EXPECT_TRUE(sent().empty());
    value(RSA_PRIVATE, CKA_MODULUS);
    EXPECT_EQ(Commands{command("00 46 81 01 00", 258)}, sent());
    forget();
    value(GOST_PUBLIC, CKA_VALUE);
    EXPECT_EQ(Commands{command("00 46 81 02 42", 66)}, sent());
    forget();
    value(GOST_CERTIFICATE, CKA_SUBJECT);
    const std::size_t size = token->file({0x1000, 0x1000, 0x6004, 0x0002})->size();
    EXPECT_EQ(Commands{selectParameters(0x04, 2)} + readFile(size), sent());
    forget();
    value(RSA_PUBLIC, CKA_MODULUS);
    value(GOST_PUBLIC, CKA_VALUE);
    value(GOST_CERTIFICATE, CKA_VALUE);
    EXPECT_TRUE(sent().empty());
}

TEST_F(KazTokenObjectsTest, ObjectsAreFoundByClassLabelAndId)
{
    openOn();
    CK_OBJECT_CLASS privateKeys = CKO_PRIVATE_KEY;
    EXPECT_EQ((Handles{2, 4, 8}), find({attributeOf(CKA_CLASS, privateKeys)}));
    CK_BYTE id = 2;
    EXPECT_EQ((Handles{4, 5, 6}), find({attributeOf(CKA_ID, id)}));
    Bytes label = bytesOf(labelOf(3));
    EXPECT_EQ((Handles{7, 8}), find({attributeOf(CKA_LABEL, label)}));
    EXPECT_EQ(Handles{8},
              find({attributeOf(CKA_CLASS, privateKeys), attributeOf(CKA_LABEL, label)}));
}

// The list.

TEST_F(KazTokenObjectsTest, ListsOfOneTwoAndFiftyPairsAreLoadedWhole)
{
    for (const std::uint8_t count : hex("01 02 32")) {
        std::vector<sim::KazPair> pairs;
        std::vector<std::uint8_t> ids;
        for (std::uint8_t id = 1; id <= count; ++id) {
            const bool gost = id % 2 == 0;
            pairs.push_back({.id = id,
                             .kind = gost ? sim::KazKeyKind::Gost2001 : sim::KazKeyKind::Rsa1024,
                             .certificate = id == count});
            ids.push_back(id);
        }
        meet(withPairs(pairs));
        forget();
        session = open(0);
        EXPECT_EQ(loadObjects(*token, ids), sent());
        const Handles found = find({});
        EXPECT_EQ(2U * count + 1, found.size());
        EXPECT_EQ(Bytes{count}, value(found.back(), CKA_ID));
        EXPECT_EQ(token->certificate(count), value(found.back(), CKA_VALUE));
        KazTokenHost::TearDown();
    }
}

TEST_F(KazTokenObjectsTest, ThePairAfterTheFiftiethIsNeitherLookedAtNorShown)
{
    std::vector<sim::KazPair> pairs;
    std::vector<std::uint8_t> ids;
    for (std::uint8_t id = 1; id <= 51; ++id) {
        pairs.push_back({.id = id, .kind = sim::KazKeyKind::Rsa1024, .certificate = false});
        ids.push_back(id);
    }
    ids.pop_back();
    meet(withPairs(pairs));
    forget();
    session = open(0);
    EXPECT_EQ(loadObjects(*token, ids), sent());
    EXPECT_EQ(100U, find({}).size());
    CK_BYTE last = 51;
    EXPECT_EQ(Handles{}, find({attributeOf(CKA_ID, last)}));
}

TEST_F(KazTokenObjectsTest, AListThatIsTooLongIsReadUpToWhatFitsAndHasNoObjects)
{
    std::vector<sim::KazPair> pairs;
    for (std::uint8_t id = 1; id <= 61; ++id) {
        pairs.push_back({.id = id, .kind = sim::KazKeyKind::Rsa1024, .certificate = false});
    }
    meet(withPairs(pairs));
    const std::size_t size = 4 + 61 * 34;
    ASSERT_EQ(size, token->list()->size());
    forget();
    session = open(0);
    EXPECT_EQ((Commands{SELECT_LIST, LIST_PARAMETERS}) + readFile(size), sent());
    EXPECT_EQ(Handles{}, find({}));
}

TEST_F(KazTokenObjectsTest, AnEmptyListHasNoObjects)
{
    meet(withPairs({}));
    forget();
    session = open(0);
    EXPECT_EQ(loadObjects(*token, {}), sent());
    EXPECT_EQ(Handles{}, find({}));
}

TEST_F(KazTokenObjectsTest, ATokenWithoutItsListHasNoObjects)
{
    sim::KazTokenOptions options;
    options.list = false;
    meet(options);
    forget();
    session = open(0);
    EXPECT_EQ((Commands{SELECT_LIST, SELECT_APPLICATION, CREATE_LIST_DIRECTORY}), sent());
    EXPECT_EQ(0x8269U, sessionInfo(session).ulDeviceError) << "nobody is logged in";
    EXPECT_EQ(Handles{}, find({}));
    loginAs(TOKEN_PIN);
    refresh();
    EXPECT_EQ(Handles{}, find({}));
    EXPECT_EQ(0x8A6AU, sessionInfo(session).ulDeviceError) << "the directory is there";
}

TEST_F(KazTokenObjectsTest, TheListsDirectoryIsMadeAtTheFirstLoadAfterTheLogin)
{
    sim::KazTokenOptions options;
    options.listDirectory = false;
    openAndLogin(options);
    EXPECT_FALSE(token->hasFile({0x1000, 0x1010}));
    refresh();
    forget();
    EXPECT_EQ(Handles{}, find({}));
    EXPECT_EQ((Commands{SELECT_LIST, SELECT_APPLICATION, CREATE_LIST_DIRECTORY}), sent());
    EXPECT_TRUE(token->hasFile({0x1000, 0x1010}));
    EXPECT_EQ(std::nullopt, token->list()) << "the list comes with the first pair";
}

TEST_F(KazTokenObjectsTest, APairWithoutItsKeyFilesFailsTheOpening)
{
    sim::KazTokenOptions options = withPairs({{.id = 1}, {.id = 2, .keys = false}, {.id = 3}});
    token = std::make_shared<sim::KazToken>(options);
    insert(token);
    session = NO_HANDLE;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
    ASSERT_NE(NO_HANDLE, session);
    EXPECT_EQ(0x826AU, sessionInfo(session).ulDeviceError);
    EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
}

// Files of every size, with either answer at their very end.

class KazTokenSizesTest : public KazTokenObjectsTest,
                          public ::testing::WithParamInterface<sim::EndOfFile> {
protected:
    sim::KazTokenOptions options()
    {
        sim::KazTokenOptions made = withPairs({});
        made.endOfFile = GetParam();
        return made;
    }
    // Where the file ends with a block, the read of nothing behind it is refused.
    static bool refused(std::size_t size)
    {
        return GetParam() == sim::EndOfFile::WrongOffset && size % 256 == 0;
    }
};

INSTANTIATE_TEST_SUITE_P(EitherEnd, KazTokenSizesTest,
                         ::testing::Values(sim::EndOfFile::Bare, sim::EndOfFile::WrongOffset));

TEST_P(KazTokenSizesTest, AListOfAnySizeIsReadInBlocks)
{
    // Records too long to be objects fill the list up: each keeps its place, and nothing more.
    for (const std::size_t size : {0U, 4U, 255U, 256U, 257U, 511U, 512U, 1024U, 2048U}) {
        SCOPED_TRACE(size);
        token = std::make_shared<sim::KazToken>(options());
        Bytes content = hex("01 00 00 10");
        content.resize(std::max<std::size_t>(size, 4), 0x41);
        content.resize(size);
        if (size > 4) {
            content.back() = 0x00;
        }
        token->setList(content);
        insert(token);
        forget();
        session = NO_HANDLE;
        const CK_RV result = p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session);
        EXPECT_RV(refused(size) ? CKR_FUNCTION_FAILED : CKR_OK, result);
        EXPECT_EQ(loadObjects(*token, {}), sent());
        if (!refused(size)) {
            EXPECT_EQ(Handles{}, find({}));
        }
        KazTokenHost::TearDown();
    }
}

TEST_P(KazTokenSizesTest, ACertificateFileOfAnySizeIsReadInBlocks)
{
    sim::KazTokenOptions made = options();
    made.pairs = {{.id = 1, .kind = sim::KazKeyKind::Rsa1024}};
    token = std::make_shared<sim::KazToken>(made);
    insert(token);
    const Bytes der = token->certificate(1);
    const Bytes member = sim::gzipMember(der);
    session = open(0);
    CK_OBJECT_CLASS certificates = CKO_CERTIFICATE;
    for (const std::size_t size : {member.size(), std::size_t{767}, std::size_t{768},
                                   std::size_t{769}, std::size_t{1024}, std::size_t{4096}}) {
        SCOPED_TRACE(size);
        ASSERT_LE(member.size(), size);
        // The file name in the gzip header takes any length.
        Bytes padded = member;
        if (size > member.size()) {
            padded[3] = 0x08;
            padded.insert(padded.begin() + 10, size - member.size(), 'x');
            padded[10 + size - member.size() - 1] = 0x00;
        }
        ASSERT_EQ(size, padded.size());
        token->setFile({0x1000, 0x1000, 0x6004, 0x0001}, padded);
        refresh();
        ASSERT_EQ(Handles{3}, find({attributeOf(CKA_CLASS, certificates)}));
        forget();
        EXPECT_EQ(refused(size) ? Bytes{} : der, value(3, CKA_VALUE));
        EXPECT_EQ(Commands{selectParameters(0x04, 1)} + readFile(size), sent());
    }
}

TEST_P(KazTokenSizesTest, ACertificateFileThatHoldsNoneGivesNoValue)
{
    sim::KazTokenOptions made = options();
    made.pairs = {{.id = 1, .kind = sim::KazKeyKind::Rsa1024}};
    token = std::make_shared<sim::KazToken>(made);
    insert(token);
    session = open(0);
    for (const std::size_t size : {0U, 1U, 255U, 256U, 257U, 511U, 512U, 4097U}) {
        SCOPED_TRACE(size);
        token->setFile({0x1000, 0x1000, 0x6004, 0x0001}, Bytes(size, 0x1F));
        refresh();
        EXPECT_EQ((Handles{1, 2, 3}), find({})) << "it is there, whatever it holds";
        forget();
        EXPECT_EQ(Bytes{}, value(3, CKA_VALUE));
        EXPECT_EQ(Commands{selectParameters(0x04, 1)} + readFile(size), sent());
    }
}

} // namespace
} // namespace velt_test
