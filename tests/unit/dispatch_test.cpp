// Object, key, random and signing operations over a token family of the test's own: the order of
// the checks, what reaches the family, and what its answer does to the caller and the module.
#include "tests/support/dispatch_world.h"

#include <array>
#include <cstdint>
#include <vector>

namespace velt_test::world {
namespace {

constexpr std::array<CK_RV, 8> REFUSALS{
    CKR_HOST_MEMORY,   CKR_GENERAL_ERROR,          CKR_FUNCTION_FAILED,     CKR_DEVICE_ERROR,
    CKR_DEVICE_MEMORY, CKR_FUNCTION_NOT_SUPPORTED, CKR_TEMPLATE_INCOMPLETE, 0x80001234};

class DispatchTest : public DispatchWorld {};

// C_CreateObject.

TEST_F(DispatchTest, CreatingPassesTheTemplateToTheFamilyAndReloads)
{
    EXPECT_EQ(CKR_OK, VELT_CreateObject(session, &attribute, 1, &object));
    EXPECT_EQ((std::vector<Asked>{call("CreateObject", session, {&attribute, &object}, {1}),
                                  reload(session)}),
              asked());
    EXPECT_EQ(0U, entry(session).deviceError);
    EXPECT_EQ(0U, oiFlags);
    EXPECT_EQ(0x77U, object) << "only the family writes the handle";
}

TEST_F(DispatchTest, CreatingPassesNullForTheHandleOn)
{
    EXPECT_EQ(CKR_OK, VELT_CreateObject(session, &attribute, 1, nullptr));
    ASSERT_EQ(2U, asked().size());
    EXPECT_EQ(call("CreateObject", session, {&attribute, nullptr}, {1}), asked()[0]);
}

TEST_F(DispatchTest, ARefusedCreationIsReturnedAndNothingReloads)
{
    for (const CK_RV refusal : REFUSALS) {
        asked().clear();
        answer("CreateObject", refusal);
        EXPECT_EQ(refusal, VELT_CreateObject(session, &attribute, 1, &object));
        EXPECT_EQ(1U, asked().size());
        EXPECT_EQ(0x5EEDU, entry(session).deviceError);
        EXPECT_EQ(0U, oiFlags);
    }
}

TEST_F(DispatchTest, TheResultOfTheReloadAfterACreationIsIgnored)
{
    for (const CK_RV failure : {CK_RV{1}, CK_RV{2}, CK_RV{6}, CK_RV{0x54}}) {
        answer("ObjectsInit", failure);
        oiFlags = 0;
        EXPECT_EQ(CKR_OK, VELT_CreateObject(session, &attribute, 1, &object));
        EXPECT_EQ(RELOAD_OBJECTS, oiFlags) << "the next use tries again";
        EXPECT_EQ(0U, entry(session).deviceError);
    }
}

TEST_F(DispatchTest, CreatingChecksHandleThenOpenThenTemplateThenLogin)
{
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_CreateObject(stray, nullptr, 0, &object));
    }
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_CreateObject(closed, nullptr, 0, &object));
    entry(session).loginState = LOGGED_OUT;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_CreateObject(session, nullptr, 1, &object));
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_CreateObject(session, &attribute, 0, &object));
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, VELT_CreateObject(session, &attribute, 1, &object));
    EXPECT_TRUE(asked().empty());
    EXPECT_EQ(0U, oiFlags);
}

TEST_F(DispatchTest, OnlyASessionThatLoggedOutMayNotCreate)
{
    for (const std::uint8_t state : {NEVER_LOGGED_IN, LOGGED_IN}) {
        entry(session).loginState = state;
        EXPECT_EQ(CKR_OK, VELT_CreateObject(session, &attribute, 1, &object));
    }
}

// C_DestroyObject.

TEST_F(DispatchTest, DestroyingCallsTheFamilyAndReturnsTheReload)
{
    for (const CK_RV result : {CK_RV{0}, CK_RV{1}, CK_RV{2}, CK_RV{6}, CK_RV{0x54}}) {
        asked().clear();
        oiFlags = 0;
        answer("ObjectsInit", result);
        EXPECT_EQ(result, VELT_DestroyObject(session, 3));
        EXPECT_EQ((std::vector<Asked>{call("DestroyObject", session, {}, {3}), reload(session)}),
                  asked());
        EXPECT_EQ(result == 0 ? 0 : RELOAD_OBJECTS, oiFlags);
    }
    EXPECT_EQ(0x5EEDU, entry(session).deviceError);
}

