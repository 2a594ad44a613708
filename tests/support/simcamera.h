#pragma once

#include "camsim/camera.h"

#include <QFileInfoList>
#include <QString>

#include <functional>

namespace testutils
{

// A camera small enough to learn quickly and large enough to match surely.
camsim::CameraConfig simCamera(uint64_t unitSeed, int width = 1024, int height = 768);

// Shoots one photo to path: a natural scene for odd scene numbers, a gradient
// for even ones. adjust may change the shot (EXIF fields, format).
QString shoot(const camsim::Camera& camera, uint64_t scene, const QString& path,
              const std::function<void(camsim::ShotConfig&)>& adjust = nullptr);

// count photos <folder>/<stem><i>.jpg of scenes firstScene, firstScene + 1, ...
QFileInfoList shootSeries(const camsim::Camera& camera, uint64_t firstScene, int count, const QString& folder,
                          const QString& stem = QStringLiteral("ref"));

} // namespace testutils
