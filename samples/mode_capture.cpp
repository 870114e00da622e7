// kivsample capture [out.mp4] [seconds]
//
// Opens the first camera and runs it for a few seconds through
//   capture -> crop -> overlay (caption) -> recorder
//                                       -> application callback
// then prints the format the camera was opened with, the frames the callback
// saw, the frames lost on the way and what the recorder wrote.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

struct Seen {
    std::mutex mutex;
    KivVideoFrame first{};
    int64_t frames = 0;
    uint64_t lastIndex = 0;
    int64_t gaps = 0;  // frames the capture queue dropped for a slow consumer
};

void KIV_CALL OnFrame(const KivVideoFrame* frame, void* user) {
    Seen* seen = static_cast<Seen*>(user);
    std::lock_guard<std::mutex> lock(seen->mutex);
    if (seen->frames == 0) {
        seen->first = *frame;
    } else if (frame->frameIndex > seen->lastIndex + 1) {
        seen->gaps += static_cast<int64_t>(frame->frameIndex - seen->lastIndex - 1);
    }
    seen->lastIndex = frame->frameIndex;
    ++seen->frames;
}

const char* FormatName(int32_t format) {
    static const char* const kNames[] = {"none", "YUY2", "NV12", "RGB24", "RGB32", "MJPG", "H264"};
    return format >= 0 && format <= 6 ? kNames[format] : "unknown";
}

}  // namespace

int RunCaptureMode(int argc, char** argv) {
    const char* outPath = argc > 2 ? argv[2] : "capture.mp4";
    const int seconds = argc > 3 ? std::atoi(argv[3]) : 3;
    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) return 1;
    if (KIV_GetVideoDeviceCount() < 1) {
        std::printf("no camera found; nothing to capture\n");
        KIV_Shutdown();
        return 0;
    }
    KivDeviceInfo device{};
    KIV_GetVideoDeviceInfo(0, &device);

    void* input = KIV_CreateVideoInput();
    void* crop = KIV_CreateVideoCrop();
    void* osd = KIV_CreateVideoOsd();
    void* recorder = KIV_CreateRecorder(outPath);
    KIV_SetVideoInputDevice(input, 0);
    KIV_SetVideoInputFormat(input, 1280, 720, 30, KIV_PIXEL_FORMAT_YUY2);

    // 16 pixels cut off the left and the top.
    const KivVideoCropRect rect{16, 16, 0, 0};
    KIV_SetVideoCropRect(crop, &rect);
    KIV_EnableVideoCrop(crop, 1);
    KivVideoOsdItem caption{};
    caption.visible = 1;
    caption.x = 24;
    caption.y = 24;
    caption.opacity = 1.0f;
    caption.color = 0xFFFFFF00;
    caption.size = 28;
    const char* text = "kivsample capture";
    for (int i = 0; text[i]; ++i) caption.text[i] = static_cast<KivWChar>(text[i]);
    KIV_AddVideoOsdText(osd, &caption);

    Seen seen;
    KIV_SetVideoFrameCallback(osd, &OnFrame, &seen);
    KIV_Connect(input, crop);
    KIV_Connect(crop, osd);
    KIV_Connect(osd, recorder);

    const KivResult started = KIV_Start(input);
    std::printf("camera 0 \"%s\": start %d\n", device.name, started);
    KivResult recording = KIV_ERROR_FAILED;
    if (started == KIV_OK) {
        // The recorder learns the picture size from the first frame.
        for (int i = 0; i < 200; ++i) {
            {
                std::lock_guard<std::mutex> lock(seen.mutex);
                if (seen.frames > 0) break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        KivRecorderConfig config{};
        {
            std::lock_guard<std::mutex> lock(seen.mutex);
            config.width = seen.first.width;
            config.height = seen.first.height;
        }
        config.inputFps = 30;
        config.recordFps = 30;
        config.inputMode = KIV_RECORD_INPUT_AUTO;
        KIV_SetRecorderConfig(recorder, &config);
        recording = KIV_Start(recorder);
        if (recording != KIV_OK) std::printf("the recorder did not start (%d); frames still reach the callback\n", recording);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        KIV_Stop(input);
        if (recording == KIV_OK) KIV_Stop(recorder);
    }

    {
        std::lock_guard<std::mutex> lock(seen.mutex);
        std::printf("format %s %dx%d after crop, %lld frames in %d s, %lld dropped by the capture queue\n",
                    FormatName(seen.first.format), seen.first.width, seen.first.height,
                    static_cast<long long>(seen.frames), seconds, static_cast<long long>(seen.gaps));
    }
    if (recording == KIV_OK) {
        KivRecorderStats stats{};
        KIV_GetRecorderStats(recorder, &stats);
        std::printf("recorded %s: %lld frames in, %lld encoded, %lld dropped\n", outPath,
                    static_cast<long long>(stats.inputFrames), static_cast<long long>(stats.encodedFrames),
                    static_cast<long long>(stats.droppedFrames));
    }
    KIV_Disconnect(osd, recorder);
    KIV_Disconnect(crop, osd);
    KIV_Disconnect(input, crop);
    for (void* port : {recorder, osd, crop, input}) KIV_DestroyPort(port);
    KIV_Shutdown();
    return started == KIV_OK ? 0 : 1;
}
