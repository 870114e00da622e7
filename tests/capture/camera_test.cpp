// The capture port on the test camera, through the public interface.
#include <cstdio>

#include "camera_fixture.h"

using namespace camtest;
using kivtest::CaughtFrame;
using kivtest::CountOf;
using kivtest::FrameCatcher;
using kivtest::LibraryLog;

namespace {

// Frames come in the negotiated format and size, top-down (bottom-up RGB
// turned, top-down RGB left alone), numbered without gaps.
TEST_F(CameraTest, DeliversNumberedTopDownFramesInEachFormat) {
    const struct {
        const wchar_t* caps;
        int32_t format, stride;
    } cases[] = {
        {L"cap=YUY2:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_YUY2, 128},
        {L"cap=NV12:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_NV12, 64},
        {L"cap=RGB24:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_RGB24, 192},
        {L"cap=RGB32:64:48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_RGB32, 256},
        {L"cap=RGB32:64:-48:vih:200000:200000:200000", KIV_PIXEL_FORMAT_RGB32, 256},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "format " << c.format << " stride " << c.stride);
        Install(c.caps);
        FrameCatcher catcher;
        void* in = Port(64, 48, 50, c.format, &catcher);
        ASSERT_EQ(KIV_Start(in), KIV_OK);
        EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 6; }));
        EXPECT_EQ(KIV_Stop(in), KIV_OK);
        const std::vector<CaughtFrame>& frames = catcher.frames;
        ASSERT_GE(frames.size(), 6u);
        for (int64_t i = 0; i < static_cast<int64_t>(frames.size()); ++i) {
            const KivVideoFrame& m = frames[i].meta;
            EXPECT_EQ((std::vector<int64_t>{m.width, m.height, m.format, m.strides[0],
                                            static_cast<int64_t>(m.frameIndex), Number(frames[i])}),
                      (std::vector<int64_t>{64, 48, c.format, c.stride, i, Number(frames[0]) + i}))
                << "frame " << i;
        }
        ASSERT_EQ(installer.RemoveAll(), S_OK);
    }
}

// The nearest size at or above the request in the preferred format wins,
// as the log and the camera's own record of SetFormat both show.
TEST_F(CameraTest, NegotiationPicksTheBestCapability) {
    const std::string record = kivtest::TempDir("kiv_capture_negotiation") + "/setformat.txt";
    Install(L"cap=YUY2:128:96:vih:333333:333333:333333;cap=YUY2:64:48:vih:333333:333333:333333;"
            L"cap=MJPG:64:48:vih:166666:166666:166666;cap=P010:64:48:vih:333333:0:0;record=" +
            std::wstring(record.begin(), record.end()));
    FrameCatcher catcher;
    void* in = Port(64, 48, 30, KIV_PIXEL_FORMAT_YUY2, &catcher);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 2; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    const std::string log = LibraryLog();
    for (const char* line : {"Capture format negotiation device=0 requested=64x48 fps=30 preferredFmt=1",
                             "Caps[1] 64x48 fps=30 subtypeFmt=1 usable=1 score=",
                             "Caps[3] 0x0 fps=0 subtypeFmt=0 usable=0 score=-1 better=0",
                             "Preferred capture format set hr=0x00000000 requested=64x48 fps=30 selected=64x48 "
                             "fps=30 fmt=1 policy=request-max,H264,MJPG,YUY2,NV12,RGB",
                             "Connected media type 64x48 bottomUp=0 fmt=1"})
        EXPECT_EQ(CountOf(log, line), 1u) << line;
    EXPECT_NE(kivtest::ReadFile(record).find("setformat=YUY2:64:48:vih:333333"), std::string::npos)
        << kivtest::ReadFile(record);
}

// Without an MJPEG decoder (Wine has none) intelligent connect fails: the
// start reports it, leaves nothing running, and the port starts again on
// another format.
TEST_F(CameraTest, MjpegWithoutADecoderFailsCleanly) {
    Install(L"cap=MJPG:64:48:vih:200000:200000:200000;cap=YUY2:64:48:vih:200000:200000:200000");
    FrameCatcher catcher;
    void* in = Port(64, 48, 50, KIV_PIXEL_FORMAT_MJPG, &catcher);
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_FAILED);
    const std::string log = LibraryLog();
    for (const char* line : {"SampleGrabber requested subtype fmt=4 wildcardH264=0 hr=0x00000000",
                             "DirectShow connect: MJPG capture -> sample grabber using intelligent connect",
                             "DirectShow connect fallback: capture -> sample grabber using intelligent connect",
                             "Manual video graph connect failed hr=0x",
                             "Independent open failed for device index=0, try shared mux path",
                             "No active shared source for device index=0"})
        EXPECT_EQ(CountOf(log, line), 1u) << line;
    EXPECT_EQ(CountOf(log, "DirectShow capture graph started"), 0u);
    EXPECT_EQ(CountOf(log, "StopDirectShow begin"), CountOf(log, "StopDirectShow complete"));
    EXPECT_EQ(catcher.Count(), 0u);

