// The CPU conversion rules written out again, pixel by pixel, with floating
// floor division instead of shifts, as an independent reference.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace rendertest {

struct Bgr {
    int b, g, r;
};

// BGR of source pixel (x, y) by the integer BT.601 limited-range rules.
Bgr ReferencePixel(const KivVideoFrame& frame, int x, int y);

// The converted frame's planes as the rules lay them out: tight rows (YUY2
// rows of whole pairs, NV12 chroma rows of whole pairs).
struct ReferencePlanes {
    std::vector<uint8_t> plane0, plane1;
    int stride0 = 0, stride1 = 0;
};
ReferencePlanes ReferenceConvert(const KivVideoFrame& frame, int width, int height, int format);

}  // namespace rendertest
