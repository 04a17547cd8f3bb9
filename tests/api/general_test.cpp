// C_Initialize, C_Finalize, C_GetInfo, C_GetFunctionList, C_SetSCContext, and every entry before
// C_Initialize and after C_Finalize; the 43 entries that are not offered: C_InitToken, C_InitPIN,
// C_SetPIN, C_GetOperationState, C_SetOperationState, C_CopyObject, C_GetObjectSize,
// C_SetAttributeValue, C_EncryptInit, C_Encrypt, C_EncryptUpdate, C_EncryptFinal, C_DecryptInit,
// C_Decrypt, C_DecryptUpdate, C_DecryptFinal, C_DigestInit, C_Digest, C_DigestUpdate, C_DigestKey,
// C_DigestFinal, C_SignUpdate, C_SignFinal, C_SignRecoverInit, C_SignRecover, C_VerifyInit,
// C_Verify, C_VerifyUpdate, C_VerifyFinal, C_VerifyRecoverInit, C_VerifyRecover,
// C_DigestEncryptUpdate, C_DecryptDigestUpdate, C_SignEncryptUpdate, C_DecryptVerifyUpdate,
// C_GenerateKey, C_WrapKey, C_UnwrapKey, C_DeriveKey, C_SeedRandom, C_GetFunctionStatus,
// C_CancelFunction, C_WaitForSlotEvent.
#include "tests/support/entry_points.h"
#include "tests/support/module_fixture.h"

#include <cstring>
#include <set>

using namespace velt_test;

namespace {

constexpr const char* READER = "Stand-in Reader 00 00";

class General : public ModuleTest {
protected:
    // A PC/SC context of the host's own.
    static SCARDCONTEXT hostContext()
    {
        SCARDCONTEXT context = 0;
        EXPECT_EQ(SCARD_S_SUCCESS,
                  SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context));
        EXPECT_NE(0, context);
        return context;
    }

    // The context that a slot listing used.
    static unsigned long contextInUse()
    {
        const auto listings = pcsc::calls(pcsc::Function::ListReaders);
        return listings.empty() ? 0 : listings.back().context;
    }

    static std::vector<pcsc::Call> callsOf(pcsc::Function function)
    {
        return pcsc::calls(function);
    }
};

class GeneralFresh : public FreshModuleTest {};

// --- The function list ---------------------------------------------------------------------------

TEST_F(GeneralFresh, TheListIsHandedOutBeforeInitialisationAndSays230)
{
    CK_FUNCTION_LIST* handedOut = nullptr;
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_GetFunctionList(&handedOut));
    EXPECT_MESSAGES(mark, "C_GetFunctionList");
    ASSERT_EQ(&p11, handedOut);
    EXPECT_EQ(2, handedOut->version.major);
    EXPECT_EQ(30, handedOut->version.minor);
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(General, TheListStaysTheSameThroughTheLifeOfTheModule)
{
    CK_FUNCTION_LIST* handedOut = nullptr;
    initialise();
    EXPECT_RV(CKR_OK, p11.C_GetFunctionList(&handedOut));
    EXPECT_EQ(&p11, handedOut);
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    handedOut = nullptr;
    EXPECT_RV(CKR_OK, p11.C_GetFunctionList(&handedOut));
    EXPECT_EQ(&p11, handedOut);
}

TEST_F(General, TheListHoldsTheExportedFunctionsInTheStandardsOrderThenTheModulesOwn)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&list);
    std::set<const void*> seen;
    for (std::size_t i = 0; i < ENTRY_NAMES.size(); ++i) {
        const void* entry = nullptr;
        std::memcpy(&entry, bytes + sizeof(void*) * (i + 1), sizeof(entry));
        EXPECT_EQ(module.symbol<const void*>(ENTRY_NAMES[i]), entry) << ENTRY_NAMES[i];
        EXPECT_NE(nullptr, entry) << ENTRY_NAMES[i];
        seen.insert(entry);
    }
    EXPECT_EQ(69U, seen.size());
}

// --- C_GetInfo -----------------------------------------------------------------------------------

