#include <cstdio>

#include "kivcapture.h"
#include "kivsample.h"

int RunInfoMode(int, char**) {
    if (KIV_EnableLog(1) != KIV_OK) std::printf("log could not be opened\n");
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    KivVersionInfo v{};
    KIV_GetVersionEx(&v);
    std::printf("kivcapture %s (api %d, %d.%d.%d)\n", KIV_GetVersion(), KIV_GetApiVersion(), v.major, v.minor,
                v.patch);
    const int video = KIV_GetVideoDeviceCount();
    const int audio = KIV_GetAudioInputDeviceCount();
    std::printf("video devices: %d\n", video);
    for (int i = 0; i < video; ++i) {
        KivDeviceInfo info{};
        if (KIV_GetVideoDeviceInfo(i, &info) == KIV_OK) std::printf("  [%d] %s\n", i, info.name);
    }
    std::printf("audio input devices: %d\n", audio);
    for (int i = 0; i < audio; ++i) {
        KivDeviceInfo info{};
        if (KIV_GetAudioInputDeviceInfo(i, &info) == KIV_OK) std::printf("  [%d] %s\n", i, info.name);
    }
    KIV_Shutdown();
    std::printf("log written to kivcapture.log beside the executable\n");
    return 0;
}
