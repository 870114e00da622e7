// The colour engine's frames against the plain pixel-by-pixel reference, for
// every pair of formats, odd and even sizes, tables, strengths, colour spaces
// and ranges.
#include <gtest/gtest.h>

#include <random>

#include "color_reference.h"
#include "kiv_color_math.h"
#include "processing_test_helpers.h"

namespace {

using proctest::CaughtFrame;

struct RandomFrame {
    std::vector<uint8_t> plane0, plane1;
    KivVideoFrame frame{};
    RandomFrame(int32_t format, int w, int h, std::mt19937& rng, bool tight) {
        frame.format = format;
        frame.width = w;
        frame.height = h;
        frame.timestamp = 777;
        frame.frameIndex = 9;
        const int bpp = format == KIV_PIXEL_FORMAT_YUY2 ? 2 : format == KIV_PIXEL_FORMAT_RGB24 ? 3 : format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 1;
        // Padded strides, or zero strides and a single NV12 buffer.
        int stride0 = w * bpp + (tight ? 0 : 8);
        if (format == KIV_PIXEL_FORMAT_YUY2) stride0 = ((w + 1) / 2) * 4 + (tight ? 0 : 8);
        const int chromaStride = tight ? w : ((w + 1) & ~1) + 6;
        const size_t lumaBytes = static_cast<size_t>(stride0) * h;
        const size_t chromaBytes = format == KIV_PIXEL_FORMAT_NV12 ? static_cast<size_t>(chromaStride) * ((h + 1) / 2) + 2 : 0;
        plane0.resize(lumaBytes + (tight ? chromaBytes : 0));
        for (uint8_t& b : plane0) b = static_cast<uint8_t>(rng());
        frame.planes[0] = plane0.data();
        frame.strides[0] = tight ? 0 : stride0;
        if (format == KIV_PIXEL_FORMAT_NV12 && !tight) {
            plane1.resize(chromaBytes);
            for (uint8_t& b : plane1) b = static_cast<uint8_t>(rng());
            frame.planes[1] = plane1.data();
            frame.strides[1] = chromaStride;
        }
    }
};

std::string RandomCube(int n, std::mt19937& rng) {
    std::string text = "LUT_3D_SIZE " + std::to_string(n) + "\nDOMAIN_MIN 0.1 -0.2 0\nDOMAIN_MAX 0.9 1.3 0.5\n";
    std::uniform_real_distribution<float> unit(-0.1f, 1.1f);
    char line[96];
    for (int i = 0; i < n * n * n; ++i) {
        std::snprintf(line, sizeof line, "%.5f %.5f %.5f\n", unit(rng), unit(rng), unit(rng));
        text += line;
    }
    return text;
}

class ColorFrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        handle = KIV_CreateVideoColorEngine();
        ASSERT_NE(handle, nullptr);
        catcher = std::make_unique<proctest::FrameCatcher>(static_cast<KivPortBase*>(handle));
        std::mt19937 rng(5);
        const std::string text = RandomCube(9, rng);
        ASSERT_TRUE(kiv::ParseCubeForColorEngine(text.c_str(), &lut));
        const std::string path = kivtest::TempDir("color_frames") + "/random.cube";
        kivtest::WriteFile(path, text);
        ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(handle, kivtest::Wide(path).c_str()), KIV_OK);
    }
    void TearDown() override { KIV_DestroyPort(handle); }

    kivtest::LibraryScope library;
    void* handle = nullptr;
    std::unique_ptr<proctest::FrameCatcher> catcher;
    Kiv3DLutData lut;
};

void ExpectMatchesReference(const CaughtFrame& out, const KivVideoFrame& in, int32_t outFmt, int cs, int range,
                            const Kiv3DLutData* lut, float strength) {
    const proctest::ReferenceOutput ref = proctest::ReferenceConvert(in, outFmt, cs, range, lut, strength);
    ASSERT_EQ(out.meta.format, outFmt);
    ASSERT_EQ(out.meta.width, in.width);
    ASSERT_EQ(out.meta.height, in.height);
    EXPECT_EQ(out.meta.timestamp, 777);
    EXPECT_EQ(out.meta.frameIndex, 9u);
    ASSERT_EQ(out.plane0.size(), ref.plane0.size());
    for (size_t i = 0; i < ref.plane0.size(); ++i) ASSERT_EQ(out.plane0[i], ref.plane0[i]) << "plane 0 byte " << i;
    if (outFmt == KIV_PIXEL_FORMAT_NV12) {
        ASSERT_EQ(out.meta.strides[1], (in.width + 1) & ~1);
        ASSERT_EQ(out.plane1.size(), ref.plane1.size());
        for (size_t i = 0; i < ref.plane1.size(); ++i) ASSERT_EQ(out.plane1[i], ref.plane1[i]) << "chroma byte " << i;
    } else {
        EXPECT_EQ(out.meta.planes[1], nullptr);
    }
}

