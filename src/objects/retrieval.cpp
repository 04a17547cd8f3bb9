#include "src/objects/retrieval.h"

#include "src/core/bytes.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/debug.h"
#include "src/objects/object_table.h"

#include <cstring>

namespace {

using velt::Refusal;

constexpr CK_ULONG UNAVAILABLE = ~CK_ULONG{0};     // ulValueLen of an attribute not served
constexpr CK_OBJECT_CLASS ANY_CLASS = UNAVAILABLE; // the attribute exists for every object
constexpr std::size_t FLAG = sizeof(CK_BBOOL);
constexpr std::size_t NUMBER = sizeof(CK_ULONG);
constexpr std::size_t NOT_LAZY = ~std::size_t{0};
constexpr std::size_t BITS_PER_BYTE = 8;
constexpr std::uint8_t ALWAYS_ONE = 1;

// The record that holds a value.
enum class Holder : std::uint8_t {
    Block,     // the object's class block
    Entry,     // the object's table entry
    KeyBefore, // the block of the public key at the position before
    Constant,  // ALWAYS_ONE
};

// What the length of a value is.
enum class Length : std::uint8_t {
    Whole, // all of its room
    Bytes, // a number in the record
    Bits,  // a number of bits in the record
    Text,  // the bytes before the first zero byte
};

struct AttributeRow {
    CK_ATTRIBUTE_TYPE type;
    CK_OBJECT_CLASS objClass = ANY_CLASS;
    Holder holder = Holder::Block;
    std::size_t offset = 0; // of the value in its record
    std::size_t room;       // of the value in its record
    Length length = Length::Whole;
    std::size_t lengthOffset = 0;      // of the number, for Length::Bytes and Length::Bits
    std::size_t lazyOffset = NOT_LAZY; // of the number that is 0 until the card was read
    bool gostOnly = false;             // exists for keys of the vendor type alone
};

// The object's class decides between rows of one type.
constexpr AttributeRow ROWS[] = {
    // Every object
    {.type = CKA_CLASS,
     .holder = Holder::Entry,
     .offset = offsetof(ObjectEntry, objClass),
     .room = NUMBER},
    {.type = CKA_TOKEN,
     .holder = Holder::Entry,
     .offset = offsetof(ObjectEntry, isToken),
     .room = FLAG},
    {.type = CKA_PRIVATE,
     .holder = Holder::Entry,
     .offset = offsetof(ObjectEntry, isPrivate),
     .room = FLAG},
    {.type = CKA_LABEL, // Kept: a label that fills its field reads on into the card name
     .holder = Holder::Entry,
     .offset = offsetof(ObjectEntry, label),
     .room = LABEL_SIZE + CARD_NAME_SIZE,
     .length = Length::Text},
    {.type = CKA_ID, // Kept: one byte, however long the ID on the card
     .holder = Holder::Entry,
     .offset = offsetof(ObjectEntry, id),
     .room = FLAG},
    {.type = CKA_MODIFIABLE,
     .holder = Holder::Entry,
     .offset = offsetof(ObjectEntry, isModifiable),
     .room = FLAG},

    // Certificates. Names, serial number and dates come with the body, hence its length is the one
    // that tells whether they are there.
    {.type = CKA_CERTIFICATE_TYPE,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, certType),
     .room = NUMBER},
    {.type = CKA_TRUSTED,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, trusted),
     .room = FLAG},
    {.type = CKA_VALUE,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, value),
     .room = CERT_VALUE_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(CertAttr, valueLen),
     .lazyOffset = offsetof(CertAttr, valueLen)},
    {.type = CKA_ISSUER,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, issuer),
     .room = CERT_NAME_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(CertAttr, issuerLen),
     .lazyOffset = offsetof(CertAttr, valueLen)},
    {.type = CKA_SERIAL_NUMBER,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, serial),
     .room = CERT_SERIAL_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(CertAttr, serialLen),
     .lazyOffset = offsetof(CertAttr, valueLen)},
    {.type = CKA_SUBJECT,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, subject),
     .room = CERT_NAME_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(CertAttr, subjectLen),
     .lazyOffset = offsetof(CertAttr, valueLen)},
    {.type = CKA_START_DATE,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, startDate),
     .room = DATE_SIZE,
     .lazyOffset = offsetof(CertAttr, valueLen)},
    {.type = CKA_END_DATE,
     .objClass = CKO_CERTIFICATE,
     .offset = offsetof(CertAttr, endDate),
     .room = DATE_SIZE,
     .lazyOffset = offsetof(CertAttr, valueLen)},
    {.type = CKA_VELT_CERTIFICATE_FLAG,
     .objClass = CKO_CERTIFICATE,
     .holder = Holder::Constant,
     .room = FLAG},

    // Public keys
    {.type = CKA_KEY_TYPE,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, keyType),
     .room = NUMBER},
    {.type = CKA_ENCRYPT,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, encrypt),
     .room = FLAG},
    {.type = CKA_WRAP,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, wrap),
     .room = FLAG},
    {.type = CKA_VERIFY,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, verify),
     .room = FLAG},
    {.type = CKA_LOCAL,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, local),
     .room = FLAG},
    {.type = CKA_MODULUS,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, modulus),
     .room = MODULUS_SIZE,
     .length = Length::Bits,
     .lengthOffset = offsetof(PubKeyAttr, modulusBits),
     .lazyOffset = offsetof(PubKeyAttr, modulusBits)},
    {.type = CKA_MODULUS_BITS,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, modulusBits),
     .room = NUMBER,
     .lazyOffset = offsetof(PubKeyAttr, modulusBits)},
    {.type = CKA_PUBLIC_EXPONENT,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, publicExponent),
     .room = EXPONENT_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(PubKeyAttr, publicExponentLen)},
    {.type = CKA_VALUE,
     .objClass = CKO_PUBLIC_KEY,
     .offset = offsetof(PubKeyAttr, value),
     .room = PUBLIC_VALUE_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(PubKeyAttr, valueLen),
     .lazyOffset = offsetof(PubKeyAttr, valueLen),
     .gostOnly = true},

    // Private keys. Drivers place a key pair's public key before its private key, which has no
    // modulus and exponent of its own.
    {.type = CKA_KEY_TYPE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, keyType),
     .room = NUMBER},
    {.type = CKA_SENSITIVE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, sensitive),
     .room = FLAG},
    {.type = CKA_DECRYPT,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, decrypt),
     .room = FLAG},
    {.type = CKA_UNWRAP,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, unwrap),
     .room = FLAG},
    {.type = CKA_SIGN,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, sign),
     .room = FLAG},
    {.type = CKA_SIGN_RECOVER,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, signRecover),
     .room = FLAG},
    {.type = CKA_DERIVE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, derive),
     .room = FLAG},
    {.type = CKA_EXTRACTABLE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, extractable),
     .room = FLAG},
    {.type = CKA_LOCAL,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, local),
     .room = FLAG},
    {.type = CKA_NEVER_EXTRACTABLE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, neverExtractable),
     .room = FLAG},
    {.type = CKA_ALWAYS_SENSITIVE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, alwaysSensitive),
     .room = FLAG},
    {.type = CKA_ALWAYS_AUTHENTICATE,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, alwaysAuthenticate),
     .room = FLAG},
    {.type = CKA_WRAP_WITH_TRUSTED,
     .objClass = CKO_PRIVATE_KEY,
     .offset = offsetof(PrivKeyAttr, wrapWithTrusted),
     .room = FLAG},
    {.type = CKA_MODULUS,
     .objClass = CKO_PRIVATE_KEY,
     .holder = Holder::KeyBefore,
     .offset = offsetof(PubKeyAttr, modulus),
     .room = MODULUS_SIZE,
     .length = Length::Bits,
     .lengthOffset = offsetof(PubKeyAttr, modulusBits),
     .lazyOffset = offsetof(PubKeyAttr, modulusBits)},
    {.type = CKA_PUBLIC_EXPONENT,
     .objClass = CKO_PRIVATE_KEY,
     .holder = Holder::KeyBefore,
     .offset = offsetof(PubKeyAttr, publicExponent),
     .room = EXPONENT_SIZE,
     .length = Length::Bytes,
     .lengthOffset = offsetof(PubKeyAttr, publicExponentLen)},
};

