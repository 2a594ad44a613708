// Identification against a library of simulated cameras, and of the real set's
// devices against each other: accuracy, the digest pass's margins and the cost
// of one identification against one match.
//
//   bench_identify [--work DIR] [--size WxH] [--cameras N] [--photos N] [--refs N] [--outside N]
//                  [--full-every N] [--pass 0|1] [--realset DIR]
#include "camsim/camera.h"
#include "camsim/profiles.h"
#include "constants.h"
#include "identify.h"
#include "lumicrest.h"
#include "lumicrest_identify.h"
#include "timing.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace
{

struct Options
{
    std::string work;
    std::string realset;
    int width = 1600;
    int height = 1200;
    int cameras = 100;
    int sameModel = 10;
    int photos = 20;
    int refs = 6;
    int outside = 10;
    bool pass = true; // false: the cost measurement only
    int fullEvery =
        1; // every how many photos the full pass is compared (it costs a full PCE per fingerprint)
};

std::wstring wide(const std::string& s)
{
    return fs::path(s).wstring();
}

std::string take(wchar_t* text)
{
    if (!text)
        return std::string();
    std::string out = fs::path(std::wstring(text)).string();
    std::free(text);
    return out;
}

double jsonNumber(const std::string& json, const std::string& key, size_t from = 0)
{
    const auto at = json.find("\"" + key + "\":", from);
    return at == std::string::npos ? std::nan("") : std::strtod(json.c_str() + at + key.size() + 3, nullptr);
}

// Library indices listed under "matches".
std::vector<int> matchesOf(const std::string& json)
{
    std::vector<int> out;
    const auto end = json.find("\"best\":");
    for (auto at = json.find("{\"index\":", json.find("\"matches\":[")); at < end;
         at = json.find("{\"index\":", at + 1))
        out.push_back(std::atoi(json.c_str() + at + 9));
    return out;
}

double seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Runs work(i) for i in [0, n) on two threads (generation and learning only).
template <class Work> void parallel(int n, Work work)
{
    std::atomic<int> next{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back(
            [&]
            {
                for (int i = next++; i < n; i = next++)
                    work(i);
            });
    for (std::thread& t : threads)
        t.join();
}

bool learnTo(const std::vector<std::string>& photos, const std::string& target)
{
    std::vector<std::wstring> paths;
    for (const std::string& p : photos)
        paths.push_back(wide(p));
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& p : paths)
        pointers.push_back(p.c_str());
    fingerprint_binary_s fp{};
    wchar_t* t1 = nullptr;
    wchar_t* t2 = nullptr;
    const lumicrest_error_code code = get_sensor_fingerprint(
        pointers.data(), static_cast<int>(pointers.size()), &fp, &t1, L"", false, &t2, nullptr);
    take(t1);
    take(t2);
    const bool ok =
        code == LUMICREST_OK && save_fingerprint_to_disk(&fp, wide(target).c_str()) == LUMICREST_OK;
    release_fingerprint(&fp);
    if (!ok)
        std::fprintf(stderr, "learning %s failed: %d\n", target.c_str(), code);
    return ok;
}

struct FileFingerprint
{
    std::vector<unsigned char> bytes;
    fingerprint_binary_s fp{};
    explicit FileFingerprint(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
        fp.data = bytes.data();
        fp.size = static_cast<int32_t>(bytes.size());
    }
};

std::string matchJson(const fingerprint_binary_s& fp, const std::string& photo)
{
    wchar_t* json = nullptr;
    match_device_origins(&fp, wide(photo).c_str(), 2, &json, nullptr);
    return take(json);
}

lumicrest_library_s* openLibrary(const std::vector<std::string>& files, int flags)
{
    std::vector<std::wstring> paths;
    for (const std::string& f : files)
        paths.push_back(wide(f));
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& p : paths)
        pointers.push_back(p.c_str());
    lumicrest_library_s* library = nullptr;
    wchar_t* json = nullptr;
    if (lumicrest_open_library(pointers.data(), static_cast<int>(pointers.size()), flags, &library, &json) !=
        LUMICREST_OK)
        std::fprintf(stderr, "cannot open the library\n");
    take(json);
    return library;
}

std::string identifyJson(const lumicrest_library_s* library, const std::string& photo)
{
    wchar_t* json = nullptr;
    lumicrest_identify(library, wide(photo).c_str(), &json);
    return take(json);
}

