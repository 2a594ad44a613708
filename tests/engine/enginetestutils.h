#pragma once

#include "lumicrest.h"

#include <cstdlib>
#include <filesystem>
#include <random>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

// Small helpers for tests that drive the engine through its C interface.
namespace enginetest
{

class TempDir
{
public:
    explicit TempDir(const std::string& prefix)
    {
        std::random_device rd;
        m_path = std::filesystem::temp_directory_path() / (prefix + "-" + std::to_string(rd()));
        std::filesystem::create_directories(m_path);
    }
    ~TempDir() { std::filesystem::remove_all(m_path); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return (m_path / name).string(); }
    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

// Runs work(0) .. work(count - 1), each on a thread of its own, and waits for all.
template <class Work> void inParallel(size_t count, Work work)
{
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i)
        threads.emplace_back(work, i);
    for (std::thread& t : threads)
        t.join();
}

inline std::vector<unsigned char> readBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline std::wstring wide(const std::string& s)
{
    return std::filesystem::path(s).wstring();
}

// Takes an engine text and frees it.
inline std::string take(wchar_t* text)
{
    if (!text)
        return std::string();
    std::string out = std::filesystem::path(std::wstring(text)).string();
    std::free(text);
    return out;
}

// The number after "key": in a flat JSON text; NaN when absent.
inline double jsonNumber(const std::string& json, const std::string& key)
{
    const std::string needle = "\"" + key + "\":";
    const auto at = json.find(needle);
    if (at == std::string::npos)
        return std::nan("");
    return std::strtod(json.c_str() + at + needle.size(), nullptr);
}

inline int jsonArrayLength(const std::string& json, const std::string& key)
{
    const std::string needle = "\"" + key + "\":[";
    const auto at = json.find(needle);
    if (at == std::string::npos)
        return -1;
    const auto end = json.find(']', at);
    const std::string inner = json.substr(at + needle.size(), end - at - needle.size());
    if (inner.empty())
        return 0;
    int commas = 0;
    for (char c : inner)
        commas += c == ',';
    return commas + 1;
}

struct Learned
{
    lumicrest_error_code code = 0;
    fingerprint_binary_s fp{};
    std::string diagnostics;
    std::string warnings;
};

inline Learned learn(const std::vector<std::string>& photos, void (*progress)(int, float, float) = nullptr,
                     const wchar_t* option = L"", bool checks = true)
{
    std::vector<std::wstring> paths;
    for (const std::string& p : photos)
        paths.push_back(wide(p));
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& p : paths)
        pointers.push_back(p.c_str());
    Learned out;
    wchar_t* t1 = nullptr;
    wchar_t* t2 = nullptr;
    out.code = get_sensor_fingerprint(pointers.data(), static_cast<int>(pointers.size()), &out.fp, &t1, option, checks,
                                      &t2, progress);
    out.diagnostics = take(t1);
    out.warnings = take(t2);
    return out;
}

struct Matched
{
    lumicrest_error_code code = 0;
    std::string json;
    double pce() const { return jsonNumber(json, "pce"); }
    double probability() const { return jsonNumber(json, "probability"); }
    bool matched() const { return jsonNumber(json, "sensor_matched") == 1.0; }
    int orientation() const { return static_cast<int>(jsonNumber(json, "orientation")); }
    double scale() const { return jsonNumber(json, "scale"); }
};

// Sets an environment variable for the life of the object.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char* name, const char* value) : m_name(name)
    {
#ifdef _WIN32
        _putenv_s(name, value);
#else
        setenv(name, value, 1);
#endif
    }
    ~ScopedEnvironment()
    {
#ifdef _WIN32
        _putenv_s(m_name, "");
#else
        unsetenv(m_name);
#endif
    }

private:
    const char* m_name;
};

inline Matched match(const fingerprint_binary_s& fp, const std::string& photo)
{
    Matched out;
    wchar_t* json = nullptr;
    const std::wstring path = wide(photo);
    out.code = match_device_origins(&fp, path.c_str(), 2, &json, nullptr);
    out.json = take(json);
    return out;
}

} // namespace enginetest