// One attribute asked of one object.
struct Request {
    CK_SESSION_HANDLE hSession;
    CK_OBJECT_HANDLE hObject;
    ObjectEntry& entry;
    CK_ATTRIBUTE& attribute;
};

const AttributeRow* rowOf(const Request& request) noexcept
{
    const auto row = std::ranges::find_if(ROWS, [&request](const AttributeRow& candidate) {
        return candidate.type == request.attribute.type &&
               (candidate.objClass == ANY_CLASS || candidate.objClass == request.entry.objClass);
    });
    return row == std::end(ROWS) ? nullptr : row;
}

// Kept: the attribute of another class is named an invalid type, one of no class a sensitive one.
Refusal refuseWithoutRow(const Request& request) noexcept
{
    const CK_ATTRIBUTE_TYPE type = request.attribute.type;
    if (std::ranges::find(ROWS, type, &AttributeRow::type) == std::end(ROWS)) {
        return velt::report("GetAttributeValue UNKNOWN ATTRIBUTE: ", type, Refusal::Sensitive);
    }
    // Kept: two messages that differ by a stray format, and two types that pass none.
    if (type == CKA_KEY_TYPE || type == CKA_TRUSTED) {
        velt::note("GetAttributeValue Object CLASS = %x", request.entry.objClass);
    } else if (type != CKA_CERTIFICATE_TYPE && type != CKA_VALUE) {
        velt::note("GetAttributeValue Object CLASS = ", request.entry.objClass);
    }
    return Refusal::TypeInvalid;
}

