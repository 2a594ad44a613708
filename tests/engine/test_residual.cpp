// Noise residual and FFT: the fast code against slow, obvious versions.
#include "enginetestutils.h"
#include "fft.h"
#include "match.h"
#include "residual.h"
#include "scale.h"
#include "status.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

using enginetest::inParallel;
using namespace lumicrest;

namespace
{

const double Pi = 3.14159265358979323846;

template <class Distribution> Plane randomPlane(int w, int h, unsigned seed, Distribution dist)
{
    std::mt19937 rng(seed);
    Plane p(w, h);
    for (size_t i = 0; i < p.size(); ++i)
        p.data()[i] = dist(rng);
    return p;
}

Plane uniformPlane(int w, int h, unsigned seed, float lo = 0.0f, float hi = 255.0f)
{
    return randomPlane(w, h, seed, std::uniform_real_distribution<float>(lo, hi));
}

Plane gaussianPlane(int w, int h, unsigned seed, float sigma = 1.0f)
{
    return randomPlane(w, h, seed, std::normal_distribution<float>(0.0f, sigma));
}

int mirror(int i, int n)
{
    while (i < 0 || i >= n)
        i = i < 0 ? -1 - i : 2 * n - 1 - i;
    return i;
}

double dot(const Plane& a, const Plane& b)
{
    double s = 0.0;
    for (size_t i = 0; i < a.size(); ++i)
        s += static_cast<double>(a.data()[i]) * b.data()[i];
    return s;
}

double correlation(const Plane& a, const Plane& b)
{
    return dot(a, b) / std::sqrt(dot(a, a) * dot(b, b));
}

Plane copyOf(const Plane& p)
{
    Plane c(p.width(), p.height());
    std::copy(p.data(), p.data() + p.size(), c.data());
    return c;
}

double maxAbsDiff(const Plane& a, const Plane& b)
{
    double m = 0.0;
    for (size_t i = 0; i < a.size(); ++i)
        m = std::max(m, std::fabs(static_cast<double>(a.data()[i]) - b.data()[i]));
    return m;
}

template <class F> int32_t failureCode(F&& f)
{
    try
    {
        f();
    }
    catch (const Failure& e)
    {
        return e.code();
    }
    return 0;
}

// Textbook periodic one-level analysis: a[k] = sum h[n] x[2k + n], d with g.
void analyse1d(std::vector<double>& x)
{
    const double* h = db4LowPass();
    const int n = static_cast<int>(x.size());
    std::vector<double> out(x.size());
    for (int k = 0; k < n / 2; ++k)
        for (int t = 0; t < 8; ++t)
        {
            out[k] += h[t] * x[(2 * k + t) % n];
            out[n / 2 + k] += (t % 2 ? -1.0 : 1.0) * h[7 - t] * x[(2 * k + t) % n];
        }
    x = out;
}

// Four levels on the mirror-padded plane, in pyramid layout, in double.
std::vector<double> referenceWavelet(const Plane& in, int pw, int ph)
{
    std::vector<double> c(static_cast<size_t>(pw) * ph);
    for (int y = 0; y < ph; ++y)
        for (int x = 0; x < pw; ++x)
            c[y * pw + x] = in.at(mirror(x, in.width()), mirror(y, in.height()));
    for (int level = 0; level < WaveletLevels; ++level)
    {
        const int nw = pw >> level, nh = ph >> level;
        for (int y = 0; y < nh; ++y)
        {
            std::vector<double> row(c.begin() + y * pw, c.begin() + y * pw + nw);
            analyse1d(row);
            std::copy(row.begin(), row.end(), c.begin() + y * pw);
        }
        for (int x = 0; x < nw; ++x)
        {
            std::vector<double> col(nh);
            for (int y = 0; y < nh; ++y)
                col[y] = c[y * pw + x];
            analyse1d(col);
            for (int y = 0; y < nh; ++y)
                c[y * pw + x] = col[y];
        }
    }
    return c;
}

// Residual chain of one colour photo, as matching runs it.
Plane fullResidual(const Plane* rgb)
{
    Plane w;
    combinedResidual(rgb, 3, 3.0f, w);
    zeroMeanLattices(w);
    wienerInDft(w);
    return w;
}

const int Sizes[][2] = {{37, 53}, {100, 64}, {257, 129}, {3, 5}, {1, 1}};

} // namespace

