// The render port drawing into real windows under Wine's Direct3D 11: every
// pixel read back from the window is compared with the independent reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "pixel_reference.h"
#include "render/kiv_video_render.h"
#include "test_support.h"
#include "test_window_win.h"

namespace {

using rendertest::ColourCase;
using rendertest::PatternFrame;
using rendertest::TestWindow;

// Software rasterisation rounds in float; two steps of 1/255 cover it.
constexpr int kTolerance = 2;

// Stands in for the LUT configuration's colour settings.
class FixedColour : public KivRenderStages {
public:
    KivRenderColorSettings ColorSettings() override { return {colour.colorSpace, colour.colorRange, 1.0f}; }
    ColourCase colour{1, 2};
};

// Starting Wine's Direct3D takes seconds, so the library stays initialised
// for the whole suite and each test keeps one port per window.
class RenderWindowTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { library = new kivtest::LibraryScope(); }
    static void TearDownTestSuite() { delete library; }
    static kivtest::LibraryScope* library;
};
kivtest::LibraryScope* RenderWindowTest::library = nullptr;

// The reference picture sampled just before and just after each pixel centre.
struct Expected {
    std::vector<uint8_t> low, high;
    Expected(const KivVideoFrame& frame, int width, int height, ColourCase colour)
        : low(rendertest::ExpectedWindow(frame, width, height, colour, -1e-5)),
          high(rendertest::ExpectedWindow(frame, width, height, colour, 1e-5)) {}
};

// A render port on a window, fed through a frame source as an application would.
struct Harness {
    TestWindow window;
    FixedColour* colour = new FixedColour();
    KivVideoRender* render;
    void* source;
    Harness(int width, int height, int x = 0, int y = 0)
        : window(width, height, x, y),
          render(new KivVideoRender(window.Handle(), nullptr, std::unique_ptr<KivRenderStages>(colour))),
          source(KIV_CreateVideoFrameSource()) {
        EXPECT_EQ(KIV_Connect(source, render), KIV_OK);
    }
    ~Harness() {
        KIV_Disconnect(source, render);
        KIV_DestroyPort(source);
        KIV_DestroyPort(render);
    }
    // Largest channel difference between the window and the nearer of the
    // two expected pictures, pixel by pixel.
    int Difference(const Expected& expected, std::string* where) {
        int w = 0, h = 0;
        const std::vector<uint8_t> shown = window.Read(&w, &h);
        if (static_cast<size_t>(w) * h * 3 != expected.low.size()) return 255;
        int worst = 0;
        for (int i = 0; i < w * h; ++i) {
            int low = 0, high = 0;
            for (int c = 0; c < 3; ++c) {
                low = std::max(low, std::abs(shown[i * 4 + c] - expected.low[i * 3 + c]));
                high = std::max(high, std::abs(shown[i * 4 + c] - expected.high[i * 3 + c]));
            }
            const int d = std::min(low, high);
            if (d > worst) {
                worst = d;
                char text[160];
                std::snprintf(text, sizeof(text), "x=%d y=%d shown=%d,%d,%d expected=%d,%d,%d", i % w, i / w,
                              shown[i * 4 + 2], shown[i * 4 + 1], shown[i * 4], expected.low[i * 3 + 2],
                              expected.low[i * 3 + 1], expected.low[i * 3]);
                *where = text;
            }
        }
        return worst;
    }
    // Pushes the frame until the window shows the expected picture, for at
    // most two seconds (a present may be skipped while the GPU is busy).
    int ShowAndCompare(const KivVideoFrame& frame, const Expected& expected, std::string* where) {
        int worst = 255;
        for (int attempt = 0; attempt < 40 && worst > kTolerance; ++attempt) {
            EXPECT_EQ(KIV_PushVideoFrame(source, &frame), KIV_OK);
            rendertest::PumpMessages();
            Sleep(attempt == 0 ? 0 : 50);
            worst = Difference(expected, where);
        }
        return worst;
    }
};

struct DrawCase {
    const char* name;
    int32_t format;
    int width, height;  // the window matches the frame
    ColourCase colour;
    bool nv12ChromaPointer;
};

