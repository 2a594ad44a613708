// The camera simulator on its own: what the engine's tests cannot see
// through matching (the model pattern shared by units, determinism from the
// seeds, EXIF, formats and bit depths, crop and rotation, scenes and
// exposure, the profiles' mix of shots, the command line).
#include "camsim/camera.h"
#include "camsim/cli.h"
#include "camsim/imagefile.h"
#include "camsim/profiles.h"
#include "camsim/random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <sstream>

namespace fs = std::filesystem;
using namespace camsim;

namespace
{

template <typename T> double correlation(const std::vector<T>& a, const std::vector<T>& b)
{
    double ma = 0, mb = 0, ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < a.size(); ++i)
    {
        ma += a[i] / static_cast<double>(a.size());
        mb += b[i] / static_cast<double>(b.size());
    }
    for (size_t i = 0; i < a.size(); ++i)
    {
        ab += (a[i] - ma) * (b[i] - mb);
        aa += (a[i] - ma) * (a[i] - ma);
        bb += (b[i] - mb) * (b[i] - mb);
    }
    return ab / std::sqrt(aa * bb);
}

// Relative deviation of each site of a flat read-out from the mean of its
// same-colour neighbours, with the matching values of `pattern` alongside.
std::pair<std::vector<double>, std::vector<double>> rawDeviation(const Plane& raw,
                                                                 const std::vector<float>& pattern)
{
    std::pair<std::vector<double>, std::vector<double>> result;
    for (int y = 4; y < raw.height - 4; ++y)
    {
        for (int x = 4; x < raw.width - 4; ++x)
        {
            double sum = 0;
            for (int dy = -4; dy <= 4; dy += 2)
                for (int dx = -4; dx <= 4; dx += 2)
                    sum += (dx || dy) ? raw.at(x + dx, y + dy) : 0.0;
            result.first.push_back(raw.at(x, y) / (sum / 24.0) - 1.0);
            result.second.push_back(pattern[static_cast<size_t>(y) * static_cast<size_t>(raw.width) + x]);
        }
    }
    return result;
}

