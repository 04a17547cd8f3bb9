// Signatures of the eToken 72K with RSA and GOST keys, in pieces of 32 bytes.
#include "tests/support/et72k_fixture.h"

using namespace velt_test;

namespace {

const Bytes RSA_NAME = hex("31 32");
const Bytes GOST_NAME = hex("41 42 43");

constexpr CK_OBJECT_HANDLE RSA_PUBLIC_KEY = 1;
constexpr CK_OBJECT_HANDLE RSA_KEY = 2;
constexpr CK_OBJECT_HANDLE GOST_KEY = 3; // the entries behind it are not in use
constexpr CK_MECHANISM_TYPE GOST_SIGN = 0x84B5A002;

class Et72kSigning : public Et72kTest {
protected:
    void SetUp() override
    {
        Et72kTest::SetUp();
        reload();
    }
    void reload() { load({{RSA_NAME, {RSA_PAIR}}, {GOST_NAME, {GOST_PRIVATE}}}); }

    void initRsa(std::uint64_t bits)
    {
        init(CKM_RSA_PKCS, RSA_KEY);
        publicKey(RSA_PUBLIC_KEY).modulusBits = bits;
    }

    static Bytes uploadPiece(const Bytes& block, std::size_t offset)
    {
        return hex("80 12 49 00 22 00") + Bytes{std::uint8_t(offset)} + slice(block, offset, 32);
    }
    static Bytes readSignature(std::size_t offset)
    {
        return hex("80 12 48 00 02") + bigEndian(offset);
    }
    void expectUpload(const Bytes& data)
    {
        const Bytes block = paddedBlock(data);
        for (std::size_t offset = 0; offset < 256; offset += 32) {
            expect(uploadPiece(block, offset), hex(OK), 4);
        }
        expect(RSA_SIGN, OK, 4);
    }
    void expectRsa(const Bytes& data, const Bytes& wanted)
    {
        expectUpload(data);
        for (std::size_t done = 0; done < wanted.size(); done += 32) {
            const std::size_t count = std::min<std::size_t>(wanted.size() - done, 32);
            expect(readSignature(done), slice(wanted, done, count) + hex(OK), 34);
        }
    }

    static Bytes gostSign(const Bytes& data)
    {
        return hex("80 14 10 00") +
               Bytes{std::uint8_t(data.size() + 5), 0x00, 0x03, 0x41, 0x42, 0x43} + reversed(data);
    }
    void expectGost(const Bytes& data, const Bytes& first, const Bytes& second)
    {
        expect(gostSign(data), first + hex(OK), 34);
        expect(hex(SECOND_HALF), second + hex(OK), 34);
    }

    static constexpr std::string_view RSA_SIGN = "80 14 52 77 06 01 00 00 02 31 32";
    static constexpr std::string_view SECOND_HALF = "80 11 25 00 00";
};

// --- preparation ---

TEST_F(Et72kSigning, TwoMechanismsAreTaken)
{
    int parameter = 0;
    for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, GOST_SIGN}) {
        mark.reset();
        CK_MECHANISM mechanism{type, &parameter, 4};
        EXPECT_EQ(CKR_OK, fSignInitET72K(table, session, &mechanism, 17));
        EXPECT_EQ(17U, hSignKeyET72K);
        EXPECT_EQ(type, pSignMechanismET72K.mechanism);
        EXPECT_EQ(&parameter, pSignMechanismET72K.pParameter);
        EXPECT_EQ(4U, pSignMechanismET72K.ulParameterLen);
        EXPECT_MESSAGES(mark, "EToken72K SignInit CKR_OK");
    }
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{0xFFFFFFFF84B5A002}, CK_MECHANISM_TYPE{0x0},
          CK_MECHANISM_TYPE{0x84B5A001}, CK_MECHANISM_TYPE{0x3}}) {
        mark.reset();
        CK_MECHANISM mechanism{type, nullptr, 0};
        EXPECT_EQ(CKR_MECHANISM_INVALID, fSignInitET72K(table, session, &mechanism, 18));
        EXPECT_EQ(17U, hSignKeyET72K);
        EXPECT_EQ(GOST_SIGN, pSignMechanismET72K.mechanism);
        EXPECT_EQ(&parameter, pSignMechanismET72K.pParameter);
        EXPECT_MESSAGES(mark, "EToken72K SignInit CKR_MECHANISM_INVALID");
    }
}

