// Signing and writing certificates with a JaCarta and an eToken 72K, where they agree.
// C_SignInit, C_Sign, C_CreateObject.
#include "sim/cards/gzip_member.h"
#include "tests/support/applet_host.h"

#include <cstdint>

namespace velt_test {
namespace {

struct Signer {
    const char* name;
    std::shared_ptr<sim::AppletCard> (*make)();
    CK_MECHANISM_TYPE gost; // the mechanism as this family knows it
    CK_MECHANISM_TYPE otherGost;
};

void PrintTo(const Signer& signer, std::ostream* out)
{
    *out << signer.name;
}

const Signer JACARTA_SIGNER{
    "JaCarta",
    []() -> std::shared_ptr<sim::AppletCard> { return std::make_shared<sim::Jacarta>(); },
    GOST_SIGN_EXTENDED, GOST_SIGN};
const Signer ETOKEN_SIGNER{
    "eToken72K",
    []() -> std::shared_ptr<sim::AppletCard> { return std::make_shared<sim::Etoken72k>(); },
    GOST_SIGN, GOST_SIGN_EXTENDED};

constexpr std::size_t LARGEST_VALUE = 4096;
constexpr std::size_t LARGEST_CONTAINER = 2048;

// Data that does not compress, in the form of a DER OCTET STRING whose content is no DER.
Bytes incompressible(std::size_t size)
{
    const std::size_t content = size - 4;
    Bytes bytes{0x04, 0x82, static_cast<std::uint8_t>(content >> 8),
                static_cast<std::uint8_t>(content), 0x00};
    std::uint32_t state = 4711;
    while (bytes.size() < size) {
        state = state * 1664525 + 1013904223;
        bytes.push_back(static_cast<std::uint8_t>(state >> 24));
    }
    return bytes;
}

class AppletSigning : public AppletHost, public ::testing::WithParamInterface<Signer> {
protected:
    void openOn() { openWith(GetParam().make()); }
    void openAndLogin()
    {
        openOn();
        ASSERT_NO_FATAL_FAILURE(loginAs());
    }
    CK_RV signGost(const Bytes& data, std::size_t room = 64)
    {
        EXPECT_RV(CKR_OK, signInit(GOST_PRIVATE, GetParam().gost));
        return sign(data, signature, room);
    }
};

class AppletWriting : public AppletSigning {};

const auto SIGNERS = ::testing::Values(JACARTA_SIGNER, ETOKEN_SIGNER);
const auto nameOf = [](const auto& instance) { return instance.param.name; };
INSTANTIATE_TEST_SUITE_P(Families, AppletSigning, SIGNERS, nameOf);
INSTANTIATE_TEST_SUITE_P(Families, AppletWriting, SIGNERS, nameOf);

TEST_P(AppletSigning, AnRsaSignatureVerifiesWithTheCertificate)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const std::string message = "What the holder of the token agrees to.";
    const Bytes der = value(RSA_CERTIFICATE, CKA_VALUE);
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    ASSERT_RV(CKR_OK, sign(sha256Info(message), signature));
    EXPECT_EQ(256U, signature.size());
    EXPECT_TRUE(verifiesWith(der, message, signature));
    EXPECT_FALSE(verifiesWith(der, message + "!", signature));
}

TEST_P(AppletSigning, AGostSignatureVerifiesWithTheKeyOfTheCertificate)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signGost(someDigest()));
    ASSERT_EQ(64U, signature.size());
    const sim::GostKey& key = object(GOST_OBJECT).gost;
    EXPECT_TRUE(key.verify(someDigest(), signature));
    EXPECT_FALSE(key.verify(reversed(someDigest()), signature));
    const X509Pointer x509 = parsed(value(GOST_CERTIFICATE, CKA_VALUE));
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), X509_get0_pubkey(x509.get())));
}

TEST_P(AppletSigning, TheSiblingsGostMechanismIsInvalid)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const CK_MECHANISM_TYPE type :
         {GetParam().otherGost, CK_MECHANISM_TYPE{0}, CK_MECHANISM_TYPE{GOST_KEY}, CKM_RSA_X_509,
          CKM_SHA256_RSA_PKCS, GetParam().gost ^ 0x100000000}) {
        EXPECT_RV(CKR_MECHANISM_INVALID, signInit(GOST_PRIVATE, type));
    }
    EXPECT_TRUE(sent().empty());
    Bytes output(64, SENTINEL);
    CK_ULONG length = output.size();
    Bytes data = someDigest();
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED,
              p11.C_Sign(session, data.data(), data.size(), output.data(), &length));
}

TEST_P(AppletSigning, AskingForTheSizeCostsASignatureAndEndsTheOperation)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    unsigned long signatures = 0;
    for (const auto& [key, mechanism, size] :
         {std::tuple{RSA_PRIVATE, CK_MECHANISM_TYPE{CKM_RSA_PKCS}, CK_ULONG{256}},
          {GOST_PRIVATE, GetParam().gost, CK_ULONG{64}}}) {
        ASSERT_RV(CKR_OK, signInit(key, mechanism));
        Bytes data = someDigest();
        CK_ULONG length = 5;
        EXPECT_RV(CKR_OK, p11.C_Sign(session, data.data(), data.size(), nullptr, &length));
        EXPECT_EQ(size, length);
        EXPECT_EQ(++signatures, card->counters().signatures);
        EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, sign(data, signature));
    }
}

