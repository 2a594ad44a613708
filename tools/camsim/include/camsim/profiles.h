#pragma once

#include "camsim/camera.h"

#include <cstdint>
#include <string>

// Cameras and photos calibrated to what real cameras give the fingerprint
// engine: the same-camera scores spread over three decades, down into the
// decision region, and other units of the same model stay well below it.
namespace camsim::profiles
{

enum class Profile
{
    Plain, // the simulator's defaults: an easy camera, every photo far above the threshold
    Dslr,  // a 6-megapixel interchangeable-lens camera
    Phone, // an 8-megapixel phone camera with strong in-camera processing
};

const char* profileName(Profile profile);
// False when the name is unknown.
bool parseProfile(const std::string& name, Profile& profile);

// Unit `unit` of the profile's make and model. `scale` shrinks each side
// (0.5: a quarter of the pixels) for tests; the gain patterns grow by
// 1/scale^0.75 so the scores, which grow with the pixel count, keep about
// the spread of the full size.
CameraConfig camera(Profile profile, uint64_t unit, double scale = 1.0);
CameraConfig dslr(uint64_t unit, double scale = 1.0);
CameraConfig phone(uint64_t unit, double scale = 1.0);

// A flat reference shot (a wall, an overcast sky), as an examiner takes them.
ShotConfig referenceShot(Profile profile, uint64_t seed);

// A questioned photo drawn from the profile's mix of ordinary and hard shots:
// dark scenes, skies that clip, dense foliage, strong JPEG compression, and
// denoising and sharpening as strong as the light asks for. The same seed
// always gives the same shot.
ShotConfig naturalShot(Profile profile, uint64_t seed);

// A few words on what naturalShot() made, for tables ("dark, q 78").
std::string describeShot(const ShotConfig& shot);

} // namespace camsim::profiles
