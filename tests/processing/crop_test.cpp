// The crop port against pattern frames whose every byte tells where it came
// from: the output must hold exactly the expected rectangle.
#include <gtest/gtest.h>

#include "kiv_video_crop.h"
#include "processing_test_helpers.h"

using proctest::BytesPerPixel;

namespace {

uint8_t Value(int plane, int row, int column) { return uint8_t(row * 31 + column * 7 + plane * 101); }

// Padded rows, so the source stride differs from the row length.
struct PatternFrame {
    std::vector<uint8_t> luma, chroma;
    KivVideoFrame frame{};
    PatternFrame(int32_t format, int32_t width, int32_t height) {
        frame = kivtest::FrameOver(format, width, height, nullptr, width * BytesPerPixel(format) + 12);
        frame.timestamp = 123456789;
        frame.frameIndex = 42;
        Fill(&luma, 0, frame.strides[0], height);
        frame.planes[0] = luma.data();
        if (format == KIV_PIXEL_FORMAT_NV12) {
            frame.strides[1] = width + 16;
            Fill(&chroma, 1, frame.strides[1], (height + 1) / 2);
            frame.planes[1] = chroma.data();
        }
    }
    static void Fill(std::vector<uint8_t>* p, int plane, int stride, int rows) {
        for (int i = 0; i < stride * rows; ++i) p->push_back(Value(plane, i / stride, i % stride));
    }
};

struct Rect {
    int x, y, w, h;
};

class CropTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override {
        KIV_DestroyPort(handle);
        KIV_EnableLog(0);
    }
    void Configure(Rect r, int enable = 1) {
        const KivVideoCropRect rect{r.x, r.y, r.w, r.h};
        ASSERT_EQ(KIV_SetVideoCropRect(handle, &rect), KIV_OK);
        ASSERT_EQ(KIV_EnableVideoCrop(handle, enable), KIV_OK);
    }
    const kivtest::CaughtFrame& Run(const KivVideoFrame& in) {
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
        // A negative origin moves to 0; an overhanging width reaches the right edge.
        {KIV_PIXEL_FORMAT_RGB32, 1920, 1080, {-10, -3, 100, 50}, {0, 0, 100, 50}},
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
        const Rect r = c.expected;
        SCOPED_TRACE(testing::Message() << "format " << c.format << " rect " << c.requested.x << "," << c.requested.y
                                        << "," << c.requested.w << "," << c.requested.h);
        Configure(c.requested);
        PatternFrame in(c.format, c.width, c.height);
        const kivtest::CaughtFrame& out = Run(in.frame);
        const int bpp = BytesPerPixel(c.format);
        ASSERT_EQ((std::vector<int64_t>{out.meta.width, out.meta.height, out.meta.strides[0], out.meta.timestamp, int64_t(out.meta.frameIndex)}),
                  (std::vector<int64_t>{r.w, r.h, r.w * bpp, 123456789, 42}));
        for (int row = 0; row < r.h; ++row)
            for (int col = 0; col < r.w * bpp; ++col)
                ASSERT_EQ(out.plane0[size_t(row) * r.w * bpp + col], Value(0, r.y + row, r.x * bpp + col)) << row << "," << col;
        if (c.format != KIV_PIXEL_FORMAT_NV12) {
            EXPECT_EQ(out.meta.planes[1], nullptr);
            continue;
        }
        ASSERT_EQ(out.meta.strides[1], r.w);
        for (int row = 0; row < r.h / 2; ++row)
            for (int col = 0; col < r.w; ++col)
                ASSERT_EQ(out.plane1[size_t(row) * r.w + col], Value(1, r.y / 2 + row, r.x + col)) << row << "," << col;
    }
    PatternFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48);  // buffers grown once are reused
    Configure({0, 0, 32, 32});
    const uint8_t* first = Run(in.frame).meta.planes[0];
    Configure({0, 0, 16, 8});
    EXPECT_EQ(Run(in.frame).meta.planes[0], first);

    // NV12 chroma not given follows a full-height luma plane in the same buffer.
    std::vector<uint8_t> buffer(32 * 16 * 3 / 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = uint8_t(i * 13 + 5);
    Configure({6, 4, 8, 6});
    const kivtest::CaughtFrame& out = Run(kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 32, 16, buffer.data(), 32));
    ASSERT_EQ(out.plane1.size(), 24u);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(out.plane1[i], buffer[32 * 16 + (2 + i / 8) * 32 + 6 + i % 8]) << i;
}

// Frames the crop cannot or need not cut go on as they came, never dropped.
TEST_F(CropTest, FramesItCannotCropPassUnchanged) {
    uint8_t payload[64] = {1, 2, 3};
    PatternFrame yuy2(KIV_PIXEL_FORMAT_YUY2, 64, 48);
    KivVideoFrame noPixels = yuy2.frame;
    noPixels.planes[0] = nullptr;
    const std::string badRect = "VideoCrop invalid rect, bypass frame 64x48 fmt=1";
    const struct {
        int enable;
        Rect rect;
        KivVideoFrame frame;
        std::string message;
    } cases[] = {
        {0, {10, 10, 20, 20}, yuy2.frame, ""},
        {1, {64, 0, 0, 0}, yuy2.frame, badRect},  // origin at the right edge
        {1, {0, 48, 0, 0}, yuy2.frame, badRect},  // at the bottom edge
        {1, {63, 0, 1, 0}, yuy2.frame, badRect},  // one YUY2 pixel is no pair
        {1, {0, 0, 8, 8}, noPixels, ""},
        {1, {0, 0, 16, 16}, kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, payload, 64), "VideoCrop unsupported format=6, bypass"},
        {1, {0, 0, 16, 16}, kivtest::FrameOver(KIV_PIXEL_FORMAT_MJPG, 640, 480, payload, 64), "VideoCrop unsupported format=5, bypass"},
        {1, {0, 0, 0, 0}, kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 0, 0, payload, 0), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Configure(c.rect, c.enable);
        auto count = [&] { return c.message.empty() ? 0 : kivtest::CountOf(kivtest::LibraryLog(), c.message); };
        const size_t before = catcher.frames.size(), messages = count();
        ASSERT_EQ(port->OnVideoFrame(&c.frame), KIV_OK);
        ASSERT_EQ(catcher.frames.size(), before + 1);
        EXPECT_EQ(catcher.frames.back().record, &c.frame);
        EXPECT_EQ(count(), messages + !c.message.empty());
    }
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
}

}  // namespace
