#include "identify.h"

#include "budget.h"
#include "constants.h"
#include "fingerprintfile.h"
#include "imageio.h"
#include "lumicrest.h"
#include "lumicrest_identify.h"
#include "pixelops.h"
#include "residual.h"
#include "scale.h"
#include "status.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace lumicrest
{

namespace
{

constexpr unsigned char DigestMagic[4] = {'L', 'M', 'C', 'D'};
constexpr uint32_t DigestVersion = 1;
constexpr size_t DigestHeaderBytes = 4 + 5 * 4; // magic, version, checksum, width, height, k

void put32(std::vector<unsigned char>& out, uint32_t v)
{
    const auto* b = reinterpret_cast<const unsigned char*>(&v); // little-endian, as the fingerprint bytes
    out.insert(out.end(), b, b + 4);
}

uint32_t get32(const unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

void digestSums(Digest& d)
{
    double sum = 0.0;
    for (float v : d.values)
        sum += v;
    const double mean = d.values.empty() ? 0.0 : sum / static_cast<double>(d.values.size());
    double variance = 0.0;
    for (float v : d.values)
        variance += (v - mean) * (v - mean);
    d.valueSum = sum;
    d.valueVariance = variance;
}

} // namespace

size_t digestSize(size_t pixels)
{
    const double wanted = std::round(static_cast<double>(pixels) * constants::DigestFraction);
    const double bounded = std::clamp(wanted, static_cast<double>(constants::DigestMinElements),
                                      static_cast<double>(constants::DigestMaxElements));
    return std::min(pixels, static_cast<size_t>(bounded));
}

Digest makeDigest(const Plane& k)
{
    const size_t n = k.size();
    const size_t count = digestSize(n);
    Digest d;
    if (count == 0)
        return d;
    // The count-th largest |K| splits the plane; ties at it are taken in
    // position order, so the digest does not depend on the selection's order.
    std::vector<float> magnitudes(n);
    const float* values = k.data();
    for (size_t i = 0; i < n; ++i)
        magnitudes[i] = std::fabs(values[i]);
    std::nth_element(magnitudes.begin(), magnitudes.begin() + static_cast<std::ptrdiff_t>(count - 1),
                     magnitudes.end(), std::greater<float>());
    const float split = magnitudes[count - 1];
    size_t above = 0;
    for (size_t i = 0; i < n; ++i)
        above += std::fabs(values[i]) > split;
    magnitudes = std::vector<float>();
    size_t tiesLeft = count - above;
    d.positions.reserve(count);
    d.values.reserve(count);
    for (size_t i = 0; i < n; ++i)
    {
        const float m = std::fabs(values[i]);
        if (m > split || (m == split && tiesLeft > 0))
        {
            if (m == split)
                --tiesLeft;
            d.positions.push_back(static_cast<uint32_t>(i));
            d.values.push_back(values[i]);
        }
    }
    digestSums(d);
    return d;
}

double digestZ(const Digest& d, const Plane& x)
{
    const size_t count = d.positions.size();
    if (count < 2 || x.size() == 0)
        return 0.0;
    const float* px = x.data();
    const uint32_t* positions = d.positions.data();
    const float* values = d.values.data();
    double sx = 0.0, sxx = 0.0, sxv = 0.0;
    for (size_t i = 0; i < count; ++i)
    {
        const double v = px[positions[i]];
        sx += v;
        sxx += v * v;
        sxv += v * values[i];
    }
    const double k = static_cast<double>(count);
    const double cov = sxv - sx * d.valueSum / k;
    const double varX = sxx - sx * sx / k;
    if (!(varX > 0.0) || !(d.valueVariance > 0.0))
        return 0.0;
    return cov / std::sqrt(varX * d.valueVariance) * std::sqrt(k);
}

bool readDigest(const std::string& path, uint32_t fingerprintCrc, int width, int height, Digest& out)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(std::filesystem::u8path(path), error))
        return false;
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    const size_t count = digestSize(pixels);
    const size_t expected = DigestHeaderBytes + 8 * count + 4;
    std::ifstream in(std::filesystem::u8path(path), std::ios::binary | std::ios::ate);
    if (!in || in.tellg() != static_cast<std::streamoff>(expected))
        return false;
    std::vector<unsigned char> bytes(expected);
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(expected)))
        return false;
    const unsigned char* p = bytes.data();
    if (std::memcmp(p, DigestMagic, 4) != 0 || get32(p + 4) != DigestVersion ||
        get32(p + 8) != fingerprintCrc || get32(p + 12) != static_cast<uint32_t>(width) ||
        get32(p + 16) != static_cast<uint32_t>(height) || get32(p + 20) != count ||
        get32(p + expected - 4) != crc32Of(p, expected - 4))
        return false;
    Digest d;
    d.positions.resize(count);
    d.values.resize(count);
    std::memcpy(d.positions.data(), p + DigestHeaderBytes, 4 * count);
    std::memcpy(d.values.data(), p + DigestHeaderBytes + 4 * count, 4 * count);
    // The checksum only says the file is as written: the values must still be usable.
    for (size_t i = 0; i < count; ++i)
        if (d.positions[i] >= pixels || (i > 0 && d.positions[i] <= d.positions[i - 1]) ||
            !std::isfinite(d.values[i]))
            return false;
    digestSums(d);
    out = std::move(d);
    return true;
}

