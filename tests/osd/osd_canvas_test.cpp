// Canvas building and the blend primitive, checked against pixel values
// worked out by hand from the BT.601 studio-range integer formulas and
// against a floating-point reference conversion.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "processing/osd_canvas.h"
#include "test_support.h"

using kiv::OsdCanvas;
using kivtest::OwnedFrame;

namespace {

struct Blend {
    int x, y;
    uint8_t blue, green, red, alpha;
    float opacity;
};
struct Byte {
    int plane, offset, value;
};

TEST(OsdBlend, HandWorkedPixelsInEveryCanvasFormat) {
    const struct {
        const char* what;
        int32_t format;
        int w, h;
        uint8_t fill;
        std::vector<Blend> blends;
        std::vector<Byte> expected;
    } cases[] = {
        {"opaque white on NV12 is studio white; neighbours untouched", KIV_PIXEL_FORMAT_NV12, 8, 6, 77,
         {{3, 3, 255, 255, 255, 255, 1.0f}},
         {{0, 3 * 8 + 3, 235}, {0, 3 * 8 + 2, 77}, {1, 8 + 2, 128}, {1, 8 + 3, 128}, {1, 8 + 4, 77}}},
        // Red is Y 82, Cb 90, Cr 240; half way from (100, 128, 128) rounds to
        // 91, 109, 184; the second pixel of the block blends the chroma again.
        {"half red on NV12, twice into one chroma pair", KIV_PIXEL_FORMAT_NV12, 4, 4, 100,
         {{0, 0, 0, 0, 255, 255, 0.5f}, {1, 1, 0, 0, 255, 255, 0.5f}},
         {{0, 0, 91}, {0, 5, 91}, {1, 0, 100}, {1, 1, 212}}},
        {"RGB32 rounding, item alpha and ignored pixels", KIV_PIXEL_FORMAT_RGB32, 4, 2, 0,
         {{0, 0, 250, 3, 1, 255, 0.25f},   // 10 x .75 + 250 x .25 + .5 = 70.5
          {1, 0, 201, 3, 1, 255, 0.5f},    // 100 x .5 + 100.5 + .5
          {2, 0, 255, 255, 255, 0, 1.0f},  // zero weight and outside pixels change nothing
          {2, 0, 255, 255, 255, 255, 0.0f},
          {-1, 0, 255, 255, 255, 255, 1.0f},
          {4, 0, 255, 255, 255, 255, 1.0f},
          {0, 2, 255, 255, 255, 255, 1.0f}},
         {{0, 0, 70}, {0, 1, 1}, {0, 2, 0}, {0, 3, 255}, {0, 4, 151}, {0, 5, 2}, {0, 6, 1}, {0, 8, 0}, {0, 11, 0},
          {0, 16, 0}}},
        {"YUY2 odd and even pixels", KIV_PIXEL_FORMAT_YUY2, 4, 1, 128,
         {{3, 0, 0, 0, 255, 255, 1.0f}, {0, 0, 255, 255, 255, 255, 1.0f}},
         {{0, 4, 128}, {0, 5, 90}, {0, 6, 82}, {0, 7, 240}, {0, 0, 235}, {0, 2, 128}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        OwnedFrame in(c.format, c.w, c.h, c.fill);
        if (c.format == KIV_PIXEL_FORMAT_NV12 && c.fill == 100) std::fill(in.bytes.begin() + 16, in.bytes.end(), 128);
        if (c.format == KIV_PIXEL_FORMAT_RGB32) in.bytes[0] = 10, in.bytes[4] = 100;
        OsdCanvas canvas;
        ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
        const KivVideoFrame out = canvas.Frame(in.frame);
        for (const Blend& b : c.blends) canvas.BlendPixel(b.x, b.y, b.blue, b.green, b.red, b.alpha, b.opacity);
        for (const Byte& e : c.expected) EXPECT_EQ(out.planes[e.plane][e.offset], e.value) << e.plane << ":" << e.offset;
    }
}

TEST(OsdCanvasBuild, OddSizesShortStridesAndMissingChroma) {
    // YUY2 of odd width and a tight stride (the last Cr is not in the row):
    // rows padded with a grey pixel.
    const std::vector<uint8_t> tight(641 * 2 * 3, 50);
    const KivVideoFrame yuy2 = kivtest::FrameOver(KIV_PIXEL_FORMAT_YUY2, 641, 3, tight.data(), 641 * 2);
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(yuy2), KIV_OK);
    KivVideoFrame out = canvas.Frame(yuy2);
    ASSERT_EQ(out.strides[0], 1284);
    for (int row = 0; row < 3; ++row)
        EXPECT_EQ(std::vector<int>(out.planes[0] + row * 1284 + 1281, out.planes[0] + row * 1284 + 1284),
                  (std::vector<int>{50, 128, 128}));

    // NV12 without chroma pointer or strides: chroma follows the luma rows.
    std::vector<uint8_t> buffer(6 * 3 + 6 * 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = uint8_t(i);
    KivVideoFrame nv12 = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 6, 3, buffer.data(), 0);
    nv12.timestamp = 1234;
    nv12.frameIndex = 9;
    nv12.reserved = 5;
    ASSERT_EQ(canvas.Build(nv12), KIV_OK);
    out = canvas.Frame(nv12);
    EXPECT_EQ(std::vector<int>({out.strides[0], out.strides[1], out.planes[0][17], out.planes[1][0], out.planes[1][11]}),
              std::vector<int>({6, 6, 17, 18, 29}));
    EXPECT_EQ(out.timestamp, 1234);
    EXPECT_EQ(out.frameIndex, 9u);
    EXPECT_EQ(out.reserved, 0);

    // Width 5 with strides of 4: the missing bytes are black luma, grey chroma.
    std::vector<uint8_t> luma(8, 200), chroma(4, 60);
    const KivVideoFrame shortRows = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 5, 2, luma.data(), 4, chroma.data(), 4);
    ASSERT_EQ(canvas.Build(shortRows), KIV_OK);
    out = canvas.Frame(shortRows);
    ASSERT_EQ(out.strides[1], 6);
    EXPECT_EQ(std::vector<int>({out.planes[0][3], out.planes[0][4], out.planes[0][9]}), std::vector<int>({200, 16, 16}));
    EXPECT_EQ(std::vector<int>(out.planes[1] + 3, out.planes[1] + 6), (std::vector<int>{60, 128, 128}));

    // RGB24 becomes opaque RGB32.
    OwnedFrame rgb24(KIV_PIXEL_FORMAT_RGB24, 3, 2, 0);
    for (size_t i = 0; i < rgb24.bytes.size(); ++i) rgb24.bytes[i] = uint8_t(i + 1);
    ASSERT_EQ(canvas.Build(rgb24.frame), KIV_OK);
    out = canvas.Frame(rgb24.frame);
    ASSERT_EQ(out.format, KIV_PIXEL_FORMAT_RGB32);
    for (int p = 0; p < 6; ++p)
        EXPECT_EQ(std::vector<int>(out.planes[0] + p * 4, out.planes[0] + p * 4 + 4),
                  (std::vector<int>{p * 3 + 1, p * 3 + 2, p * 3 + 3, 255}));
}

TEST(OsdCanvasBuild, RejectsEmptyAndCompressedFrames) {
    OsdCanvas canvas;
    for (int32_t compressed : {KIV_PIXEL_FORMAT_MJPG, KIV_PIXEL_FORMAT_H264}) {
        OwnedFrame f(compressed, 4, 4);
        f.frame.strides[0] = 1;
        EXPECT_EQ(canvas.Build(f.frame), KIV_ERROR_UNSUPPORTED);
    }
    OwnedFrame rgb(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    rgb.frame.width = 0;
    EXPECT_EQ(canvas.Build(rgb.frame), KIV_ERROR_INVALID_ARG);
    rgb.frame.width = 4;
    rgb.frame.planes[0] = nullptr;
    EXPECT_EQ(canvas.Build(rgb.frame), KIV_ERROR_INVALID_ARG);
    OwnedFrame nv12(KIV_PIXEL_FORMAT_NV12, 4, 4);
    nv12.frame.planes[1] = nullptr;
    EXPECT_EQ(canvas.BuildRgb32(nv12.frame), KIV_ERROR_UNSUPPORTED);
}

// BT.601 studio range in floating point, independent of the integer formulas.
void ReferenceRgb(double y, double cb, double cr, double* rgb) {
    rgb[0] = 1.164383 * (y - 16) + 1.596027 * (cr - 128);
    rgb[1] = 1.164383 * (y - 16) - 0.391762 * (cb - 128) - 0.812968 * (cr - 128);
    rgb[2] = 1.164383 * (y - 16) + 2.017232 * (cb - 128);
    for (int i = 0; i < 3; ++i) rgb[i] = std::fmin(255.0, std::fmax(0.0, rgb[i]));
}

TEST(OsdCanvasBuild, YuvToRgb32MatchesFloatingPointReference) {
    const uint8_t samples[][3] = {{82, 90, 240}, {145, 54, 34}, {16, 128, 128}, {235, 128, 128},
                                  {41, 240, 110}, {120, 100, 180}, {200, 160, 90}, {60, 128, 128}};
    // Two identical rows; odd widths cut the last pair, whose Cr is then
    // grey: with a tight YUY2 stride it is not in the row at all.
    for (int n : {8, 7}) {
        OwnedFrame yuy2(KIV_PIXEL_FORMAT_YUY2, n, 2);
        const int yuy2Stride = n * 2;
        std::vector<uint8_t> yuy2Bytes(size_t(yuy2Stride) * 2 + 2, 0), nvLuma(n * 2), nvChroma((n + 1) & ~1);
        for (int row = 0; row < 2; ++row)
            for (int i = 0; i < n; ++i) {
                const uint8_t* pair = samples[i & ~1];
                uint8_t* p = &yuy2Bytes[size_t(row) * yuy2Stride];
                p[i * 2] = samples[i][0];
                p[(i & ~1) * 2 + 1] = pair[1];
                if ((i & ~1) * 2 + 3 < yuy2Stride) p[(i & ~1) * 2 + 3] = pair[2];
                nvLuma[row * n + i] = samples[i][0];
                nvChroma[i & ~1] = pair[1];
                nvChroma[(i & ~1) + 1] = i + 1 < n || n % 2 == 0 ? pair[2] : 128;
            }
        const KivVideoFrame inputs[] = {
            kivtest::FrameOver(KIV_PIXEL_FORMAT_YUY2, n, 2, yuy2Bytes.data(), yuy2Stride),
            kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, n, 2, nvLuma.data(), n, nvChroma.data(), int32_t(nvChroma.size()))};
        for (const KivVideoFrame& in : inputs) {
            SCOPED_TRACE(testing::Message() << "format " << in.format << " width " << n);
            OsdCanvas canvas;
            ASSERT_EQ(canvas.BuildRgb32(in), KIV_OK);
            const KivVideoFrame out = canvas.Frame(in);
            ASSERT_EQ(out.format, KIV_PIXEL_FORMAT_RGB32);
            for (int row = 0; row < 2; ++row)
                for (int i = 0; i < n; ++i) {
                    const bool lone = n % 2 == 1 && i == n - 1;
                    double rgb[3];
                    ReferenceRgb(samples[i][0], samples[i & ~1][1], lone ? 128 : samples[i & ~1][2], rgb);
                    const uint8_t* px = out.planes[0] + row * out.strides[0] + i * 4;
                    EXPECT_NEAR(px[2], rgb[0], 1.5) << "pixel " << i;
                    EXPECT_NEAR(px[1], rgb[1], 1.5) << "pixel " << i;
                    EXPECT_NEAR(px[0], rgb[2], 1.5) << "pixel " << i;
                    EXPECT_EQ(px[3], 255);
                }
        }
    }
}

}  // namespace
