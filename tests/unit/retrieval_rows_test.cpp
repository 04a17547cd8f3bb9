// Every attribute of every class of objects, read with no buffer and with buffers of all kinds, and
// every attribute asked of a class that has none.
#include "tests/support/retrieval_world.h"

#include <map>
#include <set>

namespace {

using namespace velt_test;
using namespace velt_test::objects;

using Values = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

const Values CERTIFICATE_VALUES{
    {CKA_CLASS, number(1)},
    {CKA_TOKEN, {0x12}},
    {CKA_PRIVATE, {0x11}},
    {CKA_LABEL, bytesOf("certificate")},
    {CKA_ID, {0x15}},
    {CKA_MODIFIABLE, {0x13}},
    {CKA_CERTIFICATE_TYPE, number(0x0102030405060708)},
    {CKA_TRUSTED, {0x51}},
    {CKA_VALUE, series(0x80, 900)},
    {CKA_ISSUER, series(0x90, 120)},
    {CKA_SERIAL_NUMBER, series(0xA0, 18)},
    {CKA_SUBJECT, series(0xB0, 140)},
    {CKA_START_DATE, series(0x60, 8)},
    {CKA_END_DATE, series(0x70, 8)},
    {VENDOR_FLAG, {1}},
};

const Values PUBLIC_KEY_VALUES{
    {CKA_CLASS, number(2)},
    {CKA_TOKEN, {0x22}},
    {CKA_PRIVATE, {0x21}},
    {CKA_LABEL, bytesOf("public key")},
    {CKA_ID, {0x25}},
    {CKA_MODIFIABLE, {0x23}},
    {CKA_KEY_TYPE, number(0)},
    {CKA_ENCRYPT, {0x73}},
    {CKA_WRAP, {0x76}},
    {CKA_VERIFY, {0x74}},
    {CKA_LOCAL, {0x72}},
    {CKA_MODULUS, series(0xC0, 128)},
    {CKA_MODULUS_BITS, number(1024)},
    {CKA_PUBLIC_EXPONENT, {1, 0, 1}},
};

const Values GOST_KEY_VALUES{
    {CKA_CLASS, number(2)},
    {CKA_TOKEN, {0x42}},
    {CKA_PRIVATE, {0x41}},
    {CKA_LABEL, bytesOf("GOST key")},
    {CKA_ID, {0x45}},
    {CKA_MODIFIABLE, {0x43}},
    {CKA_KEY_TYPE, number(0x84B5A001)},
    {CKA_ENCRYPT, {0x73}},
    {CKA_WRAP, {0x76}},
    {CKA_VERIFY, {0x74}},
    {CKA_LOCAL, {0x72}},
    {CKA_MODULUS, series(0xC0, 128)},
    {CKA_MODULUS_BITS, number(1024)},
    {CKA_PUBLIC_EXPONENT, {1, 0, 1}},
    {CKA_VALUE, series(0xD0, 64)},
};

const Values PRIVATE_KEY_VALUES{
    {CKA_CLASS, number(3)},
    {CKA_TOKEN, {0x32}},
    {CKA_PRIVATE, {0x31}},
    {CKA_LABEL, bytesOf("private key")},
    {CKA_ID, {0x35}},
    {CKA_MODIFIABLE, {0x33}},
    {CKA_KEY_TYPE, number(0x1112131415161718)},
    {CKA_SENSITIVE, {0x83}},
    {CKA_DECRYPT, {0x84}},
    {CKA_UNWRAP, {0x87}},
    {CKA_SIGN, {0x85}},
    {CKA_SIGN_RECOVER, {0x86}},
    {CKA_DERIVE, {0x81}},
    {CKA_EXTRACTABLE, {0x88}},
    {CKA_LOCAL, {0x82}},
    {CKA_NEVER_EXTRACTABLE, {0x8A}},
    {CKA_ALWAYS_SENSITIVE, {0x89}},
    {CKA_ALWAYS_AUTHENTICATE, {0x8C}},
    {CKA_WRAP_WITH_TRUSTED, {0x8B}},
    {CKA_MODULUS, series(0xC0, 128)}, // of the public key before
    {CKA_PUBLIC_EXPONENT, {1, 0, 1}},
};

// Attributes of the standard that no class has here, and numbers that are none.
const CK_ATTRIBUTE_TYPE UNKNOWN_TYPES[] = {CKA_APPLICATION,
                                           CKA_OBJECT_ID,
                                           CKA_CERTIFICATE_CATEGORY,
                                           CKA_CHECK_VALUE,
                                           CKA_VERIFY_RECOVER,
                                           CKA_PRIVATE_EXPONENT,
                                           CKA_PRIME_1,
                                           CKA_EC_POINT,
                                           CKA_KEY_GEN_MECHANISM,
                                           CKA_ALLOWED_MECHANISMS,
                                           CKA_VENDOR_DEFINED,
                                           VENDOR_FLAG + 1,
                                           CK_ATTRIBUTE_TYPE{1} << 32, // CKA_CLASS in its low half
                                           ~CK_ATTRIBUTE_TYPE{0}};

class RetrievalRows : public RetrievalWorld {
protected:
    // Types that exist for some class.
    static std::set<CK_ATTRIBUTE_TYPE> knownTypes()
    {
        std::set<CK_ATTRIBUTE_TYPE> types;
        for (const Values& values : {CERTIFICATE_VALUES, GOST_KEY_VALUES, PRIVATE_KEY_VALUES}) {
            for (const auto& [type, value] : values) {
                types.insert(type);
            }
        }
        return types;
    }

