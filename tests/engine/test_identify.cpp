// Identification through the C interface: a library of six simulated cameras
// (two units of one model), their photos, one camera outside the library.
#include "lumicrest.h"
#include "lumicrest_identify.h"
#include "simcamera.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <thread>

using namespace enginetest;
namespace fs = std::filesystem;

namespace
{

constexpr int Cameras = 6; // in the library; [Cameras] is the outsider

camsim::CameraConfig cameraConfig(int i)
{
    // 0 and 1 are two units of one model; the rest are models of their own.
    camsim::CameraConfig c = dslrUnit(static_cast<uint64_t>(i + 1));
    if (i >= 2)
        c.model += "-" + std::to_string(i);
    return c;
}

struct Answer
{
    lumicrest_error_code code = 0;
    std::string json;
    std::vector<int> matches() const
    {
        std::vector<int> out;
        const auto begin = json.find("\"matches\":[");
        const auto end = json.find("\"best\":");
        for (auto at = json.find("{\"index\":", begin); at < end; at = json.find("{\"index\":", at + 1))
            out.push_back(std::atoi(json.c_str() + at + 9));
        return out;
    }
    double number(const std::string& key) const { return jsonNumber(json, key); }
};

class Library
{
public:
    Library(const std::vector<std::string>& files, int flags = 0)
    {
        std::vector<std::wstring> paths;
        for (const std::string& f : files)
            paths.push_back(wide(f));
        std::vector<const wchar_t*> pointers;
        for (const std::wstring& p : paths)
            pointers.push_back(p.c_str());
        wchar_t* json = nullptr;
        code = lumicrest_open_library(pointers.data(), static_cast<int>(pointers.size()), flags, &m_library,
                                      &json);
        opened = take(json);
    }
    ~Library() { lumicrest_close_library(m_library); }
    Answer identify(const std::string& photo) const
    {
        Answer a;
        wchar_t* json = nullptr;
        a.code = lumicrest_identify(m_library, wide(photo).c_str(), &json);
        a.json = take(json);
        return a;
    }
    // The digest state of fingerprint i.
    std::string digest(int i) const
    {
        const auto at = opened.find("{\"index\":" + std::to_string(i) + ",");
        const auto d = opened.find("\"digest\":\"", at) + 10;
        return opened.substr(d, opened.find('"', d) - d);
    }

    lumicrest_error_code code = 0;
    std::string opened;

private:
    lumicrest_library_s* m_library = nullptr;
};

class Identify : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_dir = new TempDir("lumicrest-identify");
        for (int i = 0; i <= Cameras; ++i)
        {
            const camsim::Camera camera(cameraConfig(i));
            s_photos.push_back(shoot(camera, ordinaryShot(500 + i), *s_dir, "photo" + std::to_string(i) + ".jpg"));
            if (i == Cameras)
                break;
            Learned learned = learnReferences(camera, *s_dir, "ref" + std::to_string(i) + "_", 100 * i, 6);
            ASSERT_EQ(learned.code, LUMICREST_OK) << learned.diagnostics;
            s_fingerprints.push_back(s_dir->file("fp" + std::to_string(i) + ".lmf"));
            ASSERT_EQ(save_fingerprint_to_disk(&learned.fp, wide(s_fingerprints.back()).c_str()), LUMICREST_OK);
            release_fingerprint(&learned.fp);
        }
    }
    static void TearDownTestSuite()
    {
        delete s_dir;
        s_fingerprints.clear();
        s_photos.clear();
    }

    // A folder of its own with copies of the fingerprints, for tests that change files.
    static std::vector<std::string> copies(const TempDir& dir)
    {
        std::vector<std::string> out;
        for (const std::string& f : s_fingerprints)
        {
            out.push_back(dir.file(fs::path(f).filename().string()));
            fs::copy_file(f, out.back());
        }
        return out;
    }

    static TempDir* s_dir;
    static std::vector<std::string> s_fingerprints;
    static std::vector<std::string> s_photos;
};

TempDir* Identify::s_dir = nullptr;
std::vector<std::string> Identify::s_fingerprints;
std::vector<std::string> Identify::s_photos;