TEST_F(DispatchTest, WhatTheFamilySaysToADestructionIsIgnored)
{
    for (const CK_RV refusal : REFUSALS) {
        answer("DestroyObject", refusal);
        EXPECT_EQ(CKR_OK, VELT_DestroyObject(session, 3));
    }
    EXPECT_EQ(2 * REFUSALS.size(), asked().size());
}

TEST_F(DispatchTest, DestroyingTakesAnyObjectHandle)
{
    for (const CK_OBJECT_HANDLE stray :
         std::vector<CK_OBJECT_HANDLE>{0, 7, 1000000, REMOVED_MARKER, UINT64_MAX}) {
        asked().clear();
        EXPECT_EQ(CKR_OK, VELT_DestroyObject(session, stray));
        EXPECT_EQ(call("DestroyObject", session, {}, {stray}), asked()[0]);
    }
}

TEST_F(DispatchTest, DestroyingChecksHandleThenOpenAndNoLogin)
{
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_DestroyObject(stray, 3));
    }
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_DestroyObject(closed, 3));
    EXPECT_TRUE(asked().empty());
    EXPECT_EQ(0U, oiFlags);
    entry(session).loginState = LOGGED_OUT;
    EXPECT_EQ(CKR_OK, VELT_DestroyObject(session, 3));
}

// Reloads when the slot and the table do not agree.

TEST_F(DispatchTest, AReloadForAnEmptySlotEmptiesTheTypeAndCallsWhatStandsInTheTable)
{
    setTokenType(TOKEN_NONE);
    EXPECT_EQ(CKR_OK, VELT_DestroyObject(session, 3));
    EXPECT_EQ(0U, stVELTTokens.type);
    EXPECT_EQ((std::vector<Asked>{call("DestroyObject", session, {}, {3}), reload(session)}),
              asked());
    EXPECT_EQ(0U, oiFlags);
}

TEST_F(DispatchTest, ACreationOnASlotThatBecameEmptyReloadsTheSameWay)
{
    setTokenType(TOKEN_NONE);
    EXPECT_EQ(CKR_OK, VELT_CreateObject(session, &attribute, 1, &object));
    EXPECT_EQ(0U, stVELTTokens.type);
    EXPECT_EQ((std::vector<Asked>{call("CreateObject", session, {&attribute, &object}, {1}),
                                  reload(session)}),
              asked());
}

TEST_F(DispatchTest, ATableOfTheSlotsFamilyIsNotRefilled)
{
    EXPECT_EQ(CKR_OK, VELT_DestroyObject(session, 3));
    EXPECT_EQ(TOKEN_IDC, stVELTTokens.type);
    EXPECT_EQ(&fake::objectsInit, stVELTTokens.ObjectsInit);
}

TEST_F(DispatchTest, OperationsUseTheTableAsItStands)
{
    stVELTTokens.type = TOKEN_JC; // another family's, as a query on another slot leaves it
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 3));
    EXPECT_EQ(CKR_OK, VELT_Sign(session, data.data(), 4, nullptr, &signatureLength));
    EXPECT_EQ(CKR_OK, VELT_GenerateRandom(session, data.data(), 4));
    EXPECT_EQ(3U, asked().size());
    EXPECT_EQ(TOKEN_JC, stVELTTokens.type);
    answer("CreateObject", CKR_DEVICE_ERROR);
    EXPECT_EQ(CKR_DEVICE_ERROR, VELT_CreateObject(session, &attribute, 1, &object));
    EXPECT_EQ(TOKEN_JC, stVELTTokens.type);
}

// C_GetObjectSize's core operation, C_GenerateKeyPair, C_GenerateRandom.

TEST_F(DispatchTest, TheObjectSizeIsNotWritten)
{
    CK_ULONG size = 0xABCD;
    EXPECT_EQ(CKR_OK, VELT_GetObjectSize(session, 3, &size));
    EXPECT_EQ(CKR_OK, VELT_GetObjectSize(0, 0, nullptr));
    EXPECT_EQ(0xABCDU, size);
}

