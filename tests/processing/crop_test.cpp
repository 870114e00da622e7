// The crop port against a pattern frame whose every byte tells where it came
// from: the output must hold exactly the expected rectangle.
#include <gtest/gtest.h>

#include "kiv_video_crop.h"
#include "processing_test_helpers.h"

using proctest::CaughtFrame;

namespace {

int BytesPerPixel(int32_t format) {
    return format == KIV_PIXEL_FORMAT_YUY2 ? 2 : format == KIV_PIXEL_FORMAT_RGB24 ? 3 : format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 1;
}

// Padded rows, so the source stride differs from the row length.
struct PatternFrame {
    std::vector<uint8_t> luma, chroma;
    KivVideoFrame frame{};
    static uint8_t Value(int plane, int row, int column) { return uint8_t(row * 31 + column * 7 + plane * 101); }
    PatternFrame(int32_t format, int32_t width, int32_t height) {
        frame = kivtest::FrameOver(format, width, height, nullptr, width * BytesPerPixel(format) + 12);
        frame.timestamp = 123456789;
        frame.frameIndex = 42;
        luma.resize(size_t(frame.strides[0]) * height);
        for (size_t i = 0; i < luma.size(); ++i) luma[i] = Value(0, int(i / frame.strides[0]), int(i % frame.strides[0]));
        frame.planes[0] = luma.data();
        if (format == KIV_PIXEL_FORMAT_NV12) {
            frame.strides[1] = width + 16;
            chroma.resize(size_t(frame.strides[1]) * ((height + 1) / 2));
            for (size_t i = 0; i < chroma.size(); ++i) chroma[i] = Value(1, int(i / frame.strides[1]), int(i % frame.strides[1]));
            frame.planes[1] = chroma.data();
        }
    }
};

struct Rect {
    int x, y, w, h;
};

void ExpectCropped(const CaughtFrame& out, int32_t format, Rect r) {
    const int bpp = BytesPerPixel(format);
    ASSERT_EQ(out.meta.width, r.w);
    ASSERT_EQ(out.meta.height, r.h);
    ASSERT_EQ(out.meta.strides[0], r.w * bpp);
    EXPECT_EQ(out.meta.timestamp, 123456789);
    EXPECT_EQ(out.meta.frameIndex, 42u);
    for (int row = 0; row < r.h; ++row)
        for (int col = 0; col < r.w * bpp; ++col)
            ASSERT_EQ(out.plane0[size_t(row) * r.w * bpp + col], PatternFrame::Value(0, r.y + row, r.x * bpp + col))
                << "row " << row << " byte " << col;
    if (format == KIV_PIXEL_FORMAT_NV12) {
        ASSERT_EQ(out.meta.strides[1], r.w);
        for (int row = 0; row < r.h / 2; ++row)
            for (int col = 0; col < r.w; ++col)
                ASSERT_EQ(out.plane1[size_t(row) * r.w + col], PatternFrame::Value(1, r.y / 2 + row, r.x + col));
    } else {
        EXPECT_EQ(out.meta.planes[1], nullptr);
    }
}

class CropTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override {
        KIV_DestroyPort(handle);
        KIV_EnableLog(0);
    }
    void Configure(int x, int y, int w, int h) {
        const KivVideoCropRect rect{x, y, w, h};
        ASSERT_EQ(KIV_SetVideoCropRect(handle, &rect), KIV_OK);
        ASSERT_EQ(KIV_EnableVideoCrop(handle, 1), KIV_OK);
    }
    const CaughtFrame& Run(const KivVideoFrame& in) {
        EXPECT_EQ(port->OnVideoFrame(&in), KIV_OK);
        return catcher.frames.back();
    }

    kivtest::LibraryScope library;
    void* handle = KIV_CreateVideoCrop();
    KivPortBase* port = static_cast<KivPortBase*>(handle);
    kivtest::FrameCatcher catcher{handle};
};