TEST_F(Et72kSigning, WithoutAMechanismNothingIsSigned)
{
    hSignKeyET72K = RSA_KEY;
    EXPECT_EQ(CKR_FUNCTION_FAILED, sign(pattern(20)));
    EXPECT_MESSAGES(mark, "EToken72K Sign Unknown mechanism");
    expectNoSignature();
}

// --- RSA ---

TEST_F(Et72kSigning, AKeyOf2048BitsSignsInEightPiecesEachWay)
{
    initRsa(2048);
    const Bytes data = pattern(35);
    const Bytes block = hex("00 01") + Bytes(218, 0xFF) + hex("00") + data;
    const Bytes wanted = pattern(256, 3);
    ASSERT_EQ(256U, block.size());
    for (std::uint8_t i = 0; i < 8; ++i) {
        expect(hex("80 12 49 00 22 00") + Bytes{std::uint8_t(i * 32)} + slice(block, i * 32U, 32),
               hex(OK), 4);
    }
    expect("80 14 52 77 06 01 00 00 02 31 32", OK, 4);
    for (std::uint8_t i = 0; i < 8; ++i) {
        expect(hex("80 12 48 00 02 00") + Bytes{std::uint8_t(i * 32)},
               slice(wanted, i * 32U, 32) + hex(OK), 34);
    }
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(wanted);
    EXPECT_MESSAGES(mark, "EToken72K Sign CKR_OK");
}

TEST_F(Et72kSigning, AKeyOf1024BitsTakesTheWholeBlockAndGivesFourPieces)
{
    initRsa(1024);
    const Bytes data = pattern(35);
    const Bytes block = hex("00 01") + Bytes(218, 0xFF) + hex("00") + data;
    const Bytes wanted = pattern(128, 3);
    for (std::uint8_t i = 0; i < 8; ++i) {
        expect(hex("80 12 49 00 22 00") + Bytes{std::uint8_t(i * 32)} + slice(block, i * 32U, 32),
               hex(OK), 4);
    }
    expect("80 14 52 77 06 01 00 00 02 31 32", OK, 4);
    for (std::uint8_t i = 0; i < 4; ++i) {
        expect(hex("80 12 48 00 02 00") + Bytes{std::uint8_t(i * 32)},
               slice(wanted, i * 32U, 32) + hex(OK), 34);
    }
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(wanted);
    EXPECT_MESSAGES(mark, "EToken72K Sign CKR_OK");
}

TEST_F(Et72kSigning, DataOfEveryAllowedLengthIsSigned)
{
    initRsa(2048);
    for (const std::size_t size : {0U, 1U, 20U, 252U, 253U}) {
        SCOPED_TRACE(size);
        expectRsa(pattern(size), pattern(256, 3));
        EXPECT_EQ(CKR_OK, sign(pattern(size)));
        expectSignature(pattern(256, 3));
        expectAllExchanged();
    }
}

TEST_F(Et72kSigning, DataThatDoesNotFitTheBlockIsNotSent)
{
    for (const std::uint64_t bits : {2048U, 1024U, 0U}) {
        initRsa(bits);
        for (const std::size_t size : {254U, 255U, 256U, 70000U}) {
            EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(size)));
            expectNoSignature();
        }
        EXPECT_MESSAGES(mark);
        EXPECT_EQ(bits, publicKey(RSA_PUBLIC_KEY).modulusBits);
    }
}

TEST_F(Et72kSigning, AnUnknownModulusIsReadOnce)
{
    initRsa(0);
    expectModulus(RSA_NAME, pattern(128, 5));
    for (int i = 0; i < 2; ++i) {
        expectRsa(pattern(20), pattern(128, 3));
    }
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expectSignature(pattern(128, 3));
    EXPECT_EQ(1024U, publicKey(RSA_PUBLIC_KEY).modulusBits);
    EXPECT_EQ(padded(pattern(128, 5), 256), field(publicKey(RSA_PUBLIC_KEY).modulus));
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expectSignature(pattern(128, 3));
    EXPECT_MESSAGES(mark, "EToken72K GetPublicKey CKR_OK", "EToken72K Sign CKR_OK",
                    "EToken72K Sign CKR_OK");
}

