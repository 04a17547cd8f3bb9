// The simulated KAZTOKEN's keys: what they sign, what they show, and how new ones are made.
#include "tests/support/kaz_token_talk.h"

#include <algorithm>
#include <memory>

#include <openssl/x509.h>

namespace sim {
namespace {

using namespace kaz_token_talk;

const Bytes DIGEST(32, 0x5C);
constexpr const char* SIGN_DIGEST_HEAD = "00 2A 9E 9A 20";

std::string signDigest(const std::string& le = "40")
{
    return SIGN_DIGEST_HEAD + toHex(DIGEST) + le;
}

KazTokenOptions withPairs(std::vector<KazPair> pairs)
{
    KazTokenOptions options;
    options.pairs = std::move(pairs);
    return options;
}

TEST(KazTokenRsa, SignsABlockSentBackwardsInTwoCommands)
{
    KazToken token;
    walk(token, {RIGHT_PIN});
    const Bytes data = hex("30 31 32 33 34 35 36 37 38 39");
    for (const auto& [id, k] : {std::pair("01", 256U), std::pair("03", 128U)}) {
        const RsaKey key = token.rsaKey(hex(id)[0]);
        ASSERT_EQ(k, key.modulusSize());
        walk(token, {useRsaKey(id)});
        const auto [first, last] = signCommands(data, k);
        EXPECT_EQ("9000", ask(token, first));
        const Bytes signature = withoutStatus(answer(token, last));
        EXPECT_EQ(key.sign(data), turned(signature));
        EXPECT_EQ(data, key.recover(turned(signature)));
    }
    EXPECT_EQ(2u, token.counters().signatures);
}

TEST(KazTokenRsa, TakesAnySplitOfTheBlock)
{
    KazToken token;
    walk(token, {RIGHT_PIN, useRsaKey("03")});
    for (const std::size_t size : {1U, 16U, 116U, 117U, 125U}) {
        const Bytes data(size, 0xA5);
        const auto [first, last] = signCommands(data, 128);
        EXPECT_EQ("9000", ask(token, first)) << size;
        const Bytes signature = withoutStatus(answer(token, last));
        ASSERT_EQ(128u, signature.size()) << size;
        if (size <= 117) { // what a verifier accepts: eight bytes of padding at least
            EXPECT_EQ(data, token.rsaKey(3).recover(turned(signature)));
        }
    }
}

TEST(KazTokenRsa, RefusesWhatIsNoWholePaddedBlock)
{
    KazToken token;
    walk(token, {RIGHT_PIN, useRsaKey("03")});
    const Bytes data(32, 0xA5);
    const std::pair<std::string, std::string> commands = signCommands(data, 128);
    const std::string& first = commands.first;
    const std::string& last = commands.second;
    EXPECT_EQ("6985", ask(token, last)) << "without its first part";
    EXPECT_EQ("9000", ask(token, first));
    EXPECT_EQ("6985", ask(token, first)) << "twice";
    EXPECT_EQ("6985", ask(token, last)) << "after a refusal it starts anew";
    const auto refused = [&](const std::string& last2, const char* status) {
        EXPECT_EQ("9000", ask(token, first));
        EXPECT_EQ(status, ask(token, last2)) << last2;
    };
    const auto other = signCommands(Bytes(31, 0xA5), 128).second;
    refused(other, "6700"); // a byte too long
    refused(signCommands(Bytes(33, 0xA5), 128).second, "6700");
    refused(last.substr(0, last.size() - 2), "6700"); // no answer wanted
    refused(last.substr(0, last.size() - 2) + "80", "6700");
    const auto changed = [&](std::size_t at, std::uint8_t value) {
        Bytes command = hex(last);
        command[5 + at] = value;
        return toHex(command);
    };
    refused(changed(0, 0x01), "6A80");  // the zero before the data
    refused(changed(1, 0xFE), "6A80");  // the padding
    refused(changed(94, 0x02), "6A80"); // the block's type
    refused(changed(95, 0x01), "6A80");
    EXPECT_EQ("6700", ask(token, "10 2A 9E 9A 00"));
    EXPECT_EQ("6700", ask(token, "10 2A 9E 9A 80" + run(128, "A5")));
    EXPECT_EQ("6700", ask(token, first + "00"));
    EXPECT_EQ("9000", ask(token, first));
    EXPECT_EQ("6A82", ask(token, "00 A4 08 04 02 20 00"));
    EXPECT_EQ("6985", ask(token, last)) << "another command ends the chain";
    EXPECT_EQ(0u, token.counters().signatures);
}

TEST(KazTokenGost, SignsADigestAsItIs)
{
    KazToken token(withPairs(
        {{.id = 0x0A, .kind = KazKeyKind::Gost2012}, {.id = 0x0B, .kind = KazKeyKind::Gost2001}}));
    walk(token, {RIGHT_PIN});
    for (const char* const id : {"0A", "0B"}) {
        const GostKey key = token.gostKey(hex(id)[0]);
        walk(token, {useGostKey(id)});
        const Bytes signature = withoutStatus(answer(token, signDigest()));
        ASSERT_EQ(64u, signature.size());
        EXPECT_TRUE(key.verify(DIGEST, signature));
        EXPECT_FALSE(key.verify(Bytes(32, 0x5D), signature));
    }
    EXPECT_EQ(2u, token.counters().signatures);
}

TEST(KazTokenGost, RefusesOtherLengthsAndChains)
{
    KazToken token;
    walk(token, {RIGHT_PIN, useGostKey("02")});
    EXPECT_EQ("6700", ask(token, "00 2A 9E 9A 1F" + run(31, "5C") + "40"));
    EXPECT_EQ("6700", ask(token, "00 2A 9E 9A 21" + run(33, "5C") + "40"));
    EXPECT_EQ("6700", ask(token, signDigest("00")));
    EXPECT_EQ("6700", ask(token, signDigest("41")));
    EXPECT_EQ("6700", ask(token, signDigest("")));
    EXPECT_EQ("6884", ask(token, "10 2A 9E 9A 20" + toHex(DIGEST)));
    EXPECT_EQ("6A86", ask(token, "00 2A 9E 9B 20" + toHex(DIGEST) + "40"));
}

TEST(KazTokenKeys, SigningNeedsThePinAndAKey)
{
    KazToken token;
    walk(token, {useGostKey("02")});
    EXPECT_EQ("6982", ask(token, signDigest()));
    EXPECT_EQ("6982", ask(token, signCommands(DIGEST, 256).first));
    walk(token, {RIGHT_PIN});
    EXPECT_EQ(66u, answer(token, signDigest()).size()) << "the choice has stayed";
    token.reset();
    walk(token, {RIGHT_PIN});
    EXPECT_EQ("6985", ask(token, signDigest())) << "the choice went with the power";
    walk(token, {useGostKey("02"), LOG_OUT});
    EXPECT_EQ("6982", ask(token, signDigest()));
}

TEST(KazTokenKeys, AKeyIsChosenInTheFormOfItsKind)
{
    KazToken token;
    EXPECT_EQ("6A88", ask(token, useRsaKey("02")));
    EXPECT_EQ("6A88", ask(token, useGostKey("01")));
    EXPECT_EQ("6A88", ask(token, useRsaKey("04")));
    EXPECT_EQ("6A86", ask(token, "00 22 41 A4 06 95 01 40 84 01 01"));
    EXPECT_EQ("6A86", ask(token, "00 22 C1 B6 06 95 01 40 84 01 01"));
    EXPECT_EQ("6A80", ask(token, "00 22 41 B6 06 92 01 40 84 01 01"));
    EXPECT_EQ("6A80", ask(token, "00 22 41 B6 06 95 01 80 84 01 01"));
    EXPECT_EQ("6A80", ask(token, "00 22 41 B6 06 95 01 40 83 01 01"));
    EXPECT_EQ("6700", ask(token, "00 22 41 B6 05 95 01 40 84 01"));
    EXPECT_EQ("6700", ask(token, "00 22 41 B6 07 95 01 40 84 01 01 00"));
    EXPECT_EQ("6700", ask(token, useRsaKey("01") + "00"));
    walk(token, {RIGHT_PIN, useGostKey("02")});
    EXPECT_EQ("6A88", ask(token, useGostKey("04")));
    EXPECT_EQ("6985", ask(token, signDigest())) << "a refused choice leaves none";
}

TEST(KazTokenKeys, PublicKeysAreReadWithoutThePin)
{
    KazToken token;
    const RsaKey large = RsaKey::fromTestKey(TestKey::First2048);
    const RsaKey small = RsaKey::fromTestKey(TestKey::First1024);
    const GostKey gost = GostKey::fromTestKey(GostTestKey::First2012);
    EXPECT_EQ(turned(large.modulus()), withoutStatus(answer(token, "00 46 81 01 00")));
    EXPECT_EQ(turned(small.modulus()), withoutStatus(answer(token, "00 46 81 03 00")));
    EXPECT_EQ(gost.publicKey(), withoutStatus(answer(token, "00 46 81 02 42")));
    EXPECT_EQ("6A88", ask(token, "00 46 81 04 00"));
    EXPECT_EQ("6700", ask(token, "00 46 81 01 42"));
    EXPECT_EQ("6700", ask(token, "00 46 81 02 00"));
    EXPECT_EQ("6700", ask(token, "00 46 81 01"));
    EXPECT_EQ("6A86", ask(token, "00 46 82 01 00"));
}

TEST(KazTokenKeys, APublicKeyGoesWithTheSecondFileAndThePrivateKeyWithTheFirst)
{
    KazToken token;
    walk(token, {RIGHT_PIN, useRsaKey("01")});
    token.removeFile(kazPairFile(0x6001, 1));
    EXPECT_EQ("6A88", ask(token, signCommands(DIGEST, 256).first));
    EXPECT_EQ("6A88", ask(token, useRsaKey("01")));
    EXPECT_EQ(258u, answer(token, "00 46 81 01 00").size());
    token.removeFile(kazPairFile(0x6002, 1));
    EXPECT_EQ("6A88", ask(token, "00 46 81 01 00"));
}

TEST(KazTokenKeys, CertificatesHoldThePairsKeys)
{
    KazToken token;
    const auto keyIn = [](const Bytes& der) {
        const unsigned char* at = der.data();
        const std::unique_ptr<X509, decltype(&X509_free)> certificate(
            d2i_X509(nullptr, &at, static_cast<long>(der.size())), X509_free);
        unsigned char* info = nullptr;
        const int length =
            certificate ? i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate.get()), &info) : 0;
        const Bytes bytes(info, info + length);
        OPENSSL_free(info);
        return bytes;
    };
    EXPECT_EQ(token.rsaKey(1).publicDer(), keyIn(token.certificate(1)));
    EXPECT_EQ(token.gostKey(2).publicDer(), keyIn(token.certificate(2)));
    EXPECT_EQ(Bytes{}, token.certificate(3));
    EXPECT_NE(token.certificate(1), token.certificate(2));
    token.setFile(kazPairFile(0x6004, 3), hex("1F 8B"));
    EXPECT_EQ(Bytes{}, token.certificate(3)) << "no whole gzip member";
}

