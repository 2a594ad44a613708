#pragma once

#include <cstddef>

namespace lumicrest
{

// Storage for planes and spectra, released with std::free. Large blocks are
// aligned to 2 MiB and, where the system offers it, backed by huge pages: a
// 10-megapixel plane then costs 20 page faults instead of 10,000, and the
// transforms miss the TLB far less.
void* allocateBlock(size_t bytes);

} // namespace lumicrest
