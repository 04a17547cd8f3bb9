// Writing certificates to an ID card and reading them back.
// C_CreateObject.
#include "sim/cards/gzip_member.h"
#include "sim/cards/test_ca.h"
#include "tests/support/id_card_host.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace velt_test {
namespace {

using Handles = std::vector<CK_OBJECT_HANDLE>;

constexpr std::size_t LARGEST_VALUE = 4096;
constexpr std::size_t LARGEST_FILE = 2048; // compressed

// Data that does not compress, in the form of a DER OCTET STRING whose content is no DER.
Bytes incompressible(std::size_t size)
{
    const std::size_t content = size - 4;
    Bytes bytes{0x04, 0x82, static_cast<std::uint8_t>(content >> 8),
                static_cast<std::uint8_t>(content), 0x00};
    std::uint32_t state = 12345;
    while (bytes.size() < size) {
        state = state * 1664525 + 1013904223;
        bytes.push_back(static_cast<std::uint8_t>(state >> 24));
    }
    return bytes;
}

class CertificateWritingTest : public IdCardHost {
protected:
    void openAndLogin(const sim::IdCardOptions& options = {})
    {
        openOn(options);
        ASSERT_NO_FATAL_FAILURE(loginAs());
    }

    CK_RV create(std::vector<CK_ATTRIBUTE> attributes)
    {
        created = NO_HANDLE;
        return p11.C_CreateObject(session, attributes.data(), attributes.size(), &created);
    }

    // The usual four attributes.
    std::vector<CK_ATTRIBUTE> full()
    {
        return {attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_TOKEN, yes),
                attributeOf(CKA_VALUE, der), attributeOf(CKA_ID, id)};
    }

    // The compressed certificate in a file of the card: what its length field promises.
    Bytes member(std::size_t pair) const
    {
        const Bytes& file = card->file(pair);
        const std::size_t length = static_cast<std::size_t>(file[0]) * 256 + file[1];
        return {file.begin() + 2, file.begin() + 2 + static_cast<std::ptrdiff_t>(length)};
    }

    // Writing a compressed certificate. A chunk carries 255 bytes while the file position leaves
    // that much before the end of the data, so the last one may have 256 and a length byte of 00.
    static Commands writeCommands(std::size_t pair, const Bytes& compressed)
    {
        const std::size_t length = compressed.size();
        Commands commands{SELECT_MASTER, SELECT_CERTIFICATES, selectFile(pair)};
        commands.push_back(
            {Bytes{0x00, 0xD6, 0x00, 0x00, 0x02, static_cast<std::uint8_t>(length >> 8),
                   static_cast<std::uint8_t>(length)},
             2});
        std::size_t written = 0;
        std::size_t position = 2;
        while (written < length) {
            const std::size_t size = length < position + 255 ? length - written : 255;
            Bytes update{0x00, 0xD6, static_cast<std::uint8_t>(position >> 8),
                         static_cast<std::uint8_t>(position), static_cast<std::uint8_t>(size)};
            const auto from = compressed.begin() + static_cast<std::ptrdiff_t>(written);
            update.insert(update.end(), from, from + static_cast<std::ptrdiff_t>(size));
            commands.push_back({update, 2});
            written += size;
            position += size;
        }
        return commands;
    }

    static void refuse(std::size_t n, const Bytes& status)
    {
        pcsc::Action refusal;
        refusal.alter = [status](const Bytes&) { return status; };
        pcsc::onNth(pcsc::Function::Transmit, n, refusal);
    }

    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_BBOOL yes = CK_TRUE;
    CK_BBOOL no = CK_FALSE;
    CK_BYTE id = ID_2;
    Bytes der = sim::authorityCertificate();
    CK_OBJECT_HANDLE created = NO_HANDLE;
};

TEST_F(CertificateWritingTest, ACertificateIsWrittenAndReadBack)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t pair : {std::size_t{0}, std::size_t{1}}) {
        id = pair == 0 ? ID_1 : ID_2;
        ASSERT_NE(der, card->certificate(pair));
        forget();
        ASSERT_RV(CKR_OK, create(full()));
        EXPECT_EQ(pair == 0 ? CERTIFICATE_1 : CERTIFICATE_2, created);
        EXPECT_EQ(der, sim::gzipContent(member(pair)));
        EXPECT_EQ(writeCommands(pair, member(pair)) + loadObjects(*card), sent());
        EXPECT_EQ(der, value(created, CKA_VALUE));
        EXPECT_EQ(Bytes{id}, value(created, CKA_ID));
        EXPECT_EQ(Handles{created},
                  find({attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_ID, id)}));
        EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
    }
}

