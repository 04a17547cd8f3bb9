// Signatures of the KAZTOKEN with RSA and GOST keys, and its random bytes.
#include "tests/support/kt_fixture.h"

using namespace velt_test;

namespace {

Bytes reversed(const Bytes& bytes)
{
    return {bytes.rbegin(), bytes.rend()};
}

class KtSigning : public KtTest {
protected:
    static constexpr CK_MECHANISM_TYPE GOST_SIGN = 0x84B5A002;

    // An RSA pair with ID 3 (handles 1 to 3) and a GOST pair with ID 4 (handles 4 and 5).
    void SetUp() override
    {
        KtTest::SetUp();
        load({{0x03, "rsa"}, {0x04, "gost", GOST, false}});
    }

    void init(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key)
    {
        CK_MECHANISM mechanism{type, nullptr, 0};
        ASSERT_EQ(CKR_OK, fSignInitKT(table, session, &mechanism, key));
        mark.reset();
    }
    void initRsa(std::uint64_t bits)
    {
        init(CKM_RSA_PKCS, 2);
        publicKey(1).modulusBits = bits;
    }

    CK_RV sign(const Bytes& data, CK_ULONG room = 512)
    {
        Bytes exact = data;
        exact.shrink_to_fit();
        exact.reserve(1);
        signature.assign(room + 8, SENTINEL);
        length = room;
        return fSignKT(table, session, exact.data(), exact.size(), signature.data(), &length);
    }

    static Bytes chained(const Bytes& data)
    {
        return hex("10 2A 9E 9A") + Bytes{std::uint8_t(data.size() & 0xFF)} + reversed(data);
    }
    static Bytes padding(std::size_t k, std::size_t dataSize)
    {
        const std::size_t rest = k - dataSize;
        return hex("00 2A 9E 9A") + Bytes{std::uint8_t(rest & 0xFF), 0x00} + Bytes(rest - 3, 0xFF) +
               hex("01 00 00");
    }
    void expectRsa(const Bytes& data, std::size_t k, const Bytes& reply)
    {
        expect(RSA_KEY, OK, 4);
        expect(chained(data), hex(OK), k + 2);
        expect(padding(k, data.size()), reply + hex(OK), k + 2);
    }
    void expectSignature(const Bytes& wanted, std::size_t room = 512)
    {
        EXPECT_EQ(wanted.size(), length);
        EXPECT_EQ(wanted + Bytes(room + 8 - wanted.size(), SENTINEL), signature);
    }

    static constexpr std::string_view RSA_KEY = "00 22 41 B6 06 95 01 40 84 01 03";
    static constexpr std::string_view GOST_KEY = "00 22 41 B6 06 91 01 40 84 01 04";
    Bytes signature;
    CK_ULONG length = 0;
};

TEST_F(KtSigning, TwoMechanismsAreTaken)
{
    int parameter = 0;
    for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, GOST_SIGN}) {
        mark.reset();
        CK_MECHANISM mechanism{type, &parameter, 4};
        EXPECT_EQ(CKR_OK, fSignInitKT(table, session, &mechanism, 17));
        EXPECT_EQ(17U, hSignKeyKT);
        EXPECT_EQ(type, pSignMechanismKT.mechanism);
        EXPECT_EQ(&parameter, pSignMechanismKT.pParameter);
        EXPECT_EQ(4U, pSignMechanismKT.ulParameterLen);
        EXPECT_MESSAGES(mark, "KAZTOKEN SignInit CKR_OK");
    }
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{0x0}, CK_MECHANISM_TYPE{0x84B5A001}, CK_MECHANISM_TYPE{0x3}}) {
        mark.reset();
        CK_MECHANISM mechanism{type, nullptr, 0};
        EXPECT_EQ(CKR_MECHANISM_INVALID, fSignInitKT(table, session, &mechanism, 18));
        EXPECT_EQ(17U, hSignKeyKT);
        EXPECT_EQ(GOST_SIGN, pSignMechanismKT.mechanism);
        EXPECT_MESSAGES(mark, "KAZTOKEN SignInit CKR_MECHANISM_INVALID");
    }
}

TEST_F(KtSigning, WithoutAMechanismNothingIsSigned)
{
    EXPECT_EQ(CKR_FUNCTION_FAILED, sign(pattern(20)));
    EXPECT_MESSAGES(mark, "KAZTOKEN Sign Unknown mechanism");
    EXPECT_EQ(Bytes(520, SENTINEL), signature);
    EXPECT_EQ(512U, length);
}

TEST_F(KtSigning, TheRsaBlockGoesOutLowestByteFirst)
{
    initRsa(2048);
    const Bytes data = pattern(35);
    Bytes reply(256);
    for (std::size_t i = 0; i < 256; ++i) {
        reply[i] = static_cast<std::uint8_t>(i + 1);
    }
    const Bytes last = hex("00 2A 9E 9A DD 00") + Bytes(218, 0xFF) + hex("01 00 00");
    ASSERT_EQ(227U, last.size());
    expect("00 22 41 B6 06 95 01 40 84 01 03", OK, 4);
    expect(hex("10 2A 9E 9A 23") + reversed(data), hex(OK), 258);
    expect(last, reply + hex(OK), 258);
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(reversed(reply));
    EXPECT_MESSAGES(mark, "KAZTOKEN Sign CKR_OK");
}

