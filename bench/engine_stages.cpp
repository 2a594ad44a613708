// Per-stage times of learning and matching on large simulated photos.
//   bench_engine_stages [--size 3648x2736] [--refs 5] [--repeat 3]
// With a profile, the score distribution of a calibrated camera instead:
// learns unit 1 from --refs flat shots (default 10), then prints the PCE of
// --true natural shots of unit 1 and --false shots of units 2, 3, ... of the
// same model.
//   bench_engine_stages --profile dslr|phone [--scale 1] [--refs 10] [--true 16] [--false 16]
#include "camsim/camera.h"
#include "camsim/profiles.h"
#include "lumicrest.h"
#include "timing.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using lumicrest::Stage;

namespace
{

constexpr int StageCount = static_cast<int>(Stage::Count);

double seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void resetStages()
{
    lumicrest::threadStageTimes() = lumicrest::StageTimes();
}

void printStages(const char* title, const lumicrest::StageTimes& t, double total)
{
    std::printf("| %s |", title);
    double staged = 0.0;
    for (int s = 0; s < StageCount; ++s)
    {
        std::printf(" %.3f |", t.seconds[s]);
        staged += t.seconds[s];
    }
    std::printf(" %.3f | %.3f |\n", total - staged, total);
}

double pceOf(const std::string& json)
{
    const auto at = json.find("\"pce\":");
    return at == std::string::npos ? 0.0 : std::atof(json.c_str() + at + 6);
}

std::string matchJson(const fingerprint_binary_s& fp, const fs::path& photo)
{
    wchar_t* json = nullptr;
    match_device_origins(&fp, photo.wstring().c_str(), 2, &json, nullptr);
    std::string answer;
    for (const wchar_t* c = json; c && *c; ++c)
        answer += static_cast<char>(*c);
    std::free(json);
    return answer;
}

double percentile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return 0.0;
    const double at = p * static_cast<double>(sorted.size() - 1);
    const size_t i = static_cast<size_t>(at);
    const size_t j = std::min(i + 1, sorted.size() - 1);
    return sorted[i] + (at - static_cast<double>(i)) * (sorted[j] - sorted[i]);
}

void printDistribution(const char* title, std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    std::printf("| %s | %zu | %.1f | %.1f | %.1f | %.1f | %.1f |", title, values.size(), values.front(),
                percentile(values, 0.1), percentile(values, 0.5), percentile(values, 0.9), values.back());
    std::printf("\n  sorted:");
    for (double v : values)
        std::printf(" %.1f", v);
    std::printf("\n");
}

