// The render port: conversion against the reference, per-draw rules, the stored copy, frame steps over a stand-in
// for Direct3D, the exported setters, two sources racing; under Windows real windows read back.
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <thread>

#include "render/kiv_video_render.h"
#include "render/render_convert.h"
#include "render/render_gpu_stages.h"
#include "render/render_params.h"
#include "render/render_stored_frame.h"
#include "render_reference.h"
#include "test_support.h"
#ifdef _WIN32
#include "test_window_win.h"
#endif

namespace {

using rendertest::PatternFrame;
using V = std::vector<int64_t>;

const int32_t kFormats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32};

// Records the steps as "apply,device,...,draw,", fails the step a test names, can hold the draw (a busy port).
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

struct Fake : KivRenderGpu, KivRenderStages {
    explicit Fake(Shared* shared) : s(shared) {}
    bool WindowAlive() override { return s->windowAlive; }
    int32_t EnsureDevice() override { return s->Step("device"); }
    int32_t EnsureBackBuffer() override { return s->Step("back"); }
    int32_t EnsureFrameTextures(int32_t, int32_t, int32_t) override { return s->Step("textures"); }
    int32_t Upload(const KivVideoFrame&) override { return s->Step("upload"); }
    int32_t DrawAndPresent(const KivRenderDrawSettings& settings) override {
        std::unique_lock<std::mutex> lock(s->mutex);
        s->lastInterpolation = settings.interpolation, s->drawing = true;
        s->changed.notify_all();
        s->changed.wait(lock, [&] { return !s->holdDraw; });
        s->drawing = false;
        lock.unlock();
        return s->Step("draw");
    }
    void ReleaseFinalTexture() override { s->Step("releaseFinal"); }
    void ReleaseAll() override {}
    void ApplyPending(KivRenderGpu&) override { s->Step("apply"); }
    void TearDownForCpuPipeline(KivRenderGpu&) override { s->Step("teardown"); }
    int32_t WriteAudio(const KivAudioFrame&) override { return s->Step("audio") - 7; }
    Shared* s;
};

void* const kSomeWindow = reinterpret_cast<void*>(static_cast<uintptr_t>(0x1234));

std::unique_ptr<KivVideoRender> MakePort(Shared* shared, void* window = kSomeWindow) {
    return std::make_unique<KivVideoRender>(window, std::make_unique<Fake>(shared), std::make_unique<Fake>(shared));
}

void ExpectPlane(const uint8_t* got, int gotStride, const std::vector<uint8_t>& want, int wantStride, int rows) {
    ASSERT_EQ(V({gotStride, int64_t(want.size())}), V({wantStride, int64_t(wantStride) * rows}));
    EXPECT_EQ(std::vector<uint8_t>(got, got + want.size()), want);
}

