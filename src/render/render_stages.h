// Hook points through which the render port's GPU stages (colour LUT,
// overlay, final-frame recorder) take part in a frame. The base class is the
// port without any of them: no LUT, no overlay, no recording.
#pragma once
#include <cstdint>

#include "kivcapture.h"
#include "render_params.h"

class KivD3D11Pipeline;  // Windows only (render_d3d11_win.h)
class KivRenderGpu;
struct ID3D11RenderTargetView;
struct ID3D11ShaderResourceView;

class KivRenderStages {
public:
    virtual ~KivRenderStages() = default;

    // --- port side, render lock held ---
    // Requests queued from other threads (LUT changes, overlay commands) are
    // applied here at the start of every frame.
    virtual void ApplyPending(KivRenderGpu& /*gpu*/) {}
    // The port leaves the GPU pipeline: stop the recorder, reset and apply the
    // LUT, drop overlay commands, items and resources. The port releases the
    // final texture itself afterwards.
    virtual void TearDownForCpuPipeline(KivRenderGpu& /*gpu*/) {}
    // The audio slot in pipeline mode 1 (the GPU recorder's audio track).
    virtual int32_t WriteAudio(const KivAudioFrame& /*frame*/) { return KIV_OK; }

    // --- draw side, render lock held ---
    // Colour space, range and LUT strength of the active LUT configuration.
    virtual KivRenderColorSettings ColorSettings() { return {}; }
    // LUT enabled with data of dimension >= 2: the final texture is then
    // rendered on every frame.
    virtual bool LutActive() { return false; }
    virtual bool RecorderArmed() { return false; }
    // Fills the LUT fields of Params (lutEnable, lutDim, domain) and returns
    // the view to bind at t2, or null to draw without the LUT.
    virtual ID3D11ShaderResourceView* PrepareLut(KivD3D11Pipeline& /*pipeline*/, KivRenderParams* /*params*/) {
        return nullptr;
    }
    // Draws the overlay over a target of the given size.
    virtual void DrawOverlay(KivD3D11Pipeline& /*pipeline*/, ID3D11RenderTargetView* /*target*/, int32_t /*width*/,
                             int32_t /*height*/) {}
    // Hands the final texture to the recorder; does nothing unless armed.
    virtual void SubmitFinalTexture(KivD3D11Pipeline& /*pipeline*/) {}
    // Called by release-everything: the stages drop their Direct3D objects.
    virtual void ReleaseGpuObjects() {}
};
