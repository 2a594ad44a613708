#include "learn.h"

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
#include <ctime>

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

std::string normalisedName(const std::string& s)
{
    std::string out;
    for (char c : s)
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto begin = out.find_first_not_of(' ');
    const auto end = out.find_last_not_of(' ');
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

    // Correlation of a photo's W * I with the estimate so far, to tell which way a
    // portrait photo was turned.
    double agreement(const Plane (&residuals)[3], const Plane (&weights)[3]) const
    {
        double sum = 0.0;
        const float* k = m_previous.data();
        for (int c = 0; c < 3; ++c)
        {
            const float* w = residuals[c].data();
            const float* i = weights[c].data();
            for (size_t p = 0, n = m_previous.size(); p < n; ++p)
                sum += static_cast<double>(w[p]) * i[p] * k[p];
        }
        return sum;
    }

    int count() const { return m_count; }

private:
    Plane m_num[3];
    Plane m_den[3];
    Plane m_previous;
    int m_count = 0;
};

void appendReports(std::string& json, const std::vector<PhotoReport>& reports)
{
    json += "{\"photos\":[";
    for (size_t i = 0; i < reports.size(); ++i)
    {
        const PhotoReport& r = reports[i];
        if (i)
            json += ',';
        json += "{\"index\":" + std::to_string(i) + ",\"path\":";
        appendJsonString(json, r.path);
        json += ",\"width\":" + std::to_string(r.width) + ",\"height\":" + std::to_string(r.height);
        json += ",\"rotation\":" + std::to_string(r.rotation) + ",\"mean\":";
        appendJsonNumber(json, r.mean);
        json += ",\"clipped\":";
        appendJsonNumber(json, r.clipped);
        json += ",\"residual\":";
        appendJsonNumber(json, r.residual);
        json += ",\"noise\":";
        appendJsonNumber(json, r.noise);
        json += ",\"nmse\":";
        appendJsonNumber(json, r.nmse);
        json += ",\"result\":" + std::to_string(r.result) + "}";
    }
    json += "]}";
}

void appendWarnings(std::string& json, const std::vector<Warning>& warnings)
{
    json += "{\"warnings\":[";
    for (size_t i = 0; i < warnings.size(); ++i)
    {
        const Warning& w = warnings[i];
        if (i)
            json += ',';
        json += "{\"index\":" + std::to_string(w.index) + ",\"path\":";
        appendJsonString(json, w.path);
        json += ",\"code\":";
        appendJsonString(json, w.code);
        json += ",\"text\":";
        appendJsonString(json, w.text);
        json += "}";
    }
    json += "]}";
}