TEST_F(ColorFrameTest, EveryFormatPairMatchesTheReference) {
    std::mt19937 rng(1);
    const int sizes[][2] = {{1, 1}, {2, 2}, {7, 5}, {16, 9}, {33, 4}, {322, 3}};  // wide rows: vector paths and tails
    const int32_t formats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32};
    struct Setting {
        int enable;
        float strength;
        int cs, range;
    };
    const Setting settings[] = {{1, 1.0f, 1, 2}, {1, 0.6f, 2, 1}, {0, 1.0f, 3, 2}, {1, 0.35f, 3, 1}, {1, 0.0f, 0, 0}};
    for (const Setting& s : settings) {
        for (int32_t inFmt : formats) {
            for (int32_t outFmt : formats) {
                if (!s.enable && inFmt == outFmt) continue;
                for (const auto& size : sizes) {
                    for (bool tight : {false, true}) {
                        if (tight && inFmt == KIV_PIXEL_FORMAT_NV12 && (size[0] & 1)) continue;
                        SCOPED_TRACE(testing::Message() << "in " << inFmt << " out " << outFmt << " size " << size[0] << "x"
                                                        << size[1] << " tight " << tight << " strength " << s.strength
                                                        << " cs " << s.cs << " range " << s.range);
                        KivVideoColorEngineConfig config{0, s.enable, outFmt, s.cs, s.range, s.strength};
                        ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
                        RandomFrame in(inFmt, size[0], size[1], rng, tight);
                        ASSERT_EQ(static_cast<KivPortBase*>(handle)->OnVideoFrame(&in.frame), KIV_OK);
                        const int cs = kiv::color::ResolveColorSpace(s.cs, size[0], size[1]);
                        const int range = kiv::color::ResolveRange(s.range);
                        ExpectMatchesReference(catcher->frames.back(), in.frame, outFmt, cs, range,
                                               s.enable ? &lut : nullptr, s.strength);
                        if (HasFatalFailure()) return;
                    }
                }
            }
        }
    }
}

TEST_F(ColorFrameTest, SaturatedColoursMatchTheReference) {
    // The corners of the RGB cube and the YUV extremes drive every clamp.
    const int w = 40, h = 2;
    for (int32_t inFmt : {KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12}) {
        std::mt19937 rng(4);
        RandomFrame in(inFmt, w, h, rng, false);
        for (size_t i = 0; i < in.plane0.size(); ++i) in.plane0[i] = (i * 7 / 3) % 5 < 2 ? 0 : 255;
        for (size_t i = 0; i < in.plane1.size(); ++i) in.plane1[i] = (i % 3) == 0 ? 0 : 255;
        if (inFmt == KIV_PIXEL_FORMAT_RGB32) {
            // Full-range BT.601 Cb of pure blue is 256 and must be cut to 255
            // before it is averaged with its partner's 253.
            const uint8_t pair[8] = {255, 0, 0, 0, 255, 0, 12, 0};
            std::copy(pair, pair + 8, in.plane0.begin());
        }
        for (int32_t outFmt : {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_NV12}) {
            for (int cs : {1, 2}) {
                for (int range : {1, 2}) {
                    SCOPED_TRACE(testing::Message() << "in " << inFmt << " out " << outFmt << " cs " << cs << " range " << range);
                    KivVideoColorEngineConfig config{0, 0, outFmt, cs, range, 1.0f};
                    ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
                    if (inFmt == outFmt) continue;
                    ASSERT_EQ(static_cast<KivPortBase*>(handle)->OnVideoFrame(&in.frame), KIV_OK);
                    ExpectMatchesReference(catcher->frames.back(), in.frame, outFmt, cs, range, nullptr, 1.0f);
                }
            }
        }
    }
}

TEST_F(ColorFrameTest, Nv12ThroughTheFloatReaderIsExactOverTheYuvCube) {
    // Every luma value against a grid of chroma pairs, one pair per two rows.
    const int w = 256;
    std::vector<std::pair<int, int>> chroma;
    for (int u = 0; u < 256; u += 5)
        for (int v = 0; v < 256; v += 5) chroma.emplace_back(u, v);
    chroma.emplace_back(255, 255);
    const int h = static_cast<int>(chroma.size()) * 2;
    std::vector<uint8_t> luma(static_cast<size_t>(w) * h), uv(static_cast<size_t>(w) * h / 2);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) luma[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(x);
    for (size_t row = 0; row < chroma.size(); ++row)
        for (int x = 0; x < w; x += 2) {
            uv[row * w + x] = static_cast<uint8_t>(chroma[row].first);
            uv[row * w + x + 1] = static_cast<uint8_t>(chroma[row].second);
        }
    KivVideoFrame in{};
    in.planes[0] = luma.data();
    in.planes[1] = uv.data();
    in.strides[0] = w;
    in.strides[1] = w;
    in.width = w;
    in.height = h;
    in.format = KIV_PIXEL_FORMAT_NV12;
    in.timestamp = 777;
    in.frameIndex = 9;
    for (int cs : {1, 2, 3}) {
        for (int range : {1, 2}) {
            SCOPED_TRACE(testing::Message() << "cs " << cs << " range " << range);
            KivVideoColorEngineConfig config{0, 0, KIV_PIXEL_FORMAT_YUY2, cs, range, 1.0f};
            ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
            ASSERT_EQ(static_cast<KivPortBase*>(handle)->OnVideoFrame(&in), KIV_OK);
            ExpectMatchesReference(catcher->frames.back(), in, KIV_PIXEL_FORMAT_YUY2, cs, range, nullptr, 1.0f);
            catcher->frames.clear();
        }
    }
}

}  // namespace
