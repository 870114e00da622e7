// The seam between the overlay's portable drawing and the platform's text and
// picture rasteriser (GDI+ on Windows). The rasteriser draws onto a
// transparent surface the size of the canvas and hands back the pixels of one
// region as blue, green, red, alpha bytes; blending them is portable.
#pragma once
#include <cstdint>
#include <memory>

#include "osd_item.h"

namespace kiv {

struct OsdRect {
    int32_t x, y, width, height;
};

// Read-only view of rasteriser output covering `region` of the canvas.
struct OsdBgraView {
    const uint8_t* pixels = nullptr;
    int32_t stride = 0;
};

struct OsdTextJob {
    const OsdString* text;
    const OsdString* fontName;
    int32_t fontPixels;  // already clamped to 1..512
    uint32_t textArgb;   // alpha made explicit
    uint32_t boxArgb;
    bool fillBox;
    OsdRect box;  // layout rectangle, unclipped
};

// A decoded picture file, alive for one frame.
class OsdPicture {
public:
    virtual ~OsdPicture() = default;
    virtual int32_t Width() const = 0;
    virtual int32_t Height() const = 0;
};

class OsdRasterizer {
public:
    virtual ~OsdRasterizer() = default;
    // Draws the text job on a transparent canvasWidth x canvasHeight surface
    // and exposes `region`; false when nothing could be drawn.
    virtual bool DrawText(const OsdTextJob& job, int32_t canvasWidth, int32_t canvasHeight, const OsdRect& region,
                          OsdBgraView* out) = 0;
    // Null when the file cannot be loaded.
    virtual std::unique_ptr<OsdPicture> LoadPicture(const OsdString& path) = 0;
    // Draws the picture scaled into `dest` with bilinear filtering on a
    // transparent surface and exposes `region`.
    virtual bool DrawPicture(const OsdPicture& picture, int32_t canvasWidth, int32_t canvasHeight, const OsdRect& dest,
                             const OsdRect& region, OsdBgraView* out) = 0;
};

// The platform's rasteriser; null where there is none (the native Linux
// build), and then text and picture items are skipped. On Windows a live
// rasteriser keeps GDI+ started for the process.
// *startupStatus receives the platform failure code when the rasteriser could
// not start (0 otherwise).
std::unique_ptr<OsdRasterizer> CreatePlatformOsdRasterizer(uint32_t* startupStatus);

}  // namespace kiv