const DrawCase kDrawCases[] = {
    {"RGB32", KIV_PIXEL_FORMAT_RGB32, 64, 48, {1, 2}, true},
    {"RGB24", KIV_PIXEL_FORMAT_RGB24, 64, 48, {1, 2}, true},
    {"RGB24 odd", KIV_PIXEL_FORMAT_RGB24, 63, 47, {1, 2}, true},
    {"RGB32 odd", KIV_PIXEL_FORMAT_RGB32, 63, 47, {1, 2}, true},
    {"NV12 601 limited", KIV_PIXEL_FORMAT_NV12, 64, 48, {1, 2}, true},
    {"NV12 601 full", KIV_PIXEL_FORMAT_NV12, 64, 48, {1, 1}, true},
    {"NV12 709 limited", KIV_PIXEL_FORMAT_NV12, 64, 48, {2, 2}, true},
    {"NV12 709 full", KIV_PIXEL_FORMAT_NV12, 64, 48, {2, 1}, true},
    {"NV12 2020 limited", KIV_PIXEL_FORMAT_NV12, 64, 48, {3, 2}, true},
    {"NV12 2020 full", KIV_PIXEL_FORMAT_NV12, 64, 48, {3, 1}, true},
    {"NV12 no chroma pointer", KIV_PIXEL_FORMAT_NV12, 64, 48, {2, 2}, false},
    {"NV12 odd", KIV_PIXEL_FORMAT_NV12, 63, 47, {1, 2}, true},
    {"YUY2 601 limited", KIV_PIXEL_FORMAT_YUY2, 64, 48, {1, 2}, true},
    {"YUY2 601 full", KIV_PIXEL_FORMAT_YUY2, 64, 48, {1, 1}, true},
    {"YUY2 709 limited", KIV_PIXEL_FORMAT_YUY2, 64, 48, {2, 2}, true},
    {"YUY2 709 full", KIV_PIXEL_FORMAT_YUY2, 64, 48, {2, 1}, true},
    {"YUY2 2020 limited", KIV_PIXEL_FORMAT_YUY2, 64, 48, {3, 2}, true},
    {"YUY2 2020 full", KIV_PIXEL_FORMAT_YUY2, 64, 48, {3, 1}, true},
    {"YUY2 odd", KIV_PIXEL_FORMAT_YUY2, 63, 47, {2, 1}, true},
};

TEST_F(RenderWindowTest, EveryFormatDrawsTheReferencePicture) {
    Harness even(64, 48), odd(63, 47, 100, 0);  // side by side: a covered window reads black
    for (const DrawCase& c : kDrawCases) {
        SCOPED_TRACE(c.name);
        Harness& h = c.width == 64 ? even : odd;
        h.colour->colour = c.colour;
        PatternFrame pattern(c.format, c.width, c.height, c.nv12ChromaPointer);
        std::string where;
        EXPECT_LE(h.ShowAndCompare(pattern.frame, Expected(pattern.frame, c.width, c.height, c.colour), &where),
                  kTolerance)
            << where;
    }
}

}  // namespace

namespace {

// Alternating black and white columns: nearest sampling keeps every pixel
// black or white, filtering mixes them into greys.
bool ShowsOnlyBlackAndWhite(Harness& h, int columns) {
    int w = 0, hgt = 0;
    const std::vector<uint8_t> shown = h.window.Read(&w, &hgt);
    int greys = 0;
    for (int y = 0; y < hgt; y += 7) {
        for (int x = 0; x < std::min(w, columns); ++x) {
            const uint8_t v = shown[(static_cast<size_t>(y) * w + x) * 4 + 1];
            if (v > 8 && v < 247) ++greys;
        }
    }
    return greys == 0;
}

TEST_F(RenderWindowTest, AutomaticInterpolationFiltersOnlyAMarkedShrink) {
    std::vector<uint8_t> stripes(1920u * 1080u * 4u);
    for (size_t i = 0; i < stripes.size(); ++i) stripes[i] = ((i / 4) % 2) ? 255 : 0;
    const KivVideoFrame frame = kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 1920, 1080, stripes.data(), 1920 * 4);
    struct Case {
        int width, height;
        bool nearest;
    };
    // 1280/1920 = 0.667 is below 0.7; min(1400/1920, 800/1080) = 0.729 is not.
    for (const Case c : {Case{1280, 720, false}, Case{1400, 800, true}}) {
        SCOPED_TRACE(c.width);
        // A window running off the screen reads back black (or scaled) there.
        if (GetSystemMetrics(SM_CXSCREEN) < c.width) {
            ADD_FAILURE() << "the X screen is narrower than " << c.width << " pixels; scripts/wine-env.sh starts "
                          << "Xvfb at 1920x1200, restart an older, smaller display";
            continue;
        }
        Harness h(c.width, c.height);
        bool blackAndWhite = !c.nearest;
        for (int attempt = 0; attempt < 40 && blackAndWhite != c.nearest; ++attempt) {
            ASSERT_EQ(KIV_PushVideoFrame(h.source, &frame), KIV_OK);
            rendertest::PumpMessages();
            Sleep(50);
            int w = 0, hgt = 0;
            const std::vector<uint8_t> shown = h.window.Read(&w, &hgt);
            const bool drawn = shown[(static_cast<size_t>(hgt / 2) * w + 100) * 4 + 1] > 8 ||
                               shown[(static_cast<size_t>(hgt / 2) * w + 101) * 4 + 1] > 8;
            if (drawn) blackAndWhite = ShowsOnlyBlackAndWhite(h, c.width);
        }
        EXPECT_EQ(blackAndWhite, c.nearest);
    }
}

TEST_F(RenderWindowTest, BackBufferFollowsAResizedWindow) {
    Harness h(64, 48);
    PatternFrame pattern(KIV_PIXEL_FORMAT_NV12, 64, 48);
    const ColourCase colour{1, 2};
    std::string where;
    ASSERT_LE(h.ShowAndCompare(pattern.frame, Expected(pattern.frame, 64, 48, colour), &where), kTolerance) << where;
    h.window.Resize(96, 80);
    EXPECT_LE(h.ShowAndCompare(pattern.frame, Expected(pattern.frame, 96, 80, colour), &where), kTolerance) << where;
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