bool writeDigest(const std::string& path, uint32_t fingerprintCrc, int width, int height,
                 const Digest& digest)
{
    std::vector<unsigned char> bytes(DigestMagic, DigestMagic + 4);
    put32(bytes, DigestVersion);
    put32(bytes, fingerprintCrc);
    put32(bytes, static_cast<uint32_t>(width));
    put32(bytes, static_cast<uint32_t>(height));
    put32(bytes, static_cast<uint32_t>(digest.positions.size()));
    for (uint32_t position : digest.positions)
        put32(bytes, position);
    for (float value : digest.values)
    {
        uint32_t v;
        std::memcpy(&v, &value, 4);
        put32(bytes, v);
    }
    put32(bytes, crc32Of(bytes.data(), bytes.size()));

    const std::filesystem::path target = std::filesystem::u8path(path);
    const std::filesystem::path temporary = std::filesystem::u8path(path + ".part");
    std::error_code error;
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out)
            return false;
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out)
        {
            std::filesystem::remove(temporary, error);
            return false;
        }
    }
    std::filesystem::rename(temporary, target, error);
    if (error)
    {
        std::filesystem::remove(temporary, error);
        return false;
    }
    return true;
}

// --- The cache of loaded fingerprints ---

struct FingerprintCache::Slot
{
    size_t index = 0;
    std::promise<std::shared_ptr<LoadedFingerprint>> promise;
    std::shared_future<std::shared_ptr<LoadedFingerprint>> value;
    uint64_t bytes = 0; // 0 while loading
};

FingerprintCache::~FingerprintCache()
{
    MemoryBudget::instance().discharge(m_held);
}

std::shared_ptr<FingerprintCache::Slot>
FingerprintCache::claim(size_t index, bool& mine,
                        std::shared_future<std::shared_ptr<LoadedFingerprint>>& value)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_slots.begin(); it != m_slots.end(); ++it)
        if ((*it)->index == index)
        {
            m_slots.splice(m_slots.begin(), m_slots, it);
            mine = false;
            value = m_slots.front()->value;
            return m_slots.front();
        }
    auto slot = std::make_shared<Slot>();
    slot->index = index;
    slot->value = slot->promise.get_future().share();
    value = slot->value;
    m_slots.push_front(slot);
    mine = true;
    return slot;
}

