#include "fingerprint.h"

#include "constants.h"
#include "lumicrest.h"
#include "status.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <future>
#include <list>

namespace lumicrest
{

namespace
{

constexpr unsigned char Magic[4] = {'L', 'M', 'C', 'F'};
constexpr size_t MaxText = 4096;

class Writer
{
public:
    void u16(uint16_t v) { bytes(&v, 2); }
    void u32(uint32_t v) { bytes(&v, 4); }
    void i64(int64_t v) { bytes(&v, 8); }
    void f32(float v) { bytes(&v, 4); }
    void f64(double v) { bytes(&v, 8); }
    void text(const std::string& s)
    {
        // Cut at a character boundary, so the stored text stays valid UTF-8 and
        // a reader cutting at the same limit gets the same text.
        size_t n = std::min(s.size(), MaxText);
        if (n < s.size())
            while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80)
                --n;
        const std::string cut = s.substr(0, n);
        u16(static_cast<uint16_t>(cut.size()));
        m_out.insert(m_out.end(), cut.begin(), cut.end());
    }
    void bytes(const void* p, size_t n)
    {
        // The format is little-endian; so are the machines we build for.
        static_assert(sizeof(float) == 4 && sizeof(double) == 8, "IEEE types expected");
        const auto* b = static_cast<const unsigned char*>(p);
        m_out.insert(m_out.end(), b, b + n);
    }
    std::vector<unsigned char>& out() { return m_out; }

private:
    std::vector<unsigned char> m_out;
};

class Reader
{
public:
    Reader(const unsigned char* p, size_t n) : m_p(p), m_n(n) {}
    void bytes(void* dst, size_t n)
    {
        if (n > m_n - m_pos)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint bytes end too early");
        std::memcpy(dst, m_p + m_pos, n);
        m_pos += n;
    }
    uint16_t u16() { uint16_t v; bytes(&v, 2); return v; }
    uint32_t u32() { uint32_t v; bytes(&v, 4); return v; }
    int64_t i64() { int64_t v; bytes(&v, 8); return v; }
    float f32() { float v; bytes(&v, 4); return v; }
    double f64() { double v; bytes(&v, 8); return v; }
    std::string text()
    {
        const uint16_t n = u16();
        if (n > MaxText)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint text too long");
        std::string s(n, '\0');
        bytes(s.data(), n);
        return s;
    }
    size_t position() const { return m_pos; }

private:
    const unsigned char* m_p;
    size_t m_n;
    size_t m_pos = 0;
};

} // namespace

uint32_t crc32Of(const unsigned char* p, size_t n)
{
    uLong crc = crc32(0L, Z_NULL, 0);
    while (n > 0)
    {
        const uInt chunk = static_cast<uInt>(std::min<size_t>(n, 1u << 30));
        crc = crc32(crc, p, chunk);
        p += chunk;
        n -= chunk;
    }
    return static_cast<uint32_t>(crc);
}

namespace
{

// Caller-built structs carry only the bytes: parse them once and keep the result
// keyed by length, stored checksum and the header, so the usual pattern (one
// fingerprint, thousands of matches from many threads) parses once.
struct CacheKey
{
    const unsigned char* data;
    size_t size;
    uint32_t crc;
    std::vector<unsigned char> head;
    bool operator==(const CacheKey& o) const
    {
        return data == o.data && size == o.size && crc == o.crc && head == o.head;
    }
};

struct CacheEntry
{
    CacheKey key;
    std::shared_future<std::shared_ptr<LoadedFingerprint>> value;
};

std::mutex g_cacheMutex;
std::list<CacheEntry> g_cache; // most recent first
constexpr size_t CacheEntries = 4;

} // namespace

