// The JaCarta's names, public keys and certificates.
#include "tests/support/jc_fixture.h"

using namespace velt_test;

namespace {

const Bytes NAME = hex("0A 1B");

class JcObjects : public JcTest {
protected:
    static Bytes modulusOf(CK_OBJECT_HANDLE handle)
    {
        return {std::begin(publicKey(handle).modulus), std::end(publicKey(handle).modulus)};
    }
    static Bytes valueOf(CK_OBJECT_HANDLE handle)
    {
        return {std::begin(publicKey(handle).value), std::end(publicKey(handle).value)};
    }
};

constexpr std::string_view GET_RSA = "80 12 25 00 04 00 02 0A 1B";
constexpr std::string_view GET_GOST = "80 11 21 00 04 00 02 0A 1B";

// --- names ---

TEST_F(JcObjects, ALoadAsTheTokenSpellsIt)
{
    expect("80 12 22 00 00", "00 01 90 00", 4);
    expect("80 12 21 00 02 00 00", "0A 1B 90 00", 1026);
    expect("80 12 24 00 06 00 02 0A 1B 00 00", "64 28", 258);
    expect("80 12 24 00 06 00 02 0A 1B 00 01", "64 19", 258);
    expect("80 12 24 00 06 00 02 0A 1B 00 02", "90 00", 258);
    expect("80 12 24 00 06 00 02 0A 1B 00 03", "90 00", 258);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(3U, expectEntries(0, 0, {NAME, {CERTIFICATE, RSA_PAIR}}));
    EXPECT_EQ(3U, ulObjCount);
    EXPECT_MESSAGES(mark, "JaCarta ObjectsInit Objects Count = 0x3", "JaCarta ObjectsInit CKR_OK");
}

TEST_F(JcObjects, ZeroBytesBelongToAName)
{
    const std::vector<Named> objects{
        {hex("00"), {CERTIFICATE}},
        {hex("00 00"), {RSA_PAIR}},
        {hex("41 00 42"), {GOST_PRIVATE}},
        {hex("41 42 00"), {GOST_PUBLIC}},
        {Bytes(20, 0x00), {CERTIFICATE, RSA_PAIR}},
        {hex("41 42 90 00"), {CERTIFICATE}},
    };
    load(objects);
    std::size_t entries = 0;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        entries = expectEntries(entries, i, objects[i]);
    }
    EXPECT_EQ(entries, ulObjCount);
    EXPECT_EQ(0, std::memcmp("410042", VELTObj[3].label, 7));

    expect("80 12 28 00 05 00 03 41 00 42", "6F 00", 2050);
    EXPECT_EQ(2U, getCertificate(4));
    expect("80 11 21 00 05 00 03 41 42 00", "6F 00", 66);
    EXPECT_EQ(2U, getPublicKey(5));
}

TEST_F(JcObjects, NamesBeyond20BytesAreCut)
{
    std::vector<Named> cut;
    expectCount(4);
    for (const std::size_t size : {20U, 21U, 255U, 1024U}) {
        const Bytes whole = pattern(size, static_cast<std::uint32_t>(size));
        cut.push_back({slice(whole, 0, 20), {CERTIFICATE}});
        expect(getName(cut.size() - 1), whole + hex(OK), 1026);
        expectProbes(cut.back());
    }
    EXPECT_EQ(0U, loadObjects());
    for (std::size_t i = 0; i < cut.size(); ++i) {
        expectCertificateEntry(i, i, cut[i].name);
    }
    expectSteps(readingJaCarta(cut[3].name, gzipMember(Certificate{}.encode())));
    EXPECT_EQ(CKR_OK, getCertificate(4));
}

TEST_F(JcObjects, AnEmptyNameIsAskedForLikeAnyOther)
{
    expectCount(1);
    expect("80 12 21 00 02 00 00", OK, 1026);
    expect("80 12 24 00 04 00 00 00 00", "64 28", 258);
    expect("80 12 24 00 04 00 00 00 01", "64 28", 258);
    expect("80 12 24 00 04 00 00 00 02", OK, 258);
    expect("80 12 24 00 04 00 00 00 03", "64 28", 258);
    EXPECT_EQ(0U, loadObjects());
    expectCertificateEntry(0, 0, {});

    // its label is found, but gives no name
    EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, createNamed({}, pattern(40)));
}

