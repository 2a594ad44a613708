#include "budget.h"

#include "platform.h"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace lumicrest
{

MemoryBudget& MemoryBudget::instance()
{
    static MemoryBudget budget;
    return budget;
}

MemoryBudget::MemoryBudget()
{
    const uint64_t physical = physicalMemory();
    m_capacity = physical > 0 ? physical / 2 : (uint64_t(4) << 30);
    // Under an address-space limit (ulimit -v) that is the memory there is;
    // code, thread stacks and allocator arenas take their part of it first.
    if (const uint64_t space = addressSpaceLimit())
        m_capacity = std::min(m_capacity, std::max(space / 2, space - std::min(space, uint64_t(512) << 20)));
    if (const char* text = std::getenv("LUMICREST_MEMORY_BUDGET_MB"))
    {
        const unsigned long long mb = std::strtoull(text, nullptr, 10);
        if (mb > 0)
            m_capacity = mb << 20;
    }
}

uint64_t MemoryBudget::capacity() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_capacity;
}

void MemoryBudget::setCapacity(uint64_t bytes)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_capacity = bytes;
    }
    m_released.notify_all();
}

void MemoryBudget::acquire(uint64_t bytes)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_released.wait(lock, [&] { return m_holders == 0 || m_used + bytes <= m_capacity; });
    m_used += bytes;
    ++m_holders;
    if (m_holders > m_peakHolders)
        m_peakHolders = m_holders;
}

void MemoryBudget::release(uint64_t bytes)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_used -= bytes;
        --m_holders;
    }
    m_released.notify_all();
}

void MemoryBudget::charge(uint64_t bytes)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_used += bytes;
}

void MemoryBudget::discharge(uint64_t bytes)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_used -= std::min(bytes, m_used);
    }
    m_released.notify_all();
}

int MemoryBudget::peakHolders() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_peakHolders;
}

void MemoryBudget::resetPeak()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_peakHolders = m_holders;
}

MemoryBudget::Lease::Lease(MemoryBudget& budget, uint64_t bytes) : m_budget(budget), m_bytes(bytes)
{
    m_budget.acquire(m_bytes);
}

MemoryBudget::Lease::~Lease()
{
    m_budget.release(m_bytes);
}

} // namespace lumicrest
