// Not a test: the render path's cost per 1920x1080 frame under the platform's
// Direct3D 11 (Wine's is software), for NV12, YUY2 and RGB32 into a 1280x720
// window. Prints the calling thread's CPU time and the wall time a frame.
#include <windows.h>

#include <cstdio>
#include <memory>

#include "pixel_reference.h"
#include "render/kiv_video_render.h"
#include "test_window_win.h"

namespace {

double ThreadCpuMs() {
    FILETIME created, exited, kernel, user;
    GetThreadTimes(GetCurrentThread(), &created, &exited, &kernel, &user);
    auto ms = [](const FILETIME& t) { return (double(t.dwHighDateTime) * 4294967296.0 + t.dwLowDateTime) / 10000.0; };
    return ms(kernel) + ms(user);
}

}  // namespace

int main() {
    const int frames = 40;
    std::printf("%-8s %14s %14s\n", "format", "cpu ms/frame", "wall ms/frame");
    for (int32_t format : {KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_RGB32}) {
        rendertest::TestWindow window(1280, 720);
        KivVideoRender render(window.Handle());
        rendertest::PatternFrame pattern(format, 1920, 1080);
        for (int i = 0; i < 3; ++i) render.OnVideoFrame(&pattern.frame);  // device, shaders, first draw
        const double cpu0 = ThreadCpuMs();
        const DWORD wall0 = GetTickCount();
        for (int i = 0; i < frames; ++i) {
            render.OnVideoFrame(&pattern.frame);
            rendertest::PumpMessages();
        }
        std::printf("%-8d %14.2f %14.2f\n", format, (ThreadCpuMs() - cpu0) / frames,
                    double(GetTickCount() - wall0) / frames);
    }
    return 0;
}
