// Signatures asked for in vain, certificates written and objects destroyed: what both families do
// alike.
#include "tests/support/applets.h"

using namespace velt_test;

namespace {

const Bytes FIRST = hex("0A 1B");
const Bytes SECOND = hex("FE DC BA 98 76 54 32 10 11 22 33 44 55 66 77 88");

class AppletWriting : public EachApplet {
protected:
    // Two names; the first has handles 1 and 2, the second 3 to 5.
    void loadBoth()
    {
        load({{FIRST, {RSA_PAIR}}, {SECOND, {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE}}});
    }

    void expectWritten(const Bytes& name, const Bytes& content)
    {
        expectSteps(family.writing(name, gzipMember(content)));
    }
    void expectLookedUp(std::uint8_t id, const Bytes& name)
    {
        expect(getName(id), name + family.nameEnd + hex(OK), 22);
    }

    static Attribute label(const Bytes& content) { return {CKA_LABEL, content}; }
    static Attribute id(std::uint8_t content) { return {CKA_ID, {content}}; }
    static Attribute der(const Bytes& content) { return {CKA_VALUE, content}; }
    static Attribute certificateClass() { return classIs(CKO_CERTIFICATE); }

    void expectIncomplete(const std::vector<Attribute>& attributes)
    {
        mark.reset();
        EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, create(attributes));
        EXPECT_MESSAGES(mark, told("CreateObject CKR_TEMPLATE_INCOMPLETE"));
    }

    Bytes destruction(const Bytes& name) const
    {
        return Bytes{0x80, 0x12, family.deletion, 0x00} + counted(name);
    }

    const Bytes encoded = Certificate{}.encode();
};

INSTANTIATE_TEST_SUITE_P(Families, AppletWriting, testing::ValuesIn(APPLETS), appletName);

// --- signatures ---

TEST_P(AppletWriting, TwoMechanismsAreTaken)
{
    int parameter = 0;
    for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, family.gostSign}) {
        mark.reset();
        CK_MECHANISM mechanism{type, &parameter, 4};
        EXPECT_EQ(CKR_OK, family.operations.SignInit(table, session, &mechanism, 17));
        EXPECT_EQ(17U, family.signKey); // not looked at
        EXPECT_EQ(type, family.signMechanism.mechanism);
        EXPECT_EQ(&parameter, family.signMechanism.pParameter);
        EXPECT_EQ(4U, family.signMechanism.ulParameterLen);
        EXPECT_MESSAGES(mark, told("SignInit CKR_OK"));
    }
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{0x84B5A002}, CK_MECHANISM_TYPE{0xFFFFFFFF84B5A002},
          CK_MECHANISM_TYPE{0x84B5A001}, CK_MECHANISM_TYPE{0x0}, CK_MECHANISM_TYPE{0x3}}) {
        if (type == family.gostSign) {
            continue;
        }
        mark.reset();
        EXPECT_EQ(CKR_MECHANISM_INVALID, signInit(type, 18));
        EXPECT_EQ(17U, family.signKey);
        EXPECT_EQ(family.gostSign, family.signMechanism.mechanism);
        EXPECT_MESSAGES(mark, told("SignInit CKR_MECHANISM_INVALID"));
    }
}

TEST_P(AppletWriting, WithoutAMechanismNothingIsSigned)
{
    loadBoth();
    family.signKey = 2;
    EXPECT_EQ(CKR_FUNCTION_FAILED, sign(pattern(20)));
    EXPECT_MESSAGES(mark, told("Sign Unknown mechanism"));
    expectNoSignature();
}

TEST_P(AppletWriting, HandlesOutsideTheTableSignNothing)
{
    loadBoth();
    for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, family.gostSign}) {
        for (const CK_OBJECT_HANDLE key : {0UL, 7UL, 4711UL, ~0UL}) {
            init(type, key);
            EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(32))) << key;
            expectNoSignature();
        }
    }
    EXPECT_MESSAGES(mark);
}

TEST_P(AppletWriting, DataThatDoesNotFitItsCommandIsNotSent)
{
    loadBoth();
    init(CKM_RSA_PKCS, 2);
    publicKey(1).modulusBits = 2048;
    for (const std::size_t size : {254U, 256U, 3000U, 70000U}) {
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(size))) << size;
        expectNoSignature();
    }
    init(family.gostSign, 3); // a name of 16 bytes
    for (const std::size_t size : {238U, 255U, 256U, 3000U, 70000U}) {
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(size))) << size;
        expectNoSignature();
    }
    EXPECT_MESSAGES(mark);
}

// --- certificates ---

