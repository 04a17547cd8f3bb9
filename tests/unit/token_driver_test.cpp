// The driver table and its refill, the default blocks, the byte-string search, and the queries that
// go through the table.
#include "sim/pcsc/standin.h"
#include "src/core/readers.h"
#include "src/core/token_driver.h"
#include "src/front/state.h"
#include "src/objects/attr_blocks.h"
#include "src/tokens/et72k/et72k.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/jc/jc.h"
#include "src/tokens/kt/kt.h"
#include "tests/support/codes.h"
#include "tests/support/fake_driver.h"
#include "tests/support/fields.h"
#include "tests/support/known_cards.h"
#include "tests/support/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>
#include <vector>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;

// --- Filling the table ---------------------------------------------------------------------------

class DriverTable : public ::testing::Test {
protected:
    void TearDown() override { stVELTTokens = {}; }
};

TEST_F(DriverTable, AnIdCardFillsEachSlotWithItsOwnOperation)
{
    TokenDriver table = fake::driver(TOKEN_KT);
    EXPECT_EQ(0U, fVELTTokensInit(&table, TOKEN_IDC));
    EXPECT_EQ(TOKEN_IDC, table.type);
    EXPECT_EQ(fGetTokenInfoIDC, table.GetTokenInfo);
    EXPECT_EQ(fGetMechanismListIDC, table.GetMechanismList);
    EXPECT_EQ(fLoginIDC, table.Login);
    EXPECT_EQ(fLogoutIDC, table.Logout);
    EXPECT_EQ(fObjectsInitIDC, table.ObjectsInit);
    EXPECT_EQ(fCreateObjectIDC, table.CreateObject);
    EXPECT_EQ(fGenerateKeyPairIDC, table.GenerateKeyPair);
    EXPECT_EQ(fSignInitIDC, table.SignInit);
    EXPECT_EQ(fSignIDC, table.Sign);
    EXPECT_EQ(fDestroyObjectIDC, table.DestroyObject);
    EXPECT_EQ(fGenerateRandomIDC, table.GenerateRandom);
    EXPECT_EQ(fGetPublicKeyIDC, table.GetPublicKey);
    EXPECT_EQ(fGetCertificateIDC, table.GetCertificate);
}

TEST_F(DriverTable, AKaztokenFillsEachSlotWithItsOwnOperation)
{
    TokenDriver table = fake::driver(TOKEN_IDC);
    EXPECT_EQ(0U, fVELTTokensInit(&table, TOKEN_KT));
    EXPECT_EQ(TOKEN_KT, table.type);
    EXPECT_EQ(fGetTokenInfoKT, table.GetTokenInfo);
    EXPECT_EQ(fGetMechanismListKT, table.GetMechanismList);
    EXPECT_EQ(fLoginKT, table.Login);
    EXPECT_EQ(fLogoutKT, table.Logout);
    EXPECT_EQ(fObjectsInitKT, table.ObjectsInit);
    EXPECT_EQ(fCreateObjectKT, table.CreateObject);
    EXPECT_EQ(fGenerateKeyPairKT, table.GenerateKeyPair);
    EXPECT_EQ(fSignInitKT, table.SignInit);
    EXPECT_EQ(fSignKT, table.Sign);
    EXPECT_EQ(fDestroyObjectKT, table.DestroyObject);
    EXPECT_EQ(fGenerateRandomKT, table.GenerateRandom);
    EXPECT_EQ(fGetPublicKeyKT, table.GetPublicKey);
    EXPECT_EQ(fGetCertificateKT, table.GetCertificate);
}

