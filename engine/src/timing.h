#pragma once

#include <chrono>

namespace lumicrest
{

enum class Stage
{
    Decode,
    Wavelet,
    Wiener,
    Fft,
    Correlation,
    Count
};

// Seconds spent per stage on the calling thread since the last reset; the
// benchmarks read them to show which stage is slowest.
struct StageTimes
{
    double seconds[static_cast<int>(Stage::Count)] = {};
};

StageTimes& threadStageTimes();

class StageTimer
{
public:
    explicit StageTimer(Stage stage) : m_stage(stage), m_start(std::chrono::steady_clock::now()) {}
    ~StageTimer()
    {
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - m_start;
        threadStageTimes().seconds[static_cast<int>(m_stage)] += spent.count();
    }
    StageTimer(const StageTimer&) = delete;
    StageTimer& operator=(const StageTimer&) = delete;

private:
    Stage m_stage;
    std::chrono::steady_clock::time_point m_start;
};

} // namespace lumicrest