TEST_F(Et72kSigning, AModulusThatCannotBeReadGivesTheLengthAllTheSame)
{
    initRsa(0);
    expect(getModulusSize(RSA_NAME), hex("6A 88"), 8);
    expectRsa(pattern(20), {});
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expectSignature({});
    EXPECT_MESSAGES(
        mark, numbered("EToken72K GetPublicKey 1 APDU get RSA public key error ", value("6A 88")),
        "EToken72K Sign CKR_OK");
    expectAllExchanged();

    initRsa(0);
    expectModulusSize(RSA_NAME, 1024);
    expect(getModulusPiece(RSA_NAME, 0), hex("6A 88"), 34);
    expectRsa(pattern(20), pattern(128, 3));
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expectSignature(pattern(128, 3));
    EXPECT_MESSAGES(
        mark, numbered("EToken72K GetPublicKey 2 APDU get RSA public key error ", value("6A 88")),
        "EToken72K Sign CKR_OK");
}

TEST_F(Et72kSigning, ASignatureHasAsManyWholeBytesAsTheModulus)
{
    struct Case {
        std::uint64_t bits;
        std::size_t pieces;
    };
    for (const Case& size : {Case{7, 0}, Case{8, 1}, Case{264, 2}, Case{1023, 4}, Case{1032, 5}}) {
        SCOPED_TRACE(size.bits);
        initRsa(size.bits);
        const Bytes sent = pattern(size.pieces * 32, 3);
        expectRsa(pattern(20), sent);
        EXPECT_EQ(CKR_OK, sign(pattern(20)));
        expectSignature(slice(sent, 0, size.bits / 8));
        expectAllExchanged();
    }
}

TEST_F(Et72kSigning, OfEachReply32BytesAreTakenWhateverItsLength)
{
    initRsa(1024);
    expectUpload(pattern(20));
    expect(readSignature(0), pattern(32, 1) + hex(OK), 34);
    expect(readSignature(32), pattern(5, 2) + hex(OK), 34);
    expect(readSignature(64), hex("61 28"), 34);
    expectGetResponse(0x28, pattern(40, 3) + hex(OK));
    expect(readSignature(96), hex("61 FF"), 34);
    expectGetResponse(0xFF, pattern(255, 4) + hex(OK));
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expectSignature(pattern(32, 1) + pattern(5, 2) + hex(OK) + slice(pattern(32, 1), 7, 25) +
                    slice(pattern(40, 3), 0, 32) + slice(pattern(255, 4), 0, 32));
}

TEST_F(Et72kSigning, HandlesWithoutTheirPublicKeyBeforeThemSignNothing)
{
    for (const CK_OBJECT_HANDLE key : {0UL, 1UL, 3UL, 4UL, 6UL, 7UL, 8UL, ~0UL}) {
        init(CKM_RSA_PKCS, key);
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20))) << key;
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(254))) << "named before the data's length";
        expectNoSignature();
        EXPECT_MESSAGES(mark);
    }
    initRsa(2048);
    VELTObj[0].cardName[1] = 0x33;
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
    VELTObj[0].cardName[1] = 0x32;
    VELTObj[0].cardNameLen = 1;
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
    VELTObj[0].cardNameLen = 2;
    publicKey(RSA_PUBLIC_KEY).keyType = 0x84B5A001;
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
    EXPECT_MESSAGES(mark);
    expectNoSignature();
    velt::rebuildObjects(0);
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));

    load({{RSA_NAME, {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE}}});
    init(CKM_RSA_PKCS, 3); // behind a GOST public key of the same name
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
    EXPECT_MESSAGES(mark);
}

