// What the window should show for a frame, computed independently of the
// library from the sampling and colour rules of the pixel shader: point
// sampling at pixel centres and the floating-point YUV formulas.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace rendertest {

struct ColourCase {
    int32_t colorSpace;  // 1 BT.601, 2 BT.709, 3 BT.2020
    int32_t colorRange;  // 1 full, 2 limited
};

// Frames of a known pattern that changes from pixel to pixel, so that a
// sample taken from the wrong place shows.
struct PatternFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    PatternFrame(int32_t format, int32_t width, int32_t height, bool nv12ChromaPointer = true);
};

// Expected BGR of every window pixel (tight rows of 3 bytes) for a window of
// windowWidth x windowHeight showing the frame with nearest sampling. Where a
// pixel centre falls exactly on a texel edge the rasteriser may land on either
// side, so the sampling position is nudged by `nudge` texture units; a pixel
// is right when it matches the picture nudged either way.
std::vector<uint8_t> ExpectedWindow(const KivVideoFrame& frame, int windowWidth, int windowHeight,
                                    const ColourCase& colour, double nudge = 0.0);

}  // namespace rendertest