TEST_F(JcObjects, ACountWithoutItsBytesIsTakenFromTheStatus)
{
    expect("80 12 22 00 00", OK, 4);
    expect("80 12 21 00 02 00 00", "6F 00", 1026);
    EXPECT_EQ(2U, loadObjects());
    EXPECT_EQ(0x9000U * 3, velt::objectTableSize());
    EXPECT_EQ(0U, ulObjCount);

    expect("80 12 22 00 00", "01 90 00", 4);
    expect("80 12 21 00 02 00 00", "6F 00", 1026);
    EXPECT_EQ(2U, loadObjects());
    EXPECT_EQ(0x0190U * 3, velt::objectTableSize());
}

// --- public keys ---

TEST_F(JcObjects, AModulusFollowsThreeBytesOfHeader)
{
    load({{NAME, {RSA_PAIR}}});
    for (const std::size_t size : {256U, 128U, 255U}) {
        mark.reset();
        expect(hex(GET_RSA), hex("02 01 00") + pattern(size) + hex(OK), 512);
        EXPECT_EQ(CKR_OK, getPublicKey(1));
        EXPECT_EQ(size * 8, publicKey(1).modulusBits);
        EXPECT_EQ(pattern(size), slice(modulusOf(1), 0, size));
        EXPECT_MESSAGES(mark, "JaCarta GetPublicKey CKR_OK");
    }
    EXPECT_EQ(3U, publicKey(1).publicExponentLen);
    EXPECT_EQ(hex("01 00 01 00 00"), Bytes(std::begin(publicKey(1).publicExponent),
                                           std::end(publicKey(1).publicExponent)));
    EXPECT_EQ(0U, publicKey(1).valueLen);
}

TEST_F(JcObjects, AReplyWithoutTheWholeHeaderHasNoModulus)
{
    load({{NAME, {RSA_PAIR}}});
    for (const Bytes& data : {Bytes{}, hex("02"), hex("02 01"), hex("02 01 00")}) {
        expect(hex(GET_RSA), data + hex(OK), 512);
        EXPECT_EQ(CKR_OK, getPublicKey(1));
        EXPECT_EQ(0U, publicKey(1).modulusBits);
        EXPECT_EQ(Bytes(256, 0x00), modulusOf(1));
    }
    expect(hex(GET_RSA), hex("02 01 00 C7 90 00"), 512);
    EXPECT_EQ(CKR_OK, getPublicKey(1));
    EXPECT_EQ(8U, publicKey(1).modulusBits);
    EXPECT_EQ(Bytes{0xC7} + Bytes(255, 0x00), modulusOf(1));
}

TEST_F(JcObjects, AModulusBeyondItsFieldIsCut)
{
    load({{NAME, {RSA_PAIR}}});
    for (const std::size_t size : {257U, 507U}) {
        expect(hex(GET_RSA), hex("02 01 00") + pattern(size) + hex(OK), 512);
        EXPECT_EQ(CKR_OK, getPublicKey(1));
        EXPECT_EQ(2048U, publicKey(1).modulusBits);
        EXPECT_EQ(pattern(256, 1), slice(modulusOf(1), 0, 256));
        EXPECT_EQ(hex("01 00 01 00 00"), Bytes(std::begin(publicKey(1).publicExponent),
                                               std::end(publicKey(1).publicExponent)));
    }
}

TEST_F(JcObjects, AGostValueIsTurnedRoundInItsHalves)
{
    load({{NAME, {GOST_PRIVATE, GOST_PUBLIC}}});
    Bytes reply(64);
    for (std::size_t i = 0; i < 64; ++i) {
        reply[i] = static_cast<std::uint8_t>(i + 1);
    }
    expect(hex(GET_GOST), reply + hex(OK), 66);
    EXPECT_EQ(CKR_OK, getPublicKey(2));
    EXPECT_EQ(64U, publicKey(2).valueLen);
    EXPECT_EQ(turned(reply), valueOf(2));
    EXPECT_EQ(32, valueOf(2)[0]);
    EXPECT_EQ(1, valueOf(2)[31]);
    EXPECT_EQ(64, valueOf(2)[32]);
    EXPECT_EQ(33, valueOf(2)[63]);
    EXPECT_EQ(0U, publicKey(2).modulusBits);
    EXPECT_MESSAGES(mark, "JaCarta GetPublicKey CKR_OK");
}

