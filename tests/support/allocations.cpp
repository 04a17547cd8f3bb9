#include "tests/support/allocations.h"

#include <atomic>
#include <cstdlib>

// The linker turns the calls to malloc and its kin into these (--wrap).
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
void __wrap_free(void* block);
}

namespace {

std::atomic<std::size_t> asked{0};
std::atomic<std::ptrdiff_t> live{0};
std::atomic<std::size_t> refused{0}; // number of the allocation that fails; 0: none

bool isRefused()
{
    return ++asked == refused;
}

void* counted(void* block)
{
    live += block == nullptr ? 0 : 1;
    return block;
}

} // namespace

extern "C" {

void* __wrap_malloc(std::size_t size)
{
    return isRefused() ? nullptr : counted(__real_malloc(size));
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return isRefused() ? nullptr : counted(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, std::size_t size)
{
    if (isRefused()) {
        return nullptr;
    }
    return block == nullptr ? counted(__real_malloc(size)) : __real_realloc(block, size);
}

void __wrap_free(void* block)
{
    live -= block == nullptr ? 0 : 1;
    __real_free(block);
}
}

namespace velt_test {

std::size_t allocationCount()
{
    return asked;
}

std::ptrdiff_t liveBlocks()
{
    return live;
}

FailingAllocation::FailingAllocation(std::size_t n)
{
    refused = asked + n;
}

FailingAllocation::~FailingAllocation()
{
    refused = 0;
}

} // namespace velt_test
