// The eToken 72K's description, the selection of its applet with the serial number, and the PIN on
// its way to it.
#include "tests/support/et72k_fixture.h"

#include <cstring>

using namespace velt_test;

namespace {

// As they stand before anything ran.
const std::uint8_t selectedAtFirst = ET72KAppletSelected;
const auto serialAtFirst = tokenSN;
const std::int32_t serialLengthAtFirst = tokenSNLen;

template <std::size_t Size>
std::string textOf(const unsigned char (&from)[Size])
{
    return {from, from + Size};
}

class Et72kInformation : public Et72kTest {
protected:
    void deselect()
    {
        begin();
        ET72KAppletSelected = 0;
    }
    void expectSelectionWith(std::string_view serial)
    {
        expect(SELECT, OK, 4);
        expect(INIT_VARS, OK, 4);
        expect(READ_SERIAL, serial, 23);
    }
    // What an interrupted selection left: the serial number of before.
    static void expectOldSerial()
    {
        EXPECT_EQ(Bytes(21, SENTINEL), Bytes(tokenSN.begin(), tokenSN.end()));
        EXPECT_EQ(21, tokenSNLen);
    }
    static void expectSerial(const Bytes& serial)
    {
        EXPECT_EQ(serial.size(), static_cast<std::size_t>(tokenSNLen));
        Bytes stored = serial;
        stored.resize(21);
        EXPECT_EQ(stored, Bytes(tokenSN.begin(), tokenSN.end()));
        CK_TOKEN_INFO info;
        std::memset(&info, SENTINEL, sizeof info);
        EXPECT_EQ(CKR_OK, fGetTokenInfoET72K(&stVELTTokens, 0, &info));
        stored.resize(16);
        EXPECT_EQ(stored, field(info.serialNumber));
    }
    // The selection up to its last exchange, after which `held` stands in the reply buffer behind
    // the status of the last but one.
    void expectSelectionUpToSerial(const Bytes& held)
    {
        deselect();
        putOutput(2, held);
        expect(SELECT, OK, 4);
        expect(INIT_VARS, OK, 4);
    }
    void select()
    {
        EXPECT_EQ(0U, fSelectAppletET72K(session));
        EXPECT_EQ(1, ET72KAppletSelected);
        EXPECT_MESSAGES(mark);
        expectAllExchanged();
    }
};

// --- description ---

TEST_F(Et72kInformation, TheTokenDescribesItself)
{
    CK_SESSION_HANDLE second = 0;
    CK_SESSION_HANDLE third = 0;
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &second));
    ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &third));
    ASSERT_EQ(CKR_OK, VELT_CloseSession(second));
    tokenSN.fill(0x00);
    std::ranges::copy(hex("31 32 33 34"), tokenSN.begin());
    tokenSNLen = 4;
    CK_TOKEN_INFO info;
    std::memset(&info, SENTINEL, sizeof info);
    mark.reset();
    EXPECT_EQ(CKR_OK, fGetTokenInfoET72K(table, 0, &info));
    EXPECT_EQ("EToken" + std::string(16, ' ') + std::string(3, '\0') + "Aladdin",
              textOf(info.label));
    EXPECT_EQ("Aladdin" + std::string(25, ' '), textOf(info.manufacturerID));
    EXPECT_EQ("EToken 72K" + std::string(6, ' '), textOf(info.model));
    EXPECT_EQ("1234" + std::string(12, '\0'), textOf(info.serialNumber));
    EXPECT_EQ(0x40CU, info.flags);
    EXPECT_EQ(10U, info.ulMaxSessionCount);
    EXPECT_EQ(third, info.ulSessionCount); // the highest handle, also of closed ones
    EXPECT_EQ(1U, info.ulMaxRwSessionCount);
    EXPECT_EQ(0U, info.ulRwSessionCount);
    EXPECT_EQ(10U, info.ulMaxPinLen);
    EXPECT_EQ(4U, info.ulMinPinLen);
    EXPECT_EQ(0U, info.ulTotalPublicMemory);
    EXPECT_EQ(0U, info.ulFreePublicMemory);
    EXPECT_EQ(0U, info.ulTotalPrivateMemory);
    EXPECT_EQ(0U, info.ulFreePrivateMemory);
    EXPECT_EQ(1, info.hardwareVersion.major);
    EXPECT_EQ(0, info.hardwareVersion.minor);
    EXPECT_EQ(1, info.firmwareVersion.major);
    EXPECT_EQ(0, info.firmwareVersion.minor);
    EXPECT_EQ(std::string(16, '\0'), textOf(info.utcTime));
    EXPECT_MESSAGES(mark);
}

