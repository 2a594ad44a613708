#include "match.h"

#include "budget.h"
#include "constants.h"
#include "imageio.h"
#include "lumicrest.h"
#include "pixelops.h"
#include "residual.h"
#include "scale.h"
#include "status.h"
#include "text.h"
#include "timing.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

namespace lumicrest
{

namespace
{

void prepareSpectrum(LoadedFingerprint& fp)
{
    std::call_once(fp.spectrumOnce, [&fp] { forwardFft(fp.data.k, fp.kSpectrum); });
}

void prepareSums(LoadedFingerprint& fp)
{
    std::call_once(fp.sumsOnce, [&fp] {
        double sum = 0.0;
        double energy = 0.0;
        const float* k = fp.data.k.data();
        for (size_t i = 0, n = fp.data.k.size(); i < n; ++i)
        {
            sum += k[i];
            energy += static_cast<double>(k[i]) * k[i];
        }
        fp.kSum = sum;
        fp.kEnergy = energy;
    });
}

} // namespace

Peak windowPeak(const Plane& c, int x0, int x1, int y0, int y1)
{
    StageTimer timer(Stage::Pce);
    const int width = c.width();
    const int height = c.height();
    const auto wrap = [](int v, int n) { return ((v % n) + n) % n; };
    // Shifts inside the plane are read straight; only a window past its edges wraps.
    const bool inside = x0 >= 0 && x1 < width;
    Peak peak;
    bool first = true;
    for (int y = y0; y <= y1; ++y)
    {
        const float* row = c.row(wrap(y, height));
        for (int x = x0; x <= x1; ++x)
        {
            const float v = row[inside ? x : wrap(x, width)];
            if (first || v > peak.value)
            {
                first = false;
                peak.value = v;
                peak.x = x;
                peak.y = y;
            }
        }
    }
    double total = 0.0;
    for (int y = 0; y < height; ++y)
    {
        const float* row = c.row(y);
        double rowSum = 0.0;
        for (int x = 0; x < width; ++x)
            rowSum += static_cast<double>(row[x]) * row[x];
        total += rowSum;
    }
    const int half = constants::PeakExclusion / 2;
    const int spanX = std::min(constants::PeakExclusion, width);
    const int spanY = std::min(constants::PeakExclusion, height);
    double excluded = 0.0;
    for (int dy = 0; dy < spanY; ++dy)
    {
        const float* row = c.row(wrap(peak.y - half + dy, height));
        for (int dx = 0; dx < spanX; ++dx)
        {
            const double v = row[wrap(peak.x - half + dx, width)];
            excluded += v * v;
        }
    }
    const double count = static_cast<double>(c.size()) - static_cast<double>(spanX) * spanY;
    const double floor = count > 0 ? std::max(total - excluded, 0.0) / count : 0.0;
    if (floor > 0.0)
        peak.pce = (peak.value >= 0 ? 1.0 : -1.0) * peak.value * peak.value / floor;
    return peak;
}

void spectrumMoments(const Spectrum& w, double& sum, double& squares)
{
    // Sum and sum of squares of X from its spectrum (Parseval); the half
    // spectrum holds every column but the first (and the Nyquist one) twice.
    StageTimer timer(Stage::Correlation);
    const double n = static_cast<double>(w.width()) * w.height();
    const int columns = w.columns();
    const int lastPaired = w.width() % 2 == 0 ? columns - 1 : columns;
    squares = 0.0;
    for (int y = 0; y < w.height(); ++y)
    {
        const std::complex<float>* row = w.row(y);
        double rowSum = 0.0;
        for (int c = 0; c < columns; ++c)
        {
            const double power = std::norm(row[c]);
            rowSum += c == 0 || c == lastPaired ? power : 2.0 * power;
        }
        squares += rowSum;
    }
    squares /= n;
    sum = w.data()[0].real();
}

Peak sameSizePeak(LoadedFingerprint& fingerprint, const Spectrum& w, const Spectrum& k, double wSum,
                  double wSquares, Spectrum& scratch, double& corr)
{
    if (&scratch != &k)
        scratch.reset(k.width(), k.height());
    {
        StageTimer timer(Stage::Correlation);
        const std::complex<float>* f = w.data();
        const std::complex<float>* g = k.data();
        std::complex<float>* s = scratch.data();
        const size_t count = static_cast<size_t>(scratch.columns()) * scratch.height();
        for (size_t j = 0; j < count; ++j)
            s[j] = std::conj(f[j]) * g[j];
    }
    const Peak peak = zeroShiftPce(scratch);
    // Pearson correlation of X and K; a turn does not change K's sums.
    prepareSums(fingerprint);
    const double n = static_cast<double>(k.width()) * k.height();
    const double cross = peak.value - wSum * fingerprint.kSum / n;
    const double wVar = wSquares - wSum * wSum / n;
    const double kVar = fingerprint.kEnergy - fingerprint.kSum * fingerprint.kSum / n;
    corr = wVar > 0 && kVar > 0 ? cross / std::sqrt(wVar * kVar) : 0.0;
    return peak;
}

void prepareKSpectrum(LoadedFingerprint& fingerprint)
{
    prepareSpectrum(fingerprint);
}

namespace
{

// A photo of the fingerprint's size, in every candidate turn. The photo's
// residual is weighted by its intensity before the Wiener filter, so the
// filter's spectrum of W * I meets K's spectrum directly: an upright photo
// costs one forward transform, with K's spectrum made once per fingerprint.
// A turned photo is matched in its own frame against K turned back (one more
// transform); turning the correlation plane about its origin keeps the peak
// at zero shift and only permutes the values around it, so the PCE is that of
// the turned photo. The PCE comes from the correlation's spectrum.
void matchSameSize(LoadedFingerprint& fingerprint, Plane& residual, const Plane& weights, const int* orientations,
                   int candidates, MatchResult& result)
{
    applyWeights(residual, weights);
    Spectrum w;
    wienerSpectrum(residual, w);
    double wSum = 0.0;
    double wSquares = 0.0;
    spectrumMoments(w, wSum, wSquares);

    Plane& turnedK = residual; // X is in the spectrum now; its plane is free
    Spectrum spectrum;
    for (int i = 0; i < candidates; ++i)
    {
        const int r = orientations[i];
        const Spectrum* k = &spectrum;
        if (r == 0)
        {
            prepareSpectrum(fingerprint);
            k = &fingerprint.kSpectrum;
                    spectrum.reset(k->width(), k->height());
        }
        else
        {
            rotatePlane(fingerprint.data.k, (360 - r) % 360, turnedK);
            forwardFft(turnedK, spectrum);
        }
        double corr = 0.0;
        const Peak peak = sameSizePeak(fingerprint, w, *k, wSum, wSquares, spectrum, corr);
        result.positions += 1;
        if (i == 0 || peak.pce > result.pceRaw)
        {
            result.pceRaw = peak.pce;
            result.orientation = r;
            result.shiftX = 0;
            result.shiftY = 0;
            result.corr = corr;
        }
        result.pce =
            result.pceRaw - std::max(0.0, 2.0 * std::log(static_cast<double>(result.positions) / 2.0));
        if (result.pce >= constants::MatchThresholdPce)
            break; // a clear match already: further turns would only cost time
    }
}

} // namespace

// The plane's energy comes from the spectrum (Parseval), and only the values
// inside the exclusion square are evaluated, by small DFTs along the columns
// and then the rows: this replaces an inverse transform of the whole plane.
Peak zeroShiftPce(const Spectrum& g)
{
    constexpr double TwoPi = 6.283185307179586476925;
    StageTimer timer(Stage::Pce);
    const int width = g.width();
    const int height = g.height();
    const int columns = g.columns();
    const double n = static_cast<double>(width) * height;
    const int half = constants::PeakExclusion / 2;
    static_assert(constants::MinMatchSide >= constants::PeakExclusion,
                  "matched photos are wider than the square");
    const int spanX = constants::PeakExclusion;
    const int spanY = std::min(constants::PeakExclusion, height);

    // Along the columns first: sums[i][c] = sum over rows y of G[y][c] e^(2 pi i y oy / height),
    // oy = i - half, for every column at once (the loops run along the rows, so
    // they vectorise without reordering any sum). Offsets +oy and -oy have
    // conjugate twiddles and share their products.
    std::vector<float> real(static_cast<size_t>(columns)), imag(static_cast<size_t>(columns));
    std::vector<float> energyOf(static_cast<size_t>(columns));
    std::vector<std::vector<float>> sumRe(static_cast<size_t>(spanY),
                                          std::vector<float>(static_cast<size_t>(columns)));
    std::vector<std::vector<float>> sumIm(static_cast<size_t>(spanY),
                                          std::vector<float>(static_cast<size_t>(columns)));
    const int pairs = spanY == constants::PeakExclusion ? half : 0; // a short plane takes every row by itself
    for (int y = 0; y < height; ++y)
    {
        const std::complex<float>* row = g.row(y);
        float* __restrict re = real.data();
        float* __restrict im = imag.data();
        float* __restrict e = energyOf.data();
        for (int c = 0; c < columns; ++c)
        {
            re[c] = row[c].real();
            im[c] = row[c].imag();
            e[c] += re[c] * re[c] + im[c] * im[c];
        }
        const auto add = [&](int i, float co, float sn)
        {
            float* __restrict r = sumRe[static_cast<size_t>(i)].data();
            float* __restrict q = sumIm[static_cast<size_t>(i)].data();
            for (int c = 0; c < columns; ++c)
            {
                r[c] += re[c] * co - im[c] * sn;
                q[c] += re[c] * sn + im[c] * co;
            }
        };
        if (pairs == 0)
        {
            for (int i = 0; i < spanY; ++i)
            {
                const double angle = TwoPi * static_cast<double>(y) * (i - half) / height;
                add(i, static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle)));
            }
            continue;
        }
        add(half, 1.0f, 0.0f);
        for (int o = 1; o <= pairs; ++o)
        {
            const double angle = TwoPi * static_cast<double>(static_cast<long long>(y) * o % height) / height;
            const float co = static_cast<float>(std::cos(angle));
            const float sn = static_cast<float>(std::sin(angle));
            float* __restrict pr = sumRe[static_cast<size_t>(half + o)].data();
            float* __restrict pi = sumIm[static_cast<size_t>(half + o)].data();
            float* __restrict mr = sumRe[static_cast<size_t>(half - o)].data();
            float* __restrict mi = sumIm[static_cast<size_t>(half - o)].data();
            for (int c = 0; c < columns; ++c)
            {
                const float ac = re[c] * co, bd = im[c] * sn, ad = re[c] * sn, bc = im[c] * co;
                pr[c] += ac - bd;
                pi[c] += ad + bc;
                mr[c] += ac + bd;
                mi[c] += bc - ad;
            }
        }
    }

    // Then along the rows: c(ox, oy) = sum over columns of weight * Re(sums e^(2 pi i c ox / width)) / N.
    // Each half-spectrum column but the first (and the Nyquist one) stands for
    // itself and its mirror.
    const int lastPaired = width % 2 == 0 ? columns - 1 : columns;
    Peak peak;
    double energy = 0.0;
    double excluded = 0.0;
    for (int c = 0; c < columns; ++c)
        energy += (c == 0 || c == lastPaired ? 1.0 : 2.0) * energyOf[static_cast<size_t>(c)];
    for (int i = 0; i < spanX; ++i)
    {
        const int ox = i - half;
        std::vector<double> cosines(static_cast<size_t>(columns)), sines(static_cast<size_t>(columns));
        for (int c = 0; c < columns; ++c)
        {
            const double w = c == 0 || c == lastPaired ? 1.0 : 2.0;
            const double angle =
                TwoPi * static_cast<double>((static_cast<long long>(c) * ox % width + width) % width) / width;
            cosines[static_cast<size_t>(c)] = w * std::cos(angle);
            sines[static_cast<size_t>(c)] = w * std::sin(angle);
        }
        for (int j = 0; j < spanY; ++j)
        {
            const float* r = sumRe[static_cast<size_t>(j)].data();
            const float* q = sumIm[static_cast<size_t>(j)].data();
            double sum = 0.0;
            for (int c = 0; c < columns; ++c)
                sum += r[c] * cosines[static_cast<size_t>(c)] - q[c] * sines[static_cast<size_t>(c)];
            const double value = sum / n;
            excluded += value * value;
            if (ox == 0 && j == half)
                peak.value = value;
        }
    }
    const double total = energy / n;
    const double count = n - static_cast<double>(spanX) * spanY;
    const double floor = count > 0 ? std::max(total - excluded, 0.0) / count : 0.0;
    if (floor > 0.0)
        peak.pce = (peak.value >= 0 ? 1.0 : -1.0) * peak.value * peak.value / floor;
    return peak;
}

