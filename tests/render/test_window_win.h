// A real top-level window on the test's own X display, its pixels read back through GDI, and frames pushed
// until it shows what a test expects.
#pragma once
#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kivcapture.h"

namespace rendertest {

inline void PumpMessages() {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
}

// A borderless topmost window at (x, y), client area width x height.
class TestWindow {
public:
    TestWindow(int width, int height, int x = 0, int y = 0) {
        static const wchar_t* name = [] {
            WNDCLASSW wc{0, Proc, 0, 0, GetModuleHandleW(nullptr), nullptr, nullptr, nullptr, nullptr, L"KivRenderTestWindow"};
            RegisterClassW(&wc);
            return wc.lpszClassName;
        }();
        hwnd_ = CreateWindowExW(WS_EX_TOPMOST, name, L"kiv render test", WS_POPUP | WS_VISIBLE, x, y, width, height, nullptr,
                                nullptr, GetModuleHandleW(nullptr), nullptr);
        PumpMessages();
    }
    ~TestWindow() { Destroy(); }
    HWND Handle() const { return hwnd_; }
    void Destroy() {
        if (hwnd_) DestroyWindow(hwnd_);
        hwnd_ = nullptr;
        PumpMessages();
    }
    // The client area as tight top-down BGRA rows (BitBlt from the window's DC), its size in width and height.
    std::vector<uint8_t> Read() {
        RECT rc{};
        GetClientRect(hwnd_, &rc);
        width = rc.right, height = rc.bottom;
        std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 4);
        HDC windowDc = GetDC(hwnd_), memDc = CreateCompatibleDC(windowDc);
        BITMAPINFO bi{{sizeof(BITMAPINFOHEADER), width, -height, 1, 32, BI_RGB, 0, 0, 0, 0, 0}, {}};
        void* bits = nullptr;
        HBITMAP dib = CreateDIBSection(memDc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
        HGDIOBJ old = SelectObject(memDc, dib);
        BitBlt(memDc, 0, 0, width, height, windowDc, 0, 0, SRCCOPY);
        GdiFlush();
        if (bits) std::copy_n(static_cast<const uint8_t*>(bits), pixels.size(), pixels.begin());
        SelectObject(memDc, old), DeleteObject(dib), DeleteDC(memDc), ReleaseDC(hwnd_, windowDc);
        return pixels;
    }
    int width = 0, height = 0;

private:
    static LRESULT CALLBACK Proc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
        return msg == WM_ERASEBKGND ? 1 : DefWindowProcW(hwnd, msg, wp, lp);  // the renderer owns every pixel
    }
    HWND hwnd_ = nullptr;
};

// Pushes the frame for up to two seconds (a busy GPU may skip a present) until the window shows one of the wanted
// tight pictures (bpp bytes a pixel) within the tolerance. Returns the largest channel difference from the nearest
// wanted picture (255 for another size); `where` names the worst pixel.
inline int PushUntilShown(void* source, const KivVideoFrame& frame, TestWindow& window, const std::vector<std::vector<uint8_t>>& wants,
                          int bpp, int tolerance, std::string* where) {
    int worst = 255;
    for (int attempt = 0; attempt < 40 && worst > tolerance; ++attempt) {
        if (KIV_PushVideoFrame(source, &frame) != KIV_OK) return 255;
        PumpMessages();
        Sleep(attempt == 0 ? 0 : 50);
        const std::vector<uint8_t> shown = window.Read();
        worst = 0;
        for (size_t i = 0; i < shown.size() / 4; ++i) {
            int best = 255;
            for (const auto& want : wants) {
                int d = want.size() == shown.size() / 4 * bpp ? 0 : 255;
                for (int c = 0; c < 3 && d < 255; ++c) d = std::max(d, std::abs(shown[i * 4 + c] - want[i * bpp + c]));
                best = std::min(best, d);
            }
            if (best <= worst) continue;
            worst = best;
            *where = "x=" + std::to_string(i % window.width) + " y=" + std::to_string(i / window.width) + " shown BGR " +
                     std::to_string(shown[i * 4]) + "," + std::to_string(shown[i * 4 + 1]) + "," + std::to_string(shown[i * 4 + 2]);
        }
    }
    return worst;
}

}  // namespace rendertest
