// Native build: there are no windows, so a port given a window handle finds
// it gone at every frame and a port without one only converts.
#include "render_gpu.h"

namespace {

class KivRenderGpuNone : public KivRenderGpu {
public:
    bool WindowAlive() override { return false; }
    int32_t EnsureDevice() override { return KIV_ERROR_INVALID_ARG; }
    int32_t EnsureBackBuffer() override { return KIV_ERROR_INVALID_ARG; }
    int32_t EnsureFrameTextures(int32_t, int32_t, int32_t) override { return KIV_ERROR_FAILED; }
    int32_t Upload(const KivVideoFrame&) override { return KIV_ERROR_FAILED; }
    int32_t DrawAndPresent(const KivRenderDrawSettings&) override { return KIV_ERROR_FAILED; }
    void ReleaseFinalTexture() override {}
    void ReleaseAll() override {}
};

}  // namespace

std::unique_ptr<KivRenderGpu> KivCreateRenderGpu(void*) { return std::make_unique<KivRenderGpuNone>(); }
