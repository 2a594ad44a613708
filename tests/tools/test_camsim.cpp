#include "camsim/camera.h"
#include "camsim/cli.h"
#include "camsim/imagefile.h"
#include "camsim/profiles.h"
#include "camsim/random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

namespace fs = std::filesystem;
using namespace camsim;

namespace
{

double correlation(const std::vector<double>& a, const std::vector<double>& b)
{
    double ma = 0, mb = 0;
    for (size_t i = 0; i < a.size(); ++i)
    {
        ma += a[i];
        mb += b[i];
    }
    ma /= static_cast<double>(a.size());
    mb /= static_cast<double>(b.size());
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < a.size(); ++i)
    {
        ab += (a[i] - ma) * (b[i] - mb);
        aa += (a[i] - ma) * (a[i] - ma);
        bb += (b[i] - mb) * (b[i] - mb);
    }
    return ab / std::sqrt(aa * bb);
}

double correlation(const std::vector<float>& a, const std::vector<float>& b)
{
    return correlation(std::vector<double>(a.begin(), a.end()), std::vector<double>(b.begin(), b.end()));
}

// Relative deviation of each site of a flat read-out from the mean of its
// same-colour neighbours, with the matching values of `pattern` alongside.
void rawDeviation(const Plane& raw, const std::vector<float>& pattern, std::vector<double>& deviation,
                  std::vector<double>& truth)
{
    for (int y = 4; y < raw.height - 4; ++y)
    {
        for (int x = 4; x < raw.width - 4; ++x)
        {
            double sum = 0;
            for (int dy = -4; dy <= 4; dy += 2)
                for (int dx = -4; dx <= 4; dx += 2)
                    sum += (dx || dy) ? raw.at(x + dx, y + dy) : 0.0;
            deviation.push_back(raw.at(x, y) / (sum / 24.0) - 1.0);
            truth.push_back(pattern[static_cast<size_t>(y) * static_cast<size_t>(raw.width) + x]);
        }
    }
}

// The same on a developed flat photo, using green at the green sites (where
// bilinear demosaicing keeps the measured value).
void greenDeviation(const Image& image, const std::vector<float>& pattern, std::vector<double>& deviation,
                    std::vector<double>& truth)
{
    for (int y = 4; y < image.height - 4; ++y)
    {
        for (int x = 4; x < image.width - 4; ++x)
        {
            if (((x + y) & 1) == 0)
                continue;
            double sum = 0;
            int count = 0;
            for (int dy = -4; dy <= 4; ++dy)
            {
                for (int dx = -4; dx <= 4; ++dx)
                {
                    if (((x + dx + y + dy) & 1) && (dx || dy))
                    {
                        sum += image.at(x + dx, y + dy, 1);
                        ++count;
                    }
                }
            }
            deviation.push_back(image.at(x, y, 1) / (sum / count) - 1.0);
            truth.push_back(pattern[static_cast<size_t>(y) * static_cast<size_t>(image.width) + x]);
        }
    }
}

std::string fileBytes(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

CameraConfig smallCamera(uint64_t unit = 1)
{
    CameraConfig config;
    config.width = 320;
    config.height = 240;
    config.unitSeed = unit;
    config.lens = "Tessan 35mm f/2";
    return config;
}

double fractionWhere(const Image& image, bool (*predicate)(int))
{
    size_t hits = 0;
    for (uint16_t v : image.samples)
        hits += predicate(v) ? 1 : 0;
    return static_cast<double>(hits) / static_cast<double>(image.samples.size());
}

class CamsimFiles : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        m_dir = fs::temp_directory_path() /
                (std::string("camsim_") + info->name() + "_" + std::to_string(std::random_device()()));
        fs::create_directories(m_dir);
    }
    void TearDown() override { fs::remove_all(m_dir); }
    std::string path(const std::string& name) const { return (m_dir / name).string(); }

    fs::path m_dir;
};

} // namespace

