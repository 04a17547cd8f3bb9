// Named objects as entries of the object table, and what is read of a certificate: what both
// families do alike.
#include "src/certdata/der_walker.h"
#include "tests/support/applets.h"

using namespace velt_test;

namespace {

const Bytes NAME = hex("0A 1B");

class AppletObjects : public EachApplet {
protected:
    // A name of `size` bytes, none of them zero, that no other number gives.
    static Bytes nameOf(std::size_t number, std::size_t size = 2)
    {
        Bytes name(size, 0x5A);
        name[0] = static_cast<std::uint8_t>(number % 255 + 1);
        if (size > 1) {
            name[1] = static_cast<std::uint8_t>(number / 255 + 1);
        }
        return name;
    }

    // Loads the objects and compares the whole table.
    void expectLoaded(const std::vector<Named>& objects)
    {
        expectLoad(objects);
        EXPECT_EQ(0U, loadObjects());
        std::size_t entries = 0;
        for (std::size_t i = 0; i < objects.size(); ++i) {
            entries = expectEntries(entries, i, objects[i]);
        }
        EXPECT_EQ(entries, ulObjCount);
        EXPECT_MESSAGES(mark, loadTold(entries));
        EXPECT_GE(velt::objectTableSize(), objects.size() * 3);
        for (std::size_t i = entries; i < velt::objectTableSize(); ++i) {
            EXPECT_EQ(REMOVED_MARKER, velt::entryAt(i)->handle);
        }
        expectAllExchanged();
        mark.reset();
    }

    CK_RV readStored(const Bytes& stored, CK_OBJECT_HANDLE handle = 1)
    {
        expectSteps(family.reading(NAME, stored));
        return getCertificate(handle);
    }
};

INSTANTIATE_TEST_SUITE_P(Families, AppletObjects, testing::ValuesIn(APPLETS), appletName);

const std::vector<Part> ALL_PARTS{GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR};

// --- loading ---

TEST_P(AppletObjects, ATokenWithoutNamesHasNoObjects)
{
    load({{NAME, {RSA_PAIR}}});
    expectCount(0);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(0U, ulObjCount);
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_MESSAGES(mark, toldIf(family.noObjects));
}

TEST_P(AppletObjects, ALoadTellsHowManyNamesItFound)
{
    tmpObjCount = 77;
    load({{nameOf(1), ALL_PARTS}, {nameOf(2), {}}});
    EXPECT_EQ(2U, tmpObjCount);
    expectCount(0);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(0U, tmpObjCount);
}

TEST_P(AppletObjects, EveryCombinationOfPartsMakesItsEntriesInTheOrderOfTheParts)
{
    std::vector<Named> objects;
    for (std::size_t set = 0; set < 16; ++set) {
        Named object{nameOf(set), {}};
        for (const Part part : ALL_PARTS) {
            if ((set >> part & 1) != 0) {
                object.parts.push_back(part);
            }
        }
        objects.push_back(object);
    }
    expectLoaded(objects);
    EXPECT_EQ(40U, ulObjCount);
}

TEST_P(AppletObjects, ACertificateComesBeforeTheRsaPairOfItsName)
{
    load({{NAME, {CERTIFICATE, RSA_PAIR}}});
    ASSERT_EQ(3U, ulObjCount);
    expectCertificateEntry(0, 0, NAME);
    expectPublicKey(1, 0, NAME, CKK_RSA);
    expectPrivateKey(2, 0, NAME, CKK_RSA);
    EXPECT_EQ(0, std::memcmp("0A1B", VELTObj[0].label, 5));
}

TEST_P(AppletObjects, TokensOfManyNamesAreLoaded)
{
    for (const std::size_t count : {1U, 50U, 300U}) {
        SCOPED_TRACE(count);
        std::vector<Named> objects;
        for (std::size_t i = 0; i < count; ++i) {
            objects.push_back({nameOf(i), {CERTIFICATE, RSA_PAIR}});
        }
        expectLoaded(objects);
        EXPECT_EQ(count * 3, ulObjCount);
    }
    EXPECT_EQ(255, VELTObj[255 * 3].id[0]);
    EXPECT_EQ(0, VELTObj[256 * 3].id[0]);
    EXPECT_EQ(43, VELTObj[299 * 3].id[0]);
}

TEST_P(AppletObjects, TheTableGrowsWhereNamesHaveMoreThanThreeEntries)
{
    for (const std::size_t count : {1U, 2U, 50U, 300U}) {
        SCOPED_TRACE(count);
        std::vector<Named> objects;
        for (std::size_t i = 0; i < count; ++i) {
            objects.push_back({nameOf(i), ALL_PARTS});
        }
        expectLoaded(objects);
        EXPECT_EQ(count * 5, ulObjCount);
    }
}

TEST_P(AppletObjects, OneFullNameAmongEmptyOnesKeepsItsEntries)
{
    expectLoaded({{nameOf(1), {}}, {nameOf(2), ALL_PARTS}, {nameOf(3), {}}});
    expectLoaded({{nameOf(1), ALL_PARTS}, {nameOf(2), ALL_PARTS}, {nameOf(3), {GOST_PUBLIC}}});
}

TEST_P(AppletObjects, AProbeAnsweredWithZerosIsAHitAndReadsAs90InTheBuffer)
{
    expectCount(1);
    expectName(0, NAME);
    for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE}) {
        expectProbe({NAME, {}}, part);
    }
    expect(probeFor(NAME, RSA_PAIR), hex("00 00"), 258);
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(2U, ulObjCount);
    EXPECT_EQ(hex("90 00"), Bytes(pbyOutput.begin(), pbyOutput.begin() + 2));
}

