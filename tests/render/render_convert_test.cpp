// The CPU conversion to the target size and format, compared byte for byte
// with the rules written out independently in cpu_reference.cpp.
#include <gtest/gtest.h>

#include "cpu_reference.h"
#include "pixel_reference.h"
#include "render/render_convert.h"

namespace {

using rendertest::PatternFrame;

const int32_t kFormats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24,
                            KIV_PIXEL_FORMAT_RGB32};

struct SizeCase {
    int srcW, srcH, dstW, dstH;
};
// Shrinking, enlarging, odd sizes on either side, and a size change of one axis.
const SizeCase kSizes[] = {{64, 48, 37, 21}, {20, 10, 33, 17}, {63, 47, 64, 48}, {31, 9, 31, 5}, {2, 2, 1, 1}};

void ExpectPlane(const uint8_t* got, int gotStride, const std::vector<uint8_t>& want, int wantStride, int rows) {
    ASSERT_EQ(gotStride, wantStride);
    ASSERT_EQ(want.size(), static_cast<size_t>(wantStride) * rows);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < wantStride; ++x) {
            ASSERT_EQ(got[gotStride * y + x], want[wantStride * y + x]) << "row " << y << " byte " << x;
        }
    }
}

TEST(RenderConvertTest, EveryFormatPairMatchesTheReferenceBitForBit) {
    KivRenderConverter converter;  // one converter throughout: buffers are reused
    for (const SizeCase& s : kSizes) {
        for (int32_t from : kFormats) {
            for (int32_t to : kFormats) {
                if (s.srcW == s.dstW && s.srcH == s.dstH && from == to) continue;
                SCOPED_TRACE(testing::Message() << from << "->" << to << " " << s.srcW << "x" << s.srcH << "->"
                                                << s.dstW << "x" << s.dstH);
                PatternFrame src(from, s.srcW, s.srcH);
                src.frame.timestamp = 1234567;
                src.frame.frameIndex = 42;
                KivVideoFrame out{};
                const KivVideoRenderConfig config{s.dstW, s.dstH, to};
                ASSERT_EQ(converter.Convert(src.frame, config, &out), KIV_OK);
                EXPECT_EQ(out.width, s.dstW);
                EXPECT_EQ(out.height, s.dstH);
                EXPECT_EQ(out.format, to);
                EXPECT_EQ(out.timestamp, 1234567);
                EXPECT_EQ(out.frameIndex, 42u);
                const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(src.frame, s.dstW, s.dstH, to);
                ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, s.dstH);
                if (to == KIV_PIXEL_FORMAT_NV12) {
                    ExpectPlane(out.planes[1], out.strides[1], want.plane1, want.stride1, (s.dstH + 1) / 2);
                }
            }
        }
    }
}

TEST(RenderConvertTest, SourceStridesAndChromaPlaneDefault) {
    // Strides below 1 mean tight rows; NV12 chroma follows the luma plane
    // when the second pointer is null.
    for (int32_t from : kFormats) {
        SCOPED_TRACE(from);
        PatternFrame tight(from, 16, 6, false);
        KivVideoFrame zero = tight.frame;
        zero.strides[0] = zero.strides[1] = 0;
        KivRenderConverter converter;
        KivVideoFrame out{};
        ASSERT_EQ(converter.Convert(zero, {8, 3, KIV_PIXEL_FORMAT_RGB32}, &out), KIV_OK);
        const rendertest::ReferencePlanes want = rendertest::ReferenceConvert(tight.frame, 8, 3, KIV_PIXEL_FORMAT_RGB32);
        ExpectPlane(out.planes[0], out.strides[0], want.plane0, want.stride0, 3);
    }
}

TEST(RenderConvertTest, MatchingTargetPassesTheRecordThrough) {
    PatternFrame src(KIV_PIXEL_FORMAT_NV12, 32, 16);
    struct Case {
        KivVideoRenderConfig config;
        int32_t result;
        bool sameRecord;
    };
    const Case cases[] = {
        {{0, 0, 0}, KIV_OK, true},
        {{32, 16, KIV_PIXEL_FORMAT_NV12}, KIV_OK, true},
        {{-5, 0, KIV_PIXEL_FORMAT_MJPG}, KIV_OK, true},  // MJPG means the frame's own format
        {{0, 0, KIV_PIXEL_FORMAT_RGB32}, KIV_OK, false},
        {{16, 0, 0}, KIV_OK, false},
        {{0, 0, KIV_PIXEL_FORMAT_H264}, KIV_ERROR_UNSUPPORTED, false},
        {{8, 8, 9}, KIV_ERROR_UNSUPPORTED, false},
    };
    KivRenderConverter converter;
    for (const Case& c : cases) {
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
            for (int y = 0; y < 5; ++y) {
                for (int x = 0; x < width; ++x) {
                    const uint8_t* p = &out[(y * width + x) * 4];
                    const rendertest::Bgr want = rendertest::ReferencePixel(src.frame, x, y);
                    const int alpha = from == KIV_PIXEL_FORMAT_RGB32 ? src.frame.planes[0][src.frame.strides[0] * y + x * 4 + 3]
                                                                     : 255;
                    ASSERT_EQ((std::vector<int>{p[0], p[1], p[2], p[3]}), (std::vector<int>{want.b, want.g, want.r, alpha}))
                        << x << "," << y;
                }
            }
        }
    }
    std::vector<uint8_t> out;
    PatternFrame mjpg(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    mjpg.frame.format = KIV_PIXEL_FORMAT_MJPG;
    EXPECT_EQ(KivRenderExpandToBgra(mjpg.frame, &out), KIV_ERROR_UNSUPPORTED);
    mjpg.frame.planes[0] = nullptr;
    EXPECT_EQ(KivRenderExpandToBgra(mjpg.frame, &out), KIV_ERROR_INVALID_ARG);
}

}  // namespace
