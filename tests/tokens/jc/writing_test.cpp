// What changes the JaCarta: certificates, new key pairs and destroyed names.
#include "tests/support/jc_fixture.h"

using namespace velt_test;

namespace {

const Bytes NAME = hex("0A 1B");
const Bytes FRESH = hex("00 01 23 45 67 89 AB CD EF FE DC BA 98 76 54 F0");
constexpr CK_MECHANISM_TYPE RSA = 0x0;
constexpr CK_MECHANISM_TYPE GOST = 0x84B5A001;
constexpr std::string_view GET_RANDOM = "80 14 31 00 02 00 10";

class JcWriting : public JcTest {
protected:
    static Bytes generation(CK_MECHANISM_TYPE type, const Bytes& name)
    {
        return (type == RSA ? hex("80 11 23 00 15 08 00 08 00 10")
                            : hex("80 11 20 00 13 01 00 10")) +
               name;
    }
    void expectGenerated(CK_MECHANISM_TYPE type, const Bytes& name)
    {
        expect(hex(GET_RANDOM), name + hex(OK), 18);
        expect(generation(type, name), hex(OK), 2050);
    }
    // A key pair made with random bytes, after which the token shows the objects.
    void expectHandles(const Bytes& random, const std::vector<Named>& objects,
                       CK_OBJECT_HANDLE wantedPublic, CK_OBJECT_HANDLE wantedPrivate)
    {
        expectGenerated(RSA, random);
        expectLoad(objects);
        EXPECT_EQ(CKR_OK, generate(RSA));
        EXPECT_EQ(wantedPublic, publicHandle);
        EXPECT_EQ(wantedPrivate, privateHandle);
        expectAllExchanged();
    }
};

// --- certificates ---

TEST_F(JcWriting, ACertificateWrittenAsTheTokenSpellsIt)
{
    load({{NAME, {RSA_PAIR}}});
    const Bytes encoded = contentCompressingTo(300);
    expect(hex("80 12 27 00 00 01 32 01 2C 00 02 0A 1B") + gzipMember(encoded), hex(OK), 4);
    EXPECT_EQ(CKR_OK, createNamed(NAME, encoded));
    EXPECT_MESSAGES(mark, "JaCarta CreateObject CKR_OK");

    expect("80 12 21 00 02 00 00", "0C 90 00", 22);
    expect(hex("80 12 27 00 00 01 31 01 2C 00 01 0C") + gzipMember(encoded), hex(OK), 4);
    EXPECT_EQ(CKR_OK, createAt(0x00, encoded));
}

TEST_F(JcWriting, ALookedUpNameHas20BytesAtMost)
{
    const Bytes encoded = Certificate{}.encode();
    for (const std::size_t size : {1U, 19U, 20U}) {
        expect(getName(7), pattern(size) + hex(OK), 22);
        expectSteps(writingJaCarta(pattern(size), gzipMember(encoded)));
        EXPECT_EQ(CKR_OK, createAt(7, encoded));
    }
    for (const std::size_t size : {21U, 255U, 400U}) {
        expectFetched(getName(7), pattern(size), 22);
        expectSteps(writingJaCarta(pattern(20), gzipMember(encoded)));
        EXPECT_EQ(CKR_OK, createAt(7, encoded));
    }
    mark.reset();
    expect(getName(7), pattern(21) + hex(OK), 22);
    EXPECT_EQ(CKR_FUNCTION_FAILED, createAt(7, encoded));
    EXPECT_MESSAGES(mark, numbered("JaCarta CreateObject APDU get object name error ",
                                   pcscCode(SCARD_E_INSUFFICIENT_BUFFER)));
}

TEST_F(JcWriting, ZeroBytesOfANameAreWritten)
{
    const Bytes encoded = Certificate{}.encode();
    const Bytes name = hex("00 41 00");
    expect(getName(0), name + hex(OK), 22);
    expectSteps(writingJaCarta(name, gzipMember(encoded)));
    EXPECT_EQ(CKR_OK, createAt(0, encoded));
    load({{name, {GOST_PRIVATE}}});
    expectSteps(writingJaCarta(name, gzipMember(encoded)));
    EXPECT_EQ(CKR_OK, createNamed(name, encoded));
}

TEST_F(JcWriting, AnEmptyNameIsWrittenTo)
{
    const Bytes encoded = Certificate{}.encode();
    expect(getName(0), hex(OK), 22);
    expectSteps(writingJaCarta({}, gzipMember(encoded)));
    EXPECT_EQ(CKR_OK, createAt(0, encoded));
}

TEST_F(JcWriting, ANameCutTo20BytesIsFoundByItsLabel)
{
    const Bytes encoded = Certificate{}.encode();
    const Bytes whole = pattern(25, 4);
    const Bytes cut = slice(whole, 0, 20);
    expectCount(1);
    expect(getName(0), whole + hex(OK), 1026);
    expectProbes({cut, {RSA_PAIR}});
    ASSERT_EQ(0U, loadObjects());
    expectSteps(writingJaCarta(cut, gzipMember(encoded)));
    EXPECT_EQ(CKR_OK, createNamed(cut, encoded));
}

// --- key pairs ---

TEST_F(JcWriting, AKeyPairIsMadeUnderARandomName)
{
    expect("80 14 31 00 02 00 10", toHex(FRESH) + " 90 00", 18);
    expect("80 11 23 00 15 08 00 08 00 10 00 01 23 45 67 89 AB CD EF FE DC BA 98 76 54 F0", OK,
           2050);
    expectLoad({{FRESH, {RSA_PAIR}}});
    EXPECT_EQ(CKR_OK, generate(RSA));
    EXPECT_EQ(2U, expectEntries(0, 0, {FRESH, {RSA_PAIR}}));
    EXPECT_EQ(4711U, publicHandle); // labels are not the names
    EXPECT_EQ(4712U, privateHandle);
    EXPECT_EQ(0U, oiFlags);
    EXPECT_MESSAGES(mark, "JaCarta GenerateRandom CKR_OK", "VELTObjectsInit",
                    "VELTObjectsInit Do init = true", "JaCarta ObjectsInit Objects Count = 0x2",
                    "JaCarta ObjectsInit CKR_OK", "VELTObjectsInit complete",
                    "VELTObjectsInit CKR_OK", "JaCarta GenerateKeyPair CKR_OK");

    expect("80 14 31 00 02 00 10", toHex(FRESH) + " 90 00", 18);
    expect("80 11 20 00 13 01 00 10 00 01 23 45 67 89 AB CD EF FE DC BA 98 76 54 F0",
           "01 02 03 90 00", 2050);
    expectLoad({{FRESH, {GOST_PRIVATE, GOST_PUBLIC}}});
    EXPECT_EQ(CKR_OK, generate(GOST));
    EXPECT_EQ(2U, expectEntries(0, 0, {FRESH, {GOST_PRIVATE, GOST_PUBLIC}}));
    EXPECT_EQ(4711U, publicHandle);
    EXPECT_EQ(4712U, privateHandle);
}

TEST_F(JcWriting, HandlesAreToldWhereALabelReadsAsTheRandomBytes)
{
    const Named other{hex("77"), {CERTIFICATE, RSA_PAIR}};
    // eight bytes as sixteen digits
    expectHandles(text("0123456789ABCDEF"),
                  {other, {hex("01 23 45 67 89 AB CD EF"), {CERTIFICATE, RSA_PAIR}}}, 5, 6);
    // up to the first zero byte
    expectHandles(text("0A1B") + Bytes{0} + pattern(11),
                  {other, {NAME, {GOST_PRIVATE, GOST_PUBLIC}}}, 5, 4);
    // the last of several
    expectHandles(text("0A1B") + Bytes(12), {{NAME, {GOST_PRIVATE, GOST_PUBLIC, RSA_PAIR}}, other},
                  3, 4);
    expectHandles(text("0A1B") + Bytes(12), {{NAME, {RSA_PAIR}}, {NAME, {RSA_PAIR}}}, 3, 4);
    // one kind only
    expectHandles(text("0A1B") + Bytes(12), {{NAME, {GOST_PUBLIC, CERTIFICATE}}}, 1, 4712);
    // neither beginnings nor continuations, nor entries that are not made
    expectHandles(text("0A1B") + Bytes(12),
                  {{hex("0A"), {RSA_PAIR}}, {hex("0A 1B 2C"), {RSA_PAIR}}}, 4711, 4712);
    expectHandles(text("0a1b") + Bytes(12), {{NAME, {RSA_PAIR}}}, 4711, 4712);
    expectHandles(Bytes(16), {{NAME, {RSA_PAIR}}}, 4711, 4712);
}

TEST_F(JcWriting, AShortRandomReplyLeavesZerosInTheName)
{
    expect(hex(GET_RANDOM), hex("AA BB CC 90 00"), 18);
    expect(generation(GOST, hex("AA BB CC") + Bytes(13)), hex(OK), 2050);
    expectLoad({});
    EXPECT_EQ(CKR_OK, generate(GOST));
    expectFetched(hex(GET_RANDOM), pattern(20), 18);
    expect(generation(RSA, slice(pattern(20), 0, 16)), hex(OK), 2050);
    expectLoad({});
    EXPECT_EQ(CKR_OK, generate(RSA));
}

TEST_F(JcWriting, AFailureAtEachExchangeOfANewKeyPair)
{
    load({{NAME, {RSA_PAIR}}});
    for (const CK_MECHANISM_TYPE type : {RSA, GOST}) {
        failAtEach(
            {{hex(GET_RANDOM),
              FRESH + hex(OK),
              18,
              {"JaCarta GenerateRandom CKR_FUNCTION_FAILED#",
               numbered("JaCarta GenerateKeyPair gen label error ", 6)},
              {"JaCarta GenerateRandom CKR_OK"}},
             {generation(type, FRESH),
              hex(OK),
              2050,
              {"JaCarta GenerateKeyPair CKR_FUNCTION_FAILED#"}}},
            CKR_FUNCTION_FAILED, [] {},
            [&] {
                const CK_RV result = generate(type);
                EXPECT_EQ(4711U, publicHandle);
                EXPECT_EQ(4712U, privateHandle);
                EXPECT_EQ(0U, oiFlags); // nothing to reload
                EXPECT_EQ(2U, ulObjCount);
                return result;
            });
    }
}

TEST_F(JcWriting, WithoutALoginNoKeyPairIsMade)
{
    expect(GET_RANDOM, "64 14", 18);
    EXPECT_EQ(CKR_FUNCTION_FAILED, generate(RSA));
    EXPECT_MESSAGES(mark, "JaCarta GenerateRandom CKR_USER_NOT_LOGGED_IN",
                    numbered("JaCarta GenerateKeyPair gen label error ", 0x101));
    for (const CK_MECHANISM_TYPE type : {RSA, GOST}) {
        mark.reset();
        expect(hex(GET_RANDOM), FRESH + hex(OK), 18);
        expect(generation(type, FRESH), hex("64 14"), 2050);
        EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, generate(type));
        EXPECT_MESSAGES(mark, "JaCarta GenerateRandom CKR_OK",
                        "JaCarta GenerateKeyPair CKR_USER_NOT_LOGGED_IN");
    }
}

