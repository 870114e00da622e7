// The per-draw choices (colour space, range, sampling) and the stored copy.
#include <gtest/gtest.h>

#include "pixel_reference.h"
#include "render/render_params.h"
#include "render/render_stored_frame.h"

namespace {

TEST(RenderRulesTest, AutomaticColourSpaceFollowsTheFrameSize) {
    struct Case {
        int32_t configured, width, height, expected;
    };
    const Case cases[] = {
        {0, 1280, 720, 2}, {0, 720, 576, 1}, {0, 720, 577, 2}, {0, 1279, 576, 1}, {7, 1280, 100, 2},
        {1, 1920, 1080, 1}, {2, 640, 480, 2}, {3, 640, 480, 3}, {-1, 640, 480, 1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(KivRenderColorSpace(c.configured, c.width, c.height), c.expected)
            << c.configured << " " << c.width << "x" << c.height;
    }
    EXPECT_EQ(KivRenderColorRange(1), 1);
    EXPECT_EQ(KivRenderColorRange(0), 2);
    EXPECT_EQ(KivRenderColorRange(3), 2);
}

TEST(RenderRulesTest, AutomaticSamplingIsNearestDownToSevenTenths) {
    struct Case {
        int32_t mode, backW, backH, frameW, frameH;
        bool nearest;
    };
    const Case cases[] = {
        {2, 1280, 720, 1920, 1080, false}, {2, 1400, 800, 1920, 1080, true},  {2, 700, 1000, 1000, 1000, true},
        {2, 699, 1000, 1000, 1000, false}, {2, 4000, 100, 100, 1000, false},  {2, 10, 10, 0, 0, true},
        {1, 10, 10, 1000, 1000, true},     {0, 1000, 1000, 10, 10, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(KivRenderUseNearest(c.mode, c.backW, c.backH, c.frameW, c.frameH), c.nearest)
            << c.mode << " " << c.backW << "x" << c.backH << " " << c.frameW << "x" << c.frameH;
    }
}

TEST(RenderRulesTest, BaseParamsClampStrengthAndLeaveTheLutOff) {
    const KivRenderParams p = KivRenderBaseParams(KIV_PIXEL_FORMAT_YUY2, true, {0, 1, 1.5f}, 720, 576);
    EXPECT_EQ(p.mode, 2);
    EXPECT_EQ(p.interp, 1);
    EXPECT_EQ(p.lutEnable, 0);
    EXPECT_EQ(p.lutStrength, 1.0f);
    EXPECT_EQ(p.colorSpace, 1);
    EXPECT_EQ(p.colorRange, 1);
    EXPECT_EQ(p.domainMax[2], 1.0f);
    EXPECT_EQ(KivRenderBaseParams(KIV_PIXEL_FORMAT_NV12, false, {0, 0, -2.0f}, 8, 8).lutStrength, 0.0f);
    EXPECT_EQ(KivRenderShaderMode(KIV_PIXEL_FORMAT_NV12), 1);
    EXPECT_EQ(KivRenderShaderMode(KIV_PIXEL_FORMAT_RGB24), 0);
}

TEST(RenderRulesTest, StoredFrameCopiesPlanesWithDefaultStrides) {
    rendertest::PatternFrame nv12(KIV_PIXEL_FORMAT_NV12, 7, 5, false);
    KivVideoFrame tight = nv12.frame;
    tight.strides[0] = tight.strides[1] = 0;  // read as width: luma 7, chroma 7
    tight.timestamp = 99;
    tight.frameIndex = 3;
    KivRenderStoredFrame stored;
    stored.Store(tight);
    EXPECT_EQ(stored.stride, 7);
    EXPECT_EQ(stored.chromaStride, 7);
    ASSERT_EQ(stored.plane0.size(), 35u);
    ASSERT_EQ(stored.chroma.size(), 21u);  // three chroma rows for five luma rows
    EXPECT_TRUE(std::equal(stored.chroma.begin(), stored.chroma.end(), nv12.bytes.begin() + 35));
    EXPECT_EQ(stored.timestamp, 99);
    EXPECT_EQ(stored.frameIndex, 3u);

    rendertest::PatternFrame rgb(KIV_PIXEL_FORMAT_RGB24, 3, 2);
    KivVideoFrame mjpg = rgb.frame;
    mjpg.format = KIV_PIXEL_FORMAT_MJPG;
    stored.Store(mjpg);  // not an uncompressed frame: the copy stays
    EXPECT_EQ(stored.format, KIV_PIXEL_FORMAT_NV12);
    stored.Store(rgb.frame);
    EXPECT_EQ(stored.format, KIV_PIXEL_FORMAT_RGB24);
    EXPECT_TRUE(stored.chroma.empty());
    EXPECT_EQ(stored.chromaStride, 0);
    const KivVideoFrame view = stored.View();
    EXPECT_TRUE(std::equal(rgb.bytes.begin(), rgb.bytes.end(), view.planes[0]));
}

}  // namespace
