// The render port without a real window: conversion against the independent reference, per-draw rules,
// the stored copy, frame steps over a stand-in for Direct3D, the exported setters, two sources racing.
#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

#include "render/kiv_video_render.h"
#include "render/render_convert.h"
#include "render/render_gpu_stages.h"
#include "render/render_params.h"
#include "render/render_stored_frame.h"
#include "render_reference.h"
#include "test_support.h"

namespace {

using rendertest::PatternFrame;
using V = std::vector<int64_t>;

const int32_t kFormats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32};

// Records the Direct3D steps and the stages' calls as "apply,device,...,draw,", fails the step a test names,
// and can hold the draw to keep the port busy.
struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    std::string steps, failStep;
    int32_t failCode = KIV_ERROR_FAILED, lastInterpolation = -1;
    bool windowAlive = true, holdDraw = false, drawing = false;
    int32_t Step(const char* name) {
        std::lock_guard<std::mutex> lock(mutex);
        steps = steps + name + ",";
        return failStep == name ? failCode : KIV_OK;
    }
};

class FakeGpu : public KivRenderGpu {
public:
    explicit FakeGpu(Shared* shared) : s_(shared) {}
    bool WindowAlive() override { return s_->windowAlive; }
    int32_t EnsureDevice() override { return s_->Step("device"); }
    int32_t EnsureBackBuffer() override { return s_->Step("back"); }
    int32_t EnsureFrameTextures(int32_t, int32_t, int32_t) override { return s_->Step("textures"); }
    int32_t Upload(const KivVideoFrame&) override { return s_->Step("upload"); }
    int32_t DrawAndPresent(const KivRenderDrawSettings& settings) override {
        std::unique_lock<std::mutex> lock(s_->mutex);
        s_->lastInterpolation = settings.interpolation;
        s_->drawing = true;
        s_->changed.notify_all();
        s_->changed.wait(lock, [&] { return !s_->holdDraw; });
        s_->drawing = false;
        lock.unlock();
        return s_->Step("draw");
    }
    void ReleaseFinalTexture() override { s_->Step("releaseFinal"); }
    void ReleaseAll() override { s_->Step("releaseAll"); }

private:
    Shared* s_;
};

class RecordingStages : public KivRenderStages {
public:
    explicit RecordingStages(Shared* shared) : s_(shared) {}
    void ApplyPending(KivRenderGpu&) override { s_->Step("apply"); }
    void TearDownForCpuPipeline(KivRenderGpu&) override { s_->Step("teardown"); }
    int32_t WriteAudio(const KivAudioFrame&) override { return s_->Step("audio") - 7; }

private:
    Shared* s_;
};

void* const kSomeWindow = reinterpret_cast<void*>(static_cast<uintptr_t>(0x1234));

std::unique_ptr<KivVideoRender> MakePort(Shared* shared, void* window = kSomeWindow) {
    return std::make_unique<KivVideoRender>(window, std::make_unique<FakeGpu>(shared), std::make_unique<RecordingStages>(shared));
}

void ExpectPlane(const uint8_t* got, int gotStride, const std::vector<uint8_t>& want, int wantStride, int rows) {
    ASSERT_EQ(gotStride, wantStride);
    ASSERT_EQ(want.size(), static_cast<size_t>(wantStride) * rows);
    for (int i = 0; i < wantStride * rows; ++i) ASSERT_EQ(got[i], want[i]) << "row " << i / wantStride << " byte " << i % wantStride;
}