void FingerprintCache::loaded(const std::shared_ptr<Slot>& slot,
                              std::shared_ptr<LoadedFingerprint> fingerprint)
{
    const uint64_t bytes = fingerprint->data.k.size() * sizeof(float) +
                           static_cast<uint64_t>(fingerprint->kSpectrum.columns()) *
                               fingerprint->kSpectrum.height() * sizeof(std::complex<float>);
    slot->promise.set_value(std::move(fingerprint));
    std::vector<std::shared_ptr<Slot>> evicted; // released outside the lock
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        slot->bytes = bytes;
        m_held += bytes;
        MemoryBudget::instance().charge(bytes);
        for (auto it = m_slots.end(); m_held > m_capacity && it != m_slots.begin();)
        {
            --it;
            if ((*it)->bytes == 0)
                continue; // still loading: its loader accounts for it
            m_held -= (*it)->bytes;
            MemoryBudget::instance().discharge((*it)->bytes);
            evicted.push_back(*it);
            it = m_slots.erase(it);
        }
    }
}

void FingerprintCache::failed(const std::shared_ptr<Slot>& slot, std::exception_ptr error)
{
    slot->promise.set_exception(error);
    // Not kept: the file may be mended, and the next identification tries again.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_slots.remove(slot);
}

// --- Opening ---

namespace
{

std::shared_ptr<LoadedFingerprint> loadFingerprint(const LibraryEntry& entry)
{
    auto loaded = std::make_shared<LoadedFingerprint>();
    {
        const FileBytes file = readWholeFile(entry.path);
        const auto bytes = fingerprintBytesIn(file);
        if (bytes.second < 4 || get32(bytes.first + bytes.second - 4) != entry.crc)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint file changed since the library was opened");
        loaded->data = parseFingerprint(bytes.first, bytes.second);
    }
    prepareKSpectrum(*loaded);
    return loaded;
}

void openEntry(LibraryEntry& entry, int flags)
{
    const FingerprintHead head = readFingerprintHead(entry.path);
    entry.width = head.header.width;
    entry.height = head.header.height;
    entry.sigma = head.header.sigmaMatch;
    entry.crc = head.storedCrc;
    const std::string digestPath = entry.path + ".digest";
    if (readDigest(digestPath, entry.crc, entry.width, entry.height, entry.digest))
    {
        entry.digestState = "read";
        return;
    }
    // No usable digest: made from the whole fingerprint, which is verified on the way.
    const std::shared_ptr<LoadedFingerprint> loaded = [&]
    {
        auto fp = std::make_shared<LoadedFingerprint>();
        const FileBytes file = readWholeFile(entry.path);
        const auto bytes = fingerprintBytesIn(file);
        fp->data = parseFingerprint(bytes.first, bytes.second);
        entry.crc = get32(bytes.first + bytes.second - 4);
        return fp;
    }();
    entry.width = loaded->data.width;
    entry.height = loaded->data.height;
    entry.sigma = loaded->data.sigmaMatch;
    entry.digest = makeDigest(loaded->data.k);
    entry.digestState = "made";
    if ((flags & LUMICREST_LIBRARY_WRITE_DIGESTS) &&
        writeDigest(digestPath, entry.crc, entry.width, entry.height, entry.digest))
        entry.digestState = "written";
}

} // namespace

std::unique_ptr<Library> openLibrary(const std::vector<std::string>& paths, int flags)
{
    auto library = std::make_unique<Library>();
    library->digestPass = !(flags & LUMICREST_LIBRARY_NO_DIGEST_PASS);
    library->cache = std::make_unique<FingerprintCache>(MemoryBudget::instance().capacity() /
                                                        constants::LibraryCacheShareDivisor);
    library->entries.resize(paths.size());
    for (size_t i = 0; i < paths.size(); ++i)
    {
        LibraryEntry& entry = library->entries[i];
        entry.path = paths[i];
        try
        {
            openEntry(entry, flags);
        }
        catch (const Failure& failure)
        {
            entry = LibraryEntry();
            entry.path = paths[i];
            entry.status = failure.code();
        }
    }
    return library;
}

std::string libraryJson(const Library& library)
{
    JsonWriter json;
    json.beginObject().key("fingerprints").beginArray();
    for (size_t i = 0; i < library.entries.size(); ++i)
    {
        const LibraryEntry& e = library.entries[i];
        json.beginObject().key("index").integer(static_cast<long long>(i));
        json.key("width").integer(e.width).key("height").integer(e.height).key("status").integer(e.status);
        json.key("digest").string(e.digestState).endObject();
    }
    json.endArray().endObject();
    return json.text();
}

