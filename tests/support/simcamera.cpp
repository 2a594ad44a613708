#include "simcamera.h"

#include <QDir>

namespace testutils
{

camsim::CameraConfig simCamera(uint64_t unitSeed, int width, int height)
{
    camsim::CameraConfig config;
    config.width = width;
    config.height = height;
    config.unitSeed = unitSeed;
    return config;
}

QString shoot(const camsim::Camera& camera, uint64_t scene, const QString& path,
              const std::function<void(camsim::ShotConfig&)>& adjust)
{
    camsim::ShotConfig shot;
    shot.sceneSeed = scene;
    shot.scene = scene % 2 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
    if (adjust)
        adjust(shot);
    camera.shoot(shot, path.toStdString());
    return path;
}

QFileInfoList shootSeries(const camsim::Camera& camera, uint64_t firstScene, int count, const QString& folder,
                          const QString& stem)
{
    QFileInfoList photos;
    for (int i = 0; i < count; ++i)
        photos << QFileInfo(shoot(camera, firstScene + static_cast<uint64_t>(i),
                                  QDir(folder).filePath(stem + QString::number(i) + QStringLiteral(".jpg"))));
    return photos;
}

} // namespace testutils