TEST_F(DispatchTest, KeyPairsAreRefusedWithAnInvalidHandleAlways)
{
    CK_OBJECT_HANDLE publicKey = 0x11;
    CK_OBJECT_HANDLE privateKey = 0x22;
    std::vector<CK_SESSION_HANDLE> handles = strayHandles();
    handles.push_back(session);
    handles.push_back(closed);
    for (const CK_SESSION_HANDLE handle : handles) {
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID,
                  VELT_GenerateKeyPair(handle, &mechanism, &attribute, 1, &attribute, 1, &publicKey,
                                       &privateKey));
    }
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID,
              VELT_GenerateKeyPair(session, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_TRUE(asked().empty());
    EXPECT_EQ(0x11U, publicKey);
    EXPECT_EQ(0x22U, privateKey);
}

TEST_F(DispatchTest, RandomBytesAreAskedOfTheFamilyWithoutAnyCheck)
{
    std::vector<CK_SESSION_HANDLE> handles = strayHandles();
    handles.push_back(session);
    handles.push_back(closed);
    for (const CK_SESSION_HANDLE handle : handles) {
        asked().clear();
        EXPECT_EQ(CKR_OK, VELT_GenerateRandom(handle, data.data(), 4));
        EXPECT_EQ((std::vector<Asked>{call("GenerateRandom", handle, {data.data()}, {4})}),
                  asked());
    }
    EXPECT_EQ(CKR_OK, VELT_GenerateRandom(session, nullptr, 0));
    EXPECT_EQ(call("GenerateRandom", session, {nullptr}, {0}), asked().back());
}

TEST_F(DispatchTest, WhatTheFamilySaysToRandomBytesIsIgnored)
{
    for (const CK_RV refusal : REFUSALS) {
        answer("GenerateRandom", refusal);
        EXPECT_EQ(CKR_OK, VELT_GenerateRandom(session, data.data(), 4));
    }
    EXPECT_EQ((std::array<CK_BYTE, 4>{1, 2, 3, 4}), data);
}

// C_SignInit.

TEST_F(DispatchTest, AnAcceptedSignInitMakesSigningPending)
{
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 3));
    EXPECT_EQ((std::vector<Asked>{call("SignInit", session, {&mechanism}, {3})}), asked());
    EXPECT_EQ(1, bSignOpInit);
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 6)) << "a second one is accepted";
    EXPECT_EQ(2U, asked().size());
    EXPECT_EQ(1, bSignOpInit);
}

TEST_F(DispatchTest, ARefusedSignInitLeavesTheStateAsItWas)
{
    for (const CK_RV refusal : REFUSALS) {
        for (const std::uint8_t state : {std::uint8_t{0}, std::uint8_t{1}}) {
            bSignOpInit = state;
            answer("SignInit", refusal);
            EXPECT_EQ(refusal, VELT_SignInit(session, &mechanism, 3));
            EXPECT_EQ(state, bSignOpInit);
        }
    }
}

TEST_F(DispatchTest, SignInitChecksHandleThenOpenThenLoginThenKey)
{
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_SignInit(stray, &mechanism, 7));
    }
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_SignInit(closed, &mechanism, 7));
    entry(session).loginState = LOGGED_OUT;
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, VELT_SignInit(session, &mechanism, 7));
    entry(session).loginState = LOGGED_IN;
    for (const CK_OBJECT_HANDLE key :
         std::vector<CK_OBJECT_HANDLE>{7, 8, REMOVED_MARKER, UINT64_MAX}) {
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, VELT_SignInit(session, &mechanism, key));
    }
    EXPECT_TRUE(asked().empty());
    EXPECT_EQ(0, bSignOpInit);
}

TEST_F(DispatchTest, EveryKeyHandleUpToTheCountReachesTheFamily)
{
    for (CK_OBJECT_HANDLE key = 0; key <= ulObjCount; ++key) {
        EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, key));
        EXPECT_EQ(call("SignInit", session, {&mechanism}, {key}), asked().back());
    }
    EXPECT_EQ(7U, asked().size());
    ulObjCount = 0;
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 0));
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, VELT_SignInit(session, &mechanism, 1));
}