TEST(Wavelet, FilterIsOrthonormalWithFourVanishingMoments)
{
    const double* h = db4LowPass();
    double sum = 0.0;
    for (int n = 0; n < 8; ++n)
        sum += h[n];
    EXPECT_NEAR(sum, std::sqrt(2.0), 1e-12);
    for (int shift = 0; shift < 8; shift += 2)
    {
        double s = 0.0;
        for (int n = 0; n + shift < 8; ++n)
            s += h[n] * h[n + shift];
        EXPECT_NEAR(s, shift == 0 ? 1.0 : 0.0, 1e-12) << "shift " << shift;
    }
    for (int power = 0; power < 4; ++power)
    {
        double moment = 0.0; // of the high-pass g[n] = (-1)^n h[7 - n]
        for (int n = 0; n < 8; ++n)
            moment += std::pow(n, power) * (n % 2 ? -1.0 : 1.0) * h[7 - n];
        EXPECT_NEAR(moment, 0.0, 1e-9) << "moment " << power;
    }
}

TEST(Wavelet, MatchesReferenceReconstructsAndKeepsEnergy)
{
    for (const auto& size : Sizes)
    {
        SCOPED_TRACE(std::to_string(size[0]) + "x" + std::to_string(size[1]));
        const Plane in = uniformPlane(size[0], size[1], 7u + size[0]);
        Plane coeffs;
        waveletForward(in, coeffs);
        const int pw = waveletPaddedSize(size[0]), ph = waveletPaddedSize(size[1]);
        ASSERT_EQ(coeffs.width(), pw);
        ASSERT_EQ(coeffs.height(), ph);
        EXPECT_EQ(pw % 16, 0);
        EXPECT_LT(pw - size[0], 16);

        const std::vector<double> ref = referenceWavelet(in, pw, ph);
        double worst = 0.0, refEnergy = 0.0, energy = 0.0, paddedEnergy = 0.0;
        for (int y = 0; y < ph; ++y)
            for (int x = 0; x < pw; ++x)
            {
                const double c = coeffs.at(x, y), r = ref[y * pw + x];
                worst = std::max(worst, std::fabs(c - r));
                energy += c * c;
                refEnergy += r * r;
                const double p = in.at(mirror(x, size[0]), mirror(y, size[1]));
                paddedEnergy += p * p;
            }
        EXPECT_LT(worst, 2e-3); // coefficients reach ~4000
        EXPECT_NEAR(energy / paddedEnergy, 1.0, 1e-5);
        EXPECT_NEAR(refEnergy / paddedEnergy, 1.0, 1e-12);

        Plane back;
        waveletInverse(coeffs, size[0], size[1], back);
        ASSERT_EQ(back.width(), size[0]);
        EXPECT_LT(maxAbsDiff(back, in), 255 * 1e-5);
    }
    Plane coeffs(32, 32), out;
    EXPECT_EQ(failureCode([&] { waveletInverse(coeffs, 40, 20, out); }), LUMICREST_INTERNAL_ERROR);
}

