// A real top-level window on the test's own X display, and a read of what it
// shows through GDI (BitBlt from the window's DC returns the presented pixels).
#pragma once
#include <windows.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace rendertest {

inline void PumpMessages() {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

// A borderless topmost window at (x, y), client area width x height.
class TestWindow {
public:
    TestWindow(int width, int height, int x = 0, int y = 0) {
        static const wchar_t* name = [] {
            WNDCLASSW wc{};
            wc.lpfnWndProc = Proc;
            wc.hInstance = GetModuleHandleW(nullptr);
            wc.lpszClassName = L"KivRenderTestWindow";
            RegisterClassW(&wc);
            return wc.lpszClassName;
        }();
        hwnd_ = CreateWindowExW(WS_EX_TOPMOST, name, L"kiv render test", WS_POPUP | WS_VISIBLE, x, y, width, height, nullptr,
                                nullptr, GetModuleHandleW(nullptr), nullptr);
        PumpMessages();
    }
    ~TestWindow() { Destroy(); }
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

    HWND Handle() const { return hwnd_; }
    void Resize(int width, int height) {
        SetWindowPos(hwnd_, nullptr, 0, 0, width, height, SWP_NOZORDER | SWP_NOMOVE);
        PumpMessages();
    }
    void Destroy() {
        if (hwnd_) DestroyWindow(hwnd_);
        hwnd_ = nullptr;
        PumpMessages();
    }
    // The client area as tight BGRA rows, top-down.
    std::vector<uint8_t> Read(int* width, int* height) {
        RECT rc{};
        GetClientRect(hwnd_, &rc);
        *width = rc.right;
        *height = rc.bottom;
        std::vector<uint8_t> pixels(static_cast<size_t>(*width) * *height * 4);
        HDC windowDc = GetDC(hwnd_);
        HDC memDc = CreateCompatibleDC(windowDc);
        BITMAPINFO bi{};
        bi.bmiHeader = {sizeof(bi.bmiHeader), *width, -*height, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
        void* bits = nullptr;
        HBITMAP dib = CreateDIBSection(memDc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
        HGDIOBJ old = SelectObject(memDc, dib);
        BitBlt(memDc, 0, 0, *width, *height, windowDc, 0, 0, SRCCOPY);
        GdiFlush();
        if (bits) std::memcpy(pixels.data(), bits, pixels.size());
        SelectObject(memDc, old);
        DeleteObject(dib);
        DeleteDC(memDc);
        ReleaseDC(hwnd_, windowDc);
        return pixels;
    }

private:
    static LRESULT CALLBACK Proc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
        return msg == WM_ERASEBKGND ? 1 : DefWindowProcW(hwnd, msg, wp, lp);  // the renderer owns every pixel
    }
    HWND hwnd_ = nullptr;
};

}  // namespace rendertest
