// Exported functions of the video capture port.
#include "../capture/kiv_video_input.h"
#include "../core/kiv_state.h"

extern "C" {

void* KIV_CALL KIV_CreateVideoInput(void) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivVideoInput());
}

KivResult KIV_CALL KIV_SetVideoInputDevice(void* input, int32_t deviceIndex) {
    KivVideoInput* port = KivPortCast<KivVideoInput>(input);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetDevice(deviceIndex);
}

KivResult KIV_CALL KIV_SetVideoInputFormat(void* input, int32_t width, int32_t height, int32_t fps,
                                           int32_t pixelFormat) {
    KivVideoInput* port = KivPortCast<KivVideoInput>(input);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetFormat(width, height, fps, pixelFormat);
}

KivResult KIV_CALL KIV_SetVideoInputConfig(void* input, const KivVideoInputConfig* config) {
    KivVideoInput* port = KivPortCast<KivVideoInput>(input);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetConfig(config);
}

}  // extern "C"
