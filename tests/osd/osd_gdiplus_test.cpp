// Text and pictures drawn by GDI+ through the exported functions: each item
// must change its own box of the frame and nothing outside it.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "osd_test_util.h"
#include "test_support.h"

using kivtest::OwnedFrame;
using kivtest::FrameCatcher;

namespace {

constexpr int kWidth = 160, kHeight = 96;

struct Box {
    int x, y, w, h;
    bool Contains(int px, int py) const { return px >= x && px < x + w && py >= y && py < y + h; }
};

class OsdGdiplusTest : public ::testing::Test {
protected:
    kivtest::LibraryScope library;
    void* source = KIV_CreateVideoFrameSource();
    void* osd = KIV_CreateVideoOsd();
    void* out = KIV_CreateVideoMux();
    FrameCatcher sink;
    OwnedFrame in{KIV_PIXEL_FORMAT_RGB32, kWidth, kHeight, 0};

    void SetUp() override {
        ASSERT_EQ(KIV_Connect(source, osd), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_OK);
        KIV_SetVideoFrameCallback(out, FrameCatcher::OnFrame, &sink);
    }
    void TearDown() override {
        KIV_Disconnect(source, osd);
        KIV_DestroyPort(source);
        KIV_DestroyPort(osd);
        KIV_DestroyPort(out);
    }
    // Pushes the black frame and returns the composited copy.
    const std::vector<uint8_t>& Composite() {
        EXPECT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
        EXPECT_EQ(sink.Count(), 1u);
        return sink.frames.back().plane0;
    }
    static const uint8_t* Pixel(const std::vector<uint8_t>& bgra, int x, int y) {
        return &bgra[(static_cast<size_t>(y) * kWidth + x) * 4];
    }
    // Counts changed pixels inside and outside the box.
    static void CountChanges(const std::vector<uint8_t>& bgra, const Box& box, int* inside, int* outside) {
        *inside = *outside = 0;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const uint8_t* p = Pixel(bgra, x, y);
                if (p[0] || p[1] || p[2]) ++(box.Contains(x, y) ? *inside : *outside);
            }
        }
    }
};

TEST_F(OsdGdiplusTest, TextChangesOnlyItsBox) {
    const Box box{20, 16, 100, 40};
    KivVideoOsdItem item = osdtest::Item(box.x, box.y, box.w, box.h);
    item.size = 28;
    item.transparent = 1;
    item.color = 0xFFFFFFFFu;
    osdtest::SetText(item.text, "HELLO WORLD WRAPS");
    // A family Wine finds through fontconfig; on Windows the fallback font is used.
    osdtest::SetText(item.fontName, "DejaVu Sans");
    ASSERT_EQ(KIV_SetVideoOsdText(osd, &item), KIV_OK);
    int inside = 0, outside = 0;
    CountChanges(Composite(), box, &inside, &outside);
    EXPECT_GT(inside, 100);            // glyphs were drawn
    EXPECT_LT(inside, box.w * box.h);  // but not a filled block
    EXPECT_EQ(outside, 0);             // wrapped text spilling below the box is clipped
}

// An unknown font still draws; the box background fills the box. A second
// overlay made and destroyed first must not take GDI+ down with it.
TEST_F(OsdGdiplusTest, TextBoxBackgroundFillsTheBoxWithAnUnknownFont) {
    ASSERT_EQ(KIV_DestroyPort(KIV_CreateVideoOsd()), KIV_OK);
    const Box box{30, 50, 60, 30};
    KivVideoOsdItem item = osdtest::Item(box.x, box.y, box.w, box.h);
    item.size = 20;
    item.color = 0xFFFFFFFFu;
    item.backColor = 0xFF0000FFu;  // opaque blue box
    osdtest::SetText(item.text, "Hi");
    osdtest::SetText(item.fontName, "No Such Font Family 123");
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    const std::vector<uint8_t>& bgra = Composite();
    int inside = 0, outside = 0;
    CountChanges(bgra, box, &inside, &outside);
    EXPECT_EQ(inside, box.w * box.h);
    EXPECT_EQ(outside, 0);
    const uint8_t* corner = Pixel(bgra, box.x + box.w - 1, box.y + box.h - 1);
    EXPECT_EQ(std::vector<int>(corner, corner + 3), (std::vector<int>{255, 0, 0}));
}

TEST_F(OsdGdiplusTest, PicturesAtTheirOwnSizeWithColourKeyScaledOrMissing) {
    const std::string dir = kivtest::TempDir("osd_gdiplus");
    // A red picture with a pure green block in its top-left 2x2.
    osdtest::WriteBmp24(dir + "/logo.bmp", 8, 4, [](int x, int y) { return x < 2 && y < 2 ? 0x00FF00u : 0xFF0000u; });
    const auto path = kivtest::Wide(dir + "/logo.bmp");
    KivVideoOsdItem item = osdtest::Item(10, 12, 0, 0);  // its own size, green keyed out
    std::copy(path.begin(), path.end(), item.imagePath);
    item.transparent = 1;
    item.backColor = 0xFF00FF00u;
    ASSERT_EQ(KIV_SetVideoOsdImage(osd, &item), KIV_OK);
    item = osdtest::Item(100, 40, 32, 16);  // scaled into the item box
    std::copy(path.begin(), path.end(), item.imagePath);
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &item), KIV_OK);
    item = osdtest::Item(0, 0, 0, 0);
    osdtest::SetText(item.imagePath, "C:\\no\\such\\picture.png");
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &item), KIV_OK);
    const std::vector<uint8_t>& bgra = Composite();

    int own = 0, scaled = 0, outside = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const uint8_t* p = Pixel(bgra, x, y);
            if (p[0] || p[1] || p[2]) ++(Box{10, 12, 8, 4}.Contains(x, y) ? own : Box{100, 40, 32, 16}.Contains(x, y) ? scaled : outside);
        }
    EXPECT_EQ(outside, 0);
    EXPECT_EQ(own, 8 * 4 - 4);  // the green corner is keyed out
    EXPECT_EQ(Pixel(bgra, 10, 12)[1], 0);
    EXPECT_EQ(std::vector<int>(Pixel(bgra, 17, 15), Pixel(bgra, 17, 15) + 3), (std::vector<int>{0, 0, 255}));
    EXPECT_GT(scaled, 32 * 16 * 3 / 4);
    EXPECT_GT(Pixel(bgra, 120, 50)[2], 200);  // red well inside the scaled picture
}

}  // namespace
