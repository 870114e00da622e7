// Owning frame copies and size rules, checked against images built row by
// row here; capture subtypes against GUIDs parsed from their registry spelling.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ports/kiv_frame.h"
#include "test_support.h"

namespace {

uint8_t Pixel(int plane, int row, int column) { return uint8_t(plane * 101 + row * 17 + column * 3 + 1); }

// `rows` rows of `rowBytes` pattern bytes, `pitch` apart (padding 0xEE),
// stored bottom-up when asked; `top` is the first row.
struct TestPlane {
    std::vector<uint8_t> storage;
    uint8_t* top;
    TestPlane(int plane, int rows, int rowBytes, int pitch, bool bottomUp = false)
        : storage(size_t(rows) * size_t(pitch), 0xEE) {
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < rowBytes; ++c) storage[size_t(bottomUp ? rows - 1 - r : r) * pitch + c] = Pixel(plane, r, c);
        top = storage.data() + (bottomUp && rows ? size_t(rows - 1) * size_t(pitch) : 0);
    }
};

void ExpectPlane(const uint8_t* data, int32_t stride, int plane, int rows, int rowBytes) {
    ASSERT_NE(data, nullptr);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < rowBytes; ++c)
            ASSERT_EQ(data[size_t(r) * size_t(stride) + size_t(c)], Pixel(plane, r, c)) << "plane " << plane << " row " << r << " col " << c;
}

KivVideoFrame MakeFrame(int32_t format, int32_t width, int32_t height, const uint8_t* plane0 = nullptr, int32_t stride0 = 0) {
    KivVideoFrame f = kivtest::FrameOver(format, width, height, plane0, stride0);
    f.timestamp = 123456789, f.frameIndex = 42;
    return f;
}

}  // namespace

TEST(FrameSizeRules, RequiredBytesUncompressedAndPackedLayout) {
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_YUY2, 640, 480), 640 * 480 * 2);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_NV12, 640, 480), 640 * 480 * 3 / 2);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_NV12, 6, 5), 6 * 5 + 6 * 3);  // odd height: 3 chroma rows
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB24, 3, 7), 63);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB32, 8192, 8192), int64_t(8192) * 8192 * 4);
    const bool expected[] = {false, false, true, true, true, true, false, false, false};  // formats -1 to 7
    const int64_t rowBytes[] = {0, 0, 10, 5, 15, 20, 0, 0, 0};                            // of 5 pixels
    for (int32_t format = -1; format <= 7; ++format) {
        EXPECT_EQ(kiv::IsUncompressed(format), expected[format + 1]) << format;
        EXPECT_EQ(kiv::PackedRowBytes(format, 5), rowBytes[format + 1]) << format;
    }
    EXPECT_EQ(kiv::PackedRowBytes(KIV_PIXEL_FORMAT_RGB32, 0), 0);
    EXPECT_EQ(kiv::PackedRowBytes(KIV_PIXEL_FORMAT_RGB32, 1 << 30), int64_t{4} << 30);
    EXPECT_TRUE(kiv::StrideHoldsRow(-15, 15) && !kiv::StrideHoldsRow(-14, 15) && !kiv::StrideHoldsRow(14, 15));

    std::vector<uint8_t> buffer(64);
    const struct {
        int32_t format, width, height, stride0, stride1;
        ptrdiff_t chroma;  // offset of plane 1, -1: none
    } cases[] = {{KIV_PIXEL_FORMAT_NV12, 6, 5, 6, 6, 30}, {KIV_PIXEL_FORMAT_RGB24, 5, 2, 15, 0, -1},
                 {KIV_PIXEL_FORMAT_YUY2, 5, 2, 10, 0, -1}};
    for (const auto& c : cases) {
        KivVideoFrame f = MakeFrame(c.format, c.width, c.height);
        kiv::FillPackedLayout(&f, buffer.data());
        EXPECT_EQ(f.strides[0], c.stride0) << c.format;
        EXPECT_EQ(f.strides[1], c.stride1) << c.format;
        EXPECT_EQ(f.planes[1], c.chroma < 0 ? nullptr : buffer.data() + c.chroma) << c.format;
    }
}

