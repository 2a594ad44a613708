// The fingerprint bytes, the probability ladder, options and text conversion.
#include "fingerprint.h"
#include "lumicrest.h"
#include "match.h"
#include "options.h"
#include "status.h"
#include "text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

using namespace lumicrest;

namespace
{

FingerprintData sampleFingerprint(int w, int h, unsigned seed)
{
    FingerprintData fp;
    fp.width = w;
    fp.height = h;
    fp.make = "Veltrano";
    fp.model = "QX-1 \"pro\"";
    fp.lens = "28mm";
    fp.nmse = {1.0, 0.4, 0.21};
    fp.sigmaRef = 3.0f;
    fp.sigmaMatch = 2.5f;
    fp.created = 1700000000;
    fp.k.reset(w, h);
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 0.01f);
    for (size_t i = 0; i < fp.k.size(); ++i)
        fp.k.data()[i] = normal(rng);
    return fp;
}

int32_t parseCode(const std::vector<unsigned char>& bytes)
{
    try
    {
        parseFingerprint(bytes.data(), bytes.size());
        return LUMICREST_OK;
    }
    catch (const Failure& f)
    {
        return f.code();
    }
}

} // namespace

TEST(HalfFloat, RoundTripAndRounding)
{
    // Every half value survives half -> float -> half.
    for (uint32_t h = 0; h < 0x10000; ++h)
    {
        const uint16_t half = static_cast<uint16_t>(h);
        const float f = halfToFloat(half);
        if (std::isnan(f))
            continue;
        ASSERT_EQ(floatToHalf(f), half) << h;
    }
    EXPECT_EQ(halfToFloat(floatToHalf(1.0f)), 1.0f);
    EXPECT_EQ(halfToFloat(floatToHalf(-2.5f)), -2.5f);
    EXPECT_EQ(halfToFloat(floatToHalf(1e6f)), INFINITY) << "overflow saturates to infinity";
    EXPECT_EQ(halfToFloat(floatToHalf(1e-9f)), 0.0f) << "underflow to zero";
    // Round to nearest even between 1 and the next half (1 + 2^-10).
    EXPECT_EQ(floatToHalf(1.0f + std::ldexp(1.0f, -11)), floatToHalf(1.0f));
    EXPECT_EQ(floatToHalf(1.0f + 3 * std::ldexp(1.0f, -11)), floatToHalf(1.0f + std::ldexp(1.0f, -9)));
    // Relative error of normal values stays within half a unit in the last place.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-8.0f, 8.0f);
    for (int i = 0; i < 10000; ++i)
    {
        const float v = u(rng);
        if (std::fabs(v) < 1e-4f)
            continue;
        EXPECT_LE(std::fabs(halfToFloat(floatToHalf(v)) - v), std::fabs(v) * std::ldexp(1.0f, -11) * 1.0001f);
    }
}

TEST(FingerprintBytes, RoundTripKeepsEveryField)
{
    const FingerprintData fp = sampleFingerprint(37, 23, 1);
    const std::vector<unsigned char> bytes = serializeFingerprint(fp);
    EXPECT_EQ(bytes.size(), 4 + 4 + 8 + (2 + 8) + (2 + 10) + (2 + 4) + 4 + 3 * 8 + 4 + 4 + 8 + 4 + 2 * 37 * 23 + 4u);
    EXPECT_EQ(std::memcmp(bytes.data(), "LMCF", 4), 0);
    const FingerprintData back = parseFingerprint(bytes.data(), bytes.size());
    const auto fields = [](const FingerprintData& f) {
        return std::tie(f.width, f.height, f.make, f.model, f.lens, f.nmse, f.sigmaRef, f.sigmaMatch, f.created);
    };
    EXPECT_EQ(fields(back), fields(fp));
    double err = 0.0;
    double energy = 0.0;
    for (size_t i = 0; i < fp.k.size(); ++i)
    {
        err += std::pow(back.k.data()[i] - fp.k.data()[i], 2);
        energy += std::pow(fp.k.data()[i], 2);
    }
    EXPECT_LT(err / energy, 1e-6) << "16-bit storage relative to the RMS keeps K accurate";
    EXPECT_EQ(serializeFingerprint(back), bytes) << "stable: parsing and writing again gives the same bytes";
}

