// Reading the template of a certificate to be written (C_CreateObject).
#pragma once

#include "src/core/bytes.h"
#include "src/front/debug.h"
#include "src/front/pkcs11.h"
#include "src/objects/object_table.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace velt {

using Attributes = std::span<const CK_ATTRIBUTE>;

inline constexpr std::size_t CERT_TEMPLATE_ATTRIBUTES = 4; // as many must have counted
inline constexpr std::uint8_t NO_CERT_ID = 255;            // Kept: so 255 cannot be given
inline constexpr std::size_t MAX_TEMPLATE_LABEL = 40;

// What a template gave.
struct CertificateTemplate {
    ByteView value{};                   // the DER certificate, the host's memory
    std::uint8_t id = NO_CERT_ID;       // the last of CKA_ID and of keys found by label
    std::uint8_t statedId = NO_CERT_ID; // the last CKA_ID
    const ObjectEntry* named = nullptr; // the last key found by label
    std::size_t counted = 0;
};

// Each reads one attribute and counts it if it has the value that a certificate needs. NULL where a
// value would be read, and a certificate of more than 4,096 bytes: CKR_ATTRIBUTE_VALUE_INVALID.
// Kept: stated lengths are not looked at for a class or a flag.
CK_RV readCertClass(const CK_ATTRIBUTE& attribute, CertificateTemplate& request) noexcept;
CK_RV readCertToken(const CK_ATTRIBUTE& attribute, CertificateTemplate& request) noexcept;
CK_RV readCertValue(const CK_ATTRIBUTE& attribute, CertificateTemplate& request) noexcept;

// The messages that a family passes, or none.
struct TemplateMessages {
    Message unknownType; // passed with the type
    Message longLabel{};
    Message badId{};
};

// Reads a whole template in which an existing key's label or ID chooses the place. A label of more
// than 40 bytes or an ID that is not one byte ends it with CKR_ATTRIBUTE_VALUE_INVALID; attributes
// of other types do not count.
CK_RV readCertificateTemplate(Attributes attributes, const TemplateMessages& messages,
                              CertificateTemplate& request) noexcept;

} // namespace velt
