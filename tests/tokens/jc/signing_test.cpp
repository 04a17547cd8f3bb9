// Signatures of the JaCarta with RSA and GOST keys, and its random bytes.
#include "tests/support/jc_fixture.h"

using namespace velt_test;

namespace {

const Bytes RSA_NAME = hex("0A 1B");
const Bytes GOST_NAME = hex("00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF 10 20 30 40");
constexpr CK_MECHANISM_TYPE GOST_SIGN = 0xFFFFFFFF84B5A002;
constexpr CK_OBJECT_HANDLE RSA_KEY = 2;
constexpr CK_OBJECT_HANDLE GOST_KEY = 3;

class JcSigning : public JcTest {
protected:
    void SetUp() override
    {
        JcTest::SetUp();
        load({{RSA_NAME, {RSA_PAIR}}, {GOST_NAME, {GOST_PRIVATE, GOST_PUBLIC}}});
    }

    static Bytes rsaCommand(const Bytes& name, const Bytes& data)
    {
        return hex("80 14 23 24 00") + bigEndian(name.size() + 260) +
               Bytes{0x00, std::uint8_t(name.size())} + name + hex("01 00") + paddedBlock(data);
    }
    static Bytes gostCommand(const Bytes& name, const Bytes& data)
    {
        return hex("80 14 20 00") +
               Bytes{std::uint8_t(data.size() + name.size() + 2), 0x00, std::uint8_t(name.size())} +
               name + reversed(data);
    }
    void expectRsa(const Bytes& data, const Bytes& reply)
    {
        expect(rsaCommand(RSA_NAME, data), reply + hex(OK), 2050);
    }
    void expectGost(const Bytes& data, const Bytes& reply)
    {
        expect(gostCommand(GOST_NAME, data), reply + hex(OK), 66);
    }
    CK_RV random(Bytes& out, CK_ULONG count)
    {
        return fGenerateRandomJC(table, session, out.data(), count);
    }
};

// --- RSA ---

TEST_F(JcSigning, TheRsaBlockIsPaddedByTheModule)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    const Bytes data = pattern(35);
    const Bytes command =
        hex("80 14 23 24 00 01 06 00 02 0A 1B 01 00 00 01") + Bytes(218, 0xFF) + Bytes{0x00} + data;
    ASSERT_EQ(269U, command.size());
    expect(command, pattern(256, 2) + hex(OK), 2050);
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(pattern(256, 2));
    EXPECT_EQ(256U, dwReplyLen);
    EXPECT_MESSAGES(mark, "JaCarta Sign CKR_OK");
}

TEST_F(JcSigning, DataOfEveryLengthThatLeavesRoomForItsFrameIsSigned)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    for (const std::size_t size : {0U, 1U, 35U, 245U, 246U, 252U, 253U}) {
        SCOPED_TRACE(size);
        expectRsa(pattern(size), pattern(256, 3));
        EXPECT_EQ(CKR_OK, sign(pattern(size)));
        expectSignature(pattern(256, 3));
        expectAllExchanged();
    }
    EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(254)));
    expectNoSignature();
}

TEST_F(JcSigning, NamesOfEveryLengthAreCounted)
{
    for (const std::size_t size : {1U, 12U, 16U, 20U}) {
        SCOPED_TRACE(size);
        const Bytes name = pattern(size, 5);
        load({{name, {RSA_PAIR}}});
        init(CKM_RSA_PKCS, 2);
        const Bytes command = rsaCommand(name, pattern(20));
        ASSERT_EQ(size + 267, command.size());
        expect(command, pattern(256) + hex(OK), 2050);
        EXPECT_EQ(CKR_OK, sign(pattern(20)));
        expectSignature(pattern(256));
        init(GOST_SIGN, 2); // the key's kind is not looked at
        expect(gostCommand(name, pattern(253 - size)), pattern(64) + hex(OK), 66);
        EXPECT_EQ(CKR_OK, sign(pattern(253 - size)));
        expectSignature(turned(pattern(64)));
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(254 - size)));
    }
}

TEST_F(JcSigning, AnyEntrysNameSigns)
{
    for (const CK_OBJECT_HANDLE handle : {1UL, 2UL}) {
        init(CKM_RSA_PKCS, handle);
        expectRsa(pattern(20), pattern(256));
        EXPECT_EQ(CKR_OK, sign(pattern(20)));
        expectSignature(pattern(256));
    }
    init(GOST_SIGN, 4);
    expectGost(pattern(32), pattern(64));
    EXPECT_EQ(CKR_OK, sign(pattern(32)));
    expectSignature(turned(pattern(64)));
}

