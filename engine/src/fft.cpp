#include "fft.h"

#include "memory.h"

#include "status.h"
#include "timing.h"

#include <fftw3.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <tuple>

namespace lumicrest
{

void Spectrum::Free::operator()(std::complex<float>* p) const noexcept
{
    releaseBlock(p, bytes);
}

void Spectrum::reset(int width, int height)
{
    const size_t count =
        width > 0 && height > 0 ? static_cast<size_t>(width / 2 + 1) * static_cast<size_t>(height) : 0;
    if (!m_data || count > m_capacity)
    {
        m_data.reset(); // free first: spectra are large, don't hold two at once
        m_capacity = 0;
        const size_t bytes = ((count * sizeof(std::complex<float>) + 63) / 64) * 64;
        void* p = allocateBlock(bytes);
        if (!p)
            throw std::bad_alloc();
        m_data = std::unique_ptr<std::complex<float>[], Free>(static_cast<std::complex<float>*>(p), Free(bytes));
        m_capacity = count;
    }
    m_width = width;
    m_height = height;
}

namespace
{

enum class Direction
{
    Forward,
    Inverse
};

// Plans are made with FFTW_ESTIMATE: measuring would cost seconds for every new
// photo size, far more than it saves on the one or two transforms per size we
// run. ESTIMATE also leaves the arrays alone while planning, so the caller's
// buffers can be used for it. Plans live as long as the process: worker threads
// may still run transforms while static objects are being destroyed.
struct PlanCache
{
    std::mutex planner; // FFTW's planner is not thread-safe
    std::map<std::tuple<int, int, int>, fftwf_plan> plans;
};

PlanCache& planCache()
{
    static PlanCache* cache = new PlanCache;
    return *cache;
}

fftwf_plan cachedPlan(int width, int height, Direction direction, float* real, fftwf_complex* complex)
{
    PlanCache& cache = planCache();
    const auto key = std::make_tuple(width, height, static_cast<int>(direction));
    std::lock_guard<std::mutex> lock(cache.planner);
    const auto found = cache.plans.find(key);
    if (found != cache.plans.end())
        return found->second;
    // Multi-dimensional c2r may overwrite its input; callers hand it a scratch copy.
    fftwf_plan plan = direction == Direction::Forward
                          ? fftwf_plan_dft_r2c_2d(height, width, real, complex, FFTW_ESTIMATE)
                          : fftwf_plan_dft_c2r_2d(height, width, complex, real, FFTW_ESTIMATE);
    if (!plan)
        fail(LUMICREST_NUMERIC_FAILURE,
             "no FFT plan for " + std::to_string(width) + "x" + std::to_string(height));
    cache.plans.emplace(key, plan);
    return plan;
}

// A cached plan may run on other arrays only if they share the alignment of the
// arrays it was planned with. Planes and spectra are 64-byte aligned, so this
// holds for every call; the check guards against a foreign buffer slipping in.
void requireAligned(const void* real, const void* complex)
{
    if (fftwf_alignment_of(static_cast<float*>(const_cast<void*>(real))) != 0 ||
        fftwf_alignment_of(static_cast<float*>(const_cast<void*>(complex))) != 0)
        fail(LUMICREST_INTERNAL_ERROR, "FFT buffer not aligned");
}

void requireSize(int width, int height)
{
    if (width <= 0 || height <= 0)
        fail(LUMICREST_NUMERIC_FAILURE, "FFT of an empty plane");
}

void executeInverse(Spectrum& in, Plane& out)
{
    const int width = in.width();
    const int height = in.height();
    requireSize(width, height);
    out.reset(width, height);
    auto* complex = reinterpret_cast<fftwf_complex*>(in.data());
    requireAligned(out.data(), complex);
    fftwf_plan plan = cachedPlan(width, height, Direction::Inverse, out.data(), complex);
    fftwf_execute_dft_c2r(plan, complex, out.data());
}

Spectrum& inverseScratch()
{
    thread_local Spectrum scratch;
    return scratch;
}

} // namespace

void forwardFft(const Plane& in, Spectrum& out)
{
    StageTimer timer(Stage::Fft);
    const int width = in.width();
    const int height = in.height();
    requireSize(width, height);
    out.reset(width, height);
    // An out-of-place r2c transform leaves its input untouched.
    float* real = const_cast<float*>(in.data());
    auto* complex = reinterpret_cast<fftwf_complex*>(out.data());
    requireAligned(real, complex);
    fftwf_plan plan = cachedPlan(width, height, Direction::Forward, real, complex);
    fftwf_execute_dft_r2c(plan, real, complex);
}

void inverseFft(const Spectrum& in, Plane& out)
{
    StageTimer timer(Stage::Fft);
    Spectrum& scratch = inverseScratch();
    scratch.reset(in.width(), in.height());
    const size_t count = static_cast<size_t>(in.columns()) * static_cast<size_t>(in.height());
    if (in.width() > 0 && in.height() > 0)
        std::memcpy(static_cast<void*>(scratch.data()), in.data(), count * sizeof(std::complex<float>));
    executeInverse(scratch, out);
}

void inverseFftDestructive(Spectrum& in, Plane& out)
{
    StageTimer timer(Stage::Fft);
    executeInverse(in, out);
}

void releaseFftScratch()
{
    inverseScratch() = Spectrum();
}

} // namespace lumicrest
