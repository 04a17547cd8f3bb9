// The debug hooks: the log file of a build that keeps messages, and nothing at all in any other.
#include "src/front/debug.h"
#include "src/front/pkcs11.h"
#include "tests/support/codes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace velt_test {
namespace {

namespace fs = std::filesystem;

// Works in an empty directory of its own, with the log of the process closed meanwhile.
class DebugHooks : public ::testing::Test {
protected:
    void SetUp() override
    {
        VELT_PKCS11_CloseDebug();
        before_ = fs::current_path();
        std::string name = (fs::temp_directory_path() / "velt-debug-XXXXXX").string();
        ASSERT_NE(nullptr, mkdtemp(name.data()));
        directory_ = name;
        fs::current_path(directory_);
    }

    void TearDown() override
    {
        VELT_PKCS11_CloseDebug();
        fs::current_path(before_);
        fs::remove_all(directory_);
        VELT_PKCS11_InitDebug();
    }

    static std::string contents(const fs::path& file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    fs::path before_;
    fs::path directory_;
};

#ifdef VELT_DEBUG_LOG

constexpr const char* LOG = VELT_DEBUG_LOG;

TEST_F(DebugHooks, WriteALineAMessageWithTheNumberInLowerCaseHexadecimal)
{
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("A text");
    VELT_PKCS11_Debug("ends in a blank ");
    VELT_PKCS11_Debug("");
    VELT_PKCS11_DebugD("number=", DEBUG_WITH_NUMBER, 0xABCDEF);
    VELT_PKCS11_DebugD("zero ", DEBUG_WITH_NUMBER, 0);
    VELT_PKCS11_DebugD("zlib ", DEBUG_WITH_NUMBER, static_cast<std::uint64_t>(std::int64_t{-5}));
    VELT_PKCS11_DebugD("no number", DEBUG_PLAIN, 77);
    VELT_PKCS11_DebugD("100% %s %n", DEBUG_PLAIN, 0);
    EXPECT_EQ("A text\n"
              "ends in a blank \n"
              "\n"
              "number=0xabcdef\n"
              "zero 0x0\n"
              "zlib 0xfffffffffffffffb\n"
              "no number\n"
              "100% %s %n\n",
              contents(LOG));
}

TEST_F(DebugHooks, AppendToAFileThatIsThere)
{
    std::ofstream(LOG) << "before\n";
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("one");
    VELT_PKCS11_InitDebug(); // it is open
    VELT_PKCS11_Debug("two");
    VELT_PKCS11_CloseDebug();
    VELT_PKCS11_Debug("lost");
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("three");
    EXPECT_EQ("before\none\ntwo\nthree\n", contents(LOG));
}

TEST_F(DebugHooks, MakeAFileThatOnlyItsOwnerReads)
{
    const mode_t mask = umask(0);
    VELT_PKCS11_InitDebug();
    umask(mask);
    struct stat status {};
    ASSERT_EQ(0, stat(LOG, &status));
    EXPECT_EQ(mode_t{0600}, status.st_mode & mode_t{07777});
}

TEST_F(DebugHooks, DoNotFollowALink)
{
    std::ofstream("target") << "kept";
    fs::create_symlink("target", LOG);
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("lost");
    EXPECT_EQ("kept", contents("target"));
    EXPECT_TRUE(fs::is_symlink(LOG));
}

TEST_F(DebugHooks, DoNotMakeAFileThroughALinkThatLeadsNowhere)
{
    fs::create_symlink("target", LOG);
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("lost");
    EXPECT_FALSE(fs::exists("target"));
}

TEST_F(DebugHooks, StaySilentWhereTheLogCannotBeOpened)
{
    fs::create_directory(LOG);
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("lost");
    VELT_PKCS11_DebugD("lost too ", DEBUG_WITH_NUMBER, 1);
    VELT_PKCS11_CloseDebug();
    EXPECT_TRUE(fs::is_directory(LOG));
    EXPECT_TRUE(fs::is_empty(LOG));
}

TEST_F(DebugHooks, TheLogIsNotHandedToProgramsThatTheHostStarts)
{
    VELT_PKCS11_InitDebug();
    const fs::path log = fs::canonical(LOG);
    int found = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone) != log) {
            continue;
        }
        ++found;
        const int flags = fcntl(std::stoi(entry.path().filename().string()), F_GETFD);
        EXPECT_NE(0, flags & FD_CLOEXEC);
    }
    EXPECT_EQ(1, found);
}

TEST_F(DebugHooks, TheFunctionListOpensTheLog)
{
    CK_FUNCTION_LIST* list = nullptr;
    EXPECT_RV(CKR_OK, C_GetFunctionList(&list));
    EXPECT_RV(CKR_OK, C_GetFunctionList(&list));
    EXPECT_EQ("C_GetFunctionList\nC_GetFunctionList\n", contents(LOG));
}

#else

TEST_F(DebugHooks, WriteNothingAnywhere)
{
    VELT_PKCS11_InitDebug();
    VELT_PKCS11_Debug("lost");
    VELT_PKCS11_DebugD("lost too ", DEBUG_WITH_NUMBER, 1);
    CK_FUNCTION_LIST* list = nullptr;
    EXPECT_RV(CKR_OK, C_GetFunctionList(&list));
    EXPECT_TRUE(fs::is_empty(fs::current_path()));
}

#endif

} // namespace
} // namespace velt_test
