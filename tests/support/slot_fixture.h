// Tests of slots through the module: readers in the stand-in, and how slots look to the host.
#pragma once

#include "tests/support/module_fixture.h"

namespace velt_test {

using pcsc::Call;
using pcsc::Function;

constexpr const char* READER = "Stand-in Reader 00 00";
constexpr const char* SECOND = "Other Maker 01 00";

inline std::string readerNumber(std::size_t i)
{
    return "Reader " + std::to_string(i) + " slot 00";
}

inline std::vector<CK_SLOT_ID> firstSlots(std::size_t count)
{
    std::vector<CK_SLOT_ID> ids(count);
    for (std::size_t i = 0; i < count; ++i) {
        ids[i] = i;
    }
    return ids;
}

// The readers of a status query and the state that was passed in for each.
inline std::vector<std::pair<std::string, unsigned long>> askedAbout(const Call& call)
{
    std::vector<std::pair<std::string, unsigned long>> asked;
    for (const auto& state : call.states) {
        asked.emplace_back(state.reader, state.currentState);
    }
    return asked;
}

class SlotTest : public ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        initialise();
    }

    static void plugMany(std::size_t count, const KnownToken* token = nullptr)
    {
        for (std::size_t i = 0; i < count; ++i) {
            plug(readerNumber(i), token == nullptr ? nullptr : refusingCard(*token));
        }
    }

    // The functions called since the log was cleared.
    static std::vector<Function> called()
    {
        std::vector<Function> functions;
        for (const Call& call : pcsc::calls()) {
            functions.push_back(call.function);
        }
        return functions;
    }

    void expectNoSlot(CK_SLOT_ID slot)
    {
        Guarded<CK_SLOT_INFO> info;
        EXPECT_RV(CKR_SLOT_ID_INVALID, p11.C_GetSlotInfo(slot, info.get()));
        EXPECT_TRUE(info.isUntouched());
    }

    // That the only reader holds a token of the family, or a card of none.
    void expectRecognised(const KnownToken& token, const std::string& what)
    {
        SCOPED_TRACE(what);
        const MessageMark mark;
        EXPECT_EQ(firstSlots(1), slots(CK_TRUE));
        EXPECT_MESSAGE_AMONG(mark, token.message);
        EXPECT_EQ(token.flags, slotInfo(0).flags);
    }

    void expectUnknown(const std::string& what)
    {
        SCOPED_TRACE(what);
        const MessageMark mark;
        EXPECT_EQ(firstSlots(0), slots(CK_TRUE));
        EXPECT_MESSAGE_AMONG(mark, "Unknown Token");
        EXPECT_EQ(firstSlots(1), slots(CK_FALSE));
        EXPECT_EQ(CKF_HW_SLOT, slotInfo(0).flags);
    }

    static void exchangeCard(const sim::Bytes& atr)
    {
        pcsc::removeCard(READER);
        pcsc::insertCard(READER, refusingCard(atr));
    }
};

} // namespace velt_test
