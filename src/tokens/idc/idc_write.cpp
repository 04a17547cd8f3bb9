// Writing to the card: a certificate, or a new key pair with its label.
#include "src/front/debug.h"
#include "src/objects/cert_template.h"
#include "src/objects/stored_cert.h"
#include "src/objects/token_objects.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/idc/idc_apdu.h"
#include "src/tokens/idc/idc_files.h"

using velt::ByteView;
using velt::exchange;
using velt::IdcKeyPair;
using velt::report;

namespace {

using velt::Attributes;

// What a certificate's template gave.
struct CertificateRequest {
    velt::CertificateTemplate common{};
    const IdcKeyPair* pair = nullptr;
};

// Kept: only the first byte of an ID counts, whatever its length.
CK_RV readKeyId(const CK_ATTRIBUTE& attribute, CertificateRequest& request) noexcept
{
    if (attribute.pValue == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    const IdcKeyPair* pair =
        velt::idcKeyPairOf(*static_cast<const std::uint8_t*>(attribute.pValue));
    if (pair == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    request.pair = pair;
    ++request.common.counted;
    return CKR_OK;
}

// Kept: any one attribute may count several times.
CK_RV readAttribute(const CK_ATTRIBUTE& attribute, CertificateRequest& request) noexcept
{
    switch (attribute.type) {
    case CKA_TOKEN:
        return velt::readCertToken(attribute, request.common);
    case CKA_CLASS:
        return velt::readCertClass(attribute, request.common);
    case CKA_VALUE:
        return velt::readCertValue(attribute, request.common);
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
    if (request.common.counted < velt::CERT_TEMPLATE_ATTRIBUTES) {
        return report("IDCard CreateObject CKR_TEMPLATE_INCOMPLETE", CKR_TEMPLATE_INCOMPLETE);
    }
    return CKR_OK;
}

CK_RV compress(CK_SESSION_HANDLE hSession, ByteView value, velt::StoredCertificate& stored) noexcept
{
    std::uint64_t error = 0;
    if (!velt::compressCertificate(hSession, value, stored, error)) {
        return report("IDCard CreateObject gzip cert error ", error, CKR_FUNCTION_FAILED);
    }
    if (stored.length > velt::MAX_STORED_CERTIFICATE) {
        return report("IDCard CreateObject error gzipped cert length ", stored.length,
                      CKR_DEVICE_MEMORY);
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

// Kept: labels that cannot be read back are no failure of the generation.
CK_RV reloadObjects(CK_SESSION_HANDLE hSession) noexcept
{
    const CK_RV result = velt::reloadAfterGeneration(hSession);
    switch (result) {
    case CKR_HOST_MEMORY:
        return report("IDCard GenerateKeyPair CKR_HOST_MEMORY", result);
    case CKR_DEVICE_ERROR:
        return report("IDCard GenerateKeyPair CKR_DEVICE_ERROR", result);
    default:
        return result;
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
    velt::StoredCertificate stored;
    result = compress(hSession, request.common.value, stored);
    if (result != CKR_OK) {
        return result;
    }
    result = writeCertificate(hSession, request.pair, stored.view());
    if (result != CKR_OK || request.pair == nullptr) {
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
