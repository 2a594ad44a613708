#include "residual.h"

#include "constants.h"
#include "fft.h"
#include "lumicrest.h"
#include "status.h"
#include "timing.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

namespace lumicrest
{

namespace
{

// db4, the orthogonal Daubechies filter with 4 vanishing moments. Its low-pass
// transfer function is H(w) = sqrt(2) ((1 + e^-iw) / 2)^4 Q(e^-iw), where
// |Q|^2 = sum_{k<4} C(3 + k, k) sin^(2k)(w / 2) makes H power-complementary
// (|H(w)|^2 + |H(w + pi)|^2 = 2) and Q is its minimum-phase spectral factor.
// These are the 8 coefficients of that product.
constexpr double Db4[8] = {
    0.23037781330889650086,  0.71484657055291564709, 0.63088076792985890788, -0.02798376941685985421,
    -0.18703481171909308408, 0.03084138183556076363, 0.03288301166688519974, -0.01059740178506903210,
};

// Single-precision taps: low-pass h, and high-pass by the quadrature mirror
// relation g[n] = (-1)^n h[7 - n], which makes the two filters and their even
// shifts one orthonormal basis.
struct FilterBank
{
    float lo[8];
    float hi[8];
};

constexpr FilterBank makeBank()
{
    FilterBank bank{};
    for (int n = 0; n < 8; ++n)
    {
        bank.lo[n] = static_cast<float>(Db4[n]);
        bank.hi[n] = static_cast<float>((n % 2 == 0 ? 1.0 : -1.0) * Db4[7 - n]);
    }
    return bank;
}

constexpr FilterBank Bank = makeBank();
constexpr float L0 = Bank.lo[0], L1 = Bank.lo[1], L2 = Bank.lo[2], L3 = Bank.lo[3];
constexpr float L4 = Bank.lo[4], L5 = Bank.lo[5], L6 = Bank.lo[6], L7 = Bank.lo[7];
constexpr float H0 = Bank.hi[0], H1 = Bank.hi[1], H2 = Bank.hi[2], H3 = Bank.hi[3];
constexpr float H4 = Bank.hi[4], H5 = Bank.hi[5], H6 = Bank.hi[6], H7 = Bank.hi[7];

constexpr int PadMultiple = 1 << WaveletLevels;
constexpr int WindowRadius = 4; // the largest window is 9 x 9

// Half-sample symmetric extension (... 1 0 | 0 1 ... n-1 | n-1 n-2 ...),
// repeated as often as needed, so it works for sizes smaller than the reach.
inline int reflect(int i, int n)
{
    const int period = 2 * n;
    int r = i % period;
    if (r < 0)
        r += period;
    return r < n ? r : period - 1 - r;
}

inline int wrap(int i, int n)
{
    const int r = i % n;
    return r < 0 ? r + n : r;
}

// Aligned scratch that only grows, so repeated calls on same-size photos
// allocate nothing.
class Scratch
{
public:
    float* get(size_t count)
    {
        if (!m_data || count > m_capacity)
        {
            m_data.reset();
            m_capacity = 0;
            m_data = allocateFloats(count);
            m_capacity = count;
        }
        return m_data.get();
    }
    void release()
    {
        m_data.reset();
        m_capacity = 0;
    }

private:
    std::unique_ptr<float[], AlignedFree> m_data;
    size_t m_capacity = 0;
};

struct Workspace
{
    Scratch coeffs;           // one padded plane
    Scratch accum;            // one padded plane; also the Wiener filter's |F|^2 / N
    Scratch approxA, approxB; // approximations between levels
    Scratch lineLo, lineHi;   // analysis: one vertically filtered row pair
    Scratch phaseA, phaseB;   // even / odd samples (analysis), extended bands (synthesis)
    Scratch phaseC, phaseD;
    Scratch lines;      // synthesis: 4 low and 4 high horizontally synthesised rows
    Scratch zeros;      // a row of zero approximation
    Scratch sums, gain; // local-variance estimate of one row
    std::vector<const float*> rows;
    std::vector<double> lineSums;
    Spectrum spectrum;

