// The render port drawing into real windows under Wine's Direct3D 11: every
// pixel read back from the window is compared with the independent reference.
#include <gtest/gtest.h>

#include "render/kiv_video_render.h"
#include "render_reference.h"
#include "test_support.h"
#include "test_window_win.h"

namespace {

using rendertest::ColourCase;
using rendertest::PatternFrame;

constexpr int kTolerance = 2;  // software rasterisation rounds in float; two steps of 1/255 cover it

// Stands in for the LUT configuration's colour settings.
class FixedColour : public KivRenderStages {
public:
    KivRenderColorSettings ColorSettings() override { return {colour.colorSpace, colour.colorRange, 1.0f}; }
    ColourCase colour{1, 2};
};

// Starting Wine's Direct3D takes seconds: the library stays initialised for the whole suite.
class RenderWindowTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { library = new kivtest::LibraryScope(); }
    static void TearDownTestSuite() { delete library; }
    static inline kivtest::LibraryScope* library = nullptr;
};

// A render port on a window, fed through a frame source as an application would.
struct Harness {
    rendertest::TestWindow window;
    FixedColour* colour = new FixedColour();
    KivVideoRender* render;
    void* source = KIV_CreateVideoFrameSource();
    Harness(int width, int height, int x = 0)
        : window(width, height, x, 0), render(new KivVideoRender(window.Handle(), nullptr, std::unique_ptr<KivRenderStages>(colour))) {
        EXPECT_EQ(KIV_Connect(source, render), KIV_OK);
    }
    ~Harness() {
        KIV_Disconnect(source, render);
        KIV_DestroyPort(source);
        KIV_DestroyPort(render);
    }
    // The reference sampled just before and just after each pixel centre.
    void ExpectShown(const KivVideoFrame& frame, int width, int height) {
        std::string where;
        EXPECT_LE(rendertest::PushUntilShown(source, frame, window,
                                             {rendertest::ExpectedWindow(frame, width, height, colour->colour, -1e-5),
                                              rendertest::ExpectedWindow(frame, width, height, colour->colour, 1e-5)},
                                             3, kTolerance, &where),
                  kTolerance)
            << where;
    }
};

TEST_F(RenderWindowTest, EveryFormatDrawsTheReferencePicture) {
    struct DrawCase {
        int32_t format;
        int width, height;  // the window matches the frame
        ColourCase colour;
        bool nv12ChromaPointer;
    };
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
}

// Alternating black and white columns: nearest sampling keeps every pixel black or white, filtering mixes
// them into greys. 1280/1920 = 0.667 is below 0.7; min(1400/1920, 800/1080) = 0.729 is not.
TEST_F(RenderWindowTest, AutomaticInterpolationFiltersOnlyAMarkedShrink) {
    std::vector<uint8_t> stripes(1920u * 1080u * 4u);
    for (size_t i = 0; i < stripes.size(); ++i) stripes[i] = ((i / 4) % 2) ? 255 : 0;
    const KivVideoFrame frame = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 1920, 1080, stripes.data(), 1920 * 4);
    for (const auto& c : {std::make_pair(1280, false), std::make_pair(1400, true)}) {
        // A window running off the screen reads back black (or scaled) there.
        ASSERT_GE(GetSystemMetrics(SM_CXSCREEN), c.first) << "scripts/wine-env.sh starts Xvfb at 1920x1200; restart an older display";
        Harness h(c.first, c.first == 1280 ? 720 : 800);
        bool blackAndWhite = !c.second;
        for (int attempt = 0; attempt < 40 && blackAndWhite != c.second; ++attempt) {
            ASSERT_EQ(KIV_PushVideoFrame(h.source, &frame), KIV_OK);
            rendertest::PumpMessages();
            Sleep(50);
            int w = 0, hgt = 0, greys = 0;
            const std::vector<uint8_t> shown = h.window.Read(&w, &hgt);
            const uint8_t* middle = &shown[(static_cast<size_t>(hgt / 2) * w + 100) * 4 + 1];
            if (middle[0] <= 8 && middle[4] <= 8) continue;  // not drawn yet
            for (size_t i = 1; i < shown.size(); i += 4 * 7) greys += shown[i] > 8 && shown[i] < 247;
            blackAndWhite = greys == 0;
        }
        EXPECT_EQ(blackAndWhite, c.second) << c.first;
    }
}

TEST_F(RenderWindowTest, BackBufferFollowsAResizedWindowAndADestroyedWindowRefusesFrames) {
    Harness h(64, 48);
    kivtest::FrameCatcher catcher(h.render);
    PatternFrame pattern(KIV_PIXEL_FORMAT_NV12, 64, 48);
    h.ExpectShown(pattern.frame, 64, 48);
    h.window.Resize(96, 80);
    h.ExpectShown(pattern.frame, 96, 80);
    const size_t handedOn = catcher.Count();
    EXPECT_GE(handedOn, 2u);
    h.window.Destroy();
    EXPECT_EQ(h.render->OnVideoFrame(&pattern.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(catcher.Count(), handedOn);
}

}  // namespace