TEST(RenderConvertTest, EveryFormatPairMatchesTheReferenceBitForBit) {
    // Shrinking, enlarging, odd sizes, one axis changed; last: strides of 0, NV12 chroma after the luma plane.
    const int sizes[][5] = {{64, 48, 37, 21, 0}, {20, 10, 33, 17, 0}, {63, 47, 64, 48, 0}, {31, 9, 31, 5, 0}, {2, 2, 1, 1, 0}, {16, 6, 8, 3, 1}};
    KivRenderConverter converter;  // one converter throughout: buffers are reused
    std::vector<uint8_t> bgra;
    for (const auto& s : sizes) {
        for (int32_t from : kFormats) {
            PatternFrame src(from, s[0], s[1], !s[4]);
            src.frame.timestamp = 1234567, src.frame.frameIndex = 42;
            if (s[4]) src.frame.strides[0] = src.frame.strides[1] = 0;
            // The snapshots' BGRA expansion: RGB32 as it is (alpha kept), the rest as converted to RGB32.
            ASSERT_EQ(KivRenderExpandToBgra(src.frame, &bgra), KIV_OK);
            EXPECT_EQ(bgra, from == KIV_PIXEL_FORMAT_RGB32 ? src.bytes : rendertest::ReferenceConvert(src.frame, s[0], s[1], KIV_PIXEL_FORMAT_RGB32).plane0);
            for (int32_t to : kFormats) {
                SCOPED_TRACE(testing::Message() << from << "->" << to << " " << s[0] << "x" << s[1] << "->" << s[2] << "x" << s[3]);
                KivVideoFrame out{};
                ASSERT_EQ(converter.Convert(src.frame, {s[2], s[3], to}, &out), KIV_OK);
                EXPECT_EQ(V({out.width, out.height, out.format, out.timestamp, int64_t(out.frameIndex)}), V({s[2], s[3], to, 1234567, 42}));
                const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(src.frame, s[2], s[3], to);
                ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, s[3]);
                if (to == KIV_PIXEL_FORMAT_NV12) ExpectPlane(out.planes[1], out.strides[1], want.plane1, want.stride1, (s[3] + 1) / 2);
            }
        }
    }
    PatternFrame row(KIV_PIXEL_FORMAT_RGB24, 3, 1);  // a single row is a frame; MJPG is not expanded
    KivVideoFrame mjpg = row.frame, empty = row.frame;
    mjpg.format = KIV_PIXEL_FORMAT_MJPG, empty.planes[0] = nullptr;
    EXPECT_EQ(V({KivRenderExpandToBgra(row.frame, &bgra), KivRenderExpandToBgra(mjpg, &bgra), KivRenderExpandToBgra(empty, &bgra)}),
              V({KIV_OK, KIV_ERROR_UNSUPPORTED, KIV_ERROR_INVALID_ARG}));
    // A target matching the frame (MJPG: the frame's own format) passes the record through.
    PatternFrame src(KIV_PIXEL_FORMAT_NV12, 32, 16);
    const std::pair<KivVideoRenderConfig, int32_t> cases[] = {  // the result; 1: the same record passed on
        {{0, 0, 0}, 1},        {{32, 16, KIV_PIXEL_FORMAT_NV12}, 1}, {{-5, 0, KIV_PIXEL_FORMAT_MJPG}, 1}, {{0, 0, KIV_PIXEL_FORMAT_RGB32}, 0},
        {{16, 0, 0}, 0},       {{0, 0, KIV_PIXEL_FORMAT_H264}, KIV_ERROR_UNSUPPORTED}, {{8, 8, 9}, KIV_ERROR_UNSUPPORTED}};
    for (const auto& c : cases) {
        KivVideoFrame out{};
        const int32_t result = converter.Convert(src.frame, c.first, &out);
        EXPECT_EQ(result < 0 ? result : out.planes[0] == src.frame.planes[0], c.second) << &c - cases;
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

TEST(RenderPortTest, FrameStepsFailuresPipelineSwitchInterpolationAndAudio) {
    const std::string all = "apply,device,back,textures,upload,draw,";
    // failing step ("window": destroyed, "none": no window), its code, result, handed on, stored, steps' length
    const struct { const char* failStep; int32_t failCode, result; bool handedOn, stored; size_t steps; } cases[] = {
        {"", 0, KIV_OK, true, true, all.size()},
        {"none", 0, KIV_OK, true, false, 6},
        {"window", 0, KIV_ERROR_INVALID_ARG, false, false, 6},
        {"device", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, false, 13},
        {"back", KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, false, false, 18},
        {"textures", KIV_ERROR_UNSUPPORTED, KIV_ERROR_UNSUPPORTED, false, false, 27},
        {"upload", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, false, 34},
        {"draw", KIV_ERROR_FAILED, KIV_ERROR_FAILED, true, true, all.size()}};  // a failed draw or present still hands on
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
    ASSERT_EQ(port->SetConfig(&config), KIV_OK);
    for (int32_t mode : {0, 1, 2}) {
        ASSERT_EQ(port->SetInterpolationMode(mode), KIV_OK);
        ASSERT_EQ(port->OnVideoFrame(&frame.frame), KIV_OK);
        EXPECT_EQ(shared.lastInterpolation, mode);
    }
    EXPECT_EQ(V({port->SetInterpolationMode(3), port->SetInterpolationMode(-1)}), V({KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG}));
}

TEST(RenderApiTest, SettersAnswerWithTheirCodes) {
    EXPECT_EQ(KIV_CreateVideoRender(nullptr), nullptr);  // the library is not initialised yet
    kivtest::LibraryScope library;
    void* render = KIV_CreateVideoRender(nullptr);
    ASSERT_NE(render, nullptr);
    void* mux = KIV_CreateVideoMux();
    const KivVideoRenderConfig zero{0, 0, 0}, negative{-1, 10, 4}, sized{640, 0, 5};
    const std::pair<std::function<int32_t()>, int32_t> cases[] = {
        {[&] { return KIV_SetVideoRenderConfig(render, nullptr); }, KIV_ERROR_INVALID_ARG},
        {[&] { return KIV_SetVideoRenderConfig(render, &negative); }, KIV_ERROR_INVALID_ARG},
        {[&] { return KIV_SetVideoRenderConfig(mux, &zero); }, KIV_ERROR_INVALID_ARG},
        {[&] { return KIV_SetVideoRenderInterpolationMode(mux, 1); }, KIV_ERROR_INVALID_ARG},
        {[&] { return KIV_SetVideoRenderPipelineMode(mux, 1); }, KIV_ERROR_INVALID_ARG},
        {[&] { return KIV_SetVideoRenderPipelineMode(nullptr, 1); }, KIV_ERROR_INVALID_ARG},
        {[&] { return KIV_GetVideoRenderPipelineMode(mux) + KIV_GetVideoRenderPipelineMode(nullptr); }, 0},
        {[&] { return KIV_SetVideoRenderConfig(render, &zero) + KIV_SetVideoRenderConfig(render, &sized); }, KIV_OK},
        {[&] { return KIV_SetVideoRenderInterpolationMode(render, 0) + KIV_SetVideoRenderPipelineMode(render, 1); }, KIV_OK},
        {[&] { return KIV_GetVideoRenderPipelineMode(render); }, 1},
    };
    for (const auto& c : cases) EXPECT_EQ(c.first(), c.second) << &c - cases;
    KIV_DestroyPort(mux);
    KIV_DestroyPort(render);
    for (int32_t mode : {1, 0}) {  // new ports take the default pipeline mode
        ASSERT_EQ(KIV_SetDefaultPipelineMode(mode), KIV_OK);
        render = KIV_CreateVideoRender(nullptr);
        EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), mode);
        KIV_DestroyPort(render);
    }
}

