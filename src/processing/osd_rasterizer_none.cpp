// Builds without a platform rasteriser draw rectangles only.
#include "osd_rasterizer.h"

namespace kiv {
std::unique_ptr<OsdRasterizer> CreatePlatformOsdRasterizer(uint32_t* startupStatus) {
    if (startupStatus) *startupStatus = 0;
    return nullptr;
}
}  // namespace kiv