TEST(Denoiser, BoxSumsMatchNaiveWindows)
{
    const float sigma0 = 3.0f;
    const double s2 = 9.0;
    const int sizes[][2] = {{37, 53}, {100, 64}, {1, 7}, {3, 2}, {8, 1}};
    for (const auto& size : sizes)
    {
        const int w = size[0], h = size[1], stride = w + 5;
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        // Noise whose strength changes across the band, so every window size wins somewhere.
        std::mt19937 rng(w * 31 + h);
        std::normal_distribution<float> dist(0.0f, 1.0f);
        std::vector<float> band(static_cast<size_t>(stride) * h, 1e6f), out(band.size(), -1.0f);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                band[y * stride + x] = dist(rng) * (x * 7 / w % 2 ? 8.0f : 1.5f) + (y % 9 == 0 ? 6.0f : 0.0f);
        waveletNoiseParts(band.data(), w, h, stride, sigma0, out.data(), stride);

        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
            {
                double est = 1e300;
                for (int r = 1; r <= 4; ++r)
                {
                    double sum = 0.0;
                    for (int j = -r; j <= r; ++j)
                        for (int i = -r; i <= r; ++i)
                        {
                            const double c = band[mirror(y + j, h) * stride + mirror(x + i, w)];
                            sum += c * c;
                        }
                    est = std::min(est, std::max(0.0, sum / ((2 * r + 1) * (2 * r + 1)) - s2));
                }
                const double c = band[y * stride + x];
                const double expected = c * s2 / (est + s2);
                ASSERT_NEAR(out[y * stride + x], expected, 1e-5 * std::fabs(c) + 1e-6) << x << "," << y;
            }
        for (int y = 0; y < h; ++y) // the gap between rows is not written
            for (int x = w; x < stride; ++x)
                ASSERT_EQ(out[y * stride + x], -1.0f);
    }
}

TEST(ZeroMean, LatticeRowAndColumnMeansVanish)
{
    for (const auto& size : Sizes)
    {
        const int w = size[0], h = size[1];
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        Plane p = uniformPlane(w, h, 3u + w, -50.0f, 80.0f);
        zeroMeanLattices(p);
        // Sums of each row and each column, split by the parity of the other coordinate.
        std::vector<double> rows(2 * h), columns(2 * w);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
            {
                rows[2 * y + x % 2] += p.at(x, y);
                columns[2 * x + y % 2] += p.at(x, y);
            }
        for (size_t i = 0; i < rows.size(); ++i)
            ASSERT_NEAR(rows[i] / std::max(1, (w + 1 - int(i % 2)) / 2), 0.0, 1e-4) << "row " << i / 2;
        for (size_t i = 0; i < columns.size(); ++i)
            ASSERT_NEAR(columns[i] / std::max(1, (h + 1 - int(i % 2)) / 2), 0.0, 1e-4) << "column " << i / 2;
    }
    // Row and column offsets that differ per lattice are removed completely.
    Plane p(37, 53);
    for (int y = 0; y < 53; ++y)
        for (int x = 0; x < 37; ++x)
            p.at(x, y) =
                std::sin(0.3f * y + 2.0f * (x % 2)) * 20.0f + std::cos(0.7f * x + (y % 2)) * 9.0f + 5.0f;
    zeroMeanLattices(p);
    EXPECT_LT(dot(p, p), 1e-8 * p.size());
}

TEST(Fft, RoundTripAndAgreesWithNaiveDft)
{
    for (const auto& size : Sizes)
    {
        const int w = size[0], h = size[1];
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const Plane in = gaussianPlane(w, h, 11u + w);
        Spectrum f;
        forwardFft(in, f);
        ASSERT_EQ(f.columns(), w / 2 + 1);
        const std::vector<std::complex<float>> kept(f.data(), f.data() + f.columns() * h);
        Plane back;
        inverseFft(f, back);
        EXPECT_EQ(std::memcmp(kept.data(), f.data(), kept.size() * sizeof kept[0]), 0) << "input was changed";
        for (size_t i = 0; i < back.size(); ++i)
            back.data()[i] /= static_cast<float>(w * h);
        EXPECT_LT(maxAbsDiff(back, in), 1e-5);

        if (w * h > 2500)
            continue;
        double worst = 0.0;
        for (int ky = 0; ky < h; ++ky)
            for (int kx = 0; kx <= w / 2; ++kx)
            {
                std::complex<double> s;
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x)
                        s += static_cast<double>(in.at(x, y)) *
                             std::polar(1.0, -2.0 * Pi * (double(kx) * x / w + double(ky) * y / h));
                worst = std::max(worst, std::abs(s - std::complex<double>(f.row(ky)[kx])));
            }
        EXPECT_LT(worst, 1e-3 * std::sqrt(double(w) * h));
    }
    Plane empty;
    Spectrum f;
    EXPECT_EQ(failureCode([&] { forwardFft(empty, f); }), LUMICREST_NUMERIC_FAILURE);
}

