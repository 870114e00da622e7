// Turns stored items into blends on the canvas: rectangle outlines pixel by
// pixel, text and pictures through the rasteriser seam.
#pragma once
#include "osd_canvas.h"
#include "osd_item.h"
#include "osd_rasterizer.h"

namespace kiv {

void OsdDrawRect(OsdCanvas& canvas, const OsdItem& item);
void OsdDrawText(OsdCanvas& canvas, OsdRasterizer* rasterizer, const OsdItem& item);
void OsdDrawPicture(OsdCanvas& canvas, OsdRasterizer* rasterizer, const OsdItem& item);

// Picks the drawing by kind: pictures, rectangles, and text for anything else.
void OsdDrawItem(OsdCanvas& canvas, OsdRasterizer* rasterizer, const OsdItem& item);

// The part of the box [x, x + width) x [y, y + height) inside the canvas;
// false when that is empty.
bool OsdClipRegion(const OsdCanvas& canvas, const OsdRect& box, OsdRect* region);

}  // namespace kiv