// The record of a row's value; NULL where the key before is none.
const void* recordOf(const AttributeRow& row, const Request& request) noexcept
{
    switch (row.holder) {
    case Holder::Entry:
        return &request.entry;
    case Holder::KeyBefore:
        return velt::publicKeyOf(velt::entryOf(request.hObject - 1));
    case Holder::Constant:
        return &ALWAYS_ONE;
    case Holder::Block:
        break;
    }
    return request.entry.attrs;
}

std::uint64_t numberAt(const std::uint8_t* record, std::size_t offset) noexcept
{
    std::uint64_t number = 0;
    std::memcpy(&number, record + offset, sizeof number);
    return number;
}

// Reads the card on first use. What the driver answers does not matter: the block is then served as
// it stands.
void loadOnce(const AttributeRow& row, const Request& request, const std::uint8_t* record) noexcept
{
    if (row.lazyOffset == NOT_LAZY || numberAt(record, row.lazyOffset) != 0) {
        return;
    }
    const auto load =
        row.objClass == CKO_CERTIFICATE ? &TokenDriver::GetCertificate : &TokenDriver::GetPublicKey;
    const bool isBefore = row.holder == Holder::KeyBefore;
    velt::callDriver(load, request.hSession, request.hObject - (isBefore ? 1 : 0));
}

// The value as far as its room: a length that a card made too large reaches no other field.
velt::ByteView valueOf(const AttributeRow& row, const std::uint8_t* record) noexcept
{
    const velt::ByteView room{record + row.offset, row.room};
    std::uint64_t length = row.room;
    switch (row.length) {
    case Length::Bytes:
        length = numberAt(record, row.lengthOffset);
        break;
    case Length::Bits:
        length = numberAt(record, row.lengthOffset) / BITS_PER_BYTE;
        break;
    case Length::Text:
        length = velt::textLength(room);
        break;
    case Length::Whole:
        break;
    }
    return room.first(std::min<std::uint64_t>(length, row.room));
}

// Before ulValueLen is overwritten: the message tells what the host had room for.
void noteTooSmall(const CK_ATTRIBUTE& attribute) noexcept
{
    if (attribute.type == CKA_LABEL) {
        velt::note("GetAttributeValue CKA_LABEL error CKR_BUFFER_TOO_SMALL");
    } else if (attribute.type == CKA_KEY_TYPE || attribute.type == CKA_VALUE) {
        velt::note("GetAttributeValue pTemplate.ulValueLen = ", attribute.ulValueLen);
    }
}