TEST_F(CropTest, RectanglesAreClampedExtendedAndAligned) {
    const struct {
        int32_t format;
        int width, height;
        Rect requested, expected;
    } cases[] = {
        // A zero rectangle is the whole frame, copied with tight rows.
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {0, 0, 0, 0}, {0, 0, 64, 48}},
        {KIV_PIXEL_FORMAT_NV12, 64, 48, {0, 0, 0, 0}, {0, 0, 64, 48}},
        {KIV_PIXEL_FORMAT_RGB24, 64, 48, {0, 0, 0, 0}, {0, 0, 64, 48}},
        {KIV_PIXEL_FORMAT_RGB32, 64, 48, {0, 0, 0, 0}, {0, 0, 64, 48}},
        // A negative origin moves to 0 and keeps a size that then fits.
        {KIV_PIXEL_FORMAT_RGB32, 1920, 1080, {-10, -3, 100, 50}, {0, 0, 100, 50}},
        // An overhanging width reaches to the right edge from the origin.
        {KIV_PIXEL_FORMAT_RGB24, 1920, 1080, {100, 0, 2000, 0}, {100, 0, 1820, 1080}},
        // Exactly touching the right and bottom edges is kept.
        {KIV_PIXEL_FORMAT_RGB32, 64, 48, {60, 40, 4, 8}, {60, 40, 4, 8}},
        {KIV_PIXEL_FORMAT_RGB24, 64, 48, {63, 47, 1, 1}, {63, 47, 1, 1}},
        // YUY2 pairs pixels: x and w round down to even, rows stay as asked.
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {3, 1, 5, 3}, {2, 1, 4, 3}},
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {61, 0, 0, 0}, {60, 0, 2, 48}},
        // NV12 aligns all four; chroma starts at row y / 2.
        {KIV_PIXEL_FORMAT_NV12, 64, 48, {4, 5, 6, 7}, {4, 4, 6, 6}},
        {KIV_PIXEL_FORMAT_NV12, 64, 48, {3, 3, 0, 0}, {2, 2, 60, 44}},
        {KIV_PIXEL_FORMAT_NV12, 64, 48, {0, 46, 64, 2}, {0, 46, 64, 2}},
        // The width is worked out before x is aligned: one pixel short of the edge.
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {5, 0, 100, 0}, {4, 0, 58, 48}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "format " << c.format << " rect " << c.requested.x << "," << c.requested.y
                                        << "," << c.requested.w << "," << c.requested.h);
        Configure(c.requested.x, c.requested.y, c.requested.w, c.requested.h);
        PatternFrame in(c.format, c.width, c.height);
        ExpectCropped(Run(in.frame), c.format, c.expected);
    }
    // Buffers grown once are reused for smaller and equal crops.
    PatternFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48);
    Configure(0, 0, 32, 32);
    const uint8_t* first = Run(in.frame).meta.planes[0];
    Configure(0, 0, 16, 8);
    EXPECT_EQ(Run(in.frame).meta.planes[0], first);
}

// Frames the crop cannot or need not cut go on as they came, never dropped.
TEST_F(CropTest, FramesItCannotCropPassUnchanged) {
    uint8_t payload[64] = {1, 2, 3};
    PatternFrame yuy2(KIV_PIXEL_FORMAT_YUY2, 64, 48);
    KivVideoFrame noPixels = yuy2.frame;
    noPixels.planes[0] = nullptr;
    const struct {
        const char* what;
        bool enable;
        Rect rect;
        KivVideoFrame frame;
        const char* message;
    } cases[] = {
        {"disabled", false, {10, 10, 20, 20}, yuy2.frame, nullptr},
        {"origin at the right edge", true, {64, 0, 0, 0}, yuy2.frame, "VideoCrop invalid rect, bypass frame 64x48 fmt=1"},
        {"origin at the bottom edge", true, {0, 48, 0, 0}, yuy2.frame, "VideoCrop invalid rect, bypass frame 64x48 fmt=1"},
        {"one YUY2 pixel is no pair", true, {63, 0, 1, 0}, yuy2.frame, "VideoCrop invalid rect, bypass frame 64x48 fmt=1"},
        {"no pixel data", true, {0, 0, 8, 8}, noPixels, nullptr},
        {"H.264", true, {0, 0, 16, 16}, kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, payload, 64),
         "VideoCrop unsupported format=6, bypass"},
        {"MJPG", true, {0, 0, 16, 16}, kivtest::FrameOver(KIV_PIXEL_FORMAT_MJPG, 640, 480, payload, 64),
         "VideoCrop unsupported format=5, bypass"},
        {"empty frame", true, {0, 0, 0, 0}, kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 0, 0, payload, 0), nullptr},
    };
    for (const auto& c : cases) {
        Configure(c.rect.x, c.rect.y, c.rect.w, c.rect.h);
        if (!c.enable) {
            ASSERT_EQ(KIV_EnableVideoCrop(handle, 0), KIV_OK);
        }
        const size_t before = catcher.frames.size();
        const size_t messages = c.message ? kivtest::CountOf(kivtest::LibraryLog(), c.message) : 0;
        ASSERT_EQ(port->OnVideoFrame(&c.frame), KIV_OK);
        ASSERT_EQ(catcher.frames.size(), before + 1) << c.what;
        EXPECT_EQ(catcher.frames.back().record, &c.frame) << c.what;
        if (c.message) {
            EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), c.message), messages + 1) << c.what;
        }
    }
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
}

TEST_F(CropTest, Nv12ChromaFollowsTheLumaPlaneWhenNotGiven) {
    // One buffer: a full-height luma plane directly followed by chroma.
    const int w = 32, h = 16;
    std::vector<uint8_t> buffer(size_t(w) * h * 3 / 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = uint8_t(i * 13 + 5);
    Configure(6, 4, 8, 6);
    const CaughtFrame& out = Run(kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, w, h, buffer.data(), w));
    ASSERT_EQ(out.plane1.size(), 24u);
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 8; ++col)
            EXPECT_EQ(out.plane1[size_t(row) * 8 + col], buffer[size_t(w) * h + (2 + row) * w + 6 + col]);
}

}  // namespace
