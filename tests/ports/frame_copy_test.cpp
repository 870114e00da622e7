// Owning frame copies and the size rules, checked pixel by pixel against
// images built row by row in the test.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ports/kiv_frame.h"

namespace {

// The byte a test image holds at (plane, row, column).
uint8_t Pixel(int plane, int row, int column) { return static_cast<uint8_t>(plane * 101 + row * 17 + column * 3 + 1); }

// A plane of `rows` rows of `rowBytes` meaningful bytes laid out with
// `pitch` bytes per row (padding filled with 0xEE), stored bottom-up when
// `bottomUp` is set. Returns the pointer to the top row.
struct TestPlane {
    std::vector<uint8_t> storage;
    uint8_t* top = nullptr;
    TestPlane(int plane, int rows, int rowBytes, int pitch, bool bottomUp) : storage(size_t(rows) * size_t(pitch), 0xEE) {
        for (int r = 0; r < rows; ++r) {
            uint8_t* row = storage.data() + size_t(bottomUp ? rows - 1 - r : r) * size_t(pitch);
            for (int c = 0; c < rowBytes; ++c) row[c] = Pixel(plane, r, c);
        }
        top = bottomUp ? storage.data() + size_t(rows - 1) * size_t(pitch) : storage.data();
    }
};

// Checks `rows` rows of `rowBytes` bytes of a copied plane with its stride.
void ExpectPlane(const uint8_t* data, int32_t stride, int plane, int rows, int rowBytes) {
    ASSERT_NE(data, nullptr);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < rowBytes; ++c)
            ASSERT_EQ(data[size_t(r) * size_t(stride) + size_t(c)], Pixel(plane, r, c)) << "plane " << plane << " row " << r << " col " << c;
}

KivVideoFrame MakeFrame(int32_t format, int32_t width, int32_t height) {
    KivVideoFrame f{};
    f.format = format;
    f.width = width;
    f.height = height;
    f.reserved = 0;
    f.timestamp = 123456789;
    f.frameIndex = 42;
    return f;
}

}  // namespace

TEST(FrameSizeRules, RequiredBytesPerFormat) {
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_YUY2, 640, 480), 640 * 480 * 2);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_NV12, 640, 480), 640 * 480 * 3 / 2);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_NV12, 6, 5), 6 * 5 + 6 * 3);  // odd height: 3 chroma rows
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB24, 3, 7), 63);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB32, 3, 7), 84);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB32, 8192, 8192), int64_t(8192) * 8192 * 4);
    // Only YUY2, NV12, RGB24 and RGB32 carry rows of pixels.
    const bool expected[] = {false, false, true, true, true, true, false, false, false};  // formats -1 to 7
    for (int32_t format = -1; format <= 7; ++format) EXPECT_EQ(kiv::IsUncompressed(format), expected[format + 1]) << format;
}

TEST(FrameSizeRules, PackedLayoutSetsStridesAndChromaPlane) {
    std::vector<uint8_t> buffer(64);
    KivVideoFrame nv12 = MakeFrame(KIV_PIXEL_FORMAT_NV12, 6, 5);
    kiv::FillPackedLayout(&nv12, buffer.data());
    EXPECT_EQ(nv12.strides[0], 6);
    EXPECT_EQ(nv12.strides[1], 6);
    EXPECT_EQ(nv12.planes[1], buffer.data() + 30);
    KivVideoFrame rgb24 = MakeFrame(KIV_PIXEL_FORMAT_RGB24, 5, 2);
    kiv::FillPackedLayout(&rgb24, buffer.data());
    EXPECT_EQ(rgb24.strides[0], 15);
    EXPECT_EQ(rgb24.strides[1], 0);
    EXPECT_EQ(rgb24.planes[1], nullptr);
    KivVideoFrame yuy2 = MakeFrame(KIV_PIXEL_FORMAT_YUY2, 5, 2);
    kiv::FillPackedLayout(&yuy2, buffer.data());
    EXPECT_EQ(yuy2.strides[0], 10);
}

TEST(FrameCopy, PackedFormatsKeepPaddedRowsAndMetadata) {
    struct Case { int32_t format, bytesPerPixel; } cases[] = {{1, 2}, {3, 3}, {4, 4}};
    for (const auto& c : cases) {
        const int w = 5, h = 3, pitch = w * c.bytesPerPixel + 7;
        TestPlane plane(0, h, w * c.bytesPerPixel, pitch, false);
        KivVideoFrame f = MakeFrame(c.format, w, h);
        f.planes[0] = plane.top;
        f.strides[0] = pitch;
        f.planes[1] = plane.top;  // stray second plane: ignored for packed formats
        f.strides[1] = 9;
        kiv::FrameCopy copy;
        ASSERT_TRUE(copy.Copy(f)) << c.format;
        const KivVideoFrame& out = copy.Frame();
        EXPECT_NE(out.planes[0], plane.top);
        EXPECT_EQ(out.strides[0], pitch);
        EXPECT_EQ(out.planes[1], nullptr);
        EXPECT_EQ(out.strides[1], 0);
        EXPECT_EQ(out.timestamp, 123456789);
        EXPECT_EQ(out.frameIndex, 42u);
        EXPECT_EQ(out.format, c.format);
        ExpectPlane(out.planes[0], out.strides[0], 0, h, w * c.bytesPerPixel);
    }
}

