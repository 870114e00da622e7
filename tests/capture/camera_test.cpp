// The capture port on the test camera, through the public interface.
#include <algorithm>
#include <atomic>
#include <filesystem>

#include "../../src/capture/kiv_video_input.h"
#include "camera_fixture.h"

using namespace camtest;
using kivtest::CountOf;
using kivtest::LibraryLog;

namespace {

struct FormatCase {
    const wchar_t* caps;
    int32_t format;
    int32_t stride;
};

// Frames come in the negotiated format and size, top-down, numbered without
// gaps while the consumer keeps up.
TEST_F(CameraTest, DeliversNumberedTopDownFramesInEachFormat) {
    const FormatCase cases[] = {
        {L"cap=YUY2:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_YUY2, 128},
        {L"cap=NV12:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_NV12, 64},
        {L"cap=RGB24:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_RGB24, 192},
        {L"cap=RGB32:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_RGB32, 256},
        {L"cap=RGB32:64:-48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_RGB32, 256},
    };
    for (const FormatCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "format " << c.format << " stride " << c.stride);
        Install(c.caps);
        void* in = Port(64, 48, 50, c.format);
        NumberCatcher catcher;
        ASSERT_EQ(KIV_SetVideoFrameCallback(in, &NumberCatcher::OnFrame, &catcher), KIV_OK);
        ASSERT_EQ(KIV_Start(in), KIV_OK);
        EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 6; }));
        EXPECT_EQ(KIV_Stop(in), KIV_OK);
        const std::vector<Delivered> frames = catcher.Frames();
        ASSERT_GE(frames.size(), 6u);
        for (size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].meta.width, 64);
            EXPECT_EQ(frames[i].meta.height, 48);
            EXPECT_EQ(frames[i].meta.format, c.format);
            EXPECT_EQ(frames[i].meta.strides[0], c.stride);
            EXPECT_EQ(frames[i].meta.frameIndex, i);
            EXPECT_EQ(frames[i].number, frames[0].number + i) << "frame " << i;
        }
        ASSERT_EQ(installer.RemoveAll(), S_OK);
    }
}

// The nearest size at or above the request in the preferred format wins,
// as the log and the camera's own record of SetFormat both show.
TEST_F(CameraTest, NegotiationPicksTheBestCapability) {
    const std::string dir = kivtest::TempDir("kiv_capture_negotiation");
    const std::string record = dir + "/setformat.txt";
    std::wstring config = L"cap=YUY2:128:96:vih:333333:333333:333333;cap=YUY2:64:48:vih:333333:333333:333333;"
                          L"cap=MJPG:64:48:vih:166666:166666:166666;cap=P010:64:48:vih:333333:0:0;record=";
    config += std::wstring(record.begin(), record.end());
    Install(config);
    void* in = Port(64, 48, 30, KIV_PIXEL_FORMAT_YUY2);
    NumberCatcher catcher;
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &NumberCatcher::OnFrame, &catcher), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 2; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Capture format negotiation device=0 requested=64x48 fps=30 preferredFmt=1"), 1u);
    EXPECT_EQ(CountOf(log, "Caps[1] 64x48 fps=30 subtypeFmt=1 usable=1 score="), 1u);
    EXPECT_EQ(CountOf(log, "Caps[3] 0x0 fps=0 subtypeFmt=0 usable=0 score=-1 better=0"), 1u);
    EXPECT_EQ(CountOf(log, "Preferred capture format set hr=0x00000000 requested=64x48 fps=30 selected=64x48 fps=30 "
                           "fmt=1 policy=request-max,H264,MJPG,YUY2,NV12,RGB"),
              1u);
    EXPECT_EQ(CountOf(log, "Connected media type 64x48 bottomUp=0 fmt=1"), 1u);
    EXPECT_NE(kivtest::ReadFile(record).find("setformat=YUY2:64:48:vih:333333"), std::string::npos)
        << kivtest::ReadFile(record);
    std::filesystem::remove_all(dir);
}

