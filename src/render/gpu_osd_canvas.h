// The GPU overlay's canvas: items composed on the CPU into one transparent
// BGRA picture of the target's size, later uploaded and blended by a shader.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "processing/osd_item.h"

namespace kiv {

// A tight 32-bit BGRA picture (stride width * 4).
struct GpuOsdBitmap {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> pixels;
};

// The platform's text and picture drawing (GDI and WIC on Windows).
class GpuOsdRasterizer {
public:
    virtual ~GpuOsdRasterizer() = default;
    // The text item drawn on black into a bitmap of the item's size: the
    // background box unless the item is transparent, then the text. False
    // when nothing could be drawn.
    virtual bool RenderText(const OsdItem& item, GpuOsdBitmap* out) = 0;
    // The picture file decoded to BGRA at its own size; false when it cannot
    // be decoded.
    virtual bool DecodePicture(const OsdString& path, GpuOsdBitmap* out) = 0;
};

// Null where the platform has none (native builds): text and pictures are
// then skipped.
std::unique_ptr<GpuOsdRasterizer> CreateGpuOsdRasterizer();

// The integer "over" step: coverage 0 leaves the pixel, 255 replaces it.
void GpuOsdBlendOver(uint8_t* dst, uint8_t blue, uint8_t green, uint8_t red, uint32_t coverage);

// The item opacity as a 0..255 coverage, rounded.
uint32_t GpuOsdCoverage(float opacity);

// Clears the canvas to width x height transparent black and draws the visible
// items in ascending layer. The rasterizer may be null.
void ComposeGpuOsdCanvas(const std::vector<OsdItem>& items, int32_t width, int32_t height,
                         GpuOsdRasterizer* rasterizer, GpuOsdBitmap* canvas);

}  // namespace kiv
