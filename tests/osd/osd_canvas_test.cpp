// Canvas building and the blend primitive, checked against pixel values
// worked out by hand from the BT.601 studio-range integer formulas.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "processing/osd_canvas.h"
#include "test_support.h"

using kiv::OsdCanvas;
using kivtest::OwnedFrame;

namespace {

const uint8_t* Plane(const KivVideoFrame& f, int i) { return f.planes[i]; }

TEST(OsdBlend, OpaqueWhiteOnNv12GivesStudioWhite) {
    OwnedFrame in(KIV_PIXEL_FORMAT_NV12, 8, 6, 77);
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
    canvas.BlendPixel(3, 3, 255, 255, 255, 255, 1.0f);
    const KivVideoFrame out = canvas.Frame(in.frame);
    EXPECT_EQ(Plane(out, 0)[3 * 8 + 3], 235);
    EXPECT_EQ(Plane(out, 0)[3 * 8 + 2], 77);   // neighbour untouched
    EXPECT_EQ(Plane(out, 1)[1 * 8 + 2], 128);  // Cb of the pair
    EXPECT_EQ(Plane(out, 1)[1 * 8 + 3], 128);  // Cr of the pair
    EXPECT_EQ(Plane(out, 1)[1 * 8 + 4], 77);   // next pair untouched
}

TEST(OsdBlend, HalfOpaqueRedOnNv12) {
    OwnedFrame in(KIV_PIXEL_FORMAT_NV12, 4, 4, 100);
    std::fill(in.bytes.begin() + 16, in.bytes.end(), 128);  // neutral chroma
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
    // Red is Y 82, Cb 90, Cr 240; half way from (100, 128, 128) rounds to 91, 109, 184.
    canvas.BlendPixel(0, 0, 0, 0, 255, 255, 0.5f);
    const KivVideoFrame out = canvas.Frame(in.frame);
    EXPECT_EQ(Plane(out, 0)[0], 91);
    EXPECT_EQ(Plane(out, 1)[0], 109);
    EXPECT_EQ(Plane(out, 1)[1], 184);
    // The second pixel of the 2x2 block blends the shared chroma again.
    canvas.BlendPixel(1, 1, 0, 0, 255, 255, 0.5f);
    EXPECT_EQ(Plane(out, 0)[5], 91);
    EXPECT_EQ(Plane(out, 1)[0], 100);  // 109 x 0.5 + 90 x 0.5 + 0.5
    EXPECT_EQ(Plane(out, 1)[1], 212);  // 184 x 0.5 + 240 x 0.5 + 0.5
}

TEST(OsdBlend, Rgb32RoundingAndAlpha) {
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 4, 2, 0);
    in.bytes[0] = 10;  // blue of pixel (0, 0)
    in.bytes[4] = 100;
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
    const KivVideoFrame out = canvas.Frame(in.frame);
    canvas.BlendPixel(0, 0, 250, 3, 1, 255, 0.25f);  // 10 x .75 + 250 x .25 + .5 = 70.5
    EXPECT_EQ(out.planes[0][0], 70);
    EXPECT_EQ(out.planes[0][1], 1);  // 0 + 0.75 + 0.5 = 1.25
    EXPECT_EQ(out.planes[0][2], 0);  // 0.25 + 0.5
    EXPECT_EQ(out.planes[0][3], 255);
    canvas.BlendPixel(1, 0, 201, 3, 1, 255, 0.5f);  // item alpha at half
    EXPECT_EQ(out.planes[0][4], 151);               // 50 + 100.5 + 0.5
    EXPECT_EQ(out.planes[0][5], 2);                 // 1.5 + 0.5 rounds half up
    EXPECT_EQ(out.planes[0][6], 1);
    // Zero weight and out-of-canvas pixels change nothing, not even alpha.
    canvas.BlendPixel(2, 0, 255, 255, 255, 0, 1.0f);
    canvas.BlendPixel(2, 0, 255, 255, 255, 255, 0.0f);
    canvas.BlendPixel(-1, 0, 255, 255, 255, 255, 1.0f);
    canvas.BlendPixel(4, 0, 255, 255, 255, 255, 1.0f);
    canvas.BlendPixel(0, 2, 255, 255, 255, 255, 1.0f);
    EXPECT_EQ(out.planes[0][8], 0);
    EXPECT_EQ(out.planes[0][11], 0);
    EXPECT_EQ(out.planes[0][4 * 4 + 0], 0);  // row 1 untouched
}