uint16_t floatToHalf(float value)
{
    uint32_t f;
    std::memcpy(&f, &value, 4);
    const uint32_t sign = (f >> 16) & 0x8000u;
    const int32_t exponent = static_cast<int32_t>((f >> 23) & 0xFF) - 127 + 15;
    uint32_t mantissa = f & 0x7FFFFFu;
    if (((f >> 23) & 0xFF) == 0xFF)
        return static_cast<uint16_t>(sign | 0x7C00u | (mantissa ? 0x200u : 0u));
    if (exponent >= 31)
        return static_cast<uint16_t>(sign | 0x7C00u);
    if (exponent <= 0)
    {
        if (exponent < -10)
            return static_cast<uint16_t>(sign);
        mantissa |= 0x800000u;
        const int shift = 14 - exponent;
        uint32_t half = mantissa >> shift;
        const uint32_t rest = mantissa & ((1u << shift) - 1u);
        const uint32_t halfway = 1u << (shift - 1);
        if (rest > halfway || (rest == halfway && (half & 1u)))
            ++half;
        return static_cast<uint16_t>(sign | half);
    }
    uint32_t half = (static_cast<uint32_t>(exponent) << 10) | (mantissa >> 13);
    const uint32_t rest = mantissa & 0x1FFFu;
    if (rest > 0x1000u || (rest == 0x1000u && (half & 1u)))
        ++half; // may carry into the exponent, which is the right rounding
    return static_cast<uint16_t>(sign | half);
}

float halfToFloat(uint16_t half)
{
    const uint32_t sign = (static_cast<uint32_t>(half) & 0x8000u) << 16;
    const uint32_t exponent = (half >> 10) & 0x1Fu;
    uint32_t mantissa = half & 0x3FFu;
    uint32_t f;
    if (exponent == 0)
    {
        if (mantissa == 0)
        {
            f = sign;
        }
        else
        {
            int e = -1;
            do
            {
                ++e;
                mantissa <<= 1;
            } while ((mantissa & 0x400u) == 0);
            f = sign | (static_cast<uint32_t>(127 - 15 - e) << 23) | ((mantissa & 0x3FFu) << 13);
        }
    }
    else if (exponent == 31)
    {
        f = sign | 0x7F800000u | (mantissa << 13);
    }
    else
    {
        f = sign | ((exponent + 127 - 15) << 23) | (mantissa << 13);
    }
    float out;
    std::memcpy(&out, &f, 4);
    return out;
}

std::vector<unsigned char> serializeFingerprint(const FingerprintData& fp)
{
    Writer w;
    w.bytes(Magic, 4);
    w.u32(FormatVersion);
    w.u32(static_cast<uint32_t>(fp.width));
    w.u32(static_cast<uint32_t>(fp.height));
    w.text(fp.make);
    w.text(fp.model);
    w.text(fp.lens);
    w.u32(static_cast<uint32_t>(fp.nmse.size()));
    for (double v : fp.nmse)
        w.f64(v);
    w.f32(fp.sigmaRef);
    w.f32(fp.sigmaMatch);
    w.i64(fp.created);

    // K is stored relative to its RMS so that 16-bit floats keep their full
    // relative precision whatever the camera's PRNU strength.
    const size_t n = fp.k.size();
    double energy = 0.0;
    for (size_t i = 0; i < n; ++i)
        energy += static_cast<double>(fp.k.data()[i]) * fp.k.data()[i];
    // A power of two, so scaling is exact and a parsed fingerprint writes the same bytes again.
    const float scale = n > 0 && energy > 0.0
                            ? std::ldexp(1.0f, static_cast<int>(std::lround(std::log2(std::sqrt(energy / static_cast<double>(n))))))
                            : 1.0f;
    w.f32(scale);
    std::vector<unsigned char>& out = w.out();
    const size_t kStart = out.size();
    out.resize(kStart + 2 * n + 4);
    unsigned char* dst = out.data() + kStart;
    const float inverse = 1.0f / scale;
    for (size_t i = 0; i < n; ++i)
    {
        const uint16_t h = floatToHalf(fp.k.data()[i] * inverse);
        dst[2 * i] = static_cast<unsigned char>(h & 0xFF);
        dst[2 * i + 1] = static_cast<unsigned char>(h >> 8);
    }
    const uint32_t crc = crc32Of(out.data(), out.size() - 4);
    std::memcpy(out.data() + out.size() - 4, &crc, 4);
    return out;
}

