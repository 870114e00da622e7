// The GPU stages drawing into real windows under Wine's Direct3D 11: the LUT
// against the CPU colour engine, the overlay against its composed canvas,
// snapshots against the window's pixels, and the recorder's platform path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "processing_test_helpers.h"
#include "render/gpu_osd_canvas.h"
#include "render/gpu_osd_items.h"
#include "render/snapshot_image.h"
#include "test_support.h"
#include "test_window_win.h"

namespace {

constexpr int kW = 64, kH = 48;

// The library's LUT sampled in float on the GPU and the colour engine's 8-bit
// integer lookup round differently; three steps of 1/255 cover it.
constexpr int kLutTolerance = 3;

std::vector<uint8_t> Pattern() {
    std::vector<uint8_t> px(kW * kH * 4, 255);
    for (int i = 0; i < kW * kH; ++i) {
        const int x = i % kW, y = i / kW;
        px[i * 4] = static_cast<uint8_t>(x * 4), px[i * 4 + 1] = static_cast<uint8_t>(y * 5);
        px[i * 4 + 2] = static_cast<uint8_t>((x + y) * 2);
    }
    return px;
}

// Largest channel difference between the window and tight BGR(A) pixels.
int WorstDifference(const std::vector<uint8_t>& shown, const std::vector<uint8_t>& want, int wantBytesPerPixel,
                    std::string* where) {
    int worst = 0;
    for (int i = 0; i < kW * kH; ++i) {
        for (int c = 0; c < 3; ++c) {
            const int d = std::abs(shown[i * 4 + c] - want[i * wantBytesPerPixel + c]);
            if (d <= worst) continue;
            worst = d;
            char text[96];
            std::snprintf(text, sizeof text, "x=%d y=%d channel=%d shown=%d want=%d", i % kW, i / kW, c, shown[i * 4 + c],
                          want[i * wantBytesPerPixel + c]);
            *where = text;
        }
    }
    return worst;
}

// Pixels of a 24-bit BMP, read by hand: bottom-up rows padded to 4 bytes.
std::vector<uint8_t> ReadBmp24(const std::string& bytes) {
    if (bytes.size() < 54 || bytes[0] != 'B' || bytes[1] != 'M') return {};
    int32_t offset = 0, w = 0, h = 0;
    std::memcpy(&offset, bytes.data() + 10, 4);
    std::memcpy(&w, bytes.data() + 18, 4);
    std::memcpy(&h, bytes.data() + 22, 4);
    if (w != kW || std::abs(h) != kH) return {};
    const size_t stride = (kW * 3 + 3) & ~3;
    std::vector<uint8_t> out(kW * kH * 3);
    for (int y = 0; y < kH; ++y) {
        const size_t row = offset + stride * (h > 0 ? kH - 1 - y : y);
        if (row + kW * 3 > bytes.size()) return {};
        std::memcpy(&out[y * kW * 3], bytes.data() + row, kW * 3);
    }
    return out;
}

class GpuRenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        render = KIV_CreateVideoRender(window.Handle());
        source = KIV_CreateVideoFrameSource();
        ASSERT_EQ(KIV_Connect(source, render), KIV_OK);
    }
    void TearDown() override {
        KIV_Disconnect(source, render);
        KIV_DestroyPort(source);
        KIV_DestroyPort(render);
        KIV_EnableLog(0);
    }
    // Pushes the frame until the window matches (at most two seconds: a
    // present may be skipped while the GPU is busy); the worst difference.
    int Show(const std::vector<uint8_t>& frame, const std::vector<uint8_t>& want, int bpp, int tolerance,
             std::string* where) {
        const KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, kW, kH, frame.data(), kW * 4);
        int worst = 255;
        for (int attempt = 0; attempt < 40 && worst > tolerance; ++attempt) {
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            rendertest::PumpMessages();
            Sleep(attempt == 0 ? 0 : 50);
            worst = WorstDifference(Shown(), want, bpp, where);
        }
        return worst;
    }
    std::vector<uint8_t> Shown() {
        int w = 0, h = 0;
        std::vector<uint8_t> px = window.Read(&w, &h);
        return w == kW && h == kH ? px : std::vector<uint8_t>(kW * kH * 4, 0);
    }
    kivtest::LibraryScope library;
    rendertest::TestWindow window{kW, kH};
    void* render = nullptr;
    void* source = nullptr;
    std::string dir = kivtest::TempDir("gpu_render");
};

