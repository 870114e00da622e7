// The per-pixel colour arithmetic against the standards' formulas, and the
// table lookups against known tables and the reference rule, bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "kiv_color_math.h"
#include "kiv_color_rows_sse2.h"
#include "kiv_cube_lut.h"
#include "kiv_lut8_fast.h"
#include "processing_test_helpers.h"

namespace {

using namespace kiv::color;

// Ideal Y, Cb, Cr bytes of an RGB colour in [0, 1], from the luma weights alone.
void IdealYuv(const double rgb[3], int cs, int range, double out[3]) {
    const double kr = cs == 2 ? 0.2126 : cs == 3 ? 0.2627 : 0.299, kb = cs == 2 ? 0.0722 : cs == 3 ? 0.0593 : 0.114;
    const double y = kr * rgb[0] + (1 - kr - kb) * rgb[1] + kb * rgb[2];
    const double cb = (rgb[2] - y) / (2 * (1 - kb)), cr = (rgb[0] - y) / (2 * (1 - kr));
    const double ys = range == 1 ? 255 : 219, cs_ = range == 1 ? 255 : 224, y0 = range == 1 ? 0 : 16;
    out[0] = std::min(y * ys + y0, 255.0), out[1] = std::min(cb * cs_ + 128, 255.0), out[2] = std::min(cr * cs_ + 128, 255.0);
}

TEST(ColorMath, ConversionsMatchTheStandards) {
    const double colours[][3] = {{0, 0, 0}, {1, 1, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1},
                                 {1, 1, 0}, {0, 1, 1}, {1, 0, 1}, {0.5, 0.5, 0.5}, {0.25, 0.6, 0.9}};
    for (int cs : {1, 2, 3})
        for (int range : {1, 2})
            for (const auto& c : colours) {
                SCOPED_TRACE(testing::Message() << "cs " << cs << " range " << range << " rgb " << c[0] << "," << c[1] << "," << c[2]);
                double ideal[3], ideal8[3];
                IdealYuv(c, cs, range, ideal);
                IdealYuv(c, cs == 1 ? 1 : 2, range, ideal8);  // the 8-bit rules use BT.709 for all but 1
                const uint8_t rgb8[3] = {uint8_t(std::lround(c[0] * 255)), uint8_t(std::lround(c[1] * 255)),
                                         uint8_t(std::lround(c[2] * 255))};
                const float rgbf[3] = {float(c[0]), float(c[1]), float(c[2])};
                uint8_t yuv8[3], yuvf[3], back8[3];
                float backf[3];
                RgbToYuv8(rgb8, cs, range, yuv8);
                RgbToYuvFloat(rgbf, cs, range, yuvf);
                YuvToRgb8(int(std::lround(ideal8[0])), int(std::lround(ideal8[1])), int(std::lround(ideal8[2])), cs, range, back8);
                YuvToRgbFloat(yuvf[0], yuvf[1], yuvf[2], cs, range, backf);
                for (int i = 0; i < 3; ++i) {
                    EXPECT_NEAR(yuv8[i], ideal8[i], 1.01) << i;
                    EXPECT_NEAR(yuvf[i], std::floor(ideal[i] + 0.5), 1.01) << i;
                    EXPECT_NEAR(back8[i], rgb8[i], 3.01) << i;
                    EXPECT_NEAR(backf[i], c[i], 0.02) << i;
                }
            }
    const struct {
        int cs, w, h, expected;
    } spaces[] = {{0, 720, 576, 1}, {0, 720, 577, 2}, {0, 1280, 720, 2}, {0, 1279, 480, 1},
                  {7, 640, 480, 1}, {-1, 1920, 1080, 2}, {3, 640, 480, 3}, {1, 1920, 1080, 1}};
    for (const auto& s : spaces) EXPECT_EQ(ResolveColorSpace(s.cs, s.w, s.h), s.expected) << s.cs << " " << s.w << "x" << s.h;
    for (auto r : {std::make_pair(1, 1), {2, 2}, {0, 2}, {9, 2}}) EXPECT_EQ(ResolveRange(r.first), r.second) << r.first;
    for (auto s : {std::make_pair(1.0f, 256), {0.0f, 0}, {0.6f, 154}, {0.001f, 0}})  // 0.6: 153.6 + 0.5
        EXPECT_EQ(StrengthWeight(s.first), s.second) << s.first;
}

Kiv3DLutData Table(int n, void (*fn)(float, float, float, float*)) {
    Kiv3DLutData lut;
    EXPECT_TRUE(kiv::ParseCubeForColorEngine(proctest::CubeText(n, fn).c_str(), &lut));
    return lut;
}
void Identity(float r, float g, float b, float* o) { o[0] = r, o[1] = g, o[2] = b; }
void Swap(float r, float g, float b, float* o) { o[0] = b, o[1] = r, o[2] = g; }
void Constant(float, float, float, float* o) { o[0] = 0.2f, o[1] = 0.6f, o[2] = 1.0f; }

TEST(ColorLut, TablesWithKnownEffects) {
    const Kiv3DLutData identity = Table(33, Identity), swap = Table(17, Swap), constant = Table(5, Constant);
    std::mt19937 rng(7);
    const double target[3] = {51, 153, 255};
    for (int i = 0; i < 20000; ++i) {
        const uint8_t in[3] = {uint8_t(rng()), uint8_t(rng()), uint8_t(rng())};
        uint8_t a[3], s[3], k[3], m[3], z[3];
        for (uint8_t* p : {a, s, k, m, z}) std::memcpy(p, in, 3);
        ApplyLut8(identity, 256, a);
        ApplyLut8(swap, 256, s);
        ApplyLut8(constant, 256, k);
        ApplyLut8(constant, StrengthWeight(0.6f), m);  // 60% of the way to the table's colour
        ApplyLut8(constant, 0, z);
        for (int c = 0; c < 3; ++c) {
            ASSERT_NEAR(a[c], in[c], 1);
            ASSERT_NEAR(s[c], in[(c + 2) % 3], 1);
            ASSERT_EQ(k[c], target[c]);
            ASSERT_NEAR(m[c], in[c] + (target[c] - in[c]) * 0.6, 1.01);
            ASSERT_EQ(z[c], in[c]);
        }
    }
    uint8_t white[3] = {255, 255, 255};  // lattice corners are read directly
    ApplyLut8(swap, 256, white);
    EXPECT_EQ(white[0] & white[1] & white[2], 255);

    // Float lookups: a domain of 0..2 halves the input, an inverted one
    // mirrors it; strength blends linearly and 0 changes nothing.
    Kiv3DLutData fine = Table(9, Identity), half = fine, mirror = fine;
    for (int c = 0; c < 3; ++c) half.domainMax[c] = 2.0f, mirror.domainMin[c] = 1.0f, mirror.domainMax[c] = 0.0f;
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int i = 0; i < 2000; ++i) {
        const float in[3] = {unit(rng), unit(rng), unit(rng)};
        float id[3] = {in[0], in[1], in[2]}, h[3] = {in[0], in[1], in[2]}, m[3] = {in[0], in[1], in[2]};
        ApplyLutFloat(fine, 1.0f, id);
        ApplyLutFloat(half, 1.0f, h);
        ApplyLutFloat(mirror, 1.0f, m);
        for (int c = 0; c < 3; ++c) {
            ASSERT_NEAR(id[c], in[c], 1e-5);
            ASSERT_NEAR(h[c], in[c] / 2, 1e-5);
            ASSERT_NEAR(m[c], 1 - in[c], 1e-5);
        }
    }
    const Kiv3DLutData small = Table(3, Constant);
    float s[3] = {1.0f, 0.0f, 0.5f}, z[3] = {0.3f, 0.4f, 0.5f};
    ApplyLutFloat(small, 0.25f, s);
    ApplyLutFloat(small, 0.0f, z);
    EXPECT_NEAR(s[0], 1.0f - 0.8f * 0.25f, 1e-5);
    EXPECT_NEAR(s[1], 0.6f * 0.25f, 1e-5);
    EXPECT_NEAR(s[2], 0.5f + 0.5f * 0.25f, 1e-5);
    EXPECT_FLOAT_EQ(z[1], 0.4f);
}

