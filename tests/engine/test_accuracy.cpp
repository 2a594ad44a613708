// Learning and matching on simulated cameras, through the C interface: the
// engine must tell two units of the same model apart and survive rotation,
// cropping, resizing and recompression.
#include "camsim/imagefile.h"
#include "lumicrest.h"
#include "simcamera.h"

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

const int Width = dslrUnit(1).width;
const int Height = dslrUnit(1).height;

camsim::ShotConfig resized(camsim::ShotConfig s, double factor)
{
    s.resizeWidth = static_cast<int>(std::lround(Width * factor));
    s.resizeHeight = static_cast<int>(std::lround(Height * factor));
    return s;
}

// One fingerprint of unit 1 learned from ten ordinary photos, shared by the tests.
class Accuracy : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new TempDir("lumicrest-accuracy");
        s_unit1 = new camsim::Camera(dslrUnit(1));
        s_unit2 = new camsim::Camera(dslrUnit(2));
        s_learned = new Learned(learnReferences(*s_unit1, *s_dir, "ref_", 100, 10));
    }
    static void TearDownTestSuite()
    {
        release_fingerprint(&s_learned->fp);
        delete s_learned;
        delete s_unit1;
        delete s_unit2;
        delete s_dir;
    }

    // The match of a photo of unit 1 (or 2) taken with s.
    static Matched matchShot(const camsim::ShotConfig& s, bool sameUnit = true)
    {
        return match(s_learned->fp, shoot(sameUnit ? *s_unit1 : *s_unit2, s, *s_dir, "question.jpg"));
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
    const camsim::CameraConfig& c = s_unit1->config();
    for (const std::string& field : {"\"make\":\"" + c.make, "\"model\":\"" + c.model, "\"lens\":\"" + c.lens})
        EXPECT_NE(meta.find(field + "\""), std::string::npos) << meta;
}

TEST_F(Accuracy, ScoresSpreadOverTheDecisionRegionOtherUnitNeverMatches)
{
    // The profile's mix of ordinary and hard shots (dark, clipped sky, foliage,
    // strong compression): the same unit's scores must reach from the highest
    // class down near the threshold, as real photos do, and another unit of the
    // model must stay far below it on the very same scenes.
    constexpr int Photos = 12;
    std::vector<double> same;
    for (int i = 0; i < Photos; ++i)
    {
        const camsim::ShotConfig s = camsim::profiles::naturalShot(camsim::profiles::Profile::Dslr, 2000 + i);
        const Matched mine = matchShot(s);
        const Matched other = matchShot(s, false);
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
    }
    std::sort(same.begin(), same.end());
    EXPECT_LT(same.front(), 200) << "no photo near the threshold: the profile has become too easy";
    EXPECT_GE(same.back(), 400) << "no photo in the highest class";
    EXPECT_GE(same[Photos / 2], 100) << "median below the medium class: the profile has become too hard";
}

TEST_F(Accuracy, TurnedCroppedResizedAndRecompressedPhotosMatchOnlyTheirUnit)
{
    // Whole photos turned, cropped or resized (the sides round as a resizer
    // rounds them, K is resampled to the photo's size): the engine reports the
    // turn that brings the photo back onto the sensor grid, the shift of a
    // crop and the scale.
    struct Case
    {
        int rotation;
        double factor;
        bool crop;
    };
    for (const Case& c : {Case{90, 1, false}, Case{180, 1, false}, Case{270, 1, false}, Case{0, 1, true},
                          Case{0, 0.8, false}, Case{90, 0.5, false}, Case{0, 1.25, false}})
    {
        SCOPED_TRACE(std::to_string(c.rotation) + " degrees, scale " + std::to_string(c.factor));
        camsim::ShotConfig s = c.factor == 1 ? ordinaryShot(700 + c.rotation) : resized(ordinaryShot(1100), c.factor);
        s.rotation = c.rotation;
        if (c.crop)
        {
            s.cropWidth = Width / 2;
            s.cropHeight = Height / 2;
        }
        const Matched m = matchShot(s);
        std::printf("PCE %.1f -> %s\n", m.pce(), m.json.c_str());
        ASSERT_EQ(m.code, LUMICREST_OK) << m.json;
        EXPECT_TRUE(m.matched()) << m.json;
        EXPECT_NE(m.json.find("\"reason\":\"\""), std::string::npos) << m.json;
        EXPECT_EQ(m.orientation(), (360 - c.rotation) % 360) << m.json;
        EXPECT_NEAR(m.scale(), c.factor, 0.01) << m.json;
        if (c.crop)
        {
            const std::string shift = "\"shift\":[" + std::to_string(Width / 4) + "," + std::to_string(Height / 4);
            EXPECT_NE(m.json.find(shift + "]"), std::string::npos) << m.json;
        }
        const Matched stranger = matchShot(s, false);
        EXPECT_FALSE(stranger.matched()) << stranger.json;
    }

    const std::string recompressed = s_dir->file("q70.jpg");
    camsim::recompressJpeg(shoot(*s_unit1, ordinaryShot(900), *s_dir, "original.jpg"), recompressed, 70);
    const Matched q70 = match(s_learned->fp, recompressed);
    EXPECT_TRUE(q70.matched()) << q70.json;

    camsim::CameraConfig wider = dslrUnit(1);
    wider.width = Width + 64;
    const Matched tooLarge = match(s_learned->fp, shoot(camsim::Camera(wider), ordinaryShot(901), *s_dir, "larger.jpg"));
    EXPECT_EQ(tooLarge.code, LUMICREST_OK);
    EXPECT_FALSE(tooLarge.matched());
    EXPECT_NE(tooLarge.json.find("\"reason\":\"size\""), std::string::npos) << tooLarge.json;
}

