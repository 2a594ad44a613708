#include "learn.h"

#include "budget.h"
#include "constants.h"
#include "imageio.h"
#include "lumicrest.h"
#include "pixelops.h"
#include "residual.h"
#include "status.h"
#include "text.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>

namespace lumicrest
{

namespace
{

struct PhotoReport
{
    std::string path;
    int width = 0;
    int height = 0;
    int rotation = 0;
    double mean = 0.0;
    double clipped = 0.0;
    double residual = 0.0;
    double noise = 0.0;
    double nmse = 0.0;
    int32_t result = LUMICREST_OK;
};

struct Warning
{
    int index;
    std::string path;
    std::string code;
    std::string text;
};

// The one rule for "same camera", which the program's different-camera check
// applies too: ASCII case and outer ASCII white space do not count.
std::string normalisedName(const std::string& s)
{
    std::string out;
    for (char c : s)
        out += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    static const char* const blanks = " \t\n\v\f\r";
    const auto begin = out.find_first_not_of(blanks);
    const auto end = out.find_last_not_of(blanks);
    return begin == std::string::npos ? std::string() : out.substr(begin, end - begin + 1);
}

// Running sums of the estimate K = sum(W * I) / (sum(I^2) + 1), per channel.
class Accumulator
{
public:
    void reset(int width, int height)
    {
        for (int c = 0; c < 3; ++c)
        {
            m_num[c].reset(width, height);
            m_num[c].fill(0.0f);
            m_den[c].reset(width, height);
            m_den[c].fill(0.0f);
        }
        m_previous.reset(width, height);
        m_previous.fill(0.0f);
        m_count = 0;
    }

    void add(int channel, const Plane& residual, const Plane& weights)
    {
        float* num = m_num[channel].data();
        float* den = m_den[channel].data();
        const float* w = residual.data();
        const float* i = weights.data();
        for (size_t p = 0, n = residual.size(); p < n; ++p)
        {
            num[p] += w[p] * i[p];
            den[p] += i[p] * i[p];
        }
    }

    // The grey combination of the channel estimates.
    void combined(Plane& out) const
    {
        out.reset(m_num[0].width(), m_num[0].height());
        const float g[3] = {constants::GreyR, constants::GreyG, constants::GreyB};
        float* k = out.data();
        const size_t n = out.size();
        for (size_t p = 0; p < n; ++p)
            k[p] = 0.0f;
        for (int c = 0; c < 3; ++c)
        {
            const float* num = m_num[c].data();
            const float* den = m_den[c].data();
            for (size_t p = 0; p < n; ++p)
                k[p] += g[c] * num[p] / (den[p] + 1.0f);
        }
    }

    // Closes one photo: NMSE of the new running estimate against the previous one.
    double closePhoto()
    {
        Plane current;
        combined(current);
        double change = 0.0;
        double energy = 0.0;
        const float* k = current.data();
        const float* prev = m_previous.data();
        for (size_t p = 0, n = current.size(); p < n; ++p)
        {
            const double d = static_cast<double>(k[p]) - prev[p];
            change += d * d;
            energy += static_cast<double>(k[p]) * k[p];
        }
        std::swap(m_previous, current);
        ++m_count;
        if (m_count == 1)
            return 1.0;
        return energy > 0.0 ? change / energy : 1.0;
    }

    // Adds one channel's share of the correlation of a photo's W * I with the
    // estimate so far to sum, to tell which way a portrait photo was turned.
    void addAgreement(const Plane& residual, const Plane& weights, double& sum) const
    {
        const float* k = m_previous.data();
        const float* w = residual.data();
        const float* i = weights.data();
        for (size_t p = 0, n = m_previous.size(); p < n; ++p)
            sum += static_cast<double>(w[p]) * i[p] * k[p];
    }

