#include <gtest/gtest.h>

#include "kiv_video_crop.h"
#include "processing_test_helpers.h"

using proctest::CaughtFrame;
using proctest::FrameCatcher;

namespace {

int BytesPerPixel(int32_t format) {
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: return 2;
        case KIV_PIXEL_FORMAT_RGB24: return 3;
        case KIV_PIXEL_FORMAT_RGB32: return 4;
        default: return 1;  // NV12 luma
    }
}

// A frame whose every byte tells where it came from, with padded rows so
// that the source stride differs from the row length.
struct PatternFrame {
    std::vector<uint8_t> luma, chroma;
    KivVideoFrame frame{};
    static uint8_t Value(int plane, int row, int column) {
        return static_cast<uint8_t>(row * 31 + column * 7 + plane * 101);
    }
    PatternFrame(int32_t format, int32_t width, int32_t height, int32_t padding = 12) {
        frame.format = format;
        frame.width = width;
        frame.height = height;
        frame.timestamp = 123456789;
        frame.frameIndex = 42;
        const int32_t stride = width * BytesPerPixel(format) + padding;
        luma.resize(static_cast<size_t>(stride) * height);
        for (int r = 0; r < height; ++r)
            for (int c = 0; c < stride; ++c) luma[static_cast<size_t>(r) * stride + c] = Value(0, r, c);
        frame.planes[0] = luma.data();
        frame.strides[0] = stride;
        if (format == KIV_PIXEL_FORMAT_NV12) {
            const int32_t chromaStride = width + padding + 4;
            chroma.resize(static_cast<size_t>(chromaStride) * ((height + 1) / 2));
            for (int r = 0; r < (height + 1) / 2; ++r)
                for (int c = 0; c < chromaStride; ++c) chroma[static_cast<size_t>(r) * chromaStride + c] = Value(1, r, c);
            frame.planes[1] = chroma.data();
            frame.strides[1] = chromaStride;
        }
    }
};

struct Rect {
    int x, y, w, h;
};

// Checks that `out` holds exactly the rectangle `r` of the pattern frame.
void ExpectCropped(const CaughtFrame& out, int32_t format, Rect r) {
    const int bpp = BytesPerPixel(format);
    ASSERT_EQ(out.meta.width, r.w);
    ASSERT_EQ(out.meta.height, r.h);
    ASSERT_EQ(out.meta.format, format);
    ASSERT_EQ(out.meta.strides[0], r.w * bpp);
    EXPECT_EQ(out.meta.timestamp, 123456789);
    EXPECT_EQ(out.meta.frameIndex, 42u);
    EXPECT_EQ(out.meta.planes[2], nullptr);
    EXPECT_EQ(out.meta.planes[3], nullptr);
    EXPECT_EQ(out.meta.strides[2], 0);
    for (int row = 0; row < r.h; ++row) {
        for (int col = 0; col < r.w * bpp; ++col) {
            ASSERT_EQ(out.plane0[static_cast<size_t>(row) * r.w * bpp + col],
                      PatternFrame::Value(0, r.y + row, r.x * bpp + col))
                << "row " << row << " byte " << col;
        }
    }
    if (format == KIV_PIXEL_FORMAT_NV12) {
        ASSERT_EQ(out.meta.strides[1], r.w);
        ASSERT_NE(out.meta.planes[1], nullptr);
        for (int row = 0; row < r.h / 2; ++row)
            for (int col = 0; col < r.w; ++col)
                ASSERT_EQ(out.plane1[static_cast<size_t>(row) * r.w + col], PatternFrame::Value(1, r.y / 2 + row, r.x + col));
    } else {
        EXPECT_EQ(out.meta.planes[1], nullptr);
        EXPECT_EQ(out.meta.strides[1], 0);
    }
}

class CropTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        handle = KIV_CreateVideoCrop();
        ASSERT_NE(handle, nullptr);
        port = static_cast<KivPortBase*>(handle);
        catcher = std::make_unique<FrameCatcher>(port);
    }
    void TearDown() override {
        KIV_DestroyPort(handle);
        KIV_EnableLog(0);
    }
    void Configure(int x, int y, int w, int h) {
        const KivVideoCropRect rect{x, y, w, h};
        ASSERT_EQ(KIV_SetVideoCropRect(handle, &rect), KIV_OK);
        ASSERT_EQ(KIV_EnableVideoCrop(handle, 1), KIV_OK);
    }
    const CaughtFrame& Run(const PatternFrame& in) {
        EXPECT_EQ(port->OnVideoFrame(&in.frame), KIV_OK);
        return catcher->frames.back();
    }

    kivtest::LibraryScope library;
    void* handle = nullptr;
    KivPortBase* port = nullptr;
    std::unique_ptr<FrameCatcher> catcher;
};

