// Exported functions of the render port's GPU stages: LUT, overlay,
// snapshots and the final-frame recorder.
#include "../render/kiv_video_render.h"
#include "../render/render_gpu_stages.h"

namespace {

// The port and its GPU stages, or null for a handle of another class.
KivRenderGpuStages* StagesOf(void* handle, KivVideoRender** port) {
    *port = KivPortCast<KivVideoRender>(handle);
    return *port ? dynamic_cast<KivRenderGpuStages*>(&(*port)->Stages()) : nullptr;
}

// Runs a request on the port's GPU stages; -2 for a handle of another class.
template <class Request>
KivResult OnStages(void* handle, Request request) {
    KivVideoRender* port = nullptr;
    KivRenderGpuStages* stages = StagesOf(handle, &port);
    return stages ? request(*stages, *port) : KIV_ERROR_INVALID_ARG;
}

}  // namespace

extern "C" {

KivResult KIV_CALL KIV_SetVideoRenderLutConfig(void* render, const KivVideoRenderLutConfig* config) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.SetLutConfig(port, config); });
}

KivResult KIV_CALL KIV_LoadVideoRenderCubeFile(void* render, const KivWChar* path) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.LoadCubeFile(port, path); });
}

KivResult KIV_CALL KIV_ClearVideoRenderLut(void* render) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.ClearLut(port); });
}

KivResult KIV_CALL KIV_SaveVideoRenderSnapshot(void* render, const KivWChar* path, int32_t option) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.SaveSnapshot(port, path, option); });
}

KivResult KIV_CALL KIV_AddVideoRenderGpuOsdText(void* render, const KivVideoOsdItem* item) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.AddOsdItem(port, item, kiv::kOsdText); });
}

KivResult KIV_CALL KIV_AddVideoRenderGpuOsdImage(void* render, const KivVideoOsdItem* item) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.AddOsdItem(port, item, kiv::kOsdPicture); });
}

KivResult KIV_CALL KIV_AddVideoRenderGpuOsdRect(void* render, const KivVideoOsdItem* item) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.AddOsdItem(port, item, kiv::kOsdRect); });
}

KivResult KIV_CALL KIV_UpdateVideoRenderGpuOsdText(void* render, int32_t id, const KivWChar* text) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.UpdateOsdText(port, id, text); });
}

KivResult KIV_CALL KIV_RemoveVideoRenderGpuOsdItem(void* render, int32_t id) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.RemoveOsdItem(port, id); });
}

KivResult KIV_CALL KIV_ClearVideoRenderGpuOsd(void* render) {
    return OnStages(render, [](KivRenderGpuStages& stages, KivVideoRender&) { return stages.ClearOsd(); });
}

KivResult KIV_CALL KIV_StartVideoRenderGpuRecord(void* render, const KivGpuRecordConfig* request) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.StartRecord(port, request); });
}

KivResult KIV_CALL KIV_StopVideoRenderGpuRecord(void* render) {
    return OnStages(render, [&](KivRenderGpuStages& stages, KivVideoRender& port) { return stages.StopRecord(port); });
}

int32_t KIV_CALL KIV_IsVideoRenderGpuRecording(void* render) {
    KivVideoRender* port = nullptr;
    KivRenderGpuStages* stages = StagesOf(render, &port);
    return stages && stages->Recording() ? 1 : 0;
}

}  // extern "C"
