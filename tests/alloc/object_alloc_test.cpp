// Memory of the objects: loads and searches without any, and the calls on the way to a signature
// that take none.
#include "sim/pcsc/standin.h"
#include "src/core/apdu.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "src/objects/search.h"
#include "tests/support/codes.h"
#include "tests/support/failing_alloc.h"
#include "tests/support/memory_card.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;

constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;
constexpr CK_SESSION_HANDLE NO_HANDLE = 0xD15EA5ED;

// One ID card with two key pairs and two certificates.
class ObjectMemory : public ::testing::Test {
protected:
    void SetUp() override
    {
        pcsc::reset();
        alloc::clear();
        ASSERT_EQ(0U, alloc::held());
        pcsc::plugReader("A 0");
        pcsc::insertCard("A 0", card);
        ASSERT_RV(CKR_OK, C_Initialize(nullptr));
        CK_ULONG count = 0;
        ASSERT_RV(CKR_OK, C_GetSlotList(CK_FALSE, nullptr, &count));
    }

    void TearDown() override
    {
        alloc::clear();
        if (bFindInit != 0) {
            C_FindObjectsFinal(session);
        }
        for (int life = 0; life < 2; ++life) {
            EXPECT_RV(CKR_OK, C_Finalize(nullptr));
            EXPECT_RV(CKR_OK, C_Initialize(nullptr));
        }
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        EXPECT_EQ(0U, alloc::held());
        stVELTTokens = {};
    }

    CK_RV open()
    {
        session = NO_HANDLE;
        return C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session);
    }

    std::shared_ptr<MemoryCard> card = std::make_shared<MemoryCard>();
    CK_SESSION_HANDLE session = 0;
};

TEST_F(ObjectMemory, AnOpeningWithoutRoomForObjectsDoesNotRecogniseTheToken)
{
    std::size_t refusals = 0;
    for (std::size_t n = 2;; ++n) { // the first block is the session's
        SCOPED_TRACE(n);
        oiFlags = RELOAD_OBJECTS;
        alloc::failNth(n);
        const CK_RV answer = open();
        if (alloc::refused() == 0) {
            EXPECT_RV(CKR_OK, answer);
            break;
        }
        ++refusals;
        EXPECT_RV(CKR_TOKEN_NOT_RECOGNIZED, answer);
        ASSERT_NE(NO_HANDLE, session);
        EXPECT_TRUE(velt::isOpenSession(session));
        EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
        alloc::clear();
        EXPECT_RV(CKR_OK, C_CloseSession(session));
    }
    EXPECT_EQ(7U, refusals) << "the table and a block for each of six objects";
    EXPECT_EQ(6U, ulObjCount);
}

TEST_F(ObjectMemory, ALoadAfterAFailedOneLeavesNothingBehind)
{
    ASSERT_RV(CKR_OK, open());
    const std::size_t held = alloc::held();
    for (std::size_t n = 1; n <= 7; ++n) {
        oiFlags = RELOAD_OBJECTS;
        alloc::failNth(n);
        EXPECT_EQ(1U, VELTObjectsInit(session, 1));
        EXPECT_EQ(1U, alloc::refused());
        EXPECT_LT(alloc::held(), held);
        alloc::clear();
        EXPECT_EQ(0U, VELTObjectsInit(session, 1));
        EXPECT_EQ(held, alloc::held());
    }
}

TEST_F(ObjectMemory, ASearchWithoutRoomForItsTemplateIsRefused)
{
    ASSERT_RV(CKR_OK, open());
    CK_OBJECT_CLASS wanted = CKO_CERTIFICATE;
    std::array<CK_BYTE, 4> subject{0x30, 2, 5, 0};
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &wanted, sizeof(wanted)},
                                 {CKA_SUBJECT, subject.data(), subject.size()}};
    for (std::size_t n = 1; n <= 2; ++n) { // the template, and its certificate fields
        alloc::failNth(n);
        EXPECT_RV(CKR_HOST_MEMORY, C_FindObjectsInit(session, attributes, 2));
        EXPECT_EQ(1U, alloc::refused());
        alloc::clear();
    }
    const std::size_t held = alloc::held();
    EXPECT_RV(CKR_OK, C_FindObjectsInit(session, attributes, 2));
    EXPECT_RV(CKR_OK, C_FindObjectsInit(session, attributes, 2));
    EXPECT_RV(CKR_OK, C_FindObjectsFinal(session));
    EXPECT_LE(alloc::held(), held);
}

TEST_F(ObjectMemory, AnExchangeAllocatesNothing)
{
    ASSERT_RV(CKR_OK, open());
    alloc::failFrom(1);
    const std::array<std::uint8_t, 5> getData{0x00, 0xCA, 0xDF, 0x01, 0x09};
    EXPECT_EQ(0U, velt::exchange(session, getData, 11));
    EXPECT_EQ(9U, velt::replyData().size());
    // Answered with 61 xx and GET RESPONSE.
    const std::array<std::uint8_t, 16> getPublicKey{0x00, 0xCB, 0x3F, 0xFF, 0x0B, 0x4D, 0x09, 0xFF,
                                                    0xA0, 0x07, 0x05, 0x7F, 0x49, 0x02, 0x81, 0x00};
    EXPECT_EQ(0U, velt::exchange(session, getPublicKey, 258));
    EXPECT_EQ(0U, alloc::asked());
}

TEST_F(ObjectMemory, SearchStepsAttributesAndSignaturesAllocateNothing)
{
    ASSERT_RV(CKR_OK, open());
    CK_OBJECT_CLASS wanted = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE attribute{CKA_CLASS, &wanted, sizeof(wanted)};
    ASSERT_RV(CKR_OK, C_FindObjectsInit(session, &attribute, 1));

    alloc::failFrom(1);
    std::array<CK_OBJECT_HANDLE, 4> found{};
    CK_ULONG count = 0;
    EXPECT_RV(CKR_OK, C_FindObjects(session, found.data(), 1, &count));
    EXPECT_EQ(1U, count);
    EXPECT_RV(CKR_OK, C_FindObjects(session, found.data() + 1, 3, &count));
    EXPECT_EQ(1U, count);
    EXPECT_RV(CKR_OK, C_FindObjectsFinal(session));

    std::array<CK_BYTE, 4096> value{};
    for (const CK_ATTRIBUTE_TYPE type :
         {CKA_CLASS, CKA_LABEL, CKA_ID, CKA_VALUE, CKA_SUBJECT, CKA_ISSUER, CKA_SERIAL_NUMBER}) {
        CK_ATTRIBUTE read{type, value.data(), value.size()};
        EXPECT_RV(CKR_OK, C_GetAttributeValue(session, 1, &read, 1)) << type;
    }
    for (const CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_SIGN}) {
        CK_ATTRIBUTE read{type, value.data(), value.size()};
        EXPECT_RV(CKR_OK, C_GetAttributeValue(session, found[0], &read, 1)) << type;
    }

    CK_UTF8CHAR pin[] = {'1', '2', '3', '4'};
    EXPECT_RV(CKR_OK, C_Login(session, CKU_USER, pin, sizeof(pin)));
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    EXPECT_RV(CKR_OK, C_SignInit(session, &mechanism, found[0]));
    std::array<CK_BYTE, 19> data{};
    CK_ULONG length = value.size();
    EXPECT_RV(CKR_OK, C_Sign(session, data.data(), data.size(), value.data(), &length));
    EXPECT_EQ(card->signature(0).size(), length);
    EXPECT_EQ(0U, alloc::asked());
}

} // namespace
} // namespace velt_test
