// Text and pictures for the overlay through the GDI+ flat interface. GDI+ is
// started for the process while at least one rasteriser (one per overlay
// port) is alive.
#include <windows.h>
#include <objidl.h>

#include <algorithm>
// gdiplus.h expects min and max, which NOMINMAX keeps out of windows.h.
namespace Gdiplus {
using std::max;
using std::min;
}  // namespace Gdiplus
#include <gdiplus.h>

#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "osd_rasterizer.h"

namespace kiv {

namespace {

namespace gp = Gdiplus;
namespace flat = Gdiplus::DllExports;

std::mutex g_gdiplusMutex;
int g_livePorts = 0;
ULONG_PTR g_gdiplusToken = 0;

uint32_t AcquireGdiplus() {
    std::lock_guard<std::mutex> lock(g_gdiplusMutex);
    if (g_livePorts++ > 0) return 0;
    gp::GdiplusStartupInput input;
    input.GdiplusVersion = 1;
    input.DebugEventCallback = nullptr;
    input.SuppressBackgroundThread = FALSE;
    input.SuppressExternalCodecs = FALSE;
    const gp::Status status = gp::GdiplusStartup(&g_gdiplusToken, &input, nullptr);
    if (status != gp::Ok) {
        g_gdiplusToken = 0;
        return static_cast<uint32_t>(status);
    }
    return 0;
}

void ReleaseGdiplus() {
    std::lock_guard<std::mutex> lock(g_gdiplusMutex);
    if (--g_livePorts > 0) return;
    if (g_gdiplusToken) gp::GdiplusShutdown(g_gdiplusToken);
    g_gdiplusToken = 0;
}

// Owners of the GDI+ objects one drawing creates, released in reverse order.
struct BitmapOwner {
    gp::GpBitmap* p = nullptr;
    ~BitmapOwner() {
        if (p) flat::GdipDisposeImage(p);
    }
};
struct GraphicsOwner {
    gp::GpGraphics* p = nullptr;
    ~GraphicsOwner() {
        if (p) flat::GdipDeleteGraphics(p);
    }
};
struct BrushOwner {
    gp::GpSolidFill* p = nullptr;
    ~BrushOwner() {
        if (p) flat::GdipDeleteBrush(p);
    }
};
struct FamilyOwner {
    gp::GpFontFamily* p = nullptr;
    ~FamilyOwner() {
        if (p) flat::GdipDeleteFontFamily(p);
    }
};
struct FontOwner {
    gp::GpFont* p = nullptr;
    ~FontOwner() {
        if (p) flat::GdipDeleteFont(p);
    }
};
struct FormatOwner {
    gp::GpStringFormat* p = nullptr;
    ~FormatOwner() {
        if (p) flat::GdipDeleteStringFormat(p);
    }
};

class GdiplusPicture : public OsdPicture {
public:
    GdiplusPicture(gp::GpBitmap* bitmap, int32_t width, int32_t height)
        : bitmap_(bitmap), width_(width), height_(height) {}
    ~GdiplusPicture() override { flat::GdipDisposeImage(bitmap_); }
    int32_t Width() const override { return width_; }
    int32_t Height() const override { return height_; }
    gp::GpBitmap* Bitmap() const { return bitmap_; }

private:
    gp::GpBitmap* bitmap_;
    int32_t width_;
    int32_t height_;
};

class GdiplusRasterizer : public OsdRasterizer {
public:
    explicit GdiplusRasterizer(uint32_t* startupStatus) {
        const uint32_t status = AcquireGdiplus();
        if (startupStatus) *startupStatus = status;
    }
    ~GdiplusRasterizer() override { ReleaseGdiplus(); }

