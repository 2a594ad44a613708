#pragma once

#include <cstddef>

namespace lumicrest
{

// Storage for planes and spectra, 64-byte aligned, released with releaseBlock
// and the size it was made with.
//
// Never through aligned_alloc: glibc 2.36 often could not reuse an aligned
// block after its release (it asks for more than the block to find an aligned
// start), so a long run of matches on photos of a few megapixels or less grew
// by a plane every match or two. Blocks below 2 MiB come from plain malloc,
// aligned by hand; blocks of 2 MiB and more are mapped from the system,
// aligned to 2 MiB and, where the system offers it, backed by huge pages: a
// 10-megapixel plane then costs 20 page faults instead of 10,000, and the
// transforms miss the TLB far less. They are unmapped on release.
void* allocateBlock(size_t bytes);
void releaseBlock(void* block, size_t bytes) noexcept;

} // namespace lumicrest
