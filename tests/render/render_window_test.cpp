// The render port drawing into real windows under Wine's Direct3D 11: every
// pixel read back from the window is compared with the independent reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>

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
    static kivtest::LibraryScope* library;
};
kivtest::LibraryScope* RenderWindowTest::library = nullptr;

// A render port on a window, fed through a frame source as an application would.
struct Harness {
    rendertest::TestWindow window;
    FixedColour* colour = new FixedColour();
    KivVideoRender* render;
    void* source = KIV_CreateVideoFrameSource();
    Harness(int width, int height, int x = 0, int y = 0)
        : window(width, height, x, y),
          render(new KivVideoRender(window.Handle(), nullptr, std::unique_ptr<KivRenderStages>(colour))) {
        EXPECT_EQ(KIV_Connect(source, render), KIV_OK);
    }
    ~Harness() {
        KIV_Disconnect(source, render);
        KIV_DestroyPort(source);
        KIV_DestroyPort(render);
    }
    // Largest channel difference between the window and the nearer of the
    // reference pictures sampled just before and just after each pixel centre.
    int Difference(const std::vector<uint8_t>& low, const std::vector<uint8_t>& high, std::string* where) {
        int w = 0, h = 0, worst = 0;
        const std::vector<uint8_t> shown = window.Read(&w, &h);
        if (static_cast<size_t>(w) * h * 3 != low.size()) return 255;
        for (int i = 0; i < w * h; ++i) {
            int dl = 0, dh = 0;
            for (int c = 0; c < 3; ++c) {
                dl = std::max(dl, std::abs(shown[i * 4 + c] - low[i * 3 + c]));
                dh = std::max(dh, std::abs(shown[i * 4 + c] - high[i * 3 + c]));
            }
            if (std::min(dl, dh) <= worst) continue;
            worst = std::min(dl, dh);
            char text[160];
            std::snprintf(text, sizeof(text), "x=%d y=%d shown=%d,%d,%d expected=%d,%d,%d", i % w, i / w, shown[i * 4 + 2],
                          shown[i * 4 + 1], shown[i * 4], low[i * 3 + 2], low[i * 3 + 1], low[i * 3]);
            *where = text;
        }
        return worst;
    }
    // Pushes the frame until the window shows the expected picture, for at
    // most two seconds (a present may be skipped while the GPU is busy).
    void ExpectShown(const KivVideoFrame& frame, int width, int height) {
        const std::vector<uint8_t> low = rendertest::ExpectedWindow(frame, width, height, colour->colour, -1e-5),
                                   high = rendertest::ExpectedWindow(frame, width, height, colour->colour, 1e-5);
        int worst = 255;
        std::string where;
        for (int attempt = 0; attempt < 40 && worst > kTolerance; ++attempt) {
            EXPECT_EQ(KIV_PushVideoFrame(source, &frame), KIV_OK);
            rendertest::PumpMessages();
            Sleep(attempt == 0 ? 0 : 50);
            worst = Difference(low, high, &where);
        }
        EXPECT_LE(worst, kTolerance) << where;
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
        cases.push_back({format, 63, 47, {format == KIV_PIXEL_FORMAT_NV12 ? 1 : 2, format == KIV_PIXEL_FORMAT_NV12 ? 2 : 1}, true});
    }
    cases.push_back({KIV_PIXEL_FORMAT_NV12, 64, 48, {2, 2}, false});
    Harness even(64, 48), odd(63, 47, 100, 0);  // side by side: a covered window reads black
    for (const DrawCase& c : cases) {
        SCOPED_TRACE(testing::Message() << c.format << " " << c.width << " space " << c.colour.colorSpace << " range "
                                        << c.colour.colorRange << (c.nv12ChromaPointer ? "" : " no chroma pointer"));
        Harness& h = c.width == 64 ? even : odd;
        h.colour->colour = c.colour;
        PatternFrame pattern(c.format, c.width, c.height, c.nv12ChromaPointer);
        h.ExpectShown(pattern.frame, c.width, c.height);
    }
}

// Alternating black and white columns: nearest sampling keeps every pixel
// black or white, filtering mixes them into greys.
TEST_F(RenderWindowTest, AutomaticInterpolationFiltersOnlyAMarkedShrink) {
    std::vector<uint8_t> stripes(1920u * 1080u * 4u);
    for (size_t i = 0; i < stripes.size(); ++i) stripes[i] = ((i / 4) % 2) ? 255 : 0;
    const KivVideoFrame frame = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 1920, 1080, stripes.data(), 1920 * 4);
    // 1280/1920 = 0.667 is below 0.7; min(1400/1920, 800/1080) = 0.729 is not.
    for (const auto& c : {std::make_pair(1280, false), std::make_pair(1400, true)}) {
        SCOPED_TRACE(c.first);
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
            for (int y = 0; y < hgt; y += 7) {
                for (int x = 0; x < w; ++x) {
                    const uint8_t v = shown[(static_cast<size_t>(y) * w + x) * 4 + 1];
                    greys += v > 8 && v < 247;
                }
            }
            blackAndWhite = greys == 0;
        }
        EXPECT_EQ(blackAndWhite, c.second);
    }
}

TEST_F(RenderWindowTest, BackBufferFollowsAResizedWindow) {
    Harness h(64, 48);
    PatternFrame pattern(KIV_PIXEL_FORMAT_NV12, 64, 48);
    h.ExpectShown(pattern.frame, 64, 48);
    h.window.Resize(96, 80);
    h.ExpectShown(pattern.frame, 96, 80);
}

TEST_F(RenderWindowTest, DestroyedWindowRefusesFramesWithoutCallback) {
    Harness h(32, 32);
    kivtest::FrameCatcher catcher(h.render);
    PatternFrame pattern(KIV_PIXEL_FORMAT_RGB32, 32, 32);
    ASSERT_EQ(h.render->OnVideoFrame(&pattern.frame), KIV_OK);
    ASSERT_EQ(catcher.Count(), 1u);
    h.window.Destroy();
    EXPECT_EQ(h.render->OnVideoFrame(&pattern.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(catcher.Count(), 1u);
}

}  // namespace
