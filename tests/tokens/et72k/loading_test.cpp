// Loading the eToken 72K's objects.
#include "tests/support/et72k_fixture.h"

using namespace velt_test;

namespace {

const Bytes NAME = hex("0A 1B");
const Named ALL{NAME, {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}};

class Et72kLoading : public Et72kTest {
protected:
    void expectUnused(std::size_t from)
    {
        for (std::size_t i = from; i < velt::objectTableSize(); ++i) {
            EXPECT_EQ(0x4B5A0000U, velt::entryAt(i)->handle) << i;
            EXPECT_EQ(nullptr, velt::entryAt(i)->attrs) << i;
        }
    }
    void expectOnly(const std::vector<Named>& objects)
    {
        std::size_t next = 0;
        for (std::size_t i = 0; i < objects.size(); ++i) {
            next = expectEntries(next, i, objects[i]);
        }
        EXPECT_EQ(next, ulObjCount);
        EXPECT_GE(velt::objectTableSize(), std::max(next, 3 * objects.size()));
        expectUnused(next);
    }
    // One name under which there is a certificate; `name` is what is to become of the reply.
    void loadName(const Bytes& reply, const Bytes& name)
    {
        mark.reset();
        expectCount(1);
        expect(getName(0), reply, 258);
        expectProbes({name, {CERTIFICATE}});
        EXPECT_EQ(0U, loadObjects());
        EXPECT_MESSAGES(mark, loadTold(1));
        expectOnly({{name, {CERTIFICATE}}});
        expectAllExchanged();
    }
    // Names of 2 to 20 bytes without zeros, each with the parts that its position says.
    static std::vector<Named> manyNames(std::size_t count, bool allParts)
    {
        std::vector<Named> names;
        for (std::size_t i = 0; i < count; ++i) {
            Bytes name{std::uint8_t(1 + i / 255), std::uint8_t(1 + i % 255)};
            name.resize(2 + i % 19, 0x77);
            names.push_back({name, {}});
            for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
                if (allParts || (i & (1U << part)) != 0) {
                    names.back().parts.push_back(part);
                }
            }
        }
        return names;
    }
};

TEST_F(Et72kLoading, ATokenWithoutNamesHasNoObjects)
{
    load({ALL});
    expect("80 12 22 00 00", "00 00 90 00", 4);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_MESSAGES(mark, "EToken72K ObjectsInit objects count = 0");
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_EQ(0U, ulObjCount);
}

TEST_F(Et72kLoading, ANameWithACertificateAndAnRsaPairMakesThreeObjects)
{
    expect("80 12 22 00 00", "00 01 90 00", 4);
    expect("80 12 21 00 02 00 00", "0A 1B 00 90 00", 258);
    expect("80 12 44 00 06 00 02 0A 1B 00 00", "64 28", 258);
    expect("80 12 44 00 06 00 02 0A 1B 00 01", "64 19", 258);
    expect("80 12 44 00 06 00 02 0A 1B 00 02", "90 00", 258);
    expect("80 12 44 00 06 00 02 0A 1B 00 03", "90 00", 258);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_MESSAGES(mark, numbered("EToken72K ObjectsInit Objects Count = ", 3),
                    "EToken72K ObjectsInit CKR_OK");
    EXPECT_EQ(3U, ulObjCount);
    expectCertificateEntry(0, 0, NAME);
    expectPublicKey(1, 0, NAME, CKK_RSA);
    expectPrivateKey(2, 0, NAME, CKK_RSA);
    EXPECT_EQ("0A1B", std::string(reinterpret_cast<const char*>(VELTObj[0].label)));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(4U, VELTObj[i].familyCode); // not the family's own 2
    }
}

TEST_F(Et72kLoading, EachPartMakesItsObjects)
{
    for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
        SCOPED_TRACE(part);
        const Named object{NAME, {part}};
        expectLoad({object});
        EXPECT_EQ(0U, loadObjects());
        EXPECT_EQ(part == RSA_PAIR ? 2U : 1U, ulObjCount);
        expectOnly({object});
        expectAllExchanged();
    }
}

TEST_F(Et72kLoading, ANameMayHaveNoPartAtAll)
{
    expectLoad({{NAME, {}}});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_MESSAGES(mark, loadTold(0));
    EXPECT_EQ(3U, velt::objectTableSize());
    expectOnly({{NAME, {}}});
}