// --- Identification ---

namespace
{

void copyPlane(const Plane& from, Plane& to)
{
    to.reset(from.width(), from.height());
    std::copy(from.data(), from.data() + from.size(), to.data());
}

// The photo made ready for the fingerprints of one noise level, each piece on
// first need.
struct PreparedResidual
{
    float sigma = 0.0f;
    Plane weights;
    Plane x; // zero-mean residual, neither weighted nor filtered

    // Same-size fingerprints: the Wiener-filtered weighted residual, its
    // spectrum and sums upright, and the residual turned onto K's grid.
    bool sameReady = false;
    Spectrum upright;
    double sum = 0.0;
    double squares = 0.0;
    Plane turned[4]; // [r / 90]; [0] is the upright one
    bool turnedReady[4] = {false, false, false, false};
    Spectrum turnedSpectrum[4]; // [0] unused: the upright spectrum serves
    bool spectrumReady[4] = {false, false, false, false};

    // Other fingerprints: the residual filtered, then weighted.
    bool cropReady = false;
    Plane filtered;
};

enum class Fit
{
    None,
    SameSize,
    Other
};

Fit fitOf(int photoW, int photoH, const LibraryEntry& e, ScaleSearch search, int exif, int* turns,
          int& turnCount)
{
    turnCount = candidateOrientations(photoW, photoH, e.width, e.height, exif, turns);
    if ((photoW == e.width && photoH == e.height) || (photoW == e.height && photoH == e.width))
        return Fit::SameSize; // every turn that fits is then a same-size one
    ImpliedSize implied[2];
    if (turnCount > 0 ||
        (search != ScaleSearch::Off && impliedSizes(photoW, photoH, e.width, e.height, exif, implied) > 0))
        return Fit::Other;
    return Fit::None;
}

void prepareSame(PreparedResidual& p)
{
    if (p.sameReady)
        return;
    Plane weighted;
    copyPlane(p.x, weighted);
    applyWeights(weighted, p.weights);
    wienerSpectrum(weighted, p.upright);
    spectrumMoments(p.upright, p.sum, p.squares);
    inverseFft(p.upright, p.turned[0]);
    const float scale = static_cast<float>(1.0 / static_cast<double>(p.turned[0].size()));
    float* v = p.turned[0].data();
    for (size_t i = 0, n = p.turned[0].size(); i < n; ++i)
        v[i] *= scale;
    p.turnedReady[0] = true;
    p.sameReady = true;
}

// The filtered residual turned by r onto K's grid.
const Plane& turnedResidual(PreparedResidual& p, int r)
{
    prepareSame(p);
    const int t = r / 90;
    if (!p.turnedReady[t])
    {
        rotatePlane(p.turned[0], r, p.turned[t]);
        p.turnedReady[t] = true;
    }
    return p.turned[t];
}

const Spectrum& turnedSpectrum(PreparedResidual& p, int r)
{
    prepareSame(p);
    const int t = r / 90;
    if (t == 0)
        return p.upright;
    if (!p.spectrumReady[t])
    {
        forwardFft(turnedResidual(p, r), p.turnedSpectrum[t]);
        p.spectrumReady[t] = true;
    }
    return p.turnedSpectrum[t];
}

const Plane& cropResidual(PreparedResidual& p)
{
    if (!p.cropReady)
    {
        copyPlane(p.x, p.filtered);
        wienerInDft(p.filtered);
        applyWeights(p.filtered, p.weights);
        p.cropReady = true;
    }
    return p.filtered;
}

} // namespace