TEST_P(AppletObjects, NamesOfEveryLengthAreTaken)
{
    std::vector<Named> objects;
    for (const std::size_t size : {1U, 2U, 12U, 16U, 19U, 20U}) {
        objects.push_back({nameOf(size, size), {CERTIFICATE}});
    }
    expectLoaded(objects);
    EXPECT_EQ(0, VELTObj[5].label[40]);
}

TEST_P(AppletObjects, ALoadSelectsTheAppletAndGoesOnWithoutIt)
{
    family.selected = 0;
    expectSelection();
    expectLoaded({{NAME, {RSA_PAIR}}});
    EXPECT_EQ(1, family.selected);

    family.selected = 0;
    expect(family.selection.at(0).command, hex("6A 82"), 4);
    expectLoad({{NAME, {CERTIFICATE}}});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(0, family.selected);
    EXPECT_EQ(1U, ulObjCount);
    EXPECT_MESSAGES(mark, told("select applet APDU error", 0x826A),
                    told("ObjectsInit Objects Count = ", 1), told("ObjectsInit CKR_OK"));
}

TEST_P(AppletObjects, ALoadClearsTheStartOfTheReplyBuffer)
{
    pbyOutput.fill(SENTINEL);
    expectLost("80 12 22 00 00", SCARD_W_REMOVED_CARD, 4);
    EXPECT_EQ(2U, loadObjects());
    EXPECT_EQ(Bytes(258, 0x00) + Bytes(2050 - 258, SENTINEL),
              Bytes(pbyOutput.begin(), pbyOutput.end()));
}

TEST_P(AppletObjects, ACountThatFailsLeavesTheOldObjects)
{
    failAtEach(
        {{hex("80 12 22 00 00"), {}, 4, {told("ObjectsInit APDU get objects count error ") + "#"}}},
        2,
        [this] {
            load({{NAME, {CERTIFICATE, RSA_PAIR}}});
        },
        [this] {
            const CK_RV result = loadObjects();
            EXPECT_EQ(3U, ulObjCount);
            expectEntries(0, 0, {NAME, {CERTIFICATE, RSA_PAIR}});
            return result;
        });
}

