// A host that starts and stops the module over and over must not grow.
// C_Initialize, C_GetSlotList, C_OpenSession, C_FindObjectsInit, C_FindObjects,
// C_FindObjectsFinal, C_GetAttributeValue, C_SignInit, C_Sign, C_CloseSession, C_Finalize.
#include "tests/support/memory_card.h"
#include "tests/support/module_fixture.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VELT_SANITIZED 1
#endif
#endif

namespace velt_test {
namespace {

#ifdef VELT_SANITIZED
// Sanitizers keep freed memory for a while: here the leak check at exit judges.
constexpr bool RESIDENT_SIZE_TELLS = false;
constexpr int ROUNDS = 300;
#elif defined(VELT_DEBUG_LOG)
constexpr bool RESIDENT_SIZE_TELLS = true;
constexpr int ROUNDS = 1000; // some eighty messages a round
#else
constexpr bool RESIDENT_SIZE_TELLS = true;
constexpr int ROUNDS = 10000;
#endif
constexpr int SETTLED = 100;
constexpr long MAX_GROWTH = 64 * 1024;

long residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

class RoundsTest : public ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        pcsc::setLogging(false);
        plug("Stand-in Reader 00 00", card);
    }

    void TearDown() override
    {
        ModuleTest::TearDown();
        pcsc::setLogging(true);
    }

    // Handles of the objects of one class.
    std::size_t find(CK_OBJECT_CLASS objectClass)
    {
        CK_ATTRIBUTE wanted{CKA_CLASS, &objectClass, sizeof objectClass};
        EXPECT_RV(CKR_OK, p11.C_FindObjectsInit(session, &wanted, 1));
        CK_ULONG count = 0;
        EXPECT_RV(CKR_OK, p11.C_FindObjects(session, found.data(), found.size(), &count));
        EXPECT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
        return count;
    }

    void readCertificate(CK_OBJECT_HANDLE handle, const sim::Bytes& expected)
    {
        CK_ATTRIBUTE attribute{CKA_VALUE, value.data(), value.size()};
        EXPECT_RV(CKR_OK, p11.C_GetAttributeValue(session, handle, &attribute, 1));
        ASSERT_EQ(expected.size(), attribute.ulValueLen);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), value.begin()));
    }

    void sign(CK_OBJECT_HANDLE key, const sim::Bytes& expected)
    {
        CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
        std::array<CK_BYTE, 35> data{0x30, 0x21};
        EXPECT_RV(CKR_OK, p11.C_SignInit(session, &mechanism, key));
        CK_ULONG length = value.size();
        EXPECT_RV(CKR_OK, p11.C_Sign(session, data.data(), data.size(), value.data(), &length));
        ASSERT_EQ(expected.size(), length);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), value.begin()));
    }

    void playRound()
    {
        const CK_SESSION_HANDLE previous = session;
        ASSERT_RV(CKR_OK, p11.C_Initialize(nullptr));
        CK_SLOT_ID slot = 99;
        CK_ULONG count = 1;
        ASSERT_RV(CKR_OK, p11.C_GetSlotList(CK_TRUE, &slot, &count));
        ASSERT_EQ(1U, count);
        ASSERT_RV(CKR_OK, p11.C_OpenSession(slot, READ_WRITE, nullptr, nullptr, &session));
        if (previous != 0) {
            ASSERT_EQ(previous + 1, session) << "handles are never used again";
        }
        ASSERT_EQ(2U, find(CKO_CERTIFICATE));
        ASSERT_NO_FATAL_FAILURE(readCertificate(found[1], card->certificate(1)));
        ASSERT_EQ(2U, find(CKO_PRIVATE_KEY));
        ASSERT_NO_FATAL_FAILURE(sign(found[0], card->signature(0)));
        ASSERT_RV(CKR_OK, p11.C_CloseSession(session));
        ASSERT_RV(CKR_OK, p11.C_Finalize(nullptr));
        ASSERT_EQ(0U, pcsc::openCards());
        ASSERT_EQ(0U, pcsc::openContexts());
    }

    std::shared_ptr<MemoryCard> card = std::make_shared<MemoryCard>();
    CK_SESSION_HANDLE session = 0;
    std::array<CK_OBJECT_HANDLE, 10> found{};
    std::array<CK_BYTE, 4096> value{};
};

TEST_F(RoundsTest, TenThousandStartsAndStopsKeepTheResidentSize)
{
    for (int round = 1; round <= SETTLED; ++round) {
        ASSERT_NO_FATAL_FAILURE(playRound());
    }
    const long settled = residentBytes();
    ASSERT_GT(settled, 0);
    for (int round = SETTLED + 1; round <= ROUNDS; ++round) {
        ASSERT_NO_FATAL_FAILURE(playRound());
    }
    if (RESIDENT_SIZE_TELLS) {
        EXPECT_LE(std::labs(residentBytes() - settled), MAX_GROWTH);
    }
}

} // namespace
} // namespace velt_test