void identifyPhoto(const Library& library, const std::string& path, Identification& out)
{
    out = Identification();
    const size_t count = library.entries.size();
    out.digestZ.assign(count, std::nan(""));
    const ScaleSearch search = scaleSearchFromEnvironment();

    // The size from the header first: a photo that fits no fingerprint is
    // answered without decoding it.
    int photoWidth = 0;
    int photoHeight = 0;
    readPhotoSize(path, photoWidth, photoHeight);
    int turns[4];
    int turnCount = 0;
    uint64_t largestOther = 0;
    bool anyFit = false;
    bool anyImplied = false;
    for (const LibraryEntry& e : library.entries)
    {
        if (e.status != LUMICREST_OK)
            continue;
        const Fit fit = fitOf(photoWidth, photoHeight, e, search, 1, turns, turnCount);
        anyFit = anyFit || fit != Fit::None;
        if (fit == Fit::Other)
        {
            largestOther = std::max<uint64_t>(largestOther, static_cast<uint64_t>(e.width) * e.height);
            ImpliedSize implied[2];
            anyImplied =
                anyImplied || (search != ScaleSearch::Off &&
                               impliedSizes(photoWidth, photoHeight, e.width, e.height, 1, implied) > 0);
        }
    }
    if (!anyFit)
    {
        out.reason = "size";
        return;
    }

    // Room in the process-wide budget before the large allocations: the
    // prepared photo, and a match's working memory for crops and resized photos.
    const uint64_t photoPixels = static_cast<uint64_t>(photoWidth) * static_cast<uint64_t>(photoHeight);
    uint64_t leased = constants::IdentifyBytesPerPixel * photoPixels;
    if (largestOther > 0)
    {
        leased += constants::MatchBytesPerPixel * std::max(largestOther, photoPixels);
        if (anyImplied)
            leased += 2 * constants::ScaledBytesPerPixel * photoPixels;
        else if (search == ScaleSearch::Full)
            leased += constants::ScaleSearchBytesPerPixel * largestOther;
    }
    const MemoryBudget::Lease lease(MemoryBudget::instance(), leased);
    Photo photo = readPhoto(path);
    const int exif = photo.info.orientation;
    std::vector<Fit> fits(count, Fit::None);
    std::vector<std::vector<int>> turnsOf(count);
    for (size_t i = 0; i < count; ++i)
    {
        const LibraryEntry& e = library.entries[i];
        if (e.status != LUMICREST_OK)
            continue;
        fits[i] = fitOf(photo.width, photo.height, e, search, exif, turns, turnCount);
        turnsOf[i].assign(turns, turns + turnCount);
    }
    if (std::all_of(fits.begin(), fits.end(), [](Fit f) { return f == Fit::None; }))
    {
        out.reason = "size";
        return;
    }
    // Decoded first, so a damaged small photo is reported as damaged.
    if (std::min(photo.width, photo.height) < constants::MinMatchSide)
    {
        out.reason = "too small";
        return;
    }

    Plane grey;
    photoGrey(photo, grey);
    std::vector<std::unique_ptr<PreparedResidual>> prepared; // one per noise level, usually one
    const auto residualFor = [&](float sigma) -> PreparedResidual&
    {
        for (auto& p : prepared)
            if (p->sigma == sigma)
                return *p;
        prepared.push_back(std::make_unique<PreparedResidual>());
        PreparedResidual& p = *prepared.back();
        p.sigma = sigma;
        photoResidual(grey, sigma, p.weights, p.x);
        return p;
    };

    // The digest pass: each same-size fingerprint in each of its turns; the
    // turns that reach the margin (all without the pass) get the full PCE.
    std::vector<std::vector<int>> fullTurns(count);
    for (size_t i = 0; i < count; ++i)
    {
        if (fits[i] != Fit::SameSize)
            continue;
        const LibraryEntry& e = library.entries[i];
        PreparedResidual& p = residualFor(e.sigma);
        out.positions += static_cast<long long>(turnsOf[i].size());
        for (int r : turnsOf[i])
        {
            if (!library.digestPass)
            {
                fullTurns[i].push_back(r);
                continue;
            }
            const double z = digestZ(e.digest, turnedResidual(p, r));
            if (std::isnan(out.digestZ[i]) || z > out.digestZ[i])
                out.digestZ[i] = z;
            if (z >= constants::DigestMargin)
                fullTurns[i].push_back(r);
        }
    }

    std::vector<IdentifiedFingerprint> tried;
    Spectrum scratch;
    for (size_t i = 0; i < count; ++i)
    {
        if (fits[i] == Fit::None || (fits[i] == Fit::SameSize && fullTurns[i].empty()))
            continue;
        const LibraryEntry& e = library.entries[i];
        std::shared_ptr<LoadedFingerprint> fingerprint;
        try
        {
            fingerprint = library.cache->get(i, [&e] { return loadFingerprint(e); });
        }
        catch (const Failure&)
        {
            out.failed.push_back(i);
            continue;
        }
        PreparedResidual& p = residualFor(e.sigma);
        IdentifiedFingerprint found;
        found.index = i;
        MatchResult& r = found.result;
        if (fits[i] == Fit::SameSize)
        {
            bool first = true;
            for (int turn : fullTurns[i])
            {
                double corr = 0.0;
                const Peak peak = sameSizePeak(*fingerprint, turnedSpectrum(p, turn), fingerprint->kSpectrum,
                                               p.sum, p.squares, scratch, corr);
                if (first || peak.pce > r.pceRaw)
                {
                    first = false;
                    r.pceRaw = peak.pce;
                    r.corr = corr;
                    r.orientation = turn;
                }
            }
        }
        else
        {
            matchCropOrScaled(*fingerprint, cropResidual(p), exif, search, r);
            out.positions += r.positions;
        }
        tried.push_back(found);
    }

    // Every position examined raises the chance of a chance peak: each PCE is
    // held to the false-alarm level of one comparison.
    const double correction =
        std::max(0.0, 2.0 * std::log(static_cast<double>(std::max<long long>(out.positions, 1)) / 2.0));
    for (IdentifiedFingerprint& t : tried)
    {
        MatchResult& r = t.result;
        r.positions = out.positions;
        r.pce = r.pceRaw - correction;
        r.matched = r.pce >= constants::MatchThresholdPce;
        r.probability = probabilityForPce(r.pce);
        if (!out.hasBest || r.pce > out.best.result.pce)
        {
            out.hasBest = true;
            out.best = t;
        }
        if (r.matched)
            out.matches.push_back(t);
    }
    std::stable_sort(out.matches.begin(), out.matches.end(),
                     [](const IdentifiedFingerprint& a, const IdentifiedFingerprint& b)
                     { return a.result.pce > b.result.pce; });
    out.tried = static_cast<int>(tried.size());
    int compatible = 0;
    for (Fit f : fits)
        compatible += f != Fit::None;
    out.compared = compatible - static_cast<int>(out.failed.size());
}

