// Class blocks of the object table and their defaults. Text and names are bytes, numbers are in
// host order; a length of 0 means that the data has not been read from the card yet.
#pragma once

#include "src/front/pkcs11.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

inline constexpr std::size_t CERT_VALUE_SIZE = 4096;
inline constexpr std::size_t CERT_NAME_SIZE = 1024;
inline constexpr std::size_t CERT_SERIAL_SIZE = 64;
inline constexpr std::size_t CERT_TEXT_SIZE = 128;
inline constexpr std::size_t DATE_SIZE = 8;
inline constexpr std::size_t MODULUS_SIZE = 256;
inline constexpr std::size_t EXPONENT_SIZE = 5;
inline constexpr std::size_t PUBLIC_VALUE_SIZE = 64;

struct CertAttr {
    std::uint64_t certType; // CKC_X_509
    std::uint8_t initialised;
    std::uint8_t trusted;
    std::uint64_t category;
    std::uint8_t blankText[CERT_TEXT_SIZE];
    std::uint8_t
        startDate[DATE_SIZE]; // see velt::storeCertificateFields() for the order of its digits
    std::uint8_t endDate[DATE_SIZE];
    std::uint8_t value[CERT_VALUE_SIZE]; // DER certificate
    std::uint64_t valueLen;
    std::uint8_t issuer[CERT_NAME_SIZE]; // DER Name
    std::uint64_t issuerLen;
    std::uint8_t serial[CERT_SERIAL_SIZE]; // DER INTEGER
    std::uint64_t serialLen;
    std::uint8_t subject[CERT_NAME_SIZE]; // DER Name
    std::uint64_t subjectLen;
};

struct PubKeyAttr {
    std::uint64_t keyType; // CKK_RSA, or CKK_VELT_GOST for a key held in `value`
    std::uint8_t startDate[DATE_SIZE];
    std::uint8_t endDate[DATE_SIZE];
    std::uint8_t derive;
    std::uint8_t local;
    std::uint8_t encrypt;
    std::uint8_t verify;
    std::uint8_t verifyRecover;
    std::uint8_t wrap;
    std::uint8_t trusted;
    std::uint8_t modulus[MODULUS_SIZE]; // big-endian, modulusBits / 8 bytes
    std::uint64_t modulusBits;
    std::uint8_t publicExponent[EXPONENT_SIZE];
    std::uint64_t publicExponentLen;
    std::uint8_t value[PUBLIC_VALUE_SIZE];
    std::uint64_t valueLen;
};

struct PrivKeyAttr {
    std::uint64_t keyType;
    std::uint8_t startDate[DATE_SIZE];
    std::uint8_t endDate[DATE_SIZE];
    std::uint8_t derive;
    std::uint8_t local;
    std::uint8_t sensitive;
    std::uint8_t decrypt;
    std::uint8_t sign;
    std::uint8_t signRecover;
    std::uint8_t unwrap;
    std::uint8_t extractable;
    std::uint8_t alwaysSensitive;
    std::uint8_t neverExtractable;
    std::uint8_t wrapWithTrusted;
    std::uint8_t alwaysAuthenticate;
};

static_assert(std::is_trivially_copyable_v<CertAttr> && std::is_trivially_copyable_v<PubKeyAttr> &&
              std::is_trivially_copyable_v<PrivKeyAttr>);

// The defaults that drivers copy; zero until the driver table is first filled.
extern CertAttr certAttrTempl;
extern PubKeyAttr pubKeyAttrTempl;
extern PrivKeyAttr privKeyAttrTempl;

namespace velt {

// Sets up each default block once per process.
void initAttrTemplates() noexcept;

// Gives a zeroed block a certificate's defaults. Only the fields before the dates have any: copying
// the rest would touch its memory for nothing.
void setCertificateDefaults(CertAttr& zeroed) noexcept;

} // namespace velt
