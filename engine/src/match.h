#pragma once

#include "fingerprint.h"

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