// The row lookups must give the per-pixel rule's results for every table size
// and strength, bytes and floats bit for bit; random tables make every corner count.
TEST(ColorLut, RowLookupsAreBitExactWithThePixelRule) {
    std::mt19937 rng(11);
    for (int n : {2, 3, 17, 33, 65}) {
        Kiv3DLutData lut;
        lut.dim = n;
        lut.bytes.resize(size_t(n) * n * n * 3);
        lut.values.resize(lut.bytes.size());
        for (uint8_t& b : lut.bytes) b = uint8_t(rng());
        kiv::BuildRedGreenSteps(&lut);
        for (float strength : {1.0f, 0.6f, 0.5f, 0.01f, 0.0f}) {
            SCOPED_TRACE(testing::Message() << "N " << n << " strength " << strength);
            std::vector<uint8_t> row(4 * 4095);  // every grey level first, then random colours
            for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(i < 1024 ? i / 4 : rng());
            std::vector<uint8_t> expected = row, scalar = row;
            for (size_t i = 0; i < expected.size(); i += 4) ApplyLut8(lut, StrengthWeight(strength), &expected[i]);
            Lut8Fast fast(&lut, strength);
            fast.ApplyRow(row.data(), 4095);
            fast.ApplyRowScalar(scalar.data(), 4095);
            for (size_t i = 0; i < row.size(); ++i) {
                if (i % 4 == 3) continue;
                ASSERT_EQ(row[i], expected[i]) << "pixel " << i / 4;
                ASSERT_EQ(scalar[i], expected[i]) << "pixel " << i / 4;
            }
        }
    }
    std::uniform_real_distribution<float> wide(-0.3f, 1.3f), unit(0.0f, 1.0f);
    for (int n : {2, 5, 17}) {
        Kiv3DLutData lut;
        lut.dim = n;
        lut.values.resize(size_t(n) * n * n * 3);
        for (float& v : lut.values) v = unit(rng);
        lut.bytes.assign(lut.values.size(), 0);
        kiv::BuildPaddedValues(&lut);
        const float domains[][6] = {{0, 0, 0, 1, 1, 1}, {0.1f, -0.2f, 0.3f, 0.9f, 1.4f, 0.5f}, {1, 1, 1, 0, 0, 0}};
        for (const auto& d : domains) {
            std::copy(d, d + 3, lut.domainMin);
            std::copy(d + 3, d + 6, lut.domainMax);
            for (float strength : {1.0f, 0.6f, 0.0f}) {
                const int count = 203;
                std::vector<float> rgb[3], ref[3];
                for (auto& c : rgb)
                    for (int i = 0; i < count; ++i) c.push_back(wide(rng));
                rgb[0][0] = std::nanf("");
                for (int i = 0; i < count; ++i) {
                    float px[3] = {rgb[0][i], rgb[1][i], rgb[2][i]};
                    ApplyLutFloat(lut, strength, px);
                    for (int c = 0; c < 3; ++c) ref[c].push_back(px[c]);
                }
                const int done = ApplyLutFloatRow(lut, strength, rgb[0].data(), rgb[1].data(), rgb[2].data(), count);
                for (int c = 0; c < 3; ++c)
                    ASSERT_EQ(std::memcmp(rgb[c].data(), ref[c].data(), size_t(done) * 4), 0) << "N " << n << " channel " << c;
            }
        }
    }
}

}  // namespace
