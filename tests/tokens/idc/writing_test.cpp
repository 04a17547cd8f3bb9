// Writing to the ID card: chunks, labels and certificates.
#include "tests/support/idc_writing.h"

using namespace velt_test;

namespace {

using Sizes = std::vector<std::size_t>;

// --- chunks ---

TEST_F(IdcWriting, TheSizesThatThisFileExpectsAreTheOnesOfTheRule)
{
    EXPECT_EQ((Sizes{256}), chunkSizes(2, 256));
    EXPECT_EQ((Sizes{255, 2}), chunkSizes(2, 257));
    EXPECT_EQ((Sizes{255, 45}), chunkSizes(2, 300));
    EXPECT_EQ((Sizes{255, 256}), chunkSizes(2, 511));
    EXPECT_EQ((Sizes{255, 255, 2}), chunkSizes(2, 512));
    EXPECT_EQ((Sizes{254}), chunkSizes(0, 254));
    EXPECT_EQ((Sizes{255}), chunkSizes(0, 255));
    EXPECT_EQ((Sizes{255, 1}), chunkSizes(0, 256));
    EXPECT_EQ((Sizes{255, 255}), chunkSizes(0, 510));
}

TEST_F(IdcWriting, ChunksOfEveryLength)
{
    const Bytes all = pattern(600);
    for (const std::int16_t offset : {std::int16_t{2}, std::int16_t{0}}) {
        for (std::int16_t length = 0; length <= 600; ++length) {
            SCOPED_TRACE(testing::Message() << length << " at " << offset);
            Bytes exact = slice(all, 0, static_cast<std::size_t>(length));
            dwReplyLen = 2;
            expectWritten(exact, static_cast<std::size_t>(offset));
            EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, exact.data(), offset, length));
        }
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcWriting, AChunkOf256BytesSaysZero)
{
    const Bytes all = pattern(256);
    dwReplyLen = 2;
    expect(hex("00 D6 00 02 00") + all, hex(OK));
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, all.data(), 2, 256));
}

TEST_F(IdcWriting, ChunksFollowEachOtherInTheFile)
{
    const Bytes all = pattern(300);
    dwReplyLen = 2;
    expect(hex("00 D6 00 02 FF") + slice(all, 0, 255), hex(OK));
    expect(hex("00 D6 01 01 2D") + slice(all, 255, 45), hex(OK));
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, all.data(), 2, 300));
}

TEST_F(IdcWriting, FarInAFileTheLastChunkGrows)
{
    const Bytes all = pattern(600);
    dwReplyLen = 2;
    expect(hex("00 D6 01 2C FF") + slice(all, 0, 255), hex(OK));
    expect(hex("00 D6 02 2B 59") + slice(all, 255, 345), hex(OK));
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, all.data(), 300, 600));

    const Bytes longest = pattern(32767);
    expect(hex("00 D6 7F FF FF") + longest, hex(OK)); // no chunk of 255 fits before the end
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, longest.data(), 32767, 32767));
    expectWritten(longest, 0);
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, longest.data(), 0, 32767));
}

TEST_F(IdcWriting, ALengthBelowOneSendsNothing)
{
    const Bytes none;
    for (const std::int16_t length : {std::int16_t{0}, std::int16_t{-1}, std::int16_t{-32768}}) {
        for (const std::int16_t offset : {std::int16_t{2}, std::int16_t{-32768}}) {
            EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, none.data(), offset, length));
        }
    }
}

TEST_F(IdcWriting, NothingBehindTheDataIsReadForANegativeOffset)
{
    Bytes all = pattern(300);
    all.shrink_to_fit();
    dwReplyLen = 2;
    expect(hex("00 D6 FF F0 FF") + slice(all, 0, 255), hex(OK));
    expect(hex("00 D6 00 EF 2D") + slice(all, 255, 45), hex(OK));
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, all.data(), -16, 300));
    expect(hex("00 D6 80 00 0A") + slice(all, 290, 10), hex(OK));
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, all.data() + 290, -32768, 10));
}