TEST(CamsimCamera, UnitsOfOneModelShareOnlyTheModelPattern)
{
    CameraConfig other = smallCamera(1);
    other.model = "QX-2";
    const Camera a(smallCamera(1)), b(smallCamera(2)), c(other), aAgain(smallCamera(1));

    const std::vector<float> ka = a.prnu(), kb = b.prnu(), kc = c.prnu();
    EXPECT_EQ(ka, aAgain.prnu());
    EXPECT_LT(std::abs(correlation(ka, kb)), 0.05);
    EXPECT_LT(std::abs(correlation(ka, kc)), 0.05);
    double sum = 0, squares = 0;
    for (float v : ka)
    {
        sum += v;
        squares += static_cast<double>(v) * v;
    }
    EXPECT_NEAR(sum / static_cast<double>(ka.size()), 0.0, 1e-6);
    EXPECT_NEAR(std::sqrt(squares / static_cast<double>(ka.size())), 0.01, 0.0003);

    const ModelPattern ma = a.modelPattern(), mb = b.modelPattern(), mc = c.modelPattern();
    EXPECT_EQ(ma.pixel, mb.pixel);
    EXPECT_EQ(ma.columnGain, mb.columnGain);
    EXPECT_EQ(ma.rowOffset, mb.rowOffset);
    ASSERT_EQ(ma.pixel.size(), ka.size());
    EXPECT_LT(std::abs(correlation(ma.pixel, mc.pixel)), 0.05);
    EXPECT_LT(std::abs(correlation(ma.columnGain, mc.columnGain)), 0.3);

    // In flat read-outs the unit's PRNU dominates; other units of the model
    // share a weak part through the model pattern, other models share nothing.
    ShotConfig flat;
    flat.scene = SceneKind::Flat;
    flat.exposure = 0.45;
    std::vector<double> da, truthA, db, truthB, dc, truthC;
    rawDeviation(a.exposeRaw(flat), ma.pixel, da, truthA);
    rawDeviation(b.exposeRaw(flat), ma.pixel, db, truthB);
    rawDeviation(c.exposeRaw(flat), ma.pixel, dc, truthC);
    EXPECT_GT(correlation(da, truthA), 0.04);
    EXPECT_GT(correlation(db, truthB), 0.04);
    EXPECT_LT(std::abs(correlation(dc, truthC)), 0.02);
    flat.sceneSeed = 2;
    std::vector<double> da2, unused;
    rawDeviation(a.exposeRaw(flat), ma.pixel, da2, unused);
    const double sameUnit = correlation(da, da2);
    const double sameModel = correlation(da2, db);
    EXPECT_GT(sameUnit, 0.2);
    EXPECT_GT(sameModel, 0.005);
    EXPECT_LT(sameModel, sameUnit / 5);
    EXPECT_LT(std::abs(correlation(da2, dc)), sameModel);
}

TEST_F(CamsimFiles, PrnuIsInThePhotos)
{
    const Camera camera{CameraConfig()};
    const Camera otherUnit(
        []
        {
            CameraConfig s;
            s.unitSeed = 2;
            return s;
        }());
    const std::vector<float> own = camera.prnu(), other = otherUnit.prnu();
    ShotConfig flat;
    flat.scene = SceneKind::Flat;
    flat.exposure = 0.45;

    std::vector<double> deviation, truth, unused, otherTruth;
    rawDeviation(camera.exposeRaw(flat), own, deviation, truth);
    EXPECT_GT(correlation(deviation, truth), 0.3);

    // Through demosaicing, gamma and 8 bits (PNG), then through JPEG.
    for (FileFormat format : {FileFormat::Png, FileFormat::Jpeg})
    {
        flat.format = format;
        const std::string file = path(std::string("flat.") + formatExtension(format));
        camera.shoot(flat, file);
        deviation.clear();
        truth.clear();
        otherTruth.clear();
        const Image image = readImage(file);
        greenDeviation(image, own, deviation, truth);
        greenDeviation(image, other, unused, otherTruth);
        SCOPED_TRACE(formatName(format));
        EXPECT_GT(correlation(deviation, truth), format == FileFormat::Png ? 0.3 : 0.1);
        EXPECT_LT(std::abs(correlation(deviation, otherTruth)), 0.02);
    }
}

