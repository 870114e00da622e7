// Exported functions of the recorder port.
#include "../core/kiv_state.h"
#include "../record/kiv_recorder.h"

extern "C" {

void* KIV_CALL KIV_CreateRecorder(const char* text) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivRecorder(text));
}

KivResult KIV_CALL KIV_SetRecorderConfig(void* recorder, const KivRecorderConfig* config) {
    KivRecorder* r = KivPortCast<KivRecorder>(recorder);
    return r ? r->SetConfig(config) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_GetRecorderStats(void* recorder, KivRecorderStats* out) {
    KivRecorder* r = KivPortCast<KivRecorder>(recorder);
    return r ? r->GetStats(out) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_SetRecorderVideoCallback(void* recorder, KivEncodedVideoCallback fn, void* userData) {
    KivRecorder* r = KivPortCast<KivRecorder>(recorder);
    return r ? r->SetEncodedVideoCallback(fn, userData) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_SetRecorderAudioCallback(void* recorder, KivEncodedAudioCallback fn, void* userData) {
    KivRecorder* r = KivPortCast<KivRecorder>(recorder);
    return r ? r->SetEncodedAudioCallback(fn, userData) : KIV_ERROR_INVALID_ARG;
}

}  // extern "C"
