// Per-stage times of learning and matching on large simulated photos.
//   bench_engine_stages [--size 3648x2736] [--refs 5] [--repeat 3]
#include "camsim/camera.h"
#include "lumicrest.h"
#include "timing.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
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

} // namespace

int main(int argc, char** argv)
{
    int width = 3648;
    int height = 2736;
    int refs = 5;
    int repeat = 3;
    int questions = 0;
    double modelPixelSigma = -1.0;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (!std::strcmp(argv[i], "--size"))
            std::sscanf(argv[i + 1], "%dx%d", &width, &height);
        else if (!std::strcmp(argv[i], "--refs"))
            refs = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--repeat"))
            repeat = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--questions"))
            questions = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--model-pixel-sigma"))
            modelPixelSigma = std::atof(argv[i + 1]);
    }
    const fs::path dir = fs::temp_directory_path() / ("lumicrest-bench-" + std::to_string(std::rand()));
    fs::create_directories(dir);

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
            wchar_t* json = nullptr;
            match_device_origins(&fp, photo.wstring().c_str(), 2, &json, nullptr);
            std::string answer;
            for (const wchar_t* c = json; c && *c; ++c)
                answer += static_cast<char>(*c);
            std::free(json);
            const auto at = answer.find("\"pce\":");
            const double pce = at == std::string::npos ? 0.0 : std::atof(answer.c_str() + at + 6);
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
