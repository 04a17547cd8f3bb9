#include "src/objects/attr_blocks.h"

#include "src/core/bytes.h"

#include <cstring>

// Zero at load time, so that the module's data needs no initialisation.
CertAttr certAttrTempl;
PubKeyAttr pubKeyAttrTempl;
PrivKeyAttr privKeyAttrTempl;

namespace {

constexpr std::uint8_t SET = 1; // guard bytes: the template has been set up
constexpr std::uint64_t CATEGORY_TOKEN_USER = 1;
constexpr std::uint8_t DEFAULT_EXPONENT[] = {0x01, 0x00, 0x01};
static_assert(sizeof DEFAULT_EXPONENT <= EXPONENT_SIZE);

void initCertificate(CertAttr& attr) noexcept
{
    attr = {};
    attr.certType = CKC_X_509;
    attr.initialised = SET;
    attr.category = CATEGORY_TOKEN_USER;
    velt::fill(attr.blankText, ' ');
}

void initPublicKey(PubKeyAttr& attr) noexcept
{
    attr = {};
    attr.keyType = CKK_RSA;
    attr.local = SET;
    attr.encrypt = CK_TRUE;
    attr.verify = CK_TRUE;
    attr.publicExponentLen = velt::copyBounded(attr.publicExponent, DEFAULT_EXPONENT);
}

void initPrivateKey(PrivKeyAttr& attr) noexcept
{
    attr = {};
    attr.keyType = CKK_RSA;
    attr.local = SET;
    attr.sensitive = CK_TRUE;
    attr.decrypt = CK_TRUE;
    attr.sign = CK_TRUE;
    attr.alwaysSensitive = CK_TRUE;
    attr.neverExtractable = CK_TRUE;
}

} // namespace

// Each template has a guard of its own: the field whose default is 1.
void velt::initAttrTemplates() noexcept
{
    if (certAttrTempl.initialised != SET) {
        initCertificate(certAttrTempl);
    }
    if (pubKeyAttrTempl.local != SET) {
        initPublicKey(pubKeyAttrTempl);
    }
    if (privKeyAttrTempl.local != SET) {
        initPrivateKey(privKeyAttrTempl);
    }
}

void velt::setCertificateDefaults(CertAttr& zeroed) noexcept
{
    std::memcpy(&zeroed, &certAttrTempl, offsetof(CertAttr, startDate));
}
