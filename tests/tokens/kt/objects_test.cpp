// The KAZTOKEN's map file and the objects made of it, public keys and certificates.
#include "tests/support/idc_certificates.h"
#include "tests/support/kt_fixture.h"

#include <cstring>

using namespace velt_test;

namespace {

class KtObjects : public KtTest {
protected:
    void expectEntry(std::size_t position, const Pair& pair, CK_OBJECT_CLASS objClass)
    {
        SCOPED_TRACE(position);
        const ObjectEntry* entry = velt::entryAt(position);
        ASSERT_TRUE(velt::isLive(entry));
        EXPECT_EQ(position + 1, entry->handle);
        EXPECT_EQ(3U, entry->familyCode);
        EXPECT_EQ(objClass, entry->objClass);
        EXPECT_EQ(0, entry->isPrivate);
        EXPECT_EQ(1, entry->isToken);
        EXPECT_EQ(0, entry->isModifiable);
        Bytes label = text(pair.label);
        EXPECT_EQ(label.size(), entry->cardNameLen);
        label.resize(50);
        EXPECT_EQ(label, Bytes(std::begin(entry->label), std::end(entry->label)));
        EXPECT_EQ(label, Bytes(std::begin(entry->cardName), std::end(entry->cardName)));
        Bytes id{pair.id};
        id.resize(64);
        EXPECT_EQ(id, Bytes(std::begin(entry->id), std::end(entry->id)));
    }

