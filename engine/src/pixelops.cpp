#include "pixelops.h"

#include "constants.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace lumicrest
{

void rotatePlane(const Plane& in, int degrees, Plane& out)
{
    const int w = in.width();
    const int h = in.height();
    degrees = ((degrees % 360) + 360) % 360;
    if (degrees == 0)
    {
        out.reset(w, h);
        std::copy(in.data(), in.data() + in.size(), out.data());
        return;
    }
    if (degrees == 180)
    {
        out.reset(w, h);
        const float* src = in.data();
        float* dst = out.data();
        const size_t n = in.size();
        for (size_t i = 0; i < n; ++i)
            dst[n - 1 - i] = src[i];
        return;
    }
    out.reset(h, w);
    // Blocked so both planes are walked cache-friendly.
    constexpr int Block = 64;
    for (int by = 0; by < h; by += Block)
    {
        for (int bx = 0; bx < w; bx += Block)
        {
            const int yEnd = std::min(by + Block, h);
            const int xEnd = std::min(bx + Block, w);
            for (int y = by; y < yEnd; ++y)
            {
                const float* src = in.row(y);
                for (int x = bx; x < xEnd; ++x)
                {
                    // Clockwise: (x, y) -> (h - 1 - y, x); counter-clockwise: (y, w - 1 - x).
                    if (degrees == 90)
                        out.at(h - 1 - y, x) = src[x];
                    else
                        out.at(y, w - 1 - x) = src[x];
                }
            }
        }
    }
}

void greyLevel(const Plane* channels, int count, Plane& grey)
{
    const Plane& first = channels[0];
    grey.reset(first.width(), first.height());
    const size_t n = first.size();
    float* g = grey.data();
    if (count < 3)
    {
        std::copy(first.data(), first.data() + n, g);
        return;
    }
    const float* r = channels[0].data();
    const float* gr = channels[1].data();
    const float* b = channels[2].data();
    for (size_t i = 0; i < n; ++i)
        g[i] = constants::GreyR * r[i] + constants::GreyG * gr[i] + constants::GreyB * b[i];
}

namespace
{

float channelMaximum(const Plane& p)
{
    const float* d = p.data();
    float m = 0.0f;
    for (size_t i = 0, n = p.size(); i < n; ++i)
        m = std::max(m, d[i]);
    return m;
}

// A sample at the channel's maximum, above the knee, with an equal right or
// lower neighbour: a clipped highlight.
inline bool saturatedAt(const Plane& p, int x, int y, float maximum)
{
    const float v = p.at(x, y);
    if (v < constants::ClipKnee || v != maximum)
        return false;
    return (x + 1 < p.width() && p.at(x + 1, y) == v) || (y + 1 < p.height() && p.at(x, y + 1) == v) ||
           (x > 0 && p.at(x - 1, y) == v) || (y > 0 && p.at(x, y - 1) == v);
}

} // namespace

void intensityWeights(const Plane& channel, Plane& weights)
{
    const int w = channel.width();
    const int h = channel.height();
    weights.reset(w, h);
    const float maximum = channelMaximum(channel);
    const float knee = constants::ClipKnee;
    for (int y = 0; y < h; ++y)
    {
        const float* src = channel.row(y);
        float* dst = weights.row(y);
        for (int x = 0; x < w; ++x)
        {
            const float v = src[x];
            float weight = v / 255.0f;
            if (v > knee)
                weight *= std::exp(-(v - knee) * (v - knee) / constants::ClipFadeWidth2);
            dst[x] = weight;
        }
        if (maximum >= knee)
            for (int x = 0; x < w; ++x)
                if (src[x] == maximum && saturatedAt(channel, x, y, maximum))
                    dst[x] = 0.0f;
    }
}

void applyWeights(Plane& residual, const Plane& weights)
{
    double sum = 0.0;
    for (int y = 0; y < residual.height(); ++y)
    {
        float* d = residual.row(y);
        const float* w = weights.row(y);
        double rowSum = 0.0;
        for (int x = 0; x < residual.width(); ++x)
        {
            d[x] *= w[x];
            rowSum += d[x];
        }
        sum += rowSum;
    }
    const float mean = static_cast<float>(sum / static_cast<double>(residual.size()));
    for (int y = 0; y < residual.height(); ++y)
    {
        float* d = residual.row(y);
        for (int x = 0; x < residual.width(); ++x)
            d[x] -= mean;
    }
}

double clippedFraction(const Plane* channels, int count)
{
    const int w = channels[0].width();
    const int h = channels[0].height();
    float maxima[3] = {};
    for (int c = 0; c < count; ++c)
        maxima[c] = channelMaximum(channels[c]);
    size_t clipped = 0;
    for (int y = 0; y < h; ++y)
    {
        for (int x = 0; x < w; ++x)
        {
            bool black = true;
            bool saturated = false;
            for (int c = 0; c < count; ++c)
            {
                const float v = channels[c].at(x, y);
                black = black && v <= constants::BlackLevel;
                saturated = saturated || (v == maxima[c] && saturatedAt(channels[c], x, y, maxima[c]));
            }
            if (black || saturated)
                ++clipped;
        }
    }
    const double total = static_cast<double>(w) * h;
    return total > 0 ? static_cast<double>(clipped) / total : 0.0;
}

double noiseLevel(const Plane& grey)
{
    const int w = grey.width() / 2;
    const int h = grey.height() / 2;
    if (w == 0 || h == 0)
        return 0.0;
    std::vector<float> details;
    details.reserve(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
    {
        const float* a = grey.row(2 * y);
        const float* b = grey.row(2 * y + 1);
        for (int x = 0; x < w; ++x)
            details.push_back(std::fabs(a[2 * x] - a[2 * x + 1] - b[2 * x] + b[2 * x + 1]) * 0.5f);
    }
    auto middle = details.begin() + static_cast<std::ptrdiff_t>(details.size() / 2);
    std::nth_element(details.begin(), middle, details.end());
    return *middle / 0.6745;
}

double meanOf(const Plane& plane)
{
    double sum = 0.0;
    for (int y = 0; y < plane.height(); ++y)
    {
        const float* r = plane.row(y);
        double rowSum = 0.0;
        for (int x = 0; x < plane.width(); ++x)
            rowSum += r[x];
        sum += rowSum;
    }
    return plane.empty() ? 0.0 : sum / static_cast<double>(plane.size());
}

double standardDeviationOf(const Plane& plane)
{
    if (plane.size() < 2)
        return 0.0;
    const double mean = meanOf(plane);
    double sum = 0.0;
    for (int y = 0; y < plane.height(); ++y)
    {
        const float* r = plane.row(y);
        double rowSum = 0.0;
        for (int x = 0; x < plane.width(); ++x)
        {
            const double d = r[x] - mean;
            rowSum += d * d;
        }
        sum += rowSum;
    }
    return std::sqrt(sum / static_cast<double>(plane.size() - 1));
}

} // namespace lumicrest