// Tells the length, and copies the value if there is a buffer for it.
Refusal put(velt::ByteView value, CK_ATTRIBUTE& attribute) noexcept
{
    if (attribute.pValue != nullptr) {
        if (attribute.ulValueLen < value.size()) {
            noteTooSmall(attribute);
            return Refusal::TooSmall;
        }
        velt::copyBounded({static_cast<std::uint8_t*>(attribute.pValue), value.size()}, value);
    }
    attribute.ulValueLen = value.size();
    return Refusal::None;
}

Refusal serve(const Request& request) noexcept
{
    const AttributeRow* row = rowOf(request);
    if (row == nullptr) {
        return refuseWithoutRow(request);
    }
    const auto* record = static_cast<const std::uint8_t*>(recordOf(*row, request));
    if (record == nullptr) {
        return Refusal::TypeInvalid;
    }
    if (row->gostOnly && numberAt(record, offsetof(PubKeyAttr, keyType)) != CKK_VELT_GOST) {
        return Refusal::TypeInvalid;
    }
    loadOnce(*row, request, record);
    return put(valueOf(*row, record), request.attribute);
}

void noteRefusal(Refusal last) noexcept
{
    switch (last) {
    case Refusal::TypeInvalid:
        velt::note("C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID");
        break;
    case Refusal::Sensitive:
        velt::note("C_GetAttributeValue Error CKR_ATTRIBUTE_SENSITIVE");
        break;
    case Refusal::TooSmall:
        velt::note("C_GetAttributeValue Error CKR_BUFFER_TOO_SMALL");
        break;
    case Refusal::None:
        break;
    }
}

CK_RV checkRead(CK_SESSION_HANDLE hSession, CK_ULONG ulCount) noexcept
{
    if (!velt::isIssuedHandle(hSession)) {
        return velt::report("GetAttributeValue CKR_SESSION_HANDLE_INVALID",
                            CKR_SESSION_HANDLE_INVALID);
    }
    if (!velt::isOpenSession(hSession)) {
        return velt::report("GetAttributeValue CKR_SESSION_CLOSED", CKR_SESSION_CLOSED);
    }
    if (ulCount == 0) {
        return velt::report("GetAttributeValue CKR_TEMPLATE_INCOMPLETE", CKR_TEMPLATE_INCOMPLETE);
    }
    return CKR_OK;
}

} // namespace

// Kept: one attribute served makes the call succeed; the others tell by their length.
CK_RV velt::attributeVerdict(bool served, Refusal last) noexcept
{
    if (served) {
        return report("C_GetAttributeValue CKR_OK", CKR_OK);
    }
    switch (last) {
    case Refusal::TypeInvalid:
        return report("C_GetAttributeValue CKR_ATTRIBUTE_TYPE_INVALID", CKR_ATTRIBUTE_TYPE_INVALID);
    case Refusal::Sensitive:
        return report("C_GetAttributeValue CKR_ATTRIBUTE_SENSITIVE", CKR_ATTRIBUTE_SENSITIVE);
    case Refusal::TooSmall:
        return report("C_GetAttributeValue CKR_BUFFER_TOO_SMALL", CKR_BUFFER_TOO_SMALL);
    case Refusal::None:
        break;
    }
    return report("C_GetAttributeValue CKR_FUNCTION_FAILED", CKR_FUNCTION_FAILED);
}

CK_RV VELT_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                             CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) noexcept
{
    if (const CK_RV result = checkRead(hSession, ulCount); result != CKR_OK) {
        return result;
    }
    ObjectEntry* entry = velt::entryOf(hObject);
    if (!velt::isLive(entry)) {
        return CKR_OBJECT_HANDLE_INVALID;
    }
    bool served = false;
    Refusal last = Refusal::None;
    for (CK_ATTRIBUTE& attribute : std::span(pTemplate, ulCount)) {
        velt::note("GetAttributeValue Attribute type = ", attribute.type);
        velt::note("GetAttributeValue hObject = ", hObject);
        const Refusal refusal = serve({hSession, hObject, *entry, attribute});
        if (refusal == Refusal::None) {
            served = true;
        } else {
            attribute.ulValueLen = UNAVAILABLE;
            last = refusal;
        }
        noteRefusal(last); // again for each attribute behind one that was refused
    }
    return velt::attributeVerdict(served, last);
}