TEST_F(CertificateWritingTest, AWrittenCertificateStaysOnTheCard)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, create(full()));
    ASSERT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    slots();
    session = open(0);
    EXPECT_EQ(der, value(CERTIFICATE_2, CKA_VALUE));
}

TEST_F(CertificateWritingTest, AFirstCertificateBringsHiddenObjectsBack)
{
    sim::IdCardOptions options;
    options.positions[0].certificate = false;
    ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
    EXPECT_EQ((Handles{2, 3, 4, 5}), find({}));
    id = ID_1;
    ASSERT_RV(CKR_OK, create(full()));
    EXPECT_EQ(CERTIFICATE_1, created);
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({}));
}

TEST_F(CertificateWritingTest, TheOrderOfAttributesAndUnknownOnesDoNotMatter)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    Bytes label = bytesOf("anything");
    ASSERT_RV(CKR_OK, create({attributeOf(CKA_TOKEN, yes), attributeOf(CKA_VALUE, der),
                              attributeOf(CKA_CLASS, objectClass),
                              attributeOf(CKA_CERTIFICATE_TYPE, x509), attributeOf(CKA_PRIVATE, no),
                              attributeOf(CKA_LABEL, label), attributeOf(CKA_ID, id)}));
    EXPECT_EQ(CERTIFICATE_2, created);
    EXPECT_EQ(der, value(CERTIFICATE_2, CKA_VALUE));
    EXPECT_EQ(bytesOf("RSA219860217350100427C"), value(CERTIFICATE_2, CKA_LABEL));
}

TEST_F(CertificateWritingTest, OnlyTheFirstByteOfTheIdCounts)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes longId = hex("87 01 02 03");
    ASSERT_RV(CKR_OK, create({attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_TOKEN, yes),
                              attributeOf(CKA_VALUE, der), attributeOf(CKA_ID, longId)}));
    EXPECT_EQ(CERTIFICATE_1, created);
}

TEST_F(CertificateWritingTest, TheStatedLengthsOfFlagsAndIdsAreNotLookedAt)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, create({{CKA_CLASS, &objectClass, 1},
                              {CKA_TOKEN, &yes, 0},
                              attributeOf(CKA_VALUE, der),
                              {CKA_ID, &id, 0}}));
    EXPECT_EQ(CERTIFICATE_2, created);
}

TEST_F(CertificateWritingTest, TheLastOfSeveralIdsDecides)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    CK_BYTE first = ID_1;
    std::vector<CK_ATTRIBUTE> attributes = full();
    attributes.insert(attributes.begin(), attributeOf(CKA_ID, first));
    ASSERT_RV(CKR_OK, create(attributes));
    EXPECT_EQ(CERTIFICATE_2, created);
}

// Templates that are refused.

TEST_F(CertificateWritingTest, FourAttributesMustBeRecognised)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (std::size_t left = 0; left < 4; ++left) {
        SCOPED_TRACE(left);
        std::vector<CK_ATTRIBUTE> attributes = full();
        attributes.erase(attributes.begin() + static_cast<std::ptrdiff_t>(left));
        EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create(attributes));
        EXPECT_EQ(NO_HANDLE, created);
    }
    CK_OBJECT_CLASS key = CKO_PUBLIC_KEY;
    std::vector<CK_ATTRIBUTE> attributes = full();
    attributes[0] = attributeOf(CKA_CLASS, key);
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create(attributes));
    attributes = full();
    attributes[1] = attributeOf(CKA_TOKEN, no);
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create(attributes));
    EXPECT_TRUE(sent().empty());
}

TEST_F(CertificateWritingTest, AnIdOfNoKeyIsRefusedAtOnce)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const unsigned wrong : {0x00U, 0x07U, 0x86U, 0x89U, 0xFFU}) {
        id = static_cast<CK_BYTE>(wrong);
        EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create(full()));
        EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create({attributeOf(CKA_ID, id)}))
            << "before the others are counted";
    }
    EXPECT_TRUE(sent().empty());
}

TEST_F(CertificateWritingTest, AMissingValuePointerIsRefusedWhereTheValueIsRead)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (std::size_t at = 0; at < 4; ++at) {
        SCOPED_TRACE(at);
        std::vector<CK_ATTRIBUTE> attributes = full();
        attributes[at].pValue = nullptr;
        EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create(attributes));
    }
    EXPECT_TRUE(sent().empty());
    std::vector<CK_ATTRIBUTE> attributes = full();
    attributes.push_back({CKA_SUBJECT, nullptr, 20});
    EXPECT_RV(CKR_OK, create(attributes)) << "not read";
}

TEST_F(CertificateWritingTest, AValueBeyondTheBufferIsRefusedBeforeAnythingIsSent)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    der = Bytes(LARGEST_VALUE + 1, 0x00);
    EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create(full()));
    der = Bytes(100000, 0x00);
    EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create(full()));
    EXPECT_TRUE(sent().empty());
}