    static Answer served(const Bytes& value, std::optional<std::size_t> room)
    {
        Answer answer{CKR_OK, value.size(), {}};
        if (room) {
            answer.buffer = value;
            answer.buffer.resize(*room + 4, UNTOUCHED);
        }
        return answer;
    }

    static Answer refused(CK_RV result, std::optional<std::size_t> room)
    {
        return {result, NOT_SERVED, Bytes(room ? *room + 4 : 0, UNTOUCHED)};
    }

    void expectServed(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type, const Bytes& value,
                      std::optional<std::size_t> room) const
    {
        const MessageMark mark;
        EXPECT_EQ(served(value, room), read(hObject, type, room));
        std::vector<std::string> texts = opening(hObject, type);
        texts.emplace_back("C_GetAttributeValue CKR_OK");
        EXPECT_MESSAGES(mark, texts);
    }

    void expectTooSmall(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type, std::size_t room) const
    {
        const MessageMark mark;
        EXPECT_EQ(refused(CKR_BUFFER_TOO_SMALL, room), read(hObject, type, room));
        std::vector<std::string> texts = opening(hObject, type);
        if (type == CKA_LABEL) {
            texts.emplace_back("GetAttributeValue CKA_LABEL error CKR_BUFFER_TOO_SMALL");
        } else if (type == CKA_KEY_TYPE || type == CKA_VALUE) {
            texts.push_back(numbered("GetAttributeValue pTemplate.ulValueLen = ", room));
        }
        texts.emplace_back("C_GetAttributeValue Error CKR_BUFFER_TOO_SMALL");
        texts.emplace_back("C_GetAttributeValue CKR_BUFFER_TOO_SMALL");
        EXPECT_MESSAGES(mark, texts);
    }

    // No buffer, whatever length is stated; exact, larger, one byte short, half, no room.
    void expectSwept(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type, const Bytes& value) const
    {
        SCOPED_TRACE(::testing::Message() << "attribute " << std::hex << type);
        expectServed(hObject, type, value, std::nullopt);
        EXPECT_EQ(served(value, std::nullopt), read(hObject, type, std::nullopt, NOT_SERVED));
        EXPECT_EQ(served(value, std::nullopt), read(hObject, type, std::nullopt, 1));
        expectServed(hObject, type, value, value.size());
        expectServed(hObject, type, value, value.size() + 1);
        expectServed(hObject, type, value, value.size() + 100);
        expectTooSmall(hObject, type, value.size() - 1);
        expectTooSmall(hObject, type, value.size() / 2);
        expectTooSmall(hObject, type, 0);
    }

