#pragma once

#include "camsim/camera.h"
#include "camsim/profiles.h"
#include "enginetestutils.h"

#include <functional>
#include <string>
#include <vector>

// Simulated cameras for the tests that learn and match whole photos.
namespace enginetest
{

// The calibrated DSLR profile shrunk to 0.4 of each side (about 1 MP) to keep
// the suite fast, so the scores spread over the decision region as real ones do.
inline camsim::CameraConfig dslrUnit(uint64_t unit)
{
    return camsim::profiles::camera(camsim::profiles::Profile::Dslr, unit, 0.4);
}

// An ordinary daylight photo with the profile's light processing.
inline camsim::ShotConfig ordinaryShot(uint64_t seed)
{
    camsim::ShotConfig s = camsim::profiles::referenceShot(camsim::profiles::Profile::Dslr, seed);
    s.scene = camsim::SceneKind::Natural;
    s.exposure = 0.3;
    s.quality = 92;
    return s;
}

inline std::string shoot(const camsim::Camera& camera, const camsim::ShotConfig& shot, const TempDir& dir,
                         const std::string& name)
{
    camera.shoot(shot, dir.file(name));
    return dir.file(name);
}

// count photos named prefix0.jpg, prefix1.jpg, ...; photo i taken with shot(i).
inline std::vector<std::string> shootSeries(const camsim::Camera& camera, const TempDir& dir,
                                            const std::string& prefix, int count,
                                            const std::function<camsim::ShotConfig(int)>& shot)
{
    std::vector<std::string> photos;
    for (int i = 0; i < count; ++i)
        photos.push_back(shoot(camera, shot(i), dir, prefix + std::to_string(i) + ".jpg"));
    return photos;
}

// The fingerprint of count reference shots of the profile, seeds from firstSeed on.
inline Learned learnReferences(const camsim::Camera& camera, const TempDir& dir, const std::string& prefix,
                               uint64_t firstSeed, int count)
{
    return learn(shootSeries(camera, dir, prefix, count, [&](int i) {
        return camsim::profiles::referenceShot(camsim::profiles::Profile::Dslr, firstSeed + i);
    }));
}

} // namespace enginetest
