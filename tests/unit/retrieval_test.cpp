// Attribute retrieval: its checks, reads of several attributes, and the fields whose length or
// place is special.
#include "tests/support/retrieval_world.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;

class Retrieval : public RetrievalWorld {
protected:
    // Reads the attributes of one object without buffers; their lengths, or NOT_SERVED.
    CK_RV readAll(CK_OBJECT_HANDLE hObject, std::vector<CK_ATTRIBUTE>& attributes) const
    {
        return VELT_GetAttributeValue(session(), hObject, attributes.data(), attributes.size());
    }

    static CK_ATTRIBUTE lengthOf(CK_ATTRIBUTE_TYPE type) { return {type, nullptr, 77}; }
};

// --- Checks -----------------------------------------------------------------------------------

TEST_F(Retrieval, AHandleNeverIssuedIsRefusedFirst)
{
    for (const CK_SESSION_HANDLE handle : {CK_SESSION_HANDLE{0}, sessCount + 1, ~CK_ULONG{0}}) {
        const MessageMark mark;
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_GetAttributeValue(handle, 0, nullptr, 0));
        EXPECT_MESSAGES(mark, "GetAttributeValue CKR_SESSION_HANDLE_INVALID");
    }
}

TEST_F(Retrieval, AClosedSessionIsRefusedBeforeTheCount)
{
    ASSERT_EQ(CKR_OK, VELT_CloseSession(session()));
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_GetAttributeValue(session(), CERTIFICATE, nullptr, 0));
    EXPECT_MESSAGES(mark, "GetAttributeValue CKR_SESSION_CLOSED");
}

TEST_F(Retrieval, ASessionFromBeforeFinaliseIsClosed)
{
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    startModule();
    CK_ATTRIBUTE attribute = lengthOf(CKA_CLASS);
    const MessageMark mark;
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_GetAttributeValue(session(), CERTIFICATE, &attribute, 1));
    EXPECT_MESSAGES(mark, "GetAttributeValue CKR_SESSION_CLOSED");
}

TEST_F(Retrieval, ACountOfZeroIsRefusedBeforeTheObject)
{
    for (const CK_OBJECT_HANDLE hObject : {CK_OBJECT_HANDLE{0}, CERTIFICATE}) {
        const MessageMark mark;
        EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, VELT_GetAttributeValue(session(), hObject, nullptr, 0));
        EXPECT_MESSAGES(mark, "GetAttributeValue CKR_TEMPLATE_INCOMPLETE");
    }
}

TEST_F(Retrieval, AHandleWithoutALiveObjectIsRefusedAndNothingIsWritten)
{
    velt::entryOf(PRIVATE_KEY)->handle = REMOVED_MARKER;
    const WithoutBlock without(*velt::entryOf(PUBLIC_KEY));
    const CK_OBJECT_HANDLE handles[] = {0,
                                        PRIVATE_KEY,
                                        PUBLIC_KEY,
                                        GOST_PUBLIC_KEY + 1, // an empty entry
                                        TABLE_SIZE,
                                        TABLE_SIZE + 1,
                                        REMOVED_MARKER,
                                        ~CK_OBJECT_HANDLE{0}};
    for (const CK_OBJECT_HANDLE hObject : handles) {
        const MessageMark mark;
        const Answer untouched{CKR_OBJECT_HANDLE_INVALID, 8, Bytes(12, UNTOUCHED)};
        EXPECT_EQ(untouched, read(hObject, CKA_CLASS, 8)) << hObject;
        EXPECT_MESSAGES(mark);
    }
}

TEST_F(Retrieval, ALiveObjectBeyondTheCountStaysReadable)
{
    ulObjCount = 1;
    EXPECT_EQ(number(CKO_PUBLIC_KEY), valueOf(GOST_PUBLIC_KEY, CKA_CLASS));
}

