// Every offered entry from eight threads at once, through the module's lock alone: C_Initialize,
// C_Finalize, C_GetInfo, C_GetFunctionList, C_GetSlotList, C_GetSlotInfo, C_GetTokenInfo,
// C_GetMechanismList, C_GetMechanismInfo, C_OpenSession, C_CloseSession, C_CloseAllSessions,
// C_GetSessionInfo, C_Login, C_Logout, C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal,
// C_GetAttributeValue, C_SignInit, C_Sign, C_GenerateRandom, C_GenerateKeyPair, C_SetSCContext.
#include "tests/support/module_fixture.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

using namespace velt_test;

namespace {

constexpr std::size_t THREADS = 8;
constexpr int ROUNDS = 40;

// Answers 6F 00 to everything and keeps nothing.
class StatelessCard final : public sim::Card {
public:
    sim::Bytes atr() const override { return sim::hex(ID_CARD.atr); }
    unsigned long protocol() const override { return T0; }
    void reset() override {}
    sim::Bytes transmit(std::span<const std::uint8_t> /*command*/) override { return {0x6F, 0x00}; }
};

class ModuleThreads : public ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        plug("A 0", std::make_shared<StatelessCard>());
        plug("B 0", std::make_shared<StatelessCard>());
        plug("C 0");
        pcsc::setLogging(false);
    }

    // Runs a body in eight threads that start together, and waits for all of them.
    static void together(const std::function<void(std::size_t)>& body)
    {
        std::atomic<std::size_t> ready{0};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < THREADS; ++i) {
            threads.emplace_back([&, i] {
                ++ready;
                while (ready < THREADS) {
                    std::this_thread::yield();
                }
                body(i);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    // Counts an answer that is none of those allowed.
    void expectAmong(const char* call, CK_RV answer, std::initializer_list<CK_RV> allowed)
    {
        if (std::find(allowed.begin(), allowed.end(), answer) == allowed.end()) {
            ADD_FAILURE() << call << " answered " << codeName(answer);
        }
    }
};

TEST_F(ModuleThreads, SessionsOpenedAtOnceAllGetHandlesOfTheirOwn)
{
    initialise();
    refresh();
    const CK_SESSION_HANDLE before = open(0);
    std::mutex guard;
    std::set<CK_SESSION_HANDLE> handles;
    together([&](std::size_t i) {
        for (int round = 0; round < ROUNDS; ++round) {
            CK_SESSION_HANDLE session = NO_HANDLE;
            EXPECT_RV(CKR_OK, p11.C_OpenSession(i % 2, READ_WRITE, nullptr, nullptr, &session));
            CK_SESSION_INFO info{};
            EXPECT_RV(CKR_OK, p11.C_GetSessionInfo(session, &info));
            EXPECT_EQ(i % 2, info.slotID);
            EXPECT_EQ(2U, info.state);
            EXPECT_RV(CKR_FUNCTION_FAILED, login(session, "1234"));
            if (round % 2 == 0) {
                EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
                EXPECT_RV(CKR_SESSION_CLOSED, p11.C_CloseSession(session));
            }
            const std::lock_guard lock(guard);
            handles.insert(session);
        }
    });
    EXPECT_EQ(THREADS * ROUNDS, handles.size());
    EXPECT_EQ(before + 1, *handles.begin());
    EXPECT_EQ(before + THREADS * ROUNDS, *handles.rbegin());
    EXPECT_EQ(1 + THREADS * ROUNDS / 2, pcsc::openCards());
}

TEST_F(ModuleThreads, ListingsAndQueriesAtOnceSeeTheSameSlots)
{
    initialise();
    refresh();
    together([&](std::size_t i) {
        for (int round = 0; round < ROUNDS; ++round) {
            if (i % 2 == 0) {
                EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1, 2}), slots(CK_FALSE));
                EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1}), slots(CK_TRUE));
            }
            EXPECT_EQ(paddedTo(64, "B 0"), text(slotInfo(1).slotDescription));
            EXPECT_EQ(0x7U, slotInfo(0).flags);
            CK_TOKEN_INFO token{};
            EXPECT_RV(CKR_OK, p11.C_GetTokenInfo(0, &token));
            EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(2, &token));
            CK_ULONG count = 0;
            EXPECT_RV(CKR_OK, p11.C_GetMechanismList(1, nullptr, &count));
            CK_MECHANISM_INFO mechanism{};
            EXPECT_RV(CKR_OK, p11.C_GetMechanismInfo(2, CKM_RSA_PKCS, &mechanism));
            CK_INFO info{};
            EXPECT_RV(CKR_OK, p11.C_GetInfo(&info));
        }
    });
}

