// The module's state and its lock, the function list, the time stamp, and what C_Initialize and
// C_Finalize set, drop and keep.
#include "sim/pcsc/standin.h"
#include "src/core/apdu.h"
#include "src/core/dispatch.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/lock.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "src/objects/search.h"
#include "tests/support/codes.h"
#include "tests/support/entry_points.h"
#include "tests/support/fake_driver.h"
#include "tests/support/known_cards.h"
#include "tests/support/messages.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;

std::uint8_t initialisedFlag()
{
    return PKCS11C[0];
}

std::uint8_t lockFlag()
{
    return PKCS11C[1];
}

class ModuleState : public ::testing::Test {
protected:
    void SetUp() override { pcsc::reset(); }

    void TearDown() override
    {
        pcsc::reset();
        if (velt::isInitialised()) {
            EXPECT_RV(CKR_OK, C_SetSCContext(0));
            EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        }
        stVELTTokens = {};
        EXPECT_EQ(0, initialisedFlag());
        EXPECT_EQ(0, lockFlag());
    }

    static void initialise() { ASSERT_RV(CKR_OK, C_Initialize(nullptr)); }

    // Initialised, with one ID card listed.
    static void startWithCard()
    {
        pcsc::plugReader("A 0");
        pcsc::insertCard("A 0", refusingCard(ID_CARD));
        initialise();
        CK_ULONG count = 0;
        ASSERT_RV(CKR_OK, C_GetSlotList(CK_FALSE, nullptr, &count));
        ASSERT_EQ(1, rCount);
    }
};

// --- Flags ---------------------------------------------------------------------------------------

TEST_F(ModuleState, InitialisingSetsItsFlagForgetsTheContextAndAsksForTheObjects)
{
    hSC = 4711;
    oiFlags = 0xF0;
    initialise();
    EXPECT_EQ(1, initialisedFlag());
    EXPECT_EQ(0, lockFlag());
    EXPECT_EQ(0, hSC);
    EXPECT_EQ(1U, oiFlags);
}

TEST_F(ModuleState, ARefusedInitialisationSetsNothing)
{
    initialise();
    hSC = 4711;
    oiFlags = 0xF0;
    EXPECT_RV(CKR_CRYPTOKI_ALREADY_INITIALIZED, C_Initialize(nullptr));
    EXPECT_EQ(1, initialisedFlag());
    EXPECT_EQ(4711, hSC);
    EXPECT_EQ(0xF0U, oiFlags);
}

TEST_F(ModuleState, AHostsContextIsKeptAsItIsInEveryState)
{
    EXPECT_RV(CKR_OK, C_SetSCContext(-5));
    EXPECT_EQ(-5, hSC);
    initialise();
    EXPECT_EQ(0, hSC);
    EXPECT_RV(CKR_OK, C_SetSCContext(0x1234567890));
    EXPECT_EQ(0x1234567890, hSC);
    EXPECT_EQ(1U, oiFlags);
}

