#include "src/objects/cert_template.h"

#include <algorithm>
#include <array>

namespace velt {

namespace {

const std::uint8_t* bytesOf(const CK_ATTRIBUTE& attribute) noexcept
{
    return static_cast<const std::uint8_t*>(attribute.pValue);
}

// The first object whose label is the text, which ends at its first zero byte.
const ObjectEntry* findLabel(ByteView text) noexcept
{
    std::array<std::uint8_t, LABEL_SIZE> wanted{};
    copyBounded(wanted, text.first(textLength(text)));
    for (std::uint64_t position = 0; position < ulObjCount; ++position) {
        const ObjectEntry* entry = entryAt(position);
        if (entry != nullptr && equalText(entry->label, wanted.data(), LABEL_SIZE)) {
            return entry;
        }
    }
    return nullptr;
}

CK_RV readLabel(const CK_ATTRIBUTE& attribute, Message longLabel,
                CertificateTemplate& request) noexcept
{
    if (attribute.ulValueLen > MAX_TEMPLATE_LABEL) {
        return report(longLabel, CKR_ATTRIBUTE_VALUE_INVALID);
    }
    if (attribute.pValue == nullptr && attribute.ulValueLen != 0) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    if (const ObjectEntry* key = findLabel({bytesOf(attribute), attribute.ulValueLen});
        key != nullptr) {
        request.named = key;
        request.id = key->id[0];
    }
    ++request.counted;
    return CKR_OK;
}

CK_RV readId(const CK_ATTRIBUTE& attribute, Message badId, CertificateTemplate& request) noexcept
{
    if (attribute.ulValueLen != 1) {
        return report(badId, CKR_ATTRIBUTE_VALUE_INVALID);
    }
    if (attribute.pValue == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    request.statedId = *bytesOf(attribute);
    request.id = request.statedId;
    ++request.counted;
    return CKR_OK;
}

} // namespace

CK_RV readCertClass(const CK_ATTRIBUTE& attribute, CertificateTemplate& request) noexcept
{
    if (attribute.pValue == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    CK_OBJECT_CLASS objClass = 0;
    std::memcpy(&objClass, attribute.pValue, sizeof objClass);
    if (objClass == CKO_CERTIFICATE) {
        ++request.counted;
    }
    return CKR_OK;
}

CK_RV readCertToken(const CK_ATTRIBUTE& attribute, CertificateTemplate& request) noexcept
{
    if (attribute.pValue == nullptr) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    if (*bytesOf(attribute) == CK_TRUE) {
        ++request.counted;
    }
    return CKR_OK;
}

CK_RV readCertValue(const CK_ATTRIBUTE& attribute, CertificateTemplate& request) noexcept
{
    if (attribute.ulValueLen > CERT_VALUE_SIZE ||
        (attribute.pValue == nullptr && attribute.ulValueLen != 0)) {
        return CKR_ATTRIBUTE_VALUE_INVALID;
    }
    request.value = {bytesOf(attribute), attribute.ulValueLen};
    ++request.counted;
    return CKR_OK;
}

CK_RV readCertificateTemplate(Attributes attributes, const TemplateMessages& messages,
                              CertificateTemplate& request) noexcept
{
    for (const CK_ATTRIBUTE& attribute : attributes) {
        CK_RV result = CKR_OK;
        switch (attribute.type) {
        case CKA_CLASS:
            result = readCertClass(attribute, request);
            break;
        case CKA_TOKEN:
            result = readCertToken(attribute, request);
            break;
        case CKA_LABEL:
            result = readLabel(attribute, messages.longLabel, request);
            break;
        case CKA_VALUE:
            result = readCertValue(attribute, request);
            break;
        case CKA_ID:
            result = readId(attribute, messages.badId, request);
            break;
        default:
            note(messages.unknownType, attribute.type);
            break;
        }
        if (result != CKR_OK) {
            return result;
        }
    }
    return CKR_OK;
}

} // namespace velt
