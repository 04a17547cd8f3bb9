// Signing with a KAZTOKEN's RSA and GOST keys, and its random bytes.
// C_SignInit, C_Sign, C_GenerateRandom.
#include "tests/support/kaz_token_host.h"

#include <openssl/evp.h>

#include <string>
#include <tuple>

namespace velt_test {
namespace {

// DigestInfo of the SHA-256 of a message, as CKM_RSA_PKCS wants it.
Bytes digestInfo(std::string_view message)
{
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_Digest(message.data(), message.size(), digest.data(), &length, EVP_sha256(), nullptr);
    digest.resize(length);
    return hex("30 31 30 0D 06 09 60 86 48 01 65 03 04 02 01 05 00 04 20") + digest;
}

// Whether OpenSSL accepts the signature of a message with an RSA key.
bool verifies(const sim::RsaKey& key, std::string_view message, const Bytes& signature)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                            reinterpret_cast<const unsigned char*>(message.data()),
                            message.size()) == 1;
}

Sent useKey(std::uint8_t qualifier, std::uint8_t id)
{
    return {hex("00 22 41 B6 06") + Bytes{qualifier} + hex("01 40 84 01") + Bytes{id}, 4};
}

// The data with its last byte first in one command, the padding likewise in the next.
Commands signWithRsa(std::uint8_t id, std::size_t k, const Bytes& data)
{
    const std::size_t rest = k - data.size();
    return {useKey(0x95, id),
            {hex("10 2A 9E 9A") + Bytes{static_cast<std::uint8_t>(data.size())} +
                 Bytes(data.rbegin(), data.rend()),
             k + 2},
            {hex("00 2A 9E 9A") + Bytes{static_cast<std::uint8_t>(rest), 0x00} +
                 Bytes(rest - 3, 0xFF) + hex("01 00 00"),
             k + 2}};
}

const Bytes DIGEST(32, 0x6B);

class KazTokenSigningTest : public KazTokenHost {
protected:
    Bytes signature;
};

TEST_F(KazTokenSigningTest, RsaSignaturesVerify)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const std::string message = "What the holder of the token agrees to.";
    for (const auto& [key, id, k] :
         {std::tuple{RSA_PRIVATE, std::uint8_t{1}, 256U}, {SMALL_PRIVATE, 3, 128U}}) {
        value(key, CKA_MODULUS);
        forget();
        ASSERT_RV(CKR_OK, signInit(key));
        EXPECT_TRUE(sent().empty());
        ASSERT_RV(CKR_OK, sign(digestInfo(message), signature));
        EXPECT_EQ(signWithRsa(id, k, digestInfo(message)), sent());
        EXPECT_EQ(k, signature.size());
        EXPECT_TRUE(verifies(token->rsaKey(id), message, signature));
        EXPECT_FALSE(verifies(token->rsaKey(id), "Something else.", signature));
    }
    EXPECT_EQ(2U, token->counters().signatures);
}

TEST_F(KazTokenSigningTest, ThirtyFiveBytesGoToTheTokenByteByByte)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes info = hex("30 21 30 09 06 05 2B 0E 03 02 1A 05 00 04 14"
                           "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13");
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    ASSERT_RV(CKR_OK, sign(info, signature));
    const Commands expected{
        command("00 22 41 B6 06 95 01 40 84 01 01", 4), command("00 46 81 01 00", 258),
        command("10 2A 9E 9A 23 13 12 11 10 0F 0E 0D 0C 0B 0A 09 08 07 06 05 04 03 02 01 00"
                "14 04 00 05 1A 02 03 0E 2B 05 06 09 30 21 30",
                258),
        Sent{hex("00 2A 9E 9A DD 00") + Bytes(218, 0xFF) + hex("01 00 00"), 258}};
    EXPECT_EQ(expected, sent());
    EXPECT_EQ(info, token->rsaKey(1).recover(signature));
}

TEST_F(KazTokenSigningTest, RsaDataOfAnyLengthUpToThePaddingIsSigned)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t size : {1U, 20U, 117U}) {
        const Bytes data(size, static_cast<std::uint8_t>(size));
        ASSERT_RV(CKR_OK, signInit(SMALL_PRIVATE));
        ASSERT_RV(CKR_OK, sign(data, signature));
        EXPECT_EQ(data, token->rsaKey(3).recover(signature));
    }
    // Less padding than a verifier wants, and the token signs it all the same.
    ASSERT_RV(CKR_OK, signInit(SMALL_PRIVATE));
    ASSERT_RV(CKR_OK, sign(Bytes(125, 0x11), signature));
    EXPECT_EQ(hex("00 01 00") + Bytes(125, 0x11), token->rsaKey(3).recoverBlock(signature));
    forget();
    ASSERT_RV(CKR_OK, signInit(SMALL_PRIVATE));
    EXPECT_RV(CKR_DATA_LEN_RANGE, sign(Bytes(126, 0x11), signature));
    EXPECT_TRUE(sent().empty());
}

