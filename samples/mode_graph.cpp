// Graph mode: an application-made picture pushed through a frame source and
// a video mux into a frame callback.
//   kivsample graph [frames]
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

constexpr int32_t kWidth = 320;
constexpr int32_t kHeight = 180;

// Steady clock in 100 ns units, the time base of frame timestamps.
int64_t Now100ns() {
    using namespace std::chrono;
    return duration_cast<duration<int64_t, std::ratio<1, 10000000>>>(steady_clock::now().time_since_epoch()).count();
}

// A diagonal RGB32 gradient that moves `shift` pixels to the right per frame.
void DrawGradient(std::vector<uint8_t>& pixels, int shift) {
    for (int32_t y = 0; y < kHeight; ++y) {
        uint8_t* row = pixels.data() + size_t(y) * kWidth * 4;
        for (int32_t x = 0; x < kWidth; ++x) {
            row[x * 4 + 0] = uint8_t((x + shift) * 255 / kWidth);   // blue
            row[x * 4 + 1] = uint8_t(y * 255 / kHeight);            // green
            row[x * 4 + 2] = uint8_t((x + y + shift * 2) & 0xFF);   // red
            row[x * 4 + 3] = 0xFF;
        }
    }
}

struct Watch {
    int frames = 0;
    int64_t firstTimestamp = 0;
};

void KIV_CALL OnMuxFrame(const KivVideoFrame* frame, void* user) {
    auto* watch = static_cast<Watch*>(user);
    if (watch->frames++ == 0) watch->firstTimestamp = frame->timestamp;
    const uint8_t* centre = frame->planes[0] + size_t(frame->height / 2) * size_t(frame->strides[0]) +
                            size_t(frame->width / 2) * 4;
    std::printf("frame %2llu  %dx%d fmt=%d  t=+%6.2f ms  centre BGR=(%3u,%3u,%3u)\n",
                static_cast<unsigned long long>(frame->frameIndex), frame->width, frame->height, frame->format,
                double(frame->timestamp - watch->firstTimestamp) / 10000.0, centre[0], centre[1], centre[2]);
}

}  // namespace

int RunGraphMode(int argc, char** argv) {
    const int frames = argc > 2 ? std::atoi(argv[2]) : 30;
    if (frames < 1) {
        std::fprintf(stderr, "usage: kivsample graph [frames]\n");
        return 2;
    }
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();
    Watch watch;
    int result = 1;
    if (source && mux && KIV_Connect(source, mux) == KIV_OK &&
        KIV_SetVideoFrameCallback(mux, OnMuxFrame, &watch) == KIV_OK) {
        std::vector<uint8_t> pixels(size_t(kWidth) * kHeight * 4);
        KivVideoFrame frame{};
        frame.planes[0] = pixels.data();
        frame.strides[0] = kWidth * 4;
        frame.width = kWidth;
        frame.height = kHeight;
        frame.format = KIV_PIXEL_FORMAT_RGB32;
        result = 0;
        for (int i = 0; i < frames && result == 0; ++i) {
            DrawGradient(pixels, i * 4);
            frame.timestamp = Now100ns();
            frame.frameIndex = uint64_t(i);
            if (KIV_PushVideoFrame(source, &frame) != KIV_OK) result = 1;
        }
        std::printf("pushed %d frames, the mux's callback saw %d\n", frames, watch.frames);
        if (watch.frames != frames) result = 1;
    } else {
        std::printf("could not build the graph\n");
    }
    // Clear the callback and disconnect before destroying, as an application should.
    if (mux) KIV_SetVideoFrameCallback(mux, nullptr, nullptr);
    if (source && mux) KIV_Disconnect(source, mux);
    if (source) KIV_DestroyPort(source);
    if (mux) KIV_DestroyPort(mux);
    KIV_Shutdown();
    return result;
}
