// The eToken 72K's certificates, read on first use in pieces of 32 bytes.
#include "tests/support/et72k_fixture.h"

using namespace velt_test;

namespace {

const Bytes NAME = hex("31 32");

constexpr CK_OBJECT_HANDLE CERTIFICATE_ENTRY = 1;
constexpr CK_OBJECT_HANDLE PUBLIC_KEY = 2;
constexpr CK_OBJECT_HANDLE PRIVATE_KEY = 3;

const std::string DATA_ERROR = "Z_DATA_ERROR The deflate data was invalid or incomplete.";
const std::string ROOM_ERROR = "Z_BUF_ERROR Ran out of output buffer for writing compressed bytes.";

// zlib's code, behind the message that is passed when a certificate does not expand.
std::string notExpanded(std::int64_t code)
{
    return numbered("EToken72K GetCertificate cert ungzip error ", std::uint64_t(code));
}

// Encoded data that holds nothing which is taken from a certificate, stored in `size` bytes.
Bytes emptyOf(std::size_t size)
{
    for (std::size_t count = 0; count < size; ++count) {
        const Bytes content = der(0x30, der(0x04, Bytes{0x00} + pattern(count)));
        if (gzipMember(content).size() == size) {
            return content;
        }
    }
    throw std::logic_error("no content gives this size");
}

class Et72kCertificates : public Et72kTest {
protected:
    void SetUp() override
    {
        Et72kTest::SetUp();
        reload();
    }
    void reload() { load({{NAME, {CERTIFICATE, RSA_PAIR}}}); }

