// Render port: shows each frame in an application window through Direct3D 11,
// on the thread that delivers it, and passes the frame to the callback.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "ports/kiv_port_base.h"
#include "ports/kiv_work_pool.h"
#include "render_convert.h"
#include "render_gpu.h"
#include "render_stages.h"
#include "render_stored_frame.h"

class KivVideoRender : public KivPortBase {
public:
    // gpu and stages default to the platform's pipeline and to no GPU stages.
    explicit KivVideoRender(void* window, std::unique_ptr<KivRenderGpu> gpu = nullptr,
                            std::unique_ptr<KivRenderStages> stages = nullptr);
    ~KivVideoRender() override;

    int32_t OnVideoFrame(const KivVideoFrame* frame) override;
    int32_t OnAudioFrame(const KivAudioFrame* frame) override;

    int32_t SetConfig(const KivVideoRenderConfig* config);
    int32_t SetInterpolationMode(int32_t mode);
    int32_t SetPipelineMode(int32_t mode);
    int32_t PipelineMode();

    void* Window() const { return window_; }
    uint64_t Drops() const { return drops_.load(); }

    // For the GPU stages and the snapshot: the render lock, the pipeline and
    // the CPU copy of the last drawn frame (read under the render lock).
    std::recursive_mutex& RenderLock() { return renderMutex_; }
    KivRenderGpu& Gpu() { return *gpu_; }
    KivRenderStages& Stages() { return *stages_; }
    const KivRenderStoredFrame& StoredFrame() const { return stored_; }
    // Switches to the GPU pipeline without the log line of the setter's no-op
    // case; used by the GPU features that need it. Render lock held.
    void SetPipelineModeLocked(int32_t mode);

private:
    // The device, back-buffer, texture, upload and draw steps for a frame
    // that has a window; the render lock is held. *callbackAllowed tells
    // whether the frame callback may still run.
    int32_t DrawLocked(const KivVideoFrame& converted, bool* callbackAllowed);

    void* const window_;
    std::recursive_mutex renderMutex_;
    std::atomic<uint64_t> drops_{0};
    std::unique_ptr<KivRenderStages> stages_;
    std::unique_ptr<KivRenderGpu> gpu_;  // destroyed before the stages it points at

    // Written without the render lock, read at the next frame.
    std::atomic<int32_t> targetWidth_{0};
    std::atomic<int32_t> targetHeight_{0};
    std::atomic<int32_t> targetFormat_{0};
    std::atomic<int32_t> pipelineMode_{0};
    int32_t interpolation_ = 2;  // render lock

    // One converter per delivery in flight: the callback reads the converted
    // frame after the render lock is released, while another thread may
    // already convert the next one.
    KivWorkPool<KivRenderConverter> converters_;
    KivRenderStoredFrame stored_;   // render lock
};
