// What the program's own objects allocate with malloc, calloc and realloc. Libraries that are
// shared, the C++ one among them, are not seen.
#pragma once

#include <cstddef>

namespace velt_test {

// How many allocations were asked for so far.
std::size_t allocationCount();

// Blocks allocated less blocks freed.
std::ptrdiff_t liveBlocks();

// While one lives, the n-th allocation from its start (1 is the first) finds no memory.
class FailingAllocation {
public:
    explicit FailingAllocation(std::size_t n);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

} // namespace velt_test
