// The Direct3D halves of the render port's GPU stages: the LUT as a 3D
// texture, the overlay canvas drawn with its own shader and blend state, the
// final texture handed to the recorder and read back for snapshots.
#include <d3dcompiler.h>

#include <cstring>

#include "gpu_osd_canvas.h"
#include "kiv_log.h"
#include "render_d3d11_win.h"
#include "render_gpu_stages.h"

namespace {

unsigned Hr(HRESULT hr) { return static_cast<unsigned>(hr); }

const char kOverlayPixelShader[] = R"(
Texture2D osdTex : register(t0);
SamplerState sam0 : register(s0);
struct VSOUT {
    float4 pos : SV_POSITION;
    float2 uv : TEXCOORD0;
};
float4 main(VSOUT i) : SV_TARGET {
    return osdTex.Sample(sam0, i.uv);
}
)";

// One composed canvas and its texture per target size (window and final
// texture differ), so neither recomposes every frame.
struct OverlayCanvas {
    int32_t width = 0, height = 0;
    uint64_t version = 0;  // item-list version it was composed from
    kiv::GpuOsdBitmap bitmap;
    ID3D11Texture2D* texture = nullptr;
    ID3D11ShaderResourceView* view = nullptr;
};
constexpr size_t kMaxCanvases = 4;

}  // namespace

struct KivRenderGpuStages::D3DObjects {
    ID3D11Texture3D* lutTexture = nullptr;
    ID3D11ShaderResourceView* lutView = nullptr;
    int32_t lutDim = 0;
    ID3D11PixelShader* overlayShader = nullptr;
    ID3D11BlendState* blend = nullptr;
    std::vector<OverlayCanvas> canvases;
    std::unique_ptr<kiv::GpuOsdRasterizer> rasterizer;
    bool rasterizerMade = false;
};

KivRenderGpuStages::KivRenderGpuStages(kiv::GpuRecordSinkFactory recordSinks)
    : recorder_(std::move(recordSinks)), d3d_(std::make_unique<D3DObjects>()) {}

KivRenderGpuStages::~KivRenderGpuStages() {
    recorder_.Stop();
    ReleaseGpuObjects();
}

void KivRenderGpuStages::ReleaseLutTexture() {
    KivRelease(d3d_->lutView);
    KivRelease(d3d_->lutTexture);
    d3d_->lutDim = 0;
}

void KivRenderGpuStages::ReleaseOverlayObjects() {
    for (OverlayCanvas& canvas : d3d_->canvases) {
        KivRelease(canvas.view);
        KivRelease(canvas.texture);
    }
    d3d_->canvases.clear();
    KivRelease(d3d_->blend);
    KivRelease(d3d_->overlayShader);
}

void KivRenderGpuStages::ReleaseGpuObjects() {
    ReleaseLutTexture();
    ReleaseOverlayObjects();
}

ID3D11ShaderResourceView* KivRenderGpuStages::PrepareLut(KivD3D11Pipeline& pipeline, KivRenderParams* params) {
    if (!lut_.Usable() || !pipeline.device) return nullptr;
    const KivRenderLutData& data = *lut_.ActiveData();
    D3DObjects& d = *d3d_;
    if (!d.lutTexture || !d.lutView || d.lutDim != data.dim) {
        ReleaseLutTexture();
        const UINT n = static_cast<UINT>(data.dim);
        D3D11_TEXTURE3D_DESC desc{};
        desc.Width = desc.Height = desc.Depth = n;
        desc.MipLevels = 1;
        desc.Format = DXGI_FORMAT_R16G16B16A16_UNORM;
        desc.Usage = D3D11_USAGE_DEFAULT;
        desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
        D3D11_SUBRESOURCE_DATA init{data.texels.data(), n * 8, n * n * 8};
        HRESULT hr = pipeline.device->CreateTexture3D(&desc, &init, &d.lutTexture);
        if (FAILED(hr)) {
            KIV_LOG("CreateTexture3D LUT failed hr=0x%08X dim=%d", Hr(hr), data.dim);
            return nullptr;
        }
        D3D11_SHADER_RESOURCE_VIEW_DESC view{};
        view.Format = desc.Format;
        view.ViewDimension = D3D11_SRV_DIMENSION_TEXTURE3D;
        view.Texture3D.MipLevels = 1;
        hr = pipeline.device->CreateShaderResourceView(d.lutTexture, &view, &d.lutView);
        if (FAILED(hr)) {
            KIV_LOG("CreateShaderResourceView LUT failed hr=0x%08X", Hr(hr));
            ReleaseLutTexture();
            return nullptr;
        }
        d.lutDim = data.dim;
        KIV_LOG("D3D Texture3D LUT created dim=%d", data.dim);
    }
    params->lutEnable = 1;
    params->lutDim = d.lutDim;
    std::memcpy(params->domainMin, data.domainMin, sizeof(params->domainMin));
    std::memcpy(params->domainMax, data.domainMax, sizeof(params->domainMax));
    return d.lutView;
}