TEST_P(AppletObjects, ANameThatFailsLeavesTheEntriesSoFar)
{
    const Named old{nameOf(9), {GOST_PRIVATE}};
    const Named first{nameOf(1), {GOST_PRIVATE, GOST_PUBLIC}};
    const std::string failure = told("ObjectsInit APDU get object name error ") + "#";
    std::vector<ExchangeStep> steps{
        {hex("80 12 22 00 00"), hex("00 02 90 00"), 4},
        {getName(0), first.name + family.nameEnd + hex(OK), family.nameCapacity, {failure}}};
    failAtEach(
        steps, 2, [&] { load({old}); },
        [this] {
            const CK_RV result = loadObjects();
            EXPECT_EQ(0U, ulObjCount);
            EXPECT_EQ(6U, velt::objectTableSize());
            EXPECT_EQ(REMOVED_MARKER, velt::entryAt(0)->handle);
            return result;
        });
    for (const Part part : ALL_PARTS) {
        steps.push_back(
            {probeFor(first.name, part), hex(first.has(part) ? OK : NO_SUCH_PART), 258});
    }
    steps[1].fails.clear();
    steps.push_back({getName(1), {}, family.nameCapacity, {failure}});
    failAtEach(
        steps, 2, [&] { load({old}); },
        [&] {
            const CK_RV result = loadObjects();
            EXPECT_EQ(2U, ulObjCount);
            EXPECT_EQ(2U, expectEntries(0, 0, first));
            EXPECT_EQ(REMOVED_MARKER, velt::entryAt(2)->handle);
            return result;
        });
}

TEST_P(AppletObjects, APartThatIsNotThereIsPassedOverSilently)
{
    for (const std::string_view missing : {"64 28", "64 19"}) {
        mark.reset();
        expectCount(1);
        expectName(0, NAME);
        for (const Part part : ALL_PARTS) {
            expect(probeFor(NAME, part), hex(missing), 258);
        }
        EXPECT_EQ(0U, loadObjects());
        EXPECT_EQ(0U, ulObjCount);
        EXPECT_EQ(3U, velt::objectTableSize());
        EXPECT_MESSAGES(mark, loadTold(0));
    }
}

TEST_P(AppletObjects, AProbeThatFailsIsToldAndTheNextPartIsAskedFor)
{
    for (const Part failing : ALL_PARTS) {
        for (const std::string_view status : {"64 14", "64 13", "28 64", "6A 82", "lost"}) {
            SCOPED_TRACE(testing::Message() << status << " for part " << int{failing});
            mark.reset();
            const Named object{NAME, ALL_PARTS};
            Named left{NAME, {}};
            expectCount(1);
            expectName(0, NAME);
            for (const Part part : ALL_PARTS) {
                if (part != failing) {
                    expectProbe(object, part);
                    left.parts.push_back(part);
                } else if (status == "lost") {
                    expectLost(probeFor(NAME, part), SCARD_E_COMM_DATA_LOST, 258);
                } else {
                    expect(probeFor(NAME, part), hex(status), 258);
                }
            }
            EXPECT_EQ(0U, loadObjects());
            EXPECT_EQ(ulObjCount, expectEntries(0, 0, left));
            EXPECT_MESSAGES(
                mark,
                told("ObjectsInit APDU check object type error ",
                     status == "lost" ? pcscCode(SCARD_E_COMM_DATA_LOST) : value(status)),
                loadTold(ulObjCount)[0], loadTold(ulObjCount)[1]);
            expectAllExchanged();
        }
    }
}

TEST_P(AppletObjects, AProbeThatIsAnsweredWithDataIsNoHit)
{
    for (const Bytes& data : {hex("00"), hex("90 00"), pattern(256)}) {
        mark.reset();
        expectCount(1);
        expectName(0, NAME);
        for (const Part part : ALL_PARTS) {
            expect(probeFor(NAME, part), data + hex(OK), 258);
        }
        EXPECT_EQ(0U, loadObjects());
        EXPECT_EQ(0U, ulObjCount);
        EXPECT_MESSAGES(mark, loadTold(0));
    }
}

