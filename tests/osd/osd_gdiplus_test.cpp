// Text and pictures drawn by GDI+ through the exported functions: each item changes its own box of the frame and
// nothing outside it.
#include <gtest/gtest.h>

#include "osd_test_util.h"
#include "test_support.h"

namespace {

constexpr int kWidth = 160, kHeight = 96;

struct Box {
    int x, y, w, h;
};

class OsdGdiplusTest : public ::testing::Test {
protected:
    kivtest::LibraryScope library;
    void *source = KIV_CreateVideoFrameSource(), *osd = KIV_CreateVideoOsd(), *out = KIV_CreateVideoMux();
    kivtest::FrameCatcher sink;
    std::vector<uint8_t> bgra;

    void TearDown() override {
        KIV_Disconnect(source, osd);
        for (void* port : {source, osd, out}) KIV_DestroyPort(port);
    }
    // Pushes a black frame through source -> overlay; counts the changed pixels in each box, then outside all.
    std::vector<int> Composite(const std::vector<Box>& boxes) {
        EXPECT_EQ(KIV_Connect(source, osd), KIV_OK);
        EXPECT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_OK);
        KIV_SetVideoFrameCallback(out, kivtest::FrameCatcher::OnFrame, &sink);
        kivtest::OwnedFrame in{KIV_PIXEL_FORMAT_RGB32, kWidth, kHeight, 0};
        EXPECT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
        bgra = sink.Count() == 1 ? sink.frames[0].plane0 : std::vector<uint8_t>(kWidth * kHeight * 4, 0xFF);
        std::vector<int> changed(boxes.size() + 1, 0);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                size_t b = 0;
                while (b < boxes.size() && !(x >= boxes[b].x && x < boxes[b].x + boxes[b].w && y >= boxes[b].y && y < boxes[b].y + boxes[b].h)) ++b;
                changed[b] += Pixel(x, y)[0] || Pixel(x, y)[1] || Pixel(x, y)[2];
            }
        return changed;
    }
    const uint8_t* Pixel(int x, int y) const { return &bgra[(size_t(y) * kWidth + x) * 4]; }
};

// Wrapped text spilling below its box is clipped; an unknown font still draws, and the box background fills the
// box. A second overlay made and destroyed first must not take GDI+ down with it.
TEST_F(OsdGdiplusTest, TextChangesOnlyItsBox) {
    ASSERT_EQ(KIV_DestroyPort(KIV_CreateVideoOsd()), KIV_OK);
    const Box glyphs{20, 6, 100, 40}, filled{30, 56, 60, 30};
    KivVideoOsdItem item = osdtest::Item(glyphs.x, glyphs.y, glyphs.w, glyphs.h);
    item.size = 28, item.transparent = 1, item.color = 0xFFFFFFFFu;
    osdtest::SetText(item.text, "HELLO WORLD WRAPS");
    osdtest::SetText(item.fontName, "DejaVu Sans");  // a family Wine finds through fontconfig; Windows uses the fallback font
    ASSERT_EQ(KIV_SetVideoOsdText(osd, &item), KIV_OK);
    item = osdtest::Item(filled.x, filled.y, filled.w, filled.h);
    item.size = 20, item.color = 0xFFFFFFFFu, item.backColor = 0xFF0000FFu;  // opaque blue box
    osdtest::SetText(item.text, "Hi");
    osdtest::SetText(item.fontName, "No Such Font Family 123");
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    const std::vector<int> changed = Composite({glyphs, filled});
    EXPECT_TRUE(changed[0] > 100 && changed[0] < glyphs.w * glyphs.h) << changed[0];  // glyphs, not a filled block
    EXPECT_EQ(std::vector<int>({changed[1], changed[2]}), std::vector<int>({filled.w * filled.h, 0}));
    const uint8_t* corner = Pixel(filled.x + filled.w - 1, filled.y + filled.h - 1);
    EXPECT_EQ(std::vector<int>(corner, corner + 3), (std::vector<int>{255, 0, 0}));
}

// At its own size with green keyed out, scaled into the item box, and a missing file drawing nothing.
TEST_F(OsdGdiplusTest, PicturesAtTheirOwnSizeWithColourKeyScaledOrMissing) {
    const std::string dir = kivtest::TempDir("osd_gdiplus");
    osdtest::WriteBmp24(dir + "/logo.bmp", 8, 4, [](int x, int y) { return x < 2 && y < 2 ? 0x00FF00u : 0xFF0000u; });
    const auto path = kivtest::Wide(dir + "/logo.bmp");
    const Box boxes[] = {{10, 12, 0, 0}, {100, 40, 32, 16}, {0, 0, 0, 0}};
    for (const Box& b : boxes) {
        KivVideoOsdItem item = osdtest::Item(b.x, b.y, b.w, b.h);
        std::copy(path.begin(), path.end(), item.imagePath);
        if (&b == boxes) item.transparent = 1, item.backColor = 0xFF00FF00u;
        if (&b == boxes + 2) osdtest::SetText(item.imagePath, "C:\\no\\such\\picture.png");
        ASSERT_EQ(KIV_AddVideoOsdImage(osd, &item), KIV_OK);
    }
    const std::vector<int> changed = Composite({{10, 12, 8, 4}, {100, 40, 32, 16}});
    EXPECT_EQ(std::vector<int>({changed[0], changed[2], Pixel(10, 12)[1]}), std::vector<int>({8 * 4 - 4, 0, 0}));  // the green corner keyed out
    EXPECT_GT(changed[1], 32 * 16 * 3 / 4);
    EXPECT_EQ(std::vector<int>(Pixel(17, 15), Pixel(17, 15) + 3), (std::vector<int>{0, 0, 255}));
    EXPECT_GT(Pixel(120, 50)[2], 200);  // red well inside the scaled picture
}

}  // namespace