int profileDistribution(camsim::profiles::Profile profile, double scale, int refs, int trueCount, int falseCount,
                        const fs::path& dir)
{
    using namespace camsim::profiles;
    const auto began = std::chrono::steady_clock::now();
    const camsim::Camera unit1(camera(profile, 1, scale));
    const camsim::CameraConfig& c = unit1.config();
    std::printf("profile %s at scale %.2f: %s %s, %dx%d (%.1f MP), %d flat references, %d true, %d false\n\n",
                profileName(profile), scale, c.make.c_str(), c.model.c_str(), c.width, c.height,
                c.width * static_cast<double>(c.height) / 1e6, refs, trueCount, falseCount);

    std::vector<std::wstring> paths;
    for (int i = 0; i < refs; ++i)
    {
        const fs::path p = dir / ("ref_" + std::to_string(i) + ".jpg");
        unit1.shoot(referenceShot(profile, 100 + static_cast<uint64_t>(i)), p.string());
        paths.push_back(p.wstring());
    }
    std::vector<const wchar_t*> pointers;
    for (const auto& p : paths)
        pointers.push_back(p.c_str());
    fingerprint_binary_s fp{};
    wchar_t* t1 = nullptr;
    wchar_t* t2 = nullptr;
    const lumicrest_error_code learned =
        get_sensor_fingerprint(pointers.data(), refs, &fp, &t1, L"", true, &t2, nullptr);
    std::free(t1);
    std::free(t2);
    if (learned != LUMICREST_OK)
    {
        std::fprintf(stderr, "learning failed: %d\n", learned);
        return 1;
    }

    // Other units: four of them, the false photos spread over them.
    std::vector<std::unique_ptr<camsim::Camera>> others;
    for (uint64_t u = 2; u <= 5; ++u)
        others.push_back(std::make_unique<camsim::Camera>(camera(profile, u, scale)));

    std::vector<double> truePce(static_cast<size_t>(trueCount));
    std::vector<double> falsePce(static_cast<size_t>(falseCount));
    std::vector<std::string> notes(static_cast<size_t>(trueCount));
    std::mutex lock;
    int next = 0;
    const auto worker = [&]()
    {
        for (;;)
        {
            int job;
            {
                std::lock_guard<std::mutex> guard(lock);
                job = next++;
            }
            if (job >= trueCount + falseCount)
                return;
            const bool same = job < trueCount;
            const int k = same ? job : job - trueCount;
            const camsim::ShotConfig shot = naturalShot(profile, 2000 + static_cast<uint64_t>(k));
            const camsim::Camera& cam = same ? unit1 : *others[static_cast<size_t>(k) % others.size()];
            const fs::path photo = dir / ("q_" + std::to_string(job) + ".jpg");
            cam.shoot(shot, photo.string());
            const double pce = pceOf(matchJson(fp, photo));
            fs::remove(photo);
            std::lock_guard<std::mutex> guard(lock);
            if (same)
            {
                truePce[static_cast<size_t>(k)] = pce;
                notes[static_cast<size_t>(k)] = describeShot(shot);
            }
            else
                falsePce[static_cast<size_t>(k)] = pce;
        }
    };
    std::vector<std::thread> threads;
    const unsigned count = std::max(1u, std::min(2u, std::thread::hardware_concurrency()));
    for (unsigned t = 0; t < count; ++t)
        threads.emplace_back(worker);
    for (std::thread& t : threads)
        t.join();
    release_fingerprint(&fp);

    for (int k = 0; k < trueCount; ++k)
        std::printf("  true %2d: PCE %8.1f  %s\n", k, truePce[static_cast<size_t>(k)],
                    notes[static_cast<size_t>(k)].c_str());
    std::printf("\n| photos | n | min | 10th pct | median | 90th pct | max |\n|---|---|---|---|---|---|---|\n");
    if (trueCount > 0)
        printDistribution("same camera", truePce);
    if (falseCount > 0)
        printDistribution("other units, same model", falsePce);
    std::printf("\n%.0f s\n", seconds(began));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    int width = 3648;
    int height = 2736;
    int refs = 5;
    int repeat = 3;
    int questions = 0;
    double modelPixelSigma = -1.0;
    std::string profileText;
    double scale = 1.0;
    int trueCount = 16;
    int falseCount = 16;
    bool refsGiven = false;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (!std::strcmp(argv[i], "--profile"))
            profileText = argv[i + 1];
        else if (!std::strcmp(argv[i], "--scale"))
            scale = std::atof(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--true"))
            trueCount = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--false"))
            falseCount = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--size"))
            std::sscanf(argv[i + 1], "%dx%d", &width, &height);
        else if (!std::strcmp(argv[i], "--refs"))
        {
            refs = std::atoi(argv[i + 1]);
            refsGiven = true;
        }
        else if (!std::strcmp(argv[i], "--repeat"))
            repeat = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--questions"))
            questions = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--model-pixel-sigma"))
            modelPixelSigma = std::atof(argv[i + 1]);
    }
    const fs::path dir = fs::temp_directory_path() / ("lumicrest-bench-" + std::to_string(std::rand()));
    fs::create_directories(dir);

    if (!profileText.empty())
    {
        camsim::profiles::Profile profile;
        if (!camsim::profiles::parseProfile(profileText, profile) || !(scale > 0 && scale <= 1) || trueCount < 1 ||
            falseCount < 0)
        {
            std::fprintf(stderr, "bad --profile (plain, dslr, phone), --scale (0..1], --true or --false\n");
            fs::remove_all(dir);
            return 2;
        }
        const int code =
            profileDistribution(profile, scale, refsGiven ? refs : 10, trueCount, falseCount, dir);
        fs::remove_all(dir);
        return code;
    }

    camsim::CameraConfig config;
    config.width = width;
    config.height = height;
    if (modelPixelSigma >= 0.0)
        config.modelPixelSigma = modelPixelSigma;
    config.unitSeed = 1;
    const camsim::Camera unit1(config);
    config.unitSeed = 2;
    const camsim::Camera unit2(config);
    config.unitSeed = 3;
    const camsim::Camera unit3(config);

    std::vector<std::wstring> paths;
    for (int i = 0; i < refs; ++i)
    {
        camsim::ShotConfig shot;
        shot.scene = i % 2 ? camsim::SceneKind::Natural : camsim::SceneKind::Gradient;
        shot.sceneSeed = 100 + i;
        const fs::path p = dir / ("ref_" + std::to_string(i) + ".jpg");
        unit1.shoot(shot, p.string());
        paths.push_back(p.wstring());
    }
    std::vector<const wchar_t*> pointers;
    for (const auto& p : paths)
        pointers.push_back(p.c_str());

    std::printf("photos %dx%d (%.1f MP), %d reference photos, one thread\n\n", width, height,
                width * static_cast<double>(height) / 1e6, refs);
    std::printf("| operation | decode | wavelet | zero-mean | wiener | fft | correlation | pce | other | total (s) |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|---|\n");

    fingerprint_binary_s fp{};
    wchar_t* t1 = nullptr;
    wchar_t* t2 = nullptr;
    resetStages();
    auto start = std::chrono::steady_clock::now();
    const lumicrest_error_code learned =
        get_sensor_fingerprint(pointers.data(), refs, &fp, &t1, L"", true, &t2, nullptr);
    const double learnTime = seconds(start);
    std::free(t1);
    std::free(t2);
    if (learned != LUMICREST_OK)
    {
        std::fprintf(stderr, "learning failed: %d\n", learned);
        return 1;
    }
    char title[64];
    std::snprintf(title, sizeof(title), "learn %d photos", refs);
    printStages(title, lumicrest::threadStageTimes(), learnTime);

    for (int which = 0; which < 2; ++which)
    {
        camsim::ShotConfig shot;
        shot.sceneSeed = 900;
        const fs::path photo = dir / (which ? "other.jpg" : "same.jpg");
        (which ? unit2 : unit1).shoot(shot, photo.string());
        lumicrest::StageTimes best;
        double bestTime = 1e300;
        std::string answer;
        for (int r = 0; r < repeat; ++r)
        {
            resetStages();
            wchar_t* json = nullptr;
            start = std::chrono::steady_clock::now();
            match_device_origins(&fp, photo.wstring().c_str(), 2, &json, nullptr);
            const double t = seconds(start);
            if (t < bestTime)
            {
                bestTime = t;
                best = lumicrest::threadStageTimes();
            }
            answer.clear();
            for (const wchar_t* c = json; c && *c; ++c)
                answer += static_cast<char>(*c);
            std::free(json);
        }
        printStages(which ? "match, other unit (best)" : "match, same unit (best)", best, bestTime);
        std::fprintf(stderr, "%s\n", answer.c_str());
    }

    // Resized photos: the first of a size pays for resampling K, later ones reuse
    // it; a resized crop of another camera runs the whole scale search.
    struct Resized
    {
        const char* title;
        const camsim::Camera* unit;
        double factor;
        int cropWidth;
        int cropHeight;
        int runs;
    };
    const Resized resizedCases[] = {
        {"match, resized 0.8, first", &unit1, 0.8, 0, 0, 1},
        {"match, resized 0.8, cached (best)", &unit1, 0.8, 0, 0, repeat},
        {"scale search, resized 0.7 crop, same unit", &unit1, 0.7, width * 2 / 3, height / 2, 1},
        {"scale search, resized 0.7 crop, other unit", &unit2, 0.7, width * 2 / 3, height / 2, 1},
    };
    for (const Resized& c : resizedCases)
    {
        camsim::ShotConfig shot;
        shot.sceneSeed = 901;
        shot.cropWidth = c.cropWidth;
        shot.cropHeight = c.cropHeight;
        shot.resizeWidth = static_cast<int>((c.cropWidth ? c.cropWidth : width) * c.factor + 0.5);
        shot.resizeHeight = static_cast<int>((c.cropHeight ? c.cropHeight : height) * c.factor + 0.5);
        const fs::path photo = dir / "resized.jpg";
        c.unit->shoot(shot, photo.string());
        lumicrest::StageTimes best;
        double bestTime = 1e300;
        std::string answer;
        for (int r = 0; r < c.runs; ++r)
        {
            resetStages();
            start = std::chrono::steady_clock::now();
            answer = matchJson(fp, photo);
            const double t = seconds(start);
            if (t < bestTime)
            {
                bestTime = t;
                best = lumicrest::threadStageTimes();
            }
        }
        printStages(c.title, best, bestTime);
        std::fprintf(stderr, "%s\n", answer.c_str());
    }

    // PCE distributions: the reference unit and two other units of the same model.
    if (questions > 0)
        std::printf("\n| questioned photos | PCE min | PCE max | matched |\n|---|---|---|---|\n");
    const camsim::Camera* units[] = {&unit1, &unit2, &unit3};
    for (int u = 0; questions > 0 && u < 3; ++u)
    {
        double low = 1e300;
        double high = -1e300;
        int matched = 0;
        for (int q = 0; q < questions; ++q)
        {
            camsim::ShotConfig shot;
            shot.scene = q % 3 == 0 ? camsim::SceneKind::Edges : camsim::SceneKind::Natural;
            shot.sceneSeed = 2000 + q;
            const fs::path photo = dir / "question.jpg";
            units[u]->shoot(shot, photo.string());
            const std::string answer = matchJson(fp, photo);
            const double pce = pceOf(answer);
            low = std::min(low, pce);
            high = std::max(high, pce);
            matched += answer.find("\"sensor_matched\":1") != std::string::npos;
        }
        std::printf("| unit %d%s | %.1f | %.1f | %d of %d |\n", u + 1, u == 0 ? " (same camera)" : " (same model)", low,
                    high, matched, questions);
    }
    release_fingerprint(&fp);
    fs::remove_all(dir);
    return 0;
}
