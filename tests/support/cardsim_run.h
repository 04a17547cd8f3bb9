// Running velt-cardsim as a user runs it; the tests play the reader.
#pragma once

#include "sim/cards/scripted_card.h"
#include "tests/support/virtual_reader.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velt_test {

using sim::hex;
using sim::toHex;

inline std::string contentOf(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Waits until something holds; false if it does not within ten seconds.
template <class Condition>
bool await(Condition condition)
{
    for (int tries = 0; tries < 1000; ++tries) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// The program lies in the build directory, above this one.
inline std::string cardsimProgram()
{
    std::filesystem::path directory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    while (!std::filesystem::exists(directory / "velt-cardsim") && directory.has_relative_path()) {
        directory = directory.parent_path();
    }
    return directory / "velt-cardsim";
}

class Cardsim : public ::testing::Test {
protected:
    Cardsim()
        : directory(std::filesystem::temp_directory_path() /
                    ("velt-cardsim-test." + std::to_string(getpid())))
    {
        std::filesystem::create_directories(directory);
    }
    ~Cardsim() override
    {
        if (process > 0) {
            ::kill(process, SIGKILL);
            ::waitpid(process, nullptr, 0);
        }
        std::filesystem::remove_all(directory);
    }

    void start(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), cardsimProgram());
        std::vector<char*> raw;
        for (std::string& argument : arguments) {
            raw.push_back(argument.data());
        }
        raw.push_back(nullptr);
        process = ::fork();
        if (process == 0) {
            ::dup2(::open((directory / "out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600), 1);
            ::dup2(::open((directory / "err").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600), 2);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
    }
    int exitCode()
    {
        int status = 0;
        ::waitpid(process, &status, 0);
        process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int run(std::vector<std::string> arguments)
    {
        start(std::move(arguments));
        return exitCode();
    }
    // Starts with the reader's port and waits until the card is in.
    void insert(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"--port", std::to_string(reader.port())});
        start(std::move(arguments));
        ASSERT_TRUE(reader.takeCard());
    }
    int end(int signal = SIGTERM)
    {
        ::kill(process, signal);
        return exitCode();
    }
    std::string ask(const std::string& command) { return toHex(reader.exchange(hex(command))); }
    std::string output() const { return contentOf(directory / "out"); }
    std::string errors() const { return contentOf(directory / "err"); }
    std::string path(const char* name) const { return (directory / name).string(); }

    std::filesystem::path directory;
    VirtualReader reader;
    pid_t process = -1;
};

} // namespace velt_test
