// Loading the card's objects: certificate, public and private key of each key pair, at positions
// that never change.
#include "src/front/debug.h"
#include "src/objects/stored_cert.h"
#include "src/objects/token_objects.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/idc/idc_apdu.h"
#include "src/tokens/idc/idc_files.h"

#include <algorithm>

using velt::ByteRoom;
using velt::ByteView;
using velt::exchange;
using velt::IdcKeyPair;
using velt::LOAD_CARD_FAILURE;
using velt::LOAD_DONE;
using velt::LOAD_NO_MEMORY;

namespace {

constexpr std::size_t TABLE_SIZE = 10;
static_assert(IDC_ALIAS_SIZE == LABEL_SIZE);

constexpr CK_RV LOAD_NO_ALIASES = 6; // a load's result of this family alone

// Fills what all classes have and counts the object; its block is there already.
void makeEntry(std::size_t position, CK_OBJECT_CLASS objClass, const IdcKeyPair& pair) noexcept
{
    ObjectEntry& entry = *velt::entryAt(position);
    entry.handle = position + 1;
    entry.familyCode = FAMILY_CODE_IDC;
    entry.objClass = objClass;
    entry.isPrivate = CK_FALSE;
    velt::copyBounded(entry.label, pair.keyId == IDC_KEY_ID_1 ? Alias1 : Alias2);
    entry.isToken = CK_TRUE;
    entry.isModifiable = CK_FALSE;
    velt::fill(entry.id, 0);
    entry.id[0] = pair.keyId;
    ++ulObjCount;
}

// Length of the certificate file's content; 0 also when it cannot be read. Kept: behind a short
// reply the bytes of earlier ones count.
std::size_t readLength(CK_SESSION_HANDLE hSession) noexcept
{
    if (exchange(hSession, IDC_READ_LENGTH, IDC_REPLY_LENGTH) != 0) {
        return 0;
    }
    return velt::bigEndian16(pbyOutput[0], pbyOutput[1]);
}

// Stores the last reply's data as far as the buffer reaches.
void storeReply(ByteRoom content, std::size_t place) noexcept
{
    velt::copyBounded(content.subspan(std::min(place, content.size())), velt::replyData());
}

// Reads `length` bytes of the content. False: the card refused a block.
bool readContent(CK_SESSION_HANDLE hSession, std::size_t length, ByteRoom content) noexcept
{
    const std::uint8_t blocks = velt::highByte(length);
    const std::uint8_t rest = velt::lowByte(length);
    for (std::uint8_t i = 0; i < blocks; ++i) {
        if (exchange(hSession, idcReadBlock(i), IDC_REPLY_BLOCK) != 0) {
            return false;
        }
        storeReply(content, i * IDC_BLOCK_SIZE);
    }
    if (rest == 0) {
        return true;
    }
    if (exchange(hSession, idcReadRest(blocks, rest), rest + velt::STATUS_SIZE) != 0) {
        return false;
    }
    storeReply(content, blocks * IDC_BLOCK_SIZE);
    return true;
}

CK_RV addCertificate(const IdcKeyPair& pair, const velt::ExpandedCertificate& expanded) noexcept
{
    CertAttr* attr = velt::attachCertificate(*velt::entryAt(pair.firstObject));
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    velt::setCertificateDefaults(*attr);
    velt::storeCertificate(*attr, expanded);
    makeEntry(pair.firstObject, CKO_CERTIFICATE, pair);
    return LOAD_DONE;
}

// Expands the content and makes the certificate's object; content that is no gzip member makes
// none.
CK_RV addStored(const IdcKeyPair& pair, ByteView content) noexcept
{
    velt::ExpandedCertificate expanded;
    return velt::isConverted(velt::expandCertificate(content, expanded))
               ? addCertificate(pair, expanded)
               : LOAD_DONE;
}

CK_RV loadCertificate(CK_SESSION_HANDLE hSession, const IdcKeyPair& pair) noexcept
{
    exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS); // Kept: the next SELECT tells
    if (exchange(hSession, IDC_SELECT_CERTIFICATES, IDC_REPLY_STATUS) != 0 ||
        exchange(hSession, pair.selectCertificate, IDC_REPLY_STATUS) != 0) {
        return LOAD_CARD_FAILURE;
    }
    const std::size_t length = readLength(hSession);
    if (length == 0) {
        return LOAD_DONE;
    }
    std::array<std::uint8_t, CERT_VALUE_SIZE> content{};
    if (!readContent(hSession, std::min(length, content.size()), content)) {
        return LOAD_CARD_FAILURE;
    }
    if (length > content.size()) {
        return LOAD_DONE; // Kept: not tried, although a member that ends within could be expanded.
    }
    return addStored(pair, ByteView{content}.first(length));
}

CK_RV addPublicKey(const IdcKeyPair& pair, ByteView modulus) noexcept
{
    const std::size_t position = pair.firstObject + 1;
    PubKeyAttr* attr = velt::attachPublicKey(*velt::entryAt(position));
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = pubKeyAttrTempl;
    attr->modulusBits = 8 * velt::copyBounded(attr->modulus, modulus);
    makeEntry(position, CKO_PUBLIC_KEY, pair);
    return LOAD_DONE;
}

// The private key stands right behind its public key, from which its modulus is served.
CK_RV addPrivateKey(const IdcKeyPair& pair) noexcept
{
    const std::size_t position = pair.firstObject + 2;
    PrivKeyAttr* attr = velt::attachPrivateKey(*velt::entryAt(position));
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = privKeyAttrTempl;
    makeEntry(position, CKO_PRIVATE_KEY, pair);
    return LOAD_DONE;
}

CK_RV loadKeys(CK_SESSION_HANDLE hSession, const IdcKeyPair& pair) noexcept
{
    // Kept: neither SELECT decides, and the reply's capacity is the length of the last one's.
    exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS);
    exchange(hSession, IDC_SELECT_KEYS, IDC_REPLY_STATUS);
    const std::uint64_t result = velt::exchangeAsIs(hSession, idcGetPublicKey(pair.publicKey));
    if (result != 0) {
        return velt::report("IDCard ObjectsInit CKA_MODULUS read error ", result, LOAD_DONE);
    }
    // An absent key answers with two data bytes; a modulus that has no room is no key either.
    if (dwReplyLen < IDC_PUBLIC_KEY_FRAME || dwReplyLen - IDC_PUBLIC_KEY_FRAME > MODULUS_SIZE) {
        return LOAD_DONE;
    }
    const CK_RV made = addPublicKey(pair, velt::replyData().subspan(IDC_PUBLIC_KEY_HEADER));
    return made == LOAD_DONE ? addPrivateKey(pair) : made;
}

} // namespace

CK_RV fObjectsInitIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    Alias1.fill(0);
    Alias2.fill(0);
    if (!velt::rebuildObjects(TABLE_SIZE)) {
        return LOAD_NO_MEMORY;
    }
    if (VELT_SetAliasesIDC(hSession) != 0) {
        return LOAD_NO_ALIASES;
    }
    for (const IdcKeyPair& pair : velt::IDC_KEY_PAIRS) {
        CK_RV result = loadCertificate(hSession, pair);
        if (result == LOAD_DONE) {
            result = loadKeys(hSession, pair);
        }
        if (result != LOAD_DONE) {
            return result;
        }
    }
    return LOAD_DONE;
}

// A load reads everything, so there is nothing to fetch later.
CK_RV fGetPublicKeyIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/,
                       CK_OBJECT_HANDLE /*hObject*/) noexcept
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

CK_RV fGetCertificateIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/,
                         CK_OBJECT_HANDLE /*hObject*/) noexcept
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}
