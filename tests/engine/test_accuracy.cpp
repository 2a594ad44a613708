// Learning and matching on simulated cameras, through the C interface: the
// engine must tell two units of the same model apart and survive rotation,
// cropping and recompression. The cameras are the calibrated DSLR profile,
// shrunk to 0.4 of each side (about 1 MP) to keep the suite fast, so the
// scores spread over the decision region as real ones do.
#include "camsim/camera.h"
#include "camsim/imagefile.h"
#include "camsim/profiles.h"
#include "enginetestutils.h"
#include "lumicrest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

using namespace enginetest;

namespace
{

constexpr double Scale = 0.4;
const camsim::profiles::Profile Profile = camsim::profiles::Profile::Dslr;

camsim::CameraConfig unit(uint64_t seed)
{
    return camsim::profiles::camera(Profile, seed, Scale);
}

const int Width = unit(1).width;
const int Height = unit(1).height;

// An ordinary daylight photo with the profile's light processing.
camsim::ShotConfig shot(camsim::SceneKind scene, uint64_t seed, double exposure = 0.3)
{
    camsim::ShotConfig s = camsim::profiles::referenceShot(Profile, seed);
    s.scene = scene;
    s.exposure = exposure;
    s.quality = 92;
    return s;
}

// One fingerprint of unit 1 learned from ten ordinary photos, shared by the tests.
class Accuracy : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new TempDir("lumicrest-accuracy");
        s_unit1 = new camsim::Camera(unit(1));
        s_unit2 = new camsim::Camera(unit(2));
        std::vector<std::string> references;
        for (int i = 0; i < 10; ++i)
        {
            const std::string path = s_dir->file("ref_" + std::to_string(i) + ".jpg");
            s_unit1->shoot(camsim::profiles::referenceShot(Profile, 100 + i), path);
            references.push_back(path);
        }
        s_learned = new Learned(learn(references));
    }
    static void TearDownTestSuite()
    {
        release_fingerprint(&s_learned->fp);
        delete s_learned;
        delete s_unit1;
        delete s_unit2;
        delete s_dir;
    }

    static std::string photo(const camsim::Camera& camera, const camsim::ShotConfig& s, const std::string& name)
    {
        const std::string path = s_dir->file(name);
        camera.shoot(s, path);
        return path;
    }

    static TempDir* s_dir;
    static camsim::Camera* s_unit1;
    static camsim::Camera* s_unit2;
    static Learned* s_learned;
};

TempDir* Accuracy::s_dir = nullptr;
camsim::Camera* Accuracy::s_unit1 = nullptr;
camsim::Camera* Accuracy::s_unit2 = nullptr;
Learned* Accuracy::s_learned = nullptr;

} // namespace

TEST_F(Accuracy, LearnedFromTenPhotos)
{
    ASSERT_EQ(s_learned->code, LUMICREST_OK) << s_learned->diagnostics;
    ASSERT_NE(s_learned->fp.data, nullptr);
    ASSERT_GT(s_learned->fp.size, 2 * Width * Height);
    std::printf("learning diagnostics: %s\nwarnings: %s\n", s_learned->diagnostics.c_str(),
                s_learned->warnings.c_str());

    const std::string saved = s_dir->file("unit1.fnp");
    ASSERT_EQ(save_fingerprint_to_disk(&s_learned->fp, wide(saved).c_str()), LUMICREST_OK);
    wchar_t* json = nullptr;
    ASSERT_EQ(get_metadata_sensor_fingerprint(wide(saved).c_str(), &json), LUMICREST_OK);
    const std::string meta = take(json);
    EXPECT_EQ(jsonNumber(meta, "width"), Width);
    EXPECT_EQ(jsonNumber(meta, "height"), Height);
    EXPECT_EQ(jsonArrayLength(meta, "nmse"), 10) << meta;
    EXPECT_NE(meta.find("\"make\":\"" + s_unit1->config().make + "\""), std::string::npos) << meta;
    EXPECT_NE(meta.find("\"model\":\"" + s_unit1->config().model + "\""), std::string::npos) << meta;
    EXPECT_NE(meta.find("\"lens\":\"" + s_unit1->config().lens + "\""), std::string::npos) << meta;
}

