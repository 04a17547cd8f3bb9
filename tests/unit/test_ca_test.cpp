// The shapes of the certificates that the test authority makes.
#include "sim/cards/gzip_member.h"
#include "sim/cards/scripted_card.h"
#include "sim/cards/test_ca.h"

#include <algorithm>
#include <memory>

#include <gmock/gmock.h>
#include <openssl/x509.h>

namespace sim {
namespace {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

Certificate parsed(const Bytes& der)
{
    const unsigned char* at = der.data();
    Certificate certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())), X509_free);
    EXPECT_NE(nullptr, certificate);
    EXPECT_EQ(der.data() + der.size(), at);
    return certificate;
}

bool contains(const Bytes& der, const std::string& text)
{
    const Bytes part = hex(text);
    return std::search(der.begin(), der.end(), part.begin(), part.end()) != der.end();
}

RsaKey smallKey()
{
    return RsaKey::fromTestKey(TestKey::First1024);
}

CertificateRequest simpleRequest()
{
    CertificateRequest request;
    request.issuer = defaultIssuer();
    request.subject = {{"CN", "Holder"}};
    return request;
}

TEST(TestAuthority, ItsSignaturesVerifyWithItsOwnCertificate)
{
    const Certificate authority = parsed(authorityCertificate());
    const Certificate holder = parsed(issueCertificate(smallKey(), simpleRequest()));
    EXPECT_EQ(1, X509_verify(holder.get(), X509_get0_pubkey(authority.get())));
    EXPECT_EQ(1, X509_verify(authority.get(), X509_get0_pubkey(authority.get())));
    EXPECT_EQ(0, X509_NAME_cmp(X509_get_issuer_name(holder.get()),
                               X509_get_subject_name(authority.get())));
    EXPECT_EQ(1, EVP_PKEY_eq(smallKey().get(), X509_get0_pubkey(holder.get())));
}

TEST(TestAuthority, TheSameRequestGivesTheSameBytes)
{
    EXPECT_EQ(issueCertificate(smallKey(), simpleRequest()),
              issueCertificate(smallKey(), simpleRequest()));
}

TEST(TestAuthority, IssuersOfTwoSixAndSevenAttributes)
{
    CertificateRequest request = simpleRequest();
    const auto issuerEntries = [&] {
        const Certificate certificate = parsed(issueCertificate(smallKey(), request));
        return X509_NAME_entry_count(X509_get_issuer_name(certificate.get()));
    };
    EXPECT_EQ(6, issuerEntries());
    request.issuer = shortIssuer();
    EXPECT_EQ(2, issuerEntries());
    request.issuer = longIssuer();
    EXPECT_EQ(7, issuerEntries());
    EXPECT_TRUE(contains(issueCertificate(smallKey(), request),
                         "06092A864886F70D010901160F636140 76656C742E6578616D706C65"))
        << "an e-mail address is IA5String";
}

TEST(TestAuthority, TextKeepsTheEncodingAskedFor)
{
    CertificateRequest request = simpleRequest();
    request.subject = {{"2.5.4.5", "A1", NameText::Printable},
                       {"CN", "B2", NameText::Utf8},
                       {"OU", "C3", NameText::Ia5},
                       {"O", "\xD0\x96"}};
    const Bytes der = issueCertificate(smallKey(), request);
    EXPECT_TRUE(contains(der, "060355040513024131"));
    EXPECT_TRUE(contains(der, "06035504030C024232"));
    EXPECT_TRUE(contains(der, "060355040B16024333"));
    EXPECT_TRUE(contains(der, "060355040A0C02D096"));
}

TEST(TestAuthority, DatesAreUtcOrGeneralizedByTheirLength)
{
    CertificateRequest request = simpleRequest();
    request.notBefore = "250131120000Z";
    request.notAfter = "20500131120000Z";
    EXPECT_TRUE(contains(issueCertificate(smallKey(), request),
                         "3020170D3235303133313132303030305A180F32303530303133313132303030305A"));
    request.notAfter = "20300131120000Z";
    EXPECT_TRUE(
        contains(issueCertificate(smallKey(), request), "180F32303330303133313132303030305A"))
        << "not normalised to a UTCTime";
}

TEST(TestAuthority, VersionOneHasNeitherVersionNorExtensions)
{
    CertificateRequest request = simpleRequest();
    request.version = 1;
    const Certificate old = parsed(issueCertificate(smallKey(), request));
    EXPECT_EQ(X509_VERSION_1, X509_get_version(old.get()));
    EXPECT_EQ(0, X509_get_ext_count(old.get()));
    EXPECT_FALSE(contains(issueCertificate(smallKey(), request), "A003020102"));
    request.version = 3;
    const Certificate modern = parsed(issueCertificate(smallKey(), request));
    EXPECT_EQ(X509_VERSION_3, X509_get_version(modern.get()));
    EXPECT_EQ(3, X509_get_ext_count(modern.get()));
    request.version = 2;
    EXPECT_THROW(issueCertificate(smallKey(), request), std::invalid_argument);
}

TEST(TestAuthority, SerialNumbersArePositive)
{
    CertificateRequest request = simpleRequest();
    request.version = 1;
    request.serial = hex("7F 01 02");
    EXPECT_TRUE(contains(issueCertificate(smallKey(), request), "02037F0102300D"));
    request.serial = hex("80 01 02");
    EXPECT_TRUE(contains(issueCertificate(smallKey(), request), "020400800102300D"));
}

TEST(TestAuthority, RefusesWhatCannotBeEncoded)
{
    CertificateRequest request = simpleRequest();
    request.subject = {{"no such attribute", "x"}};
    EXPECT_THROW(issueCertificate(smallKey(), request), std::runtime_error);
    request = simpleRequest();
    request.notBefore = "250231120000Z";
    EXPECT_THROW(issueCertificate(smallKey(), request), std::runtime_error);
}

TEST(GzipMember, GivesBackWhatWentIn)
{
    const Bytes plain = authorityCertificate();
    const Bytes member = gzipMember(plain);
    EXPECT_EQ("1F8B08", toHex(std::span(member).first(3)));
    EXPECT_EQ(plain, gzipContent(member));
    EXPECT_EQ(plain, gzipContent(member, plain.size()));
    EXPECT_EQ(20u, gzipMember({}).size());
    EXPECT_TRUE(gzipContent(gzipMember({})).empty());
}

TEST(GzipMember, RefusesWhatIsNoCompleteMemberOrTooLarge)
{
    const Bytes plain = authorityCertificate();
    Bytes member = gzipMember(plain);
    EXPECT_THROW(gzipContent(member, plain.size() - 1), std::runtime_error);
    EXPECT_THROW(gzipContent(std::span(member).first(member.size() - 1)), std::runtime_error);
    EXPECT_THROW(gzipContent(plain), std::runtime_error);
    member[member.size() - 5] ^= 1; // in the checksum
    EXPECT_THROW(gzipContent(member), std::runtime_error);
}

} // namespace
} // namespace sim