TEST_F(CamsimFiles, SameSeedsGiveIdenticalFiles)
{
    struct Case
    {
        FileFormat format;
        int bits;
    };
    for (const Case& c : {Case{FileFormat::Jpeg, 8}, Case{FileFormat::Png, 16}, Case{FileFormat::Tiff, 8}})
    {
        SCOPED_TRACE(formatName(c.format));
        ShotConfig shot;
        shot.format = c.format;
        shot.bits = c.bits;
        shot.sceneSeed = 7;
        const std::string ext = formatExtension(c.format);
        Camera(smallCamera(1)).shoot(shot, path("a." + ext));
        Camera(smallCamera(1)).shoot(shot, path("b." + ext));
        const std::string first = fileBytes(path("a." + ext));
        EXPECT_GT(first.size(), 1000u);
        EXPECT_EQ(first, fileBytes(path("b." + ext)));

        // Another unit, or another scene, gives another file.
        Camera(smallCamera(2)).shoot(shot, path("c." + ext));
        EXPECT_NE(first, fileBytes(path("c." + ext)));
        shot.sceneSeed = 8;
        Camera(smallCamera(1)).shoot(shot, path("d." + ext));
        EXPECT_NE(first, fileBytes(path("d." + ext)));
    }

    // The noise seed varies the noise alone: same scene, different bytes, small differences.
    const Camera camera(smallCamera(1));
    ShotConfig shot;
    const Image base = camera.render(shot);
    shot.noiseSeed = 99;
    const Image renoised = camera.render(shot);
    ASSERT_EQ(base.samples.size(), renoised.samples.size());
    double difference = 0;
    for (size_t i = 0; i < base.samples.size(); ++i)
        difference += std::abs(base.samples[i] - renoised.samples[i]);
    difference /= static_cast<double>(base.samples.size());
    EXPECT_GT(difference, 0.1);
    EXPECT_LT(difference, 5.0);
}

TEST(CamsimCamera, RotationAndCrop)
{
    const Camera camera(smallCamera());
    ShotConfig shot;
    shot.scene = SceneKind::Edges;
    const Image image = camera.render(shot);
    ASSERT_EQ(image.width, 320);
    ASSERT_EQ(image.height, 240);

    const Image turned = rotateImage(image, 90);
    ASSERT_EQ(turned.width, 240);
    ASSERT_EQ(turned.height, 320);
    // Clockwise: the top-left pixel goes to the top-right corner.
    for (int c = 0; c < 3; ++c)
    {
        EXPECT_EQ(turned.at(239, 0, c), image.at(0, 0, c));
        EXPECT_EQ(turned.at(0, 319, c), image.at(319, 239, c));
        EXPECT_EQ(rotateImage(image, 270).at(0, 319, c), image.at(0, 0, c));
        EXPECT_EQ(rotateImage(image, 180).at(319, 239, c), image.at(0, 0, c));
    }
    EXPECT_EQ(rotateImage(turned, 270).samples, image.samples);
    EXPECT_EQ(rotateImage(rotateImage(image, 180), 180).samples, image.samples);
    EXPECT_EQ(rotateImage(rotateImage(rotateImage(turned, 90), 90), 90).samples, image.samples);
    EXPECT_THROW(rotateImage(image, 45), Error);

    shot.rotation = 90;
    EXPECT_EQ(camera.render(shot).samples, turned.samples);

    // A centre crop is the middle of the uncropped photo; it comes before the rotation.
    shot.rotation = 0;
    shot.cropWidth = 161;
    shot.cropHeight = 100;
    const Image centre = camera.render(shot);
    EXPECT_EQ(centre.width, 161);
    EXPECT_EQ(centre.height, 100);
    EXPECT_EQ(centre.samples, cropImage(image, 79, 70, 161, 100).samples);
    shot.cropX = 10;
    shot.cropY = 20;
    shot.rotation = 270;
    const Image placed = camera.render(shot);
    EXPECT_EQ(placed.width, 100);
    EXPECT_EQ(placed.height, 161);
    EXPECT_EQ(placed.samples, rotateImage(cropImage(image, 10, 20, 161, 100), 270).samples);

    shot.cropX = 200; // 200 + 161 > 320
    EXPECT_THROW(camera.render(shot), Error);
    EXPECT_THROW(cropImage(image, 0, 0, 321, 10), Error);
}

