// The render path's cost per 1920x1080 frame under the platform's Direct3D 11
// (Wine's is software), for NV12, YUY2 and RGB32 into a 1280x720 window, through
// a frame source connected to a window render. Prints the calling thread's CPU
// time and the wall time a frame.
#include <windows.h>

#include <cstdio>
#include <vector>

#include "kivcapture.h"

namespace {

double ThreadCpuMs() {
    FILETIME created, exited, kernel, user;
    GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user);
    auto ms = [](const FILETIME& t) { return (double(t.dwHighDateTime) * 4294967296.0 + t.dwLowDateTime) / 10000.0; };
    return ms(kernel) + ms(user);
}

void Pump() {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

HWND MakeWindow(int width, int height) {
    static const wchar_t* kClass = L"kiv_render_measure";
    WNDCLASSW wc{};
    wc.lpfnWndProc = DefWindowProcW;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = kClass;
    RegisterClassW(&wc);
    RECT r{0, 0, width, height};
    AdjustWindowRect(&r, WS_OVERLAPPEDWINDOW, FALSE);
    HWND hwnd = CreateWindowW(kClass, L"render measure", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, r.right - r.left,
                              r.bottom - r.top, nullptr, nullptr, wc.hInstance, nullptr);
    Pump();
    return hwnd;
}

// A frame of the given format with a moving gradient in every plane.
struct Frame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    Frame(int32_t format, int width, int height) {
        frame.width = width;
        frame.height = height;
        frame.format = format;
        const int luma = width * height;
        if (format == KIV_PIXEL_FORMAT_NV12) {
            bytes.resize(luma * 3 / 2);
            frame.strides[0] = frame.strides[1] = width;
            frame.planes[1] = bytes.data() + luma;
        } else {
            const int bpp = format == KIV_PIXEL_FORMAT_YUY2 ? 2 : 4;
            bytes.resize(static_cast<size_t>(luma) * bpp);
            frame.strides[0] = width * bpp;
        }
        frame.planes[0] = bytes.data();
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 4096);
    }
};

}  // namespace

int main() {
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    const int frames = 40;
    std::printf("%-8s %14s %14s\n", "format", "cpu ms/frame", "wall ms/frame");
    const struct { int32_t format; const char* name; } formats[] = {
        {KIV_PIXEL_FORMAT_NV12, "NV12"}, {KIV_PIXEL_FORMAT_YUY2, "YUY2"}, {KIV_PIXEL_FORMAT_RGB32, "RGB32"}};
    int status = 0;
    for (const auto& f : formats) {
        HWND hwnd = MakeWindow(1280, 720);
        void* source = KIV_CreateVideoFrameSource();
        void* render = KIV_CreateVideoRender(hwnd);
        if (!source || !render || KIV_Connect(source, render) != KIV_OK) {
            std::printf("%-8s cannot set up the render\n", f.name);
            status = 1;
        } else {
            Frame pattern(f.format, 1920, 1080);
            int64_t timestamp = 0;
            auto push = [&] {
                pattern.frame.timestamp = timestamp;
                timestamp += 400000;
                return KIV_PushVideoFrame(source, &pattern.frame);
            };
            for (int i = 0; i < 3; ++i) push();  // device, shaders, first draw
            const double cpu0 = ThreadCpuMs();
            const DWORD wall0 = GetTickCount();
            int refused = 0;
            for (int i = 0; i < frames; ++i) {
                refused += push() != KIV_OK;
                Pump();
            }
            std::printf("%-8s %14.2f %14.2f", f.name, (ThreadCpuMs() - cpu0) / frames,
                        double(GetTickCount() - wall0) / frames);
            std::printf(refused ? "  (%d frames refused)\n" : "\n", refused);
            KIV_Disconnect(source, render);
        }
        if (render) KIV_DestroyPort(render);
        if (source) KIV_DestroyPort(source);
        DestroyWindow(hwnd);
        Pump();
    }
    KIV_Shutdown();
    return status;
}
