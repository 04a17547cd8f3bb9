#include "tests/support/failing_alloc.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <unordered_set>

namespace velt_test::alloc {
namespace {

constexpr std::size_t NEVER = std::numeric_limits<std::size_t>::max();

struct State {
    std::mutex mutex;
    std::size_t asked = 0;
    std::size_t refused = 0;
    std::size_t first = NEVER; // the allocations that fail
    std::size_t last = NEVER;
    std::unordered_set<const void*> held;
};

// Lives as long as the process: the module may free while it exits.
State& state()
{
    static State* const only = new State;
    return *only;
}

void plan(std::size_t first, std::size_t last)
{
    const std::lock_guard lock(state().mutex);
    state().asked = 0;
    state().refused = 0;
    state().first = first;
    state().last = last;
}

// Counts an allocation; false if it is to fail.
bool mayAllocate()
{
    const std::lock_guard lock(state().mutex);
    ++state().asked;
    if (state().asked < state().first || state().asked > state().last) {
        return true;
    }
    ++state().refused;
    errno = ENOMEM;
    return false;
}

void* keep(void* block)
{
    if (block != nullptr) {
        const std::lock_guard lock(state().mutex);
        state().held.insert(block);
    }
    return block;
}

void forget(const void* block)
{
    const std::lock_guard lock(state().mutex);
    if (block != nullptr && state().held.erase(block) == 0) {
        std::fputs("the module freed a block that it did not allocate\n", stderr);
        std::abort();
    }
}

} // namespace

void clear()
{
    plan(NEVER, NEVER);
}

void failNth(std::size_t n)
{
    plan(n, n);
}

void failFrom(std::size_t n)
{
    plan(n, NEVER);
}

std::size_t asked()
{
    const std::lock_guard lock(state().mutex);
    return state().asked;
}

std::size_t refused()
{
    const std::lock_guard lock(state().mutex);
    return state().refused;
}

std::size_t held()
{
    const std::lock_guard lock(state().mutex);
    return state().held.size();
}

bool isHeld(const void* block)
{
    const std::lock_guard lock(state().mutex);
    return state().held.contains(block);
}

} // namespace velt_test::alloc

// What the module's objects call in place of the C library.
using velt_test::alloc::forget;
using velt_test::alloc::keep;
using velt_test::alloc::mayAllocate;

extern "C" {

void* velt_test_malloc(std::size_t size);
void* velt_test_calloc(std::size_t count, std::size_t size);
void* velt_test_realloc(void* block, std::size_t size);
void* velt_test_reallocarray(void* block, std::size_t count, std::size_t size);
char* velt_test_strdup(const char* text);
void velt_test_free(void* block);

void* velt_test_malloc(std::size_t size)
{
    return mayAllocate() ? keep(std::malloc(size)) : nullptr;
}

void* velt_test_calloc(std::size_t count, std::size_t size)
{
    return mayAllocate() ? keep(std::calloc(count, size)) : nullptr;
}

void* velt_test_realloc(void* block, std::size_t size)
{
    if (!mayAllocate()) {
        return nullptr;
    }
    // The old block goes first: its address may come back.
    forget(block);
    void* const grown = std::realloc(block, size);
    if (grown == nullptr) {
        keep(block);
    }
    return keep(grown);
}

void* velt_test_reallocarray(void* block, std::size_t count, std::size_t size)
{
    if (size != 0 && count > std::numeric_limits<std::size_t>::max() / size) {
        return nullptr;
    }
    return velt_test_realloc(block, count * size);
}

char* velt_test_strdup(const char* text)
{
    const std::size_t size = std::strlen(text) + 1;
    void* const copy = velt_test_malloc(size);
    return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

void velt_test_free(void* block)
{
    forget(block);
    std::free(block);
}
}
