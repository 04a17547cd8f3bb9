// The time of day that the module is told, in programs linked with its wrapper (CMakeLists.txt).
#pragma once

#include <ctime>

namespace velt_test {

// Every time() from now on answers this, or the real time again.
void stopClockAt(std::time_t seconds);
void restartClock();

} // namespace velt_test