TEST(FrameCopy, PackedFormatsKeepRowsAndMetadataAndTurnBottomUp) {
    const struct {
        int32_t format, bpp, pad;
        bool bottomUp;
    } cases[] = {{1, 2, 7, false}, {3, 3, 7, false}, {4, 4, 7, false}, {4, 4, 0, true}};
    for (const auto& c : cases) {
        const int w = 5, h = 3, pitch = w * c.bpp + c.pad;
        TestPlane plane(0, h, w * c.bpp, pitch, c.bottomUp);
        KivVideoFrame f = MakeFrame(c.format, w, h, plane.top, c.bottomUp ? -pitch : pitch);
        f.planes[1] = plane.top;  // stray second plane: ignored for packed formats
        f.strides[1] = 9;
        kiv::FrameCopy copy;
        ASSERT_TRUE(copy.Copy(f)) << c.format;
        const KivVideoFrame& out = copy.Frame();
        EXPECT_TRUE(out.planes[0] != plane.top && out.planes[1] == nullptr);
        EXPECT_EQ((std::vector<int64_t>{out.strides[0], out.strides[1], out.timestamp, int64_t(out.frameIndex), out.format}),
                  (std::vector<int64_t>{pitch, 0, 123456789, 42, c.format}));
        ExpectPlane(out.planes[0], out.strides[0], 0, h, w * c.bpp);
    }
}

TEST(FrameCopy, Nv12StridesPlanesAndBufferReuse) {
    const struct {
        int w, h, lumaPitch, lumaStride;  // stride as given; 0 means the width
        int chromaRows, chromaStride;     // no chroma plane when chromaRows is 0
        int32_t outStride0, outStride1;
    } cases[] = {
        {6, 5, 8, 8, 3, 0, 8, 6},  // odd height, zero chroma stride
        {4, 3, 4, 0, 2, -4, 4, 4},  // zero luma stride, bottom-up chroma
        {2, 2, 2, 2, 0, 0, 2, 0},  // luma only
        {8, 6, 8, 8, 3, 8, 8, 8},
    };
    kiv::FrameCopy copy;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.w);
        TestPlane luma(0, c.h, c.w, c.lumaPitch), chroma(1, c.chromaRows, c.w, c.w, c.chromaStride < 0);
        KivVideoFrame f = MakeFrame(KIV_PIXEL_FORMAT_NV12, c.w, c.h, luma.top, c.lumaStride);
        f.planes[1] = c.chromaRows ? chroma.top : nullptr;
        f.strides[1] = c.chromaStride;
        f.planes[2] = luma.top;  // not NV12's business
        ASSERT_TRUE(copy.Copy(f));
        const uint8_t* first[2] = {copy.Frame().planes[0], copy.Frame().planes[1]};
        ASSERT_TRUE(copy.Copy(f));  // warm buffers are reused
        const KivVideoFrame& out = copy.Frame();
        EXPECT_TRUE(out.planes[0] == first[0] && out.planes[1] == first[1] && out.planes[2] == nullptr);
        EXPECT_EQ(std::make_pair(out.strides[0], out.strides[1]), std::make_pair(c.outStride0, c.outStride1));
        ExpectPlane(out.planes[0], out.strides[0], 0, c.h, c.w);
        EXPECT_EQ(out.planes[1] != nullptr, c.chromaRows > 0);
        if (c.chromaRows) ExpectPlane(out.planes[1], out.strides[1], 1, c.chromaRows, c.w);
    }
}

TEST(FrameCopy, CompressedPayloadsAndNothingToCopy) {
    std::vector<uint8_t> payload(100);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7);
    kiv::FrameCopy copy;
    for (int32_t format : {KIV_PIXEL_FORMAT_MJPG, KIV_PIXEL_FORMAT_H264}) {
        KivVideoFrame f = MakeFrame(format, 1920, 1080, payload.data(), 37);  // stride 0 is the length
        ASSERT_TRUE(copy.Copy(f));
        EXPECT_EQ(copy.Frame().strides[0], 37);
        EXPECT_EQ(std::vector<uint8_t>(copy.Frame().planes[0], copy.Frame().planes[0] + 37),
                  std::vector<uint8_t>(payload.begin(), payload.begin() + 37));
        for (int32_t length : {0, -5}) {
            f.strides[0] = length;
            EXPECT_FALSE(copy.Copy(f));
            EXPECT_TRUE(copy.Empty());
        }
    }
    for (const KivVideoFrame& bad : {MakeFrame(4, 0, 2, payload.data(), 8), MakeFrame(4, 2, -3, payload.data(), 8),
                                     MakeFrame(4, 2, 2, nullptr, 8), MakeFrame(4, 2, 2, payload.data(), 0)}) {
        ASSERT_TRUE(copy.Copy(MakeFrame(KIV_PIXEL_FORMAT_RGB32, 2, 2, payload.data(), 8)));
        EXPECT_FALSE(copy.Copy(bad)) << bad.width << "x" << bad.height << " " << bad.strides[0];
        EXPECT_TRUE(copy.Empty());
    }
}

