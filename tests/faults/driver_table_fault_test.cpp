// A driver table that cannot be loaded: the linker leads its loading here (see CMakeLists.txt).
#include "sim/cards/scripted_card.h"
#include "sim/pcsc/standin.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/state.h"
#include "tests/support/messages.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

std::uint64_t loadingResult = 0;

} // namespace

extern "C" std::uint64_t __wrap__Z15fVELTTokensInitP11TokenDriverm(TokenDriver* /*table*/,
                                                                   std::uint64_t /*tokenType*/)
{
    return loadingResult;
}

TEST(DriverTableFault, AnOpeningWithoutOperationsFailsAndKeepsTheSession)
{
    sim::pcsc::reset();
    sim::pcsc::plugReader("Reader");
    sim::pcsc::insertCard("Reader", std::make_shared<sim::ScriptedCard>(
                                        sim::hex("3B 77 18 00 00 4B 41 53 41 4B 49 44"), 1));
    CK_ULONG count = 0;
    ASSERT_EQ(CKR_OK, VELT_GetSlotList(CK_TRUE, nullptr, &count));
    ASSERT_EQ(1U, count);
    oiFlags = 0; // nothing is to be loaded, so only the opening itself asks for the operations
    loadingResult = 1;

    CK_SESSION_HANDLE opened = 0;
    velt_test::MessageMark mark;
    EXPECT_EQ(CKR_FUNCTION_FAILED,
              VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &opened));
    EXPECT_MESSAGES(mark, velt_test::numbered("OpenSession TokenID = ", TOKEN_IDC),
                    "VELTObjectsInit", "VELTObjectsInit CKR_OK", "OpenSession CKR_FUNCTION_FAILED");
    EXPECT_TRUE(velt::isOpenSession(opened));
    EXPECT_EQ(1U, sim::pcsc::openCards());
}
