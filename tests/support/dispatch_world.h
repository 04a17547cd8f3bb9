// Tests of the dispatch: a session on a present token whose family is the test's own, and one that
// was closed.
#pragma once

#include "sim/cards/scripted_card.h"
#include "src/objects/object_table.h"
#include "tests/support/fake_driver.h"
#include "tests/support/session_world.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace velt_test::world {

using fake::Asked;

class DispatchWorld : public SessionWorld {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(start(silentCard()));
        session = open();
        closed = open();
        ASSERT_EQ(CKR_OK, VELT_CloseSession(closed));
        fake::world() = {};
        stVELTTokens = fake::driver(TOKEN_IDC);
        oiFlags = 0;
        bSignOpInit = 0;
        ulObjCount = 6;
        entry(session).deviceError = 0x5EED;
        sim::pcsc::clearCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ(0U, sim::pcsc::calls(sim::pcsc::Function::Transmit).size());
        fake::world() = {};
        SessionWorld::TearDown();
    }

    // A recognised card that expects no command.
    static std::shared_ptr<sim::Card> silentCard()
    {
        return std::make_shared<sim::ScriptedCard>(ID_CARD_ATR, 1UL);
    }

    static void answer(const std::string& operation, CK_RV rv)
    {
        fake::world().answers[operation] = rv;
    }

    static std::vector<Asked>& asked() { return fake::world().asked; }

    // The operation was called on the table in use, nothing being marked for reloading.
    static Asked call(const char* operation, CK_ULONG onSession, std::vector<const void*> pointers,
                      std::vector<CK_ULONG> numbers)
    {
        return {operation, onSession, std::move(pointers), std::move(numbers), false, true};
    }

    static Asked reload(CK_SESSION_HANDLE onSession)
    {
        return {"ObjectsInit", onSession, {}, {}, true, true};
    }

    static void setTokenType(std::uint8_t type)
    {
        static_cast<SlotToken*>(VELTCardReaders[0].pvUserData)->tokenType = type;
    }

    // Handles that no session ever had.
    static std::vector<CK_SESSION_HANDLE> strayHandles()
    {
        return {0, sessCount + 1, sessCount + 1000, 0xFFFFFFFF, UINT64_MAX};
    }

    CK_SESSION_HANDLE session = 0;
    CK_SESSION_HANDLE closed = 0;
    CK_ATTRIBUTE attribute{CKA_CLASS, nullptr, 0};
    CK_OBJECT_HANDLE object = 0x77;
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    std::array<CK_BYTE, 4> data{1, 2, 3, 4};
    std::array<CK_BYTE, 8> signature{};
    CK_ULONG signatureLength = 8;
};

} // namespace velt_test::world