    int count() const { return m_count; }

private:
    Plane m_num[3];
    Plane m_den[3];
    Plane m_previous;
    int m_count = 0;
};

std::string reportsJson(const std::vector<PhotoReport>& reports)
{
    JsonWriter json;
    json.beginObject().key("photos").beginArray();
    for (size_t i = 0; i < reports.size(); ++i)
    {
        const PhotoReport& r = reports[i];
        json.beginObject();
        json.key("index").integer(static_cast<long long>(i)).key("path").string(r.path);
        json.key("width").integer(r.width).key("height").integer(r.height).key("rotation").integer(r.rotation);
        json.key("mean").number(r.mean).key("clipped").number(r.clipped).key("residual").number(r.residual);
        json.key("noise").number(r.noise).key("nmse").number(r.nmse);
        json.key("result").integer(r.result);
        json.endObject();
    }
    json.endArray().endObject();
    return json.text();
}

std::string warningsJson(const std::vector<Warning>& warnings)
{
    JsonWriter json;
    json.beginObject().key("warnings").beginArray();
    for (const Warning& w : warnings)
    {
        json.beginObject();
        json.key("index").integer(w.index).key("path").string(w.path);
        json.key("code").string(w.code).key("text").string(w.text);
        json.endObject();
    }
    json.endArray().endObject();
    return json.text();
}

std::string formatted(double value)
{
    std::string out;
    appendJsonNumber(out, std::round(value * 100.0) / 100.0);
    return out;
}

} // namespace

namespace
{

// Everything about one reference photo that does not depend on the others:
// made on a worker thread, consumed in list order on the caller's thread.
struct PreparedPhoto
{
    int32_t failure = LUMICREST_OK; // decoding failed, or an order-independent check did
    std::string detail;
    PhotoReport report;
    PhotoInfo info;
    bool portrait = false;
    int width = 0; // landscape size
    int height = 0;
    int channels = 0;
    Plane residuals[3];
    Plane weights[3];
    // This photo's share of the memory budget, held until it has been added.
    std::unique_ptr<MemoryBudget::Lease> lease;

    const Plane& residual(int c) const { return residuals[std::min(c, channels - 1)]; }
    const Plane& weight(int c) const { return weights[std::min(c, channels - 1)]; }
};

void prepare(const std::string& path, const LearnOptions& options, bool checks, PreparedPhoto& out)
{
    out.report.path = path;
    ReadLimits limits;
    limits.maxPixels = constants::MaxPixels;
    Photo photo = readPhoto(path, limits);
    out.report.width = photo.width;
    out.report.height = photo.height;
    out.info = photo.info;
    out.portrait = photo.height > photo.width;
    out.width = out.portrait ? photo.height : photo.width;
    out.height = out.portrait ? photo.width : photo.height;
    out.channels = photo.channels;

    if (checks && std::min(photo.width, photo.height) < constants::MinShortSide)
        fail(LUMICREST_PHOTO_TOO_SMALL, "shorter side below " + std::to_string(constants::MinShortSide));
    {
        Plane grey;
        greyLevel(photo.planes, photo.channels, grey);
        out.report.mean = meanOf(grey);
        out.report.noise = noiseLevel(grey);
    }
    out.report.clipped = clippedFraction(photo.planes, photo.channels);
    // Checks that need other photos (size, camera) come first when learning;
    // these are kept and reported in their turn.
    if (checks && out.report.mean < constants::MinMeanLevel)
    {
        out.failure = LUMICREST_REFERENCE_TOO_DARK;
        out.detail = "mean level below " + formatted(constants::MinMeanLevel);
    }
    else if (checks && out.report.clipped > constants::MaxClippedFraction)
    {
        out.failure = LUMICREST_REFERENCE_TOO_CLIPPED;
        out.detail = "too many clipped pixels";
    }
    else if (checks && out.report.noise > constants::MaxNoiseLevel)
    {
        out.failure = LUMICREST_REFERENCE_TOO_NOISY;
        out.detail = "noise or texture level above " + formatted(constants::MaxNoiseLevel);
    }
    if (out.failure != LUMICREST_OK)
        return;

    for (int c = 0; c < photo.channels; ++c)
    {
        channelResidual(photo.planes[c], options.sigmaRef, out.residuals[c]);
        intensityWeights(photo.planes[c], out.weights[c]);
        photo.planes[c] = Plane(); // the decoded samples are no longer needed
    }
    Plane combined(photo.width, photo.height);
    const float g[3] = {constants::GreyR, constants::GreyG, constants::GreyB};
    float* d = combined.data();
    for (size_t p = 0, n = combined.size(); p < n; ++p)
        d[p] = photo.channels == 3 ? g[0] * out.residuals[0].data()[p] + g[1] * out.residuals[1].data()[p] +
                                         g[2] * out.residuals[2].data()[p]
                                   : out.residuals[0].data()[p];
    out.report.residual = standardDeviationOf(combined);
}

std::string megabytes(uint64_t bytes)
{
    return std::to_string((bytes + (1u << 20) - 1) >> 20) + " MB";
}

// Prepares photos on worker threads, at most `threads` ahead of the consumer,
// and hands them out in list order.
//
// Memory: before decoding, each photo reserves its share of the process-wide
// budget (the first one also the running sums' share, into sumsLease, held by
// the caller to the end), so fewer photos are prepared at once when memory is
// short. Reservations are made strictly in list order: the photos ahead of one
// that waits are all reserved, so they get prepared and consumed, and release
// theirs, whatever the thread timing. A photo that could not fit even next to
// the sums alone is refused with 550 at once instead of waiting forever.
class PreparationPool
{
public:
    PreparationPool(const std::vector<std::string>& paths, const LearnOptions& options, bool checks, int threads,
                    std::unique_ptr<MemoryBudget::Lease>& sumsLease)
        : m_paths(paths), m_options(options), m_checks(checks), m_slots(paths.size()), m_ahead(threads),
          m_sumsLease(sumsLease)
    {
        for (int t = 0; t < threads; ++t)
            m_workers.emplace_back([this] { work(); });
    }

