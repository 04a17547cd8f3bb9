// What object, key, random and signing operations pass to the debug hooks on every way out.
#include "tests/support/dispatch_world.h"
#include "tests/support/messages.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velt_test::world {
namespace {

class DispatchMessagesTest : public DispatchWorld {
protected:
    // A reload that worked, then the operation's own last word.
    static std::vector<std::string> reloadedThen(const std::string& last)
    {
        return {"VELTObjectsInit", "VELTObjectsInit Do init = true", "VELTObjectsInit complete",
                "VELTObjectsInit CKR_OK", last};
    }

    // A reload that the family broke off, then the operation's own last word.
    static std::vector<std::string> notReloadedThen(const std::string& last)
    {
        return {"VELTObjectsInit", "VELTObjectsInit Do init = true", last};
    }

    MessageMark mark;
};

TEST_F(DispatchMessagesTest, CreatingTellsEachRefusal)
{
    mark.reset();
    VELT_CreateObject(0, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, "CreateObject CKR_SESSION_HANDLE_INVALID");
    mark.reset();
    VELT_CreateObject(sessCount + 1, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, "CreateObject CKR_SESSION_HANDLE_INVALID");
    mark.reset();
    VELT_CreateObject(closed, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, "CreateObject CKR_SESSION_CLOSED");
    mark.reset();
    VELT_CreateObject(session, nullptr, 1, &object);
    EXPECT_MESSAGES(mark, "CreateObject CKR_ARGUMENTS_BAD");
    mark.reset();
    VELT_CreateObject(session, &attribute, 0, &object);
    EXPECT_MESSAGES(mark, "CreateObject CKR_ARGUMENTS_BAD");
    entry(session).loginState = LOGGED_OUT;
    mark.reset();
    VELT_CreateObject(session, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, "CreateObject CKR_USER_NOT_LOGGED_IN");
}

TEST_F(DispatchMessagesTest, CreatingTellsTheFamilysCode)
{
    answer("CreateObject", CKR_DEVICE_MEMORY);
    mark.reset();
    VELT_CreateObject(session, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, "CreateObject error 0x31");
}

TEST_F(DispatchMessagesTest, CreatingTellsTheReloadAndSuccess)
{
    mark.reset();
    VELT_CreateObject(session, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, reloadedThen("CreateObject CKR_OK"));
    answer("ObjectsInit", 2);
    mark.reset();
    VELT_CreateObject(session, &attribute, 1, &object);
    EXPECT_MESSAGES(mark, notReloadedThen("CreateObject CKR_OK"));
}

TEST_F(DispatchMessagesTest, DestroyingTellsEachWayOut)
{
    mark.reset();
    VELT_DestroyObject(0, 3);
    EXPECT_MESSAGES(mark, "DestroyObject CKR_SESSION_HANDLE_INVALID");
    mark.reset();
    VELT_DestroyObject(closed, 3);
    EXPECT_MESSAGES(mark, "DestroyObject CKR_SESSION_CLOSED");
    mark.reset();
    VELT_DestroyObject(session, 3);
    EXPECT_MESSAGES(mark, reloadedThen("DestroyObject CKR_OK"));
    answer("ObjectsInit", 6);
    mark.reset();
    VELT_DestroyObject(session, 3);
    EXPECT_MESSAGES(mark, notReloadedThen("DestroyObject error 0x6"));
}

TEST_F(DispatchMessagesTest, TheObjectSizeTellsSuccess)
{
    CK_ULONG size = 0;
    mark.reset();
    VELT_GetObjectSize(session, 3, &size);
    EXPECT_MESSAGES(mark, "GetObjectSize CKR_OK");
}

TEST_F(DispatchMessagesTest, KeyPairsAreRefusedSilentlyOnAValidHandle)
{
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        mark.reset();
        VELT_GenerateKeyPair(stray, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr);
        EXPECT_MESSAGES(mark, "GenerateKeyPair CKR_SESSION_HANDLE_INVALID");
    }
    for (const CK_SESSION_HANDLE issued : {session, closed}) {
        mark.reset();
        VELT_GenerateKeyPair(issued, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr);
        EXPECT_MESSAGES(mark);
    }
}

