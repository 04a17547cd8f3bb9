// What changes the KAZTOKEN: the map file, certificates, new key pairs and destroyed ones.
#include "tests/support/certificate_templates.h"
#include "tests/support/kt_fixture.h"

using namespace velt_test;

namespace {

const Pair FIRST{0x01, "first"};
const Pair SECOND{0x02, "second", RSA, false};

class KtWriting : public KtTest {
protected:
    CK_RV create(std::vector<Attribute> attributes)
    {
        auto rows = asTemplate(attributes);
        CK_OBJECT_HANDLE handle = 4711;
        const CK_RV result = fCreateObjectKT(table, session, rows.data(), rows.size(), &handle);
        EXPECT_EQ(4711U, handle); // not told
        return result;
    }
    CK_RV createFor(std::uint8_t id, const Bytes& value)
    {
        return create({classIs(CKO_CERTIFICATE), onToken(1), {CKA_VALUE, value}, {CKA_ID, {id}}});
    }

    void expectCertificateWritten(std::uint8_t id, const Bytes& stored,
                                  std::string_view selected = OK)
    {
        expect(selectDirectory(0x04), hex(OK), 4);
        expect(selectFile(0x04, id), hex(selected), 4);
        expect(hex("00 E4 00 00 02 00") + Bytes{id}, hex(selected), 4);
        expect(createFile(stored.size(), 0x00, id), hex(OK), 4);
        expectUpdates(stored);
    }

    std::uint64_t update(std::uint8_t mode, Bytes map, Bytes record)
    {
        map.shrink_to_fit();
        record.shrink_to_fit();
        return updateMapFile(session, mode, map.data(), map.size(), record.data(), record.size());
    }

    static Bytes createKeyFile(std::uint8_t id, std::uint8_t kind, std::size_t size)
    {
        return hex("00 E0 00 00 27 62 25 82 02 10 00 80 02") + bigEndian(size) +
               Bytes{0x83, 0x02, 0x00, id, 0x85, 0x06, kind} +
               hex("00 00 00 00 00 86 0F 42 00 02 00 00 00 00 02 00 00 00 00 00 00 00");
    }

    CK_RV generate(CK_MECHANISM_TYPE type)
    {
        CK_MECHANISM mechanism{type, nullptr, 0};
        publicHandle = 4711;
        privateHandle = 4712;
        return fGenerateKeyPairKT(table, session, &mechanism, nullptr, 0, nullptr, 0, &publicHandle,
                                  &privateHandle);
    }