// The BGRA expansion used by snapshots: every pixel as the reference, alpha kept from RGB32 only.
void ExpectExpanded(const KivVideoFrame& f) {
    std::vector<uint8_t> out;
    ASSERT_EQ(KivRenderExpandToBgra(f, &out), KIV_OK);
    ASSERT_EQ(out.size(), static_cast<size_t>(f.width) * f.height * 4);
    for (int i = 0; i < f.width * f.height; ++i) {
        const int x = i % f.width, y = i / f.width;
        const rendertest::Bgr p = rendertest::ReferencePixel(f, x, y);
        const int alpha = f.format == KIV_PIXEL_FORMAT_RGB32 ? f.planes[0][std::max(f.strides[0], f.width * 4) * y + x * 4 + 3] : 255;
        ASSERT_EQ(V(out.begin() + i * 4, out.begin() + i * 4 + 4), V({p.b, p.g, p.r, alpha})) << i;
    }
}

TEST(RenderConvertTest, EveryFormatPairMatchesTheReferenceBitForBit) {
    // Shrinking, enlarging, odd sizes on either side, a size change of one axis.
    const int sizes[][4] = {{64, 48, 37, 21}, {20, 10, 33, 17}, {63, 47, 64, 48}, {31, 9, 31, 5}, {2, 2, 1, 1}};
    KivRenderConverter converter;  // one converter throughout: buffers are reused
    for (const auto& s : sizes) {
        for (int32_t from : kFormats) {
            ExpectExpanded(PatternFrame(from, s[0], s[1]).frame);
            for (int32_t to : kFormats) {
                SCOPED_TRACE(testing::Message() << from << "->" << to << " " << s[0] << "x" << s[1] << "->" << s[2] << "x" << s[3]);
                PatternFrame src(from, s[0], s[1]);
                src.frame.timestamp = 1234567, src.frame.frameIndex = 42;
                KivVideoFrame out{};
                ASSERT_EQ(converter.Convert(src.frame, {s[2], s[3], to}, &out), KIV_OK);
                EXPECT_EQ(V({out.width, out.height, out.format, out.timestamp, int64_t(out.frameIndex)}), V({s[2], s[3], to, 1234567, 42}));
                const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(src.frame, s[2], s[3], to);
                ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, s[3]);
                if (to == KIV_PIXEL_FORMAT_NV12) ExpectPlane(out.planes[1], out.strides[1], want.plane1, want.stride1, (s[3] + 1) / 2);
            }
        }
    }
    // Strides below 1 mean tight rows; NV12 chroma follows the luma plane when the second pointer is null.
    for (int32_t from : kFormats) {
        PatternFrame tight(from, 16, 6, false);
        KivVideoFrame zero = tight.frame, out{};
        zero.strides[0] = zero.strides[1] = 0;
        ASSERT_EQ(converter.Convert(zero, {8, 3, KIV_PIXEL_FORMAT_RGB32}, &out), KIV_OK);
        const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(tight.frame, 8, 3, KIV_PIXEL_FORMAT_RGB32);
        ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, 3);
        ExpectExpanded(zero);
    }
    std::vector<uint8_t> bgra;
    PatternFrame row(KIV_PIXEL_FORMAT_RGB24, 3, 1);  // a single row is a frame
    EXPECT_EQ(KivRenderExpandToBgra(row.frame, &bgra), KIV_OK);
    EXPECT_EQ(bgra.size(), 12u);
    row.frame.format = KIV_PIXEL_FORMAT_MJPG;
    EXPECT_EQ(KivRenderExpandToBgra(row.frame, &bgra), KIV_ERROR_UNSUPPORTED);
    row.frame.planes[0] = nullptr;
    EXPECT_EQ(KivRenderExpandToBgra(row.frame, &bgra), KIV_ERROR_INVALID_ARG);
    // A target matching the frame (MJPG: the frame's own format) passes the record through.
    PatternFrame src(KIV_PIXEL_FORMAT_NV12, 32, 16);
    const struct {
        KivVideoRenderConfig config;
        int32_t result;
        bool sameRecord;
    } cases[] = {{{0, 0, 0}, KIV_OK, true},         {{32, 16, KIV_PIXEL_FORMAT_NV12}, KIV_OK, true},
                 {{-5, 0, KIV_PIXEL_FORMAT_MJPG}, KIV_OK, true}, {{0, 0, KIV_PIXEL_FORMAT_RGB32}, KIV_OK, false},
                 {{16, 0, 0}, KIV_OK, false},       {{0, 0, KIV_PIXEL_FORMAT_H264}, KIV_ERROR_UNSUPPORTED, false},
                 {{8, 8, 9}, KIV_ERROR_UNSUPPORTED, false}};
    for (const auto& c : cases) {
        KivVideoFrame out{};
        ASSERT_EQ(converter.Convert(src.frame, c.config, &out), c.result);
        if (c.result == KIV_OK) { EXPECT_EQ(out.planes[0] == src.frame.planes[0], c.sameRecord); }
    }
}

