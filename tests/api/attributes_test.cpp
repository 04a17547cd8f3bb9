// Attributes of an ID card's objects: every type on every class, in every size of buffer.
// C_GetAttributeValue.
#include "sim/cards/test_ca.h"
#include "tests/support/id_card_host.h"

#include <openssl/x509.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace velt_test {
namespace {

constexpr CK_ULONG NO_LENGTH = ~CK_ULONG{0};
constexpr CK_ATTRIBUTE_TYPE VENDOR_FLAG = 0xCE534352;

const Bytes YES{1};
const Bytes NO{0};
const Bytes NO_DATE{'2', 0, 0, 0, 0, 0, 0, 0}; // of a certificate whose times were not found

using Values = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

Bytes derOf(const X509_NAME* name)
{
    unsigned char* encoded = nullptr;
    const int length = i2d_X509_NAME(name, &encoded);
    const Bytes bytes(encoded, encoded + length);
    OPENSSL_free(encoded);
    return bytes;
}

// What OpenSSL finds in a certificate.
struct Parsed {
    explicit Parsed(const Bytes& der)
    {
        const unsigned char* at = der.data();
        const std::unique_ptr<X509, decltype(&X509_free)> x509(
            d2i_X509(nullptr, &at, static_cast<long>(der.size())), X509_free);
        issuer = derOf(X509_get_issuer_name(x509.get()));
        subject = derOf(X509_get_subject_name(x509.get()));
        unsigned char* encoded = nullptr;
        const int length = i2d_ASN1_INTEGER(X509_get0_serialNumber(x509.get()), &encoded);
        serial.assign(encoded, encoded + length);
        OPENSSL_free(encoded);
    }

    Bytes issuer;
    Bytes subject;
    Bytes serial; // with its header
};

class AttributesTest : public IdCardHost {
protected:
    static Values common(CK_OBJECT_CLASS objectClass, std::size_t pair)
    {
        return {
            {CKA_CLASS, bytesOfNumber(objectClass)},
            {CKA_TOKEN, YES},
            {CKA_PRIVATE, NO},
            {CKA_MODIFIABLE, NO},
            {CKA_LABEL, bytesOf(pair == 0 ? "RSA119860217350100427C" : "RSA219860217350100427C")},
            {CKA_ID, Bytes{pair == 0 ? ID_1 : ID_2}}};
    }

    Values certificate(std::size_t pair) const
    {
        const Parsed parsed(card->certificate(pair));
        Values values = common(CKO_CERTIFICATE, pair);
        values.insert({{CKA_CERTIFICATE_TYPE, bytesOfNumber(CKC_X_509)},
                       {CKA_TRUSTED, NO},
                       {CKA_VALUE, card->certificate(pair)},
                       {CKA_ISSUER, parsed.issuer},
                       {CKA_SERIAL_NUMBER, parsed.serial},
                       {CKA_SUBJECT, parsed.subject},
                       {CKA_START_DATE, bytesOf(std::string("2124030\0", 8))},
                       {CKA_END_DATE, bytesOf(std::string("2134030\0", 8))},
                       {VENDOR_FLAG, YES}});
        return values;
    }

    Values publicKey(std::size_t pair) const
    {
        Values values = common(CKO_PUBLIC_KEY, pair);
        values.insert({{CKA_KEY_TYPE, bytesOfNumber(CKK_RSA)},
                       {CKA_ENCRYPT, YES},
                       {CKA_WRAP, NO},
                       {CKA_VERIFY, YES},
                       {CKA_LOCAL, YES},
                       {CKA_MODULUS, card->modulus(pair)},
                       {CKA_MODULUS_BITS, bytesOfNumber(card->modulus(pair).size() * 8)},
                       {CKA_PUBLIC_EXPONENT, hex("01 00 01")}});
        return values;
    }

    Values privateKey(std::size_t pair) const
    {
        Values values = common(CKO_PRIVATE_KEY, pair);
        values.insert({{CKA_KEY_TYPE, bytesOfNumber(CKK_RSA)},
                       {CKA_SENSITIVE, YES},
                       {CKA_DECRYPT, YES},
                       {CKA_UNWRAP, NO},
                       {CKA_SIGN, YES},
                       {CKA_SIGN_RECOVER, NO},
                       {CKA_DERIVE, NO},
                       {CKA_EXTRACTABLE, NO},
                       {CKA_LOCAL, YES},
                       {CKA_NEVER_EXTRACTABLE, YES},
                       {CKA_ALWAYS_SENSITIVE, YES},
                       {CKA_ALWAYS_AUTHENTICATE, NO},
                       {CKA_WRAP_WITH_TRUSTED, NO},
                       {CKA_MODULUS, card->modulus(pair)},
                       {CKA_PUBLIC_EXPONENT, hex("01 00 01")}});
        return values;
    }

