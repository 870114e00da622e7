// Capture media subtypes to pixel formats, with the GUIDs parsed from their
// registry spelling so the table is checked against text, not against itself.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ports/kiv_frame.h"

namespace {

uint64_t Hex(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 16); }

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" as Windows lays a GUID out.
kiv::Guid ParseGuid(const std::string& text) {
    kiv::Guid g{};
    g.data1 = uint32_t(Hex(text.substr(0, 8)));
    g.data2 = uint16_t(Hex(text.substr(9, 4)));
    g.data3 = uint16_t(Hex(text.substr(14, 4)));
    const std::string tail = text.substr(19, 4) + text.substr(24, 12);
    for (int i = 0; i < 8; ++i) g.data4[i] = uint8_t(Hex(tail.substr(size_t(i) * 2, 2)));
    return g;
}

// The GUID of a four-character code subtype.
std::string FourccGuid(const char fourcc[4]) {
    char text[40];
    const uint32_t code = uint32_t(uint8_t(fourcc[0])) | uint32_t(uint8_t(fourcc[1])) << 8 |
                          uint32_t(uint8_t(fourcc[2])) << 16 | uint32_t(uint8_t(fourcc[3])) << 24;
    std::snprintf(text, sizeof(text), "%08x-0000-0010-8000-00aa00389b71", code);
    return text;
}

}  // namespace

TEST(Subtypes, KnownSubtypesMapToTheirFormats) {
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid(FourccGuid("YUY2"))), KIV_PIXEL_FORMAT_YUY2);
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid(FourccGuid("NV12"))), KIV_PIXEL_FORMAT_NV12);
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid(FourccGuid("MJPG"))), KIV_PIXEL_FORMAT_MJPG);
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid("e436eb7d-524f-11ce-9f53-0020af0ba770")), KIV_PIXEL_FORMAT_RGB24);
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid("e436eb7e-524f-11ce-9f53-0020af0ba770")), KIV_PIXEL_FORMAT_RGB32);
    for (const char* h264 : {"H264", "h264", "AVC1", "avc1"})
        EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid(FourccGuid(h264))), KIV_PIXEL_FORMAT_H264) << h264;
    // The registry spelling of the lower-case avc1 subtype.
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid("31637661-0000-0010-8000-00aa00389b71")), KIV_PIXEL_FORMAT_H264);
}

TEST(Subtypes, EverythingElseIsNone) {
    for (const char* other : {"I420", "YV12", "UYVY", "yuy2", "mjpg", "Avc1", "HEVC", "H265"})
        EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid(FourccGuid(other))), KIV_PIXEL_FORMAT_NONE) << other;
    // RGB555/RGB565 and the all-zero GUID.
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid("e436eb7c-524f-11ce-9f53-0020af0ba770")), KIV_PIXEL_FORMAT_NONE);
    EXPECT_EQ(kiv::PixelFormatFromSubtype(ParseGuid("e436eb7b-524f-11ce-9f53-0020af0ba770")), KIV_PIXEL_FORMAT_NONE);
    EXPECT_EQ(kiv::PixelFormatFromSubtype(kiv::Guid{}), KIV_PIXEL_FORMAT_NONE);
}

TEST(Subtypes, AllSixteenBytesMustMatch) {
    const kiv::Guid yuy2 = ParseGuid(FourccGuid("YUY2"));
    for (int byte = 0; byte < 16; ++byte) {
        kiv::Guid g = yuy2;
        uint8_t* raw = byte < 4 ? reinterpret_cast<uint8_t*>(&g.data1) + byte
                     : byte < 6 ? reinterpret_cast<uint8_t*>(&g.data2) + (byte - 4)
                     : byte < 8 ? reinterpret_cast<uint8_t*>(&g.data3) + (byte - 6)
                                : &g.data4[byte - 8];
        *raw ^= 0x01;
        EXPECT_EQ(kiv::PixelFormatFromSubtype(g), KIV_PIXEL_FORMAT_NONE) << "byte " << byte;
    }
    // A FOURCC code with the RGB tail is not a FOURCC subtype.
    kiv::Guid mixed = ParseGuid("e436eb7d-524f-11ce-9f53-0020af0ba770");
    mixed.data1 = yuy2.data1;
    EXPECT_EQ(kiv::PixelFormatFromSubtype(mixed), KIV_PIXEL_FORMAT_NONE);
}
