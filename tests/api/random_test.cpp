// Random bytes and key pairs, neither of which the ID card gives.
// C_GenerateRandom, C_GenerateKeyPair, C_GenerateKey.
#include "tests/support/id_card_host.h"

#include <array>
#include <vector>

namespace velt_test {
namespace {

class RandomTest : public IdCardHost {
protected:
    void SetUp() override
    {
        IdCardHost::SetUp();
        openOn();
    }

    std::vector<CK_SESSION_HANDLE> allHandles()
    {
        std::vector<CK_SESSION_HANDLE> handles = strayHandles();
        const CK_SESSION_HANDLE closed = open(0);
        EXPECT_RV(CKR_OK, p11.C_CloseSession(closed));
        handles.insert(handles.end(), {session, closed});
        forget();
        return handles;
    }
};

TEST_F(RandomTest, TheBufferStaysAsItWasAndTheAnswerIsYes)
{
    Bytes buffer(40, SENTINEL);
    for (const CK_ULONG length : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{16}, CK_ULONG{32}}) {
        EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, buffer.data(), length));
    }
    EXPECT_EQ(Bytes(40, SENTINEL), buffer);
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(RandomTest, NoHandleIsChecked)
{
    Bytes buffer(16, SENTINEL);
    for (const CK_SESSION_HANDLE handle : allHandles()) {
        EXPECT_RV(CKR_OK, p11.C_GenerateRandom(handle, buffer.data(), buffer.size()));
    }
    EXPECT_EQ(Bytes(16, SENTINEL), buffer);
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_F(RandomTest, NoBufferIsChecked)
{
    EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, nullptr, 16));
    EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, nullptr, ~CK_ULONG{0}));
}

TEST_F(RandomTest, TheCardsRefusalIsToldThenSuccess)
{
    Bytes buffer(16, SENTINEL);
    const MessageMark mark;
    p11.C_GenerateRandom(session, buffer.data(), buffer.size());
    EXPECT_MESSAGES(mark, "C_GenerateRandom", "IDCard GenerateRandom CKR_FUNCTION_NOT_SUPPORTED",
                    "GenerateRandom CKR_OK");
}

TEST_F(RandomTest, KeyPairsAreRefusedOnEveryHandle)
{
    loginAs();
    CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_BYTE id = ID_1;
    CK_ATTRIBUTE attribute = attributeOf(CKA_ID, id);
    CK_OBJECT_HANDLE publicKey = NO_HANDLE;
    CK_OBJECT_HANDLE privateKey = NO_HANDLE;
    for (const CK_SESSION_HANDLE handle : allHandles()) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID,
                  p11.C_GenerateKeyPair(handle, &mechanism, &attribute, 1, &attribute, 1,
                                        &publicKey, &privateKey));
    }
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID,
              p11.C_GenerateKeyPair(session, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(NO_HANDLE, publicKey);
    EXPECT_EQ(NO_HANDLE, privateKey);
    EXPECT_EQ(0U, pcsc::callCount());
    EXPECT_EQ(0U, card->counters().generations);
}

TEST_F(RandomTest, ARefusedKeyPairIsToldOnlyForAHandleThatNoOneHas)
{
    const MessageMark beyond;
    p11.C_GenerateKeyPair(session + 1, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr);
    EXPECT_MESSAGES(beyond, "C_GenerateKeyPair", "GenerateKeyPair CKR_SESSION_HANDLE_INVALID");
    const MessageMark valid;
    p11.C_GenerateKeyPair(session, nullptr, nullptr, 0, nullptr, 0, nullptr, nullptr);
    EXPECT_MESSAGES(valid, "C_GenerateKeyPair");
}

} // namespace
} // namespace velt_test
