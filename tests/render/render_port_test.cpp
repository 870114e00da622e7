// Frame intake, callback rules, setters and the pipeline switch of the render
// port, with the Direct3D steps replaced by a recording stand-in.
#include <gtest/gtest.h>

#include <memory>

#include "fake_render_gpu.h"
#include "pixel_reference.h"
#include "render/kiv_video_render.h"
#include "test_support.h"

namespace {

using rendertest::FakeGpu;
using rendertest::PatternFrame;

void* const kSomeWindow = reinterpret_cast<void*>(static_cast<uintptr_t>(0x1234));

std::unique_ptr<KivVideoRender> MakePort(FakeGpu::Shared* shared, void* window = kSomeWindow) {
    return std::make_unique<KivVideoRender>(window, std::make_unique<FakeGpu>(shared),
                                            std::make_unique<rendertest::RecordingStages>(shared));
}

struct StepCase {
    const char* failStep;  // "" for none, "window" for a destroyed window
    int32_t failCode;
    int32_t result;
    bool callback;
    bool stored;
    const char* steps;
};

TEST(RenderPortTest, FrameStepsRunInOrderAndAFailureDecidesTheCallback) {
    const StepCase cases[] = {
        {"", 0, KIV_OK, true, true, "apply,device,back,textures,upload,draw,"},
        {"window", 0, KIV_ERROR_INVALID_ARG, false, false, "apply,"},
        {"device", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, false, "apply,device,"},
        {"back", KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, false, false, "apply,device,back,"},
        {"textures", KIV_ERROR_UNSUPPORTED, KIV_ERROR_UNSUPPORTED, false, false, "apply,device,back,textures,"},
        {"upload", KIV_ERROR_FAILED, KIV_ERROR_FAILED, false, false, "apply,device,back,textures,upload,"},
        // A failed draw or present still hands the frame on.
        {"draw", KIV_ERROR_FAILED, KIV_ERROR_FAILED, true, true, "apply,device,back,textures,upload,draw,"},
    };
    for (const StepCase& c : cases) {
        SCOPED_TRACE(c.failStep);
        FakeGpu::Shared shared;
        shared.failStep = c.failStep;
        shared.failCode = c.failCode;
        shared.windowAlive = std::string(c.failStep) != "window";
        auto port = MakePort(&shared);
        kivtest::FrameCatcher catcher(port.get());
        PatternFrame frame(KIV_PIXEL_FORMAT_RGB24, 8, 4);
        EXPECT_EQ(port->OnVideoFrame(&frame.frame), c.result);
        EXPECT_EQ(shared.steps, c.steps);
        EXPECT_EQ(catcher.Count(), c.callback ? 1u : 0u);
        EXPECT_EQ(!port->StoredFrame().Empty(), c.stored);
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
        EXPECT_EQ(got.width * 100 + got.height * 10 + got.format, 534);
        EXPECT_EQ(got.strides[0], 20);
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

TEST(RenderPortTest, PipelineSwitchToCpuTearsDownTheGpuStagesOnce) {
    FakeGpu::Shared shared;
    auto port = MakePort(&shared);
    struct Step {
        int32_t mode, result;
        const char* steps;
    };
    const Step steps[] = {
        {2, KIV_ERROR_INVALID_ARG, ""}, {1, KIV_OK, ""}, {1, KIV_OK, ""},
        {0, KIV_OK, "teardown,releaseFinal,"}, {0, KIV_OK, ""}, {-1, KIV_ERROR_INVALID_ARG, ""},
    };
    for (const Step& s : steps) {
        shared.steps.clear();
        EXPECT_EQ(port->SetPipelineMode(s.mode), s.result) << s.mode;
        EXPECT_EQ(shared.steps, s.steps) << s.mode;
    }
    EXPECT_EQ(port->PipelineMode(), 0);
}

TEST(RenderPortTest, AudioReachesTheGpuRecorderOnlyInTheGpuPipeline) {
    FakeGpu::Shared shared;
    auto port = MakePort(&shared);
    int16_t samples[4] = {};
    KivAudioFrame audio{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(port->OnAudioFrame(&audio), KIV_OK);
    ASSERT_EQ(port->SetPipelineMode(1), KIV_OK);
    EXPECT_EQ(port->OnAudioFrame(&audio), -7);  // the stage's own result
    EXPECT_EQ(shared.steps, "audio,");
}

TEST(RenderPortTest, InterpolationModeReachesTheDraw) {
    FakeGpu::Shared shared;
    auto port = MakePort(&shared);
    PatternFrame frame(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    for (int32_t mode : {0, 1, 2}) {
        ASSERT_EQ(port->SetInterpolationMode(mode), KIV_OK);
        ASSERT_EQ(port->OnVideoFrame(&frame.frame), KIV_OK);
        EXPECT_EQ(shared.lastInterpolation, mode);
    }
    EXPECT_EQ(port->SetInterpolationMode(3), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(port->SetInterpolationMode(-1), KIV_ERROR_INVALID_ARG);
}

// The exported functions as an application calls them: result codes and the
// log line of each.
class RenderApiTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override { KIV_EnableLog(0); }
    kivtest::LibraryScope library;
};

TEST_F(RenderApiTest, SettersAnswerWithTheirCodesAndLines) {
    void* render = KIV_CreateVideoRender(nullptr);
    ASSERT_NE(render, nullptr);
    void* mux = KIV_CreateVideoMux();
    const KivVideoRenderConfig zero{0, 0, 0}, negative{-1, 10, 4}, sized{640, 0, 5};
    struct Case {
        const char* what;
        KivResult result;
        KivResult expected;
        const char* line;  // null: no line expected
    };
    const Case cases[] = {
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
    const std::string log = kivtest::LibraryLog();
    for (const Case& c : cases) {
        EXPECT_EQ(c.result, c.expected) << c.what;
        if (c.line) { EXPECT_EQ(kivtest::CountOf(log, std::string("] ") + c.line + "\r\n"), 1u) << c.what; }
    }
    EXPECT_EQ(kivtest::CountOf(log, "Set video render"), 4u);  // refused calls log nothing
    EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), 1);
    EXPECT_EQ(KIV_GetVideoRenderPipelineMode(mux), 0);
    EXPECT_EQ(KIV_GetVideoRenderPipelineMode(nullptr), 0);
    KIV_DestroyPort(mux);
    KIV_DestroyPort(render);
}

TEST_F(RenderApiTest, NewPortsTakeTheDefaultPipelineMode) {
    for (int32_t mode : {1, 0}) {
        ASSERT_EQ(KIV_SetDefaultPipelineMode(mode), KIV_OK);
        void* render = KIV_CreateVideoRender(nullptr);
        EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), mode);
        KIV_DestroyPort(render);
    }
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "] VideoRender created pipelineMode=1\r\n"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "] VideoRender created pipelineMode=0\r\n"), 1u);
}

TEST(RenderApiLifecycleTest, CreationNeedsTheLibrary) { EXPECT_EQ(KIV_CreateVideoRender(nullptr), nullptr); }

}  // namespace
