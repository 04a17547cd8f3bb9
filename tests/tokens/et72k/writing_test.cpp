// Certificates written to the eToken 72K in pieces of 32 bytes, and objects destroyed.
#include "tests/support/et72k_fixture.h"

using namespace velt_test;

namespace {

const Bytes NAME = hex("31 32");

class Et72kWriting : public Et72kTest {
protected:
    void SetUp() override
    {
        Et72kTest::SetUp();
        reload();
    }
    void reload() { load({{NAME, {RSA_PAIR}}}); }

    // The exchanges of a whole certificate, spelled out; `sizes` are those of the pieces.
    void expectWritten(const Bytes& stored, const std::vector<std::size_t>& sizes)
    {
        expect(hex("80 12 40 00 04 00 00") + bigEndian(stored.size()), hex(OK), 4);
        std::size_t done = 0;
        for (const std::size_t size : sizes) {
            const std::string header =
                size == 32
                    ? "80 12 40 00 22 00 20"
                    : "80 12 40 00" + toHex(Bytes{std::uint8_t(size + 2), 0, std::uint8_t(size)});
            expect(hex(header) + slice(stored, done, size), hex(OK), 2);
            done += size;
        }
        expect("80 12 42 00 04 00 02 31 32", OK, 2);
    }
    static std::vector<std::size_t> whole(std::size_t pieces)
    {
        return std::vector<std::size_t>(pieces, 32);
    }

