// Exported functions of the window render port.
#include "../core/kiv_state.h"
#include "../render/kiv_video_render.h"
#include "../render/render_gpu_stages.h"

extern "C" {

void* KIV_CALL KIV_CreateVideoRender(void* window) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivVideoRender(window, nullptr, KivCreateRenderGpuStages()));
}

KivResult KIV_CALL KIV_SetVideoRenderConfig(void* render, const KivVideoRenderConfig* config) {
    KivVideoRender* port = KivPortCast<KivVideoRender>(render);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetConfig(config);
}

KivResult KIV_CALL KIV_SetVideoRenderInterpolationMode(void* render, int32_t mode) {
    KivVideoRender* port = KivPortCast<KivVideoRender>(render);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetInterpolationMode(mode);
}

KivResult KIV_CALL KIV_SetVideoRenderPipelineMode(void* render, int32_t mode) {
    KivVideoRender* port = KivPortCast<KivVideoRender>(render);
    if (!port) return KIV_ERROR_INVALID_ARG;
    return port->SetPipelineMode(mode);
}

int32_t KIV_CALL KIV_GetVideoRenderPipelineMode(void* render) {
    KivVideoRender* port = KivPortCast<KivVideoRender>(render);
    return port ? port->PipelineMode() : 0;
}

}  // extern "C"