TEST_F(DriverTable, AJaCartaFillsEachSlotWithItsOwnOperation)
{
    TokenDriver table = fake::driver(TOKEN_IDC);
    EXPECT_EQ(0U, fVELTTokensInit(&table, TOKEN_JC));
    EXPECT_EQ(TOKEN_JC, table.type);
    EXPECT_EQ(fGetTokenInfoJC, table.GetTokenInfo);
    EXPECT_EQ(fGetMechanismListJC, table.GetMechanismList);
    EXPECT_EQ(fLoginJC, table.Login);
    EXPECT_EQ(fLogoutJC, table.Logout);
    EXPECT_EQ(fObjectsInitJC, table.ObjectsInit);
    EXPECT_EQ(fCreateObjectJC, table.CreateObject);
    EXPECT_EQ(fGenerateKeyPairJC, table.GenerateKeyPair);
    EXPECT_EQ(fSignInitJC, table.SignInit);
    EXPECT_EQ(fSignJC, table.Sign);
    EXPECT_EQ(fDestroyObjectJC, table.DestroyObject);
    EXPECT_EQ(fGenerateRandomJC, table.GenerateRandom);
    EXPECT_EQ(fGetPublicKeyJC, table.GetPublicKey);
    EXPECT_EQ(fGetCertificateJC, table.GetCertificate);
}

TEST_F(DriverTable, AnEToken72KFillsEachSlotWithItsOwnOperation)
{
    TokenDriver table = fake::driver(TOKEN_IDC);
    EXPECT_EQ(0U, fVELTTokensInit(&table, TOKEN_ET72K));
    EXPECT_EQ(TOKEN_ET72K, table.type);
    EXPECT_EQ(fGetTokenInfoET72K, table.GetTokenInfo);
    EXPECT_EQ(fGetMechanismListET72K, table.GetMechanismList);
    EXPECT_EQ(fLoginET72K, table.Login);
    EXPECT_EQ(fLogoutET72K, table.Logout);
    EXPECT_EQ(fObjectsInitET72K, table.ObjectsInit);
    EXPECT_EQ(fCreateObjectET72K, table.CreateObject);
    EXPECT_EQ(fGenerateKeyPairET72K, table.GenerateKeyPair);
    EXPECT_EQ(fSignInitET72K, table.SignInit);
    EXPECT_EQ(fSignET72K, table.Sign);
    EXPECT_EQ(fDestroyObjectET72K, table.DestroyObject);
    EXPECT_EQ(fGenerateRandomET72K, table.GenerateRandom);
    EXPECT_EQ(fGetPublicKeyET72K, table.GetPublicKey);
    EXPECT_EQ(fGetCertificateET72K, table.GetCertificate);
}

TEST_F(DriverTable, EveryFamilyReplacesTheWholeTable)
{
    for (const std::uint64_t type : {TOKEN_IDC, TOKEN_ET72K, TOKEN_KT, TOKEN_JC}) {
        TokenDriver table = fake::driver(TOKEN_NONE);
        EXPECT_EQ(0U, fVELTTokensInit(&table, type));
        EXPECT_EQ(type, table.type);
        EXPECT_NE(fake::getTokenInfo, table.GetTokenInfo);
        EXPECT_NE(fake::getMechanismList, table.GetMechanismList);
        EXPECT_NE(fake::login, table.Login);
        EXPECT_NE(fake::logout, table.Logout);
        EXPECT_NE(fake::objectsInit, table.ObjectsInit);
        EXPECT_NE(fake::createObject, table.CreateObject);
        EXPECT_NE(fake::generateKeyPair, table.GenerateKeyPair);
        EXPECT_NE(fake::signInit, table.SignInit);
        EXPECT_NE(fake::sign, table.Sign);
        EXPECT_NE(fake::destroyObject, table.DestroyObject);
        EXPECT_NE(fake::generateRandom, table.GenerateRandom);
        EXPECT_NE(fake::getPublicKey, table.GetPublicKey);
        EXPECT_NE(fake::getCertificate, table.GetCertificate);
    }
}

TEST_F(DriverTable, AnUnknownFamilyClearsTheTypeAndLeavesTheOperations)
{
    for (const std::uint64_t type :
         {std::uint64_t{0}, std::uint64_t{5}, std::uint64_t{0xFF}, std::uint64_t{0x101},
          std::uint64_t{0x100000001}, ~std::uint64_t{0}}) {
        TokenDriver table = fake::driver(TOKEN_JC);
        EXPECT_EQ(0U, fVELTTokensInit(&table, type));
        TokenDriver expected = fake::driver(TOKEN_NONE);
        EXPECT_EQ(0, std::memcmp(&expected, &table, sizeof(table))) << type;
    }
}

