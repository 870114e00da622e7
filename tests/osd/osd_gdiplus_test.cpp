// Text and pictures drawn by GDI+ through the exported functions: each item changes its own box of the frame and
// nothing outside it.
#include <gtest/gtest.h>

#include <tuple>

#include "osd_test_util.h"

namespace {

// Wrapped text spilling below its box is clipped; an unknown font still draws, with its box background; a picture
// at its own size with green keyed out, one scaled into its box, and a missing file that draws nothing. A second
// overlay made and destroyed first must not take GDI+ down with it.
TEST(OsdGdiplus, TextAndPicturesChangeOnlyTheirBoxes) {
    constexpr int kWidth = 160, kHeight = 96;
    kivtest::LibraryScope library;
    ASSERT_EQ(KIV_DestroyPort(KIV_CreateVideoOsd()), KIV_OK);
    void *source = KIV_CreateVideoFrameSource(), *osd = KIV_CreateVideoOsd(), *out = KIV_CreateVideoMux();
    const std::string dir = kivtest::TempDir("osd_gdiplus");
    osdtest::WriteBmp24(dir + "/logo.bmp", 8, 4, [](int x, int y) { return x < 2 && y < 2 ? 0x00FF00u : 0xFF0000u; });  // red, green corner
    const auto path = kivtest::Wide(dir + "/logo.bmp");
    const struct {
        int x, y, w, h;
    } boxes[] = {{20, 6, 100, 40}, {30, 56, 60, 30}, {10, 12, 8, 4}, {120, 60, 32, 16}};  // glyphs, filled, keyed, scaled
    KivVideoOsdItem item = osdtest::Item(20, 6, 100, 40);
    item.size = 28, item.transparent = 1, item.color = 0xFFFFFFFFu;
    osdtest::SetText(item.text, "HELLO WORLD WRAPS");
    osdtest::SetText(item.fontName, "DejaVu Sans");  // a family Wine finds through fontconfig; Windows uses the fallback font
    ASSERT_EQ(KIV_SetVideoOsdText(osd, &item), KIV_OK);
    item = osdtest::Item(30, 56, 60, 30);
    item.size = 20, item.color = 0xFFFFFFFFu, item.backColor = 0xFF0000FFu;  // opaque blue box
    osdtest::SetText(item.text, "Hi");
    osdtest::SetText(item.fontName, "No Such Font Family 123");
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    item = osdtest::Item(10, 12, 0, 0);  // its own size
    std::copy(path.begin(), path.end(), item.imagePath);
    item.transparent = 1, item.backColor = 0xFF00FF00u;
    ASSERT_EQ(KIV_SetVideoOsdImage(osd, &item), KIV_OK);
    item.x = 120, item.y = 60, item.width = 32, item.height = 16, item.transparent = 0;  // the same picture, scaled
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &item), KIV_OK);
    item = osdtest::Item(0, 0, 0, 0);
    osdtest::SetText(item.imagePath, "C:\\no\\such\\picture.png");
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &item), KIV_OK);
    kivtest::FrameCatcher sink;
    ASSERT_EQ(KIV_Connect(source, osd), KIV_OK);
    ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_OK);
    KIV_SetVideoFrameCallback(out, kivtest::FrameCatcher::OnFrame, &sink);
    kivtest::OwnedFrame in{KIV_PIXEL_FORMAT_RGB32, kWidth, kHeight, 0};
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    ASSERT_EQ(sink.Count(), 1u);
    const std::vector<uint8_t>& bgra = sink.frames[0].plane0;
    auto pixel = [&](int x, int y) { return &bgra[(size_t(y) * kWidth + x) * 4]; };
    std::vector<int> changed(std::size(boxes) + 1, 0);  // changed pixels in each box, then outside all
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            size_t b = 0;
            while (b < std::size(boxes) && !(x >= boxes[b].x && x < boxes[b].x + boxes[b].w && y >= boxes[b].y && y < boxes[b].y + boxes[b].h)) ++b;
            changed[b] += pixel(x, y)[0] || pixel(x, y)[1] || pixel(x, y)[2];
        }
    EXPECT_TRUE(changed[0] > 100 && changed[0] < 100 * 40) << changed[0];  // glyphs, not a filled block
    EXPECT_GT(changed[3], 32 * 16 * 3 / 4);
    EXPECT_EQ(std::vector<int>({changed[1], changed[2], changed[4], pixel(10, 12)[1]}), std::vector<int>({60 * 30, 8 * 4 - 4, 0, 0}));
    for (auto [x, y, bgr] : {std::make_tuple(89, 85, 0xFF), {17, 15, 0xFF0000}})  // the blue box's corner, the picture's red
        EXPECT_EQ(pixel(x, y)[0] | pixel(x, y)[1] << 8 | pixel(x, y)[2] << 16, bgr) << x << "," << y;
    EXPECT_GT(pixel(136, 68)[2], 200);  // red well inside the scaled picture
    KIV_Disconnect(source, osd);
    for (void* port : {source, osd, out}) KIV_DestroyPort(port);
}

}  // namespace
