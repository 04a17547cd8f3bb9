// Loading the ID card's objects, and its labels.
#include "tests/support/idc_objects.h"

#include <algorithm>

using namespace velt_test;

namespace {

constexpr const char* NOT_GZIP = "Z_DATA_ERROR The deflate data was invalid or incomplete.";
constexpr const char* CUT_GZIP = "Z_BUF_ERROR Ran out of output buffer for writing compressed "
                                 "bytes.";

Bytes aliasBytes(std::string_view alias)
{
    Bytes bytes = text(alias);
    bytes.resize(50);
    return bytes;
}

Bytes aliasBytes(const std::array<std::uint8_t, IDC_ALIAS_SIZE>& alias)
{
    return {alias.begin(), alias.end()};
}

TEST_F(IdcObjects, AnEmptyCardLoadsNothing)
{
    expect("00 A4 00 0C 02 3F 00", OK);
    expect("00 CA DF 01 09", "01 02 03 04 05 06 07 08 09 90 00", 11);
    for (const std::string_view keyPair : {"1", "2"}) {
        const bool first = keyPair == "1";
        expect("00 A4 00 0C 02 3F 00", OK);
        expect("00 A4 01 0C 02 08 01", OK);
        expect(first ? "00 A4 02 0C 02 01 01" : "00 A4 02 0C 02 01 02", OK);
        expect("00 B0 00 00 02", "00 00 90 00", 4);
        expect("00 A4 00 0C 02 3F 00", OK);
        expect("00 A4 01 0C 02 01 01", OK);
        expect(first ? "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 81 00"
                     : "00 CB 3F FF 0B 4D 09 FF A0 08 05 7F 49 02 81 00",
               "61 02");
        expect("00 C0 00 00 02", "6A 88 90 00", 4);
    }
    EXPECT_EQ(0U, load());
    expectMade({});
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, AFullCardHasSixObjects)
{
    for (const std::size_t modulusSize : {128U, 256U}) {
        SCOPED_TRACE(modulusSize);
        const Certificate first{.serial = der(0x02, hex("11 22")), .notBefore = "250131120000Z"};
        const Certificate second{.serial = der(0x02, hex("33")),
                                 .subject = sixAttributeName("Second")};
        const Bytes firstEncoded = first.encode(Bytes{0} + pattern(700));
        const Bytes secondEncoded = second.encode();
        const Bytes firstModulus = pattern(modulusSize, 2);
        const Bytes secondModulus = pattern(modulusSize, 3);
        expectAliases();
        expectCertificate(1, gzipMember(firstEncoded));
        expectKey(1, firstModulus);
        expectCertificate(2, gzipMember(secondEncoded));
        expectKey(2, secondModulus);
        mark.reset();
        EXPECT_EQ(0U, load());
        EXPECT_MESSAGES(mark);
        expectMade({0, 1, 2, 3, 4, 5});
        for (std::size_t i = 0; i < 6; ++i) {
            expectCommonFields(i);
        }
        expectCertificateBlock(certificate(0), firstEncoded, first);
        expectPublicKeyBlock(publicKey(1), firstModulus);
        expectPrivateKeyBlock(privateKey(2));
        expectCertificateBlock(certificate(3), secondEncoded, second);
        expectPublicKeyBlock(publicKey(4), secondModulus);
        expectPrivateKeyBlock(privateKey(5));
    }
}

TEST_F(IdcObjects, HandlesDoNotDependOnWhatIsThere)
{
    expectAliases();
    expectNoCertificate(1);
    expectNoKey(1);
    expectCertificate(2, gzipMember(Certificate{}.encode()));
    expectKey(2, pattern(256));
    EXPECT_EQ(0U, load());
    expectMade({3, 4, 5}); // three objects, handles 4 to 6
    expectCommonFields(3);
    expectCommonFields(4);
    expectCommonFields(5);
}

TEST_F(IdcObjects, AKeyPairNeedsNoCertificateNorACertificateAKey)
{
    expectAliases();
    expectNoCertificate(1);
    expectKey(1, pattern(128));
    expectCertificate(2, gzipMember(Certificate{}.encode()));
    expectNoKey(2);
    EXPECT_EQ(0U, load());
    expectMade({1, 2, 3});
}

TEST_F(IdcObjects, DatesKeepTheirOddPlaces)
{
    loadFirstCertificate(gzipMember(
        Certificate{.notBefore = "250131120000Z", .notAfter = "290630235959Z"}.encode()));
    const CertAttr& block = certificate(0);
    EXPECT_EQ(text("2125013") + Bytes{0},
              Bytes(std::begin(block.startDate), std::end(block.startDate)));
    EXPECT_EQ(text("2029063") + Bytes{0},
              Bytes(std::begin(block.endDate), std::end(block.endDate)));
}

TEST_F(IdcObjects, ACertificateIsReadInBlocksBehindItsLength)
{
    const Bytes encoded = Certificate{}.encode();
    const Bytes content = gzipMemberOf(encoded, 0x123);
    expectAliases();
    expectCertificateFile(1);
    expect("00 B0 00 00 02", "01 23 90 00", 4);
    expect(hex("00 B0 00 02 00"), slice(content, 0, 0x100) + hex(OK), 258);
    expect(hex("00 B0 01 02 23"), slice(content, 0x100, 0x23) + hex(OK), 0x25);
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({0});
    expectField(encoded, certificate(0).value, certificate(0).valueLen);
}

TEST_F(IdcObjects, AContentOfEveryLengthThatFitsIsExpanded)
{
    const Bytes encoded = hex("30 03 02 01 05");
    for (const std::size_t length :
         {28U, 255U, 256U, 257U, 511U, 512U, 513U, 3840U, 3841U, 4095U, 4096U}) {
        SCOPED_TRACE(length);
        loadFirstCertificate(gzipMemberOf(encoded, length));
        expectMade({0});
        expectField(encoded, certificate(0).value, certificate(0).valueLen);
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, AContentOfOneByteIsNoCertificate)
{
    loadFirstCertificate(hex("1F"));
    expectMade({});
    EXPECT_MESSAGES(mark, CUT_GZIP);
}

TEST_F(IdcObjects, AContentLongerThanTheBufferIsReadToItsEndButNotExpanded)
{
    // The first of them would expand from what the buffer holds.
    const Bytes longest = gzipMemberOf(hex("30 03 02 01 05"), 4096);
    for (const std::size_t length : {4097U, 4352U, 4353U, 65280U, 65535U}) {
        SCOPED_TRACE(length);
        loadFirstCertificate(longest + Bytes(length - longest.size()));
        expectMade({});
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, OfTheLongestContentOnlyTheBlocksThatTheBufferHoldsAreRead)
{
    expectAliases();
    expectCertificateFile(1);
    expectLength(0xFFFF);
    const std::string block(256 * 2, 'F');
    for (unsigned i = 0; i < 16; ++i) {
        expect(Bytes{0x00, 0xB0, static_cast<std::uint8_t>(i), 0x02, 0x00}, hex(block) + hex(OK),
               258);
    }
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({});
}

TEST_F(IdcObjects, ACertificateUpToTheSizeOfItsBlockIsKept)
{
    const Bytes largest = Certificate{}.encodeTo(4096);
    loadFirstCertificate(gzipMember(largest));
    expectMade({0});
    expectCertificateBlock(certificate(0), largest, Certificate{});
    EXPECT_MESSAGES(mark);

    loadFirstCertificate(gzipMember(Certificate{}.encodeTo(4097)));
    expectMade({});
    EXPECT_MESSAGES(mark, CUT_GZIP);
}

TEST_F(IdcObjects, AnEmptyCertificateIsAnObjectWithoutValue)
{
    loadFirstCertificate(gzipMember({}));
    expectMade({0});
    expectField({}, certificate(0).value, certificate(0).valueLen);
    EXPECT_EQ(0U, certificate(0).subjectLen);
    EXPECT_EQ(0U, certificate(0).issuerLen);
    EXPECT_EQ(0U, certificate(0).serialLen);
}

TEST_F(IdcObjects, WhatDoesNotExpandIsNoCertificateAndTheLoadGoesOn)
{
    Bytes damaged = gzipMember(Certificate{}.encode());
    damaged.back() ^= 1;
    for (const Bytes& content : {Certificate{}.encode(), text(ALIAS_1), damaged}) {
        mark.reset();
        loadFirstCertificate(content);
        expectMade({});
        EXPECT_MESSAGES(mark, NOT_GZIP);
    }
    Bytes cut = gzipMember(Certificate{}.encode());
    cut.pop_back();
    mark.reset();
    loadFirstCertificate(cut);
    expectMade({});
    EXPECT_MESSAGES(mark, CUT_GZIP);
}

TEST_F(IdcObjects, AShortBlockLeavesZerosBehindIt)
{
    const Bytes encoded = hex("30 03 02 01 05");
    const Bytes content = gzipMemberOf(encoded, 300); // bytes 12 to 270 are zero
    expectAliases();
    expectCertificateFile(1);
    expectLength(content.size());
    expect(hex("00 B0 00 02 00"), slice(content, 0, 100) + hex(OK), 258);
    expect(hex("00 B0 01 02 2C"), slice(content, 256, 44) + hex(OK), 46);
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({0});
}

TEST_F(IdcObjects, AnEmptyBlockStoresNothing)
{
    const Bytes content = gzipMember(Certificate{}.encode());
    expectAliases();
    expectCertificateFile(1);
    expectLength(content.size());
    ASSERT_LT(content.size(), 256U);
    expect(readCommand(0, content.size()), hex(OK), content.size() + 2);
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({});
    EXPECT_MESSAGES(mark, NOT_GZIP);
}

TEST_F(IdcObjects, AChainedBlockIsStoredWholeAndTheNextOverwritesItsEnd)
{
    const Bytes encoded = Certificate{}.encode(Bytes{0} + pattern(600));
    const Bytes content = gzipMember(encoded);
    ASSERT_GT(content.size(), 512U);
    expectAliases();
    expectCertificateFile(1);
    expectLength(content.size());
    // 256 bytes and 40 that belong elsewhere
    expect(readCommand(0, 256), slice(content, 0, 256) + hex("61 28"), 258);
    expectGetResponse(0x28, Bytes(40, 0xEE) + hex(OK));
    for (std::size_t done = 256; done < content.size(); done += 256) {
        const std::size_t piece = std::min<std::size_t>(content.size() - done, 256);
        expect(readCommand(done / 256, piece), slice(content, done, piece) + hex(OK), piece + 2);
    }
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({0});
    expectField(encoded, certificate(0).value, certificate(0).valueLen);
}

TEST_F(IdcObjects, AChainedBlockIsCutAtTheEndOfTheBuffer)
{
    const Bytes content = gzipMemberOf(hex("30 03 02 01 05"), 4096);
    expectAliases();
    expectCertificateFile(1);
    expectLength(content.size());
    for (std::size_t i = 0; i < 15; ++i) {
        expect(readCommand(i, 256), slice(content, i * 256, 256) + hex(OK), 258);
    }
    expect(readCommand(15, 256), slice(content, 3840, 256) + hex("61 00"), 258);
    expectGetResponse(0, Bytes(250, 0xEE) + hex(OK));
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({0});
}

TEST_F(IdcObjects, AShortLengthReplyCountsWithWhatTheReplyBufferHolds)
{
    // One byte of data: the second byte of the length is the status byte 90.
    const Bytes content = gzipMemberOf(Certificate{}.encode(), 0x190);
    expectAliases();
    expectCertificateFile(1);
    expect(READ_LENGTH, "01 90 00", 4);
    expectContent(content);
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({0});
    expectAllExchanged();

    // No data: the status 90 00 is the length, more than the buffer holds.
    expectAliases();
    expectCertificateFile(1);
    expect(READ_LENGTH, OK, 4);
    expectContent(Bytes(0x9000));
    expectRestEmpty();
    EXPECT_EQ(0U, load());
    expectMade({});
}

TEST_F(IdcObjects, ALengthThatCannotBeReadIsNoCertificate)
{
    for (const std::string_view status : {"6A 82", "69 82", "69 86", "6B 00"}) {
        expectAliases();
        expectCertificateFile(1);
        expect(READ_LENGTH, status, 4);
        expectKey(1, pattern(128));
        expectCertificateFile(2);
        expectLost(READ_LENGTH, SCARD_E_COMM_DATA_LOST, 4);
        expectNoKey(2);
        EXPECT_EQ(0U, load());
        expectMade({1, 2});
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, AModulusIsWhatFollowsFifteenBytes)
{
    for (const std::size_t size : {0U, 1U, 64U, 128U, 191U, 241U, 242U, 255U, 256U}) {
        SCOPED_TRACE(size); // a reply of 273 bytes gives 2048 bits
        const Bytes modulus = pattern(size);
        expectAliases();
        expectNoCertificate(1);
        expectKey(1, modulus);
        expectNoCertificate(2);
        expectKey(2, modulus);
        EXPECT_EQ(0U, load());
        expectMade({1, 2, 4, 5});
        expectPublicKeyBlock(publicKey(1), modulus);
        expectPublicKeyBlock(publicKey(4), modulus);
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, AKeyReplyOfAnotherShapeIsNoKey)
{
    // Two data bytes are the card's way to say so; fewer than the fifteen of the header, or more
    // than 256 of modulus, are no key either.
    for (const std::size_t dataSize : {0U, 1U, 2U, 3U, 4U, 13U, 14U, 272U, 300U, 510U}) {
        SCOPED_TRACE(dataSize);
        expectAliases();
        for (const std::size_t keyPair : {1U, 2U}) {
            expectNoCertificate(keyPair);
            expectKeyDirectory();
            expectFetched(getPublicKey(keyPair), pattern(dataSize));
        }
        EXPECT_EQ(0U, load());
        expectMade({});
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, AKeyThatCannotBeReadIsToldAndLeftOut)
{
    expectAliases();
    expectNoCertificate(1);
    expectKeyDirectory();
    expect(getPublicKey(1), hex("6A 88"));
    expectCertificate(2, gzipMember(Certificate{}.encode()));
    expectKeyDirectory();
    expectLost(getPublicKey(2), SCARD_W_REMOVED_CARD);
    EXPECT_EQ(0U, load());
    expectMade({3});
    EXPECT_MESSAGES(
        mark, numbered("IDCard ObjectsInit CKA_MODULUS read error ", 0x886A),
        numbered("IDCard ObjectsInit CKA_MODULUS read error ", pcscCode(SCARD_W_REMOVED_CARD)));
}

TEST_F(IdcObjects, AKeyIsAskedForWithTheRoomOfTheReplyBefore)
{
    expectAliases();
    expectNoCertificate(1);
    expect(SELECT_MF, OK);
    expect(SELECT_DF_0101, "61 05");
    expectGetResponse(5, hex("6F 03 81 01 00 90 00"));
    expect(getPublicKey(1), hex("00 00 90 00"), 7);
    expectNoCertificate(2);
    expectNoKey(2);
    EXPECT_EQ(0U, load());
    expectMade({});
}

TEST_F(IdcObjects, RefusedSelectionsBeforeAKeyDecideNothing)
{
    expectAliases();
    expectNoCertificate(1);
    expect(SELECT_MF, "6A 82");
    expect(SELECT_DF_0101, "6A 82");
    expectFetched(getPublicKey(1), publicKeyHeader() + pattern(128));
    expectNoCertificate(2);
    expectLost(SELECT_MF, SCARD_E_COMM_DATA_LOST);
    expect(SELECT_DF_0101, "69 82");
    expectFetched(getPublicKey(2), publicKeyHeader() + pattern(128));
    EXPECT_EQ(0U, load());
    expectMade({1, 2, 4, 5});
}

TEST_F(IdcObjects, ALoadReplacesWhatWasLoadedBefore)
{
    expectAliases();
    expectCertificate(1, gzipMember(Certificate{}.encode()));
    expectKey(1, pattern(128));
    expectNoCertificate(2);
    expectNoKey(2);
    EXPECT_EQ(0U, load());
    expectMade({0, 1, 2});
    expectEmptyLoad();
    EXPECT_EQ(0U, load());
    expectMade({});
}

TEST_F(IdcObjects, TheLoadRunsThroughTheGateOfTheTable)
{
    oiFlags = RELOAD_OBJECTS;
    expectEmptyLoad();
    EXPECT_EQ(0U, VELTObjectsInit(session, TOKEN_IDC));
    EXPECT_EQ(0U, oiFlags);
    EXPECT_EQ(0U, VELTObjectsInit(session, TOKEN_IDC)); // now current: nothing is sent
    EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true",
                    "VELTObjectsInit complete", "VELTObjectsInit CKR_OK", "VELTObjectsInit",
                    "VELTObjectsInit CKR_OK");
}

TEST_F(IdcObjects, LabelsCarryTheCardsNumberInCapitals)
{
    Alias1.fill('x'); // nothing of what was there stays
    Alias2.fill('x');
    expectAliases();
    EXPECT_EQ(0U, VELT_SetAliasesIDC(session));
    EXPECT_EQ(aliasBytes("RSA1010203040506070809"), aliasBytes(Alias1));
    EXPECT_EQ(aliasBytes("RSA2010203040506070809"), aliasBytes(Alias2));

    expect(SELECT_MF, OK);
    expect(GET_DATA_DF01, "AB CD EF 00 0F F0 1A A1 FF 90 00", 11);
    EXPECT_EQ(0U, VELT_SetAliasesIDC(session));
    EXPECT_EQ(aliasBytes("RSA1ABCDEF000FF01AA1FF"), aliasBytes(Alias1));
    EXPECT_EQ(aliasBytes("RSA2ABCDEF000FF01AA1FF"), aliasBytes(Alias2));
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcObjects, AShortNumberIsFilledFromTheReplyBuffer)
{
    expect(SELECT_MF, OK);
    expect(GET_DATA_DF01, "11 22 33 90 00", 11);
    EXPECT_EQ(0U, VELT_SetAliasesIDC(session));
    EXPECT_EQ(aliasBytes("RSA11122339000A5A5A5A5"), aliasBytes(Alias1));
    EXPECT_EQ(aliasBytes("RSA21122339000A5A5A5A5"), aliasBytes(Alias2));
}

TEST_F(IdcObjects, LabelsStayWhenTheyCannotBeRead)
{
    Alias1.fill('x');
    Alias2.fill('y');
    expect(SELECT_MF, "6A 82");
    EXPECT_EQ(1U, VELT_SetAliasesIDC(session));
    expectLost(SELECT_MF, SCARD_W_REMOVED_CARD);
    EXPECT_EQ(1U, VELT_SetAliasesIDC(session));
    expect(SELECT_MF, OK);
    expect(GET_DATA_DF01, "6A 88", 11);
    EXPECT_EQ(2U, VELT_SetAliasesIDC(session));
    expect(SELECT_MF, OK);
    expectLost(GET_DATA_DF01, SCARD_W_REMOVED_CARD, 11);
    EXPECT_EQ(2U, VELT_SetAliasesIDC(session));
    EXPECT_EQ(Bytes(50, 'x'), aliasBytes(Alias1));
    EXPECT_EQ(Bytes(50, 'y'), aliasBytes(Alias2));
    EXPECT_MESSAGES(mark);
}

} // namespace