TEST_F(CamsimFiles, ExifFieldsReadBack)
{
    const Camera camera(smallCamera());
    for (FileFormat format : {FileFormat::Jpeg, FileFormat::Png, FileFormat::Tiff})
    {
        SCOPED_TRACE(formatName(format));
        const std::string ext = formatExtension(format);
        ShotConfig shot;
        shot.format = format;
        shot.rotation = 90;
        shot.orientation = 6;
        camera.shoot(shot, path("a." + ext));
        ExifFields fields = readExif(path("a." + ext));
        EXPECT_EQ(fields.make, "Veltrano");
        EXPECT_EQ(fields.model, "QX-1");
        EXPECT_EQ(fields.lens, "Tessan 35mm f/2");
        EXPECT_EQ(fields.orientation, 6);
        // Writing EXIF leaves the pixels intact.
        const Image pixels = readImage(path("a." + ext));
        EXPECT_EQ(pixels.width, 240);
        EXPECT_EQ(pixels.height, 320);
        if (format != FileFormat::Jpeg)
        {
            EXPECT_EQ(pixels.samples, camera.render(shot).samples);
        }

        // Wrong hints and other cameras' names are written as asked.
        shot.orientation = 1;
        shot.exifMake = "Other";
        shot.exifModel = "Z";
        shot.exifLens = "";
        camera.shoot(shot, path("b." + ext));
        fields = readExif(path("b." + ext));
        EXPECT_EQ(fields.make, "Other");
        EXPECT_EQ(fields.model, "Z");
        EXPECT_EQ(fields.lens, "");
        EXPECT_EQ(fields.orientation, 1);

        shot.orientation = 0;
        camera.shoot(shot, path("c." + ext));
        EXPECT_EQ(readExif(path("c." + ext)).orientation, 0);

        shot.writeExif = false;
        camera.shoot(shot, path("d." + ext));
        fields = readExif(path("d." + ext));
        EXPECT_EQ(fields.make, "");
        EXPECT_EQ(fields.model, "");
        EXPECT_EQ(fields.orientation, 0);
    }
}

TEST_F(CamsimFiles, JpegQualityAndRecompression)
{
    const Camera camera(smallCamera());
    ShotConfig shot;
    std::vector<uintmax_t> sizes;
    for (int quality : {50, 70, 92, 100})
    {
        shot.quality = quality;
        const std::string file = path("q" + std::to_string(quality) + ".jpg");
        camera.shoot(shot, file);
        sizes.push_back(fs::file_size(file));
    }
    for (size_t i = 1; i < sizes.size(); ++i)
        EXPECT_GT(sizes[i], sizes[i - 1] * 11 / 10) << "quality step " << i;

    // Recompressing at 70 gives about the size of a direct quality-70 photo,
    // keeps the EXIF block and stays close to the original pixels.
    recompressJpeg(path("q92.jpg"), path("re70.jpg"), 70);
    const uintmax_t recompressed = fs::file_size(path("re70.jpg"));
    EXPECT_LT(recompressed, sizes[2]);
    EXPECT_GT(recompressed, sizes[1] * 8 / 10);
    EXPECT_EQ(readExif(path("re70.jpg")).model, "QX-1");
    EXPECT_EQ(readExif(path("re70.jpg")).orientation, 1);
    const Image before = readImage(path("q92.jpg"));
    const Image after = readImage(path("re70.jpg"));
    ASSERT_EQ(before.samples.size(), after.samples.size());
    double difference = 0;
    for (size_t i = 0; i < before.samples.size(); ++i)
        difference += std::abs(before.samples[i] - after.samples[i]);
    EXPECT_LT(difference / static_cast<double>(before.samples.size()), 3.0);

    // In place.
    recompressJpeg(path("q100.jpg"), path("q100.jpg"), 50);
    EXPECT_LT(fs::file_size(path("q100.jpg")), sizes[1]);
    EXPECT_EQ(readExif(path("q100.jpg")).make, "Veltrano");
    EXPECT_THROW(recompressJpeg(path("missing.jpg"), path("x.jpg"), 70), Error);
    // Decoder failures come back as errors, not as an exit of the process.
    std::ofstream(path("broken.jpg"), std::ios::binary) << std::string("\xff\xd8\xff\xe0 broken", 11);
    EXPECT_THROW(recompressJpeg(path("broken.jpg"), path("x.jpg"), 70), Error);
    EXPECT_THROW(readImage(path("broken.jpg")), Error);
    EXPECT_THROW(writeImage(readImage(path("q92.jpg")), path("no/such/folder.jpg"), FileFormat::Jpeg), Error);
}