TEST_F(GpuRenderTest, LutGradesLikeTheColourEngineAndSnapshotsReadTheFinalTexture) {
    const std::vector<uint8_t> frame = Pattern();
    const std::string cube = dir + "/grade.cube";
    kivtest::WriteFile(cube, proctest::CubeText(17, [](float r, float g, float b, float* o) {
                           o[0] = g, o[1] = b * b, o[2] = 1.0f - 0.5f * r;
                       }));

    // The CPU colour engine's result for the same cube and strength.
    void* engine = KIV_CreateVideoColorEngine();
    void* engineSource = KIV_CreateVideoFrameSource();
    ASSERT_EQ(KIV_Connect(engineSource, engine), KIV_OK);
    kivtest::FrameCatcher caught(engine);
    const KivVideoColorEngineConfig engineConfig{0, 1, 0, 1, 1, 0.75f};
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(engine, &engineConfig), KIV_OK);
    ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(engine, kivtest::Wide(cube).c_str()), KIV_OK);
    const KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, kW, kH, frame.data(), kW * 4);
    ASSERT_EQ(KIV_PushVideoFrame(engineSource, &f), KIV_OK);
    ASSERT_EQ(caught.Count(), 1u);
    const std::vector<uint8_t> graded = caught.frames[0].plane0;
    KIV_Disconnect(engineSource, engine);
    KIV_DestroyPort(engineSource);
    KIV_DestroyPort(engine);

    ASSERT_EQ(KIV_LoadVideoRenderCubeFile(render, kivtest::Wide(cube).c_str()), KIV_OK);
    const KivVideoRenderLutConfig config{1, 1, 0, 1, 1, 0.75f};
    ASSERT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_OK);
    std::string where;
    const int worst = Show(frame, graded, 4, kLutTolerance, &where);
    EXPECT_LE(worst, kLutTolerance) << where;
    std::printf("GPU LUT against the colour engine: largest difference %d (%s)\n", worst, where.c_str());

    // With the LUT on, the snapshot comes from the final texture: the BMP
    // holds exactly what the window shows.
    const std::string bmp = dir + "/gpu.bmp";
    ASSERT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(bmp).c_str(), 1), KIV_OK);
    const std::vector<uint8_t> file = ReadBmp24(kivtest::ReadFile(bmp));
    ASSERT_FALSE(file.empty());
    EXPECT_EQ(WorstDifference(Shown(), file, 3, &where), 0) << where;
    EXPECT_NE(kivtest::LibraryLog().find("Snapshot uses GPU FinalFrame size=64x48"), std::string::npos);
}

TEST_F(GpuRenderTest, OverlayItemsAppearWhereAndHowTheySay) {
    const std::vector<uint8_t> grey(kW * kH * 4, 128);
    KivVideoOsdItem red{};
    red.id = 1, red.visible = 1, red.layer = 2, red.x = 4, red.y = 4, red.width = 20, red.height = 16;
    red.color = 0xFFFF0000;
    KivVideoOsdItem green = red;
    green.id = 2, green.layer = 1, green.x = 10, green.y = 8, green.width = 30, green.height = 20, green.size = 5;
    green.color = 0x0000FF00, green.opacity = 0.5f;  // plain RGB counts as opaque colour
    KivVideoOsdItem text = red;
    text.id = 3, text.layer = 3, text.x = 28, text.y = 26, text.width = 34, text.height = 20, text.size = 18;
    text.transparent = 1, text.color = 0xFFFFFFFF;
    kivtest::Wide("Hi").copy(text.text, 2);
    // A picture file of 4 x 4 pixels drawn at 8 x 8.
    std::vector<uint8_t> picture(4 * 4 * 4, 0);
    for (int i = 0; i < 16; ++i) picture[i * 4 + (i % 3)] = 255;
    const std::string picturePath = dir + "/p.bmp";
    ASSERT_EQ(kiv::SaveSnapshotImage(kivtest::Wide(picturePath).c_str(), 1, picture.data(), 4, 4, 16), KIV_OK);
    KivVideoOsdItem image = red;
    image.id = 4, image.x = 52, image.y = 2, image.width = 8, image.height = 8;
    kivtest::Wide(picturePath).copy(image.imagePath, picturePath.size());

    ASSERT_EQ(KIV_AddVideoRenderGpuOsdRect(render, &red), KIV_OK);
    ASSERT_EQ(KIV_AddVideoRenderGpuOsdRect(render, &green), KIV_OK);
    ASSERT_EQ(KIV_AddVideoRenderGpuOsdText(render, &text), KIV_OK);
    ASSERT_EQ(KIV_AddVideoRenderGpuOsdImage(render, &image), KIV_OK);

    // Expected: the canvas (checked bit for bit in the native tests) blended
    // over the frame as the GPU does, colour * alpha + frame * (1 - alpha).
    auto expected = [&](const std::vector<KivVideoOsdItem*>& records, const std::vector<int>& kinds) {
        std::vector<kiv::OsdItem> items;
        for (size_t i = 0; i < records.size(); ++i) items.push_back(kiv::GpuOsdItemFromRecord(*records[i], kinds[i]));
        auto raster = kiv::CreateGpuOsdRasterizer();
        kiv::GpuOsdBitmap canvas;
        kiv::ComposeGpuOsdCanvas(items, kW, kH, raster.get(), &canvas);
        std::vector<uint8_t> out(kW * kH * 3);
        for (int i = 0; i < kW * kH; ++i) {
            const double a = canvas.pixels[i * 4 + 3] / 255.0;
            for (int c = 0; c < 3; ++c) out[i * 3 + c] = static_cast<uint8_t>(canvas.pixels[i * 4 + c] * a + 128 * (1 - a) + 0.5);
        }
        return out;
    };
    std::string where;
    const std::vector<uint8_t> want =
        expected({&red, &green, &text, &image}, {kiv::kOsdRect, kiv::kOsdRect, kiv::kOsdText, kiv::kOsdPicture});
    EXPECT_LE(Show(grey, want, 3, 2, &where), 2) << where;
    const std::vector<uint8_t> shown = Shown();
    auto at = [&](int x, int y) {
        const uint8_t* p = &shown[(y * kW + x) * 4];
        return std::vector<int>({p[2], p[1], p[0]});
    };
    EXPECT_EQ(at(5, 5), std::vector<int>({255, 0, 0}));   // red on top of green
    EXPECT_EQ(at(30, 10), std::vector<int>({64, 128, 64}));  // half green, darkened
    EXPECT_EQ(at(40, 40), std::vector<int>({128, 128, 128}));
    EXPECT_EQ(at(53, 3), std::vector<int>({0, 0, 255}));  // first picture pixel: blue
    int textPixels = 0;
    for (int y = 26; y < 46; ++y)
        for (int x = 28; x < 62; ++x) textPixels += at(x, y)[0] > 200 && at(x, y)[1] > 200;
    EXPECT_GT(textPixels, 10);

    // Removing the red rectangle and changing the text show at the next frames.
    ASSERT_EQ(KIV_RemoveVideoRenderGpuOsdItem(render, 1), KIV_OK);
    ASSERT_EQ(KIV_UpdateVideoRenderGpuOsdText(render, 3, kivtest::Wide("--").c_str()), KIV_OK);
    kivtest::Wide("--").copy(text.text, 2);
    const std::vector<uint8_t> after =
        expected({&green, &text, &image}, {kiv::kOsdRect, kiv::kOsdText, kiv::kOsdPicture});
    EXPECT_LE(Show(grey, after, 3, 2, &where), 2) << where;
    ASSERT_EQ(KIV_ClearVideoRenderGpuOsd(render), KIV_OK);
    EXPECT_LE(Show(grey, std::vector<uint8_t>(kW * kH * 4, 128), 4, 0, &where), 0) << where;
}