    // The exchanges of a key pair made beside FIRST, up to the reload.
    std::vector<ExchangeStep> generation(std::uint8_t kind) const
    {
        const std::string noLoad =
            numbered("KAZTOKEN GenerateKeyPair Objects initialize error ", 2);
        const std::string notListed =
            numbered("KAZTOKEN GenerateKeyPair Update map file error ", 2);
        const bool rsa = kind == RSA;
        const std::size_t size = rsa ? 256 : 64;
        const std::string privateFile =
            rsa ? "KAZTOKEN GenerateKeyPair 1 APDU gen key pair rsa error #"
                : "KAZTOKEN GenerateKeyPair 1 APDU gen key pair gost error #";
        const std::string publicFile =
            rsa ? "KAZTOKEN GenerateKeyPair 2 APDU gen key pair rsa error #" : privateFile;
        const std::string keys = rsa ? "KAZTOKEN GenerateKeyPair 3 APDU gen key pair rsa error #"
                                     : "KAZTOKEN GenerateKeyPair 2 APDU gen key pair rsa  error #";
        const Bytes map = mapOf({FIRST});
        const Bytes newMap = mapOf({FIRST, fresh(kind)});
        const auto mapSize = static_cast<std::uint8_t>(map.size());
        return {
            {hex(SELECT_MAP),
             hex(OK),
             4,
             {"KAZTOKEN ObjectsInit 1 APDU select map file error #", noLoad}},
            {hex(SELECT_MAP_FCP),
             fcp(map.size()) + hex(OK),
             258,
             {"KAZTOKEN ObjectsInit 2 APDU select map file error #", noLoad}},
            {Bytes{0x00, 0xB0, 0x00, 0x00, mapSize},
             map + hex(OK),
             map.size() + 2,
             {"KAZTOKEN readBinary APDU select map file error #", noLoad}},
            {selectForFcp(0x02, 0x01),
             fcp(256, RSA) + hex(OK),
             258,
             {"KAZTOKEN ObjectsInit 2 APDU select map file error #", noLoad}},
            {selectForFcp(0x04, 0x01),
             fcp(300) + hex(OK),
             258,
             {},
             {"KAZTOKEN ObjectsInit CKR_OK"}},
            {hex("00 84 00 00 10"),
             hex("00 01 23 45 67 89 AB CD EF FE DC BA 98 76 54 F0") + hex(OK),
             18,
             {"KAZTOKEN GenerateRandom APDU error #",
              numbered("KAZTOKEN GenerateKeyPair gen label error", 6)},
             {"KAZTOKEN GenerateRandom CKR_OK"}},
            {hex(SELECT_1010),
             hex(OK),
             4,
             {"KAZTOKEN updateMapFile 1 APDU read file error #", notListed}},
            {hex(DELETE_MAP),
             hex(OK),
             4,
             {"KAZTOKEN updateMapFile 2 APDU read file error #", notListed}},
            {createFile(newMap.size(), 0x10, 0x10),
             hex(OK),
             4,
             {"KAZTOKEN updateMapFile 3 APDU read file error #", notListed}},
            {hex("00 D6 00 00") + Bytes{std::uint8_t(newMap.size())} + newMap,
             hex(OK),
             2,
             {"KAZTOKEN WriteBinary error #",
              numbered("KAZTOKEN updateMapFile write binary error ", 10),
              numbered("KAZTOKEN GenerateKeyPair Update map file error ", 6)}},
            {selectDirectory(0x01), hex(OK), 4, {privateFile}},
            {createKeyFile(0x02, kind, size), hex(OK), 4, {privateFile}},
            {selectDirectory(0x02), hex(OK), 4, {publicFile}},
            {createKeyFile(0x02, kind, size), hex(OK), 4, {publicFile}},
            {hex("00 46 80 02"), hex(OK), 4, {keys}},
        };
    }
    static Pair fresh(std::uint8_t kind)
    {
        return {0x02, "000123456789abcdeffedcba987654f0", kind, false};
    }

