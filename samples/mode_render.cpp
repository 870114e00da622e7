// Render mode: a moving NV12 test pattern pushed through a frame source into
// the window render port for a few seconds; the window is then captured to
// render.bmp (scripts/run-sample.sh turns it into a PNG).
//   kivsample render [seconds]
// Without windows (the native build) the port still converts each frame to
// the configured size and hands it to the frame callback.
#if defined(_WIN32)
#include <windows.h>
#endif

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

constexpr int32_t kWidth = 640;
constexpr int32_t kHeight = 360;

// Colour bars over a luma ramp, with a white square that travels along the
// picture, in NV12 (luma plane then interleaved U,V).
void DrawPattern(std::vector<uint8_t>& nv12, int step) {
    static const uint8_t bars[8][3] = {{235, 128, 128}, {210, 16, 146}, {170, 166, 16}, {145, 54, 34},
                                       {106, 202, 222}, {81, 90, 240}, {41, 240, 110}, {16, 128, 128}};
    uint8_t* luma = nv12.data();
    uint8_t* chroma = luma + size_t(kWidth) * kHeight;
    const int boxX = (step * 6) % (kWidth - 60), boxY = kHeight / 2 - 30;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const int bar = x * 8 / kWidth;
            const bool box = x >= boxX && x < boxX + 60 && y >= boxY && y < boxY + 60;
            const bool ramp = y >= kHeight * 3 / 4;
            uint8_t yv = ramp ? uint8_t(16 + x * 219 / kWidth) : bars[bar][0];
            uint8_t u = ramp ? 128 : bars[bar][1], v = ramp ? 128 : bars[bar][2];
            if (box) yv = 235, u = 128, v = 128;
            luma[size_t(y) * kWidth + x] = yv;
            if ((x & 1) == 0 && (y & 1) == 0) {
                chroma[size_t(y / 2) * kWidth + x] = u;
                chroma[size_t(y / 2) * kWidth + x + 1] = v;
            }
        }
    }
}

void KIV_CALL CountFrame(const KivVideoFrame* frame, void* user) {
    int* count = static_cast<int*>(user);
    if (++*count == 1) std::printf("callback frame %dx%d fmt=%d\n", frame->width, frame->height, frame->format);
}

#if defined(_WIN32)
LRESULT CALLBACK WindowProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (msg == WM_ERASEBKGND) return 1;
    return DefWindowProcW(hwnd, msg, wp, lp);
}

HWND OpenWindow() {
    WNDCLASSW wc{};
    wc.lpfnWndProc = WindowProc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = L"KivSampleRender";
    RegisterClassW(&wc);
    return CreateWindowExW(0, wc.lpszClassName, L"kivsample render", WS_POPUP | WS_VISIBLE, 0, 0, kWidth, kHeight,
                           nullptr, nullptr, wc.hInstance, nullptr);
}

void Pump() {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
}

// The window's pixels as the screen shows them, into a 24-bit BMP file.
bool SaveWindow(HWND hwnd, const char* path) {
    RECT rc{};
    GetClientRect(hwnd, &rc);
    const int w = rc.right, h = rc.bottom, stride = (w * 3 + 3) & ~3;
    HDC windowDc = GetDC(hwnd);
    HDC memDc = CreateCompatibleDC(windowDc);
    BITMAPINFO bi{};
    bi.bmiHeader.biSize = sizeof(bi.bmiHeader);
    bi.bmiHeader.biWidth = w;
    bi.bmiHeader.biHeight = h;  // bottom-up, as BMP files store it
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 24;
    void* bits = nullptr;
    HBITMAP dib = CreateDIBSection(memDc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
    HGDIOBJ old = SelectObject(memDc, dib);
    BitBlt(memDc, 0, 0, w, h, windowDc, 0, 0, SRCCOPY);
    GdiFlush();
    bool ok = false;
    if (FILE* f = std::fopen(path, "wb")) {
        BITMAPFILEHEADER fh{};
        fh.bfType = 0x4D42;
        fh.bfOffBits = sizeof(fh) + sizeof(bi.bmiHeader);
        fh.bfSize = fh.bfOffBits + DWORD(stride) * h;
        bi.bmiHeader.biSizeImage = DWORD(stride) * h;
        ok = std::fwrite(&fh, sizeof(fh), 1, f) == 1 && std::fwrite(&bi.bmiHeader, sizeof(bi.bmiHeader), 1, f) == 1 &&
             std::fwrite(bits, size_t(stride) * h, 1, f) == 1;
        ok = std::fclose(f) == 0 && ok;
    }
    SelectObject(memDc, old);
    DeleteObject(dib);
    DeleteDC(memDc);
    ReleaseDC(hwnd, windowDc);
    return ok;
}
#endif

}  // namespace