TEST_F(DriverTable, IsRefilledOnlyForAnotherFamilyOrWhenEmpty)
{
    stVELTTokens = fake::driver(TOKEN_IDC);
    velt::ensureDriver(TOKEN_IDC);
    EXPECT_EQ(fake::login, stVELTTokens.Login);
    stVELTTokens = fake::driver(TOKEN_JC);
    velt::ensureDriver(TOKEN_IDC);
    EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
    EXPECT_EQ(fLoginIDC, stVELTTokens.Login);
    stVELTTokens = fake::driver(TOKEN_NONE);
    velt::ensureDriver(TOKEN_IDC);
    EXPECT_EQ(fLoginIDC, stVELTTokens.Login);
    velt::ensureDriver(TOKEN_NONE);
    EXPECT_EQ(TOKEN_NONE, stVELTTokens.type);
    EXPECT_EQ(fLoginIDC, stVELTTokens.Login);
}

// --- The default blocks --------------------------------------------------------------------------

template <std::size_t Size>
bool isFilledWith(const std::uint8_t (&field)[Size], std::uint8_t byte)
{
    return std::all_of(std::begin(field), std::end(field),
                       [byte](std::uint8_t held) { return held == byte; });
}

class DefaultBlocks : public DriverTable {
protected:
    void SetUp() override
    {
        scribble();
        certAttrTempl.initialised = 0;
        pubKeyAttrTempl.local = 0;
        privKeyAttrTempl.local = 0;
    }

    void TearDown() override
    {
        certAttrTempl.initialised = 0;
        pubKeyAttrTempl.local = 0;
        privKeyAttrTempl.local = 0;
        TokenDriver table{};
        fVELTTokensInit(&table, TOKEN_IDC);
        DriverTable::TearDown();
    }

    static void scribble()
    {
        std::memset(&certAttrTempl, 0x5A, sizeof(certAttrTempl));
        std::memset(&pubKeyAttrTempl, 0x5A, sizeof(pubKeyAttrTempl));
        std::memset(&privKeyAttrTempl, 0x5A, sizeof(privKeyAttrTempl));
    }

    static void expectCertificateDefaults()
    {
        const CertAttr& block = certAttrTempl;
        EXPECT_EQ(CKC_X_509, block.certType);
        EXPECT_EQ(1, block.initialised);
        EXPECT_EQ(0, block.trusted);
        EXPECT_EQ(1U, block.category);
        EXPECT_TRUE(isFilledWith(block.blankText, ' '));
        EXPECT_TRUE(isFilledWith(block.startDate, 0));
        EXPECT_TRUE(isFilledWith(block.endDate, 0));
        EXPECT_TRUE(isFilledWith(block.value, 0));
        EXPECT_EQ(0U, block.valueLen);
        EXPECT_TRUE(isFilledWith(block.issuer, 0));
        EXPECT_EQ(0U, block.issuerLen);
        EXPECT_TRUE(isFilledWith(block.serial, 0));
        EXPECT_EQ(0U, block.serialLen);
        EXPECT_TRUE(isFilledWith(block.subject, 0));
        EXPECT_EQ(0U, block.subjectLen);
    }

    static void expectPublicKeyDefaults()
    {
        const PubKeyAttr& block = pubKeyAttrTempl;
        EXPECT_EQ(CKK_RSA, block.keyType);
        EXPECT_TRUE(isFilledWith(block.startDate, 0));
        EXPECT_TRUE(isFilledWith(block.endDate, 0));
        EXPECT_EQ(0, block.derive);
        EXPECT_EQ(1, block.local);
        EXPECT_EQ(1, block.encrypt);
        EXPECT_EQ(1, block.verify);
        EXPECT_EQ(0, block.verifyRecover);
        EXPECT_EQ(0, block.wrap);
        EXPECT_EQ(0, block.trusted);
        EXPECT_TRUE(isFilledWith(block.modulus, 0));
        EXPECT_EQ(0U, block.modulusBits);
        const std::uint8_t exponent[5] = {1, 0, 1, 0, 0};
        EXPECT_TRUE(std::equal(std::begin(exponent), std::end(exponent), block.publicExponent));
        EXPECT_EQ(3U, block.publicExponentLen);
        EXPECT_TRUE(isFilledWith(block.value, 0));
        EXPECT_EQ(0U, block.valueLen);
    }