TEST_P(AppletSigning, ABufferTooSmallKeepsTheOperation)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    for (const std::size_t room : {0U, 128U, 255U}) {
        EXPECT_RV(CKR_BUFFER_TOO_SMALL, sign(someDigest(), signature, room));
    }
    EXPECT_EQ(3U, card->counters().signatures);
    ASSERT_RV(CKR_OK, sign(someDigest(), signature, 300));
    EXPECT_EQ(someDigest(), object(RSA_OBJECT).rsa.recover(signature));
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GetParam().gost));
    EXPECT_RV(CKR_BUFFER_TOO_SMALL, sign(someDigest(), signature, 63));
    ASSERT_RV(CKR_OK, sign(someDigest(), signature, 64));
    EXPECT_TRUE(object(GOST_OBJECT).gost.verify(someDigest(), signature));
}

TEST_P(AppletSigning, RsaDataIsPaddedHoweverLongItIs)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t size : {1U, 20U, 35U, 244U, 245U}) {
        const Bytes data(size, static_cast<std::uint8_t>(size));
        ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
        ASSERT_RV(CKR_OK, sign(data, signature));
        EXPECT_EQ(data, object(RSA_OBJECT).rsa.recover(signature));
    }
    forget();
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    EXPECT_RV(CKR_OK, sign(Bytes(253, 0x11), signature)) << "with no byte of padding";
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    forget();
    EXPECT_RV(CKR_DATA_LEN_RANGE, sign(Bytes(254, 0x11), signature));
    EXPECT_TRUE(sent().empty());
}

TEST_P(AppletSigning, GostDataThatIsNoDigestIsTheTokensToRefuse)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t size : {1U, 31U, 33U, 100U}) {
        EXPECT_RV(CKR_FUNCTION_FAILED, signGost(Bytes(size, 0x22)));
        EXPECT_EQ(0x806AU, sessionInfo(session).ulDeviceError);
    }
    forget();
    EXPECT_RV(CKR_DATA_LEN_RANGE, signGost(Bytes(256, 0x22)));
    EXPECT_TRUE(sent().empty()) << "it does not fit the command";
    EXPECT_RV(CKR_OK, signGost(someDigest()));
}

TEST_P(AppletSigning, WithoutALoginTheTokenRefuses)
{
    openOn();
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(someDigest(), signature));
    EXPECT_EQ(0x1464U, sessionInfo(session).ulDeviceError);
    EXPECT_RV(CKR_FUNCTION_FAILED, signGost(someDigest()));
    EXPECT_EQ(0x1464U, sessionInfo(session).ulDeviceError);
    loginAs();
    EXPECT_RV(CKR_OK, sign(someDigest(), signature)) << "signing was still pending";
    EXPECT_TRUE(object(GOST_OBJECT).gost.verify(someDigest(), signature));
    ASSERT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, signInit(RSA_PRIVATE));
}

TEST_P(AppletSigning, AKeyOfTheOtherKindIsTheTokensToRefuse)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE, GetParam().gost));
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(someDigest(), signature));
    EXPECT_EQ(0x2864U, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(0U, card->counters().signatures);
}

// Certificates.

TEST_P(AppletWriting, ACertificateIsWrittenByPositionAndReadBack)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes der = sim::authorityCertificate();
    for (const auto& [id, handle] :
         {std::pair{CK_BYTE{0}, RSA_CERTIFICATE}, {CK_BYTE{1}, GOST_CERTIFICATE}}) {
        ASSERT_NE(der, object(id).certificate());
        ASSERT_RV(CKR_OK, writeById(der, id));
        EXPECT_EQ(NO_HANDLE, created) << "the handle is not written";
        EXPECT_EQ(der, object(id).certificate());
        EXPECT_EQ(der, value(handle, CKA_VALUE));
    }
}

TEST_P(AppletWriting, ACertificateIsWrittenByLabelAndStaysOnTheToken)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes der = sim::authorityCertificate();
    ASSERT_RV(CKR_OK, writeByLabel(der, labelOf(object(GOST_OBJECT).name)));
    EXPECT_EQ(der, object(GOST_OBJECT).certificate());
    EXPECT_EQ(der, value(GOST_CERTIFICATE, CKA_VALUE));
    ASSERT_NO_FATAL_FAILURE(startAgain());
    EXPECT_EQ(der, value(GOST_CERTIFICATE, CKA_VALUE));
}