TEST_P(AppletObjects, EveryAllocationThatFailsEndsTheLoadWithOne)
{
    const Named object{NAME, ALL_PARTS};
    // The table; three blocks, one a probe; the larger table; the blocks of the pair.
    const std::vector<std::size_t> made{0, 0, 1, 2, 3, 3, 4};
    for (std::size_t n = 1; n <= made.size(); ++n) {
        SCOPED_TRACE(n);
        mark.reset();
        expectCount(1);
        if (n > 1) {
            expectName(0, NAME);
        }
        for (const Part part : ALL_PARTS) {
            if (part + 1U < n) {
                expectProbe(object, part);
            }
        }
        alloc::failNth(n);
        EXPECT_EQ(1U, loadObjects());
        EXPECT_EQ(1U, alloc::refused());
        alloc::clear();
        EXPECT_MESSAGES(mark);
        EXPECT_EQ(made[n - 1], ulObjCount);
        for (std::size_t i = 0; i < ulObjCount; ++i) {
            EXPECT_TRUE(velt::isLive(velt::entryAt(i))) << i;
        }
        expectAllExchanged();
    }
    alloc::failNth(made.size() + 1);
    expectLoaded({object});
    EXPECT_EQ(0U, alloc::refused());
}

// --- reading ---

TEST_P(AppletObjects, WhatIsNoPublicKeyOfAKnownKindIsNotRead)
{
    load({{NAME, {GOST_PRIVATE, CERTIFICATE, RSA_PAIR}}, {nameOf(7), {}}});
    publicKey(3).keyType = CKK_EC;
    for (const CK_OBJECT_HANDLE handle : {1UL, 2UL, 3UL, 4UL, 5UL, 0UL, 7UL, 4711UL, ~0UL}) {
        mark.reset();
        EXPECT_EQ(CKR_OK, getPublicKey(handle)) << handle;
        EXPECT_MESSAGES(mark, told("GetPublicKey CKR_OK"));
    }
    EXPECT_EQ(0U, publicKey(3).modulusBits);
    EXPECT_EQ(0U, publicKey(3).valueLen);
}

TEST_P(AppletObjects, ACertificateIsExpandedAndTakenApart)
{
    load({{NAME, {CERTIFICATE}}});
    Certificate source;
    source.notBefore = "250115093000Z";
    const Bytes encoded = source.encode();
    EXPECT_EQ(CKR_OK, readStored(gzipMember(encoded)));
    const CertAttr& read = certificate(1);
    EXPECT_EQ(encoded.size(), read.valueLen);
    EXPECT_EQ(padded(encoded, 4096), Bytes(std::begin(read.value), std::end(read.value)));
    EXPECT_EQ(source.issuer, Bytes(read.issuer, read.issuer + read.issuerLen));
    EXPECT_EQ(source.subject, Bytes(read.subject, read.subject + read.subjectLen));
    EXPECT_EQ(source.serial, Bytes(read.serial, read.serial + read.serialLen));
    EXPECT_EQ(text("2525011") + Bytes{0},
              Bytes(std::begin(read.startDate), std::end(read.startDate)));
    EXPECT_EQ(text("2029063") + Bytes{0}, Bytes(std::begin(read.endDate), std::end(read.endDate)));
    EXPECT_MESSAGE_AMONG(mark, told("GetCertificate CKR_OK"));
    EXPECT_EQ(certAttrTempl.certType, read.certType);
    EXPECT_EQ(certAttrTempl.category, read.category);
}

TEST_P(AppletObjects, StoredFormsOfEverySizeAreRead)
{
    load({{NAME, {CERTIFICATE}}});
    const Bytes encoded = Certificate{}.encode();
    const std::size_t shortest = gzipMember(encoded).size();
    for (const std::size_t size : {shortest, std::size_t{500}, std::size_t{512}, std::size_t{513},
                                   std::size_t{2047}, std::size_t{2048}}) {
        SCOPED_TRACE(size);
        certificate(1).valueLen = 0;
        EXPECT_EQ(CKR_OK, readStored(gzipMemberOf(encoded, size)));
        EXPECT_EQ(encoded.size(), certificate(1).valueLen);
        expectAllExchanged();
    }
}