    CK_OBJECT_HANDLE publicHandle = 0;
    CK_OBJECT_HANDLE privateHandle = 0;
};

// --- the map file ---

TEST_F(KtWriting, ARecordIsAppendedWithItsTerminator)
{
    expectMapRewritten(mapOf({FIRST, SECOND}));
    EXPECT_EQ(0U, update(MAP_APPEND, mapOf({FIRST}), SECOND.record() + Bytes{0}));
    EXPECT_MESSAGES(mark);
}

TEST_F(KtWriting, ARecordIsTakenOutWithItsTerminator)
{
    const Pair left{0x01, "0123456789abcdef0123456789abcdef"};
    const Pair right{0x02, "fedcba9876543210fedcba9876543210"};
    const Bytes both = mapOf({left, right});
    expectMapRewritten(mapOf({left}));
    EXPECT_EQ(0U, update(MAP_REMOVE, both, right.record()));
    ASSERT_EQ(38U, mapOf({left}).size());
    expectMapRewritten(mapOf({right}));
    EXPECT_EQ(0U, update(MAP_REMOVE, both, left.record()));
    expectMapRewritten(mapOf({}));
    EXPECT_EQ(0U, update(MAP_REMOVE, mapOf({left}), left.record()));
    EXPECT_MESSAGES(mark);
}

TEST_F(KtWriting, ARecordThatIsNotThereChangesNothing)
{
    for (const Bytes& record : {SECOND.record(), Bytes{0x10}, hex("00 00 10")}) {
        mark.reset();
        EXPECT_EQ(1U, update(MAP_REMOVE, mapOf({FIRST}), record));
        EXPECT_MESSAGES(mark, "KAZTOKEN updateMapFile Label not found in map file ");
    }
}

TEST_F(KtWriting, AnImageThatWouldOverflowIsNotWritten)
{
    const Bytes record = pattern(34);
    EXPECT_EQ(6U, update(MAP_APPEND, pattern(2015), record));
    EXPECT_EQ(6U, update(MAP_APPEND, pattern(2048), record));
    EXPECT_MESSAGES(mark);
    expectMapRewritten(pattern(2014) + record);
    EXPECT_EQ(0U, update(MAP_APPEND, pattern(2014), record));
}

TEST_F(KtWriting, AMissingMapFileNeedNotBeDeleted)
{
    const Bytes map = mapOf({FIRST});
    expect(SELECT_1010, OK, 4);
    expect(DELETE_MAP, NO_FILE, 4);
    expect(createFile(map.size(), 0x10, 0x10), hex(OK), 4);
    expectUpdates(map);
    EXPECT_EQ(0U, update(MAP_APPEND, mapOf({}), FIRST.record() + Bytes{0}));
}

TEST_F(KtWriting, ChunksOfEveryLengthAreWritten)
{
    const Bytes all = pattern(600);
    dwReplyLen = 2;
    for (std::int16_t length = 0; length <= 600; length = std::int16_t(length + 5)) {
        SCOPED_TRACE(length);
        Bytes exact = slice(all, 0, std::size_t(length));
        expectUpdates(exact);
        EXPECT_EQ(0U, VELT_WriteBinaryKT(session, exact.data(), 0, length));
    }
    mark.reset();
    expect(hex("00 D6 00 00 FF") + slice(all, 0, 255), hex(OK));
    expect(hex("00 D6 00 FF 2D") + slice(all, 255, 45), hex("6A 84"));
    EXPECT_EQ(10U, VELT_WriteBinaryKT(session, all.data(), 0, 300));
    EXPECT_MESSAGES(mark, numbered("KAZTOKEN WriteBinary error ", 0x846A));
}

// --- certificates ---

TEST_F(KtWriting, ACertificateIsWrittenUnderTheIdOfTheNamedKey)
{
    load({FIRST, SECOND});
    const Bytes value = Certificate{}.encode();
    expectCertificateWritten(0x02, gzipMember(value), NO_FILE);
    EXPECT_EQ(CKR_OK, create({classIs(CKO_CERTIFICATE),
                              onToken(1),
                              {CKA_LABEL, text("second")},
                              {CKA_VALUE, value}}));
    EXPECT_MESSAGES(mark, "KAZTOKEN CreateObject CKR_OK");
    EXPECT_EQ(5U, ulObjCount); // the core reloads
}

TEST_F(KtWriting, ACertificateIsWrittenUnderAnId)
{
    const Bytes value = Certificate{}.encode();
    expectCertificateWritten(0x07, gzipMember(value));
    EXPECT_EQ(CKR_OK, create({{CKA_SUBJECT, pattern(3)},
                              {CKA_ID, {0x07}},
                              {CKA_VALUE, value},
                              onToken(1),
                              classIs(CKO_CERTIFICATE)}));
    EXPECT_MESSAGES(mark, numbered("KAZTOKEN CreateObject unknown type: ", CKA_SUBJECT),
                    "KAZTOKEN CreateObject CKR_OK");
}

TEST_F(KtWriting, AnIncompleteTemplateSendsNothing)
{
    load({FIRST});
    const Bytes value = Certificate{}.encode();
    const std::vector<std::vector<Attribute>> templates{
        {classIs(CKO_CERTIFICATE), onToken(1), {CKA_LABEL, text("third")}, {CKA_VALUE, value}},
        {classIs(CKO_CERTIFICATE), onToken(1), {CKA_VALUE, value}},
        {classIs(CKO_CERTIFICATE), onToken(1), {CKA_VALUE, value}, {CKA_ID, {0xFF}}},
        {classIs(CKO_PUBLIC_KEY), onToken(1), {CKA_VALUE, value}, {CKA_ID, {0x01}}},
        {classIs(CKO_CERTIFICATE), {CKA_TOKEN, {0}}, {CKA_VALUE, value}, {CKA_ID, {0x01}}},
    };
    for (const auto& attributes : templates) {
        mark.reset();
        EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, create(attributes));
        EXPECT_MESSAGES(mark, "KAZTOKEN CreateObject CKR_TEMPLATE_INCOMPLETE");
    }
}

