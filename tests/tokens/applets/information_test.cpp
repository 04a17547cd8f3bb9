// Selecting the applet, its mechanisms, and the PIN on its way to it: what both families do alike.
#include "tests/support/applets.h"

using namespace velt_test;

namespace {

class AppletInformation : public EachApplet {
protected:
    Bytes verify(const Bytes& pin) const
    {
        return Bytes{0x80, 0x10, family.pinReference, 0x00, std::uint8_t(pin.size() & 0xFF)} + pin;
    }
};

INSTANTIATE_TEST_SUITE_P(Families, AppletInformation, testing::ValuesIn(APPLETS), appletName);

// --- selection ---

TEST_P(AppletInformation, ASelectedAppletIsMarked)
{
    family.selected = 0;
    expectSelection();
    EXPECT_EQ(0U, family.selectApplet(session));
    EXPECT_EQ(1, family.selected);
    EXPECT_MESSAGES(mark);
}

TEST_P(AppletInformation, AFailureAtEachExchangeOfASelectionClearsTheMark)
{
    for (const std::uint8_t before : Bytes{0, 1}) {
        failAtEach(
            family.selection, std::nullopt, [&] { family.selected = before; },
            [this] {
                const CK_RV result = family.selectApplet(session);
                EXPECT_EQ(0, family.selected);
                return result;
            });
    }
}

TEST_P(AppletInformation, ASelectionTakesTwoBytesOfDataAndNoMore)
{
    const ExchangeStep& select = family.selection.at(0);
    const ExchangeStep& initialise = family.selection.at(1);
    const std::uint64_t noRoom = pcscCode(SCARD_E_INSUFFICIENT_BUFFER);
    expect(select.command, hex("6F 00 90 00"), 4);
    expect(initialise.command, hex("6F 00 90 00"), 4);
    for (std::size_t i = 2; i < family.selection.size(); ++i) {
        expect(family.selection[i].command, family.selection[i].reply,
               family.selection[i].capacity);
    }
    EXPECT_EQ(0U, family.selectApplet(session));
    EXPECT_EQ(1, family.selected);
    EXPECT_MESSAGES(mark);

    expect(select.command, hex("6F 00 00 90 00"), 4);
    EXPECT_EQ(noRoom, family.selectApplet(session));
    EXPECT_EQ(0, family.selected);
    EXPECT_MESSAGES(mark, told("select applet APDU error", noRoom));

    mark.reset();
    expect(select.command, hex(OK), 4);
    expect(initialise.command, hex("6F 00 00 90 00"), 4);
    EXPECT_EQ(noRoom, family.selectApplet(session));
    EXPECT_EQ(0, family.selected);
    EXPECT_MESSAGES(mark, told("init vars APDU error", noRoom));
}

// --- login ---

TEST_P(AppletInformation, ThePinGoesOutAsItIs)
{
    dwReplyLen = 2;
    for (const std::string& pin : {std::string("123456"), std::string(), std::string("0\0\xFF", 3),
                                   std::string(255, 'x'), std::string(300, 'y')}) {
        SCOPED_TRACE(pin.size());
        mark.reset();
        expect(verify(text(pin)), hex(OK), 2);
        EXPECT_EQ(CKR_OK, login(pin));
        EXPECT_MESSAGES(mark, told("Login CKR_OK"));
    }
}

TEST_P(AppletInformation, TheRoomForTheAnswerToThePinIsTheLastReplysLength)
{
    for (const std::size_t left : {2U, 3U, 64U, 256U, 2049U, 2050U}) {
        dwReplyLen = left;
        expect(verify(text("1234")), hex(OK), left);
        EXPECT_EQ(CKR_OK, login("1234"));
        EXPECT_EQ(2U, dwReplyLen);
    }
    dwReplyLen = 70000; // as much as the reply buffer has
    expect(verify(text("1234")), hex(OK), 2050);
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_P(AppletInformation, ALoginSelectsTheAppletFirst)
{
    family.selected = 0;
    expectSelection();
    expect(verify(text("1234")), hex(OK), family.selection.back().reply.size());
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_EQ(1, family.selected);
    EXPECT_MESSAGES(mark, told("Login CKR_OK"));

    expect(verify(text("1234")), hex(OK), 2);
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_P(AppletInformation, AnAppletThatCannotBeSelectedIsSentThePinAllTheSame)
{
    for (const std::string_view answer : {"90 00", "6A 82", "64 13"}) {
        mark.reset();
        family.selected = 0;
        expect(family.selection.at(0).command, hex("6A 82"), 4);
        expect(verify(text("1234")), hex(answer), 2);
        EXPECT_EQ(answer == "64 13" ? CKR_PIN_INCORRECT : CKR_OK, login("1234"));
        EXPECT_EQ(0, family.selected);
        EXPECT_MESSAGES(mark, told("select applet APDU error", 0x826A),
                        answer == "64 13" ? told("Login CKR_PIN_INCORRECT ", 0x1364)
                                          : told("Login CKR_OK"));
    }
}

TEST_P(AppletInformation, OnlyAWrongPinMakesALoginFail)
{
    dwReplyLen = 2;
    expect(verify(text("1234")), hex("64 13"), 2);
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));
    EXPECT_MESSAGES(mark, told("Login CKR_PIN_INCORRECT ", 0x1364));
    for (const std::string_view other :
         {"64 14", "64 12", "69 83", "69 82", "6A 80", "13 64", "6F 00"}) {
        mark.reset();
        expect(verify(text("1234")), hex(other), 2);
        EXPECT_EQ(CKR_OK, login("1234")) << other;
        EXPECT_MESSAGES(mark, told("Login CKR_OK"));
    }
}

TEST_P(AppletInformation, ATryCounterIsTakenForWaitingData)
{
    dwReplyLen = 2;
    expect(verify(text("1234")), hex("63 C2"), 2);
    expectGetResponse(0xC2, hex("6D 00"));
    EXPECT_EQ(CKR_OK, login("1234"));
    dwReplyLen = 2;
    expect(verify(text("1234")), hex("63 C1"), 2);
    expectGetResponse(0xC1, hex("64 13"));
    EXPECT_EQ(CKR_PIN_INCORRECT, login("1234"));
}

TEST_P(AppletInformation, ALostLoginIsToldAsASuccess)
{
    dwReplyLen = 2;
    expectLost(verify(text("1234")), SCARD_W_REMOVED_CARD, 2);
    EXPECT_EQ(CKR_OK, login("1234"));
    EXPECT_MESSAGES(mark, told("Login CKR_OK"));
}

TEST_P(AppletInformation, NoPinStaysInTheCommandBuffer)
{
    for (const std::string_view reply : {"90 00", "64 13", "69 83"}) {
        dwReplyLen = 2;
        expect(verify(text("1234")), hex(reply), 2);
        login("1234");
        const velt::Command probe{0x00, 0x00, 0x00, 0x00};
        const std::uint8_t* buffer = probe.bytes().data();
        EXPECT_TRUE(std::all_of(buffer + 4, buffer + 9, [](auto byte) { return byte == 0; }));
    }
}

TEST_P(AppletInformation, APinBeyondTheCommandBufferIsRefusedBeforeAnythingIsSent)
{
    for (const std::uint8_t selected : {std::uint8_t{1}, std::uint8_t{0}}) {
        family.selected = selected;
        EXPECT_EQ(CKR_PIN_LEN_RANGE, login(std::string(65544, '1')));
        EXPECT_EQ(CKR_PIN_LEN_RANGE, login(std::string(70000, '1')));
        EXPECT_EQ(selected, family.selected);
        EXPECT_MESSAGES(mark);
    }
}

TEST_P(AppletInformation, ThePinMayFillTheCommandBuffer)
{
    const std::string pin(65543, '1');
    dwReplyLen = 2;
    expect(verify(text(pin)), hex(OK), 2);
    EXPECT_EQ(CKR_OK, login(pin));
}

// --- logout ---

TEST_P(AppletInformation, ALogoutMakesTheNextLoginSelectAgain)
{
    expect("80 15 20 00 00", OK, 4);
    EXPECT_EQ(CKR_OK, family.operations.Logout(table, session));
    EXPECT_EQ(0, family.selected);
    EXPECT_MESSAGES(mark, told("Logout CKR_OK"));

    expectSelection();
    expect(verify(text("1234")), hex(OK), family.selection.back().reply.size());
    EXPECT_EQ(CKR_OK, login("1234"));
}

TEST_P(AppletInformation, ALogoutMakesTheNextLoadSelectAgain)
{
    expect("80 15 20 00 00", OK, 4);
    EXPECT_EQ(CKR_OK, family.operations.Logout(table, session));
    expectSelection();
    expectLoad({{hex("0A 1B"), {RSA_PAIR}}});
    EXPECT_EQ(0U, loadObjects());
    EXPECT_EQ(1, family.selected);
}

TEST_P(AppletInformation, ALogoutSelectsNothing)
{
    family.selected = 0;
    expect("80 15 20 00 00", OK, 4);
    EXPECT_EQ(CKR_OK, family.operations.Logout(table, session));
    EXPECT_EQ(0, family.selected);
}

// --- what the family offers ---

TEST_P(AppletInformation, MechanismsAreListedInOrder)
{
    using List = std::array<CK_MECHANISM_TYPE, 5>;
    const auto getList = family.operations.GetMechanismList;
    CK_ULONG count = 77;
    EXPECT_EQ(CKR_OK, getList(table, nullptr, &count));
    EXPECT_EQ(4U, count);
    List list{77, 77, 77, 77, 77};
    for (const CK_ULONG room : {0UL, 1UL, 3UL}) {
        count = room;
        EXPECT_EQ(CKR_OK, getList(table, list.data(), &count));
        EXPECT_EQ(4U, count);
        EXPECT_EQ((List{77, 77, 77, 77, 77}), list);
    }
    for (const CK_ULONG room : {4UL, 5UL}) {
        list.fill(77);
        count = room;
        EXPECT_EQ(CKR_OK, getList(table, list.data(), &count));
        EXPECT_EQ(room, count);
        EXPECT_EQ((List{0x0, 0x1, 0x84B5A001, 0x84B5A002, 77}), list);
    }
    EXPECT_MESSAGES(mark);
}

TEST_P(AppletInformation, ASessionUsesTheFamilysOperations)
{
    EXPECT_EQ(0, std::memcmp(&family.operations, table, sizeof *table));
}

} // namespace