TEST_F(IdcWriting, AChunkHasTheRoomOfTheReplyBefore)
{
    const Bytes all = pattern(300);
    dwReplyLen = 9;
    expect(update(all, 2, 0, 255), hex(OK), 9);
    expect(update(all, 2, 255, 45), hex(OK), 2);
    EXPECT_EQ(0U, VELT_WriteBinaryIDC(session, all.data(), 2, 300));
}

TEST_F(IdcWriting, ARefusedChunkEndsTheWriting)
{
    const Bytes all = pattern(600);
    for (std::size_t refused = 0; refused < 3; ++refused) {
        mark.reset();
        dwReplyLen = 2;
        for (std::size_t i = 0; i <= refused; ++i) {
            expect(update(all, 2, i * 255, i < 2 ? 255 : 90), hex(i == refused ? "69 82" : OK));
        }
        EXPECT_EQ(10U, VELT_WriteBinaryIDC(session, all.data(), 2, 600));
        EXPECT_MESSAGES(mark, numbered("IDCard WriteBinary error ", 0x8269));
        expectAllExchanged();
    }
    mark.reset();
    expectLost(update(all, 2, 0, 100), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(10U, VELT_WriteBinaryIDC(session, all.data(), 2, 100));
    EXPECT_MESSAGES(mark, numbered("IDCard WriteBinary error ", pcscCode(SCARD_W_REMOVED_CARD)));
}

// --- labels ---

TEST_F(IdcWriting, ALabelReplacesTheCertificateOfItsKey)
{
    setLabels();
    expect("00 A4 00 0C 02 3F 00", OK);
    expect("00 A4 01 0C 02 08 01", OK);
    expect("00 A4 02 0C 02 01 01", OK);
    expect("00 D6 00 00 02 00 00", OK);
    expect(hex("00 D6 00 02 16") + text("RSA1010203040506070809"), hex(OK));
    EXPECT_EQ(0U, VELT_WriteAliasIDC(session, 0x87));
    expect("00 A4 00 0C 02 3F 00", OK);
    expect("00 A4 01 0C 02 08 01", OK);
    expect("00 A4 02 0C 02 01 02", OK);
    expect("00 D6 00 00 02 00 00", OK);
    expect(hex("00 D6 00 02 16") + text("RSA2010203040506070809"), hex(OK));
    EXPECT_EQ(0U, VELT_WriteAliasIDC(session, 0x88));
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcWriting, AnUnknownKeyClearsTheFirstFileAndWritesNoLabel)
{
    setLabels();
    for (const std::uint8_t keyId : Bytes{0x00, 0x07, 0x86, 0x89, 0xFF}) {
        expectCertificateFile(1);
        expect(CLEAR_LENGTH, OK);
        EXPECT_EQ(0U, VELT_WriteAliasIDC(session, keyId));
    }
}

TEST_F(IdcWriting, AMissingLabelIsReadFirst)
{
    for (const bool firstIsMissing : {true, false}) {
        setLabels();
        (firstIsMissing ? Alias1 : Alias2).fill(0);
        expectAliases();
        expectLabelWritten(2);
        EXPECT_EQ(0U, VELT_WriteAliasIDC(session, 0x88));
    }
}

TEST_F(IdcWriting, ALabelThatFillsItsBufferIsWrittenWhole)
{
    Alias1.fill('A');
    Alias2.fill('B');
    expectCertificateFile(1);
    expect(CLEAR_LENGTH, OK);
    expect(hex("00 D6 00 02 32") + Bytes(50, 'A'), hex(OK));
    EXPECT_EQ(0U, VELT_WriteAliasIDC(session, 0x87));
}

TEST_F(IdcWriting, TheLengthIsClearedWithTheRoomOfTheReplyBefore)
{
    setLabels();
    expect(SELECT_MF, OK);
    expect(SELECT_DF_0801, OK);
    expect(SELECT_EF_0101, "61 03");
    expectGetResponse(3, hex("62 01 00 90 00"));
    expect(CLEAR_LENGTH, OK, 5);
    expect(hex("00 D6 00 02 16") + text(ALIAS_1), hex(OK));
    EXPECT_EQ(0U, VELT_WriteAliasIDC(session, 0x87));
}

// --- certificates ---

TEST_F(IdcWriting, ACertificateIsCompressedAndWrittenIntoTheFileOfItsKey)
{
    const Bytes encoded = Certificate{}.encode(Bytes{0} + pattern(500));
    const Bytes member = gzipMember(encoded);
    ASSERT_GT(member.size(), 512U);
    expectCertificateWritten(1, member);
    EXPECT_EQ(CKR_OK, createCertificate(0x87, encoded));
    EXPECT_EQ(1U, handle);
    expectCertificateWritten(2, member);
    EXPECT_EQ(CKR_OK, createCertificate(0x88, encoded));
    EXPECT_EQ(4U, handle);
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcWriting, AStoredCertificateHasAtMost2048Bytes)
{
    const Bytes largest = contentCompressingTo(2048);
    expect(SELECT_MF, OK);
    expect(SELECT_DF_0801, OK);
    expect(SELECT_EF_0102, OK);
    expect("00 D6 00 00 02 08 00", OK);
    expectWritten(gzipMember(largest), 2);
    EXPECT_EQ(CKR_OK, createCertificate(0x88, largest));
    EXPECT_MESSAGES(mark);
    expectAllExchanged();

    EXPECT_EQ(CKR_DEVICE_MEMORY, createCertificate(0x88, contentCompressingTo(2049)));
    EXPECT_EQ(4711U, handle);
    EXPECT_MESSAGES(mark, numbered("IDCard CreateObject error gzipped cert length ", 2049));
}

TEST_F(IdcWriting, ACompressionThatFillsItsBufferIsTooLongAsWell)
{
    // 4096 bytes that do not compress need more than the 4096 there are.
    EXPECT_EQ(CKR_DEVICE_MEMORY, createCertificate(0x87, pattern(4096)));
    EXPECT_MESSAGES(mark, numbered("Unknown error code: ", 0),
                    numbered("IDCard CreateObject error gzipped cert length ", 4096));
}

TEST_F(IdcWriting, EveryStoredLengthAroundTheChunksIsWrittenWhole)
{
    for (const std::size_t size :
         {254U, 255U, 256U, 257U, 258U, 510U, 511U, 512U, 513U, 766U, 767U, 2047U}) {
        SCOPED_TRACE(size);
        const Bytes content = contentCompressingTo(size);
        expectCertificateWritten(1, gzipMember(content));
        EXPECT_EQ(CKR_OK, createCertificate(0x87, content));
    }
}

TEST_F(IdcWriting, WithoutAValueTheEmptyMemberIsWritten)
{
    const Bytes empty = gzipMember({});
    ASSERT_EQ(20U, empty.size());
    expectCertificateWritten(1, empty);
    EXPECT_EQ(CKR_OK, create(std::vector{classIs(1), onToken(1), onToken(1), id(0x87)}));
    EXPECT_EQ(1U, handle);
    expectCertificateWritten(2, empty);
    EXPECT_EQ(CKR_OK, createCertificate(0x88, {}));
    EXPECT_EQ(4U, handle);
}

TEST_F(IdcWriting, AnEmptyValueMayBeNull)
{
    std::vector<Attribute> rest{classIs(1), onToken(1), id(0x87)};
    auto rows = asTemplate(rest);
    rows.push_back({CKA_VALUE, nullptr, 0});
    expectCertificateWritten(1, gzipMember({}));
    EXPECT_EQ(CKR_OK, create(rows));
}

TEST_F(IdcWriting, FourCountedAttributesAreEnoughWhicheverTheyAre)
{
    const Bytes encoded = Certificate{}.encode();
    expectCertificateWritten(2, gzipMember(encoded));
    EXPECT_EQ(CKR_OK, create(std::vector{id(0x87), id(0x88), der(pattern(3000)), der(encoded)}));
    EXPECT_EQ(4U, handle); // the last of each counts
}

TEST_F(IdcWriting, FewerThanFourAttributesAreIncomplete)
{
    const Bytes encoded = Certificate{}.encode();
    const std::vector<Attribute> all{classIs(1), onToken(1), der(encoded), id(0x88)};
    for (std::size_t missing = 0; missing < all.size(); ++missing) {
        std::vector<Attribute> others = all;
        others.erase(others.begin() + static_cast<std::ptrdiff_t>(missing));
        mark.reset();
        EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, create(others));
        EXPECT_EQ(4711U, handle);
        EXPECT_MESSAGES(mark, "IDCard CreateObject CKR_TEMPLATE_INCOMPLETE");
    }
    mark.reset();
    EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, create(std::vector<CK_ATTRIBUTE>{}));
    EXPECT_MESSAGES(mark, "IDCard CreateObject CKR_TEMPLATE_INCOMPLETE");
}

