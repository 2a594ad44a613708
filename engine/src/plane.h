#pragma once

#include "memory.h"

#include <cstddef>
#include <memory>
#include <new>

namespace lumicrest
{

// 64-byte aligned float storage, so vectorised loops start on a cache line.
// The block is released with the size it was made with.
struct AlignedFree
{
    size_t bytes = 0;
    void operator()(float* p) const noexcept { releaseBlock(p, bytes); }
};

inline std::unique_ptr<float[], AlignedFree> allocateFloats(size_t count)
{
    const size_t bytes = count * sizeof(float);
    void* p = allocateBlock(bytes);
    if (!p)
        throw std::bad_alloc();
    return std::unique_ptr<float[], AlignedFree>(static_cast<float*>(p), AlignedFree{bytes});
}

// One image plane of float32 samples, row-major, rows packed (stride == width).
class Plane
{
public:
    Plane() = default;
    Plane(int width, int height) { reset(width, height); }

    void reset(int width, int height)
    {
        const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
        if (count != capacity())
        {
            m_data = allocateFloats(count);
            m_capacity = count;
        }
        m_width = width;
        m_height = height;
    }
    void fill(float value)
    {
        for (size_t i = 0, n = size(); i < n; ++i)
            m_data[i] = value;
    }

    int width() const { return m_width; }
    int height() const { return m_height; }
    size_t size() const { return static_cast<size_t>(m_width) * static_cast<size_t>(m_height); }
    bool empty() const { return size() == 0; }
    float* data() { return m_data.get(); }
    const float* data() const { return m_data.get(); }
    float* row(int y) { return m_data.get() + static_cast<size_t>(y) * static_cast<size_t>(m_width); }
    const float* row(int y) const { return m_data.get() + static_cast<size_t>(y) * static_cast<size_t>(m_width); }
    float& at(int x, int y) { return row(y)[x]; }
    float at(int x, int y) const { return row(y)[x]; }

private:
    size_t capacity() const { return m_capacity; }

    std::unique_ptr<float[], AlignedFree> m_data;
    size_t m_capacity = 0;
    int m_width = 0;
    int m_height = 0;
};

} // namespace lumicrest