// Without an MJPEG decoder (Wine has none) intelligent connect fails: the
// start reports it, leaves nothing running, and the port starts again on
// another format.
TEST_F(CameraTest, MjpegWithoutADecoderFailsCleanly) {
    Install(L"cap=MJPG:64:48:vih:200000:200000:200000;cap=YUY2:64:48:vih:200000:200000:200000");
    void* in = Port(64, 48, 50, KIV_PIXEL_FORMAT_MJPG);
    NumberCatcher catcher;
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &NumberCatcher::OnFrame, &catcher), KIV_OK);
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_FAILED);
    std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "SampleGrabber requested subtype fmt=4 wildcardH264=0 hr=0x00000000"), 1u);
    EXPECT_EQ(CountOf(log, "DirectShow connect: MJPG capture -> sample grabber using intelligent connect"), 1u);
    EXPECT_EQ(CountOf(log, "DirectShow connect fallback: capture -> sample grabber using intelligent connect"), 1u);
    EXPECT_EQ(CountOf(log, "Manual video graph connect failed hr=0x"), 1u);
    EXPECT_EQ(CountOf(log, "Independent open failed for device index=0, try shared mux path"), 1u);
    EXPECT_EQ(CountOf(log, "No active shared source for device index=0"), 1u);
    EXPECT_EQ(CountOf(log, "DirectShow capture graph started"), 0u);
    EXPECT_EQ(CountOf(log, "StopDirectShow begin"), CountOf(log, "StopDirectShow complete"));
    EXPECT_EQ(catcher.Count(), 0u);

    ASSERT_EQ(KIV_SetVideoInputFormat(in, 64, 48, 50, KIV_PIXEL_FORMAT_YUY2), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 2; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(catcher.Frames()[0].meta.format, KIV_PIXEL_FORMAT_YUY2);
}

// A consumer slower than the camera: never more than four frames wait, the
// oldest are dropped, and the slow deliveries are reported.
TEST_F(CameraTest, SlowConsumerKeepsAShortQueueOfTheNewestFrames) {
    Install(L"cap=YUY2:64:48:vih:200000:200000:200000");
    void* in = Port(64, 48, 50, KIV_PIXEL_FORMAT_YUY2);
    struct Slow {
        KivVideoInput* port;
        NumberCatcher catcher;
        std::atomic<size_t> mostWaiting{0};
        static void KIV_CALL OnFrame(const KivVideoFrame* f, void* user) {
            auto* self = static_cast<Slow*>(user);
            NumberCatcher::OnFrame(f, &self->catcher);
            Sleep(520);
            const size_t waiting = self->port->QueuedFrames();
            if (waiting > self->mostWaiting.load()) self->mostWaiting.store(waiting);
        }
    } slow;
    slow.port = static_cast<KivVideoInput*>(static_cast<KivPortBase*>(in));
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &Slow::OnFrame, &slow), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return slow.catcher.Count() >= 4; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    const std::vector<Delivered> frames = slow.catcher.Frames();
    EXPECT_EQ(slow.mostWaiting.load(), 4u);
    // 26 frames come in each 520 ms; of those only the newest four wait, so
    // the next one delivered is at least 26 - 4 frames later.
    for (size_t i = 1; i + 1 < frames.size(); ++i) {
        EXPECT_GE(frames[i + 1].number, frames[i].number + 1) << i;
        EXPECT_GE(frames[i + 1].meta.frameIndex, frames[i].meta.frameIndex + 1) << i;
    }
    ASSERT_GE(frames.size(), 3u);
    EXPECT_GE(frames[2].number - frames[1].number, 10u);
    const std::string log = LibraryLog();
    EXPECT_GE(CountOf(log, "Slow video dispatch chain device=0"), 3u);
}

