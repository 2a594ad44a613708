// Learning through the C interface: the progress protocol, the reference
// checks that stop learning at the failing photo, and portrait references.
#include "camsim/imagefile.h"
#include "camsim/random.h"
#include "lumicrest.h"
#include "simcamera.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

using namespace enginetest;

namespace
{

constexpr int Width = 1024;
constexpr int Height = 768;

std::vector<std::tuple<int, float, float>> g_calls;

void record(int percent, float nmse, float seconds)
{
    g_calls.emplace_back(percent, nmse, seconds);
}

camsim::CameraConfig camera(int width = Width, int height = Height)
{
    camsim::CameraConfig c;
    c.width = width;
    c.height = height;
    c.unitSeed = 11;
    return c;
}

camsim::ShotConfig shot(uint64_t seed, double exposure = 0.3)
{
    camsim::ShotConfig s;
    s.scene = seed % 2 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
    s.sceneSeed = seed;
    s.exposure = exposure;
    return s;
}

class Learning : public ::testing::Test
{
protected:
    Learning() : m_dir("lumicrest-learning"), m_camera(camera()) {}

    std::string photo(const camsim::ShotConfig& s, const std::string& name, const camsim::Camera* other = nullptr)
    {
        return shoot(other ? *other : m_camera, s, m_dir, name);
    }
    std::vector<std::string> photos(const std::string& prefix, int count, int firstSeed)
    {
        return shootSeries(m_camera, m_dir, prefix, count, [&](int i) { return shot(firstSeed + i); });
    }

    // Two good photos followed by the one under test.
    std::vector<std::string> twoGoodAnd(const std::string& third)
    {
        return {photo(shot(1), "good1.jpg"), photo(shot(2), "good2.jpg"), third};
    }

    TempDir m_dir;
    camsim::Camera m_camera;
};

} // namespace

TEST_F(Learning, ProgressArrivesInOrderAndNmseFalls)
{
    g_calls.clear();
    Learned learned = learn(photos("p", 4, 20), &record);
    ASSERT_EQ(learned.code, LUMICREST_OK) << learned.diagnostics;

    ASSERT_EQ(g_calls.size(), 6u) << "one before, one per photo, one closing";
    EXPECT_EQ(g_calls.front(), std::make_tuple(0, 0.0f, 0.0f));
    EXPECT_EQ(g_calls.back(), std::make_tuple(100, 0.0f, 0.0f));
    for (int i = 1; i <= 4; ++i)
    {
        const auto [percent, nmse, seconds] = g_calls[i];
        EXPECT_EQ(percent, 25 * i);
        EXPECT_FALSE(nmse == 0.0f && seconds == 0.0f) << "a photo's call never looks like the closing one";
        EXPECT_GE(seconds, std::get<2>(g_calls[i - 1]));
        EXPECT_EQ(nmse == 1.0f, i == 1) << "the first photo's estimate is 1, then it falls";
        EXPECT_LE(nmse, 1.0f);
    }
    EXPECT_LT(std::get<1>(g_calls[4]), std::get<1>(g_calls[2])) << "the estimate converges";

    const std::string saved = m_dir.file("four.fnp");
    ASSERT_EQ(save_fingerprint_to_disk(&learned.fp, wide(saved).c_str()), LUMICREST_OK);
    wchar_t* json = nullptr;
    ASSERT_EQ(get_metadata_sensor_fingerprint(wide(saved).c_str(), &json), LUMICREST_OK);
    const std::string meta = take(json);
    EXPECT_EQ(jsonArrayLength(meta, "nmse"), 4);
    EXPECT_EQ(release_fingerprint(&learned.fp), LUMICREST_OK);
    EXPECT_EQ(learned.fp.data, nullptr);
}

