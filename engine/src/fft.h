#pragma once

#include "plane.h"

#include <complex>
#include <memory>

namespace lumicrest
{

// Half spectrum of a real plane: height rows of (width / 2 + 1) complex values.
class Spectrum
{
public:
    void reset(int width, int height);
    int width() const { return m_width; } // of the real plane
    int height() const { return m_height; }
    int columns() const { return m_width / 2 + 1; }
    std::complex<float>* data() { return m_data.get(); }
    const std::complex<float>* data() const { return m_data.get(); }
    std::complex<float>* row(int y) { return m_data.get() + static_cast<size_t>(y) * columns(); }
    const std::complex<float>* row(int y) const { return m_data.get() + static_cast<size_t>(y) * columns(); }

private:
    struct Free
    {
        Free() noexcept : bytes(0) {}
        explicit Free(size_t allocated) noexcept : bytes(allocated) {}
        void operator()(std::complex<float>* p) const noexcept;
        size_t bytes; // as allocated: large blocks are released by size
    };
    std::unique_ptr<std::complex<float>[], Free> m_data;
    size_t m_capacity = 0;
    int m_width = 0;
    int m_height = 0;
};

// Single-precision real-to-complex 2-D transforms. Plans are made once per size
// under the planner lock and cached; executing them needs no lock.
// The inverse is unnormalised (multiply by 1 / (width * height) yourself).
void forwardFft(const Plane& in, Spectrum& out);
void inverseFft(const Spectrum& in, Plane& out); // `in` is left intact

// The same without the copy of the spectrum: `in` is overwritten. For callers
// that no longer need it (saves a spectrum-sized buffer and a pass over it).
void inverseFftDestructive(Spectrum& in, Plane& out);

// Frees the calling thread's scratch spectrum of inverseFft.
void releaseFftScratch();
} // namespace lumicrest
