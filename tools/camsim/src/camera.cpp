#include "camsim/camera.h"

#include "camsim/random.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace camsim
{

namespace
{

constexpr int kGammaTableSize = 1 << 14;
constexpr long long kMaxPixels = 120LL * 1000 * 1000;

// Bayer RGGB: 0 red, 1 green, 2 blue.
inline int filterColour(int x, int y)
{
    return (y & 1) + (x & 1);
}

std::vector<float> gaussianPattern(uint64_t seed, size_t count, double sigma, bool zeroMean)
{
    std::vector<float> values(count);
    Random random(seed);
    random.fillGaussian(values.data(), count, sigma);
    if (zeroMean && count > 0)
    {
        double sum = 0;
        for (float v : values)
            sum += v;
        const float mean = static_cast<float>(sum / static_cast<double>(count));
        for (float& v : values)
            v -= mean;
    }
    return values;
}

// Power 1/gamma with a linear toe tangent to it (sRGB's shape for gamma 2.4).
double gammaCurve(double linear, double gamma)
{
    if (gamma <= 1.0)
        return linear;
    const double a = 0.055;
    const double knee = std::pow(a / ((1.0 + a) * (1.0 - 1.0 / gamma)), gamma);
    if (linear < knee)
        return linear * ((1.0 + a) * std::pow(knee, 1.0 / gamma) - a) / knee;
    return (1.0 + a) * std::pow(linear, 1.0 / gamma) - a;
}

void require(bool ok, const std::string& message)
{
    if (!ok)
        throw Error(message);
}

// In-camera noise reduction and sharpening, one channel at a time. Both work
// on the 3x3 neighbourhood (mirrored at the borders).
void processImage(Image& image, double denoise, double sharpen)
{
    if (denoise <= 0 && sharpen <= 0)
        return;
    const int w = image.width;
    const int h = image.height;
    const float maxValue = static_cast<float>(image.maxValue());
    const float threshold = 0.04f * maxValue;
    const float strength = static_cast<float>(denoise);
    const float amount = static_cast<float>(sharpen);
    const auto mirror = [](int i, int n) { return i < 0 ? std::min(1, n - 1) : (i >= n ? std::max(0, n - 2) : i); };
    std::vector<float> plane(static_cast<size_t>(w) * static_cast<size_t>(h));
    std::vector<float> smooth(plane.size());
    for (int c = 0; c < 3; ++c)
    {
        for (size_t i = 0; i < plane.size(); ++i)
            plane[i] = image.samples[i * 3 + static_cast<size_t>(c)];
        const auto at = [&](int x, int y)
        { return plane[static_cast<size_t>(mirror(y, h)) * static_cast<size_t>(w) + static_cast<size_t>(mirror(x, w))]; };
        if (strength > 0)
        {
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                {
                    const float centre = at(x, y);
                    float sum = 0;
                    int count = 0;
                    for (int dy = -1; dy <= 1; ++dy)
                        for (int dx = -1; dx <= 1; ++dx)
                        {
                            const float v = at(x + dx, y + dy);
                            if (std::abs(v - centre) < threshold)
                            {
                                sum += v;
                                ++count;
                            }
                        }
                    smooth[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] =
                        centre + strength * (sum / static_cast<float>(count) - centre);
                }
            plane.swap(smooth);
        }
        if (amount > 0)
        {
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                {
                    const float blur = (4 * at(x, y) + 2 * (at(x - 1, y) + at(x + 1, y) + at(x, y - 1) + at(x, y + 1)) +
                                        at(x - 1, y - 1) + at(x + 1, y - 1) + at(x - 1, y + 1) + at(x + 1, y + 1)) /
                                       16.0f;
                    const float centre = at(x, y);
                    smooth[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] =
                        centre + amount * (centre - blur);
                }
            plane.swap(smooth);
        }
        for (size_t i = 0; i < plane.size(); ++i)
            image.samples[i * 3 + static_cast<size_t>(c)] =
                static_cast<uint16_t>(std::clamp(plane[i], 0.0f, maxValue) + 0.5f);
    }
}

} // namespace

void validateCamera(const CameraConfig& s)
{
    require(s.width >= 16 && s.height >= 16 && s.width <= 30000 && s.height <= 30000 &&
                static_cast<long long>(s.width) * s.height <= kMaxPixels,
            "sensor size " + std::to_string(s.width) + "x" + std::to_string(s.height) +
                " is outside 16x16 .. 30000x30000 (at most 120 megapixels)");
    require(s.prnuSigma >= 0 && s.prnuSigma < 0.5 && s.modelPixelSigma >= 0 && s.modelPixelSigma < 0.5 &&
                s.columnGainSigma >= 0 && s.columnGainSigma < 0.5 && s.rowGainSigma >= 0 &&
                s.rowGainSigma < 0.5,
            "gain pattern sigmas must lie in [0, 0.5)");
    require(s.darkMean >= 0 && s.darkSigma >= 0 && s.columnOffsetSigma >= 0 && s.rowOffsetSigma >= 0 &&
                s.readNoise >= 0,
            "dark signal, offsets and read noise must not be negative");
    require(s.fullWell >= 100 && s.gain > 0,
            "full well must be at least 100 electrons and the gain positive");
    require(s.adcBits >= 8 && s.adcBits <= 16 && s.blackLevel >= 0, "ADC must have 8 to 16 bits");
    require(s.blackLevel + s.fullWell / s.gain <= (1 << s.adcBits) - 1,
            "black level plus full well (in digital numbers) exceeds the ADC range");
    require(s.whiteBalance[0] > 0 && s.whiteBalance[1] > 0 && s.whiteBalance[2] > 0,
            "white balance gains must be positive");
    require(s.gamma >= 1.0 && s.gamma <= 4.0, "gamma must lie in [1, 4]");
}

void validateShot(const CameraConfig& camera, const ShotConfig& shot)
{
    require(shot.exposure > 0 && shot.exposure <= 100, "exposure must lie in (0, 100]");
    require(shot.quality >= 1 && shot.quality <= 100, "JPEG quality must lie in 1..100");
    require(shot.denoise >= 0 && shot.denoise <= 1, "denoising must lie in [0, 1]");
    require(shot.sharpen >= 0 && shot.sharpen <= 3, "sharpening must lie in [0, 3]");
    require(shot.bits == 8 || shot.bits == 16, "bits must be 8 or 16");
    require(shot.bits == 8 || shot.format != FileFormat::Jpeg, "JPEG holds 8 bits only");
    require(shot.rotation == 0 || shot.rotation == 90 || shot.rotation == 180 || shot.rotation == 270,
            "rotation must be 0, 90, 180 or 270");
    require(shot.orientation >= 0 && shot.orientation <= 8, "EXIF orientation must be 0 (none) or 1..8");
    if (shot.cropWidth != 0 || shot.cropHeight != 0)
    {
        require(shot.cropWidth >= 1 && shot.cropHeight >= 1 && shot.cropWidth <= camera.width &&
                    shot.cropHeight <= camera.height,
                "crop size must lie within the sensor size");
        require(shot.cropX >= -1 && shot.cropY >= -1, "crop position must not be negative");
        require((shot.cropX < 0 || shot.cropX + shot.cropWidth <= camera.width) &&
                    (shot.cropY < 0 || shot.cropY + shot.cropHeight <= camera.height),
                "crop rectangle must lie within the sensor");
    }
}

Camera::Camera(const CameraConfig& config) : m_config(config)
{
    validateCamera(m_config);
    const size_t count = static_cast<size_t>(m_config.width) * static_cast<size_t>(m_config.height);

    m_gain = prnu();
    m_lines = modelPattern();
    for (size_t i = 0; i < count; ++i)
        m_gain[i] += 1.0f + (m_lines.pixel.empty() ? 0.0f : m_lines.pixel[i]);
    m_lines.pixel = std::vector<float>(); // folded into m_gain

    const uint64_t unitKey = combineSeeds(modelSeed(), m_config.unitSeed);
    m_dark = gaussianPattern(combineSeeds(unitKey, hashText("dark")), count, m_config.darkSigma, false);
    for (float& d : m_dark)
        d = std::max(0.0f, d + static_cast<float>(m_config.darkMean));

    m_gammaTable.resize(kGammaTableSize + 1);
    for (int i = 0; i <= kGammaTableSize; ++i)
        m_gammaTable[static_cast<size_t>(i)] =
            static_cast<float>(gammaCurve(static_cast<double>(i) / kGammaTableSize, m_config.gamma));
}

uint64_t Camera::modelSeed() const
{
    return combineSeeds(hashText(m_config.make), hashText(m_config.model));
}

uint64_t Camera::prnuSeed() const
{
    return combineSeeds(combineSeeds(modelSeed(), m_config.unitSeed), hashText("prnu"));
}

std::vector<float> Camera::prnu() const
{
    const size_t count = static_cast<size_t>(m_config.width) * static_cast<size_t>(m_config.height);
    return gaussianPattern(prnuSeed(), count, m_config.prnuSigma, true);
}

ModelPattern Camera::modelPattern() const
{
    const size_t count = static_cast<size_t>(m_config.width) * static_cast<size_t>(m_config.height);
    const size_t w = static_cast<size_t>(m_config.width);
    const size_t h = static_cast<size_t>(m_config.height);
    const uint64_t seed = modelSeed();
    ModelPattern p;
    if (m_config.modelPixelSigma > 0)
        p.pixel = gaussianPattern(combineSeeds(seed, hashText("pixel")), count, m_config.modelPixelSigma, true);
    p.columnGain =
        gaussianPattern(combineSeeds(seed, hashText("column gain")), w, m_config.columnGainSigma, true);
    p.rowGain = gaussianPattern(combineSeeds(seed, hashText("row gain")), h, m_config.rowGainSigma, true);
    p.columnOffset =
        gaussianPattern(combineSeeds(seed, hashText("column offset")), w, m_config.columnOffsetSigma, true);
    p.rowOffset = gaussianPattern(combineSeeds(seed, hashText("row offset")), h, m_config.rowOffsetSigma, true);
    return p;
}

Plane Camera::exposeRaw(const ShotConfig& shot) const
{
    validateShot(m_config, shot);
    const int w = m_config.width;
    const int h = m_config.height;
    Plane raw(w, h);

    // Scene radiance through the colour filters. Dividing by the white balance
    // gives the sensor's colour response, which development undoes.
    Scene scene(shot.scene, shot.sceneSeed, w, h);
    std::vector<float> rgb(static_cast<size_t>(w) * 3);
    float* colour[3] = {rgb.data(), rgb.data() + w, rgb.data() + 2 * w};
    const float response[3] = {static_cast<float>(1.0 / m_config.whiteBalance[0]),
                               static_cast<float>(1.0 / m_config.whiteBalance[1]),
                               static_cast<float>(1.0 / m_config.whiteBalance[2])};
    double sum = 0;
    for (int y = 0; y < h; ++y)
    {
        scene.renderRow(y, colour[0], colour[1], colour[2]);
        float* out = raw.data.data() + static_cast<size_t>(y) * static_cast<size_t>(w);
        double rowSum = 0;
        for (int x = 0; x < w; ++x)
        {
            const int c = filterColour(x, y);
            const float v = colour[c][x];
            rowSum += v;
            out[x] = v * response[c];
        }
        sum += rowSum;
    }
    const double mean = sum / (static_cast<double>(w) * h);
    const float electronsPerUnit =
        static_cast<float>(mean > 0 ? shot.exposure / mean * m_config.fullWell : 0.0);

    // Electrons, shot and read noise (one Gaussian of the summed variance),
    // full-well clipping, then the read-out chain's row and column artefacts.
    const uint64_t unitKey = combineSeeds(modelSeed(), m_config.unitSeed);
    const uint64_t noiseKey =
        shot.noiseSeed != 0 ? shot.noiseSeed : combineSeeds(shot.sceneSeed, hashText("noise"));
    Random random(combineSeeds(unitKey, noiseKey));
    std::vector<float> gauss(static_cast<size_t>(w));
    const float fullWell = static_cast<float>(m_config.fullWell);
    const float readVariance = static_cast<float>(m_config.readNoise * m_config.readNoise);
    const float perDn = static_cast<float>(1.0 / m_config.gain);
    const float black = static_cast<float>(m_config.blackLevel);
    const float maxDn = static_cast<float>((1 << m_config.adcBits) - 1);
    const float toUnit = static_cast<float>(m_config.gain / m_config.fullWell);
    for (int y = 0; y < h; ++y)
    {
        random.fillGaussian(gauss.data(), gauss.size(), 1.0);
        const size_t base = static_cast<size_t>(y) * static_cast<size_t>(w);
        float* out = raw.data.data() + base;
        const float* gain = m_gain.data() + base;
        const float* dark = m_dark.data() + base;
        const float rowGain = 1.0f + m_lines.rowGain[static_cast<size_t>(y)];
        const float rowOffset = m_lines.rowOffset[static_cast<size_t>(y)];
        for (int x = 0; x < w; ++x)
        {
            const float mean_e = out[x] * electronsPerUnit * gain[x] + dark[x];
            float e =
                mean_e + std::sqrt(std::max(mean_e, 0.0f) + readVariance) * gauss[static_cast<size_t>(x)];
            e = std::min(e, fullWell);
            e = e * rowGain * (1.0f + m_lines.columnGain[static_cast<size_t>(x)]) + rowOffset +
                m_lines.columnOffset[static_cast<size_t>(x)];
            const float dn = std::clamp(std::floor(black + e * perDn + 0.5f), 0.0f, maxDn);
            out[x] = std::max(0.0f, dn - black) * toUnit;
        }
    }
    return raw;
}

Image Camera::develop(const Plane& raw, int bits) const
{
    require(raw.width == m_config.width && raw.height == m_config.height,
            "read-out size differs from the sensor");
    require(bits == 8 || bits == 16, "bits must be 8 or 16");
    const int w = raw.width;
    const int h = raw.height;

    // Mirrored one-pixel border (keeps the colour-filter phase), so the
    // interpolation below needs no bounds checks.
    const int stride = w + 2;
    std::vector<float> padded(static_cast<size_t>(stride) * static_cast<size_t>(h + 2));
    const auto mirror = [](int i, int n) { return i < 0 ? -i : (i >= n ? 2 * n - 2 - i : i); };
    for (int py = 0; py < h + 2; ++py)
    {
        const float* src = raw.data.data() + static_cast<size_t>(mirror(py - 1, h)) * static_cast<size_t>(w);
        float* dst = padded.data() + static_cast<size_t>(py) * static_cast<size_t>(stride);
        std::copy(src, src + w, dst + 1);
        dst[0] = src[1];
        dst[w + 1] = src[w - 2];
    }

    Image image(w, h, bits);
    const float wb[3] = {static_cast<float>(m_config.whiteBalance[0]),
                         static_cast<float>(m_config.whiteBalance[1]),
                         static_cast<float>(m_config.whiteBalance[2])};
    const float scale = static_cast<float>(image.maxValue());
    const float* table = m_gammaTable.data();
    const auto encode = [table, scale](float v) -> uint16_t
    {
        v = std::clamp(v, 0.0f, 1.0f) * kGammaTableSize;
        const int i = std::min(static_cast<int>(v), kGammaTableSize - 1);
        const float g = table[i] + (v - static_cast<float>(i)) * (table[i + 1] - table[i]);
        return static_cast<uint16_t>(g * scale + 0.5f);
    };

    for (int y = 0; y < h; ++y)
    {
        const float* p = padded.data() + static_cast<size_t>(y + 1) * static_cast<size_t>(stride) + 1;
        uint16_t* out = image.samples.data() + static_cast<size_t>(y) * static_cast<size_t>(w) * 3;
        for (int x = 0; x < w; ++x, ++p, out += 3)
        {
            const float centre = p[0];
            const float cross = 0.25f * (p[-1] + p[1] + p[-stride] + p[stride]);
            const float diagonal = 0.25f * (p[-stride - 1] + p[-stride + 1] + p[stride - 1] + p[stride + 1]);
            const float horizontal = 0.5f * (p[-1] + p[1]);
            const float vertical = 0.5f * (p[-stride] + p[stride]);
            float r, g, b;
            switch (((y & 1) << 1) | (x & 1))
            {
            case 0: // red site
                r = centre;
                g = cross;
                b = diagonal;
                break;
            case 1: // green on a red row
                r = horizontal;
                g = centre;
                b = vertical;
                break;
            case 2: // green on a blue row
                r = vertical;
                g = centre;
                b = horizontal;
                break;
            default: // blue site
                r = diagonal;
                g = cross;
                b = centre;
                break;
            }
            out[0] = encode(r * wb[0]);
            out[1] = encode(g * wb[1]);
            out[2] = encode(b * wb[2]);
        }
    }
    return image;
}

Image Camera::render(const ShotConfig& shot) const
{
    Image image = develop(exposeRaw(shot), shot.bits);
    processImage(image, shot.denoise, shot.sharpen);
    if (shot.cropWidth > 0)
    {
        const int x = shot.cropX >= 0 ? shot.cropX : (image.width - shot.cropWidth) / 2;
        const int y = shot.cropY >= 0 ? shot.cropY : (image.height - shot.cropHeight) / 2;
        image = cropImage(image, x, y, shot.cropWidth, shot.cropHeight);
    }
    if (shot.resizeWidth > 0)
        image = resizeImage(image, shot.resizeWidth, shot.resizeHeight);
    return rotateImage(image, shot.rotation);
}

ExifFields Camera::exifFor(const ShotConfig& shot) const
{
    ExifFields fields;
    fields.make = shot.exifMake.value_or(m_config.make);
    fields.model = shot.exifModel.value_or(m_config.model);
    fields.lens = shot.exifLens.value_or(m_config.lens);
    fields.orientation = shot.orientation;
    return fields;
}

void Camera::shoot(const ShotConfig& shot, const std::string& path) const
{
    const Image image = render(shot);
    writeImage(image, path, shot.format, shot.quality);
    if (!shot.writeExif)
        return;
    try
    {
        writeExif(path, exifFor(shot));
    }
    catch (const Error&)
    {
        std::remove(path.c_str());
        throw;
    }
}

} // namespace camsim