int candidateOrientations(int photoW, int photoH, int fpW, int fpH, int exifOrientation, int out[4])
{
    // The EXIF tag says how the stored pixels are to be turned for display; a
    // photo turned by software and still carrying its tag is back on the sensor
    // grid after the opposite turn, so that one goes first.
    int hint = 0;
    switch (exifOrientation)
    {
    case 3:
        hint = 180;
        break;
    case 6:
        hint = 270;
        break;
    case 8:
        hint = 90;
        break;
    default:
        break;
    }
    int order[4] = {0, 180, 90, 270};
    if (hint == 180)
    {
        order[0] = 180;
        order[1] = 0;
    }
    else if (hint == 90 || hint == 270)
    {
        const int arranged[4] = {hint, (hint + 180) % 360, 0, 180};
        std::copy(arranged, arranged + 4, order);
    }
    int n = 0;
    for (int r : order)
    {
        const bool turned = r == 90 || r == 270;
        const int w = turned ? photoH : photoW;
        const int h = turned ? photoW : photoH;
        if (w <= fpW && h <= fpH)
            out[n++] = r;
    }
    return n;
}

double probabilityForPce(double pce)
{
    const auto& ladder = constants::ProbabilityLadder;
    constexpr int points = sizeof(ladder) / sizeof(ladder[0]);
    if (!(pce > 0.0))
        return 0.0;
    if (pce < ladder[0].pce)
        return ladder[0].probability * pce / ladder[0].pce;
    int segment = points - 2;
    for (int i = 0; i + 1 < points; ++i)
        if (pce < ladder[i + 1].pce)
        {
            segment = i;
            break;
        }
    // log(1 - p) is linear in log(PCE) between points, and beyond the last one.
    const constants::LadderPoint a = ladder[segment];
    const constants::LadderPoint b = ladder[segment + 1];
    const double t = (std::log(pce) - std::log(a.pce)) / (std::log(b.pce) - std::log(a.pce));
    const double logMiss = std::log(1.0 - a.probability) + t * (std::log(1.0 - b.probability) - std::log(1.0 - a.probability));
    return std::min(1.0 - std::exp(logMiss), constants::MaxProbability);
}

