#pragma once

#include "fingerprint.h"
#include "match.h"
#include "plane.h"

#include <cstdint>

namespace lumicrest
{

// How far a match looks for resized photos, from LUMICREST_SCALE_SEARCH.
enum class ScaleSearch
{
    Full,  // implied scale, crops at scale 1, then the scale-and-crop search
    Sized, // implied scale and crops at scale 1 only
    Off    // scale 1 only
};

// Read at each match; throws Failure(504) on a value other than full, sized,
// off or empty.
ScaleSearch scaleSearchFromEnvironment();

// The sizes K is resampled to when the photo is the whole sensor image resized:
// both sides s times K's (within one pixel) with 0/180 (`turned` false) or
// 90/270 (`turned` true). At most one per shape; the EXIF hint's shape first.
struct ImpliedSize
{
    int kWidth = 0; // the photo's size turned back onto K's grid
    int kHeight = 0;
    int orientations[2] = {0, 0};
};
int impliedSizes(int photoW, int photoH, int fpW, int fpH, int exifOrientation, ImpliedSize out[2]);

// Lanczos-3 resampling with the pixel-centre mapping of common resizers:
// output pixel (ox + i) samples input (ox + i + 0.5) / sx - 0.5 per axis; the
// kernel is widened by 1 / s when shrinking, so it low-passes like a resizer.
// Borders repeat the edge sample. A constant plane stays constant.
void resamplePlane(const Plane& in, double sx, double sy, int ox, int oy, int outW, int outH, Plane& out);

// Mean of each b x b block (partial blocks at the right and bottom dropped).
void blockAverage(const Plane& in, int b, Plane& out);

// The smallest size >= n whose only prime factors are 2, 3, 5 and 7.
int smoothFftSize(int n);

// Matches x (the photo's weighted residual, as decoded) at the implied scale of
// each size, both turns of each, EXIF hint first; stops on a clear match.
// Adds to result (positions, best peak) and sets the corrected PCE.
void matchImpliedScale(LoadedFingerprint& fingerprint, const Plane& x, const ImpliedSize* sizes, int count,
                       MatchResult& result);

// Searches scales below 1 with the crop search at each, for the turns given
// (those in which the photo fits inside K). Adds to result.
void matchScaleSearch(LoadedFingerprint& fingerprint, const Plane& x, const int* orientations, int count,
                      MatchResult& result);

// Sets the search-corrected PCE, decision and probability from pceRaw and positions.
void finishMatch(MatchResult& result);

} // namespace lumicrest
