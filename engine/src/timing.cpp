#include "timing.h"

namespace lumicrest
{

namespace
{
thread_local StageTimer* t_current = nullptr;
}

StageTimes& threadStageTimes()
{
    thread_local StageTimes times;
    return times;
}

StageTimer::StageTimer(Stage stage) : m_stage(stage), m_start(Clock::now()), m_outer(t_current)
{
    if (m_outer)
        m_outer->book(m_start);
    t_current = this;
}

StageTimer::~StageTimer()
{
    const Clock::time_point now = Clock::now();
    book(now);
    t_current = m_outer;
    if (m_outer)
        m_outer->m_start = now;
}

void StageTimer::book(Clock::time_point now)
{
    const std::chrono::duration<double> spent = now - m_start;
    threadStageTimes().seconds[static_cast<int>(m_stage)] += spent.count();
    m_start = now;
}

} // namespace lumicrest