void photoGrey(Photo& photo, Plane& grey)
{
    // One residual of the grey level instead of the three channels' combined:
    // a third of the wavelet work for a PCE within a few percent on real
    // cameras. The decoded photo goes as soon as the grey level is made.
    // Learning keeps the channels' residuals, so fingerprints stay as they were.
    greyLevel(photo.planes, photo.channels, grey);
    for (Plane& channel : photo.planes)
        channel = Plane();
}

void photoResidual(const Plane& grey, float sigma, Plane& weights, Plane& x)
{
    // X = W * I: the photo's noise residual weighted by its own intensity, which
    // is what the fingerprint predicts the sensor adds to this photo.
    intensityWeights(grey, weights);
    channelResidual(grey, sigma, x);
    zeroMeanLattices(x);
}

void matchCropOrScaled(LoadedFingerprint& fingerprint, const Plane& x, int exifOrientation, ScaleSearch search,
                       MatchResult& result)
{
    const FingerprintData& fp = fingerprint.data;
    const int photoWidth = x.width();
    const int photoHeight = x.height();
    int orientations[4];
    ImpliedSize implied[2];
    const int impliedCount =
        search == ScaleSearch::Off ? 0 : impliedSizes(photoWidth, photoHeight, fp.width, fp.height, exifOrientation, implied);
    const int candidates =
        candidateOrientations(photoWidth, photoHeight, fp.width, fp.height, exifOrientation, orientations);
    // A whole resized photo: K resampled to its size first.
    if (impliedCount > 0)
        matchImpliedScale(fingerprint, x, implied, impliedCount, result);
    const int scaleOneCandidates = result.matched ? 0 : candidates;
    if (scaleOneCandidates > 0)
        prepareSpectrum(fingerprint);
    Plane turned;
    Plane padded;
    Plane correlation;
    Spectrum spectrum;
    bool first = result.positions == 0;
    for (int i = 0; i < scaleOneCandidates; ++i)
    {
        const int r = orientations[i];
        // Upright photos are used in place; only turned or smaller ones are copied.
        if (r != 0)
            rotatePlane(x, r, turned);
        const Plane& placed = r != 0 ? turned : x;
        const int w = placed.width();
        const int h = placed.height();
        if (w == fp.width && h == fp.height)
        {
            forwardFft(placed, spectrum);
        }
        else
        {
            padded.reset(fp.width, fp.height);
            for (int y = 0; y < fp.height; ++y)
            {
                float* row = padded.row(y);
                const int copied = y < h ? w : 0;
                if (copied)
                    std::copy(placed.row(y), placed.row(y) + w, row);
                std::fill(row + copied, row + fp.width, 0.0f);
            }
            forwardFft(padded, spectrum);
        }
        {
            StageTimer timer(Stage::Correlation);
            const std::complex<float>* k = fingerprint.kSpectrum.data();
            std::complex<float>* s = spectrum.data();
            const size_t n = static_cast<size_t>(spectrum.columns()) * spectrum.height();
            for (size_t j = 0; j < n; ++j)
                s[j] = std::conj(s[j]) * k[j];
        }
        inverseFftDestructive(spectrum, correlation);

        const int maxShiftX = fp.width - w;
        const int maxShiftY = fp.height - h;
        const Peak peak = windowPeak(correlation, 0, maxShiftX, 0, maxShiftY);
        result.positions += static_cast<long long>(maxShiftX + 1) * (maxShiftY + 1);
        if (first || peak.pce > result.pceRaw)
        {
            first = false;
            result.pceRaw = peak.pce;
            result.scale = 1.0;
            result.orientation = r;
            result.shiftX = peak.x;
            result.shiftY = peak.y;
            // Normalised correlation at the peak, computed directly for accuracy.
            double cross = 0.0;
            double xx = 0.0;
            double kSum = 0.0;
            double kk = 0.0;
            for (int y = 0; y < h; ++y)
            {
                const float* xr = placed.row(y);
                const float* kr = fp.k.row(y + peak.y) + peak.x;
                for (int c = 0; c < w; ++c)
                {
                    cross += static_cast<double>(xr[c]) * kr[c];
                    xx += static_cast<double>(xr[c]) * xr[c];
                    kSum += kr[c];
                    kk += static_cast<double>(kr[c]) * kr[c];
                }
            }
            const double area = static_cast<double>(w) * h;
            const double kVar = kk - kSum * kSum / area;
            result.corr = xx > 0 && kVar > 0 ? cross / std::sqrt(xx * kVar) : 0.0;
        }
        // Held to the same false-alarm level whatever the search covered.
        const double correction = std::max(0.0, 2.0 * std::log(static_cast<double>(result.positions) / 2.0));
        result.pce = result.pceRaw - correction;
        if (result.pce >= constants::MatchThresholdPce)
            break; // a clear match already: further turns would only cost time
    }
    // A crop whose size implies no scale: perhaps resized before it was cut.
    if (search == ScaleSearch::Full && impliedCount == 0 && result.pce < constants::MatchThresholdPce)
    {
        int smaller[4];
        int count = 0;
        for (int i = 0; i < candidates; ++i)
        {
            const bool turnedSize = orientations[i] == 90 || orientations[i] == 270;
            const int w = turnedSize ? photoHeight : photoWidth;
            const int h = turnedSize ? photoWidth : photoHeight;
            if (w != fp.width || h != fp.height)
                smaller[count++] = orientations[i];
        }
        turned = Plane();
        padded = Plane();
        correlation = Plane();
        spectrum = Spectrum();
        matchScaleSearch(fingerprint, x, smaller, count, result);
    }
    finishMatch(result);
}

