// Writing to the ID card: chunks, labels, certificates and new key pairs.
#include "tests/support/idc_certificates.h"
#include "tests/support/idc_fixture.h"

#include <algorithm>
#include <cstring>

using namespace velt_test;

namespace {

// A template attribute whose value lives in the object, in memory of exactly its size.
struct Attribute {
    CK_ATTRIBUTE_TYPE type;
    Bytes content;
};

class IdcWriting : public IdcTest {
protected:
    static Bytes number(std::uint64_t value)
    {
        Bytes bytes(sizeof value);
        std::memcpy(bytes.data(), &value, sizeof value);
        return bytes;
    }

    static Attribute classIs(std::uint64_t objClass) { return {CKA_CLASS, number(objClass)}; }
    static Attribute onToken(std::uint8_t flag) { return {CKA_TOKEN, {flag}}; }
    static Attribute id(std::uint8_t keyId) { return {CKA_ID, {keyId}}; }
    static Attribute der(const Bytes& content) { return {CKA_VALUE, content}; }

    static std::vector<CK_ATTRIBUTE> asTemplate(std::vector<Attribute>& attributes)
    {
        std::vector<CK_ATTRIBUTE> rows;
        for (Attribute& attribute : attributes) {
            attribute.content.shrink_to_fit();
            rows.push_back({attribute.type, attribute.content.data(), attribute.content.size()});
        }
        return rows;
    }

    CK_RV create(std::vector<CK_ATTRIBUTE> rows)
    {
        handle = 4711;
        return fCreateObjectIDC(table, session, rows.data(), rows.size(), &handle);
    }
    CK_RV create(std::vector<Attribute> attributes)
    {
        const auto rows = asTemplate(attributes);
        handle = 4711;
        return create(rows);
    }
    CK_RV createCertificate(std::uint8_t keyId, const Bytes& content)
    {
        return create(std::vector{classIs(CKO_CERTIFICATE), onToken(1), der(content), id(keyId)});
    }

    CK_RV generate(std::vector<Attribute> publicKey, std::vector<Attribute> privateKey,
                   CK_MECHANISM* mechanism = nullptr)
    {
        auto publicRows = asTemplate(publicKey);
        auto privateRows = asTemplate(privateKey);
        CK_OBJECT_HANDLE publicHandle = 4711;
        CK_OBJECT_HANDLE privateHandle = 4712;
        const CK_RV result = fGenerateKeyPairIDC(table, session, mechanism, publicRows.data(),
                                                 publicRows.size(), privateRows.data(),
                                                 privateRows.size(), &publicHandle, &privateHandle);
        EXPECT_EQ(4711U, publicHandle); // never told
        EXPECT_EQ(4712U, privateHandle);
        return result;
    }

    // UPDATE BINARY of `count` bytes, starting at `start` of what is written from `offset` on.
    static Bytes update(const Bytes& all, std::size_t offset, std::size_t start, std::size_t count)
    {
        return hex("00 D6") + bigEndian(offset + start) +
               Bytes{static_cast<std::uint8_t>(count & 0xFF)} + slice(all, start, count);
    }

    // 255 bytes a chunk as long as the whole length reaches the end of the chunk in the file; the
    // rest in one.
    static std::vector<std::size_t> chunkSizes(std::size_t offset, std::size_t length)
    {
        const std::size_t full = length < offset ? 0 : (length - offset) / 255;
        std::vector<std::size_t> sizes(full, 255);
        if (length > full * 255) {
            sizes.push_back(length - full * 255);
        }
        return sizes;
    }

    void expectWritten(const Bytes& all, std::size_t offset)
    {
        std::size_t start = 0;
        for (const std::size_t count : chunkSizes(offset, all.size())) {
            expect(update(all, offset, start, count), hex(OK));
            start += count;
        }
    }

    void expectLabelWritten(std::size_t keyPair)
    {
        expectCertificateFile(keyPair);
        expect(CLEAR_LENGTH, OK);
        expect(hex("00 D6 00 02 16") + text(keyPair == 1 ? ALIAS_1 : ALIAS_2), hex(OK));
    }

    void setLabels()
    {
        expectAliases();
        ASSERT_EQ(0U, VELT_SetAliasesIDC(session));
    }

    void expectCertificateWritten(std::size_t keyPair, const Bytes& member)
    {
        expectCertificateFile(keyPair);
        expect(hex("00 D6 00 00 02") + bigEndian(member.size()), hex(OK));
        expectWritten(member, 2);
    }

    // Content of which gzip makes exactly `size` bytes.
    static Bytes contentCompressingTo(std::size_t size)
    {
        const Bytes noise = pattern(size);
        for (std::size_t count = size < 64 ? 0 : size - 64; count <= size; ++count) {
            const Bytes content = slice(noise, 0, count);
            if (gzipMember(content).size() == size) {
                return content;
            }
        }
        throw std::logic_error("no content gives this size");
    }

    CK_OBJECT_HANDLE handle = 0;
};

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

// --- key pairs ---

TEST_F(IdcWriting, ANewKeyPairIsLabelledAndLoaded)
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

TEST_F(IdcWriting, OneTemplateWithAnIdIsEnoughAndTheMechanismMayBeLeftOut)
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

TEST_F(IdcWriting, AnotherMechanismGeneratesNothing)
{
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, CKM_VELT_GOST_KEY_PAIR_GEN, ~0UL}) {
        mark.reset();
        CK_MECHANISM mechanism{type, nullptr, 0};
        EXPECT_EQ(CKR_MECHANISM_INVALID, generate({id(0x87)}, {id(0x88)}, &mechanism));
        EXPECT_MESSAGES(mark, numbered("IDCard GenerateKeyPair unknown mechanism ", type));
    }
}

TEST_F(IdcWriting, IdsThatDifferGenerateNothing)
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

TEST_F(IdcWriting, WithoutAKnownIdNothingIsGenerated)
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

TEST_F(IdcWriting, TheCoreDoesNotGenerateKeyPairs)
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