TEST_P(AppletWriting, AFirstCertificateIsANewObject)
{
    openWith(GetParam().make());
    sim::AppletObjects objects = card->objects();
    objects[RSA_OBJECT].container.clear();
    card->setObjects(objects);
    ASSERT_NO_FATAL_FAILURE(startAgain());
    loginAs();
    EXPECT_EQ(CKO_PUBLIC_KEY, classOf(1));
    ASSERT_RV(CKR_OK, writeById(sim::authorityCertificate(), RSA_OBJECT));
    EXPECT_EQ(CKO_CERTIFICATE, classOf(1));
    EXPECT_EQ(sim::authorityCertificate(), value(1, CKA_VALUE));
}

TEST_P(AppletWriting, ALabelOfNoObjectNeedsAnId)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes der = sim::authorityCertificate();
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, writeByLabel(der, "4E6F"));
    Bytes label{'4', 'E', 0};
    CK_BYTE id = RSA_OBJECT;
    ASSERT_RV(CKR_OK, create({attributeOf(CKA_CLASS, certificateClass),
                              attributeOf(CKA_VALUE, der),
                              {CKA_LABEL, label.data(), 2},
                              attributeOf(CKA_ID, id)}));
    EXPECT_EQ(der, object(RSA_OBJECT).certificate());
}

TEST_P(AppletWriting, TemplatesThatAreRefusedSendNothing)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes der = sim::authorityCertificate();
    Bytes longLabel(42, 'A');
    longLabel.back() = 0;
    Bytes twoBytes{0, 0};
    CK_BYTE id = 0;
    CK_OBJECT_CLASS key = CKO_PUBLIC_KEY;
    const CK_ATTRIBUTE classOk = attributeOf(CKA_CLASS, certificateClass);
    const CK_ATTRIBUTE tokenOk = attributeOf(CKA_TOKEN, yes);
    const CK_ATTRIBUTE valueOk = attributeOf(CKA_VALUE, der);
    const CK_ATTRIBUTE idOk = attributeOf(CKA_ID, id);
    EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, create({{CKA_LABEL, longLabel.data(), 41}}));
    EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID,
              create({classOk, tokenOk, valueOk, attributeOf(CKA_ID, twoBytes)}));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create({classOk, tokenOk, valueOk}));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create({tokenOk, valueOk, idOk}));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE,
              create({attributeOf(CKA_CLASS, key), tokenOk, valueOk, idOk}));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE,
              create({classOk, attributeOf(CKA_TOKEN, no), valueOk, idOk}));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create({classOk, tokenOk, valueOk, tokenOk}))
        << "neither name nor ID";
    id = 0xFF;
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, create({classOk, tokenOk, valueOk, idOk}));
    EXPECT_TRUE(sent().empty());
}

TEST_P(AppletWriting, APositionThatTheTokenLacksIsAFailure)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes before = card->state();
    EXPECT_RV(CKR_FUNCTION_FAILED, writeById(sim::authorityCertificate(), 9));
    EXPECT_EQ(1U, sent().size());
    EXPECT_EQ(0x836AU, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(before, card->state());
}

TEST_P(AppletWriting, WithoutALoginTheTokenRefusesToWrite)
{
    openOn();
    const Bytes before = card->state();
    EXPECT_RV(CKR_FUNCTION_FAILED, writeById(sim::authorityCertificate(), RSA_OBJECT));
    EXPECT_EQ(0x1464U, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(before, card->state());
}

TEST_P(AppletWriting, TwoThousandAndFortyEightCompressedBytesAreTheMost)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    std::size_t size = 2000;
    CK_RV result = CKR_OK;
    while (result == CKR_OK && size < 2100) {
        forget();
        result = writeById(incompressible(++size), RSA_OBJECT);
    }
    EXPECT_RV(CKR_DEVICE_MEMORY, result);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(LARGEST_CONTAINER, object(RSA_OBJECT).container.size());
    EXPECT_EQ(incompressible(size - 1), object(RSA_OBJECT).certificate());
    EXPECT_EQ(incompressible(size - 1), value(RSA_CERTIFICATE, CKA_VALUE));
}

TEST_P(AppletWriting, CertificatesOfEveryLengthAreReadBack)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (std::size_t size = 20; size < 120; ++size) {
        const Bytes der = incompressible(size);
        ASSERT_RV(CKR_OK, writeById(der, RSA_OBJECT));
        ASSERT_EQ(der, object(RSA_OBJECT).certificate()) << object(RSA_OBJECT).container.size();
        ASSERT_EQ(der, value(RSA_CERTIFICATE, CKA_VALUE)) << object(RSA_OBJECT).container.size();
    }
}

TEST_P(AppletWriting, AValueBeyondTheBufferIsRefusedBeforeAnythingIsSent)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    EXPECT_RV(CKR_ATTRIBUTE_VALUE_INVALID, writeById(Bytes(LARGEST_VALUE + 1, 0x00), RSA_OBJECT));
    EXPECT_TRUE(sent().empty());
    Bytes largest(LARGEST_VALUE, 0x00);
    ASSERT_RV(CKR_OK, writeById(largest, RSA_OBJECT));
    EXPECT_EQ(largest, value(RSA_CERTIFICATE, CKA_VALUE));
}

} // namespace
} // namespace velt_test
