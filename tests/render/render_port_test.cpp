// The render port without a real window: the CPU conversion against the
// independent reference, the per-draw rules, the stored copy, the frame steps
// over a stand-in for Direct3D, and the exported setters.
#include <gtest/gtest.h>

#include "render/kiv_video_render.h"
#include "render/render_convert.h"
#include "render/render_params.h"
#include "render/render_stored_frame.h"
#include "render_reference.h"
#include "test_support.h"

namespace {

using rendertest::FakeGpu;
using rendertest::PatternFrame;

const int32_t kFormats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32};

void ExpectPlane(const uint8_t* got, int gotStride, const std::vector<uint8_t>& want, int wantStride, int rows) {
    ASSERT_EQ(gotStride, wantStride);
    ASSERT_EQ(want.size(), static_cast<size_t>(wantStride) * rows);
    for (int i = 0; i < wantStride * rows; ++i) ASSERT_EQ(got[i], want[i]) << "row " << i / wantStride << " byte " << i % wantStride;
}

TEST(RenderConvertTest, EveryFormatPairMatchesTheReferenceBitForBit) {
    // Shrinking, enlarging, odd sizes on either side, a size change of one axis.
    const int sizes[][4] = {{64, 48, 37, 21}, {20, 10, 33, 17}, {63, 47, 64, 48}, {31, 9, 31, 5}, {2, 2, 1, 1}};
    KivRenderConverter converter;  // one converter throughout: buffers are reused
    for (const auto& s : sizes) {
        for (int32_t from : kFormats) {
            for (int32_t to : kFormats) {
                SCOPED_TRACE(testing::Message() << from << "->" << to << " " << s[0] << "x" << s[1] << "->" << s[2] << "x" << s[3]);
                PatternFrame src(from, s[0], s[1]);
                src.frame.timestamp = 1234567;
                src.frame.frameIndex = 42;
                KivVideoFrame out{};
                ASSERT_EQ(converter.Convert(src.frame, {s[2], s[3], to}, &out), KIV_OK);
                EXPECT_EQ(std::vector<int64_t>({out.width, out.height, out.format, out.timestamp, int64_t(out.frameIndex)}),
                          std::vector<int64_t>({s[2], s[3], to, 1234567, 42}));
                const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(src.frame, s[2], s[3], to);
                ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, s[3]);
                if (to == KIV_PIXEL_FORMAT_NV12) ExpectPlane(out.planes[1], out.strides[1], want.plane1, want.stride1, (s[3] + 1) / 2);
            }
        }
    }
    // Strides below 1 mean tight rows; NV12 chroma follows the luma plane when the second pointer is null.
    for (int32_t from : kFormats) {
        PatternFrame tight(from, 16, 6, false);
        KivVideoFrame zero = tight.frame;
        zero.strides[0] = zero.strides[1] = 0;
        KivVideoFrame out{};
        ASSERT_EQ(converter.Convert(zero, {8, 3, KIV_PIXEL_FORMAT_RGB32}, &out), KIV_OK);
        const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(tight.frame, 8, 3, KIV_PIXEL_FORMAT_RGB32);
        ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, 3);
    }
}

TEST(RenderConvertTest, MatchingTargetPassesTheRecordThrough) {
    PatternFrame src(KIV_PIXEL_FORMAT_NV12, 32, 16);
    const struct {
        KivVideoRenderConfig config;
        int32_t result;
        bool sameRecord;
    } cases[] = {
        {{0, 0, 0}, KIV_OK, true},
        {{32, 16, KIV_PIXEL_FORMAT_NV12}, KIV_OK, true},
        {{-5, 0, KIV_PIXEL_FORMAT_MJPG}, KIV_OK, true},  // MJPG means the frame's own format
        {{0, 0, KIV_PIXEL_FORMAT_RGB32}, KIV_OK, false},
        {{16, 0, 0}, KIV_OK, false},
        {{0, 0, KIV_PIXEL_FORMAT_H264}, KIV_ERROR_UNSUPPORTED, false},
        {{8, 8, 9}, KIV_ERROR_UNSUPPORTED, false},
    };
    KivRenderConverter converter;
    for (const auto& c : cases) {
        KivVideoFrame out{};
        ASSERT_EQ(converter.Convert(src.frame, c.config, &out), c.result);
        if (c.result == KIV_OK) { EXPECT_EQ(out.planes[0] == src.frame.planes[0], c.sameRecord); }
    }
}