TEST_F(Et72kInformation, BeforeAnySelectionTheSerialNumberIsZeros)
{
    EXPECT_EQ(0, selectedAtFirst);
    tokenSN = serialAtFirst;
    tokenSNLen = serialLengthAtFirst;
    expectSerial({});
}

TEST_F(Et72kInformation, TheTableHoldsTheFamilysOperationsInTheirSlots)
{
    for (const TokenDriver* loaded :
         {&driverET72K, static_cast<const TokenDriver*>(&stVELTTokens)}) {
        EXPECT_EQ(2U, loaded->type);
        EXPECT_EQ(&fGetTokenInfoET72K, loaded->GetTokenInfo);
        EXPECT_EQ(&fGetMechanismListET72K, loaded->GetMechanismList);
        EXPECT_EQ(&fLoginET72K, loaded->Login);
        EXPECT_EQ(&fLogoutET72K, loaded->Logout);
        EXPECT_EQ(&fObjectsInitET72K, loaded->ObjectsInit);
        EXPECT_EQ(&fCreateObjectET72K, loaded->CreateObject);
        EXPECT_EQ(&fGenerateKeyPairET72K, loaded->GenerateKeyPair);
        EXPECT_EQ(&fSignInitET72K, loaded->SignInit);
        EXPECT_EQ(&fSignET72K, loaded->Sign);
        EXPECT_EQ(&fDestroyObjectET72K, loaded->DestroyObject);
        EXPECT_EQ(&fGenerateRandomET72K, loaded->GenerateRandom);
        EXPECT_EQ(&fGetPublicKeyET72K, loaded->GetPublicKey);
        EXPECT_EQ(&fGetCertificateET72K, loaded->GetCertificate);
    }
}

// --- selection ---

TEST_F(Et72kInformation, TheSerialNumberEndsAtTheFirstPairOfZeros)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {"31 32 33 34 00 00 35 36", "31 32 33 34"},
        {"31 32 33 34 00 00", "31 32 33 34"},
        {"31 00 32 00 00 33 00 00", "31 00 32"},
        {"31 00 00 00", "31"},
        {"00 00 31", ""},
        {"01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 00 00",
         "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10"},
        {"01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 00 00",
         "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13"},
    };
    for (const auto& [reply, serial] : cases) {
        SCOPED_TRACE(reply);
        deselect();
        expectSelectionWith(reply + " 90 00");
        select();
        expectSerial(hex(serial));
    }
}

TEST_F(Et72kInformation, WithoutAPairOfZerosThereIsNoSerialNumber)
{
    for (const std::string_view reply :
         {"31 32 33 34 90 00", "31 00 32 00 90 00", "00 90 00", "90 00",
          "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 90 00"}) {
        SCOPED_TRACE(reply);
        deselect();
        putOutput(30, hex("00 00")); // behind the reply, not part of it
        expectSelectionWith(reply);
        select();
        expectSerial({});
    }
}

TEST_F(Et72kInformation, APairMayEndInTheStatus)
{
    deselect();
    expectSelectionWith("31 32 00 00 01"); // refused, which does not matter
    select();
    expectSerial(hex("31 32"));
}

TEST_F(Et72kInformation, APairBeyondTheBufferIsCutThere)
{
    const Bytes data = Bytes(25, 'x') + hex("00 00") + Bytes(3, 'y');
    expectSelectionUpToSerial({});
    expect(hex(READ_SERIAL), hex("61 1E"), 23);
    expectGetResponse(0x1E, data + hex(OK));
    select();
    expectSerial(Bytes(21, 'x'));
}

TEST_F(Et72kInformation, ARefusedSerialNumberIsTakenFromWhatTheRefusalBrought)
{
    for (const std::string_view status : {"6F 00", "64 28"}) {
        expectSelectionUpToSerial(hex("31 00 00"));
        expect(READ_SERIAL, status, 23);
        select();
        expectSerial({});

        expectSelectionUpToSerial(hex("31 00 00"));
        expect(hex(READ_SERIAL), hex("41 42 00 00 43") + hex(status), 23);
        select();
        expectSerial(hex("41 42"));
    }
}

