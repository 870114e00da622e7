// Exported functions of the audio capture and playback ports.
#include "../audio/kiv_audio_input.h"
#include "../audio/kiv_audio_render.h"
#include "../core/kiv_state.h"

extern "C" {

void* KIV_CALL KIV_CreateAudioInput(void) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivAudioInput());
}

void* KIV_CALL KIV_CreateAudioRender(void) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivAudioRender());
}

KivResult KIV_CALL KIV_SetAudioInputDevice(void* input, int32_t deviceIndex) {
    KivAudioInput* p = KivPortCast<KivAudioInput>(input);
    return p ? p->SetDevice(deviceIndex) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_SetAudioInputPCM(void* input, int32_t sampleRate, int32_t channels, int32_t bitsPerSample) {
    KivAudioInput* p = KivPortCast<KivAudioInput>(input);
    return p ? p->SetPcm(sampleRate, channels, bitsPerSample) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_SetAudioRenderDefaultDevice(void* render) {
    KivAudioRender* p = KivPortCast<KivAudioRender>(render);
    return p ? p->UseDefaultDevice() : KIV_ERROR_INVALID_ARG;
}

}  // extern "C"