TEST_F(DispatchMessagesTest, RandomBytesTellSuccessWhateverTheFamilySaid)
{
    for (const CK_RV result : {CKR_OK, CKR_FUNCTION_NOT_SUPPORTED}) {
        answer("GenerateRandom", result);
        mark.reset();
        VELT_GenerateRandom(session, data.data(), data.size());
        EXPECT_MESSAGES(mark, "GenerateRandom CKR_OK");
    }
}

TEST_F(DispatchMessagesTest, SignInitTellsEachWayOut)
{
    mark.reset();
    VELT_SignInit(0, &mechanism, 3);
    EXPECT_MESSAGES(mark, "SignInit CKR_SESSION_HANDLE_INVALID");
    mark.reset();
    VELT_SignInit(closed, &mechanism, 3);
    EXPECT_MESSAGES(mark, "SignInit CKR_SESSION_CLOSED");
    mark.reset();
    VELT_SignInit(session, &mechanism, 7);
    EXPECT_MESSAGES(mark, "SignInit CKR_KEY_HANDLE_INVALID");
    mark.reset();
    VELT_SignInit(session, &mechanism, 3);
    EXPECT_MESSAGES(mark, "SignInit CKR_OK");
    answer("SignInit", CKR_MECHANISM_INVALID);
    mark.reset();
    VELT_SignInit(session, &mechanism, 3);
    EXPECT_MESSAGES(mark, "SignInit error 0x70");
    entry(session).loginState = LOGGED_OUT;
    mark.reset();
    VELT_SignInit(session, &mechanism, 3);
    EXPECT_MESSAGES(mark, "SignInit CKR_USER_NOT_LOGGED_IN");
}

TEST_F(DispatchMessagesTest, SignTellsEachWayOut)
{
    const auto sign = [this](CK_SESSION_HANDLE handle, CK_ULONG length) {
        mark.reset();
        VELT_Sign(handle, data.data(), length, signature.data(), &signatureLength);
    };
    sign(0, 4);
    EXPECT_MESSAGES(mark, "Sign CKR_SESSION_HANDLE_INVALID");
    sign(closed, 4);
    EXPECT_MESSAGES(mark, "Sign CKR_SESSION_CLOSED");
    sign(session, 0);
    EXPECT_MESSAGES(mark, "Sign CKR_ARGUMENTS_BAD");
    sign(session, 4);
    EXPECT_MESSAGES(mark, "Sign CKR_OPERATION_NOT_INITIALIZED");
    bSignOpInit = 1;
    answer("Sign", CKR_BUFFER_TOO_SMALL);
    sign(session, 4);
    EXPECT_MESSAGES(mark, "Sign error 0x150");
    answer("Sign", CKR_OK);
    sign(session, 4);
    EXPECT_MESSAGES(mark, "Sign CKR_OK");
    entry(session).loginState = LOGGED_OUT;
    sign(session, 4);
    EXPECT_MESSAGES(mark, "Sign CKR_USER_NOT_LOGGED_IN");
    setTokenType(TOKEN_NONE);
    sign(session, 4);
    EXPECT_MESSAGES(mark, "Sign CKR_TOKEN_NOT_PRESENT");
}

TEST_F(DispatchMessagesTest, AnExchangeTellsNothing)
{
    const sim::Bytes command = sim::hex("00 B0 00 00 02");
    mark.reset();
    sim::pcsc::replyNth(1, sim::hex("61 02"));
    sim::pcsc::replyNth(2, sim::hex("6A 82"));
    EXPECT_EQ(0x826AU, velt::exchange(session, command, 258));
    sim::pcsc::failNth(sim::pcsc::Function::Transmit, 1, SCARD_F_COMM_ERROR);
    EXPECT_NE(0U, velt::exchange(session, command, 258));
    EXPECT_MESSAGES(mark);
    sim::pcsc::clearCalls();
}

} // namespace
} // namespace velt_test::world
