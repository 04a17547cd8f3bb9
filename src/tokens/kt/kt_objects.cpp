// Loading the token's objects from the map file's records, and what is read on first use: public
// keys and certificates.
#include "src/front/debug.h"
#include "src/objects/object_table.h"
#include "src/objects/stored_cert.h"
#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_apdu.h"
#include "src/tokens/kt/kt_files.h"

#include <algorithm>

using velt::ByteRoom;
using velt::ByteView;
using velt::exchange;
using velt::report;

namespace {

constexpr std::size_t ENTRIES_PER_RECORD = 3; // public key, private key, certificate

// Results of a load.
constexpr CK_RV LOAD_DONE = 0;
constexpr CK_RV LOAD_NO_MEMORY = 1;
constexpr CK_RV LOAD_TOKEN_FAILURE = 2;

// A record of the map file.
struct Record {
    std::uint8_t id;
    ByteView label;
};

Record recordAt(std::size_t position) noexcept
{
    const ByteView record = ByteView{tmpLabel[position]}.first(tmpLabelLen[position]);
    return {.id = tmpLabel[position][0], .label = record.subspan(record.empty() ? 0 : 1)};
}

ObjectEntry& nextEntry() noexcept
{
    return *velt::entryAt(ulObjCount);
}

// Fills what all classes have and counts the object; its block is there already.
void makeEntry(const Record& record, CK_OBJECT_CLASS objClass) noexcept
{
    ObjectEntry& entry = nextEntry();
    entry.handle = ++ulObjCount;
    entry.familyCode = FAMILY_CODE_KT;
    entry.objClass = objClass;
    entry.isPrivate = CK_FALSE;
    velt::copyBounded(entry.label, record.label);
    entry.cardNameLen = velt::copyBounded(entry.cardName, record.label);
    entry.isToken = CK_TRUE;
    entry.isModifiable = CK_FALSE;
    entry.id[0] = record.id;
}

CK_RV addPublicKey(const Record& record, CK_KEY_TYPE keyType) noexcept
{
    PubKeyAttr* attr = velt::attachPublicKey(nextEntry());
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = pubKeyAttrTempl;
    attr->keyType = keyType;
    makeEntry(record, CKO_PUBLIC_KEY);
    return LOAD_DONE;
}

CK_RV addPrivateKey(const Record& record, CK_KEY_TYPE keyType) noexcept
{
    PrivKeyAttr* attr = velt::attachPrivateKey(nextEntry());
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = privKeyAttrTempl;
    attr->keyType = keyType;
    makeEntry(record, CKO_PRIVATE_KEY);
    return LOAD_DONE;
}

CK_RV addCertificate(const Record& record) noexcept
{
    CertAttr* attr = velt::attachCertificate(nextEntry());
    if (attr == nullptr) {
        return LOAD_NO_MEMORY;
    }
    *attr = certAttrTempl;
    makeEntry(record, CKO_CERTIFICATE);
    return LOAD_DONE;
}

// Kept: a GOST private key stands before its public key, an RSA one behind it. A short reply is
// judged by what earlier ones left in its place.
CK_RV addKeys(const Record& record) noexcept
{
    const ByteView kind = ByteView{pbyOutput}.subspan<KT_FCP_KIND_POSITION, 3>();
    if (std::ranges::equal(kind, KT_RSA_KEY_FILE)) {
        const CK_RV made = addPublicKey(record, CKK_RSA);
        return made == LOAD_DONE ? addPrivateKey(record, CKK_RSA) : made;
    }
    if (std::ranges::equal(kind, KT_GOST_KEY_FILE)) {
        const CK_RV made = addPrivateKey(record, CKK_VELT_GOST);
        return made == LOAD_DONE ? addPublicKey(record, CKK_VELT_GOST) : made;
    }
    return LOAD_DONE;
}

CK_RV loadRecord(CK_SESSION_HANDLE hSession, const Record& record) noexcept
{
    std::uint64_t result =
        exchange(hSession, ktSelectFileFcp(KT_DIR_KEY, record.id), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN ObjectsInit 2 APDU select map file error ", result,
                      LOAD_TOKEN_FAILURE);
    }
    const CK_RV made = addKeys(record);
    if (made != LOAD_DONE) {
        return made;
    }
    result = exchange(hSession, ktSelectFileFcp(KT_DIR_CERTIFICATE, record.id), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN ObjectsInit APDU no certificate ", result, LOAD_DONE);
    }
    return addCertificate(record);
}

CK_RV loadRecords(CK_SESSION_HANDLE hSession) noexcept
{
    for (std::size_t position = 0; position < tmpObjCount; ++position) {
        const CK_RV result = loadRecord(hSession, recordAt(position));
        if (result != LOAD_DONE) {
            return result;
        }
    }
    return LOAD_DONE;
}