TEST_F(Et72kLoading, ANameWithAllPartsMakesFiveObjects)
{
    expectLoad({ALL});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_MESSAGES(mark, loadTold(5));
    expectOnly({ALL});
    expectPrivateKey(0, 0, NAME, 0x84B5A001);
    expectPublicKey(1, 0, NAME, 0x84B5A001);
    expectCertificateEntry(2, 0, NAME);
    expectPublicKey(3, 0, NAME, 0x0);
    expectPrivateKey(4, 0, NAME, 0x0);
}

TEST_F(Et72kLoading, TokensOfAnySizeAreLoadedWhole)
{
    for (const std::size_t count : {1U, 50U, 300U}) {
        for (const bool allParts : {false, true}) {
            SCOPED_TRACE(testing::Message() << count << " names, all parts " << allParts);
            mark.reset();
            const std::vector<Named> names = manyNames(count, allParts);
            expectLoad(names);
            EXPECT_EQ(0U, loadObjects());
            expectOnly(names);
            EXPECT_MESSAGES(mark, loadTold(ulObjCount));
            expectAllExchanged();
        }
    }
    EXPECT_EQ(1500U, ulObjCount);
    EXPECT_EQ(0x00, VELTObj[256 * 5].id[0]); // the low eight bits of the position
    EXPECT_EQ(0x2B, VELTObj[1499].id[0]);
}

TEST_F(Et72kLoading, NamesOfEveryLengthEndAtTheirZero)
{
    for (const std::size_t size : {1U, 12U, 16U, 20U, 24U}) {
        SCOPED_TRACE(size);
        const Bytes name(size, 0xB7);
        loadName(name + hex("00 90 00"), name);
    }
}

TEST_F(Et72kLoading, ANameWithoutAZeroTakesTheFirstByteOfTheStatusAlong)
{
    loadName(hex("41 42 90 00"), hex("41 42 90"));
    EXPECT_EQ("414290", std::string(reinterpret_cast<const char*>(VELTObj[0].label)));
    for (const std::size_t size : {1U, 12U, 16U, 20U, 23U}) {
        SCOPED_TRACE(size);
        const Bytes name(size, 0xB7);
        loadName(name + hex("90 00"), name + hex("90"));
    }
    loadName(hex("90 00"), hex("90"));
}

TEST_F(Et72kLoading, ANameOfMoreThan24BytesIsCutThere)
{
    for (const std::size_t size : {24U, 25U, 39U, 40U, 50U, 255U, 256U}) {
        SCOPED_TRACE(size);
        loadName(Bytes(size, 0xB7) + hex("90 00"), Bytes(24, 0xB7));
    }
    for (const std::size_t size : {25U, 40U, 255U}) {
        SCOPED_TRACE(size);
        loadName(Bytes(size, 0xB7) + hex("00 90 00"), Bytes(24, 0xB7));
    }
    expectCount(1);
    expect(getName(0), hex("61 FF"), 258);
    expectGetResponse(0xFF, Bytes(255, 0xC1) + hex("61 FE"));
    expectGetResponse(0xFE, Bytes(254, 0xC2) + hex(OK));
    expectProbes({Bytes(24, 0xC1), {CERTIFICATE}});
    EXPECT_EQ(0U, loadObjects());
    expectOnly({{Bytes(24, 0xC1), {CERTIFICATE}}});
}

TEST_F(Et72kLoading, ANameEndsAtAZeroInsideIt)
{
    loadName(hex("41 00 42 43 90 00"), hex("41"));
    loadName(hex("41 42 00 00 43 00 90 00"), hex("41 42"));
    loadName(hex("00 41 42 90 00"), {});
    loadName(hex("00 90 00"), {});
}

TEST_F(Et72kLoading, AShortNameBehindALongOneStandsAlone)
{
    const std::vector<Named> names{{Bytes(24, 0xB7), {RSA_PAIR}}, {hex("31"), {RSA_PAIR}}};
    expectLoad(names);
    EXPECT_EQ(0U, loadObjects());
    expectOnly(names);
}