namespace
{

void writeFound(JsonWriter& json, const IdentifiedFingerprint& f)
{
    const MatchResult& r = f.result;
    json.beginObject().key("index").integer(static_cast<long long>(f.index));
    json.key("sensor_matched").integer(r.matched ? 1 : 0).key("probability").number(r.probability);
    json.key("corr").number(r.corr).key("pce").number(r.pce).key("pce_raw").number(r.pceRaw);
    json.key("scale").number(r.scale).key("orientation").integer(r.orientation);
    json.key("shift").beginArray().integer(r.shiftX).integer(r.shiftY).endArray();
    json.endObject();
}

} // namespace

std::string identificationJson(const Identification& id)
{
    JsonWriter json;
    json.beginObject();
    json.key("compared")
        .integer(id.compared)
        .key("tried")
        .integer(id.tried)
        .key("positions")
        .integer(id.positions);
    json.key("reason").string(id.reason);
    json.key("matches").beginArray();
    for (const IdentifiedFingerprint& m : id.matches)
        writeFound(json, m);
    json.endArray().key("best");
    if (id.hasBest)
        writeFound(json, id.best);
    else
        json.null();
    json.key("failed").beginArray();
    for (size_t i : id.failed)
        json.integer(static_cast<long long>(i));
    json.endArray().endObject();
    return json.text();
}

} // namespace lumicrest