    // The name that the binding command gets when the lookup answers so.
    void expectLookedUp(const Bytes& reply, const Bytes& name)
    {
        SCOPED_TRACE(toHex(reply));
        const Bytes content = contentCompressingTo(40);
        expect("80 12 21 00 02 00 05", toHex(reply), 22);
        expectSteps(writingET72K(name, gzipMember(content)));
        EXPECT_EQ(CKR_OK, createAt(5, content));
        expectAllExchanged();
    }
};

// --- certificates ---

TEST_F(Et72kWriting, TheCardIsToldTheSizeThenTheBytesThenTheName)
{
    struct Case {
        std::size_t size;
        std::vector<std::size_t> pieces;
    };
    const std::vector<Case> cases{
        {31, {31}},
        {32, {32}},
        {33, {32}},
        {34, {32, 2}},
        {63, {32, 31}},
        {64, {32, 32}},
        {65, {32, 32}},
        {66, {32, 32, 2}},
        {70, {32, 32, 6}},
        {97, whole(3)},
        {98, {32, 32, 32, 2}},
        {2017, whole(63)},
        {2048, whole(64)},
    };
    for (const Case& written : cases) {
        SCOPED_TRACE(written.size);
        mark.reset();
        const Bytes content = contentCompressingTo(written.size);
        expectWritten(gzipMember(content), written.pieces);
        EXPECT_EQ(CKR_OK, createNamed(NAME, content));
        EXPECT_MESSAGES(mark, "EToken72K CreateObject CKR_OK");
        expectAllExchanged();
    }
    EXPECT_EQ(2U, ulObjCount); // the core reloads
}

TEST_F(Et72kWriting, WithoutAValueTheEmptyMemberIsWritten)
{
    const Bytes empty = gzipMember({});
    ASSERT_EQ(20U, empty.size());
    expectWritten(empty, {20});
    EXPECT_EQ(CKR_OK, create({classIs(1), onToken(1), {CKA_LABEL, text("3132")}, {CKA_ID, {9}}}));
}

TEST_F(Et72kWriting, OneByteOver2048IsNotSent)
{
    EXPECT_EQ(CKR_DEVICE_MEMORY, createNamed(NAME, contentCompressingTo(2049)));
    EXPECT_MESSAGES(mark, numbered("EToken72K CreateObject error gzipped cert length ", 2049));
}

TEST_F(Et72kWriting, TheRoomForEachAnswerIsTheLastRepliesLength)
{
    const Bytes content = contentCompressingTo(70);
    const Bytes stored = gzipMember(content);
    expect(hex("80 12 40 00 04 00 00 00 46"), hex("AA BB 90 00"), 4);
    expect(hex("80 12 40 00 22 00 20") + slice(stored, 0, 32), hex("CC 90 00"), 4);
    expect(hex("80 12 40 00 22 00 20") + slice(stored, 32, 32), hex("61 05"), 3);
    expectGetResponse(0x05, hex("01 02 03 04 05 90 00"));
    expect(hex("80 12 40 00 08 00 06") + slice(stored, 64, 6), hex(OK), 7);
    expect("80 12 42 00 04 00 02 31 32", OK, 2);
    EXPECT_EQ(CKR_OK, createNamed(NAME, content));
    EXPECT_MESSAGES(mark, "EToken72K CreateObject CKR_OK");
    expectAllExchanged();

    mark.reset();
    expect(hex("80 12 40 00 04 00 00 00 46"), hex(OK), 4);
    expect(hex("80 12 40 00 22 00 20") + slice(stored, 0, 32), hex("CC 90 00"), 2);
    EXPECT_EQ(CKR_FUNCTION_FAILED, createNamed(NAME, content));
    EXPECT_MESSAGES(mark, numbered("EToken72K CreateObject APDU write certificate error ",
                                   pcscCode(SCARD_E_INSUFFICIENT_BUFFER)));
}

TEST_F(Et72kWriting, AFailureAtEachExchangeOfACertificate)
{
    const Bytes content = contentCompressingTo(66);
    const Bytes stored = gzipMember(content);
    failAtEach(
        {{hex("80 12 21 00 02 00 05"),
          hex("31 32 00 90 00"),
          22,
          {"EToken72K CreateObject APDU get object name error #"}},
         {hex("80 12 40 00 04 00 00 00 42"),
          hex(OK),
          4,
          {"EToken72K CreateObject APDU write certificate size error #"}},
         {hex("80 12 40 00 22 00 20") + slice(stored, 0, 32),
          hex(OK),
          2,
          {"EToken72K CreateObject APDU write certificate error #"}},
         {hex("80 12 40 00 22 00 20") + slice(stored, 32, 32),
          hex(OK),
          2,
          {"EToken72K CreateObject APDU write certificate error #"}},
         {hex("80 12 40 00 04 00 02") + slice(stored, 64, 2),
          hex(OK),
          2,
          {"EToken72K CreateObject APDU write certificate error #"}},
         {hex("80 12 42 00 04 00 02 31 32"),
          hex(OK),
          2,
          {"EToken72K CreateObject APDU set certificate error #"}}},
        CKR_FUNCTION_FAILED, [this] { reload(); }, [&] { return createAt(5, content); });
}

TEST_F(Et72kWriting, ANameThatIsLookedUpIsReadAsText)
{
    expectLookedUp(hex("41 42 00 90 00"), hex("41 42"));
    expectLookedUp(hex("41 42 90 00"), hex("41 42 90"));
    expectLookedUp(hex("41 00 42 90 00"), hex("41"));
    expectLookedUp(hex("90 00"), hex("90"));
    expectLookedUp(hex("00 90 00"), {});
}

TEST_F(Et72kWriting, OfANameThatIsLookedUp20BytesAreTaken)
{
    expectLookedUp(Bytes(19, 0xB7) + hex("00 90 00"), Bytes(19, 0xB7));
    expectLookedUp(Bytes(19, 0xB7) + hex("90 00"), Bytes(19, 0xB7) + hex("90"));
    expectLookedUp(Bytes(20, 0xB7) + hex("90 00"), Bytes(20, 0xB7));

    const Bytes content = contentCompressingTo(40);
    expect("80 12 21 00 02 00 05", "61 28", 22);
    expectGetResponse(0x28, Bytes(40, 0xB7) + hex(OK));
    expectSteps(writingET72K(Bytes(20, 0xB7), gzipMember(content)));
    EXPECT_EQ(CKR_OK, createAt(5, content));
    expectAllExchanged();

    mark.reset();
    expect(hex("80 12 21 00 02 00 05"), Bytes(21, 0xB7) + hex(OK), 22);
    EXPECT_EQ(CKR_FUNCTION_FAILED, createAt(5, content));
    EXPECT_MESSAGES(mark, numbered("EToken72K CreateObject APDU get object name error ",
                                   pcscCode(SCARD_E_INSUFFICIENT_BUFFER)));
}

TEST_F(Et72kWriting, OfANameThatIsFoundByItsLabel20BytesAreTaken)
{
    const Bytes longest(20, 0xB7);
    load({{longest, {CERTIFICATE}}, {Bytes(24, 0xC8), {CERTIFICATE}}});
    const Bytes content = contentCompressingTo(40);
    expectSteps(writingET72K(longest, gzipMember(content)));
    EXPECT_EQ(CKR_OK, createNamed(longest, content)); // its label has 40 characters
    std::ranges::copy(hex("34 38 00"), VELTObj[1].label);
    expectSteps(writingET72K(Bytes(20, 0xC8), gzipMember(content)));
    EXPECT_EQ(CKR_OK, createNamed({0x48}, content));
}

TEST_F(Et72kWriting, ANameWithTheByteOfTheStatusIsFoundAndBound)
{
    load({{hex("41 42 90"), {CERTIFICATE}}});
    const Bytes content = contentCompressingTo(40);
    expectSteps(writingET72K(hex("41 42 90"), gzipMember(content)));
    EXPECT_EQ(CKR_OK,
              create({classIs(1), onToken(1), {CKA_LABEL, text("414290")}, {CKA_VALUE, content}}));
}

TEST_F(Et72kWriting, AnEmptyNameIsNone)
{
    load({{{}, {CERTIFICATE}}});
    const Bytes content = contentCompressingTo(40);
    EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, createNamed({}, content));
    EXPECT_MESSAGES(mark, "EToken72K CreateObject CKR_TEMPLATE_INCOMPLETE");
    expect("80 12 21 00 02 00 05", "41 00 90 00", 22);
    expectSteps(writingET72K(hex("41"), gzipMember(content)));
    EXPECT_EQ(
        CKR_OK,
        create({classIs(1), onToken(1), {CKA_LABEL, {}}, {CKA_ID, {5}}, {CKA_VALUE, content}}));
}

