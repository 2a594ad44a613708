#include "memory.h"

#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace lumicrest
{

namespace
{
constexpr size_t HugePage = size_t(2) << 20;
}

void* allocateBlock(size_t bytes)
{
    if (bytes < HugePage)
    {
        const size_t rounded = ((bytes + 63) / 64) * 64;
        return std::aligned_alloc(64, rounded == 0 ? 64 : rounded);
    }
    const size_t rounded = ((bytes + HugePage - 1) / HugePage) * HugePage;
    void* p = std::aligned_alloc(HugePage, rounded);
#if defined(__linux__)
    if (p)
        madvise(p, rounded, MADV_HUGEPAGE); // a hint: without huge pages it changes nothing
#endif
    return p;
}

} // namespace lumicrest
