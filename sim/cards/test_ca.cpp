#include "sim/cards/test_ca.h"

#include "sim/cards/openssl_error.h"

#include <memory>
#include <stdexcept>

#include <openssl/bn.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace sim {

namespace {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Time = std::unique_ptr<ASN1_TIME, decltype(&ASN1_STRING_free)>;

constexpr std::size_t UTC_TIME_LENGTH = 13;

int encodingOf(NameText text)
{
    switch (text) {
    case NameText::Automatic:
        return MBSTRING_UTF8;
    case NameText::Printable:
        return V_ASN1_PRINTABLESTRING;
    case NameText::Utf8:
        return V_ASN1_UTF8STRING;
    case NameText::Ia5:
        return V_ASN1_IA5STRING;
    case NameText::Bmp:
        return V_ASN1_BMPSTRING;
    }
    throw std::invalid_argument("no such name encoding");
}

void fillName(X509_NAME* name, const NameAttributes& attributes)
{
    for (const NameAttribute& attribute : attributes) {
        const Bytes value(attribute.value.begin(), attribute.value.end());
        require(X509_NAME_add_entry_by_txt(name, attribute.type.c_str(), encodingOf(attribute.text),
                                           value.data(), static_cast<int>(value.size()), -1, 0),
                "name attribute");
    }
}

Time timeOf(const std::string& text)
{
    Time time(require(ASN1_TIME_new(), "time"), ASN1_STRING_free);
    const bool utc = text.size() == UTC_TIME_LENGTH;
    require(utc ? ASN1_UTCTIME_set_string(time.get(), text.c_str())
                : ASN1_GENERALIZEDTIME_set_string(time.get(), text.c_str()),
            "time");
    return time;
}

void setSerial(X509* certificate, const Bytes& serial)
{
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(
        require(BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr), "serial"),
        BN_free);
    require(BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)), "serial");
}

void addExtension(X509* certificate, int nid, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        require(X509V3_EXT_conf_nid(nullptr, &context, nid, value), "extension"),
        X509_EXTENSION_free);
    require(X509_add_ext(certificate, extension.get(), -1), "extension");
}

void addExtensions(X509* certificate, bool authority)
{
    addExtension(certificate, NID_basic_constraints, authority ? "critical,CA:TRUE" : "CA:FALSE");
    addExtension(certificate, NID_key_usage,
                 authority ? "critical,keyCertSign,cRLSign"
                           : "critical,digitalSignature,nonRepudiation,keyEncipherment");
    addExtension(certificate, NID_subject_key_identifier, "hash");
}

Bytes encoded(X509* certificate)
{
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate, &der);
    if (length <= 0) {
        throwOpenSsl("certificate");
    }
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

const RsaKey& authorityKey()
{
    static const RsaKey key = RsaKey::fromTestKey(TestKey::Authority);
    return key;
}

Bytes issueFor(EVP_PKEY* key, const CertificateRequest& request)
{
    if (request.version != 1 && request.version != 3) {
        throw std::invalid_argument("a certificate is of version 1 or 3");
    }
    const Certificate certificate(require(X509_new(), "certificate"), X509_free);
    X509* const raw = certificate.get();
    require(X509_set_version(raw, request.version - 1), "version");
    setSerial(raw, request.serial);
    fillName(X509_get_issuer_name(raw), request.issuer);
    fillName(X509_get_subject_name(raw), request.subject);
    require(X509_set1_notBefore(raw, timeOf(request.notBefore).get()), "notBefore");
    require(X509_set1_notAfter(raw, timeOf(request.notAfter).get()), "notAfter");
    require(X509_set_pubkey(raw, key), "public key");
    if (request.version == 3) {
        addExtensions(raw, request.authority);
    }
    if (X509_sign(raw, authorityKey().get(), EVP_sha256()) == 0) {
        throwOpenSsl("certificate signature");
    }
    return encoded(raw);
}

} // namespace

NameAttributes defaultIssuer()
{
    return {{"C", "KZ"},           {"ST", "Test Region"},      {"L", "Test City"},
            {"O", "Velt Testing"}, {"OU", "Test Authorities"}, {"CN", "Velt Test CA"}};
}

NameAttributes shortIssuer()
{
    return {{"C", "KZ"}, {"CN", "Velt Test CA"}};
}

NameAttributes longIssuer()
{
    NameAttributes issuer = defaultIssuer();
    issuer.push_back({"emailAddress", "ca@velt.example"});
    return issuer;
}

Bytes issueCertificate(const RsaKey& key, const CertificateRequest& request)
{
    return issueFor(key.get(), request);
}

Bytes issueCertificate(const GostKey& key, const CertificateRequest& request)
{
    return issueFor(key.get(), request);
}

Bytes authorityCertificate()
{
    CertificateRequest request;
    request.subject = request.issuer = defaultIssuer();
    request.authority = true;
    return issueCertificate(authorityKey(), request);
}

} // namespace sim
