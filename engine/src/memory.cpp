#include "memory.h"

#include <cstdint>
#include <cstdlib>

#if defined(__unix__)
#include <sys/mman.h>
#endif

namespace lumicrest
{

namespace
{

constexpr size_t HugePage = size_t(2) << 20;
constexpr size_t Alignment = 64;

std::uintptr_t roundedUp(std::uintptr_t value, std::uintptr_t unit)
{
    return (value + unit - 1) / unit * unit;
}

// malloc's block with the aligned start inside it; the block's own address is
// kept just before that start (malloc aligns to at least 16, so there is room).
void* allocateAligned(size_t bytes)
{
    void* base = std::malloc(bytes + Alignment);
    if (!base)
        return nullptr;
    const std::uintptr_t start = roundedUp(reinterpret_cast<std::uintptr_t>(base) + sizeof(void*), Alignment);
    reinterpret_cast<void**>(start)[-1] = base;
    return reinterpret_cast<void*>(start);
}

void releaseAligned(void* block)
{
    std::free(static_cast<void**>(block)[-1]);
}

#if defined(__unix__)
void* mapHugeAligned(size_t bytes)
{
    const size_t length = roundedUp(bytes, HugePage);
    // One huge page more than needed, then the unaligned ends given back.
    const size_t reserved = length + HugePage;
    void* p = mmap(nullptr, reserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        return nullptr;
    const auto start = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t aligned = roundedUp(start, HugePage);
    if (aligned > start)
        munmap(p, aligned - start);
    const std::uintptr_t end = aligned + length;
    if (start + reserved > end)
        munmap(reinterpret_cast<void*>(end), start + reserved - end);
#if defined(MADV_HUGEPAGE)
    madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE); // a hint: without huge pages it changes nothing
#endif
    return reinterpret_cast<void*>(aligned);
}
#endif

} // namespace

void* allocateBlock(size_t bytes)
{
#if defined(__unix__)
    if (bytes >= HugePage)
        return mapHugeAligned(bytes);
#endif
    return allocateAligned(bytes == 0 ? 1 : bytes);
}

void releaseBlock(void* block, size_t bytes) noexcept
{
    if (!block)
        return;
#if defined(__unix__)
    if (bytes >= HugePage)
    {
        munmap(block, roundedUp(bytes, HugePage));
        return;
    }
#endif
    releaseAligned(block);
}

} // namespace lumicrest