TEST_F(KtWriting, AttributesOfAWrongLengthAreRefusedBeforeAnythingIsSent)
{
    for (const Attribute& wrong :
         {Attribute{CKA_LABEL, Bytes(41, 'x')}, Attribute{CKA_ID, {0x01, 0x02}},
          Attribute{CKA_ID, {}}, Attribute{CKA_VALUE, pattern(4097)}}) {
        EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID,
                  create({classIs(CKO_CERTIFICATE), onToken(1), wrong}));
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(KtWriting, TheCompressedFormIsAtMost2048Bytes)
{
    EXPECT_EQ(CKR_DEVICE_MEMORY, createFor(0x01, contentCompressingTo(2049)));
    EXPECT_MESSAGES(mark, numbered("KAZTOKEN CreateObject error gzipped cert length ", 2049));
    const Bytes largest = contentCompressingTo(2048);
    expectCertificateWritten(0x01, gzipMember(largest));
    EXPECT_EQ(CKR_OK, createFor(0x01, largest));
}

TEST_F(KtWriting, ACompressorThatFailsIsRememberedAsTheDevicesError)
{
    failCompression(-4);
    EXPECT_EQ(CKR_FUNCTION_FAILED, createFor(0x01, pattern(100)));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFC, deviceError());
    EXPECT_MESSAGES(mark, "Z_MEM_ERROR Insufficient memory.",
                    numbered("KAZTOKEN CreateObject gzip cert error ", 0xFFFFFFFFFFFFFFFC));
}

TEST_F(KtWriting, AFailureAtEachExchangeOfACertificate)
{
    const Bytes value = contentCompressingTo(300);
    const Bytes stored = gzipMember(value);
    const std::string notWritten = numbered("KAZTOKEN CreateObject write binary error ", 10);
    failAtEach(
        {{selectDirectory(0x04),
          hex(OK),
          4,
          {"KAZTOKEN CreateObject 1 APDU write certificate error #"}},
         {selectFile(0x04, 0x01),
          hex(OK),
          4,
          {"KAZTOKEN CreateObject 2 APDU write certificate error #"}},
         {hex("00 E4 00 00 02 00 01"), hex("69 82")}, // looked at by nobody
         {createFile(300, 0x00, 0x01),
          hex(OK),
          4,
          {"KAZTOKEN CreateObject 3 APDU write certificate error #"}},
         {hex("00 D6 00 00 FF") + slice(stored, 0, 255),
          hex(OK),
          2,
          {"KAZTOKEN WriteBinary error #", notWritten}},
         {hex("00 D6 00 FF 2D") + slice(stored, 255, 45),
          hex(OK),
          2,
          {"KAZTOKEN WriteBinary error #", notWritten}}},
        CKR_FUNCTION_FAILED, [] {}, [&] { return createFor(0x01, value); });
}

// --- key pairs ---

