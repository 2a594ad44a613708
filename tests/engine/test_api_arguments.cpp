// The C boundary with bad arguments and bad files: every call answers with a
// result value and never crashes or leaks.
#include "fingerprint.h"
#include "lumicrest.h"
#include "text.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace fs = std::filesystem;
using namespace lumicrest;

namespace
{

class TempDir
{
public:
    TempDir()
    {
        std::random_device rd;
        m_path = fs::temp_directory_path() / ("lumicrest-args-" + std::to_string(rd()));
        fs::create_directories(m_path);
    }
    ~TempDir() { fs::remove_all(m_path); }
    std::wstring file(const std::string& name, const std::string& content) const
    {
        std::ofstream(m_path / name, std::ios::binary) << content;
        return (m_path / name).wstring();
    }
    std::wstring path(const std::string& name) const { return (m_path / name).wstring(); }

private:
    fs::path m_path;
};

// A small valid fingerprint held the way the program holds one it loaded.
struct CallerFingerprint
{
    std::vector<unsigned char> bytes;
    fingerprint_binary_s fp{};
    CallerFingerprint()
    {
        FingerprintData data;
        data.width = 640;
        data.height = 512;
        data.make = "Veltrano";
        data.model = "QX-1";
        data.nmse = {1.0, 0.5, 0.3};
        data.k.reset(640, 512);
        std::mt19937 rng(7);
        std::normal_distribution<float> n(0.0f, 0.01f);
        for (size_t i = 0; i < data.k.size(); ++i)
            data.k.data()[i] = n(rng);
        bytes = serializeFingerprint(data);
        fp.data = bytes.data();
        fp.size = static_cast<int32_t>(bytes.size());
    }
};

std::string answer(wchar_t* text)
{
    std::string s = toUtf8(text);
    std::free(text);
    return s;
}

} // namespace