TEST_F(General, TheInformationSays220AndNamesTheLibrary)
{
    initialise();
    Guarded<CK_INFO> info;
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_GetInfo(info.get()));
    EXPECT_MESSAGES(mark, "C_GetInfo");
    EXPECT_EQ(2, info->cryptokiVersion.major);
    EXPECT_EQ(20, info->cryptokiVersion.minor);
    EXPECT_EQ("VELT (velt.example)             ", text(info->manufacturerID));
    EXPECT_EQ(0U, info->flags);
    EXPECT_EQ("VELT PKCS11 Library             ", text(info->libraryDescription));
    EXPECT_EQ(1, info->libraryVersion.major);
    EXPECT_EQ(0, info->libraryVersion.minor);
    EXPECT_TRUE(info.endIsUntouched());
    EXPECT_EQ(0U, pcsc::callCount());
}

// --- Outside C_Initialize .. C_Finalize ----------------------------------------------------------

TEST_F(GeneralFresh, BeforeInitialisationEveryOfferedEntrySaysSoBeforeItLooksAtItsArguments)
{
    for (const EntryPoint& entry : CHECKED_ENTRIES) {
        SCOPED_TRACE(entry.name);
        const MessageMark mark;
        EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, entry.call(list));
        EXPECT_MESSAGES(mark, entry.name);
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(General, AfterFinalisationEveryOfferedEntrySaysSo)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    pcsc::clearCalls();
    for (const EntryPoint& entry : CHECKED_ENTRIES) {
        SCOPED_TRACE(entry.name);
        const MessageMark mark;
        EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, entry.call(list));
        EXPECT_MESSAGES(mark, entry.name);
    }
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(GeneralFresh, AnUninitialisedModuleLeavesTheCallersMemoryAlone)
{
    Guarded<CK_INFO> info;
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetInfo(info.get()));
    EXPECT_TRUE(info.isUntouched());
    CK_SLOT_ID ids[2] = {77, 78};
    CK_ULONG count = 2;
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_EQ(77U, ids[0]);
    EXPECT_EQ(78U, ids[1]);
    EXPECT_EQ(2U, count);
    CK_SESSION_HANDLE session = NO_HANDLE;
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED,
              p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
    EXPECT_EQ(NO_HANDLE, session);
}

TEST_F(GeneralFresh, WhatIsNotOfferedIsRefusedInEveryState)
{
    const auto refused = [this] {
        for (const EntryPoint& entry : UNSUPPORTED_ENTRIES) {
            SCOPED_TRACE(entry.name);
            const MessageMark mark;
            EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, entry.call(list));
            EXPECT_MESSAGES(mark, entry.name, "CKR_FUNCTION_NOT_SUPPORTED");
        }
    };
    refused();
    initialise();
    refused();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    refused();
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(General, TheSizeOfAnObjectIsNeverTold)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    const CK_SESSION_HANDLE session = open(0);
    CK_ULONG size = 4711;
    EXPECT_RV(CKR_FUNCTION_NOT_SUPPORTED, p11.C_GetObjectSize(session, 1, &size));
    EXPECT_EQ(4711U, size);
}

// --- C_Initialize --------------------------------------------------------------------------------

TEST_F(General, InitialisingOpensNothingYet)
{
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_MESSAGES(mark, "C_Initialize");
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(General, ASecondInitialisationIsRefusedAndChangesNothing)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    const unsigned long context = contextInUse();
    const CK_SESSION_HANDLE session = open(0);
    pcsc::clearCalls();

    const MessageMark mark;
    EXPECT_RV(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    EXPECT_MESSAGES(mark, "C_Initialize");
    EXPECT_EQ(0U, pcsc::callCount());
    EXPECT_EQ(0U, sessionInfo(session).slotID);
    refresh();
    EXPECT_TRUE(callsOf(pcsc::Function::EstablishContext).empty());
    EXPECT_EQ(context, contextInUse());
}

CK_RV neverCalledCreate(void** /*mutex*/)
{
    ADD_FAILURE() << "a mutex was created";
    return CKR_GENERAL_ERROR;
}

CK_RV neverCalledMutex(void* /*mutex*/)
{
    ADD_FAILURE() << "a mutex was used";
    return CKR_GENERAL_ERROR;
}

TEST_F(General, TheArgumentsOfInitialiseAreNotLookedAt)
{
    int anything = 0;
    CK_C_INITIALIZE_ARGS args{};
    args.CreateMutex = neverCalledCreate;
    args.DestroyMutex = neverCalledMutex;
    args.LockMutex = neverCalledMutex;
    args.UnlockMutex = nullptr; // not even complete
    args.flags = ~CK_FLAGS{0};
    args.pReserved = &anything;
    EXPECT_RV(CKR_OK, p11.C_Initialize(&args));
    refresh();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
}

// --- C_Finalize ----------------------------------------------------------------------------------

TEST_F(General, FinalisingWithAnArgumentIsRefusedAndTheModuleStaysInitialised)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    const CK_SESSION_HANDLE session = open(0);
    pcsc::clearCalls();

    int anything = 0;
    const MessageMark mark;
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_Finalize(&anything));
    EXPECT_MESSAGES(mark, "C_Finalize");
    EXPECT_EQ(0U, pcsc::callCount());
    EXPECT_RV(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    EXPECT_EQ(0U, sessionInfo(session).slotID);
    EXPECT_EQ(paddedTo(64, READER), text(slotInfo(0).slotDescription));
}

