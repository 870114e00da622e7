// The GPU stages under Wine: GDI text, and real windows drawn by Wine's
// Direct3D 11: the LUT against the CPU colour engine, the overlay against its
// composed canvas, snapshots against the window's pixels, and the recorder's
// platform path.
#include <gtest/gtest.h>

#include <objbase.h>

#include <thread>

#include "processing_test_helpers.h"
#include "render/gpu_osd_canvas.h"
#include "render/gpu_osd_items.h"
#include "render/snapshot_image.h"
#include "test_support.h"
#include "test_window_win.h"

namespace {

constexpr int kW = 64, kH = 48;

// A gradient over the whole BGRA frame.
std::vector<uint8_t> Pattern() {
    std::vector<uint8_t> px(kW * kH * 4, 255);
    for (int i = 0; i < kW * kH; ++i) {
        const int x = i % kW, y = i / kW;
        px[i * 4] = static_cast<uint8_t>(x * 4), px[i * 4 + 1] = static_cast<uint8_t>(y * 5), px[i * 4 + 2] = static_cast<uint8_t>((x + y) * 2);
    }
    return px;
}

class GpuWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        render = KIV_CreateVideoRender(window.Handle());
        ASSERT_EQ(KIV_Connect(source, render), KIV_OK);
    }
    void TearDown() override {
        KIV_Disconnect(source, render);
        KIV_DestroyPort(source);
        KIV_DestroyPort(render);
        KIV_EnableLog(0);
    }
    // Pushes the BGRA frame until the window shows `want` (tight, bpp bytes a pixel) within the tolerance.
    int Show(const std::vector<uint8_t>& frame, std::vector<uint8_t> want, int bpp, int tolerance) {
        const KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, kW, kH, frame.data(), kW * 4);
        return rendertest::PushUntilShown(source, f, window, {std::move(want)}, bpp, tolerance, &where);
    }
    std::vector<uint8_t> Shown() {
        int w = 0, h = 0;
        return window.Read(&w, &h);
    }
    // ffmpeg runs on the host: snapshots and the window's pixels are left in KIV_SNAPSHOT_CHECK_DIR for
    // kiv_render_gpu_snapshot_check, which decodes and compares them.
    std::string CheckFile(const std::string& name) {
        std::string path = "Z:";
        for (char c : std::string(KIV_SNAPSHOT_CHECK_DIR) + "/" + name) path += c == '/' ? '\\' : c;
        return path;
    }
    void SaveShown(const std::string& name) {
        const std::vector<uint8_t> shown = Shown();
        ASSERT_TRUE(kivtest::WriteFile(CheckFile(name), std::string(shown.begin(), shown.end())));
    }
    kivtest::LibraryScope library;
    rendertest::TestWindow window{kW, kH};
    void* render = nullptr;
    void* source = KIV_CreateVideoFrameSource();
    std::string dir = kivtest::TempDir("gpu_window"), where;
};

TEST_F(GpuWindowTest, LutGradesLikeTheColourEngineAndSnapshotsReadTheFinalTexture) {
    const std::vector<uint8_t> frame = Pattern();
    const std::string cube = dir + "/grade.cube";
    kivtest::WriteFile(cube, proctest::CubeText(17, [](float r, float g, float b, float* o) { o[0] = g, o[1] = b * b, o[2] = 1.0f - 0.5f * r; }));
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
    KIV_Disconnect(engineSource, engine);
    KIV_DestroyPort(engineSource);
    KIV_DestroyPort(engine);

    ASSERT_EQ(KIV_LoadVideoRenderCubeFile(render, kivtest::Wide(cube).c_str()), KIV_OK);
    const KivVideoRenderLutConfig config{1, 1, 0, 1, 1, 0.75f};
    ASSERT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_OK);
    // The GPU samples the LUT in float, the colour engine looks up in 8-bit integers: three steps of 1/255 cover it.
    const int worst = Show(frame, caught.frames[0].plane0, 4, 3);
    EXPECT_LE(worst, 3) << where;
    std::printf("GPU LUT against the colour engine: largest difference %d (%s)\n", worst, where.c_str());
    // With the LUT on, the snapshot comes from the final texture.
    ASSERT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(CheckFile("gpu.bmp")).c_str(), 1), KIV_OK);
    SaveShown("gpu.bgra");
    EXPECT_NE(kivtest::LibraryLog().find("Snapshot uses GPU FinalFrame size=64x48"), std::string::npos);
}

