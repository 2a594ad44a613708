#pragma once

#include <cstddef>

namespace lumicrest
{

// Storage for planes and spectra, 64-byte aligned, released with releaseBlock
// and the size it was made with.
//
// Large blocks (LargeBlock bytes and more) are mapped from the system and kept
// out of the C allocator. There, glibc 2.36 often could not reuse aligned
// blocks once freed, and small allocations that outlive a match, made among
// its large ones, fragmented the heap further: a long run of matches on small
// photos grew by up to a plane every match. Released large blocks of up to
// PoolLargest bytes (a 16-megapixel plane) wait in a pool of at most PoolBytes
// (three 10-megapixel planes) for the next request of the same size, as the
// planes of one match and same-size photos make them, so the pages are not
// faulted in again: fresh pages cost more than the arithmetic on them. Beyond
// that they are unmapped; the pool is what an idle process keeps. Blocks of
// 2 MiB and more are aligned to 2 MiB and, where the system offers it, backed
// by huge pages: a 10-megapixel plane then costs 20 page faults instead of
// 10,000, and the transforms miss the TLB far less.
constexpr size_t LargeBlock = size_t(256) << 10;
constexpr size_t PoolLargest = size_t(64) << 20;
constexpr size_t PoolBytes = size_t(128) << 20;

void* allocateBlock(size_t bytes);
void releaseBlock(void* block, size_t bytes) noexcept;

// Bytes of released blocks waiting in the pool; for tests and benchmarks.
size_t pooledBytes();

} // namespace lumicrest
