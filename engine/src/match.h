#pragma once

#include "fingerprint.h"
#include "imageio.h"

#include <string>

namespace lumicrest
{

struct MatchResult
{
    bool matched = false;
    double probability = 0.0;
    double corr = 0.0;
    double pce = 0.0;        // search-corrected, signed
    double pceRaw = 0.0;     // before the search correction
    double scale = 1.0;      // the photo is K resized by this factor
    int orientation = 0;     // clockwise turn that aligns the photo with the fingerprint
    int shiftX = 0;          // where the photo sits in the (resampled) fingerprint
    int shiftY = 0;
    long long positions = 0; // positions examined, over all orientations tried
    std::string reason;      // why the photo could not be judged ("size", "too small"), or empty
};

struct Peak
{
    double value = 0.0;
    double pce = 0.0;
    int x = 0;
    int y = 0;
};

// Highest value of a circular correlation plane over the shifts x0..x1,
// y0..y1 (wrapped at the borders), and its PCE against the whole plane outside
// the exclusion square around it.
Peak windowPeak(const Plane& c, int x0, int x1, int y0, int y1);

// Value at zero shift and PCE there of the circular correlation
// c = IDFT(g) / (width * height), from its half spectrum `g` (for two planes
// of the same size, g = conj(F_a) F_b); planes at least as wide as the
// exclusion square.
Peak zeroShiftPce(const Spectrum& g);

enum class ScaleSearch;

// The steps every match of a decoded photo begins with, shared by
// identification: the grey level (the photo's channels are freed), then its
// intensity weights and zero-mean residual for a fingerprint's noise level.
void photoGrey(Photo& photo, Plane& grey);
void photoResidual(const Plane& grey, float sigma, Plane& weights, Plane& x);

// Sum and sum of squares of a plane from its half spectrum.
void spectrumMoments(const Spectrum& w, double& sum, double& squares);

// Zero-shift peak of X (spectrum w, sums wSum and wSquares) with K (spectrum
// k, of the same size and frame); `corr` is their Pearson correlation.
// `scratch` may be k itself, which is then overwritten.
Peak sameSizePeak(LoadedFingerprint& fingerprint, const Spectrum& w, const Spectrum& k, double wSum,
                  double wSquares, Spectrum& scratch, double& corr);

// Makes K's spectrum (once per fingerprint).
void prepareKSpectrum(LoadedFingerprint& fingerprint);

// The match of a photo that is not K's size: implied scale, crops at scale 1,
// then (when asked for) the scale search. x is the photo's Wiener-filtered,
// weighted residual as decoded. Adds to result and finishes it.
void matchCropOrScaled(LoadedFingerprint& fingerprint, const Plane& x, int exifOrientation, ScaleSearch search,
                       MatchResult& result);

// Matches one photo file against a fingerprint. Throws Failure for photos that
// cannot be read.
MatchResult matchPhoto(LoadedFingerprint& fingerprint, const std::string& path);

// The JSON answer of one match.
std::string matchResultJson(const MatchResult& result);

// Monotone map from search-corrected PCE to probability.
double probabilityForPce(double pce);

// Orientations to try for a photo of this size, the EXIF hint's first; empty
// when no turn of the photo fits inside the fingerprint.
int candidateOrientations(int photoW, int photoH, int fpW, int fpH, int exifOrientation, int out[4]);

} // namespace lumicrest