TEST_F(Et72kSigning, AFailureAtEachRsaExchange)
{
    const Bytes data = pattern(35);
    const std::string handle = numbered("EToken72K Sign key handle ", RSA_KEY);
    std::vector<ExchangeStep> steps;
    for (std::size_t offset = 0; offset < 256; offset += 32) {
        steps.push_back({uploadPiece(paddedBlock(data), offset),
                         hex(OK),
                         4,
                         {"EToken72K Sign 1 APDU RSA error #", handle}});
    }
    steps.push_back({hex(RSA_SIGN), hex(OK), 4, {"EToken72K Sign 2 APDU RSA error #", handle}});
    for (std::size_t offset = 0; offset < 256; offset += 32) {
        steps.push_back({readSignature(offset),
                         pattern(32) + hex(OK),
                         34,
                         {"EToken72K Sign 3 APDU RSA error #", handle}});
    }
    failAtEach(
        steps, CKR_FUNCTION_FAILED, [this] { initRsa(2048); },
        [&] {
            const CK_RV result = sign(data);
            expectNoSignature();
            return result;
        });
}

// --- GOST ---

TEST_F(Et72kSigning, AGostSignatureIsTwoHalvesEachTurnedRound)
{
    init(GOST_SIGN, GOST_KEY);
    const Bytes data = pattern(32);
    expect(hex("80 14 10 00 25 00 03 41 42 43") + reversed(data), pattern(32, 2) + hex(OK), 34);
    expect(hex("80 11 25 00 00"), pattern(32, 3) + hex(OK), 34);
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(reversed(pattern(32, 2)) + reversed(pattern(32, 3)));
    EXPECT_MESSAGES(mark, "EToken72K Sign CKR_OK");
}

TEST_F(Et72kSigning, GostDataFillsOneCommandAtMost)
{
    init(GOST_SIGN, GOST_KEY);
    for (const std::size_t size : {0U, 1U, 64U, 249U, 250U}) {
        SCOPED_TRACE(size);
        expectGost(pattern(size), pattern(32, 2), pattern(32, 3));
        EXPECT_EQ(CKR_OK, sign(pattern(size)));
        expectSignature(reversed(pattern(32, 2)) + reversed(pattern(32, 3)));
        expectAllExchanged();
    }
    mark.reset();
    for (const std::size_t size : {251U, 256U, 512U, 70000U}) {
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(size))) << size;
        expectNoSignature();
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(Et72kSigning, ShortGostHalvesCountAsTheyCome)
{
    struct Case {
        std::size_t first;
        std::size_t second;
    };
    init(GOST_SIGN, GOST_KEY);
    for (const Case& sizes : {Case{16, 32}, Case{32, 16}, Case{0, 32}, Case{32, 0}, Case{1, 1},
                              Case{0, 0}, Case{31, 32}}) {
        SCOPED_TRACE(testing::Message() << sizes.first << " and " << sizes.second);
        const Bytes held = pattern(34, 7);
        putOutput(0, held);
        const Bytes first = pattern(sizes.first, 2) + hex(OK);
        const Bytes second = pattern(sizes.second, 3) + hex(OK);
        // Each half is taken from position 31 of the buffer downwards; a byte that is not taken is
        // zero.
        Bytes buffer = first + slice(held, first.size(), 34 - first.size());
        Bytes wanted(64);
        for (std::size_t j = 0; j < sizes.first; ++j) {
            wanted[j] = buffer[31 - j];
        }
        buffer = second + slice(buffer, second.size(), 34 - second.size());
        for (std::size_t j = 0; j < sizes.second; ++j) {
            wanted[32 + j] = buffer[31 - j];
        }
        expectGost(pattern(32), pattern(sizes.first, 2), pattern(sizes.second, 3));
        EXPECT_EQ(CKR_OK, sign(pattern(32)));
        expectSignature(slice(wanted, 0, sizes.first + sizes.second));
        expectAllExchanged();
    }
}

