// Key pairs made by the eToken 72K, under names that the C library's generator gives.
#include "tests/support/clock.h"
#include "tests/support/et72k_fixture.h"

#include <cstdlib>

using namespace velt_test;

namespace {

constexpr std::time_t NOW = 1'700'000'000;
constexpr CK_MECHANISM_TYPE RSA_PAIRS = 0x0;
constexpr CK_MECHANISM_TYPE GOST_PAIRS = 0x84B5A001;

const Named OLD{hex("31 32"), {RSA_PAIR}};

Bytes nameAt(std::time_t seconds)
{
    std::srand(static_cast<unsigned>(seconds));
    Bytes name(12);
    for (auto& byte : name) {
        byte = static_cast<std::uint8_t>(std::rand() % 255 + 1);
    }
    return name;
}

class Et72kGeneration : public Et72kTest {
protected:
    void SetUp() override
    {
        Et72kTest::SetUp();
        stopClockAt(NOW);
        load({OLD});
    }
    void TearDown() override
    {
        restartClock();
        Et72kTest::TearDown();
    }

    static Bytes command(CK_MECHANISM_TYPE type, const Bytes& name)
    {
        return hex(type == RSA_PAIRS ? "80 11 26 00 11 08 00 08 00 0C"
                                     : "80 11 20 00 0F 01 00 0C") +
               name;
    }
    static std::size_t capacity(CK_MECHANISM_TYPE type) { return type == RSA_PAIRS ? 4 : 34; }
    void expectMade(CK_MECHANISM_TYPE type, const Bytes& name)
    {
        expect(command(type, name), hex(OK), capacity(type));
    }
    void expectHandles(CK_OBJECT_HANDLE publicKeyHandle, CK_OBJECT_HANDLE privateKeyHandle)
    {
        EXPECT_EQ(publicKeyHandle, publicHandle);
        EXPECT_EQ(privateKeyHandle, privateHandle);
    }
    void expectNoHandles() { expectHandles(4711, 4712); } // as generate() preset them
};

TEST_F(Et72kGeneration, AnRsaPairIsMadeAndFound)
{
    const Bytes name = nameAt(NOW);
    expect(hex("80 11 26 00 11 08 00 08 00 0C") + name, hex(OK), 4);
    expectLoad({OLD, {name, {RSA_PAIR}}});
    EXPECT_EQ(CKR_OK, generate(RSA_PAIRS));
    expectHandles(3, 4);
    EXPECT_EQ(0U, oiFlags);
    EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true",
                    numbered("EToken72K ObjectsInit Objects Count = ", 4),
                    "EToken72K ObjectsInit CKR_OK", "VELTObjectsInit complete",
                    "VELTObjectsInit CKR_OK", "EToken72K GenerateKeyPair CKR_OK");
}

TEST_F(Et72kGeneration, AGostPairIsMadeAndFound)
{
    const Bytes name = nameAt(NOW);
    expect(hex("80 11 20 00 0F 01 00 0C") + name, pattern(32) + hex(OK), 34);
    expectLoad({OLD, {name, {GOST_PRIVATE, GOST_PUBLIC}}});
    EXPECT_EQ(CKR_OK, generate(GOST_PAIRS));
    expectHandles(4, 3);
    EXPECT_MESSAGE_AMONG(mark, "EToken72K GenerateKeyPair CKR_OK");
}

TEST_F(Et72kGeneration, TheNameComesFromTheSecond)
{
    ASSERT_NE(nameAt(NOW), nameAt(NOW + 1));
    for (const std::time_t seconds :
         {NOW, NOW + 1, NOW, std::time_t{0}, std::time_t{0x7FFFFFFF}, std::time_t{0x1'2345'6789}}) {
        SCOPED_TRACE(seconds);
        stopClockAt(seconds);
        const Bytes name = nameAt(seconds);
        std::srand(4711); // seeded afresh each time
        expectMade(RSA_PAIRS, name);
        expectLoad({{name, {RSA_PAIR}}});
        EXPECT_EQ(CKR_OK, generate(RSA_PAIRS));
        expectHandles(1, 2);
        expectAllExchanged();
    }
}

TEST_F(Et72kGeneration, TheGeneratorGoesOnBehindTheName)
{
    nameAt(NOW);
    const int next = std::rand();
    std::srand(4711);
    expectMade(RSA_PAIRS, nameAt(NOW));
    expectLoad({});
    std::srand(4711);
    EXPECT_EQ(CKR_OK, generate(RSA_PAIRS));
    EXPECT_EQ(next, std::rand());
    std::srand(4711);
    EXPECT_EQ(CKR_MECHANISM_INVALID, generate(0x1)); // only after the name was made
    EXPECT_EQ(next, std::rand());
}

