#pragma once

#include "lumicrest_calibration.h"

#include <cstdint>

// Every tunable number of the engine, in one place. engine/README.md explains
// each one.
namespace lumicrest
{
namespace constants
{

// Noise residual.
constexpr float DefaultSigma0 = 3.0f;    // wavelet noise level on the 0..255 scale
// The noise levels the options accept, and so all a fingerprint can hold.
constexpr double MinSigma0 = 0.1;
constexpr double MaxSigma0 = 50.0;
constexpr float GreyR = 0.299f, GreyG = 0.587f, GreyB = 0.114f;

// Intensity weights: a pixel's weight fades to zero above the clipping knee,
// and a saturated pixel with an equal neighbour counts for nothing.
constexpr float ClipKnee = 250.0f;
constexpr float ClipFadeWidth2 = 22.0f;  // e^(-(v - knee)^2 / width2) above the knee
constexpr float BlackLevel = 2.0f;       // at or below: counted as clipped black

// Reference checks.
constexpr int MinShortSide = 512;
constexpr long long MaxPixels = 200LL * 1000 * 1000;
constexpr float MinMeanLevel = 12.0f;          // mean grey level below: too dark
constexpr float MaxClippedFraction = 0.5f;     // share of clipped pixels above: too clipped
constexpr float MaxNoiseLevel = 15.0f;         // estimated noise (grey levels) above: too noisy or textured
constexpr float WarnMeanLevel = 40.0f;         // below: a warning, still used
constexpr float WarnClippedFraction = 0.2f;
constexpr float WarnNoiseLevel = 6.0f;

// Matching.
constexpr int PeakExclusion = 11;             // PCE ignores this square around the peak
constexpr double MatchThresholdPce = LUMICREST_MATCH_THRESHOLD_PCE; // search-corrected PCE for "sensor_matched"
constexpr int MinMatchSide = 256;             // smaller questioned photos are not judged
constexpr double MaxProbability = 0.999999;
// Working memory of one match, per fingerprint pixel, reserved from the budget
// (measured: a match peaks at about 26, one more concurrent match costs about 29).
constexpr uint64_t MatchBytesPerPixel = 30;

// Resized photos.
constexpr double MinScale = 0.25;          // the smallest scale the searches go down to
constexpr double MaxImpliedScale = 4.0;    // a whole photo enlarged more is not resampled for
// Largest shift, in pixels, tried around zero when the scale is implied: the
// resizer's rounding of the output size moves the grid by a pixel or two.
constexpr int ImpliedShiftWindow = 3;
// Working memory of the scale search, per fingerprint pixel, beside a match's own.
constexpr uint64_t ScaleSearchBytesPerPixel = 28;
// A resampled K with its spectrum, per photo pixel (held in the cache).
constexpr uint64_t ScaledBytesPerPixel = 12;
constexpr int ScaledCacheEntries = 4;      // resampled fingerprints kept per fingerprint
constexpr int RefinedCandidates = 3;       // coarse scales refined per turn

// Identification against a library. A fingerprint's digest holds its
// strongest elements (by |K|): this share of its pixels, within the bounds.
constexpr double DigestFraction = 0.05;
constexpr uint32_t DigestMinElements = 20000;
constexpr uint32_t DigestMaxElements = 500000;
// Fingerprints whose digest correlation z = rho * sqrt(k) reaches this get the full PCE.
constexpr double DigestMargin = 2.5;
// Working memory of one identification per photo pixel (decoded photo, its
// residual and weights, the filtered residual in every same-size turn with
// their spectra), reserved from the budget.
constexpr uint64_t IdentifyBytesPerPixel = 48;
// Loaded fingerprints (K and its spectrum) a library keeps: at most this share
// of the memory budget, and charged to it while kept.
constexpr uint64_t LibraryCacheShareDivisor = 4;

// Learning's share of the budget, per photo pixel: the running sums with the
// closing work of one photo and of the fingerprint (held for the whole run),
// and one photo from decoding until it has been added to the sums.
constexpr uint64_t LearnSumsBytesPerPixel = 40;
constexpr uint64_t LearnPhotoBytesPerPixel = 48;

// The probability ladder: (PCE, probability) points, log-linear in (1 - p) over log PCE.
struct LadderPoint
{
    double pce;
    double probability;
};
constexpr double LadderPce[LUMICREST_LADDER_POINTS] = LUMICREST_LADDER_PCE;
constexpr double LadderProbability[LUMICREST_LADDER_POINTS] = LUMICREST_LADDER_PROBABILITY;
constexpr LadderPoint ProbabilityLadder[LUMICREST_LADDER_POINTS] = {
    {LadderPce[0], LadderProbability[0]}, {LadderPce[1], LadderProbability[1]}, {LadderPce[2], LadderProbability[2]},
    {LadderPce[3], LadderProbability[3]}, {LadderPce[4], LadderProbability[4]}, {LadderPce[5], LadderProbability[5]},
};
static_assert(LUMICREST_LADDER_POINTS == 6, "the ladder above names six points");

} // namespace constants
} // namespace lumicrest