    // All six objects with what each must serve.
    std::vector<std::pair<CK_OBJECT_HANDLE, Values>> objects() const
    {
        return {{CERTIFICATE_1, certificate(0)}, {PUBLIC_1, publicKey(0)},
                {PRIVATE_1, privateKey(0)},      {CERTIFICATE_2, certificate(1)},
                {PUBLIC_2, publicKey(1)},        {PRIVATE_2, privateKey(1)}};
    }

    // One attribute into a buffer of `room` bytes; what the host finds afterwards.
    struct Answer {
        CK_RV result;
        CK_ULONG length;
        Bytes buffer;
    };
    Answer read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, std::size_t room)
    {
        Bytes buffer(room + 8, SENTINEL);
        CK_ATTRIBUTE attribute{type, buffer.data(), room};
        const CK_RV result = p11.C_GetAttributeValue(session, object, &attribute, 1);
        return {result, attribute.ulValueLen, buffer};
    }

    CK_RV ask(CK_OBJECT_HANDLE object, std::vector<CK_ATTRIBUTE>& attributes)
    {
        return p11.C_GetAttributeValue(session, object, attributes.data(), attributes.size());
    }

    static std::vector<std::string> oneRead(CK_ATTRIBUTE_TYPE type, CK_OBJECT_HANDLE object)
    {
        return {numbered("GetAttributeValue Attribute type = ", type),
                numbered("GetAttributeValue hObject = ", object)};
    }

    using Lines = std::vector<std::string>;
};

// A value followed by untouched bytes.
Bytes padded(Bytes value, std::size_t size)
{
    value.resize(size, SENTINEL);
    return value;
}

