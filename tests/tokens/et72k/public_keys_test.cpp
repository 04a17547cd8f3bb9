// The eToken 72K's public keys, read on first use.
#include "tests/support/et72k_fixture.h"

using namespace velt_test;

namespace {

const Bytes RSA_NAME = hex("31 32");
const Bytes GOST_NAME = hex("41 42 43");

constexpr CK_OBJECT_HANDLE RSA_KEY = 1;
constexpr CK_OBJECT_HANDLE RSA_PRIVATE_KEY = 2;
constexpr CK_OBJECT_HANDLE GOST_KEY = 3;
constexpr CK_OBJECT_HANDLE CERTIFICATE_ENTRY = 4;
constexpr CK_OBJECT_HANDLE UNUSED = 5; // in the table, without an object

class Et72kPublicKeys : public Et72kTest {
protected:
    void SetUp() override
    {
        Et72kTest::SetUp();
        reload();
    }
    void reload() { load({{RSA_NAME, {RSA_PAIR}}, {GOST_NAME, {GOST_PUBLIC, CERTIFICATE}}}); }

    static Bytes modulus() { return field(publicKey(RSA_KEY).modulus); }
    static Bytes gostValue() { return field(publicKey(GOST_KEY).value); }

    static Bytes half(std::size_t number)
    {
        return hex(number == 1 ? "80 11 21 00 05 00 03 41 42 43" : "80 11 24 00 05 00 03 41 42 43");
    }
    // The reply buffer from position 34 to 63, which no half reaches.
    static Bytes standing() { return pattern(30, 9); }
    static void putStanding() { putOutput(34, standing()); }
    // What a read key has as its second half.
    static Bytes secondHalf() { return reversed(hex(OK) + standing()); }
};

// --- RSA ---

TEST_F(Et72kPublicKeys, AModulusOf2048BitsComesInEightPieces)
{
    const Bytes wanted = pattern(256);
    expect("80 12 47 00 06 00 00 00 02 31 32", "08 00 90 00", 8);
    for (std::uint8_t i = 0; i < 8; ++i) {
        expect(hex("80 12 47 01 06 00") + Bytes{std::uint8_t(i * 32)} + hex("00 02 31 32"),
               slice(wanted, i * 32U, 32) + hex(OK), 34);
    }
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK");
    EXPECT_EQ(2048U, publicKey(RSA_KEY).modulusBits);
    EXPECT_EQ(wanted, modulus());
    EXPECT_EQ(hex("01 00 01 00 00"), field(publicKey(RSA_KEY).publicExponent));
    EXPECT_EQ(3U, publicKey(RSA_KEY).publicExponentLen);
    EXPECT_EQ(0U, publicKey(RSA_KEY).valueLen);
}

TEST_F(Et72kPublicKeys, AModulusOf1024BitsComesInFourPieces)
{
    const Bytes wanted = pattern(128);
    expect("80 12 47 00 06 00 00 00 02 31 32", "04 00 90 00", 8);
    for (std::uint8_t i = 0; i < 4; ++i) {
        expect(hex("80 12 47 01 06 00") + Bytes{std::uint8_t(i * 32)} + hex("00 02 31 32"),
               slice(wanted, i * 32U, 32) + hex(OK), 34);
    }
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK");
    EXPECT_EQ(1024U, publicKey(RSA_KEY).modulusBits);
    EXPECT_EQ(wanted + Bytes(128), modulus());
}

TEST_F(Et72kPublicKeys, ASizeOfAnyBitsIsReadInWholeBytes)
{
    struct Case {
        std::size_t bits;
        std::size_t pieces;
    };
    for (const Case& size :
         {Case{0, 0}, Case{7, 0}, Case{8, 1}, Case{256, 1}, Case{263, 1}, Case{264, 2},
          Case{1023, 4}, Case{1031, 4}, Case{1032, 5}, Case{2047, 8}}) {
        SCOPED_TRACE(size.bits);
        reload();
        expectModulusSize(RSA_NAME, size.bits);
        const Bytes sent = pattern(size.pieces * 32);
        expectModulusPieces(RSA_NAME, sent);
        EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
        EXPECT_EQ(size.bits, publicKey(RSA_KEY).modulusBits);
        EXPECT_EQ(padded(sent, 256), modulus());
        expectAllExchanged();
    }
}

TEST_F(Et72kPublicKeys, ASizeOver2048BitsIsCut)
{
    for (const std::size_t bits : {2056U, 2304U, 4096U, 65535U}) {
        SCOPED_TRACE(bits);
        reload();
        expectModulusSize(RSA_NAME, bits);
        expectModulusPieces(RSA_NAME, pattern(256));
        EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
        EXPECT_EQ(2048U, publicKey(RSA_KEY).modulusBits);
        EXPECT_EQ(pattern(256), modulus());
        expectAllExchanged();
    }
}

TEST_F(Et72kPublicKeys, OnlyTheFirstTwoBytesOfASizeCount)
{
    expect(getModulusSize(RSA_NAME), hex("01 00 AA BB CC DD 90 00"), 8);
    expectModulusPieces(RSA_NAME, pattern(32));
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_EQ(256U, publicKey(RSA_KEY).modulusBits);

    reload();
    expect(getModulusSize(RSA_NAME), hex("01 90 00"), 8); // 0x0190 bits
    expectModulusPieces(RSA_NAME, pattern(64));
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_EQ(0x190U, publicKey(RSA_KEY).modulusBits);
    EXPECT_EQ(padded(pattern(64), 256), modulus());

    reload();
    expect(getModulusSize(RSA_NAME), hex("90 00"), 8); // 0x9000 bits
    expectModulusPieces(RSA_NAME, pattern(256));
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_EQ(2048U, publicKey(RSA_KEY).modulusBits);
}

TEST_F(Et72kPublicKeys, ShortPiecesLeaveZerosBehindThem)
{
    expectModulusSize(RSA_NAME, 1024);
    expect(getModulusPiece(RSA_NAME, 0), pattern(32, 1) + hex(OK), 34);
    expect(getModulusPiece(RSA_NAME, 32), pattern(5, 2) + hex(OK), 34);
    expect(getModulusPiece(RSA_NAME, 64), hex(OK), 34);
    expect(getModulusPiece(RSA_NAME, 96), pattern(32, 4) + hex(OK), 34);
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_EQ(1024U, publicKey(RSA_KEY).modulusBits);
    EXPECT_EQ(pattern(32, 1) + pattern(5, 2) + Bytes(27 + 32) + pattern(32, 4) + Bytes(128),
              modulus());
}

TEST_F(Et72kPublicKeys, LongPiecesAreKeptAsFarAsTheFieldGoes)
{
    const auto expectLongPiece = [this](std::size_t offset, const Bytes& piece) {
        expect(getModulusPiece(RSA_NAME, offset), Bytes{0x61, std::uint8_t(piece.size())}, 34);
        expectGetResponse(std::uint8_t(piece.size()), piece + hex(OK));
    };
    expectModulusSize(RSA_NAME, 512);
    expectLongPiece(0, pattern(40, 1));
    expectLongPiece(32, pattern(40, 2));
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_EQ(512U, publicKey(RSA_KEY).modulusBits);
    EXPECT_EQ(padded(slice(pattern(40, 1), 0, 32) + pattern(40, 2), 256), modulus());

    reload();
    expectModulusSize(RSA_NAME, 2048);
    expectModulusPieces(RSA_NAME, pattern(224));
    expectLongPiece(224, pattern(200, 3));
    EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
    EXPECT_EQ(pattern(224) + slice(pattern(200, 3), 0, 32), modulus());
    EXPECT_EQ(2048U, publicKey(RSA_KEY).modulusBits);
    EXPECT_EQ(hex("01 00 01 00 00"), field(publicKey(RSA_KEY).publicExponent));
}

TEST_F(Et72kPublicKeys, APieceTooLongForItsRoomIsAFailure)
{
    expectModulusSize(RSA_NAME, 1024);
    expect(getModulusPiece(RSA_NAME, 0), pattern(33) + hex(OK), 34);
    EXPECT_EQ(2U, getPublicKey(RSA_KEY));
    EXPECT_MESSAGES(mark, numbered("EToken72K GetPublicKey 2 APDU get RSA public key error ",
                                   pcscCode(SCARD_E_INSUFFICIENT_BUFFER)));
    EXPECT_EQ(Bytes(256), modulus());
}

TEST_F(Et72kPublicKeys, AFailureAtEachRsaExchangeLeavesWhatWasReadBefore)
{
    const Bytes wanted = pattern(256);
    std::vector<ExchangeStep> steps{{getModulusSize(RSA_NAME),
                                     hex("08 00 90 00"),
                                     8,
                                     {"EToken72K GetPublicKey 1 APDU get RSA public key error #"}}};
    for (std::size_t done = 0; done < 256; done += 32) {
        steps.push_back({getModulusPiece(RSA_NAME, done),
                         slice(wanted, done, 32) + hex(OK),
                         34,
                         {"EToken72K GetPublicKey 2 APDU get RSA public key error #"}});
    }
    std::size_t failures = 0;
    failAtEach(
        steps, 2, [this] { reload(); },
        [&] {
            const CK_RV result = getPublicKey(RSA_KEY);
            const std::size_t faulty = failures++ / 2;
            EXPECT_EQ(faulty == 0 ? 0U : 2048U, publicKey(RSA_KEY).modulusBits);
            EXPECT_EQ(padded(slice(wanted, 0, faulty < 2 ? 0 : 32 * (faulty - 1)), 256), modulus());
            return result;
        });
    EXPECT_EQ(18U, failures);
}

// --- GOST ---

TEST_F(Et72kPublicKeys, TheSecondGostHalfIsWhatStandsBehindTheReply)
{
    putStanding();
    expect(half(1), pattern(32, 1) + hex(OK), 34);
    expect(half(2), pattern(32, 2) + hex(OK), 34);
    EXPECT_EQ(CKR_OK, getPublicKey(GOST_KEY));
    EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK");
    EXPECT_EQ(64U, publicKey(GOST_KEY).valueLen);
    EXPECT_EQ(reversed(pattern(32, 1)) + secondHalf(), gostValue()); // not of the second reply
    EXPECT_EQ(0U, publicKey(GOST_KEY).modulusBits);
}

TEST_F(Et72kPublicKeys, GostHalvesAreTakenFromTheBufferAndCountedFromTheReplies)
{
    struct Case {
        std::size_t first;
        std::size_t second;
    };
    for (const Case& sizes : {Case{16, 32}, Case{32, 16}, Case{0, 0}, Case{31, 1}, Case{1, 32}}) {
        SCOPED_TRACE(testing::Message() << sizes.first << " and " << sizes.second);
        reload();
        const Bytes held = pattern(64, 7);
        putOutput(0, held);
        const Bytes first = pattern(sizes.first, 1) + hex(OK);
        const Bytes second = pattern(sizes.second, 2) + hex(OK);
        Bytes buffer = first + slice(held, first.size(), 64 - first.size());
        const Bytes wanted = reversed(slice(buffer, 0, 32));
        buffer = second + slice(buffer, second.size(), 64 - second.size());
        expect(half(1), first, 34);
        expect(half(2), second, 34);
        EXPECT_EQ(CKR_OK, getPublicKey(GOST_KEY));
        EXPECT_EQ(sizes.first + sizes.second, publicKey(GOST_KEY).valueLen);
        EXPECT_EQ(wanted + reversed(slice(buffer, 32, 32)), gostValue());
        expectAllExchanged();
    }
}

TEST_F(Et72kPublicKeys, GostHalvesAreAtMost32BytesEach)
{
    const Bytes first = pattern(40, 1);
    const Bytes second = pattern(70, 2);
    expect(half(1), hex("61 28"), 34);
    expectGetResponse(0x28, first + hex(OK));
    expect(half(2), hex("61 46"), 34);
    expectGetResponse(0x46, second + hex(OK));
    EXPECT_EQ(CKR_OK, getPublicKey(GOST_KEY));
    EXPECT_EQ(64U, publicKey(GOST_KEY).valueLen);
    EXPECT_EQ(reversed(slice(first, 0, 32)) + reversed(slice(second, 32, 32)), gostValue());

    reload();
    putStanding();
    expect(half(1), pattern(10, 1) + hex(OK), 34);
    expect(half(2), hex("61 28"), 34);
    expectGetResponse(0x28, first + hex(OK));
    EXPECT_EQ(CKR_OK, getPublicKey(GOST_KEY));
    EXPECT_EQ(42U, publicKey(GOST_KEY).valueLen);
}

TEST_F(Et72kPublicKeys, AFailureAtEachGostExchangeLeavesWhatWasReadBefore)
{
    std::size_t failures = 0;
    failAtEach(
        {{half(1),
          pattern(32) + hex(OK),
          34,
          {"EToken72K GetPublicKey 1 APDU get GOST public key error #"}},
         {half(2), {}, 34, {"EToken72K GetPublicKey 2 APDU get GOST public key error #"}}},
        2, [this] { reload(); },
        [&] {
            const CK_RV result = getPublicKey(GOST_KEY);
            const bool first = failures++ < 2;
            EXPECT_EQ(first ? 0U : 32U, publicKey(GOST_KEY).valueLen);
            EXPECT_EQ(first ? Bytes(64) : reversed(pattern(32)) + Bytes(32), gostValue());
            return result;
        });
    EXPECT_EQ(4U, failures);
}

// --- other objects ---

TEST_F(Et72kPublicKeys, OtherObjectsHaveNoPublicKeyToRead)
{
    for (const CK_OBJECT_HANDLE handle :
         {RSA_PRIVATE_KEY, CERTIFICATE_ENTRY, UNUSED, CK_OBJECT_HANDLE{0}, CK_OBJECT_HANDLE{7},
          ~CK_OBJECT_HANDLE{0}}) {
        mark.reset();
        EXPECT_EQ(CKR_OK, getPublicKey(handle)) << handle;
        EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK");
    }
    velt::rebuildObjects(0);
    mark.reset();
    EXPECT_EQ(CKR_OK, getPublicKey(1));
    EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK");
}

TEST_F(Et72kPublicKeys, AKeyOfAnotherTypeIsNotRead)
{
    for (const std::uint64_t type : {0x1UL, 0x84B5A002UL, 0xFFFFFFFF84B5A001UL}) {
        mark.reset();
        publicKey(RSA_KEY).keyType = type;
        EXPECT_EQ(CKR_OK, getPublicKey(RSA_KEY));
        EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK");
        EXPECT_EQ(0U, publicKey(RSA_KEY).modulusBits);
    }
}

} // namespace
