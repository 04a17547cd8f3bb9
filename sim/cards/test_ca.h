// A small test authority: real X.509 certificates in whatever shape a test needs.
#pragma once

#include "sim/cards/gost_key.h"
#include "sim/cards/rsa_key.h"

#include <string>
#include <vector>

namespace sim {

// Text of a name attribute: printable where possible and UTF-8 otherwise (e-mail addresses are
// IA5String by themselves), or one encoding forced.
enum class NameText { Automatic, Printable, Utf8, Ia5, Bmp };

struct NameAttribute {
    std::string type; // a short name ("CN") or an object identifier in dots ("2.5.4.5")
    std::string value;
    NameText text = NameText::Automatic;
};

using NameAttributes = std::vector<NameAttribute>;

struct CertificateRequest {
    NameAttributes subject;
    NameAttributes issuer;
    Bytes serial{0x01}; // big-endian and positive; a high first bit brings a leading zero byte
    // 13 characters (YYMMDDhhmmssZ) make a UTCTime, 15 (YYYYMMDDhhmmssZ) a GeneralizedTime.
    std::string notBefore = "240301080000Z";
    std::string notAfter = "340301080000Z";
    int version = 3;        // 1 or 3; only version 3 carries extensions
    bool authority = false; // a certificate of the authority itself
};

// Issuer of the certificates that the cards bring: C, ST, L, O, OU, CN.
NameAttributes defaultIssuer();
// The same cut to its country and common name, and with an e-mail address behind it.
NameAttributes shortIssuer();
NameAttributes longIssuer();

// Certificate in DER, signed by the authority's key; the same request gives the same bytes.
Bytes issueCertificate(const RsaKey& key, const CertificateRequest& request);
Bytes issueCertificate(const GostKey& key, const CertificateRequest& request);

// The authority's own certificate in DER, under the default issuer's name.
Bytes authorityCertificate();

} // namespace sim