TEST_F(AttributesTest, EveryObjectServesItsAttributesWithoutAskingTheCard)
{
    openOn();
    for (const auto& [object, values] : objects()) {
        for (const auto& [type, expected] : values) {
            SCOPED_TRACE(numbered("object ", object) + numbered(", attribute ", type));
            EXPECT_EQ(expected, value(object, type));
        }
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(AttributesTest, EverySizeOfBufferIsJudgedByTheLengthOfTheValue)
{
    openOn();
    for (const auto& [object, values] : objects()) {
        for (const auto& [type, expected] : values) {
            SCOPED_TRACE(numbered("object ", object) + numbered(", attribute ", type));
            const std::size_t size = expected.size();
            CK_ATTRIBUTE query{type, nullptr, 12345};
            EXPECT_RV(CKR_OK, p11.C_GetAttributeValue(session, object, &query, 1));
            EXPECT_EQ(size, query.ulValueLen);
            for (const std::size_t room : {size, size + 1, size + 100}) {
                const Answer answer = read(object, type, room);
                EXPECT_RV(CKR_OK, answer.result);
                EXPECT_EQ(size, answer.length);
                EXPECT_EQ(padded(expected, room + 8), answer.buffer);
            }
            for (const std::size_t room : {size - 1, size / 2, std::size_t{0}}) {
                const Answer answer = read(object, type, room);
                EXPECT_RV(CKR_BUFFER_TOO_SMALL, answer.result);
                EXPECT_EQ(NO_LENGTH, answer.length);
                EXPECT_EQ(Bytes(room + 8, SENTINEL), answer.buffer);
            }
        }
    }
}

TEST_F(AttributesTest, ABufferWhoseLengthIsMinusOneIsLargeEnough)
{
    openOn();
    for (const auto& [object, values] : objects()) {
        for (const auto& [type, expected] : values) {
            Bytes buffer(expected.size() + 8, SENTINEL);
            CK_ATTRIBUTE attribute{type, buffer.data(), NO_LENGTH};
            EXPECT_RV(CKR_OK, p11.C_GetAttributeValue(session, object, &attribute, 1));
            EXPECT_EQ(expected.size(), attribute.ulValueLen);
            EXPECT_EQ(padded(expected, buffer.size()), buffer);
        }
    }
}

TEST_F(AttributesTest, AttributesOfAnotherClassAreInvalidAndUnknownOnesSensitive)
{
    openOn();
    Values known = certificate(0);
    known.merge(publicKey(0));
    known.merge(privateKey(0));
    std::vector<CK_ATTRIBUTE_TYPE> types{VENDOR_FLAG, 0xCE534351, 0x80000000, NO_LENGTH};
    for (CK_ATTRIBUTE_TYPE type = 0; type < 0x700; ++type) {
        types.push_back(type);
    }
    for (const auto& [object, values] : objects()) {
        for (const CK_ATTRIBUTE_TYPE type : types) {
            if (values.contains(type)) {
                continue;
            }
            const Answer answer = read(object, type, 64);
            EXPECT_RV(known.contains(type) ? CKR_ATTRIBUTE_TYPE_INVALID : CKR_ATTRIBUTE_SENSITIVE,
                      answer.result)
                << "attribute " << type << " of object " << object;
            EXPECT_EQ(NO_LENGTH, answer.length);
            EXPECT_EQ(Bytes(72, SENTINEL), answer.buffer);
        }
    }
}

TEST_F(AttributesTest, OneAttributeServedMakesTheCallSucceed)
{
    openOn();
    CK_OBJECT_CLASS objectClass = 0;
    std::vector<CK_ATTRIBUTE> attributes{{CKA_MODULUS, nullptr, 0},
                                         {CKA_CLASS, &objectClass, sizeof objectClass},
                                         {CKA_VERIFY_RECOVER, nullptr, 0}};
    EXPECT_RV(CKR_OK, ask(CERTIFICATE_1, attributes));
    EXPECT_EQ(NO_LENGTH, attributes[0].ulValueLen);
    EXPECT_EQ(8U, attributes[1].ulValueLen);
    EXPECT_EQ(CKO_CERTIFICATE, objectClass);
    EXPECT_EQ(NO_LENGTH, attributes[2].ulValueLen);
}

TEST_F(AttributesTest, TheLastFailureNamesTheCode)
{
    openOn();
    CK_BYTE small = SENTINEL;
    const CK_ATTRIBUTE wrongClass{CKA_MODULUS, nullptr, 0};
    const CK_ATTRIBUTE unknown{CKA_VERIFY_RECOVER, nullptr, 0};
    const CK_ATTRIBUTE tooSmall{CKA_LABEL, &small, 1};
    std::vector<CK_ATTRIBUTE> attributes{wrongClass, unknown, tooSmall};
    EXPECT_RV(CKR_BUFFER_TOO_SMALL, ask(CERTIFICATE_1, attributes));
    attributes = {unknown, tooSmall, wrongClass};
    EXPECT_RV(CKR_ATTRIBUTE_TYPE_INVALID, ask(CERTIFICATE_1, attributes));
    attributes = {tooSmall, wrongClass, unknown};
    EXPECT_RV(CKR_ATTRIBUTE_SENSITIVE, ask(CERTIFICATE_1, attributes));
    for (const CK_ATTRIBUTE& attribute : attributes) {
        EXPECT_EQ(NO_LENGTH, attribute.ulValueLen);
    }
    EXPECT_EQ(SENTINEL, small);
}

TEST_F(AttributesTest, SessionThenCountThenObjectAreChecked)
{
    openOn();
    const CK_SESSION_HANDLE closed = open(0);
    ASSERT_RV(CKR_OK, p11.C_CloseSession(closed));
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    for (const CK_SESSION_HANDLE stray : {CK_SESSION_HANDLE{0}, closed + 1, closed + 1000,
                                          CK_SESSION_HANDLE{0xFFFFFFFF}, ~CK_SESSION_HANDLE{0}}) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_GetAttributeValue(stray, 0, &attribute, 0));
    }
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_GetAttributeValue(closed, 0, &attribute, 0));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, p11.C_GetAttributeValue(session, 0, &attribute, 0));
    EXPECT_RV(CKR_TEMPLATE_INCOMPLETE, p11.C_GetAttributeValue(session, 1, nullptr, 0));
    for (const CK_OBJECT_HANDLE stray :
         std::vector<CK_OBJECT_HANDLE>{0, 7, 8, 10, 11, 12, 1000000, 0x4B5A0000, 0xFFFFFFFF,
                                       0x100000001, ~CK_OBJECT_HANDLE{0}}) {
        EXPECT_RV(CKR_OBJECT_HANDLE_INVALID,
                  p11.C_GetAttributeValue(session, stray, &attribute, 1));
    }
    EXPECT_EQ(0U, attribute.ulValueLen);
}

