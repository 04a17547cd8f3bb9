// The default class blocks that drivers copy from.
#include "src/objects/attr_blocks.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace {

// Starts from templates that were never set up.
class AttrTemplates : public ::testing::Test {
protected:
    void SetUp() override
    {
        certAttrTempl = {};
        pubKeyAttrTempl = {};
        privKeyAttrTempl = {};
    }
};

template <std::size_t Size>
bool isFilledWith(const std::uint8_t (&field)[Size], std::uint8_t byte)
{
    return std::ranges::all_of(field, [byte](std::uint8_t value) { return value == byte; });
}

TEST_F(AttrTemplates, CertificateDefaults)
{
    velt::initAttrTemplates();
    EXPECT_EQ(0U, certAttrTempl.certType);
    EXPECT_EQ(1, certAttrTempl.initialised);
    EXPECT_EQ(0, certAttrTempl.trusted);
    EXPECT_EQ(1U, certAttrTempl.category);
    EXPECT_EQ(128U, sizeof certAttrTempl.blankText);
    EXPECT_TRUE(isFilledWith(certAttrTempl.blankText, 0x20));
    EXPECT_EQ(8U, sizeof certAttrTempl.startDate);
    EXPECT_TRUE(isFilledWith(certAttrTempl.startDate, 0));
    EXPECT_EQ(8U, sizeof certAttrTempl.endDate);
    EXPECT_TRUE(isFilledWith(certAttrTempl.endDate, 0));
    EXPECT_EQ(4096U, sizeof certAttrTempl.value);
    EXPECT_TRUE(isFilledWith(certAttrTempl.value, 0));
    EXPECT_EQ(0U, certAttrTempl.valueLen);
    EXPECT_EQ(1024U, sizeof certAttrTempl.issuer);
    EXPECT_TRUE(isFilledWith(certAttrTempl.issuer, 0));
    EXPECT_EQ(0U, certAttrTempl.issuerLen);
    EXPECT_EQ(64U, sizeof certAttrTempl.serial);
    EXPECT_TRUE(isFilledWith(certAttrTempl.serial, 0));
    EXPECT_EQ(0U, certAttrTempl.serialLen);
    EXPECT_EQ(1024U, sizeof certAttrTempl.subject);
    EXPECT_TRUE(isFilledWith(certAttrTempl.subject, 0));
    EXPECT_EQ(0U, certAttrTempl.subjectLen);
}

TEST_F(AttrTemplates, PublicKeyDefaults)
{
    velt::initAttrTemplates();
    EXPECT_EQ(0U, pubKeyAttrTempl.keyType);
    EXPECT_TRUE(isFilledWith(pubKeyAttrTempl.startDate, 0));
    EXPECT_TRUE(isFilledWith(pubKeyAttrTempl.endDate, 0));
    EXPECT_EQ(0, pubKeyAttrTempl.derive);
    EXPECT_EQ(1, pubKeyAttrTempl.local);
    EXPECT_EQ(1, pubKeyAttrTempl.encrypt);
    EXPECT_EQ(1, pubKeyAttrTempl.verify);
    EXPECT_EQ(0, pubKeyAttrTempl.verifyRecover);
    EXPECT_EQ(0, pubKeyAttrTempl.wrap);
    EXPECT_EQ(0, pubKeyAttrTempl.trusted);
    EXPECT_EQ(256U, sizeof pubKeyAttrTempl.modulus);
    EXPECT_TRUE(isFilledWith(pubKeyAttrTempl.modulus, 0));
    EXPECT_EQ(0U, pubKeyAttrTempl.modulusBits);
    const std::uint8_t exponent[] = {1, 0, 1, 0, 0};
    static_assert(sizeof exponent == sizeof pubKeyAttrTempl.publicExponent);
    EXPECT_EQ(0, std::memcmp(exponent, pubKeyAttrTempl.publicExponent, sizeof exponent));
    EXPECT_EQ(3U, pubKeyAttrTempl.publicExponentLen);
    EXPECT_EQ(64U, sizeof pubKeyAttrTempl.value);
    EXPECT_TRUE(isFilledWith(pubKeyAttrTempl.value, 0));
    EXPECT_EQ(0U, pubKeyAttrTempl.valueLen);
}

TEST_F(AttrTemplates, PrivateKeyDefaults)
{
    velt::initAttrTemplates();
    EXPECT_EQ(0U, privKeyAttrTempl.keyType);
    EXPECT_TRUE(isFilledWith(privKeyAttrTempl.startDate, 0));
    EXPECT_TRUE(isFilledWith(privKeyAttrTempl.endDate, 0));
    EXPECT_EQ(0, privKeyAttrTempl.derive);
    EXPECT_EQ(1, privKeyAttrTempl.local);
    EXPECT_EQ(1, privKeyAttrTempl.sensitive);
    EXPECT_EQ(1, privKeyAttrTempl.decrypt);
    EXPECT_EQ(1, privKeyAttrTempl.sign);
    EXPECT_EQ(0, privKeyAttrTempl.signRecover);
    EXPECT_EQ(0, privKeyAttrTempl.unwrap);
    EXPECT_EQ(0, privKeyAttrTempl.extractable);
    EXPECT_EQ(1, privKeyAttrTempl.alwaysSensitive);
    EXPECT_EQ(1, privKeyAttrTempl.neverExtractable);
    EXPECT_EQ(0, privKeyAttrTempl.wrapWithTrusted);
    EXPECT_EQ(0, privKeyAttrTempl.alwaysAuthenticate);
}

TEST_F(AttrTemplates, EachIsSetUpOnce)
{
    velt::initAttrTemplates();
    certAttrTempl.category = 9;
    pubKeyAttrTempl.wrap = 9;
    privKeyAttrTempl.derive = 9;
    velt::initAttrTemplates();
    EXPECT_EQ(9U, certAttrTempl.category);
    EXPECT_EQ(9, pubKeyAttrTempl.wrap);
    EXPECT_EQ(9, privKeyAttrTempl.derive);
}

TEST_F(AttrTemplates, EachHasAGuardOfItsOwn)
{
    for (const std::uint8_t guard : std::initializer_list<std::uint8_t>{0, 2, 0xFF}) {
        certAttrTempl.initialised = guard;
        certAttrTempl.category = 9;
        pubKeyAttrTempl.local = 1;
        pubKeyAttrTempl.wrap = 9;
        privKeyAttrTempl.local = guard;
        privKeyAttrTempl.derive = 9;
        velt::initAttrTemplates();
        EXPECT_EQ(1, certAttrTempl.initialised);
        EXPECT_EQ(1U, certAttrTempl.category);
        EXPECT_EQ(9, pubKeyAttrTempl.wrap);
        EXPECT_EQ(1, privKeyAttrTempl.local);
        EXPECT_EQ(0, privKeyAttrTempl.derive);

        certAttrTempl.category = 9;
        pubKeyAttrTempl.local = guard;
        velt::initAttrTemplates();
        EXPECT_EQ(9U, certAttrTempl.category);
        EXPECT_EQ(1, pubKeyAttrTempl.local);
        EXPECT_EQ(0, pubKeyAttrTempl.wrap);
        pubKeyAttrTempl = {};
    }
}

} // namespace
