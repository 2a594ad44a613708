// Makes the seed inputs of the fuzz targets that come from the program's own
// writers: small simulated photos (camsim), photos Qt writes (BMP, grey and
// palette PNG, JPEG), real learned fingerprints (engine bytes and ".fnp"
// files) and the files the protocol target works on. Run by hand when the
// seeds need remaking; the result is committed.
//
//   fuzz_make_seeds CORPUS-FOLDER FIXTURES-FOLDER

#include "camsim/camera.h"

#include "fingerprint.h"
#include "lumicrest.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

// A record to save: CFingerprint builds empty ones only for its own kind.
class CSeedFingerprint : public CFingerprint
{
};

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "fuzz_make_seeds: %s\n", what.c_str());
    std::exit(1);
}

std::string path(const QString& folder, const char* name)
{
    QDir().mkpath(folder);
    return QDir(folder).filePath(QString::fromLatin1(name)).toStdString();
}

camsim::Camera camera(int width, int height)
{
    camsim::CameraConfig config;
    config.make = "Veltrano";
    config.model = "QX-1";
    config.lens = "Veltrano 4.2mm";
    config.width = width;
    config.height = height;
    config.unitSeed = 7;
    return camsim::Camera(config);
}

void shoot(const camsim::Camera& cam, camsim::FileFormat format, int bits, int orientation, bool exif,
           uint64_t seed, const std::string& target)
{
    camsim::ShotConfig shot;
    shot.format = format;
    shot.bits = bits;
    shot.orientation = orientation;
    shot.writeExif = exif;
    shot.sceneSeed = seed;
    shot.quality = 80;
    cam.shoot(shot, target);
}

void simulatedPhotos(const QString& folder)
{
    const camsim::Camera small = camera(48, 32);
    shoot(small, camsim::FileFormat::Jpeg, 8, 1, true, 1, path(folder, "camsim_48x32.jpg"));
    shoot(small, camsim::FileFormat::Jpeg, 8, 6, true, 2, path(folder, "camsim_orientation6.jpg"));
    shoot(small, camsim::FileFormat::Jpeg, 8, 0, false, 3, path(folder, "camsim_no_exif.jpg"));
    shoot(small, camsim::FileFormat::Png, 8, 1, true, 4, path(folder, "camsim_8bit.png"));
    shoot(small, camsim::FileFormat::Png, 16, 1, true, 5, path(folder, "camsim_16bit.png"));
    shoot(small, camsim::FileFormat::Tiff, 8, 1, true, 6, path(folder, "camsim_8bit.tif"));
    shoot(small, camsim::FileFormat::Tiff, 16, 3, true, 7, path(folder, "camsim_16bit.tif"));
}

void qtPhotos(const QString& folder)
{
    QImage colour(40, 24, QImage::Format_RGB32);
    colour.fill(Qt::darkCyan);
    {
        QPainter painter(&colour);
        painter.fillRect(5, 4, 20, 10, Qt::yellow);
        painter.drawLine(0, 23, 39, 0);
    }
    const struct
    {
        QImage image;
        const char* name;
        const char* format;
    } photos[] = {
        {colour, "qt_rgb24.bmp", "BMP"},
        {colour.convertToFormat(QImage::Format_Grayscale8), "qt_grey.bmp", "BMP"},
        {colour.convertToFormat(QImage::Format_Indexed8), "qt_palette.bmp", "BMP"},
        {colour.convertToFormat(QImage::Format_Grayscale8), "qt_grey.png", "PNG"},
        {colour.convertToFormat(QImage::Format_Indexed8), "qt_palette.png", "PNG"},
        {colour.convertToFormat(QImage::Format_ARGB32), "qt_alpha.png", "PNG"},
        {colour, "qt_colour.jpg", "JPEG"},
        {colour.convertToFormat(QImage::Format_Grayscale8), "qt_grey.jpg", "JPEG"},
    };
    for (const auto& photo : photos)
    {
        if (!photo.image.save(QString::fromStdString(path(folder, photo.name)), photo.format))
            die(std::string("cannot write ") + photo.name);
    }
}

