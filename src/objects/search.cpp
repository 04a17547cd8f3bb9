#include "src/objects/search.h"

#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/debug.h"

#include <array>
#include <cstdlib>
#include <cstring>

ObjectEntry* pTempl = nullptr;
std::uint64_t ulTCount = 0;
std::uint8_t bFindInit = 0;
std::uint64_t tObjCount = 0;

namespace {

// Template fields that the host left out hold values that no object carries.
constexpr CK_OBJECT_CLASS UNSET_CLASS = 0xFFFFFFFF;
constexpr std::uint8_t UNSET_BYTE = 0xFF;

constexpr CK_ATTRIBUTE_TYPE CERT_FIELDS[] = {CKA_ISSUER, CKA_SUBJECT, CKA_VALUE, CKA_SERIAL_NUMBER};

// One bit a table position: its handle was handed out by this search. Positions rather than a list
// of handles, so that a step costs the same however many were handed out before.
// The building of a table makes room for them, so that a step allocates nothing.
constexpr std::size_t WORD_BITS = 64;
std::array<std::uint64_t, 16> firstMarks{}; // enough for every token that exists
std::uint64_t* handedOut = firstMarks.data();
std::size_t handedOutWords = firstMarks.size();

// Positions before this one need no second look: they were handed out, or do not match and will not
// before the table or the template changes. A search in many steps then costs what one step would.
std::uint64_t nextPosition = 0;
bool askedCard = false; // by the walk that goes on

bool wasHandedOut(std::uint64_t position) noexcept
{
    return ((handedOut[position / WORD_BITS] >> (position % WORD_BITS)) & 1) != 0;
}

void markHandedOut(std::uint64_t position) noexcept
{
    handedOut[position / WORD_BITS] |= std::uint64_t{1} << (position % WORD_BITS);
}

void releaseMarks() noexcept
{
    if (handedOut != firstMarks.data()) {
        std::free(handedOut);
    }
    handedOut = firstMarks.data();
    handedOutWords = firstMarks.size();
}

void forgetHandedOut() noexcept
{
    std::fill(handedOut, handedOut + handedOutWords, std::uint64_t{0});
    tObjCount = 0;
}

void freeTemplate() noexcept
{
    if (pTempl != nullptr) {
        std::free(pTempl->attrs);
        std::free(pTempl);
        pTempl = nullptr;
    }
}

// Replaces the template by an unset one. False: out of memory, and the old one stays.
bool renewTemplate() noexcept
{
    auto* fresh = static_cast<ObjectEntry*>(std::calloc(1, sizeof(ObjectEntry)));
    if (fresh == nullptr) {
        return false;
    }
    freeTemplate();
    pTempl = fresh;
    pTempl->objClass = UNSET_CLASS;
    pTempl->isPrivate = UNSET_BYTE;
    pTempl->isToken = UNSET_BYTE;
    pTempl->isModifiable = UNSET_BYTE;
    pTempl->id[0] = UNSET_BYTE;
    return true;
}

// One of the certificate's fields that a search compares.
struct CertField {
    velt::ByteRoom room;
    std::uint64_t& length;
};

CertField fieldOf(CertAttr& attr, CK_ATTRIBUTE_TYPE type) noexcept
{
    switch (type) {
    case CKA_ISSUER:
        return {attr.issuer, attr.issuerLen};
    case CKA_SUBJECT:
        return {attr.subject, attr.subjectLen};
    case CKA_SERIAL_NUMBER:
        return {attr.serial, attr.serialLen};
    default:
        return {attr.value, attr.valueLen};
    }
}

velt::ByteView bytesOf(const CK_ATTRIBUTE& attribute) noexcept
{
    const auto* bytes = static_cast<const std::uint8_t*>(attribute.pValue);
    return {bytes, bytes == nullptr ? 0 : attribute.ulValueLen};
}

// A NULL value gives an empty field. A value longer than the field keeps its length, which no
// object's field has, and its bytes are left out.
CK_RV takeCertField(const CK_ATTRIBUTE& attribute) noexcept
{
    if (pTempl->attrs == nullptr && velt::attachCertificate(*pTempl) == nullptr) {
        return CKR_HOST_MEMORY;
    }
    const CertField field = fieldOf(*static_cast<CertAttr*>(pTempl->attrs), attribute.type);
    const velt::ByteView bytes = bytesOf(attribute);
    field.length = bytes.size();
    if (bytes.size() <= field.room.size()) {
        velt::copyBounded(field.room, bytes);
    }
    return CKR_OK;
}

// Kept: a certificate field counts only behind CKA_CLASS in the template. Before it, a serial
// number is passed over and the other three end the call.
CK_RV takeCertAttribute(const CK_ATTRIBUTE& attribute) noexcept
{
    if (pTempl->objClass == CKO_CERTIFICATE) {
        return takeCertField(attribute);
    }
    if (attribute.type == CKA_SERIAL_NUMBER) {
        return CKR_OK;
    }
    if (attribute.type == CKA_ISSUER) {
        velt::note("FindObjectsInit CKR_ATTRIBUTE_TYPE_INVALID");
    }
    return CKR_ATTRIBUTE_TYPE_INVALID;
}

// Kept: a label that is too long searches for the empty label.
void takeLabel(const CK_ATTRIBUTE& attribute) noexcept
{
    velt::fill(pTempl->label, 0);
    if (attribute.ulValueLen <= LABEL_SIZE) {
        velt::copyBounded(pTempl->label, bytesOf(attribute));
    }
}

// Kept: the stated length is not looked at where a value has a fixed size.
void takeCommonAttribute(const CK_ATTRIBUTE& attribute) noexcept
{
    const auto* bytes = static_cast<const std::uint8_t*>(attribute.pValue);
    if (bytes == nullptr) {
        return;
    }
    switch (attribute.type) {
    case CKA_CLASS:
        std::memcpy(&pTempl->objClass, bytes, sizeof pTempl->objClass);
        break;
    case CKA_TOKEN:
        pTempl->isToken = bytes[0];
        break;
    case CKA_PRIVATE:
        pTempl->isPrivate = bytes[0];
        break;
    case CKA_MODIFIABLE:
        pTempl->isModifiable = bytes[0];
        break;
    case CKA_ID:
        pTempl->id[0] = bytes[0];
        break;
    case CKA_LABEL:
        takeLabel(attribute);
        break;
    default:
        break;
    }
}

CK_RV takeAttribute(const CK_ATTRIBUTE& attribute) noexcept
{
    velt::note("VELT_PKCS11: Obj.type = ", attribute.type);
    if (std::ranges::find(CERT_FIELDS, attribute.type) != std::end(CERT_FIELDS)) {
        return takeCertAttribute(attribute);
    }
    takeCommonAttribute(attribute);
    return CKR_OK;
}

CK_RV takeTemplate(std::span<const CK_ATTRIBUTE> attributes) noexcept
{
    if (!renewTemplate()) {
        return CKR_HOST_MEMORY;
    }
    velt::note("FindObjectsInit ulCount = ", attributes.size());
    for (const CK_ATTRIBUTE& attribute : attributes) {
        if (const CK_RV result = takeAttribute(attribute); result != CKR_OK) {
            return result;
        }
    }
    ulTCount = attributes.size();
    return CKR_OK;
}

CK_RV checkFindInit(CK_SESSION_HANDLE hSession) noexcept
{
    if (!velt::isIssuedHandle(hSession)) {
        return velt::report("FindObjectsInit CKR_SESSION_HANDLE_INVALID",
                            CKR_SESSION_HANDLE_INVALID);
    }
    if (!velt::isOpenSession(hSession)) {
        return velt::report("FindObjectsInit CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    const CK_SLOT_ID slotID = velt::findSession(hSession)->slotID;
    if (!velt::isReaderOrPseudoSlot(slotID)) {
        return velt::report("FindObjectsInit CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    if (velt::tokenTypeOf(slotID) == TOKEN_NONE) {
        return velt::report("FindObjectsInit CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    return CKR_OK;
}

// Kept: the slot is judged before the handle. A handle without an entry has no slot to judge.
CK_RV checkFindSlot(CK_SESSION_HANDLE hSession) noexcept
{
    const SessionEntry* session = velt::findSession(hSession);
    if (session == nullptr) {
        return CKR_OK;
    }
    if (!velt::isReaderOrPseudoSlot(session->slotID)) {
        return velt::report("FindObjects CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    if (velt::tokenTypeOf(session->slotID) == TOKEN_NONE) {
        return velt::report("FindObjects CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    return CKR_OK;
}

CK_RV checkFind(CK_SESSION_HANDLE hSession) noexcept
{
    if (bFindInit == 0) {
        return velt::report("FindObjects CKR_OPERATION_NOT_INITIALIZED",
                            CKR_OPERATION_NOT_INITIALIZED);
    }
    if (const CK_RV result = checkFindSlot(hSession); result != CKR_OK) {
        return result;
    }
    if (!velt::isIssuedHandle(hSession)) {
        return velt::report("FindObjects CKR_SESSION_HANDLE_INVALID", CKR_SESSION_HANDLE_INVALID);
    }
    if (!velt::isOpenSession(hSession)) {
        return velt::report("FindObjects CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    return CKR_OK;
}

// Kept: bytes are compared as text, so that they may differ behind a zero byte.
bool equalFields(CertField wanted, CertField found) noexcept
{
    return wanted.length == found.length && wanted.length <= wanted.room.size() &&
           velt::equalText(wanted.room.data(), found.room.data(), wanted.length);
}

// Kept: the certificate is asked for by its position, one less than its handle.
std::uint64_t certificateScore(CK_SESSION_HANDLE hSession, std::uint64_t position) noexcept
{
    CertAttr* attr = velt::certificateOf(velt::entryAt(position));
    if (attr == nullptr) {
        return 0;
    }
    if (attr->valueLen == 0) {
        askedCard = true;
        velt::callDriver(&TokenDriver::GetCertificate, hSession, position);
    }
    auto& wanted = *static_cast<CertAttr*>(pTempl->attrs);
    return static_cast<std::uint64_t>(
        std::ranges::count_if(CERT_FIELDS, [&wanted, attr](CK_ATTRIBUTE_TYPE type) {
            return equalFields(fieldOf(wanted, type), fieldOf(*attr, type));
        }));
}

std::uint64_t commonScore(const ObjectEntry& entry) noexcept
{
    const bool equalities[] = {
        entry.objClass == pTempl->objClass, entry.isPrivate == pTempl->isPrivate,
        entry.isToken == pTempl->isToken,   entry.isModifiable == pTempl->isModifiable,
        entry.id[0] == pTempl->id[0],       velt::equalText(entry.label, pTempl->label, LABEL_SIZE),
    };
    return static_cast<std::uint64_t>(std::ranges::count(equalities, true));
}

// Kept: a match is a count. As many fields must be equal as the host gave attributes, whichever
// they are, so a field that it left out can make up for one that differs.
bool matches(CK_SESSION_HANDLE hSession, std::uint64_t position) noexcept
{
    const ObjectEntry& entry = *velt::entryAt(position);
    if (entry.handle == REMOVED_MARKER) {
        return false;
    }
    std::uint64_t score = commonScore(entry);
    if (pTempl->objClass == CKO_CERTIFICATE && pTempl->attrs != nullptr) {
        score += certificateScore(hSession, position);
    }
    return score >= ulTCount;
}

// Hands out up to `limit` new handles, any number for 0; returns how many. After a walk that had to
// ask the card the next one starts from the first position: an object may have come to match.
std::uint64_t handOut(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* phObject,
                      std::uint64_t limit) noexcept
{
    const std::uint64_t end = std::min<std::uint64_t>(ulObjCount, velt::objectTableSize());
    std::uint64_t found = 0;
    askedCard = false;
    std::uint64_t position = nextPosition;
    while (position < end && (limit == 0 || found < limit)) {
        if (matches(hSession, position) && !wasHandedOut(position)) {
            markHandedOut(position);
            phObject[found] = velt::entryAt(position)->handle;
            ++found;
            ++tObjCount;
        }
        ++position;
    }
    nextPosition = askedCard ? 0 : position;
    return found;
}

} // namespace

CK_RV VELT_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE* pTemplate,
                           CK_ULONG ulCount) noexcept
{
    ulTCount = 0; // also for a search that goes on
    velt::restartSearch();
    if (const CK_RV result = checkFindInit(hSession); result != CKR_OK) {
        return result;
    }
    if (const CK_RV result = takeTemplate({pTemplate, ulCount}); result != CKR_OK) {
        return result;
    }
    switch (VELTObjectsInit(hSession, velt::sessionTokenType(hSession))) {
    case 1:
        return velt::report("FindObjectsInit CKR_HOST_MEMORY", CKR_HOST_MEMORY);
    case 2:
        return velt::report("FindObjectsInit CKR_DEVICE_ERROR", CKR_DEVICE_ERROR);
    default: // Kept: any other failure searches what there is
        break;
    }
    if (!velt::coverPositions(velt::objectTableSize())) {
        return CKR_HOST_MEMORY;
    }
    forgetHandedOut();
    bFindInit = 1;
    return velt::report("FindObjectsInit CKR_OK", CKR_OK);
}

CK_RV VELT_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* phObject,
                       CK_ULONG ulMaxObjectCount, CK_ULONG* pulObjectCount) noexcept
{
    if (const CK_RV result = checkFind(hSession); result != CKR_OK) {
        return result;
    }
    if (phObject == nullptr || pulObjectCount == nullptr) {
        return velt::report("FindObjects CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    const std::uint64_t found = handOut(hSession, phObject, ulMaxObjectCount);
    *pulObjectCount = found;
    velt::note("FindObjects Found objects ", found);
    return velt::report("FindObjects CKR_OK", CKR_OK);
}

CK_RV VELT_FindObjectsFinal(CK_SESSION_HANDLE hSession) noexcept
{
    if (bFindInit == 0) {
        return velt::report("FindObjectsFinal CKR_OPERATION_NOT_INITIALIZED",
                            CKR_OPERATION_NOT_INITIALIZED);
    }
    if (!velt::isIssuedHandle(hSession)) {
        return velt::report("FindObjectsFinal CKR_SESSION_HANDLE_INVALID",
                            CKR_SESSION_HANDLE_INVALID);
    }
    if (!velt::isOpenSession(hSession)) {
        return velt::report("FindObjectsFinal CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    freeTemplate();
    releaseMarks();
    ulTCount = 0;
    bFindInit = 0;
    return velt::report("FindObjectsFinal CKR_OK", CKR_OK);
}

void velt::restartSearch() noexcept
{
    nextPosition = 0;
}

bool velt::coverPositions(std::size_t positions) noexcept
{
    const std::size_t words = (positions + WORD_BITS - 1) / WORD_BITS;
    if (words <= handedOutWords) {
        return true;
    }
    auto* room = static_cast<std::uint64_t*>(std::calloc(words, sizeof(std::uint64_t)));
    if (room == nullptr) {
        return false;
    }
    std::copy(handedOut, handedOut + handedOutWords, room);
    releaseMarks();
    handedOut = room;
    handedOutWords = words;
    return true;
}
