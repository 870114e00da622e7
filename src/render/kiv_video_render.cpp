#include "kiv_video_render.h"

#include "kiv_log.h"
#include "kiv_state.h"

KivVideoRender::KivVideoRender(void* window, std::unique_ptr<KivRenderGpu> gpu,
                               std::unique_ptr<KivRenderStages> stages)
    : KivPortBase(KIV_PORT_VIDEO_RENDER),
      window_(window),
      stages_(stages ? std::move(stages) : std::make_unique<KivRenderStages>()),
      gpu_(gpu ? std::move(gpu) : KivCreateRenderGpu(window)) {
    gpu_->SetStages(stages_.get());
    pipelineMode_.store(kiv::DefaultPipelineMode() == 1 ? 1 : 0);
    KIV_LOG("VideoRender created pipelineMode=%d", pipelineMode_.load());
}

KivVideoRender::~KivVideoRender() {
    std::lock_guard<std::recursive_mutex> lock(renderMutex_);
    gpu_->ReleaseAll();
}

int32_t KivVideoRender::SetConfig(const KivVideoRenderConfig* config) {
    if (!config || config->targetWidth < 0 || config->targetHeight < 0) return KIV_ERROR_INVALID_ARG;
    targetWidth_.store(config->targetWidth);
    targetHeight_.store(config->targetHeight);
    targetFormat_.store(config->targetFormat);
    KIV_LOG("Set video render config target=%dx%d fmt=%d", config->targetWidth, config->targetHeight,
            config->targetFormat);
    return KIV_OK;
}

int32_t KivVideoRender::SetInterpolationMode(int32_t mode) {
    if (mode < 0 || mode > 2) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::recursive_mutex> lock(renderMutex_);
    interpolation_ = mode;
    KIV_LOG("Set video render interpolation mode=%d", mode);
    return KIV_OK;
}

int32_t KivVideoRender::SetPipelineMode(int32_t mode) {
    if (mode != 0 && mode != 1) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::recursive_mutex> lock(renderMutex_);
    if (pipelineMode_.load() == mode) return KIV_OK;
    SetPipelineModeLocked(mode);
    KIV_LOG("Set video render pipeline mode=%d", mode);
    return KIV_OK;
}

void KivVideoRender::SetPipelineModeLocked(int32_t mode) {
    if (pipelineMode_.exchange(mode) == mode || mode != 0) return;
    // The CPU pipeline has no GPU stages: stop and drop them all.
    stages_->TearDownForCpuPipeline(*gpu_);
    gpu_->ReleaseFinalTexture();
}

int32_t KivVideoRender::PipelineMode() { return pipelineMode_.load(); }

int32_t KivVideoRender::OnAudioFrame(const KivAudioFrame* frame) {
    std::lock_guard<std::recursive_mutex> lock(renderMutex_);
    if (pipelineMode_.load() != 1 || !frame) return KIV_OK;
    return stages_->WriteAudio(*frame);
}

int32_t KivVideoRender::OnVideoFrame(const KivVideoFrame* frame) {
    if (!frame || frame->width < 1 || frame->height < 1) return KIV_ERROR_INVALID_ARG;
    std::unique_lock<std::recursive_mutex> lock(renderMutex_, std::try_to_lock);
    if (!lock.owns_lock()) {
        const uint64_t drops = drops_.fetch_add(1) + 1;
        if (drops == 1 || drops % 120 == 0) {
            KIV_LOG("Video render busy, drop frame render=%p hwnd=%p drops=%llu", static_cast<void*>(this), window_,
                    static_cast<unsigned long long>(drops));
        }
        return KIV_OK;
    }
    stages_->ApplyPending(*gpu_);

    const KivVideoRenderConfig config{targetWidth_.load(), targetHeight_.load(), targetFormat_.load()};
    KivWorkPool<KivRenderConverter>::Lease converter = converters_.Acquire();
    if (!converter) return KIV_OK;  // no memory for a conversion: the frame is dropped
    KivVideoFrame converted;
    const int32_t convertResult = converter->Convert(*frame, config, &converted);
    if (convertResult != KIV_OK) return convertResult;

    bool callbackAllowed = true;
    int32_t result = KIV_OK;
    if (window_) result = DrawLocked(converted, &callbackAllowed);
    lock.unlock();
    if (callbackAllowed) EmitVideo(&converted);
    return result;
}

int32_t KivVideoRender::DrawLocked(const KivVideoFrame& converted, bool* callbackAllowed) {
    *callbackAllowed = false;
    if (!gpu_->WindowAlive()) return KIV_ERROR_INVALID_ARG;
    int32_t result = gpu_->EnsureDevice();
    if (result == KIV_OK) result = gpu_->EnsureBackBuffer();
    if (result == KIV_OK) result = gpu_->EnsureFrameTextures(converted.width, converted.height, converted.format);
    if (result == KIV_OK) result = gpu_->Upload(converted);
    if (result != KIV_OK) return result;
    stored_.Store(converted);
    *callbackAllowed = true;
    KivRenderDrawSettings settings;
    settings.interpolation = interpolation_;
    settings.pipelineMode = pipelineMode_.load();
    return gpu_->DrawAndPresent(settings);
}