// Learns a fingerprint from small photos; the reference checks (which want
// 512 pixels a side) are off, so the seed stays a few kilobytes.
std::vector<unsigned char> learn(int width, int height, const QString& scratch)
{
    const camsim::Camera cam = camera(width, height);
    std::vector<std::wstring> paths;
    for (int i = 0; i < 3; ++i)
    {
        const std::string target = path(scratch, ("learn_" + std::to_string(i) + ".png").c_str());
        shoot(cam, camsim::FileFormat::Png, 8, 1, true, 100 + static_cast<uint64_t>(i), target);
        paths.emplace_back(target.begin(), target.end());
    }
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& p : paths)
        pointers.push_back(p.c_str());
    fingerprint_binary_s fp{};
    wchar_t* diagnostics = nullptr;
    wchar_t* warnings = nullptr;
    const lumicrest_error_code code = get_sensor_fingerprint(pointers.data(), static_cast<int>(pointers.size()), &fp,
                                                             &diagnostics, L"", false, &warnings, nullptr);
    std::free(diagnostics);
    std::free(warnings);
    if (code != LUMICREST_OK)
        die("learning failed with " + std::to_string(code));
    std::vector<unsigned char> bytes(fp.data, fp.data + fp.size);
    release_fingerprint(&fp);
    return bytes;
}

void writeBytes(const std::string& target, const std::vector<unsigned char>& bytes)
{
    QFile file(QString::fromStdString(target));
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<qint64>(bytes.size())) !=
            static_cast<qint64>(bytes.size()))
        die("cannot write " + target);
}

void writeFnp(const std::string& target, const std::vector<unsigned char>& bytes, int width, int height,
              const QString& description)
{
    CSeedFingerprint record;
    record.setProperty(CFingerprint::Width, width);
    record.setProperty(CFingerprint::Height, height);
    record.setProperty(CFingerprint::TrainingImagesCount, 3);
    record.setProperty(CFingerprint::NMSE, 0.0123);
    record.setProperty(CFingerprint::Manufacturer, QStringLiteral("Veltrano"));
    record.setProperty(CFingerprint::Model, QStringLiteral("QX-1"));
    record.setProperty(CFingerprint::Description, description);
    record.setProperty(CFingerprint::LensInfo, QStringLiteral("Veltrano 4.2mm"));
    record.setProperty(CFingerprint::CreationDate, QDateTime(QDate(2024, 5, 17), QTime(9, 30, 5), Qt::UTC));
    fingerprint_binary_s fp{};
    fp.data = const_cast<unsigned char*>(bytes.data());
    fp.size = static_cast<int32_t>(bytes.size());
    if (!record.save(QFileInfo(QString::fromStdString(target)), fp))
        die("cannot write " + target);
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (argc != 3)
        die("usage: fuzz_make_seeds CORPUS-FOLDER FIXTURES-FOLDER");
    const QString corpus = QString::fromLocal8Bit(argv[1]);
    const QString fixtures = QString::fromLocal8Bit(argv[2]);
    const QString scratch = QDir(corpus).filePath(QStringLiteral(".scratch"));

    try
    {
        simulatedPhotos(corpus + QStringLiteral("/photo"));
        qtPhotos(corpus + QStringLiteral("/photo"));
        simulatedPhotos(corpus + QStringLiteral("/exif"));

        const std::vector<unsigned char> tiny = learn(16, 16, scratch);
        const std::vector<unsigned char> small = learn(64, 48, scratch);
        writeBytes(path(corpus + QStringLiteral("/fingerprint_bytes"), "learned_16x16.lmcf"), tiny);
        writeBytes(path(corpus + QStringLiteral("/fingerprint_bytes"), "learned_64x48.lmcf"), small);
        writeFnp(path(corpus + QStringLiteral("/fnp"), "learned_16x16.fnp"), tiny, 16, 16,
                 QStringLiteral("Seed: sixteen by sixteen"));
        writeFnp(path(corpus + QStringLiteral("/fnp"), "learned_64x48.fnp"), small, 64, 48,
                 QString::fromUtf8("Seed with a non-ASCII description: \xc3\xa9t\xc3\xa9"));

        // The protocol target's working folder: a usable fingerprint and a
        // photo of the same camera, at the smallest size a match judges.
        const std::vector<unsigned char> matchable = learn(256, 256, scratch);
        writeFnp(path(fixtures, "camera.fnp"), matchable, 256, 256, QStringLiteral("Protocol fixture"));
        shoot(camera(256, 256), camsim::FileFormat::Jpeg, 8, 1, true, 200, path(fixtures, "photo.jpg"));
    }
    catch (const std::exception& e)
    {
        die(e.what());
    }
    QDir(scratch).removeRecursively();
    return 0;
}
