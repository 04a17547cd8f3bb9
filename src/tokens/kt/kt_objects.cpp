// Loading the token's objects from the map file's records, and what is read on first use: public
// keys and certificates.
#include "src/front/debug.h"
#include "src/objects/stored_cert.h"
#include "src/objects/token_objects.h"
#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_apdu.h"
#include "src/tokens/kt/kt_files.h"

#include <algorithm>

using velt::ByteRoom;
using velt::ByteView;
using velt::exchange;
using velt::LOAD_CARD_FAILURE;
using velt::LOAD_DONE;
using velt::LOAD_NO_MEMORY;
using velt::report;

namespace {

constexpr std::size_t ENTRIES_PER_RECORD = 3; // public key, private key, certificate

// What a record of the map file lists: an ID byte, then the label, which is the name, too.
velt::TokenObject listedAt(std::size_t position) noexcept
{
    const ByteView record = ByteView{tmpLabel[position]}.first(tmpLabelLen[position]);
    const ByteView label = record.subspan(record.empty() ? 0 : 1);
    return {.familyCode = FAMILY_CODE_KT,
            .label = label,
            .cardName = label,
            .id = tmpLabel[position][0]};
}

// Kept: a GOST private key stands before its public key, an RSA one behind it. A short reply is
// judged by what earlier ones left in its place.
CK_RV addKeys(const velt::TokenObject& object) noexcept
{
    const ByteView kind = ByteView{pbyOutput}.subspan<KT_FCP_KIND_POSITION, 3>();
    if (std::ranges::equal(kind, KT_RSA_KEY_FILE)) {
        const CK_RV made = velt::appendPublicKey(object, CKK_RSA);
        return made == LOAD_DONE ? velt::appendPrivateKey(object, CKK_RSA, CK_FALSE) : made;
    }
    if (std::ranges::equal(kind, KT_GOST_KEY_FILE)) {
        const CK_RV made = velt::appendPrivateKey(object, CKK_VELT_GOST, CK_FALSE);
        return made == LOAD_DONE ? velt::appendPublicKey(object, CKK_VELT_GOST) : made;
    }
    return LOAD_DONE;
}

CK_RV loadListed(CK_SESSION_HANDLE hSession, const velt::TokenObject& object) noexcept
{
    std::uint64_t result =
        exchange(hSession, ktSelectFileFcp(KT_DIR_KEY, object.id), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN ObjectsInit 2 APDU select map file error ", result,
                      LOAD_CARD_FAILURE);
    }
    const CK_RV made = addKeys(object);
    if (made != LOAD_DONE) {
        return made;
    }
    result = exchange(hSession, ktSelectFileFcp(KT_DIR_CERTIFICATE, object.id), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN ObjectsInit APDU no certificate ", result, LOAD_DONE);
    }
    return velt::appendCertificate(object);
}

CK_RV loadAll(CK_SESSION_HANDLE hSession) noexcept
{
    for (std::size_t position = 0; position < tmpObjCount; ++position) {
        const CK_RV result = loadListed(hSession, listedAt(position));
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

CK_RV readRsaKey(CK_SESSION_HANDLE hSession, const ObjectEntry& entry, PubKeyAttr& key) noexcept
{
    const std::uint64_t result =
        exchange(hSession, ktReadPublicKey(entry.id[0], KT_LE_RSA), KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN GetPublicKey APDU get RSA public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    storeModulus(key);
    return LOAD_DONE;
}

CK_RV readGostKey(CK_SESSION_HANDLE hSession, const ObjectEntry& entry, PubKeyAttr& key) noexcept
{
    const std::uint64_t result =
        exchange(hSession, ktReadPublicKey(entry.id[0], KT_LE_GOST_KEY), KT_REPLY_GOST);
    if (result != 0) {
        return report("KAZTOKEN GetPublicKey APDU get GOST public key error ", result,
                      LOAD_CARD_FAILURE);
    }
    key.valueLen = velt::copyBounded(key.value, velt::replyData());
    return LOAD_DONE;
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
        return LOAD_CARD_FAILURE;
    }
    velt::ExpandedCertificate expanded;
    if (!reading.fits || !velt::isConverted(velt::expandCertificate(
                             ByteView{stored}.first(reading.total), expanded))) {
        return report("KAZTOKEN GetCertificate cert ungzip error ", LOAD_CARD_FAILURE);
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
    const CK_RV loaded = loadAll(hSession);
    return loaded == LOAD_DONE ? report("KAZTOKEN ObjectsInit CKR_OK", LOAD_DONE) : loaded;
}

CK_RV fGetPublicKeyKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                      CK_OBJECT_HANDLE hObject) noexcept
{
    return velt::readPublicKey(hSession, hObject, readRsaKey, readGostKey,
                               "KAZTOKEN GetPublicKey CKR_OK");
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
        return report("KAZTOKEN GetCertificate APDU no certificate ", result, LOAD_CARD_FAILURE);
    }
    result = TLVParser();
    if (result != 0) {
        return result;
    }
    const CK_RV read = readCertificate(hSession, *attr);
    return read == LOAD_DONE ? report("KAZTOKEN GetCertificate CKR_OK", CKR_OK) : read;
}
