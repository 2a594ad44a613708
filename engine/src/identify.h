#pragma once

#include "fingerprint.h"
#include "match.h"

#include <cstdint>
#include <exception>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace lumicrest
{

// The strongest elements of a fingerprint: positions (ascending, row-major)
// and K's values there.
struct Digest
{
    std::vector<uint32_t> positions;
    std::vector<float> values;
    double valueSum = 0.0;      // sum of the values
    double valueVariance = 0.0; // sum of squared deviations from their mean
};

// Elements a digest of a fingerprint of this many pixels holds.
size_t digestSize(size_t pixels);
Digest makeDigest(const Plane& k);
// z = rho * sqrt(k) of the digest with x sampled at its positions (x in K's
// frame, of K's size): about N(0, 1) for an unrelated camera.
double digestZ(const Digest& digest, const Plane& x);

// The digest file beside a fingerprint: false (and nothing read) unless it
// is a regular file in our format belonging to this checksum and size.
bool readDigest(const std::string& path, uint32_t fingerprintCrc, int width, int height, Digest& out);
// Written through "<path>.part" and a rename; false on any failure.
bool writeDigest(const std::string& path, uint32_t fingerprintCrc, int width, int height,
                 const Digest& digest);

// Loaded fingerprints (K with its spectrum), most recent first, within a byte
// cap charged to the memory budget. Only the bookkeeping is locked: a load
// runs outside the lock, and callers wanting the same fingerprint wait for it.
class FingerprintCache
{
public:
    explicit FingerprintCache(uint64_t capacity) : m_capacity(capacity) {}
    ~FingerprintCache();
    FingerprintCache(const FingerprintCache&) = delete;
    FingerprintCache& operator=(const FingerprintCache&) = delete;

    template <class Load> std::shared_ptr<LoadedFingerprint> get(size_t index, Load&& load);

private:
    struct Slot;
    // The slot of index, made (mine) when there is none; `value` is the
    // caller's own copy of its future, as each waiting thread needs one.
    std::shared_ptr<Slot> claim(size_t index, bool& mine,
                                std::shared_future<std::shared_ptr<LoadedFingerprint>>& value);
    void loaded(const std::shared_ptr<Slot>& slot, std::shared_ptr<LoadedFingerprint> fingerprint);
    void failed(const std::shared_ptr<Slot>& slot, std::exception_ptr error);

    std::mutex m_mutex;
    std::list<std::shared_ptr<Slot>> m_slots;
    uint64_t m_held = 0;
    uint64_t m_capacity;
};

template <class Load> std::shared_ptr<LoadedFingerprint> FingerprintCache::get(size_t index, Load&& load)
{
    bool mine = false;
    std::shared_future<std::shared_ptr<LoadedFingerprint>> value;
    const std::shared_ptr<Slot> slot = claim(index, mine, value);
    if (!mine)
        return value.get(); // rethrows a failed load
    try
    {
        std::shared_ptr<LoadedFingerprint> fingerprint = load();
        loaded(slot, fingerprint);
        return fingerprint;
    }
    catch (...)
    {
        failed(slot, std::current_exception());
        throw;
    }
}

struct LibraryEntry
{
    std::string path;
    int status = 200;
    int width = 0;
    int height = 0;
    float sigma = 3.0f;
    uint32_t crc = 0; // the fingerprint bytes' stored checksum
    Digest digest;
    std::string digestState; // "read", "made" or "written"
};

struct Library
{
    std::vector<LibraryEntry> entries;
    bool digestPass = true;
    std::unique_ptr<FingerprintCache> cache;
};

// Opens the files; per-file failures are kept in their entries.
std::unique_ptr<Library> openLibrary(const std::vector<std::string>& paths, int flags);
std::string libraryJson(const Library& library);

struct IdentifiedFingerprint
{
    size_t index = 0;
    MatchResult result; // pce corrected for every position of the identification
};

struct Identification
{
    int compared = 0;
    int tried = 0;
    long long positions = 0;
    std::string reason;
    std::vector<IdentifiedFingerprint> matches; // strongest first
    bool hasBest = false;
    IdentifiedFingerprint best;
    std::vector<size_t> failed;  // found damaged when loaded: left out
    std::vector<double> digestZ; // per entry, the highest over its turns; NaN when no digest pass ran
};

// Throws Failure for a photo that cannot be read.
void identifyPhoto(const Library& library, const std::string& path, Identification& out);
std::string identificationJson(const Identification& identification);

} // namespace lumicrest
