#pragma once

#include "fft.h"
#include "plane.h"

#include <cstddef>

namespace lumicrest
{

constexpr int WaveletLevels = 4;

// Noise residual of one channel: 4-level db4 wavelet transform, each detail
// coefficient reduced to its noise part c * s0^2 / (s^2 + s0^2) with the local
// signal variance s^2 the minimum over 3/5/7/9 windows, then the inverse
// transform with the approximation band set to zero. Any size works.
void channelResidual(const Plane& channel, float sigma0, Plane& residual);

// The same for 0.299 R + 0.587 G + 0.114 B in one inverse transform (the
// inverse is linear, so the channel residuals combine before it).
void combinedResidual(const Plane* channels, int count, float sigma0, Plane& residual);

// Removes the row and column means separately on each of the four 2x2
// colour-filter lattices.
void zeroMeanLattices(Plane& plane);

// Attenuates periodic patterns (JPEG grid, demosaicing peaks): the magnitude
// spectrum is reduced to its noise part with the same local-variance rule,
// the noise variance being the plane's own variance.
void wienerInDft(Plane& plane);
// The same filter's output as its (unnormalised, half) spectrum, before the
// inverse transform: callers that correlate in the Fourier domain save two
// transforms. `plane` is left as it was.
void wienerSpectrum(const Plane& plane, Spectrum& spectrum);

// Frees the calling thread's scratch buffers (they are kept between calls).
void releaseResidualScratch();

// --- Building blocks, exposed for the tests ---

// The 8 low-pass taps of the db4 analysis filter (sum sqrt(2), unit norm).
const double* db4LowPass();

// Size the transform works on: n mirrored up to a multiple of 2^WaveletLevels.
int waveletPaddedSize(int n);

// Forward transform of the mirror-padded plane; `coeffs` becomes padded size,
// in the usual pyramid layout (approximation in the top-left corner of the
// coarsest level, each level's horizontal, vertical and diagonal details in
// its top-right, bottom-left and bottom-right quadrants). `in` and `coeffs`
// must be different planes.
void waveletForward(const Plane& in, Plane& coeffs);

// Inverse of waveletForward, cropped back to width x height; `out` must be
// another plane than `coeffs`.
void waveletInverse(const Plane& coeffs, int width, int height, Plane& out);

// Noise parts c * s0^2 / (s^2 + s0^2) of one subband (width x height
// coefficients, rows `stride` floats apart); windows are mirrored at the
// borders. `out` must not overlap `coeffs`.
void waveletNoiseParts(const float* coeffs, int width, int height, size_t stride, float sigma0, float* out,
                       size_t outStride);

} // namespace lumicrest
