// Tests of the internals that need an open session: one reader with a recognised card in the
// stand-in, listed, and sessions on it that are opened without loading objects.
#pragma once

#include "sim/cards/card.h"
#include "sim/pcsc/standin.h"
#include "src/core/apdu.h"
#include "src/core/dispatch.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/pkcs11.h"
#include "src/front/state.h"
#include "src/objects/search.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace velt_test {

const sim::Bytes ID_CARD_ATR{0x3B, 0x77, 0x18, 0x00, 0x00, 0x4B,
                             0x41, 0x53, 0x41, 0x4B, 0x49, 0x44};

constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;
constexpr const char* READER = "Stand-in Reader 00 00";

class SessionWorld : public ::testing::Test {
protected:
    void TearDown() override
    {
        sim::pcsc::clearPlans();
        sim::pcsc::setServiceRunning(true);
        if (started_) {
            EXPECT_EQ(CKR_OK, C_Finalize(nullptr));
        }
        stVELTTokens = TokenDriver{};
        bSignOpInit = 0;
        bFindInit = 0;
        ulTCount = 0;
        ulObjCount = 0;
    }

    // Plugs the reader, inserts the card and lists the slots.
    void start(std::shared_ptr<sim::Card> card)
    {
        sim::pcsc::reset();
        sim::pcsc::plugReader(READER);
        sim::pcsc::insertCard(READER, std::move(card));
        ASSERT_EQ(CKR_OK, C_Initialize(nullptr));
        started_ = true;
        CK_ULONG count = 0;
        ASSERT_EQ(CKR_OK, VELT_GetSlotList(CK_FALSE, nullptr, &count));
        ASSERT_EQ(1U, count);
        ASSERT_EQ(TOKEN_IDC, velt::tokenTypeOf(0));
    }

    // A session on slot 0; the driver table is left as it is and no card command is sent.
    CK_SESSION_HANDLE open(CK_FLAGS flags = READ_WRITE)
    {
        CK_SESSION_HANDLE handle = 0;
        oiFlags = 0;
        stVELTTokens.type = TOKEN_IDC;
        EXPECT_EQ(CKR_OK, VELT_OpenSession(0, flags, nullptr, nullptr, &handle));
        EXPECT_NE(0U, handle);
        return handle;
    }

    // The entry of an open session.
    static SessionEntry& entry(CK_SESSION_HANDLE handle)
    {
        SessionEntry* const found = velt::findSession(handle);
        EXPECT_NE(nullptr, found);
        return *found;
    }

    // After this the host may call C_Finalize itself.
    void handOver() { started_ = false; }

private:
    bool started_ = false;
};

} // namespace velt_test
