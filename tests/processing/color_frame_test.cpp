// The colour engine's frames against the plain pixel-by-pixel reference, for
// every pair of formats, odd and even sizes, tables, strengths, colour spaces
// and ranges, saturated colours and the whole YUV cube.
#include <gtest/gtest.h>

#include <random>

#include "color_reference.h"
#include "kiv_color_math.h"
#include "processing_test_helpers.h"

namespace {

// Random bytes; padded strides, or zero strides and a single NV12 buffer.
struct RandomFrame {
    std::vector<uint8_t> plane0, plane1;
    KivVideoFrame frame{};
    RandomFrame(int32_t format, int w, int h, std::mt19937& rng, bool tight) {
        const int pad = tight ? 0 : 8, chromaStride = tight ? w : ((w + 1) & ~1) + 6;
        const int stride0 = (format == KIV_PIXEL_FORMAT_YUY2 ? ((w + 1) / 2) * 4 : w * proctest::BytesPerPixel(format)) + pad;
        const size_t chromaBytes = format == KIV_PIXEL_FORMAT_NV12 ? size_t(chromaStride) * ((h + 1) / 2) + 2 : 0;
        plane0.resize(size_t(stride0) * h + (tight ? chromaBytes : 0));
        frame = kivtest::FrameOver(format, w, h, nullptr, tight ? 0 : stride0);
        frame.timestamp = 777;
        frame.frameIndex = 9;
        if (!tight && chromaBytes) plane1.resize(chromaBytes), frame.strides[1] = chromaStride;
        for (auto* p : {&plane0, &plane1})
            for (uint8_t& b : *p) b = uint8_t(rng());
        frame.planes[0] = plane0.data();
        frame.planes[1] = plane1.empty() ? nullptr : plane1.data();
    }
};

class ColorFrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::mt19937 rng(5);
        std::uniform_real_distribution<float> unit(-0.1f, 1.1f);
        std::string text = "LUT_3D_SIZE 9\nDOMAIN_MIN 0.1 -0.2 0\nDOMAIN_MAX 0.9 1.3 0.5\n";
        for (int i = 0; i < 9 * 9 * 9; ++i)
            text += std::to_string(unit(rng)) + " " + std::to_string(unit(rng)) + " " + std::to_string(unit(rng)) + "\n";
        ASSERT_TRUE(kiv::ParseCubeForColorEngine(text.c_str(), &lut));
        const std::string path = kivtest::TempDir("color_frames") + "/random.cube";
        kivtest::WriteFile(path, text);
        ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(handle, kivtest::Wide(path).c_str()), KIV_OK);
    }
    void TearDown() override { KIV_DestroyPort(handle); }

    // Converts `in` with the given settings and compares with the reference.
    void Check(const KivVideoFrame& in, int32_t outFmt, int cs, int range, int enable = 0, float strength = 1.0f) {
        const KivVideoColorEngineConfig config{0, enable, outFmt, cs, range, strength};
        ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
        ASSERT_EQ(static_cast<KivPortBase*>(handle)->OnVideoFrame(&in), KIV_OK);
        const auto ref = proctest::ReferenceConvert(in, outFmt, kiv::color::ResolveColorSpace(cs, in.width, in.height),
                                                    kiv::color::ResolveRange(range), enable ? &lut : nullptr, strength);
        const kivtest::CaughtFrame& out = catcher.frames.back();
        ASSERT_EQ((std::vector<int64_t>{out.meta.format, out.meta.width, out.meta.height, out.meta.timestamp, int64_t(out.meta.frameIndex)}),
                  (std::vector<int64_t>{outFmt, in.width, in.height, in.timestamp, int64_t(in.frameIndex)}));
        ASSERT_EQ(out.plane0, ref.plane0);
        if (outFmt == KIV_PIXEL_FORMAT_NV12) {
            ASSERT_EQ(out.meta.strides[1], (in.width + 1) & ~1);
            ASSERT_EQ(out.plane1, ref.plane1);
        } else {
            EXPECT_EQ(out.meta.planes[1], nullptr);
        }
        catcher.frames.clear();
    }

    kivtest::LibraryScope library;
    void* handle = KIV_CreateVideoColorEngine();
    kivtest::FrameCatcher catcher{handle};
    Kiv3DLutData lut;
};