    static void expectPrivateKeyDefaults()
    {
        const PrivKeyAttr& block = privKeyAttrTempl;
        EXPECT_EQ(CKK_RSA, block.keyType);
        EXPECT_TRUE(isFilledWith(block.startDate, 0));
        EXPECT_TRUE(isFilledWith(block.endDate, 0));
        EXPECT_EQ(0, block.derive);
        EXPECT_EQ(1, block.local);
        EXPECT_EQ(1, block.sensitive);
        EXPECT_EQ(1, block.decrypt);
        EXPECT_EQ(1, block.sign);
        EXPECT_EQ(0, block.signRecover);
        EXPECT_EQ(0, block.unwrap);
        EXPECT_EQ(0, block.extractable);
        EXPECT_EQ(1, block.alwaysSensitive);
        EXPECT_EQ(1, block.neverExtractable);
        EXPECT_EQ(0, block.wrapWithTrusted);
        EXPECT_EQ(0, block.alwaysAuthenticate);
    }
};

TEST_F(DefaultBlocks, AreSetUpWhenAnyFamilyIsFirstLoaded)
{
    for (const std::uint64_t type : {TOKEN_IDC, TOKEN_ET72K, TOKEN_KT, TOKEN_JC}) {
        SetUp();
        TokenDriver table{};
        fVELTTokensInit(&table, type);
        expectCertificateDefaults();
        expectPublicKeyDefaults();
        expectPrivateKeyDefaults();
    }
}

TEST_F(DefaultBlocks, AnyMarkOtherThan1CountsAsNotSetUp)
{
    scribble();
    TokenDriver table{};
    fVELTTokensInit(&table, TOKEN_IDC);
    expectCertificateDefaults();
    expectPublicKeyDefaults();
    expectPrivateKeyDefaults();
}

TEST_F(DefaultBlocks, EachIsSetUpOnceByItsOwnMark)
{
    TokenDriver table{};
    fVELTTokensInit(&table, TOKEN_IDC);
    certAttrTempl.category = 77;
    pubKeyAttrTempl.wrap = 77;
    privKeyAttrTempl.unwrap = 77;
    fVELTTokensInit(&table, TOKEN_KT);
    EXPECT_EQ(77U, certAttrTempl.category);
    EXPECT_EQ(77, pubKeyAttrTempl.wrap);
    EXPECT_EQ(77, privKeyAttrTempl.unwrap);

    pubKeyAttrTempl.local = 0;
    fVELTTokensInit(&table, TOKEN_KT);
    EXPECT_EQ(77U, certAttrTempl.category);
    expectPublicKeyDefaults();
    EXPECT_EQ(77, privKeyAttrTempl.unwrap);

    privKeyAttrTempl.local = 0;
    fVELTTokensInit(&table, TOKEN_JC);
    EXPECT_EQ(77U, certAttrTempl.category);
    expectPrivateKeyDefaults();

    certAttrTempl.initialised = 0;
    fVELTTokensInit(&table, TOKEN_ET72K);
    expectCertificateDefaults();
}

TEST_F(DefaultBlocks, AnUnknownFamilyDoesNotTouchThem)
{
    CertAttr certificate{};
    PubKeyAttr publicKey{};
    PrivKeyAttr privateKey{};
    std::memcpy(&certificate, &certAttrTempl, sizeof(certificate));
    std::memcpy(&publicKey, &pubKeyAttrTempl, sizeof(publicKey));
    std::memcpy(&privateKey, &privKeyAttrTempl, sizeof(privateKey));
    TokenDriver table{};
    fVELTTokensInit(&table, 0);
    fVELTTokensInit(&table, 5);
    EXPECT_EQ(0, std::memcmp(&certificate, &certAttrTempl, sizeof(certificate)));
    EXPECT_EQ(0, std::memcmp(&publicKey, &pubKeyAttrTempl, sizeof(publicKey)));
    EXPECT_EQ(0, std::memcmp(&privateKey, &privKeyAttrTempl, sizeof(privateKey)));
}