TEST_F(KazTokenSigningTest, GostSignaturesVerifyAsTheyAreHandedOut)
{
    for (const sim::KazKeyKind kind : {sim::KazKeyKind::Gost2001, sim::KazKeyKind::Gost2012}) {
        ASSERT_NO_FATAL_FAILURE(
            openAndLogin(withPairs({{.id = 0x11, .kind = kind, .certificate = false}})));
        ASSERT_RV(CKR_OK, signInit(1, GOST_SIGN));
        EXPECT_TRUE(sent().empty());
        ASSERT_RV(CKR_OK, sign(DIGEST, signature, 64));
        EXPECT_EQ((Commands{useKey(0x91, 0x11), {hex("00 2A 9E 9A 20") + DIGEST + hex("40"), 66}}),
                  sent());
        ASSERT_EQ(64U, signature.size());
        EXPECT_TRUE(token->gostKey(0x11).verify(DIGEST, signature));
        // With nothing but what the module tells of the public key.
        const auto algorithm = token->gostKey(0x11).algorithm();
        const sim::GostKey told = sim::GostKey::fromPublicKey(algorithm, value(2, CKA_VALUE));
        EXPECT_TRUE(told.verify(DIGEST, signature));
        EXPECT_FALSE(told.verify(Bytes(32, 0x6A), signature));
        KazTokenHost::TearDown();
    }
}

TEST_F(KazTokenSigningTest, AskingForTheSizeCostsASignatureAndEndsTheOperation)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes data = DIGEST;
    for (const auto& [key, mechanism, size] :
         {std::tuple{RSA_PRIVATE, CK_MECHANISM_TYPE{CKM_RSA_PKCS}, 256U},
          {GOST_PRIVATE, GOST_SIGN, 64U}}) {
        const unsigned long before = token->counters().signatures;
        ASSERT_RV(CKR_OK, signInit(key, mechanism));
        CK_ULONG length = 1;
        EXPECT_RV(CKR_OK, p11.C_Sign(session, data.data(), data.size(), nullptr, &length));
        EXPECT_EQ(size, length);
        EXPECT_EQ(before + 1, token->counters().signatures);
        EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED,
                  p11.C_Sign(session, data.data(), data.size(), nullptr, &length));
        ASSERT_RV(CKR_OK, signInit(key, mechanism));
        EXPECT_RV(CKR_BUFFER_TOO_SMALL, sign(data, signature, size - 1));
        EXPECT_RV(CKR_OK, sign(data, signature, size)) << "it goes on";
        EXPECT_EQ(before + 3, token->counters().signatures);
    }
}

TEST_F(KazTokenSigningTest, OtherMechanismsAndHandlesAreRefused)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{CKM_RSA_PKCS_KEY_PAIR_GEN}, GOST_KEY_PAIR_GEN,
          CK_MECHANISM_TYPE{CKM_SHA256_RSA_PKCS}}) {
        EXPECT_RV(CKR_MECHANISM_INVALID, signInit(RSA_PRIVATE, type));
    }
    EXPECT_RV(CKR_KEY_HANDLE_INVALID, signInit(9));
    EXPECT_TRUE(sent().empty());
}

TEST_F(KazTokenSigningTest, AKeyOfTheOtherKindIsRefusedByTheToken)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE, GOST_SIGN));
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(DIGEST, signature));
    EXPECT_EQ(0x886AU, sessionInfo(session).ulDeviceError);
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GOST_SIGN));
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(Bytes(20, 0x6B), signature)) << "no digest of 32 bytes";
    EXPECT_EQ(0x0067U, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(0U, token->counters().signatures);
}

TEST_F(KazTokenSigningTest, NothingIsSignedWithoutThePin)
{
    openOn();
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE)) << "as if somebody had logged in";
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(DIGEST, signature));
    EXPECT_EQ(0x8269U, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(0U, token->counters().signatures);
}

TEST_F(KazTokenSigningTest, RandomBytesComeFromTheToken)
{
    openOn();
    for (const std::size_t size : {1U, 32U, 255U, 256U}) {
        Bytes first(size + 8, SENTINEL);
        Bytes second = first;
        forget();
        EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, first.data(), size));
        EXPECT_EQ(
            (Commands{{Bytes{0x00, 0x84, 0x00, 0x00, static_cast<std::uint8_t>(size)}, size + 2}}),
            sent());
        EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, second.data(), size));
        EXPECT_EQ(Bytes(8, SENTINEL), Bytes(first.end() - 8, first.end()));
        if (size > 1) {
            EXPECT_NE(first, second);
        }
    }
    forget();
    Bytes untouched(300, SENTINEL);
    EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, untouched.data(), 257));
    EXPECT_EQ(Bytes(300, SENTINEL), untouched);
    EXPECT_TRUE(sent().empty());
}

} // namespace
} // namespace velt_test