TEST_F(CamsimFiles, LosslessFormatsRoundTrip)
{
    const Camera camera(smallCamera());
    for (int bits : {8, 16})
    {
        ShotConfig shot;
        shot.bits = bits;
        shot.format = FileFormat::Png;
        shot.scene = SceneKind::Gradient;
        const Image image = camera.render(shot);
        EXPECT_EQ(image.bits, bits);
        for (FileFormat format : {FileFormat::Png, FileFormat::Tiff})
        {
            SCOPED_TRACE(std::string(formatName(format)) + " " + std::to_string(bits));
            const std::string file = path(std::to_string(bits) + "." + formatExtension(format));
            writeImage(image, file, format);
            const Image back = readImage(file);
            EXPECT_EQ(back.bits, bits);
            EXPECT_EQ(back.samples, image.samples);
        }
        if (bits == 16)
        {
            // 16 bits use the range: the low byte carries information.
            size_t lowBitsSet = 0;
            for (uint16_t v : image.samples)
                lowBitsSet += (v & 0xff) != 0 ? 1 : 0;
            EXPECT_GT(lowBitsSet, image.samples.size() / 2);
            EXPECT_THROW(writeImage(image, path("x.jpg"), FileFormat::Jpeg), Error);
        }
    }
    EXPECT_THROW(readImage(path("missing.png")), Error);
    std::ofstream(path("junk.png")) << "not an image";
    EXPECT_THROW(readImage(path("junk.png")), Error);
}

TEST(CamsimCamera, ScenesAndExposure)
{
    const Camera camera{CameraConfig()};
    const auto clipped = [](int v) { return v >= 254; };
    const auto black = [](int v) { return v <= 2; };
    const auto mean = [](const Image& image)
    {
        double sum = 0;
        for (uint16_t v : image.samples)
            sum += v;
        return sum / static_cast<double>(image.samples.size());
    };

    // Ordinary photos are neither mostly clipped nor black.
    ShotConfig shot;
    for (uint64_t seed = 1; seed <= 4; ++seed)
    {
        shot.sceneSeed = seed;
        const Image image = camera.render(shot);
        SCOPED_TRACE(seed);
        EXPECT_LT(fractionWhere(image, clipped), 0.05);
        EXPECT_LT(fractionWhere(image, black), 0.02);
        EXPECT_GT(mean(image), 70);
        EXPECT_LT(mean(image), 170);
    }

    // A flat field comes out neutral (white balance undoes the sensor's colour
    // response) at the level the exposure and the sRGB-like curve give.
    ShotConfig flat;
    flat.scene = SceneKind::Flat;
    const Image grey = camera.render(flat);
    double channel[3] = {0, 0, 0};
    for (size_t i = 0; i < grey.samples.size(); ++i)
        channel[i % 3] += grey.samples[i];
    const double pixels = static_cast<double>(grey.samples.size() / 3);
    const double expected = 255 * (1.055 * std::pow(flat.exposure, 1 / 2.4) - 0.055);
    for (double sum : channel)
        EXPECT_NEAR(sum / pixels, expected, 1.5);

    shot.exposure = 0.02;
    const Image dark = camera.render(shot);
    EXPECT_LT(mean(dark), 50);
    shot.exposure = 4.0;
    const Image bright = camera.render(shot);
    EXPECT_GT(fractionWhere(bright, clipped), 0.5);

    // Flat is flat; the others have structure, each its own.
    shot.exposure = ShotConfig().exposure;
    std::vector<std::vector<uint16_t>> seen;
    for (SceneKind kind : {SceneKind::Flat, SceneKind::Gradient, SceneKind::Texture, SceneKind::Edges,
                           SceneKind::Natural, SceneKind::Foliage, SceneKind::Sky})
    {
        SCOPED_TRACE(sceneKindName(kind));
        shot.scene = kind;
        const Image image = camera.render(shot);
        // Spread of 16x16 block means of green: scene structure, not noise.
        std::vector<double> blocks;
        for (int by = 0; by + 16 <= image.height; by += 16)
        {
            for (int bx = 0; bx + 16 <= image.width; bx += 16)
            {
                double sum = 0;
                for (int y = by; y < by + 16; ++y)
                    for (int x = bx; x < bx + 16; ++x)
                        sum += image.at(x, y, 1);
                blocks.push_back(sum / 256);
            }
        }
        double m = 0, v = 0;
        for (double b : blocks)
            m += b;
        m /= static_cast<double>(blocks.size());
        for (double b : blocks)
            v += (b - m) * (b - m);
        const double spread = std::sqrt(v / static_cast<double>(blocks.size()));
        if (kind == SceneKind::Flat)
            EXPECT_LT(spread, 1.0);
        else
            EXPECT_GT(spread, 5.0);
        for (const auto& other : seen)
            EXPECT_NE(other, image.samples);
        seen.push_back(image.samples);
        SceneKind parsed = SceneKind::Flat;
        EXPECT_TRUE(parseSceneKind(sceneKindName(kind), parsed));
        EXPECT_EQ(parsed, kind);
    }

    // What makes real photos hard: a sky exposed for the ground clips, foliage
    // is busier pixel to pixel than an ordinary scene, denoising smooths a flat
    // field and sharpening roughens it.
    const auto busy = [](const Image& image)
    {
        double sum = 0;
        for (int y = 0; y < image.height; ++y)
            for (int x = 1; x < image.width; ++x)
                sum += std::abs(image.at(x, y, 1) - image.at(x - 1, y, 1));
        return sum / (image.height * (image.width - 1.0));
    };
    shot.scene = SceneKind::Sky;
    shot.exposure = 0.7;
    EXPECT_GT(fractionWhere(camera.render(shot), clipped), 0.2);
    shot.exposure = ShotConfig().exposure;
    shot.scene = SceneKind::Natural;
    const double natural = busy(camera.render(shot));
    shot.scene = SceneKind::Foliage;
    EXPECT_GT(busy(camera.render(shot)), 2 * natural);
    const double plain = busy(grey);
    flat.denoise = 0.8;
    EXPECT_LT(busy(camera.render(flat)), 0.7 * plain);
    flat.denoise = 0;
    flat.sharpen = 1.0;
    EXPECT_GT(busy(camera.render(flat)), 1.3 * plain);
}

