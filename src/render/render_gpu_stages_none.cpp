// Native build: no Direct3D, so the GPU stages keep their queues and rules
// but have no textures to make, no overlay to draw and no final frame.
#include "render_gpu_stages.h"

struct KivRenderGpuStages::D3DObjects {};

KivRenderGpuStages::KivRenderGpuStages(kiv::GpuRecordSinkFactory recordSinks) : recorder_(std::move(recordSinks)) {}
KivRenderGpuStages::~KivRenderGpuStages() = default;

ID3D11ShaderResourceView* KivRenderGpuStages::PrepareLut(KivD3D11Pipeline&, KivRenderParams*) { return nullptr; }
void KivRenderGpuStages::DrawOverlay(KivD3D11Pipeline&, ID3D11RenderTargetView*, int32_t, int32_t) {}
void KivRenderGpuStages::SubmitFinalTexture(KivD3D11Pipeline&) {}
void KivRenderGpuStages::ReleaseGpuObjects() {}
void KivRenderGpuStages::ReleaseLutTexture() {}
void KivRenderGpuStages::ReleaseOverlayObjects() {}
bool KivRenderGpuStages::FinalFrameAvailable(KivRenderGpu&) { return false; }
int32_t KivRenderGpuStages::ReadFinalFrame(KivRenderGpu&, std::vector<uint8_t>*, int32_t*, int32_t*) {
    return KIV_ERROR_FAILED;
}
