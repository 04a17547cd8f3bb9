// What attribute retrieval reads from the card first, and the public key that a private key's
// modulus comes from.
#include "tests/support/retrieval_world.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;

using Calls = std::vector<DriverCall>;

class RetrievalLoad : public RetrievalWorld {};

const CK_ATTRIBUTE_TYPE LAZY_CERTIFICATE_TYPES[] = {CKA_VALUE,   CKA_ISSUER,     CKA_SERIAL_NUMBER,
                                                    CKA_SUBJECT, CKA_START_DATE, CKA_END_DATE};

TEST_F(RetrievalLoad, AnUnreadCertificateIsReadForItsBodyAndFieldsOnly)
{
    const CK_ATTRIBUTE_TYPE notLazy[] = {
        CKA_CLASS,   CKA_TOKEN,      CKA_PRIVATE,    CKA_LABEL,
        CKA_ID,      CKA_MODIFIABLE, CKA_TRUSTED,    CKA_CERTIFICATE_TYPE,
        VENDOR_FLAG, CKA_MODULUS,    CKA_APPLICATION};
    certificate().valueLen = 0;
    for (const CK_ATTRIBUTE_TYPE type : notLazy) {
        read(CERTIFICATE, type, std::nullopt);
    }
    EXPECT_EQ(Calls{}, scripted.calls);
    for (const CK_ATTRIBUTE_TYPE type : LAZY_CERTIFICATE_TYPES) {
        scripted.calls.clear();
        read(CERTIFICATE, type, std::nullopt);
        EXPECT_EQ((Calls{{"GetCertificate", session(), CERTIFICATE}}), scripted.calls) << type;
    }
}

TEST_F(RetrievalLoad, ACertificateIsReadOnce)
{
    certificate() = {};
    scripted.getCertificate = [](std::uint64_t) {
        put(certificate().value, bytesOf("body"));
        certificate().valueLen = 4;
        put(certificate().issuer, bytesOf("issuer"));
        certificate().issuerLen = 6;
        return CKR_OK;
    };
    EXPECT_EQ(bytesOf("body"), valueOf(CERTIFICATE, CKA_VALUE));
    EXPECT_EQ(bytesOf("body"), valueOf(CERTIFICATE, CKA_VALUE));
    EXPECT_EQ(bytesOf("issuer"), valueOf(CERTIFICATE, CKA_ISSUER));
    EXPECT_EQ(Bytes{}, valueOf(CERTIFICATE, CKA_SUBJECT));
    EXPECT_EQ(Bytes(8, 0), valueOf(CERTIFICATE, CKA_START_DATE));
    EXPECT_EQ((Calls{{"GetCertificate", session(), CERTIFICATE}}), scripted.calls);
}

TEST_F(RetrievalLoad, ACertificateThatCannotBeReadIsServedAsItStands)
{
    certificate().valueLen = 0;
    scripted.getCertificate = [](std::uint64_t) { return CK_RV{2}; };
    EXPECT_EQ(Bytes{}, valueOf(CERTIFICATE, CKA_VALUE));
    EXPECT_EQ(series(0x90, 120), valueOf(CERTIFICATE, CKA_ISSUER));
    EXPECT_EQ(2U, scripted.calls.size()) << "asked again each time";
    stVELTTokens.GetCertificate = nullptr;
    EXPECT_EQ(Bytes{}, valueOf(CERTIFICATE, CKA_VALUE));
    EXPECT_EQ((Answer{CKR_OK, 0, Bytes(4, UNTOUCHED)}), read(CERTIFICATE, CKA_VALUE, 0));
}

TEST_F(RetrievalLoad, TheCardIsReadBeforeTheBufferIsJudged)
{
    certificate().valueLen = 0;
    scripted.getCertificate = [](std::uint64_t) {
        certificate().valueLen = 4;
        return CKR_OK;
    };
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, read(CERTIFICATE, CKA_VALUE, 3).result);
    EXPECT_EQ(1U, scripted.calls.size());
}

