#include "osd_draw.h"

#include <algorithm>
#include <limits>

namespace kiv {

namespace {

int32_t Saturate(int64_t v) {
    return static_cast<int32_t>(std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

void BlendColor(OsdCanvas& canvas, int32_t x, int32_t y, uint32_t argb, float opacity) {
    canvas.BlendPixel(x, y, static_cast<uint8_t>(argb), static_cast<uint8_t>(argb >> 8),
                      static_cast<uint8_t>(argb >> 16), OsdAlpha(argb), opacity);
}

// Blends rasteriser output over the region, row by row.
void BlendView(OsdCanvas& canvas, const OsdRect& region, const OsdBgraView& view, float opacity, bool keyed,
               uint32_t keyArgb) {
    for (int32_t row = 0; row < region.height; ++row) {
        canvas.BlendBgraSpan(region.x, region.y + row, view.pixels + static_cast<int64_t>(view.stride) * row,
                             region.width, opacity, keyed, keyArgb);
    }
}

}  // namespace

bool OsdClipRegion(const OsdCanvas& canvas, const OsdRect& box, OsdRect* region) {
    const int64_t w = canvas.Width(), h = canvas.Height();
    const int64_t left = std::clamp<int64_t>(box.x, 0, w);
    const int64_t top = std::clamp<int64_t>(box.y, 0, h);
    const int64_t right = std::clamp<int64_t>(int64_t{box.x} + box.width, 0, w);
    const int64_t bottom = std::clamp<int64_t>(int64_t{box.y} + box.height, 0, h);
    if (right <= left || bottom <= top) return false;
    *region = OsdRect{static_cast<int32_t>(left), static_cast<int32_t>(top), static_cast<int32_t>(right - left),
                      static_cast<int32_t>(bottom - top)};
    return true;
}

void OsdDrawRect(OsdCanvas& canvas, const OsdItem& item) {
    if (!item.visible || canvas.Empty()) return;
    const int64_t x0 = item.x, x1 = int64_t{item.x} + item.width;
    const int64_t y0 = item.y, y1 = int64_t{item.y} + item.height;
    const int64_t maxX = canvas.Width() - 1, maxY = canvas.Height() - 1;
    const int32_t left = static_cast<int32_t>(std::clamp<int64_t>(std::min(x0, x1), 0, maxX));
    const int32_t right = static_cast<int32_t>(std::clamp<int64_t>(std::max(x0, x1), 0, maxX));
    const int32_t top = static_cast<int32_t>(std::clamp<int64_t>(std::min(y0, y1), 0, maxY));
    const int32_t bottom = static_cast<int32_t>(std::clamp<int64_t>(std::max(y0, y1), 0, maxY));
    if (right <= left || bottom <= top) return;

    const int32_t thickness = item.size < 1 ? 3 : std::min(item.size, 32);
    const uint32_t color = item.color == 0 ? 0xFF00FF00u : item.color;
    // Rings overlap at their corners and, for thick lines on small boxes, with
    // each other; every overlap blends again.
    for (int32_t i = 0; i < thickness; ++i) {
        const int32_t rowTop = top + i, rowBottom = bottom - i;
        const int32_t colLeft = left + i, colRight = right - i;
        if (rowTop <= bottom) {
            for (int32_t x = left; x <= right; ++x) BlendColor(canvas, x, rowTop, color, item.opacity);
        }
        if (rowBottom >= top && rowBottom != rowTop) {
            for (int32_t x = left; x <= right; ++x) BlendColor(canvas, x, rowBottom, color, item.opacity);
        }
        if (colLeft <= right) {
            for (int32_t y = top; y <= bottom; ++y) BlendColor(canvas, colLeft, y, color, item.opacity);
        }
        if (colRight >= left && colRight != colLeft) {
            for (int32_t y = top; y <= bottom; ++y) BlendColor(canvas, colRight, y, color, item.opacity);
        }
    }
}

void OsdDrawText(OsdCanvas& canvas, OsdRasterizer* rasterizer, const OsdItem& item) {
    if (!item.visible || item.text.empty() || canvas.Empty() || !rasterizer) return;
    const int64_t boxWidth = item.width > 0 ? item.width : int64_t{canvas.Width()} - item.x;
    // The automatic height follows the unclamped size; only the font is clamped.
    const int64_t boxHeight = item.height > 0 ? item.height : int64_t{item.size} * 2;
    if (boxWidth < 1 || boxHeight < 1) return;
    const OsdRect box{item.x, item.y, Saturate(boxWidth), Saturate(boxHeight)};
    OsdRect region{};
    if (!OsdClipRegion(canvas, box, &region)) return;

    OsdTextJob job;
    job.text = &item.text;
    job.fontName = &item.fontName;
    job.fontPixels = std::clamp(item.size, 1, 512);
    job.textArgb = OsdEffectiveArgb(item.color);
    job.boxArgb = OsdEffectiveArgb(item.backColor);
    job.fillBox = !item.transparent;
    job.box = box;
    OsdBgraView view;
    if (!rasterizer->DrawText(job, canvas.Width(), canvas.Height(), region, &view)) return;
    BlendView(canvas, region, view, item.opacity, false, 0);
}

void OsdDrawPicture(OsdCanvas& canvas, OsdRasterizer* rasterizer, const OsdItem& item) {
    if (!item.visible || item.imagePath.empty() || canvas.Empty() || !rasterizer) return;
    std::unique_ptr<OsdPicture> picture = rasterizer->LoadPicture(item.imagePath);
    if (!picture) return;
    const int32_t drawWidth = item.width > 0 ? item.width : picture->Width();
    const int32_t drawHeight = item.height > 0 ? item.height : picture->Height();
    if (drawWidth < 1 || drawHeight < 1) return;
    const OsdRect dest{item.x, item.y, drawWidth, drawHeight};
    OsdRect region{};
    if (!OsdClipRegion(canvas, dest, &region)) return;
    OsdBgraView view;
    if (!rasterizer->DrawPicture(*picture, canvas.Width(), canvas.Height(), dest, region, &view)) return;
    BlendView(canvas, region, view, item.opacity, item.transparent, item.backColor);
}

void OsdDrawItem(OsdCanvas& canvas, OsdRasterizer* rasterizer, const OsdItem& item) {
    switch (item.kind) {
    case kOsdPicture:
        OsdDrawPicture(canvas, rasterizer, item);
        break;
    case kOsdRect:
        OsdDrawRect(canvas, item);
        break;
    default:
        OsdDrawText(canvas, rasterizer, item);
        break;
    }
}

}  // namespace kiv