TEST(FingerprintBytes, EveryDamageIsRefused)
{
    const std::vector<unsigned char> good = serializeFingerprint(sampleFingerprint(16, 12, 2));
    EXPECT_EQ(parseCode(good), LUMICREST_OK);

    // A flipped bit anywhere (header, K or checksum) is caught.
    for (size_t pos : {size_t(0), size_t(5), size_t(20), good.size() / 2, good.size() - 5, good.size() - 1})
    {
        std::vector<unsigned char> bad = good;
        bad[pos] ^= 0x10;
        EXPECT_EQ(parseCode(bad), LUMICREST_FINGERPRINT_CANNOT_READ) << "flip at " << pos;
    }
    // Truncated, extended, empty.
    EXPECT_EQ(parseCode(std::vector<unsigned char>(good.begin(), good.end() - 1)), LUMICREST_FINGERPRINT_CANNOT_READ);
    std::vector<unsigned char> longer = good;
    longer.push_back(0);
    EXPECT_EQ(parseCode(longer), LUMICREST_FINGERPRINT_CANNOT_READ);
    EXPECT_EQ(parseCode({}), LUMICREST_FINGERPRINT_CANNOT_READ);

    // A future version with a valid checksum is still refused.
    FingerprintData fp = sampleFingerprint(8, 8, 3);
    std::vector<unsigned char> future = serializeFingerprint(fp);
    future[4] = 2;
    const uint32_t crc = [&] {
        // Recompute the checksum the way the writer does, through a round trip of a
        // correctly versioned copy: change the version, then fix the trailing CRC.
        std::vector<unsigned char> copy(future.begin(), future.end() - 4);
        uint32_t c = 0xFFFFFFFFu;
        for (unsigned char b : copy)
        {
            c ^= b;
            for (int k = 0; k < 8; ++k)
                c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
        }
        return ~c;
    }();
    std::memcpy(future.data() + future.size() - 4, &crc, 4);
    EXPECT_EQ(parseCode(future), LUMICREST_FINGERPRINT_CANNOT_READ);
    future[4] = 1;
    EXPECT_EQ(parseCode(future), LUMICREST_FINGERPRINT_CANNOT_READ) << "checksum now belongs to version 2";
}

TEST(FingerprintBytes, NoiseLevelsTheOptionsCannotGiveAreRefused)
{
    // Such bytes pass the checksum but would fail every match with a numeric error.
    for (float sigma : {std::numeric_limits<float>::infinity(), 3e38f, 1e-30f, 0.05f, 0.0f, -3.0f,
                        std::numeric_limits<float>::quiet_NaN()})
    {
        FingerprintData fp = sampleFingerprint(8, 8, 4);
        fp.sigmaMatch = sigma;
        EXPECT_EQ(parseCode(serializeFingerprint(fp)), LUMICREST_FINGERPRINT_CANNOT_READ) << "sigma_match " << sigma;
        fp = sampleFingerprint(8, 8, 4);
        fp.sigmaRef = sigma;
        EXPECT_EQ(parseCode(serializeFingerprint(fp)), LUMICREST_FINGERPRINT_CANNOT_READ) << "sigma_ref " << sigma;
    }
    // The ends of the options' range are fingerprints the engine can make.
    for (const char* option : {"sigma_ref=0.1;sigma_match=50", "sigma_ref=50;sigma_match=0.1"})
    {
        const LearnOptions options = parseLearnOptions(option);
        FingerprintData fp = sampleFingerprint(8, 8, 5);
        fp.sigmaRef = options.sigmaRef;
        fp.sigmaMatch = options.sigmaMatch;
        EXPECT_EQ(parseCode(serializeFingerprint(fp)), LUMICREST_OK) << option;
    }
}