// The same-size PCE from the spectrum against the whole correlation plane:
// odd and even widths (the half spectrum's last column), a height below the
// exclusion square, no pattern, a pattern and a negative one.
TEST(Fft, ZeroShiftPceAgreesWithWholePlane)
{
    const struct
    {
        int w, h;
        float gain;
    } cases[] = {{37, 53, 0.0f}, {100, 64, 0.3f}, {75, 41, -0.2f}, {64, 7, 0.5f}, {12, 40, 0.0f}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
        const Plane a = gaussianPlane(c.w, c.h, 5u + c.w);
        Plane b = gaussianPlane(c.w, c.h, 9u + c.h);
        for (size_t i = 0; i < b.size(); ++i)
            b.data()[i] += c.gain * a.data()[i];
        Spectrum fa, g;
        forwardFft(a, fa);
        forwardFft(b, g);
        for (int i = 0; i < g.columns() * c.h; ++i)
            g.data()[i] = std::conj(fa.data()[i]) * g.data()[i];
        const Peak fast = zeroShiftPce(g);

        const double n = double(c.w) * c.h;
        double total = 0.0, near = 0.0, zero = 0.0;
        for (int sy = 0; sy < c.h; ++sy)
            for (int sx = 0; sx < c.w; ++sx)
            {
                double v = 0.0;
                for (int y = 0; y < c.h; ++y)
                    for (int x = 0; x < c.w; ++x)
                        v += double(a.at(x, y)) * b.at((x + sx) % c.w, (y + sy) % c.h);
                total += v * v;
                const int dx = std::min(sx, c.w - sx), dy = std::min(sy, c.h - sy);
                if (dx <= 5 && (dy <= 5 || c.h < 11))
                    near += v * v;
                if (sx == 0 && sy == 0)
                    zero = v;
            }
        const double pce =
            (zero >= 0 ? 1 : -1) * zero * zero / ((total - near) / (n - 11 * std::min(11, c.h)));
        EXPECT_NEAR(fast.value, zero, 1e-4 * std::sqrt(total));
        EXPECT_NEAR(fast.pce, pce, 1e-4 * std::max(1.0, std::abs(pce)));
    }
}