TEST_F(Et72kInformation, ALostSerialNumberIsTakenFromTheWholeReplyBuffer)
{
    const auto loseWith = [this](const Bytes& held) {
        expectSelectionUpToSerial(held);
        expectLost(READ_SERIAL, SCARD_W_REMOVED_CARD, 23);
        select();
    };
    loseWith(hex("41 42 43 00 00 44 00 00"));
    expectSerial(hex("90 00 41 42 43"));
    loseWith(Bytes(300, 'x') + hex("00 00"));
    expectSerial(hex("90 00") + Bytes(19, 'x'));
    loseWith(Bytes(2046, 'x') + hex("00 00")); // the last two bytes
    expectSerial(hex("90 00") + Bytes(19, 'x'));
    loseWith(Bytes(2047, 'x') + hex("00"));
    expectSerial({});
    loseWith({});
    expectSerial({});
}

TEST_F(Et72kInformation, ASerialNumberWithoutAStatusIsTakenFromTheWholeReplyBuffer)
{
    expectSelectionUpToSerial(hex("41 42 43 00 00 44"));
    expectReplaced(hex(READ_SERIAL), hex("39"), 23);
    select();
    expectSerial(hex("39 00 41 42 43"));
}

TEST_F(Et72kInformation, ASerialNumberThatNeverLeftTheReaderIsTakenFromItsLength)
{
    // Here the length stays what was asked for: 21 bytes of data.
    expectSelectionUpToSerial(hex("41 42 43 00 00 44"));
    expectLost(READ_SERIAL, SCARD_F_COMM_ERROR, 23);
    select();
    expectSerial(hex("90 00 41 42 43"));
    expectSelectionUpToSerial(Bytes(28, 'x') + hex("00 00"));
    expectLost(READ_SERIAL, SCARD_F_COMM_ERROR, 23);
    select();
    expectSerial({});
}

TEST_F(Et72kInformation, ASerialNumberTooLongForItsRoomIsNotDelivered)
{
    // The length becomes that of the reply, the buffer stays.
    for (const bool within : {true, false}) {
        expectSelectionUpToSerial(Bytes(within ? 23 : 27, 'x') + hex("00 00"));
        expect(hex(READ_SERIAL), Bytes(28, 'y') + hex(OK), 23);
        select();
        expectSerial(within ? hex("90 00") + Bytes(19, 'x') : Bytes{});
    }
}

TEST_F(Et72kInformation, AnAppletThatCannotBeSelectedIsMarkedSo)
{
    for (const bool lost : {false, true}) {
        SCOPED_TRACE(lost);
        const std::uint64_t result = lost ? pcscCode(SCARD_W_REMOVED_CARD) : value("6A 82");
        const auto fail = [&](std::string_view command) {
            if (lost) {
                expectLost(command, SCARD_W_REMOVED_CARD, 4);
            } else {
                expect(command, "6A 82", 4);
            }
        };
        begin();
        fail(SELECT);
        EXPECT_EQ(result, fSelectAppletET72K(session));
        EXPECT_EQ(0, ET72KAppletSelected);
        EXPECT_MESSAGES(mark, numbered("EToken72K select applet APDU error", result));
        expectOldSerial();
        expectAllExchanged();

        begin();
        expect(SELECT, OK, 4);
        fail(INIT_VARS);
        EXPECT_EQ(result, fSelectAppletET72K(session));
        EXPECT_EQ(0, ET72KAppletSelected);
        EXPECT_MESSAGES(mark, numbered("EToken72K init vars APDU error", result));
        expectOldSerial();
        expectAllExchanged();
    }
}

TEST_F(Et72kInformation, ASelectionHasRoomForTwoBytes)
{
    deselect();
    expect(SELECT, "01 02 90 00", 4);
    expect(INIT_VARS, "03 04 90 00", 4);
    expect(READ_SERIAL, "31 00 00 90 00", 23);
    select();

    deselect();
    expect(SELECT, "01 02 03 90 00", 4);
    EXPECT_EQ(pcscCode(SCARD_E_INSUFFICIENT_BUFFER), fSelectAppletET72K(session));
    EXPECT_EQ(0, ET72KAppletSelected);
}

// --- login ---