TEST_F(Retrieval, WithoutATableNoHandleIsValid)
{
    velt::retireObjects(0);
    ASSERT_EQ(4U, ulObjCount);
    EXPECT_EQ(CKR_OBJECT_HANDLE_INVALID, read(CERTIFICATE, CKA_CLASS, std::nullopt).result);
}

// --- Several attributes -----------------------------------------------------------------------

TEST_F(Retrieval, OneServedAttributeMakesTheCallSucceed)
{
    std::vector<CK_ATTRIBUTE> attributes{lengthOf(CKA_CLASS), lengthOf(CKA_MODULUS)};
    EXPECT_EQ(CKR_OK, readAll(CERTIFICATE, attributes));
    EXPECT_EQ(8U, attributes[0].ulValueLen);
    EXPECT_EQ(NOT_SERVED, attributes[1].ulValueLen);

    attributes = {lengthOf(CKA_MODULUS), lengthOf(CKA_APPLICATION), lengthOf(CKA_ID)};
    EXPECT_EQ(CKR_OK, readAll(CERTIFICATE, attributes));
    EXPECT_EQ(NOT_SERVED, attributes[0].ulValueLen);
    EXPECT_EQ(NOT_SERVED, attributes[1].ulValueLen);
    EXPECT_EQ(1U, attributes[2].ulValueLen);
}

TEST_F(Retrieval, TheAttributeOfAnotherClassAloneIsAnInvalidType)
{
    EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID, read(CERTIFICATE, CKA_MODULUS, std::nullopt).result);
}

TEST_F(Retrieval, AnUnknownAttributeAloneIsSensitive)
{
    EXPECT_EQ(CKR_ATTRIBUTE_SENSITIVE, read(PUBLIC_KEY, CKA_VERIFY_RECOVER, std::nullopt).result);
}

TEST_F(Retrieval, TheLastRefusalDecidesWhenNothingWasServed)
{
    std::uint8_t byte = UNTOUCHED;
    const CK_ATTRIBUTE otherClass{CKA_MODULUS, &byte, 1};
    const CK_ATTRIBUTE unknown{CKA_APPLICATION, &byte, 1};
    const CK_ATTRIBUTE tooSmall{CKA_VALUE, &byte, 1};
    const struct {
        std::vector<CK_ATTRIBUTE> attributes;
        CK_RV result;
    } cases[] = {
        {{otherClass, unknown, tooSmall}, CKR_BUFFER_TOO_SMALL},
        {{tooSmall, otherClass, unknown}, CKR_ATTRIBUTE_SENSITIVE},
        {{unknown, tooSmall, otherClass}, CKR_ATTRIBUTE_TYPE_INVALID},
        {{tooSmall, unknown}, CKR_ATTRIBUTE_SENSITIVE},
        {{unknown, otherClass}, CKR_ATTRIBUTE_TYPE_INVALID},
        {{otherClass, tooSmall}, CKR_BUFFER_TOO_SMALL},
    };
    for (const auto& [attributes, result] : cases) {
        std::vector<CK_ATTRIBUTE> asked = attributes;
        EXPECT_EQ(result, readAll(CERTIFICATE, asked));
        for (const CK_ATTRIBUTE& attribute : asked) {
            EXPECT_EQ(NOT_SERVED, attribute.ulValueLen);
        }
        EXPECT_EQ(UNTOUCHED, byte);
    }
}