std::string formatted(double value)
{
    std::string out;
    appendJsonNumber(out, std::round(value * 100.0) / 100.0);
    return out;
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

    for (int index = 0; index < count; ++index)
    {
        PhotoReport report;
        report.path = paths[index];
        try
        {
            ReadLimits limits;
            limits.maxPixels = constants::MaxPixels;
            Photo photo = readPhoto(paths[index], limits);
            report.width = photo.width;
            report.height = photo.height;

            if (checks && std::min(photo.width, photo.height) < constants::MinShortSide)
                fail(LUMICREST_PHOTO_TOO_SMALL, "shorter side below " + std::to_string(constants::MinShortSide));

            // Portrait photos are turned to landscape; which way is decided below.
            const bool portrait = photo.height > photo.width;
            const int landscapeW = portrait ? photo.height : photo.width;
            const int landscapeH = portrait ? photo.width : photo.height;
            if (index == 0)
            {
                width = landscapeW;
                height = landscapeH;
                accumulator.reset(width, height);
                firstMake = photo.info.make;
                firstModel = photo.info.model;
            }
            else if (landscapeW != width || landscapeH != height)
                fail(LUMICREST_REFERENCE_SIZE_DIFFERS, "size differs from the first photo");
            if (checks && index > 0 && !photo.info.make.empty() && !firstMake.empty() &&
                (normalisedName(photo.info.make) != normalisedName(firstMake) ||
                 normalisedName(photo.info.model) != normalisedName(firstModel)))
                fail(LUMICREST_REFERENCE_CAMERA_DIFFERS, "EXIF camera differs from the first photo's");
            if (lens.empty())
                lens = photo.info.lens;

            const int channels = photo.channels;
            Plane grey;
            greyLevel(photo.planes, channels, grey);
            report.mean = meanOf(grey);
            report.clipped = clippedFraction(photo.planes, channels);
            if (checks && report.mean < constants::MinMeanLevel)
                fail(LUMICREST_REFERENCE_TOO_DARK, "mean level below " + formatted(constants::MinMeanLevel));
            if (checks && report.clipped > constants::MaxClippedFraction)
                fail(LUMICREST_REFERENCE_TOO_CLIPPED, "too many clipped pixels");
            report.noise = noiseLevel(grey);
            if (checks && report.noise > constants::MaxNoiseLevel)
                fail(LUMICREST_REFERENCE_TOO_NOISY, "noise or texture level above " + formatted(constants::MaxNoiseLevel));
            grey = Plane();

            Plane residuals[3];
            Plane weights[3];
            for (int c = 0; c < channels; ++c)
            {
                channelResidual(photo.planes[c], options.sigmaRef, residuals[c]);
                intensityWeights(photo.planes[c], weights[c]);
                photo.planes[c] = Plane(); // the decoded samples are no longer needed
            }
            {
                Plane combinedResidual;
                combinedResidual.reset(photo.width, photo.height);
                const float g[3] = {constants::GreyR, constants::GreyG, constants::GreyB};
                float* d = combinedResidual.data();
                for (size_t p = 0, n = combinedResidual.size(); p < n; ++p)
                    d[p] = channels == 3 ? g[0] * residuals[0].data()[p] + g[1] * residuals[1].data()[p] +
                                               g[2] * residuals[2].data()[p]
                                         : residuals[0].data()[p];
                report.residual = standardDeviationOf(combinedResidual);
            }
            if (channels == 1)
            {
                // A grey photo informs all three channel estimates alike.
                for (int c = 1; c < 3; ++c)
                {
                    residuals[c].reset(residuals[0].width(), residuals[0].height());
                    weights[c].reset(weights[0].width(), weights[0].height());
                    std::copy(residuals[0].data(), residuals[0].data() + residuals[0].size(), residuals[c].data());
                    std::copy(weights[0].data(), weights[0].data() + weights[0].size(), weights[c].data());
                }
            }

            if (portrait)
            {
                // Whichever turn agrees better with the estimate so far; the first
                // photo has nothing to agree with and is turned clockwise.
                Plane turned[2][3];
                Plane turnedWeights[2][3];
                for (int c = 0; c < 3; ++c)
                {
                    rotatePlane(residuals[c], 90, turned[0][c]);
                    rotatePlane(weights[c], 90, turnedWeights[0][c]);
                }
                int choice = 0;
                if (accumulator.count() > 0)
                {
                    for (int c = 0; c < 3; ++c)
                    {
                        rotatePlane(residuals[c], 270, turned[1][c]);
                        rotatePlane(weights[c], 270, turnedWeights[1][c]);
                    }
                    if (accumulator.agreement(turned[1], turnedWeights[1]) >
                        accumulator.agreement(turned[0], turnedWeights[0]))
                        choice = 1;
                }
                for (int c = 0; c < 3; ++c)
                {
                    std::swap(residuals[c], turned[choice][c]);
                    std::swap(weights[c], turnedWeights[choice][c]);
                }
                report.rotation = choice == 0 ? 90 : 270;
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

    appendReports(outcome.diagnostics, reports);
    appendWarnings(outcome.warnings, warnings);
    if (progress)
        progress(100, 0.0f, 0.0f);
    return outcome;
}

} // namespace lumicrest
