#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace camsim
{

// Every failure of the simulator (bad parameters, files that cannot be written).
class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// One float value per pixel, row-major.
struct Plane
{
    int width = 0;
    int height = 0;
    std::vector<float> data;

    Plane() = default;
    Plane(int w, int h) : width(w), height(h), data(static_cast<size_t>(w) * static_cast<size_t>(h)) {}
    float at(int x, int y) const { return data[static_cast<size_t>(y) * static_cast<size_t>(width) + x]; }
    float& at(int x, int y) { return data[static_cast<size_t>(y) * static_cast<size_t>(width) + x]; }
};

// Interleaved RGB samples of 8 or 16 bits (stored as 16-bit either way).
struct Image
{
    int width = 0;
    int height = 0;
    int bits = 8;
    std::vector<uint16_t> samples;

    Image() = default;
    Image(int w, int h, int b)
        : width(w), height(h), bits(b), samples(static_cast<size_t>(w) * static_cast<size_t>(h) * 3)
    {
    }
    size_t index(int x, int y, int channel) const
    {
        return (static_cast<size_t>(y) * static_cast<size_t>(width) + x) * 3 + channel;
    }
    uint16_t at(int x, int y, int channel) const { return samples[index(x, y, channel)]; }
    uint16_t& at(int x, int y, int channel) { return samples[index(x, y, channel)]; }
    int maxValue() const { return bits == 16 ? 65535 : 255; }
};

// Turns the pixels clockwise by 0, 90, 180 or 270 degrees.
Image rotateImage(const Image& image, int degrees);

// Copies a rectangle that must lie inside the image.
Image cropImage(const Image& image, int x, int y, int width, int height);

// Resized as common resizers do: the mean over each output pixel's footprint
// when shrinking, bilinear when enlarging (pixel centres aligned).
Image resizeImage(const Image& image, int width, int height);

} // namespace camsim