TEST_F(AttributesTest, ObjectsThatTheCardDoesNotHaveAreInvalid)
{
    sim::IdCardOptions options;
    options.positions[0].certificate = false;
    options.positions[1].keyBits = 0;
    openOn(options);
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    for (const CK_OBJECT_HANDLE absent : {CERTIFICATE_1, PUBLIC_2, PRIVATE_2}) {
        EXPECT_RV(CKR_OBJECT_HANDLE_INVALID,
                  p11.C_GetAttributeValue(session, absent, &attribute, 1));
    }
    for (const CK_OBJECT_HANDLE present : {PUBLIC_1, PRIVATE_1, CERTIFICATE_2}) {
        EXPECT_RV(CKR_OK, p11.C_GetAttributeValue(session, present, &attribute, 1));
    }
}

TEST_F(AttributesTest, AnObjectBeyondTheNumberOfObjectsStaysReadable)
{
    sim::IdCardOptions options;
    options.positions[0].certificate = false;
    openOn(options);
    EXPECT_EQ((std::vector<CK_OBJECT_HANDLE>{2, 3, 4, 5}), find({})) << "five were made";
    EXPECT_EQ(Bytes{ID_2}, value(PRIVATE_2, CKA_ID));
    EXPECT_EQ(card->modulus(1), value(PRIVATE_2, CKA_MODULUS));
}

TEST_F(AttributesTest, AttributesOutliveTheCardUntilTheNextLoad)
{
    openOn();
    pcsc::removeCard(CARD_READER);
    EXPECT_EQ(card->certificate(0), value(CERTIFICATE_1, CKA_VALUE));
    refresh();
    EXPECT_EQ(card->modulus(1), value(PUBLIC_2, CKA_MODULUS));
}

TEST_F(AttributesTest, SmallerKeysHaveSmallerModuli)
{
    sim::IdCardOptions options;
    options.positions[0].keyBits = 1024;
    openOn(options);
    EXPECT_EQ(128U, value(PUBLIC_1, CKA_MODULUS).size());
    EXPECT_EQ(card->modulus(0), value(PUBLIC_1, CKA_MODULUS));
    EXPECT_EQ(bytesOfNumber(1024), value(PUBLIC_1, CKA_MODULUS_BITS));
    EXPECT_EQ(card->modulus(0), value(PRIVATE_1, CKA_MODULUS));
    EXPECT_EQ(card->modulus(1), value(PRIVATE_2, CKA_MODULUS));
}

// Certificates of other shapes.

class ShapesTest : public AttributesTest {
protected:
    // A card whose first certificate has the names, times and version of a request.
    Bytes openWith(const sim::CertificateRequest& request)
    {
        sim::IdCardOptions options;
        const Bytes der =
            sim::issueCertificate(sim::RsaKey::fromTestKey(sim::TestKey::First2048), request);
        options.positions[0].certificateDer = der;
        openOn(options);
        EXPECT_EQ(der, value(CERTIFICATE_1, CKA_VALUE));
        return der;
    }

    static sim::CertificateRequest request(sim::NameAttributes issuer)
    {
        sim::CertificateRequest wanted;
        wanted.issuer = std::move(issuer);
        wanted.subject = {{"C", "KZ"}, {"CN", "Velt Holder"}};
        wanted.serial = hex("80 01 02");
        return wanted;
    }
};

TEST_F(ShapesTest, AShortIssuerBringsSerialAndIssuerOnly)
{
    const Parsed parsed(openWith(request(sim::shortIssuer())));
    EXPECT_EQ(hex("02 04 00 80 01 02"), value(CERTIFICATE_1, CKA_SERIAL_NUMBER));
    EXPECT_EQ(parsed.issuer, value(CERTIFICATE_1, CKA_ISSUER));
    EXPECT_EQ(Bytes{}, value(CERTIFICATE_1, CKA_SUBJECT));
    EXPECT_EQ(NO_DATE, value(CERTIFICATE_1, CKA_START_DATE));
    EXPECT_EQ(NO_DATE, value(CERTIFICATE_1, CKA_END_DATE));
}