namespace
{

// The fields before K, read from r (which ends where the checksum starts);
// checks that what follows is exactly K. Returns K's stored scale.
float parseHeader(Reader& r, size_t size, FingerprintData& fp)
{
    unsigned char magic[4];
    r.bytes(magic, 4);
    if (std::memcmp(magic, Magic, 4) != 0)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "not a fingerprint (bad magic)");
    if (r.u32() != FormatVersion)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "unknown fingerprint format version");
    const uint32_t width = r.u32();
    const uint32_t height = r.u32();
    if (width == 0 || height == 0 || width > 1000000 || height > 1000000 ||
        static_cast<uint64_t>(width) * height > 400ULL * 1000 * 1000)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint size out of range");
    fp.width = static_cast<int>(width);
    fp.height = static_cast<int>(height);
    fp.make = r.text();
    fp.model = r.text();
    fp.lens = r.text();
    const uint32_t count = r.u32();
    if (count > 100000)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint photo count out of range");
    fp.nmse.resize(count);
    for (double& v : fp.nmse)
        v = r.f64();
    fp.sigmaRef = r.f32();
    fp.sigmaMatch = r.f32();
    fp.created = r.i64();
    const float scale = r.f32();
    // Only noise levels the options allow: an infinite or absurd one would
    // pass the checksum and then fail every match with a numeric error.
    const auto sigmaOk = [](float sigma) {
        return sigma >= constants::MinSigma0 && sigma <= constants::MaxSigma0;
    };
    if (!sigmaOk(fp.sigmaRef) || !sigmaOk(fp.sigmaMatch) || !std::isfinite(scale) || scale <= 0.0f)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint parameters out of range");
    const size_t pixels = static_cast<size_t>(width) * height;
    if (size - 4 - r.position() != 2 * pixels)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint length does not match its size");
    return scale;
}

} // namespace

FingerprintData parseFingerprintHeader(const unsigned char* head, size_t available, size_t size)
{
    if (!head || size < 4 + 4 + 4 || available > size - 4)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint bytes too short");
    Reader r(head, available);
    FingerprintData fp;
    parseHeader(r, size, fp);
    return fp;
}

FingerprintData parseFingerprint(const unsigned char* bytes, size_t size, bool decodeK)
{
    if (!bytes || size < 4 + 4 + 4)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint bytes too short");
    if (std::memcmp(bytes, Magic, 4) != 0)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "not a fingerprint (bad magic)");
    uint32_t stored;
    std::memcpy(&stored, bytes + size - 4, 4);
    if (crc32Of(bytes, size - 4) != stored)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint checksum mismatch");

    Reader r(bytes, size - 4);
    FingerprintData fp;
    const float scale = parseHeader(r, size, fp);
    const size_t pixels = static_cast<size_t>(fp.width) * static_cast<size_t>(fp.height);
    const unsigned char* src = bytes + r.position();
    // Without K the same values are checked, only not kept: metadata reading
    // then costs no plane.
    float* k = nullptr;
    if (decodeK)
    {
        fp.k.reset(fp.width, fp.height);
        k = fp.k.data();
    }
    // A table of all 65536 halves: the branchy conversion per pixel was most
    // of the time a fingerprint takes to load.
    static const std::vector<float> halves = []
    {
        std::vector<float> table(65536);
        for (uint32_t h = 0; h < 65536; ++h)
            table[h] = halfToFloat(static_cast<uint16_t>(h));
        return table;
    }();
    const float* table = halves.data();
    // Non-finite values are counted, not tested one by one, so the loop stays simple.
    size_t bad = 0;
    for (size_t i = 0; i < pixels; ++i)
    {
        const float v = table[src[2 * i] | (src[2 * i + 1] << 8)] * scale;
        bad += !std::isfinite(v);
        if (k)
            k[i] = v;
    }
    if (bad)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint holds a non-finite value");
    return fp;
}