namespace {

uint64_t Hex(const std::string& text, size_t at, size_t n) { return std::strtoull(text.substr(at, n).c_str(), nullptr, 16); }

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" as Windows lays a GUID out; a
// four-character code stands for its FOURCC subtype.
kiv::Guid G(std::string text) {
    if (text.size() == 4) {
        char buf[40];
        const uint32_t code = uint8_t(text[0]) | uint8_t(text[1]) << 8 | uint8_t(text[2]) << 16 | uint32_t(uint8_t(text[3])) << 24;
        std::snprintf(buf, sizeof(buf), "%08x-0000-0010-8000-00aa00389b71", code);
        text = buf;
    }
    kiv::Guid g{uint32_t(Hex(text, 0, 8)), uint16_t(Hex(text, 9, 4)), uint16_t(Hex(text, 14, 4)), {}};
    const std::string tail = text.substr(19, 4) + text.substr(24, 12);
    for (int i = 0; i < 8; ++i) g.data4[i] = uint8_t(Hex(tail, size_t(i) * 2, 2));
    return g;
}

}  // namespace

TEST(Subtypes, MapToTheirFormatsAndEveryByteCounts) {
    const struct {
        const char* guid;
        int32_t format;
    } cases[] = {
        {"YUY2", KIV_PIXEL_FORMAT_YUY2}, {"NV12", KIV_PIXEL_FORMAT_NV12}, {"MJPG", KIV_PIXEL_FORMAT_MJPG},
        {"e436eb7d-524f-11ce-9f53-0020af0ba770", KIV_PIXEL_FORMAT_RGB24},
        {"e436eb7e-524f-11ce-9f53-0020af0ba770", KIV_PIXEL_FORMAT_RGB32},
        {"H264", KIV_PIXEL_FORMAT_H264}, {"h264", KIV_PIXEL_FORMAT_H264}, {"AVC1", KIV_PIXEL_FORMAT_H264},
        {"31637661-0000-0010-8000-00aa00389b71", KIV_PIXEL_FORMAT_H264},  // avc1
        {"I420", 0}, {"YV12", 0}, {"UYVY", 0}, {"yuy2", 0}, {"mjpg", 0}, {"Avc1", 0}, {"HEVC", 0},
        {"e436eb7c-524f-11ce-9f53-0020af0ba770", 0}, {"e436eb7b-524f-11ce-9f53-0020af0ba770", 0},  // RGB555, RGB565
        {"00000000-0000-0000-0000-000000000000", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(kiv::PixelFormatFromSubtype(G(c.guid)), c.format) << c.guid;
    const kiv::Guid yuy2 = G("YUY2");
    for (int byte = 0; byte < 16; ++byte) {
        kiv::Guid g = yuy2;
        uint8_t* raw = byte < 4 ? reinterpret_cast<uint8_t*>(&g.data1) + byte
                     : byte < 6 ? reinterpret_cast<uint8_t*>(&g.data2) + (byte - 4)
                     : byte < 8 ? reinterpret_cast<uint8_t*>(&g.data3) + (byte - 6)
                                : &g.data4[byte - 8];
        *raw ^= 0x01;
        EXPECT_EQ(kiv::PixelFormatFromSubtype(g), KIV_PIXEL_FORMAT_NONE) << "byte " << byte;
    }
    kiv::Guid mixed = G("e436eb7d-524f-11ce-9f53-0020af0ba770");  // a FOURCC code with the RGB tail
    mixed.data1 = yuy2.data1;
    EXPECT_EQ(kiv::PixelFormatFromSubtype(mixed), KIV_PIXEL_FORMAT_NONE);
}