TEST(OsdBlend, Yuy2OddAndEvenPixels) {
    OwnedFrame in(KIV_PIXEL_FORMAT_YUY2, 4, 1, 128);
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
    const KivVideoFrame out = canvas.Frame(in.frame);
    canvas.BlendPixel(3, 0, 0, 0, 255, 255, 1.0f);  // opaque red on the odd pixel of the second pair
    EXPECT_EQ(out.planes[0][4], 128);  // Y0 of the pair untouched
    EXPECT_EQ(out.planes[0][5], 90);
    EXPECT_EQ(out.planes[0][6], 82);
    EXPECT_EQ(out.planes[0][7], 240);
    canvas.BlendPixel(0, 0, 255, 255, 255, 255, 1.0f);
    EXPECT_EQ(out.planes[0][0], 235);
    EXPECT_EQ(out.planes[0][2], 128);
}

TEST(OsdCanvasBuild, Yuy2OddWidthPadsRowsWithGrey) {
    OwnedFrame in(KIV_PIXEL_FORMAT_YUY2, 641, 3, 50);
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
    const KivVideoFrame out = canvas.Frame(in.frame);
    EXPECT_EQ(out.format, KIV_PIXEL_FORMAT_YUY2);
    ASSERT_EQ(out.strides[0], 1284);
    for (int row = 0; row < 3; ++row) {
        EXPECT_EQ(out.planes[0][row * 1284 + 1281], 50);
        EXPECT_EQ(out.planes[0][row * 1284 + 1282], 128);
        EXPECT_EQ(out.planes[0][row * 1284 + 1283], 128);
    }
    EXPECT_EQ(out.planes[1], nullptr);
}

TEST(OsdCanvasBuild, Nv12WithoutChromaPointerOrStrides) {
    // Luma rows of 6 bytes each, then chroma directly after the luma plane.
    const int w = 6, h = 3;
    std::vector<uint8_t> buffer(w * h + w * 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<uint8_t>(i);
    KivVideoFrame in = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, w, h, buffer.data(), 0);
    in.timestamp = 1234;
    in.frameIndex = 9;
    in.reserved = 5;
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in), KIV_OK);
    const KivVideoFrame out = canvas.Frame(in);
    EXPECT_EQ(out.strides[0], 6);
    EXPECT_EQ(out.strides[1], 6);
    EXPECT_EQ(out.planes[0][17], 17);
    EXPECT_EQ(out.planes[1][0], 18);
    EXPECT_EQ(out.planes[1][11], 29);
    EXPECT_EQ(out.timestamp, 1234);
    EXPECT_EQ(out.frameIndex, 9u);
    EXPECT_EQ(out.reserved, 0);
}

TEST(OsdCanvasBuild, Nv12ShortStridesArePaddedBlack) {
    // Width 5: the chroma rows are 6 bytes on the canvas, the source gives 4.
    const int w = 5, h = 2;
    std::vector<uint8_t> luma(4 * h, 200), chroma(4, 60);
    const KivVideoFrame in = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, w, h, luma.data(), 4, chroma.data(), 4);
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in), KIV_OK);
    const KivVideoFrame out = canvas.Frame(in);
    ASSERT_EQ(out.strides[0], 5);
    ASSERT_EQ(out.strides[1], 6);
    EXPECT_EQ(out.planes[0][3], 200);
    EXPECT_EQ(out.planes[0][4], 16);
    EXPECT_EQ(out.planes[0][9], 16);
    EXPECT_EQ(out.planes[1][3], 60);
    EXPECT_EQ(out.planes[1][4], 128);
    EXPECT_EQ(out.planes[1][5], 128);
}