// --- Searching bytes -----------------------------------------------------------------------------

// Looks in the first `length` bytes of `haystack`; what is behind them stays readable.
std::uint64_t position(std::string_view haystack, std::size_t length, std::string_view needle)
{
    return strindex(reinterpret_cast<const std::uint8_t*>(haystack.data()), length,
                    reinterpret_cast<const std::uint8_t*>(needle.data()), needle.size());
}

std::uint64_t position(std::string_view haystack, std::string_view needle)
{
    return position(haystack, haystack.size(), needle);
}

TEST(ByteSearch, FindsTheFirstOccurrence)
{
    EXPECT_EQ(2U, position("xxAB", "AB"));
    EXPECT_EQ(0U, position("AB", "AB"));
    EXPECT_EQ(1U, position("AABAB", "AB"));
    EXPECT_EQ(0U, position("AAAA", "AA"));
    EXPECT_EQ(3U, position("aabaaab", "aaab"));
    EXPECT_EQ(3U, position("xyzA", "A"));
}

TEST(ByteSearch, TakesZeroBytesLikeAnyOther)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(2U, position("A\0\0B\0"sv, "\0B"sv));
    EXPECT_EQ(1U, position("A\0B"sv, "\0"sv));
    EXPECT_EQ(0xFFFFFFFFU, position("AB\0"sv, "\0B"sv));
    EXPECT_EQ(1U, position("\xFE\xFF\xFE"sv, "\xFF\xFE"sv));
}

TEST(ByteSearch, WhatIsNotThereIsAllOnesIn32Bits)
{
    EXPECT_EQ(std::uint64_t{0xFFFFFFFF}, position("xxAB", "AC"));
    EXPECT_EQ(std::uint64_t{0xFFFFFFFF}, position("", 0, "A"));
    EXPECT_EQ(std::uint64_t{0xFFFFFFFF}, position("A", 0, "A"));
    EXPECT_EQ(std::uint64_t{0xFFFFFFFF}, STRINDEX_NOT_FOUND);
}

TEST(ByteSearch, AnEmptyNeedleIsNeverFound)
{
    EXPECT_EQ(0xFFFFFFFFU, position("xxAB", ""));
    EXPECT_EQ(0xFFFFFFFFU, position("", ""));
    EXPECT_EQ(0xFFFFFFFFU, strindex(nullptr, 0, nullptr, 0));
}

TEST(ByteSearch, OnlyTheStartOfAnOccurrenceHasToLieInTheHaystack)
{
    EXPECT_EQ(3U, position("xxxABC", 4, "ABC"));
    EXPECT_EQ(3U, position("xxxABC", 5, "ABC"));
    EXPECT_EQ(0xFFFFFFFFU, position("xxxABC", 3, "ABC"));
}

// --- Queries through the table -------------------------------------------------------------------

// Slot 0 an ID card, slot 1 a JaCarta, slot 2 empty.
class TokenQueries : public ::testing::Test {
protected:
    void SetUp() override
    {
        pcsc::reset();
        ASSERT_RV(CKR_OK, C_Initialize(nullptr));
        pcsc::plugReader("A 0");
        pcsc::insertCard("A 0", refusingCard(ID_CARD));
        pcsc::plugReader("B 0");
        pcsc::insertCard("B 0", refusingCard(JACARTA));
        pcsc::plugReader("C 0");
        CK_ULONG count = 0;
        ASSERT_RV(CKR_OK, VELT_GetSlotList(CK_FALSE, nullptr, &count));
        fake::world() = {};
        stVELTTokens = fake::driver(TOKEN_IDC);
        pcsc::clearCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ(0U, pcsc::callCount());
        pcsc::reset();
        EXPECT_RV(CKR_OK, C_SetSCContext(0));
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        stVELTTokens = {};
        fake::world() = {};
    }

    static void answer(const char* operation, CK_RV rv) { fake::world().answers[operation] = rv; }
    static const std::vector<fake::Asked>& asked() { return fake::world().asked; }
};