// Two sources on one port: while one frame is drawn the other's are dropped, counted, logged at 1, 120 and 240.
TEST(RenderDropTest, FramesArrivingWhileDrawingAreDroppedAndLoggedSparingly) {
    kivtest::LibraryScope library;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    Shared shared;
    shared.holdDraw = true;
    auto* render = new KivVideoRender(kSomeWindow, std::make_unique<Fake>(&shared), KivCreateRenderGpuStages());
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
    EXPECT_EQ(kivtest::CountOf(log, " drops="), 3u);
    for (const char* line : {" drops=1\r\n", " drops=120\r\n", " drops=240\r\n"}) EXPECT_EQ(kivtest::CountOf(log, line), 1u) << line;
    EXPECT_EQ(shared.steps, "device,back,textures,upload,draw,");  // only the first source's frame was drawn
#ifndef _WIN32  // a snapshot of the drawn frame goes to the image encoder, which the native build lacks
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide("unwritten.bmp").c_str(), 1), KIV_ERROR_FAILED);
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "Snapshot save failed hr=0x80004001"), 1u);
#endif
    KIV_EnableLog(0);
    for (void* source : sources) KIV_Disconnect(source, render), KIV_DestroyPort(source);
    KIV_DestroyPort(render);
}

#ifdef _WIN32  // real windows and Direct3D 11 under Wine: every pixel read back against the reference

// Stands in for the LUT configuration's colour settings.
struct FixedColour : KivRenderStages {
    KivRenderColorSettings ColorSettings() override { return {colour.colorSpace, colour.colorRange, 1.0f}; }
    rendertest::ColourCase colour{1, 2};
};

