// What it takes to load a module, initialise, finalise and unload it, and what memory that adds to
// the host. Each round is a process of its own. Writes one line of JSON: medians.
// usage: velt-bench-loading MODULE [ROUNDS]
#include "bench/host.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

enum Figure : std::size_t { LOAD, INITIALISE, FINALISE, UNLOAD, RESIDENT, PRIVATE, FIGURES };
using Figures = std::array<double, FIGURES>;
constexpr std::array<const char*, FIGURES> NAMES{"load_us",   "initialise_us", "finalise_us",
                                                 "unload_us", "resident_kib",  "private_kib"};

struct Memory {
    double resident = 0;
    double own = 0;
};

// Of this process, in KiB.
Memory memoryNow()
{
    Memory memory;
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    while (file >> word) {
        double value = 0;
        if (word == "Rss:" && file >> value) {
            memory.resident = value;
        } else if (word.starts_with("Private_") && file >> value) {
            memory.own += value;
        }
    }
    return memory;
}

template <typename Step>
double microseconds(Step step)
{
    const auto start = Clock::now();
    step();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

Figures measureOnce(const char* path)
{
    Figures figures{};
    void* library = nullptr;
    CK_FUNCTION_LIST* list = nullptr;
    memoryNow(); // what reading it takes is there before
    const Memory before = memoryNow();
    figures[LOAD] = microseconds([&] {
        library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        bench::require(library != nullptr, "loading the module");
        const auto getList =
            reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
        bench::require(getList != nullptr && getList(&list) == CKR_OK, "C_GetFunctionList");
    });
    figures[INITIALISE] =
        microseconds([&] { bench::require(list->C_Initialize(nullptr), "C_Initialize"); });
    const Memory after = memoryNow();
    figures[RESIDENT] = after.resident - before.resident;
    figures[PRIVATE] = after.own - before.own;
    figures[FINALISE] =
        microseconds([&] { bench::require(list->C_Finalize(nullptr), "C_Finalize"); });
    figures[UNLOAD] = microseconds([&] { dlclose(library); });
    return figures;
}

// In a process that has never loaded it.
Figures measureApart(const char* path)
{
    std::array<int, 2> ends{};
    bench::require(pipe(ends.data()) == 0, "making a pipe");
    const pid_t child = fork();
    bench::require(child >= 0, "making a process");
    if (child == 0) {
        const Figures figures = measureOnce(path);
        const bool told = write(ends[1], figures.data(), sizeof figures) == sizeof figures;
        _exit(told ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    Figures figures{};
    close(ends[1]);
    const bool told = read(ends[0], figures.data(), sizeof figures) == sizeof figures;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    bench::require(told, "measuring in a process apart");
    return figures;
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        bench::fail("usage: velt-bench-loading MODULE [ROUNDS]");
    }
    const long rounds = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 51;
    std::array<std::vector<double>, FIGURES> all;
    for (long round = 0; round < rounds; ++round) {
        const Figures figures = measureApart(argv[1]);
        for (std::size_t i = 0; i < FIGURES; ++i) {
            all[i].push_back(figures[i]);
        }
    }
    for (std::size_t i = 0; i < FIGURES; ++i) {
        std::printf("%s\"%s\": %.1f", i == 0 ? "{" : ", ", NAMES[i], median(all[i]));
    }
    std::printf("}\n");
    return 0;
}
