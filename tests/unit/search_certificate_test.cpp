// Searching by the fields of certificates.
#include "tests/support/search_world.h"

#include "src/core/bytes.h"

namespace {

using namespace velt_test;
using namespace velt_test::objects;

class SearchCertificate : public SearchWorld {};

const CK_ATTRIBUTE_TYPE FIELDS_THAT_REFUSE[] = {CKA_VALUE, CKA_ISSUER, CKA_SUBJECT};
const CK_ATTRIBUTE_TYPE ALL_FIELDS[] = {CKA_VALUE, CKA_ISSUER, CKA_SUBJECT, CKA_SERIAL_NUMBER};

TEST_F(SearchCertificate, ACertificateFieldBeforeTheClassIsRefused)
{
    for (const CK_ATTRIBUTE_TYPE type : FIELDS_THAT_REFUSE) {
        for (const bool isNull : {false, true}) {
            Template search;
            isNull ? search.addNull(type) : search.add(type, {1});
            search.addClass(CKO_CERTIFICATE);
            const MessageMark mark;
            EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID, init(search));
            std::vector<std::string> texts{numbered("FindObjectsInit ulCount = ", 2),
                                           numbered("VELT_PKCS11: Obj.type = ", type)};
            if (type == CKA_ISSUER) {
                texts.emplace_back("FindObjectsInit CKR_ATTRIBUTE_TYPE_INVALID");
            }
            EXPECT_MESSAGES(mark, texts);
            EXPECT_EQ(0U, ulTCount);
            EXPECT_EQ(0, bFindInit);
            ASSERT_NE(nullptr, pTempl);
            EXPECT_EQ(nullptr, pTempl->attrs);
        }
    }
    EXPECT_TRUE(scripted.calls.empty());
}

TEST_F(SearchCertificate, ACertificateFieldOfAnotherClassIsRefused)
{
    for (const CK_ATTRIBUTE_TYPE type : FIELDS_THAT_REFUSE) {
        EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID,
                  init(Template{}.addClass(CKO_PUBLIC_KEY).add(type, {1})));
    }
}

TEST_F(SearchCertificate, ASerialNumberBeforeTheClassIsPassedOver)
{
    makeTable(3);
    addLoadedCertificate("x");
    addLoadedCertificate();
    EXPECT_EQ((Handles{2}), // the serial counts, and only the empty label makes up for it
              find(Template{}.add(CKA_SERIAL_NUMBER, {0x02, 0x04}).addClass(CKO_CERTIFICATE)));
    EXPECT_EQ((Handles{1, 2}), find(certificates().add(CKA_SERIAL_NUMBER, {0x02, 0x04})));
}

TEST_F(SearchCertificate, ASerialNumberBeforeTheClassAllocatesNothing)
{
    ASSERT_EQ(CKR_OK, init(Template{}.add(CKA_SERIAL_NUMBER, {1}).addClass(CKO_CERTIFICATE)));
    EXPECT_EQ(nullptr, pTempl->attrs);
}

TEST_F(SearchCertificate, EachCertificateFieldIsCompared)
{
    makeTable(3);
    addLoadedCertificate("x");
    CertAttr& other = addLoadedCertificate("y");
    setField(other.value, other.valueLen, {0x30, 0x11});
    setField(other.issuer, other.issuerLen, {0x30, 0x12});
    setField(other.subject, other.subjectLen, {0x30, 0x13});
    setField(other.serial, other.serialLen, {0x02, 0x14});
    const std::pair<CK_ATTRIBUTE_TYPE, Bytes> fields[] = {{CKA_VALUE, {0x30, 0x11}},
                                                          {CKA_ISSUER, {0x30, 0x12}},
                                                          {CKA_SUBJECT, {0x30, 0x13}},
                                                          {CKA_SERIAL_NUMBER, {0x02, 0x14}}};
    for (const auto& [type, value] : fields) {
        EXPECT_EQ((Handles{2}), find(certificates().add(type, value))) << type;
        EXPECT_EQ((Handles{}), find(certificates().add(type, {0x30, 0x99}))) << type;
    }
    Template all = certificates();
    for (const auto& [type, value] : fields) {
        all.add(type, value);
    }
    EXPECT_EQ((Handles{2}), find(all));
}

TEST_F(SearchCertificate, FieldsOfOtherLengthsDiffer)
{
    makeTable(2);
    addLoadedCertificate("x");
    for (const CK_ATTRIBUTE_TYPE type : ALL_FIELDS) {
        EXPECT_EQ((Handles{}), find(certificates().add(type, {0x30}))) << type;
        EXPECT_EQ((Handles{}), find(certificates().add(type, {0x30, 0x01, 0x00})));
    }
}