TEST_P(AppletObjects, ACertificateExpandsToAtMost4096Bytes)
{
    load({{NAME, {CERTIFICATE}}});
    EXPECT_EQ(2U, readStored(gzipMember(Certificate{}.encodeTo(4097))));
    EXPECT_EQ(0U, certificate(1).valueLen);
    EXPECT_MESSAGES(mark, "Z_BUF_ERROR Ran out of output buffer for writing compressed bytes.",
                    told("GetCertificate cert ungzip error ", 0xFFFFFFFFFFFFFFFB));
    EXPECT_EQ(CKR_OK, readStored(gzipMember(Certificate{}.encodeTo(4096))));
    EXPECT_EQ(4096U, certificate(1).valueLen);
}

TEST_P(AppletObjects, ACertificateThatDoesNotExpandIsRefusedWithTheCode)
{
    load({{NAME, {CERTIFICATE}}});
    const Bytes whole = gzipMember(Certificate{}.encode());
    for (const Bytes& stored : {Bytes{}, hex("1F"), slice(whole, 0, whole.size() - 1),
                                slice(whole, 0, 31), slice(whole, 0, 32), slice(whole, 0, 33)}) {
        SCOPED_TRACE(stored.size());
        mark.reset();
        EXPECT_EQ(2U, readStored(stored));
        EXPECT_MESSAGES(mark, "Z_BUF_ERROR Ran out of output buffer for writing compressed bytes.",
                        told("GetCertificate cert ungzip error ", 0xFFFFFFFFFFFFFFFB));
    }
    for (const Bytes& stored : {pattern(40), pattern(64), pattern(65), Certificate{}.encode()}) {
        SCOPED_TRACE(stored.size());
        mark.reset();
        EXPECT_EQ(2U, readStored(stored));
        EXPECT_MESSAGES(mark, "Z_DATA_ERROR The deflate data was invalid or incomplete.",
                        told("GetCertificate cert ungzip error ", 0xFFFFFFFFFFFFFFFD));
    }
    expectCertificateEntry(0, 0, NAME); // as it was
}

TEST_P(AppletObjects, AFailureAtEachExchangeOfACertificate)
{
    const Bytes stored = gzipMember(Certificate{}.encode());
    failAtEach(
        family.reading(NAME, stored), 2,
        [this] {
            load({{NAME, {CERTIFICATE}}});
        },
        [this] {
            const CK_RV result = getCertificate(1);
            expectCertificateEntry(0, 0, NAME);
            return result;
        });
}

TEST_P(AppletObjects, ACertificateReadForAKeyIsMadeAndDropped)
{
    const Named object{NAME, {GOST_PRIVATE, GOST_PUBLIC, RSA_PAIR}};
    load({object});
    const Bytes stored = gzipMember(Certificate{}.encode());
    for (const CK_OBJECT_HANDLE handle : {1UL, 2UL, 3UL, 4UL}) {
        SCOPED_TRACE(handle);
        mark.reset();
        isLen = 4711;
        EXPECT_EQ(CKR_OK, readStored(stored, handle));
        EXPECT_MESSAGES(mark, told("GetCertificate CKR_OK"));
        EXPECT_EQ(4711, isLen); // not walked
        EXPECT_EQ(4U, expectEntries(0, 0, object));
    }
    mark.reset();
    EXPECT_EQ(2U, readStored(pattern(40), 3));
    EXPECT_MESSAGE_AMONG(mark, told("GetCertificate cert ungzip error ", 0xFFFFFFFFFFFFFFFD));
    failAtEach(
        family.reading(NAME, stored), 2, [] {}, [this] { return getCertificate(4); });
}

TEST_P(AppletObjects, HandlesOutsideTheTableHaveNoCertificate)
{
    load({{NAME, {CERTIFICATE}}});
    for (const CK_OBJECT_HANDLE handle : {0UL, 4UL, 4711UL, ~0UL}) {
        EXPECT_EQ(CKR_OK, getCertificate(handle)) << handle;
    }
    EXPECT_MESSAGES(mark);
}

} // namespace