struct Harness {
    rendertest::TestWindow window;
    FixedColour* colour = new FixedColour();
    KivVideoRender* render;
    void* source = KIV_CreateVideoFrameSource();
    Harness(int width, int height, int x = 0)
        : window(width, height, x, 0), render(new KivVideoRender(window.Handle(), nullptr, std::unique_ptr<KivRenderStages>(colour))) {
        EXPECT_EQ(KIV_Connect(source, render), KIV_OK);
    }
    ~Harness() { KIV_Disconnect(source, render), KIV_DestroyPort(source), KIV_DestroyPort(render); }
    // The reference sampled just before and after each pixel centre, within 2/255 (rasterisation rounds in float).
    void ExpectShown(const KivVideoFrame& f, int w, int h) {
        std::string where;
        auto want = [&](double nudge) { return rendertest::ExpectedWindow(f, w, h, colour->colour, nudge); };
        EXPECT_LE(rendertest::PushUntilShown(source, f, window, {want(-1e-5), want(1e-5)}, 3, 2, &where), 2) << where;
    }
};

TEST(RenderWindowTest, FormatsColoursSamplersResizeAndADestroyedWindow) {
    kivtest::LibraryScope library;
    struct DrawCase { int32_t format; int width, height; rendertest::ColourCase colour; bool nv12ChromaPointer; };
    std::vector<DrawCase> cases;
    for (int32_t format : {KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_RGB24})
        for (int w : {64, 63}) cases.push_back({format, w, w - 16, {1, 2}, true});
    for (int32_t format : {KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_YUY2}) {
        for (int32_t space : {1, 2, 3})
            for (int32_t range : {1, 2}) cases.push_back({format, 64, 48, {space, range}, true});
        const bool nv12 = format == KIV_PIXEL_FORMAT_NV12;
        cases.push_back({format, 63, 47, {nv12 ? 1 : 2, nv12 ? 2 : 1}, true});
    }
    cases.push_back({KIV_PIXEL_FORMAT_NV12, 64, 48, {2, 2}, false});
    Harness even(64, 48), odd(63, 47, 100);  // side by side: a covered window reads black
    for (const DrawCase& c : cases) {
        SCOPED_TRACE(testing::Message() << c.format << " " << c.width << " space " << c.colour.colorSpace << " range "
                                        << c.colour.colorRange << (c.nv12ChromaPointer ? "" : " no chroma pointer"));
        Harness& h = c.width == 64 ? even : odd;
        h.colour->colour = c.colour;
        h.ExpectShown(PatternFrame(c.format, c.width, c.height, c.nv12ChromaPointer).frame, c.width, c.height);
    }
    // Black and white columns shrunk to two thirds: nearest sampling keeps them so, bilinear makes greys.
    std::vector<uint8_t> stripes(96u * 48u * 4u);
    for (size_t i = 0; i < stripes.size(); ++i) stripes[i] = ((i / 4) % 2) ? 255 : 0;
    const KivVideoFrame frame = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 96, 48, stripes.data(), 96 * 4);
    for (int32_t mode : {1, 0}) {  // nearest, bilinear
        ASSERT_EQ(even.render->SetInterpolationMode(mode), KIV_OK);
        int greys = 0, whites = 0;
        for (int attempt = 0; attempt < 40 && (greys + whites == 0 || (greys == 0) != (mode == 1)); ++attempt) {
            ASSERT_EQ(KIV_PushVideoFrame(even.source, &frame), KIV_OK);
            rendertest::PumpMessages();
            Sleep(50);
            const std::vector<uint8_t> shown = even.window.Read();
            greys = whites = 0;
            for (size_t i = 1; i < shown.size(); i += 4) greys += shown[i] > 8 && shown[i] < 247, whites += shown[i] >= 247;
        }
        EXPECT_EQ(greys == 0, mode == 1) << mode << ": " << greys << " grey pixels";
    }
    // A resized window gets a new back buffer; a destroyed one refuses frames and skips the callback.
    ASSERT_EQ(even.render->SetInterpolationMode(2), KIV_OK);
    kivtest::FrameCatcher catcher(even.render);
    SetWindowPos(even.window.Handle(), nullptr, 0, 0, 96, 80, SWP_NOZORDER | SWP_NOMOVE);
    PatternFrame pattern(KIV_PIXEL_FORMAT_NV12, 64, 48);
    even.ExpectShown(pattern.frame, 96, 80);
    const size_t handedOn = catcher.Count();
    EXPECT_GE(handedOn, 1u);
    even.window.Destroy();
    EXPECT_EQ(even.render->OnVideoFrame(&pattern.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(catcher.Count(), handedOn);
}

#endif

}  // namespace