TEST_F(JcSigning, AnEntryThatIsNotMadeSignsNothing)
{
    load({{RSA_NAME, {CERTIFICATE}}});
    for (const CK_MECHANISM_TYPE mechanism : {CK_MECHANISM_TYPE{CKM_RSA_PKCS}, GOST_SIGN}) {
        init(mechanism, 2);
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(20)));
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(300))) << "named before the data's length";
        expectNoSignature();
        EXPECT_MESSAGES(mark);
    }
}

TEST_F(JcSigning, AnRsaSignatureIsTheReplyWhateverItsLength)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    for (const std::size_t size : {0U, 1U, 128U, 257U, 2048U}) {
        SCOPED_TRACE(size);
        expectRsa(pattern(20), pattern(size));
        EXPECT_EQ(CKR_OK, sign(pattern(20), 3000));
        expectSignature(pattern(size), 3000);
    }
    expectFetched(rsaCommand(RSA_NAME, pattern(20)), pattern(300), 2050);
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expectSignature(pattern(300));
}

TEST_F(JcSigning, ASizeQueryAndASmallBufferSignAsWell)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    Bytes data = pattern(35);
    expectRsa(data, pattern(256));
    length = 1;
    EXPECT_EQ(CKR_OK, fSignJC(table, session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(256U, length);
    EXPECT_MESSAGES(mark, "JaCarta Sign CKR_OK");

    mark.reset();
    expectRsa(data, pattern(256));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, 255));
    expectNoSignature(255);
    EXPECT_EQ(256U, dwReplyLen);
    EXPECT_MESSAGES(mark, "JaCarta Sign CKR_BUFFER_TOO_SMALL");

    expectRsa(data, pattern(256));
    EXPECT_EQ(CKR_OK, sign(data, 256));
    expectSignature(pattern(256), 256);

    init(GOST_SIGN, GOST_KEY);
    expectGost(data, pattern(64));
    length = 0;
    EXPECT_EQ(CKR_OK, fSignJC(table, session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(64U, length);
    expectGost(data, pattern(64));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, 63));
    expectNoSignature(63);
    expectGost(data, pattern(64));
    EXPECT_EQ(CKR_OK, sign(data, 64));
    expectSignature(turned(pattern(64)), 64);
    EXPECT_MESSAGES(mark, "JaCarta Sign CKR_OK", "JaCarta Sign CKR_BUFFER_TOO_SMALL",
                    "JaCarta Sign CKR_OK");
}

TEST_F(JcSigning, ARecordedSignatureMayBeRepeated)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    for (int i = 0; i < 2; ++i) {
        expectRsa(pattern(20), pattern(256));
        EXPECT_EQ(CKR_OK, sign(pattern(20)));
    }
    EXPECT_EQ(2U, hSignKeyJC);
    EXPECT_EQ(CKM_RSA_PKCS, pSignMechanismJC.mechanism);
}

TEST_F(JcSigning, ASignatureThatFailsIsToldWithItsKey)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    const std::string failure = "JaCarta Sign APDU sign RSA error #"; // of both kinds
    failAtEach(
        {{rsaCommand(RSA_NAME, pattern(35)),
          {},
          2050,
          {failure, numbered("JaCarta Sign key handle ", RSA_KEY)}}},
        CKR_FUNCTION_FAILED, [] {},
        [this] {
            const CK_RV result = sign(pattern(35));
            expectNoSignature();
            return result;
        });
    init(GOST_SIGN, GOST_KEY);
    failAtEach(
        {{gostCommand(GOST_NAME, pattern(32)),
          {},
          66,
          {failure, numbered("JaCarta Sign key handle ", GOST_KEY)}}},
        CKR_FUNCTION_FAILED, [] {},
        [this] {
            const CK_RV result = sign(pattern(32));
            expectNoSignature();
            return result;
        });
}

// --- GOST ---