TEST_F(Retrieval, ARefusalIsReportedAgainAfterEachLaterAttribute)
{
    std::uint8_t byte = 0;
    std::vector<CK_ATTRIBUTE> attributes{
        lengthOf(CKA_CLASS), lengthOf(CKA_SIGN),        lengthOf(CKA_TOKEN), {CKA_LABEL, &byte, 1},
        lengthOf(CKA_ID),    lengthOf(CKA_APPLICATION), lengthOf(CKA_CLASS)};
    const MessageMark mark;
    EXPECT_EQ(CKR_OK, readAll(CERTIFICATE, attributes));
    std::vector<std::string> texts = opening(CERTIFICATE, CKA_CLASS);
    const auto append = [&texts](CK_ATTRIBUTE_TYPE type, const std::vector<std::string>& more) {
        const std::vector<std::string> first = opening(CERTIFICATE, type);
        texts.insert(texts.end(), first.begin(), first.end());
        texts.insert(texts.end(), more.begin(), more.end());
    };
    append(CKA_SIGN, {numbered("GetAttributeValue Object CLASS = ", 1),
                      "C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID"});
    append(CKA_TOKEN, {"C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID"});
    append(CKA_LABEL, {"GetAttributeValue CKA_LABEL error CKR_BUFFER_TOO_SMALL",
                       "C_GetAttributeValue Error CKR_BUFFER_TOO_SMALL"});
    append(CKA_ID, {"C_GetAttributeValue Error CKR_BUFFER_TOO_SMALL"});
    append(CKA_APPLICATION, {numbered("GetAttributeValue UNKNOWN ATTRIBUTE: ", CKA_APPLICATION),
                             "C_GetAttributeValue Error CKR_ATTRIBUTE_SENSITIVE"});
    append(CKA_CLASS, {"C_GetAttributeValue Error CKR_ATTRIBUTE_SENSITIVE"});
    texts.emplace_back("C_GetAttributeValue CKR_OK");
    EXPECT_MESSAGES(mark, texts);
}

TEST_F(Retrieval, TheVerdictNamesTheLastRefusalUnlessSomethingWasServed)
{
    const struct {
        velt::Refusal last;
        CK_RV result;
        const char* text;
    } cases[] = {
        {velt::Refusal::TypeInvalid, CKR_ATTRIBUTE_TYPE_INVALID,
         "C_GetAttributeValue CKR_ATTRIBUTE_TYPE_INVALID"},
        {velt::Refusal::Sensitive, CKR_ATTRIBUTE_SENSITIVE,
         "C_GetAttributeValue CKR_ATTRIBUTE_SENSITIVE"},
        {velt::Refusal::TooSmall, CKR_BUFFER_TOO_SMALL, "C_GetAttributeValue CKR_BUFFER_TOO_SMALL"},
        {velt::Refusal::None, CKR_FUNCTION_FAILED, "C_GetAttributeValue CKR_FUNCTION_FAILED"},
    };
    for (const auto& [last, result, text] : cases) {
        MessageMark mark;
        EXPECT_EQ(result, velt::attributeVerdict(false, last));
        EXPECT_MESSAGES(mark, text);
        mark.reset();
        EXPECT_EQ(CKR_OK, velt::attributeVerdict(true, last));
        EXPECT_MESSAGES(mark, "C_GetAttributeValue CKR_OK");
    }
}

// --- Label and ID -----------------------------------------------------------------------------

TEST_F(Retrieval, ALabelHasItsTextLength)
{
    EXPECT_EQ(11U, read(CERTIFICATE, CKA_LABEL, std::nullopt).length);
    put(velt::entryOf(CERTIFICATE)->label, Bytes{'a', 0, 'b'});
    EXPECT_EQ(bytesOf("a"), valueOf(CERTIFICATE, CKA_LABEL));
}

TEST_F(Retrieval, AMissingLabelIsServedEmpty)
{
    put(velt::entryOf(CERTIFICATE)->label, {});
    EXPECT_EQ((Answer{CKR_OK, 0, {}}), read(CERTIFICATE, CKA_LABEL, std::nullopt));
    EXPECT_EQ((Answer{CKR_OK, 0, Bytes(4, UNTOUCHED)}), read(CERTIFICATE, CKA_LABEL, 0));
    EXPECT_EQ((Answer{CKR_OK, 0, Bytes(9, UNTOUCHED)}), read(CERTIFICATE, CKA_LABEL, 5));
}

