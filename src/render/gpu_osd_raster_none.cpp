// No text or picture drawing without the platform layer.
#include "gpu_osd_canvas.h"

namespace kiv {

std::unique_ptr<GpuOsdRasterizer> CreateGpuOsdRasterizer() { return nullptr; }

}  // namespace kiv
