// Makes memory or the compressor run out in the module, in programs linked with the wrappers (see
// CMakeLists.txt): calloc() and deflateInit2_() of what is linked statically pass through here.
#pragma once

#include <cstddef>

namespace velt_test {

// The n-th calloc from now on (1 is the next) returns NULL.
void failNthAllocation(std::size_t n);

// Every deflateInit2_ from now on returns the code.
void failCompression(int code);

void stopFailing();

} // namespace velt_test
