// Exported functions of the crop and colour engine ports.
#include "../core/kiv_state.h"
#include "../processing/kiv_video_color.h"
#include "../processing/kiv_video_crop.h"

extern "C" {

void* KIV_CALL KIV_CreateVideoCrop(void) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivVideoCrop());
}

void* KIV_CALL KIV_CreateVideoColorEngine(void) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivVideoColorEngine());
}

KivResult KIV_CALL KIV_SetVideoCropRect(void* crop, const KivVideoCropRect* rect) {
    KivVideoCrop* port = KivPortCast<KivVideoCrop>(crop);
    if (!port || !rect) return KIV_ERROR_INVALID_ARG;
    port->SetRect(*rect);
    return KIV_OK;
}

KivResult KIV_CALL KIV_EnableVideoCrop(void* crop, int32_t enable) {
    KivVideoCrop* port = KivPortCast<KivVideoCrop>(crop);
    if (!port) return KIV_ERROR_INVALID_ARG;
    port->Enable(enable);
    return KIV_OK;
}

KivResult KIV_CALL KIV_SetVideoColorEngineConfig(void* engine, const KivVideoColorEngineConfig* config) {
    KivVideoColorEngine* port = KivPortCast<KivVideoColorEngine>(engine);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetConfig(config);
}

KivResult KIV_CALL KIV_GetVideoColorEngineConfig(void* engine, KivVideoColorEngineConfig* out) {
    KivVideoColorEngine* port = KivPortCast<KivVideoColorEngine>(engine);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->GetConfig(out);
}

KivResult KIV_CALL KIV_LoadVideoColorEngineCubeFile(void* engine, const KivWChar* path) {
    KivVideoColorEngine* port = KivPortCast<KivVideoColorEngine>(engine);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->LoadCubeFile(path);
}

KivResult KIV_CALL KIV_ClearVideoColorEngineLut(void* engine) {
    KivVideoColorEngine* port = KivPortCast<KivVideoColorEngine>(engine);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->ClearLut();
}

}  // extern "C"
