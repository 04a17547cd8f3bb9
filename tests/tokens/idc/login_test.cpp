// The PIN on its way to the ID card, and what the card's answers mean.
#include "tests/support/idc_fixture.h"

#include <algorithm>

using namespace velt_test;

namespace {

class IdcLogin : public IdcTest {
protected:
    static constexpr std::string_view VERIFY_1234 = "00 20 00 02 08 31 32 33 34 30 30 30 30";

    void expectVerify(std::string_view command, std::string_view reply)
    {
        expect(SELECT_MF, OK);
        expect(command, reply);
    }

    // The PIN in memory of exactly its size.
    CK_RV login(std::string_view pin)
    {
        std::vector<CK_UTF8CHAR> exact(pin.begin(), pin.end());
        exact.reserve(1); // not NULL
        return fLoginIDC(table, session, exact.data(), exact.size());
    }

    // Whether the command buffer holds nothing where Lc and the PIN block were.
    static bool commandBufferIsWiped()
    {
        const velt::Command probe{0x00, 0x00, 0x00, 0x00};
        const std::uint8_t* buffer = probe.bytes().data();
        return std::all_of(buffer + 4, buffer + 13, [](std::uint8_t byte) { return byte == 0; });
    }
};

TEST_F(IdcLogin, FourCharactersGoOutWithFourZerosBehindThem)
{
    expectVerify(VERIFY_1234, OK);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_MESSAGES(mark, "IDCard Login CKR_OK");
}

TEST_F(IdcLogin, MoreThanFourCharactersAreCut)
{
    expectVerify(VERIFY_1234, OK);
    EXPECT_EQ(CKR_OK, login("123456"));
}

TEST_F(IdcLogin, TheBytesGoOutAsTheyAre)
{
    expectVerify("00 20 00 02 08 FF 80 01 20 30 30 30 30", OK);
    EXPECT_EQ(CKR_OK, login("\xFF\x80\x01\x20"));
}

TEST_F(IdcLogin, AZeroByteEndsTheBlock)
{
    using namespace std::string_view_literals;
    expectVerify("00 20 00 02 00", OK);
    EXPECT_EQ(CKR_OK, login("\0"
                            "234"sv));
    expectVerify("00 20 00 02 01 31", OK);
    EXPECT_EQ(CKR_OK, login("1\0"
                            "34"sv));
    expectVerify("00 20 00 02 02 31 32", OK);
    EXPECT_EQ(CKR_OK, login("12\0"
                            "4"sv));
    expectVerify("00 20 00 02 03 31 32 33", OK);
    EXPECT_EQ(CKR_OK, login("123\0"sv));
}

TEST_F(IdcLogin, MissingCharactersReadAsZeroBytesAndNothingBehindThePinIsRead)
{
    expectVerify("00 20 00 02 00", OK);
    EXPECT_EQ(CKR_OK, login(""));
    expectVerify("00 20 00 02 01 31", OK);
    EXPECT_EQ(CKR_OK, login("1"));
    expectVerify("00 20 00 02 02 31 32", OK);
    EXPECT_EQ(CKR_OK, login("12"));
    expectVerify("00 20 00 02 03 31 32 33", OK);
    EXPECT_EQ(CKR_OK, login("123"));
}

TEST_F(IdcLogin, TheCharactersBehindAStatedLengthAreNotRead)
{
    std::array<CK_UTF8CHAR, 8> pin{'1', '2', '3', '4', '5', '6', '7', '8'};
    expectVerify("00 20 00 02 02 31 32", OK);
    EXPECT_EQ(CKR_OK, fLoginIDC(table, session, pin.data(), 2));
}

struct Answer {
    std::string_view status;
    CK_RV result;
    std::string message;
};

TEST_F(IdcLogin, EachAnswerOfTheCardHasItsCode)
{
    const std::vector<Answer> answers{
        {"90 00", CKR_OK, "IDCard Login CKR_OK"},
        // swapped, as the module compares them
        {"84 69", CKR_PIN_LOCKED, "IDCard Login CKR_PIN_LOCKED"},
        {"C1 63", CKR_PIN_INCORRECT, "IDCard Login CKR_PIN_INCORRECT"},
        {"C2 63", CKR_PIN_INCORRECT, "IDCard Login CKR_PIN_INCORRECT"},
        {"86 6F", CKR_USER_ALREADY_LOGGED_IN, "IDCard Login CKR_USER_ALREADY_LOGGED_IN"},
        {"69 83", CKR_PIN_LOCKED, "IDCard Login CKR_PIN_LOCKED"},
        // as a card sends them
        {"69 84", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x8469)},
        {"6F 86", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x866F)},
        {"83 69", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x6983)},
        // and others
        {"C0 63", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x63C0)},
        {"C3 63", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x63C3)},
        {"69 82", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x8269)},
        {"6A 88", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x886A)},
        {"90 01", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x0190)},
        {"00 90", CKR_FUNCTION_FAILED, numbered("IDCard Login error ", 0x9000)},
    };
    for (const Answer& answer : answers) {
        SCOPED_TRACE(answer.status);
        mark.reset();
        expectVerify(VERIFY_1234, answer.status);
        EXPECT_EQ(answer.result, login("1234"));
        EXPECT_MESSAGES(mark, answer.message);
        EXPECT_EQ(answer.status == OK ? 0 : value(answer.status), deviceError());
    }
}