// ffmpeg runs on the host, so the snapshots and the window's pixels are left
// in KIV_SNAPSHOT_CHECK_DIR for kiv_render_gpu_snapshot_check, which decodes
// them with ffmpeg and compares (BMP exactly, JPEG by PSNR).
TEST_F(GpuRenderTest, CpuSnapshotsMatchTheWindow) {
    const std::vector<uint8_t> frame = Pattern();
    std::string where;
    ASSERT_EQ(Show(frame, frame, 4, 0, &where), 0) << where;
    std::string checkDir = "Z:";
    for (char c : std::string(KIV_SNAPSHOT_CHECK_DIR)) checkDir += c == '/' ? '\\' : c;
    const std::string bmp = checkDir + "\\cpu.bmp", jpg = checkDir + "\\cpu.jpg";
    ASSERT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(bmp).c_str(), 1), KIV_OK);
    ASSERT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(jpg).c_str(), 2), KIV_OK);
    const std::vector<uint8_t> file = ReadBmp24(kivtest::ReadFile(bmp));
    ASSERT_FALSE(file.empty());
    const std::vector<uint8_t> shown = Shown();
    EXPECT_EQ(WorstDifference(shown, file, 3, &where), 0) << where;
    ASSERT_TRUE(kivtest::WriteFile(checkDir + "\\window.bgra", std::string(shown.begin(), shown.end())));
}

// Wine has no sink writer: the recorder stays armed, every final frame tries
// to set up and fails with the call's result, and stopping is clean.
TEST_F(GpuRenderTest, GpuRecordingReportsWhatThePlatformAllows) {
    KivGpuRecordConfig request{};
    const auto file = kivtest::Wide(dir + "/final.mp4");
    std::copy(file.begin(), file.end(), request.file);
    request.bitrate = 2000000;
    ASSERT_EQ(KIV_StartVideoRenderGpuRecord(render, &request), KIV_OK);
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 1);
    const std::vector<uint8_t> frame = Pattern();
    const KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, kW, kH, frame.data(), kW * 4);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
    EXPECT_EQ(KIV_StopVideoRenderGpuRecord(render), KIV_OK);
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 0);
    const std::string log = kivtest::LibraryLog();
    if (log.find("GPU recorder initialized") == std::string::npos) {
        EXPECT_EQ(kivtest::CountOf(log, "GPU recorder create sink writer failed hr=0x"), 3u) << log;
    } else {
        EXPECT_GT(kivtest::ReadFile(dir + "/final.mp4").size(), 0u);
    }
    EXPECT_NE(log.find("GPU FinalFrame recorder stopped"), std::string::npos);
}

}  // namespace
