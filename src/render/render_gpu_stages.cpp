#include "render_gpu_stages.h"

#include "kiv_log.h"
#include "kiv_video_render.h"
#include "render_convert.h"
#include "snapshot_image.h"

using kiv::GpuOsdCommand;

std::unique_ptr<KivRenderStages> KivCreateRenderGpuStages() { return std::make_unique<KivRenderGpuStages>(); }

int32_t KivRenderGpuStages::SetLutConfig(KivVideoRender& port, const KivVideoRenderLutConfig* config) {
    if (!config) return KIV_ERROR_INVALID_ARG;
    if (config->enable != 0 && config->strength >= 0.0f && config->strength <= 1.0f) {
        // The LUT lives in the GPU pipeline.
        std::lock_guard<std::recursive_mutex> render(port.RenderLock());
        port.SetPipelineModeLocked(1);
    }
    const int32_t result = lut_.QueueConfig(*config);
    if (result != KIV_OK) return result;
    std::unique_lock<std::recursive_mutex> render(port.RenderLock(), std::try_to_lock);
    if (render.owns_lock()) ApplyPending(port.Gpu());
    return KIV_OK;
}

int32_t KivRenderGpuStages::LoadCubeFile(KivVideoRender& port, const KivWChar* path) {
    return lut_.LoadCubeFile(path, port.RenderLock());
}

int32_t KivRenderGpuStages::ClearLut(KivVideoRender& port) {
    lut_.QueueClear();
    std::unique_lock<std::recursive_mutex> render(port.RenderLock(), std::try_to_lock);
    if (render.owns_lock()) ApplyPending(port.Gpu());
    return KIV_OK;
}

void KivRenderGpuStages::QueueOsd(GpuOsdCommand command) { osdQueue_.Push(std::move(command)); }

int32_t KivRenderGpuStages::AddOsdItem(KivVideoRender& port, const KivVideoOsdItem* record, int32_t kind) {
    if (!record) return KIV_ERROR_INVALID_ARG;
    {
        std::lock_guard<std::recursive_mutex> render(port.RenderLock());
        port.SetPipelineModeLocked(1);
    }
    GpuOsdCommand command;
    command.kind = kind;  // add text, image and rect share the item kinds' numbers
    command.id = record->id;
    command.item = kiv::GpuOsdItemFromRecord(*record, kind);
    QueueOsd(std::move(command));
    static const char* const kNames[] = {"", "text", "image", "rect"};
    KIV_LOG("GPU OSD add %s queued id=%d", kNames[kind], record->id);
    return KIV_OK;
}

int32_t KivRenderGpuStages::UpdateOsdText(KivVideoRender& port, int32_t id, const KivWChar* text) {
    {
        std::lock_guard<std::recursive_mutex> render(port.RenderLock());
        port.SetPipelineModeLocked(1);
    }
    GpuOsdCommand command;
    command.kind = kiv::kGpuOsdUpdateText;
    command.id = id;
    if (text) command.item.text = text;
    QueueOsd(std::move(command));
    KIV_LOG("GPU OSD update text queued id=%d", id);
    return KIV_OK;
}

int32_t KivRenderGpuStages::RemoveOsdItem(KivVideoRender& port, int32_t id) {
    {
        std::lock_guard<std::recursive_mutex> render(port.RenderLock());
        port.SetPipelineModeLocked(1);
    }
    GpuOsdCommand command;
    command.kind = kiv::kGpuOsdRemove;
    command.id = id;
    QueueOsd(std::move(command));
    KIV_LOG("GPU OSD remove queued id=%d", id);
    return KIV_OK;
}

int32_t KivRenderGpuStages::ClearOsd() {
    GpuOsdCommand command;
    command.kind = kiv::kGpuOsdClear;
    QueueOsd(std::move(command));
    KIV_LOG("GPU OSD clear queued");
    return KIV_OK;
}

bool KivRenderGpuStages::ApplyOsdCommands() {
    osdQueue_.TakeAll(&takenCommands_);
    if (takenCommands_.empty()) return false;
    if (!kiv::ApplyGpuOsdCommands(takenCommands_, &items_)) return false;
    ++itemsVersion_;
    KIV_LOG("GPU OSD pending commands applied count=%d items=%d", static_cast<int>(takenCommands_.size()),
            static_cast<int>(items_.size()));
    return true;
}

int32_t KivRenderGpuStages::StartRecord(KivVideoRender& port, const KivGpuRecordConfig* request) {
    if (!request || request->file[0] == 0) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::recursive_mutex> render(port.RenderLock());
    port.SetPipelineModeLocked(1);
    return recorder_.Arm(*request);
}

int32_t KivRenderGpuStages::StopRecord(KivVideoRender& port) {
    std::lock_guard<std::recursive_mutex> render(port.RenderLock());
    recorder_.Stop();
    KIV_LOG("GPU FinalFrame recorder stopped");
    return KIV_OK;
}

void KivRenderGpuStages::ApplyPending(KivRenderGpu&) {
    if (lut_.ApplyPending()) ReleaseLutTexture();
}

void KivRenderGpuStages::TearDownForCpuPipeline(KivRenderGpu& gpu) {
    recorder_.Stop();
    lut_.ResetToIdle();
    ApplyPending(gpu);
    osdQueue_.Clear();
    items_.clear();
    ++itemsVersion_;
    ReleaseOverlayObjects();
}

int32_t KivRenderGpuStages::WriteAudio(const KivAudioFrame& frame) { return recorder_.WriteAudio(frame); }

KivRenderColorSettings KivRenderGpuStages::ColorSettings() {
    const KivVideoRenderLutConfig& c = lut_.ActiveConfig();
    KivRenderColorSettings settings;
    settings.colorSpace = c.cs;
    settings.colorRange = c.range;
    settings.strength = c.strength;
    return settings;
}

int32_t KivRenderGpuStages::SaveSnapshot(KivVideoRender& port, const KivWChar* path, int32_t format) {
    std::lock_guard<std::recursive_mutex> render(port.RenderLock());
    if (!path || path[0] == 0 || (format != kiv::kSnapshotBmp && format != kiv::kSnapshotJpeg)) {
        return KIV_ERROR_INVALID_ARG;
    }
    if (port.PipelineMode() == 1 && lut_.Usable() && FinalFrameAvailable(port.Gpu())) {
        int32_t width = 0, height = 0;
        int32_t result = ReadFinalFrame(port.Gpu(), &snapshotPixels_, &width, &height);
        if (result == KIV_OK) {
            KIV_LOG("Snapshot uses GPU FinalFrame size=%dx%d", width, height);
            result = kiv::SaveSnapshotImage(path, format, snapshotPixels_.data(), width, height, width * 4);
            if (result == KIV_OK) return KIV_OK;
        }
        KIV_LOG("Snapshot GPU FinalFrame failed, fallback to CPU stored frame result=%d", result);
    }
    const KivRenderStoredFrame& stored = port.StoredFrame();
    if (stored.Empty()) {
        KIV_LOG("Snapshot failed: no rendered frame is available");
        return KIV_ERROR_FAILED;
    }
    const int32_t converted = KivRenderExpandToBgra(stored.View(), &snapshotPixels_);
    if (converted != KIV_OK) {
        KIV_LOG("Snapshot failed: format conversion failed fmt=%d result=%d", stored.format, converted);
        return converted;
    }
    return kiv::SaveSnapshotImage(path, format, snapshotPixels_.data(), stored.width, stored.height, stored.width * 4);
}