TEST(RenderRulesTest, ColourSpaceRangeSamplingBaseParamsAndTheStoredCopy) {
    // Automatic colour space: BT.709 from 1280 wide or 577 high up.
    const int32_t spaces[][4] = {{0, 1280, 720, 2}, {0, 720, 576, 1}, {0, 720, 577, 2}, {0, 1279, 576, 1}, {7, 1280, 100, 2},
                                 {1, 1920, 1080, 1}, {2, 640, 480, 2},  {3, 640, 480, 3},  {-1, 640, 480, 1}};
    for (const auto& c : spaces) EXPECT_EQ(KivRenderColorSpace(c[0], c[1], c[2]), c[3]) << c[0] << " " << c[1] << "x" << c[2];
    EXPECT_EQ(V({KivRenderColorRange(1), KivRenderColorRange(0), KivRenderColorRange(3)}), V({1, 2, 2}));
    // Automatic sampling (mode 2) is nearest down to seven tenths of the frame size.
    const int32_t sampling[][6] = {{2, 1280, 720, 1920, 1080, 0}, {2, 1400, 800, 1920, 1080, 1}, {2, 700, 1000, 1000, 1000, 1},
                                   {2, 699, 1000, 1000, 1000, 0}, {2, 4000, 100, 100, 1000, 0},  {2, 10, 10, 0, 0, 1},
                                   {1, 10, 10, 1000, 1000, 1},    {0, 1000, 1000, 10, 10, 0},    {2, 10, 0, 10, 1, 0},
                                   {2, 0, 10, 1, 10, 0}};
    for (const auto& c : sampling) EXPECT_EQ(KivRenderUseNearest(c[0], c[1], c[2], c[3], c[4]), c[5] == 1) << c[0] << " " << c[1] << "x" << c[2];
    const KivRenderParams p = KivRenderBaseParams(KIV_PIXEL_FORMAT_YUY2, true, {0, 1, 1.5f}, 720, 576);
    EXPECT_EQ(std::vector<float>({float(p.mode), float(p.interp), float(p.lutEnable), p.lutStrength, float(p.colorSpace),
                                  float(p.colorRange), p.domainMax[0], p.domainMax[2], p.domainPad1}),
              std::vector<float>({2, 1, 0, 1.0f, 1, 1, 1.0f, 1.0f, 0}));
    EXPECT_EQ(KivRenderBaseParams(KIV_PIXEL_FORMAT_NV12, false, {0, 0, -2.0f}, 8, 8).lutStrength, 0.0f);
    EXPECT_EQ(KivRenderShaderMode(KIV_PIXEL_FORMAT_NV12) * 10 + KivRenderShaderMode(KIV_PIXEL_FORMAT_RGB24), 10);
    // The stored copy: strides below 1 read as tight rows (NV12 chroma: three rows for five), MJPG ignored.
    PatternFrame nv12(KIV_PIXEL_FORMAT_NV12, 7, 5, false), rgb(KIV_PIXEL_FORMAT_RGB24, 3, 2), yuy2(KIV_PIXEL_FORMAT_YUY2, 4, 2);
    KivVideoFrame tight = nv12.frame, mjpg = rgb.frame;
    tight.strides[0] = tight.strides[1] = 0, tight.timestamp = 99, tight.frameIndex = 3;
    mjpg.format = KIV_PIXEL_FORMAT_MJPG;
    yuy2.frame.strides[0] = 0;
    KivRenderStoredFrame s;
    s.Store(tight);
    s.Store(mjpg);
    EXPECT_EQ(V({s.format, s.stride, s.chromaStride, s.timestamp, int64_t(s.frameIndex), int64_t(s.plane0.size()), int64_t(s.chroma.size())}),
              V({KIV_PIXEL_FORMAT_NV12, 7, 7, 99, 3, 35, 21}));
    EXPECT_TRUE(std::equal(s.chroma.begin(), s.chroma.end(), nv12.bytes.begin() + 35));
    s.Store(rgb.frame);
    EXPECT_EQ(V({s.format, int64_t(s.chroma.size()), s.chromaStride}), V({KIV_PIXEL_FORMAT_RGB24, 0, 0}));
    EXPECT_TRUE(std::equal(rgb.bytes.begin(), rgb.bytes.end(), s.View().planes[0]));
    s.Store(yuy2.frame);
    EXPECT_EQ(V({s.stride, int64_t(s.plane0.size())}), V({8, 16}));
}