// One questioned photo with its camera (-1: outside the library).
struct Questioned
{
    std::string path;
    int camera = -1;
};

// The digest pass over a set of photos: z of true and false pairs, candidates
// passed, and what the full pass finds that it misses.
struct PassReport
{
    double trueZMin = 1e300;
    double matchedTrueZMin = 1e300; // among true pairs whose photo matches its fingerprint on its own
    std::vector<double> falseZ;
    double falseZMax = -1e300;
    long long falseAbove = 0;
    long long falsePairs = 0;
    long long tried = 0;
    int photos = 0;
    int fullCompared = 0;
    int missed = 0; // photos whose matches differ from the full pass's
    int exact = 0;  // photos whose matches are exactly their camera (none outside)
    int ownMatched = 0;
    int ownPairs = 0;

    void print(const char* what) const
    {
        std::printf(
            "%s: photos %d, identify names exactly the camera %d/%d, match_device_origins own %d/%d\n", what,
            photos, exact, photos, ownMatched, ownPairs);
        std::printf(
            "%s: digest z true pairs min %.2f, false pairs max %.2f; false pairs at or above the margin "
            "%lld/%lld (%.2f per 100 fingerprints); full PCE per photo %.2f; photos where the full pass "
            "differs %d of %d compared\n",
            what, trueZMin, falseZMax, falseAbove, falsePairs,
            falsePairs ? 100.0 * static_cast<double>(falseAbove) / static_cast<double>(falsePairs) : 0.0,
            photos ? static_cast<double>(tried) / photos : 0.0, missed, fullCompared);
        std::printf("%s: digest z of true pairs that match on their own: min %.2f\n", what, matchedTrueZMin);
        std::printf("%s: false pairs at or above a margin of", what);
        for (double margin : {1.5, 2.0, 2.5, 3.0, 3.5})
        {
            const auto n = std::count_if(falseZ.begin(), falseZ.end(), [&](double z) { return z >= margin; });
            std::printf(" %.1f: %.2f%%;", margin,
                        falseZ.empty() ? 0.0 : 100.0 * static_cast<double>(n) / falseZ.size());
        }
        std::printf("\n");
    }
};

PassReport runPass(const std::vector<std::string>& fingerprints, const std::vector<Questioned>& photos,
                   int fullEvery)
{
    PassReport report;
    const std::unique_ptr<lumicrest::Library> library = lumicrest::openLibrary(fingerprints, 0);
    lumicrest_library_s* full = openLibrary(fingerprints, LUMICREST_LIBRARY_NO_DIGEST_PASS);
    std::vector<std::unique_ptr<FileFingerprint>> own(fingerprints.size());
    for (const Questioned& q : photos)
    {
        lumicrest::Identification id;
        try
        {
            lumicrest::identifyPhoto(*library, q.path, id);
        }
        catch (const std::exception&)
        {
            std::printf("  %s: cannot be identified\n", q.path.c_str());
            continue;
        }
        const std::string json = lumicrest::identificationJson(id);
        const bool compareFull = report.photos % fullEvery == 0;
        const std::string fullJson = compareFull ? identifyJson(full, q.path) : json;
        report.fullCompared += compareFull;
        ++report.photos;
        report.tried += id.tried;
        const std::vector<int> found = matchesOf(json);
        const std::vector<int> expected = q.camera >= 0 ? std::vector<int>{q.camera} : std::vector<int>{};
        report.exact += found == expected;
        if (found != matchesOf(fullJson))
        {
            ++report.missed;
            std::printf("  %s: digest pass %s\n  full pass %s\n", q.path.c_str(), json.c_str(),
                        fullJson.c_str());
        }
        else if (found != expected)
            std::printf("  %s (camera %d): %s\n", q.path.c_str(), q.camera, json.c_str());
        for (size_t i = 0; i < id.digestZ.size(); ++i)
        {
            const double z = id.digestZ[i];
            if (std::isnan(z))
                continue;
            if (static_cast<int>(i) == q.camera)
                report.trueZMin = std::min(report.trueZMin, z);
            else
            {
                report.falseZMax = std::max(report.falseZMax, z);
                report.falseZ.push_back(z);
                ++report.falsePairs;
                report.falseAbove += z >= lumicrest::constants::DigestMargin ? 1 : 0;
            }
        }
        if (q.camera >= 0)
        {
            auto& fp = own[static_cast<size_t>(q.camera)];
            if (!fp)
                fp = std::make_unique<FileFingerprint>(fingerprints[static_cast<size_t>(q.camera)]);
            ++report.ownPairs;
            const bool matched = jsonNumber(matchJson(fp->fp, q.path), "sensor_matched") == 1.0;
            report.ownMatched += matched;
            if (matched && !std::isnan(id.digestZ[static_cast<size_t>(q.camera)]))
                report.matchedTrueZMin =
                    std::min(report.matchedTrueZMin, id.digestZ[static_cast<size_t>(q.camera)]);
        }
    }
    lumicrest_close_library(full);
    return report;
}

