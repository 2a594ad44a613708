#pragma once

#include "camsim/camera.h"

#include <QString>

namespace testutils
{

// Shoots one simulated photo with camera unit `unit` to path and returns the
// path. Odd scene numbers are natural scenes, even ones gradients, so a series
// mixes both.
inline QString shootPhoto(uint64_t unit, int scene, const QString& path, int width = 1024, int height = 768)
{
    camsim::CameraConfig config;
    config.width = width;
    config.height = height;
    config.unitSeed = unit;
    camsim::ShotConfig shot;
    shot.sceneSeed = static_cast<uint64_t>(scene);
    shot.scene = scene % 2 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
    camsim::Camera(config).shoot(shot, path.toStdString());
    return path;
}

} // namespace testutils