TEST_F(IdcLogin, ATryCounterMakesTheExchangeAskForData)
{
    for (const std::uint8_t counter : Bytes{0xC0, 0xC1, 0xC2, 0xCF}) {
        mark.reset();
        expect(SELECT_MF, OK);
        expect(hex(VERIFY_1234), Bytes{0x63, counter});
        expectGetResponse(counter, hex("6D 00"));
        EXPECT_EQ(CKR_FUNCTION_FAILED, login("1234"));
        EXPECT_MESSAGES(mark, numbered("IDCard Login error ", 0x006D));
    }
}

TEST_F(IdcLogin, ATryCounterFollowedByASuccessLogsIn)
{
    expect(SELECT_MF, OK);
    expect(VERIFY_1234, "63 C1");
    expectGetResponse(0xC1, hex(OK));
    EXPECT_EQ(CKR_OK, login("1234"));
}

// A card that answers every VERIFY with one status, and GET RESPONSE with 6D 00.
class StatusCard final : public sim::Card {
public:
    Bytes status = hex(OK);
    Bytes atr() const override { return hex(IDC_ATR); }
    unsigned long protocol() const override { return 1; }
    void reset() override {}
    Bytes transmit(std::span<const std::uint8_t> command) override
    {
        switch (command[1]) {
        case 0xA4:
            return hex(OK);
        case 0x20:
            return status;
        default:
            return hex("6D 00");
        }
    }
};

CK_RV meaningOf(unsigned status)
{
    switch (status) { // SW1 in the high byte
    case 0x9000:
    case 0x0000: // the exchange's result for a success is 0, too
        return CKR_OK;
    case 0x8469:
    case 0x6983:
        return CKR_PIN_LOCKED;
    case 0xC163:
    case 0xC263:
        return CKR_PIN_INCORRECT;
    case 0x866F:
        return CKR_USER_ALREADY_LOGGED_IN;
    default:
        return CKR_FUNCTION_FAILED;
    }
}

TEST_F(IdcLogin, NoOtherStatusWordMeansAnythingElse)
{
    auto anyStatus = std::make_shared<StatusCard>();
    sim::pcsc::removeCard("Test Reader 00");
    sim::pcsc::insertCard("Test Reader 00", anyStatus);
    CK_SESSION_HANDLE other = 0;
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &other));
    sim::pcsc::setLogging(false);
    std::array<CK_UTF8CHAR, 4> pin{'1', '2', '3', '4'};
    for (unsigned status = 0; status <= 0xFFFF; ++status) {
        anyStatus->status = bigEndian(status);
        const CK_RV result = fLoginIDC(table, other, pin.data(), pin.size());
        if (result != meaningOf(status)) {
            ADD_FAILURE() << std::hex << status << " gives " << result;
        }
    }
    sim::pcsc::setLogging(true);
}