namespace {

bool EnsureOverlayPipeline(ID3D11Device* device, ID3D11PixelShader** shader, ID3D11BlendState** blend) {
    if (!*shader) {
        ID3DBlob* code = nullptr;
        ID3DBlob* errors = nullptr;
        HRESULT hr = D3DCompile(kOverlayPixelShader, std::strlen(kOverlayPixelShader), nullptr, nullptr, nullptr,
                                "main", "ps_4_0", 0, 0, &code, &errors);
        if (FAILED(hr) || !code) {
            KIV_LOG("GPU OSD shader compile failed: %s",
                    errors ? static_cast<const char*>(errors->GetBufferPointer()) : "");
            KivRelease(errors);
            KivRelease(code);
            return false;
        }
        KivRelease(errors);
        hr = device->CreatePixelShader(code->GetBufferPointer(), code->GetBufferSize(), nullptr, shader);
        KivRelease(code);
        if (FAILED(hr)) {
            KIV_LOG("GPU OSD CreatePixelShader failed hr=0x%08X", Hr(hr));
            return false;
        }
    }
    if (!*blend) {
        D3D11_BLEND_DESC desc{};
        D3D11_RENDER_TARGET_BLEND_DESC& rt = desc.RenderTarget[0];
        rt.BlendEnable = TRUE;
        rt.SrcBlend = D3D11_BLEND_SRC_ALPHA;
        rt.DestBlend = D3D11_BLEND_INV_SRC_ALPHA;
        rt.BlendOp = D3D11_BLEND_OP_ADD;
        rt.SrcBlendAlpha = D3D11_BLEND_ONE;
        rt.DestBlendAlpha = D3D11_BLEND_INV_SRC_ALPHA;
        rt.BlendOpAlpha = D3D11_BLEND_OP_ADD;
        rt.RenderTargetWriteMask = D3D11_COLOR_WRITE_ENABLE_ALL;
        const HRESULT hr = device->CreateBlendState(&desc, blend);
        if (FAILED(hr)) {
            KIV_LOG("GPU OSD CreateBlendState failed hr=0x%08X", Hr(hr));
            return false;
        }
    }
    return true;
}

// The canvas texture for this size, made when missing.
bool EnsureCanvasTexture(ID3D11Device* device, OverlayCanvas* canvas) {
    if (canvas->texture && canvas->view) return true;
    D3D11_TEXTURE2D_DESC desc{};
    desc.Width = static_cast<UINT>(canvas->width);
    desc.Height = static_cast<UINT>(canvas->height);
    desc.MipLevels = desc.ArraySize = 1;
    desc.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    desc.SampleDesc.Count = 1;
    desc.Usage = D3D11_USAGE_DEFAULT;
    desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
    HRESULT hr = device->CreateTexture2D(&desc, nullptr, &canvas->texture);
    if (SUCCEEDED(hr)) hr = device->CreateShaderResourceView(canvas->texture, nullptr, &canvas->view);
    if (FAILED(hr)) {
        KIV_LOG("GPU OSD texture create failed hr=0x%08X size=%dx%d", Hr(hr), canvas->width, canvas->height);
        KivRelease(canvas->view);
        KivRelease(canvas->texture);
        return false;
    }
    canvas->version = 0;  // a new texture needs an upload
    return true;
}

}  // namespace