TEST_F(Accuracy, ScoresSpreadOverTheDecisionRegionOtherUnitNeverMatches)
{
    // The profile's mix of ordinary and hard shots (dark, clipped sky, foliage,
    // strong compression): the same unit's scores must reach from the highest
    // class down near the threshold, as real photos do, and another unit of the
    // model must stay far below it on the very same scenes.
    constexpr int Photos = 12;
    std::vector<double> same;
    double highestOther = -1e300;
    for (int i = 0; i < Photos; ++i)
    {
        const camsim::ShotConfig s = camsim::profiles::naturalShot(Profile, 2000 + i);
        const Matched mine = match(s_learned->fp, photo(*s_unit1, s, "same.jpg"));
        const Matched other = match(s_learned->fp, photo(*s_unit2, s, "other.jpg"));
        std::printf("photo %2d: same unit PCE %8.1f, other unit PCE %5.1f  (%s)\n", i, mine.pce(), other.pce(),
                    camsim::profiles::describeShot(s).c_str());
        ASSERT_EQ(mine.code, LUMICREST_OK) << mine.json;
        ASSERT_EQ(other.code, LUMICREST_OK) << other.json;
        EXPECT_EQ(mine.matched(), mine.pce() >= 60) << mine.json;
        if (mine.matched())
        {
            EXPECT_EQ(mine.orientation(), 0) << mine.json;
        }
        EXPECT_FALSE(other.matched()) << other.json;
        EXPECT_LT(other.pce(), 25) << other.json;
        same.push_back(mine.pce());
        highestOther = std::max(highestOther, other.pce());
    }
    std::sort(same.begin(), same.end());
    std::printf("same unit PCE %.1f .. %.1f (median %.1f), other unit PCE <= %.1f\n", same.front(), same.back(),
                same[Photos / 2], highestOther);
    EXPECT_LT(same.front(), 200) << "no photo near the threshold: the profile has become too easy";
    EXPECT_GE(same.back(), 400) << "no photo in the highest class";
    EXPECT_GE(same[Photos / 2], 100) << "median below the medium class: the profile has become too hard";
}

TEST_F(Accuracy, RotatedCroppedAndRecompressedPhotosMatch)
{
    for (int rotation : {90, 180, 270})
    {
        camsim::ShotConfig s = shot(camsim::SceneKind::Natural, 700 + rotation);
        s.rotation = rotation;
        const Matched m = match(s_learned->fp, photo(*s_unit1, s, "turned.jpg"));
        std::printf("rotated %d: PCE %.1f -> %s\n", rotation, m.pce(), m.json.c_str());
        EXPECT_TRUE(m.matched()) << m.json;
        // The engine reports the turn that brings the photo back onto the sensor grid.
        EXPECT_EQ(m.orientation(), (360 - rotation) % 360) << m.json;
        const Matched stranger = match(s_learned->fp, photo(*s_unit2, s, "turned_other.jpg"));
        EXPECT_FALSE(stranger.matched()) << stranger.json;
    }

    camsim::ShotConfig cropped = shot(camsim::SceneKind::Natural, 800);
    cropped.cropWidth = Width / 2;
    cropped.cropHeight = Height / 2;
    const Matched crop = match(s_learned->fp, photo(*s_unit1, cropped, "crop.jpg"));
    std::printf("centre crop: PCE %.1f -> %s\n", crop.pce(), crop.json.c_str());
    EXPECT_TRUE(crop.matched()) << crop.json;
    EXPECT_NE(crop.json.find("\"shift\":[" + std::to_string(Width / 4) + "," + std::to_string(Height / 4) + "]"),
              std::string::npos)
        << crop.json;
    const Matched cropOther = match(s_learned->fp, photo(*s_unit2, cropped, "crop_other.jpg"));
    std::printf("centre crop, other unit: PCE %.1f\n", cropOther.pce());
    EXPECT_FALSE(cropOther.matched()) << cropOther.json;

    const std::string original = photo(*s_unit1, shot(camsim::SceneKind::Natural, 900), "original.jpg");
    const std::string recompressed = s_dir->file("q70.jpg");
    camsim::recompressJpeg(original, recompressed, 70);
    const Matched q70 = match(s_learned->fp, recompressed);
    std::printf("recompressed at quality 70: PCE %.1f\n", q70.pce());
    EXPECT_TRUE(q70.matched()) << q70.json;

    camsim::ShotConfig larger = shot(camsim::SceneKind::Natural, 901);
    const camsim::Camera big([] {
        camsim::CameraConfig c = unit(1);
        c.width = Width + 64;
        return c;
    }());
    const Matched tooLarge = match(s_learned->fp, photo(big, larger, "larger.jpg"));
    EXPECT_EQ(tooLarge.code, LUMICREST_OK);
    EXPECT_FALSE(tooLarge.matched());
    EXPECT_NE(tooLarge.json.find("\"reason\":\"size\""), std::string::npos) << tooLarge.json;
}