TEST_P(AppletWriting, ACertificateIsWrittenUnderTheNameThatItsLabelTells)
{
    loadBoth();
    for (const Bytes& name : {FIRST, SECOND}) {
        mark.reset();
        expectWritten(name, encoded);
        EXPECT_EQ(CKR_OK, createNamed(name, encoded));
        EXPECT_MESSAGES(mark, told("CreateObject CKR_OK"));
        EXPECT_EQ(5U, ulObjCount); // the core reloads
        expectAllExchanged();
    }
}

TEST_P(AppletWriting, WithoutALabelTheNameAtTheIdsPositionIsLookedUp)
{
    loadBoth();
    for (const std::uint8_t position : Bytes{0x00, 0x07, 0xFE}) {
        mark.reset();
        expectLookedUp(position, pattern(12, position + 50U));
        expectWritten(pattern(12, position + 50U), encoded);
        EXPECT_EQ(CKR_OK, createAt(position, encoded));
        EXPECT_MESSAGES(mark, told("CreateObject CKR_OK"));
        expectAllExchanged();
    }
}

TEST_P(AppletWriting, TheOrderOfAttributesDoesNotMatter)
{
    loadBoth();
    std::vector<Attribute> attributes{certificateClass(), onToken(1), der(encoded),
                                      label(labelOf(FIRST))};
    const auto byType = [](const Attribute& left, const Attribute& right) {
        return left.type < right.type;
    };
    std::ranges::sort(attributes, byType);
    do {
        expectWritten(FIRST, encoded);
        EXPECT_EQ(CKR_OK, create(attributes));
    } while (std::ranges::next_permutation(attributes, byType).found);
}

TEST_P(AppletWriting, AnIncompleteTemplateSendsNothing)
{
    loadBoth();
    const Attribute named = label(labelOf(FIRST));
    // fewer than four that count
    expectIncomplete({});
    expectIncomplete({onToken(1), der(encoded), named});
    expectIncomplete({certificateClass(), der(encoded), named});
    expectIncomplete({certificateClass(), onToken(1), named});
    expectIncomplete({certificateClass(), onToken(1), der(encoded)});
    expectIncomplete({classIs(CKO_PUBLIC_KEY), onToken(1), der(encoded), named});
    expectIncomplete({classIs(0x0000000100000001), onToken(1), der(encoded), named});
    expectIncomplete({certificateClass(), onToken(0), der(encoded), named});
    expectIncomplete({certificateClass(), onToken(2), der(encoded), named});
    // neither name nor ID
    for (const Bytes& unknown :
         {text("0a1b"), text("0A1"), text("0A1B0"), text("CC"), Bytes(40, '0'), Bytes{}}) {
        expectIncomplete({certificateClass(), onToken(1), der(encoded), label(unknown)});
    }
    expectIncomplete({certificateClass(), onToken(1), der(encoded), id(0xFF)});
    expectIncomplete({certificateClass(), onToken(1), der(encoded), label(text("CC")), id(0xFF)});
    expectIncomplete({certificateClass(), onToken(1), der(encoded), id(0x00), id(0xFF)});
}

TEST_P(AppletWriting, OtherTypesAreToldAndDoNotCount)
{
    loadBoth();
    EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, create({{CKA_SUBJECT, pattern(3)},
                                               onToken(1),
                                               der(encoded),
                                               label(labelOf(FIRST)),
                                               {CKA_CERTIFICATE_TYPE, number(0)}}));
    EXPECT_MESSAGES(mark, told(family.unknownType, CKA_SUBJECT),
                    told(family.unknownType, CKA_CERTIFICATE_TYPE),
                    told("CreateObject CKR_TEMPLATE_INCOMPLETE"));
    mark.reset();
    expectWritten(FIRST, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(),
                              onToken(1),
                              {CKA_PRIVATE, {0}},
                              der(encoded),
                              label(labelOf(FIRST))}));
    EXPECT_MESSAGES(mark, told(family.unknownType, CKA_PRIVATE), told("CreateObject CKR_OK"));
}

TEST_P(AppletWriting, AClassIsEightBytesAndAFlagOneWhateverTheirLengths)
{
    loadBoth();
    const std::uint64_t objClass = CKO_CERTIFICATE;
    std::uint8_t flag = 1;
    Bytes content = encoded;
    Bytes name = labelOf(FIRST);
    std::array<CK_ATTRIBUTE, 4> rows{{{CKA_CLASS, const_cast<std::uint64_t*>(&objClass), 1},
                                      {CKA_TOKEN, &flag, 8},
                                      {CKA_VALUE, content.data(), content.size()},
                                      {CKA_LABEL, name.data(), name.size()}}};
    CK_OBJECT_HANDLE handle = 4711;
    expectWritten(FIRST, encoded);
    EXPECT_EQ(CKR_OK,
              family.operations.CreateObject(table, session, rows.data(), rows.size(), &handle));
    EXPECT_EQ(4711U, handle);
}