TEST_F(RetrievalLoad, AnUnreadPublicKeyIsReadForItsModulusOnly)
{
    const CK_ATTRIBUTE_TYPE notLazy[] = {CKA_CLASS, CKA_LABEL,  CKA_KEY_TYPE, CKA_ENCRYPT,
                                         CKA_WRAP,  CKA_VERIFY, CKA_LOCAL,    CKA_PUBLIC_EXPONENT,
                                         CKA_VALUE};
    publicKey().modulusBits = 0;
    publicKey().valueLen = 0;
    for (const CK_ATTRIBUTE_TYPE type : notLazy) {
        read(PUBLIC_KEY, type, std::nullopt);
    }
    EXPECT_EQ(Calls{}, scripted.calls);
    EXPECT_EQ(Bytes{}, valueOf(PUBLIC_KEY, CKA_MODULUS));
    EXPECT_EQ(number(0), valueOf(PUBLIC_KEY, CKA_MODULUS_BITS));
    EXPECT_EQ(
        (Calls{{"GetPublicKey", session(), PUBLIC_KEY}, {"GetPublicKey", session(), PUBLIC_KEY}}),
        scripted.calls);
    scripted.getPublicKey = [](std::uint64_t) {
        publicKey().modulusBits = 1024;
        return CKR_OK;
    };
    EXPECT_EQ(number(1024), valueOf(PUBLIC_KEY, CKA_MODULUS_BITS));
    EXPECT_EQ(series(0xC0, 128), valueOf(PUBLIC_KEY, CKA_MODULUS));
    EXPECT_EQ(3U, scripted.calls.size());
}

TEST_F(RetrievalLoad, AnUnreadGostKeyIsReadForItsValue)
{
    gostKey().valueLen = 0;
    scripted.getPublicKey = [](std::uint64_t) {
        gostKey().valueLen = 64;
        return CKR_OK;
    };
    EXPECT_EQ(series(0xD0, 64), valueOf(GOST_PUBLIC_KEY, CKA_VALUE));
    EXPECT_EQ(series(0xD0, 64), valueOf(GOST_PUBLIC_KEY, CKA_VALUE));
    EXPECT_EQ((Calls{{"GetPublicKey", session(), GOST_PUBLIC_KEY}}), scripted.calls);
}

TEST_F(RetrievalLoad, TheTwoValuesOfAPublicKeyAreReadApart)
{
    gostKey().valueLen = 0; // its modulus length is known
    EXPECT_EQ(series(0xC0, 128), valueOf(GOST_PUBLIC_KEY, CKA_MODULUS));
    EXPECT_EQ(Calls{}, scripted.calls);
    gostKey().valueLen = 64;
    gostKey().modulusBits = 0;
    EXPECT_EQ(series(0xD0, 64), valueOf(GOST_PUBLIC_KEY, CKA_VALUE));
    EXPECT_EQ(Calls{}, scripted.calls);
    EXPECT_EQ(Bytes{}, valueOf(GOST_PUBLIC_KEY, CKA_MODULUS));
    EXPECT_EQ(1U, scripted.calls.size());
}

TEST_F(RetrievalLoad, TheValueOfAPublicKeyOfAnyOtherTypeIsAnInvalidTypeAndNotRead)
{
    for (const CK_KEY_TYPE keyType : {CK_KEY_TYPE{CKK_RSA}, VENDOR_KEY - 1, VENDOR_KEY + 1,
                                      VENDOR_KEY | (CK_KEY_TYPE{1} << 32)}) {
        gostKey().keyType = keyType;
        gostKey().valueLen = 0;
        const MessageMark mark;
        EXPECT_EQ((Answer{CKR_ATTRIBUTE_TYPE_INVALID, NOT_SERVED, Bytes(84, UNTOUCHED)}),
                  read(GOST_PUBLIC_KEY, CKA_VALUE, 80));
        std::vector<std::string> texts = opening(GOST_PUBLIC_KEY, CKA_VALUE);
        texts.emplace_back("C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID");
        texts.emplace_back("C_GetAttributeValue CKR_ATTRIBUTE_TYPE_INVALID");
        EXPECT_MESSAGES(mark, texts);
    }
    EXPECT_EQ(Calls{}, scripted.calls);
}