void KivRenderGpuStages::DrawOverlay(KivD3D11Pipeline& pipeline, ID3D11RenderTargetView* target, int32_t width,
                                     int32_t height) {
    ApplyOsdCommands();
    D3DObjects& d = *d3d_;
    if (items_.empty() || !pipeline.device || !pipeline.context || !target || width < 1 || height < 1) return;
    if (!EnsureOverlayPipeline(pipeline.device, &d.overlayShader, &d.blend)) return;

    OverlayCanvas* canvas = nullptr;
    for (OverlayCanvas& c : d.canvases) {
        if (c.width == width && c.height == height) canvas = &c;
    }
    if (!canvas) {
        if (d.canvases.size() >= kMaxCanvases) {
            KivRelease(d.canvases.front().view);
            KivRelease(d.canvases.front().texture);
            d.canvases.erase(d.canvases.begin());
        }
        d.canvases.emplace_back();
        canvas = &d.canvases.back();
        canvas->width = width;
        canvas->height = height;
    }
    if (!EnsureCanvasTexture(pipeline.device, canvas)) return;
    if (canvas->version != itemsVersion_) {
        if (!d.rasterizerMade) {
            d.rasterizer = kiv::CreateGpuOsdRasterizer();
            d.rasterizerMade = true;
        }
        kiv::ComposeGpuOsdCanvas(items_, width, height, d.rasterizer.get(), &canvas->bitmap);
        pipeline.context->UpdateSubresource(canvas->texture, 0, nullptr, canvas->bitmap.pixels.data(),
                                            static_cast<UINT>(width) * 4, 0);
        canvas->version = itemsVersion_;
    }

    ID3D11DeviceContext* ctx = pipeline.context;
    ctx->OMSetRenderTargets(1, &target, nullptr);
    D3D11_VIEWPORT vp{0.0f, 0.0f, static_cast<FLOAT>(width), static_cast<FLOAT>(height), 0.0f, 1.0f};
    ctx->RSSetViewports(1, &vp);
    ctx->IASetInputLayout(nullptr);
    ctx->IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    ctx->VSSetShader(pipeline.vertexShader, nullptr, 0);
    ctx->PSSetShader(d.overlayShader, nullptr, 0);
    ctx->PSSetShaderResources(0, 1, &canvas->view);
    ctx->PSSetSamplers(0, 1, &pipeline.linearSampler);
    const FLOAT factor[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    ctx->OMSetBlendState(d.blend, factor, 0xFFFFFFFFu);
    ctx->Draw(4, 0);
    ID3D11ShaderResourceView* none = nullptr;
    ctx->PSSetShaderResources(0, 1, &none);
    ctx->OMSetBlendState(nullptr, factor, 0xFFFFFFFFu);
}

void KivRenderGpuStages::SubmitFinalTexture(KivD3D11Pipeline& pipeline) {
    if (!recorder_.Armed() || !pipeline.finalTexture) return;
    recorder_.SubmitFrame(pipeline.device, pipeline.finalTexture, pipeline.finalWidth, pipeline.finalHeight);
}

bool KivRenderGpuStages::FinalFrameAvailable(KivRenderGpu& gpu) {
    auto* pipeline = dynamic_cast<KivD3D11Pipeline*>(&gpu);
    return pipeline && pipeline->finalTexture && pipeline->finalWidth > 0 && pipeline->finalHeight > 0;
}

int32_t KivRenderGpuStages::ReadFinalFrame(KivRenderGpu& gpu, std::vector<uint8_t>* bgra, int32_t* width,
                                           int32_t* height) {
    auto* pipeline = dynamic_cast<KivD3D11Pipeline*>(&gpu);
    if (!pipeline || !pipeline->finalTexture || !pipeline->device || !pipeline->context) return KIV_ERROR_FAILED;
    D3D11_TEXTURE2D_DESC desc{};
    pipeline->finalTexture->GetDesc(&desc);
    desc.Usage = D3D11_USAGE_STAGING;
    desc.BindFlags = 0;
    desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
    desc.MiscFlags = 0;
    ID3D11Texture2D* staging = nullptr;
    HRESULT hr = pipeline->device->CreateTexture2D(&desc, nullptr, &staging);
    if (FAILED(hr)) {
        KIV_LOG("Snapshot GPU final staging create failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    pipeline->context->CopyResource(staging, pipeline->finalTexture);
    D3D11_MAPPED_SUBRESOURCE mapped{};
    hr = pipeline->context->Map(staging, 0, D3D11_MAP_READ, 0, &mapped);
    if (FAILED(hr)) {
        KIV_LOG("Snapshot GPU final Map failed hr=0x%08X", Hr(hr));
        KivRelease(staging);
        return KIV_ERROR_FAILED;
    }
    const size_t rowBytes = static_cast<size_t>(desc.Width) * 4;
    bgra->resize(rowBytes * desc.Height);
    for (UINT y = 0; y < desc.Height; ++y) {
        std::memcpy(bgra->data() + rowBytes * y, static_cast<const uint8_t*>(mapped.pData) + mapped.RowPitch * y,
                    rowBytes);
    }
    pipeline->context->Unmap(staging, 0);
    KivRelease(staging);
    *width = static_cast<int32_t>(desc.Width);
    *height = static_cast<int32_t>(desc.Height);
    return KIV_OK;
}