TEST_F(CertificateWritingTest, TheLargestValueIsWrittenIfItCompresses)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    der = Bytes(LARGEST_VALUE, 0x00);
    der[0] = 0x04;
    der[1] = 0x82;
    der[2] = 0x0F;
    der[3] = 0xFC;
    ASSERT_RV(CKR_OK, create(full()));
    EXPECT_EQ(der, value(CERTIFICATE_2, CKA_VALUE));
}

TEST_F(CertificateWritingTest, AnEmptyValueWritesAnEmptyMember)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, create({attributeOf(CKA_CLASS, objectClass),
                              attributeOf(CKA_TOKEN, yes),
                              {CKA_VALUE, nullptr, 0},
                              attributeOf(CKA_ID, id)}));
    EXPECT_EQ(20U, member(1).size());
    EXPECT_EQ(Bytes{}, sim::gzipContent(member(1)));
    EXPECT_EQ(Bytes{}, value(CERTIFICATE_2, CKA_VALUE));
}

TEST_F(CertificateWritingTest, FourAttributesWithoutAValueWriteAnEmptyMemberToo)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, create({attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_TOKEN, yes),
                              attributeOf(CKA_TOKEN, yes), attributeOf(CKA_ID, id)}));
    EXPECT_EQ(20U, member(1).size());
}

TEST_F(CertificateWritingTest, FourAttributesWithoutAnIdStopAtTheFile)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes before = card->state();
    const MessageMark mark;
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE,
              create({attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_TOKEN, yes),
                      attributeOf(CKA_VALUE, der), attributeOf(CKA_TOKEN, yes)}));
    EXPECT_EQ((Commands{SELECT_MASTER, SELECT_CERTIFICATES}), sent());
    EXPECT_EQ(before, card->state());
    EXPECT_MESSAGES(mark, "C_CreateObject", "IDCard CreateObject CKR_TEMPLATE_INCOMPLETE",
                    "CreateObject error 0xd0");
}

// The length on the card.

TEST_F(CertificateWritingTest, TwoThousandAndFortyEightCompressedBytesAreTheMost)
{
    sim::IdCardOptions options;
    ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
    std::size_t size = 1990;
    CK_RV result = CKR_OK;
    while (result == CKR_OK && size < 2100) {
        der = incompressible(++size);
        forget();
        result = create(full());
    }
    EXPECT_RV(CKR_DEVICE_MEMORY, result);
    EXPECT_TRUE(sent().empty());
    der = incompressible(size - 1);
    EXPECT_EQ(LARGEST_FILE, member(1).size()) << "one byte less still fitted";
    EXPECT_EQ(hex("08 00"), Bytes(card->file(1).begin(), card->file(1).begin() + 2));
    EXPECT_EQ(der, sim::gzipContent(member(1)));
    EXPECT_EQ(der, value(CERTIFICATE_2, CKA_VALUE));
    const MessageMark mark;
    der = incompressible(size);
    EXPECT_RV(CKR_DEVICE_MEMORY, create(full()));
    EXPECT_MESSAGES(mark, "C_CreateObject", "IDCard CreateObject error gzipped cert length 0x801",
                    "CreateObject error 0x31");
}

TEST_F(CertificateWritingTest, EveryLengthIsCutIntoChunksByTheFilePosition)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    std::size_t last256 = 0;
    for (std::size_t size = 220; size <= 800; ++size) {
        der = incompressible(size);
        forget();
        ASSERT_RV(CKR_OK, create(full()));
        const Commands expected = writeCommands(1, member(1));
        ASSERT_EQ(expected + loadObjects(*card), sent()) << member(1).size() << " bytes";
        last256 += expected.back().command.size() == 261 ? 1U : 0U;
    }
    EXPECT_GE(last256, 2U) << "256 bytes under a length byte of 00 were among them";
}

// Cards that refuse.

TEST_F(CertificateWritingTest, WithoutALoginTheCardRefusesToWrite)
{
    openOn();
    const Bytes before = card->state();
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, create(full()));
    EXPECT_MESSAGES(mark, "C_CreateObject", "IDCard CreateObject 4 APDU error 0x8269",
                    "CreateObject error 0x6");
    EXPECT_EQ(4U, sent().size()) << "no object is loaded again";
    EXPECT_EQ(before, card->state());
    EXPECT_EQ(NO_HANDLE, created);
    EXPECT_EQ(0x8269U, sessionInfo(session).ulDeviceError);
}

