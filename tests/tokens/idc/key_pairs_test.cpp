// New key pairs on the ID card.
#include "tests/support/idc_writing.h"

using namespace velt_test;

namespace {

using IdcKeyPairs = IdcWriting;

TEST_F(IdcKeyPairs, ANewKeyPairIsLabelledAndLoaded)
{
    for (const std::size_t keyPair : {1U, 2U}) {
        const std::uint8_t keyId = keyPair == 1 ? 0x87 : 0x88;
        Alias1.fill(0);
        Alias2.fill(0);
        mark.reset();
        expect("00 A4 00 0C 02 3F 00", OK);
        expect("00 A4 01 0C 02 01 01", OK);
        expect(hex("00 46 02 00 05 A4 03 84 01") + Bytes{keyId}, hex(OK));
        expectAliases();
        expectLabelWritten(keyPair);
        expectEmptyLoad();
        EXPECT_EQ(CKR_OK, generate({id(keyId)}, {id(keyId)}));
        EXPECT_EQ(0U, oiFlags);
        EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true",
                        "VELTObjectsInit complete", "VELTObjectsInit CKR_OK");
    }
}

TEST_F(IdcKeyPairs, OneTemplateWithAnIdIsEnoughAndTheMechanismMayBeLeftOut)
{
    CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    struct Case {
        std::vector<Attribute> publicKey;
        std::vector<Attribute> privateKey;
    };
    const std::vector<Case> cases{
        {{id(0x88)}, {}},
        {{}, {id(0x88)}},
        {{id(0x87), id(0x88)}, {}}, // the last one counts
        {{id(0x87), id(0x88)}, {id(0x88), id(0x88)}},
        {{id(0x88), {CKA_ID, hex("87 00")}}, {}},         // another length does not
        {{id(0x88), {CKA_ID, {}}}, {id(0x89), id(0x88)}}, // nor another value
        {{{CKA_MODULUS_BITS, number(1024)}, id(0x88), {CKA_LABEL, text("87")}},
         {{CKA_LABEL, {0x87}}}},
    };
    for (const Case& tried : cases) {
        for (CK_MECHANISM* given : {static_cast<CK_MECHANISM*>(nullptr), &mechanism}) {
            setLabels();
            expectKeyDirectory();
            expect("00 46 02 00 05 A4 03 84 01 88", OK);
            expectLabelWritten(2);
            expectEmptyLoad();
            EXPECT_EQ(CKR_OK, generate(tried.publicKey, tried.privateKey, given));
            expectAllExchanged();
        }
    }
}

TEST_F(IdcKeyPairs, AnotherMechanismGeneratesNothing)
{
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, CKM_VELT_GOST_KEY_PAIR_GEN, ~0UL}) {
        mark.reset();
        CK_MECHANISM mechanism{type, nullptr, 0};
        EXPECT_EQ(CKR_MECHANISM_INVALID, generate({id(0x87)}, {id(0x88)}, &mechanism));
        EXPECT_MESSAGES(mark, numbered("IDCard GenerateKeyPair unknown mechanism ", type));
    }
}

TEST_F(IdcKeyPairs, IdsThatDifferGenerateNothing)
{
    struct Case {
        std::vector<Attribute> publicKey;
        std::vector<Attribute> privateKey;
    };
    const std::vector<Case> cases{
        {{id(0x87)}, {id(0x88)}},           {{id(0x88)}, {id(0x87)}},
        {{id(0x87), id(0x88)}, {id(0x87)}}, {{}, {id(0x87), id(0x88)}},
        {{id(0x88)}, {id(0x88), id(0x87)}},
    };
    for (const Case& tried : cases) {
        mark.reset();
        EXPECT_EQ(CKR_TEMPLATE_INCONSISTENT, generate(tried.publicKey, tried.privateKey));
        EXPECT_MESSAGES(mark, "IDCard GenerateKeyPair CKR_TEMPLATE_INCONSISTENT");
    }
}

TEST_F(IdcKeyPairs, WithoutAKnownIdNothingIsGenerated)
{
    struct Case {
        std::vector<Attribute> publicKey;
        std::vector<Attribute> privateKey;
    };
    const std::vector<Case> cases{
        {{}, {}},
        {{{CKA_ID, hex("87 00")}}, {}},
        {{{CKA_ID, {}}}, {{CKA_ID, {}}}},
        {{id(0x07)}, {id(0x89)}},
        {{{CKA_LABEL, {0x87}}}, {{CKA_CLASS, {0x87}}}},
    };
    for (const Case& tried : cases) {
        mark.reset();
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, generate(tried.publicKey, tried.privateKey));
        EXPECT_MESSAGES(mark, "IDCard GenerateKeyPair CKR_ATTRIBUTE_VALUE_INVALID");
    }
    CK_ATTRIBUTE null{CKA_ID, nullptr, 1};
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID,
              fGenerateKeyPairIDC(table, session, nullptr, &null, 1, &null, 1, nullptr, nullptr));
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, fGenerateKeyPairIDC(table, session, nullptr, nullptr, 0,
                                                               nullptr, 0, nullptr, nullptr));
}

TEST_F(IdcKeyPairs, TheCoreDoesNotGenerateKeyPairs)
{
    std::vector<Attribute> attributes{id(0x87)};
    auto rows = asTemplate(attributes);
    CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID,
              VELT_GenerateKeyPair(session, &mechanism, rows.data(), rows.size(), rows.data(),
                                   rows.size(), &publicKey, &privateKey));
}

} // namespace