TEST(FrameCopy, NegativeStrideBecomesTopDown) {
    const int w = 4, h = 3, rowBytes = w * 4;
    TestPlane plane(0, h, rowBytes, rowBytes, true);
    KivVideoFrame f = MakeFrame(KIV_PIXEL_FORMAT_RGB32, w, h);
    f.planes[0] = plane.top;
    f.strides[0] = -rowBytes;
    kiv::FrameCopy copy;
    ASSERT_TRUE(copy.Copy(f));
    EXPECT_EQ(copy.Frame().strides[0], rowBytes);
    ExpectPlane(copy.Frame().planes[0], rowBytes, 0, h, rowBytes);
}

TEST(FrameCopy, Nv12StridesAndPlanes) {
    const struct {
        const char* what;
        int w, h, lumaPitch, lumaStride;   // stride as given; 0 means the width
        int chromaRows, chromaStride;      // no chroma plane when chromaRows is 0
        bool chromaBottomUp;
        int32_t outStride0, outStride1;
    } cases[] = {
        {"odd height, zero chroma stride", 6, 5, 8, 8, 3, 0, false, 8, 6},
        {"zero luma stride, bottom-up chroma", 4, 3, 4, 0, 2, -4, true, 4, 4},
        {"no chroma plane: luma only", 2, 2, 2, 2, 0, 0, false, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TestPlane luma(0, c.h, c.w, c.lumaPitch, false);
        TestPlane chroma(1, c.chromaRows, c.w, c.w, c.chromaBottomUp);
        KivVideoFrame f = MakeFrame(KIV_PIXEL_FORMAT_NV12, c.w, c.h);
        f.planes[0] = luma.top;
        f.strides[0] = c.lumaStride;
        f.planes[1] = c.chromaRows ? chroma.top : nullptr;
        f.strides[1] = c.chromaStride;
        f.planes[2] = luma.top;  // planes 2 and 3 are not NV12's business
        kiv::FrameCopy copy;
        ASSERT_TRUE(copy.Copy(f));
        const KivVideoFrame& out = copy.Frame();
        EXPECT_EQ(out.strides[0], c.outStride0);
        EXPECT_EQ(out.strides[1], c.outStride1);
        EXPECT_EQ(out.planes[2], nullptr);
        ExpectPlane(out.planes[0], out.strides[0], 0, c.h, c.w);
        if (c.chromaRows) {
            ExpectPlane(out.planes[1], out.strides[1], 1, c.chromaRows, c.w);
        } else {
            EXPECT_EQ(out.planes[1], nullptr);
        }
    }
}

TEST(FrameCopy, CompressedPayloadUsesStrideAsLength) {
    std::vector<uint8_t> payload(100);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7);
    for (int32_t format : {KIV_PIXEL_FORMAT_MJPG, KIV_PIXEL_FORMAT_H264}) {
        KivVideoFrame f = MakeFrame(format, 1920, 1080);
        f.planes[0] = payload.data();
        f.strides[0] = 37;
        kiv::FrameCopy copy;
        ASSERT_TRUE(copy.Copy(f));
        EXPECT_EQ(copy.Frame().strides[0], 37);
        EXPECT_EQ(std::vector<uint8_t>(copy.Frame().planes[0], copy.Frame().planes[0] + 37),
                  std::vector<uint8_t>(payload.begin(), payload.begin() + 37));

        f.strides[0] = 0;  // an empty access unit
        EXPECT_FALSE(copy.Copy(f));
        EXPECT_TRUE(copy.Empty());
        f.strides[0] = -5;
        EXPECT_FALSE(copy.Copy(f));
    }
}

TEST(FrameCopy, NothingToCopyReportsFailure) {
    std::vector<uint8_t> bytes(64, 1);
    KivVideoFrame f = MakeFrame(KIV_PIXEL_FORMAT_RGB32, 2, 2);
    f.planes[0] = bytes.data();
    f.strides[0] = 8;
    kiv::FrameCopy copy;
    ASSERT_TRUE(copy.Copy(f));

    KivVideoFrame bad = f;
    bad.width = 0;
    EXPECT_FALSE(copy.Copy(bad));
    EXPECT_TRUE(copy.Empty());
    bad = f;
    bad.height = -3;
    EXPECT_FALSE(copy.Copy(bad));
    bad = f;
    bad.planes[0] = nullptr;
    EXPECT_FALSE(copy.Copy(bad));
    bad = f;
    bad.strides[0] = 0;
    EXPECT_FALSE(copy.Copy(bad));
    EXPECT_TRUE(copy.Empty());
}

TEST(FrameCopy, ReusesItsBuffersOnceWarm) {
    const int w = 8, h = 6;
    TestPlane luma(0, h, w, w, false);
    TestPlane chroma(1, h / 2, w, w, false);
    KivVideoFrame f = MakeFrame(KIV_PIXEL_FORMAT_NV12, w, h);
    f.planes[0] = luma.top;
    f.strides[0] = w;
    f.planes[1] = chroma.top;
    f.strides[1] = w;
    kiv::FrameCopy copy;
    ASSERT_TRUE(copy.Copy(f));
    const uint8_t* first0 = copy.Frame().planes[0];
    const uint8_t* first1 = copy.Frame().planes[1];
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(copy.Copy(f));
        EXPECT_EQ(copy.Frame().planes[0], first0);
        EXPECT_EQ(copy.Frame().planes[1], first1);
    }
    ExpectPlane(copy.Frame().planes[1], w, 1, h / 2, w);
}
