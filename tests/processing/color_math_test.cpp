#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "kiv_color_math.h"
#include "kiv_cube_lut.h"
#include "kiv_color_rows_sse2.h"
#include "kiv_lut8_fast.h"
#include "processing_test_helpers.h"

namespace {

using namespace kiv::color;

struct Coefficients {
    double kr, kb;
};
// Luma weights of the standards; everything else is derived from them here.
Coefficients Luma(int cs) {
    if (cs == 2) return {0.2126, 0.0722};
    if (cs == 3) return {0.2627, 0.0593};
    return {0.299, 0.114};
}

// Ideal Y, Cb, Cr bytes of an RGB colour in [0, 1].
void IdealYuv(const double rgb[3], int cs, int range, double out[3]) {
    const Coefficients k = Luma(cs);
    const double y = k.kr * rgb[0] + (1 - k.kr - k.kb) * rgb[1] + k.kb * rgb[2];
    const double cb = (rgb[2] - y) / (2 * (1 - k.kb));
    const double cr = (rgb[0] - y) / (2 * (1 - k.kr));
    if (range == 1) {
        out[0] = y * 255;
        out[1] = cb * 255 + 128;
        out[2] = cr * 255 + 128;
    } else {
        out[0] = y * 219 + 16;
        out[1] = cb * 224 + 128;
        out[2] = cr * 224 + 128;
    }
}

const double kColours[][3] = {{0, 0, 0}, {1, 1, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1},
                              {1, 1, 0}, {0, 1, 1}, {1, 0, 1}, {0.5, 0.5, 0.5}, {0.25, 0.6, 0.9}};

// The 8-bit rules use BT.709 for every colour space but 1.
int FixedPointSpace(int cs) { return cs == 1 ? 1 : 2; }

TEST(ColorMath, EightBitConversionsMatchTheStandardsWithinFixedPointError) {
    for (int cs : {1, 2, 3}) {
        for (int range : {1, 2}) {
            for (const auto& c : kColours) {
                SCOPED_TRACE(testing::Message() << "cs " << cs << " range " << range << " rgb " << c[0] << "," << c[1]
                                                << "," << c[2]);
                double ideal[3];
                IdealYuv(c, FixedPointSpace(cs), range, ideal);
                const uint8_t rgb8[3] = {static_cast<uint8_t>(std::lround(c[0] * 255)),
                                         static_cast<uint8_t>(std::lround(c[1] * 255)),
                                         static_cast<uint8_t>(std::lround(c[2] * 255))};
                uint8_t yuv[3];
                RgbToYuv8(rgb8, cs, range, yuv);
                for (int i = 0; i < 3; ++i) EXPECT_NEAR(yuv[i], std::min(ideal[i], 255.0), 1.01) << "component " << i;

                // And back: the ideal YUV bytes decode to the colour.
                uint8_t back[3];
                YuvToRgb8(static_cast<int>(std::lround(ideal[0])), static_cast<int>(std::lround(std::min(ideal[1], 255.0))),
                          static_cast<int>(std::lround(std::min(ideal[2], 255.0))), cs, range, back);
                for (int i = 0; i < 3; ++i) EXPECT_NEAR(back[i], rgb8[i], 3.01) << "channel " << i;
            }
        }
    }
}

TEST(ColorMath, FloatConversionsMatchTheStandardsInEverySpace) {
    for (int cs : {1, 2, 3}) {
        for (int range : {1, 2}) {
            for (const auto& c : kColours) {
                SCOPED_TRACE(testing::Message() << "cs " << cs << " range " << range << " rgb " << c[0] << "," << c[1]
                                                << "," << c[2]);
                double ideal[3];
                IdealYuv(c, cs, range, ideal);
                const float rgb[3] = {static_cast<float>(c[0]), static_cast<float>(c[1]), static_cast<float>(c[2])};
                uint8_t yuv[3];
                RgbToYuvFloat(rgb, cs, range, yuv);
                for (int i = 0; i < 3; ++i) {
                    EXPECT_NEAR(yuv[i], std::floor(std::min(ideal[i], 255.0) + 0.5), 1.01) << "component " << i;
                }
                // Decoding the exact (unrounded) bytes of a primary gives it back.
                float back[3];
                YuvToRgbFloat(yuv[0], yuv[1], yuv[2], cs, range, back);
                for (int i = 0; i < 3; ++i) EXPECT_NEAR(back[i], c[i], 0.02) << "channel " << i;
            }
        }
    }
}

TEST(ColorMath, ColourSpaceAndRangeResolution) {
    EXPECT_EQ(ResolveColorSpace(0, 720, 576), 1);
    EXPECT_EQ(ResolveColorSpace(0, 720, 577), 2);
    EXPECT_EQ(ResolveColorSpace(0, 1280, 720), 2);
    EXPECT_EQ(ResolveColorSpace(0, 1279, 480), 1);
    EXPECT_EQ(ResolveColorSpace(7, 640, 480), 1);
    EXPECT_EQ(ResolveColorSpace(-1, 1920, 1080), 2);
    EXPECT_EQ(ResolveColorSpace(3, 640, 480), 3);
    EXPECT_EQ(ResolveColorSpace(1, 1920, 1080), 1);
    EXPECT_EQ(ResolveRange(1), 1);
    EXPECT_EQ(ResolveRange(2), 2);
    EXPECT_EQ(ResolveRange(0), 2);
    EXPECT_EQ(ResolveRange(9), 2);
    EXPECT_EQ(StrengthWeight(1.0f), 256);
    EXPECT_EQ(StrengthWeight(0.0f), 0);
    EXPECT_EQ(StrengthWeight(0.6f), 154);  // 153.6 + 0.5
    EXPECT_EQ(StrengthWeight(0.001f), 0);
}

Kiv3DLutData Table(int n, void (*fn)(float, float, float, float*)) {
    Kiv3DLutData lut;
    const std::string text = proctest::CubeText(n, fn);
    EXPECT_TRUE(kiv::ParseCubeForColorEngine(text.c_str(), &lut));
    return lut;
}

void Identity(float r, float g, float b, float* o) { o[0] = r, o[1] = g, o[2] = b; }
void Swap(float r, float g, float b, float* o) { o[0] = b, o[1] = r, o[2] = g; }
void Constant(float, float, float, float* o) { o[0] = 0.2f, o[1] = 0.6f, o[2] = 1.0f; }

TEST(ColorLut, GradingTablesWithKnownEffects) {
    const Kiv3DLutData identity = Table(33, Identity);
    const Kiv3DLutData swap = Table(17, Swap);
    const Kiv3DLutData constant = Table(5, Constant);
    std::mt19937 rng(7);
    for (int i = 0; i < 20000; ++i) {
        const uint8_t in[3] = {static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng())};
        uint8_t a[3] = {in[0], in[1], in[2]};
        ApplyLut8(identity, 256, a);
        for (int c = 0; c < 3; ++c) ASSERT_NEAR(a[c], in[c], 1);
        uint8_t s[3] = {in[0], in[1], in[2]};
        ApplyLut8(swap, 256, s);
        ASSERT_NEAR(s[0], in[2], 1);
        ASSERT_NEAR(s[1], in[0], 1);
        ASSERT_NEAR(s[2], in[1], 1);
        uint8_t k[3] = {in[0], in[1], in[2]};
        ApplyLut8(constant, 256, k);
        ASSERT_EQ(k[0], 51);
        ASSERT_EQ(k[1], 153);
        ASSERT_EQ(k[2], 255);
        // Strength 0.6 lands 60% of the way to the table's colour.
        uint8_t m[3] = {in[0], in[1], in[2]};
        ApplyLut8(constant, StrengthWeight(0.6f), m);
        const double target[3] = {51, 153, 255};
        for (int c = 0; c < 3; ++c) ASSERT_NEAR(m[c], in[c] + (target[c] - in[c]) * 0.6, 1.01);
        // Below one step of weight nothing changes.
        uint8_t z[3] = {in[0], in[1], in[2]};
        ApplyLut8(constant, 0, z);
        for (int c = 0; c < 3; ++c) ASSERT_EQ(z[c], in[c]);
    }
    // Corners of the lattice are read directly.
    uint8_t white[3] = {255, 255, 255};
    ApplyLut8(swap, 256, white);
    EXPECT_EQ(white[0] & white[1] & white[2], 255);
}

