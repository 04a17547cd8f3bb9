// What changes the token: writing a certificate, making a key pair, destroying one.
#include "src/front/debug.h"
#include "src/objects/cert_template.h"
#include "src/objects/stored_cert.h"
#include "src/objects/token_objects.h"
#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_apdu.h"
#include "src/tokens/kt/kt_files.h"

#include <array>

using velt::ByteRoom;
using velt::ByteView;
using velt::exchange;
using velt::report;

namespace {

constexpr std::uint64_t UNUSABLE_ID = 255;
constexpr std::size_t LABEL_BYTES = 16; // random, written as 32 characters
constexpr std::size_t LABEL_LENGTH = 2 * LABEL_BYTES;
constexpr std::size_t RECORD_LENGTH = 1 + LABEL_LENGTH + 1; // ID, label, terminator

// The files that a new key pair gets, by kind.
constexpr std::size_t RSA_KEY_FILE_SIZE = 256;
constexpr std::size_t GOST_KEY_FILE_SIZE = 64;

using MapRecord = std::array<std::uint8_t, RECORD_LENGTH>;

CK_RV readTemplate(velt::Attributes attributes, velt::CertificateTemplate& request) noexcept
{
    const CK_RV result = velt::readCertificateTemplate(
        attributes, {.unknownType = "KAZTOKEN CreateObject unknown type: "}, request);
    if (result != CKR_OK) {
        return result;
    }
    if (request.counted < velt::CERT_TEMPLATE_ATTRIBUTES || request.id == velt::NO_CERT_ID) {
        return report("KAZTOKEN CreateObject CKR_TEMPLATE_INCOMPLETE", CKR_TEMPLATE_INCOMPLETE);
    }
    return CKR_OK;
}

CK_RV compress(CK_SESSION_HANDLE hSession, ByteView value, velt::StoredCertificate& stored) noexcept
{
    std::uint64_t error = 0;
    if (!velt::compressCertificate(hSession, value, stored, error)) {
        return report("KAZTOKEN CreateObject gzip cert error ", error, CKR_FUNCTION_FAILED);
    }
    if (stored.length > velt::MAX_STORED_CERTIFICATE) {
        return report("KAZTOKEN CreateObject error gzipped cert length ", stored.length,
                      CKR_DEVICE_MEMORY);
    }
    return CKR_OK;
}

// Makes the certificate file anew, in the size of its content.
CK_RV writeCertificate(CK_SESSION_HANDLE hSession, std::uint8_t id, ByteView stored) noexcept
{
    std::uint64_t result =
        exchange(hSession, ktSelectFileDirectory(KT_DIR_CERTIFICATE), KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN CreateObject 1 APDU write certificate error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, ktSelectFile(KT_DIR_CERTIFICATE, id), KT_REPLY_SHORT);
    if (result != 0 && result != KT_SW_FILE_NOT_FOUND) {
        return report("KAZTOKEN CreateObject 2 APDU write certificate error ", result,
                      CKR_FUNCTION_FAILED);
    }
    exchange(hSession, ktDeleteFile(id), KT_REPLY_SHORT); // there may be none to delete
    result = exchange(hSession, ktCreateFile(id, stored.size()), KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN CreateObject 3 APDU write certificate error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result =
        VELT_WriteBinaryKT(hSession, stored.data(), 0, static_cast<std::int16_t>(stored.size()));
    if (result != 0) {
        return report("KAZTOKEN CreateObject write binary error ", result, CKR_FUNCTION_FAILED);
    }
    return report("KAZTOKEN CreateObject CKR_OK", CKR_OK);
}

// The ID byte, the random bytes in lower-case hexadecimal, a zero byte.
MapRecord composeRecord(std::uint8_t id, ByteView random) noexcept
{
    constexpr char DIGITS[] = "0123456789abcdef";
    MapRecord record{id};
    auto* next = record.begin() + 1;
    for (const std::uint8_t byte : random) {
        *next++ = static_cast<std::uint8_t>(DIGITS[byte >> 4]);
        *next++ = static_cast<std::uint8_t>(DIGITS[byte & 0x0F]);
    }
    return record;
}

// Chooses ID and label of a new key pair and lists it in the map file.
CK_RV listNewKeyPair(CK_SESSION_HANDLE hSession, MapRecord& record) noexcept
{
    std::uint64_t result = fObjectsInitKT(nullptr, hSession);
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair Objects initialize error ", result,
                      CKR_FUNCTION_FAILED);
    }
    const std::uint64_t id = lastID + 1;
    if (id == UNUSABLE_ID) {
        return report("KAZTOKEN GenerateKeyPair Max ID has been reached", CKR_DEVICE_MEMORY);
    }
    std::array<std::uint8_t, LABEL_BYTES> random{};
    result = fGenerateRandomKT(nullptr, hSession, random.data(), random.size());
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair gen label error", result, CKR_FUNCTION_FAILED);
    }
    record = composeRecord(velt::lowByte(id), random);
    result = updateMapFile(hSession, MAP_APPEND, mapFile.data(), mapFileLen, record.data(),
                           record.size());
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair Update map file error ", result,
                      CKR_FUNCTION_FAILED);
    }
    return CKR_OK;
}