TEST(CamsimCamera, ProfilesDrawRealisticShots)
{
    using namespace profiles;
    for (Profile profile : {Profile::Plain, Profile::Dslr, Profile::Phone})
    {
        SCOPED_TRACE(profileName(profile));
        Profile parsed = Profile::Plain;
        EXPECT_TRUE(parseProfile(profileName(profile), parsed));
        EXPECT_EQ(parsed, profile);
        const CameraConfig full = camera(profile, 3);
        const CameraConfig small = camera(profile, 3, 0.4);
        EXPECT_NO_THROW(validateCamera(full));
        EXPECT_EQ(full.unitSeed, 3u);
        EXPECT_EQ(small.width % 2, 0);
        EXPECT_NEAR(small.width, 0.4 * full.width, 2);
        EXPECT_NEAR(small.height, 0.4 * full.height, 2);
        EXPECT_GE(small.prnuSigma, full.prnuSigma);
        EXPECT_EQ(referenceShot(profile, 5).scene, SceneKind::Flat);

        // Over many seeds: every hard kind of shot in a minority, the same seed the same shot.
        int dark = 0, sky = 0, foliage = 0, strong = 0;
        constexpr int Shots = 400;
        for (uint64_t seed = 1; seed <= Shots; ++seed)
        {
            const ShotConfig s = naturalShot(profile, seed);
            EXPECT_NO_THROW(validateShot(full, s));
            EXPECT_EQ(describeShot(s), describeShot(naturalShot(profile, seed)));
            dark += s.exposure < 0.07;
            sky += s.scene == SceneKind::Sky;
            foliage += s.scene == SceneKind::Foliage;
            strong += s.quality < 85;
        }
        for (int count : {dark, sky, foliage, strong})
        {
            if (profile == Profile::Plain)
                EXPECT_EQ(count, 0);
            else
            {
                EXPECT_GT(count, Shots / 40);
                EXPECT_LT(count, Shots / 3);
            }
        }
    }
    Profile parsed;
    EXPECT_FALSE(parseProfile("compact", parsed));
    // Units of one profile share make and model, so their model pattern too.
    EXPECT_EQ(dslr(1).model, dslr(2).model);
    EXPECT_NE(dslr(1).model, phone(1).model);
}

TEST(CamsimCamera, RefusesImpossibleParameters)
{
    CameraConfig config;
    config.width = 8;
    EXPECT_THROW(Camera{config}, Error);
    config = CameraConfig();
    config.fullWell = 20000; // beyond the 12-bit ADC at 3 e-/DN
    EXPECT_THROW(Camera{config}, Error);
    config = CameraConfig();
    config.prnuSigma = -0.01;
    EXPECT_THROW(Camera{config}, Error);

    const Camera camera(smallCamera());
    const auto refused = [&camera](void (*change)(ShotConfig&))
    {
        ShotConfig shot;
        change(shot);
        try
        {
            camera.render(shot);
        }
        catch (const Error&)
        {
            return true;
        }
        return false;
    };
    EXPECT_TRUE(refused([](ShotConfig& s) { s.exposure = 0; }));
    EXPECT_TRUE(refused([](ShotConfig& s) { s.quality = 101; }));
    EXPECT_TRUE(refused([](ShotConfig& s) { s.bits = 16; })); // JPEG
    EXPECT_TRUE(refused([](ShotConfig& s) { s.bits = 12; }));
    EXPECT_TRUE(refused([](ShotConfig& s) { s.rotation = 45; }));
    EXPECT_TRUE(refused([](ShotConfig& s) { s.orientation = 9; }));
    EXPECT_TRUE(refused(
        [](ShotConfig& s)
        {
            s.cropWidth = 321;
            s.cropHeight = 10;
        }));
    EXPECT_TRUE(refused([](ShotConfig& s) { s.cropWidth = 10; })); // no height
    EXPECT_FALSE(refused(
        [](ShotConfig& s)
        {
            s.bits = 16;
            s.format = FileFormat::Tiff;
        }));
}

