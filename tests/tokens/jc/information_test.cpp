// The JaCarta's description, its PIN and its operations.
#include "tests/support/jc_fixture.h"

using namespace velt_test;

namespace {

class JcInformation : public JcTest {};

template <std::size_t Size>
std::string textOf(const unsigned char (&field)[Size])
{
    return {field, field + Size};
}

TEST_F(JcInformation, TheTokenDescribesItself)
{
    CK_SESSION_HANDLE second = 0;
    CK_SESSION_HANDLE third = 0;
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &second));
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &third));
    ASSERT_EQ(CKR_OK, VELT_CloseSession(second));
    for (const CK_SLOT_ID slot : {0UL, 1UL, ~0UL}) { // not looked at
        mark.reset();
        CK_TOKEN_INFO info;
        std::memset(&info, SENTINEL, sizeof info);
        EXPECT_EQ(CKR_OK, fGetTokenInfoJC(table, slot, &info));
        EXPECT_EQ("JaCarta" + std::string(15, ' ') + std::string(4, '\0') + "Aladdi",
                  textOf(info.label));
        EXPECT_EQ("Aladdin" + std::string(25, ' '), textOf(info.manufacturerID));
        EXPECT_EQ("JaCarta PKI     ", textOf(info.model));
        EXPECT_EQ(std::string(16, '\0'), textOf(info.serialNumber));
        EXPECT_EQ(0x40CU, info.flags);
        EXPECT_EQ(10U, info.ulMaxSessionCount);
        EXPECT_EQ(third, info.ulSessionCount); // the highest handle, also of closed ones
        EXPECT_EQ(1U, info.ulMaxRwSessionCount);
        EXPECT_EQ(0U, info.ulRwSessionCount);
        EXPECT_EQ(10U, info.ulMaxPinLen);
        EXPECT_EQ(4U, info.ulMinPinLen);
        EXPECT_EQ(0U, info.ulTotalPublicMemory);
        EXPECT_EQ(0U, info.ulFreePublicMemory);
        EXPECT_EQ(0U, info.ulTotalPrivateMemory);
        EXPECT_EQ(0U, info.ulFreePrivateMemory);
        EXPECT_EQ(1, info.hardwareVersion.major);
        EXPECT_EQ(0, info.hardwareVersion.minor);
        EXPECT_EQ(1, info.firmwareVersion.major);
        EXPECT_EQ(0, info.firmwareVersion.minor);
        EXPECT_EQ(std::string(16, '\0'), textOf(info.utcTime));
        EXPECT_MESSAGES(mark);
    }
}

TEST_F(JcInformation, WrongAndBlockedPinsAsTheTokenSpellsThem)
{
    JCAppletSelected = 0;
    expect("00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00", OK, 4);
    expect("80 15 20 00 00", OK, 4);
    expect("80 10 21 00 04 31 32 33 34", "64 13", 2);
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));
    expect("80 10 21 00 04 31 32 33 34", "69 83", 2);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_MESSAGES(mark, "JaCarta Login CKR_PIN_INCORRECT 0x1364", "JaCarta Login CKR_OK");
}

TEST_F(JcInformation, ALogoutThatFailsIsSilentAndKeepsTheSelection)
{
    for (const std::uint8_t before : Bytes{0, 1}) {
        for (const bool lost : {false, true}) {
            JCAppletSelected = before;
            if (lost) {
                expectLost("80 15 20 00 00", SCARD_W_REMOVED_CARD, 4);
            } else {
                expect("80 15 20 00 00", "6F 00", 4);
            }
            EXPECT_EQ(lost ? pcscCode(SCARD_W_REMOVED_CARD) : 0x006F, fLogoutJC(table, session));
            EXPECT_EQ(before, JCAppletSelected);
            expectAllExchanged();
        }
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(JcInformation, TheFamilysOperationsStandInTheirSlots)
{
    EXPECT_EQ(4U, driverJC.type);
    EXPECT_EQ(&fGetTokenInfoJC, driverJC.GetTokenInfo);
    EXPECT_EQ(&fGetMechanismListJC, driverJC.GetMechanismList);
    EXPECT_EQ(&fLoginJC, driverJC.Login);
    EXPECT_EQ(&fLogoutJC, driverJC.Logout);
    EXPECT_EQ(&fObjectsInitJC, driverJC.ObjectsInit);
    EXPECT_EQ(&fCreateObjectJC, driverJC.CreateObject);
    EXPECT_EQ(&fGenerateKeyPairJC, driverJC.GenerateKeyPair);
    EXPECT_EQ(&fSignInitJC, driverJC.SignInit);
    EXPECT_EQ(&fSignJC, driverJC.Sign);
    EXPECT_EQ(&fDestroyObjectJC, driverJC.DestroyObject);
    EXPECT_EQ(&fGenerateRandomJC, driverJC.GenerateRandom);
    EXPECT_EQ(&fGetPublicKeyJC, driverJC.GetPublicKey);
    EXPECT_EQ(&fGetCertificateJC, driverJC.GetCertificate);
}

} // namespace