TEST(ApiArguments, LearningRefusesBadArguments)
{
    TempDir dir;
    const std::wstring photo = dir.file("a.jpg", "not really");
    const wchar_t* paths[] = {photo.c_str()};
    const wchar_t* nullPath[] = {nullptr};
    const wchar_t* emptyPath[] = {L""};
    fingerprint_binary_s out{};
    wchar_t* t1 = reinterpret_cast<wchar_t*>(1);
    wchar_t* t2 = reinterpret_cast<wchar_t*>(1);

    EXPECT_EQ(get_sensor_fingerprint(nullptr, 1, &out, &t1, L"", true, &t2, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(t1, nullptr) << "out-texts are cleared even when the call fails";
    EXPECT_EQ(t2, nullptr);
    EXPECT_EQ(get_sensor_fingerprint(paths, 1, nullptr, &t1, L"", true, &t2, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(get_sensor_fingerprint(paths, 0, &out, &t1, L"", true, &t2, nullptr), LUMICREST_INVALID_COUNT);
    EXPECT_EQ(get_sensor_fingerprint(paths, -3, &out, &t1, L"", true, &t2, nullptr), LUMICREST_INVALID_COUNT);
    EXPECT_EQ(get_sensor_fingerprint(nullPath, 1, &out, &t1, L"", true, &t2, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(get_sensor_fingerprint(emptyPath, 1, &out, &t1, L"", true, &t2, nullptr), LUMICREST_INVALID_EMPTY_PATH);
    EXPECT_EQ(get_sensor_fingerprint(paths, 1, &out, &t1, L"colour=blue", true, &t2, nullptr), LUMICREST_INVALID_OPTION);
    EXPECT_EQ(out.data, nullptr);
    EXPECT_EQ(out.size, 0);

    // A file that is no photo ends learning with its value, and the texts say why.
    EXPECT_EQ(get_sensor_fingerprint(paths, 1, &out, &t1, nullptr, true, &t2, nullptr), LUMICREST_FORMAT_NOT_SUPPORTED);
    const std::string diagnostics = answer(t1);
    const std::string warnings = answer(t2);
    EXPECT_NE(diagnostics.find("\"result\":491"), std::string::npos) << diagnostics;
    EXPECT_NE(warnings.find("\"code\":\"failed\""), std::string::npos) << warnings;
    EXPECT_EQ(release_fingerprint(&out), LUMICREST_OK);

    // Out-texts are optional.
    EXPECT_EQ(get_sensor_fingerprint(paths, 1, &out, nullptr, L"", true, nullptr, nullptr),
              LUMICREST_FORMAT_NOT_SUPPORTED);
}

TEST(ApiArguments, MatchingRefusesBadArgumentsAndStillAnswers)
{
    TempDir dir;
    CallerFingerprint held;
    const std::wstring text = dir.file("notes.jpg", "plain text, not a photo");
    const std::wstring empty = dir.file("empty.jpg", "");
    wchar_t* json = nullptr;

    EXPECT_EQ(match_device_origins(nullptr, text.c_str(), 2, &json, nullptr), LUMICREST_INVALID_NULL_POINTER);
    std::free(json);
    EXPECT_EQ(match_device_origins(&held.fp, nullptr, 2, &json, nullptr), LUMICREST_INVALID_NULL_POINTER);
    std::free(json);
    EXPECT_EQ(match_device_origins(&held.fp, text.c_str(), 2, nullptr, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(match_device_origins(&held.fp, L"", 2, &json, nullptr), LUMICREST_INVALID_EMPTY_PATH);
    EXPECT_NE(json, nullptr) << "even a refused call answers";
    EXPECT_NE(answer(json).find("\"sensor_matched\":0"), std::string::npos);
    EXPECT_EQ(match_device_origins(&held.fp, text.c_str(), 1, &json, nullptr), LUMICREST_INVALID_MODE);
    std::free(json);

    EXPECT_EQ(match_device_origins(&held.fp, text.c_str(), 2, &json, nullptr), LUMICREST_FORMAT_NOT_SUPPORTED);
    EXPECT_NE(answer(json).find("\"sensor_matched\":0"), std::string::npos);
    EXPECT_EQ(match_device_origins(&held.fp, empty.c_str(), 2, &json, nullptr), LUMICREST_PHOTO_UNREADABLE);
    std::free(json);
    EXPECT_EQ(match_device_origins(&held.fp, dir.path("missing.jpg").c_str(), 2, &json, nullptr),
              LUMICREST_PHOTO_CANNOT_OPEN);
    std::free(json);

    // Damaged fingerprint bytes: 450 wherever they are used, also after a good call.
    std::vector<unsigned char> damaged = held.bytes;
    damaged[damaged.size() / 2] ^= 1;
    fingerprint_binary_s bad{damaged.data(), static_cast<int32_t>(damaged.size()), nullptr};
    EXPECT_EQ(match_device_origins(&bad, text.c_str(), 2, &json, nullptr), LUMICREST_FINGERPRINT_CANNOT_READ);
    std::free(json);
    EXPECT_EQ(save_fingerprint_to_disk(&bad, dir.path("bad.fnp").c_str()), LUMICREST_FINGERPRINT_CANNOT_READ);
    EXPECT_FALSE(fs::exists(dir.path("bad.fnp")));
    held.bytes[100] ^= 1; // damaged in place after the cache has seen it
    EXPECT_EQ(match_device_origins(&held.fp, text.c_str(), 2, &json, nullptr), LUMICREST_FINGERPRINT_CANNOT_READ);
    std::free(json);
    held.bytes[100] ^= 1;
    fingerprint_binary_s tiny{held.bytes.data(), 3, nullptr};
    EXPECT_EQ(match_device_origins(&tiny, text.c_str(), 2, &json, nullptr), LUMICREST_FINGERPRINT_CANNOT_READ);
    std::free(json);
}

TEST(ApiArguments, BrokenPhotosGiveTheirValuesThroughBothCalls)
{
    // Every fixture is named after the value the engine must give for it.
    CallerFingerprint held;
    int checked = 0;
    for (const auto& entry : fs::directory_iterator(fs::path(QUORVEX_TEST_DATA_DIR) / "broken"))
    {
        const std::string name = entry.path().filename().string();
        if (name.size() < 4 || name[3] != '_' || !std::isdigit(static_cast<unsigned char>(name[0])))
            continue;
        const lumicrest_error_code expected = std::stoi(name.substr(0, 3));
        const std::wstring path = entry.path().wstring();

        wchar_t* json = nullptr;
        EXPECT_EQ(match_device_origins(&held.fp, path.c_str(), 2, &json, nullptr), expected) << name;
        EXPECT_NE(answer(json).find("\"sensor_matched\":0"), std::string::npos) << name;

        const wchar_t* paths[] = {path.c_str()};
        fingerprint_binary_s out{};
        wchar_t* t1 = nullptr;
        wchar_t* t2 = nullptr;
        EXPECT_EQ(get_sensor_fingerprint(paths, 1, &out, &t1, L"", true, &t2, nullptr), expected) << name;
        EXPECT_NE(answer(t1).find("\"result\":" + std::to_string(expected)), std::string::npos) << name;
        answer(t2);
        EXPECT_EQ(out.data, nullptr);
        ++checked;
    }
    EXPECT_GE(checked, 10) << "the fixtures folder must not silently go empty";
}

TEST(ApiArguments, SavingReadingAndReleasing)
{
    TempDir dir;
    CallerFingerprint held;
    const std::wstring target = dir.path("camera.fnp");
    EXPECT_EQ(save_fingerprint_to_disk(nullptr, target.c_str()), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(save_fingerprint_to_disk(&held.fp, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(save_fingerprint_to_disk(&held.fp, L""), LUMICREST_INVALID_EMPTY_PATH);
    EXPECT_EQ(save_fingerprint_to_disk(&held.fp, dir.path("no/such/folder/x.fnp").c_str()),
              LUMICREST_FINGERPRINT_CANNOT_WRITE);
    ASSERT_EQ(save_fingerprint_to_disk(&held.fp, target.c_str()), LUMICREST_OK);
    EXPECT_EQ(fs::file_size(fs::path(target)), held.bytes.size());
    EXPECT_FALSE(fs::exists(dir.path("camera.fnp.part")));

    wchar_t* json = nullptr;
    ASSERT_EQ(get_metadata_sensor_fingerprint(target.c_str(), &json), LUMICREST_OK);
    const std::string meta = answer(json);
    EXPECT_NE(meta.find("\"width\":640"), std::string::npos) << meta;
    EXPECT_NE(meta.find("\"height\":512"), std::string::npos);
    EXPECT_NE(meta.find("\"nmse\":[1,0.5,0.3]"), std::string::npos);
    EXPECT_NE(meta.find("\"make\":\"Veltrano\""), std::string::npos);
    EXPECT_NE(meta.find("\"model\":\"QX-1\""), std::string::npos);

    EXPECT_EQ(get_metadata_sensor_fingerprint(target.c_str(), nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(get_metadata_sensor_fingerprint(nullptr, &json), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(get_metadata_sensor_fingerprint(dir.path("none.fnp").c_str(), &json), LUMICREST_FINGERPRINT_CANNOT_READ);
    EXPECT_EQ(json, nullptr);
    EXPECT_EQ(get_metadata_sensor_fingerprint(dir.file("zero.fnp", "").c_str(), &json),
              LUMICREST_FINGERPRINT_CANNOT_READ);
    std::string truncated(reinterpret_cast<const char*>(held.bytes.data()), held.bytes.size() - 10);
    EXPECT_EQ(get_metadata_sensor_fingerprint(dir.file("cut.fnp", truncated).c_str(), &json),
              LUMICREST_FINGERPRINT_CANNOT_READ);

    // The program's container (big-endian version 2, then metadata and bytes,
    // each with a 32-bit length): the bytes are read from inside it, exactly.
    const auto container = [](const std::string& bytes, const std::string& tail) {
        std::string out("\0\0\0\0\0\0\0\x02", 8);
        for (const std::string& part : {std::string("{}"), bytes})
        {
            for (int shift = 24; shift >= 0; shift -= 8)
                out += static_cast<char>(part.size() >> shift);
            out += part;
        }
        return out + tail;
    };
    const std::string raw(reinterpret_cast<const char*>(held.bytes.data()), held.bytes.size());
    ASSERT_EQ(get_metadata_sensor_fingerprint(dir.file("wrapped.fnp", container(raw, "")).c_str(), &json),
              LUMICREST_OK);
    EXPECT_EQ(answer(json), meta);
    EXPECT_NE(meta.find("\"crc32\":"), std::string::npos);
    for (const std::string& bad : {container(raw, "x"), container(truncated, ""), container(raw, "").substr(0, 100)})
        EXPECT_EQ(get_metadata_sensor_fingerprint(dir.file("bad.fnp", bad).c_str(), &json),
                  LUMICREST_FINGERPRINT_CANNOT_READ);
    const std::wstring fifo = dir.path("fifo.fnp");
    ASSERT_EQ(mkfifo(fs::path(fifo).c_str(), 0600), 0);
    EXPECT_EQ(get_metadata_sensor_fingerprint(fifo.c_str(), &json), LUMICREST_FINGERPRINT_CANNOT_READ)
        << "refused, not waited on";

    // Release: safe on zeroed and caller-built structs, refuses null.
    fingerprint_binary_s zeroed{};
    EXPECT_EQ(release_fingerprint(&zeroed), LUMICREST_OK);
    EXPECT_EQ(release_fingerprint(&zeroed), LUMICREST_OK);
    EXPECT_EQ(release_fingerprint(nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(release_fingerprint(&held.fp), LUMICREST_OK);
    EXPECT_EQ(held.fp.data, held.bytes.data()) << "the caller's bytes are the caller's";
}