TEST_F(RetrievalLoad, TheKeyBeforeIsReadForAPrivateKeysModulus)
{
    publicKey().modulusBits = 0;
    EXPECT_EQ((Bytes{1, 0, 1}), valueOf(PRIVATE_KEY, CKA_PUBLIC_EXPONENT));
    EXPECT_EQ(Calls{}, scripted.calls) << "the exponent is not read";
    scripted.getPublicKey = [](std::uint64_t) {
        publicKey().modulusBits = 512;
        return CK_RV{2}; // what the driver answers does not matter
    };
    EXPECT_EQ(series(0xC0, 64), valueOf(PRIVATE_KEY, CKA_MODULUS));
    EXPECT_EQ(series(0xC0, 64), valueOf(PRIVATE_KEY, CKA_MODULUS));
    EXPECT_EQ((Calls{{"GetPublicKey", session(), PRIVATE_KEY - 1}}), scripted.calls);
}

class KeyBefore : public RetrievalWorld {
protected:
    // Moves the private key to another position. The public keys stay where they are.
    static void placePrivateKey(std::uint64_t position)
    {
        ObjectEntry& from = *velt::entryOf(PRIVATE_KEY);
        ObjectEntry& to = *velt::entryAt(position);
        std::swap(from, to);
        to.handle = position + 1;
        from.handle = REMOVED_MARKER;
    }

    // Both attributes are refused, silently about the class, and what comes after is served.
    void expectNone(CK_OBJECT_HANDLE hObject) const
    {
        for (const CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_PUBLIC_EXPONENT}) {
            MessageMark mark;
            EXPECT_EQ((Answer{CKR_ATTRIBUTE_TYPE_INVALID, NOT_SERVED, Bytes(260, UNTOUCHED)}),
                      read(hObject, type, 256));
            std::vector<std::string> texts = opening(hObject, type);
            texts.emplace_back("C_GetAttributeValue Error CKR_ATTRIBUTE_TYPE_INVALID");
            texts.emplace_back("C_GetAttributeValue CKR_ATTRIBUTE_TYPE_INVALID");
            EXPECT_MESSAGES(mark, texts);
            CK_ATTRIBUTE two[] = {{type, nullptr, 77}, {CKA_KEY_TYPE, nullptr, 77}};
            EXPECT_EQ(CKR_OK, VELT_GetAttributeValue(session(), hObject, two, 2));
            EXPECT_EQ(NOT_SERVED, two[0].ulValueLen);
            EXPECT_EQ(8U, two[1].ulValueLen);
        }
        EXPECT_EQ(Calls{}, scripted.calls);
    }
};

TEST_F(KeyBefore, IsNotThereForTheFirstHandle)
{
    placePrivateKey(0);
    expectNone(1);
}

TEST_F(KeyBefore, IsNoneWhenItIsACertificate)
{
    velt::entryOf(PUBLIC_KEY)->objClass = CKO_CERTIFICATE; // its block is not touched
    expectNone(PRIVATE_KEY);
}

TEST_F(KeyBefore, IsNoneWhenItIsAPrivateKey)
{
    addPrivateKey("another");
    placePrivateKey(5);
    expectNone(6);
}

TEST_F(KeyBefore, IsNoneWhenItWasRemoved)
{
    velt::entryOf(PUBLIC_KEY)->handle = REMOVED_MARKER;
    expectNone(PRIVATE_KEY);
}

TEST_F(KeyBefore, IsNoneWithoutItsBlock)
{
    const WithoutBlock without(*velt::entryOf(PUBLIC_KEY));
    expectNone(PRIVATE_KEY);
}

TEST_F(KeyBefore, ServesWhateverItsKeyTypeIs)
{
    placePrivateKey(4); // behind the GOST key
    EXPECT_EQ(series(0xC0, 128), valueOf(5, CKA_MODULUS));
    EXPECT_EQ((Bytes{1, 0, 1}), valueOf(5, CKA_PUBLIC_EXPONENT));
}

} // namespace