TEST_F(DispatchTest, SignInitNeedsNoToken)
{
    setTokenType(TOKEN_NONE);
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 3));
    EXPECT_EQ(1, bSignOpInit);
}

// C_Sign.

TEST_F(DispatchTest, ASignatureEndsTheOperation)
{
    bSignOpInit = 1;
    EXPECT_EQ(CKR_OK, VELT_Sign(session, data.data(), 4, signature.data(), &signatureLength));
    EXPECT_EQ((std::vector<Asked>{
                  call("Sign", session, {data.data(), signature.data(), &signatureLength}, {4})}),
              asked());
    EXPECT_EQ(0, bSignOpInit);
    EXPECT_EQ(8U, signatureLength);
    EXPECT_EQ(0x5EEDU, entry(session).deviceError);
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED,
              VELT_Sign(session, data.data(), 4, signature.data(), &signatureLength));
}

TEST_F(DispatchTest, ASizeQueryThatSucceedsEndsTheOperationToo)
{
    bSignOpInit = 1;
    EXPECT_EQ(CKR_OK, VELT_Sign(session, data.data(), 4, nullptr, &signatureLength));
    EXPECT_EQ(call("Sign", session, {data.data(), nullptr, &signatureLength}, {4}), asked()[0]);
    EXPECT_EQ(0, bSignOpInit);
}

TEST_F(DispatchTest, OutputPointersReachTheFamilyUnchecked)
{
    bSignOpInit = 1;
    EXPECT_EQ(CKR_OK, VELT_Sign(session, data.data(), 4, nullptr, nullptr));
    EXPECT_EQ(call("Sign", session, {data.data(), nullptr, nullptr}, {4}), asked()[0]);
}

TEST_F(DispatchTest, ARefusedSignatureStaysPending)
{
    bSignOpInit = 1;
    for (const CK_RV refusal : REFUSALS) {
        answer("Sign", refusal);
        EXPECT_EQ(refusal, VELT_Sign(session, data.data(), 4, signature.data(), &signatureLength));
        EXPECT_EQ(1, bSignOpInit);
    }
    answer("Sign", CKR_OK);
    EXPECT_EQ(CKR_OK, VELT_Sign(session, data.data(), 4, signature.data(), &signatureLength));
}

TEST_F(DispatchTest, SignChecksTokenThenHandleThenOpenThenLoginThenDataThenState)
{
    setTokenType(TOKEN_NONE);
    entry(session).loginState = LOGGED_OUT;
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, VELT_Sign(session, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, VELT_Sign(closed, nullptr, 0, nullptr, nullptr));
    setTokenType(TOKEN_IDC);
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_Sign(stray, nullptr, 0, nullptr, nullptr));
    }
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_Sign(closed, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, VELT_Sign(session, nullptr, 0, nullptr, nullptr));
    entry(session).loginState = NEVER_LOGGED_IN;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_Sign(session, nullptr, 4, nullptr, nullptr));
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_Sign(session, data.data(), 0, nullptr, nullptr));
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, VELT_Sign(session, data.data(), 4, nullptr, nullptr));
    bSignOpInit = 1;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, VELT_Sign(session, data.data(), 0, nullptr, nullptr));
    EXPECT_TRUE(asked().empty());
    EXPECT_EQ(1, bSignOpInit);
}

// The unused entry 0 reads as a session on slot 0; a handle beyond the table decides nothing.
TEST_F(DispatchTest, WithoutATokenInSlotZeroHandleZeroIsToldSoAndHandlesBeyondAreRefused)
{
    setTokenType(TOKEN_NONE);
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, VELT_Sign(0, data.data(), 4, nullptr, nullptr));
    for (const CK_SESSION_HANDLE stray :
         std::vector<CK_SESSION_HANDLE>{sessCount + 1, 0xFFFFFFFF, UINT64_MAX}) {
        EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_Sign(stray, data.data(), 4, nullptr, nullptr));
    }
}

TEST_F(DispatchTest, SigningBegunOnOneSessionIsFinishedOnAnother)
{
    const CK_SESSION_HANDLE other = open();
    stVELTTokens = fake::driver(TOKEN_IDC);
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 3));
    EXPECT_EQ(CKR_OK, VELT_Sign(other, data.data(), 4, signature.data(), &signatureLength));
    EXPECT_EQ(other, asked().back().session);
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED,
              VELT_Sign(session, data.data(), 4, signature.data(), &signatureLength));
}