TEST_F(Et72kGeneration, OtherMechanismsMakeNoKeyPair)
{
    for (const CK_MECHANISM_TYPE type : {CK_MECHANISM_TYPE{0x1}, CK_MECHANISM_TYPE{0x84B5A002},
                                         CK_MECHANISM_TYPE{0xFFFFFFFF84B5A001}}) {
        mark.reset();
        EXPECT_EQ(CKR_MECHANISM_INVALID, generate(type));
        EXPECT_MESSAGES(mark, "EToken72K GenerateKeyPair CKR_MECHANISM_INVALID");
        expectNoHandles();
        EXPECT_EQ(0U, oiFlags);
    }
}

TEST_F(Et72kGeneration, ARefusedGenerationChangesNothing)
{
    for (const CK_MECHANISM_TYPE type : {RSA_PAIRS, GOST_PAIRS}) {
        mark.reset();
        expect(command(type, nameAt(NOW)), hex("64 14"), capacity(type));
        EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, generate(type));
        EXPECT_MESSAGES(mark, "EToken72K GenerateKeyPair CKR_USER_NOT_LOGGED_IN");
        for (const std::string_view status : {"64 13", "14 64", "6A 84"}) {
            mark.reset();
            expect(command(type, nameAt(NOW)), hex(status), capacity(type));
            EXPECT_EQ(CKR_FUNCTION_FAILED, generate(type)) << status;
            EXPECT_MESSAGES(
                mark, numbered("EToken72K GenerateKeyPair CKR_FUNCTION_FAILED", value(status)));
        }
        failAtEach(
            {{command(type, nameAt(NOW)),
              {},
              capacity(type),
              {"EToken72K GenerateKeyPair CKR_FUNCTION_FAILED#"}}},
            CKR_FUNCTION_FAILED, [] {}, [&] { return generate(type); });
        expectNoHandles();
        EXPECT_EQ(0U, oiFlags);
        EXPECT_EQ(2U, ulObjCount);
    }
}

TEST_F(Et72kGeneration, AReloadThatFailsIsADeviceErrorOrMissingMemory)
{
    for (const CK_MECHANISM_TYPE type : {RSA_PAIRS, GOST_PAIRS}) {
        oiFlags = 4;
        mark.reset();
        expectMade(type, nameAt(NOW));
        expect("80 12 22 00 00", "6F 00", 4);
        EXPECT_EQ(CKR_DEVICE_ERROR, generate(type));
        expectNoHandles();
        EXPECT_EQ(5U, oiFlags);
        EXPECT_MESSAGES(
            mark, "VELTObjectsInit", "VELTObjectsInit Do init = true",
            numbered("EToken72K ObjectsInit APDU get objects count error ", value("6F 00")));
        expectAllExchanged();

        mark.reset();
        expectMade(type, nameAt(NOW));
        expectCount(1);
        alloc::failNth(1); // the table
        EXPECT_EQ(CKR_HOST_MEMORY, generate(type));
        alloc::clear();
        expectNoHandles();
        EXPECT_EQ(5U, oiFlags);
        EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true");
        expectAllExchanged();
        load({OLD});
    }
}

TEST_F(Et72kGeneration, ANameWithTheByteOfTheStatusIsNotTheNewOne)
{
    const Bytes name = nameAt(NOW);
    expectMade(RSA_PAIRS, name);
    expectCount(1);
    expect(getName(0), name + hex("90 00"), 258);
    expectProbes({name + hex("90"), {RSA_PAIR}});
    EXPECT_EQ(CKR_OK, generate(RSA_PAIRS));
    expectNoHandles();
    EXPECT_EQ(2U, ulObjCount);
    EXPECT_MESSAGE_AMONG(mark, "EToken72K GenerateKeyPair CKR_OK");
}

TEST_F(Et72kGeneration, OfSeveralKeysOfTheNameTheLastAreTold)
{
    const Bytes name = nameAt(NOW);
    expectMade(RSA_PAIRS, name);
    expectLoad({{name, {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}},
                OLD,
                {name, {RSA_PAIR}},
                {slice(name, 0, 11), {RSA_PAIR}},
                {name, {CERTIFICATE}},
                {name, {GOST_PUBLIC}}});
    EXPECT_EQ(CKR_OK, generate(RSA_PAIRS));
    expectHandles(13, 9);
}

TEST_F(Et72kGeneration, TheTableIsReloadedForTheTokenInTheSlot)
{
    ET72KAppletSelected = 0;
    stVELTTokens.type = 4;
    const Bytes name = nameAt(NOW);
    expectMade(GOST_PAIRS, name); // the applet is taken for selected
    expectSelection();
    expectLoad({{name, {GOST_PRIVATE}}});
    EXPECT_EQ(CKR_OK, generate(GOST_PAIRS));
    expectHandles(4711, 1);
    EXPECT_EQ(2U, stVELTTokens.type);
    EXPECT_EQ(&fObjectsInitET72K, stVELTTokens.ObjectsInit);
}

} // namespace