// The token tells a modulus with its lowest byte first. Of one that is too long the field takes the
// last bytes of the reply.
void storeModulus(PubKeyAttr& key) noexcept
{
    const ByteView reply = velt::replyData();
    const std::size_t length = std::min(reply.size(), MODULUS_SIZE);
    std::ranges::reverse_copy(reply.last(length), key.modulus);
    key.modulusBits = 8 * length;
}

CK_RV readRsaKey(CK_SESSION_HANDLE hSession, std::uint8_t id, PubKeyAttr& key) noexcept
{
    const std::uint64_t result = exchange(hSession, ktReadPublicKey(id, KT_LE_RSA), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN GetPublicKey APDU get RSA public key error ", result,
                      LOAD_TOKEN_FAILURE);
    }
    storeModulus(key);
    return LOAD_DONE;
}

CK_RV readGostKey(CK_SESSION_HANDLE hSession, std::uint8_t id, PubKeyAttr& key) noexcept
{
    const std::uint64_t result =
        exchange(hSession, ktReadPublicKey(id, KT_LE_GOST_KEY), KT_REPLY_GOST);
    if (result != 0) {
        return report("KAZTOKEN GetPublicKey APDU get GOST public key error ", result,
                      LOAD_TOKEN_FAILURE);
    }
    key.valueLen = velt::copyBounded(key.value, velt::replyData());
    return LOAD_DONE;
}

CK_RV readKey(CK_SESSION_HANDLE hSession, std::uint8_t id, PubKeyAttr& key) noexcept
{
    switch (key.keyType) {
    case CKK_RSA:
        return readRsaKey(hSession, id, key);
    case CKK_VELT_GOST:
        return readGostKey(hSession, id, key);
    default:
        return LOAD_DONE;
    }
}

// Kept: read to its end even where the buffer has no room for all of it, which then is no
// certificate.
CK_RV readCertificate(CK_SESSION_HANDLE hSession, CertAttr& attr) noexcept
{
    std::array<std::uint8_t, velt::GZIP_ROOM> stored{};
    const velt::FileReading reading =
        velt::readSelectedFile(hSession, stored, true,
                               {.block = "KAZTOKEN GetCertificate APDU read cert error ",
                                .rest = "KAZTOKEN GetCertificate APDU select map file error "});
    if (reading.end != velt::FileReading::End::Done) {
        return LOAD_TOKEN_FAILURE;
    }
    velt::ExpandedCertificate expanded;
    if (!reading.fits || !velt::isConverted(velt::expandCertificate(
                             ByteView{stored}.first(reading.total), expanded))) {
        return report("KAZTOKEN GetCertificate cert ungzip error ", LOAD_TOKEN_FAILURE);
    }
    velt::storeCertificate(attr, expanded);
    return LOAD_DONE;
}

} // namespace

// Kept: a failed opening of the map file leaves the objects of the last load.
CK_RV fObjectsInitKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t opened = velt::openMapFile(hSession);
    if (opened != 0) {
        return opened;
    }
    if (!velt::rebuildObjects(tmpObjCount * ENTRIES_PER_RECORD)) {
        return LOAD_NO_MEMORY;
    }
    const CK_RV loaded = loadRecords(hSession);
    return loaded == LOAD_DONE ? report("KAZTOKEN ObjectsInit CKR_OK", LOAD_DONE) : loaded;
}

CK_RV fGetPublicKeyKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                      CK_OBJECT_HANDLE hObject) noexcept
{
    ObjectEntry* entry = velt::entryOf(hObject);
    PubKeyAttr* key = velt::publicKeyOf(entry);
    if (key != nullptr) {
        const CK_RV result = readKey(hSession, entry->id[0], *key);
        if (result != LOAD_DONE) {
            return result;
        }
    }
    return report("KAZTOKEN GetPublicKey CKR_OK", CKR_OK);
}

CK_RV fGetCertificateKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                        CK_OBJECT_HANDLE hObject) noexcept
{
    if (hObject == 0) {
        return CKR_OK; // the search asks for the object before the first
    }
    ObjectEntry* entry = velt::entryOf(hObject);
    CertAttr* attr = velt::certificateOf(entry);
    if (attr == nullptr) {
        return report("KAZTOKEN GetCertificate CKR_OK", CKR_OK);
    }
    std::uint64_t result =
        exchange(hSession, ktSelectFileFcp(KT_DIR_CERTIFICATE, entry->id[0]), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN GetCertificate APDU no certificate ", result, LOAD_TOKEN_FAILURE);
    }
    result = TLVParser();
    if (result != 0) {
        return result;
    }
    const CK_RV read = readCertificate(hSession, *attr);
    return read == LOAD_DONE ? report("KAZTOKEN GetCertificate CKR_OK", CKR_OK) : read;
}