TEST_F(IdcWriting, AnotherClassOrASessionObjectIsPassedOver)
{
    const Bytes encoded = Certificate{}.encode();
    for (const std::uint64_t objClass : {0ULL, 2ULL, 3ULL, 0x100000001ULL, ~0ULL}) {
        EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE,
                  create(std::vector{classIs(objClass), onToken(1), der(encoded), id(0x87)}));
    }
    for (const std::uint8_t flag : Bytes{0x00, 0x02, 0xFF}) {
        EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE,
                  create(std::vector{classIs(1), onToken(flag), der(encoded), id(0x87)}));
    }
}

TEST_F(IdcWriting, UnknownTypesAreToldAndPassedOver)
{
    const Bytes encoded = Certificate{}.encode();
    expectCertificateWritten(1, gzipMember(encoded));
    EXPECT_EQ(CKR_OK, create(std::vector{Attribute{CKA_LABEL, text("label")}, classIs(1),
                                         onToken(1), Attribute{CKA_SUBJECT, {}}, der(encoded),
                                         id(0x87), Attribute{CKA_VELT_CERTIFICATE_FLAG, {1}}}));
    EXPECT_MESSAGES(mark, numbered("IDCard CreateObject unknown type:", CKA_LABEL),
                    numbered("IDCard CreateObject unknown type:", CKA_SUBJECT),
                    numbered("IDCard CreateObject unknown type:", 0xCE534352));
}