// Creates one of the key pair's files; the result of the exchange that failed, or 0.
std::uint64_t createKeyFile(CK_SESSION_HANDLE hSession, std::uint8_t directory, std::uint8_t id,
                            std::uint8_t kind, std::size_t size) noexcept
{
    const std::uint64_t selected =
        exchange(hSession, ktSelectFileDirectory(directory), KT_REPLY_SHORT);
    return selected != 0 ? selected
                         : exchange(hSession, ktCreateKeyFile(id, kind, size), KT_REPLY_SHORT);
}

CK_RV generateRsa(CK_SESSION_HANDLE hSession, std::uint8_t id) noexcept
{
    std::uint64_t result =
        createKeyFile(hSession, KT_DIR_PRIVATE, id, KT_KIND_RSA, RSA_KEY_FILE_SIZE);
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair 1 APDU gen key pair rsa error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result = createKeyFile(hSession, KT_DIR_KEY, id, KT_KIND_RSA, RSA_KEY_FILE_SIZE);
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair 2 APDU gen key pair rsa error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, ktGenerateKeyPair(id), KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair 3 APDU gen key pair rsa error ", result,
                      CKR_FUNCTION_FAILED);
    }
    return CKR_OK;
}

CK_RV generateGost(CK_SESSION_HANDLE hSession, std::uint8_t id) noexcept
{
    std::uint64_t result =
        createKeyFile(hSession, KT_DIR_PRIVATE, id, KT_KIND_GOST, GOST_KEY_FILE_SIZE);
    if (result == 0) {
        result = createKeyFile(hSession, KT_DIR_KEY, id, KT_KIND_GOST, GOST_KEY_FILE_SIZE);
    }
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair 1 APDU gen key pair gost error ", result,
                      CKR_FUNCTION_FAILED);
    }
    result = exchange(hSession, ktGenerateKeyPair(id), KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN GenerateKeyPair 2 APDU gen key pair rsa  error ", result,
                      CKR_FUNCTION_FAILED);
    }
    return CKR_OK;
}

// Takes the key pair's record out of the map file.
std::uint64_t unlistKeyPair(CK_SESSION_HANDLE hSession, const ObjectEntry& entry) noexcept
{
    std::array<std::uint8_t, 1 + CARD_NAME_SIZE> record{entry.id[0]};
    const std::size_t length =
        velt::copyBounded(ByteRoom{record}.subspan(1), velt::cardNameOf(entry));
    return updateMapFile(hSession, MAP_REMOVE, mapFile.data(), mapFileLen, record.data(),
                         1 + length);
}

struct FileToDelete {
    std::uint8_t directory;
    velt::Message selectRefused;
    velt::Message deleteRefused;
};