TEST_F(Learning, EachFailingCheckStopsAtItsPhoto)
{
    camsim::ShotConfig otherModel = shot(3);
    otherModel.exifModel = "QX-2";
    const camsim::Camera small(camera(640, 480));
    const camsim::Camera wide(camera(Width, 576));

    // White noise: all texture, no usable sensor pattern.
    camsim::Image noise(Width, Height, 8);
    camsim::Random rng(99);
    for (uint16_t& v : noise.samples)
        v = static_cast<uint16_t>(rng.next() % 256);
    const std::string textured = m_dir.file("noise.jpg");
    camsim::writeImage(noise, textured, camsim::FileFormat::Jpeg, 95);

    const struct
    {
        std::string third;
        lumicrest_error_code expected;
    } cases[] = {
        {photo(shot(3, 0.0008), "dark.jpg"), LUMICREST_REFERENCE_TOO_DARK},
        {photo(shot(3, 6.0), "clipped.jpg"), LUMICREST_REFERENCE_TOO_CLIPPED},
        {photo(shot(3), "small.jpg", &small), LUMICREST_PHOTO_TOO_SMALL},
        {photo(shot(3), "wide.jpg", &wide), LUMICREST_REFERENCE_SIZE_DIFFERS},
        {photo(otherModel, "model.jpg"), LUMICREST_REFERENCE_CAMERA_DIFFERS},
        {textured, LUMICREST_REFERENCE_TOO_NOISY},
        {m_dir.file("missing.jpg"), LUMICREST_PHOTO_CANNOT_OPEN},
    };
    for (const auto& c : cases)
    {
        g_calls.clear();
        Learned learned = learn(twoGoodAnd(c.third), &record);
        EXPECT_EQ(learned.code, c.expected) << c.third << "\n" << learned.diagnostics;
        EXPECT_EQ(learned.fp.data, nullptr) << "no fingerprint from a failed set";
        EXPECT_NE(learned.diagnostics.find("\"index\":2"), std::string::npos);
        EXPECT_NE(learned.diagnostics.find("\"result\":" + std::to_string(c.expected)), std::string::npos);
        EXPECT_NE(learned.warnings.find("\"code\":\"failed\""), std::string::npos);
        // Before, the two good photos, the closing call: nothing for the failing one.
        EXPECT_EQ(g_calls.size(), 4u) << c.third;
        if (!g_calls.empty())
        {
            EXPECT_EQ(g_calls.back(), std::make_tuple(100, 0.0f, 0.0f));
        }
        release_fingerprint(&learned.fp);
    }
    // ASCII case and outer white space make no other camera, as in the program's own check.
    camsim::ShotConfig respelled = shot(3);
    respelled.exifMake = " vELTRANO\t";
    respelled.exifModel = "qx-1\r";
    Learned learned = learn(twoGoodAnd(photo(respelled, "respelled.jpg")));
    EXPECT_EQ(learned.code, LUMICREST_OK) << learned.diagnostics;
    release_fingerprint(&learned.fp);
}

TEST_F(Learning, ChecksCanBeSwitchedOffAndWeakPhotosWarn)
{
    Learned learned = learn(twoGoodAnd(photo(shot(5, 0.02), "dim.jpg")), nullptr, L"sigma_ref=2.5", false);
    ASSERT_EQ(learned.code, LUMICREST_OK) << learned.diagnostics;
    EXPECT_NE(learned.warnings.find("\"code\":\"dark\""), std::string::npos) << learned.warnings;
    EXPECT_NE(learned.warnings.find("\"index\":2"), std::string::npos);
    release_fingerprint(&learned.fp);
}

TEST_F(Learning, PortraitReferencesAreTurnedTheWayTheSensorWas)
{
    camsim::ShotConfig upright = shot(7);
    upright.rotation = 90;
    std::vector<std::string> references = photos("l", 3, 1);
    references.push_back(photo(upright, "portrait.jpg"));
    Learned learned = learn(references);
    ASSERT_EQ(learned.code, LUMICREST_OK) << learned.diagnostics;
    EXPECT_NE(learned.diagnostics.find("\"width\":768,\"height\":1024,\"rotation\":270"), std::string::npos)
        << learned.diagnostics;

    // The fingerprint still recognises its camera, and the portrait photo too.
    const Matched m = match(learned.fp, photo(shot(30), "question.jpg"));
    EXPECT_TRUE(m.matched()) << m.json;
    camsim::ShotConfig turned = shot(31);
    turned.rotation = 270;
    const Matched p = match(learned.fp, photo(turned, "question_portrait.jpg"));
    EXPECT_TRUE(p.matched()) << p.json;
    release_fingerprint(&learned.fp);
}

TEST_F(Learning, ThreadCountDoesNotChangeTheFingerprint)
{
    const std::vector<std::string> references = photos("t", 5, 40);
    const std::string question = photo(shot(49), "tq.jpg");
    std::string diagnostics;
    std::string answer;
    for (const wchar_t* option : {L"threads=1", L"threads=2", L"threads=5"})
    {
        Learned learned = learn(references, nullptr, option);
        ASSERT_EQ(learned.code, LUMICREST_OK);
        const Matched m = match(learned.fp, question);
        if (diagnostics.empty())
        {
            diagnostics = learned.diagnostics;
            answer = m.json;
        }
        // Photos are prepared in parallel but accumulated in list order.
        EXPECT_EQ(learned.diagnostics, diagnostics);
        EXPECT_EQ(m.json, answer);
        release_fingerprint(&learned.fp);
    }
}