void simulated(const Options& o)
{
    const std::string work =
        o.work.empty() ? (fs::temp_directory_path() / "lumicrest-identify-bench").string() : o.work;
    const std::string dir = work + "/" + std::to_string(o.width) + "x" + std::to_string(o.height);
    fs::create_directories(dir);
    std::printf(
        "simulated: %d cameras (%d of one model) at %dx%d, %d reference shots each, %d photos per camera, "
        "%d cameras outside; cache %s\n",
        o.cameras, o.sameModel, o.width, o.height, o.refs, o.photos, o.outside, dir.c_str());
    const int total = o.cameras + o.outside;
    const auto config = [&](int i)
    {
        // Alternating calibrated profiles; the first sameModel are units of one DSLR model.
        const bool dslr = i < o.sameModel || i % 2 == 0;
        camsim::CameraConfig c = camsim::profiles::camera(dslr ? camsim::profiles::Profile::Dslr
                                                               : camsim::profiles::Profile::Phone,
                                                          static_cast<uint64_t>(i + 1));
        if (i >= o.sameModel)
            c.model += "-" + std::to_string(i);
        c.width = o.width;
        c.height = o.height;
        return c;
    };
    const auto profileOf = [&](int i)
    {
        return i < o.sameModel || i % 2 == 0 ? camsim::profiles::Profile::Dslr
                                             : camsim::profiles::Profile::Phone;
    };
    std::vector<std::string> fingerprints(static_cast<size_t>(o.cameras));
    std::vector<Questioned> photos;
    for (int i = 0; i < total; ++i)
        for (int j = 0; j < o.photos; ++j)
            photos.push_back({dir + "/cam" + std::to_string(i) + "_" + std::to_string(j) + ".jpg",
                              i < o.cameras ? i : -1});
    const Clock::time_point made = Clock::now();
    parallel(total,
             [&](int i)
             {
                 const camsim::Camera camera(config(i));
                 if (i < o.cameras)
                 {
                     const std::string fp = dir + "/cam" + std::to_string(i) + ".lmf";
                     fingerprints[static_cast<size_t>(i)] = fp;
                     if (!fs::exists(fp))
                     {
                         std::vector<std::string> refs;
                         for (int j = 0; j < o.refs; ++j)
                         {
                             refs.push_back(dir + "/ref" + std::to_string(i) + "_" + std::to_string(j) +
                                            ".jpg");
                             camera.shoot(camsim::profiles::referenceShot(profileOf(i), 1000 * i + j),
                                          refs.back());
                         }
                         learnTo(refs, fp);
                         for (const std::string& r : refs)
                             fs::remove(r);
                     }
                 }
                 for (int j = 0; j < o.photos; ++j)
                 {
                     const std::string& path = photos[static_cast<size_t>(i * o.photos + j)].path;
                     if (!fs::exists(path))
                         camera.shoot(camsim::profiles::naturalShot(profileOf(i), 50000 + 100 * i + j), path);
                 }
             });
    std::printf("cameras and photos ready in %.1f s\n", seconds(made));

    if (o.pass)
        runPass(fingerprints, photos, o.fullEvery).print("simulated");

    // Cost, single thread, one photo of the library's size.
    const std::string photo = photos.front().path;
    const FileFingerprint own(fingerprints.front());
    matchJson(own.fp, photo);
    Clock::time_point t = Clock::now();
    constexpr int Repeats = 3;
    for (int r = 0; r < Repeats; ++r)
        matchJson(own.fp, photo);
    const double matchSeconds = seconds(t) / Repeats;
    std::printf("timing (single thread)...\n");
    // Digests written beside the fingerprints, so that opening reads them.
    lumicrest_close_library(openLibrary(fingerprints, LUMICREST_LIBRARY_WRITE_DIGESTS));
    t = Clock::now();
    lumicrest_library_s* library = openLibrary(fingerprints, 0);
    const double open = seconds(t);
    t = Clock::now();
    identifyJson(library, photo);
    const double cold = seconds(t);
    // Warm: the candidates of these photos are in the cache after a first round.
    std::vector<std::string> timed;
    for (int r = 0; r < 10 && r < o.cameras; ++r)
        timed.push_back(photos[static_cast<size_t>(r * o.photos)].path);
    for (const std::string& p : timed)
        identifyJson(library, p);
    lumicrest::threadStageTimes() = lumicrest::StageTimes();
    t = Clock::now();
    for (const std::string& p : timed)
        identifyJson(library, p);
    const double warm = seconds(t) / static_cast<double>(timed.size());
    const char* stages[] = {"decode", "wavelet", "zero-mean", "wiener", "fft", "correlation", "pce"};
    double staged = 0.0;
    std::printf("warm identify per photo by stage:");
    for (int i = 0; i < static_cast<int>(lumicrest::Stage::Count); ++i)
    {
        const double s = lumicrest::threadStageTimes().seconds[i] / static_cast<double>(timed.size());
        staged += s;
        std::printf(" %s %.3f;", stages[i], s);
    }
    std::printf(" other (digest pass, turning, loading) %.3f s\n", warm - staged);
    lumicrest_close_library(library);
    std::printf(
        "cost: one match %.3f s; one identify against %d fingerprints %.3f s warm (%.2fx), %.3f s cold "
        "(first photo); opening the library (digests read) %.3f s\n",
        matchSeconds, o.cameras, warm, warm / matchSeconds, cold, open);
}