TEST(KazTokenKeys, PairsOfAKindTakeTwoKeysInTurns)
{
    const KazToken token(withPairs({{.id = 1, .kind = KazKeyKind::Rsa1024, .certificate = false},
                                    {.id = 2, .kind = KazKeyKind::Rsa1024, .certificate = false},
                                    {.id = 3, .kind = KazKeyKind::Rsa1024, .certificate = false},
                                    {.id = 4, .kind = KazKeyKind::Rsa1024, .fresh = true}}));
    EXPECT_EQ(RsaKey::fromTestKey(TestKey::First1024).modulus(), token.rsaKey(1).modulus());
    EXPECT_EQ(RsaKey::fromTestKey(TestKey::Second1024).modulus(), token.rsaKey(2).modulus());
    EXPECT_EQ(token.rsaKey(1).modulus(), token.rsaKey(3).modulus());
    EXPECT_NE(token.rsaKey(2).modulus(), token.rsaKey(4).modulus());
    EXPECT_FALSE(token.gostKey(1));
    EXPECT_FALSE(token.rsaKey(5));
}

TEST(KazTokenKeys, AnRsaPairIsMadeInTheTwoFilesCreatedForIt)
{
    KazToken token(withPairs({}));
    walk(token, {RIGHT_PIN, SELECT_PRIVATE_KEYS, createKeyFile("01 00", "00 07", "23")});
    EXPECT_EQ("6A88", ask(token, "00 46 80 07")) << "one file is missing";
    walk(token, {SELECT_PUBLIC_KEYS, createKeyFile("01 00", "00 07", "23")});
    EXPECT_EQ("6A88", ask(token, "00 46 81 07 00")) << "no key yet";
    EXPECT_EQ("6A88", ask(token, useRsaKey("07")));
    walk(token, {LOG_OUT});
    EXPECT_EQ("6982", ask(token, "00 46 80 07"));
    walk(token, {RIGHT_PIN});
    EXPECT_EQ("6700", ask(token, "00 46 80 07 00"));
    walk(token, {"00 46 80 07"});
    const RsaKey key = token.rsaKey(7);
    EXPECT_EQ(2048u, key.bits());
    EXPECT_EQ(turned(key.modulus()), withoutStatus(answer(token, "00 46 81 07 00")));
    EXPECT_EQ("6985", ask(token, "00 46 80 07")) << "it stays as it is";
    walk(token, {useRsaKey("07")});
    const auto [first, last] = signCommands(DIGEST, 256);
    EXPECT_EQ("9000", ask(token, first));
    EXPECT_EQ(DIGEST, key.recover(turned(withoutStatus(answer(token, last)))));
}