    void expectCertificateSelected(std::size_t size)
    {
        expect(selectForFcp(0x04, 0x01), fcp(size) + hex(OK), 258);
    }
    CK_RV getCertificate(CK_OBJECT_HANDLE handle)
    {
        return fGetCertificateKT(table, session, handle);
    }
    CK_RV getPublicKey(CK_OBJECT_HANDLE handle) { return fGetPublicKeyKT(table, session, handle); }
};

// --- the map file ---

TEST_F(KtObjects, ATokenWithoutAMapFileGetsItsDirectoryAndHasNoObjects)
{
    for (const std::string_view created : {"90 00", "6A 8A", "69 82"}) {
        mark.reset();
        lastID = 66;
        expect(SELECT_MAP, NO_FILE, 4);
        expect(SELECT_1000, OK, 4);
        expect(CREATE_1010, created, 4);
        EXPECT_EQ(0U, loadObjects());
        EXPECT_MESSAGES(mark, "KAZTOKEN ObjectsInit CKR_OK");
        EXPECT_EQ(0U, tmpObjCount);
        EXPECT_EQ(66U, lastID); // not looked at
        EXPECT_EQ(4U, mapFileLen);
        EXPECT_EQ(hex("01 00 00 10 00"), Bytes(mapFile.begin(), mapFile.begin() + 5));
        EXPECT_EQ(nullptr, VELTObj);
        EXPECT_EQ(0U, ulObjCount);
    }
}

TEST_F(KtObjects, AFailureAtEachExchangeThatMakesTheDirectoryEndsTheLoad)
{
    failAtEach(
        {{hex(SELECT_MAP),
          hex(NO_FILE),
          4,
          {"KAZTOKEN ObjectsInit 1 APDU select map file error #"}},
         {hex(SELECT_1000),
          hex(OK),
          4,
          {"KAZTOKEN ObjectsInit APDU select dir for create map file error #"}},
         {hex(CREATE_1010), hex(OK), 4, {"KAZTOKEN ObjectsInit APDU create map file error #"}}},
        2, [] {}, [this] { return loadObjects(); });
}

TEST_F(KtObjects, AFailureAtEachExchangeOfTheMapFileLeavesTheOldObjects)
{
    const Bytes map = pattern(300);
    const Pair old{0x01, "old"};
    failAtEach(
        {{hex(SELECT_MAP), hex(OK), 4, {"KAZTOKEN ObjectsInit 1 APDU select map file error #"}},
         {hex(SELECT_MAP_FCP),
          fcp(300) + hex(OK),
          258,
          {"KAZTOKEN ObjectsInit 2 APDU select map file error #"}},
         {hex("00 B0 00 00 00"),
          slice(map, 0, 256) + hex(OK),
          258,
          {"KAZTOKEN readBinary APDU read file error #"}},
         {hex("00 B0 01 00 2C"),
          slice(map, 256, 44) + hex(OK),
          46,
          {"KAZTOKEN readBinary APDU select map file error #"}}},
        2, [this, old] { load({old}); },
        [this, old] {
            const CK_RV result = loadObjects();
            EXPECT_EQ(3U, ulObjCount);
            expectEntry(0, old, CKO_PUBLIC_KEY);
            return result;
        });
}

TEST_F(KtObjects, ControlParametersWithoutTheirTagEndTheLoad)
{
    for (const std::string_view reply : {"6F 10 80 02 00 04 82 02 01 00 90 00", "90 00"}) {
        mark.reset();
        hiByte = 0x55;
        loByte = 0x55;
        expect(SELECT_MAP, OK, 4);
        expect(SELECT_MAP_FCP, reply, 258);
        EXPECT_EQ(2U, loadObjects());
        EXPECT_EQ(0, hiByte);
        EXPECT_EQ(0, loByte);
        EXPECT_MESSAGES(mark, "KAZTOKEN Parse TLV error ");
    }
}

TEST_F(KtObjects, AMapFileOfTheHeaderAloneHasNoRecords)
{
    expectMap(hex("01 00 00 10"));
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(0U, tmpObjCount);
    EXPECT_EQ(0U, lastID);
    EXPECT_EQ(4U, mapFileLen);
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_MESSAGES(mark, "KAZTOKEN ObjectsInit CKR_OK");
}

TEST_F(KtObjects, AnEmptyMapFileReadsAsTheHeaderWhenItsReadSucceeds)
{
    expectMapSelected(0);
    expect("00 B0 00 00 00", OK, 2);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(4U, mapFileLen);
    EXPECT_EQ(hex("01 00 00 10"), Bytes(mapFile.begin(), mapFile.begin() + 4));
    EXPECT_EQ(0U, lastID);

    mark.reset();
    expectMapSelected(0);
    expect("00 B0 00 00 00", "6B 00", 2);
    EXPECT_EQ(2U, loadObjects());
    EXPECT_MESSAGES(mark, numbered("KAZTOKEN readBinary APDU select map file error ", 0x006B));
}

TEST_F(KtObjects, FilesOfEverySizeAreReadInBlocksAndARest)
{
    const Bytes content = pattern(2048);
    for (const std::size_t size : {0U, 1U, 255U, 256U, 257U, 258U, 511U, 512U, 2047U, 2048U}) {
        SCOPED_TRACE(size);
        hiByte = static_cast<std::uint8_t>(size >> 8);
        loByte = static_cast<std::uint8_t>(size & 0xFF);
        std::array<std::uint8_t, 2048> buffer{};
        buffer.fill(SENTINEL);
        std::uint64_t length = buffer.size();
        expectFile(slice(content, 0, size));
        EXPECT_EQ(0U, readBinary(session, buffer, &length));
        EXPECT_EQ(size, length);
        EXPECT_EQ(slice(content, 0, size) + Bytes(2048 - size, SENTINEL),
                  Bytes(buffer.begin(), buffer.end()));
        expectAllExchanged();
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(KtObjects, AFileOf0102HexBytesIsABlockAndTwoBytes)
{
    hiByte = 1;
    loByte = 2;
    std::array<std::uint8_t, 300> buffer{};
    std::uint64_t length = buffer.size();
    expect(hex("00 B0 00 00 00"), pattern(256) + hex(OK), 258);
    expect("00 B0 01 00 02", "AA BB 90 00", 4);
    EXPECT_EQ(0U, readBinary(session, buffer, &length));
    EXPECT_EQ(258U, length);
    EXPECT_EQ(pattern(256) + hex("AA BB"), slice(Bytes(buffer.begin(), buffer.end()), 0, 258));
}

TEST_F(KtObjects, AMapFileBeyondTheImageEndsTheLoadWithThree)
{
    const Bytes content = pattern(2304);
    expectMapSelected(2304);
    for (std::uint8_t i = 0; i < 9; ++i) { // the ninth has no room
        expect(Bytes{0x00, 0xB0, i, 0x00, 0x00}, slice(content, i * 256U, 256) + hex(OK), 258);
    }
    EXPECT_EQ(3U, loadObjects());
    EXPECT_MESSAGES(mark, "KAZTOKEN readBinary APDU buffer too small error");

    mark.reset();
    expectMap(slice(content, 0, 2049));
    EXPECT_EQ(3U, loadObjects());
    EXPECT_MESSAGES(mark, "KAZTOKEN readBinary 2 buffer too small error");
}

TEST_F(KtObjects, ChainedRepliesCountWholeAgainstTheBuffer)
{
    const Bytes content = pattern(300);
    hiByte = 1;
    loByte = 0;
    std::array<std::uint8_t, 299> small{};
    std::uint64_t length = 4711;
    expectFetched(hex("00 B0 00 00 00"), content, 258);
    EXPECT_EQ(3U, readBinary(session, small, &length));
    EXPECT_EQ(4711U, length);
    EXPECT_MESSAGES(mark, "KAZTOKEN readBinary APDU buffer too small error");

    mark.reset();
    std::array<std::uint8_t, 301> enough{};
    enough.fill(SENTINEL);
    expectFetched(hex("00 B0 00 00 00"), content, 258);
    expect("00 B0 01 00 00", OK, 2);
    EXPECT_EQ(0U, readBinary(session, enough, &length));
    EXPECT_EQ(300U, length);
    EXPECT_EQ(content + Bytes{SENTINEL}, Bytes(enough.begin(), enough.end()));
    EXPECT_MESSAGES(mark);
}

TEST_F(KtObjects, TheLastRecordGivesTheLastId)
{
    const Bytes map = mapOf({{0x01, "first"}, {0x02, "second"}});
    EXPECT_EQ(0U, mapFileParser(map.data(), map.size()));
    EXPECT_EQ(2U, tmpObjCount);
    EXPECT_EQ(2U, lastID);
    EXPECT_EQ(6U, tmpLabelLen[0]);
    EXPECT_EQ(7U, tmpLabelLen[1]);
    EXPECT_EQ(Bytes{0x01} + text("first"),
              slice(Bytes(tmpLabel[0].begin(), tmpLabel[0].end()), 0, 6));
    EXPECT_EQ(Bytes{0x02} + text("second"),
              slice(Bytes(tmpLabel[1].begin(), tmpLabel[1].end()), 0, 7));
}

TEST_F(KtObjects, ARecordWithoutItsTerminatorEndsWithTheImage)
{
    Bytes map = mapOf({{0x01, "first"}, {0x02, "second"}});
    map.pop_back();
    map.shrink_to_fit();
    EXPECT_EQ(0U, mapFileParser(map.data(), map.size()));
    EXPECT_EQ(2U, tmpObjCount);
    EXPECT_EQ(7U, tmpLabelLen[1]);
    EXPECT_EQ(2U, lastID);
}

TEST_F(KtObjects, FiftyRecordsAreLoadedAndTheFiftyFirstIsLeftOut)
{
    std::vector<Pair> pairs;
    for (std::uint8_t id = 1; id <= 51; ++id) {
        pairs.push_back({id, "pair " + std::to_string(id), RSA, false});
    }
    for (const std::size_t count : {50U, 51U}) {
        const std::vector<Pair> listed(pairs.begin(), pairs.begin() + static_cast<int>(count));
        const Bytes map = mapOf(listed);
        expectMap(map);
        for (std::size_t i = 0; i < 50; ++i) {
            expectProbes(pairs[i]);
        }
        EXPECT_EQ(0U, loadObjects());
        EXPECT_EQ(50U, tmpObjCount);
        EXPECT_EQ(100U, ulObjCount);
        EXPECT_EQ(count, lastID);
        EXPECT_EQ(map.size(), mapFileLen);
        EXPECT_EQ(map, slice(Bytes(mapFile.begin(), mapFile.end()), 0, map.size()));
        expectEntry(99, pairs[49], CKO_PRIVATE_KEY);
        expectAllExchanged();
    }
}

TEST_F(KtObjects, ARecordOver39BytesMakesNoObjects)
{
    const Pair longest{0x01, std::string(38, 'x'), RSA, false};
    const Pair tooLong{0x02, std::string(39, 'y'), RSA, false};
    const Pair last{0x03, "z", GOST, false};
    const Bytes map = mapOf({longest, tooLong, last});
    expectMap(map);
    expectProbes(longest);
    expectProbes(last);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(2U, tmpObjCount);
    EXPECT_EQ(39U, tmpLabelLen[0]);
    EXPECT_EQ(3U, lastID);
    EXPECT_EQ(map.size(), mapFileLen);
    expectEntry(0, longest, CKO_PUBLIC_KEY);
    expectEntry(2, last, CKO_PRIVATE_KEY);
    EXPECT_EQ(4U, ulObjCount);
}

TEST_F(KtObjects, AnEmptyRecordIsProbedAsIdZero)
{
    expectMap(hex("01 00 00 10 00"));
    expectProbes({0x00, "", RSA, true});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(1U, tmpObjCount);
    EXPECT_EQ(0U, lastID);
    EXPECT_EQ(3U, ulObjCount);
    expectEntry(2, {0x00, ""}, CKO_CERTIFICATE);
}

// --- objects ---

TEST_F(KtObjects, AnRsaPairWithItsCertificateMakesThreeObjects)
{
    const Pair pair{0x01, "0123456789abcdef0123456789abcdef"};
    expectLoad({pair});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_MESSAGES(mark, "KAZTOKEN ObjectsInit CKR_OK");
    EXPECT_EQ(3U, ulObjCount);
    EXPECT_EQ(3U, velt::objectTableSize());
    expectEntry(0, pair, CKO_PUBLIC_KEY);
    expectEntry(1, pair, CKO_PRIVATE_KEY);
    expectEntry(2, pair, CKO_CERTIFICATE);
    EXPECT_EQ(0, std::memcmp(&pubKeyAttrTempl, VELTObj[0].attrs, sizeof(PubKeyAttr)));
    EXPECT_EQ(0, std::memcmp(&privKeyAttrTempl, VELTObj[1].attrs, sizeof(PrivKeyAttr)));
    EXPECT_EQ(0, std::memcmp(&certAttrTempl, VELTObj[2].attrs, sizeof(CertAttr)));
}

TEST_F(KtObjects, AGostPairHasItsPrivateKeyFirst)
{
    const Pair pair{0x01, "gost", GOST, false};
    expectLoad({pair});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_MESSAGES(mark, numbered("KAZTOKEN ObjectsInit APDU no certificate ", 0x826A),
                    "KAZTOKEN ObjectsInit CKR_OK");
    EXPECT_EQ(2U, ulObjCount);
    expectEntry(0, pair, CKO_PRIVATE_KEY);
    expectEntry(1, pair, CKO_PUBLIC_KEY);
    EXPECT_EQ(REMOVED_MARKER, velt::entryAt(2)->handle);
    EXPECT_EQ(0x84B5A001U, velt::privateKeyOf(velt::entryAt(0))->keyType);
    PubKeyAttr expectedKey = pubKeyAttrTempl;
    expectedKey.keyType = 0x84B5A001;
    EXPECT_EQ(0, std::memcmp(&expectedKey, VELTObj[1].attrs, sizeof expectedKey));
}

TEST_F(KtObjects, AKeyFileOfAnotherKindLeavesItsCertificateAlone)
{
    const Pair odd{0x01, "odd", 0x13};
    const Pair rsa{0x02, "rsa"};
    expectLoad({odd, rsa});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(4U, ulObjCount);
    expectEntry(0, odd, CKO_CERTIFICATE);
    expectEntry(1, rsa, CKO_PUBLIC_KEY);
    expectEntry(2, rsa, CKO_PRIVATE_KEY);
    expectEntry(3, rsa, CKO_CERTIFICATE);
}

TEST_F(KtObjects, AShortKeyFileReplyIsJudgedByWhatStandsInTheBuffer)
{
    const Pair pair{0x01, "rsa", RSA, false};
    const Pair next{0x02, "next", RSA, false};
    expectMap(mapOf({pair, next}));
    expectProbes(pair);
    expect(selectForFcp(0x02, 0x02), hex(OK), 258);
    expect(selectForFcp(0x04, 0x02), hex(NO_FILE), 258);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(4U, ulObjCount);
    expectEntry(2, next, CKO_PUBLIC_KEY);
}

TEST_F(KtObjects, AKeyFileThatCannotBeSelectedEndsTheLoadWithTheEntriesSoFar)
{
    const Pair first{0x01, "first", GOST};
    const Pair second{0x02, "second"};
    const Bytes map = mapOf({first, second});
    failAtEach(
        {{hex(SELECT_MAP), hex(OK)},
         {hex(SELECT_MAP_FCP), fcp(map.size()) + hex(OK), 258},
         {Bytes{0x00, 0xB0, 0x00, 0x00, std::uint8_t(map.size())}, map + hex(OK), map.size() + 2},
         {selectForFcp(0x02, 0x01), fcp(64, GOST) + hex(OK), 258},
         {selectForFcp(0x04, 0x01), fcp(500) + hex(OK), 258},
         {selectForFcp(0x02, 0x02),
          {},
          258,
          {"KAZTOKEN ObjectsInit 2 APDU select map file error #"}}},
        2, [] { velt::rebuildObjects(0); },
        [this, first] {
            const CK_RV result = loadObjects();
            EXPECT_EQ(3U, ulObjCount);
            expectEntry(2, first, CKO_CERTIFICATE);
            EXPECT_EQ(6U, velt::objectTableSize());
            EXPECT_EQ(REMOVED_MARKER, velt::entryAt(3)->handle);
            return result;
        });
}

TEST_F(KtObjects, ALostCertificateProbeLeavesTheCertificateOut)
{
    const Pair pair{0x01, "rsa"};
    expectMap(mapOf({pair}));
    expect(selectForFcp(0x02, 0x01), fcp(256, RSA) + hex(OK), 258);
    expectLost(selectForFcp(0x04, 0x01), SCARD_E_COMM_DATA_LOST, 258);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(2U, ulObjCount);
    EXPECT_MESSAGES(
        mark,
        numbered("KAZTOKEN ObjectsInit APDU no certificate ", pcscCode(SCARD_E_COMM_DATA_LOST)),
        "KAZTOKEN ObjectsInit CKR_OK");
}

TEST_F(KtObjects, EveryAllocationThatFailsEndsTheLoadWithOne)
{
    for (std::size_t n = 1; n <= 4; ++n) { // the table and three blocks
        SCOPED_TRACE(n);
        const Pair pair{0x01, "rsa"};
        expectMap(mapOf({pair}));
        if (n > 1) {
            expect(selectForFcp(0x02, 0x01), fcp(256, RSA) + hex(OK), 258);
        }
        if (n > 3) {
            expect(selectForFcp(0x04, 0x01), fcp(300) + hex(OK), 258);
        }
        mark.reset();
        alloc::failNth(n);
        EXPECT_EQ(1U, loadObjects());
        alloc::clear();
        EXPECT_MESSAGES(mark);
        EXPECT_EQ(n < 2 ? 0 : n - 2, ulObjCount);
        expectAllExchanged();
    }
}

// --- public keys ---

TEST_F(KtObjects, AnRsaModulusIsTurnedRound)
{
    load({{0x03, "rsa"}});
    Bytes reply(256);
    for (std::size_t i = 0; i < 256; ++i) {
        reply[i] = static_cast<std::uint8_t>(i + 1);
    }
    expect(hex("00 46 81 03 00"), reply + hex(OK), 258);
    EXPECT_EQ(CKR_OK, getPublicKey(1));
    EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK");
    EXPECT_EQ(2048U, publicKey(1).modulusBits);
    EXPECT_EQ(Bytes(reply.rbegin(), reply.rend()),
              Bytes(std::begin(publicKey(1).modulus), std::end(publicKey(1).modulus)));
}

TEST_F(KtObjects, AModulusBeyondItsFieldKeepsTheLastBytesOfTheReply)
{
    load({{0x03, "rsa"}});
    const Bytes reply = pattern(260);
    expectFetched(hex("00 46 81 03 00"), reply, 258);
    EXPECT_EQ(CKR_OK, getPublicKey(1));
    EXPECT_EQ(2048U, publicKey(1).modulusBits);
    const Bytes last = slice(reply, 4, 256);
    EXPECT_EQ(Bytes(last.rbegin(), last.rend()),
              Bytes(std::begin(publicKey(1).modulus), std::end(publicKey(1).modulus)));
}

TEST_F(KtObjects, AGostValueIsKeptAsItIs)
{
    load({{0x03, "gost", GOST}});
    const Bytes reply = pattern(64);
    expect(hex("00 46 81 03 42"), reply + hex(OK), 66);
    EXPECT_EQ(CKR_OK, getPublicKey(2));
    EXPECT_EQ(64U, publicKey(2).valueLen);
    EXPECT_EQ(reply, Bytes(std::begin(publicKey(2).value), std::end(publicKey(2).value)));
    EXPECT_EQ(0U, publicKey(2).modulusBits);

    const Bytes longer = pattern(66, 2);
    expectFetched(hex("00 46 81 03 42"), longer, 66);
    EXPECT_EQ(CKR_OK, getPublicKey(2));
    EXPECT_EQ(64U, publicKey(2).valueLen);
    EXPECT_EQ(slice(longer, 0, 64),
              Bytes(std::begin(publicKey(2).value), std::end(publicKey(2).value)));
    EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK", "KAZTOKEN GetPublicKey CKR_OK");
}

TEST_F(KtObjects, AFailedPublicKeyReadIsToldByItsKind)
{
    failAtEach(
        {{hex("00 46 81 03 00"),
          {},
          258,
          {"KAZTOKEN GetPublicKey APDU get RSA public key error #"}}},
        2,
        [this] {
            load({{0x03, "rsa"}});
        },
        [this] { return getPublicKey(1); });
    failAtEach(
        {{hex("00 46 81 03 42"),
          {},
          66,
          {"KAZTOKEN GetPublicKey APDU get GOST public key error #"}}},
        2,
        [this] {
            load({{0x03, "gost", GOST}});
        },
        [this] { return getPublicKey(2); });
}

TEST_F(KtObjects, OtherObjectsHaveNoPublicKeyOrCertificateToRead)
{
    load({{0x03, "rsa"}});
    EXPECT_EQ(CKR_OK, getPublicKey(2));
    EXPECT_EQ(CKR_OK, getPublicKey(3));
    EXPECT_EQ(CKR_OK, getCertificate(1));
    EXPECT_EQ(CKR_OK, getCertificate(2));
    EXPECT_MESSAGES(mark, "KAZTOKEN GetPublicKey CKR_OK", "KAZTOKEN GetPublicKey CKR_OK",
                    "KAZTOKEN GetCertificate CKR_OK", "KAZTOKEN GetCertificate CKR_OK");
    EXPECT_EQ(CKR_OK, getPublicKey(4));
    EXPECT_EQ(CKR_OK, getCertificate(0));
}

// --- certificates ---

TEST_F(KtObjects, ACertificateIsExpandedAndTakenApart)
{
    load({{0x01, "rsa"}});
    Certificate source;
    const Bytes encoded = source.encode();
    const Bytes stored = gzipMember(encoded);
    expectCertificateSelected(stored.size());
    expectFile(stored);
    EXPECT_EQ(CKR_OK, getCertificate(3));
    const CertAttr& read = certificate(3);
    EXPECT_EQ(encoded.size(), read.valueLen);
    Bytes whole = encoded;
    whole.resize(4096);
    EXPECT_EQ(whole, Bytes(std::begin(read.value), std::end(read.value)));
    EXPECT_EQ(source.issuer, Bytes(read.issuer, read.issuer + read.issuerLen));
    EXPECT_EQ(source.subject, Bytes(read.subject, read.subject + read.subjectLen));
    EXPECT_EQ(source.serial, Bytes(read.serial, read.serial + read.serialLen));
    EXPECT_EQ(text("2125013") + Bytes{0},
              Bytes(std::begin(read.startDate), std::end(read.startDate)));
    EXPECT_EQ(text("2029063") + Bytes{0}, Bytes(std::begin(read.endDate), std::end(read.endDate)));
    EXPECT_MESSAGE_AMONG(mark, "KAZTOKEN GetCertificate CKR_OK");
}

TEST_F(KtObjects, CertificateFilesOfEverySizeAreRead)
{
    load({{0x01, "rsa"}});
    const Bytes encoded = Certificate{}.encode();
    for (const std::size_t size : {511U, 512U, 513U, 4095U, 4096U}) {
        SCOPED_TRACE(size);
        const Bytes stored = gzipMemberOf(encoded, size);
        certificate(3).valueLen = 0;
        expectCertificateSelected(size);
        expectFile(stored);
        EXPECT_EQ(CKR_OK, getCertificate(3));
        EXPECT_EQ(encoded.size(), certificate(3).valueLen);
        expectAllExchanged();
    }
}

TEST_F(KtObjects, ACertificateBeyondTheBufferIsReadToItsEndAndRefused)
{
    load({{0x01, "rsa"}});
    expectCertificateSelected(4700);
    expectFile(gzipMemberOf(Certificate{}.encode(), 4700));
    EXPECT_EQ(2U, getCertificate(3));
    EXPECT_MESSAGES(mark, "KAZTOKEN GetCertificate cert ungzip error ");
    EXPECT_EQ(0U, certificate(3).valueLen);
}

TEST_F(KtObjects, ACertificateThatDoesNotExpandIsRefused)
{
    load({{0x01, "rsa"}});
    for (const Bytes& stored : {Bytes{}, pattern(40), pattern(300)}) {
        mark.reset();
        expectCertificateSelected(stored.size());
        expectFile(stored);
        EXPECT_EQ(2U, getCertificate(3));
        EXPECT_MESSAGE_AMONG(mark, "KAZTOKEN GetCertificate cert ungzip error ");
        EXPECT_EQ(0U, certificate(3).valueLen);
    }
}

TEST_F(KtObjects, AFailureAtEachExchangeOfACertificate)
{
    const Bytes stored = gzipMemberOf(Certificate{}.encode(), 600);
    failAtEach(
        {{selectForFcp(0x04, 0x01),
          fcp(600) + hex(OK),
          258,
          {"KAZTOKEN GetCertificate APDU no certificate #"}},
         {hex("00 B0 00 00 00"),
          slice(stored, 0, 256) + hex(OK),
          258,
          {"KAZTOKEN GetCertificate APDU read cert error #"}},
         {hex("00 B0 01 00 00"),
          slice(stored, 256, 256) + hex(OK),
          258,
          {"KAZTOKEN GetCertificate APDU read cert error #"}},
         {hex("00 B0 02 00 58"),
          slice(stored, 512, 88) + hex(OK),
          90,
          {"KAZTOKEN GetCertificate APDU select map file error #"}}},
        2,
        [this] {
            load({{0x01, "rsa"}});
        },
        [this] {
            const CK_RV result = getCertificate(3);
            EXPECT_EQ(0U, certificate(3).valueLen);
            return result;
        });
}

TEST_F(KtObjects, ACertificateFileWithoutControlParametersIsRefused)
{
    load({{0x01, "rsa"}});
    expect(selectForFcp(0x04, 0x01), hex(OK), 258);
    EXPECT_EQ(2U, getCertificate(3));
    EXPECT_MESSAGES(mark, "KAZTOKEN Parse TLV error ");
}

} // namespace