TEST_F(IdcWriting, AnUnknownKeyIdIsRefusedAtOnce)
{
    for (const std::uint8_t keyId : Bytes{0x00, 0x07, 0x86, 0x89, 0xFF}) {
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID,
                  create(std::vector{id(keyId), Attribute{CKA_LABEL, text("not reached")}}));
        EXPECT_EQ(4711U, handle);
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcWriting, FixedAttributesAreReadWhateverTheirLengthSays)
{
    const Bytes encoded = Certificate{}.encode();
    for (const CK_ULONG stated : {0UL, 1UL, 9UL, ~0UL}) {
        std::vector<Attribute> attributes{classIs(1), onToken(1), id(0x88), der(encoded)};
        auto rows = asTemplate(attributes);
        for (std::size_t i = 0; i < 3; ++i) {
            rows[i].ulValueLen = stated;
        }
        expectCertificateWritten(2, gzipMember(encoded));
        EXPECT_EQ(CKR_OK, create(rows));
        EXPECT_EQ(4U, handle);
    }
    // a longer ID counts by its first byte
    expectCertificateWritten(1, gzipMember(encoded));
    EXPECT_EQ(CKR_OK, create(std::vector{classIs(1), onToken(1), der(encoded),
                                         Attribute{CKA_ID, hex("87 00")}}));
}