TEST_F(Et72kLoading, AProbeIsRefusedSilentlyOrNot)
{
    for (const std::string_view silent : {"64 28", "64 19"}) {
        mark.reset();
        expectCount(1);
        expectName(0, NAME);
        for (const std::uint8_t part : Bytes{0, 1, 2, 3}) {
            expect(probeFor(NAME, Part{part}), hex(silent), 258);
        }
        EXPECT_EQ(0U, loadObjects());
        EXPECT_MESSAGES(mark, loadTold(0));
    }
    for (const std::string_view other : {"6F 00", "28 64", "19 64", "64 14", "64 13", "69 82"}) {
        mark.reset();
        expectCount(1);
        expectName(0, NAME);
        expect(probeFor(NAME, GOST_PRIVATE), hex(other), 258);
        expect(probeFor(NAME, GOST_PUBLIC), hex(OK), 258);
        expect(probeFor(NAME, CERTIFICATE), hex(other), 258);
        expect(probeFor(NAME, RSA_PAIR), hex(OK), 258);
        EXPECT_EQ(0U, loadObjects());
        const std::string refused =
            numbered("EToken72K ObjectsInit APDU check object type error ", value(other));
        EXPECT_MESSAGES(mark, refused, refused, loadTold(3)[0], loadTold(3)[1]);
        expectOnly({{NAME, {GOST_PUBLIC, RSA_PAIR}}});
    }
}

TEST_F(Et72kLoading, AFailureAtAnyProbeIsPassedOver)
{
    for (const Part faulty : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
        for (const bool lost : {false, true}) {
            SCOPED_TRACE(testing::Message() << "part " << int{faulty} << ", lost " << lost);
            mark.reset();
            Named left{NAME, {}};
            expectCount(1);
            expectName(0, NAME);
            for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
                if (part != faulty) {
                    left.parts.push_back(part);
                    expect(probeFor(NAME, part), hex(OK), 258);
                } else if (lost) {
                    expectLost(probeFor(NAME, part), SCARD_W_REMOVED_CARD, 258);
                } else {
                    expect(probeFor(NAME, part), hex("6F 00"), 258);
                }
            }
            EXPECT_EQ(0U, loadObjects());
            expectOnly({left});
            const std::uint64_t number = lost ? pcscCode(SCARD_W_REMOVED_CARD) : value("6F 00");
            EXPECT_MESSAGES(mark,
                            numbered("EToken72K ObjectsInit APDU check object type error ", number),
                            loadTold(ulObjCount)[0], loadTold(ulObjCount)[1]);
            expectAllExchanged();
        }
    }
}

TEST_F(Et72kLoading, OnlyABareSuccessIsAHit)
{
    expectCount(1);
    expectName(0, NAME);
    expect(probeFor(NAME, GOST_PRIVATE), hex("00 90 00"), 258);
    expect(probeFor(NAME, GOST_PUBLIC), Bytes(256, 0x01) + hex("90 00"), 258);
    expect(probeFor(NAME, CERTIFICATE), hex("61 05"), 258);
    expectGetResponse(0x05, hex("90 00"));
    expect(probeFor(NAME, RSA_PAIR), hex("61 02"), 258);
    expectGetResponse(0x02, hex("01 02 90 00"));
    EXPECT_EQ(0U, loadObjects());
    expectOnly({{NAME, {CERTIFICATE}}});
    EXPECT_MESSAGES(mark, loadTold(1));
}

TEST_F(Et72kLoading, AFailedCountLeavesTheOldObjects)
{
    failAtEach(
        {{hex("80 12 22 00 00"), {}, 4, {"EToken72K ObjectsInit APDU get objects count error #"}}},
        2, [this] { load({ALL}); },
        [this] {
            const CK_RV result = loadObjects();
            expectOnly({ALL});
            return result;
        });
}

TEST_F(Et72kLoading, TheReplyBufferIsClearedBeforeTheCount)
{
    expectLost("80 12 22 00 00", SCARD_W_REMOVED_CARD, 4);
    EXPECT_EQ(2U, loadObjects());
    EXPECT_EQ(Bytes(258), Bytes(pbyOutput.begin(), pbyOutput.begin() + 258));
    EXPECT_EQ(Bytes(2050 - 258, SENTINEL), Bytes(pbyOutput.begin() + 258, pbyOutput.end()));
}

