// A certificate that ends the host, seen through the module.
// Covers: C_OpenSession, C_Finalize.
#include "sim/cards/id_card.h"
#include "tests/support/module_fixture.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>

namespace {

using ::testing::AllOf;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using velt_test::READ_ONLY;

// What exit handlers, which take no arguments, call.
const CK_FUNCTION_LIST* called = nullptr;

class FatalCertificateDeathTest : public velt_test::ModuleTest {
protected:
    // A slot with a card whose first certificate has five length octets.
    void insertMalformed()
    {
        sim::IdCardOptions options;
        options.positions[0].certificateDer = sim::hex("02 85 00 00 00 00 01 00 00");
        plug("Reader", std::make_shared<sim::IdCard>(options));
        initialise();
        refresh();
        called = &p11;
    }

    static void openAgain()
    {
        CK_SESSION_HANDLE session = 0;
        called->C_OpenSession(0, READ_ONLY, nullptr, nullptr, &session);
    }
};

TEST_F(FatalCertificateDeathTest, EndsTheHostWhoseExitHandlersMayCallTheModule)
{
    insertMalformed();
    const auto openWithHandler = [] {
        std::atexit([] { std::fprintf(stderr, "finalised: %lu\n", called->C_Finalize(nullptr)); });
        openAgain();
        std::_Exit(3);
    };
    EXPECT_EXIT(openWithHandler(), ExitedWithCode(1),
                AllOf(HasSubstr("\nError: Invalid data encountered at position 2: 02 85.\n"),
                      HasSubstr("finalised: 0\n")));
}

TEST_F(FatalCertificateDeathTest, MetOnceMoreByAnExitHandlerEndsTheHostAtOnce)
{
    insertMalformed();
    const auto openWithHandler = [] {
        std::atexit(openAgain);
        openAgain();
        std::_Exit(3);
    };
    EXPECT_EXIT(openWithHandler(), ExitedWithCode(1),
                AllOf(HasSubstr("\nError: Invalid data encountered at position 2: 02 85.\n"),
                      HasSubstr("\nError: Invalid data encountered at position 4: 02 85.\n")));
}

} // namespace