// Flips a byte `at` from the start (or, negative, from the end).
void flipByte(const std::string& path, std::streamoff at)
{
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    const auto from = at < 0 ? std::ios::end : std::ios::beg;
    f.seekg(at, from);
    const char c = static_cast<char>(f.get() ^ 0x5A);
    f.seekp(at, from);
    f.put(c);
}

} // namespace

TEST_F(Identify, EachPhotoFindsItsOwnCameraOnlyWithAndWithoutTheDigestPass)
{
    const Library digest(s_fingerprints);
    const Library full(s_fingerprints, LUMICREST_LIBRARY_NO_DIGEST_PASS);
    ASSERT_EQ(digest.code, LUMICREST_OK) << digest.opened;
    ASSERT_EQ(full.code, LUMICREST_OK) << full.opened;
    for (int i = 0; i <= Cameras; ++i)
    {
        const Answer a = digest.identify(s_photos[static_cast<size_t>(i)]);
        const Answer b = full.identify(s_photos[static_cast<size_t>(i)]);
        std::printf("camera %d: %s\n", i, a.json.c_str());
        ASSERT_EQ(a.code, LUMICREST_OK) << a.json;
        ASSERT_EQ(b.code, LUMICREST_OK) << b.json;
        EXPECT_EQ(a.number("compared"), Cameras) << a.json;
        EXPECT_EQ(b.number("tried"), Cameras) << b.json;
        EXPECT_LT(a.number("tried"), Cameras) << "the digest pass passed everything: " << a.json;
        EXPECT_EQ(a.matches(), i < Cameras ? std::vector<int>{i} : std::vector<int>{}) << a.json;
        EXPECT_EQ(b.matches(), a.matches()) << b.json;
        // Every fingerprint in two turns: the correction counts them all.
        EXPECT_EQ(a.number("positions"), 2 * Cameras) << a.json;
    }
}

TEST_F(Identify, OneFingerprintEqualsAMatchAndMoreFingerprintsCostExactlyTheirCorrection)
{
    std::vector<unsigned char> bytes = readBytes(s_fingerprints[0]);
    const fingerprint_binary_s fp{bytes.data(), static_cast<int32_t>(bytes.size()), nullptr};
    const Matched alone = match(fp, s_photos[0]);
    const Answer one = Library({s_fingerprints[0]}).identify(s_photos[0]);
    const Answer six = Library(s_fingerprints).identify(s_photos[0]);
    ASSERT_TRUE(alone.matched()) << alone.json;
    EXPECT_EQ(one.number("pce"), alone.pce()) << one.json << "\n" << alone.json;
    EXPECT_EQ(one.number("corr"), jsonNumber(alone.json, "corr"));
    EXPECT_EQ(one.number("probability"), alone.probability());
    EXPECT_EQ(six.number("pce_raw"), one.number("pce_raw"));
    EXPECT_NEAR(one.number("pce") - six.number("pce"), 2 * std::log(2.0 * Cameras / 2), 1e-9) << six.json;
}