TEST_F(KtWriting, ANewKeyPairIsListedMadeAndFound)
{
    for (const std::uint8_t kind : {RSA, GOST}) {
        begin();
        for (const ExchangeStep& step : generation(kind)) {
            expect(step.command, step.reply, step.capacity);
        }
        expectLoad({FIRST, fresh(kind)});
        EXPECT_EQ(CKR_OK, generate(kind == RSA ? 0x0 : 0x84B5A001));
        EXPECT_EQ(kind == RSA ? 4U : 5U, publicHandle);
        EXPECT_EQ(kind == RSA ? 5U : 4U, privateHandle);
        EXPECT_EQ(0U, oiFlags);
        EXPECT_MESSAGES(mark, "KAZTOKEN ObjectsInit CKR_OK", "KAZTOKEN GenerateRandom CKR_OK",
                        "VELTObjectsInit", "VELTObjectsInit Do init = true",
                        numbered("KAZTOKEN ObjectsInit APDU no certificate ", 0x826A),
                        "KAZTOKEN ObjectsInit CKR_OK", "VELTObjectsInit complete",
                        "VELTObjectsInit CKR_OK", "KAZTOKEN GenerateKeyPair CKR_OK");
        expectAllExchanged();
    }
}

TEST_F(KtWriting, AFailureAtEachExchangeOfANewKeyPair)
{
    for (const std::uint8_t kind : {RSA, GOST}) {
        failAtEach(
            generation(kind), CKR_FUNCTION_FAILED, [] {},
            [&] { return generate(kind == RSA ? 0x0 : 0x84B5A001); });
        EXPECT_EQ(4711U, publicHandle);
        EXPECT_EQ(4712U, privateHandle);
    }
}

TEST_F(KtWriting, AReloadThatFailsAfterTheKeyPairWasMadeIsADeviceError)
{
    for (const ExchangeStep& step : generation(RSA)) {
        expect(step.command, step.reply, step.capacity);
    }
    expect(SELECT_MAP, "6F 00", 4);
    EXPECT_EQ(CKR_DEVICE_ERROR, generate(0x0));
    EXPECT_EQ(4711U, publicHandle);
    expectAllExchanged();

    begin();
    for (const ExchangeStep& step : generation(RSA)) {
        expect(step.command, step.reply, step.capacity);
    }
    expectMap(mapOf({FIRST, fresh(RSA)}));
    alloc::failNth(5); // the table and three blocks of the load before, the table of this one
    EXPECT_EQ(CKR_HOST_MEMORY, generate(0x0));
    alloc::clear();
}

TEST_F(KtWriting, OtherMechanismsMakeNoKeyPair)
{
    for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{0x1}, CK_MECHANISM_TYPE{0x84B5A002}}) {
        mark.reset();
        EXPECT_EQ(CKR_MECHANISM_INVALID, generate(type));
        EXPECT_MESSAGES(mark, "KAZTOKEN GenerateKeyPair CKR_MECHANISM_INVALID");
    }
}

TEST_F(KtWriting, TheHighestIdMakesNoFurtherKeyPair)
{
    expectLoad({{0xFE, "last"}});
    EXPECT_EQ(CKR_DEVICE_MEMORY, generate(0x0));
    EXPECT_MESSAGES(mark, "KAZTOKEN ObjectsInit CKR_OK",
                    "KAZTOKEN GenerateKeyPair Max ID has been reached");
}

TEST_F(KtWriting, BehindId255FollowsZero)
{
    const Pair beyond{0xFF, "beyond"};
    expectLoad({beyond});
    expect(hex("00 84 00 00 10"), Bytes(16, 0x11) + hex(OK), 18);
    expectMapRewritten(mapOf({beyond, {0x00, std::string(32, '1')}}));
    expect(selectDirectory(0x01), hex("6F 00"), 4);
    EXPECT_EQ(CKR_FUNCTION_FAILED, generate(0x0));
}

TEST_F(KtWriting, AFullMapFileTakesNoFurtherKeyPair)
{
    std::vector<Pair> pairs;
    for (std::uint8_t id = 1; id <= 51; ++id) {
        pairs.push_back({id, std::string(38, 'x'), RSA, false});
    }
    const Bytes map = mapOf(pairs); // 2,044 bytes
    expectMap(map);
    for (std::size_t i = 0; i < 50; ++i) {
        expectProbes(pairs[i]);
    }
    expect(hex("00 84 00 00 10"), pattern(16) + hex(OK), 18);
    EXPECT_EQ(CKR_FUNCTION_FAILED, generate(0x0));
    EXPECT_MESSAGE_AMONG(mark, numbered("KAZTOKEN GenerateKeyPair Update map file error ", 6));
}