TEST_F(IdcLogin, ARefusedSelectionDecidesNothing)
{
    for (const std::string_view status : {"6A 82", "69 83", "84 69", "6F 00"}) {
        expect(SELECT_MF, status);
        expect(VERIFY_1234, OK);
        EXPECT_EQ(CKR_OK, login("1234"));
    }
    expectLost(SELECT_MF, SCARD_E_COMM_DATA_LOST);
    expect(VERIFY_1234, OK);
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_F(IdcLogin, ALostVerifyIsAFunctionFailure)
{
    for (const long result : {SCARD_W_REMOVED_CARD, SCARD_W_RESET_CARD, SCARD_E_NO_SERVICE}) {
        mark.reset();
        expect(SELECT_MF, OK);
        expectLost(VERIFY_1234, result);
        EXPECT_EQ(CKR_FUNCTION_FAILED, login("1234"));
        EXPECT_MESSAGES(mark, numbered("IDCard Login error ", pcscCode(result)));
    }
}

TEST_F(IdcLogin, TheReplyBufferIsClearedForOneBlockBeforeThePinIsSent)
{
    expect(SELECT_MF, OK);
    expectLost(VERIFY_1234, SCARD_E_COMM_DATA_LOST);
    EXPECT_EQ(CKR_FUNCTION_FAILED, login("1234"));
    const auto blockEnd = pbyOutput.begin() + 258;
    EXPECT_TRUE(std::all_of(pbyOutput.begin(), blockEnd, [](auto byte) { return byte == 0; }));
    EXPECT_TRUE(std::all_of(blockEnd, pbyOutput.end(), [](auto byte) { return byte == SENTINEL; }));
}

TEST_F(IdcLogin, NoPinStaysInTheCommandBuffer)
{
    expectVerify(VERIFY_1234, OK);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_TRUE(commandBufferIsWiped());

    expectVerify(VERIFY_1234, "69 83");
    EXPECT_EQ(CKR_PIN_LOCKED, login("1234"));
    EXPECT_TRUE(commandBufferIsWiped());

    expect(SELECT_MF, OK);
    expectLost(VERIFY_1234, SCARD_W_REMOVED_CARD);
    EXPECT_EQ(CKR_FUNCTION_FAILED, login("1234"));
    EXPECT_TRUE(commandBufferIsWiped());
}

TEST_F(IdcLogin, ACorrectPinMakesAUserSession)
{
    std::array<CK_UTF8CHAR, 4> pin{'1', '2', '3', '4'};
    expectVerify(VERIFY_1234, OK);
    EXPECT_EQ(CKR_OK, VELT_Login(session, CKU_USER, pin.data(), pin.size()));
    EXPECT_EQ(LOGGED_IN, velt::findSession(session)->loginState);
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, velt::findSession(session)->state);
    EXPECT_MESSAGES(mark, numbered("Login hSession=", session), "IDCard Login CKR_OK",
                    "Login CKR_OK");
}

TEST_F(IdcLogin, AWrongPinLeavesTheSessionPublic)
{
    std::array<CK_UTF8CHAR, 4> pin{'9', '9', '9', '9'};
    expectVerify("00 20 00 02 08 39 39 39 39 30 30 30 30", "C2 63");
    EXPECT_EQ(CKR_PIN_INCORRECT, VELT_Login(session, CKU_USER, pin.data(), pin.size()));
    EXPECT_EQ(NEVER_LOGGED_IN, velt::findSession(session)->loginState);
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, velt::findSession(session)->state);
    EXPECT_MESSAGES(mark, numbered("Login hSession=", session), "IDCard Login CKR_PIN_INCORRECT",
                    numbered("Login APDU error", CKR_PIN_INCORRECT));
}

TEST_F(IdcLogin, LogoutSucceedsAndSendsNothing)
{
    EXPECT_EQ(CKR_OK, fLogoutIDC(table, session));
    EXPECT_EQ(CKR_OK, fLogoutIDC(table, 4711));
    EXPECT_MESSAGES(mark);
}

} // namespace
