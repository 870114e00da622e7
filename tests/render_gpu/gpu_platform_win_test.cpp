// The Windows side of the render port's GPU features, run under Wine in the
// cross builds: WIC snapshot files and GDI text. The recorder's platform path
// runs through the exported interface in gpu_render_win_test.cpp.
#include <gtest/gtest.h>

#include <windows.h>

#include <objbase.h>

#include <thread>

#include "render/gpu_osd_canvas.h"
#include "render/snapshot_image.h"
#include "test_support.h"

namespace {

class GpuPlatformTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override { KIV_EnableLog(0); }
    std::string dir = kivtest::TempDir("render_gpu_win");
};

// Pixel checks of snapshot files are made against real windows
// (gpu_render_win_test.cpp); here the apartment and failure rules.
TEST_F(GpuPlatformTest, SnapshotFilesFromAnyApartmentAndTheFailurePath) {
    const uint8_t px[2 * 2 * 4] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const std::string jpg = dir + "/shot.jpg";
    int32_t result = -99;
    std::thread sta([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        result = kiv::SaveSnapshotImage(kivtest::Wide(jpg).c_str(), kiv::kSnapshotJpeg, px, 2, 2, 8);
        CoUninitialize();
    });
    sta.join();
    EXPECT_EQ(result, KIV_OK);
    EXPECT_EQ(kivtest::ReadFile(jpg).substr(0, 2), "\xFF\xD8");  // a JPEG start marker
    EXPECT_NE(kivtest::LibraryLog().find("Snapshot saved path=" + jpg + " size=2x2 fmt=2"), std::string::npos);

    const std::string bad = dir + "/no/such/folder/x.bmp";
    EXPECT_EQ(kiv::SaveSnapshotImage(kivtest::Wide(bad).c_str(), 1, px, 2, 2, 8), KIV_ERROR_FAILED);
    EXPECT_NE(kivtest::LibraryLog().find("Snapshot save failed hr=0x"), std::string::npos);
}

TEST_F(GpuPlatformTest, GdiTextDrawsOnItsBoxOrOnBlack) {
    auto raster = kiv::CreateGpuOsdRasterizer();
    ASSERT_TRUE(raster);
    KivVideoOsdItem record{};
    record.visible = 1, record.width = 80, record.height = 30, record.size = 22;
    record.color = 0xFFFFFFFF, record.backColor = 0xFF0000FF;  // on a blue box
    const auto text = kivtest::Wide("Hg");
    std::copy(text.begin(), text.end(), record.text);
    for (int transparent : {0, 1}) {
        record.transparent = transparent;
        kiv::OsdItem item = kiv::OsdItemFromRecord(record, kiv::kOsdText);
        kiv::GpuOsdBitmap bitmap;
        ASSERT_TRUE(raster->RenderText(item, &bitmap));
        ASSERT_EQ(bitmap.width * 100 + bitmap.height, 8030);
        const uint8_t* corner = bitmap.pixels.data();
        EXPECT_EQ(std::vector<int>({corner[0], corner[1], corner[2]}),
                  transparent ? std::vector<int>({0, 0, 0}) : std::vector<int>({255, 0, 0}));
        // Text pixels: bright in every channel, in the left part (the text is left-aligned and short).
        int bright = 0, brightRight = 0;
        for (int y = 0; y < 30; ++y) {
            for (int x = 0; x < 80; ++x) {
                const uint8_t* p = &bitmap.pixels[(y * 80 + x) * 4];
                if (p[0] > 200 && p[1] > 200 && p[2] > 200) x < 40 ? ++bright : ++brightRight;
            }
        }
        EXPECT_GT(bright, 10) << transparent;
        EXPECT_EQ(brightRight, 0) << transparent;
    }
    kiv::GpuOsdBitmap none;
    EXPECT_FALSE(raster->DecodePicture(kivtest::Wide(dir + "/missing.png"), &none));
}

}  // namespace