TEST_F(Identify, DigestFilesAreWrittenReadAndNeverTrustedWhenStaleOrDamaged)
{
    struct Case
    {
        const char* name;
        void (*spoil)(const std::string& fingerprint, const std::string& other);
        const char* expected; // the state on reopening with writing allowed
    };
    const Case cases[] = {
        {"intact", [](const std::string&, const std::string&) {}, "read"},
        {"stale",
         [](const std::string& f, const std::string& other)
         { fs::copy_file(other, f, fs::copy_options::overwrite_existing); },
         "written"},
        {"corrupt", [](const std::string& f, const std::string&) { flipByte(f + ".digest", 40); }, "written"},
        {"truncated", [](const std::string& f, const std::string&) { fs::resize_file(f + ".digest", 100); },
         "written"},
        {"directory",
         [](const std::string& f, const std::string&)
         {
             fs::remove(f + ".digest");
             fs::create_directory(f + ".digest");
         },
         "made"},
    };
    for (const Case& c : cases)
    {
        const TempDir dir("lumicrest-digest");
        const std::vector<std::string> files = copies(dir);
        {
            const Library made(files);
            EXPECT_EQ(made.digest(0), "made") << c.name;
            const Library written(files, LUMICREST_LIBRARY_WRITE_DIGESTS);
            EXPECT_EQ(written.digest(0), "written") << c.name;
            EXPECT_FALSE(fs::exists(files[0] + ".digest.part")) << c.name;
        }
        c.spoil(files[0], files[2]);
        const Library reopened(files, LUMICREST_LIBRARY_WRITE_DIGESTS);
        ASSERT_EQ(reopened.code, LUMICREST_OK) << c.name;
        EXPECT_EQ(reopened.digest(0), c.expected) << c.name << ": " << reopened.opened;
        EXPECT_EQ(reopened.digest(1), "read") << c.name;
        // Whatever happened to the digest, the answer is that of the fingerprints
        // as they are: a replaced one is camera 2's twin.
        const bool replaced = std::string(c.name) == "stale";
        EXPECT_EQ(reopened.identify(s_photos[replaced ? 2 : 0]).matches(),
                  replaced ? (std::vector<int>{0, 2}) : std::vector<int>{0})
            << c.name;
    }

    // A folder that cannot be written to: the digests are made, and that is no error.
    const TempDir dir("lumicrest-digest");
    const std::vector<std::string> files = copies(dir);
    fs::permissions(dir.path(), fs::perms::owner_read | fs::perms::owner_exec);
    const bool writable = std::ofstream(dir.file("probe")).good(); // a privileged user writes anyway
    const Library readOnly(files, LUMICREST_LIBRARY_WRITE_DIGESTS);
    fs::permissions(dir.path(), fs::perms::owner_all);
    EXPECT_EQ(readOnly.code, LUMICREST_OK);
    if (!writable)
    {
        EXPECT_EQ(readOnly.digest(0), "made") << readOnly.opened;
    }
}

TEST_F(Identify, DamagedFingerprintIsReportedAndLeftOut)
{
    const TempDir dir("lumicrest-damaged");
    const std::vector<std::string> files = copies(dir);
    Library(files, LUMICREST_LIBRARY_WRITE_DIGESTS);
    flipByte(files[0], -1000); // inside K: the header and the stored checksum still read well
    const Library library(files);
    ASSERT_EQ(library.digest(0), "read") << library.opened;
    const Answer a = library.identify(s_photos[0]);
    ASSERT_EQ(a.code, LUMICREST_OK) << a.json;
    EXPECT_EQ(jsonArrayLength(a.json, "failed"), 1) << a.json;
    EXPECT_NE(a.json.find("\"failed\":[0]"), std::string::npos) << a.json;
    EXPECT_EQ(a.number("compared"), Cameras - 1) << a.json;
    EXPECT_TRUE(a.matches().empty()) << a.json;
    // Others are still found.
    EXPECT_EQ(library.identify(s_photos[3]).matches(), std::vector<int>{3});
}

TEST_F(Identify, PhotosOfOtherSizesGoThroughTheFullMatchOrAreNotCompared)
{
    const int width = cameraConfig(4).width;
    const int height = cameraConfig(4).height;
    struct Case
    {
        const char* name;
        int cropWidth, cropHeight;
        double factor;
        int cameraWidth;
        int compared;
        const char* reason;
        std::vector<int> matches;
    };
    const Case cases[] = {
        {"cropped", width / 2, height / 2, 1.0, width, Cameras, "", {4}},
        {"resized", 0, 0, 0.8, width, Cameras, "", {4}},
        {"larger", 0, 0, 1.0, width + 64, 0, "size", {}},
        {"too small", 200, 200, 1.0, width, 0, "too small", {}},
    };
    const Library library(s_fingerprints);
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        camsim::ShotConfig s = ordinaryShot(900);
        s.cropWidth = c.cropWidth;
        s.cropHeight = c.cropHeight;
        if (c.factor != 1.0)
        {
            s.resizeWidth = static_cast<int>(std::lround(width * c.factor));
            s.resizeHeight = static_cast<int>(std::lround(height * c.factor));
        }
        camsim::CameraConfig config = cameraConfig(4);
        config.width = c.cameraWidth;
        const Answer a = library.identify(shoot(camsim::Camera(config), s, *s_dir, std::string(c.name) + ".jpg"));
        ASSERT_EQ(a.code, LUMICREST_OK);
        EXPECT_EQ(a.number("compared"), c.compared) << a.json;
        EXPECT_NE(a.json.find(std::string("\"reason\":\"") + c.reason + "\""), std::string::npos) << a.json;
        EXPECT_EQ(a.matches(), c.matches) << a.json;
        if (c.compared == 0)
        {
            EXPECT_NE(a.json.find("\"best\":null"), std::string::npos) << a.json;
        }
    }
}

