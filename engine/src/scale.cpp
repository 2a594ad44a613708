#include "scale.h"

#include "budget.h"
#include "constants.h"
#include "fft.h"
#include "pixelops.h"
#include "status.h"
#include "timing.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace lumicrest
{

namespace
{

constexpr double Pi = 3.14159265358979323846;
constexpr int LanczosLobes = 3;

double lanczos(double x)
{
    x = std::fabs(x);
    if (x < 1e-9)
        return 1.0;
    if (x >= LanczosLobes)
        return 0.0;
    const double px = Pi * x;
    return LanczosLobes * std::sin(px) * std::sin(px / LanczosLobes) / (px * px);
}

// The taps of one axis: for each output sample its first input index and
// normalised weights, borders folded onto the edge sample.
struct Taps
{
    int span = 0;
    std::vector<int> first;
    std::vector<float> weights; // span per output sample
};

Taps axisTaps(int inN, double s, int offset, int outN)
{
    const double stretch = s < 1.0 ? 1.0 / s : 1.0;
    const double support = LanczosLobes * stretch;
    Taps t;
    t.span = static_cast<int>(std::ceil(2.0 * support)) + 1;
    t.first.resize(static_cast<size_t>(outN));
    t.weights.assign(static_cast<size_t>(outN) * t.span, 0.0f);
    std::vector<double> w(static_cast<size_t>(t.span));
    for (int i = 0; i < outN; ++i)
    {
        const double centre = (offset + i + 0.5) / s - 0.5;
        const int lo = static_cast<int>(std::floor(centre - support)) + 1;
        double sum = 0.0;
        for (int k = 0; k < t.span; ++k)
        {
            w[k] = lanczos((lo + k - centre) / stretch);
            sum += w[k];
        }
        // Indices outside the plane repeat the edge: fold their weight onto it,
        // so each output sample reads a contiguous run of inputs.
        const int first = std::clamp(lo, 0, std::max(0, inN - t.span));
        float* out = &t.weights[static_cast<size_t>(i) * t.span];
        for (int k = 0; k < t.span; ++k)
        {
            const int j = std::clamp(lo + k, 0, inN - 1);
            const int slot = std::clamp(j - first, 0, t.span - 1);
            out[slot] += static_cast<float>(w[k] / sum);
        }
        t.first[i] = first;
    }
    return t;
}

// Resampled K and its spectrum for one implied size, kept with the fingerprint.
struct ScaledEntry
{
    int kWidth = 0;
    int kHeight = 0;
    Plane k;
    Spectrum spectrum; // of k zero-padded to a smooth size
    uint64_t bytes = 0;
};

} // namespace

// Resampled fingerprints by size, most recent first; their bytes are charged to
// the memory budget while they are held.
struct ScaledKCache
{
    std::mutex mutex;
    std::vector<std::shared_ptr<const ScaledEntry>> entries;
    ~ScaledKCache()
    {
        for (const auto& e : entries)
            MemoryBudget::instance().discharge(e->bytes);
    }
};

void ScaledKCacheDeleter::operator()(ScaledKCache* cache) const noexcept
{
    delete cache;
}

ScaleSearch scaleSearchFromEnvironment()
{
    const char* text = std::getenv("LUMICREST_SCALE_SEARCH");
    // The full search is asked for by name only: on real photos it has not yet
    // found what the implied scale and the crop search miss, at 5-10 times a match.
    if (!text || !*text || std::strcmp(text, "sized") == 0)
        return ScaleSearch::Sized;
    if (std::strcmp(text, "full") == 0)
        return ScaleSearch::Full;
    if (std::strcmp(text, "off") == 0)
        return ScaleSearch::Off;
    fail(LUMICREST_INVALID_OPTION, "LUMICREST_SCALE_SEARCH must be full, sized or off");
}

int impliedSizes(int photoW, int photoH, int fpW, int fpH, int exifOrientation, ImpliedSize out[2])
{
    int order[4];
    // Every turn "fits" a huge fingerprint: only the order of the hints is wanted.
    const int n = candidateOrientations(1, 1, 2, 2, exifOrientation, order);
    int count = 0;
    bool seen[2] = {false, false};
    for (int i = 0; i < n; ++i)
    {
        const bool turned = order[i] == 90 || order[i] == 270;
        if (seen[turned])
            continue;
        seen[turned] = true;
        const int w = turned ? photoH : photoW;
        const int h = turned ? photoW : photoH;
        if (w == fpW && h == fpH)
            continue; // same size: no resampling
        // Some s puts both sides within a pixel of s times K's.
        const double lo = std::max((w - 1.0) / fpW, (h - 1.0) / fpH);
        const double hi = std::min((w + 1.0) / fpW, (h + 1.0) / fpH);
        const double s = 0.5 * (static_cast<double>(w) / fpW + static_cast<double>(h) / fpH);
        if (lo > hi || s < constants::MinScale || s > constants::MaxImpliedScale)
            continue;
        ImpliedSize& size = out[count++];
        size.kWidth = w;
        size.kHeight = h;
        size.orientations[0] = order[i];
        size.orientations[1] = (order[i] + 180) % 360;
    }
    return count;
}

void resamplePlane(const Plane& in, double sx, double sy, int ox, int oy, int outW, int outH, Plane& out)
{
    StageTimer timer(Stage::Correlation);
    const Taps tx = axisTaps(in.width(), sx, ox, outW);
    const Taps ty = axisTaps(in.height(), sy, oy, outH);
    // Only the input rows the output needs are filtered across.
    const int rowFirst = ty.first.empty() ? 0 : ty.first.front();
    const int rowLast = ty.first.empty() ? -1 : std::min(in.height() - 1, ty.first.back() + ty.span - 1);
    Plane across(outW, std::max(0, rowLast - rowFirst + 1));
    for (int y = rowFirst; y <= rowLast; ++y)
    {
        const float* src = in.row(y);
        float* dst = across.row(y - rowFirst);
        for (int i = 0; i < outW; ++i)
        {
            const float* w = &tx.weights[static_cast<size_t>(i) * tx.span];
            const float* s = src + tx.first[i];
            const int taps = std::min(tx.span, in.width() - tx.first[i]);
            float sum = 0.0f;
            for (int k = 0; k < taps; ++k)
                sum += w[k] * s[k];
            dst[i] = sum;
        }
    }
    out.reset(outW, outH);
    for (int j = 0; j < outH; ++j)
    {
        float* dst = out.row(j);
        std::fill(dst, dst + outW, 0.0f);
        const float* w = &ty.weights[static_cast<size_t>(j) * ty.span];
        const int taps = std::min(ty.span, in.height() - ty.first[j]);
        for (int k = 0; k < taps; ++k)
        {
            if (w[k] == 0.0f)
                continue;
            const float* src = across.row(ty.first[j] + k - rowFirst);
            const float wk = w[k];
            for (int i = 0; i < outW; ++i)
                dst[i] += wk * src[i];
        }
    }
}

void blockAverage(const Plane& in, int b, Plane& out)
{
    const int w = in.width() / b;
    const int h = in.height() / b;
    out.reset(w, h);
    const float scale = 1.0f / (static_cast<float>(b) * b);
    for (int y = 0; y < h; ++y)
    {
        float* dst = out.row(y);
        std::fill(dst, dst + w, 0.0f);
        for (int k = 0; k < b; ++k)
        {
            const float* src = in.row(y * b + k);
            for (int x = 0; x < w; ++x)
            {
                float sum = 0.0f;
                for (int i = 0; i < b; ++i)
                    sum += src[x * b + i];
                dst[x] += sum;
            }
        }
        for (int x = 0; x < w; ++x)
            dst[x] *= scale;
    }
}

int smoothFftSize(int n)
{
    for (int m = std::max(n, 1);; ++m)
    {
        int r = m;
        for (int p : {2, 3, 5, 7})
            while (r % p == 0)
                r /= p;
        if (r == 1)
            return m;
    }
}

namespace
{

// Copies `in` into the top-left corner of a zero plane of the given size.
void padInto(const Plane& in, int width, int height, Plane& out)
{
    out.reset(width, height);
    for (int y = 0; y < height; ++y)
    {
        float* row = out.row(y);
        const int copied = y < in.height() ? std::min(in.width(), width) : 0;
        if (copied)
            std::copy(in.row(y), in.row(y) + copied, row);
        std::fill(row + copied, row + width, 0.0f);
    }
}

// Circular correlation of x and k, both zero-padded to width x height:
// c(d) = sum over p of x(p) k(p + d).
void correlate(const Spectrum& xSpectrum, const Spectrum& kSpectrum, Spectrum& work, Plane& c)
{
    {
        StageTimer timer(Stage::Correlation);
        work.reset(kSpectrum.width(), kSpectrum.height());
        const std::complex<float>* a = xSpectrum.data();
        const std::complex<float>* b = kSpectrum.data();
        std::complex<float>* s = work.data();
        const size_t n = static_cast<size_t>(work.columns()) * work.height();
        for (size_t j = 0; j < n; ++j)
            s[j] = std::conj(a[j]) * b[j];
    }
    inverseFftDestructive(work, c);
}

// Normalised correlation of x with k where x, placed at (dx, dy) in k, overlaps it.
double normalisedCorrelation(const Plane& x, const Plane& k, int dx, int dy)
{
    double cross = 0.0, xx = 0.0, kSum = 0.0, kk = 0.0, area = 0.0;
    const int y0 = std::max(0, -dy), y1 = std::min(x.height(), k.height() - dy);
    const int x0 = std::max(0, -dx), x1 = std::min(x.width(), k.width() - dx);
    for (int y = y0; y < y1; ++y)
    {
        const float* xr = x.row(y);
        const float* kr = k.row(y + dy) + dx;
        for (int c = x0; c < x1; ++c)
        {
            cross += static_cast<double>(xr[c]) * kr[c];
            xx += static_cast<double>(xr[c]) * xr[c];
            kSum += kr[c];
            kk += static_cast<double>(kr[c]) * kr[c];
        }
        area += std::max(0, x1 - x0);
    }
    const double kVar = area > 0 ? kk - kSum * kSum / area : 0.0;
    return xx > 0 && kVar > 0 ? cross / std::sqrt(xx * kVar) : 0.0;
}

std::shared_ptr<const ScaledEntry> scaledK(LoadedFingerprint& fingerprint, int kWidth, int kHeight)
{
    ScaledKCache* cache = nullptr;
    {
        std::lock_guard<std::mutex> lock(fingerprint.scaledMutex);
        if (!fingerprint.scaled)
            fingerprint.scaled.reset(new ScaledKCache);
        cache = fingerprint.scaled.get();
    }
    {
        std::lock_guard<std::mutex> lock(cache->mutex);
        for (size_t i = 0; i < cache->entries.size(); ++i)
            if (cache->entries[i]->kWidth == kWidth && cache->entries[i]->kHeight == kHeight)
            {
                auto found = cache->entries[i];
                cache->entries.erase(cache->entries.begin() + static_cast<long>(i));
                cache->entries.insert(cache->entries.begin(), found);
                return found;
            }
    }
    // Made outside the lock (two threads may both make it; one copy is kept).
    const FingerprintData& fp = fingerprint.data;
    auto entry = std::make_shared<ScaledEntry>();
    entry->kWidth = kWidth;
    entry->kHeight = kHeight;
    resamplePlane(fp.k, static_cast<double>(kWidth) / fp.width, static_cast<double>(kHeight) / fp.height, 0,
                  0, kWidth, kHeight, entry->k);
    {
        Plane padded;
        padInto(entry->k, smoothFftSize(kWidth), smoothFftSize(kHeight), padded);
        forwardFft(padded, entry->spectrum);
    }
    entry->bytes = entry->k.size() * sizeof(float) +
                   static_cast<uint64_t>(entry->spectrum.columns()) * entry->spectrum.height() * 8;
    std::lock_guard<std::mutex> lock(cache->mutex);
    for (const auto& e : cache->entries)
        if (e->kWidth == kWidth && e->kHeight == kHeight)
            return e;
    // At most a few entries, and no more bytes than that many of K's own size:
    // a much enlarged photo's K is used once and not kept.
    const uint64_t limit =
        constants::ScaledCacheEntries * constants::ScaledBytesPerPixel * static_cast<uint64_t>(fp.k.size());
    if (entry->bytes > limit)
        return entry;
    MemoryBudget::instance().charge(entry->bytes);
    cache->entries.insert(cache->entries.begin(), entry);
    uint64_t held = 0;
    for (const auto& e : cache->entries)
        held += e->bytes;
    while (cache->entries.size() > static_cast<size_t>(constants::ScaledCacheEntries) || held > limit)
    {
        held -= cache->entries.back()->bytes;
        MemoryBudget::instance().discharge(cache->entries.back()->bytes);
        cache->entries.pop_back();
    }
    return entry;
}

// Keeps the better peak in result.
void record(MatchResult& result, const Peak& peak, double scale, int orientation, const Plane& placed,
            const Plane& k, bool first)
{
    if (!first && peak.pce <= result.pceRaw)
        return;
    result.pceRaw = peak.pce;
    result.scale = scale;
    result.orientation = orientation;
    result.shiftX = peak.x;
    result.shiftY = peak.y;
    result.corr = normalisedCorrelation(placed, k, peak.x, peak.y);
}

} // namespace

void finishMatch(MatchResult& result)
{
    // Held to the same false-alarm level whatever the search covered.
    const double positions = static_cast<double>(std::max<long long>(result.positions, 1));
    const double correction = std::max(0.0, 2.0 * std::log(positions / 2.0));
    result.pce = result.pceRaw - correction;
    result.matched = result.pce >= constants::MatchThresholdPce;
    result.probability = probabilityForPce(result.pce);
}

void matchImpliedScale(LoadedFingerprint& fingerprint, const Plane& x, const ImpliedSize* sizes, int count,
                       MatchResult& result)
{
    const FingerprintData& fp = fingerprint.data;
    Plane turned;
    Plane padded;
    Plane c;
    Spectrum spectrum;
    Spectrum work;
    const int window = constants::ImpliedShiftWindow;
    for (int i = 0; i < count; ++i)
    {
        const ImpliedSize& size = sizes[i];
        const std::shared_ptr<const ScaledEntry> k = scaledK(fingerprint, size.kWidth, size.kHeight);
        const double scale = 0.5 * (static_cast<double>(size.kWidth) / fp.width +
                                    static_cast<double>(size.kHeight) / fp.height);
        for (int r : size.orientations)
        {
            if (r != 0)
                rotatePlane(x, r, turned);
            const Plane& placed = r != 0 ? turned : x;
            padInto(placed, k->spectrum.width(), k->spectrum.height(), padded);
            forwardFft(padded, spectrum);
            correlate(spectrum, k->spectrum, work, c);
            const Peak peak = windowPeak(c, -window, window, -window, window);
            const bool first = result.positions == 0;
            result.positions += static_cast<long long>(2 * window + 1) * (2 * window + 1);
            record(result, peak, scale, r, placed, k->k, first);
            finishMatch(result);
            if (result.matched)
                return; // a clear match already
        }
    }
}

namespace
{

struct Candidate
{
    double pce = 0.0;
    double scale = 1.0;
    int x = 0;
    int y = 0;
    int turn = 0; // index in the pair of turns
};

// Size of K resampled to scale s.
int scaledSide(int n, double s)
{
    return static_cast<int>(std::floor(n * s + 1e-6));
}

} // namespace

void matchScaleSearch(LoadedFingerprint& fingerprint, const Plane& x, const int* orientations, int count,
                      MatchResult& result)
{
    const FingerprintData& fp = fingerprint.data;
    Plane turnedStore[2];
    Plane kc;
    Plane xc;
    Plane km;
    Plane xm;
    Plane ks;
    Plane padded;
    Plane c;
    Plane flipped;
    Spectrum xSpectrum;
    Spectrum kSpectrum;
    Spectrum work;

    // Resamples kBase (K reduced by some factor) to scale s over the region
    // [x0, x0 + rw) x [y0, y0 + rh) of the result, and transforms it zero-padded
    // to a smooth size at least `quantum`-rounded (so consecutive scales share
    // sizes and x's spectrum). xBase's spectrum is remade when the size changes.
    const auto transformRegion =
        [&](const Plane& kBase, const Plane& xBase, double s, int x0, int y0, int rw, int rh, int quantum)
    {
        resamplePlane(kBase, s, s, x0, y0, rw, rh, ks);
        const int nw = smoothFftSize((rw + quantum - 1) / quantum * quantum);
        const int nh = smoothFftSize((rh + quantum - 1) / quantum * quantum);
        if (xSpectrum.width() != nw || xSpectrum.height() != nh)
        {
            padInto(xBase, nw, nh, padded);
            forwardFft(padded, xSpectrum);
        }
        padInto(ks, nw, nh, padded);
        forwardFft(padded, kSpectrum);
    };
    const auto offsetPeak = [](Peak peak, int x0, int y0)
    {
        peak.x += x0;
        peak.y += y0;
        return peak;
    };
    // The crop search of xBase in that region.
    const auto cropSearch =
        [&](const Plane& kBase, const Plane& xBase, double s, int x0, int y0, int rw, int rh)
    {
        transformRegion(kBase, xBase, s, x0, y0, rw, rh, 1);
        correlate(xSpectrum, kSpectrum, work, c);
        return offsetPeak(windowPeak(c, 0, rw - xBase.width(), 0, rh - xBase.height()), x0, y0);
    };
    // The same on a window of shifts around (cx, cy), margin pixels either way.
    const auto localSearch = [&](const Plane& kBase, const Plane& xBase, double s, int cx, int cy, int margin)
    {
        const int kw = scaledSide(kBase.width(), s);
        const int kh = scaledSide(kBase.height(), s);
        Peak none;
        none.pce = -1e300;
        if (kw < xBase.width() || kh < xBase.height())
            return none;
        const int x0 = std::clamp(cx - margin, 0, kw - xBase.width());
        const int y0 = std::clamp(cy - margin, 0, kh - xBase.height());
        const int rw = std::min(kw - x0, xBase.width() + 2 * margin);
        const int rh = std::min(kh - y0, xBase.height() + 2 * margin);
        return cropSearch(kBase, xBase, s, x0, y0, rw, rh);
    };

    // Turns of one shape go together: the photo turned by 180 degrees more
    // correlates through the same transforms (a convolution instead of a
    // correlation, read at an offset), so the coarse pass serves both.
    bool done[4] = {false, false, false, false};
    for (int t = 0; t < count; ++t)
    {
        if (done[orientations[t] / 90])
            continue;
        int turns[2] = {orientations[t], -1};
        done[orientations[t] / 90] = true;
        for (int u = t + 1; u < count; ++u)
            if (orientations[u] == (turns[0] + 180) % 360)
            {
                turns[1] = orientations[u];
                done[orientations[u] / 90] = true;
            }
        const int turnCount = turns[1] < 0 ? 1 : 2;
        const Plane* placed[2] = {&x, nullptr};
        for (int i = 0; i < turnCount; ++i)
            if (turns[i] != 0)
            {
                rotatePlane(x, turns[i], turnedStore[i]);
                placed[i] = &turnedStore[i];
            }
            else
                placed[i] = &x;
        const int w = placed[0]->width();
        const int h = placed[0]->height();
        // Scales at which the photo still fits inside the resampled K.
        const double lowest = std::max(
            {constants::MinScale, static_cast<double>(w) / fp.width, static_cast<double>(h) / fp.height});
        // The fine step moves the photo's far border by about half a pixel
        // against its centre; the coarse pass runs on b x b block means at
        // 1.5 b times that step (under a reduced pixel). A coarser pass would
        // be cheaper but drowns matches of a few hundred in its noise.
        const double fineStep = 1.0 / std::max(w, h);
        // b bounds the coarse pass to about 8 correlations of K's size: its
        // work is K's pixels x (1 - lowest^2) x longer side / (3 b^3).
        const double coarseWork = (1.0 - lowest * lowest) * std::max(w, h) / 24.0;
        const int b =
            std::clamp(static_cast<int>(std::ceil(std::cbrt(std::max(coarseWork, 1.0)) - 1e-9)), 1, 4);
        const int reach = (3 * b + 1) / 2; // a coarse step, in fine steps
        const double coarseStep = reach * fineStep;
        if (lowest > 1.0 - fineStep)
            continue;
        // Positions the search stands for: every shift at every fine step.
        long long searched = 0;
        for (double s = 1.0 - fineStep; s >= lowest; s *= 1.0 - fineStep)
        {
            const long long across = scaledSide(fp.width, s) - w + 1;
            const long long down = scaledSide(fp.height, s) - h + 1;
            if (across > 0 && down > 0)
                searched += across * down;
        }

        // Coarse pass: every coarse step from just below 1 down to the lowest scale.
        blockAverage(fp.k, b, kc);
        blockAverage(*placed[0], b, xc);
        const int wc = xc.width();
        const int hc = xc.height();
        xSpectrum = Spectrum();
        std::vector<Candidate> coarse;
        for (double s = 1.0 - coarseStep; s >= lowest; s *= 1.0 - coarseStep)
        {
            const int kw = scaledSide(kc.width(), s);
            const int kh = scaledSide(kc.height(), s);
            if (kw < wc || kh < hc)
                break;
            transformRegion(kc, xc, s, 0, 0, kw, kh, 32);
            correlate(xSpectrum, kSpectrum, work, c);
            const Peak peak = windowPeak(c, 0, kw - wc, 0, kh - hc);
            coarse.push_back({peak.pce, s, peak.x, peak.y, 0});
            if (turnCount == 2)
            {
                // Convolution of x and K; the turned photo's correlation at d
                // is the convolution at d + (wc - 1, hc - 1).
                {
                    StageTimer timer(Stage::Correlation);
                    work.reset(kSpectrum.width(), kSpectrum.height());
                    const size_t n = static_cast<size_t>(work.columns()) * work.height();
                    for (size_t j = 0; j < n; ++j)
                        work.data()[j] = xSpectrum.data()[j] * kSpectrum.data()[j];
                }
                inverseFftDestructive(work, c);
                const int nw = c.width();
                const int nh = c.height();
                flipped.reset(nw, nh);
                for (int y = 0; y < nh; ++y)
                {
                    const float* src = c.row((y + hc - 1) % nh);
                    float* dst = flipped.row(y);
                    const int split = nw - (wc - 1) % nw;
                    std::copy(src + (wc - 1) % nw, src + nw, dst);
                    std::copy(src, src + (wc - 1) % nw, dst + split);
                }
                const Peak other = windowPeak(flipped, 0, kw - wc, 0, kh - hc);
                coarse.push_back({other.pce, s, other.x, other.y, 1});
            }
        }
        // The few best, apart from each other by more than two coarse steps.
        std::sort(coarse.begin(), coarse.end(),
                  [](const Candidate& a, const Candidate& other) { return a.pce > other.pce; });
        std::vector<Candidate> best;
        for (const Candidate& cand : coarse)
        {
            if (best.size() == static_cast<size_t>(constants::RefinedCandidates * turnCount))
                break;
            bool near = false;
            for (const Candidate& kept : best)
                near = near || (kept.turn == cand.turn &&
                                std::fabs(std::log(cand.scale / kept.scale)) < 2.5 * coarseStep);
            if (!near)
                best.push_back(cand);
        }

        // Refinement within a coarse step of each candidate: on 2 x 2 block
        // means at every other fine step when the coarse pass was much
        // coarser, then at full resolution on the fine steps around the best,
        // each on the region of the resampled K around the position found.
        const bool mid = b >= 3;
        if (mid)
            blockAverage(fp.k, 2, km);
        double bestScale[2] = {0.0, 0.0};
        double bestPce[2] = {-1e300, -1e300};
        for (int turn = 0; turn < turnCount; ++turn)
        {
            const Plane& photo = *placed[turn];
            if (mid)
                blockAverage(photo, 2, xm);
            for (const Candidate& cand : best)
            {
                if (cand.turn != turn)
                    continue;
                double around = cand.scale;
                int px = cand.x * b;
                int py = cand.y * b;
                std::vector<int> steps;
                if (mid)
                {
                    xSpectrum = Spectrum();
                    double midPce = -1e300;
                    for (int j = -reach; j <= reach; j += 2)
                    {
                        const double s = cand.scale * std::exp(j * fineStep);
                        const Peak p = localSearch(km, xm, s, cand.x * b / 2, cand.y * b / 2, b / 2 + 2);
                        if (p.pce > midPce)
                        {
                            midPce = p.pce;
                            around = s;
                            px = p.x * 2;
                            py = p.y * 2;
                        }
                    }
                    steps = {-1, 0, 1};
                }
                else
                {
                    for (int j = -reach; j <= reach; ++j)
                        steps.push_back(j);
                }
                xSpectrum = Spectrum();
                for (int j : steps)
                {
                    const double s = around * std::exp(j * fineStep);
                    if (s < lowest)
                        continue;
                    const Peak p = localSearch(fp.k, photo, s, px, py, mid ? 4 : b + 2);
                    if (p.pce > bestPce[turn])
                    {
                        bestPce[turn] = p.pce;
                        bestScale[turn] = s;
                    }
                }
            }
        }

        // The answer at each turn's best scale: the crop search over the whole
        // resampled K, the turn that looked better first.
        int order[2] = {0, 1};
        if (turnCount == 2 && bestPce[1] > bestPce[0])
            std::swap(order[0], order[1]);
        const bool first = result.positions == 0;
        result.positions += std::max(1LL, searched) * turnCount;
        bool firstAnswer = first;
        for (int i = 0; i < turnCount; ++i)
        {
            const int turn = order[i];
            if (bestScale[turn] <= 0.0)
                continue;
            const int kw = scaledSide(fp.width, bestScale[turn]);
            const int kh = scaledSide(fp.height, bestScale[turn]);
            xSpectrum = Spectrum();
            const Peak peak = cropSearch(fp.k, *placed[turn], bestScale[turn], 0, 0, kw, kh);
            record(result, peak, bestScale[turn], turns[turn], *placed[turn], ks, firstAnswer);
            firstAnswer = false;
            finishMatch(result);
            if (result.matched)
                return;
        }
    }
}

} // namespace lumicrest