TEST_F(DispatchTest, PendingSigningSurvivesClosingAndFinalize)
{
    EXPECT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 3));
    ASSERT_EQ(CKR_OK, VELT_CloseSession(session));
    EXPECT_EQ(1, bSignOpInit);
    handOver();
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    EXPECT_EQ(1, bSignOpInit);
    ASSERT_NO_FATAL_FAILURE(start(silentCard()));
    const CK_SESSION_HANDLE later = open();
    stVELTTokens = fake::driver(TOKEN_IDC);
    EXPECT_EQ(CKR_OK, VELT_Sign(later, data.data(), 4, signature.data(), &signatureLength));
}

// Handles from before C_Finalize: they belong to no slot and read as closed.

TEST_F(DispatchTest, SessionsFromBeforeFinalizeAreClosed)
{
    handOver();
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    ASSERT_NO_FATAL_FAILURE(start(silentCard()));
    open();
    stVELTTokens = fake::driver(TOKEN_IDC);
    bSignOpInit = 1;
    for (const CK_SESSION_HANDLE old : {session, closed}) {
        EXPECT_EQ(CKR_SESSION_CLOSED, VELT_CreateObject(old, nullptr, 0, nullptr));
        EXPECT_EQ(CKR_SESSION_CLOSED, VELT_DestroyObject(old, 1));
        EXPECT_EQ(CKR_SESSION_CLOSED, VELT_SignInit(old, &mechanism, 1000));
        EXPECT_EQ(CKR_SESSION_CLOSED, VELT_Sign(old, nullptr, 0, nullptr, nullptr));
        setTokenType(TOKEN_NONE);
        EXPECT_EQ(CKR_SESSION_CLOSED, VELT_Sign(old, nullptr, 0, nullptr, nullptr));
        setTokenType(TOKEN_IDC);
    }
    EXPECT_TRUE(asked().empty());
}

TEST_F(DispatchTest, SessionsFromBeforeFinalizeAreClosedWithoutAnyNewOne)
{
    handOver();
    ASSERT_EQ(CKR_OK, C_Finalize(nullptr));
    bSignOpInit = 1;
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_CreateObject(session, nullptr, 0, nullptr));
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_DestroyObject(session, 1));
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_SignInit(session, &mechanism, 1000));
    EXPECT_EQ(CKR_SESSION_CLOSED, VELT_Sign(session, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, VELT_Sign(0, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_Sign(sessCount + 1, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, VELT_SignInit(0, &mechanism, 0));
}

// Operations that no family ever filled.

TEST_F(DispatchTest, UnfilledOperationsAreAnsweredWithoutBeingCalled)
{
    stVELTTokens = fake::emptyDriver(TOKEN_IDC);
    bSignOpInit = 0;
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, VELT_CreateObject(session, &attribute, 1, &object));
    EXPECT_EQ(0U, oiFlags);
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, VELT_SignInit(session, &mechanism, 3));
    EXPECT_EQ(0, bSignOpInit);
    bSignOpInit = 1;
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED,
              VELT_Sign(session, data.data(), 4, signature.data(), &signatureLength));
    EXPECT_EQ(1, bSignOpInit);
    EXPECT_EQ(CKR_OK, VELT_GenerateRandom(session, data.data(), 4));
    EXPECT_EQ((std::array<CK_BYTE, 4>{1, 2, 3, 4}), data);
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, VELT_DestroyObject(session, 3))
        << "the reload's answer, passed on";
    EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
}

TEST_F(DispatchTest, AnUnfilledDestructionStillReloads)
{
    stVELTTokens.DestroyObject = nullptr;
    EXPECT_EQ(CKR_OK, VELT_DestroyObject(session, 3));
    EXPECT_EQ((std::vector<Asked>{reload(session)}), asked());
}

TEST_F(DispatchTest, ACreationWithoutAReloadSucceeds)
{
    stVELTTokens.ObjectsInit = nullptr;
    EXPECT_EQ(CKR_OK, VELT_CreateObject(session, &attribute, 1, &object));
    EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
}

} // namespace
} // namespace velt_test::world