constexpr std::array FILES_TO_DELETE{
    FileToDelete{.directory = KT_DIR_PRIVATE,
                 .selectRefused = "KAZTOKEN DestroyObject 1 APDU error ",
                 .deleteRefused = "KAZTOKEN DestroyObject 2 APDU error "},
    FileToDelete{.directory = KT_DIR_KEY,
                 .selectRefused = "KAZTOKEN DestroyObject 3 APDU error ",
                 .deleteRefused = "KAZTOKEN DestroyObject 4 APDU error "},
    FileToDelete{.directory = KT_DIR_CERTIFICATE,
                 .selectRefused = "KAZTOKEN DestroyObject 5 APDU error ",
                 .deleteRefused = "KAZTOKEN DestroyObject 6 APDU error "},
};

} // namespace

CK_RV fCreateObjectKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                      CK_ULONG ulCount, CK_OBJECT_HANDLE* /*phObject*/) noexcept
{
    velt::CertificateTemplate request;
    CK_RV result = readTemplate({pTemplate, ulCount}, request);
    if (result != CKR_OK) {
        return result;
    }
    velt::StoredCertificate stored;
    result = compress(hSession, request.value, stored);
    return result == CKR_OK ? writeCertificate(hSession, request.id, stored.view()) : result;
}

CK_RV fGenerateKeyPairKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                         CK_MECHANISM* pMechanism, CK_ATTRIBUTE* /*pPublicKeyTemplate*/,
                         CK_ULONG /*ulPublicKeyAttributeCount*/,
                         CK_ATTRIBUTE* /*pPrivateKeyTemplate*/,
                         CK_ULONG /*ulPrivateKeyAttributeCount*/, CK_OBJECT_HANDLE* phPublicKey,
                         CK_OBJECT_HANDLE* phPrivateKey) noexcept
{
    const bool isRsa = pMechanism->mechanism == CKM_RSA_PKCS_KEY_PAIR_GEN;
    if (!isRsa && pMechanism->mechanism != CKM_VELT_GOST_KEY_PAIR_GEN) {
        return report("KAZTOKEN GenerateKeyPair CKR_MECHANISM_INVALID", CKR_MECHANISM_INVALID);
    }
    MapRecord record{};
    CK_RV result = listNewKeyPair(hSession, record);
    if (result != CKR_OK) {
        return result;
    }
    result = isRsa ? generateRsa(hSession, record[0]) : generateGost(hSession, record[0]);
    if (result != CKR_OK) {
        return result;
    }
    result = velt::reloadAfterGeneration(hSession);
    if (result != CKR_OK) {
        return result;
    }
    velt::tellKeyPair(&ObjectEntry::label, ByteView{record}.subspan(1), phPublicKey, phPrivateKey);
    return report("KAZTOKEN GenerateKeyPair CKR_OK", CKR_OK);
}

// Kept: the record goes first, and nothing is put back when a file cannot be deleted; a key pair
// without a certificate fails there with its keys gone.
CK_RV fDestroyObjectKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession,
                       CK_OBJECT_HANDLE hObject) noexcept
{
    const ObjectEntry* entry = velt::liveEntryOf(hObject);
    if (entry == nullptr) {
        return CKR_FUNCTION_FAILED;
    }
    const std::uint8_t id = entry->id[0];
    std::uint64_t result = unlistKeyPair(hSession, *entry);
    if (result != 0) {
        return report("KAZTOKEN DestroyObject update map file error ", result, CKR_FUNCTION_FAILED);
    }
    for (const FileToDelete& file : FILES_TO_DELETE) {
        result = exchange(hSession, ktSelectFile(file.directory, id), KT_REPLY_SHORT);
        if (result != 0) {
            return report(file.selectRefused, result, CKR_FUNCTION_FAILED);
        }
        result = exchange(hSession, KT_DELETE_SELECTED, KT_REPLY_SHORT);
        if (result != 0) {
            return report(file.deleteRefused, result, CKR_FUNCTION_FAILED);
        }
    }
    return report("KAZTOKEN DestroyObject CKR_OK", CKR_OK);
}