TEST_F(GpuWindowTest, OverlayItemsAppearWhereAndHowTheySay) {
    const std::vector<uint8_t> grey(kW * kH * 4, 128);
    KivVideoOsdItem red{};
    red.id = 1, red.visible = 1, red.layer = 2, red.x = 4, red.y = 4, red.width = 20, red.height = 16, red.color = 0xFFFF0000;
    KivVideoOsdItem green = red, text = red, image = red;
    green.id = 2, green.layer = 1, green.x = 10, green.y = 8, green.width = 30, green.height = 20, green.size = 5;
    green.color = 0x0000FF00, green.opacity = 0.5f;  // plain RGB counts as opaque colour
    text.id = 3, text.layer = 3, text.x = 28, text.y = 26, text.width = 34, text.height = 20, text.size = 18;
    text.transparent = 1, text.color = 0xFFFFFFFF;
    kivtest::Wide("Hi").copy(text.text, 2);
    KivVideoOsdItem boxed = text;  // GDI text on its own blue box
    boxed.id = 5, boxed.x = 2, boxed.y = 30, boxed.width = 24, boxed.height = 16, boxed.transparent = 0, boxed.backColor = 0xFF0000FF;
    // A picture file of 4 x 4 pixels drawn at 8 x 8.
    std::vector<uint8_t> picture(4 * 4 * 4, 0);
    for (int i = 0; i < 16; ++i) picture[i * 4 + (i % 3)] = 255;
    const std::string picturePath = dir + "/p.bmp";
    ASSERT_EQ(kiv::SaveSnapshotImage(kivtest::Wide(picturePath).c_str(), 1, picture.data(), 4, 4, 16), KIV_OK);
    image.id = 4, image.x = 52, image.y = 2, image.width = 8, image.height = 8;
    kivtest::Wide(picturePath).copy(image.imagePath, picturePath.size());
    using Items = std::vector<std::pair<const KivVideoOsdItem*, int>>;
    const Items all = {{&red, kiv::kOsdRect}, {&green, kiv::kOsdRect}, {&text, kiv::kOsdText}, {&image, kiv::kOsdPicture}, {&boxed, kiv::kOsdText}};
    for (const auto& r : all) {
        auto add = r.second == kiv::kOsdRect   ? KIV_AddVideoRenderGpuOsdRect
                   : r.second == kiv::kOsdText ? KIV_AddVideoRenderGpuOsdText
                                               : KIV_AddVideoRenderGpuOsdImage;
        ASSERT_EQ(add(render, r.first), KIV_OK);
    }
    // Expected: the canvas (checked bit for bit natively) blended over the frame as the GPU does,
    // colour * alpha + frame * (1 - alpha).
    auto expected = [&](const Items& records) {
        std::vector<kiv::OsdItem> items;
        for (const auto& r : records) items.push_back(kiv::GpuOsdItemFromRecord(*r.first, r.second));
        kiv::GpuOsdBitmap canvas;
        kiv::ComposeGpuOsdCanvas(items, kW, kH, kiv::CreateGpuOsdRasterizer().get(), &canvas);
        std::vector<uint8_t> out(kW * kH * 3);
        for (int i = 0; i < kW * kH * 3; ++i) {
            const double a = canvas.pixels[i / 3 * 4 + 3] / 255.0;
            out[i] = static_cast<uint8_t>(canvas.pixels[i / 3 * 4 + i % 3] * a + 128 * (1 - a) + 0.5);
        }
        return out;
    };
    EXPECT_LE(Show(grey, expected(all), 3, 2), 2) << where;
    const std::vector<uint8_t> shown = Shown();
    auto at = [&](int x, int y) { return std::vector<int>({shown[(y * kW + x) * 4 + 2], shown[(y * kW + x) * 4 + 1], shown[(y * kW + x) * 4]}); };
    EXPECT_EQ(at(5, 5), std::vector<int>({255, 0, 0}));      // red on top of green
    EXPECT_EQ(at(30, 10), std::vector<int>({64, 128, 64}));  // half green, darkened
    EXPECT_EQ(at(40, 40), std::vector<int>({128, 128, 128}));
    EXPECT_EQ(at(53, 3), std::vector<int>({0, 0, 255}));  // first picture pixel: blue
    EXPECT_EQ(at(2, 30), std::vector<int>({0, 0, 255}));  // the text box's corner
    int textPixels = 0;
    for (int i = 0; i < 34 * 20; ++i) textPixels += at(28 + i % 34, 26 + i / 34)[0] > 200 && at(28 + i % 34, 26 + i / 34)[1] > 200;
    EXPECT_GT(textPixels, 10);
    // Removing the red rectangle and changing the text show at the next frames; a clear leaves the frame alone.
    ASSERT_EQ(KIV_RemoveVideoRenderGpuOsdItem(render, 1), KIV_OK);
    ASSERT_EQ(KIV_UpdateVideoRenderGpuOsdText(render, 3, kivtest::Wide("--").c_str()), KIV_OK);
    kivtest::Wide("--").copy(text.text, 2);
    EXPECT_LE(Show(grey, expected(Items(all.begin() + 1, all.end())), 3, 2), 2) << where;
    ASSERT_EQ(KIV_ClearVideoRenderGpuOsd(render), KIV_OK);
    EXPECT_EQ(Show(grey, grey, 4, 0), 0) << where;
}

TEST_F(GpuWindowTest, CpuSnapshotsFromAnyApartmentAndTheFailurePath) {
    const std::vector<uint8_t> frame = Pattern();
    ASSERT_EQ(Show(frame, frame, 4, 0), 0) << where;
    const std::string jpg = CheckFile("cpu.jpg"), missing = dir + "/no/such/folder/x.bmp";
    ASSERT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(CheckFile("cpu.bmp")).c_str(), 1), KIV_OK);
    SaveShown("cpu.bgra");
    int32_t result = -99;
    std::thread sta([&] {  // the JPEG from a single-threaded apartment
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        result = KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(jpg).c_str(), 2);
        CoUninitialize();
    });
    sta.join();
    EXPECT_EQ(result, KIV_OK);
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(missing).c_str(), 1), KIV_ERROR_FAILED);
    const std::string log = kivtest::LibraryLog();
    EXPECT_NE(log.find("Snapshot saved path=" + jpg + " size=64x48 fmt=2"), std::string::npos);
    EXPECT_NE(log.find("Snapshot save failed hr=0x"), std::string::npos);
}

// Wine has no sink writer: the recorder stays armed, every final frame tries to set up and fails with the
// call's result, and stopping is clean.
TEST_F(GpuWindowTest, GpuRecordingReportsWhatThePlatformAllows) {
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