// Two ports on one camera: the second asking more restarts the source and
// both then receive the new size; a third asking less changes nothing.
TEST_F(CameraTest, SharedCameraGrowsForTheLargestRequest) {
    Install(L"cap=YUY2:64:48:vih:200000:200000:200000;cap=YUY2:128:96:vih:200000:200000:200000");
    void* first = Port(64, 48, 50, KIV_PIXEL_FORMAT_YUY2);
    void* second = Port(128, 96, 50, KIV_PIXEL_FORMAT_YUY2);
    void* third = Port(32, 24, 25, KIV_PIXEL_FORMAT_YUY2);
    void* secondOut = Add(KIV_CreateVideoMux());
    NumberCatcher firstFrames, secondFrames;
    ASSERT_EQ(KIV_SetVideoFrameCallback(first, &NumberCatcher::OnFrame, &firstFrames), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(secondOut, &NumberCatcher::OnFrame, &secondFrames), KIV_OK);
    ASSERT_EQ(KIV_Connect(second, secondOut), KIV_OK);
    ASSERT_EQ(KIV_Start(first), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return firstFrames.Count() >= 1; }));
    ASSERT_EQ(KIV_Start(second), KIV_OK);
    ASSERT_EQ(KIV_Start(third), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return secondFrames.Count() >= 3; }));
    for (void* p : {third, second, first}) EXPECT_EQ(KIV_Stop(p), KIV_OK);
    EXPECT_EQ(firstFrames.Frames().front().meta.width, 64);
    EXPECT_EQ(firstFrames.Frames().back().meta.width, 128);
    for (const Delivered& d : secondFrames.Frames()) {
        EXPECT_EQ(d.meta.width, 128);
        EXPECT_EQ(d.meta.height, 96);
    }
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Restart shared source OK device=0 actual=128x96 fps=50 fmt=1"), 1u);
    EXPECT_EQ(CountOf(log, "Shared source already satisfies requests device=0 actual=128x96"), 1u);
    EXPECT_EQ(CountOf(log, "Shared client slot unregistered device=0"), 2u);
}

}  // namespace

namespace {

// The Unix build folder seen from the Windows test (Wine maps / to Z:).
std::string WinePath(const std::string& unixPath) {
    std::string path = "Z:";
    for (char c : unixPath) path += c == '/' ? '\\' : c;
    return path;
}

// An H.264 camera recorded by the recorder's pass-through. The clip comes
// from ffmpeg before this test (kiv_capture_h264_clip) and the file is
// decoded and compared frame by frame with the clip after it
// (kiv_capture_h264_check), since ffmpeg runs on the host, not under Wine.
TEST_F(CameraTest, H264CameraRecordedByPassThrough) {
    const std::string dir = KIV_CAPTURE_H264_DIR;
    const std::string clip = WinePath(dir + "/clip.h264");
    const std::string mp4 = WinePath(dir + "/camera.mp4");
    if (kivtest::ReadFile(clip).empty()) GTEST_SKIP() << "no clip from ffmpeg at " << clip;
    std::remove(mp4.c_str());
    Install(L"cap=H264:320:240:vih:200000:0:0;h264=" + std::wstring(clip.begin(), clip.end()));
    void* in = Port(320, 240, 50, KIV_PIXEL_FORMAT_H264);
    void* recorder = Add(KIV_CreateRecorder(mp4.c_str()));
    KivRecorderConfig config{};
    config.width = 320;
    config.height = 240;
    config.inputFps = 50;
    config.recordFps = 50;
    config.inputMode = KIV_RECORD_INPUT_DIRECT_H264;
    ASSERT_EQ(KIV_SetRecorderConfig(recorder, &config), KIV_OK);
    NumberCatcher catcher;
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &NumberCatcher::OnFrame, &catcher), KIV_OK);
    ASSERT_EQ(KIV_Connect(in, recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 30; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(KIV_Stop(recorder), KIV_OK);
    KIV_Disconnect(in, recorder);
    const std::vector<Delivered> frames = catcher.Frames();
    ASSERT_GE(frames.size(), 30u);
    for (const Delivered& d : frames) {
        EXPECT_EQ(d.meta.format, KIV_PIXEL_FORMAT_H264);
        EXPECT_GT(d.meta.strides[0], 0);
    }
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "SampleGrabber requested subtype fmt=1 wildcardH264=1 hr=0x00000000"), 1u);
    EXPECT_EQ(CountOf(log, "Connected media type 320x240 bottomUp=0 fmt=6"), 1u);
    EXPECT_FALSE(kivtest::ReadFile(mp4).empty());
}

}  // namespace

