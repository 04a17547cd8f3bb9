// X.509 certificates made at test time.
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "tests/support/der.h"

namespace velt_test {

// One attribute of a name: OpenSSL's short name of its type, the string type, the text.
struct NameEntry {
    const char* type;
    int stringType;
    std::string value;
};
using NameEntries = std::vector<NameEntry>;

struct Extension {
    int nid;
    std::string value; // as in OpenSSL's configuration
};

struct CertificateSpec {
    int version = 3;
    Bytes serial{0x12, 0x34, 0x56, 0x78};
    NameEntries issuer;
    NameEntries subject;
    std::string notBefore = "250131120000Z"; // 13 characters: UTCTime, 15: GeneralizedTime
    std::string notAfter = "350228235959Z";
    std::vector<Extension> extensions;
    std::vector<std::pair<std::string, Bytes>> rawExtensions; // dotted identifier, content
    const char* key = "EC";                                   // or RSA
};

struct Certificate {
    Bytes der;
    Bytes issuer;
    Bytes subject;
    Bytes serial; // complete INTEGER
};

namespace detail {

template <auto Function>
struct Freer {
    template <class Object>
    void operator()(Object* object) const
    {
        Function(object);
    }
};
template <class Object, auto Function>
using Owned = std::unique_ptr<Object, Freer<Function>>;

inline void require(bool holds)
{
    if (!holds) {
        throw std::runtime_error("OpenSSL refused a part of a test certificate");
    }
}

inline EVP_PKEY* testKey(const std::string& kind)
{
    static const Owned<EVP_PKEY, EVP_PKEY_free> rsa{
        EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{1024})};
    static const Owned<EVP_PKEY, EVP_PKEY_free> curve{
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")};
    require(rsa && curve);
    return kind == "RSA" ? rsa.get() : curve.get();
}

template <class Object>
Bytes encoded(int (*encode)(const Object*, unsigned char**), const Object* object)
{
    unsigned char* octets = nullptr;
    const int length = encode(object, &octets);
    require(length > 0);
    Bytes bytes(octets, octets + length);
    OPENSSL_free(octets);
    return bytes;
}

inline Owned<X509_NAME, X509_NAME_free> makeName(const NameEntries& entries)
{
    Owned<X509_NAME, X509_NAME_free> name{X509_NAME_new()};
    for (const NameEntry& entry : entries) {
        const Bytes value = text(entry.value);
        require(X509_NAME_add_entry_by_txt(name.get(), entry.type, entry.stringType, value.data(),
                                           static_cast<int>(value.size()), -1, 0) == 1);
    }
    return name;
}

inline void addExtensions(X509* certificate, const CertificateSpec& spec)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    for (const Extension& wanted : spec.extensions) {
        const Owned<X509_EXTENSION, X509_EXTENSION_free> extension{
            X509V3_EXT_conf_nid(nullptr, &context, wanted.nid, wanted.value.c_str())};
        require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
    }
    for (const auto& [identifier, content] : spec.rawExtensions) {
        const Owned<ASN1_OBJECT, ASN1_OBJECT_free> object{OBJ_txt2obj(identifier.c_str(), 1)};
        const Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> octets{ASN1_OCTET_STRING_new()};
        require(ASN1_OCTET_STRING_set(octets.get(), content.data(),
                                      static_cast<int>(content.size())) == 1);
        const Owned<X509_EXTENSION, X509_EXTENSION_free> extension{
            X509_EXTENSION_create_by_OBJ(nullptr, object.get(), 0, octets.get())};
        require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
    }
}

inline void setTime(ASN1_TIME* time, const std::string& value)
{
    // Not normalised: a GeneralizedTime stays one even for a year that a UTCTime could tell.
    require(value.size() == 13 ? ASN1_UTCTIME_set_string(time, value.c_str()) == 1
                               : ASN1_GENERALIZEDTIME_set_string(time, value.c_str()) == 1);
}

} // namespace detail

inline Certificate makeCertificate(const CertificateSpec& spec)
{
    using namespace detail;
    const Owned<X509, X509_free> certificate{X509_new()};
    X509* const raw = certificate.get();
    require(X509_set_version(raw, spec.version - 1) == 1);
    const Owned<BIGNUM, BN_free> number{
        BN_bin2bn(spec.serial.data(), static_cast<int>(spec.serial.size()), nullptr)};
    const Owned<ASN1_INTEGER, ASN1_INTEGER_free> serial{BN_to_ASN1_INTEGER(number.get(), nullptr)};
    require(X509_set_serialNumber(raw, serial.get()) == 1);
    const auto issuer = makeName(spec.issuer);
    const auto subject = makeName(spec.subject);
    require(X509_set_issuer_name(raw, issuer.get()) == 1);
    require(X509_set_subject_name(raw, subject.get()) == 1);
    setTime(X509_getm_notBefore(raw), spec.notBefore);
    setTime(X509_getm_notAfter(raw), spec.notAfter);
    EVP_PKEY* const key = testKey(spec.key);
    require(X509_set_pubkey(raw, key) == 1);
    addExtensions(raw, spec);
    require(X509_sign(raw, key, EVP_sha256()) > 0);
    return {encoded(i2d_X509, static_cast<const X509*>(raw)),
            encoded(i2d_X509_NAME, static_cast<const X509_NAME*>(issuer.get())),
            encoded(i2d_X509_NAME, static_cast<const X509_NAME*>(subject.get())),
            encoded(i2d_ASN1_INTEGER, static_cast<const ASN1_INTEGER*>(serial.get()))};
}

// An issuer whose six attributes all count, and a subject with all that has a slot.
const NameEntries FULL_ISSUER{
    {"C", V_ASN1_PRINTABLESTRING, "KZ"},       {"ST", V_ASN1_UTF8STRING, "Abai"},
    {"L", V_ASN1_UTF8STRING, "Semey"},         {"O", V_ASN1_UTF8STRING, "Velt Trust"},
    {"OU", V_ASN1_PRINTABLESTRING, "Test CA"}, {"CN", V_ASN1_UTF8STRING, "Velt Test CA"},
};
const NameEntries FULL_SUBJECT{
    {"C", V_ASN1_PRINTABLESTRING, "KZ"},
    {"ST", V_ASN1_UTF8STRING, "Almaty region"},
    {"L", V_ASN1_UTF8STRING, "Talgar"},
    {"CN", V_ASN1_UTF8STRING, "Holder Example"},
    {"GN", V_ASN1_UTF8STRING, "Given"},
    {"SN", V_ASN1_UTF8STRING, "Holder"},
    {"serialNumber", V_ASN1_PRINTABLESTRING, "IIN000000000000"},
    {"emailAddress", V_ASN1_IA5STRING, "holder@velt.example"},
};

} // namespace velt_test
