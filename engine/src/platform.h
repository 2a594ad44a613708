#pragma once

#include <cstdint>

// The few operating-system calls of the engine outside the photo readers
// (those are in imageio_platform.cpp).
namespace lumicrest
{

// Bytes of physical memory, 0 when unknown.
uint64_t physicalMemory();

// The process's address-space limit in bytes, 0 when there is none.
uint64_t addressSpaceLimit();

} // namespace lumicrest
