// Storage of planes and spectra: alignment, and blocks that are reused once
// released, so a long run of matches cannot pile up freed planes.
#include "fft.h"
#include "memory.h"
#include "plane.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

using namespace lumicrest;

namespace
{

constexpr size_t HugePage = size_t(2) << 20;

bool alignedTo(const void* p, size_t alignment)
{
    return reinterpret_cast<std::uintptr_t>(p) % alignment == 0;
}

} // namespace

TEST(EngineMemory, BlocksAreAlignedAndWritable)
{
    for (size_t bytes : {size_t(1), size_t(100), size_t(4096), size_t(300000), size_t(1920000), HugePage,
                         size_t(7680000)})
    {
        void* p = allocateBlock(bytes);
        ASSERT_NE(p, nullptr) << bytes;
        EXPECT_TRUE(alignedTo(p, 64)) << bytes;
#if defined(__unix__)
        if (bytes >= HugePage)
        {
            EXPECT_TRUE(alignedTo(p, HugePage)) << bytes;
        }
#endif
        std::memset(p, 0x5a, bytes);
        releaseBlock(p, bytes);
    }
    releaseBlock(nullptr, 1920000); // like free: nothing to do
}

TEST(EngineMemory, PlanesAndSpectraKeepTheirStorageAcrossResets)
{
    Plane plane(800, 600);
    plane.fill(1.0f);
    plane.reset(600, 800); // the same count of samples: no new block
    EXPECT_TRUE(alignedTo(plane.data(), 64));
    plane.reset(1600, 1200);
    plane.fill(2.0f);
    EXPECT_EQ(plane.at(1599, 1199), 2.0f);
    Spectrum spectrum;
    spectrum.reset(1600, 1200);
    EXPECT_TRUE(alignedTo(spectrum.data(), 64));
    spectrum.reset(800, 600);
    spectrum = Spectrum();
}

#if defined(__unix__)
TEST(EngineMemory, ReleasedLargeBlocksAreReusedForTheSameSize)
{
    const size_t plane = 800 * 600 * sizeof(float);
    void* first = allocateBlock(plane);
    const size_t pooled = pooledBytes();
    releaseBlock(first, plane);
    EXPECT_GT(pooledBytes(), pooled);
    void* again = allocateBlock(plane);
    EXPECT_EQ(again, first) << "the released block comes back, its pages already in place";
    EXPECT_EQ(pooledBytes(), pooled);
    static_cast<char*>(again)[plane - 1] = 1;
    releaseBlock(again, plane);
}

TEST(EngineMemory, ThePoolIsBoundedAndKeepsNoHugeBlocks)
{
    // Distinct sizes, so none is taken again: more than the pool may keep.
    std::vector<std::pair<void*, size_t>> blocks;
    for (size_t i = 0; i < 40; ++i)
    {
        const size_t bytes = LargeBlock + i * (size_t(64) << 10) + (size_t(3) << 20);
        blocks.emplace_back(allocateBlock(bytes), bytes);
        ASSERT_NE(blocks.back().first, nullptr);
    }
    for (const auto& [block, bytes] : blocks)
        releaseBlock(block, bytes);
    EXPECT_LE(pooledBytes(), PoolBytes);
    EXPECT_GT(pooledBytes(), PoolBytes / 2);

    const size_t before = pooledBytes();
    const size_t huge = PoolLargest + 1;
    void* block = allocateBlock(huge);
    ASSERT_NE(block, nullptr);
    releaseBlock(block, huge);
    EXPECT_EQ(pooledBytes(), before) << "blocks above PoolLargest are unmapped at once";
}
#endif

#if defined(__GLIBC__)
// What the C allocator holds from the system, by its own accounting.
size_t heldByAllocator()
{
    const struct mallinfo2 info = mallinfo2();
    return info.arena + info.hblkhd;
}

// The planes and spectra of 800 x 600 photos, made and dropped as matches do,
// on two threads with small allocations in between: the allocator must reuse
// them. Through aligned_alloc, glibc 2.36 often could not, and a run of 2,000
// matches grew by gigabytes.
TEST(EngineMemory, RepeatedMatchesDoNotGrowTheAllocator)
{
    const auto matches = [] {
        std::vector<std::vector<char>> small;
        for (int i = 0; i < 150; ++i)
        {
            Plane channels[3];
            for (Plane& channel : channels)
            {
                channel.reset(800, 600);
                channel.fill(1.0f);
            }
            small.emplace_back(200 + i % 7 * 100);
            Plane residual(800, 600);
            residual.fill(0.5f);
            channels[0] = Plane();
            Spectrum spectrum;
            spectrum.reset(800, 600);
            std::memset(static_cast<void*>(spectrum.data()), 0, sizeof(*spectrum.data()) * spectrum.columns() * 600);
            channels[1] = Plane();
            Plane padded(832, 608);
            padded.fill(0.0f);
            if (small.size() > 20)
                small.erase(small.begin());
        }
    };
    // Threads of their own first, so their arenas exist before the count.
    std::thread(matches).join();
    const size_t before = heldByAllocator();
    std::thread first(matches);
    std::thread second(matches);
    first.join();
    second.join();
    const size_t after = heldByAllocator();
    EXPECT_LT(after, before + HugePage) << "held " << before << " bytes before, " << after << " after";
}
#endif