const int32_t kFormats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32};

TEST_F(ColorFrameTest, EveryFormatPairMatchesTheReference) {
    std::mt19937 rng(1);
    const int sizes[][2] = {{1, 1}, {2, 2}, {7, 5}, {16, 9}, {33, 4}, {322, 3}};  // wide rows: vector paths and tails
    const struct {
        int enable;
        float strength;
        int cs, range;
    } settings[] = {{1, 1.0f, 1, 2}, {1, 0.6f, 2, 1}, {0, 1.0f, 3, 2}, {1, 0.35f, 3, 1}, {1, 0.0f, 0, 0}};
    for (const auto& s : settings)
        for (int32_t inFmt : kFormats)
            for (int32_t outFmt : kFormats)
                for (const auto& size : sizes)
                    for (bool tight : {false, true}) {
                        if ((!s.enable && inFmt == outFmt) || (tight && inFmt == KIV_PIXEL_FORMAT_NV12 && (size[0] & 1))) continue;
                        SCOPED_TRACE(testing::Message() << "in " << inFmt << " out " << outFmt << " size " << size[0] << "x"
                                                        << size[1] << " tight " << tight << " strength " << s.strength
                                                        << " cs " << s.cs << " range " << s.range);
                        RandomFrame in(inFmt, size[0], size[1], rng, tight);
                        Check(in.frame, outFmt, s.cs, s.range, s.enable, s.strength);
                        if (HasFatalFailure()) return;
                    }
}

TEST_F(ColorFrameTest, SaturatedColoursAndTheWholeYuvCubeMatchTheReference) {
    // The corners of the RGB cube and the YUV extremes drive every clamp.
    for (int32_t inFmt : {KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12}) {
        std::mt19937 rng(4);
        RandomFrame in(inFmt, 40, 2, rng, false);
        for (size_t i = 0; i < in.plane0.size(); ++i) in.plane0[i] = (i * 7 / 3) % 5 < 2 ? 0 : 255;
        for (size_t i = 0; i < in.plane1.size(); ++i) in.plane1[i] = (i % 3) == 0 ? 0 : 255;
        // Full-range BT.601 Cb of pure blue is 256 and must be cut to 255 before it is averaged with its partner's 253.
        if (inFmt == KIV_PIXEL_FORMAT_RGB32) std::copy_n("\xff\0\0\0\xff\0\x0c\0", 8, in.plane0.begin());
        for (int32_t outFmt : {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_NV12})
            for (int cs : {1, 2})
                for (int range : {1, 2})
                    if (inFmt != outFmt) {
                        SCOPED_TRACE(testing::Message() << "in " << inFmt << " out " << outFmt << " cs " << cs << " range " << range);
                        Check(in.frame, outFmt, cs, range);
                    }
    }
    // NV12 through the float reader: every luma value against a grid of chroma pairs, one pair per two rows.
    const int w = 256, pairs = 52 * 52 + 1, h = pairs * 2;
    std::vector<uint8_t> luma(size_t(w) * h), uv(size_t(w) * h / 2);
    for (size_t i = 0; i < luma.size(); ++i) luma[i] = uint8_t(i % w);
    for (int row = 0; row < pairs; ++row)
        for (int x = 0; x < w; x += 2) {
            uv[size_t(row) * w + x] = uint8_t(row < pairs - 1 ? row / 52 * 5 : 255);
            uv[size_t(row) * w + x + 1] = uint8_t(row < pairs - 1 ? row % 52 * 5 : 255);
        }
    const KivVideoFrame in = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, w, h, luma.data(), w, uv.data(), w);
    for (int cs : {1, 2, 3})
        for (int range : {1, 2}) {
            SCOPED_TRACE(testing::Message() << "cs " << cs << " range " << range);
            Check(in, KIV_PIXEL_FORMAT_YUY2, cs, range);
        }
}

}  // namespace
