#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace camsim
{

// Our own generator and Gaussian, so a seed gives the same photo with any
// standard library (the std distributions are implementation-defined).

inline uint64_t splitmix64(uint64_t& state)
{
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

// Order-dependent combination of two seeds into a well-mixed third.
inline uint64_t combineSeeds(uint64_t a, uint64_t b)
{
    uint64_t state = a;
    state = splitmix64(state) ^ b;
    return splitmix64(state);
}

// FNV-1a: a stable seed from a text (make and model).
inline uint64_t hashText(std::string_view text)
{
    uint64_t h = 0xcbf29ce484222325ULL;
    for (const char c : text)
    {
        h ^= static_cast<unsigned char>(c);
        h *= 0x100000001b3ULL;
    }
    return h;
}

// xoshiro256** seeded through splitmix64.
class Random
{
public:
    explicit Random(uint64_t seed)
    {
        uint64_t state = seed;
        for (uint64_t& word : m_s)
            word = splitmix64(state);
    }

    uint64_t next()
    {
        const uint64_t result = rotl(m_s[1] * 5, 7) * 9;
        const uint64_t t = m_s[1] << 17;
        m_s[2] ^= m_s[0];
        m_s[3] ^= m_s[1];
        m_s[1] ^= m_s[2];
        m_s[0] ^= m_s[3];
        m_s[2] ^= t;
        m_s[3] = rotl(m_s[3], 45);
        return result;
    }

    // Uniform in [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    // Uniform integer in [0, n), n > 0.
    int below(int n) { return static_cast<int>(uniform() * n); }

    // Standard normal (Marsaglia polar method; the second value is kept).
    double gaussian()
    {
        if (m_hasSpare)
        {
            m_hasSpare = false;
            return m_spare;
        }
        double u, v, s;
        do
        {
            u = 2.0 * uniform() - 1.0;
            v = 2.0 * uniform() - 1.0;
            s = u * u + v * v;
        } while (s >= 1.0 || s == 0.0);
        const double f = std::sqrt(-2.0 * std::log(s) / s);
        m_spare = v * f;
        m_hasSpare = true;
        return u * f;
    }

    void fillGaussian(float* out, size_t count, double sigma)
    {
        for (size_t i = 0; i < count; ++i)
            out[i] = static_cast<float>(sigma * gaussian());
    }

private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

    uint64_t m_s[4];
    double m_spare = 0.0;
    bool m_hasSpare = false;
};

} // namespace camsim