TEST_F(ModuleState, FinalisingClearsContextAndTables)
{
    startWithCard();
    stVELTTokens = fake::driver(TOKEN_IDC);
    CK_SESSION_HANDLE session = 0;
    EXPECT_RV(CKR_OK, C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    ASSERT_TRUE(velt::rebuildObjects(10));
    ASSERT_NE(nullptr, velt::attachCertificate(VELTObj[0]));
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(0, initialisedFlag());
    EXPECT_EQ(0, hSC);
    EXPECT_EQ(nullptr, VELTObj);
    EXPECT_EQ(0U, velt::objectTableSize());
    EXPECT_EQ(nullptr, VELTCardReaders);
    EXPECT_EQ(nullptr, pmszReaders);
    EXPECT_EQ(nullptr, VELTSessions);
    EXPECT_EQ(session, sessCount);
    EXPECT_EQ(1, rCount);
}

TEST_F(ModuleState, FinalisingKeepsWhatItIsNotToldToReset)
{
    startWithCard();
    stVELTTokens = fake::driver(TOKEN_KT);
    oiFlags = 6;
    bSignOpInit = 1;
    bFindInit = 1;
    ulTCount = 3;
    tObjCount = 2;
    ulObjCount = 5;
    tmpObjCount = 4;
    ulTempLen = 2;
    ucTempBigOutput[0] = 0x11;
    pbyOutput[7] = 0x22;
    dwReplyLen = 9;
    EXPECT_RV(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(TOKEN_KT, stVELTTokens.type);
    EXPECT_EQ(fake::login, stVELTTokens.Login);
    EXPECT_EQ(6U, oiFlags);
    EXPECT_EQ(1, bSignOpInit);
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ(3U, ulTCount);
    EXPECT_EQ(2U, tObjCount);
    EXPECT_EQ(5U, ulObjCount);
    EXPECT_EQ(4U, tmpObjCount);
    EXPECT_EQ(2U, ulTempLen);
    EXPECT_EQ(0x11, ucTempBigOutput[0]);
    EXPECT_EQ(0x22, pbyOutput[7]);
    EXPECT_EQ(9U, dwReplyLen);
    EXPECT_EQ(1, pnp);
    EXPECT_EQ(1, rwtCount);
    initialise();
    EXPECT_EQ(1U, oiFlags);
    EXPECT_EQ(1, bSignOpInit);
    EXPECT_EQ(1, bFindInit);
    EXPECT_EQ(5U, ulObjCount);
    EXPECT_EQ(2U, ulTempLen);
    bSignOpInit = 0;
    bFindInit = 0;
    ulTCount = 0;
    tObjCount = 0;
    ulObjCount = 0;
    tmpObjCount = 0;
    ulTempLen = 0;
}

TEST_F(ModuleState, ARefusedReleaseKeepsTheTablesAndTheContext)
{
    startWithCard();
    const SCARDCONTEXT context = hSC;
    ASSERT_TRUE(velt::rebuildObjects(10));
    const CertAttr* const block = velt::attachCertificate(VELTObj[0]);
    const ObjectEntry* const objects = VELTObj;
    const ReaderEntry* const readers = VELTCardReaders;
    pcsc::failNth(pcsc::Function::ReleaseContext, 1, SCARD_E_NO_SERVICE);
    EXPECT_RV(CKR_FUNCTION_FAILED, C_Finalize(nullptr));
    EXPECT_EQ(1, initialisedFlag());
    EXPECT_EQ(0, lockFlag());
    EXPECT_EQ(context, hSC);
    EXPECT_EQ(objects, VELTObj);
    EXPECT_EQ(block, VELTObj[0].attrs);
    EXPECT_EQ(readers, VELTCardReaders);
    EXPECT_EQ(TOKEN_IDC, velt::tokenTypeOf(0));
}

// --- The lock ------------------------------------------------------------------------------------

TEST_F(ModuleState, TheLockIsTheSecondByte)
{
    EXPECT_EQ(0, lockFlag());
    Lock();
    EXPECT_EQ(1, lockFlag());
    EXPECT_EQ(0, initialisedFlag());
    UnLock();
    EXPECT_EQ(0, lockFlag());
    {
        const velt::LockHolder holder;
        EXPECT_EQ(1, lockFlag());
    }
    EXPECT_EQ(0, lockFlag());
}

TEST_F(ModuleState, EveryEntryFreesTheLockOnItsWayOut)
{
    startWithCard();
    CK_ULONG count = 0;
    CK_INFO info{};
    CK_MECHANISM_INFO mechanism{};
    for (int life = 0; life < 2; ++life) {
        for (const EntryPoint& entry : CHECKED_ENTRIES) {
            const std::string name = entry.name;
            if (name == "C_Finalize" || name == "C_GetSlotList" || name == "C_GetInfo" ||
                name == "C_GetMechanismList" || name == "C_GetMechanismInfo") {
                continue; // called below: they write where they are told without a look
            }
            entry.call(functions);
            EXPECT_EQ(0, lockFlag()) << entry.name;
        }
        C_GetSlotList(CK_FALSE, nullptr, &count);
        EXPECT_EQ(0, lockFlag());
        C_GetInfo(&info);
        EXPECT_EQ(0, lockFlag());
        C_GetMechanismList(0, nullptr, &count);
        EXPECT_EQ(0, lockFlag());
        C_GetMechanismInfo(0, CKM_RSA_PKCS, &mechanism);
        EXPECT_EQ(0, lockFlag());
        C_Initialize(nullptr);
        EXPECT_EQ(0, lockFlag());
        C_SetSCContext(hSC);
        EXPECT_EQ(0, lockFlag());
        C_Finalize(&count);
        EXPECT_EQ(0, lockFlag());
        C_Finalize(nullptr);
        EXPECT_EQ(0, lockFlag());
    }
}

TEST_F(ModuleState, WhatNeedsNoLockDoesNotWaitForIt)
{
    Lock();
    CK_FUNCTION_LIST* list = nullptr;
    EXPECT_RV(CKR_OK, C_GetFunctionList(&list));
    for (const EntryPoint& entry : UNSUPPORTED_ENTRIES) {
        EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, entry.call(functions)) << entry.name;
    }
    // The flag is read first.
    for (const EntryPoint& entry : CHECKED_ENTRIES) {
        EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, entry.call(functions)) << entry.name;
    }
    EXPECT_EQ(1, lockFlag());
    UnLock();
    initialise();
    Lock();
    EXPECT_RV(CKR_CRYPTOKI_ALREADY_INITIALIZED, C_Initialize(nullptr));
    int anything = 0;
    EXPECT_RV(CKR_ARGUMENTS_BAD, C_Finalize(&anything));
    EXPECT_EQ(1, lockFlag());
    UnLock();
}