TEST_F(ShapesTest, AnEmptyAttributeIsServedIntoNoRoom)
{
    openWith(request(sim::shortIssuer()));
    const Answer answer = read(CERTIFICATE_1, CKA_SUBJECT, 0);
    EXPECT_RV(CKR_OK, answer.result);
    EXPECT_EQ(0U, answer.length);
}

TEST_F(ShapesTest, AnEmailAddressInTheIssuerDoesNotDisturb)
{
    const Parsed parsed(openWith(request(sim::longIssuer())));
    EXPECT_EQ(parsed.issuer, value(CERTIFICATE_1, CKA_ISSUER));
    EXPECT_EQ(parsed.subject, value(CERTIFICATE_1, CKA_SUBJECT));
    EXPECT_EQ(bytesOf(std::string("2124030\0", 8)), value(CERTIFICATE_1, CKA_START_DATE));
}

TEST_F(ShapesTest, AVersionOneCertificateHasItsValueAlone)
{
    sim::CertificateRequest wanted = request(sim::defaultIssuer());
    wanted.version = 1;
    openWith(wanted);
    for (const CK_ATTRIBUTE_TYPE type : {CKA_SERIAL_NUMBER, CKA_ISSUER, CKA_SUBJECT}) {
        EXPECT_EQ(Bytes{}, value(CERTIFICATE_1, type));
    }
    EXPECT_EQ(NO_DATE, value(CERTIFICATE_1, CKA_START_DATE));
    EXPECT_EQ(NO_DATE, value(CERTIFICATE_1, CKA_END_DATE));
}

TEST_F(ShapesTest, AFullYearFillsBothDatesFromTheFirstTime)
{
    sim::CertificateRequest wanted = request(sim::defaultIssuer());
    wanted.notBefore = "20510203040506Z";
    wanted.notAfter = "20590817161514Z";
    const Parsed parsed(openWith(wanted));
    EXPECT_EQ(bytesOf(std::string("2220510\0", 8)), value(CERTIFICATE_1, CKA_START_DATE));
    EXPECT_EQ(bytesOf(std::string("2220510\0", 8)), value(CERTIFICATE_1, CKA_END_DATE));
    EXPECT_EQ(parsed.subject, value(CERTIFICATE_1, CKA_SUBJECT));
}

TEST_F(ShapesTest, ADayIsSplitBetweenTheSecondAndTheSeventhByte)
{
    sim::CertificateRequest wanted = request(sim::defaultIssuer());
    wanted.notBefore = "250131120000Z";
    wanted.notAfter = "491229235959Z";
    openWith(wanted);
    EXPECT_EQ(bytesOf(std::string("2125013\0", 8)), value(CERTIFICATE_1, CKA_START_DATE));
    EXPECT_EQ(bytesOf(std::string("2949122\0", 8)), value(CERTIFICATE_1, CKA_END_DATE));
}

// Messages of the debug hooks.

TEST_F(AttributesTest, EachCheckTellsItsRefusal)
{
    openOn();
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    MessageMark mark;
    p11.C_GetAttributeValue(0, 1, &attribute, 1);
    EXPECT_MESSAGES(mark, "C_GetAttributeValue", "GetAttributeValue CKR_SESSION_HANDLE_INVALID");
    mark.reset();
    p11.C_GetAttributeValue(session, 1, &attribute, 0);
    EXPECT_MESSAGES(mark, "C_GetAttributeValue", "GetAttributeValue CKR_TEMPLATE_INCOMPLETE");
    mark.reset();
    p11.C_GetAttributeValue(session, 7, &attribute, 1);
    EXPECT_MESSAGES(mark, "C_GetAttributeValue");
    ASSERT_RV(CKR_OK, p11.C_CloseSession(session));
    mark.reset();
    p11.C_GetAttributeValue(session, 1, &attribute, 1);
    EXPECT_MESSAGES(mark, "C_GetAttributeValue", "GetAttributeValue CKR_SESSION_CLOSED");
}

TEST_F(AttributesTest, AServedAttributeTellsItsTypeAndObject)
{
    openOn();
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    MessageMark mark;
    p11.C_GetAttributeValue(session, PUBLIC_2, &attribute, 1);
    EXPECT_MESSAGES(mark, Lines{"C_GetAttributeValue"} + oneRead(CKA_ID, PUBLIC_2) +
                              Lines{"C_GetAttributeValue CKR_OK"});
}