TEST(KazTokenKeys, AGostPairIsMadeOfTheAlgorithmSet)
{
    for (const GostAlgorithm algorithm : {GostAlgorithm::Gost2001, GostAlgorithm::Gost2012_256}) {
        KazTokenOptions options = withPairs({});
        options.generatedGost = algorithm;
        KazToken token(options);
        walk(token, {RIGHT_PIN, SELECT_PRIVATE_KEYS, createKeyFile("00 40", "00 01", "03"),
                     SELECT_PUBLIC_KEYS, createKeyFile("00 40", "00 01", "03"), "00 46 80 01",
                     useGostKey("01")});
        const GostKey key = token.gostKey(1);
        EXPECT_EQ(algorithm, key.algorithm());
        EXPECT_EQ(key.publicKey(), withoutStatus(answer(token, "00 46 81 01 42")));
        EXPECT_TRUE(key.verify(DIGEST, withoutStatus(answer(token, signDigest()))));
    }
}

TEST(KazTokenKeys, FilesOfTwoKindsMakeNoPair)
{
    KazToken token(withPairs({}));
    walk(token, {RIGHT_PIN, SELECT_PRIVATE_KEYS, createKeyFile("00 40", "00 01", "03"),
                 SELECT_PUBLIC_KEYS, createKeyFile("01 00", "00 01", "23")});
    EXPECT_EQ("6985", ask(token, "00 46 80 01"));
}

TEST(KazTokenKeys, RandomBytesComeInTheNumberAskedFor)
{
    KazToken token;
    EXPECT_EQ(3u, answer(token, "00 84 00 00 01").size());
    EXPECT_EQ(258u, answer(token, "00 84 00 00 00").size());
    const Bytes first = withoutStatus(answer(token, "00 84 00 00 20"));
    const Bytes second = withoutStatus(answer(token, "00 84 00 00 20"));
    EXPECT_EQ(32u, first.size());
    EXPECT_NE(first, second);
    EXPECT_EQ("6A86", ask(token, "00 84 00 01 20"));
}

} // namespace
} // namespace sim