    bool DrawText(const OsdTextJob& job, int32_t canvasWidth, int32_t canvasHeight, const OsdRect& region,
                  OsdBgraView* out) override {
        BitmapOwner bitmap;
        GraphicsOwner graphics;
        if (!TransparentSurface(canvasWidth, canvasHeight, &bitmap, &graphics)) return false;
        flat::GdipSetTextRenderingHint(graphics.p, gp::TextRenderingHintAntiAliasGridFit);

        const gp::REAL x = static_cast<gp::REAL>(job.box.x), y = static_cast<gp::REAL>(job.box.y);
        const gp::REAL w = static_cast<gp::REAL>(job.box.width), h = static_cast<gp::REAL>(job.box.height);
        BrushOwner boxBrush;
        if (job.fillBox && flat::GdipCreateSolidFill(job.boxArgb, &boxBrush.p) == gp::Ok) {
            flat::GdipFillRectangle(graphics.p, boxBrush.p, x, y, w, h);
        }

        // Both families are made every time; the named one wins when it exists.
        // Without any usable font the box is still shown, only the text is missing.
        FamilyOwner named, fallback, generic;
        flat::GdipCreateFontFamilyFromName(job.fontName->c_str(), nullptr, &named.p);
        flat::GdipCreateFontFamilyFromName(OsdDefaultFontName().c_str(), nullptr, &fallback.p);
        gp::GpFontFamily* family = named.p ? named.p : fallback.p;
        if (!family && flat::GdipGetGenericFontFamilySansSerif(&generic.p) == gp::Ok) family = generic.p;

        FontOwner font;
        FormatOwner format;
        BrushOwner textBrush;
        if (family &&
            flat::GdipCreateFont(family, static_cast<gp::REAL>(job.fontPixels), gp::FontStyleRegular, gp::UnitPixel,
                                 &font.p) == gp::Ok &&
            flat::GdipCreateStringFormat(0, LANG_NEUTRAL, &format.p) == gp::Ok &&
            flat::GdipCreateSolidFill(job.textArgb, &textBrush.p) == gp::Ok) {
            flat::GdipSetStringFormatFlags(format.p, gp::StringFormatFlagsNoClip);
            const gp::RectF layout(x, y, w, h);
            flat::GdipDrawString(graphics.p, job.text->c_str(), static_cast<INT>(job.text->size()), font.p, &layout,
                                 format.p, textBrush.p);
        }
        return CopyRegion(bitmap.p, region, out);
    }

    std::unique_ptr<OsdPicture> LoadPicture(const OsdString& path) override {
        gp::GpBitmap* bitmap = nullptr;
        if (flat::GdipCreateBitmapFromFile(path.c_str(), &bitmap) != gp::Ok || !bitmap) return nullptr;
        UINT width = 0, height = 0;
        flat::GdipGetImageWidth(bitmap, &width);
        flat::GdipGetImageHeight(bitmap, &height);
        return std::make_unique<GdiplusPicture>(bitmap, static_cast<int32_t>(width), static_cast<int32_t>(height));
    }

    bool DrawPicture(const OsdPicture& picture, int32_t canvasWidth, int32_t canvasHeight, const OsdRect& dest,
                     const OsdRect& region, OsdBgraView* out) override {
        BitmapOwner bitmap;
        GraphicsOwner graphics;
        if (!TransparentSurface(canvasWidth, canvasHeight, &bitmap, &graphics)) return false;
        flat::GdipSetInterpolationMode(graphics.p, gp::InterpolationModeHighQualityBilinear);
        const auto& source = static_cast<const GdiplusPicture&>(picture);
        if (flat::GdipDrawImageRectI(graphics.p, source.Bitmap(), dest.x, dest.y, dest.width, dest.height) != gp::Ok) {
            return false;
        }
        return CopyRegion(bitmap.p, region, out);
    }

private:
    static bool TransparentSurface(int32_t width, int32_t height, BitmapOwner* bitmap, GraphicsOwner* graphics) {
        if (flat::GdipCreateBitmapFromScan0(width, height, 0, PixelFormat32bppARGB, nullptr, &bitmap->p) != gp::Ok) {
            return false;
        }
        if (flat::GdipGetImageGraphicsContext(bitmap->p, &graphics->p) != gp::Ok) return false;
        return flat::GdipGraphicsClear(graphics->p, 0x00000000) == gp::Ok;
    }

    // The bitmap dies with the drawing, so the region is copied into a buffer
    // of the drawing thread that lives until that thread's next drawing:
    // overlays fed from several threads draw at the same time.
    static bool CopyRegion(gp::GpBitmap* bitmap, const OsdRect& region, OsdBgraView* out) {
        thread_local std::vector<uint8_t> pixels;
        const size_t rowBytes = static_cast<size_t>(region.width) * 4;
        try {
            pixels.resize(rowBytes * static_cast<size_t>(region.height));
        } catch (const std::bad_alloc&) {
            return false;
        }
        gp::GpRect rect(region.x, region.y, region.width, region.height);
        gp::BitmapData data{};
        if (flat::GdipBitmapLockBits(bitmap, &rect, gp::ImageLockModeRead, PixelFormat32bppARGB, &data) != gp::Ok) {
            return false;
        }
        for (int32_t row = 0; row < region.height; ++row) {
            std::memcpy(pixels.data() + rowBytes * static_cast<size_t>(row),
                        static_cast<const uint8_t*>(data.Scan0) + static_cast<ptrdiff_t>(data.Stride) * row, rowBytes);
        }
        flat::GdipBitmapUnlockBits(bitmap, &data);
        out->pixels = pixels.data();
        out->stride = static_cast<int32_t>(rowBytes);
        return true;
    }
};

}  // namespace

std::unique_ptr<OsdRasterizer> CreatePlatformOsdRasterizer(uint32_t* startupStatus) {
    return std::make_unique<GdiplusRasterizer>(startupStatus);
}

}  // namespace kiv