TEST(RenderPortTest, FrameStepsRunInOrderAndAFailureDecidesTheCallback) {
    const std::string all = "apply,device,back,textures,upload,draw,";
    const struct {
        const char* failStep;  // "window": a destroyed window; "none": a port without a window
        int32_t failCode, result;
        bool handedOn, stored;  // to the callback; the stored copy
        size_t steps;           // length of the step list's head
    } cases[] = {
        {"", 0, KIV_OK, true, true, all.size()},
        {"none", 0, KIV_OK, true, false, 6},
        {"window", 0, KIV_ERROR_INVALID_ARG, false, false, 6},
        {"device", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, false, 13},
        {"back", KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, false, false, 18},
        {"textures", KIV_ERROR_UNSUPPORTED, KIV_ERROR_UNSUPPORTED, false, false, 27},
        {"upload", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, false, 34},
        {"draw", KIV_ERROR_FAILED, KIV_ERROR_FAILED, true, true, all.size()},  // a failed draw or present still hands on
    };
    const KivVideoRenderConfig config{5, 3, KIV_PIXEL_FORMAT_RGB32};
    PatternFrame frame(KIV_PIXEL_FORMAT_YUY2, 10, 6);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failStep);
        Shared shared;
        shared.failStep = c.failStep, shared.failCode = c.failCode, shared.windowAlive = std::string(c.failStep) != "window";
        auto port = MakePort(&shared, std::string(c.failStep) == "none" ? nullptr : kSomeWindow);
        kivtest::FrameCatcher catcher(port.get());
        ASSERT_EQ(port->SetConfig(&config), KIV_OK);
        EXPECT_EQ(port->OnVideoFrame(&frame.frame), c.result);
        EXPECT_EQ(shared.steps, all.substr(0, c.steps));
        ASSERT_EQ(catcher.Count(), c.handedOn ? 1u : 0u);
        const KivVideoFrame& got = catcher.frames.empty() ? frame.frame : catcher.frames[0].meta;
        if (c.handedOn) { EXPECT_EQ(V({got.width, got.height, got.format, got.strides[0]}), V({5, 3, KIV_PIXEL_FORMAT_RGB32, 20})); }
        EXPECT_EQ(port->StoredFrame().Empty() ? 0 : port->StoredFrame().width, c.stored ? 5 : 0);  // of the converted frame
    }
    // Refused frames: no step but the pending requests, no callback.
    Shared shared;
    auto port = MakePort(&shared);
    kivtest::FrameCatcher catcher(port.get());
    KivVideoFrame empty = frame.frame;
    empty.height = 0;
    const KivVideoRenderConfig h264{0, 0, KIV_PIXEL_FORMAT_H264};
    EXPECT_EQ(V({port->OnVideoFrame(nullptr), port->OnVideoFrame(&empty), port->SetConfig(&h264), port->OnVideoFrame(&frame.frame)}),
              V({KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, KIV_OK, KIV_ERROR_UNSUPPORTED}));
    EXPECT_EQ(catcher.Count(), 0u);
    EXPECT_EQ(shared.steps, "apply,");
}