void attachFingerprint(fingerprint_binary_s* fp, FingerprintData&& data)
{
    const std::vector<unsigned char> bytes = serializeFingerprint(data);
    if (bytes.size() > static_cast<size_t>(INT32_MAX))
        fail(LUMICREST_OUT_OF_MEMORY, "fingerprint larger than 2 GiB");
    auto* copy = static_cast<unsigned char*>(std::malloc(bytes.size()));
    if (!copy)
        fail(LUMICREST_OUT_OF_MEMORY, "no memory for the fingerprint bytes");
    std::memcpy(copy, bytes.data(), bytes.size());
    auto loaded = std::make_shared<LoadedFingerprint>();
    loaded->data = std::move(data);
    // What the engine matches against must equal what the bytes say, so the
    // object is rebuilt from the rounded 16-bit values.
    loaded->data.k = parseFingerprint(copy, bytes.size()).k;
    fp->data = copy;
    fp->size = static_cast<int32_t>(bytes.size());
    fp->priv = new std::shared_ptr<LoadedFingerprint>(std::move(loaded));
}

void detachFingerprint(fingerprint_binary_s* fp)
{
    delete static_cast<std::shared_ptr<LoadedFingerprint>*>(fp->priv);
    std::free(fp->data);
    fp->priv = nullptr;
    fp->data = nullptr;
    fp->size = 0;
}

std::shared_ptr<LoadedFingerprint> loadedFingerprint(const fingerprint_binary_s* fp)
{
    if (fp->priv)
        return *static_cast<std::shared_ptr<LoadedFingerprint>*>(fp->priv);
    if (!fp->data || fp->size <= 12)
        fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint bytes missing or too short");

    const size_t size = static_cast<size_t>(fp->size);
    CacheKey key{fp->data, size, 0, {}};
    std::memcpy(&key.crc, fp->data + size - 4, 4);
    key.head.assign(fp->data, fp->data + std::min<size_t>(size, 256));

    std::promise<std::shared_ptr<LoadedFingerprint>> promise;
    std::shared_future<std::shared_ptr<LoadedFingerprint>> pending;
    {
        std::lock_guard<std::mutex> lock(g_cacheMutex);
        for (auto it = g_cache.begin(); it != g_cache.end(); ++it)
        {
            if (it->key == key)
            {
                g_cache.splice(g_cache.begin(), g_cache, it);
                pending = g_cache.front().value;
                break;
            }
        }
        if (!pending.valid())
        {
            g_cache.push_front(CacheEntry{key, promise.get_future().share()});
            if (g_cache.size() > CacheEntries)
                g_cache.pop_back();
        }
    }
    if (pending.valid())
    {
        // The checksum is verified on every call, not only when parsing: bytes
        // damaged in memory after the first match must not go unnoticed. A
        // call that parses has it verified by the parse.
        if (crc32Of(fp->data, size - 4) != key.crc)
            fail(LUMICREST_FINGERPRINT_CANNOT_READ, "fingerprint checksum mismatch");
        return pending.get(); // waits for a parse in progress; rethrows its failure
    }
    try
    {
        auto loaded = std::make_shared<LoadedFingerprint>();
        loaded->data = parseFingerprint(fp->data, size);
        promise.set_value(loaded);
        return loaded;
    }
    catch (...)
    {
        promise.set_exception(std::current_exception());
        // A failed parse is not kept: the caller may fix the bytes in place.
        std::lock_guard<std::mutex> lock(g_cacheMutex);
        g_cache.remove_if([&](const CacheEntry& e) { return e.key == key; });
        throw;
    }
}

} // namespace lumicrest