// --- destruction ---

TEST_F(KtWriting, AnyObjectOfAPairTakesAllOfItAlong)
{
    for (const CK_OBJECT_HANDLE handle : {3UL, 4UL, 5UL}) {
        begin();
        load({SECOND, FIRST});
        expectMapRewritten(mapOf({SECOND}));
        for (const std::uint8_t directory : Bytes{0x01, 0x02, 0x04}) {
            expect(selectFile(directory, 0x01), hex(OK), 4);
            expect("00 E4 00 00", OK, 4);
        }
        EXPECT_EQ(CKR_OK, fDestroyObjectKT(table, session, handle));
        EXPECT_MESSAGES(mark, "KAZTOKEN DestroyObject CKR_OK");
        expectAllExchanged();
    }
}

TEST_F(KtWriting, AFailureAtEachExchangeOfADestruction)
{
    const Bytes left = mapOf({SECOND});
    const std::string listed = numbered("KAZTOKEN DestroyObject update map file error ", 2);
    failAtEach(
        {{hex(SELECT_1010),
          hex(OK),
          4,
          {"KAZTOKEN updateMapFile 1 APDU read file error #", listed}},
         {hex(DELETE_MAP), hex(OK), 4, {"KAZTOKEN updateMapFile 2 APDU read file error #", listed}},
         {createFile(left.size(), 0x10, 0x10),
          hex(OK),
          4,
          {"KAZTOKEN updateMapFile 3 APDU read file error #", listed}},
         {hex("00 D6 00 00") + Bytes{std::uint8_t(left.size())} + left,
          hex(OK),
          2,
          {"KAZTOKEN WriteBinary error #",
           numbered("KAZTOKEN updateMapFile write binary error ", 10),
           numbered("KAZTOKEN DestroyObject update map file error ", 6)}},
         {selectFile(0x01, 0x01), hex(OK), 4, {"KAZTOKEN DestroyObject 1 APDU error #"}},
         {hex("00 E4 00 00"), hex(OK), 4, {"KAZTOKEN DestroyObject 2 APDU error #"}},
         {selectFile(0x02, 0x01), hex(OK), 4, {"KAZTOKEN DestroyObject 3 APDU error #"}},
         {hex("00 E4 00 00"), hex(OK), 4, {"KAZTOKEN DestroyObject 4 APDU error #"}},
         {selectFile(0x04, 0x01), hex(OK), 4, {"KAZTOKEN DestroyObject 5 APDU error #"}},
         {hex("00 E4 00 00"), hex(OK), 4, {"KAZTOKEN DestroyObject 6 APDU error #"}}},
        CKR_FUNCTION_FAILED,
        [this] {
            load({FIRST, SECOND});
        },
        [this] { return fDestroyObjectKT(table, session, 1); });
}

TEST_F(KtWriting, APairThatTheMapFileDoesNotListIsLeftAlone)
{
    load({FIRST});
    mapFileLen = 4;
    EXPECT_EQ(CKR_FUNCTION_FAILED, fDestroyObjectKT(table, session, 2));
    EXPECT_MESSAGES(mark, "KAZTOKEN updateMapFile Label not found in map file ",
                    numbered("KAZTOKEN DestroyObject update map file error ", 1));
}

TEST_F(KtWriting, HandlesWithoutAnObjectDestroyNothing)
{
    load({SECOND}); // its third entry is not made
    for (const CK_OBJECT_HANDLE handle : {0UL, 3UL, 4UL, ~0UL}) {
        EXPECT_EQ(CKR_FUNCTION_FAILED, fDestroyObjectKT(table, session, handle));
    }
    EXPECT_MESSAGES(mark);
}

} // namespace