TEST_F(Et72kWriting, ATemplateIsRefusedAtItsFirstWrongAttribute)
{
    const Attribute longLabel{CKA_LABEL, Bytes(41, '3')};
    const Attribute longId{CKA_ID, {1, 2}};
    const Attribute unknown{CKA_SUBJECT, {1}};
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, create({unknown, longLabel, longId, unknown}));
    EXPECT_MESSAGES(mark,
                    numbered("EToken72K CreateObject CreateObject unknown type: ", CKA_SUBJECT),
                    "EToken72K CreateObject CKA_LABEL len > 40 bytes");
    for (const Bytes& content : {Bytes{1, 2}, Bytes{}}) {
        mark.reset();
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, create({{CKA_ID, content}, longLabel, unknown}));
        EXPECT_MESSAGES(mark, "EToken72K CreateObject CKA_ID len > 1 byte");
    }
}

TEST_F(Et72kWriting, AnAbsentValueIsRefused)
{
    for (const CK_ATTRIBUTE& absent :
         {CK_ATTRIBUTE{CKA_CLASS, nullptr, 8}, CK_ATTRIBUTE{CKA_TOKEN, nullptr, 1},
          CK_ATTRIBUTE{CKA_LABEL, nullptr, 4}, CK_ATTRIBUTE{CKA_VALUE, nullptr, 4},
          CK_ATTRIBUTE{CKA_ID, nullptr, 1}}) {
        CK_ATTRIBUTE row = absent;
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID,
                  fCreateObjectET72K(table, session, &row, 1, nullptr));
    }
}

// --- destruction ---

TEST_F(Et72kWriting, ANameIsDestroyedWhole)
{
    expect("80 12 30 00 04 00 02 31 32", OK, 2);
    EXPECT_EQ(CKR_OK, destroy(2));
    EXPECT_MESSAGES(mark, "EToken72K DestroyObject CKR_OK");

    const Bytes cut(24, 0xB7);
    load({{cut, {CERTIFICATE}}});
    expect(hex("80 12 30 00 1A 00 18") + cut, hex(OK), 2);
    EXPECT_EQ(CKR_OK, destroy(1));
}

TEST_F(Et72kWriting, AFailedDestructionIsToldWithItsResult)
{
    failAtEach(
        {{hex("80 12 30 00 04 00 02 31 32"), {}, 2, {"EToken72K DestroyObject APDU error #"}}},
        CKR_FUNCTION_FAILED, [] {}, [this] { return destroy(1); });
    for (const CK_OBJECT_HANDLE handle : {0UL, 4UL, ~0UL}) {
        mark.reset();
        EXPECT_EQ(CKR_FUNCTION_FAILED, destroy(handle)) << handle;
        EXPECT_MESSAGES(mark);
    }
}

} // namespace