TEST_F(Retrieval, ALabelOfFortyNineBytesEndsThere)
{
    put(velt::entryOf(CERTIFICATE)->label, Bytes(49, 'L'));
    put(velt::entryOf(CERTIFICATE)->cardName, bytesOf("name"));
    EXPECT_EQ(Bytes(49, 'L'), valueOf(CERTIFICATE, CKA_LABEL));
}

TEST_F(Retrieval, ALabelOfFiftyBytesReadsOnIntoTheCardName)
{
    ObjectEntry& entry = *velt::entryOf(CERTIFICATE);
    put(entry.label, Bytes(50, 'L'));
    EXPECT_EQ(Bytes(50, 'L'), valueOf(CERTIFICATE, CKA_LABEL));
    put(entry.cardName, bytesOf("name"));
    EXPECT_EQ(bytesOf(std::string(50, 'L') + "name"), valueOf(CERTIFICATE, CKA_LABEL));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, read(CERTIFICATE, CKA_LABEL, 53).result);
}

TEST_F(Retrieval, ALabelEndsAtTheEndOfTheCardName)
{
    ObjectEntry& entry = *velt::entryOf(CERTIFICATE);
    put(entry.label, Bytes(50, 'L'));
    put(entry.cardName, Bytes(50, 'N'));
    entry.cardNameLen = ~std::uint64_t{0};
    EXPECT_EQ(bytesOf(std::string(50, 'L') + std::string(50, 'N')),
              valueOf(CERTIFICATE, CKA_LABEL));
}

TEST_F(Retrieval, AnIdIsItsFirstByte)
{
    ObjectEntry& entry = *velt::entryOf(PRIVATE_KEY);
    put(entry.id, Bytes{0x87, 0x88, 0x89});
    EXPECT_EQ((Bytes{0x87}), valueOf(PRIVATE_KEY, CKA_ID));
    put(entry.id, {});
    EXPECT_EQ((Bytes{0x00}), valueOf(PRIVATE_KEY, CKA_ID));
}

// --- Lengths ----------------------------------------------------------------------------------

TEST_F(Retrieval, AModulusIsAsLongAsItsWholeBytes)
{
    const std::pair<std::uint64_t, std::size_t> cases[] = {{1, 0},      {7, 0},      {8, 1},
                                                           {1023, 127}, {1024, 128}, {2048, 256}};
    for (const auto& [bits, length] : cases) {
        publicKey().modulusBits = bits;
        EXPECT_EQ(length, read(PUBLIC_KEY, CKA_MODULUS, std::nullopt).length) << bits;
        EXPECT_EQ(length, read(PRIVATE_KEY, CKA_MODULUS, std::nullopt).length) << bits;
        EXPECT_EQ(number(bits), valueOf(PUBLIC_KEY, CKA_MODULUS_BITS));
    }
}

TEST_F(Retrieval, NoLengthReachesBehindItsField)
{
    constexpr std::uint64_t TOO_LONG = ~std::uint64_t{0};
    certificate().valueLen = certificate().issuerLen = TOO_LONG;
    certificate().serialLen = certificate().subjectLen = TOO_LONG;
    gostKey().modulusBits = gostKey().publicExponentLen = gostKey().valueLen = TOO_LONG;
    EXPECT_EQ(4096U, valueOf(CERTIFICATE, CKA_VALUE).size());
    EXPECT_EQ(1024U, valueOf(CERTIFICATE, CKA_ISSUER).size());
    EXPECT_EQ(64U, valueOf(CERTIFICATE, CKA_SERIAL_NUMBER).size());
    EXPECT_EQ(1024U, valueOf(CERTIFICATE, CKA_SUBJECT).size());
    EXPECT_EQ(256U, valueOf(GOST_PUBLIC_KEY, CKA_MODULUS).size());
    EXPECT_EQ(5U, valueOf(GOST_PUBLIC_KEY, CKA_PUBLIC_EXPONENT).size());
    EXPECT_EQ(64U, valueOf(GOST_PUBLIC_KEY, CKA_VALUE).size());
}

} // namespace