TEST_F(Accuracy, ScaleSearchFindsResizedCropsOnlyWhenAskedTo)
{
    // Resized, cropped and turned: no size hint, so only the full search finds
    // it. The crop of the camera comes before its resize: cut the resized photo instead.
    const camsim::ShotConfig whole = resized(ordinaryShot(1101), 0.7);
    const int cropWidth = whole.resizeWidth - 40, cropHeight = whole.resizeHeight * 9 / 10;
    const std::string resizedCut = s_dir->file("resized_cut.jpg");
    camsim::writeImage(camsim::rotateImage(camsim::cropImage(camsim::readImage(shoot(*s_unit1, whole, *s_dir,
                                                                                       "resized_whole.jpg")),
                                                             30, 20, cropWidth, cropHeight),
                                           180),
                       resizedCut, camsim::FileFormat::Jpeg, 92);
    const std::string smaller = shoot(*s_unit1, resized(ordinaryShot(1100), 0.8), *s_dir, "smaller.jpg");
    const std::string enlarged = shoot(*s_unit1, resized(ordinaryShot(1100), 1.25), *s_dir, "enlarged.jpg");
    {
        const ScopedEnvironment full("LUMICREST_SCALE_SEARCH", "full");
        const Matched searched = match(s_learned->fp, resizedCut);
        std::printf("resized 0.7 and cropped, full search: %s\n", searched.json.c_str());
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
        EXPECT_TRUE(match(s_learned->fp, smaller).matched());
    }
    {
        const ScopedEnvironment off("LUMICREST_SCALE_SEARCH", "off");
        const Matched m = match(s_learned->fp, enlarged);
        EXPECT_EQ(m.code, LUMICREST_OK);
        EXPECT_NE(m.json.find("\"reason\":\"size\""), std::string::npos) << m.json;
    }
    const ScopedEnvironment typo("LUMICREST_SCALE_SEARCH", "ful");
    EXPECT_EQ(match(s_learned->fp, smaller).code, LUMICREST_INVALID_OPTION);
}

TEST_F(Accuracy, EightThreadsGiveTheAnswersOfOne)
{
    // The fingerprint as the program holds it after loading a file: bytes only.
    const std::string saved = s_dir->file("threads.fnp");
    ASSERT_EQ(save_fingerprint_to_disk(&s_learned->fp, wide(saved).c_str()), LUMICREST_OK);
    std::vector<unsigned char> bytes = readBytes(saved);
    const fingerprint_binary_s held{bytes.data(), static_cast<int32_t>(bytes.size()), nullptr};

    // Both units; every other pair resized to 0.8, so the threads share the resampled K being made.
    std::vector<std::string> photos;
    for (int i = 0; i < 8; ++i)
        photos.push_back(shoot(i % 2 ? *s_unit1 : *s_unit2, i % 4 >= 2 ? resized(ordinaryShot(1000 + i), 0.8)
                                                                       : ordinaryShot(1000 + i),
                               *s_dir, "thread_" + std::to_string(i) + ".jpg"));
    std::vector<std::string> sequential;
    for (const std::string& p : photos)
        sequential.push_back(match(held, p).json);

    std::vector<std::string> parallel(photos.size());
    inParallel(photos.size(), [&](size_t i) { parallel[i] = match(held, photos[i]).json; });
    EXPECT_EQ(parallel, sequential);
    for (size_t i = 0; i < photos.size(); ++i)
        EXPECT_EQ(match(s_learned->fp, photos[i]).json, sequential[i]) << "engine-made and caller-built agree";
}