TEST(ProbabilityLadder, PassesThroughItsPointsAndIsMonotone)
{
    for (const auto& [pce, p] : std::vector<std::pair<double, double>>{
             {-50, 0}, {0, 0}, {10, 0.5}, {60, 0.95}, {100, 0.99}, {200, 0.995}, {400, 0.999}, {2000, 0.99999},
             {1e9, 0.999999}})
        EXPECT_NEAR(probabilityForPce(pce), p, 1e-12) << pce;
    double previous = 0.0;
    for (double pce = 0.5; pce < 1e6; pce *= 1.07)
    {
        const double p = probabilityForPce(pce);
        EXPECT_GE(p, previous) << pce;
        previous = p;
    }
    // The program's classes follow from the ladder.
    EXPECT_LT(probabilityForPce(399.0), 0.999);
    EXPECT_LT(probabilityForPce(199.0), 0.995);
    EXPECT_LT(probabilityForPce(99.0), 0.99);
    EXPECT_GE(probabilityForPce(100.0), 0.99);
}

TEST(Orientations, BySizeAndHint)
{
    // The turns tried for a photo against a 400 x 300 fingerprint, the likeliest first.
    const auto turns = [](int w, int h, int exif) {
        int o[4];
        const int n = candidateOrientations(w, h, 400, 300, exif, o);
        return std::vector<int>(o, o + n);
    };
    EXPECT_EQ(turns(400, 300, 1), (std::vector<int>{0, 180}));
    EXPECT_EQ(turns(400, 300, 3), (std::vector<int>{180, 0}));
    EXPECT_EQ(turns(300, 400, 6), (std::vector<int>{270, 90}));
    EXPECT_EQ(turns(300, 400, 8), (std::vector<int>{90, 270}));
    EXPECT_EQ(turns(200, 150, 1).size(), 4u) << "a small crop fits every way";
    EXPECT_EQ(turns(350, 300, 1), (std::vector<int>{0, 180})) << "fits only upright";
    EXPECT_EQ(turns(401, 300, 1), std::vector<int>());
    EXPECT_EQ(turns(500, 500, 1), std::vector<int>());
}

TEST(Options, KeysValuesAndErrors)
{
    LearnOptions o = parseLearnOptions("");
    EXPECT_EQ(o.sigmaRef, 3.0f);
    EXPECT_EQ(o.sigmaMatch, 3.0f);
    o = parseLearnOptions(" sigma_ref = 2.5 ; sigma_match=4;threads=2;");
    EXPECT_EQ(o.sigmaRef, 2.5f);
    EXPECT_EQ(o.sigmaMatch, 4.0f);
    EXPECT_EQ(o.threads, 2);
    for (const char* bad : {"sigma=3", "sigma_ref", "sigma_ref=abc", "sigma_ref=-1", "sigma_ref=3x", "threads=1e9"})
    {
        try
        {
            parseLearnOptions(bad);
            ADD_FAILURE() << bad;
        }
        catch (const Failure& f)
        {
            EXPECT_EQ(f.code(), LUMICREST_INVALID_OPTION) << bad;
        }
    }
}

TEST(Text, WideUtf8AndJson)
{
    const wchar_t* wide = L"/tmp/Fotos/Kamera \u00e9t\u00e9 \u65e5\u672c \U0001F4F7.jpg";
    const std::string utf8 = toUtf8(wide);
    EXPECT_EQ(utf8, "/tmp/Fotos/Kamera \xc3\xa9t\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x93\xb7.jpg");
    EXPECT_EQ(fromUtf8(utf8), std::wstring(wide));
    EXPECT_EQ(toUtf8(nullptr), "");
    EXPECT_EQ(fromUtf8("a\xff" "b"), std::wstring(L"a\uFFFDb")) << "invalid bytes become replacement characters";

    wchar_t* copy = mallocWide("x\xc3\xa9");
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::wstring(copy), std::wstring(L"x\u00e9"));
    std::free(copy);

    std::string json;
    appendJsonString(json, "a\"b\\c\n\x01");
    EXPECT_EQ(json, "\"a\\\"b\\\\c\\n\\u0001\"");
    json.clear();
    appendJsonNumber(json, 0.1);
    json += ' ';
    appendJsonNumber(json, NAN);
    json += ' ';
    appendJsonNumber(json, 1234.5);
    EXPECT_EQ(json, "0.1 0 1234.5");
}
