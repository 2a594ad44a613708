// The process-wide memory budget: matches beyond it wait, and waiting changes
// no answer.
#include "budget.h"
#include "constants.h"
#include "lumicrest.h"
#include "simcamera.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace enginetest;
using lumicrest::MemoryBudget;

namespace
{

const int Width = 800;
const int Height = 600;

// count photos of a small camera from consecutive scenes.
std::vector<std::string> shots(const TempDir& dir, const std::string& prefix, int firstSeed, int count)
{
    camsim::CameraConfig config;
    config.width = Width;
    config.height = Height;
    return shootSeries(camsim::Camera(config), dir, prefix, count, [&](int i) {
        camsim::ShotConfig shot;
        shot.sceneSeed = static_cast<uint64_t>(firstSeed + i);
        return shot;
    });
}

} // namespace

TEST(MemoryBudget, LeasesWaitForRoomAndOversizedRequestsRunAlone)
{
    MemoryBudget& budget = MemoryBudget::instance();
    const uint64_t saved = budget.capacity();
    budget.setCapacity(100);
    budget.resetPeak();
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    inParallel(6, [&](size_t t) {
        // 60 + 60 > 100: never two at once; 250 alone exceeds everything.
        const MemoryBudget::Lease lease(budget, t == 5 ? 250 : 60);
        const int now = ++inside;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now))
        {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        --inside;
    });
    EXPECT_EQ(most.load(), 1);
    EXPECT_EQ(budget.peakHolders(), 1);
    budget.setCapacity(1000);
    budget.resetPeak();
    {
        const MemoryBudget::Lease a(budget, 300);
        const MemoryBudget::Lease b(budget, 300);
        EXPECT_EQ(budget.peakHolders(), 2) << "room for both: no waiting";
    }
    budget.setCapacity(saved);
    EXPECT_GT(lumicrest::physicalMemory(), 0u);
}

TEST(MemoryBudget, RoomForOneLargeMatchAtATimeGivesTheSameAnswers)
{
    TempDir dir("lumicrest-budget");
    Learned learned = learn(shots(dir, "r", 70, 4));
    ASSERT_EQ(learned.code, LUMICREST_OK);
    const std::vector<std::string> photos = shots(dir, "q", 80, 6);
    std::vector<std::string> alone;
    for (const std::string& p : photos)
        alone.push_back(match(learned.fp, p).json);

    MemoryBudget& budget = MemoryBudget::instance();
    const uint64_t saved = budget.capacity();
    const uint64_t oneMatch = lumicrest::constants::MatchBytesPerPixel * Width * Height;
    budget.setCapacity(oneMatch + oneMatch / 2);
    budget.resetPeak();
    std::vector<std::string> together(photos.size());
    inParallel(photos.size(), [&](size_t i) { together[i] = match(learned.fp, photos[i]).json; });
    EXPECT_EQ(budget.peakHolders(), 1) << "the budget allows one large match at a time";
    EXPECT_EQ(together, alone);
    budget.setCapacity(saved);
    release_fingerprint(&learned.fp);
}

// Learning reserves the running sums and each photo before decoding it: a
// tight budget prepares one photo at a time and learns the same fingerprint;
// one that cannot hold the sums and a single photo refuses at the first photo
// with 550 (out of memory), without waiting forever.
TEST(MemoryBudget, LearningWithinTheBudgetOrRefusedAsOutOfMemory)
{
    TempDir dir("lumicrest-budget-learn");
    const std::vector<std::string> references = shots(dir, "r", 90, 4);
    const uint64_t pixels = Width * Height;
    const uint64_t sums = lumicrest::constants::LearnSumsBytesPerPixel * pixels;
    const uint64_t photo = lumicrest::constants::LearnPhotoBytesPerPixel * pixels;

    MemoryBudget& budget = MemoryBudget::instance();
    const uint64_t saved = budget.capacity();
    struct Case
    {
        uint64_t capacity;
        lumicrest_error_code code;
        int peakHolders; // at most: the sums and the photos reserved at once
    };
    const Case cases[] = {
        {sums + 4 * photo, LUMICREST_OK, 5},
        {sums + photo + photo / 2, LUMICREST_OK, 2},
        {sums + photo - 1, LUMICREST_OUT_OF_MEMORY, 1},
    };
    std::string roomy;
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.capacity);
        budget.setCapacity(c.capacity);
        budget.resetPeak();
        Learned learned = learn(references, nullptr, L"threads=4");
        EXPECT_EQ(learned.code, c.code);
        EXPECT_LE(budget.peakHolders(), c.peakHolders);
        if (c.code != LUMICREST_OK)
        {
            EXPECT_NE(learned.warnings.find("out of memory"), std::string::npos) << learned.warnings;
        }
        else
        {
            EXPECT_GE(budget.peakHolders(), 2) << "the sums and a photo are reserved";
            if (roomy.empty())
                roomy = learned.diagnostics;
            EXPECT_EQ(learned.diagnostics, roomy) << "waiting for room changes nothing learned";
        }
        release_fingerprint(&learned.fp);
    }
    budget.setCapacity(saved);
}