TEST(RenderConvertTest, ExpandToBgraMatchesTheReferencePixels) {
    for (int32_t from : kFormats) {
        for (int width : {17, 16}) {
            SCOPED_TRACE(testing::Message() << from << " width " << width);
            PatternFrame src(from, width, 5, from != KIV_PIXEL_FORMAT_NV12 || width == 16);
            std::vector<uint8_t> out;
            ASSERT_EQ(KivRenderExpandToBgra(src.frame, &out), KIV_OK);
            ASSERT_EQ(out.size(), static_cast<size_t>(width) * 5 * 4);
            for (int i = 0; i < width * 5; ++i) {
                const rendertest::Bgr want = rendertest::ReferencePixel(src.frame, i % width, i / width);
                const int alpha = from == KIV_PIXEL_FORMAT_RGB32 ? src.frame.planes[0][src.frame.strides[0] * (i / width) + (i % width) * 4 + 3] : 255;
                ASSERT_EQ(std::vector<int>(out.begin() + i * 4, out.begin() + i * 4 + 4), (std::vector<int>{want.b, want.g, want.r, alpha})) << i;
            }
        }
    }
    std::vector<uint8_t> out;
    PatternFrame row(KIV_PIXEL_FORMAT_RGB24, 3, 1);  // a single row is a frame
    EXPECT_EQ(KivRenderExpandToBgra(row.frame, &out), KIV_OK);
    EXPECT_EQ(out.size(), 12u);
    PatternFrame mjpg(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    mjpg.frame.format = KIV_PIXEL_FORMAT_MJPG;
    EXPECT_EQ(KivRenderExpandToBgra(mjpg.frame, &out), KIV_ERROR_UNSUPPORTED);
    mjpg.frame.planes[0] = nullptr;
    EXPECT_EQ(KivRenderExpandToBgra(mjpg.frame, &out), KIV_ERROR_INVALID_ARG);
}

TEST(RenderRulesTest, ColourSpaceRangeSamplingAndBaseParams) {
    // Automatic colour space: BT.709 from 1280 wide or 577 high up.
    const int32_t spaces[][4] = {{0, 1280, 720, 2}, {0, 720, 576, 1}, {0, 720, 577, 2}, {0, 1279, 576, 1}, {7, 1280, 100, 2},
                                 {1, 1920, 1080, 1}, {2, 640, 480, 2},  {3, 640, 480, 3},  {-1, 640, 480, 1}};
    for (const auto& c : spaces) EXPECT_EQ(KivRenderColorSpace(c[0], c[1], c[2]), c[3]) << c[0] << " " << c[1] << "x" << c[2];
    EXPECT_EQ(std::vector<int>({KivRenderColorRange(1), KivRenderColorRange(0), KivRenderColorRange(3)}), std::vector<int>({1, 2, 2}));
    // Automatic sampling (mode 2) is nearest down to seven tenths of the frame size.
    const int32_t sampling[][6] = {{2, 1280, 720, 1920, 1080, 0}, {2, 1400, 800, 1920, 1080, 1}, {2, 700, 1000, 1000, 1000, 1},
                                   {2, 699, 1000, 1000, 1000, 0}, {2, 4000, 100, 100, 1000, 0},  {2, 10, 10, 0, 0, 1},
                                   {1, 10, 10, 1000, 1000, 1},    {0, 1000, 1000, 10, 10, 0},
                                   {2, 10, 0, 10, 1, 0},          {2, 0, 10, 1, 10, 0}};
    for (const auto& c : sampling) EXPECT_EQ(KivRenderUseNearest(c[0], c[1], c[2], c[3], c[4]), c[5] == 1) << c[0] << " " << c[1] << "x" << c[2];
    const KivRenderParams p = KivRenderBaseParams(KIV_PIXEL_FORMAT_YUY2, true, {0, 1, 1.5f}, 720, 576);
    EXPECT_EQ(std::vector<float>({float(p.mode), float(p.interp), float(p.lutEnable), p.lutStrength, float(p.colorSpace),
                                  float(p.colorRange), p.domainMax[0], p.domainMax[2], p.domainPad1}),
              std::vector<float>({2, 1, 0, 1.0f, 1, 1, 1.0f, 1.0f, 0}));
    EXPECT_EQ(KivRenderBaseParams(KIV_PIXEL_FORMAT_NV12, false, {0, 0, -2.0f}, 8, 8).lutStrength, 0.0f);
    EXPECT_EQ(KivRenderShaderMode(KIV_PIXEL_FORMAT_NV12), 1);
    EXPECT_EQ(KivRenderShaderMode(KIV_PIXEL_FORMAT_RGB24), 0);
}

TEST(RenderRulesTest, StoredFrameCopiesPlanesWithDefaultStrides) {
    PatternFrame nv12(KIV_PIXEL_FORMAT_NV12, 7, 5, false);
    KivVideoFrame tight = nv12.frame;
    tight.strides[0] = tight.strides[1] = 0;  // read as width: luma 7, chroma 7
    tight.timestamp = 99;
    tight.frameIndex = 3;
    KivRenderStoredFrame stored;
    stored.Store(tight);
    EXPECT_EQ(std::vector<int64_t>({stored.stride, stored.chromaStride, stored.timestamp, int64_t(stored.frameIndex)}),
              std::vector<int64_t>({7, 7, 99, 3}));
    ASSERT_EQ(stored.plane0.size(), 35u);
    ASSERT_EQ(stored.chroma.size(), 21u);  // three chroma rows for five luma rows
    EXPECT_TRUE(std::equal(stored.chroma.begin(), stored.chroma.end(), nv12.bytes.begin() + 35));
    PatternFrame rgb(KIV_PIXEL_FORMAT_RGB24, 3, 2);
    KivVideoFrame mjpg = rgb.frame;
    mjpg.format = KIV_PIXEL_FORMAT_MJPG;
    stored.Store(mjpg);  // not an uncompressed frame: the copy stays
    EXPECT_EQ(stored.format, KIV_PIXEL_FORMAT_NV12);
    stored.Store(rgb.frame);
    EXPECT_EQ(stored.format, KIV_PIXEL_FORMAT_RGB24);
    EXPECT_TRUE(stored.chroma.empty());
    EXPECT_EQ(stored.chromaStride, 0);
    EXPECT_TRUE(std::equal(rgb.bytes.begin(), rgb.bytes.end(), stored.View().planes[0]));
    PatternFrame yuy2(KIV_PIXEL_FORMAT_YUY2, 4, 2);
    yuy2.frame.strides[0] = 0;  // tight: two bytes a pixel
    stored.Store(yuy2.frame);
    EXPECT_EQ(stored.stride * 100 + int(stored.plane0.size()), 816);
}

void* const kSomeWindow = reinterpret_cast<void*>(static_cast<uintptr_t>(0x1234));

std::unique_ptr<KivVideoRender> MakePort(FakeGpu::Shared* shared, void* window = kSomeWindow) {
    return std::make_unique<KivVideoRender>(window, std::make_unique<FakeGpu>(shared),
                                            std::make_unique<rendertest::RecordingStages>(shared));
}

TEST(RenderPortTest, FrameStepsRunInOrderAndAFailureDecidesTheCallback) {
    const std::string all = "apply,device,back,textures,upload,draw,";
    const struct {
        const char* failStep;  // "" for none, "window" for a destroyed window
        int32_t failCode, result;
        bool handedOn;  // to the callback and the stored copy
        size_t steps;   // length of the step list's head
    } cases[] = {
        {"", 0, KIV_OK, true, all.size()},
        {"window", 0, KIV_ERROR_INVALID_ARG, false, 6},
        {"device", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, 13},
        {"back", KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, false, 18},
        {"textures", KIV_ERROR_UNSUPPORTED, KIV_ERROR_UNSUPPORTED, false, 27},
        {"upload", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, 34},
        {"draw", KIV_ERROR_FAILED, KIV_ERROR_FAILED, true, all.size()},  // a failed draw or present still hands the frame on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failStep);
        FakeGpu::Shared shared;
        shared.failStep = c.failStep;
        shared.failCode = c.failCode;
        shared.windowAlive = std::string(c.failStep) != "window";
        auto port = MakePort(&shared);
        kivtest::FrameCatcher catcher(port.get());
        PatternFrame frame(KIV_PIXEL_FORMAT_RGB24, 8, 4);
        EXPECT_EQ(port->OnVideoFrame(&frame.frame), c.result);
        EXPECT_EQ(shared.steps, all.substr(0, c.steps));
        EXPECT_EQ(catcher.Count(), c.handedOn ? 1u : 0u);
        EXPECT_EQ(!port->StoredFrame().Empty(), c.handedOn);
    }
}

TEST(RenderPortTest, CallbackGetsTheConvertedFrameAndWindowlessPortsDrawNothing) {
    for (void* window : {kSomeWindow, static_cast<void*>(nullptr)}) {
        FakeGpu::Shared shared;
        auto port = MakePort(&shared, window);
        kivtest::FrameCatcher catcher(port.get());
        const KivVideoRenderConfig config{5, 3, KIV_PIXEL_FORMAT_RGB32};
        ASSERT_EQ(port->SetConfig(&config), KIV_OK);
        PatternFrame frame(KIV_PIXEL_FORMAT_YUY2, 10, 6);
        EXPECT_EQ(port->OnVideoFrame(&frame.frame), KIV_OK);
        ASSERT_EQ(catcher.Count(), 1u);
        const KivVideoFrame& got = catcher.frames[0].meta;
        EXPECT_EQ(std::vector<int>({got.width, got.height, got.format, got.strides[0]}), std::vector<int>({5, 3, KIV_PIXEL_FORMAT_RGB32, 20}));
        EXPECT_EQ(shared.steps, window ? "apply,device,back,textures,upload,draw," : "apply,");
        EXPECT_EQ(port->StoredFrame().Empty(), window == nullptr);  // the stored copy is of the converted frame
        if (window) { EXPECT_EQ(port->StoredFrame().width, 5); }
    }
}

TEST(RenderPortTest, RefusedFramesNeverReachTheCallback) {
    FakeGpu::Shared shared;
    auto port = MakePort(&shared);
    kivtest::FrameCatcher catcher(port.get());
    PatternFrame frame(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    KivVideoFrame empty = frame.frame;
    empty.height = 0;
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(port->OnVideoFrame(&empty), KIV_ERROR_INVALID_ARG);
    const KivVideoRenderConfig h264{0, 0, KIV_PIXEL_FORMAT_H264};
    ASSERT_EQ(port->SetConfig(&h264), KIV_OK);
    EXPECT_EQ(port->OnVideoFrame(&frame.frame), KIV_ERROR_UNSUPPORTED);
    EXPECT_EQ(catcher.Count(), 0u);
    EXPECT_EQ(shared.steps, "apply,");  // pending requests are applied before conversion
}

TEST(RenderPortTest, PipelineSwitchInterpolationAndAudio) {
    FakeGpu::Shared shared;
    auto port = MakePort(&shared);
    int16_t samples[4] = {};
    KivAudioFrame audio{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(port->OnAudioFrame(&audio), KIV_OK);  // reaches the GPU recorder only in the GPU pipeline
    // Leaving the GPU pipeline tears its stages down once.
    const std::pair<int32_t, const char*> modes[] = {{2, ""}, {1, ""}, {1, ""}, {0, "teardown,releaseFinal,"}, {0, ""}, {-1, ""}};
    for (const auto& m : modes) {
        shared.steps.clear();
        EXPECT_EQ(port->SetPipelineMode(m.first), m.first == 0 || m.first == 1 ? KIV_OK : KIV_ERROR_INVALID_ARG) << m.first;
        EXPECT_EQ(shared.steps, m.second) << m.first;
        if (m.first == 1) {
            EXPECT_EQ(port->OnAudioFrame(&audio), -7);  // the stage's own result
            EXPECT_EQ(shared.steps, "audio,");
            shared.steps.clear();
        }
    }
    EXPECT_EQ(port->PipelineMode(), 0);
    PatternFrame frame(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    for (int32_t mode : {0, 1, 2}) {
        ASSERT_EQ(port->SetInterpolationMode(mode), KIV_OK);
        ASSERT_EQ(port->OnVideoFrame(&frame.frame), KIV_OK);
        EXPECT_EQ(shared.lastInterpolation, mode);
    }
    EXPECT_EQ(port->SetInterpolationMode(3), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(port->SetInterpolationMode(-1), KIV_ERROR_INVALID_ARG);
}

TEST(RenderApiTest, SettersAnswerWithTheirCodesAndLines) {
    EXPECT_EQ(KIV_CreateVideoRender(nullptr), nullptr);  // the library is not initialised yet
    kivtest::LibraryScope library;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* render = KIV_CreateVideoRender(nullptr);
    ASSERT_NE(render, nullptr);
    void* mux = KIV_CreateVideoMux();
    const KivVideoRenderConfig zero{0, 0, 0}, negative{-1, 10, 4}, sized{640, 0, 5};
    const struct {
        const char* what;
        KivResult result, expected;
        const char* line;  // null: no line expected
    } cases[] = {
        {"config null", KIV_SetVideoRenderConfig(render, nullptr), KIV_ERROR_INVALID_ARG, nullptr},
        {"config negative", KIV_SetVideoRenderConfig(render, &negative), KIV_ERROR_INVALID_ARG, nullptr},
        {"config zero", KIV_SetVideoRenderConfig(render, &zero), KIV_OK, "Set video render config target=0x0 fmt=0"},
        {"config sized", KIV_SetVideoRenderConfig(render, &sized), KIV_OK, "Set video render config target=640x0 fmt=5"},
        {"config mux", KIV_SetVideoRenderConfig(mux, &zero), KIV_ERROR_INVALID_ARG, nullptr},
        {"interp 3", KIV_SetVideoRenderInterpolationMode(render, 3), KIV_ERROR_INVALID_ARG, nullptr},
        {"interp 0", KIV_SetVideoRenderInterpolationMode(render, 0), KIV_OK, "Set video render interpolation mode=0"},
        {"interp mux", KIV_SetVideoRenderInterpolationMode(mux, 1), KIV_ERROR_INVALID_ARG, nullptr},
        {"pipeline 2", KIV_SetVideoRenderPipelineMode(render, 2), KIV_ERROR_INVALID_ARG, nullptr},
        {"pipeline 1", KIV_SetVideoRenderPipelineMode(render, 1), KIV_OK, "Set video render pipeline mode=1"},
        {"pipeline mux", KIV_SetVideoRenderPipelineMode(mux, 1), KIV_ERROR_INVALID_ARG, nullptr},
        {"pipeline null", KIV_SetVideoRenderPipelineMode(nullptr, 1), KIV_ERROR_INVALID_ARG, nullptr},
    };
    std::string log = kivtest::LibraryLog();
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, c.expected) << c.what;
        if (c.line) { EXPECT_EQ(kivtest::CountOf(log, std::string("] ") + c.line + "\r\n"), 1u) << c.what; }
    }
    EXPECT_EQ(kivtest::CountOf(log, "Set video render"), 4u);  // refused calls log nothing
    EXPECT_EQ(std::vector<int32_t>({KIV_GetVideoRenderPipelineMode(render), KIV_GetVideoRenderPipelineMode(mux),
                                    KIV_GetVideoRenderPipelineMode(nullptr)}),
              std::vector<int32_t>({1, 0, 0}));
    KIV_DestroyPort(mux);
    KIV_DestroyPort(render);
    // New ports take the default pipeline mode.
    KIV_EnableLog(0);
    KIV_EnableLog(1);
    for (int32_t mode : {1, 0}) {
        ASSERT_EQ(KIV_SetDefaultPipelineMode(mode), KIV_OK);
        render = KIV_CreateVideoRender(nullptr);
        EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), mode);
        KIV_DestroyPort(render);
    }
    log = kivtest::LibraryLog();
    for (const char* line : {"] VideoRender created pipelineMode=1\r\n", "] VideoRender created pipelineMode=0\r\n"})
        EXPECT_EQ(kivtest::CountOf(log, line), 1u) << line;
    KIV_EnableLog(0);
}

}  // namespace