bool isPhoto(const fs::path& p)
{
    std::string ext = p.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".jpg" || ext == ".jpeg" || ext == ".png" || ext == ".tif" || ext == ".tiff";
}

std::vector<std::string> photosIn(const fs::path& dir)
{
    std::vector<std::string> out;
    std::error_code error;
    for (const auto& e : fs::directory_iterator(dir, error))
        if (e.is_regular_file() && isPhoto(e.path()))
            out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

void realSet(const Options& o)
{
    if (o.realset.empty() || !fs::is_directory(o.realset))
    {
        std::printf("real set: skipped (no folder %s)\n", o.realset.c_str());
        return;
    }
    const std::string work =
        (o.work.empty() ? (fs::temp_directory_path() / "lumicrest-identify-bench").string() : o.work) +
        "/realset";
    fs::create_directories(work);
    std::vector<std::string> devices;
    for (const auto& e : fs::directory_iterator(o.realset))
        if (e.is_directory() && fs::is_directory(e.path() / "reference"))
            devices.push_back(e.path().filename().string());
    std::sort(devices.begin(), devices.end());
    std::vector<std::string> fingerprints;
    std::vector<Questioned> photos;
    for (size_t d = 0; d < devices.size(); ++d)
    {
        const std::string fp = work + "/" + devices[d] + ".lmf";
        if (!fs::exists(fp))
            learnTo(photosIn(fs::path(o.realset) / devices[d] / "reference"), fp);
        fingerprints.push_back(fp);
        for (const std::string& q : photosIn(fs::path(o.realset) / devices[d] / "questioned"))
            photos.push_back({q, static_cast<int>(d)});
    }
    std::printf("real set: %zu devices, %zu questioned photos\n", devices.size(), photos.size());
    runPass(fingerprints, photos, 1).print("real set");
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        const std::string key = argv[i];
        const char* value = argv[i + 1];
        if (key == "--work")
            o.work = value;
        else if (key == "--realset")
            o.realset = value;
        else if (key == "--size")
            std::sscanf(value, "%dx%d", &o.width, &o.height);
        else if (key == "--cameras")
            o.cameras = std::atoi(value);
        else if (key == "--photos")
            o.photos = std::atoi(value);
        else if (key == "--refs")
            o.refs = std::atoi(value);
        else if (key == "--pass")
            o.pass = std::atoi(value) != 0;
        else if (key == "--full-every")
            o.fullEvery = std::max(1, std::atoi(value));
        else if (key == "--outside")
            o.outside = std::atoi(value);
        else
        {
            std::fprintf(stderr, "unknown option %s\n", key.c_str());
            return 2;
        }
    }
    o.sameModel = std::min(10, o.cameras);
    if (o.cameras > 0)
        simulated(o);
    realSet(o);
    return 0;
}