TEST_F(Et72kInformation, ThePinGoesOutAsItIsWithTheCapacityOfTheReplyBefore)
{
    dwReplyLen = 77;
    expect("80 10 20 00 06 31 32 33 34 35 36", OK, 77);
    EXPECT_EQ(CKR_OK, login("123456"));
    expect("80 10 20 00 00", OK, 2);
    EXPECT_EQ(CKR_OK, login(""));
    expect(hex("80 10 20 00 2C") + Bytes(300, 'x'), hex(OK), 2); // the low eight bits of 300
    EXPECT_EQ(CKR_OK, login(std::string(300, 'x')));
    EXPECT_MESSAGES(mark, "EToken72K Login CKR_OK", "EToken72K Login CKR_OK",
                    "EToken72K Login CKR_OK");
}

TEST_F(Et72kInformation, ALoginSelectsTheApplet)
{
    deselect();
    expectSelectionWith("31 32 33 34 00 00 35 90 00");
    expect("80 10 20 00 04 31 32 33 34", OK, 9);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_EQ(1, ET72KAppletSelected);
    expectSerial(hex("31 32 33 34"));
    expect("80 10 20 00 04 31 32 33 34", OK, 2); // selected by now
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_MESSAGES(mark, "EToken72K Login CKR_OK", "EToken72K Login CKR_OK");
}

TEST_F(Et72kInformation, OnlyAWrongPinMakesALoginFail)
{
    dwReplyLen = 2;
    expect("80 10 20 00 04 31 32 33 34", "64 13", 2);
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));
    EXPECT_MESSAGES(mark, told("Login CKR_PIN_INCORRECT ", value("64 13")));
    for (const std::string_view other :
         {"64 14", "64 12", "64 28", "13 64", "69 83", "69 82", "6F 00", "6C 20"}) {
        mark.reset();
        expect("80 10 20 00 04 31 32 33 34", other, 2);
        EXPECT_EQ(CKR_OK, login("1234")) << other;
        EXPECT_MESSAGES(mark, "EToken72K Login CKR_OK");
    }
}

TEST_F(Et72kInformation, ThePinIsSentThoughTheAppletCannotBeSelected)
{
    deselect();
    expect(SELECT, "6A 82", 4);
    expect("80 10 20 00 04 31 32 33 34", "64 13", 2);
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));
    EXPECT_EQ(0, ET72KAppletSelected);
    EXPECT_MESSAGES(mark, told("select applet APDU error", value("6A 82")),
                    told("Login CKR_PIN_INCORRECT ", value("64 13")));

    deselect();
    expect(SELECT, OK, 4);
    expect(INIT_VARS, "01 6F 00", 4);
    expect("80 10 20 00 04 31 32 33 34", OK, 3);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_EQ(0, ET72KAppletSelected);

    deselect();
    expectLost(SELECT, SCARD_W_REMOVED_CARD, 4);
    expect("80 10 20 00 04 31 32 33 34", "64 13", 0); // no room for the refusal
    EXPECT_EQ(CKR_OK, login("1234"));
}

// --- logout ---

TEST_F(Et72kInformation, ALogoutDeselectsTheApplet)
{
    expect(INIT_VARS, OK, 4);
    EXPECT_EQ(CKR_OK, fLogoutET72K(table, session));
    EXPECT_EQ(0, ET72KAppletSelected);
    EXPECT_MESSAGES(mark, "EToken72K Logout CKR_OK");

    expectSelectionWith("31 00 00 90 00");
    expect("80 10 20 00 04 31 32 33 34", OK, 5);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_EQ(1, ET72KAppletSelected);

    expect(INIT_VARS, OK, 4);
    EXPECT_EQ(CKR_OK, fLogoutET72K(table, session));
    expectSelection();
    expectLoad({});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(1, ET72KAppletSelected);
}

TEST_F(Et72kInformation, AFailedLogoutAnswersWithWhatFailed)
{
    for (const std::uint8_t selected : Bytes{1, 0}) {
        ET72KAppletSelected = selected;
        mark.reset();
        expect(INIT_VARS, "69 85", 4);
        EXPECT_EQ(0x8569U, fLogoutET72K(table, session));
        expectLost(INIT_VARS, SCARD_W_REMOVED_CARD, 4);
        EXPECT_EQ(pcscCode(SCARD_W_REMOVED_CARD), fLogoutET72K(table, session));
        EXPECT_EQ(selected, ET72KAppletSelected);
        EXPECT_MESSAGES(mark, told("Logout error", value("69 85")),
                        numbered("EToken72K Logout error", pcscCode(SCARD_W_REMOVED_CARD)));
        expectAllExchanged();
    }
}

} // namespace