std::string fileBytes(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// make|model|lens|orientation as read back from the file.
std::string exifOf(const std::string& path)
{
    const ExifFields f = readExif(path);
    return f.make + "|" + f.model + "|" + f.lens + "|" + std::to_string(f.orientation);
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
    return static_cast<double>(std::count_if(image.samples.begin(), image.samples.end(), predicate)) /
           static_cast<double>(image.samples.size());
}

double meanAbsDifference(const Image& a, const Image& b)
{
    EXPECT_EQ(a.samples.size(), b.samples.size());
    double sum = 0;
    for (size_t i = 0; i < a.samples.size() && i < b.samples.size(); ++i)
        sum += std::abs(a.samples[i] - b.samples[i]);
    return sum / static_cast<double>(a.samples.size());
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

// Units of one model share the model pattern, weakly, beside their own
// PRNU; another model shares nothing.
TEST(CamsimCamera, UnitsOfOneModelShareOnlyTheModelPattern)
{
    CameraConfig other = smallCamera(1);
    other.model = "QX-2";
    const Camera a(smallCamera(1)), b(smallCamera(2)), c(other);

    const std::vector<float> ka = a.prnu();
    EXPECT_EQ(ka, Camera(smallCamera(1)).prnu());
    EXPECT_LT(std::abs(correlation(ka, c.prnu())), 0.05) << "the model enters the unit's seed";
    const double sites = static_cast<double>(ka.size());
    EXPECT_NEAR(std::accumulate(ka.begin(), ka.end(), 0.0) / sites, 0.0, 1e-6);
    EXPECT_NEAR(std::sqrt(std::inner_product(ka.begin(), ka.end(), ka.begin(), 0.0) / sites), 0.01, 0.0003);

    const ModelPattern ma = a.modelPattern(), mb = b.modelPattern(), mc = c.modelPattern();
    EXPECT_EQ(ma.pixel, mb.pixel);
    EXPECT_EQ(ma.columnGain, mb.columnGain);
    EXPECT_EQ(ma.rowOffset, mb.rowOffset);
    ASSERT_EQ(ma.pixel.size(), ka.size());
    EXPECT_LT(std::abs(correlation(ma.pixel, mc.pixel)), 0.05);
    EXPECT_LT(std::abs(correlation(ma.columnGain, mc.columnGain)), 0.3);

    ShotConfig flat;
    flat.scene = SceneKind::Flat;
    flat.exposure = 0.45;
    const auto [da, truthA] = rawDeviation(a.exposeRaw(flat), ma.pixel);
    const auto [db, truthB] = rawDeviation(b.exposeRaw(flat), ma.pixel);
    const auto [dc, truthC] = rawDeviation(c.exposeRaw(flat), ma.pixel);
    EXPECT_GT(correlation(da, truthA), 0.04);
    EXPECT_GT(correlation(db, truthB), 0.04);
    EXPECT_LT(std::abs(correlation(dc, truthC)), 0.02);
    flat.sceneSeed = 2;
    const std::vector<double> da2 = rawDeviation(a.exposeRaw(flat), ma.pixel).first;
    const double sameUnit = correlation(da, da2);
    const double sameModel = correlation(da2, db);
    EXPECT_GT(sameUnit, 0.2);
    EXPECT_GT(sameModel, 0.005);
    EXPECT_LT(sameModel, sameUnit / 5);
    EXPECT_LT(std::abs(correlation(da2, dc)), sameModel);
}

TEST_F(CamsimFiles, SameSeedsGiveIdenticalFiles)
{
    const std::pair<FileFormat, int> cases[] = {
        {FileFormat::Jpeg, 8}, {FileFormat::Png, 16}, {FileFormat::Tiff, 8}};
    for (const auto& [format, bits] : cases)
    {
        SCOPED_TRACE(formatName(format));
        const auto bytes = [&, format = format, bits = bits](uint64_t unit, uint64_t sceneSeed)
        {
            ShotConfig shot;
            shot.format = format;
            shot.bits = bits;
            shot.sceneSeed = sceneSeed;
            const std::string file = path(std::string("photo.") + formatExtension(format));
            Camera(smallCamera(unit)).shoot(shot, file);
            return fileBytes(file);
        };
        const std::string first = bytes(1, 7);
        EXPECT_GT(first.size(), 1000u);
        EXPECT_EQ(first, bytes(1, 7));
        // Another unit, or another scene, gives another file.
        EXPECT_NE(first, bytes(2, 7));
        EXPECT_NE(first, bytes(1, 8));
    }

    // The noise seed varies the noise alone: same scene, small differences.
    const Camera camera(smallCamera(1));
    ShotConfig shot;
    const Image base = camera.render(shot);
    shot.noiseSeed = 99;
    const double difference = meanAbsDifference(base, camera.render(shot));
    EXPECT_GT(difference, 0.1);
    EXPECT_LT(difference, 5.0);
}

TEST(CamsimCamera, RotationAndCrop)
{
    const Camera camera(smallCamera());
    ShotConfig shot;
    shot.scene = SceneKind::Edges;
    const Image image = camera.render(shot);
    ASSERT_EQ(std::pair(image.width, image.height), std::pair(320, 240));

    const Image turned = rotateImage(image, 90);
    ASSERT_EQ(std::pair(turned.width, turned.height), std::pair(240, 320));
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
    EXPECT_EQ(std::pair(centre.width, centre.height), std::pair(161, 100));
    EXPECT_EQ(centre.samples, cropImage(image, 79, 70, 161, 100).samples);
    shot.cropX = 10;
    shot.cropY = 20;
    shot.rotation = 270;
    const Image placed = camera.render(shot);
    EXPECT_EQ(std::pair(placed.width, placed.height), std::pair(100, 161));
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
        const std::string file = path(std::string("a.") + formatExtension(format));
        ShotConfig shot;
        shot.format = format;
        shot.rotation = 90;
        shot.orientation = 6;
        camera.shoot(shot, file);
        EXPECT_EQ(exifOf(file), "Veltrano|QX-1|Tessan 35mm f/2|6");
        // Writing EXIF leaves the pixels intact.
        const Image pixels = readImage(file);
        EXPECT_EQ(std::pair(pixels.width, pixels.height), std::pair(240, 320));
        if (format != FileFormat::Jpeg)
        {
            EXPECT_EQ(pixels.samples, camera.render(shot).samples);
        }

        // Wrong hints and other cameras' names are written as asked.
        shot.orientation = 1;
        shot.exifMake = "Other";
        shot.exifModel = "Z";
        shot.exifLens = "";
        camera.shoot(shot, file);
        EXPECT_EQ(exifOf(file), "Other|Z||1");
        shot.orientation = 0;
        camera.shoot(shot, file);
        EXPECT_EQ(exifOf(file), "Other|Z||0");
        shot.writeExif = false;
        shot.orientation = 6;
        camera.shoot(shot, file);
        EXPECT_EQ(exifOf(file), "|||0");
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
        camera.shoot(shot, path("q" + std::to_string(quality) + ".jpg"));
        sizes.push_back(fs::file_size(path("q" + std::to_string(quality) + ".jpg")));
    }
    for (size_t i = 1; i < sizes.size(); ++i)
        EXPECT_GT(sizes[i], sizes[i - 1] * 11 / 10) << "quality step " << i;

    // Recompressing at 70 gives about the size of a direct quality-70 photo,
    // keeps the EXIF block and stays close to the original pixels.
    recompressJpeg(path("q92.jpg"), path("re70.jpg"), 70);
    EXPECT_LT(fs::file_size(path("re70.jpg")), sizes[2]);
    EXPECT_GT(fs::file_size(path("re70.jpg")), sizes[1] * 8 / 10);
    EXPECT_EQ(exifOf(path("re70.jpg")), "Veltrano|QX-1|Tessan 35mm f/2|1");
    EXPECT_LT(meanAbsDifference(readImage(path("q92.jpg")), readImage(path("re70.jpg"))), 3.0);

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
            EXPECT_GT(std::count_if(image.samples.begin(), image.samples.end(),
                                    [](uint16_t v) { return v & 0xff; }),
                      image.samples.size() / 2);
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
    const auto mean = [](const Image& image)
    { return std::accumulate(image.samples.begin(), image.samples.end(), 0.0) / image.samples.size(); };

    // Ordinary photos are neither mostly clipped nor black.
    ShotConfig shot;
    for (uint64_t seed = 1; seed <= 4; ++seed)
    {
        shot.sceneSeed = seed;
        const Image image = camera.render(shot);
        SCOPED_TRACE(seed);
        EXPECT_LT(fractionWhere(image, clipped), 0.05);
        EXPECT_LT(fractionWhere(image, [](int v) { return v <= 2; }), 0.02);
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
    const double expected = 255 * (1.055 * std::pow(flat.exposure, 1 / 2.4) - 0.055);
    for (double sum : channel)
        EXPECT_NEAR(sum / static_cast<double>(grey.samples.size() / 3), expected, 1.5);

    shot.exposure = 0.02;
    EXPECT_LT(mean(camera.render(shot)), 50);
    shot.exposure = 4.0;
    EXPECT_GT(fractionWhere(camera.render(shot), clipped), 0.5);

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
        const int across = image.width / 16, down = image.height / 16;
        std::vector<double> blocks(static_cast<size_t>(across * down));
        for (int y = 0; y < down * 16; ++y)
            for (int x = 0; x < across * 16; ++x)
                blocks[static_cast<size_t>(y / 16 * across + x / 16)] += image.at(x, y, 1) / 256.0;
        const double n = static_cast<double>(blocks.size()),
                     m = std::accumulate(blocks.begin(), blocks.end(), 0.0) / n;
        const double spread =
            std::sqrt(std::inner_product(blocks.begin(), blocks.end(), blocks.begin(), 0.0) / n - m * m);
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
    // Units of one profile share make and model, so their model pattern too.
    EXPECT_EQ(dslr(1).model, dslr(2).model);
    EXPECT_NE(dslr(1).model, phone(1).model);
}

// The other refusals are met through the command line, which checks with
// the same functions; these have no option there.
TEST(CamsimCamera, RefusesImpossibleParameters)
{
    CameraConfig config;
    config.fullWell = 20000; // beyond the 12-bit ADC at 3 e-/DN
    EXPECT_THROW(Camera{config}, Error);
    const Camera camera(smallCamera());
    ShotConfig shot;
    shot.cropWidth = 10; // no height
    EXPECT_THROW(camera.render(shot), Error);
    shot = ShotConfig();
    shot.bits = 16;
    shot.format = FileFormat::Tiff;
    EXPECT_NO_THROW(camera.render(shot));
}

TEST(CamsimCommandLine, ParsesEveryOptionAndProfiles)
{
    CommandLine p;
    ASSERT_EQ(parseCommandLine({"--make",  "Acme",      "--model=Q 7", "--unit",   "12",     "--size",
                                "640x480", "--scene",   "edges",       "--format", "png",    "--bits",
                                "16",      "--crop",    "320x200+4+6", "--rotate", "270",    "--orientation",
                                "8",       "--no-exif", "--lens",      "L",        "--seed", "5",
                                "--count", "3",         "--exposure",  "0.45",     "--out",  "dir"},
                               p),
              "");
    EXPECT_EQ(std::tie(p.camera.make, p.camera.model, p.camera.lens, p.outDir),
              std::make_tuple("Acme", "Q 7", "L", "dir"));
    EXPECT_EQ(std::tie(p.camera.unitSeed, p.camera.width, p.camera.height, p.seed, p.count),
              std::make_tuple(12u, 640, 480, 5u, 3));
    EXPECT_EQ(std::tie(p.shot.scene, p.shot.format, p.shot.bits, p.shot.rotation, p.shot.orientation),
              std::make_tuple(SceneKind::Edges, FileFormat::Png, 16, 270, 8));
    EXPECT_EQ(std::tie(p.shot.cropWidth, p.shot.cropHeight, p.shot.cropX, p.shot.cropY),
              std::make_tuple(320, 200, 4, 6));
    EXPECT_FALSE(p.shot.writeExif);
    EXPECT_DOUBLE_EQ(p.shot.exposure, 0.45);

    // A profile sets the camera; other options still change it.
    ASSERT_EQ(parseCommandLine({"--profile", "phone", "--unit", "4", "--size", "320x240", "--out", "d"}, p),
              "");
    EXPECT_EQ(std::tie(p.camera.model, p.camera.unitSeed, p.camera.width),
              std::make_tuple(profiles::phone(4).model, 4u, 320));
    EXPECT_DOUBLE_EQ(p.camera.prnuSigma, profiles::phone(4).prnuSigma);
}

TEST_F(CamsimFiles, CommandLineRuns)
{
    const std::string out = path("out");
    // Each bad option after a good --out: ranges at their first value out,
    // a 16-bit JPEG, crops off the 1600x1200 sensor, a profile drawing the
    // quality itself.
    std::vector<std::vector<std::string>> bad = {{}, {"--out"}};
    std::istringstream rows(
        "--bogus 1|stray|--size 640|--size 8x8|--prnu -0.01|--count 0|--count 3x|--quality 0|"
        "--quality 101|--bits 16|--format png --bits 12|--rotate 45|--orientation 9|"
        "--scene beach|--format gif|--crop 1601x100|--crop 100x100+1600+0|--exposure 0|"
        "--unit -3|--prefix a/b|--denoise 1.5|--profile compact|--profile dslr --quality 80");
    for (std::string row; std::getline(rows, row, '|');)
    {
        std::istringstream words("--out " + out + " " + row);
        bad.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
    }
    std::ostringstream o, e;
    for (const auto& args : bad)
    {
        SCOPED_TRACE(::testing::PrintToString(args));
        o.str("");
        e.str("");
        EXPECT_EQ(runCommandLine(args, o, e), 2);
        EXPECT_TRUE(o.str().empty());
        EXPECT_NE(e.str().find("camsim: "), std::string::npos);
    }
    EXPECT_FALSE(fs::exists(out));

    o.str("");
    e.str("");
    EXPECT_EQ(runCommandLine({"--help"}, o, e), 0);
    EXPECT_NE(o.str().find("Usage: camsim"), std::string::npos);
    EXPECT_TRUE(e.str().empty());

    // Each photo's path on its own line; photo n depends on the seed and n
    // only, so a later run can continue a set.
    const auto run = [&](const std::string& prefix, const std::string& count)
    {
        o.str("");
        EXPECT_EQ(runCommandLine({"--size", "200x150", count, "--out", out, "--prefix", prefix, "--format",
                                  "tiff", "--orientation", "3"},
                                 o, e),
                  0)
            << e.str();
        return o.str();
    };
    const auto file = [&](const std::string& name) { return (fs::path(out) / name).string(); };
    EXPECT_EQ(run("u1", "--count=3"),
              file("u1_0001.tif") + "\n" + file("u1_0002.tif") + "\n" + file("u1_0003.tif") + "\n");
    for (const char* name : {"u1_0001.tif", "u1_0002.tif", "u1_0003.tif"})
        EXPECT_EQ(std::pair(readImage(file(name)).width, readExif(file(name)).orientation),
                  std::pair(200, 3));
    EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 3);
    EXPECT_EQ(run("again", "--first=3"), file("again_0003.tif") + "\n");
    EXPECT_EQ(fileBytes(file("again_0003.tif")), fileBytes(file("u1_0003.tif")));
    EXPECT_NE(fileBytes(file("u1_0002.tif")), fileBytes(file("u1_0003.tif")));

    // A profile draws each shot: photo 2 is the profile's reference shot for
    // its seed.
    ASSERT_EQ(runCommandLine({"--profile=dslr", "--size", "96x64", "--count", "2", "--scene", "flat", "--out",
                              path("profiled"), "--format", "png"},
                             o, e),
              0)
        << e.str();
    EXPECT_EQ(readExif(path("profiled/img_0001.png")).model, profiles::dslr(1).model);
    CameraConfig dslr = profiles::dslr(1);
    dslr.width = 96;
    dslr.height = 64;
    ShotConfig drawn = profiles::referenceShot(profiles::Profile::Dslr, combineSeeds(1, 2));
    drawn.format = FileFormat::Png;
    EXPECT_EQ(readImage(path("profiled/img_0002.png")).samples, Camera(dslr).render(drawn).samples);

    // An output folder that cannot be made is a failure, not a usage error.
    std::ofstream(path("plainfile")) << "x";
    e.str("");
    EXPECT_EQ(runCommandLine({"--size", "64x48", "--out", path("plainfile")}, o, e), 1);
    EXPECT_NE(e.str().find("camsim: "), std::string::npos);

    // The program itself: exit status and streams.
    const auto shell = [](const std::string& arguments)
    { return std::system(("\"" + std::string(CAMSIM_EXECUTABLE) + "\" " + arguments).c_str()); };
    EXPECT_EQ(shell("--help > \"" + path("help.txt") + "\""), 0);
    EXPECT_NE(fileBytes(path("help.txt")).find("--orientation"), std::string::npos);
    EXPECT_NE(shell("--size 8x8 --out \"" + path("x") + "\" 2> \"" + path("err.txt") + "\""), 0);
    EXPECT_NE(fileBytes(path("err.txt")).find("sensor size"), std::string::npos);
    EXPECT_EQ(shell("--size 64x48 --count 2 --out \"" + path("bin") + "\" > \"" + path("list.txt") + "\""),
              0);
    EXPECT_TRUE(fs::exists(path("bin/img_0002.jpg")));
    EXPECT_NE(fileBytes(path("list.txt")).find("img_0002.jpg"), std::string::npos);
}