TEST_P(AppletWriting, DuplicatesCountEachTime)
{
    loadBoth();
    expectWritten(FIRST, {});
    EXPECT_EQ(CKR_OK, create({onToken(1), onToken(1), onToken(1), label(labelOf(FIRST))}));
    expectWritten(FIRST, encoded);
    EXPECT_EQ(CKR_OK,
              create({certificateClass(), label(labelOf(FIRST)), der(pattern(9)), der(encoded)}));
}

TEST_P(AppletWriting, WithoutAValueTheEmptyMemberIsWritten)
{
    loadBoth();
    ASSERT_EQ(20U, gzipMember({}).size());
    expectWritten(FIRST, {});
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), label(labelOf(FIRST)), id(0x00)}));
    expectLookedUp(0x00, FIRST);
    expectWritten(FIRST, {});
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der({}), id(0x00)}));
}

TEST_P(AppletWriting, ALabelIsReadAsAString)
{
    loadBoth();
    expectWritten(FIRST, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der(encoded),
                              label(labelOf(FIRST) + Bytes{0} + text("rest"))}));
    expectWritten(SECOND, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der(encoded),
                              label(padded(labelOf(SECOND), 40))}));
}

TEST_P(AppletWriting, TheLastLabelThatMatchesWinsAndComesBeforeAnId)
{
    loadBoth();
    const Attribute first = label(labelOf(FIRST));
    const Attribute second = label(labelOf(SECOND));
    const Attribute unknown = label(text("CC"));
    expectWritten(SECOND, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der(encoded), first, second}));
    expectWritten(FIRST, encoded);
    EXPECT_EQ(CKR_OK,
              create({certificateClass(), onToken(1), der(encoded), second, first, unknown}));
    expectWritten(SECOND, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der(encoded), second, id(0x00)}));
    expectWritten(SECOND, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), id(0x00), onToken(1), der(encoded), second}));
    expectWritten(SECOND, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der(encoded), second, id(0xFF)}));
}

TEST_P(AppletWriting, TheLastIdWins)
{
    loadBoth();
    expectLookedUp(0x03, SECOND);
    expectWritten(SECOND, encoded);
    EXPECT_EQ(CKR_OK, create({certificateClass(), onToken(1), der(encoded), id(0x09), id(0xFF),
                              label(text("CC")), id(0x03)}));
}

TEST_P(AppletWriting, OfEqualLabelsTheFirstGivesTheName)
{
    load({{FIRST, {CERTIFICATE}}, {FIRST, {RSA_PAIR}}});
    velt::entryAt(0)->cardName[0] = 0x77; // told apart from the entries of the same label
    expectWritten(hex("77 1B"), encoded);
    EXPECT_EQ(CKR_OK, createNamed(FIRST, encoded));
}

TEST_P(AppletWriting, ALabelBeyond40BytesIsRefusedAtOnce)
{
    loadBoth();
    expectIncomplete({certificateClass(), onToken(1), der(encoded), label(Bytes(40, 'x'))});
    for (const std::size_t size : {41U, 50U, 5000U}) {
        mark.reset();
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID,
                  create({label(Bytes(size, 'x')), {CKA_SUBJECT, pattern(3)}}));
        EXPECT_MESSAGES(mark, toldIf(family.labelTooLong));
    }
    mark.reset();
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, create({certificateClass(), onToken(1), der(encoded),
                                                   label(padded(labelOf(FIRST), 41))}));
    EXPECT_MESSAGES(mark, toldIf(family.labelTooLong));
}

TEST_P(AppletWriting, AnIdThatIsNotOneByteIsRefusedAtOnce)
{
    loadBoth();
    for (const Bytes& content : {Bytes{}, hex("00 00"), pattern(8)}) {
        mark.reset();
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, create({certificateClass(),
                                                       onToken(1),
                                                       der(encoded),
                                                       label(labelOf(FIRST)),
                                                       {CKA_ID, content},
                                                       {CKA_SUBJECT, pattern(3)}}));
        EXPECT_MESSAGES(mark, toldIf(family.idLength));
    }
}

TEST_P(AppletWriting, AValueIsAtMost4096Bytes)
{
    loadBoth();
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, createNamed(FIRST, Bytes(4097)));
    EXPECT_MESSAGES(mark);
    expectWritten(FIRST, Bytes(4096));
    EXPECT_EQ(CKR_OK, createNamed(FIRST, Bytes(4096)));
}

TEST_P(AppletWriting, StoredFormsOfEverySizeUpTo2048BytesAreWritten)
{
    loadBoth();
    for (const std::size_t size :
         {31U, 32U, 33U, 63U, 64U, 65U, 70U, 97U, 255U, 256U, 2047U, 2048U}) {
        SCOPED_TRACE(size);
        mark.reset();
        const Bytes content = contentCompressingTo(size);
        expectWritten(SECOND, content);
        EXPECT_EQ(CKR_OK, createNamed(SECOND, content));
        EXPECT_MESSAGES(mark, told("CreateObject CKR_OK"));
        expectAllExchanged();
    }
}

