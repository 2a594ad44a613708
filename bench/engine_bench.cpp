// Engine benchmarks on simulated photos: per-stage times, one match, analysis
// throughput on 1 and 2 threads, learning 30 photos, each with its peak
// resident memory (every measurement runs in a process of its own).
//
//   bench_engine [--sizes 10,24] [--out bench-results.json] [--cache DIR]
//
// Photos are made once per size in the cache folder and reused. The camera is
// the calibrated DSLR profile at each size: flat references, and questioned
// photos drawn from its mix of ordinary and hard shots.
#include "camsim/camera.h"
#include "camsim/profiles.h"
#include "lumicrest.h"
#include "timing.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#if defined(__unix__)
#include <sys/resource.h>
#endif

namespace fs = std::filesystem;
using lumicrest::Stage;

namespace
{

constexpr int References = 30;
constexpr int Questions = 8; // 4 of the same camera, 4 of another unit of its model

const char* const StageNames[] = {"decode", "wavelet", "zero_mean", "wiener", "fft", "correlation", "pce"};
constexpr int StageCount = static_cast<int>(Stage::Count);

struct Size
{
    int megapixels;
    int width;
    int height;
};

Size sizeFor(int megapixels)
{
    // Common 4:3 sensor sizes.
    if (megapixels >= 24)
        return {24, 5664, 4248};
    if (megapixels >= 16)
        return {16, 4608, 3456};
    return {10, 3648, 2736};
}

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double peakResidentMiB()
{
#if defined(__unix__)
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0; // kilobytes on Linux
#else
    return 0.0;
#endif
}

std::string photoPath(const fs::path& dir, const std::string& kind, int i)
{
    return (dir / (kind + "_" + std::to_string(i) + ".jpg")).string();
}

void makePhotos(const Size& size, const fs::path& dir)
{
    // The marker names the camera, so photos of an older simulated camera are made anew.
    if (fs::exists(dir / "complete-dslr"))
        return;
    fs::create_directories(dir);
    using namespace camsim::profiles;
    const auto unit = [&size](uint64_t seed)
    {
        camsim::CameraConfig config = dslr(seed);
        config.width = size.width;
        config.height = size.height;
        return config;
    };
    const camsim::Camera unit1(unit(1));
    const camsim::Camera unit2(unit(2));
    std::fprintf(stderr, "making %d MP photos in %s ...\n", size.megapixels, dir.string().c_str());
    for (int i = 0; i < References; ++i)
        unit1.shoot(referenceShot(Profile::Dslr, 100 + static_cast<uint64_t>(i)), photoPath(dir, "ref", i));
    for (int i = 0; i < Questions; ++i)
        (i < Questions / 2 ? unit1 : unit2)
            .shoot(naturalShot(Profile::Dslr, 500 + static_cast<uint64_t>(i)), photoPath(dir, "question", i));
    std::ofstream(dir / "complete-dslr") << "ok\n";
}

std::vector<std::wstring> wide(const std::vector<std::string>& paths)
{
    std::vector<std::wstring> out;
    for (const std::string& p : paths)
        out.push_back(fs::path(p).wstring());
    return out;
}

// Learns from the first n references with the given thread count.
bool learn(const fs::path& dir, int n, int threads, fingerprint_binary_s& fp)
{
    std::vector<std::string> paths;
    for (int i = 0; i < n; ++i)
        paths.push_back(photoPath(dir, "ref", i));
    const std::vector<std::wstring> w = wide(paths);
    std::vector<const wchar_t*> pointers;
    for (const auto& p : w)
        pointers.push_back(p.c_str());
    const std::wstring option = L"threads=" + std::to_wstring(threads);
    wchar_t* t1 = nullptr;
    wchar_t* t2 = nullptr;
    const lumicrest_error_code code =
        get_sensor_fingerprint(pointers.data(), n, &fp, &t1, option.c_str(), true, &t2, nullptr);
    std::free(t1);
    std::free(t2);
    return code == LUMICREST_OK;
}

std::string matchJson(const fingerprint_binary_s& fp, const std::string& photo)
{
    wchar_t* json = nullptr;
    match_device_origins(&fp, fs::path(photo).wstring().c_str(), 2, &json, nullptr);
    std::string out;
    for (const wchar_t* c = json; c && *c; ++c)
        out += static_cast<char>(*c);
    std::free(json);
    return out;
}

std::string stagesJson(const lumicrest::StageTimes& t)
{
    std::ostringstream out;
    out << "{";
    for (int s = 0; s < StageCount; ++s)
        out << (s ? "," : "") << "\"" << StageNames[s] << "\":" << t.seconds[s];
    out << "}";
    return out.str();
}

// One measurement, in this process; prints one JSON object.
int measure(const std::string& what, const fs::path& dir, int threads)
{
    std::ostringstream out;
    out << "{\"measure\":\"" << what << "\",\"threads\":" << threads;
    fingerprint_binary_s fp{};
    if (what == "learn30")
    {
        const double start = now();
        if (!learn(dir, References, threads, fp))
            return 1;
        out << ",\"seconds\":" << now() - start;
    }
    else
    {
        // The fingerprint is read from the file the parent made, as the program
        // holds one: bytes only, so the peak memory is the matching's own.
        std::ifstream in(dir / "fingerprint.bin", std::ios::binary);
        static std::vector<unsigned char> bytes;
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (bytes.empty())
            return 1;
        fp.data = bytes.data();
        fp.size = static_cast<int32_t>(bytes.size());
        const double baseline = peakResidentMiB();
        out << ",\"baseline_mib\":" << baseline;
        if (what == "match")
        {
            // Best of three same-camera matches, with its stages.
            double best = 1e300;
            lumicrest::StageTimes bestStages;
            for (int r = 0; r < 3; ++r)
            {
                lumicrest::threadStageTimes() = lumicrest::StageTimes();
                const double start = now();
                matchJson(fp, photoPath(dir, "question", 0));
                const double t = now() - start;
                if (t < best)
                {
                    best = t;
                    bestStages = lumicrest::threadStageTimes();
                }
            }
            out << ",\"seconds\":" << best << ",\"stages\":" << stagesJson(bestStages);
            out << ",\"answer\":" << matchJson(fp, photoPath(dir, "question", 0));
            out << ",\"other_answer\":" << matchJson(fp, photoPath(dir, "question", Questions - 1));
        }
        else if (what == "throughput")
        {
            // Every question twice, shared out over the threads as an analysis does.
            std::vector<std::string> work;
            for (int round = 0; round < 2; ++round)
                for (int i = 0; i < Questions; ++i)
                    work.push_back(photoPath(dir, "question", i));
            std::atomic<size_t> next{0};
            const double start = now();
            std::vector<std::thread> pool;
            for (int t = 0; t < threads; ++t)
                pool.emplace_back([&] {
                    for (size_t i; (i = next++) < work.size();)
                        matchJson(fp, work[i]);
                });
            for (std::thread& t : pool)
                t.join();
            const double seconds = now() - start;
            out << ",\"photos\":" << work.size() << ",\"seconds\":" << seconds
                << ",\"photos_per_second\":" << work.size() / seconds;
        }
    }
    if (what == "learn30")
        release_fingerprint(&fp);
    out << ",\"peak_mib\":" << peakResidentMiB() << "}";
    std::printf("%s\n", out.str().c_str());
    return 0;
}

std::string field(const std::string& json, const std::string& key)
{
    const std::string needle = "\"" + key + "\":";
    const auto at = json.find(needle);
    if (at == std::string::npos)
        return "";
    const auto begin = at + needle.size();
    auto end = begin;
    int depth = 0;
    while (end < json.size() && (depth > 0 || (json[end] != ',' && json[end] != '}')))
    {
        if (json[end] == '{' || json[end] == '[')
            ++depth;
        if (json[end] == '}' || json[end] == ']')
            --depth;
        ++end;
    }
    return json.substr(begin, end - begin);
}

double number(const std::string& json, const std::string& key)
{
    return std::atof(field(json, key).c_str());
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<int> sizes = {10, 24};
    std::string outPath = "bench-results.json";
    fs::path cache = fs::temp_directory_path() / "lumicrest-bench-cache";
    std::string measureWhat;
    std::string measureDir;
    int measureThreads = 1;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        const std::string arg = argv[i];
        if (arg == "--sizes")
        {
            sizes.clear();
            std::stringstream list(argv[i + 1]);
            for (std::string item; std::getline(list, item, ',');)
                sizes.push_back(std::atoi(item.c_str()));
        }
        else if (arg == "--out")
            outPath = argv[i + 1];
        else if (arg == "--cache")
            cache = argv[i + 1];
        else if (arg == "--measure")
            measureWhat = argv[i + 1];
        else if (arg == "--dir")
            measureDir = argv[i + 1];
        else if (arg == "--threads")
            measureThreads = std::atoi(argv[i + 1]);
    }
    if (!measureWhat.empty())
        return measure(measureWhat, measureDir, measureThreads);

