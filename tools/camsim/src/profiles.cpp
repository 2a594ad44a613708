#include "camsim/profiles.h"

#include "camsim/random.h"

#include <cmath>
#include <cstdio>

namespace camsim::profiles
{

namespace
{

int scaled(int size, double scale)
{
    // Even, so the colour-filter pattern stays whole.
    return std::max(16, 2 * static_cast<int>(std::lround(size * scale / 2.0)));
}

void scale(CameraConfig& config, double factor)
{
    if (!(factor > 0) || factor == 1.0)
        return;
    config.width = scaled(config.width, factor);
    config.height = scaled(config.height, factor);
    // The score grows with the pixel count and faster than the square of the
    // pattern's strength (the weighting favours the bright, clean photos where
    // the pattern shows): 1/factor^0.75 keeps the spread, measured at 0.4 and 0.5.
    const double stronger = std::pow(factor, -0.75);
    config.prnuSigma *= stronger;
    config.modelPixelSigma *= stronger;
}

double logUniform(Random& random, double low, double high)
{
    return std::exp(random.uniform(std::log(low), std::log(high)));
}

// How a profile's shots vary. Fractions are of all questioned photos.
struct Mix
{
    double dark;    // night and indoor shots: little light, high ISO
    double sky;     // bright skies exposed for the ground, so they clip
    double foliage; // dense fine texture over the frame
    double strongJpeg;
    double darkExposure[2];
    double ordinaryExposure[2];
    double skyExposure[2];
    int quality[2];       // ordinary JPEG quality range
    int strongQuality[2]; // strong compression
    double denoise[2];    // at low ISO
    double darkDenoise[2];
    double sharpen[2];
};

const Mix& mixOf(Profile profile)
{
    static const Mix dslr{0.15, 0.15, 0.2, 0.25, {0.012, 0.06}, {0.1, 0.35}, {0.6, 1.0}, {88, 96}, {70, 82},
                          {0.05, 0.2}, {0.5, 0.8}, {0.3, 0.7}};
    static const Mix phone{0.07, 0.15, 0.06, 0.1, {0.01, 0.03}, {0.12, 0.35}, {0.6, 1.0}, {87, 95}, {75, 84},
                           {0.35, 0.55}, {0.8, 1.0}, {0.8, 1.2}};
    return profile == Profile::Phone ? phone : dslr;
}

} // namespace

const char* profileName(Profile profile)
{
    switch (profile)
    {
    case Profile::Plain:
        return "plain";
    case Profile::Dslr:
        return "dslr";
    case Profile::Phone:
        return "phone";
    }
    return "?";
}

bool parseProfile(const std::string& name, Profile& profile)
{
    for (Profile p : {Profile::Plain, Profile::Dslr, Profile::Phone})
        if (name == profileName(p))
        {
            profile = p;
            return true;
        }
    return false;
}

CameraConfig dslr(uint64_t unit, double factor)
{
    CameraConfig c;
    c.make = "Veltrano";
    c.model = "DX-6";
    c.lens = "Tessan 18-55mm f/3.5-5.6";
    c.width = 3008;
    c.height = 2000;
    c.unitSeed = unit;
    // Large pixels: a deep well and a 14-bit converter.
    c.fullWell = 30000;
    c.readNoise = 3;
    c.gain = 2.0;
    c.adcBits = 14;
    c.blackLevel = 512;
    c.prnuSigma = 0.0038;
    c.modelPixelSigma = 0.0005;
    c.whiteBalance = {{2.1, 1.0, 1.5}};
    scale(c, factor);
    return c;
}

CameraConfig phone(uint64_t unit, double factor)
{
    CameraConfig c;
    c.make = "Orvanti";
    c.model = "Pello 8";
    c.lens = "4.1mm f/2.2";
    c.width = 3264;
    c.height = 2448;
    c.unitSeed = unit;
    // Small pixels: a shallow well, so more shot noise at any level.
    c.fullWell = 6000;
    c.readNoise = 3;
    c.gain = 1.5;
    c.prnuSigma = 0.006;
    c.modelPixelSigma = 0.0005;
    c.whiteBalance = {{1.9, 1.0, 1.7}};
    scale(c, factor);
    return c;
}

CameraConfig camera(Profile profile, uint64_t unit, double factor)
{
    switch (profile)
    {
    case Profile::Dslr:
        return dslr(unit, factor);
    case Profile::Phone:
        return phone(unit, factor);
    case Profile::Plain:
        break;
    }
    CameraConfig c;
    c.unitSeed = unit;
    if (factor > 0 && factor != 1.0)
    {
        c.width = scaled(c.width, factor);
        c.height = scaled(c.height, factor);
    }
    return c;
}

ShotConfig referenceShot(Profile profile, uint64_t seed)
{
    ShotConfig s;
    s.scene = SceneKind::Flat;
    s.sceneSeed = seed;
    if (profile == Profile::Plain)
        return s;
    Random random(combineSeeds(seed, hashText("reference")));
    const Mix& mix = mixOf(profile);
    s.exposure = random.uniform(0.3, 0.5);
    s.quality = mix.quality[1];
    s.denoise = mix.denoise[0];
    s.sharpen = random.uniform(mix.sharpen[0], mix.sharpen[1]);
    return s;
}

ShotConfig naturalShot(Profile profile, uint64_t seed)
{
    ShotConfig s;
    s.scene = SceneKind::Natural;
    s.sceneSeed = seed;
    if (profile == Profile::Plain)
        return s;
    Random random(combineSeeds(seed, hashText("shot")));
    const Mix& mix = mixOf(profile);
    const double kind = random.uniform(0.0, 1.0);
    s.denoise = random.uniform(mix.denoise[0], mix.denoise[1]);
    if (kind < mix.dark)
    {
        s.scene = random.below(2) ? SceneKind::Natural : SceneKind::Edges;
        s.exposure = logUniform(random, mix.darkExposure[0], mix.darkExposure[1]);
        s.denoise = random.uniform(mix.darkDenoise[0], mix.darkDenoise[1]);
    }
    else if (kind < mix.dark + mix.sky)
    {
        s.scene = SceneKind::Sky;
        s.exposure = random.uniform(mix.skyExposure[0], mix.skyExposure[1]);
    }
    else
    {
        s.scene = kind < mix.dark + mix.sky + mix.foliage
                      ? SceneKind::Foliage
                      : (random.below(5) ? SceneKind::Natural : SceneKind::Edges);
        s.exposure = random.uniform(mix.ordinaryExposure[0], mix.ordinaryExposure[1]);
    }
    const bool strong = random.uniform(0.0, 1.0) < mix.strongJpeg;
    const int* q = strong ? mix.strongQuality : mix.quality;
    s.quality = q[0] + random.below(q[1] - q[0] + 1);
    s.sharpen = random.uniform(mix.sharpen[0], mix.sharpen[1]);
    return s;
}

std::string describeShot(const ShotConfig& shot)
{
    char text[96];
    std::snprintf(text, sizeof text, "%s, exposure %.3f, q %d, denoise %.2f, sharpen %.2f",
                  sceneKindName(shot.scene), shot.exposure, shot.quality, shot.denoise, shot.sharpen);
    return text;
}

} // namespace camsim::profiles
