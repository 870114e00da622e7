/* minimal.c - the smallest complete kivcapture application, in plain C11.
 *
 * Pushes 60 generated 640x360 RGB32 frames through a crop port (the centre
 * 320x180) into a recorder, watches the cropped frames with a callback and
 * prints the recorder's statistics.
 *
 *   minimal [output.mp4]          (default: minimal.mp4 in the current folder)
 *
 * Uncompressed frames are encoded by the Media Foundation sink writer, so a
 * file appears on Windows only; elsewhere (and under Wine) the recorder logs
 * why it could not open its writer. The log goes to kivcapture.log beside the
 * executable.
 *
 * Build it against an unpacked ZIP (MinGW) or an install prefix (native):
 *   i686-w64-mingw32-gcc -std=c11 -O2 samples/minimal.c -Iinclude -Llib -lkivcapture -o minimal.exe
 *   cc -std=c11 -O2 minimal.c $(pkg-config --cflags --libs kivcapture) -o minimal
 * or with CMake: find_package(kivcapture 6 REQUIRED) and link kivcapture::kivcapture. */
#if !defined(_WIN32)
#define _POSIX_C_SOURCE 199309L /* nanosleep */
#endif
#include <kivcapture.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if defined(_WIN32)
#include <windows.h>
static void PauseMs(unsigned ms) { Sleep(ms); }
#else
#include <time.h>
static void PauseMs(unsigned ms) {
    struct timespec pause = {0, (long)ms * 1000000L};
    nanosleep(&pause, NULL);
}
#endif

enum { kWidth = 640, kHeight = 360, kFrames = 60 };

typedef struct CropWatch {
    int frames;
    int width;
    int height;
} CropWatch;

/* The recorder keeps at most 8 frames queued and drops the oldest when more
 * come. A producer faster than the encoder waits until the recorder has taken
 * all but a few of the frames pushed so far (at most about 2 s). */
static void WaitForRecorder(void* recorder, int pushed, int backlog, KivRecorderStats* stats) {
    for (int waited = 0; waited < 2000; ++waited) {
        KIV_GetRecorderStats(recorder, stats);
        if (pushed - stats->inputFrames <= backlog) return;
        PauseMs(1);
    }
}

/* Called on the thread that pushes, once for each cropped frame. */
static void KIV_CALL OnCropped(const KivVideoFrame* frame, void* userData) {
    CropWatch* watch = (CropWatch*)userData;
    watch->frames++;
    watch->width = frame->width;
    watch->height = frame->height;
}

static void Fill(uint8_t* pixels, int index) {
    for (int y = 0; y < kHeight; ++y) {
        uint8_t* row = pixels + (size_t)y * kWidth * 4;
        for (int x = 0; x < kWidth; ++x) {
            row[x * 4 + 0] = (uint8_t)(x + index * 4); /* blue */
            row[x * 4 + 1] = (uint8_t)y;               /* green */
            row[x * 4 + 2] = (uint8_t)(index * 4);     /* red */
            row[x * 4 + 3] = 255;
        }
    }
}

int main(int argc, char** argv) {
    const char* output = argc > 1 ? argv[1] : "minimal.mp4";
    printf("kivcapture %s\n", KIV_GetVersion());
    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) {
        fprintf(stderr, "KIV_Init failed\n");
        return 1;
    }

    void* source = KIV_CreateVideoFrameSource();
    void* crop = KIV_CreateVideoCrop();
    void* recorder = KIV_CreateRecorder(output); /* system code page text */

    KivVideoCropRect rect = {kWidth / 4, kHeight / 4, kWidth / 2, kHeight / 2};
    KIV_SetVideoCropRect(crop, &rect);
    KIV_EnableVideoCrop(crop, 1);

    CropWatch watch = {0, 0, 0};
    KIV_SetVideoFrameCallback(crop, OnCropped, &watch);

    KivRecorderConfig config;
    memset(&config, 0, sizeof config); /* empty filePath: keep the creation path */
    config.width = kWidth / 2;
    config.height = kHeight / 2;
    config.inputFps = 30;
    config.recordFps = 30;
    config.bitrate = 2000000;
    KIV_SetRecorderConfig(recorder, &config);

    KIV_Connect(source, crop);
    KIV_Connect(crop, recorder);
    if (KIV_Start(recorder) != KIV_OK) fprintf(stderr, "recorder did not start\n");

    uint8_t* pixels = malloc((size_t)kWidth * kHeight * 4);
    if (pixels == NULL) return 1;
    KivRecorderStats stats;
    for (int i = 0; i < kFrames; ++i) {
        WaitForRecorder(recorder, i, 4, &stats);
        Fill(pixels, i);
        KivVideoFrame frame;
        memset(&frame, 0, sizeof frame);
        frame.planes[0] = pixels;
        frame.strides[0] = kWidth * 4;
        frame.width = kWidth;
        frame.height = kHeight;
        frame.format = KIV_PIXEL_FORMAT_RGB32;
        frame.timestamp = (int64_t)i * 333333; /* 30 frames a second, 100 ns units */
        frame.frameIndex = (uint64_t)i;
        KIV_PushVideoFrame(source, &frame); /* the pixels may be reused once it returns */
    }

    /* KIV_Stop discards what the recorder has not taken from its queue yet. */
    WaitForRecorder(recorder, kFrames, 0, &stats);
    KIV_Stop(recorder);
    KIV_GetRecorderStats(recorder, &stats);
    printf("cropped frames seen: %d of %d, %dx%d\n", watch.frames, kFrames, watch.width, watch.height);
    printf("recorder: input=%lld encoded=%lld dropped=%lld duplicated=%lld\n", (long long)stats.inputFrames,
           (long long)stats.encodedFrames, (long long)stats.droppedFrames, (long long)stats.duplicatedFrames);

    /* Downstream first: a port must not receive frames once it is destroyed. */
    KIV_Disconnect(crop, recorder);
    KIV_Disconnect(source, crop);
    KIV_DestroyPort(recorder);
    KIV_DestroyPort(crop);
    KIV_DestroyPort(source);
    KIV_Shutdown();
    free(pixels);
    return watch.frames == kFrames && watch.width == kWidth / 2 && watch.height == kHeight / 2 ? 0 : 1;
}