TEST_F(TokenQueries, TheTokenInformationIsTheDriversToFill)
{
    Guarded<CK_TOKEN_INFO> info;
    const MessageMark mark;
    EXPECT_RV(CKR_OK, VELT_GetTokenInfo(0, info.get()));
    EXPECT_MESSAGES(mark, "GetTokenInfo CKR_OK");
    ASSERT_EQ(1U, asked().size());
    EXPECT_EQ((fake::Asked{"GetTokenInfo", 0, {info.get()}, {}, true, true}), asked()[0]);
    EXPECT_TRUE(info.isUntouched());
}

TEST_F(TokenQueries, TheMechanismListIsTheDriversToFill)
{
    CK_MECHANISM_TYPE types[2] = {77, 78};
    CK_ULONG count = 2;
    const MessageMark mark;
    EXPECT_RV(CKR_OK, VELT_GetMechanismList(0, types, &count));
    EXPECT_RV(CKR_OK, VELT_GetMechanismList(0, nullptr, &count));
    EXPECT_MESSAGES(mark, "GetMechanismList CKR_OK", "GetMechanismList CKR_OK");
    ASSERT_EQ(2U, asked().size());
    EXPECT_EQ((fake::Asked{"GetMechanismList", 0, {types, &count}, {}, true, true}), asked()[0]);
    EXPECT_EQ((fake::Asked{"GetMechanismList", 0, {nullptr, &count}, {}, true, true}), asked()[1]);
    EXPECT_EQ(2U, count);
}

TEST_F(TokenQueries, WhateverTheDriverRefusesWithIsAFailedFunction)
{
    for (const CK_RV refusal : {CK_RV{1}, CK_RV{CKR_BUFFER_TOO_SMALL}, CK_RV{CKR_DEVICE_ERROR},
                                CK_RV{CKR_FUNCTION_NOT_SUPPORTED}, ~CK_RV{0}}) {
        answer("GetTokenInfo", refusal);
        answer("GetMechanismList", refusal);
        const MessageMark mark;
        CK_TOKEN_INFO info{};
        EXPECT_RV(CKR_FUNCTION_FAILED, VELT_GetTokenInfo(0, &info));
        CK_ULONG count = 0;
        EXPECT_RV(CKR_FUNCTION_FAILED, VELT_GetMechanismList(0, nullptr, &count));
        EXPECT_MESSAGES(mark, "GetTokenInfo CKR_FUNCTION_FAILED",
                        "GetMechanismList CKR_FUNCTION_FAILED");
    }
}

TEST_F(TokenQueries, TheTableIsRefilledForTheFamilyOfTheSlot)
{
    CK_TOKEN_INFO info{};
    CK_ULONG count = 0;
    stVELTTokens = {};
    EXPECT_RV(CKR_OK, VELT_GetTokenInfo(0, &info));
    EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
    EXPECT_EQ(fGetTokenInfoIDC, stVELTTokens.GetTokenInfo);

    VELT_GetTokenInfo(1, &info);
    EXPECT_EQ(TOKEN_JC, stVELTTokens.type);
    EXPECT_NE(fGetTokenInfoIDC, stVELTTokens.GetTokenInfo);

    EXPECT_RV(CKR_OK, VELT_GetMechanismList(0, nullptr, &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);

    VELT_GetMechanismList(1, nullptr, &count);
    EXPECT_EQ(TOKEN_JC, stVELTTokens.type);
    EXPECT_TRUE(asked().empty());
}

TEST_F(TokenQueries, ARefusedSlotLeavesTheTableAlone)
{
    CK_TOKEN_INFO info{};
    CK_ULONG count = 0;
    CK_MECHANISM_INFO mechanism{};
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, VELT_GetTokenInfo(2, &info));
    EXPECT_RV(CKR_SLOT_ID_INVALID, VELT_GetTokenInfo(3, &info));
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, VELT_GetMechanismList(3, nullptr, &count));
    EXPECT_RV(CKR_SLOT_ID_INVALID, VELT_GetMechanismList(4, nullptr, &count));
    EXPECT_RV(CKR_OK, VELT_GetMechanismInfo(1, CKM_RSA_PKCS, &mechanism));
    EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
    EXPECT_EQ(fake::login, stVELTTokens.Login);
    EXPECT_TRUE(asked().empty());
}

} // namespace
} // namespace velt_test
