// GOST keys: what they give out, what they sign, and that OpenSSL is otherwise left alone.
#define OPENSSL_SUPPRESS_DEPRECATED // the questions about engines
#include "sim/cards/gost_key.h"
#include "sim/cards/rsa_key.h"
#include "sim/cards/scripted_card.h"
#include "sim/cards/test_ca.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/x509.h>

namespace sim {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

const Bytes DIGEST(GOST_DIGEST_SIZE, 'A');

// A fixed key: its point and a signature of DIGEST, made by another program.
struct Known {
    GostTestKey key;
    GostAlgorithm algorithm;
    const char* head; // SubjectPublicKeyInfo up to the point
    const char* x;    // most significant byte first
    const char* y;
    const char* signature;
};

const Known KNOWN[] = {
    {GostTestKey::First2012, GostAlgorithm::Gost2012_256,
     "3066301F06082A85030701010101301306072A85030202230106082A850307010102020343000440",
     "08EA000C66B9F85CBB1ECD0655A27A472E1AABCA8A9E9449F65075F136403867",
     "A22CBCF4B280F3BB1BBB380F59353C8C45B6FCAF8741E2628AC678C4C4FB6EB5",
     "345CC22E0C391E2E84F88740B831FDBCEB8C54EDE7DFA2766A1629FEE9420EFC"
     "A1876D32C9F2E07D6572080A837A0BB385609FC9C9BC65D46E33D98E9D2CD9C0"},
    {GostTestKey::First2001, GostAlgorithm::Gost2001,
     "3063301C06062A8503020213301206072A850302022301"
     "06072A850302021E010343000440",
     "C834F97672931AE519CA76CC54F23254F1E4E36C996EA37E54F7F50398462FAC",
     "9E6360C814034F68B4A0312823B7963C7A0DAF18B2D7C756511619567AE5D5D5",
     "51CD5D2A37B04B753727E7291F37AA2ACAF2413E653F2B2DD98EC75D6CDECDF5"
     "BB75CB4A9291B04460D8F74F98B83BDC5289D5A9DD689208C5E8899F451EBAD7"},
};

class GostKeys : public ::testing::TestWithParam<Known> {};

INSTANTIATE_TEST_SUITE_P(BothAlgorithms, GostKeys, ::testing::ValuesIn(KNOWN),
                         [](const auto& tested) {
                             return std::string(tested.param.algorithm == GostAlgorithm::Gost2001
                                                    ? "Gost2001"
                                                    : "Gost2012");
                         });

Bytes turned(Bytes bytes)
{
    return {bytes.rbegin(), bytes.rend()};
}

Bytes pointOf(const Known& known)
{
    Bytes point = turned(hex(known.x));
    const Bytes y = turned(hex(known.y));
    point.insert(point.end(), y.begin(), y.end());
    return point;
}

TEST_P(GostKeys, ThePublicKeyIsBothCoordinatesWithTheirLastByteFirst)
{
    const GostKey key = GostKey::fromTestKey(GetParam().key);
    EXPECT_EQ(GetParam().algorithm, key.algorithm());
    EXPECT_EQ(pointOf(GetParam()), key.publicKey());
    Bytes der = hex(GetParam().head);
    const Bytes point = pointOf(GetParam());
    der.insert(der.end(), point.begin(), point.end());
    EXPECT_EQ(der, key.publicDer());
}

TEST_P(GostKeys, ASignatureOfAnotherProgramVerifies)
{
    const GostKey key = GostKey::fromPublicKey(GetParam().algorithm, pointOf(GetParam()));
    Bytes signature = hex(GetParam().signature);
    EXPECT_TRUE(key.verify(DIGEST, signature));
    for (const std::size_t at : {0U, 31U, 32U, 63U}) {
        signature[at] ^= 0x01;
        EXPECT_FALSE(key.verify(DIGEST, signature)) << at;
        signature[at] ^= 0x01;
    }
    EXPECT_FALSE(key.verify(Bytes(GOST_DIGEST_SIZE, 'B'), signature));
    EXPECT_EQ(0U, ERR_peek_error()) << "a forgery is an answer, not an error";
}

TEST_P(GostKeys, WhatAKeySignsVerifiesUnderItAlone)
{
    const GostKey key = GostKey::fromTestKey(GetParam().key);
    const GostKey other = GostKey::generate(GetParam().algorithm);
    const Bytes signature = key.sign(DIGEST);
    ASSERT_EQ(GOST_SIGNATURE_SIZE, signature.size());
    EXPECT_TRUE(key.verify(DIGEST, signature));
    EXPECT_FALSE(other.verify(DIGEST, signature));
    EXPECT_NE(signature, key.sign(DIGEST)) << "each signature has a random number of its own";
    EXPECT_TRUE(other.verify(DIGEST, other.sign(DIGEST)));
    EXPECT_NE(key.publicKey(), other.publicKey());
}

TEST_P(GostKeys, AKeySurvivesItsEncoding)
{
    const GostKey key = GostKey::generate(GetParam().algorithm);
    const GostKey again = GostKey::fromDer(key.privateDer());
    EXPECT_EQ(key.publicKey(), again.publicKey());
    EXPECT_EQ(key.algorithm(), again.algorithm());
    EXPECT_EQ(key.privateDer(), again.privateDer());
    EXPECT_TRUE(key.verify(DIGEST, again.sign(DIGEST)));
}

TEST_P(GostKeys, TheAuthorityCertifiesThem)
{
    const GostKey key = GostKey::fromTestKey(GetParam().key);
    CertificateRequest request;
    request.issuer = defaultIssuer();
    request.subject = {{"CN", "Holder"}};
    const Bytes der = issueCertificate(key, request);
    EXPECT_EQ(der, issueCertificate(key, request));

    const auto parsed = [](const Bytes& bytes) {
        const unsigned char* at = bytes.data();
        return std::unique_ptr<X509, decltype(&X509_free)>(
            d2i_X509(nullptr, &at, static_cast<long>(bytes.size())), X509_free);
    };
    const auto certificate = parsed(der);
    const auto authority = parsed(authorityCertificate());
    ASSERT_NE(nullptr, certificate);
    EXPECT_EQ(1, X509_verify(certificate.get(), X509_get0_pubkey(authority.get())));
    unsigned char* info = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate.get()), &info);
    ASSERT_GT(length, 0);
    EXPECT_EQ(key.publicDer(), Bytes(info, info + length));
    OPENSSL_free(info);
}

