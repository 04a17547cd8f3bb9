// The module's one lock between threads: how many calls go through it, and whether every thread
// gets its share. Writes one line of JSON. usage: velt-bench-threads MODULE THREADS SECONDS
#include "bench/host.h"
#include "bench/tape_card.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using namespace bench;

struct alignas(64) Count {
    std::uint64_t calls = 0;
};

std::vector<std::uint64_t> callFor(const Session& session, std::size_t threadCount,
                                   std::chrono::seconds duration)
{
    std::atomic<bool> started{false};
    std::atomic<bool> ended{false};
    std::vector<Count> counts(threadCount);
    std::vector<std::thread> threads;
    for (Count& count : counts) {
        threads.emplace_back([&session, &started, &ended, &count] {
            CK_SESSION_INFO info;
            started.wait(false);
            while (!ended.load(std::memory_order_relaxed)) {
                require(session.module->C_GetSessionInfo(session.handle, &info),
                        "C_GetSessionInfo");
                ++count.calls;
            }
        });
    }
    started = true;
    started.notify_all();
    std::this_thread::sleep_for(duration);
    ended = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<std::uint64_t> calls;
    for (const Count& count : counts) {
        calls.push_back(count.calls);
    }
    return calls;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        fail("usage: velt-bench-threads MODULE THREADS SECONDS");
    }
    const std::size_t threadCount = std::strtoul(argv[2], nullptr, 10);
    const std::chrono::seconds duration(std::strtol(argv[3], nullptr, 10));
    require(threadCount > 0 && duration.count() > 0, "reading the command line");
    insertAlone(makeTapeCard(idCardFamily));
    const Module module(argv[1]);
    const Session session(module);
    const std::vector<std::uint64_t> calls = callFor(session, threadCount, duration);
    const double total = static_cast<double>(std::accumulate(calls.begin(), calls.end(), 0UL));
    const double mean = total / static_cast<double>(threadCount);
    std::printf("{\"threads\": %zu, \"seconds\": %ld, \"calls_per_second\": %.0f, "
                "\"least_share_of_mean\": %.3f}\n",
                threadCount, static_cast<long>(duration.count()),
                total / static_cast<double>(duration.count()),
                static_cast<double>(*std::ranges::min_element(calls)) / mean);
    return 0;
}