TEST(ColorLut, FloatLookupMapsThroughTheDomain) {
    Kiv3DLutData identity = Table(9, Identity);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int i = 0; i < 2000; ++i) {
        const float in[3] = {unit(rng), unit(rng), unit(rng)};
        float a[3] = {in[0], in[1], in[2]};
        ApplyLutFloat(identity, 1.0f, a);
        for (int c = 0; c < 3; ++c) ASSERT_NEAR(a[c], in[c], 1e-5);
    }
    // A domain of 0..2 halves the input; an inverted one mirrors it.
    Kiv3DLutData half = identity;
    Kiv3DLutData mirror = identity;
    for (int c = 0; c < 3; ++c) {
        half.domainMax[c] = 2.0f;
        mirror.domainMin[c] = 1.0f;
        mirror.domainMax[c] = 0.0f;
    }
    float h[3] = {0.8f, 0.2f, 1.0f};
    ApplyLutFloat(half, 1.0f, h);
    EXPECT_NEAR(h[0], 0.4f, 1e-5);
    EXPECT_NEAR(h[1], 0.1f, 1e-5);
    EXPECT_NEAR(h[2], 0.5f, 1e-5);
    float m[3] = {0.8f, 0.2f, 1.0f};
    ApplyLutFloat(mirror, 1.0f, m);
    EXPECT_NEAR(m[0], 0.2f, 1e-5);
    EXPECT_NEAR(m[1], 0.8f, 1e-5);
    EXPECT_NEAR(m[2], 0.0f, 1e-5);
    // Strength blends linearly; 0 leaves the colour as it was.
    Kiv3DLutData constant = Table(3, Constant);
    float s[3] = {1.0f, 0.0f, 0.5f};
    ApplyLutFloat(constant, 0.25f, s);
    EXPECT_NEAR(s[0], 1.0f + (0.2f - 1.0f) * 0.25f, 1e-5);
    EXPECT_NEAR(s[1], 0.6f * 0.25f, 1e-5);
    EXPECT_NEAR(s[2], 0.5f + 0.5f * 0.25f, 1e-5);
    float z[3] = {0.3f, 0.4f, 0.5f};
    ApplyLutFloat(constant, 0.0f, z);
    EXPECT_FLOAT_EQ(z[1], 0.4f);
}

