// No memory is taken on the path of an exchange, a signature, an attribute read or a search step,
// whatever its outcome: refusals, chains in pieces, buffers too small, data too long, stray
// handles.
#include "sim/pcsc/standin.h"
#include "src/core/apdu.h"
#include "src/core/dispatch.h"
#include "src/core/token_driver.h"
#include "src/objects/search.h"
#include "tests/support/codes.h"
#include "tests/support/failing_alloc.h"
#include "tests/support/memory_card.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace velt_test {
namespace {

namespace pcsc = sim::pcsc;

constexpr const char* CARD_READER = "A 0";
constexpr CK_OBJECT_HANDLE OBJECTS = 6;
constexpr std::size_t MAX_GET_RESPONSES = 1024;

class NoAllocation : public ::testing::Test {
protected:
    void SetUp() override
    {
        pcsc::reset();
        pcsc::plugReader(CARD_READER);
        pcsc::insertCard(CARD_READER, card);
        ASSERT_RV(CKR_OK, C_Initialize(nullptr));
        CK_ULONG count = 0;
        ASSERT_RV(CKR_OK, C_GetSlotList(CK_FALSE, nullptr, &count));
        ASSERT_RV(CKR_OK, C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
        ulTempLen = 0;
        alloc::failFrom(1);
    }

    void TearDown() override
    {
        EXPECT_EQ(0U, alloc::asked());
        alloc::clear();
        pcsc::clearPlans();
        if (bFindInit != 0) {
            EXPECT_RV(CKR_OK, C_FindObjectsFinal(session));
        }
        EXPECT_RV(CKR_OK, C_Finalize(nullptr));
        EXPECT_RV(CKR_OK, C_Initialize(nullptr));
        EXPECT_RV(CKR_OK, C_Finalize(nullptr)); // reclaims what the first one kept
        stVELTTokens = {};
        bSignOpInit = 0;
        ulTempLen = 0;
    }

    std::uint64_t ask() { return velt::exchange(session, COMMAND, OUTPUT_SIZE); }

    CK_RV read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG room)
    {
        CK_ATTRIBUTE attribute{type, value.data(), room};
        return C_GetAttributeValue(session, object, &attribute, 1);
    }

    CK_RV sign(CK_ULONG dataLength, CK_ULONG room)
    {
        return C_Sign(session, data.data(), dataLength, value.data(), &room);
    }

    CK_RV signInit(CK_OBJECT_HANDLE key, CK_MECHANISM_TYPE type = CKM_RSA_PKCS)
    {
        CK_MECHANISM mechanism{type, nullptr, 0};
        return C_SignInit(session, &mechanism, key);
    }

    static constexpr std::array<std::uint8_t, 5> COMMAND{0x00, 0xB0, 0x00, 0x00, 0x10};