namespace {

// The camera feeding ports that already exist: crop keeps the top half,
// the colour engine turns YUY2 into RGB32, the overlay draws a red box into
// its overlay output, and the application callback behind it still reads the
// camera's frame numbers.
TEST_F(CameraTest, CameraFeedsCropColourEngineAndOverlay) {
    Install(L"cap=YUY2:64:48:vih:200000:200000:200000");
    void* in = Port(64, 48, 50, KIV_PIXEL_FORMAT_YUY2);
    void* crop = Add(KIV_CreateVideoCrop());
    void* color = Add(KIV_CreateVideoColorEngine());
    void* osd = Add(KIV_CreateVideoOsd());
    void* out = Add(KIV_CreateVideoMux());
    const KivVideoCropRect rect{0, 0, 64, 24};
    ASSERT_EQ(KIV_SetVideoCropRect(crop, &rect), KIV_OK);
    ASSERT_EQ(KIV_EnableVideoCrop(crop, 1), KIV_OK);
    KivVideoColorEngineConfig grade{0, 1, KIV_PIXEL_FORMAT_RGB32, 1, 2, 1.0f};
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(color, &grade), KIV_OK);
    KivVideoOsdItem box{};
    box.visible = 1;
    box.x = 8;
    box.y = 12;
    box.width = 16;
    box.height = 8;
    box.opacity = 1.0f;
    box.color = 0xFFFF0000;
    box.backColor = 0xFFFF0000;
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &box), KIV_OK);
    struct Pixels {
        NumberCatcher numbers;
        std::mutex mutex;
        std::vector<std::vector<uint8_t>> rows;  // rows 12 and 20 of the first frame
        static void KIV_CALL OnFrame(const KivVideoFrame* f, void* user) {
            auto* self = static_cast<Pixels*>(user);
            NumberCatcher::OnFrame(f, &self->numbers);
            std::lock_guard<std::mutex> lock(self->mutex);
            if (!self->rows.empty() || f->format != KIV_PIXEL_FORMAT_RGB32 || f->height < 21) return;
            for (int y : {12, 20}) {
                const uint8_t* row = f->planes[0] + static_cast<size_t>(y) * f->strides[0];
                self->rows.emplace_back(row, row + f->width * 4);
            }
        }
    } pixels;
    ASSERT_EQ(KIV_SetVideoFrameCallback(out, &Pixels::OnFrame, &pixels), KIV_OK);
    ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_OK);
    ASSERT_EQ(KIV_Connect(in, crop), KIV_OK);
    ASSERT_EQ(KIV_Connect(crop, color), KIV_OK);
    ASSERT_EQ(KIV_Connect(color, osd), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return pixels.numbers.Count() >= 5; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    for (auto pair : {std::make_pair(osd, out), std::make_pair(color, osd), std::make_pair(crop, color), std::make_pair(in, crop)}) {
        KIV_Disconnect(pair.first, pair.second);
    }
    const std::vector<Delivered> frames = pixels.numbers.Frames();
    ASSERT_GE(frames.size(), 5u);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].meta.width, 64);
        EXPECT_EQ(frames[i].meta.height, 24);
        EXPECT_EQ(frames[i].meta.format, KIV_PIXEL_FORMAT_RGB32);
        EXPECT_EQ(frames[i].number, frames[0].number + i);
    }
    ASSERT_EQ(pixels.rows.size(), 2u);
    // BGRA in memory: the box is red, the camera's grey (luma 100, limited
    // range) is about 98 after the conversion.
    const uint8_t* inBox = pixels.rows[0].data() + 8 * 4;
    EXPECT_LE(inBox[0], 5);
    EXPECT_LE(inBox[1], 5);
    EXPECT_GE(inBox[2], 250);
    const uint8_t* grey = pixels.rows[1].data() + 40 * 4;
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(grey[c], 98, 2) << c;
}

}  // namespace
