#include "gpu_lut_state.h"

#include <vector>

#include "kiv_log.h"
#include "processing/kiv_wide_path.h"

namespace kiv {

namespace {

constexpr size_t kLogPathBytes = 1024;

KivVideoRenderLutConfig IdleConfig() {
    KivVideoRenderLutConfig config{};
    config.processor = 1;
    config.strength = 1.0f;
    return config;
}

}  // namespace

GpuLutState::GpuLutState() : active_(IdleConfig()) {}

int32_t GpuLutState::QueueConfig(const KivVideoRenderLutConfig& config) {
    if (!(config.strength >= 0.0f && config.strength <= 1.0f)) return KIV_ERROR_INVALID_ARG;
    KivVideoRenderLutConfig stored = config;
    stored.processor = config.processor == 3 ? 3 : 1;
    {
        std::lock_guard<std::mutex> lock(lutMutex_);
        pendingConfig_ = stored;
        configPending_ = true;
    }
    KIV_LOG("Render GPU LUT config queued processor=%d enable=%d strength=%.3f", stored.processor, stored.enable,
            stored.strength);
    return KIV_OK;
}

void GpuLutState::QueueClear() {
    {
        std::lock_guard<std::mutex> lock(lutMutex_);
        pendingData_.reset();
        pendingPath_.clear();
        cubePending_ = false;
        clearPending_ = true;
    }
    KIV_LOG("Render GPU LUT clear queued");
}

void GpuLutState::ResetToIdle() {
    std::lock_guard<std::mutex> lock(lutMutex_);
    pendingData_.reset();
    pendingPath_.clear();
    cubePending_ = false;
    clearPending_ = true;
    pendingConfig_ = IdleConfig();
    configPending_ = true;
}

int32_t GpuLutState::LoadCubeFile(const KivWChar* path, std::recursive_mutex& renderLock) {
    if (!path || path[0] == 0) return KIV_ERROR_INVALID_ARG;
    const std::string logPath = Utf16ToUtf8Limited(path, kLogPathBytes);
    const LutPath wanted(path);
    {
        std::lock_guard<std::mutex> lock(lutMutex_);
        if (cubePending_ && pendingPath_ == wanted) {
            KIV_LOG("Render GPU LUT cube already pending, reuse path=%s dim=%d", logPath.c_str(),
                    pendingData_ ? pendingData_->dim : 0);
            return KIV_OK;
        }
    }
    // The active table belongs to the render side; when a frame is being
    // drawn this check is skipped and the file read again.
    std::unique_lock<std::recursive_mutex> render(renderLock, std::try_to_lock);
    if (render.owns_lock() && activeData_ && activePath_ == wanted) {
        KIV_LOG("Render GPU LUT cube already loaded, reuse path=%s dim=%d", logPath.c_str(), activeData_->dim);
        return KIV_OK;
    }
    if (render.owns_lock()) render.unlock();

    std::vector<char> text;
    if (!ReadWholeFile(path, &text)) {
        KIV_LOG("Render GPU LUT load cube failed: open file failed path=%s", logPath.c_str());
        return KIV_ERROR_FAILED;
    }
    auto data = std::make_shared<KivRenderLutData>();
    if (!ParseCubeForRender(text.data(), data.get())) {
        KIV_LOG("Render GPU LUT load cube failed: parse error path=%s", logPath.c_str());
        return KIV_ERROR_FAILED;
    }
    const int32_t dim = data->dim;
    std::shared_ptr<const KivRenderLutData> replaced;
    {
        std::lock_guard<std::mutex> lock(lutMutex_);
        replaced = std::move(pendingData_);
        pendingData_ = std::move(data);
        pendingPath_ = wanted;
        cubePending_ = true;
    }
    KIV_LOG("Render GPU LUT cube queued path=%s dim=%d", logPath.c_str(), dim);
    return KIV_OK;
}

bool GpuLutState::ApplyPending() {
    bool clear, cube, config;
    std::shared_ptr<const KivRenderLutData> data;
    LutPath path;
    KivVideoRenderLutConfig newConfig;
    {
        std::lock_guard<std::mutex> lock(lutMutex_);
        clear = clearPending_;
        cube = cubePending_;
        config = configPending_;
        data = std::move(pendingData_);
        path = std::move(pendingPath_);
        newConfig = pendingConfig_;
        pendingPath_.clear();
        clearPending_ = cubePending_ = configPending_ = false;
    }
    if (clear) {
        activeData_.reset();
        activePath_.clear();
        active_.enable = 0;
        KIV_LOG("Render GPU LUT clear applied on render thread");
    }
    if (cube) {
        activeData_ = std::move(data);
        activePath_ = std::move(path);
        KIV_LOG("Render GPU LUT cube applied path=%s dim=%d", Utf16ToUtf8Limited(activePath_.c_str(), kLogPathBytes).c_str(),
                activeData_ ? activeData_->dim : 0);
    }
    if (config) {
        active_ = newConfig;
        KIV_LOG("Render GPU LUT config applied processor=%d enable=%d strength=%.3f", active_.processor,
                active_.enable, active_.strength);
    }
    return clear || cube;
}

bool GpuLutState::Usable() const {
    return active_.enable != 0 && activeData_ && activeData_->dim >= 2 && !activeData_->texels.empty();
}

}  // namespace kiv
