// What the ID card says of itself without being asked, and the table of its operations.
#include "tests/support/idc_fixture.h"

#include <algorithm>
#include <cstring>

using velt_test::SENTINEL;

namespace {

using IdcInformation = velt_test::IdcTest;

std::string blankPadded(std::string shown, std::size_t size)
{
    shown.resize(size, ' ');
    return shown;
}

template <std::size_t Size>
std::string textOf(const unsigned char (&field)[Size])
{
    return {field, field + Size};
}

// A token description with sentinels in it and behind it.
struct Described {
    CK_TOKEN_INFO info;
    std::array<std::uint8_t, 64> behind;

    Described() { std::memset(static_cast<void*>(this), SENTINEL, sizeof *this); }

    bool isUntouchedBehind() const
    {
        return std::ranges::all_of(behind, [](std::uint8_t byte) { return byte == SENTINEL; });
    }
};

void expectIdCard(const CK_TOKEN_INFO& info)
{
    EXPECT_EQ(blankPadded("Kazakhstan IDCard", 32), textOf(info.label));
    EXPECT_EQ(blankPadded("KZ", 32), textOf(info.manufacturerID));
    EXPECT_EQ(blankPadded("KZIDCARD", 16), textOf(info.model));
    EXPECT_EQ(std::string(16, '\0'), textOf(info.serialNumber));
    EXPECT_EQ(0x40CU, info.flags);
    EXPECT_EQ(1U, info.ulMaxSessionCount);
    EXPECT_EQ(0U, info.ulSessionCount);
    EXPECT_EQ(1U, info.ulMaxRwSessionCount);
    EXPECT_EQ(0U, info.ulRwSessionCount);
    EXPECT_EQ(4U, info.ulMaxPinLen);
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

TEST_F(IdcInformation, TheDescriptionIsFixedAndAsksNothingOfTheCard)
{
    for (const CK_SLOT_ID slot : {0UL, 1UL, 4711UL, ~0UL}) { // the slot is not looked at
        Described described;
        EXPECT_EQ(CKR_OK, fGetTokenInfoIDC(table, slot, &described.info));
        expectIdCard(described.info);
        EXPECT_TRUE(described.isUntouchedBehind());
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcInformation, TheDescriptionReachesTheHostThroughTheCore)
{
    Described described;
    EXPECT_EQ(CKR_OK, VELT_GetTokenInfo(0, &described.info));
    expectIdCard(described.info);
    EXPECT_TRUE(described.isUntouchedBehind());
    EXPECT_MESSAGES(mark, "GetTokenInfo CKR_OK");
}

TEST_F(IdcInformation, AMechanismCountIsAnsweredWithoutAList)
{
    for (const CK_ULONG before : {0UL, 1UL, 2UL, 99UL}) {
        CK_ULONG count = before;
        EXPECT_EQ(CKR_OK, fGetMechanismListIDC(table, nullptr, &count));
        EXPECT_EQ(2U, count);
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcInformation, AMechanismListThatIsTooShortStaysUntouchedAndSucceeds)
{
    for (const CK_ULONG room : {0UL, 1UL}) {
        std::array<CK_MECHANISM_TYPE, 3> list{77, 77, 77};
        CK_ULONG count = room;
        EXPECT_EQ(CKR_OK, fGetMechanismListIDC(table, list.data(), &count));
        EXPECT_EQ(2U, count);
        EXPECT_EQ((std::array<CK_MECHANISM_TYPE, 3>{77, 77, 77}), list);
    }
}

TEST_F(IdcInformation, AMechanismListWithRoomKeepsTheCallersCount)
{
    for (const CK_ULONG room : {2UL, 3UL, 5UL}) {
        std::array<CK_MECHANISM_TYPE, 5> list{77, 77, 77, 77, 77};
        CK_ULONG count = room;
        EXPECT_EQ(CKR_OK, fGetMechanismListIDC(table, list.data(), &count));
        EXPECT_EQ(room, count);
        EXPECT_EQ(
            (std::array<CK_MECHANISM_TYPE, 5>{CKM_RSA_PKCS, CKM_RSA_PKCS_KEY_PAIR_GEN, 77, 77, 77}),
            list);
    }
}

TEST_F(IdcInformation, MechanismsReachTheHostThroughTheCore)
{
    std::array<CK_MECHANISM_TYPE, 2> list{};
    CK_ULONG count = 1;
    EXPECT_EQ(CKR_OK, VELT_GetMechanismList(0, list.data(), &count)); // not CKR_BUFFER_TOO_SMALL
    EXPECT_EQ(2U, count);
    EXPECT_EQ((std::array<CK_MECHANISM_TYPE, 2>{}), list);
    EXPECT_EQ(CKR_OK, VELT_GetMechanismList(0, list.data(), &count));
    EXPECT_EQ((std::array<CK_MECHANISM_TYPE, 2>{0x1, 0x0}), list);
}

TEST_F(IdcInformation, TheTableHoldsTheFamilysOperationsInTheirSlots)
{
    for (const TokenDriver* loaded : {&driverIDC, static_cast<const TokenDriver*>(&stVELTTokens)}) {
        EXPECT_EQ(1U, loaded->type);
        EXPECT_EQ(&fGetTokenInfoIDC, loaded->GetTokenInfo);
        EXPECT_EQ(&fGetMechanismListIDC, loaded->GetMechanismList);
        EXPECT_EQ(&fLoginIDC, loaded->Login);
        EXPECT_EQ(&fLogoutIDC, loaded->Logout);
        EXPECT_EQ(&fObjectsInitIDC, loaded->ObjectsInit);
        EXPECT_EQ(&fCreateObjectIDC, loaded->CreateObject);
        EXPECT_EQ(&fGenerateKeyPairIDC, loaded->GenerateKeyPair);
        EXPECT_EQ(&fSignInitIDC, loaded->SignInit);
        EXPECT_EQ(&fSignIDC, loaded->Sign);
        EXPECT_EQ(&fDestroyObjectIDC, loaded->DestroyObject);
        EXPECT_EQ(&fGenerateRandomIDC, loaded->GenerateRandom);
        EXPECT_EQ(&fGetPublicKeyIDC, loaded->GetPublicKey);
        EXPECT_EQ(&fGetCertificateIDC, loaded->GetCertificate);
    }
}

TEST_F(IdcInformation, NothingIsFetchedLater)
{
    for (const CK_OBJECT_HANDLE object : {0UL, 1UL, 2UL, 6UL, 11UL, ~0UL}) {
        EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, fGetPublicKeyIDC(table, session, object));
        EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, fGetCertificateIDC(table, session, object));
    }
    EXPECT_MESSAGES(mark);
}

} // namespace