TEST_F(GeneralFresh, FinalisingAnUninitialisedModuleSaysSoBeforeItLooksAtTheArgument)
{
    int anything = 0;
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_Finalize(&anything));
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_Finalize(nullptr));
}

TEST_F(General, FinalisingWithoutAContextCallsNothing)
{
    initialise();
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_MESSAGES(mark, "C_Finalize");
    EXPECT_EQ(0U, pcsc::callCount());
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_Finalize(nullptr));
}

TEST_F(General, FinalisingReleasesTheContextAndDisconnectsNoCard)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    const unsigned long context = contextInUse();
    open(0);
    pcsc::clearCalls();

    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_MESSAGES(mark, "C_Finalize");
    const auto calls = pcsc::calls();
    ASSERT_EQ(1U, calls.size()) << pcsc::describeCalls();
    EXPECT_EQ(pcsc::Function::ReleaseContext, calls[0].function);
    EXPECT_EQ(context, calls[0].context);
    EXPECT_EQ(SCARD_S_SUCCESS, calls[0].result);
    EXPECT_EQ(0U, pcsc::openContexts());
}

class FailedRelease : public General, public ::testing::WithParamInterface<LONG> {};

TEST_P(FailedRelease, KeepsTheModuleAsItWasSoThatTheHostMayRetry)
{
    plug(READER, refusingCard(ID_CARD));
    plug("Second", refusingCard(KAZTOKEN));
    initialise();
    refresh();
    const unsigned long context = contextInUse();
    const CK_SESSION_HANDLE session = open(0);
    pcsc::failNth(pcsc::Function::ReleaseContext, 1, GetParam());
    pcsc::clearCalls();

    const MessageMark mark;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_Finalize(nullptr));
    EXPECT_MESSAGES(mark, "C_Finalize", "Failed SCardReleaseContext");
    ASSERT_EQ(1U, pcsc::callCount()) << pcsc::describeCalls();
    EXPECT_EQ(context, pcsc::calls()[0].context);

    EXPECT_RV(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    EXPECT_EQ(0U, sessionInfo(session).slotID);
    EXPECT_EQ(paddedTo(64, READER), text(slotInfo(0).slotDescription));
    EXPECT_EQ(0x7U, slotInfo(0).flags);
    EXPECT_EQ(paddedTo(64, "Second"), text(slotInfo(1).slotDescription));
    EXPECT_EQ(0x5U, slotInfo(1).flags);
    pcsc::clearCalls();
    EXPECT_EQ(session + 1, open(0));
    const auto connects = callsOf(pcsc::Function::Connect);
    ASSERT_EQ(1U, connects.size());
    EXPECT_EQ(READER, connects[0].reader);
    EXPECT_EQ(context, connects[0].context);

    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(0U, pcsc::openContexts());
    EXPECT_RV(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_Finalize(nullptr));
}

INSTANTIATE_TEST_SUITE_P(WithAnyCode, FailedRelease,
                         ::testing::Values(SCARD_E_INVALID_HANDLE, SCARD_E_NO_SERVICE,
                                           SCARD_F_COMM_ERROR, 1L, -1L));

TEST_F(General, SlotsCanBeListedAfterAFailedRelease)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    const unsigned long context = contextInUse();
    pcsc::failNth(pcsc::Function::ReleaseContext, 1, SCARD_F_INTERNAL_ERROR);
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_Finalize(nullptr));
    plug("Second");
    pcsc::clearCalls();
    EXPECT_EQ((std::vector<CK_SLOT_ID>{0, 1}), slots());
    EXPECT_TRUE(callsOf(pcsc::Function::EstablishContext).empty());
    EXPECT_EQ(context, contextInUse());
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
}

