#pragma once

#include "camsim/image.h"
#include "camsim/imagefile.h"
#include "camsim/scene.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace camsim
{

// One individual camera. Patterns are derived from seeds only: make and model
// give the pattern every unit of that model shares, unitSeed the unit's own.
struct CameraConfig
{
    std::string make = "Veltrano";
    std::string model = "QX-1";
    std::string lens;
    int width = 1600;
    int height = 1200;
    uint64_t unitSeed = 1;

    // The unit's own fixed patterns.
    double prnuSigma = 0.01; // relative gain deviation per colour-filter site (zero mean)
    double darkMean = 2.0;   // dark signal per exposure, electrons
    double darkSigma = 1.0;  // its site-to-site spread, electrons

    // Shared by all units of the model.
    // Weak per-site gain pattern (0 disables it). Calibrated so that units of one
    // model reach PCE 40-55 against each other at 10 MP, as real ones do; at
    // 0.0015 they reached 130, beyond anything reported for real cameras.
    double modelPixelSigma = 0.0009;
    double columnGainSigma = 0.002;  // column amplifier gain
    double rowGainSigma = 0.0005;    // row gain
    double columnOffsetSigma = 1.0;  // column offset, electrons
    double rowOffsetSigma = 1.5;     // row offset, electrons

    // Sensor and read-out.
    double fullWell = 12000.0; // electrons
    double readNoise = 4.0;    // electrons rms
    double gain = 3.0;         // electrons per digital number
    int adcBits = 12;
    int blackLevel = 64; // digital numbers

    // Development (Bayer RGGB, bilinear demosaicing, the same for every unit).
    std::array<double, 3> whiteBalance{{2.0, 1.0, 1.6}}; // R, G, B gains
    double gamma = 2.4; // sRGB-like curve: exponent 1/gamma with a linear toe
};

// One photo taken with a camera.
struct ShotConfig
{
    SceneKind scene = SceneKind::Natural;
    uint64_t sceneSeed = 1;
    uint64_t noiseSeed = 0; // 0: derived from the scene seed
    // Mean linear scene level as a fraction of the white level: 0.25 is an
    // ordinary photo, 0.02 a dark one, above 1 mostly clipped.
    double exposure = 0.25;

    // In-camera processing of the developed pixels, stronger the higher the ISO.
    // denoise 0..1: how far each pixel moves to the mean of its 3x3 neighbours
    // that differ from it by less than 4 % of full scale (edges are kept).
    // sharpen 0..3: unsharp-mask amount over a 3x3 blur.
    double denoise = 0.0;
    double sharpen = 0.0;

    FileFormat format = FileFormat::Jpeg;
    int quality = 92; // JPEG only
    int bits = 8;     // 16 for PNG and TIFF only

    // Applied to the developed pixels: first the crop (in sensor coordinates),
    // then the resize, then the clockwise rotation.
    int cropWidth = 0; // 0: no crop
    int cropHeight = 0;
    int cropX = -1; // -1: centred
    int cropY = -1;
    int resizeWidth = 0; // 0: no resize
    int resizeHeight = 0;
    int rotation = 0;

    // EXIF. Orientation is written as given (0: no tag), whatever the pixel
    // rotation, so a test can give right or wrong hints.
    bool writeExif = true;
    int orientation = 1;
    std::optional<std::string> exifMake; // unset: the camera's
    std::optional<std::string> exifModel;
    std::optional<std::string> exifLens;
};

// Per-model artefacts, identical for every unit of a make and model.
struct ModelPattern
{
    std::vector<float> pixel;        // relative gain per site (empty when disabled)
    std::vector<float> columnGain;   // relative, one per column
    std::vector<float> rowGain;      // relative, one per row
    std::vector<float> columnOffset; // electrons
    std::vector<float> rowOffset;    // electrons
};

// The const members keep no state between calls, so one camera can render
// on several threads at once.
class Camera
{
public:
    // Builds the fixed patterns; throws Error for impossible parameters.
    explicit Camera(const CameraConfig& config);

    const CameraConfig& config() const { return m_config; }

    // The unit's true PRNU, one value per site (width * height, row-major).
    std::vector<float> prnu() const;
    ModelPattern modelPattern() const;

    // The sensor read-out before demosaicing: black level subtracted, 1.0 at
    // the white level (full well), negative values clipped to 0.
    Plane exposeRaw(const ShotConfig& shot) const;
    // Demosaiced, white-balanced, gamma-encoded pixels of a read-out (no crop or rotation).
    Image develop(const Plane& raw, int bits) const;
    // The photo as it is stored: exposed, developed, cropped and rotated.
    Image render(const ShotConfig& shot) const;
    // Renders, encodes and writes the photo with its EXIF block.
    void shoot(const ShotConfig& shot, const std::string& path) const;

    // What shoot() writes as EXIF for this shot.
    ExifFields exifFor(const ShotConfig& shot) const;

private:
    uint64_t prnuSeed() const;
    uint64_t modelSeed() const;

    CameraConfig m_config;
    std::vector<float> m_gain;       // 1 + PRNU + model pixel pattern
    std::vector<float> m_dark;       // electrons
    ModelPattern m_lines;            // the row and column parts of the model pattern
    std::vector<float> m_gammaTable; // gamma curve sampled on [0, 1]
};

// Parameter checks; throw Error with a readable reason.
void validateCamera(const CameraConfig& camera);
void validateShot(const CameraConfig& camera, const ShotConfig& shot);

} // namespace camsim