TEST_F(Et72kLoading, AFailedNameLeavesTheEntriesSoFar)
{
    const Named first{hex("31"), {RSA_PAIR}};
    const Named second{hex("32 33"), {CERTIFICATE}};
    std::vector<ExchangeStep> steps{{hex("80 12 22 00 00"), hex("00 03 90 00"), 4}};
    std::size_t position = 0;
    for (const Named& object : {first, second, ALL}) {
        steps.push_back({getName(position++),
                         object.name + hex("00 90 00"),
                         258,
                         {"EToken72K ObjectsInit APDU get object name error #"}});
        for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
            steps.push_back(
                {probeFor(object.name, part), hex(object.has(part) ? OK : NO_SUCH_PART), 258});
        }
    }
    std::size_t failures = 0;
    failAtEach(
        steps, 2, [this] { load({ALL}); },
        [&] {
            const CK_RV result = loadObjects();
            const std::size_t names = failures++ / 2;
            const std::vector<std::size_t> entries{0, 2, 3};
            EXPECT_EQ(entries.at(names), ulObjCount);
            EXPECT_EQ(9U, velt::objectTableSize());
            expectUnused(ulObjCount);
            if (names > 0) {
                expectEntries(0, 0, first);
            }
            if (names > 1) {
                expectEntries(2, 1, second);
            }
            return result;
        });
    EXPECT_EQ(6U, failures);
}

TEST_F(Et72kLoading, ACountThatIsMissingIsReadFromTheStatus)
{
    expect("80 12 22 00 00", "90 00", 4); // 0x9000 names
    expect(getName(0), hex("6F 00"), 258);
    EXPECT_EQ(2U, loadObjects());
    EXPECT_EQ(0U, ulObjCount);
    EXPECT_EQ(3U * 0x9000, velt::objectTableSize());
}

TEST_F(Et72kLoading, TheAppletIsSelectedFirst)
{
    ET72KAppletSelected = 0;
    expectSelection();
    expectLoad({ALL});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(1, ET72KAppletSelected);
    expectOnly({ALL});
    expectLoad({ALL}); // not again
    EXPECT_EQ(0U, loadObjects());
}

TEST_F(Et72kLoading, AnAppletThatCannotBeSelectedIsAskedAllTheSame)
{
    const std::string noObjects = "EToken72K ObjectsInit objects count = 0";
    failAtEach(
        {{hex(SELECT), hex(OK), 4, {"EToken72K select applet APDU error#", noObjects}},
         {hex(INIT_VARS), hex(OK), 4, {"EToken72K init vars APDU error#", noObjects}}},
        0,
        [this] {
            begin();
            ET72KAppletSelected = 0;
        },
        [this] {
            expectCount(0);
            const CK_RV result = loadObjects();
            EXPECT_EQ(0, ET72KAppletSelected);
            return result;
        });
}

TEST_F(Et72kLoading, EveryAllocationThatFailsEndsTheLoadWithOne)
{
    // In turn the table and the blocks of the parts; the last part also makes the table grow.
    std::size_t refusals = 0;
    for (bool refused = true; refused; ++refusals) {
        const std::size_t n = refusals + 1;
        SCOPED_TRACE(n);
        expectCount(1);
        if (n > 1) {
            expectName(0, NAME);
        }
        for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
            if (n > part + std::size_t{1}) {
                expectProbe(ALL, part);
            }
        }
        mark.reset();
        alloc::failNth(n);
        const CK_RV result = loadObjects();
        refused = alloc::refused() != 0;
        alloc::clear();
        expectAllExchanged();
        if (!refused) {
            EXPECT_EQ(0U, result);
            expectOnly({ALL});
            continue;
        }
        EXPECT_EQ(1U, result);
        EXPECT_MESSAGES(mark);
        if (n < 5) {
            EXPECT_EQ(n < 2 ? 0U : n - 2, ulObjCount);
        } else {
            EXPECT_GE(ulObjCount, 3U);
            EXPECT_LE(ulObjCount, 4U);
        }
        for (std::size_t i = 0; i < ulObjCount; ++i) {
            EXPECT_TRUE(velt::isLive(velt::entryAt(i))) << i;
        }
        for (std::size_t i = ulObjCount; i < velt::objectTableSize(); ++i) {
            EXPECT_EQ(0x4B5A0000U, velt::entryAt(i)->handle) << i;
        }
    }
    EXPECT_GE(refusals, 8U); // the table, five blocks, the table once more, and none
}

} // namespace