    void expectStored(const Bytes& stored) { expectSteps(readingET72K(NAME, stored)); }
    void expectSelectedOf(std::size_t size)
    {
        expect("80 12 43 00 04 00 02 31 32", OK, 4);
        expect(hex("80 12 41 00 02 00 00"), bigEndian(size) + hex(OK), 4);
    }
    void expectRead(const Bytes& encoded)
    {
        const CertAttr& read = certificate(CERTIFICATE_ENTRY);
        EXPECT_EQ(encoded.size(), read.valueLen);
        EXPECT_EQ(padded(encoded, 4096), field(read.value));
    }
    void expectNothingRead()
    {
        EXPECT_EQ(
            0, std::memcmp(&certAttrTempl, &certificate(CERTIFICATE_ENTRY), sizeof certAttrTempl));
    }
};

TEST_F(Et72kCertificates, ACertificateIsExpandedAndTakenApart)
{
    Certificate source;
    source.notBefore = "250115093000Z";
    const Bytes encoded = source.encode();
    const Bytes stored = gzipMember(encoded);
    expect("80 12 43 00 04 00 02 31 32", OK, 4);
    expect(hex("80 12 41 00 02 00 00"), bigEndian(stored.size()) + hex(OK), 4);
    for (std::size_t done = 0; done < stored.size(); done += 32) {
        expect(hex("80 12 41 00 04 00 20") + bigEndian(done),
               padded(slice(stored, done, std::min<std::size_t>(stored.size() - done, 32)), 32) +
                   hex(OK),
               34);
    }
    EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
    EXPECT_MESSAGES(mark, "EToken72K GetCertificate CKR_OK");
    expectRead(encoded);
    const CertAttr& read = certificate(CERTIFICATE_ENTRY);
    EXPECT_EQ(source.issuer, Bytes(read.issuer, read.issuer + read.issuerLen));
    EXPECT_EQ(source.subject, Bytes(read.subject, read.subject + read.subjectLen));
    EXPECT_EQ(source.serial, Bytes(read.serial, read.serial + read.serialLen));
    EXPECT_EQ(text("2525011") + Bytes{0}, field(read.startDate));
    EXPECT_EQ(text("2029063") + Bytes{0}, field(read.endDate));
}

TEST_F(Et72kCertificates, ContainersOfEverySizeAreReadInPiecesOf32)
{
    for (const std::size_t size : {31U, 32U, 33U, 63U, 64U, 65U, 70U, 96U}) {
        SCOPED_TRACE(size);
        reload();
        const Bytes content = emptyOf(size);
        expectStored(gzipMember(content));
        EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
        expectRead(content);
        expectAllExchanged();
    }
    const Bytes encoded = Certificate{}.encode();
    for (const std::size_t size : {2048U, 2049U, 4095U, 4096U}) {
        SCOPED_TRACE(size);
        reload();
        expectStored(gzipMemberOf(encoded, size));
        EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
        EXPECT_MESSAGES(mark, "EToken72K GetCertificate CKR_OK");
        expectRead(encoded);
        expectAllExchanged();
    }
}

TEST_F(Et72kCertificates, ASizeOf70BytesIsThreePieces)
{
    const Bytes stored = gzipMember(emptyOf(70));
    expectSelectedOf(70);
    expect("80 12 41 00 04 00 20 00 00", toHex(slice(stored, 0, 32)) + "90 00", 34);
    expect("80 12 41 00 04 00 20 00 20", toHex(slice(stored, 32, 32)) + "90 00", 34);
    expect("80 12 41 00 04 00 20 00 40", toHex(slice(stored, 64, 6)) + "90 00", 34);
    EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
    expectRead(emptyOf(70));
}

TEST_F(Et72kCertificates, OnlyTheBytesOfTheSizeAreExpanded)
{
    // 96 bytes come, and they are a whole container; the size says that 70 are.
    const Bytes stored = gzipMember(emptyOf(96));
    expectSelectedOf(70);
    for (const std::size_t offset : {0U, 32U, 64U}) {
        expect(readPieceET72K(offset), slice(stored, offset, 32) + hex(OK), 34);
    }
    EXPECT_EQ(2U, getCertificate(CERTIFICATE_ENTRY));
    EXPECT_MESSAGES(mark, ROOM_ERROR, notExpanded(-5));
    expectNothingRead();
}

TEST_F(Et72kCertificates, OfEachReply32BytesAreTakenWhateverItsLength)
{
    // A short piece: its status stands for the length of an extra field, and what stands behind it
    // in the buffer is the start of that field.
    const Bytes encoded = Certificate{}.encode();
    const Bytes stored = gzipMember(encoded, 0x90);
    ASSERT_EQ(hex("90 00"), slice(stored, 10, 2));
    expectSelectedOf(stored.size());
    expect(readPieceET72K(0), slice(stored, 0, 10) + hex(OK), 34);
    for (std::size_t done = 32; done < stored.size(); done += 32) {
        expect(readPieceET72K(done),
               slice(stored, done, std::min<std::size_t>(stored.size() - done, 32)) + hex(OK), 34);
    }
    EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
    expectRead(encoded);
    expectAllExchanged();

    // A long piece does not reach into the next, nor behind the buffer.
    reload();
    const Bytes full = gzipMemberOf(encoded, 4096);
    expectSelectedOf(full.size());
    for (std::size_t done = 0; done < full.size(); done += 32) {
        expect(readPieceET72K(done), hex("61 28"), 34);
        expectGetResponse(0x28, slice(full, done, 32) + Bytes(8, 0xEE) + hex(OK));
    }
    EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
    expectRead(encoded);
}

TEST_F(Et72kCertificates, AContainerBeyondTheBufferIsReadToItsEndAndRefused)
{
    const Bytes stored = gzipMemberOf(Certificate{}.encode(), 4096);
    for (const std::size_t size : {4097U, 8192U, 32768U, 65535U}) {
        SCOPED_TRACE(size);
        mark.reset();
        expectSelectedOf(size);
        for (std::size_t done = 0; done < 4096; done += 32) {
            expect(readPieceET72K(done), slice(stored, done, 32) + hex(OK), 34);
        }
        EXPECT_EQ(2U, getCertificate(CERTIFICATE_ENTRY));
        EXPECT_MESSAGES(mark, notExpanded(-5)); // nothing is expanded
        expectNothingRead();
        expectAllExchanged();
    }
}

TEST_F(Et72kCertificates, ASizeThatIsMissingIsReadFromTheStatus)
{
    expect("80 12 43 00 04 00 02 31 32", OK, 4);
    expect("80 12 41 00 02 00 00", OK, 4); // 0x9000 bytes
    for (std::size_t done = 0; done < 4096; done += 32) {
        expect(readPieceET72K(done), Bytes(32) + hex(OK), 34);
    }
    EXPECT_EQ(2U, getCertificate(CERTIFICATE_ENTRY));
    EXPECT_MESSAGES(mark, notExpanded(-5));
}

TEST_F(Et72kCertificates, WhatDoesNotExpandIsRefused)
{
    const Bytes encoded = Certificate{}.encode();
    const Bytes stored = gzipMember(encoded);
    struct Case {
        Bytes stored;
        std::string reason;
        std::int64_t code;
    };
    const std::vector<Case> cases{
        {{}, ROOM_ERROR, -5},
        {hex("1F"), ROOM_ERROR, -5},
        {encoded, DATA_ERROR, -3},
        {pattern(31), DATA_ERROR, -3},
        {pattern(300), DATA_ERROR, -3},
        {slice(stored, 0, stored.size() - 1), ROOM_ERROR, -5},
        {gzipMember(Certificate{}.encode(Bytes(4096))), ROOM_ERROR, -5},
    };
    for (const Case& bad : cases) {
        SCOPED_TRACE(bad.stored.size());
        mark.reset();
        expectStored(bad.stored);
        EXPECT_EQ(2U, getCertificate(CERTIFICATE_ENTRY));
        EXPECT_MESSAGES(mark, bad.reason, notExpanded(bad.code));
        expectNothingRead();
        expectAllExchanged();
    }
}

TEST_F(Et72kCertificates, TheLargestCertificateIsRead)
{
    const Bytes largest = Certificate{}.encodeTo(4096);
    expectStored(gzipMember(largest));
    EXPECT_EQ(CKR_OK, getCertificate(CERTIFICATE_ENTRY));
    expectRead(largest);
}

TEST_F(Et72kCertificates, AFailureAtEachExchange)
{
    failAtEach(
        readingET72K(NAME, gzipMember(emptyOf(70))), 2, [this] { reload(); },
        [this] {
            const CK_RV result = getCertificate(CERTIFICATE_ENTRY);
            expectNothingRead();
            return result;
        });
}

TEST_F(Et72kCertificates, OfOtherObjectsACertificateIsReadAndDropped)
{
    const Bytes encoded = Certificate{}.encode();
    PubKeyAttr publicBlock = publicKey(PUBLIC_KEY);
    PrivKeyAttr privateBlock = *velt::privateKeyOf(velt::entryOf(PRIVATE_KEY));
    for (const CK_OBJECT_HANDLE handle : {PUBLIC_KEY, PRIVATE_KEY}) {
        mark.reset();
        expectStored(gzipMember(encoded));
        EXPECT_EQ(CKR_OK, getCertificate(handle));
        EXPECT_MESSAGES(mark, "EToken72K GetCertificate CKR_OK");
        expectNothingRead();
        expectBlock(1, &publicBlock, sizeof publicBlock);
        expectBlock(2, &privateBlock, sizeof privateBlock);
        expectAllExchanged();
    }
    failAtEach(
        readingET72K(NAME, gzipMember(emptyOf(33))), 2, [] {},
        [this] { return getCertificate(PRIVATE_KEY); });
}

TEST_F(Et72kCertificates, WhereThereIsNoEntryNothingIsAsked)
{
    for (const CK_OBJECT_HANDLE handle : {0UL, 4UL, 5UL, ~0UL}) {
        EXPECT_EQ(CKR_OK, getCertificate(handle)) << handle;
    }
    velt::rebuildObjects(0);
    EXPECT_EQ(CKR_OK, getCertificate(1));
    EXPECT_MESSAGES(mark);
}

} // namespace
