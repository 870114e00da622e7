// Frames of a known pattern and two independent references: the CPU
// conversion rules pixel by pixel, and a window's picture by the pixel
// shader's sampling and floating-point colour rules.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace rendertest {

// Changes from pixel to pixel, so a sample from the wrong place shows; YUV luma stays in the limited range.
struct PatternFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    PatternFrame(int32_t format, int32_t width, int32_t height, bool nv12ChromaPointer = true);
};

struct Bgr {
    int b, g, r;
};
// Source pixel (x, y) by the integer BT.601 limited-range rules, with floating floor division instead of shifts.
Bgr ReferencePixel(const KivVideoFrame& frame, int x, int y);
// The converted frame's tight planes (YUY2 rows and NV12 chroma rows of whole pairs).
struct ReferencePlanes {
    std::vector<uint8_t> plane0, plane1;
    int stride0 = 0, stride1 = 0;
};
ReferencePlanes ReferenceConvert(const KivVideoFrame& frame, int width, int height, int format);

struct ColourCase {
    int32_t colorSpace, colorRange;  // 1 BT.601, 2 BT.709, 3 BT.2020; 1 full, 2 limited
};
// Tight BGR of a window showing the frame with nearest sampling at pixel centres nudged by `nudge` texture
// units: where a centre falls on a texel edge the rasteriser may land on either side.
std::vector<uint8_t> ExpectedWindow(const KivVideoFrame& frame, int windowWidth, int windowHeight,
                                    const ColourCase& colour, double nudge);

}  // namespace rendertest