TEST_F(Identify, BadArgumentsAndFiles)
{
    const std::wstring fp0 = wide(s_fingerprints[0]);
    const std::wstring missing = wide(s_dir->file("missing.lmf"));
    const std::wstring folder = s_dir->path().wstring();
    const wchar_t* paths[] = {fp0.c_str(), missing.c_str(), folder.c_str()};
    lumicrest_library_s* library = nullptr;
    wchar_t* json = nullptr;
    EXPECT_EQ(lumicrest_open_library(nullptr, 1, 0, &library, &json), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(lumicrest_open_library(paths, 1, 0, nullptr, &json), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(lumicrest_open_library(paths, 0, 0, &library, &json), LUMICREST_INVALID_COUNT);
    EXPECT_EQ(lumicrest_open_library(paths, 1, 8, &library, &json), LUMICREST_INVALID_OPTION);
    const wchar_t* empty[] = {L""};
    EXPECT_EQ(lumicrest_open_library(empty, 1, 0, &library, &json), LUMICREST_INVALID_EMPTY_PATH);
    EXPECT_EQ(library, nullptr);
    EXPECT_EQ(json, nullptr);

    ASSERT_EQ(lumicrest_open_library(paths, 3, 0, &library, &json), LUMICREST_OK);
    const std::string opened = take(json);
    EXPECT_NE(opened.find("{\"index\":1,\"width\":0,\"height\":0,\"status\":450"), std::string::npos)
        << opened;
    EXPECT_NE(opened.find("{\"index\":2,\"width\":0,\"height\":0,\"status\":450"), std::string::npos)
        << opened;

    // A refused call still answers (as a refused match does), so each answer is taken.
    EXPECT_EQ(lumicrest_identify(nullptr, wide(s_photos[0]).c_str(), &json), LUMICREST_INVALID_NULL_POINTER);
    take(json);
    EXPECT_EQ(lumicrest_identify(library, nullptr, &json), LUMICREST_INVALID_NULL_POINTER);
    take(json);
    EXPECT_EQ(lumicrest_identify(library, wide(s_photos[0]).c_str(), nullptr),
              LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(lumicrest_identify(library, missing.c_str(), &json), LUMICREST_PHOTO_CANNOT_OPEN);
    const std::string failed = take(json);
    EXPECT_EQ(jsonNumber(failed, "compared"), 0) << failed;
    EXPECT_EQ(failed.find("\"reason\":\"\""), std::string::npos) << failed;
    ASSERT_EQ(lumicrest_identify(library, wide(s_photos[0]).c_str(), &json), LUMICREST_OK);
    const std::string found = take(json);
    EXPECT_EQ(jsonNumber(found, "compared"), 1) << found;
    EXPECT_EQ(lumicrest_close_library(library), LUMICREST_OK);
    EXPECT_EQ(lumicrest_close_library(nullptr), LUMICREST_OK);
}

TEST_F(Identify, ThreadsIdentifyingAtOnceGiveTheAnswersOfOne)
{
    const Library library(s_fingerprints, LUMICREST_LIBRARY_NO_DIGEST_PASS);
    std::vector<std::string> expected;
    {
        const Library alone(s_fingerprints, LUMICREST_LIBRARY_NO_DIGEST_PASS);
        for (const std::string& photo : s_photos)
            expected.push_back(alone.identify(photo).json);
    }
    // Cold: the threads load the same fingerprints at once.
    std::vector<std::string> answers(2 * s_photos.size());
    inParallel(4, [&](size_t t) {
        for (size_t i = t; i < answers.size(); i += 4)
            answers[i] = library.identify(s_photos[i % s_photos.size()]).json;
    });
    for (size_t i = 0; i < answers.size(); ++i)
        EXPECT_EQ(answers[i], expected[i % s_photos.size()]);
}
