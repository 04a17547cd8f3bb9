#include "src/front/lock.h"

#include <atomic>
#include <sched.h>

alignas(2) std::array<std::uint8_t, 2> PKCS11C{};

namespace {

constexpr unsigned SHORT_SPIN = 64; // looks at a held lock before the processor is given up

std::atomic_ref<std::uint8_t> flagAt(std::size_t position) noexcept
{
    return std::atomic_ref<std::uint8_t>(PKCS11C[position]);
}

} // namespace

void Lock() noexcept
{
    const auto held = flagAt(LOCK_FLAG);
    unsigned looks = 0;
    while (held.exchange(1, std::memory_order_acquire) != 0) {
        while (held.load(std::memory_order_relaxed) != 0) {
            if (++looks > SHORT_SPIN) {
                sched_yield();
            }
        }
    }
}

void UnLock() noexcept
{
    flagAt(LOCK_FLAG).store(0, std::memory_order_release);
}

namespace velt {

bool isInitialised() noexcept
{
    return flagAt(INITIALISED_FLAG).load(std::memory_order_acquire) != 0;
}

void setInitialised(bool on) noexcept
{
    flagAt(INITIALISED_FLAG).store(on ? 1 : 0, std::memory_order_release);
}

} // namespace velt