TEST(OsdCanvasBuild, Rgb24BecomesOpaqueRgb32) {
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB24, 3, 2, 0);
    for (size_t i = 0; i < in.bytes.size(); ++i) in.bytes[i] = static_cast<uint8_t>(i + 1);
    OsdCanvas canvas;
    ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
    const KivVideoFrame out = canvas.Frame(in.frame);
    ASSERT_EQ(out.format, KIV_PIXEL_FORMAT_RGB32);
    ASSERT_EQ(out.strides[0], 12);
    for (int p = 0; p < 6; ++p) {
        EXPECT_EQ(out.planes[0][p * 4 + 0], p * 3 + 1);
        EXPECT_EQ(out.planes[0][p * 4 + 1], p * 3 + 2);
        EXPECT_EQ(out.planes[0][p * 4 + 2], p * 3 + 3);
        EXPECT_EQ(out.planes[0][p * 4 + 3], 255);
    }
}

TEST(OsdCanvasBuild, RejectsEmptyAndCompressedFrames) {
    OsdCanvas canvas;
    OwnedFrame mjpg(KIV_PIXEL_FORMAT_MJPG, 4, 4);
    mjpg.frame.strides[0] = 1;
    EXPECT_EQ(canvas.Build(mjpg.frame), KIV_ERROR_UNSUPPORTED);
    OwnedFrame h264(KIV_PIXEL_FORMAT_H264, 4, 4);
    h264.frame.strides[0] = 1;
    EXPECT_EQ(canvas.Build(h264.frame), KIV_ERROR_UNSUPPORTED);
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

// Reference BT.601 studio-range conversion in floating point, independent of
// the integer formulas.
void ReferenceRgb(double y, double cb, double cr, double* rgb) {
    rgb[0] = 1.164383 * (y - 16) + 1.596027 * (cr - 128);
    rgb[1] = 1.164383 * (y - 16) - 0.391762 * (cb - 128) - 0.812968 * (cr - 128);
    rgb[2] = 1.164383 * (y - 16) + 2.017232 * (cb - 128);
    for (int i = 0; i < 3; ++i) rgb[i] = std::fmin(255.0, std::fmax(0.0, rgb[i]));
}

TEST(OsdCanvasBuild, YuvToRgb32MatchesFloatingPointReference) {
    const uint8_t samples[][3] = {{16, 128, 128}, {235, 128, 128}, {82, 90, 240}, {145, 54, 34},
                                  {41, 240, 110}, {120, 100, 180}, {200, 160, 90}, {60, 128, 128}};
    const int n = 8;
    OwnedFrame yuy2(KIV_PIXEL_FORMAT_YUY2, n, 1);
    std::vector<uint8_t> nvLuma(n * 2), nvChroma(n);
    for (int i = 0; i < n; ++i) {
        // Each YUY2 pair shares its chroma: give both pixels the same sample.
        const uint8_t* s = samples[i / 2 * 2];
        yuy2.bytes[i * 2] = samples[i][0];
        yuy2.bytes[(i & ~1) * 2 + 1] = s[1];
        yuy2.bytes[(i & ~1) * 2 + 3] = s[2];
        nvLuma[i] = samples[i][0];
        nvLuma[n + i] = samples[i][0];
        nvChroma[i & ~1] = s[1];
        nvChroma[(i & ~1) + 1] = s[2];
    }
    const KivVideoFrame nv12 = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, n, 2, nvLuma.data(), n, nvChroma.data(), n);

    const KivVideoFrame* inputs[] = {&yuy2.frame, &nv12};
    for (const KivVideoFrame* in : inputs) {
        OsdCanvas canvas;
        ASSERT_EQ(canvas.BuildRgb32(*in), KIV_OK);
        const KivVideoFrame out = canvas.Frame(*in);
        ASSERT_EQ(out.format, KIV_PIXEL_FORMAT_RGB32);
        for (int i = 0; i < n; ++i) {
            const uint8_t* s = samples[i / 2 * 2];
            double rgb[3];
            ReferenceRgb(samples[i][0], s[1], s[2], rgb);
            const uint8_t* px = out.planes[0] + (out.height - 1) * out.strides[0] + i * 4;
            EXPECT_NEAR(px[2], rgb[0], 1.5) << "pixel " << i;
            EXPECT_NEAR(px[1], rgb[1], 1.5) << "pixel " << i;
            EXPECT_NEAR(px[0], rgb[2], 1.5) << "pixel " << i;
            EXPECT_EQ(px[3], 255);
        }
    }
}

}  // namespace