TEST_F(JcSigning, AGostHashGoesOutReversedAndTheHalvesComeBackReversed)
{
    load({{RSA_NAME, {GOST_PRIVATE}}});
    init(GOST_SIGN, 1);
    Bytes data(32);
    Bytes reply(64);
    for (std::size_t i = 0; i < 64; ++i) {
        data[i % 32] = static_cast<std::uint8_t>(i % 32);
        reply[i] = static_cast<std::uint8_t>(i + 0x80);
    }
    expect(hex("80 14 20 00 24 00 02 0A 1B 1F 1E 1D 1C 1B 1A 19 18 17 16 15 14 13 12 11 10"
               "0F 0E 0D 0C 0B 0A 09 08 07 06 05 04 03 02 01 00"),
           reply + hex(OK), 66);
    EXPECT_EQ(CKR_OK, sign(data));
    expectSignature(turned(reply));
    EXPECT_EQ(0x9F, signature[0]);
    EXPECT_EQ(0x80, signature[31]);
    EXPECT_EQ(0xBF, signature[32]);
    EXPECT_EQ(0xA0, signature[63]);
    EXPECT_EQ(64U, dwReplyLen);
    EXPECT_MESSAGES(mark, "JaCarta Sign CKR_OK");
}

TEST_F(JcSigning, GostDataFillsTheOneByteLength)
{
    init(GOST_SIGN, GOST_KEY); // a name of 20 bytes
    for (const std::size_t size : {0U, 1U, 232U, 233U}) {
        SCOPED_TRACE(size);
        expectGost(pattern(size), pattern(64));
        EXPECT_EQ(CKR_OK, sign(pattern(size)));
        expectSignature(turned(pattern(64)));
        expectAllExchanged();
    }
    for (const std::size_t size : {234U, 255U, 256U, 266U}) {
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(pattern(size))) << size;
        expectNoSignature();
    }
}

TEST_F(JcSigning, AShortGostReplyIsFilledFromTheBufferUpToTheCallersLength)
{
    init(GOST_SIGN, GOST_KEY);
    const Bytes before = pattern(2050, 9);
    for (const std::size_t size : {0U, 1U, 40U, 63U}) {
        for (const std::size_t room : {63U, 64U, 65U, 512U}) {
            SCOPED_TRACE(testing::Message() << size << " into " << room);
            std::ranges::copy(before, pbyOutput.begin());
            expectGost(pattern(32), pattern(size));
            EXPECT_EQ(CKR_OK, sign(pattern(32), room));
            EXPECT_EQ(size, length);
            const std::size_t written = std::min<std::size_t>(room, 64);
            const Bytes buffer = pattern(size) + hex(OK) + slice(before, size + 2, 64);
            EXPECT_EQ(slice(turned(buffer), 0, written) + Bytes(room + 8 - written, SENTINEL),
                      signature);
            expectAllExchanged();
        }
    }
    std::ranges::copy(before, pbyOutput.begin());
    expectGost(pattern(32), pattern(20));
    EXPECT_EQ(CKR_OK, sign(pattern(32), 20));
    EXPECT_EQ(slice(turned(pattern(20) + hex(OK) + slice(before, 22, 64)), 0, 20) +
                  Bytes(8, SENTINEL),
              signature);
    expectGost(pattern(32), pattern(20));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(pattern(32), 19));
    expectNoSignature(19);
}

TEST_F(JcSigning, OfALongGostReply64BytesAreWritten)
{
    init(GOST_SIGN, GOST_KEY);
    const Bytes longer = pattern(70);
    expectFetched(gostCommand(GOST_NAME, pattern(32)), longer, 66);
    EXPECT_EQ(CKR_OK, sign(pattern(32)));
    EXPECT_EQ(70U, length);
    EXPECT_EQ(turned(longer) + Bytes(512 + 8 - 64, SENTINEL), signature);
    expectFetched(gostCommand(GOST_NAME, pattern(32)), longer, 66);
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(pattern(32), 69));
    expectNoSignature(69);
}

// --- the length that a signature leaves ---