TEST_F(ModuleThreads, TheModuleStartsAndStopsUnderThreadsThatUseIt)
{
    together([&](std::size_t i) {
        for (int round = 0; round < ROUNDS; ++round) {
            CK_FUNCTION_LIST* handedOut = nullptr;
            EXPECT_RV(CKR_OK, p11.C_GetFunctionList(&handedOut));
            expectAmong("C_Initialize", p11.C_Initialize(nullptr),
                        {CKR_OK, CKR_CRYPTOKI_ALREADY_INITIALIZED});
            CK_ULONG count = 0;
            expectAmong("C_GetSlotList", p11.C_GetSlotList(CK_FALSE, nullptr, &count),
                        {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED});
            CK_SLOT_INFO slot{};
            expectAmong("C_GetSlotInfo", p11.C_GetSlotInfo(i % 3, &slot),
                        {CKR_OK, CKR_SLOT_ID_INVALID, CKR_CRYPTOKI_NOT_INITIALIZED});
            CK_SESSION_HANDLE session = 0;
            expectAmong("C_OpenSession",
                        p11.C_OpenSession(i % 2, READ_WRITE, nullptr, nullptr, &session),
                        {CKR_OK, CKR_SLOT_ID_INVALID, CKR_TOKEN_NOT_PRESENT, CKR_DEVICE_ERROR,
                         CKR_CRYPTOKI_NOT_INITIALIZED});
            CK_SESSION_INFO info{};
            expectAmong(
                "C_GetSessionInfo", p11.C_GetSessionInfo(session, &info),
                {CKR_OK, CKR_SESSION_CLOSED, CKR_DEVICE_REMOVED, CKR_CRYPTOKI_NOT_INITIALIZED});
            expectAmong("C_Logout", p11.C_Logout(session),
                        {CKR_USER_NOT_LOGGED_IN, CKR_SESSION_CLOSED, CKR_SESSION_HANDLE_INVALID,
                         CKR_CRYPTOKI_NOT_INITIALIZED});
            expectAmong("C_CloseSession", p11.C_CloseSession(session),
                        {CKR_OK, CKR_SESSION_CLOSED, CKR_SESSION_HANDLE_INVALID, CKR_DEVICE_ERROR,
                         CKR_CRYPTOKI_NOT_INITIALIZED});
            if (i < 2) {
                expectAmong("C_SetSCContext", list.C_SetSCContext(0), {CKR_OK});
                expectAmong("C_Finalize", p11.C_Finalize(nullptr),
                            {CKR_OK, CKR_FUNCTION_FAILED, CKR_CRYPTOKI_NOT_INITIALIZED});
            }
        }
    });
}

TEST_F(ModuleThreads, ObjectsAndSignaturesAreAskedForAtOnce)
{
    initialise();
    refresh();
    const CK_SESSION_HANDLE session = open(0);
    together([&](std::size_t i) {
        CK_OBJECT_CLASS wanted = CKO_CERTIFICATE;
        CK_ATTRIBUTE wantedTemplate{CKA_CLASS, &wanted, sizeof(wanted)};
        for (int round = 0; round < ROUNDS; ++round) {
            expectAmong("C_FindObjectsInit", p11.C_FindObjectsInit(session, &wantedTemplate, 1),
                        {CKR_OK});
            CK_OBJECT_HANDLE found[4] = {};
            CK_ULONG count = 0;
            expectAmong("C_FindObjects", p11.C_FindObjects(session, found, 4, &count),
                        {CKR_OK, CKR_OPERATION_NOT_INITIALIZED});
            CK_OBJECT_CLASS held = 0;
            CK_ATTRIBUTE attribute{CKA_CLASS, &held, sizeof(held)};
            EXPECT_RV(CKR_OBJECT_HANDLE_INVALID,
                      p11.C_GetAttributeValue(session, 1 + i, &attribute, 1));
            CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
            EXPECT_RV(CKR_KEY_HANDLE_INVALID, p11.C_SignInit(session, &mechanism, 100 + i));
            CK_BYTE data[4] = {};
            CK_BYTE signature[256] = {};
            CK_ULONG length = sizeof(signature);
            EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED,
                      p11.C_Sign(session, data, sizeof(data), signature, &length));
            EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, data, sizeof(data)));
            EXPECT_RV(CKR_SESSION_HANDLE_INVALID,
                      p11.C_GenerateKeyPair(session, &mechanism, nullptr, 0, nullptr, 0, nullptr,
                                            nullptr));
            expectAmong("C_FindObjectsFinal", p11.C_FindObjectsFinal(session),
                        {CKR_OK, CKR_OPERATION_NOT_INITIALIZED});
        }
    });
}

} // namespace