TEST_F(SearchCertificate, BytesBehindAZeroByteAreNotCompared)
{
    makeTable(2);
    CertAttr& attr = addLoadedCertificate("x");
    setField(attr.issuer, attr.issuerLen, {0x30, 0x00, 0xAA});
    EXPECT_EQ((Handles{1}), find(certificates().add(CKA_ISSUER, {0x30, 0x00, 0xBB})));
    EXPECT_EQ((Handles{}), find(certificates().add(CKA_ISSUER, {0x30, 0x01, 0xAA})));
    EXPECT_EQ((Handles{}), find(certificates().add(CKA_ISSUER, {0x30, 0x00})));
}

TEST_F(SearchCertificate, EmptyFieldsAreEqual)
{
    makeTable(2);
    CertAttr& attr = addLoadedCertificate("x");
    attr.subjectLen = 0;
    attr.serialLen = 0;
    // Class, subject and serial are equal: three points, whatever the issuer.
    EXPECT_EQ((Handles{1}), find(certificates().add(CKA_ISSUER, {1})));
    EXPECT_EQ((Handles{1}), find(certificates().add(CKA_ISSUER, {1}).add(CKA_VALUE, {1})));
    EXPECT_EQ((Handles{}),
              find(certificates().add(CKA_ISSUER, {1}).add(CKA_VALUE, {1}).add(CKA_TOKEN, {0})));
}

TEST_F(SearchCertificate, ANullOrEmptyCertificateFieldCountsAsEmpty)
{
    makeTable(3);
    addLoadedCertificate("x");
    for (const CK_ATTRIBUTE_TYPE type : ALL_FIELDS) {
        ASSERT_EQ(CKR_OK, init(certificates().addNull(type, 5)));
        ASSERT_NE(nullptr, pTempl->attrs) << type;
        EXPECT_EQ((Handles{}), next(0, 10)) << type;
        ASSERT_EQ(CKR_OK, init(certificates().add(type, {})));
        ASSERT_NE(nullptr, pTempl->attrs) << type;
        EXPECT_EQ((Handles{}), next(0, 10)) << type;
    }
    velt::certificateOf(velt::entryOf(1))->issuerLen = 0;
    EXPECT_EQ((Handles{1}), find(certificates().addNull(CKA_ISSUER, 5)));
    EXPECT_EQ((Handles{1}), find(certificates().add(CKA_ISSUER, {})));
    // A field given before is empty again.
    ASSERT_EQ(CKR_OK, init(certificates().add(CKA_ISSUER, {0x30, 0x09}).addNull(CKA_ISSUER, 5)));
    EXPECT_EQ(0U, static_cast<const CertAttr*>(pTempl->attrs)->issuerLen);
}

TEST_F(SearchCertificate, FieldsAsLongAsTheirBuffersAreCompared)
{
    makeTable(2);
    CertAttr& attr = addLoadedCertificate("x");
    const std::pair<CK_ATTRIBUTE_TYPE, std::size_t> fields[] = {
        {CKA_VALUE, 4096}, {CKA_ISSUER, 1024}, {CKA_SUBJECT, 1024}, {CKA_SERIAL_NUMBER, 64}};
    setField(attr.value, attr.valueLen, Bytes(4096, 'v'));
    setField(attr.issuer, attr.issuerLen, Bytes(1024, 'v'));
    setField(attr.subject, attr.subjectLen, Bytes(1024, 'v'));
    setField(attr.serial, attr.serialLen, Bytes(64, 'v'));
    for (const auto& [type, size] : fields) {
        EXPECT_EQ((Handles{1}), find(certificates().add(type, Bytes(size, 'v'))));
        EXPECT_EQ((Handles{}), find(certificates().add(type, Bytes(size + 1, 'v'))));
        EXPECT_EQ((Handles{}), find(certificates().add(type, Bytes(size * 3, 'v'))));
        Bytes last(size, 'v');
        last.back() = 'w';
        EXPECT_EQ((Handles{}), find(certificates().add(type, last))) << type;
    }
}

TEST_F(SearchCertificate, CertificateFieldsCountOnlyWhileTheTemplateIsOfThatClass)
{
    makeTable(3);
    addLoadedCertificate("x");
    addPublicKey("y");
    EXPECT_EQ((Handles{}),
              find(certificates().add(CKA_ISSUER, {0x30, 0x02}).addClass(CKO_PUBLIC_KEY)));
    EXPECT_TRUE(scripted.calls.empty());
}

TEST_F(SearchCertificate, OtherObjectsScoreNothingForCertificateFields)
{
    makeTable(4);
    addPublicKey();
    addPrivateKey();
    addObject(CKO_CERTIFICATE); // without its block
    EXPECT_EQ((Handles{3}), find(certificates().addNull(CKA_ISSUER)))
        << "class and label of the last";
    EXPECT_EQ((Handles{}), find(certificates().addNull(CKA_ISSUER).addNull(CKA_VALUE)));
    EXPECT_TRUE(scripted.calls.empty());
}

