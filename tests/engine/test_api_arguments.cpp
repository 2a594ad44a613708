// The C boundary with bad arguments and bad files: every call answers with a
// result value and never crashes or leaks.
#include "enginetestutils.h"
#include "fingerprint.h"
#include "lumicrest.h"
#include "text.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace fs = std::filesystem;
using namespace lumicrest;

namespace
{

// A path in dir as the C interface takes it.
std::wstring at(const enginetest::TempDir& dir, const std::string& name)
{
    return (dir.path() / name).wstring();
}

std::wstring file(const enginetest::TempDir& dir, const std::string& name, const std::string& content)
{
    std::ofstream(dir.path() / name, std::ios::binary) << content;
    return at(dir, name);
}

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
    const enginetest::TempDir dir("lumicrest-args");
    const std::wstring photo = file(dir, "a.jpg", "not really");
    const wchar_t* paths[] = {photo.c_str()};
    const wchar_t* nullPath[] = {nullptr};
    const wchar_t* emptyPath[] = {L""};
    fingerprint_binary_s out{};
    // Out-texts are cleared even when the call fails.
    const auto refused = [](const wchar_t** p, int count, fingerprint_binary_s* fp, const wchar_t* option) {
        wchar_t* t1 = reinterpret_cast<wchar_t*>(1);
        wchar_t* t2 = t1;
        const lumicrest_error_code code = get_sensor_fingerprint(p, count, fp, &t1, option, true, &t2, nullptr);
        EXPECT_EQ(t1, nullptr);
        EXPECT_EQ(t2, nullptr);
        return code;
    };
    EXPECT_EQ(refused(nullptr, 1, &out, L""), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(refused(paths, 1, nullptr, L""), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(refused(paths, 0, &out, L""), LUMICREST_INVALID_COUNT);
    EXPECT_EQ(refused(paths, -3, &out, L""), LUMICREST_INVALID_COUNT);
    EXPECT_EQ(refused(nullPath, 1, &out, L""), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(refused(emptyPath, 1, &out, L""), LUMICREST_INVALID_EMPTY_PATH);
    EXPECT_EQ(refused(paths, 1, &out, L"colour=blue"), LUMICREST_INVALID_OPTION);
    EXPECT_EQ(out.data, nullptr);
    EXPECT_EQ(out.size, 0);
    // Out-texts are optional.
    EXPECT_EQ(get_sensor_fingerprint(paths, 1, &out, nullptr, L"", true, nullptr, nullptr),
              LUMICREST_FORMAT_NOT_SUPPORTED);
}

TEST(ApiArguments, MatchingRefusesBadArgumentsAndStillAnswers)
{
    const enginetest::TempDir dir("lumicrest-args");
    CallerFingerprint held;
    const std::wstring text = file(dir, "notes.jpg", "plain text, not a photo");
    const std::wstring empty = file(dir, "empty.jpg", "");
    const std::wstring missing = at(dir, "missing.jpg");
    // Damaged fingerprint bytes give 450 wherever they are used.
    std::vector<unsigned char> damaged = held.bytes;
    damaged[damaged.size() / 2] ^= 1;
    const fingerprint_binary_s bad{damaged.data(), static_cast<int32_t>(damaged.size()), nullptr};
    const fingerprint_binary_s tiny{held.bytes.data(), 3, nullptr};
    // The code, and whether the answer says "no match": even some refused calls answer.
    const auto matched = [](const fingerprint_binary_s* fp, const wchar_t* photo, int mode = 2) {
        wchar_t* json = nullptr;
        const lumicrest_error_code code = match_device_origins(fp, photo, mode, &json, nullptr);
        return std::make_pair(code, answer(json).find("\"sensor_matched\":0") != std::string::npos);
    };
    using Said = std::pair<lumicrest_error_code, bool>;
    EXPECT_EQ(matched(nullptr, text.c_str()).first, LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(matched(&held.fp, nullptr).first, LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(matched(&held.fp, L""), Said(LUMICREST_INVALID_EMPTY_PATH, true));
    EXPECT_EQ(matched(&held.fp, text.c_str(), 1).first, LUMICREST_INVALID_MODE);
    EXPECT_EQ(matched(&held.fp, text.c_str()), Said(LUMICREST_FORMAT_NOT_SUPPORTED, true));
    EXPECT_EQ(matched(&held.fp, empty.c_str()).first, LUMICREST_PHOTO_UNREADABLE);
    EXPECT_EQ(matched(&held.fp, missing.c_str()).first, LUMICREST_PHOTO_CANNOT_OPEN);
    EXPECT_EQ(matched(&bad, text.c_str()).first, LUMICREST_FINGERPRINT_CANNOT_READ);
    EXPECT_EQ(matched(&tiny, text.c_str()).first, LUMICREST_FINGERPRINT_CANNOT_READ);
    EXPECT_EQ(match_device_origins(&held.fp, text.c_str(), 2, nullptr, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(save_fingerprint_to_disk(&bad, at(dir, "bad.fnp").c_str()), LUMICREST_FINGERPRINT_CANNOT_READ);
    EXPECT_FALSE(fs::exists(dir.path() / "bad.fnp"));
    // Damaged in place after the cache has seen the fingerprint.
    held.bytes[100] ^= 1;
    EXPECT_EQ(matched(&held.fp, text.c_str()).first, LUMICREST_FINGERPRINT_CANNOT_READ);
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

        // A file that is no photo ends learning with its value, and the texts say why.
        const wchar_t* paths[] = {path.c_str()};
        fingerprint_binary_s out{};
        wchar_t* t1 = nullptr;
        wchar_t* t2 = nullptr;
        EXPECT_EQ(get_sensor_fingerprint(paths, 1, &out, &t1, nullptr, true, &t2, nullptr), expected) << name;
        EXPECT_NE(answer(t1).find("\"result\":" + std::to_string(expected)), std::string::npos) << name;
        EXPECT_NE(answer(t2).find("\"code\":\"failed\""), std::string::npos) << name;
        EXPECT_EQ(out.data, nullptr);
        EXPECT_EQ(release_fingerprint(&out), LUMICREST_OK);
        ++checked;
    }
    EXPECT_GE(checked, 10) << "the fixtures folder must not silently go empty";
}

TEST(ApiArguments, SavingReadingAndReleasing)
{
    const enginetest::TempDir dir("lumicrest-args");
    CallerFingerprint held;
    const std::wstring target = at(dir, "camera.fnp");
    EXPECT_EQ(save_fingerprint_to_disk(nullptr, target.c_str()), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(save_fingerprint_to_disk(&held.fp, nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(save_fingerprint_to_disk(&held.fp, L""), LUMICREST_INVALID_EMPTY_PATH);
    EXPECT_EQ(save_fingerprint_to_disk(&held.fp, at(dir, "no/such/folder/x.fnp").c_str()),
              LUMICREST_FINGERPRINT_CANNOT_WRITE);
    ASSERT_EQ(save_fingerprint_to_disk(&held.fp, target.c_str()), LUMICREST_OK);
    EXPECT_EQ(fs::file_size(fs::path(target)), held.bytes.size());
    EXPECT_FALSE(fs::exists(dir.path() / "camera.fnp.part"));

    wchar_t* json = nullptr;
    ASSERT_EQ(get_metadata_sensor_fingerprint(target.c_str(), &json), LUMICREST_OK);
    const std::string meta = answer(json);
    for (const char* field : {"\"width\":640,", "\"height\":512,", "\"nmse\":[1,0.5,0.3]", "\"make\":\"Veltrano\"",
                              "\"model\":\"QX-1\"", "\"crc32\":"})
        EXPECT_NE(meta.find(field), std::string::npos) << field << " in " << meta;
    EXPECT_EQ(get_metadata_sensor_fingerprint(target.c_str(), nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(get_metadata_sensor_fingerprint(nullptr, &json), LUMICREST_INVALID_NULL_POINTER);

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
    ASSERT_EQ(get_metadata_sensor_fingerprint(file(dir, "wrapped.fnp", container(raw, "")).c_str(), &json),
              LUMICREST_OK);
    EXPECT_EQ(answer(json), meta);

    const std::wstring fifo = at(dir, "fifo.fnp");
    ASSERT_EQ(mkfifo(fs::path(fifo).c_str(), 0600), 0);
    const std::string truncated = raw.substr(0, raw.size() - 10);
    // A fifo is refused, not waited on.
    for (const std::wstring& bad :
         {at(dir, "none.fnp"), file(dir, "zero.fnp", ""), file(dir, "cut.fnp", truncated),
          file(dir, "tail.fnp", container(raw, "x")), file(dir, "inner_cut.fnp", container(truncated, "")),
          file(dir, "outer_cut.fnp", container(raw, "").substr(0, 100)), fifo})
    {
        SCOPED_TRACE(fs::path(bad).filename().string());
        json = reinterpret_cast<wchar_t*>(1);
        EXPECT_EQ(get_metadata_sensor_fingerprint(bad.c_str(), &json), LUMICREST_FINGERPRINT_CANNOT_READ);
        EXPECT_EQ(json, nullptr);
    }

    // Release: safe on zeroed and caller-built structs, refuses null.
    fingerprint_binary_s zeroed{};
    EXPECT_EQ(release_fingerprint(&zeroed), LUMICREST_OK);
    EXPECT_EQ(release_fingerprint(&zeroed), LUMICREST_OK);
    EXPECT_EQ(release_fingerprint(nullptr), LUMICREST_INVALID_NULL_POINTER);
    EXPECT_EQ(release_fingerprint(&held.fp), LUMICREST_OK);
    EXPECT_EQ(held.fp.data, held.bytes.data()) << "the caller's bytes are the caller's";
}