class ModuleStateThreads : public ModuleState {};

TEST_F(ModuleStateThreads, EveryLockedEntryWaitsUntilTheLockIsFree)
{
    struct Waiter {
        const char* name;
        CK_RV (*call)();
    };
    const std::vector<Waiter> waiters{
        {"C_Initialize", [] { return C_Initialize(nullptr); }},
        {"C_GetInfo",
         [] {
             CK_INFO info{};
             return C_GetInfo(&info);
         }},
        {"C_GetSlotList",
         [] {
             CK_ULONG count = 0;
             return C_GetSlotList(CK_FALSE, nullptr, &count);
         }},
        {"C_SetSCContext", [] { return C_SetSCContext(hSC); }},
        {"C_Finalize", [] { return C_Finalize(nullptr); }},
    };
    for (const Waiter& waiter : waiters) {
        SCOPED_TRACE(waiter.name);
        Lock();
        std::atomic<bool> returned{false};
        std::atomic<CK_RV> answer{CKR_GENERAL_ERROR};
        std::thread host([&] {
            answer = waiter.call();
            returned = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_FALSE(returned);
        UnLock();
        host.join();
        EXPECT_RV(CKR_OK, answer.load());
    }
}

TEST_F(ModuleStateThreads, OnlyOneThreadHoldsTheLock)
{
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 2000;
    std::uint64_t counted = 0; // guarded by nothing but the lock
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&counted] {
            for (int round = 0; round < ROUNDS; ++round) {
                const velt::LockHolder holder;
                ++counted;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::uint64_t{THREADS} * ROUNDS, counted);
    EXPECT_EQ(0, lockFlag());
}

// --- The function list ---------------------------------------------------------------------------

TEST_F(ModuleState, TheFunctionListHas69PlacesBehindItsVersion)
{
    EXPECT_EQ(70 * sizeof(void*), sizeof(VeltFunctionList));
    EXPECT_EQ(69 * sizeof(void*), offsetof(VeltFunctionList, C_SetSCContext));
    EXPECT_EQ(2, functions.standard.version.major);
    EXPECT_EQ(30, functions.standard.version.minor);
    EXPECT_EQ(C_Initialize, functions.standard.C_Initialize);
    EXPECT_EQ(C_GetObjectSize, functions.standard.C_GetObjectSize);
    EXPECT_EQ(C_WaitForSlotEvent, functions.standard.C_WaitForSlotEvent);
    EXPECT_EQ(C_SetSCContext, functions.C_SetSCContext);
    CK_FUNCTION_LIST* list = nullptr;
    EXPECT_RV(CKR_OK, C_GetFunctionList(&list));
    EXPECT_EQ(&functions.standard, list);
}

// --- The time stamp ------------------------------------------------------------------------------

class TimeStamp : public ::testing::Test {
protected:
    void TearDown() override
    {
        unsetenv("TZ");
        tzset();
    }

    static std::string format(std::time_t when)
    {
        std::tm local{};
        localtime_r(&when, &local);
        char text[64] = {};
        std::strftime(text, sizeof(text), "%Y.%m.%d %H:%M:%S ", &local);
        return text;
    }
};

TEST_F(TimeStamp, IsTheLocalTimeAndATrailingBlank)
{
    for (const char* zone : {"UTC0", "EAST-11", "WEST+9:30"}) {
        setenv("TZ", zone, 1);
        tzset();
        str_t.fill('#');
        const std::time_t before = std::time(nullptr);
        EXPECT_EQ(20U, getTime());
        const std::time_t after = std::time(nullptr);
        ASSERT_EQ('\0', str_t[20]);
        const std::string stamp = str_t.data();
        ASSERT_EQ(20U, stamp.size());
        bool found = false;
        for (std::time_t second = before; second <= after; ++second) {
            found = found || stamp == format(second);
        }
        EXPECT_TRUE(found) << stamp << " in " << zone;
    }
}

// --- The size of objects -------------------------------------------------------------------------

TEST_F(ModuleState, TheSizeOfAnObjectIsNeverWrittenThoughTheAnswerIsGood)
{
    CK_ULONG size = 77;
    for (const CK_SESSION_HANDLE session : {CK_SESSION_HANDLE{0}, ~CK_SESSION_HANDLE{0}}) {
        const MessageMark mark;
        EXPECT_RV(CKR_OK, VELT_GetObjectSize(session, 1, &size));
        EXPECT_RV(CKR_OK, VELT_GetObjectSize(session, 0, nullptr));
        EXPECT_MESSAGES(mark, "GetObjectSize CKR_OK", "GetObjectSize CKR_OK");
    }
    EXPECT_EQ(77U, size);
}

} // namespace
} // namespace velt_test
