// Shared pieces of the crop and colour engine tests.
#pragma once
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kiv_cube_lut.h"
#include "kivcapture.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace proctest {

using kivtest::CaughtFrame;

inline int BytesPerPixel(int32_t format) {
    return format == KIV_PIXEL_FORMAT_YUY2 ? 2 : format == KIV_PIXEL_FORMAT_RGB24 ? 3 : format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 1;
}

// A cube file of edge n whose entry for lattice point (r, g, b) is fn(r / (n - 1), ...).
template <class Fn>
std::string CubeText(int n, Fn fn) {
    std::string text = "TITLE \"test\"\nLUT_3D_SIZE " + std::to_string(n) + "\n";
    char line[128];
    for (int b = 0; b < n; ++b)
        for (int g = 0; g < n; ++g)
            for (int r = 0; r < n; ++r) {
                float o[3];
                fn(r / float(n - 1), g / float(n - 1), b / float(n - 1), o);
                std::snprintf(line, sizeof line, "%.6f %.6f %.6f\n", o[0], o[1], o[2]);
                text += line;
            }
    return text;
}

// A plain pixel-by-pixel rendering of the colour engine's frame rules, built
// only on the per-pixel arithmetic, to compare the fast frame loops with:
// tight rows (YUY2: even width * 2) and NV12 chroma rows of (width + 1) & ~1.
// cs and range already resolved; lut may be null.
struct ReferenceOutput {
    std::vector<uint8_t> plane0, plane1;
};
ReferenceOutput ReferenceConvert(const KivVideoFrame& in, int32_t outFmt, int32_t cs, int32_t range,
                                 const Kiv3DLutData* lut, float strength);

}  // namespace proctest