// The row lookup must give the reference rule's bytes for every table size
// and strength; random tables make every corner and fraction count.
TEST(ColorLut, RowLookupIsBitExactWithTheReferenceRule) {
    std::mt19937 rng(11);
    for (int n : {2, 3, 17, 33, 65}) {
        Kiv3DLutData lut;
        lut.dim = n;
        lut.bytes.resize(static_cast<size_t>(n) * n * n * 3);
        lut.values.resize(lut.bytes.size());
        for (uint8_t& b : lut.bytes) b = static_cast<uint8_t>(rng());
        kiv::BuildRedGreenSteps(&lut);
        for (float strength : {1.0f, 0.6f, 0.5f, 0.01f, 0.0f}) {
            SCOPED_TRACE(testing::Message() << "N " << n << " strength " << strength);
            // Four bytes a pixel; every grey level first, then random colours.
            std::vector<uint8_t> row(4 * 4095);
            for (size_t i = 0; i < row.size(); ++i) row[i] = static_cast<uint8_t>(i < 1024 ? i / 4 : rng());
            std::vector<uint8_t> expected = row;
            const int weight = StrengthWeight(strength);
            for (size_t i = 0; i < expected.size(); i += 4) ApplyLut8(lut, weight, &expected[i]);
            Lut8Fast fast(&lut, strength);
            std::vector<uint8_t> scalar = row;
            fast.ApplyRow(row.data(), 4095);
            fast.ApplyRowScalar(scalar.data(), 4095);
            for (size_t i = 0; i < row.size(); i += 4) {
                for (size_t c = 0; c < 3; ++c) {
                    ASSERT_EQ(row[i + c], expected[i + c]) << "pixel " << i / 4;
                    ASSERT_EQ(scalar[i + c], expected[i + c]) << "pixel " << i / 4;
                }
            }
        }
    }
}

// The row lookup of the float path must give the reference rule's floats bit
// for bit, not merely the same bytes after rounding.
TEST(ColorLut, FloatRowLookupIsBitExactWithTheReferenceRule) {
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> wide(-0.3f, 1.3f);
    for (int n : {2, 5, 17}) {
        Kiv3DLutData lut;
        lut.dim = n;
        lut.values.resize(static_cast<size_t>(n) * n * n * 3);
        for (float& v : lut.values) v = std::uniform_real_distribution<float>(0.0f, 1.0f)(rng);
        lut.bytes.assign(lut.values.size(), 0);
        kiv::BuildPaddedValues(&lut);
        const float domains[][6] = {{0, 0, 0, 1, 1, 1}, {0.1f, -0.2f, 0.3f, 0.9f, 1.4f, 0.5f}, {1, 1, 1, 0, 0, 0}};
        for (const auto& d : domains) {
            for (int c = 0; c < 3; ++c) {
                lut.domainMin[c] = d[c];
                lut.domainMax[c] = d[c + 3];
            }
            for (float strength : {1.0f, 0.6f, 0.0f}) {
                const int count = 203;
                std::vector<float> r(count), g(count), b(count);
                for (int i = 0; i < count; ++i) r[i] = wide(rng), g[i] = wide(rng), b[i] = wide(rng);
                r[0] = std::nanf("");
                std::vector<float> er = r, eg = g, eb = b;
                for (int i = 0; i < count; ++i) {
                    float px[3] = {er[i], eg[i], eb[i]};
                    ApplyLutFloat(lut, strength, px);
                    er[i] = px[0], eg[i] = px[1], eb[i] = px[2];
                }
                const int done = ApplyLutFloatRow(lut, strength, r.data(), g.data(), b.data(), count);
                for (int i = 0; i < done; ++i) {
                    ASSERT_EQ(std::memcmp(&r[i], &er[i], 4), 0) << "N " << n << " pixel " << i;
                    ASSERT_EQ(std::memcmp(&g[i], &eg[i], 4), 0) << "N " << n << " pixel " << i;
                    ASSERT_EQ(std::memcmp(&b[i], &eb[i], 4), 0) << "N " << n << " pixel " << i;
                }
            }
        }
    }
}

}  // namespace