TEST(GostKeyLimits, ADigestHas32BytesAndASignature64)
{
    const GostKey key = GostKey::fromTestKey(GostTestKey::Second2012);
    for (const std::size_t size : {0U, 31U, 33U, 64U}) {
        EXPECT_THROW(key.sign(Bytes(size, 'A')), std::invalid_argument) << size;
    }
    Bytes signature = key.sign(DIGEST);
    EXPECT_FALSE(key.verify(Bytes(31, 'A'), signature));
    signature.push_back(0);
    EXPECT_FALSE(key.verify(DIGEST, signature));
}

TEST(GostKeyLimits, OtherKeysAreRefused)
{
    EXPECT_THAT([] { GostKey::fromPem(testKeyPem(TestKey::First1024)); },
                ThrowsMessage<std::runtime_error>(HasSubstr("no GOST key")));
    EXPECT_THAT(
        [] {
            GostKey::fromDer(Bytes{0x30, 0x00});
        },
        ThrowsMessage<std::runtime_error>(HasSubstr("PKCS#8")));
    EXPECT_THROW(GostKey::fromPublicKey(GostAlgorithm::Gost2001, Bytes(63)), std::invalid_argument);
    // No point of the curve.
    EXPECT_THROW(GostKey::fromPublicKey(GostAlgorithm::Gost2001, Bytes(64, 0x11)).publicKey(),
                 std::runtime_error);
    EXPECT_FALSE(GostKey());
}

TEST(GostKeyLimits, RsaRandomNumbersAndDigestsStayWithOpenSsl)
{
    const GostKey gost = GostKey::fromTestKey(GostTestKey::Second2001);
    EXPECT_TRUE(gost.verify(DIGEST, gost.sign(DIGEST)));
    EXPECT_EQ(nullptr, ENGINE_get_default_RSA());
    EXPECT_EQ(nullptr, ENGINE_get_default_RAND());
    EXPECT_EQ(nullptr, ENGINE_get_pkey_meth_engine(EVP_PKEY_RSA));
    EXPECT_EQ(nullptr, ENGINE_get_pkey_asn1_meth_engine(EVP_PKEY_RSA));
    EXPECT_EQ(nullptr, ENGINE_get_digest_engine(NID_sha256));
    const RsaKey rsa = RsaKey::fromTestKey(TestKey::First1024);
    EXPECT_EQ(DIGEST, rsa.recover(rsa.sign(DIGEST)));
}

TEST(RsaKeys, ABlockPaddedByTheCallerIsRaisedAsItIs)
{
    const RsaKey key = RsaKey::fromTestKey(TestKey::First1024);
    Bytes block(key.modulusSize(), 0xFF);
    block[0] = 0x00;
    block[1] = 0x01;
    block[key.modulusSize() - DIGEST.size() - 1] = 0x00;
    std::copy(DIGEST.begin(), DIGEST.end(), block.end() - GOST_DIGEST_SIZE);
    EXPECT_EQ(key.sign(DIGEST), key.raise(block));
    EXPECT_THROW(key.raise(Bytes(key.modulusSize(), 0xFF)), std::runtime_error)
        << "not smaller than the modulus";
}

} // namespace
} // namespace sim