TEST_F(CertificateWritingTest, EachRefusedCommandIsToldByItsNumber)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const std::vector<std::string> messages{
        "IDCard CreateObject 1 APDU error 0x826a", "IDCard CreateObject 2 APDU error 0x826a",
        "IDCard CreateObject 3 APDU error 0x826a", "IDCard CreateObject 4 APDU error 0x826a"};
    for (std::size_t at = 1; at <= 4; ++at) {
        forget();
        refuse(at, hex("6A 82"));
        const MessageMark mark;
        EXPECT_RV(CKR_FUNCTION_FAILED, create(full()));
        EXPECT_EQ(at, sent().size());
        EXPECT_MESSAGES(mark, "C_CreateObject", messages[at - 1], "CreateObject error 0x6");
    }
    refuse(5, hex("6A 84"));
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, create(full()));
    EXPECT_MESSAGES(mark, "C_CreateObject", "IDCard WriteBinary error 0x846a",
                    "IDCard CreateObject write binary APDU error 0xa", "CreateObject error 0x6");
}

// A memory failure (65 81) is taken for an announcement of 81 bytes, as 63 Cx is.
TEST_F(CertificateWritingTest, AMemoryFailureEndsInWhatTheCardSaysToGetResponse)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    refuse(5, hex("65 81"));
    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, create(full()));
    ASSERT_EQ(6U, sent().size());
    EXPECT_EQ(getResponse(0x81), sent().back());
    EXPECT_MESSAGES(mark, "C_CreateObject", "IDCard WriteBinary error 0x8569",
                    "IDCard CreateObject write binary APDU error 0xa", "CreateObject error 0x6");
}

TEST_F(CertificateWritingTest, AnInterruptedWriteLeavesALengthThatPromisesMore)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    pcsc::replyNth(6, hex("6F 00")); // the second chunk
    EXPECT_RV(CKR_FUNCTION_FAILED, create(full()));
    EXPECT_NE(der, card->certificate(1));
    EXPECT_RV(CKR_OK, create(full()));
    EXPECT_EQ(der, card->certificate(1));
}

TEST_F(CertificateWritingTest, ASuccessClearsTheDeviceError)
{
    openOn();
    EXPECT_RV(CKR_FUNCTION_FAILED, create(full()));
    ASSERT_RV(CKR_OK, login(session, PIN));
    EXPECT_RV(CKR_OK, create(full()));
    EXPECT_EQ(0U, sessionInfo(session).ulDeviceError);
}

TEST_F(CertificateWritingTest, AFailedLoadAfterTheWriteIsStillASuccess)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, create(full()));
    const std::size_t writes = writeCommands(1, member(1)).size();
    pcsc::replyNth(writes + 1, hex("6F 00"));
    ASSERT_RV(CKR_OK, create(full()));
    EXPECT_EQ(CERTIFICATE_2, created);
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    EXPECT_RV(CKR_OBJECT_HANDLE_INVALID,
              p11.C_GetAttributeValue(session, CERTIFICATE_2, &attribute, 1));
    EXPECT_EQ(6U, find({}).size());
}

// The core's checks.

TEST_F(CertificateWritingTest, SessionThenTemplateThenLoginAreChecked)
{
    openOn();
    const CK_SESSION_HANDLE closed = open(0);
    ASSERT_RV(CKR_OK, p11.C_CloseSession(closed));
    forget();
    for (const CK_SESSION_HANDLE stray : {CK_SESSION_HANDLE{0}, closed + 1, closed + 1000,
                                          CK_SESSION_HANDLE{0xFFFFFFFF}, ~CK_SESSION_HANDLE{0}}) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_CreateObject(stray, nullptr, 0, &created));
    }
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CreateObject(closed, nullptr, 0, &created));
    loginAs();
    ASSERT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_CreateObject(session, nullptr, 4, &created));
    std::vector<CK_ATTRIBUTE> attributes = full();
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_CreateObject(session, attributes.data(), 0, &created));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, create(full()));
    EXPECT_TRUE(sent().empty());
}

TEST_F(CertificateWritingTest, ASuccessTellsTheUnknownTypesAndTheLoad)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    std::vector<CK_ATTRIBUTE> attributes = full();
    attributes.push_back(attributeOf(CKA_CERTIFICATE_TYPE, x509));
    attributes.push_back({0x84B5A001, nullptr, 0});
    const MessageMark mark;
    ASSERT_RV(CKR_OK, create(attributes));
    EXPECT_MESSAGES(mark, "C_CreateObject", "IDCard CreateObject unknown type:0x80",
                    "IDCard CreateObject unknown type:0x84b5a001", "VELTObjectsInit",
                    "VELTObjectsInit Do init = true", "VELTObjectsInit complete",
                    "VELTObjectsInit CKR_OK", "CreateObject CKR_OK");
}

} // namespace
} // namespace velt_test
