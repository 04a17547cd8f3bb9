// Start of every test program. Each process works in a directory of its own below run/, so that a
// build whose debug hooks write leaves one message log a process.
#include <gtest/gtest.h>

#ifdef VELT_DEBUG_LOG
#include "tests/support/paths.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <unistd.h>
#ifndef VELT_THROUGH_MODULE
#include "src/front/debug.h"
#endif

static void enterOwnDirectory()
{
    // Process numbers come round again within one long run, hence the time as well.
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    const std::filesystem::path own = std::filesystem::path(velt_test::buildDirectory) / "run" /
                                      (std::to_string(getpid()) + '-' + std::to_string(now));
    std::filesystem::create_directories(own);
    std::filesystem::current_path(own);
#ifndef VELT_THROUGH_MODULE
    VELT_PKCS11_InitDebug();
#endif
}
#endif

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
#ifdef VELT_DEBUG_LOG
    if (!GTEST_FLAG_GET(list_tests)) {
        enterOwnDirectory();
    }
#endif
    return RUN_ALL_TESTS();
}