TEST_F(Accuracy, ResizedPhotosMatchAtTheirScale)
{
    // Whole photos resized (and turned) by a resizer: K is resampled to the
    // photo's size. The sides round as a resizer rounds them.
    struct Case
    {
        double factor;
        int rotation;
        bool sameUnit;
    };
    const Case cases[] = {{0.8, 0, true}, {0.5, 90, true}, {1.25, 0, true}, {0.8, 0, false}, {0.5, 90, false}};
    for (const Case& c : cases)
    {
        camsim::ShotConfig s = shot(camsim::SceneKind::Natural, 1100);
        s.resizeWidth = static_cast<int>(std::lround(Width * c.factor));
        s.resizeHeight = static_cast<int>(std::lround(Height * c.factor));
        s.rotation = c.rotation;
        const Matched m = match(s_learned->fp, photo(c.sameUnit ? *s_unit1 : *s_unit2, s, "resized.jpg"));
        std::printf("resized %.2f turned %d, %s unit: PCE %.1f -> %s\n", c.factor, c.rotation,
                    c.sameUnit ? "same" : "other", m.pce(), m.json.c_str());
        ASSERT_EQ(m.code, LUMICREST_OK) << m.json;
        EXPECT_NE(m.json.find("\"reason\":\"\""), std::string::npos) << m.json;
        EXPECT_EQ(m.matched(), c.sameUnit) << m.json;
        if (c.sameUnit)
        {
            EXPECT_NEAR(m.scale(), c.factor, 0.01) << m.json;
            EXPECT_EQ(m.orientation(), (360 - c.rotation) % 360) << m.json;
        }
    }

    // Resized, cropped and turned: no size hint, so only the full search finds it.
    camsim::ShotConfig cut = shot(camsim::SceneKind::Natural, 1101);
    cut.resizeWidth = static_cast<int>(std::lround(Width * 0.7));
    cut.resizeHeight = static_cast<int>(std::lround(Height * 0.7));
    cut.cropWidth = cut.resizeWidth - 40;
    cut.cropHeight = cut.resizeHeight * 9 / 10;
    camsim::ShotConfig plain = shot(camsim::SceneKind::Natural, 1100);
    plain.resizeWidth = static_cast<int>(std::lround(Width * 0.8));
    plain.resizeHeight = static_cast<int>(std::lround(Height * 0.8));
    const std::string resized = photo(*s_unit1, plain, "plain_resized.jpg");
    plain.resizeWidth = static_cast<int>(std::lround(Width * 1.25));
    plain.resizeHeight = static_cast<int>(std::lround(Height * 1.25));
    const std::string enlarged = photo(*s_unit1, plain, "enlarged.jpg");
    const std::string resizedCut = s_dir->file("resized_cut.jpg");
    {
        // The crop of the camera comes before its resize: cut the resized photo instead.
        camsim::ShotConfig whole = cut;
        whole.cropWidth = whole.cropHeight = 0;
        const std::string full = photo(*s_unit1, whole, "resized_whole.jpg");
        camsim::writeImage(
            camsim::rotateImage(camsim::cropImage(camsim::readImage(full), 30, 20, cut.cropWidth, cut.cropHeight), 180),
            resizedCut, camsim::FileFormat::Jpeg, 92);
    }
    {
        const ScopedEnvironment full("LUMICREST_SCALE_SEARCH", "full");
        const Matched searched = match(s_learned->fp, resizedCut);
        std::printf("resized 0.7 and cropped, full search: PCE %.1f -> %s\n", searched.pce(), searched.json.c_str());
        EXPECT_TRUE(searched.matched()) << searched.json;
        EXPECT_NEAR(searched.scale(), 0.7, 0.01) << searched.json;
        EXPECT_EQ(searched.orientation(), 180) << searched.json;
    }

    // The search limit: sized (the default) skips the full search, off any
    // resampling, and a typo fails instead of silently searching less.
    {
        const ScopedEnvironment sized("LUMICREST_SCALE_SEARCH", "");
        const Matched m = match(s_learned->fp, resizedCut);
        EXPECT_FALSE(m.matched()) << m.json;
        EXPECT_EQ(m.scale(), 1.0) << m.json;
        EXPECT_TRUE(match(s_learned->fp, resized).matched());
    }
    {
        const ScopedEnvironment off("LUMICREST_SCALE_SEARCH", "off");
        const Matched m = match(s_learned->fp, enlarged);
        EXPECT_EQ(m.code, LUMICREST_OK);
        EXPECT_NE(m.json.find("\"reason\":\"size\""), std::string::npos) << m.json;
    }
    {
        const ScopedEnvironment typo("LUMICREST_SCALE_SEARCH", "ful");
        EXPECT_EQ(match(s_learned->fp, resized).code, LUMICREST_INVALID_OPTION);
    }
}