    ~PreparationPool()
    {
        std::vector<std::unique_ptr<PreparedPhoto>> unused;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
            // Their reservations go now: a worker may be waiting for room.
            unused.swap(m_slots);
        }
        unused.clear();
        m_changed.notify_all();
        for (std::thread& worker : m_workers)
            worker.join();
    }

    // Waits for photo i (taken in order: i is the next after the last one taken).
    std::unique_ptr<PreparedPhoto> take(size_t i)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_slots[i] != nullptr; });
        std::unique_ptr<PreparedPhoto> photo = std::move(m_slots[i]);
        m_taken = i + 1;
        lock.unlock();
        m_changed.notify_all();
        return photo;
    }

private:
    void work()
    {
        for (;;)
        {
            size_t i;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                // Bounded look-ahead keeps memory independent of the number of photos.
                m_changed.wait(lock, [&] { return m_stop || m_next >= m_paths.size() || m_next < m_taken + m_ahead; });
                if (m_stop || m_next >= m_paths.size())
                    return;
                i = m_next++;
            }
            auto photo = std::make_unique<PreparedPhoto>();
            try
            {
                if (reserve(i, *photo))
                    prepare(m_paths[i], m_options, m_checks, *photo);
            }
            catch (const Failure& failure)
            {
                photo->failure = failure.code();
                photo->detail = failure.detail();
            }
            catch (const std::bad_alloc&)
            {
                photo->failure = LUMICREST_OUT_OF_MEMORY;
                photo->detail = "out of memory";
            }
            catch (...)
            {
                photo->failure = LUMICREST_INTERNAL_ERROR;
                photo->detail = "internal error";
            }
            photo->report.path = m_paths[i];
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_stop)
                    return;
                m_slots[i] = std::move(photo);
            }
            m_changed.notify_all();
        }
    }

    // Takes photo i's share of the memory budget, in list order; false when
    // the photo is refused without decoding (failure set).
    bool reserve(size_t i, PreparedPhoto& photo)
    {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [&] { return m_stop || m_reserveTurn == i; });
            if (m_stop)
                return false;
        }
        struct NextTurn
        {
            PreparationPool& pool;
            ~NextTurn()
            {
                {
                    std::lock_guard<std::mutex> lock(pool.m_mutex);
                    ++pool.m_reserveTurn;
                }
                pool.m_changed.notify_all();
            }
        } nextTurn{*this};
        if (i > 0 && m_firstPixels == 0)
        {
            // The first photo was refused or cannot be read: learning ends
            // there, so this one is never used.
            photo.failure = LUMICREST_INTERNAL_ERROR;
            photo.detail = "not prepared: learning ended at an earlier photo";
            return false;
        }

        int width = 0;
        int height = 0;
        try
        {
            readPhotoSize(m_paths[i], width, height);
        }
        catch (const Failure&)
        {
            return true; // decoding fails the same way at once, before any large allocation
        }
        const uint64_t pixels = static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
        if (pixels > static_cast<uint64_t>(constants::MaxPixels))
            return true; // refused (720) before decoding
        MemoryBudget& budget = MemoryBudget::instance();
        const uint64_t sums = constants::LearnSumsBytesPerPixel * (i == 0 ? pixels : m_firstPixels);
        const uint64_t bytes = constants::LearnPhotoBytesPerPixel * pixels;
        if (sums + bytes > budget.capacity())
        {
            const bool sameSize = std::max(width, height) == m_firstLong && std::min(width, height) == m_firstShort;
            if (i > 0 && !sameSize)
            {
                // It could not be used anyway.
                m_firstPixels = 0;
                photo.failure = LUMICREST_REFERENCE_SIZE_DIFFERS;
                photo.detail = "size differs from the first photo";
                return false;
            }
            m_firstPixels = 0; // later photos are not prepared either
            photo.failure = LUMICREST_OUT_OF_MEMORY;
            photo.detail = "out of memory: learning from photos of " + std::to_string(width) + "x" +
                           std::to_string(height) + " pixels needs about " + megabytes(sums + bytes) +
                           ", more than the memory budget of " + megabytes(budget.capacity());
            return false;
        }
        if (i == 0)
        {
            m_firstPixels = pixels;
            m_firstLong = std::max(width, height);
            m_firstShort = std::min(width, height);
            m_sumsLease = std::make_unique<MemoryBudget::Lease>(budget, sums);
        }
        photo.lease = std::make_unique<MemoryBudget::Lease>(budget, bytes); // waits for room
        return true;
    }

    const std::vector<std::string>& m_paths;
    const LearnOptions m_options;
    const bool m_checks;
    std::vector<std::unique_ptr<PreparedPhoto>> m_slots;
    const size_t m_ahead;
    size_t m_next = 0;
    size_t m_taken = 0;
    size_t m_reserveTurn = 0;
    std::unique_ptr<MemoryBudget::Lease>& m_sumsLease;
    uint64_t m_firstPixels = 0; // set at the first photo's turn, 0 again once a photo is refused; turns only
    int m_firstLong = 0;
    int m_firstShort = 0;
    bool m_stop = false;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::thread> m_workers;
};

