#include "tests/support/clock.h"

#include <optional>

namespace {

std::optional<std::time_t> stoppedAt;

} // namespace

extern "C" {

// The linker gives calls of time() the name with __wrap_, and the function itself the one with
// __real_.
std::time_t __real_time(std::time_t* seconds);

std::time_t __wrap_time(std::time_t* seconds)
{
    if (!stoppedAt) {
        return __real_time(seconds);
    }
    if (seconds != nullptr) {
        *seconds = *stoppedAt;
    }
    return *stoppedAt;
}

} // extern "C"

void velt_test::stopClockAt(std::time_t seconds)
{
    stoppedAt = seconds;
}

void velt_test::restartClock()
{
    stoppedAt.reset();
}
