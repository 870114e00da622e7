// A plain pixel-by-pixel rendering of the colour engine's frame rules, built
// only on the per-pixel arithmetic, to compare the fast frame loops with.
#pragma once
#include <cstdint>
#include <vector>

#include "kiv_cube_lut.h"
#include "kivcapture.h"

namespace proctest {

struct ReferenceOutput {
    std::vector<uint8_t> plane0;  // tight rows (YUY2: even width * 2)
    std::vector<uint8_t> plane1;  // NV12 chroma rows of (width + 1) & ~1
};

// cs and range already resolved; lut may be null.
ReferenceOutput ReferenceConvert(const KivVideoFrame& in, int32_t outFmt, int32_t cs, int32_t range,
                                 const Kiv3DLutData* lut, float strength);

}  // namespace proctest