TEST_F(Et72kSigning, GostHalvesAreAtMost32BytesEach)
{
    init(GOST_SIGN, GOST_KEY);
    expect(gostSign(pattern(32)), hex("61 28"), 34);
    expectGetResponse(0x28, pattern(40, 2) + hex(OK));
    expect(hex(SECOND_HALF), hex("61 FF"), 34);
    expectGetResponse(0xFF, pattern(255, 3) + hex(OK));
    EXPECT_EQ(CKR_OK, sign(pattern(32)));
    expectSignature(reversed(slice(pattern(40, 2), 0, 32)) +
                    reversed(slice(pattern(255, 3), 0, 32)));
}

TEST_F(Et72kSigning, AFailureAtEachGostExchange)
{
    const std::string handle = numbered("EToken72K Sign key handle ", GOST_KEY);
    failAtEach(
        {{gostSign(pattern(32)),
          pattern(32) + hex(OK),
          34,
          {"EToken72K Sign 1 APDU GOST error #", handle}},
         {hex(SECOND_HALF), {}, 34, {"EToken72K Sign 2 APDU GOST error #", handle}}},
        CKR_FUNCTION_FAILED, [this] { init(GOST_SIGN, GOST_KEY); },
        [this] {
            const CK_RV result = sign(pattern(32));
            expectNoSignature();
            return result;
        });
}

TEST_F(Et72kSigning, HandlesWithoutAnEntrySignNothing)
{
    for (const CK_OBJECT_HANDLE key : {0UL, 4UL, 5UL, 6UL, 7UL, 8UL, ~0UL}) {
        init(GOST_SIGN, key);
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(32))) << key;
        expectNoSignature();
        EXPECT_MESSAGES(mark);
    }
}

// --- handing over ---

TEST_F(Et72kSigning, ASizeQueryAndASmallBufferSignAsWell)
{
    init(GOST_SIGN, GOST_KEY);
    Bytes data = pattern(32);
    expectGost(data, pattern(32, 2), pattern(32, 3));
    length = 1;
    EXPECT_EQ(CKR_OK, fSignET72K(table, session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(64U, length);
    EXPECT_MESSAGES(mark, "EToken72K Sign CKR_OK");
    expectAllExchanged();

    mark.reset();
    expectGost(data, pattern(32, 2), pattern(32, 3));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, 63));
    expectNoSignature(63);
    EXPECT_MESSAGES(mark);
    expectAllExchanged();

    expectGost(data, pattern(32, 2), pattern(32, 3));
    EXPECT_EQ(CKR_OK, sign(data, 64));
    expectSignature(reversed(pattern(32, 2)) + reversed(pattern(32, 3)), 64);
    expectAllExchanged();

    initRsa(1024);
    expectRsa(data, pattern(128));
    length = 1;
    EXPECT_EQ(CKR_OK, fSignET72K(table, session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(128U, length);
    expectAllExchanged();

    mark.reset();
    expectRsa(data, pattern(128));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, 127));
    expectNoSignature(127);
    EXPECT_MESSAGES(mark);
    expectAllExchanged();

    expectRsa(data, pattern(128));
    EXPECT_EQ(CKR_OK, sign(data, 128));
    expectSignature(pattern(128), 128);
}

// --- random bytes ---

TEST_F(Et72kSigning, TheNextLoginOffersRoomForAPieceOfASignature)
{
    init(GOST_SIGN, GOST_KEY);
    expect(gostSign(pattern(32)), pattern(32) + hex(OK), 34);
    expect(hex(SECOND_HALF), pattern(32, 2) + hex(OK), 34);
    EXPECT_EQ(CKR_OK, sign(pattern(32)));
    expect("80 10 20 00 04 31 32 33 34", OK, 34);
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_F(Et72kSigning, RandomBytesAreNotOffered)
{
    for (const CK_ULONG count : {0UL, 16UL, 257UL, ~0UL}) {
        mark.reset();
        Bytes out(16, SENTINEL);
        EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED,
                  fGenerateRandomET72K(table, session, out.data(), count));
        EXPECT_EQ(Bytes(16, SENTINEL), out);
        EXPECT_MESSAGES(mark, "EToken72K GenerateRandom CKR_FUNCTION_NOT_SUPPORTED");
    }
    EXPECT_EQ(CKR_OK, VELT_GenerateRandom(session, nullptr, 16));
}

} // namespace