TEST_F(JcWriting, OtherMechanismsDrawANameAndMakeNoKeyPair)
{
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{0x1}, CK_MECHANISM_TYPE{0x84B5A002},
          CK_MECHANISM_TYPE{0xFFFFFFFF84B5A001}, CK_MECHANISM_TYPE{0x100000000}}) {
        mark.reset();
        expect(hex(GET_RANDOM), FRESH + hex(OK), 18);
        EXPECT_EQ(CKR_MECHANISM_INVALID, generate(type));
        EXPECT_MESSAGES(mark, "JaCarta GenerateRandom CKR_OK");
        expectAllExchanged();
    }
}

TEST_F(JcWriting, AReloadThatFailsAfterTheKeyPairWasMade)
{
    expectGenerated(RSA, FRESH);
    expect("80 12 22 00 00", "6F 00", 4);
    EXPECT_EQ(CKR_DEVICE_ERROR, generate(RSA));
    EXPECT_EQ(4711U, publicHandle);
    EXPECT_EQ(4712U, privateHandle);
    EXPECT_NE(0U, oiFlags & 1U); // the next operation tries again
    expectAllExchanged();

    begin();
    expectGenerated(GOST, FRESH);
    expectCount(1);
    alloc::failNth(1);
    EXPECT_EQ(CKR_HOST_MEMORY, generate(GOST));
    alloc::clear();
    EXPECT_EQ(4711U, publicHandle);
    EXPECT_EQ(4712U, privateHandle);
}

TEST_F(JcWriting, AReloadSelectsAnAppletThatIsNotSelected)
{
    JCAppletSelected = 0;
    expectGenerated(RSA, FRESH);
    expectSelection();
    expectLoad({{FRESH, {RSA_PAIR}}});
    EXPECT_EQ(CKR_OK, generate(RSA));
    EXPECT_EQ(1, JCAppletSelected);
}

// --- destruction ---

TEST_F(JcWriting, ANameIsDestroyedAsTheTokenSpellsIt)
{
    load({{NAME, {RSA_PAIR}}, {pattern(20), {CERTIFICATE}}});
    expect("80 12 23 00 04 00 02 0A 1B", OK, 2);
    EXPECT_EQ(CKR_OK, destroy(1));
    expect(hex("80 12 23 00 16 00 14") + pattern(20), hex(OK), 2);
    EXPECT_EQ(CKR_OK, destroy(3));
    mark.reset();
    expect("80 12 23 00 04 00 02 0A 1B", "64 14", 2);
    EXPECT_EQ(CKR_FUNCTION_FAILED, destroy(2));
    EXPECT_MESSAGES(mark, "JaCarta DestroyObject APDU error 0x1464");
}

} // namespace
