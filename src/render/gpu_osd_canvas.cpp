#include "gpu_osd_canvas.h"

#include <algorithm>

namespace kiv {

namespace {

uint8_t Mix(uint32_t src, uint32_t dst, uint32_t a) { return static_cast<uint8_t>((src * a + dst * (255 - a) + 127) / 255); }

// A bar of the item colour, clipped to the canvas.
void FillBar(GpuOsdBitmap* canvas, int64_t x, int64_t y, int64_t w, int64_t h, uint32_t argb, uint32_t coverage) {
    const int64_t x0 = std::max<int64_t>(x, 0), y0 = std::max<int64_t>(y, 0);
    const int64_t x1 = std::min<int64_t>(x + w, canvas->width), y1 = std::min<int64_t>(y + h, canvas->height);
    const uint8_t r = static_cast<uint8_t>(argb >> 16), g = static_cast<uint8_t>(argb >> 8), b = static_cast<uint8_t>(argb);
    for (int64_t row = y0; row < y1; ++row) {
        uint8_t* p = canvas->pixels.data() + (row * canvas->width + x0) * 4;
        for (int64_t col = x0; col < x1; ++col, p += 4) GpuOsdBlendOver(p, b, g, r, coverage);
    }
}

void DrawRectItem(GpuOsdBitmap* canvas, const OsdItem& item) {
    const int64_t t = item.size > 0 ? item.size : 3;
    const int64_t x = item.x, y = item.y, w = item.width, h = item.height;
    const uint32_t a = GpuOsdCoverage(item.opacity);
    FillBar(canvas, x, y, w, t, item.color, a);
    FillBar(canvas, x, y + h - t, w, t, item.color, a);
    FillBar(canvas, x, y, t, h, item.color, a);
    FillBar(canvas, x + w - t, y, t, h, item.color, a);
}

void DrawPictureItem(GpuOsdBitmap* canvas, GpuOsdRasterizer* rasterizer, const OsdItem& item, GpuOsdBitmap* scratch) {
    if (!rasterizer || !rasterizer->DecodePicture(item.imagePath, scratch)) return;
    if (scratch->width < 1 || scratch->height < 1) return;
    const int64_t iw = scratch->width, ih = scratch->height;
    const int64_t w = item.width > 0 ? item.width : iw;
    const int64_t h = item.height > 0 ? item.height : ih;
    const float alpha = std::min(std::max(item.opacity, 0.0f), 1.0f);
    for (int64_t r = 0; r < h; ++r) {
        const int64_t y = item.y + r;
        if (y < 0 || y >= canvas->height) continue;
        const int64_t sy = std::min(r * ih / h, ih - 1);
        for (int64_t c = 0; c < w; ++c) {
            const int64_t x = item.x + c;
            if (x < 0 || x >= canvas->width) continue;
            const int64_t sx = std::min(c * iw / w, iw - 1);
            const uint8_t* s = scratch->pixels.data() + (sy * iw + sx) * 4;
            // Source alpha times item alpha, rounded.
            const uint32_t coverage = static_cast<uint32_t>(s[3] * alpha + 0.5f);
            GpuOsdBlendOver(canvas->pixels.data() + (y * canvas->width + x) * 4, s[0], s[1], s[2], coverage);
        }
    }
}

void DrawTextItem(GpuOsdBitmap* canvas, GpuOsdRasterizer* rasterizer, const OsdItem& item, GpuOsdBitmap* scratch) {
    if (!rasterizer || item.width < 1 || item.height < 1 || !rasterizer->RenderText(item, scratch)) return;
    const uint32_t alpha = GpuOsdCoverage(item.opacity);
    for (int32_t r = 0; r < scratch->height; ++r) {
        const int64_t y = int64_t{item.y} + r;
        if (y < 0 || y >= canvas->height) continue;
        for (int32_t c = 0; c < scratch->width; ++c) {
            const int64_t x = int64_t{item.x} + c;
            if (x < 0 || x >= canvas->width) continue;
            const uint8_t* s = scratch->pixels.data() + (int64_t{r} * scratch->width + c) * 4;
            // GDI draws on black without alpha: brightness stands for coverage.
            const uint32_t sum = uint32_t{s[0]} + s[1] + s[2];
            if (sum == 0) continue;
            const uint32_t coverage = (std::min<uint32_t>(sum, 255) * alpha + 127) / 255;
            GpuOsdBlendOver(canvas->pixels.data() + (y * canvas->width + x) * 4, s[0], s[1], s[2], coverage);
        }
    }
}

}  // namespace

void GpuOsdBlendOver(uint8_t* dst, uint8_t blue, uint8_t green, uint8_t red, uint32_t coverage) {
    if (coverage == 0) return;
    const uint32_t a = std::min<uint32_t>(coverage, 255);
    dst[0] = Mix(blue, dst[0], a);
    dst[1] = Mix(green, dst[1], a);
    dst[2] = Mix(red, dst[2], a);
    dst[3] = static_cast<uint8_t>((dst[3] * (255 - a) + 127) / 255 + a);
}

uint32_t GpuOsdCoverage(float opacity) {
    if (!(opacity > 0.0f)) return 0;
    if (opacity >= 1.0f) return 255;
    return static_cast<uint32_t>(opacity * 255.0f + 0.5f);
}

void ComposeGpuOsdCanvas(const std::vector<OsdItem>& items, int32_t width, int32_t height,
                         GpuOsdRasterizer* rasterizer, GpuOsdBitmap* canvas) {
    canvas->width = std::max(width, 0);
    canvas->height = std::max(height, 0);
    canvas->pixels.assign(static_cast<size_t>(canvas->width) * canvas->height * 4, 0);
    std::vector<const OsdItem*> order;
    order.reserve(items.size());
    for (const OsdItem& item : items) {
        if (item.visible) order.push_back(&item);
    }
    std::stable_sort(order.begin(), order.end(), [](const OsdItem* a, const OsdItem* b) { return a->layer < b->layer; });
    GpuOsdBitmap scratch;
    for (const OsdItem* item : order) {
        switch (item->kind) {
            case kOsdRect: DrawRectItem(canvas, *item); break;
            case kOsdPicture: DrawPictureItem(canvas, rasterizer, *item, &scratch); break;
            default: DrawTextItem(canvas, rasterizer, *item, &scratch); break;
        }
    }
}

}  // namespace kiv
