// The KAZTOKEN's description and mechanisms, and the PIN on its way to it.
#include "tests/support/kt_fixture.h"

#include <cstring>

using namespace velt_test;

namespace {

class KtInformation : public KtTest {
protected:
    CK_RV login(std::string_view pin)
    {
        std::vector<CK_UTF8CHAR> exact(pin.begin(), pin.end());
        exact.reserve(1);
        return fLoginKT(table, session, exact.data(), exact.size());
    }
};

template <std::size_t Size>
std::string textOf(const unsigned char (&field)[Size])
{
    return {field, field + Size};
}

TEST_F(KtInformation, TheTokenDescribesItself)
{
    CK_SESSION_HANDLE second = 0;
    CK_SESSION_HANDLE third = 0;
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &second));
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &third));
    ASSERT_EQ(CKR_OK, VELT_CloseSession(second));
    CK_TOKEN_INFO info;
    std::memset(&info, SENTINEL, sizeof info);
    EXPECT_EQ(CKR_OK, fGetTokenInfoKT(table, 0, &info));
    EXPECT_EQ("KAZTOKEN" + std::string(14, ' ') + std::string(1, '\0') + "Fliokluv ",
              textOf(info.label));
    EXPECT_EQ("Fliokluv LLP" + std::string(20, ' '), textOf(info.manufacturerID));
    EXPECT_EQ("KAZTOKEN" + std::string(8, ' '), textOf(info.model));
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
}

TEST_F(KtInformation, MechanismsAreListedInOrder)
{
    using List = std::array<CK_MECHANISM_TYPE, 5>;
    CK_ULONG count = 77;
    EXPECT_EQ(CKR_OK, fGetMechanismListKT(table, nullptr, &count));
    EXPECT_EQ(4U, count);
    List list{77, 77, 77, 77, 77};
    for (const CK_ULONG room : {0UL, 1UL, 3UL}) {
        count = room;
        EXPECT_EQ(CKR_OK, fGetMechanismListKT(table, list.data(), &count));
        EXPECT_EQ(4U, count);
        EXPECT_EQ((List{77, 77, 77, 77, 77}), list);
    }
    for (const CK_ULONG room : {4UL, 5UL}) {
        list.fill(77);
        count = room;
        EXPECT_EQ(CKR_OK, fGetMechanismListKT(table, list.data(), &count));
        EXPECT_EQ(room, count);
        EXPECT_EQ((List{0x0, 0x1, 0x84B5A001, 0x84B5A002, 77}), list);
    }
}

TEST_F(KtInformation, ThePinGoesOutAsItIs)
{
    expect("00 20 00 02 06 31 32 33 34 35 36", OK);
    EXPECT_EQ(CKR_OK, login("123456"));
    expect("00 20 00 02 00", OK);
    EXPECT_EQ(CKR_OK, login(""));
    expect(hex("00 20 00 02 2C") + Bytes(300, 'x'), hex(OK)); // the low eight bits of 300
    EXPECT_EQ(CKR_OK, login(std::string(300, 'x')));
    EXPECT_MESSAGES(mark, "KAZTOKEN Login CKR_OK", "KAZTOKEN Login CKR_OK",
                    "KAZTOKEN Login CKR_OK");
}

TEST_F(KtInformation, OnlyTheBitsOfAWrongPinMakeALoginFail)
{
    for (const std::string_view wrong : {"C3 63", "6A 63", "6A E3", "6A 7B", "00 63"}) {
        mark.reset();
        expect("00 20 00 02 04 31 32 33 34", wrong);
        EXPECT_EQ(CKR_PIN_INCORRECT, login("1234")) << wrong;
        EXPECT_MESSAGES(mark, "KAZTOKEN Login CKR_PIN_INCORRECT");
    }
    for (const std::string_view other :
         {"69 83", "69 82", "6A 62", "6A 23", "6A 43", "6F 00", "6C 20"}) {
        mark.reset();
        expect("00 20 00 02 04 31 32 33 34", other);
        EXPECT_EQ(CKR_OK, login("1234")) << other;
        EXPECT_MESSAGES(mark, "KAZTOKEN Login CKR_OK");
    }
}

TEST_F(KtInformation, ATryCounterIsTakenForWaitingData)
{
    expect("00 20 00 02 04 31 32 33 34", "63 C2");
    expectGetResponse(0xC2, hex("6D 00"));
    EXPECT_EQ(CKR_OK, login("1234"));
    expect("00 20 00 02 04 31 32 33 34", "F3 E3");
    expectGetResponse(0xE3, hex("6A E3"));
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));
}

TEST_F(KtInformation, ALostLoginIsToldAsASuccess)
{
    expectLost("00 20 00 02 04 31 32 33 34", SCARD_W_REMOVED_CARD);
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_F(KtInformation, NoPinStaysInTheCommandBuffer)
{
    for (const std::string_view reply : {"90 00", "6A 63"}) {
        expect("00 20 00 02 04 31 32 33 34", reply);
        login("1234");
        const velt::Command probe{0x00, 0x00, 0x00, 0x00};
        const std::uint8_t* buffer = probe.bytes().data();
        EXPECT_TRUE(std::all_of(buffer + 4, buffer + 9, [](auto byte) { return byte == 0; }));
    }
}

TEST_F(KtInformation, APinBeyondTheCommandBufferIsNotSent)
{
    EXPECT_EQ(CKR_PIN_LEN_RANGE, login(std::string(70000, '1')));
    EXPECT_MESSAGES(mark);
}

TEST_F(KtInformation, LogoutIsOneCommand)
{
    expect("80 40 00 00", OK, 4);
    EXPECT_EQ(CKR_OK, fLogoutKT(table, session));
    EXPECT_MESSAGES(mark, "KAZTOKEN Logout CKR_OK");
    failAtEach(
        {{hex("80 40 00 00"), {}, 4, {"KAZTOKEN Logout CKR_FUNCTION_FAILED#"}}},
        CKR_FUNCTION_FAILED, [] {}, [this] { return fLogoutKT(table, session); });
}

TEST_F(KtInformation, TheTableHoldsTheFamilysOperationsInTheirSlots)
{
    for (const TokenDriver* loaded : {&driverKT, static_cast<const TokenDriver*>(&stVELTTokens)}) {
        EXPECT_EQ(3U, loaded->type);
        EXPECT_EQ(&fGetTokenInfoKT, loaded->GetTokenInfo);
        EXPECT_EQ(&fGetMechanismListKT, loaded->GetMechanismList);
        EXPECT_EQ(&fLoginKT, loaded->Login);
        EXPECT_EQ(&fLogoutKT, loaded->Logout);
        EXPECT_EQ(&fObjectsInitKT, loaded->ObjectsInit);
        EXPECT_EQ(&fCreateObjectKT, loaded->CreateObject);
        EXPECT_EQ(&fGenerateKeyPairKT, loaded->GenerateKeyPair);
        EXPECT_EQ(&fSignInitKT, loaded->SignInit);
        EXPECT_EQ(&fSignKT, loaded->Sign);
        EXPECT_EQ(&fDestroyObjectKT, loaded->DestroyObject);
        EXPECT_EQ(&fGenerateRandomKT, loaded->GenerateRandom);
        EXPECT_EQ(&fGetPublicKeyKT, loaded->GetPublicKey);
        EXPECT_EQ(&fGetCertificateKT, loaded->GetCertificate);
    }
}

} // namespace