int learningThreads(const LearnOptions& options, size_t photos)
{
    int threads = options.threads > 0 ? options.threads : static_cast<int>(std::thread::hardware_concurrency());
    threads = std::max(threads, 1);
    return static_cast<int>(std::min<size_t>(static_cast<size_t>(threads), std::max<size_t>(photos, 1)));
}

} // namespace

LearnOutcome learnFingerprint(const std::vector<std::string>& paths, const LearnOptions& options, bool checks,
                              LearnProgress progress, FingerprintData& out)
{
    using Clock = std::chrono::steady_clock;
    const auto started = Clock::now();
    LearnOutcome outcome;
    std::vector<PhotoReport> reports;
    std::vector<Warning> warnings;
    Accumulator accumulator;
    std::string firstMake;
    std::string firstModel;
    std::string lens;
    int width = 0;
    int height = 0;
    const int count = static_cast<int>(paths.size());

    if (progress)
        progress(0, 0.0f, 0.0f);

    std::unique_ptr<MemoryBudget::Lease> sumsLease; // held through the final steps
    {
        PreparationPool pool(paths, options, checks, learningThreads(options, paths.size()), sumsLease);
        for (int index = 0; index < count; ++index)
        {
            std::unique_ptr<PreparedPhoto> photo = pool.take(static_cast<size_t>(index));
            PhotoReport& report = photo->report;
            try
            {
                const bool decoded = photo->width > 0;
                if (!decoded || photo->failure == LUMICREST_PHOTO_TOO_SMALL)
                    fail(photo->failure, photo->detail);
                if (index == 0)
                {
                    width = photo->width;
                    height = photo->height;
                    accumulator.reset(width, height);
                    firstMake = photo->info.make;
                    firstModel = photo->info.model;
                }
                else if (photo->width != width || photo->height != height)
                {
                    fail(LUMICREST_REFERENCE_SIZE_DIFFERS, "size differs from the first photo");
                }
                const std::string make = normalisedName(photo->info.make);
                const std::string first = normalisedName(firstMake);
                if (checks && index > 0 && !make.empty() && !first.empty() &&
                    (make != first || normalisedName(photo->info.model) != normalisedName(firstModel)))
                    fail(LUMICREST_REFERENCE_CAMERA_DIFFERS, "EXIF camera differs from the first photo's");
                if (photo->failure != LUMICREST_OK)
                    fail(photo->failure, photo->detail);
                if (lens.empty())
                    lens = photo->info.lens;

                Plane residuals[3];
                Plane weights[3];
                for (int c = 0; c < 3; ++c)
                {
                    if (c < photo->channels)
                    {
                        residuals[c] = std::move(photo->residuals[c]);
                        weights[c] = std::move(photo->weights[c]);
                    }
                    else
                    {
                        // A grey photo informs all three channel estimates alike.
                        residuals[c].reset(residuals[0].width(), residuals[0].height());
                        weights[c].reset(weights[0].width(), weights[0].height());
                        std::copy(residuals[0].data(), residuals[0].data() + residuals[0].size(), residuals[c].data());
                        std::copy(weights[0].data(), weights[0].data() + weights[0].size(), weights[c].data());
                    }
                }
                if (photo->portrait)
                {
                    // Whichever turn agrees better with the estimate so far; the first
                    // photo has nothing to agree with and is turned clockwise. One
                    // channel is turned at a time, so the turn costs two planes, not twelve.
                    Plane turned;
                    Plane turnedWeights;
                    int rotation = 90;
                    if (accumulator.count() > 0)
                    {
                        double agreement[2] = {0.0, 0.0};
                        for (int t = 0; t < 2; ++t)
                            for (int c = 0; c < 3; ++c)
                            {
                                rotatePlane(residuals[c], t == 0 ? 90 : 270, turned);
                                rotatePlane(weights[c], t == 0 ? 90 : 270, turnedWeights);
                                accumulator.addAgreement(turned, turnedWeights, agreement[t]);
                            }
                        if (agreement[1] > agreement[0])
                            rotation = 270;
                    }
                    for (int c = 0; c < 3; ++c)
                    {
                        rotatePlane(residuals[c], rotation, turned);
                        rotatePlane(weights[c], rotation, turnedWeights);
                        std::swap(residuals[c], turned);
                        std::swap(weights[c], turnedWeights);
                    }
                    report.rotation = rotation;
                }

                for (int c = 0; c < 3; ++c)
                    accumulator.add(c, residuals[c], weights[c]);
                report.nmse = accumulator.closePhoto();
                out.nmse.push_back(report.nmse);

                if (report.mean < constants::WarnMeanLevel)
                    warnings.push_back({index, report.path, "dark", "the photo is dark and adds little to the fingerprint"});
                if (report.clipped > constants::WarnClippedFraction)
                    warnings.push_back({index, report.path, "clipped", "large clipped areas add nothing to the fingerprint"});
                if (report.noise > constants::WarnNoiseLevel)
                    warnings.push_back({index, report.path, "textured",
                                        "strong texture leaks into the noise; flat scenes make better references"});
                reports.push_back(report);
            }
            catch (const Failure& failure)
            {
                report.result = failure.code();
                reports.push_back(report);
                outcome.code = failure.code();
                outcome.failedIndex = index;
                warnings.push_back({index, report.path, "failed", failure.detail()});
                break;
            }

            if (progress)
            {
                const std::chrono::duration<double> spent = Clock::now() - started;
                const int percent = static_cast<int>((static_cast<long long>(index) + 1) * 100 / count);
                // Never both zero: that pair is reserved for the closing call.
                progress(percent, static_cast<float>(report.nmse), static_cast<float>(std::max(spent.count(), 1e-6)));
            }
        }
    }

    if (outcome.code == LUMICREST_OK)
    {
        Plane k;
        accumulator.combined(k);
        zeroMeanLattices(k);
        wienerInDft(k);
        out.width = width;
        out.height = height;
        out.make = firstMake;
        out.model = firstModel;
        out.lens = lens;
        out.sigmaRef = options.sigmaRef;
        out.sigmaMatch = options.sigmaMatch;
        out.created = static_cast<int64_t>(std::time(nullptr));
        out.k = std::move(k);
    }

    outcome.diagnostics = reportsJson(reports);
    outcome.warnings = warningsJson(warnings);
    if (progress)
        progress(100, 0.0f, 0.0f);
    return outcome;
}

} // namespace lumicrest