TEST(Wiener, RemovesPeriodicPatternsKeepsWhiteNoise)
{
    const int w = 256, h = 192;
    const Plane noise = gaussianPlane(w, h, 5u);
    // An isolated peak is diluted by the 9x9 window: its gain is about
    // s2 / (N * power / 81 + s2), s2 the plane's variance (grid included).
    const Plane tile = gaussianPlane(8, 8, 6u, 2.0f);
    Plane grid(w, h), tone(w, h), in(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
        {
            grid.at(x, y) = tile.at(x % 8, y % 8);
            tone.at(x, y) = static_cast<float>(std::cos(2.0 * Pi * (45.0 * x / w + 20.0 * y / h)));
            in.at(x, y) = noise.at(x, y) + grid.at(x, y) + tone.at(x, y);
        }
    Plane out = copyOf(in);
    wienerInDft(out);
    // How much of each component is left in the output (expected: about
    // 0.13 of the grid's harmonics, 0.035 of the tone).
    EXPECT_LT(dot(out, grid) / dot(grid, grid), 0.2);
    EXPECT_LT(std::fabs(dot(out, tone) / dot(tone, tone)), 0.06);
    EXPECT_GT(dot(out, noise) / dot(noise, noise), 0.9);

    Plane white = copyOf(noise);
    wienerInDft(white);
    EXPECT_GT(correlation(white, noise), 0.98);
    EXPECT_GT(dot(white, white) / dot(noise, noise), 0.9);

    Plane flat(37, 29);
    flat.fill(4.0f);
    wienerInDft(flat);
    EXPECT_EQ(dot(flat, flat), 0.0);

    Plane bad = gaussianPlane(40, 30, 9u);
    bad.at(3, 4) = std::nanf("");
    EXPECT_EQ(failureCode([&] { wienerInDft(bad); }), LUMICREST_NUMERIC_NOT_FINITE);
}

TEST(Residual, RecoversMultiplicativePatternAndCombinesLinearly)
{
    const int w = 200, h = 150;
    const Plane k = gaussianPlane(w, h, 21u), other = gaussianPlane(w, h, 22u);
    Plane scene(w, h), rgb[3];
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            scene.at(x, y) = 60.0f + 120.0f * x / w + 30.0f * std::sin(y / 15.0f);
    for (int c = 0; c < 3; ++c)
    {
        const Plane shot = gaussianPlane(w, h, 30u + c, 1.5f);
        rgb[c].reset(w, h);
        for (size_t i = 0; i < scene.size(); ++i)
            rgb[c].data()[i] =
                scene.data()[i] * (0.8f + 0.1f * c) * (1.0f + 0.03f * k.data()[i]) + shot.data()[i];
    }
    Plane ik(w, h), iOther(w, h);
    for (size_t i = 0; i < scene.size(); ++i)
    {
        ik.data()[i] = scene.data()[i] * k.data()[i];
        iOther.data()[i] = scene.data()[i] * other.data()[i];
    }
    const Plane residual = fullResidual(rgb);
    EXPECT_GT(correlation(residual, ik), 0.6);
    EXPECT_LT(std::fabs(correlation(residual, iOther)), 0.05);

    // The combined residual is the grey-weighted sum of the channel residuals.
    Plane combined, channel[3];
    combinedResidual(rgb, 3, 3.0f, combined);
    for (int c = 0; c < 3; ++c)
        channelResidual(rgb[c], 3.0f, channel[c]);
    double worst = 0.0;
    for (size_t i = 0; i < combined.size(); ++i)
    {
        const double sum =
            0.299 * channel[0].data()[i] + 0.587 * channel[1].data()[i] + 0.114 * channel[2].data()[i];
        worst = std::max(worst, std::fabs(sum - combined.data()[i]));
    }
    EXPECT_LT(worst, 1e-4);
}

TEST(Residual, ThreadsGiveBitwiseTheSameResults)
{
    // Sizes no other test uses, and the threads run first: they also race to
    // plan their transforms.
    const int count = 8;
    std::vector<std::vector<Plane>> photos(count);
    for (int t = 0; t < count; ++t)
        for (int c = 0; c < 3; ++c)
            photos[t].push_back(uniformPlane(150 + 17 * t, 90 + 11 * (count - t), 40u + 3 * t + c));
    std::vector<Plane> together(count);
    std::vector<int32_t> codes(count, 0);
    // Two photos per thread, so scratch buffers are reused across sizes.
    inParallel(count, [&](size_t t) {
        codes[t] = failureCode([&] {
            fullResidual(photos[(t + 1) % count].data());
            together[t] = fullResidual(photos[t].data());
        });
    });
    for (int t = 0; t < count; ++t)
    {
        const Plane alone = fullResidual(photos[t].data());
        EXPECT_EQ(codes[t], 0);
        ASSERT_EQ(together[t].size(), alone.size());
        EXPECT_EQ(std::memcmp(together[t].data(), alone.data(), alone.size() * sizeof(float)), 0) << t;
    }
}

TEST(Residual, RejectsBadInput)
{
    Plane rgb[3] = {uniformPlane(40, 30, 1u), uniformPlane(40, 30, 2u), uniformPlane(40, 31, 3u)};
    Plane out;
    EXPECT_EQ(failureCode([&] { combinedResidual(rgb, 2, 3.0f, out); }), LUMICREST_INTERNAL_ERROR);
    EXPECT_EQ(failureCode([&] { combinedResidual(rgb, 3, 3.0f, out); }), LUMICREST_INTERNAL_ERROR);
    EXPECT_EQ(failureCode([&] { channelResidual(rgb[0], 0.0f, out); }), LUMICREST_INVALID_OPTION);
    EXPECT_EQ(failureCode([&] { channelResidual(Plane(), 3.0f, out); }), LUMICREST_INTERNAL_ERROR);
    rgb[1].at(5, 5) = INFINITY;
    EXPECT_EQ(failureCode([&] { channelResidual(rgb[1], 3.0f, out); }), LUMICREST_NUMERIC_NOT_FINITE);
    // In place works: the channel is read completely before the residual is written.
    Plane expected, inPlace = copyOf(rgb[0]);
    channelResidual(rgb[0], 3.0f, expected);
    channelResidual(inPlace, 3.0f, inPlace);
    EXPECT_EQ(maxAbsDiff(inPlace, expected), 0.0);
}

TEST(Resample, KeepsConstantsMapsSizesAndFindsImpliedScales)
{
    // Shrinking, enlarging, odd sizes and a window inside the output.
    struct Case
    {
        int inW, inH, outW, outH, ox, oy;
    };
    for (const Case& c : {Case{101, 67, 81, 54, 0, 0}, Case{64, 48, 32, 24, 0, 0}, Case{33, 17, 41, 21, 0, 0},
                          Case{200, 150, 30, 20, 70, 50}, Case{9, 7, 2, 1, 0, 0}})
    {
        lumicrest::Plane in(c.inW, c.inH);
        in.fill(3.5f);
        lumicrest::Plane out;
        const double sx = c.ox ? 0.7 : static_cast<double>(c.outW) / c.inW;
        const double sy = c.oy ? 0.7 : static_cast<double>(c.outH) / c.inH;
        lumicrest::resamplePlane(in, sx, sy, c.ox, c.oy, c.outW, c.outH, out);
        ASSERT_EQ(out.width(), c.outW);
        ASSERT_EQ(out.height(), c.outH);
        for (size_t i = 0; i < out.size(); ++i)
            ASSERT_NEAR(out.data()[i], 3.5f, 1e-4f) << c.inW << "x" << c.inH << " -> " << c.outW << "x" << c.outH;
    }
    // A ramp keeps its pixel-centre positions: output i sits at (i + 0.5) / s - 0.5.
    lumicrest::Plane ramp(400, 8);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 400; ++x)
            ramp.at(x, y) = static_cast<float>(x);
    lumicrest::Plane half;
    lumicrest::resamplePlane(ramp, 0.5, 1.0, 0, 0, 200, 8, half);
    EXPECT_NEAR(half.at(100, 4), 200.5, 1e-2);

    // Both sides within one pixel of s times K's, in either turn; same size is no scale.
    struct Size
    {
        int photoW, photoH, exif, expected, kWidth, firstTurn;
    };
    for (const Size& c : {Size{800, 601, 1, 1, 800, 0}, Size{801, 599, 1, 1, 801, 0}, Size{800, 602, 1, 0, 0, 0},
                          Size{600, 800, 1, 1, 800, 90}, Size{600, 800, 6, 1, 800, 270}, Size{1000, 750, 1, 0, 0, 0},
                          Size{1250, 937, 3, 1, 1250, 180}, Size{200, 150, 1, 0, 0, 0}})
    {
        lumicrest::ImpliedSize sizes[2];
        const int n = lumicrest::impliedSizes(c.photoW, c.photoH, 1000, 750, c.exif, sizes);
        ASSERT_EQ(n, c.expected) << c.photoW << "x" << c.photoH;
        if (n)
        {
            EXPECT_EQ(sizes[0].kWidth, c.kWidth);
            EXPECT_EQ(sizes[0].orientations[0], c.firstTurn);
        }
    }
}
