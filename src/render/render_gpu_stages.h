// The render port's GPU stages: the colour LUT, the overlay and the
// final-frame recorder, plus snapshots. Requests come from any thread and are
// queued; the port's frame path applies them under the render lock through
// the KivRenderStages hooks. The Direct3D halves of the hooks live in
// render_gpu_stages_win.cpp.
#pragma once
#include <memory>
#include <vector>

#include "gpu_lut_state.h"
#include "gpu_osd_items.h"
#include "gpu_recorder.h"
#include "render_stages.h"

class KivVideoRender;

class KivRenderGpuStages : public KivRenderStages {
public:
    explicit KivRenderGpuStages(kiv::GpuRecordSinkFactory recordSinks = nullptr);
    ~KivRenderGpuStages() override;

    // --- requests, any thread ---
    int32_t SetLutConfig(KivVideoRender& port, const KivVideoRenderLutConfig* config);
    int32_t LoadCubeFile(KivVideoRender& port, const KivWChar* path);
    int32_t ClearLut(KivVideoRender& port);
    // kind: kOsdText, kOsdPicture or kOsdRect.
    int32_t AddOsdItem(KivVideoRender& port, const KivVideoOsdItem* record, int32_t kind);
    int32_t UpdateOsdText(KivVideoRender& port, int32_t id, const KivWChar* text);
    int32_t RemoveOsdItem(KivVideoRender& port, int32_t id);
    int32_t ClearOsd();
    int32_t StartRecord(KivVideoRender& port, const KivGpuRecordConfig* request);
    int32_t StopRecord(KivVideoRender& port);
    bool Recording() const { return recorder_.Armed(); }
    // Format 1 BMP, 2 JPEG. From the GPU's final texture when the LUT makes
    // it every frame, else from the CPU copy of the last drawn frame.
    int32_t SaveSnapshot(KivVideoRender& port, const KivWChar* path, int32_t format);

    // --- hooks, render lock held ---
    void ApplyPending(KivRenderGpu& gpu) override;
    void TearDownForCpuPipeline(KivRenderGpu& gpu) override;
    int32_t WriteAudio(const KivAudioFrame& frame) override;
    KivRenderColorSettings ColorSettings() override;
    bool LutActive() override { return lut_.Usable(); }
    bool RecorderArmed() override { return recorder_.Armed(); }
    ID3D11ShaderResourceView* PrepareLut(KivD3D11Pipeline& pipeline, KivRenderParams* params) override;
    void DrawOverlay(KivD3D11Pipeline& pipeline, ID3D11RenderTargetView* target, int32_t width,
                     int32_t height) override;
    void SubmitFinalTexture(KivD3D11Pipeline& pipeline) override;
    void ReleaseGpuObjects() override;

    // For tests: the overlay items as the render side holds them.
    const std::vector<kiv::OsdItem>& OsdItems() const { return items_; }

private:
    struct D3DObjects;  // Windows only

    // Applies queued overlay commands; true when the item list changed.
    bool ApplyOsdCommands();
    // Whether the pipeline holds a final texture of some size.
    bool FinalFrameAvailable(KivRenderGpu& gpu);
    // The final texture read back as tight BGRA; 0 or -1 (logged).
    int32_t ReadFinalFrame(KivRenderGpu& gpu, std::vector<uint8_t>* bgra, int32_t* width, int32_t* height);
    void ReleaseLutTexture();
    void ReleaseOverlayObjects();
    void QueueOsd(kiv::GpuOsdCommand command);

    kiv::GpuLutState lut_;
    kiv::GpuOsdCommandQueue osdQueue_;
    std::vector<kiv::GpuOsdCommand> takenCommands_;  // render lock
    std::vector<kiv::OsdItem> items_;                // render lock
    uint64_t itemsVersion_ = 1;                      // render lock; canvases remember theirs
    kiv::GpuRecorder recorder_;
    std::vector<uint8_t> snapshotPixels_;  // render lock
    std::unique_ptr<D3DObjects> d3d_;
};

// The stages every render port made through the exported interface gets.
std::unique_ptr<KivRenderStages> KivCreateRenderGpuStages();