TEST_F(CamsimFiles, CommandLine)
{
    CommandLine parsed;
    ASSERT_EQ(parseCommandLine({"--make",  "Acme",      "--model=Q 7", "--unit",   "12",     "--size",
                                "640x480", "--scene",   "edges",       "--format", "png",    "--bits",
                                "16",      "--crop",    "320x200+4+6", "--rotate", "270",    "--orientation",
                                "8",       "--no-exif", "--lens",      "L",        "--seed", "5",
                                "--count", "3",         "--exposure",  "0.45",     "--out",  "dir"},
                               parsed),
              "");
    EXPECT_EQ(parsed.camera.make, "Acme");
    EXPECT_EQ(parsed.camera.model, "Q 7");
    EXPECT_EQ(parsed.camera.unitSeed, 12u);
    EXPECT_EQ(parsed.camera.width, 640);
    EXPECT_EQ(parsed.camera.height, 480);
    EXPECT_EQ(parsed.camera.lens, "L");
    EXPECT_EQ(parsed.shot.scene, SceneKind::Edges);
    EXPECT_EQ(parsed.shot.format, FileFormat::Png);
    EXPECT_EQ(parsed.shot.bits, 16);
    EXPECT_EQ(parsed.shot.cropWidth, 320);
    EXPECT_EQ(parsed.shot.cropHeight, 200);
    EXPECT_EQ(parsed.shot.cropX, 4);
    EXPECT_EQ(parsed.shot.cropY, 6);
    EXPECT_EQ(parsed.shot.rotation, 270);
    EXPECT_EQ(parsed.shot.orientation, 8);
    EXPECT_FALSE(parsed.shot.writeExif);
    EXPECT_DOUBLE_EQ(parsed.shot.exposure, 0.45);
    EXPECT_EQ(parsed.seed, 5u);
    EXPECT_EQ(parsed.count, 3);
    EXPECT_EQ(parsed.outDir, "dir");

    const std::string out = path("out");
    const std::vector<std::vector<std::string>> bad = {
        {},                                         // no --out
        {"--out"},                                  // missing value
        {"--out", out, "--bogus", "1"},             // unknown option
        {"--out", out, "stray"},                    // not an option
        {"--out", out, "--size", "640"},            // no height
        {"--out", out, "--size", "8x8"},            // too small
        {"--out", out, "--count", "0"},             // count below 1
        {"--out", out, "--count", "3x"},            // trailing junk
        {"--out", out, "--quality", "0"},           // quality range
        {"--out", out, "--bits", "16"},             // 16-bit JPEG
        {"--out", out, "--rotate", "45"},           // rotation
        {"--out", out, "--orientation", "9"},       // orientation range
        {"--out", out, "--scene", "beach"},         // unknown scene
        {"--out", out, "--format", "gif"},          // unknown format
        {"--out", out, "--crop", "2000x100"},       // crop wider than the sensor
        {"--out", out, "--crop", "100x100+1600+0"}, // crop outside
        {"--out", out, "--exposure", "-1"},         // exposure
        {"--out", out, "--unit", "-3"},             // unsigned seed
        {"--out", out, "--prefix", "a/b"},          // prefix with a folder
        {"--out", out, "--denoise", "1.5"},         // denoising range
        {"--out", out, "--profile", "compact"},     // unknown profile
        {"--out", out, "--profile", "dslr", "--quality", "80"}, // drawn by the profile
    };
    for (const auto& args : bad)
    {
        std::ostringstream o, e;
        std::string joined;
        for (const auto& a : args)
            joined += a + " ";
        SCOPED_TRACE(joined);
        EXPECT_EQ(runCommandLine(args, o, e), 2);
        EXPECT_TRUE(o.str().empty());
        EXPECT_NE(e.str().find("camsim: "), std::string::npos);
    }
    EXPECT_FALSE(fs::exists(out));

    std::ostringstream o, e;
    EXPECT_EQ(runCommandLine({"--help"}, o, e), 0);
    EXPECT_NE(o.str().find("Usage: camsim"), std::string::npos);
    EXPECT_TRUE(e.str().empty());

    o.str("");
    ASSERT_EQ(runCommandLine({"--size", "200x150", "--count", "3", "--out", out, "--prefix", "u1", "--format",
                              "tiff", "--orientation", "3"},
                             o, e),
              0)
        << e.str();
    std::vector<std::string> lines;
    std::istringstream listed(o.str());
    for (std::string line; std::getline(listed, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 3u);
    for (int n = 1; n <= 3; ++n)
    {
        const std::string expected = (fs::path(out) / ("u1_000" + std::to_string(n) + ".tif")).string();
        EXPECT_EQ(lines[static_cast<size_t>(n - 1)], expected);
        EXPECT_EQ(readImage(expected).width, 200);
        EXPECT_EQ(readExif(expected).orientation, 3);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 3);
    // Photo n depends on the seed and n only, so a later run can continue a set.
    o.str("");
    ASSERT_EQ(runCommandLine({"--size", "200x150", "--first", "3", "--out", out, "--prefix", "again",
                              "--format", "tiff", "--orientation", "3"},
                             o, e),
              0);
    EXPECT_EQ(fileBytes(fs::path(out) / "again_0003.tif"), fileBytes(fs::path(out) / "u1_0003.tif"));
    EXPECT_NE(fileBytes(fs::path(out) / "u1_0002.tif"), fileBytes(fs::path(out) / "u1_0003.tif"));

    // The program itself: exit status and streams.
    const std::string program = CAMSIM_EXECUTABLE;
    EXPECT_EQ(std::system(("\"" + program + "\" --help > \"" + path("help.txt") + "\"").c_str()), 0);
    EXPECT_NE(fileBytes(path("help.txt")).find("--orientation"), std::string::npos);
    EXPECT_NE(std::system(("\"" + program + "\" --size 8x8 --out \"" + path("x") + "\" 2> \"" +
                           path("err.txt") + "\"")
                              .c_str()),
              0);
    EXPECT_NE(fileBytes(path("err.txt")).find("sensor size"), std::string::npos);
    EXPECT_EQ(std::system(("\"" + program + "\" --size 64x48 --count 2 --out \"" + path("bin") + "\" > \"" +
                           path("list.txt") + "\"")
                              .c_str()),
              0);
    EXPECT_TRUE(fs::exists(path("bin/img_0002.jpg")));

    // A profile sets the camera (other options still change it) and draws each shot.
    ASSERT_EQ(parseCommandLine({"--profile", "phone", "--unit", "4", "--size", "320x240", "--out", "d"}, parsed), "");
    EXPECT_EQ(parsed.camera.model, profiles::phone(4).model);
    EXPECT_EQ(parsed.camera.unitSeed, 4u);
    EXPECT_EQ(parsed.camera.width, 320);
    EXPECT_DOUBLE_EQ(parsed.camera.prnuSigma, profiles::phone(4).prnuSigma);
    o.str("");
    ASSERT_EQ(runCommandLine({"--profile=dslr", "--size", "96x64", "--count", "2", "--scene", "flat", "--out",
                              path("profiled"), "--format", "png"},
                             o, e),
              0)
        << e.str();
    EXPECT_EQ(readExif(path("profiled/img_0001.png")).model, profiles::dslr(1).model);
    const Camera dslrCamera([] {
        CameraConfig c = profiles::dslr(1);
        c.width = 96;
        c.height = 64;
        return c;
    }());
    ShotConfig drawn = profiles::referenceShot(profiles::Profile::Dslr, combineSeeds(1, 2));
    drawn.format = FileFormat::Png;
    EXPECT_EQ(readImage(path("profiled/img_0002.png")).samples, dslrCamera.render(drawn).samples);

    // An output folder that cannot be made is a failure, not a usage error.
    std::ofstream(path("plainfile")) << "x";
    e.str("");
    EXPECT_EQ(runCommandLine({"--size", "64x48", "--out", path("plainfile")}, o, e), 1);
    EXPECT_NE(e.str().find("camsim: "), std::string::npos);
    EXPECT_NE(fileBytes(path("list.txt")).find("img_0002.jpg"), std::string::npos);
}
