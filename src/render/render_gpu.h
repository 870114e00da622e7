// The narrow seam between the render port and Direct3D 11. The port runs the
// frame steps in order under its lock; the Windows build implements them with
// Direct3D (render_d3d11_win.cpp), the native build has no windows at all.
#pragma once
#include <cstdint>
#include <memory>

#include "kivcapture.h"
#include "render_params.h"

class KivRenderStages;

// What a draw needs beyond the uploaded frame.
struct KivRenderDrawSettings {
    int32_t interpolation = 2;  // 0 bilinear, 1 nearest, 2 automatic
    int32_t pipelineMode = 0;   // 1 enables the GPU stages
};

class KivRenderGpu {
public:
    virtual ~KivRenderGpu() = default;
    // Whether the port's window is still a window.
    virtual bool WindowAlive() = 0;
    // Each step returns 0 or the failure code (-1, -2, -4) and logs its failure.
    virtual int32_t EnsureDevice() = 0;
    virtual int32_t EnsureBackBuffer() = 0;
    virtual int32_t EnsureFrameTextures(int32_t width, int32_t height, int32_t format) = 0;
    virtual int32_t Upload(const KivVideoFrame& frame) = 0;
    virtual int32_t DrawAndPresent(const KivRenderDrawSettings& settings) = 0;
    // The final texture (the frame at its own size, for snapshots and the GPU
    // recorder) is dropped when the port leaves the GPU pipeline.
    virtual void ReleaseFinalTexture() = 0;
    // Drops every Direct3D object; the next frame rebuilds from scratch.
    virtual void ReleaseAll() = 0;

    // The port's GPU stages; never null once the port is built.
    void SetStages(KivRenderStages* stages) { stages_ = stages; }

protected:
    KivRenderStages* stages_ = nullptr;
};

// The platform's pipeline for a window handle (which may be null).
std::unique_ptr<KivRenderGpu> KivCreateRenderGpu(void* window);
