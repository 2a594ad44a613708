#include "camsim/image.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace camsim
{

Image rotateImage(const Image& image, int degrees)
{
    const int w = image.width;
    const int h = image.height;
    switch (degrees)
    {
    case 0:
        return image;
    case 90:
    case 270:
    {
        Image out(h, w, image.bits);
        for (int y = 0; y < h; ++y)
        {
            for (int x = 0; x < w; ++x)
            {
                // Clockwise: the left column becomes the top row.
                const int nx = degrees == 90 ? h - 1 - y : y;
                const int ny = degrees == 90 ? x : w - 1 - x;
                const size_t from = image.index(x, y, 0);
                const size_t to = out.index(nx, ny, 0);
                out.samples[to] = image.samples[from];
                out.samples[to + 1] = image.samples[from + 1];
                out.samples[to + 2] = image.samples[from + 2];
            }
        }
        return out;
    }
    case 180:
    {
        Image out(w, h, image.bits);
        for (int y = 0; y < h; ++y)
        {
            for (int x = 0; x < w; ++x)
            {
                const size_t from = image.index(x, y, 0);
                const size_t to = out.index(w - 1 - x, h - 1 - y, 0);
                out.samples[to] = image.samples[from];
                out.samples[to + 1] = image.samples[from + 1];
                out.samples[to + 2] = image.samples[from + 2];
            }
        }
        return out;
    }
    default:
        throw Error("rotation must be 0, 90, 180 or 270 degrees, not " + std::to_string(degrees));
    }
}

Image cropImage(const Image& image, int x, int y, int width, int height)
{
    if (width < 1 || height < 1 || x < 0 || y < 0 || x + width > image.width || y + height > image.height)
    {
        throw Error("crop " + std::to_string(width) + "x" + std::to_string(height) + "+" + std::to_string(x) +
                    "+" + std::to_string(y) + " does not fit in " + std::to_string(image.width) + "x" +
                    std::to_string(image.height));
    }
    Image out(width, height, image.bits);
    for (int row = 0; row < height; ++row)
    {
        const auto first = image.samples.begin() + static_cast<std::ptrdiff_t>(image.index(x, y + row, 0));
        std::copy(first, first + static_cast<std::ptrdiff_t>(width) * 3,
                  out.samples.begin() + static_cast<std::ptrdiff_t>(out.index(0, row, 0)));
    }
    return out;
}

namespace
{

// Weights of the input samples each output sample takes along one axis.
std::vector<std::vector<std::pair<int, double>>> resizeWeights(int in, int out)
{
    const double s = static_cast<double>(out) / in;
    std::vector<std::vector<std::pair<int, double>>> taps(static_cast<size_t>(out));
    for (int i = 0; i < out; ++i)
    {
        if (s < 1.0)
        {
            const double lo = i / s;
            const double hi = (i + 1) / s;
            for (int j = static_cast<int>(lo); j < in && j < hi; ++j)
            {
                const double overlap = std::min<double>(hi, j + 1) - std::max<double>(lo, j);
                if (overlap > 0)
                    taps[i].emplace_back(j, overlap * s);
            }
        }
        else
        {
            const double c = std::clamp((i + 0.5) / s - 0.5, 0.0, in - 1.0);
            const int j = std::min(static_cast<int>(c), in - 1);
            const double f = c - j;
            taps[i].emplace_back(j, 1.0 - f);
            if (j + 1 < in)
                taps[i].emplace_back(j + 1, f);
        }
    }
    return taps;
}

} // namespace

Image resizeImage(const Image& image, int width, int height)
{
    if (width < 1 || height < 1)
        throw Error("resize to an empty image");
    const auto tx = resizeWeights(image.width, width);
    const auto ty = resizeWeights(image.height, height);
    Image out(width, height, image.bits);
    std::vector<double> row(static_cast<size_t>(width) * 3);
    for (int y = 0; y < height; ++y)
    {
        std::fill(row.begin(), row.end(), 0.0);
        for (const auto& [sy, wy] : ty[y])
            for (int x = 0; x < width; ++x)
                for (const auto& [sx, wx] : tx[x])
                    for (int c = 0; c < 3; ++c)
                        row[x * 3 + c] += wy * wx * image.at(sx, sy, c);
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c)
                out.at(x, y, c) =
                    static_cast<uint16_t>(std::clamp(std::lround(row[x * 3 + c]), 0L, static_cast<long>(image.maxValue())));
    }
    return out;
}

} // namespace camsim
