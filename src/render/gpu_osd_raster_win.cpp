// GDI text and WIC pictures for the GPU overlay.
#include <windows.h>

#include <wincodec.h>

#include <cstring>

#include "gpu_com_win.h"
#include "gpu_osd_canvas.h"

namespace kiv {

namespace {

COLORREF RgbOf(uint32_t argb) {
    return RGB(static_cast<BYTE>(argb >> 16), static_cast<BYTE>(argb >> 8), static_cast<BYTE>(argb));
}

// COM for the calling thread for the length of one decode; a thread already
// in another apartment is fine as it is.
class ComScope {
public:
    ComScope() : hr_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~ComScope() {
        if (SUCCEEDED(hr_)) CoUninitialize();
    }
    bool Usable() const { return SUCCEEDED(hr_) || hr_ == RPC_E_CHANGED_MODE; }

private:
    HRESULT hr_;
};

class GdiWicRasterizer : public GpuOsdRasterizer {
public:
    bool RenderText(const OsdItem& item, GpuOsdBitmap* out) override {
        const int32_t w = item.width, h = item.height;
        if (w < 1 || h < 1) return false;
        HDC dc = CreateCompatibleDC(nullptr);
        if (!dc) return false;
        BITMAPINFO info{};
        info.bmiHeader.biSize = sizeof(info.bmiHeader);
        info.bmiHeader.biWidth = w;
        info.bmiHeader.biHeight = -h;  // top-down
        info.bmiHeader.biPlanes = 1;
        info.bmiHeader.biBitCount = 32;
        info.bmiHeader.biCompression = BI_RGB;
        void* bits = nullptr;
        HBITMAP dib = CreateDIBSection(dc, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
        if (!dib || !bits) {
            if (dib) DeleteObject(dib);
            DeleteDC(dc);
            return false;
        }
        HGDIOBJ oldBitmap = SelectObject(dc, dib);
        RECT rect{0, 0, w, h};
        if (!item.transparent) {
            HBRUSH brush = CreateSolidBrush(RgbOf(item.backColor));
            if (brush) {
                FillRect(dc, &rect, brush);
                DeleteObject(brush);
            }
        }
        const OsdString& face = item.fontName.empty() ? OsdDefaultFontName() : item.fontName;
        HFONT font = CreateFontW(-(item.size > 0 ? item.size : 36), 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE,
                                 DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY,
                                 DEFAULT_PITCH | FF_DONTCARE, reinterpret_cast<const wchar_t*>(face.c_str()));
        HGDIOBJ oldFont = font ? SelectObject(dc, font) : nullptr;
        SetBkMode(dc, TRANSPARENT);
        SetTextColor(dc, RgbOf(item.color));
        if (!item.text.empty()) {
            DrawTextW(dc, reinterpret_cast<const wchar_t*>(item.text.c_str()), static_cast<int>(item.text.size()), &rect,
                      DT_SINGLELINE | DT_VCENTER | DT_END_ELLIPSIS);
        }
        GdiFlush();
        out->width = w;
        out->height = h;
        out->pixels.resize(static_cast<size_t>(w) * h * 4);
        std::memcpy(out->pixels.data(), bits, out->pixels.size());
        if (oldFont) SelectObject(dc, oldFont);
        if (font) DeleteObject(font);
        SelectObject(dc, oldBitmap);
        DeleteObject(dib);
        DeleteDC(dc);
        return true;
    }

    bool DecodePicture(const OsdString& path, GpuOsdBitmap* out) override {
        if (path.empty()) return false;
        ComScope com;
        if (!com.Usable()) return false;
        IWICImagingFactory* factory = nullptr;
        IWICBitmapDecoder* decoder = nullptr;
        IWICBitmapFrameDecode* frame = nullptr;
        IWICFormatConverter* converter = nullptr;
        UINT w = 0, h = 0;
        HRESULT hr = CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_IWICImagingFactory,
                                      reinterpret_cast<void**>(&factory));
        if (SUCCEEDED(hr)) {
            hr = factory->CreateDecoderFromFilename(reinterpret_cast<const wchar_t*>(path.c_str()), nullptr,
                                                    GENERIC_READ, WICDecodeMetadataCacheOnDemand, &decoder);
        }
        if (SUCCEEDED(hr)) hr = decoder->GetFrame(0, &frame);
        if (SUCCEEDED(hr)) hr = factory->CreateFormatConverter(&converter);
        if (SUCCEEDED(hr)) {
            hr = converter->Initialize(frame, GUID_WICPixelFormat32bppBGRA, WICBitmapDitherTypeNone, nullptr, 0.0,
                                       WICBitmapPaletteTypeCustom);
        }
        if (SUCCEEDED(hr)) hr = converter->GetSize(&w, &h);
        if (SUCCEEDED(hr) && (w < 1 || h < 1 || w > 32768 || h > 32768)) hr = E_FAIL;
        if (SUCCEEDED(hr)) {
            out->width = static_cast<int32_t>(w);
            out->height = static_cast<int32_t>(h);
            out->pixels.resize(static_cast<size_t>(w) * h * 4);
            hr = converter->CopyPixels(nullptr, w * 4, static_cast<UINT>(out->pixels.size()), out->pixels.data());
        }
        ReleaseCom(converter);
        ReleaseCom(frame);
        ReleaseCom(decoder);
        ReleaseCom(factory);
        return SUCCEEDED(hr);
    }
};

}  // namespace

std::unique_ptr<GpuOsdRasterizer> CreateGpuOsdRasterizer() { return std::make_unique<GdiWicRasterizer>(); }

}  // namespace kiv
