#pragma once

#include "fft.h"
#include "plane.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct fingerprint_binary_s;

namespace lumicrest
{

// Everything a fingerprint file holds.
struct FingerprintData
{
    int width = 0;
    int height = 0;
    std::string make;
    std::string model;
    std::string lens;
    std::vector<double> nmse; // one value per photo used, in order
    float sigmaRef = 3.0f;    // wavelet noise level used for the reference photos
    float sigmaMatch = 3.0f;  // ... and to be used for questioned photos
    int64_t created = 0;      // seconds since 1970 (UTC)
    Plane k;                  // the fingerprint K, zero-mean and filtered
};

// K resampled for resized photos, by size (scale.cpp).
struct ScaledKCache;
struct ScaledKCacheDeleter
{
    void operator()(ScaledKCache* cache) const noexcept;
};

// A fingerprint ready for matching; the spectrum of K is made once, on first use.
struct LoadedFingerprint
{
    FingerprintData data;
    std::once_flag spectrumOnce;
    Spectrum kSpectrum;
    std::once_flag sumsOnce;
    double kSum = 0.0;    // sum of K
    double kEnergy = 0.0; // sum of K^2
    std::mutex scaledMutex;
    std::unique_ptr<ScaledKCache, ScaledKCacheDeleter> scaled; // made on first use
};

constexpr uint32_t FormatVersion = 1;

// The bytes: little-endian, "LMCF" magic, version, header, K as 16-bit floats,
// CRC-32 of all that precedes it.
std::vector<unsigned char> serializeFingerprint(const FingerprintData& fp);
// Throws Failure(450) on a bad magic, version, length, checksum or value.
// Without decodeK every check is made but K is left empty.
FingerprintData parseFingerprint(const unsigned char* bytes, size_t size, bool decodeK = true);
// The header alone, from the first `available` bytes of `size`: the same
// checks but the checksum's (K and the checksum need not be at hand), and
// that the length fits the size. Throws Failure(450), also when the header
// runs past `available`.
FingerprintData parseFingerprintHeader(const unsigned char* head, size_t available, size_t size);

uint32_t crc32Of(const unsigned char* p, size_t n);

// The fingerprint behind a struct: the engine's own object when the engine made
// it, otherwise the bytes parsed once and kept in a small cache.
std::shared_ptr<LoadedFingerprint> loadedFingerprint(const fingerprint_binary_s* fp);
// Attaches a new engine fingerprint to fp (bytes malloc'ed, object in priv).
void attachFingerprint(fingerprint_binary_s* fp, FingerprintData&& data);
void detachFingerprint(fingerprint_binary_s* fp);

uint16_t floatToHalf(float value);
float halfToFloat(uint16_t half);

} // namespace lumicrest