TEST_F(CropTest, DisabledPortPassesFramesUnchangedAndLogsNothing) {
    const KivVideoCropRect rect{10, 10, 20, 20};
    ASSERT_EQ(KIV_SetVideoCropRect(handle, &rect), KIV_OK);
    PatternFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48);
    const CaughtFrame& out = Run(in);
    EXPECT_EQ(out.originalPlane0, in.luma.data());
    EXPECT_EQ(out.meta.width, 64);
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "bypass"), 0u);
}

struct RectCase {
    int32_t format;
    int width, height;
    Rect requested;
    Rect expected;
};

TEST_F(CropTest, RectanglesAreClampedExtendedAndAligned) {
    const RectCase cases[] = {
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
        // The width is worked out before x is aligned, so the rectangle can
        // end one pixel short of the edge.
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {5, 0, 100, 0}, {4, 0, 58, 48}},
    };
    for (const RectCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "format " << c.format << " rect " << c.requested.x << "," << c.requested.y
                                        << "," << c.requested.w << "," << c.requested.h);
        Configure(c.requested.x, c.requested.y, c.requested.w, c.requested.h);
        PatternFrame in(c.format, c.width, c.height);
        const CaughtFrame& out = Run(in);
        EXPECT_NE(out.originalPlane0, in.luma.data());
        ExpectCropped(out, c.format, c.expected);
    }
}

TEST_F(CropTest, RectanglesOutsideTheFrameOrTooNarrowPassTheFrameWithAMessage) {
    const Rect bad[] = {{64, 0, 0, 0}, {0, 48, 0, 0}, {1000, 1000, 5, 5}, {63, 0, 1, 0}};
    for (const Rect& r : bad) {
        Configure(r.x, r.y, r.w, r.h);
        PatternFrame in(KIV_PIXEL_FORMAT_YUY2, 64, 48);
        const CaughtFrame& out = Run(in);
        EXPECT_EQ(out.originalPlane0, in.luma.data());
        EXPECT_EQ(out.meta.width, 64);
    }
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "VideoCrop invalid rect, bypass frame 64x48 fmt=1"), 4u);

    PatternFrame empty(KIV_PIXEL_FORMAT_RGB32, 0, 0);
    Configure(0, 0, 0, 0);
    EXPECT_EQ(Run(empty).originalPlane0, empty.luma.data());
}

TEST_F(CropTest, Nv12ChromaFollowsTheLumaPlaneWhenNotGiven) {
    // One buffer: a full-height luma plane directly followed by chroma.
    const int w = 32, h = 16;
    std::vector<uint8_t> buffer(static_cast<size_t>(w) * h * 3 / 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<uint8_t>(i * 13 + 5);
    const KivVideoFrame in = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, w, h, buffer.data(), w);
    Configure(6, 4, 8, 6);
    ASSERT_EQ(port->OnVideoFrame(&in), KIV_OK);
    const CaughtFrame& out = catcher->frames.back();
    ASSERT_EQ(out.meta.width, 8);
    ASSERT_EQ(out.meta.height, 6);
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 8; ++col)
            EXPECT_EQ(out.plane1[static_cast<size_t>(row) * 8 + col], buffer[static_cast<size_t>(w) * h + (2 + row) * w + 6 + col]);
}

TEST_F(CropTest, CompressedFramesPassWithAMessage) {
    Configure(0, 0, 16, 16);
    uint8_t payload[64] = {1, 2, 3};
    KivVideoFrame in = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, payload, sizeof payload);
    ASSERT_EQ(port->OnVideoFrame(&in), KIV_OK);
    EXPECT_EQ(catcher->frames.back().originalPlane0, payload);
    in.format = KIV_PIXEL_FORMAT_MJPG;
    ASSERT_EQ(port->OnVideoFrame(&in), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "VideoCrop unsupported format=6, bypass"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "VideoCrop unsupported format=5, bypass"), 1u);
}

TEST_F(CropTest, SettersLogTheirValuesAndNullFramesAreRejected) {
    Configure(-1, 2, 3, -4);
    ASSERT_EQ(KIV_EnableVideoCrop(handle, 7), KIV_OK);
    ASSERT_EQ(KIV_EnableVideoCrop(handle, 0), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    EXPECT_NE(log.find("VideoCrop set rect x=-1 y=2 w=3 h=-4"), std::string::npos);
    EXPECT_EQ(kivtest::CountOf(log, "VideoCrop enable=1"), 2u);
    EXPECT_EQ(kivtest::CountOf(log, "VideoCrop enable=0"), 1u);
    EXPECT_NE(log.find("kiv_video_crop.cpp:"), std::string::npos);
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
}

TEST_F(CropTest, BuffersAreReusedOnceGrown) {
    Configure(0, 0, 32, 32);
    PatternFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48);
    const uint8_t* first = Run(in).meta.planes[0];
    Configure(0, 0, 16, 8);
    EXPECT_EQ(Run(in).meta.planes[0], first);
    Configure(0, 0, 32, 32);
    EXPECT_EQ(Run(in).meta.planes[0], first);
}

}  // namespace
