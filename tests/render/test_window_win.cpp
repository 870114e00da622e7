#include "test_window_win.h"

#include <cstring>

namespace rendertest {

namespace {

const wchar_t kClassName[] = L"KivRenderTestWindow";

LRESULT CALLBACK WindowProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (msg == WM_ERASEBKGND) return 1;  // the renderer owns every pixel
    return DefWindowProcW(hwnd, msg, wp, lp);
}

void RegisterOnce() {
    static bool registered = false;
    if (registered) return;
    WNDCLASSW wc{};
    wc.lpfnWndProc = WindowProc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = kClassName;
    RegisterClassW(&wc);
    registered = true;
}

}  // namespace

void PumpMessages() {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

TestWindow::TestWindow(int width, int height, int x, int y) {
    RegisterOnce();
    hwnd_ = CreateWindowExW(WS_EX_TOPMOST, kClassName, L"kiv render test", WS_POPUP | WS_VISIBLE, x, y, width,
                            height,
                            nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
    PumpMessages();
}

TestWindow::~TestWindow() { Destroy(); }

void TestWindow::Destroy() {
    if (hwnd_) DestroyWindow(hwnd_);
    hwnd_ = nullptr;
    PumpMessages();
}

void TestWindow::Resize(int width, int height) {
    SetWindowPos(hwnd_, nullptr, 0, 0, width, height, SWP_NOZORDER | SWP_NOMOVE);
    PumpMessages();
}

std::vector<uint8_t> TestWindow::Read(int* width, int* height) {
    RECT rc{};
    GetClientRect(hwnd_, &rc);
    *width = rc.right;
    *height = rc.bottom;
    std::vector<uint8_t> pixels(static_cast<size_t>(*width) * *height * 4);
    HDC windowDc = GetDC(hwnd_);
    HDC memDc = CreateCompatibleDC(windowDc);
    BITMAPINFO bi{};
    bi.bmiHeader.biSize = sizeof(bi.bmiHeader);
    bi.bmiHeader.biWidth = *width;
    bi.bmiHeader.biHeight = -*height;
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 32;
    bi.bmiHeader.biCompression = BI_RGB;
    void* bits = nullptr;
    HBITMAP dib = CreateDIBSection(memDc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
    HGDIOBJ old = SelectObject(memDc, dib);
    BitBlt(memDc, 0, 0, *width, *height, windowDc, 0, 0, SRCCOPY);
    GdiFlush();
    if (bits) memcpy(pixels.data(), bits, pixels.size());
    SelectObject(memDc, old);
    DeleteObject(dib);
    DeleteDC(memDc);
    ReleaseDC(hwnd_, windowDc);
    return pixels;
}

}  // namespace rendertest