TEST_F(JcSigning, TheNextPinHasTheSignaturesLengthAsItsRoom)
{
    init(CKM_RSA_PKCS, RSA_KEY);
    expectRsa(pattern(20), pattern(256));
    EXPECT_EQ(CKR_OK, sign(pattern(20)));
    expect("80 10 21 00 04 31 32 33 34", OK, 256);
    EXPECT_EQ(CKR_OK, login("1234"));

    init(GOST_SIGN, GOST_KEY);
    expectGost(pattern(32), pattern(64));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(pattern(32), 1));
    expect("80 10 21 00 04 31 32 33 34", "64 13", 64);
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));

    expect(gostCommand(GOST_NAME, pattern(32)), hex("6F 00"), 66);
    EXPECT_EQ(CKR_FUNCTION_FAILED, sign(pattern(32)));
    expect("80 10 21 00 04 31 32 33 34", OK, 2); // a failure is not decremented
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_F(JcSigning, AnEmptySignatureLeavesNoRoomForTheAnswerToThePin)
{
    init(GOST_SIGN, GOST_KEY);
    expectGost(pattern(32), {});
    EXPECT_EQ(CKR_OK, sign(pattern(32)));
    EXPECT_EQ(0U, length);
    EXPECT_EQ(0U, dwReplyLen);
    expect("80 10 21 00 04 31 32 33 34", "64 13", 0); // goes unheard
    mark.reset();
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_MESSAGES(mark, "JaCarta Login CKR_OK");
}

// --- random bytes ---

TEST_F(JcSigning, RandomBytesComeFromTheToken)
{
    for (const std::size_t count : {0U, 1U, 16U, 255U, 256U}) {
        SCOPED_TRACE(count);
        mark.reset();
        Bytes out(count + 8, SENTINEL);
        expect(hex("80 14 31 00 02") + bigEndian(count), pattern(count) + hex(OK), count + 2);
        EXPECT_EQ(CKR_OK, random(out, count));
        EXPECT_EQ(pattern(count) + Bytes(8, SENTINEL), out);
        EXPECT_EQ(count + 2, dwReplyLen);
        EXPECT_MESSAGES(mark, "JaCarta GenerateRandom CKR_OK");
    }
}

TEST_F(JcSigning, ARandomReplyOfAnotherLengthIsCutOrLeavesTheRest)
{
    Bytes out(24, SENTINEL);
    expectFetched(hex("80 14 31 00 02 00 10"), pattern(20), 18);
    EXPECT_EQ(CKR_OK, random(out, 16));
    EXPECT_EQ(pattern(16) + Bytes(8, SENTINEL), out);
    out.assign(24, SENTINEL);
    expect(hex("80 14 31 00 02 00 10"), pattern(5) + hex(OK), 18);
    EXPECT_EQ(CKR_OK, random(out, 16));
    EXPECT_EQ(pattern(5) + Bytes(19, SENTINEL), out);
    out.assign(24, SENTINEL);
    expect("80 14 31 00 02 00 10", OK, 18);
    EXPECT_EQ(CKR_OK, random(out, 16));
    EXPECT_EQ(Bytes(24, SENTINEL), out);
}

TEST_F(JcSigning, MoreThan256RandomBytesAreNotAskedFor)
{
    for (const CK_ULONG count : {257UL, 65536UL, ~0UL}) {
        mark.reset();
        Bytes out(8, SENTINEL);
        EXPECT_EQ(CKR_ARGUMENTS_BAD, random(out, count));
        EXPECT_EQ(Bytes(8, SENTINEL), out);
        EXPECT_MESSAGES(mark, numbered("JaCarta GenerateRandom error too big len ", count));
    }
}

TEST_F(JcSigning, RandomBytesWithoutALoginAreToldApart)
{
    Bytes out(16, SENTINEL);
    expect("80 14 31 00 02 00 10", "64 14", 18);
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, random(out, 16));
    EXPECT_MESSAGES(mark, "JaCarta GenerateRandom CKR_USER_NOT_LOGGED_IN");
    for (const std::string_view other : {"14 64", "64 13", "64 15"}) {
        mark.reset();
        expect("80 14 31 00 02 00 10", other, 18);
        EXPECT_EQ(CKR_FUNCTION_FAILED, random(out, 16));
        EXPECT_MESSAGES(mark, numbered("JaCarta GenerateRandom CKR_FUNCTION_FAILED", value(other)));
    }
    failAtEach(
        {{hex("80 14 31 00 02 00 10"), {}, 18, {"JaCarta GenerateRandom CKR_FUNCTION_FAILED#"}}},
        CKR_FUNCTION_FAILED, [] {}, [&] { return random(out, 16); });
    EXPECT_EQ(Bytes(16, SENTINEL), out);
}

} // namespace
