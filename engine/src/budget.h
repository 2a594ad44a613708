#pragma once

#include "platform.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace lumicrest
{

// A process-wide memory budget for matches and learning: callers beyond it wait
// instead of exhausting memory. A single request larger than the whole budget
// still runs, alone.
class MemoryBudget
{
public:
    static MemoryBudget& instance();

    // Default: half of physical memory, less under an address-space limit
    // (the limit less 512 MiB, at least half of it), or
    // LUMICREST_MEMORY_BUDGET_MB when set.
    uint64_t capacity() const;
    void setCapacity(uint64_t bytes);

    class Lease
    {
    public:
        Lease(MemoryBudget& budget, uint64_t bytes);
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

    private:
        MemoryBudget& m_budget;
        uint64_t m_bytes;
    };

    // Memory held for longer than a call (caches): counted against the
    // capacity without waiting, so later leases wait for it.
    void charge(uint64_t bytes);
    void discharge(uint64_t bytes);

    // For tests and benchmarks: the most leases held at once since the last reset.
    int peakHolders() const;
    void resetPeak();

private:
    MemoryBudget();
    void acquire(uint64_t bytes);
    void release(uint64_t bytes);

    mutable std::mutex m_mutex;
    std::condition_variable m_released;
    uint64_t m_capacity;
    uint64_t m_used = 0;
    int m_holders = 0;
    int m_peakHolders = 0;
};

} // namespace lumicrest
