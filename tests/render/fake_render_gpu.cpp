#include "fake_render_gpu.h"

namespace rendertest {

bool FakeGpu::WindowAlive() {
    std::lock_guard<std::mutex> lock(s_->mutex);
    return s_->windowAlive;
}

int32_t FakeGpu::Step(const char* name) {
    std::lock_guard<std::mutex> lock(s_->mutex);
    s_->steps += name;
    s_->steps += ',';
    return s_->failStep == name ? s_->failCode : KIV_OK;
}

int32_t FakeGpu::DrawAndPresent(const KivRenderDrawSettings& settings) {
    {
        std::unique_lock<std::mutex> lock(s_->mutex);
        s_->lastInterpolation = settings.interpolation;
        s_->drawing = true;
        s_->changed.notify_all();
        s_->changed.wait(lock, [&] { return !s_->holdDraw; });
        s_->drawing = false;
    }
    return Step("draw");
}

void RecordingStages::Add(const char* name) {
    std::lock_guard<std::mutex> lock(s_->mutex);
    s_->steps += name;
    s_->steps += ',';
}

}  // namespace rendertest
