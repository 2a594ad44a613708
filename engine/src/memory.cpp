#include "memory.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <vector>

#if defined(__unix__)
#include <sys/mman.h>
#include <unistd.h>
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
// Whole pages; whole huge pages from 2 MiB on.
size_t mappedLength(size_t bytes)
{
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return bytes >= HugePage ? roundedUp(bytes, HugePage) : roundedUp(bytes, page);
}

void* mapBlock(size_t length)
{
    if (length < HugePage)
    {
        void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return p == MAP_FAILED ? nullptr : p;
    }
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

struct FreeBlock
{
    void* block;
    size_t length;
};

struct Pool
{
    std::mutex mutex;
    std::vector<FreeBlock> blocks; // oldest first
    size_t bytes = 0;
};

// Never destroyed: worker threads may still release blocks while static
// objects are being destroyed.
Pool& pool()
{
    static Pool* instance = new Pool;
    return *instance;
}

void* takePooled(size_t length)
{
    Pool& p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    // The most recently released first: its pages are the likeliest in cache.
    for (size_t i = p.blocks.size(); i-- > 0;)
    {
        if (p.blocks[i].length == length)
        {
            void* block = p.blocks[i].block;
            p.blocks.erase(p.blocks.begin() + static_cast<std::ptrdiff_t>(i));
            p.bytes -= length;
            return block;
        }
    }
    return nullptr;
}

void giveToPool(void* block, size_t length) noexcept
{
    std::vector<FreeBlock> evicted;
    try
    {
        Pool& p = pool();
        std::lock_guard<std::mutex> lock(p.mutex);
        p.blocks.push_back({block, length});
        p.bytes += length;
        size_t drop = 0;
        while (p.bytes > PoolBytes)
            p.bytes -= p.blocks[drop++].length;
        evicted.assign(p.blocks.begin(), p.blocks.begin() + static_cast<std::ptrdiff_t>(drop));
        p.blocks.erase(p.blocks.begin(), p.blocks.begin() + static_cast<std::ptrdiff_t>(drop));
    }
    catch (...)
    {
        // No room to note it: give it back now.
        munmap(block, length);
        return;
    }
    for (const FreeBlock& f : evicted)
        munmap(f.block, f.length);
}
#endif

} // namespace

void* allocateBlock(size_t bytes)
{
#if defined(__unix__)
    if (bytes >= LargeBlock)
    {
        const size_t length = mappedLength(bytes);
        if (length <= PoolLargest)
        {
            if (void* block = takePooled(length))
                return block;
        }
        return mapBlock(length);
    }
#endif
    return allocateAligned(bytes == 0 ? 1 : bytes);
}

void releaseBlock(void* block, size_t bytes) noexcept
{
    if (!block)
        return;
#if defined(__unix__)
    if (bytes >= LargeBlock)
    {
        const size_t length = mappedLength(bytes);
        if (length <= PoolLargest)
            giveToPool(block, length);
        else
            munmap(block, length);
        return;
    }
#endif
    releaseAligned(block);
}

size_t pooledBytes()
{
#if defined(__unix__)
    Pool& p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    return p.bytes;
#else
    return 0;
#endif
}

} // namespace lumicrest