    std::ofstream json(outPath);
    json << "{\"cores\":" << std::thread::hardware_concurrency() << ",\"results\":[\n";
    bool firstLine = true;
    std::printf("| photos | measurement | threads | time (s) | photos/s | peak RSS (MiB) |\n|---|---|---|---|---|---|\n");
    std::vector<std::string> memoryRows;
    std::vector<std::string> stageRows;
    for (int mp : sizes)
    {
        const Size size = sizeFor(mp);
        const fs::path dir = cache / (std::to_string(size.width) + "x" + std::to_string(size.height));
        makePhotos(size, dir);
        if (!fs::exists(dir / "fingerprint.bin"))
        {
            fingerprint_binary_s fp{};
            if (!learn(dir, 10, 2, fp))
            {
                std::fprintf(stderr, "learning the benchmark fingerprint failed\n");
                return 1;
            }
            std::ofstream(dir / "fingerprint.bin", std::ios::binary)
                .write(reinterpret_cast<const char*>(fp.data), fp.size);
            release_fingerprint(&fp);
        }
        const struct
        {
            const char* what;
            int threads;
        } runs[] = {{"match", 1}, {"throughput", 1}, {"throughput", 2}, {"learn30", 2}};
        double peaks[3] = {};
        for (const auto& run : runs)
        {
            const fs::path result = fs::temp_directory_path() / "lumicrest-bench-measure.json";
            const std::string command = std::string("\"") + argv[0] + "\" --measure " + run.what + " --dir \"" +
                                        dir.string() + "\" --threads " + std::to_string(run.threads) + " > \"" +
                                        result.string() + "\"";
            if (std::system(command.c_str()) != 0)
            {
                std::fprintf(stderr, "measurement %s failed\n", run.what);
                continue;
            }
            std::ifstream in(result);
            std::string line;
            std::getline(in, line);
            json << (firstLine ? "" : ",\n") << "{\"megapixels\":" << mp << ",\"width\":" << size.width
                 << ",\"height\":" << size.height << ",\"result\":" << line << "}";
            firstLine = false;
            const std::string pps = field(line, "photos_per_second");
            std::printf("| %d MP | %s | %d | %.3f | %s | %.0f |\n", mp, run.what, run.threads, number(line, "seconds"),
                        pps.empty() ? "" : std::to_string(std::atof(pps.c_str())).substr(0, 5).c_str(),
                        number(line, "peak_mib"));
            // The memory one more concurrent match costs: the peak with two
            // matches at once over the peak with one, per photo pixel.
            if (std::string(run.what) == "throughput")
                peaks[run.threads] = number(line, "peak_mib");
            std::fflush(stdout);
            if (std::string(run.what) == "match")
            {
                const std::string stages = field(line, "stages");
                std::string row = "| " + std::to_string(mp) + " MP |";
                for (const char* name : StageNames)
                {
                    char cell[32];
                    std::snprintf(cell, sizeof(cell), " %.3f |", number(stages, name));
                    row += cell;
                }
                char total[32];
                std::snprintf(total, sizeof(total), " %.3f |", number(line, "seconds"));
                stageRows.push_back(row + total);
                std::fprintf(stderr, "same camera: %s\nother unit: %s\n", field(line, "answer").c_str(),
                             field(line, "other_answer").c_str());
            }
        }
        char row[160];
        std::snprintf(row, sizeof(row), "| %d MP | %.1f | %.1f |", mp,
                      (peaks[2] - peaks[1]) * 1048576.0 / (static_cast<double>(size.width) * size.height),
                      (peaks[2] - peaks[1]));
        memoryRows.push_back(row);
    }
    json << "\n]}\n";
    std::printf("\n| photos | decode | wavelet | zero-mean | wiener | fft | correlation | pce | match total (s) |\n"
                "|---|---|---|---|---|---|---|---|---|\n");
    for (const std::string& row : stageRows)
        std::printf("%s\n", row.c_str());
    std::printf("\n| photos | one more concurrent match (bytes/pixel) | (MiB) |\n|---|---|---|\n");
    for (const std::string& row : memoryRows)
        std::printf("%s\n", row.c_str());
    std::printf("\nresults written to %s\n", outPath.c_str());
    return 0;
}
