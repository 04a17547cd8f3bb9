// Writing to the card: a certificate, or a new key pair with its label.
#include "src/certdata/gzip.h"
#include "src/core/session.h"
#include "src/front/debug.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/idc/idc_apdu.h"
#include "src/tokens/idc/idc_files.h"

#include <cstring>
#include <span>

using velt::ByteView;
using velt::exchange;
using velt::IdcKeyPair;
using velt::report;

namespace {

constexpr std::size_t GZIP_ROOM = 4096;
constexpr std::size_t MAX_STORED_CERTIFICATE = 2048;
constexpr std::size_t TEMPLATE_ATTRIBUTES = 4; // class, token, value and ID

using Attributes = std::span<const CK_ATTRIBUTE>;

// What a certificate's template gave.
struct CertificateRequest {
    ByteView value{};
    const IdcKeyPair* pair = nullptr;
    std::size_t counted = 0;
};

// Reads the value of CKA_VALUE: NULL is a value only when it is empty.
CK_RV readValue(const CK_ATTRIBUTE& attribute, CertificateRequest& request) noexcept
{
    if (attribute.ulValueLen > CERT_VALUE_SIZE ||
        (attribute.pValue == nullptr && attribute.ulValueLen != 0)) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    request.value = {static_cast<const std::uint8_t*>(attribute.pValue), attribute.ulValueLen};
    ++request.counted;
    return CKR_OK;
}

CK_RV readKeyId(const CK_ATTRIBUTE& attribute, CertificateRequest& request) noexcept
{
    const IdcKeyPair* pair =
        velt::idcKeyPairOf(*static_cast<const std::uint8_t*>(attribute.pValue));
    if (pair == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    request.pair = pair;
    ++request.counted;
    return CKR_OK;
}

void countToken(const void* value, CertificateRequest& request) noexcept
{
    if (*static_cast<const std::uint8_t*>(value) == CK_TRUE) {
        ++request.counted;
    }
}

void countClass(const void* value, CertificateRequest& request) noexcept
{
    std::uint64_t objClass = 0;
    std::memcpy(&objClass, value, sizeof objClass);
    if (objClass == CKO_CERTIFICATE) {
        ++request.counted;
    }
}

// Kept: the lengths of the fixed-size attributes are not looked at, a class or token flag of
// another value is passed over, and any one attribute may count several times.
CK_RV readAttribute(const CK_ATTRIBUTE& attribute, CertificateRequest& request) noexcept
{
    const bool isFixedSize =
        attribute.type == CKA_TOKEN || attribute.type == CKA_CLASS || attribute.type == CKA_ID;
    if (isFixedSize && attribute.pValue == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    switch (attribute.type) {
    case CKA_TOKEN:
        countToken(attribute.pValue, request);
        return CKR_OK;
    case CKA_CLASS:
        countClass(attribute.pValue, request);
        return CKR_OK;
    case CKA_VALUE:
        return readValue(attribute, request);
    case CKA_ID:
        return readKeyId(attribute, request);
    default:
        return report("IDCard CreateObject unknown type:", attribute.type, CKR_OK);
    }
}

CK_RV readTemplate(Attributes attributes, CertificateRequest& request) noexcept
{
    for (const CK_ATTRIBUTE& attribute : attributes) {
        const CK_RV result = readAttribute(attribute, request);
        if (result != CKR_OK) {
            return result;
        }
    }
    if (request.counted < TEMPLATE_ATTRIBUTES) {
        return report("IDCard CreateObject CKR_TEMPLATE_INCOMPLETE", CKR_TEMPLATE_INCOMPLETE);
    }
    return CKR_OK;
}

void rememberError(CK_SESSION_HANDLE hSession, std::uint64_t error) noexcept
{
    if (SessionEntry* session = velt::findSession(hSession); session != nullptr && hSession != 0) {
        session->deviceError = error;
    }
}

// Compresses into `stored`; `length` becomes the bytes used.
CK_RV compress(CK_SESSION_HANDLE hSession, ByteView value, velt::ByteRoom stored,
               std::uint32_t& length) noexcept
{
    length = static_cast<std::uint32_t>(stored.size());
    const std::int32_t code =
        gzip(value.data(), static_cast<std::uint32_t>(value.size()), stored.data(), &length);
    if (code != 0 && code != 1) {
        const auto error = static_cast<std::uint64_t>(std::int64_t{code});
        rememberError(hSession, error);
        return report("IDCard CreateObject gzip cert error ", error, CKR_FUNCTION_FAILED);
    }
    if (length > MAX_STORED_CERTIFICATE) {
        return report("IDCard CreateObject error gzipped cert length ", length, CKR_DEVICE_MEMORY);
    }
    return CKR_OK;
}

// Selects the certificate file and writes length and content, in this order: a broken write leaves
// a length that promises more than is there.
CK_RV writeCertificate(CK_SESSION_HANDLE hSession, const IdcKeyPair* pair, ByteView stored) noexcept
{
    std::uint64_t result = exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard CreateObject 1 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, IDC_SELECT_CERTIFICATES, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard CreateObject 2 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    if (pair == nullptr) { // Kept: four attributes, none of them the ID, are refused only here
        return report("IDCard CreateObject CKR_TEMPLATE_INCOMPLETE", CKR_TEMPLATE_INCOMPLETE);
    }
    result = exchange(hSession, pair->selectCertificate, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard CreateObject 3 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, idcWriteLength(stored.size()), IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard CreateObject 4 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    result = VELT_WriteBinaryIDC(hSession, stored.data(), IDC_CONTENT_OFFSET,
                                 static_cast<std::int16_t>(stored.size()));
    if (result != 0) {
        return report("IDCard CreateObject write binary APDU error ", result, CKR_FUNCTION_FAILED);
    }
    return CKR_OK;
}

// The key pair that an attribute names, or NULL: not an ID, not one byte long, or not a known one.
const IdcKeyPair* keyPairNamedBy(const CK_ATTRIBUTE& attribute) noexcept
{
    if (attribute.type != CKA_ID || attribute.ulValueLen != 1 || attribute.pValue == nullptr) {
        return nullptr;
    }
    return velt::idcKeyPairOf(*static_cast<const std::uint8_t*>(attribute.pValue));
}

// Finds the key pair that both templates name. The last ID of the public one counts; those of the
// private one may not differ from it or from each other.
CK_RV chooseKeyPair(Attributes publicKey, Attributes privateKey, const IdcKeyPair*& chosen) noexcept
{
    for (const CK_ATTRIBUTE& attribute : publicKey) {
        if (const IdcKeyPair* pair = keyPairNamedBy(attribute); pair != nullptr) {
            chosen = pair;
        }
    }
    for (const CK_ATTRIBUTE& attribute : privateKey) {
        const IdcKeyPair* pair = keyPairNamedBy(attribute);
        if (pair != nullptr && chosen != nullptr && pair != chosen) {
            return report("IDCard GenerateKeyPair CKR_TEMPLATE_INCONSISTENT",
                          CKR_TEMPLATE_INCONSISTENT);
        }
        chosen = pair != nullptr ? pair : chosen;
    }
    if (chosen == nullptr) {
        return report("IDCard GenerateKeyPair CKR_ATTRIBUTE_VALUE_INVALID",
                      CKR_ATTRIBUTE_VALUE_INVALID);
    }
    return CKR_OK;
}

// Has the card make the keys, of a size that it chooses, and labels the key pair.
CK_RV generateOnCard(CK_SESSION_HANDLE hSession, std::uint8_t keyId) noexcept
{
    std::uint64_t result = exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard GenerateKeyPair 1 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, IDC_SELECT_KEYS, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard GenerateKeyPair 2 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, idcGenerateKeyPair(keyId), IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard GenerateKeyPair 3 APDU error ", result, CKR_FUNCTION_FAILED);
    }
    result = VELT_WriteAliasIDC(hSession, keyId);
    if (result != 0) {
        return report("IDCard GenerateKeyPair write alias error ", result, CKR_FUNCTION_FAILED);
    }
    return CKR_OK;
}

CK_RV reloadObjects(CK_SESSION_HANDLE hSession) noexcept
{
    constexpr std::uint64_t NO_MEMORY = 1;
    constexpr std::uint64_t CARD_FAILURE = 2;
    oiFlags |= RELOAD_OBJECTS;
    switch (VELTObjectsInit(hSession, velt::sessionTokenType(hSession))) {
    case NO_MEMORY:
        return report("IDCard GenerateKeyPair CKR_HOST_MEMORY", CKR_HOST_MEMORY);
    case CARD_FAILURE:
        return report("IDCard GenerateKeyPair CKR_DEVICE_ERROR", CKR_DEVICE_ERROR);
    default:
        return CKR_OK; // Kept: labels that cannot be read back are no failure of the generation.
    }
}

} // namespace

CK_RV fCreateObjectIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                       CK_ULONG ulCount, CK_OBJECT_HANDLE* phObject) noexcept
{
    CertificateRequest request;
    CK_RV result = readTemplate({pTemplate, ulCount}, request);
    if (result != CKR_OK) {
        return result;
    }
    std::array<std::uint8_t, GZIP_ROOM> stored{};
    std::uint32_t length = 0;
    result = compress(hSession, request.value, stored, length);
    if (result != CKR_OK) {
        return result;
    }
    result = writeCertificate(hSession, request.pair, ByteView{stored}.first(length));
    if (result != CKR_OK) {
        return result;
    }
    *phObject = request.pair->firstObject + 1;
    return CKR_OK;
}

CK_RV fGenerateKeyPairIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                          CK_MECHANISM* pMechanism, CK_ATTRIBUTE* pPublicKeyTemplate,
                          CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE* pPrivateKeyTemplate,
                          CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE* /*phPublicKey*/,
                          CK_OBJECT_HANDLE* /*phPrivateKey*/) noexcept
{
    if (pMechanism != nullptr && pMechanism->mechanism != CKM_RSA_PKCS_KEY_PAIR_GEN) {
        return report("IDCard GenerateKeyPair unknown mechanism ", pMechanism->mechanism,
                      CKR_MECHANISM_INVALID);
    }
    const IdcKeyPair* pair = nullptr;
    CK_RV result = chooseKeyPair({pPublicKeyTemplate, ulPublicKeyAttributeCount},
                                 {pPrivateKeyTemplate, ulPrivateKeyAttributeCount}, pair);
    if (result != CKR_OK) {
        return result;
    }
    result = generateOnCard(hSession, pair->keyId);
    return result == CKR_OK ? reloadObjects(hSession) : result;
}