int RunRenderMode(int argc, char** argv) {
    const double seconds = argc > 2 ? std::atof(argv[2]) : 3.0;
    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) {
        std::fprintf(stderr, "KIV_Init failed\n");
        return 1;
    }
    void* window = nullptr;
#if defined(_WIN32)
    window = OpenWindow();
#endif
    void* render = KIV_CreateVideoRender(window);
    void* source = KIV_CreateVideoFrameSource();
    int callbacks = 0;
    KIV_SetVideoFrameCallback(render, CountFrame, &callbacks);
    if (!window) {
        const KivVideoRenderConfig half{kWidth / 2, kHeight / 2, KIV_PIXEL_FORMAT_RGB32};
        KIV_SetVideoRenderConfig(render, &half);  // nothing to draw into: show the conversion instead
    }
    KIV_Connect(source, render);
    StartRenderGpuFeatures(render);

    std::vector<uint8_t> nv12(size_t(kWidth) * kHeight * 3 / 2);
    KivVideoFrame frame{};
    frame.planes[0] = nv12.data();
    frame.planes[1] = nv12.data() + size_t(kWidth) * kHeight;
    frame.strides[0] = frame.strides[1] = kWidth;
    frame.width = kWidth;
    frame.height = kHeight;
    frame.format = KIV_PIXEL_FORMAT_NV12;
    // The clock starts after two frames: creating the device, compiling the
    // shaders and the first draw can take seconds under software rendering.
    auto end = std::chrono::steady_clock::now();
    int pushed = 0;
    double drawMs = 0;
    while (pushed < 3 || std::chrono::steady_clock::now() < end) {
        if (pushed == 2) end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
        DrawPattern(nv12, pushed);
        frame.frameIndex = uint64_t(pushed++);
        const auto before = std::chrono::steady_clock::now();
        KIV_PushVideoFrame(source, &frame);
        const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - before).count();
        if (pushed <= 2) {
            std::printf("warm-up frame %d: %.1f ms\n", pushed, ms);
        } else {
            drawMs += ms;
        }
#if defined(_WIN32)
        Pump();
#endif
        std::this_thread::sleep_for(std::chrono::milliseconds(33));
    }
    std::printf("pushed %d frames, callback saw %d, %.2f ms a frame after warm-up\n", pushed, callbacks,
                pushed > 2 ? drawMs / (pushed - 2) : 0.0);
    int result = callbacks > 0 ? 0 : 1;
#if defined(_WIN32)
    Sleep(200);
    Pump();
    if (SaveWindow(static_cast<HWND>(window), "render.bmp")) {
        std::printf("window captured to render.bmp\n");
    } else {
        std::fprintf(stderr, "could not capture the window\n");
        result = 1;
    }
#endif
    FinishRenderGpuFeatures(render);
    KIV_Disconnect(source, render);
    KIV_DestroyPort(source);
    KIV_DestroyPort(render);
#if defined(_WIN32)
    DestroyWindow(static_cast<HWND>(window));
#endif
    KIV_Shutdown();
    return result;
}