TEST_F(SearchCertificate, AnUnreadCertificateIsAskedForByItsPosition)
{
    makeTable(5);
    addPublicKey("x");
    addCertificate("x");
    addPublicKey("x");
    addCertificate("x");
    scripted.getCertificate = [](std::uint64_t position) {
        CertAttr& attr = *velt::certificateOf(velt::entryAt(position));
        setField(attr.value, attr.valueLen, {0x30, 0x01});
        setField(attr.issuer, attr.issuerLen, {0x30, velt::lowByte(position)});
        setField(attr.subject, attr.subjectLen, {0x30, 0x03});
        setField(attr.serial, attr.serialLen, {0x02, 0x04});
        return CKR_OK;
    };
    EXPECT_EQ((Handles{4}), find(certificates().add(CKA_ISSUER, {0x30, 3})));
    const std::vector<DriverCall> asked{{"GetCertificate", session(), 1},
                                        {"GetCertificate", session(), 3}};
    EXPECT_EQ(asked, scripted.calls);
    EXPECT_EQ((Handles{2}), find(certificates().add(CKA_ISSUER, {0x30, 1})));
    EXPECT_EQ(asked, scripted.calls) << "once read, not asked again";
}

TEST_F(SearchCertificate, TheFirstPositionIsAskedForToo)
{
    makeTable(1);
    addCertificate("x");
    find(certificates().add(CKA_ISSUER, {1}));
    EXPECT_EQ((std::vector<DriverCall>{{"GetCertificate", session(), 0}}), scripted.calls);
}

TEST_F(SearchCertificate, ACertificateThatCannotBeReadIsComparedAsItStands)
{
    makeTable(1);
    addCertificate("x");
    scripted.getCertificate = [](std::uint64_t) { return CK_RV{2}; };
    ASSERT_EQ(CKR_OK, init(certificates().add(CKA_ISSUER, {1})));
    EXPECT_EQ((Handles{1}), next(0, 5)); // the class and three empty fields
    EXPECT_EQ((Handles{}), next(0, 5));
    EXPECT_EQ(2U, scripted.calls.size()) << "asked again by each step";
}

TEST_F(SearchCertificate, ACertificateReadByALaterStepIsFoundAlthoughItWasPassed)
{
    makeTable(3);
    addPublicKey("x");
    addCertificate("x");
    addLoadedCertificate("x");
    scripted.getCertificate = [](std::uint64_t) { return CK_RV{2}; };
    ASSERT_EQ(CKR_OK, init(certificates()
                               .add(CKA_ISSUER, {0x30, 0x02})
                               .add(CKA_SUBJECT, {0x30, 0x03})
                               .add(CKA_SERIAL_NUMBER, {0x02, 0x04})
                               .add(CKA_VALUE, {0x30, 0x01})));
    EXPECT_EQ((Handles{3}), next(1, 1));
    scripted.getCertificate = [](std::uint64_t position) {
        CertAttr& attr = *velt::certificateOf(velt::entryAt(position));
        setField(attr.value, attr.valueLen, {0x30, 0x01});
        setField(attr.issuer, attr.issuerLen, {0x30, 0x02});
        setField(attr.subject, attr.subjectLen, {0x30, 0x03});
        setField(attr.serial, attr.serialLen, {0x02, 0x04});
        return CKR_OK;
    };
    EXPECT_EQ((Handles{2}), next(1, 1));
}

TEST_F(SearchCertificate, ADriverThatCannotReadCertificatesIsNotAsked)
{
    makeTable(1);
    addCertificate("x");
    stVELTTokens.GetCertificate = nullptr;
    EXPECT_EQ((Handles{1}), find(certificates().add(CKA_ISSUER, {1})));
}

TEST_F(SearchCertificate, NothingIsReadWithoutCertificateFieldsInTheTemplate)
{
    makeTable(1);
    addCertificate("x");
    EXPECT_EQ((Handles{1}), find(certificates()));
    EXPECT_TRUE(scripted.calls.empty());
}

TEST_F(SearchCertificate, NothingIsReadBehindTheLastHandleHandedOut)
{
    makeTable(3);
    addCertificate("x");
    addCertificate("x");
    addCertificate("x");
    ASSERT_EQ(CKR_OK, init(certificates().addNull(CKA_ISSUER)));
    EXPECT_EQ((Handles{1}), next(1, 1));
    EXPECT_EQ((std::vector<DriverCall>{{"GetCertificate", session(), 0}}), scripted.calls);
}

} // namespace