    void release()
    {
        for (Scratch* s : {&coeffs, &accum, &approxA, &approxB, &lineLo, &lineHi, &phaseA, &phaseB, &phaseC,
                           &phaseD, &lines, &zeros, &sums, &gain})
            s->release();
        rows = std::vector<const float*>();
        lineSums = std::vector<double>();
        spectrum = Spectrum();
    }
};

Workspace& workspace()
{
    thread_local Workspace ws;
    return ws;
}

// ---------------------------------------------------------------------------
// Wavelet transform. Periodic on the padded plane; each level is one fused
// pass: a vertical filter over whole rows (vectorises across x) produces a
// low and a high row, which are then filtered horizontally in polyphase form
// (even and odd samples split apart, so the taps read contiguous memory).

// lo/hi[x] = sum_n h/g[n] * r[n][x]
void verticalAnalysis(const float* const* r, int width, float* __restrict lo, float* __restrict hi)
{
    const float* __restrict r0 = r[0];
    const float* __restrict r1 = r[1];
    const float* __restrict r2 = r[2];
    const float* __restrict r3 = r[3];
    const float* __restrict r4 = r[4];
    const float* __restrict r5 = r[5];
    const float* __restrict r6 = r[6];
    const float* __restrict r7 = r[7];
    for (int x = 0; x < width; ++x)
    {
        const float a0 = r0[x], a1 = r1[x], a2 = r2[x], a3 = r3[x];
        const float a4 = r4[x], a5 = r5[x], a6 = r6[x], a7 = r7[x];
        lo[x] = L0 * a0 + L1 * a1 + L2 * a2 + L3 * a3 + L4 * a4 + L5 * a5 + L6 * a6 + L7 * a7;
        hi[x] = H0 * a0 + H1 * a1 + H2 * a2 + H3 * a3 + H4 * a4 + H5 * a5 + H6 * a6 + H7 * a7;
    }
}

// approx/detail[k] = sum_t h/g[t] * line[(2k + t) mod n], written as taps on
// the even (e) and odd (o) samples: sum_j h[2j] e[k + j] + h[2j + 1] o[k + j].
void horizontalAnalysis(const float* __restrict line, int n, float* __restrict approx,
                        float* __restrict detail, float* __restrict e, float* __restrict o)
{
    const int m = n / 2;
    for (int k = 0; k < m; ++k)
    {
        e[k] = line[2 * k];
        o[k] = line[2 * k + 1];
    }
    for (int j = 0; j < 3; ++j)
    {
        e[m + j] = e[j % m];
        o[m + j] = o[j % m];
    }
    for (int k = 0; k < m; ++k)
    {
        const float e0 = e[k], e1 = e[k + 1], e2 = e[k + 2], e3 = e[k + 3];
        const float o0 = o[k], o1 = o[k + 1], o2 = o[k + 2], o3 = o[k + 3];
        approx[k] = L0 * e0 + L1 * o0 + L2 * e1 + L3 * o1 + L4 * e2 + L5 * o2 + L6 * e3 + L7 * o3;
        detail[k] = H0 * e0 + H1 * o0 + H2 * e1 + H3 * o1 + H4 * e2 + H5 * o2 + H6 * e3 + H7 * o3;
    }
}

// One analysis level of an nw x nh input given as row pointers, of which only
// the first `valid` columns are read: the rest is their mirror image (the
// padding of the first level; a vertical filter commutes with mirroring
// columns). The approximation goes to `approx`, the details into the level's
// quadrants of `det`.
void analyseLevel(const float* const* rows, int valid, int nw, int nh, float* approx, size_t approxStride,
                  float* det, size_t detStride, Workspace& ws)
{
    const int mw = nw / 2;
    const int mh = nh / 2;
    float* lo = ws.lineLo.get(nw);
    float* hi = ws.lineHi.get(nw);
    float* e = ws.phaseA.get(mw + 3);
    float* o = ws.phaseB.get(mw + 3);
    for (int k = 0; k < mh; ++k)
    {
        const float* r[8];
        for (int n = 0; n < 8; ++n)
            r[n] = rows[wrap(2 * k + n, nh)];
        verticalAnalysis(r, valid, lo, hi);
        for (int x = valid; x < nw; ++x)
        {
            lo[x] = lo[reflect(x, valid)];
            hi[x] = hi[reflect(x, valid)];
        }
        horizontalAnalysis(lo, nw, approx + k * approxStride, det + k * detStride + mw, e, o);
        float* lower = det + (mh + k) * detStride;
        horizontalAnalysis(hi, nw, lower, lower + mw, e, o);
    }
}

// Forward transform of `in` mirrored to pw x ph, into `coeffs` (stride pw).
void analyse(const Plane& in, float* coeffs, int pw, int ph, Workspace& ws)
{
    std::vector<const float*>& rows = ws.rows;
    rows.resize(static_cast<size_t>(ph));
    for (int y = 0; y < ph; ++y)
        rows[y] = in.row(reflect(y, in.height()));
    // Approximations alternate between two buffers: odd levels write A (the
    // first needs a quarter plane), even levels B.
    float* bufA = ws.approxA.get(static_cast<size_t>(pw / 2) * (ph / 2));
    float* bufB = ws.approxB.get(static_cast<size_t>(pw / 4) * (ph / 4));
    int valid = in.width();
    for (int level = 1; level <= WaveletLevels; ++level)
    {
        const int nw = pw >> (level - 1);
        const int nh = ph >> (level - 1);
        const bool last = level == WaveletLevels;
        float* approx = last ? coeffs : (level % 2 == 1 ? bufA : bufB);
        const size_t approxStride = last ? static_cast<size_t>(pw) : static_cast<size_t>(nw / 2);
        analyseLevel(rows.data(), valid, nw, nh, approx, approxStride, coeffs, static_cast<size_t>(pw), ws);
        if (!last)
        {
            rows.resize(static_cast<size_t>(nh / 2));
            for (int y = 0; y < nh / 2; ++y)
                rows[y] = approx + y * approxStride;
            valid = nw / 2;
        }
    }
}

// One band pair back to a row: x[2p] = sum_j h[2j] a[p - j] + g[2j] d[p - j],
// x[2p + 1] likewise with the odd taps; indices wrap, so a and d are first
// copied with 3 wrapped samples in front.
void horizontalSynthesis(const float* a, const float* d, int m, float* __restrict out, float* __restrict ae,
                         float* __restrict de, float* __restrict even, float* __restrict odd)
{
    for (int i = 0; i < 3; ++i)
    {
        ae[i] = a[wrap(i - 3, m)];
        de[i] = d[wrap(i - 3, m)];
    }
    std::memcpy(ae + 3, a, sizeof(float) * static_cast<size_t>(m));
    std::memcpy(de + 3, d, sizeof(float) * static_cast<size_t>(m));
    for (int p = 0; p < m; ++p)
    {
        const float a0 = ae[p + 3], a1 = ae[p + 2], a2 = ae[p + 1], a3 = ae[p];
        const float d0 = de[p + 3], d1 = de[p + 2], d2 = de[p + 1], d3 = de[p];
        even[p] = L0 * a0 + H0 * d0 + L2 * a1 + H2 * d1 + L4 * a2 + H4 * d2 + L6 * a3 + H6 * d3;
        odd[p] = L1 * a0 + H1 * d0 + L3 * a1 + H3 * d1 + L5 * a2 + H5 * d2 + L7 * a3 + H7 * d3;
    }
    for (int p = 0; p < m; ++p)
    {
        out[2 * p] = even[p];
        out[2 * p + 1] = odd[p];
    }
}

// The vertical counterpart over whole rows: low rows lo[j] = L[p - j] and
// high rows hi[j] = H[p - j] give output rows 2p (even taps) and 2p + 1.
void verticalSynthesis(const float* const* lo, const float* const* hi, int width, float* __restrict evenRow,
                       float* __restrict oddRow)
{
    const float* __restrict l0 = lo[0];
    const float* __restrict l1 = lo[1];
    const float* __restrict l2 = lo[2];
    const float* __restrict l3 = lo[3];
    const float* __restrict h0 = hi[0];
    const float* __restrict h1 = hi[1];
    const float* __restrict h2 = hi[2];
    const float* __restrict h3 = hi[3];
    for (int x = 0; x < width; ++x)
        evenRow[x] = L0 * l0[x] + H0 * h0[x] + L2 * l1[x] + H2 * h1[x] + L4 * l2[x] + H4 * h2[x] +
                     L6 * l3[x] + H6 * h3[x];
    if (!oddRow)
        return;
    for (int x = 0; x < width; ++x)
        oddRow[x] = L1 * l0[x] + H1 * h0[x] + L3 * l1[x] + H3 * h1[x] + L5 * l2[x] + H5 * h2[x] + L7 * l3[x] +
                    H7 * h3[x];
}

// Four horizontally synthesised rows of one half (low or high) of a level,
// kept while the vertical filter slides over them, so each is made once.
class LineCache
{
public:
    LineCache(float* storage, int width) : m_storage(storage), m_width(width) {}

