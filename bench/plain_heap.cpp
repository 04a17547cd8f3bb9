// A heap for programs that are counted: what an allocation takes here does not depend on those
// before it, as the C library's heap would have it. For one thread.
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t UNIT = 16; // of sizes, and the alignment
constexpr std::size_t ARENA = std::size_t{256} << 20;
constexpr std::size_t CLASSES = 4096; // larger blocks are never used again

struct alignas(UNIT) Block {
    std::size_t units = 0;
    Block* next = nullptr;
};

alignas(UNIT) std::array<std::byte, ARENA> arena;
std::size_t used = 0;
std::array<Block*, CLASSES> freed{};

std::size_t unitsOf(std::size_t size)
{
    return size / UNIT + 1;
}

Block* blockOf(void* memory)
{
    return static_cast<Block*>(memory) - 1;
}

void* take(std::size_t units, std::size_t alignment)
{
    std::size_t start = used + sizeof(Block);
    start = (start + alignment - 1) / alignment * alignment;
    if (units > ARENA / UNIT || start + units * UNIT > ARENA) {
        errno = ENOMEM;
        return nullptr;
    }
    used = start + units * UNIT;
    void* const memory = &arena[start];
    blockOf(memory)->units = units;
    return memory;
}

} // namespace

extern "C" {

void* malloc(std::size_t size)
{
    const std::size_t units = unitsOf(size);
    if (units >= CLASSES || freed[units] == nullptr) {
        return take(units, UNIT);
    }
    Block* const block = freed[units];
    freed[units] = block->next;
    return block + 1;
}

void free(void* memory)
{
    if (memory == nullptr || blockOf(memory)->units >= CLASSES) {
        return;
    }
    Block* const block = blockOf(memory);
    block->next = freed[block->units];
    freed[block->units] = block;
}

void* calloc(std::size_t count, std::size_t size)
{
    std::size_t total = 0;
    void* const memory = __builtin_mul_overflow(count, size, &total) ? nullptr : malloc(total);
    return memory == nullptr ? nullptr : std::memset(memory, 0, total);
}

void* realloc(void* memory, std::size_t size)
{
    void* const moved = malloc(size);
    if (memory != nullptr && moved != nullptr) {
        const std::size_t before = blockOf(memory)->units * UNIT;
        std::memcpy(moved, memory, before < size ? before : size);
        free(memory);
    }
    return moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return take(unitsOf(size), alignment < UNIT ? UNIT : alignment);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size)
{
    *memory = aligned_alloc(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

} // extern "C"