TEST_F(KtSigning, DataOfEveryAllowedLengthIsSigned)
{
    for (const std::size_t k : {128U, 256U}) {
        initRsa(k * 8);
        for (const std::size_t size : {std::size_t{0}, std::size_t{1}, k - 11, k - 4, k - 3}) {
            SCOPED_TRACE(testing::Message() << size << " of " << k);
            expectRsa(pattern(size), k, pattern(k, 3));
            EXPECT_EQ(CKR_OK, sign(pattern(size)));
            expectSignature(reversed(pattern(k, 3)));
            expectAllExchanged();
        }
    }
}

TEST_F(KtSigning, DataThatLeavesNoRoomForItsFrameIsRefused)
{
    initRsa(1024);
    for (const std::size_t size : {126U, 128U, 300U}) {
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(size)));
    }
    EXPECT_MESSAGES(mark);
    publicKey(1).modulusBits = 0;
    expect(RSA_KEY, OK, 4);
    expect(hex("00 46 81 03 00"), pattern(128) + hex(OK), 258);
    EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(126)));
    EXPECT_EQ(1024U, publicKey(1).modulusBits);
    EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK");
    EXPECT_EQ(Bytes(520, SENTINEL), signature);
}

TEST_F(KtSigning, AnUnknownModulusIsReadOnce)
{
    initRsa(0);
    for (const bool first : {true, false}) {
        expect(RSA_KEY, OK, 4);
        if (first) {
            expect(hex("00 46 81 03 00"), pattern(128) + hex(OK), 258);
        }
        expect(chained(pattern(20)), hex(OK), 130);
        expect(padding(128, 20), pattern(128, 2) + hex(OK), 130);
        EXPECT_EQ(CKR_OK, sign(pattern(20)));
        expectSignature(reversed(pattern(128, 2)));
    }
    EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK", "KAZTOKEN Sign CKR_OK",
                    "KAZTOKEN Sign CKR_OK");
}

TEST_F(KtSigning, AModulusThatCannotBeReadMakesTheHandleInvalid)
{
    initRsa(0);
    expect(RSA_KEY, OK, 4);
    expect("00 46 81 03 00", "6A 88", 258);
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
    EXPECT_MESSAGES(mark, numbered("KAZTOKEN GetPublicKey APDU get RSA public key error ", 0x886A));
    mark.reset();
    expect(RSA_KEY, OK, 4);
    expect("00 46 81 03 00", OK, 258);
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
    EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK");
}

TEST_F(KtSigning, HandlesWithoutAnRsaPublicKeyBeforeThemSignNothing)
{
    for (const CK_OBJECT_HANDLE key : {0UL, 1UL, 3UL, 4UL, 5UL, 6UL, 7UL, ~0UL}) {
        init(CKM_RSA_PKCS, key);
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(300))) << key;
    }
    for (const CK_OBJECT_HANDLE key : {0UL, 6UL, 7UL, ~0UL}) {
        init(GOST_SIGN, key);
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(32))) << key;
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(KtSigning, AnOddSignatureLacksItsLastByte)
{
    initRsa(1024);
    expectRsa(pattern(20), 128, pattern(127));
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    EXPECT_EQ(127U, length);
    EXPECT_EQ(slice(reversed(pattern(127)), 0, 126), slice(signature, 0, 126));
    EXPECT_EQ(Bytes(394, SENTINEL), slice(signature, 126, 394));
}

TEST_F(KtSigning, AFailureAtEachRsaExchange)
{
    const Bytes data = pattern(35);
    const std::string handle = numbered("KAZTOKEN Sign key handle ", 2);
    failAtEach(
        {{hex(RSA_KEY), hex(OK), 4, {"KAZTOKEN Sign APDU RSA select key error #", handle}},
         {chained(data), hex(OK), 258, {"KAZTOKEN Sign 1 APDU sign RSA error #", handle}},
         {padding(256, 35), {}, 258, {"KAZTOKEN Sign 2 APDU sign RSA error #", handle}}},
        CKR_FUNCTION_FAILED, [this] { initRsa(2048); },
        [&] {
            const CK_RV result = sign(data);
            EXPECT_EQ(Bytes(520, SENTINEL), signature);
            EXPECT_EQ(512U, length);
            return result;
        });
}