    template <class Make> const float* get(int index, const int (&needed)[4], Make&& make)
    {
        for (int s = 0; s < 4; ++s)
            if (m_tags[s] == index)
                return line(s);
        for (int s = 0; s < 4; ++s)
        {
            if (std::find(std::begin(needed), std::end(needed), m_tags[s]) != std::end(needed))
                continue;
            m_tags[s] = index;
            make(index, line(s));
            return line(s);
        }
        return nullptr; // unreachable: 4 slots, at most 4 rows needed
    }

private:
    float* line(int slot) { return m_storage + static_cast<size_t>(slot) * m_width; }

    float* m_storage;
    int m_width;
    int m_tags[4] = {-1, -1, -1, -1};
};

// One synthesis level: approximation rows (approxStride 0 repeats one row of
// zeros) and the level's details in `det` give the nw x nh input of the level,
// of which the top-left outW x outH is written to `out`.
void synthesiseLevel(const float* approx, size_t approxStride, const float* det, size_t detStride, int nw,
                     int nh, float* out, size_t outStride, int outW, int outH, Workspace& ws)
{
    const int mw = nw / 2;
    const int mh = nh / 2;
    float* storage = ws.lines.get(static_cast<size_t>(8) * nw);
    float* ae = ws.phaseA.get(mw + 3);
    float* de = ws.phaseB.get(mw + 3);
    float* even = ws.phaseC.get(mw);
    float* odd = ws.phaseD.get(mw);
    LineCache lowCache(storage, nw);
    LineCache highCache(storage + static_cast<size_t>(4) * nw, nw);
    const auto makeLow = [&](int i, float* line) {
        horizontalSynthesis(approx + i * approxStride, det + i * detStride + mw, mw, line, ae, de, even, odd);
    };
    const auto makeHigh = [&](int i, float* line)
    {
        const float* row = det + (mh + i) * detStride;
        horizontalSynthesis(row, row + mw, mw, line, ae, de, even, odd);
    };
    for (int p = 0; p < mh && 2 * p < outH; ++p)
    {
        int needed[4];
        for (int j = 0; j < 4; ++j)
            needed[j] = wrap(p - j, mh);
        const float* lo[4];
        const float* hi[4];
        for (int j = 0; j < 4; ++j)
        {
            lo[j] = lowCache.get(needed[j], needed, makeLow);
            hi[j] = highCache.get(needed[j], needed, makeHigh);
        }
        float* oddRow = 2 * p + 1 < outH ? out + (2 * p + 1) * outStride : nullptr;
        verticalSynthesis(lo, hi, outW, out + 2 * p * outStride, oddRow);
    }
}

// Inverse of `analyse` from `coeffs` (stride pw), cropped to outW x outH.
void synthesise(const float* coeffs, int pw, int ph, bool zeroApprox, float* out, size_t outStride, int outW,
                int outH, Workspace& ws)
{
    // Level l > 1 writes its output (the approximation of level l - 1) to A
    // when l is even, B when odd; A must hold a quarter plane, B a sixteenth.
    float* bufA = ws.approxA.get(static_cast<size_t>(pw / 2) * (ph / 2));
    float* bufB = ws.approxB.get(static_cast<size_t>(pw / 4) * (ph / 4));
    const int coarsest = pw >> WaveletLevels;
    float* zeros = ws.zeros.get(coarsest);
    std::fill(zeros, zeros + coarsest, 0.0f);
    const float* approx = zeroApprox ? zeros : coeffs;
    size_t approxStride = zeroApprox ? 0 : static_cast<size_t>(pw);
    for (int level = WaveletLevels; level >= 1; --level)
    {
        const int nw = pw >> (level - 1);
        const int nh = ph >> (level - 1);
        if (level == 1)
        {
            synthesiseLevel(approx, approxStride, coeffs, pw, nw, nh, out, outStride, outW, outH, ws);
            break;
        }
        float* dst = level % 2 == 0 ? bufA : bufB;
        synthesiseLevel(approx, approxStride, coeffs, pw, nw, nh, dst, nw, nw, nh, ws);
        approx = dst;
        approxStride = static_cast<size_t>(nw);
    }
}

// ---------------------------------------------------------------------------
// Local-variance denoiser. Windows are at most 9 wide, so the box sums are
// built directly: per row, the vertical sums of 3, 5, 7 and 9 squares grow
// from each other by two rows at a time, then each window adds its 3..9
// neighbouring vertical sums. That is a fixed 28 additions per coefficient for
// all four windows, vectorised over whole rows, and unlike running sums in
// float it cannot drift after a strong edge (once a running sum has carried
// the squares of coarse-level edge coefficients, ~10^7, its rounding error
// is of the order of the ~10^3 window sums of a flat area).

// v1..v4[x] = sum of squares over rows y-1..y+1, y-2..y+2, ... (r[4] is row y).
template <bool Squared>
void verticalSums(const float* const* r, int width, float* __restrict v1, float* __restrict v2,
                  float* __restrict v3, float* __restrict v4)
{
    const float* __restrict r0 = r[0];
    const float* __restrict r1 = r[1];
    const float* __restrict r2 = r[2];
    const float* __restrict r3 = r[3];
    const float* __restrict r4 = r[4];
    const float* __restrict r5 = r[5];
    const float* __restrict r6 = r[6];
    const float* __restrict r7 = r[7];
    const float* __restrict r8 = r[8];
    for (int x = 0; x < width; ++x)
    {
        const auto sq = [](float c) { return Squared ? c : c * c; };
        const float s1 = sq(r3[x]) + sq(r4[x]) + sq(r5[x]);
        const float s2 = s1 + (sq(r2[x]) + sq(r6[x]));
        const float s3 = s2 + (sq(r1[x]) + sq(r7[x]));
        const float s4 = s3 + (sq(r0[x]) + sq(r8[x]));
        v1[x] = s1;
        v2[x] = s2;
        v3[x] = s3;
        v4[x] = s4;
    }
}

// gain[x] = s2 / (est + s2), est the minimum over the windows of
// max(0, mean square - s2); taken as max(0, smallest mean - s2), which is the
// same because x -> max(0, x - s2) is monotone.
void gainRow(const float* __restrict v1, const float* __restrict v2, const float* __restrict v3,
             const float* __restrict v4, int width, float s2, float* __restrict gain)
{
    for (int x = 0; x < width; ++x)
    {
        const float a3 = v1[x - 1] + v1[x] + v1[x + 1];
        const float a5 = v2[x - 2] + v2[x - 1] + v2[x] + v2[x + 1] + v2[x + 2];
        const float a7 = v3[x - 3] + v3[x - 2] + v3[x - 1] + v3[x] + v3[x + 1] + v3[x + 2] + v3[x + 3];
        const float a9 = v4[x - 4] + v4[x - 3] + v4[x - 2] + v4[x - 1] + v4[x] + v4[x + 1] + v4[x + 2] +
                         v4[x + 3] + v4[x + 4];
        float m = a3 * (1.0f / 9.0f);
        const float m5 = a5 * (1.0f / 25.0f);
        const float m7 = a7 * (1.0f / 49.0f);
        const float m9 = a9 * (1.0f / 81.0f);
        m = m5 < m ? m5 : m;
        m = m7 < m ? m7 : m;
        m = m9 < m ? m9 : m;
        float est = m - s2;
        est = est > 0.0f ? est : 0.0f;
        gain[x] = s2 / (est + s2);
    }
}

// Calls apply(y, gain) for each row of a width x height band with the Wiener
// gain of every coefficient. `Squared`: the band already holds squares.
// Window borders use the half-sample mirror, like the image padding.
template <bool Squared, class Apply>
void localGain(const float* c, int width, int height, size_t stride, float s2, Workspace& ws, Apply&& apply)
{
    const int span = width + 2 * WindowRadius;
    float* sums = ws.sums.get(static_cast<size_t>(4) * span);
    float* v[4];
    for (int i = 0; i < 4; ++i)
        v[i] = sums + static_cast<size_t>(i) * span + WindowRadius;
    float* gain = ws.gain.get(width);
    for (int y = 0; y < height; ++y)
    {
        const float* r[9];
        for (int i = 0; i < 9; ++i)
            r[i] = c + reflect(y + i - WindowRadius, height) * stride;
        verticalSums<Squared>(r, width, v[0], v[1], v[2], v[3]);
        for (float* line : v)
            for (int i = 1; i <= WindowRadius; ++i)
            {
                line[-i] = line[reflect(-i, width)];
                line[width - 1 + i] = line[reflect(width - 1 + i, width)];
            }
        gainRow(v[0], v[1], v[2], v[3], width, s2, gain);
        apply(y, static_cast<const float*>(gain));
    }
}

// out[x] (+)= weight * c[x] * gain[x]
void storeNoise(const float* __restrict c, const float* __restrict gain, int width, float weight,
                float* __restrict out)
{
    for (int x = 0; x < width; ++x)
        out[x] = weight * (c[x] * gain[x]);
}

void addNoise(const float* __restrict c, const float* __restrict gain, int width, float weight,
              float* __restrict out)
{
    for (int x = 0; x < width; ++x)
        out[x] += weight * (c[x] * gain[x]);
}

// Writes (first channel) or adds weight x the noise part of every detail
// coefficient at the same place of `accum`; `coeffs` stays as it is.
void denoiseDetails(const float* coeffs, int pw, int ph, float s2, float weight, bool first, float* accum,
                    Workspace& ws)
{
    const size_t stride = static_cast<size_t>(pw);
    for (int level = 1; level <= WaveletLevels; ++level)
    {
        const int bw = pw >> level;
        const int bh = ph >> level;
        const size_t offsets[3] = {static_cast<size_t>(bw), bh * stride, bh * stride + bw};
        for (size_t offset : offsets)
        {
            const float* band = coeffs + offset;
            float* target = accum + offset;
            localGain<false>(band, bw, bh, stride, s2, ws,
                             [&](int y, const float* gain)
                             {
                                 if (first)
                                     storeNoise(band + y * stride, gain, bw, weight, target + y * stride);
                                 else
                                     addNoise(band + y * stride, gain, bw, weight, target + y * stride);
                             });
        }
    }
}

// NaN or infinity anywhere? Tests the exponent bits, which vectorises (a float
// comparison reduction would not without fast-math).
bool allFinite(const float* p, size_t n)
{
    uint32_t flags = 0;
    for (size_t i = 0; i < n; ++i)
    {
        uint32_t bits;
        std::memcpy(&bits, p + i, sizeof bits);
        // An all-ones exponent carries into the sign bit.
        flags |= (bits & 0x7f800000u) + 0x00800000u;
    }
    return (flags & 0x80000000u) == 0;
}

void requireSigma(float sigma0)
{
    if (!(sigma0 > 0.0f) || !std::isfinite(sigma0))
        fail(LUMICREST_INVALID_OPTION, "wavelet noise level must be positive");
}

// Sum and sum of squares of a row, in double.
void rowMoments(const float* row, int width, double& sum, double& squares)
{
    double s[4] = {}, q[4] = {};
    int x = 0;
    for (; x + 4 <= width; x += 4)
        for (int j = 0; j < 4; ++j)
        {
            const double v = row[x + j];
            s[j] += v;
            q[j] += v * v;
        }
    for (; x < width; ++x)
    {
        const double v = row[x];
        s[0] += v;
        q[0] += v * v;
    }
    sum += (s[0] + s[1]) + (s[2] + s[3]);
    squares += (q[0] + q[1]) + (q[2] + q[3]);
}

} // namespace

const double* db4LowPass()
{
    return Db4;
}

int waveletPaddedSize(int n)
{
    return (n + PadMultiple - 1) / PadMultiple * PadMultiple;
}

void waveletForward(const Plane& in, Plane& coeffs)
{
    StageTimer timer(Stage::Wavelet);
    if (in.empty() || &in == &coeffs)
        fail(LUMICREST_INTERNAL_ERROR, "wavelet transform of an empty plane, or in place");
    const int pw = waveletPaddedSize(in.width());
    const int ph = waveletPaddedSize(in.height());
    coeffs.reset(pw, ph);
    analyse(in, coeffs.data(), pw, ph, workspace());
}

void waveletInverse(const Plane& coeffs, int width, int height, Plane& out)
{
    StageTimer timer(Stage::Wavelet);
    const int pw = coeffs.width();
    const int ph = coeffs.height();
    if (width <= 0 || height <= 0 || waveletPaddedSize(width) != pw || waveletPaddedSize(height) != ph ||
        &coeffs == &out)
        fail(LUMICREST_INTERNAL_ERROR, "wavelet coefficients do not fit the size");
    out.reset(width, height);
    synthesise(coeffs.data(), pw, ph, false, out.data(), static_cast<size_t>(width), width, height,
               workspace());
}

void waveletNoiseParts(const float* coeffs, int width, int height, size_t stride, float sigma0, float* out,
                       size_t outStride)
{
    requireSigma(sigma0);
    if (width <= 0 || height <= 0)
        return;
    localGain<false>(coeffs, width, height, stride, sigma0 * sigma0, workspace(),
                     [&](int y, const float* gain)
                     { storeNoise(coeffs + y * stride, gain, width, 1.0f, out + y * outStride); });
}

void combinedResidual(const Plane* channels, int count, float sigma0, Plane& residual)
{
    StageTimer timer(Stage::Wavelet);
    if (!channels || (count != 1 && count != 3))
        fail(LUMICREST_INTERNAL_ERROR, "residual needs 1 or 3 channels");
    requireSigma(sigma0);
    const int width = channels[0].width();
    const int height = channels[0].height();
    if (width <= 0 || height <= 0)
        fail(LUMICREST_INTERNAL_ERROR, "residual of an empty plane");
    for (int c = 1; c < count; ++c)
        if (channels[c].width() != width || channels[c].height() != height)
            fail(LUMICREST_INTERNAL_ERROR, "channels differ in size");

    const float grey[3] = {constants::GreyR, constants::GreyG, constants::GreyB};
    Workspace& ws = workspace();
    const int pw = waveletPaddedSize(width);
    const int ph = waveletPaddedSize(height);
    const size_t padded = static_cast<size_t>(pw) * static_cast<size_t>(ph);
    float* coeffs = ws.coeffs.get(padded);
    float* accum = ws.accum.get(padded);
    const float s2 = sigma0 * sigma0;
    for (int c = 0; c < count; ++c)
    {
        analyse(channels[c], coeffs, pw, ph, ws);
        denoiseDetails(coeffs, pw, ph, s2, count == 1 ? 1.0f : grey[c], c == 0, accum, ws);
    }
    // `residual` may be one of the channels: they are no longer read.
    residual.reset(width, height);
    synthesise(accum, pw, ph, true, residual.data(), static_cast<size_t>(width), width, height, ws);
    // The coefficients' plane goes back to the pool, where the spectra that
    // follow in a match can take it instead of faulting in a new one.
    ws.coeffs.release();
    if (!allFinite(residual.data(), residual.size()))
        fail(LUMICREST_NUMERIC_NOT_FINITE, "noise residual is not finite");
}

void channelResidual(const Plane& channel, float sigma0, Plane& residual)
{
    combinedResidual(&channel, 1, sigma0, residual);
}

// Counted with the Wiener stage: both clean the residual of patterns that are
// not the sensor's.
void zeroMeanLattices(Plane& plane)
{
    StageTimer timer(Stage::ZeroMean);
    const int width = plane.width();
    const int height = plane.height();
    if (plane.empty())
        return;
    std::vector<double>& sums = workspace().lineSums;
    sums.assign(static_cast<size_t>(width), 0.0);
    float* means = workspace().gain.get(static_cast<size_t>(width));

    // Column means, per row parity; a column's parity is its own.
    for (int parity = 0; parity < 2 && parity < height; ++parity)
    {
        std::fill(sums.begin(), sums.end(), 0.0);
        double* __restrict s = sums.data();
        int rows = 0;
        for (int y = parity; y < height; y += 2, ++rows)
        {
            const float* __restrict row = plane.row(y);
            for (int x = 0; x < width; ++x)
                s[x] += row[x];
        }
        for (int x = 0; x < width; ++x)
            means[x] = static_cast<float>(s[x] / rows);
        for (int y = parity; y < height; y += 2)
        {
            float* __restrict row = plane.row(y);
            for (int x = 0; x < width; ++x)
                row[x] -= means[x];
        }
    }
    // Row means, per column parity.
    const int evenCount = (width + 1) / 2;
    const int oddCount = width / 2;
    for (int y = 0; y < height; ++y)
    {
        float* row = plane.row(y);
        double even[2] = {}, odd[2] = {};
        int x = 0;
        for (; x + 4 <= width; x += 4)
        {
            even[0] += row[x];
            odd[0] += row[x + 1];
            even[1] += row[x + 2];
            odd[1] += row[x + 3];
        }
        for (; x < width; ++x)
            (x % 2 == 0 ? even[0] : odd[0]) += row[x];
        const float evenMean = static_cast<float>((even[0] + even[1]) / evenCount);
        const float oddMean = oddCount > 0 ? static_cast<float>((odd[0] + odd[1]) / oddCount) : 0.0f;
        for (x = 0; x + 2 <= width; x += 2)
        {
            row[x] -= evenMean;
            row[x + 1] -= oddMean;
        }
        if (x < width)
            row[x] -= evenMean;
    }
}

void wienerSpectrum(const Plane& plane, Spectrum& spectrum)
{
    if (plane.empty())
    {
        spectrum.reset(0, 0);
        return;
    }
    const int width = plane.width();
    const int height = plane.height();
    const double n = static_cast<double>(plane.size());
    Workspace& ws = workspace();

    double variance = 0.0;
    {
        StageTimer timer(Stage::Wiener);
        double sum = 0.0, squares = 0.0;
        for (int y = 0; y < height; ++y)
            rowMoments(plane.row(y), width, sum, squares);
        if (!std::isfinite(sum) || !std::isfinite(squares))
            fail(LUMICREST_NUMERIC_NOT_FINITE, "residual is not finite");
        if (n > 1.0)
            variance = std::max(0.0, (squares - sum * sum / n) / (n - 1.0));
        // No variance means no noise to keep: what is left (a constant) is all
        // pattern, and 0 / 0 gains are avoided.
        if (!(static_cast<float>(variance) > 0.0f))
        {
            spectrum.reset(width, height);
            std::fill(spectrum.data(), spectrum.data() + static_cast<size_t>(spectrum.columns()) * height,
                      std::complex<float>());
            return;
        }
    }

    forwardFft(plane, spectrum);
    {
        StageTimer timer(Stage::Wiener);
        // Only A^2 = |F|^2 / N enters the variance estimate, and the factor
        // A_noise / A is the gain itself, so |F| is never formed; where A = 0,
        // F = 0 and the product is 0 as well.
        const int columns = spectrum.columns();
        const float scale = static_cast<float>(1.0 / n);
        // Reuses the wavelet accumulator's memory: it is free between residuals.
        float* power = ws.accum.get(static_cast<size_t>(columns) * height);
        for (int y = 0; y < height; ++y)
        {
            const float* __restrict f = reinterpret_cast<const float*>(spectrum.row(y));
            float* __restrict p = power + static_cast<size_t>(y) * columns;
            for (int x = 0; x < columns; ++x)
                p[x] = (f[2 * x] * f[2 * x] + f[2 * x + 1] * f[2 * x + 1]) * scale;
        }
        // The half spectrum's borders are mirrored like the wavelet bands'.
        localGain<true>(power, columns, height, static_cast<size_t>(columns), static_cast<float>(variance),
                        ws,
                        [&](int y, const float* __restrict gain)
                        {
                            float* __restrict f = reinterpret_cast<float*>(spectrum.row(y));
                            for (int x = 0; x < columns; ++x)
                            {
                                f[2 * x] *= gain[x];
                                f[2 * x + 1] *= gain[x];
                            }
                        });
        if (!allFinite(reinterpret_cast<const float*>(spectrum.data()),
                       2 * static_cast<size_t>(columns) * height))
            fail(LUMICREST_NUMERIC_NOT_FINITE, "Wiener-filtered residual is not finite");
    }
}

void wienerInDft(Plane& plane)
{
    if (plane.empty())
        return;
    Spectrum& spectrum = workspace().spectrum;
    wienerSpectrum(plane, spectrum);
    inverseFftDestructive(spectrum, plane);
    {
        StageTimer timer(Stage::Wiener);
        const float scale = static_cast<float>(1.0 / static_cast<double>(plane.size()));
        float* __restrict p = plane.data();
        for (size_t i = 0, count = plane.size(); i < count; ++i)
            p[i] *= scale;
        if (!allFinite(plane.data(), plane.size()))
            fail(LUMICREST_NUMERIC_NOT_FINITE, "Wiener-filtered residual is not finite");
    }
}

void releaseResidualScratch()
{
    workspace().release();
    releaseFftScratch();
}

} // namespace lumicrest