    // The attribute of another class, asked with or without a buffer.
    void expectOtherClass(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type,
                          std::optional<std::size_t> room) const
    {
        SCOPED_TRACE(::testing::Message() << "attribute " << std::hex << type);
        const CK_OBJECT_CLASS objClass = velt::entryOf(hObject)->objClass;
        const MessageMark mark;
        EXPECT_EQ(refused(CKR_ATTRIBUTE_TYPE_INVALID, room), read(hObject, type, room));
        std::vector<std::string> texts = opening(hObject, type);
        if (type == CKA_KEY_TYPE || type == CKA_TRUSTED) {
            texts.push_back(numbered("GetAttributeValue Object CLASS = %x", objClass));
        } else if (type != CKA_CERTIFICATE_TYPE && type != CKA_VALUE) {
            texts.push_back(numbered("GetAttributeValue Object CLASS = ", objClass));
        }
        texts.emplace_back("C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID");
        texts.emplace_back("C_GetAttributeValue CKR_ATTRIBUTE_TYPE_INVALID");
        EXPECT_MESSAGES(mark, texts);
    }

    void expectClass(CK_OBJECT_HANDLE hObject, const Values& values) const
    {
        for (const CK_ATTRIBUTE_TYPE type : knownTypes()) {
            const auto found = values.find(type);
            if (found != values.end()) {
                expectSwept(hObject, type, found->second);
                continue;
            }
            for (const std::optional<std::size_t> room :
                 {std::optional<std::size_t>{}, std::optional<std::size_t>{0},
                  std::optional<std::size_t>{300}}) {
                expectOtherClass(hObject, type, room);
            }
        }
        EXPECT_TRUE(scripted.calls.empty()) << "everything was read before";
    }
};

TEST_F(RetrievalRows, ThirtyFourTypesAreKnown)
{
    EXPECT_EQ(34U, knownTypes().size());
}

TEST_F(RetrievalRows, Certificate)
{
    expectClass(CERTIFICATE, CERTIFICATE_VALUES);
}

TEST_F(RetrievalRows, RsaPublicKey)
{
    expectClass(PUBLIC_KEY, PUBLIC_KEY_VALUES);
}

TEST_F(RetrievalRows, GostPublicKey)
{
    expectClass(GOST_PUBLIC_KEY, GOST_KEY_VALUES);
}

TEST_F(RetrievalRows, PrivateKey)
{
    expectClass(PRIVATE_KEY, PRIVATE_KEY_VALUES);
}

TEST_F(RetrievalRows, TypesOfNoClassAreNamedSensitive)
{
    for (const CK_ATTRIBUTE_TYPE type : UNKNOWN_TYPES) {
        for (const CK_OBJECT_HANDLE hObject :
             {CERTIFICATE, PUBLIC_KEY, PRIVATE_KEY, GOST_PUBLIC_KEY}) {
            SCOPED_TRACE(::testing::Message() << "attribute " << std::hex << type);
            const MessageMark mark;
            EXPECT_EQ(refused(CKR_ATTRIBUTE_SENSITIVE, 10), read(hObject, type, 10));
            std::vector<std::string> texts = opening(hObject, type);
            texts.push_back(numbered("GetAttributeValue UNKNOWN ATTRIBUTE: ", type));
            texts.emplace_back("C_GetAttributeValue Error CKR_ATTRIBUTE_SENSITIVE");
            texts.emplace_back("C_GetAttributeValue CKR_ATTRIBUTE_SENSITIVE");
            EXPECT_MESSAGES(mark, texts);
            EXPECT_EQ(refused(CKR_ATTRIBUTE_SENSITIVE, std::nullopt),
                      read(hObject, type, std::nullopt, 1));
        }
    }
}

} // namespace
