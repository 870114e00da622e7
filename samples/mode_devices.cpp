#include <cstdio>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

const char* FormatName(int format) {
    static const char* const names[] = {"none", "YUY2", "NV12", "RGB24", "RGB32", "MJPG", "H264"};
    return format >= 0 && format <= 6 ? names[format] : "?";
}

}  // namespace

// Every camera with its capability table, then every microphone.
int RunDevicesMode(int, char**) {
    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    const int video = KIV_GetVideoDeviceCount();
    std::printf("video devices: %d\n", video);
    for (int i = 0; i < video; ++i) {
        KivDeviceInfo info{};
        if (KIV_GetVideoDeviceInfo(i, &info) != KIV_OK) continue;
        std::printf("  [%d] %s\n      path %s\n", i, info.name, info.path);
        const int count = KIV_GetVideoCapabilityCount(i);
        std::printf("      %d capabilities\n", count);
        for (int c = 0; c < count; ++c) {
            KivVideoCapability cap{};
            if (KIV_GetVideoCapability(i, c, &cap) == KIV_OK)
                std::printf("      %2d: %dx%d %d fps %s\n", c, cap.width, cap.height, cap.fps, FormatName(cap.format));
        }
    }
    const int audio = KIV_GetAudioInputDeviceCount();
    std::printf("audio input devices: %d\n", audio);
    for (int i = 0; i < audio; ++i) {
        KivDeviceInfo info{};
        if (KIV_GetAudioInputDeviceInfo(i, &info) == KIV_OK) std::printf("  [%d] %s\n      path %s\n", i, info.name, info.path);
    }
    KIV_Shutdown();
    return 0;
}