    std::shared_ptr<MemoryCard> card = std::make_shared<MemoryCard>();
    CK_SESSION_HANDLE session = 0;
    std::array<CK_BYTE, 4096> value{};
    std::vector<CK_BYTE> data = std::vector<CK_BYTE>(65544, 0x11);
};

TEST_F(NoAllocation, ChainsInPiecesTakeNone)
{
    sim::Bytes piece(1000, 0x22);
    piece.insert(piece.end(), {0x61, 0x10});
    pcsc::replyNth(1, piece); // more than is collected
    pcsc::replyNth(2, {0x33, 0x90, 0x00});
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(COLLECTION_SIZE, dwReplyLen);
    pcsc::replyNth(1, {0x22, 0x61, 0x10});
    pcsc::replyNth(2, {0x6F, 0x00}); // broken off
    EXPECT_EQ(0x006FU, ask());
    pcsc::replyNth(1, {0x90, 0x00});
    EXPECT_EQ(0U, ask());
    EXPECT_EQ(3U, dwReplyLen);
}

TEST_F(NoAllocation, AChainWithoutEndTakesNone)
{
    for (std::size_t n = 1; n <= MAX_GET_RESPONSES + 2; ++n) {
        pcsc::replyNth(n, {0x44, 0x61, 0x01});
    }
    EXPECT_EQ(static_cast<std::uint64_t>(SCARD_E_PROTO_MISMATCH), ask());
}

TEST_F(NoAllocation, ExchangesThatFailTakeNone)
{
    for (const sim::Bytes& reply :
         std::vector<sim::Bytes>{{}, {0x90}, {0x6A, 0x82}, {0x6C, 0x10}, sim::Bytes(3000, 0x90)}) {
        pcsc::replyNth(1, reply);
        EXPECT_NE(0U, ask());
    }
    pcsc::failNth(pcsc::Function::Transmit, 1, SCARD_F_COMM_ERROR);
    EXPECT_NE(0U, ask());
    EXPECT_NE(0U, velt::exchange(0, COMMAND, 2));
    EXPECT_NE(0U, velt::exchange(session + 1, COMMAND, 2));
    velt::Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted(data);
    EXPECT_NE(0U, velt::exchange(session, command, 2));
}

TEST_F(NoAllocation, TheLongestCommandTakesNone)
{
    velt::Command command(0x00, 0x88, 0x02, 0x00);
    command.putCounted({data.data(), velt::MAX_COMMAND_DATA});
    pcsc::replyNth(1, {0x90, 0x00});
    EXPECT_EQ(0U, velt::exchange(session, command, 2));
}

TEST_F(NoAllocation, EveryAttributeOfEveryObjectTakesNone)
{
    std::size_t served = 0;
    for (CK_OBJECT_HANDLE object = 0; object <= OBJECTS + 5; ++object) {
        for (CK_ATTRIBUTE_TYPE type = 0; type <= 0x220; ++type) {
            for (const CK_ULONG room : {CK_ULONG{0}, CK_ULONG{3}, value.size()}) {
                served += read(object, type, room) == CKR_OK ? 1U : 0U;
            }
        }
    }
    // Into the large buffer 14 of each certificate and public key and 21 of each private key; into
    // three bytes their flags and exponents: 5, 9 and 17.
    EXPECT_EQ(2U * (14 + 14 + 21 + 5 + 9 + 17), served);
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, C_GetAttributeValue(session + 1, 1, nullptr, 1));
}

TEST_F(NoAllocation, SignaturesTakeNoneHoweverTheyEnd)
{
    EXPECT_RV(CKR_MECHANISM_INVALID, signInit(3, CKM_SHA1_RSA_PKCS));
    EXPECT_RV(CKR_KEY_HANDLE_INVALID, signInit(OBJECTS + 1));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, sign(35, 256));
    EXPECT_RV(CKR_OK, signInit(0));
    EXPECT_RV(CKR_KEY_HANDLE_INVALID, sign(35, 256));
    EXPECT_RV(CKR_OK, signInit(6));
    EXPECT_RV(CKR_DATA_LEN_RANGE, sign(65544, 256));
    EXPECT_RV(CKR_BUFFER_TOO_SMALL, sign(35, 255));
    for (std::size_t step = 2; step <= 5; ++step) {
        pcsc::replyNth(step, {0x69, 0x82});
        EXPECT_NE(CKR_OK, sign(35, 256));
        pcsc::clearPlans();
    }
    EXPECT_RV(CKR_OK, sign(35, 256));
    EXPECT_RV(CKR_OK, signInit(6));
    CK_ULONG length = 0;
    EXPECT_RV(CKR_OK, C_Sign(session, data.data(), 35, nullptr, &length));
    EXPECT_EQ(256U, length);
    pcsc::removeCard(CARD_READER);
    EXPECT_RV(CKR_OK, signInit(6));
    EXPECT_RV(CKR_DEVICE_ERROR, sign(35, 256));
}

TEST_F(NoAllocation, SearchStepsOverCertificateFieldsTakeNone)
{
    alloc::clear();
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    sim::Bytes wanted = card->certificate(1);
    std::array<CK_ATTRIBUTE, 2> both{
        {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_VALUE, wanted.data(), wanted.size()}}};
    ASSERT_RV(CKR_OK, C_FindObjectsInit(session, both.data(), both.size()));
    alloc::failFrom(1);
    std::array<CK_OBJECT_HANDLE, 10> found{};
    CK_ULONG count = 0;
    EXPECT_RV(CKR_OK, C_FindObjects(session, found.data(), 0, &count));
    EXPECT_EQ(1U, count);
    EXPECT_EQ(4U, found[0]);
    EXPECT_RV(CKR_OK, C_FindObjects(session, found.data(), 10, &count));
    EXPECT_EQ(0U, count);
    EXPECT_RV(CKR_ARGUMENTS_BAD, C_FindObjects(session, nullptr, 10, &count));
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, C_FindObjects(session + 1, found.data(), 10, &count));
    EXPECT_RV(CKR_OK, C_FindObjectsFinal(session));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, C_FindObjects(session, found.data(), 10, &count));
}

} // namespace
} // namespace velt_test