TEST_F(JcObjects, AShortGostReplyLeavesTheRestToWhatStandsInTheBuffer)
{
    load({{NAME, {GOST_PUBLIC}}});
    for (const std::size_t size : {0U, 1U, 31U, 32U, 40U, 63U}) {
        SCOPED_TRACE(size);
        const Bytes before = pattern(2050, 9);
        std::ranges::copy(before, pbyOutput.begin());
        expect(hex(GET_GOST), pattern(size) + hex(OK), 66);
        EXPECT_EQ(CKR_OK, getPublicKey(1));
        EXPECT_EQ(size, publicKey(1).valueLen);
        const Bytes buffer = pattern(size) + hex(OK) + slice(before, size + 2, 64);
        EXPECT_EQ(turned(buffer), valueOf(1));
    }
}

TEST_F(JcObjects, AGostReplyBeyond64BytesIsCut)
{
    load({{NAME, {GOST_PUBLIC}}});
    const Bytes longer = pattern(70);
    expectFetched(hex(GET_GOST), longer, 66);
    EXPECT_EQ(CKR_OK, getPublicKey(1));
    EXPECT_EQ(64U, publicKey(1).valueLen);
    EXPECT_EQ(turned(longer), valueOf(1));
}

TEST_F(JcObjects, AFailedPublicKeyReadIsToldByItsKind)
{
    failAtEach(
        {{hex(GET_RSA), {}, 512, {"JaCarta GetPublicKey APDU get RSA public key error #"}}}, 2,
        [this] {
            load({{NAME, {RSA_PAIR}}});
        },
        [this] {
            const CK_RV result = getPublicKey(1);
            expectPublicKey(0, 0, NAME, CKK_RSA);
            return result;
        });
    failAtEach(
        {{hex(GET_GOST), {}, 66, {"JaCarta GetPublicKey APDU get GOST public key error #"}}}, 2,
        [this] {
            load({{NAME, {GOST_PUBLIC}}});
        },
        [this] {
            const CK_RV result = getPublicKey(1);
            expectPublicKey(0, 0, NAME, GOST_KEY_TYPE);
            return result;
        });
}

// --- certificates ---

TEST_F(JcObjects, ACertificateReadAsTheTokenSpellsIt)
{
    load({{NAME, {CERTIFICATE}}});
    const Bytes encoded = Certificate{}.encode();
    expect(hex("80 12 28 00 04 00 02 0A 1B"), gzipMember(encoded) + hex(OK), 2050);
    EXPECT_EQ(CKR_OK, getCertificate(1));
    EXPECT_EQ(encoded.size(), certificate(1).valueLen);
}

TEST_F(JcObjects, AStoredCertificateBeyondTheReplyBufferFailsTheExchange)
{
    load({{NAME, {CERTIFICATE}}});
    expectSteps(readingJaCarta(NAME, gzipMemberOf(Certificate{}.encode(), 2049)));
    EXPECT_EQ(2U, getCertificate(1));
    EXPECT_EQ(0U, certificate(1).valueLen);
    EXPECT_MESSAGES(mark, numbered("JaCarta GetCertificate APDU error ",
                                   pcscCode(SCARD_E_INSUFFICIENT_BUFFER)));
}

TEST_F(JcObjects, ACertificateHandedOutInPiecesIsReadWhole)
{
    load({{NAME, {CERTIFICATE}}});
    const Bytes encoded = Certificate{}.encode();
    const Bytes stored = gzipMemberOf(encoded, 500);
    expectFetched(hex("80 12 28 00 04 00 02 0A 1B"), stored, 2050);
    EXPECT_EQ(CKR_OK, getCertificate(1));
    EXPECT_EQ(encoded.size(), certificate(1).valueLen);
}

} // namespace