TEST_P(AppletWriting, MoreThan2048CompressedBytesAreRefusedBeforeAnythingIsSent)
{
    loadBoth();
    velt::findSession(session)->deviceError = 0x1234;
    EXPECT_EQ(CKR_DEVICE_MEMORY, createNamed(FIRST, contentCompressingTo(2049)));
    EXPECT_MESSAGES(mark, told("CreateObject error gzipped cert length ", 2049));
    mark.reset();
    EXPECT_EQ(CKR_DEVICE_MEMORY, createAt(0x00, contentCompressingTo(2049)));
    EXPECT_MESSAGES(mark, told("CreateObject error gzipped cert length ", 2049));
    mark.reset();
    EXPECT_EQ(CKR_DEVICE_MEMORY, createNamed(FIRST, pattern(4096)));
    EXPECT_MESSAGES(mark, "Unknown error code: 0x0",
                    told("CreateObject error gzipped cert length ", 4096));
    EXPECT_EQ(0x1234U, deviceError());
}

TEST_P(AppletWriting, ACompressorThatFailsIsRememberedAsTheDevicesError)
{
    loadBoth();
    failCompression(-4);
    EXPECT_EQ(CKR_FUNCTION_FAILED, createNamed(FIRST, pattern(100)));
    EXPECT_EQ(CKR_FUNCTION_FAILED, createAt(0x00, pattern(100)));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFC, deviceError());
    EXPECT_MESSAGES(mark, "Z_MEM_ERROR Insufficient memory.", "Z_MEM_ERROR Insufficient memory.");
}

TEST_P(AppletWriting, AFailureAtEachExchangeOfACertificate)
{
    const Bytes content = contentCompressingTo(70);
    std::vector<ExchangeStep> steps = family.writing(SECOND, gzipMember(content));
    failAtEach(
        steps, CKR_FUNCTION_FAILED, [this] { loadBoth(); },
        [&] { return createNamed(SECOND, content); });
    steps.insert(steps.begin(), {getName(7),
                                 SECOND + family.nameEnd + hex(OK),
                                 22,
                                 {told("CreateObject APDU get object name error ") + "#"}});
    failAtEach(
        steps, CKR_FUNCTION_FAILED, [this] { loadBoth(); }, [&] { return createAt(7, content); });
}

// --- destruction ---

TEST_P(AppletWriting, AnyObjectOfANameTakesTheWholeNameAlong)
{
    loadBoth();
    for (const CK_OBJECT_HANDLE handle : {1UL, 2UL, 3UL, 4UL, 5UL}) {
        mark.reset();
        expect(destruction(handle < 3 ? FIRST : SECOND), hex(OK), 2);
        EXPECT_EQ(CKR_OK, destroy(handle));
        EXPECT_MESSAGES(mark, told("DestroyObject CKR_OK"));
        EXPECT_EQ(5U, ulObjCount); // the core reloads
        expectAllExchanged();
    }
}

TEST_P(AppletWriting, ADestructionThatFailsIsToldWithItsResult)
{
    failAtEach(
        {{destruction(SECOND), {}, 2, {told("DestroyObject APDU error ") + "#"}}},
        CKR_FUNCTION_FAILED, [this] { loadBoth(); }, [this] { return destroy(5); });
}

TEST_P(AppletWriting, AnEntryThatIsNotMadeIsNotDestroyed)
{
    load({{FIRST, {RSA_PAIR}}});
    EXPECT_EQ(CKR_FUNCTION_FAILED, destroy(3));
    EXPECT_MESSAGES(mark);
}

TEST_P(AppletWriting, ACertificateOfAnEntryThatIsNotMadeIsReadUnderTheEmptyNameAndDropped)
{
    load({{FIRST, {RSA_PAIR}}});
    expectSteps(family.reading({}, gzipMember(encoded)));
    EXPECT_EQ(CKR_OK, getCertificate(3));
    EXPECT_MESSAGES(mark, told("GetCertificate CKR_OK"));
    EXPECT_EQ(REMOVED_MARKER, velt::entryAt(2)->handle);
    EXPECT_EQ(nullptr, velt::entryAt(2)->attrs);
}

TEST_P(AppletWriting, HandlesOutsideTheTableDestroyNothing)
{
    loadBoth();
    for (const CK_OBJECT_HANDLE handle : {0UL, 7UL, 4711UL, ~0UL}) {
        EXPECT_EQ(CKR_FUNCTION_FAILED, destroy(handle)) << handle;
    }
    EXPECT_MESSAGES(mark);
}

} // namespace