TEST(RenderPortTest, PipelineSwitchInterpolationAndAudio) {
    Shared shared;
    auto port = MakePort(&shared);
    int16_t samples[4] = {};
    KivAudioFrame audio{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(port->OnAudioFrame(&audio), KIV_OK);  // reaches the GPU recorder only in the GPU pipeline
    // Leaving the GPU pipeline tears its stages down once; in it, audio gets the stage's own result.
    const std::pair<int32_t, const char*> modes[] = {{2, ""}, {1, "audio,"}, {1, "audio,"}, {0, "teardown,releaseFinal,"}, {0, ""}, {-1, ""}};
    for (const auto& m : modes) {
        shared.steps.clear();
        EXPECT_EQ(port->SetPipelineMode(m.first), m.first == 0 || m.first == 1 ? KIV_OK : KIV_ERROR_INVALID_ARG) << m.first;
        EXPECT_EQ(port->OnAudioFrame(&audio), m.first == 1 ? -7 : KIV_OK);
        EXPECT_EQ(shared.steps, m.second) << m.first;
    }
    EXPECT_EQ(port->PipelineMode(), 0);
    PatternFrame frame(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    for (int32_t mode : {0, 1, 2}) {
        ASSERT_EQ(port->SetInterpolationMode(mode), KIV_OK);
        ASSERT_EQ(port->OnVideoFrame(&frame.frame), KIV_OK);
        EXPECT_EQ(shared.lastInterpolation, mode);
    }
    EXPECT_EQ(V({port->SetInterpolationMode(3), port->SetInterpolationMode(-1)}), V({KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG}));
}

TEST(RenderApiTest, SettersAnswerWithTheirCodesAndLines) {
    EXPECT_EQ(KIV_CreateVideoRender(nullptr), nullptr);  // the library is not initialised yet
    kivtest::LibraryScope library;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* render = KIV_CreateVideoRender(nullptr);
    ASSERT_NE(render, nullptr);
    void* mux = KIV_CreateVideoMux();
    const KivVideoRenderConfig zero{0, 0, 0}, negative{-1, 10, 4}, sized{640, 0, 5};
    const std::pair<KivResult, const char*> cases[] = {  // the code, and the line when accepted
        {KIV_SetVideoRenderConfig(render, nullptr), nullptr},
        {KIV_SetVideoRenderConfig(render, &negative), nullptr},
        {KIV_SetVideoRenderConfig(render, &zero), "Set video render config target=0x0 fmt=0"},
        {KIV_SetVideoRenderConfig(render, &sized), "Set video render config target=640x0 fmt=5"},
        {KIV_SetVideoRenderConfig(mux, &zero), nullptr},
        {KIV_SetVideoRenderInterpolationMode(render, 3), nullptr},
        {KIV_SetVideoRenderInterpolationMode(render, 0), "Set video render interpolation mode=0"},
        {KIV_SetVideoRenderInterpolationMode(mux, 1), nullptr},
        {KIV_SetVideoRenderPipelineMode(render, 2), nullptr},
        {KIV_SetVideoRenderPipelineMode(render, 1), "Set video render pipeline mode=1"},
        {KIV_SetVideoRenderPipelineMode(mux, 1), nullptr},
        {KIV_SetVideoRenderPipelineMode(nullptr, 1), nullptr},
    };
    const std::string log = kivtest::LibraryLog();
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(cases[i].first, cases[i].second ? KIV_OK : KIV_ERROR_INVALID_ARG) << i;
        if (cases[i].second) { EXPECT_EQ(kivtest::CountOf(log, std::string("] ") + cases[i].second + "\r\n"), 1u) << i; }
    }
    EXPECT_EQ(kivtest::CountOf(log, "Set video render"), 4u);  // refused calls log nothing
    EXPECT_EQ(V({KIV_GetVideoRenderPipelineMode(render), KIV_GetVideoRenderPipelineMode(mux), KIV_GetVideoRenderPipelineMode(nullptr)}),
              V({1, 0, 0}));
    KIV_DestroyPort(mux);
    KIV_DestroyPort(render);
    for (int32_t mode : {1, 0}) {  // new ports take the default pipeline mode
        ASSERT_EQ(KIV_SetDefaultPipelineMode(mode), KIV_OK);
        render = KIV_CreateVideoRender(nullptr);
        EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), mode);
        KIV_DestroyPort(render);
        const std::string line = "] VideoRender created pipelineMode=" + std::to_string(mode) + "\r\n";
        EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), line), mode ? 1u : 2u);  // the first port above was made in mode 0
    }
    KIV_EnableLog(0);
}