TEST_F(AttributesTest, AFailureIsRepeatedForEveryLaterAttribute)
{
    openOn();
    std::vector<CK_ATTRIBUTE> attributes{{CKA_ID, nullptr, 0},
                                         {CKA_MODULUS, nullptr, 0},
                                         {CKA_ID, nullptr, 0},
                                         {CKA_VERIFY_RECOVER, nullptr, 0},
                                         {CKA_ID, nullptr, 0}};
    MessageMark mark;
    EXPECT_RV(CKR_OK, ask(CERTIFICATE_1, attributes));
    const Lines invalid{"C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID"};
    const Lines sensitive{"C_GetAttributeValue Error CKR_ATTRIBUTE_SENSITIVE"};
    EXPECT_MESSAGES(mark, Lines{"C_GetAttributeValue"} + oneRead(CKA_ID, 1) +
                              oneRead(CKA_MODULUS, 1) +
                              Lines{"GetAttributeValue Object CLASS = 0x1"} + invalid +
                              oneRead(CKA_ID, 1) + invalid + oneRead(CKA_VERIFY_RECOVER, 1) +
                              Lines{"GetAttributeValue UNKNOWN ATTRIBUTE: 0x10b"} + sensitive +
                              oneRead(CKA_ID, 1) + sensitive + Lines{"C_GetAttributeValue CKR_OK"});
}

TEST_F(AttributesTest, AWrongClassTellsTheClassInTheWordsOfTheAttribute)
{
    openOn();
    Values known = certificate(0);
    known.merge(publicKey(0));
    known.merge(privateKey(0));
    for (const auto& [object, values] : objects()) {
        const CK_OBJECT_CLASS objectClass = (object - 1) % 3 + 1;
        for (const auto& [type, ignored] : known) {
            if (values.contains(type)) {
                continue;
            }
            SCOPED_TRACE(numbered("object ", object) + numbered(", attribute ", type));
            Lines told;
            if (type == CKA_KEY_TYPE || type == CKA_TRUSTED) {
                told = {numbered("GetAttributeValue Object CLASS = %x", objectClass)};
            } else if (type != CKA_CERTIFICATE_TYPE && type != CKA_VALUE) {
                told = {numbered("GetAttributeValue Object CLASS = ", objectClass)};
            }
            MessageMark mark;
            read(object, type, 8);
            EXPECT_MESSAGES(mark, Lines{"C_GetAttributeValue"} + oneRead(type, object) + told +
                                      Lines{"C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID",
                                            "C_GetAttributeValue CKR_ATTRIBUTE_TYPE_INVALID"});
        }
    }
}

TEST_F(AttributesTest, AnUnknownTypeIsTold)
{
    openOn();
    MessageMark mark;
    read(PRIVATE_1, 0x87, 8);
    EXPECT_MESSAGES(mark, Lines{"C_GetAttributeValue"} + oneRead(0x87, PRIVATE_1) +
                              Lines{"GetAttributeValue UNKNOWN ATTRIBUTE: 0x87",
                                    "C_GetAttributeValue Error CKR_ATTRIBUTE_SENSITIVE",
                                    "C_GetAttributeValue CKR_ATTRIBUTE_SENSITIVE"});
}

TEST_F(AttributesTest, ABufferTooSmallTellsTheRoomOfSomeAttributes)
{
    openOn();
    const Lines failed{"C_GetAttributeValue Error CKR_BUFFER_TOO_SMALL",
                       "C_GetAttributeValue CKR_BUFFER_TOO_SMALL"};
    for (const auto& [object, values] : objects()) {
        for (const auto& [type, expected] : values) {
            SCOPED_TRACE(numbered("object ", object) + numbered(", attribute ", type));
            const std::size_t room = expected.size() - 1;
            Lines told;
            if (type == CKA_LABEL) {
                told = {"GetAttributeValue CKA_LABEL error CKR_BUFFER_TOO_SMALL"};
            } else if (type == CKA_KEY_TYPE || type == CKA_VALUE) {
                told = {numbered("GetAttributeValue pTemplate.ulValueLen = ", room)};
            }
            MessageMark mark;
            read(object, type, room);
            EXPECT_MESSAGES(mark,
                            Lines{"C_GetAttributeValue"} + oneRead(type, object) + told + failed);
        }
    }
}

} // namespace
} // namespace velt_test