TEST_F(General, AFinalisedModuleStartsOverWithAContextOfItsOwn)
{
    plug(READER, refusingCard(ID_CARD));
    for (int round = 0; round < 3; ++round) {
        initialise();
        pcsc::clearCalls();
        EXPECT_EQ((std::vector<CK_SLOT_ID>{0}), slots());
        EXPECT_EQ(1U, callsOf(pcsc::Function::EstablishContext).size());
        EXPECT_EQ(1U, pcsc::openContexts());
        open(0);
        EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
        EXPECT_EQ(0U, pcsc::openContexts());
    }
}

// --- C_SetSCContext ------------------------------------------------------------------------------

TEST_F(General, TheHostsContextIsUsedAndReleasedInPlaceOfAnOwnOne)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    const SCARDCONTEXT context = hostContext();
    const MessageMark mark;
    EXPECT_RV(CKR_OK, list.C_SetSCContext(context));
    EXPECT_MESSAGES(mark, "C_SetSCContext");
    pcsc::clearCalls();

    refresh();
    open(0);
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_TRUE(callsOf(pcsc::Function::EstablishContext).empty());
    for (const pcsc::Call& call : pcsc::calls()) {
        if (call.function != pcsc::Function::Transmit) {
            EXPECT_EQ(static_cast<unsigned long>(context), call.context) << pcsc::describeCalls();
        }
    }
    EXPECT_EQ(1U, callsOf(pcsc::Function::ReleaseContext).size());
    EXPECT_EQ(0U, pcsc::openContexts());
}

TEST_F(GeneralFresh, AContextHandedInBeforeInitialisationIsForgotten)
{
    SCARDCONTEXT context = 0;
    ASSERT_EQ(SCARD_S_SUCCESS,
              SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context));
    EXPECT_RV(CKR_OK, list.C_SetSCContext(context));
    initialise();
    pcsc::clearCalls();
    refresh();
    const auto established = pcsc::calls(pcsc::Function::EstablishContext);
    ASSERT_EQ(1U, established.size());
    EXPECT_NE(static_cast<unsigned long>(context), established[0].context);
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(1U, pcsc::openContexts()) << "the host's context is not the module's to release";
    EXPECT_EQ(SCARD_S_SUCCESS, SCardReleaseContext(context));
}

TEST_F(General, AContextHandedInLaterReplacesTheOwnOneWithoutReleasingIt)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    refresh();
    const unsigned long own = contextInUse();
    const SCARDCONTEXT context = hostContext();
    EXPECT_RV(CKR_OK, list.C_SetSCContext(context));
    EXPECT_EQ(2U, pcsc::openContexts());
    refresh();
    EXPECT_EQ(static_cast<unsigned long>(context), contextInUse());
    pcsc::clearCalls();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    ASSERT_EQ(1U, pcsc::callCount());
    EXPECT_EQ(static_cast<unsigned long>(context), pcsc::calls()[0].context);
    EXPECT_EQ(1U, pcsc::openContexts());
    EXPECT_EQ(SCARD_S_SUCCESS, SCardReleaseContext(static_cast<SCARDCONTEXT>(own)));
}

TEST_F(General, HandingInNoContextMakesTheNextListingEstablishOne)
{
    initialise();
    refresh();
    const unsigned long first = contextInUse();
    EXPECT_RV(CKR_OK, list.C_SetSCContext(0));
    pcsc::clearCalls();
    refresh();
    const auto established = callsOf(pcsc::Function::EstablishContext);
    ASSERT_EQ(1U, established.size());
    EXPECT_NE(first, established[0].context);
    EXPECT_EQ(established[0].context, contextInUse());
}

TEST_F(General, AnInvalidHostContextListsNothingAndCannotBeReleased)
{
    plug(READER, refusingCard(ID_CARD));
    initialise();
    const SCARDCONTEXT context = hostContext();
    ASSERT_EQ(SCARD_S_SUCCESS, SCardReleaseContext(context));
    EXPECT_RV(CKR_OK, list.C_SetSCContext(context));
    EXPECT_TRUE(slots().empty());
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_Finalize(nullptr));
    EXPECT_RV(CKR_OK, list.C_SetSCContext(0));
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
}

TEST_F(General, AContextHandedInAfterFinalisationIsForgottenToo)
{
    initialise();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    const SCARDCONTEXT context = hostContext();
    EXPECT_RV(CKR_OK, list.C_SetSCContext(context));
    initialise();
    pcsc::clearCalls();
    EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(0U, pcsc::callCount());
    EXPECT_EQ(SCARD_S_SUCCESS, SCardReleaseContext(context));
}

} // namespace
