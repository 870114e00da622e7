/* Drives the installed library through its public header as a C application:
 * version, start-up, a frame source feeding a mux, one pushed frame seen by
 * the mux's callback with the pixels it was given. Prints "consumer ok" and
 * exits 0 when everything holds. */
#include <kivcapture.h>

#include <stdio.h>
#include <string.h>

static int failures;

#define EXPECT(cond)                                                   \
    do {                                                               \
        if (!(cond)) {                                                 \
            fprintf(stderr, "consumer: %s:%d: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                \
        }                                                              \
    } while (0)

typedef struct Seen {
    int calls;
    KivVideoFrame frame;
    uint32_t firstPixel;
} Seen;

static void KIV_CALL OnFrame(const KivVideoFrame* frame, void* userData) {
    Seen* seen = (Seen*)userData;
    ++seen->calls;
    seen->frame = *frame;
    memcpy(&seen->firstPixel, frame->planes[0], sizeof seen->firstPixel);
}

int main(void) {
    KivVersionInfo version = {0, 0, 0};
    EXPECT(strcmp(KIV_GetVersion(), "6.0.6") == 0);
    EXPECT(KIV_GetVersionEx(&version) == &version);
    EXPECT(version.major == 6 && version.minor == 0 && version.patch == 6);
    EXPECT(KIV_GetApiVersion() == 60006);

    EXPECT(KIV_CreateVideoMux() == NULL); /* not initialised yet */
    if (KIV_Init() != KIV_OK) {
        fprintf(stderr, "consumer: KIV_Init failed\n");
        return 1;
    }

    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();
    EXPECT(source != NULL && mux != NULL);
    EXPECT(KIV_Connect(source, mux) == KIV_OK);
    EXPECT(KIV_Connect(mux, source) == KIV_ERROR_UNSUPPORTED);

    Seen seen;
    memset(&seen, 0, sizeof seen);
    EXPECT(KIV_SetVideoFrameCallback(mux, OnFrame, &seen) == KIV_OK);

    uint32_t pixels[4 * 2] = {0xFF102030u, 0, 0, 0, 0, 0, 0, 0xFFFFFFFFu};
    KivVideoFrame frame;
    memset(&frame, 0, sizeof frame);
    frame.planes[0] = (uint8_t*)pixels;
    frame.strides[0] = 4 * 4;
    frame.width = 4;
    frame.height = 2;
    frame.format = KIV_PIXEL_FORMAT_RGB32;
    frame.timestamp = 12345;
    frame.frameIndex = 7;
    EXPECT(KIV_PushVideoFrame(source, &frame) == KIV_OK);
    EXPECT(seen.calls == 1);
    EXPECT(seen.frame.width == 4 && seen.frame.height == 2 && seen.frame.format == KIV_PIXEL_FORMAT_RGB32);
    EXPECT(seen.frame.timestamp == 12345 && seen.frame.frameIndex == 7);
    EXPECT(seen.firstPixel == 0xFF102030u);

    frame.format = 7;
    EXPECT(KIV_PushVideoFrame(source, &frame) == KIV_ERROR_UNSUPPORTED);
    EXPECT(seen.calls == 1);

    EXPECT(KIV_Disconnect(source, mux) == KIV_OK);
    EXPECT(KIV_DestroyPort(mux) == KIV_OK);
    EXPECT(KIV_DestroyPort(source) == KIV_OK);
    EXPECT(KIV_Shutdown() == KIV_OK);

    if (failures != 0) {
        fprintf(stderr, "consumer: %d check(s) failed\n", failures);
        return 1;
    }
    printf("consumer ok\n");
    return 0;
}