TEST_F(IdcWriting, ANullWhereAValueIsReadIsRefused)
{
    const Bytes encoded = Certificate{}.encode();
    for (const CK_ATTRIBUTE& null :
         {CK_ATTRIBUTE{CKA_CLASS, nullptr, 8}, CK_ATTRIBUTE{CKA_CLASS, nullptr, 0},
          CK_ATTRIBUTE{CKA_TOKEN, nullptr, 1}, CK_ATTRIBUTE{CKA_TOKEN, nullptr, 0},
          CK_ATTRIBUTE{CKA_ID, nullptr, 1}, CK_ATTRIBUTE{CKA_ID, nullptr, 0},
          CK_ATTRIBUTE{CKA_VALUE, nullptr, 1}, CK_ATTRIBUTE{CKA_VALUE, nullptr, 4096}}) {
        std::vector<Attribute> attributes{classIs(1), onToken(1), id(0x88), der(encoded)};
        auto rows = asTemplate(attributes);
        rows.push_back(null);
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, create(rows));
        EXPECT_EQ(4711U, handle);
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcWriting, AValueLongerThanACertificateIsRefused)
{
    Bytes content = Bytes(4096);
    expectCertificateWritten(1, gzipMember(content));
    EXPECT_EQ(CKR_OK, createCertificate(0x87, content));
    expectAllExchanged();
    mark.reset();
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, createCertificate(0x87, Bytes(4097)));
    for (const CK_ULONG stated : {4097UL, 0x100000000UL, ~0UL}) {
        std::vector<CK_ATTRIBUTE> rows{{CKA_VALUE, content.data(), stated}};
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, create(rows));
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcWriting, WithoutAKeyIdTheWritingEndsAtTheDirectory)
{
    expect(SELECT_MF, OK);
    expect(SELECT_DF_0801, OK);
    EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE,
              create(std::vector{classIs(1), onToken(1), onToken(1), der(pattern(100))}));
    EXPECT_EQ(4711U, handle);
    EXPECT_MESSAGES(mark, "IDCard CreateObject CKR_TEMPLATE_INCOMPLETE");
}

TEST_F(IdcWriting, ACompressorThatFailsIsRememberedAsTheDevicesError)
{
    velt::findSession(session)->deviceError = 0;
    failCompression(-4);
    EXPECT_EQ(CKR_FUNCTION_FAILED, createCertificate(0x87, Certificate{}.encode()));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFC, deviceError());
    EXPECT_EQ(4711U, handle);
    EXPECT_MESSAGES(mark, "Z_MEM_ERROR Insufficient memory.",
                    numbered("IDCard CreateObject gzip cert error ", 0xFFFFFFFFFFFFFFFC));
}

TEST_F(IdcWriting, ACompressorThatFailsOutsideASessionIsRememberedNowhere)
{
    failCompression(-4);
    std::vector<Attribute> attributes{classIs(1), onToken(1), id(0x88), der(pattern(10))};
    auto rows = asTemplate(attributes);
    for (const CK_SESSION_HANDLE none : {CK_SESSION_HANDLE{0}, session + 1, ~0UL}) {
        EXPECT_EQ(CKR_FUNCTION_FAILED,
                  fCreateObjectIDC(table, none, rows.data(), rows.size(), &handle));
    }
    EXPECT_EQ(0U, velt::findSession(0)->deviceError);
}

TEST_F(IdcWriting, TheCoreReloadsTheObjectsAfterACertificateWasWritten)
{
    const Bytes encoded = Certificate{}.encode();
    std::vector<Attribute> attributes{classIs(1), onToken(1), id(0x88), der(encoded)};
    auto rows = asTemplate(attributes);
    expectCertificateWritten(2, gzipMember(encoded));
    expectAliases();
    expectNoCertificate(1);
    expectNoKey(1);
    expectCertificate(2, gzipMember(encoded));
    expectNoKey(2);
    EXPECT_EQ(CKR_OK, VELT_CreateObject(session, rows.data(), rows.size(), &handle));
    EXPECT_EQ(4U, handle);
    EXPECT_EQ(1U, ulObjCount);
    EXPECT_EQ(4U, velt::entryOf(4)->handle);
}

} // namespace
