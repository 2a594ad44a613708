#pragma once

#include "plane.h"

namespace lumicrest
{

// Turns a plane clockwise by 0, 90, 180 or 270 degrees.
void rotatePlane(const Plane& in, int degrees, Plane& out);

// Grey level 0.299 R + 0.587 G + 0.114 B (or the single plane of a grey photo).
void greyLevel(const Plane* channels, int count, Plane& grey);

// Weight of each sample in the fingerprint estimate, 0..1: proportional to the
// level, fading to zero above the clipping knee, zero for a saturated sample
// with an equal neighbour (clipped highlights carry no sensor pattern).
void intensityWeights(const Plane& channel, Plane& weights);

// residual *= weights, then the mean of the product removed.
void applyWeights(Plane& residual, const Plane& weights);

// Share of pixels that are clipped: saturated (as above) in any channel, or
// black in all channels.
double clippedFraction(const Plane* channels, int count);

// Noise level in grey levels, robust to edges: the median absolute 2x2 Haar
// diagonal detail over 0.6745. Fine texture raises it as noise does; both
// drown the sensor pattern.
double noiseLevel(const Plane& grey);

double meanOf(const Plane& plane);
double standardDeviationOf(const Plane& plane);

} // namespace lumicrest