// Two sources feeding one port: while one frame is drawn every frame of the other is dropped, counted and
// logged at 1, 120 and 240.
TEST(RenderDropTest, FramesArrivingWhileDrawingAreDroppedAndLoggedSparingly) {
    kivtest::LibraryScope library;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    Shared shared;
    shared.holdDraw = true;
    auto* render = new KivVideoRender(kSomeWindow, std::make_unique<FakeGpu>(&shared), KivCreateRenderGpuStages());
    void* sources[2] = {KIV_CreateVideoFrameSource(), KIV_CreateVideoFrameSource()};
    for (void* source : sources) ASSERT_EQ(KIV_Connect(source, render), KIV_OK);
    PatternFrame frame(KIV_PIXEL_FORMAT_RGB32, 3, 3);
    std::thread drawing([&] { EXPECT_EQ(KIV_PushVideoFrame(sources[0], &frame.frame), KIV_OK); });
    {
        std::unique_lock<std::mutex> lock(shared.mutex);
        ASSERT_TRUE(shared.changed.wait_for(lock, std::chrono::seconds(10), [&] { return shared.drawing; }));
    }
    for (int i = 0; i < 249; ++i) ASSERT_EQ(KIV_PushVideoFrame(sources[1], &frame.frame), KIV_OK);
    EXPECT_EQ(render->OnVideoFrame(&frame.frame), KIV_OK);  // a dropped frame is not an error
    {
        std::lock_guard<std::mutex> lock(shared.mutex);
        shared.holdDraw = false;
        shared.changed.notify_all();
    }
    drawing.join();
    EXPECT_EQ(render->Drops(), 250u);
    const std::string log = kivtest::LibraryLog();
    char prefix[128];
    std::snprintf(prefix, sizeof(prefix), "] Video render busy, drop frame render=%p hwnd=%p drops=", static_cast<void*>(render), kSomeWindow);
    EXPECT_EQ(kivtest::CountOf(log, prefix), 3u);
    for (const char* count : {"1\r\n", "120\r\n", "240\r\n"}) EXPECT_EQ(kivtest::CountOf(log, prefix + std::string(count)), 1u) << count;
    EXPECT_EQ(shared.steps, "device,back,textures,upload,draw,");  // only the first source's frame was drawn
#ifndef _WIN32  // the window tests save snapshots through the platform's encoder
    // A snapshot of the drawn frame's stored copy goes to the image encoder, which the native build lacks.
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide("unwritten.bmp").c_str(), 1), KIV_ERROR_FAILED);
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "Snapshot save failed hr=0x80004001 path=unwritten.bmp"), 1u);
#endif
    KIV_EnableLog(0);
    for (void* source : sources) {
        KIV_Disconnect(source, render);
        KIV_DestroyPort(source);
    }
    KIV_DestroyPort(render);
}

}  // namespace
