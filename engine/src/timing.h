#pragma once

#include <chrono>

namespace lumicrest
{

enum class Stage
{
    Decode,
    Wavelet,
    ZeroMean,
    Wiener,
    Fft,
    Correlation,
    Pce,
    Count
};

// Seconds spent per stage on the calling thread since the last reset; the
// benchmarks read them to show which stage is slowest.
struct StageTimes
{
    double seconds[static_cast<int>(Stage::Count)] = {};
};

StageTimes& threadStageTimes();

// Times one stage. Timers nest exclusively: an inner stage (the FFTs of the
// Wiener filter) pauses the outer one, so the stages add up to the whole.
class StageTimer
{
public:
    explicit StageTimer(Stage stage);
    ~StageTimer();
    StageTimer(const StageTimer&) = delete;
    StageTimer& operator=(const StageTimer&) = delete;

private:
    using Clock = std::chrono::steady_clock;
    void book(Clock::time_point now);

    Stage m_stage;
    Clock::time_point m_start;
    StageTimer* m_outer;
};

} // namespace lumicrest