MatchResult matchPhoto(LoadedFingerprint& fingerprint, const std::string& path)
{
    const FingerprintData& fp = fingerprint.data;
    MatchResult result;
    const ScaleSearch search = scaleSearchFromEnvironment();

    // The size from the header first: photos that cannot fit are answered
    // without decoding them.
    int photoWidth = 0;
    int photoHeight = 0;
    readPhotoSize(path, photoWidth, photoHeight);
    int orientations[4];
    ImpliedSize implied[2];
    const auto impliedFor = [&](int w, int h, int exif) {
        return search == ScaleSearch::Off ? 0 : impliedSizes(w, h, fp.width, fp.height, exif, implied);
    };
    const int fitting = candidateOrientations(photoWidth, photoHeight, fp.width, fp.height, 1, orientations);
    if (fitting == 0 && impliedFor(photoWidth, photoHeight, 1) == 0)
    {
        result.reason = "size";
        return result;
    }

    // Wait for room in the process-wide budget before the large allocations,
    // including those of whichever scale search this photo may need.
    const uint64_t photoPixels = static_cast<uint64_t>(photoWidth) * static_cast<uint64_t>(photoHeight);
    uint64_t leased = constants::MatchBytesPerPixel * std::max<uint64_t>(fp.k.size(), photoPixels);
    if (impliedFor(photoWidth, photoHeight, 1) > 0)
        leased += 2 * constants::ScaledBytesPerPixel * photoPixels;
    else if (search == ScaleSearch::Full)
        leased += constants::ScaleSearchBytesPerPixel * static_cast<uint64_t>(fp.k.size());
    const MemoryBudget::Lease lease(MemoryBudget::instance(), leased);
    Photo photo = readPhoto(path);
    const int impliedCount = impliedFor(photo.width, photo.height, photo.info.orientation);
    const int candidates =
        candidateOrientations(photo.width, photo.height, fp.width, fp.height, photo.info.orientation, orientations);
    if (candidates == 0 && impliedCount == 0)
    {
        result.reason = "size";
        return result;
    }
    // Decoded first, so a damaged small photo is reported as damaged.
    if (std::min(photo.width, photo.height) < constants::MinMatchSide)
    {
        result.reason = "too small";
        return result;
    }

    Plane weights;
    Plane x;
    {
        Plane grey;
        photoGrey(photo, grey);
        photoResidual(grey, fp.sigmaMatch, weights, x);
    }
    const bool turned90 = candidates > 0 && (orientations[0] == 90 || orientations[0] == 270);
    if (candidates > 0 && (turned90 ? photo.height : photo.width) == fp.width &&
        (turned90 ? photo.width : photo.height) == fp.height)
    {
        matchSameSize(fingerprint, x, weights, orientations, candidates, result);
        result.matched = result.pce >= constants::MatchThresholdPce;
        result.probability = probabilityForPce(result.pce);
        return result;
    }
    wienerInDft(x);
    applyWeights(x, weights);
    weights = Plane();
    matchCropOrScaled(fingerprint, x, photo.info.orientation, search, result);
    return result;
}

std::string matchResultJson(const MatchResult& r)
{
    JsonWriter json;
    json.beginObject().key("sensors").beginArray().beginObject().key("images").beginArray().beginObject();
    json.key("result").beginObject();
    json.key("sensor_matched").integer(r.matched ? 1 : 0);
    json.key("probability").number(r.probability).key("corr").number(r.corr);
    json.key("pce").number(r.pce).key("pce_raw").number(r.pceRaw).key("scale").number(r.scale);
    json.key("orientation").integer(r.orientation);
    json.key("shift").beginArray().integer(r.shiftX).integer(r.shiftY).endArray();
    json.key("positions").integer(r.positions);
    json.key("reason").string(r.reason);
    json.endObject();
    json.endObject().endArray().endObject().endArray().endObject();
    return json.text();
}

} // namespace lumicrest