    ASSERT_EQ(KIV_SetVideoInputFormat(in, 64, 48, 50, KIV_PIXEL_FORMAT_YUY2), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 2; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(catcher.frames[0].meta.format, KIV_PIXEL_FORMAT_YUY2);
}

// Two ports on one camera: the second asking more restarts the source and
// both then receive the new size; a third asking less restarts nothing.
TEST_F(CameraTest, SharedCameraGrowsForTheLargestRequest) {
    Install(L"cap=YUY2:64:48:vih:200000:200000:200000;cap=YUY2:128:96:vih:200000:200000:200000");
    FrameCatcher firstFrames, secondFrames;
    void* first = Port(64, 48, 50, KIV_PIXEL_FORMAT_YUY2, &firstFrames);
    void* second = Port(128, 96, 50, KIV_PIXEL_FORMAT_YUY2);
    void* third = Port(32, 24, 25, KIV_PIXEL_FORMAT_YUY2);
    void* secondOut = Add(KIV_CreateVideoMux());
    ASSERT_EQ(KIV_SetVideoFrameCallback(secondOut, &FrameCatcher::OnFrame, &secondFrames), KIV_OK);
    ASSERT_EQ(KIV_Connect(second, secondOut), KIV_OK);
    ASSERT_EQ(KIV_Start(first), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return firstFrames.Count() >= 1; }));
    ASSERT_EQ(KIV_Start(second), KIV_OK);
    ASSERT_EQ(KIV_Start(third), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return secondFrames.Count() >= 3; }));
    for (void* p : {third, second, first}) EXPECT_EQ(KIV_Stop(p), KIV_OK);
    EXPECT_EQ(firstFrames.frames.front().meta.width, 64);
    EXPECT_EQ(firstFrames.frames.back().meta.width, 128);
    for (const CaughtFrame& d : secondFrames.frames)
        EXPECT_EQ(std::make_pair(d.meta.width, d.meta.height), std::make_pair(128, 96));
    EXPECT_EQ(CountOf(LibraryLog(), "Restart shared source OK device=0 actual=128x96 fps=50 fmt=1"), 1u);
}

// The camera feeding ports that already exist: crop keeps the top half, the
// colour engine turns YUY2 into RGB32, the overlay draws a red box into its
// overlay output, and the callback behind it still reads the frame numbers.
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
    const KivVideoColorEngineConfig grade{0, 1, KIV_PIXEL_FORMAT_RGB32, 1, 2, 1.0f};
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(color, &grade), KIV_OK);
    KivVideoOsdItem box{};
    box.visible = 1;
    box.x = 8, box.y = 12, box.width = 16, box.height = 8;
    box.opacity = 1.0f;
    box.color = box.backColor = 0xFFFF0000;
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &box), KIV_OK);
    FrameCatcher catcher(out);
    ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_OK);
    const std::pair<void*, void*> links[] = {{in, crop}, {crop, color}, {color, osd}};
    for (const auto& l : links) ASSERT_EQ(KIV_Connect(l.first, l.second), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 5; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    KIV_Disconnect(osd, out);
    for (int i = 2; i >= 0; --i) KIV_Disconnect(links[i].first, links[i].second);
    const std::vector<CaughtFrame>& frames = catcher.frames;
    ASSERT_GE(frames.size(), 5u);
    for (int64_t i = 0; i < static_cast<int64_t>(frames.size()); ++i) {
        const KivVideoFrame& m = frames[i].meta;
        EXPECT_EQ((std::vector<int64_t>{m.width, m.height, m.format, Number(frames[i])}),
                  (std::vector<int64_t>{64, 24, KIV_PIXEL_FORMAT_RGB32, Number(frames[0]) + i}));
    }
    // BGRA in memory: the box is red; the camera's grey (luma 100, limited
    // range) is about 98 after the conversion.
    const uint8_t* inBox = frames[0].plane0.data() + 12 * frames[0].meta.strides[0] + 8 * 4;
    EXPECT_LE(inBox[0], 5);
    EXPECT_LE(inBox[1], 5);
    EXPECT_GE(inBox[2], 250);
    const uint8_t* grey = frames[0].plane0.data() + 20 * frames[0].meta.strides[0] + 40 * 4;
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(grey[c], 98, 2) << c;
}

// An H.264 camera recorded by the recorder's pass-through. ffmpeg runs on the
// host, so the clip comes from it before this test (kiv_capture_h264_clip) and
// the file is decoded and compared with the clip frame by frame after it
// (kiv_capture_h264_check).
TEST_F(CameraTest, H264CameraRecordedByPassThrough) {
    const std::string clip = testcam::WinePath(KIV_CAPTURE_H264_DIR "/clip.h264");
    const std::string mp4 = testcam::WinePath(KIV_CAPTURE_H264_DIR "/camera.mp4");
    if (kivtest::ReadFile(clip).empty()) GTEST_SKIP() << "no clip from ffmpeg at " << clip;
    std::remove(mp4.c_str());
    Install(L"cap=H264:320:240:vih:200000:0:0;h264=" + std::wstring(clip.begin(), clip.end()));
    FrameCatcher catcher;
    void* in = Port(320, 240, 50, KIV_PIXEL_FORMAT_H264, &catcher);
    void* recorder = Add(KIV_CreateRecorder(mp4.c_str()));
    const KivRecorderConfig config{{}, 0, 0, 320, 240, 50, 50, 0, 0, KIV_RECORD_INPUT_DIRECT_H264, 0, 0, 0, 0};
    ASSERT_EQ(KIV_SetRecorderConfig(recorder, &config), KIV_OK);
    ASSERT_EQ(KIV_Connect(in, recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    EXPECT_TRUE(WaitFor([&] { return catcher.Count() >= 30; }));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(KIV_Stop(recorder), KIV_OK);
    KIV_Disconnect(in, recorder);
    ASSERT_GE(catcher.frames.size(), 30u);
    EXPECT_EQ(catcher.frames[0].meta.format, KIV_PIXEL_FORMAT_H264);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "SampleGrabber requested subtype fmt=1 wildcardH264=1 hr=0x00000000"), 1u);
    EXPECT_EQ(CountOf(log, "Connected media type 320x240 bottomUp=0 fmt=6"), 1u);
}

}  // namespace