TEST_F(Accuracy, EightThreadsGiveTheAnswersOfOne)
{
    // The fingerprint as the program holds it after loading a file: bytes only.
    const std::string saved = s_dir->file("threads.fnp");
    ASSERT_EQ(save_fingerprint_to_disk(&s_learned->fp, wide(saved).c_str()), LUMICREST_OK);
    std::ifstream in(saved, std::ios::binary);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const fingerprint_binary_s held{bytes.data(), static_cast<int32_t>(bytes.size()), nullptr};

    // Every other photo resized to 0.8, so the threads share the resampled K being made.
    std::vector<std::string> photos;
    for (int i = 0; i < 8; ++i)
    {
        camsim::ShotConfig config = shot(camsim::SceneKind::Natural, 1000 + i);
        if (i % 4 >= 2)
        {
            config.resizeWidth = static_cast<int>(std::lround(Width * 0.8));
            config.resizeHeight = static_cast<int>(std::lround(Height * 0.8));
        }
        photos.push_back(photo(i % 2 ? *s_unit1 : *s_unit2, config, "thread_" + std::to_string(i) + ".jpg"));
    }
    std::vector<std::string> sequential;
    for (const std::string& p : photos)
        sequential.push_back(match(held, p).json);

    std::vector<std::string> parallel(photos.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < photos.size(); ++i)
        threads.emplace_back([&, i] { parallel[i] = match(held, photos[i]).json; });
    for (std::thread& t : threads)
        t.join();
    for (size_t i = 0; i < photos.size(); ++i)
    {
        EXPECT_EQ(parallel[i], sequential[i]) << "photo " << i;
        EXPECT_EQ(match(s_learned->fp, photos[i]).json, sequential[i]) << "engine-made and caller-built agree";
    }
}
