// What the tests of a family whose cards speak T=1 share: a session on a scripted card, operations
// with a failure at each exchange. Exchanges are stated and compared as in the ID card's tests.
#pragma once

#include "tests/support/idc_fixture.h"

#include <functional>
#include <optional>

namespace velt_test {

// One exchange of an operation. `fails` are the messages of its failure, of which one that ends in
// '#' carries the exchange's result; without any its failure is not looked at. `passes` is passed
// when it succeeds.
struct ExchangeStep {
    Bytes command;
    Bytes reply;
    std::size_t capacity = 4;
    std::vector<std::string> fails{};
    std::vector<std::string> passes{};
};

class TokenTest : public IdcTest {
protected:
    // A session, nothing loaded, on a card of the ATR.
    void insert(std::string_view atr)
    {
        sim::pcsc::reset();
        sim::pcsc::plugReader("Test Reader 00");
        card = std::make_shared<sim::ScriptedCard>(hex(atr), 2UL);
        sim::pcsc::insertCard("Test Reader 00", card);
        ASSERT_EQ(CKR_OK, C_Initialize(nullptr));
        std::array<CK_SLOT_ID, 1> slots{};
        CK_ULONG count = slots.size();
        ASSERT_EQ(CKR_OK, VELT_GetSlotList(CK_TRUE, slots.data(), &count));
        ASSERT_EQ(1U, count);
        oiFlags = 0; // the opening loads nothing
        ASSERT_EQ(CKR_OK, VELT_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                           &session));
    }

    // Runs the operation once for each exchange and each way in which that can fail. It returns
    // `result`, or what the exchange does.
    void failAtEach(const std::vector<ExchangeStep>& steps, std::optional<CK_RV> result,
                    const std::function<void()>& prepare, const std::function<CK_RV()>& operation)
    {
        for (std::size_t faulty = 0; faulty < steps.size(); ++faulty) {
            if (steps[faulty].fails.empty()) {
                continue;
            }
            for (const bool lost : {false, true}) {
                SCOPED_TRACE(testing::Message() << "exchange " << faulty << ", lost " << lost);
                prepare();
                expectAllExchanged();
                mark.reset();
                std::vector<std::string> told;
                for (std::size_t i = 0; i < faulty; ++i) {
                    expect(steps[i].command, steps[i].reply, steps[i].capacity);
                    told.insert(told.end(), steps[i].passes.begin(), steps[i].passes.end());
                }
                const ExchangeStep& step = steps[faulty];
                if (lost) {
                    expectLost(step.command, SCARD_W_REMOVED_CARD, step.capacity);
                } else {
                    expect(step.command, hex("6F 00"), step.capacity);
                }
                const std::uint64_t number = lost ? pcscCode(SCARD_W_REMOVED_CARD) : 0x006F;
                for (const std::string& message : step.fails) {
                    told.push_back(message.back() == '#'
                                       ? numbered(message.substr(0, message.size() - 1), number)
                                       : message);
                }
                EXPECT_EQ(result.value_or(number), operation());
                EXPECT_MESSAGES(mark, told);
                expectAllExchanged();
            }
        }
    }

    static PubKeyAttr& publicKey(CK_OBJECT_HANDLE handle)
    {
        return *velt::publicKeyOf(velt::entryOf(handle));
    }
    static CertAttr& certificate(CK_OBJECT_HANDLE handle)
    {
        return *velt::certificateOf(velt::entryOf(handle));
    }
};

} // namespace velt_test