TEST_F(KtSigning, AGostSignatureTakesTheDataAsItIs)
{
    init(GOST_SIGN, 4);
    const Bytes data = pattern(32);
    expect("00 22 41 B6 06 91 01 40 84 01 04", OK, 4);
    expect(hex("00 2A 9E 9A 20") + data + hex("40"), pattern(64, 2) + hex(OK), 66);
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(pattern(64, 2));
    EXPECT_MESSAGES(mark, "KAZTOKEN Sign CKR_OK");

    expect(GOST_KEY, OK, 4);
    expect(hex("00 2A 9E 9A 2C") + pattern(300) + hex("40"), pattern(64, 3) + hex(OK), 66);
    EXPECT_EQ(CKR_OK, sign(pattern(300)));
    expectSignature(pattern(64, 3));
    EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(70000)));
}

TEST_F(KtSigning, AFailureAtEachGostExchange)
{
    const std::string handle = numbered("KAZTOKEN Sign key handle ", 4);
    failAtEach(
        {{hex(GOST_KEY), hex(OK), 4, {"KAZTOKEN Sign APDU GOST select key error #", handle}},
         {hex("00 2A 9E 9A 20") + pattern(32) + hex("40"),
          {},
          66,
          {"KAZTOKEN Sign APDU sign GOST error #", handle}}},
        CKR_FUNCTION_FAILED, [this] { init(GOST_SIGN, 4); }, [this] { return sign(pattern(32)); });
}

TEST_F(KtSigning, ASizeQueryAndASmallBufferSignAsWell)
{
    init(GOST_SIGN, 4);
    Bytes data = pattern(32);
    const Bytes command = hex("00 2A 9E 9A 20") + data + hex("40");
    expect(hex(GOST_KEY), hex(OK), 4);
    expect(command, pattern(64) + hex(OK), 66);
    length = 1;
    EXPECT_EQ(CKR_OK, fSignKT(table, session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(64U, length);
    EXPECT_MESSAGES(mark, "KAZTOKEN Sign CKR_OK");

    mark.reset();
    expect(hex(GOST_KEY), hex(OK), 4);
    expect(command, pattern(64) + hex(OK), 66);
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, 63));
    EXPECT_EQ(63U, length);
    EXPECT_EQ(Bytes(71, SENTINEL), signature);
    EXPECT_MESSAGES(mark);

    expect(hex(GOST_KEY), hex(OK), 4);
    expect(command, pattern(64) + hex(OK), 66);
    EXPECT_EQ(CKR_OK, sign(data, 64));
    expectSignature(pattern(64), 64);

    initRsa(1024);
    expectRsa(data, 128, pattern(128));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, 127));
    EXPECT_EQ(127U, length);
    EXPECT_EQ(Bytes(135, SENTINEL), signature);
}

TEST_F(KtSigning, RandomBytesComeFromTheToken)
{
    for (const std::size_t count : {0U, 1U, 32U, 255U, 256U}) {
        SCOPED_TRACE(count);
        mark.reset();
        Bytes out(count + 8, SENTINEL);
        expect(hex("00 84 00 00") + Bytes{std::uint8_t(count & 0xFF)}, pattern(count) + hex(OK),
               count + 2);
        EXPECT_EQ(CKR_OK, fGenerateRandomKT(table, session, out.data(), count));
        EXPECT_EQ(pattern(count) + Bytes(8, SENTINEL), out);
        EXPECT_MESSAGES(mark, "KAZTOKEN GenerateRandom CKR_OK");
    }
}

TEST_F(KtSigning, ARandomReplyOfAnotherLengthIsCutOrLeavesTheRest)
{
    Bytes out(24, SENTINEL);
    expectFetched(hex("00 84 00 00 10"), pattern(20), 18);
    EXPECT_EQ(CKR_OK, fGenerateRandomKT(table, session, out.data(), 16));
    EXPECT_EQ(pattern(16) + Bytes(8, SENTINEL), out);
    out.assign(24, SENTINEL);
    expect(hex("00 84 00 00 10"), pattern(5) + hex(OK), 18);
    EXPECT_EQ(CKR_OK, fGenerateRandomKT(table, session, out.data(), 16));
    EXPECT_EQ(pattern(5) + Bytes(19, SENTINEL), out);
}

TEST_F(KtSigning, MoreThan256RandomBytesAreNotAskedFor)
{
    for (const CK_ULONG count : {257UL, 4096UL, ~0UL}) {
        mark.reset();
        std::uint8_t untouched = SENTINEL;
        EXPECT_EQ(CKR_ARGUMENTS_BAD, fGenerateRandomKT(table, session, &untouched, count));
        EXPECT_EQ(SENTINEL, untouched);
        EXPECT_MESSAGES(mark, numbered("KAZTOKEN GenerateRandom error too big len ", count));
    }
}

TEST_F(KtSigning, AFailedChallengeIsAFunctionFailure)
{
    Bytes out(16, SENTINEL);
    failAtEach(
        {{hex("00 84 00 00 10"), {}, 18, {"KAZTOKEN GenerateRandom APDU error #"}}},
        CKR_FUNCTION_FAILED, [] {},
        [&] { return fGenerateRandomKT(table, session, out.data(), 16); });
    EXPECT_EQ(Bytes(16, SENTINEL), out);
}

} // namespace
