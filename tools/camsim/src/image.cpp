#include "camsim/image.h"

#include <algorithm>
#include <string>

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

} // namespace camsim
