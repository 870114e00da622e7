#include "render_d3d11_win.h"

#include <d3dcompiler.h>
#include <dxgi.h>

#include <algorithm>
#include <cfloat>
#include <cstring>

#include "kiv_log.h"
#include "render_convert.h"
#include "render_params.h"
#include "render_shaders.h"
#include "render_stages.h"

namespace {

constexpr FLOAT kClearColour[4] = {0.02f, 0.02f, 0.02f, 1.0f};

unsigned Hr(HRESULT hr) { return static_cast<unsigned>(hr); }

// Compiles one shader; the compiler's text goes to the log on failure.
ID3DBlob* Compile(const char* source, const char* target, const char* failureFormat) {
    ID3DBlob* code = nullptr;
    ID3DBlob* errors = nullptr;
    const HRESULT hr =
        D3DCompile(source, std::strlen(source), nullptr, nullptr, nullptr, "main", target, 0, 0, &code, &errors);
    if (FAILED(hr) || !code) {
        const char* text = errors ? static_cast<const char*>(errors->GetBufferPointer()) : "";
        KivLogWrite(__FILE__, __LINE__, failureFormat, text);
        KivRelease(errors);
        KivRelease(code);
        return nullptr;
    }
    KivRelease(errors);
    return code;
}

}  // namespace

std::unique_ptr<KivRenderGpu> KivCreateRenderGpu(void* window) {
    return std::make_unique<KivD3D11Pipeline>(static_cast<HWND>(window));
}

KivD3D11Pipeline::KivD3D11Pipeline(HWND window) : window_(window) {}

KivD3D11Pipeline::~KivD3D11Pipeline() { ReleaseAll(); }

bool KivD3D11Pipeline::WindowAlive() { return window_ && IsWindow(window_); }

bool KivD3D11Pipeline::ClientSize(int32_t* width, int32_t* height) {
    RECT rc{0, 0, 0, 0};
    if (!WindowAlive()) return false;
    GetClientRect(window_, &rc);
    *width = std::max<int32_t>(rc.right - rc.left, 1);
    *height = std::max<int32_t>(rc.bottom - rc.top, 1);
    return true;
}

int32_t KivD3D11Pipeline::EnsureDevice() {
    if (device && context && swapChain_ && vertexShader && pixelShader_ && linearSampler && pointSampler_ &&
        lutSampler_) {
        return KIV_OK;
    }
    int32_t width = 1, height = 1;
    if (!ClientSize(&width, &height)) return KIV_ERROR_INVALID_ARG;
    ReleaseAll();

    DXGI_SWAP_CHAIN_DESC desc{};
    desc.BufferDesc.Width = static_cast<UINT>(width);
    desc.BufferDesc.Height = static_cast<UINT>(height);
    desc.BufferDesc.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    desc.SampleDesc.Count = 1;
    desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
    desc.BufferCount = 2;
    desc.OutputWindow = window_;
    desc.Windowed = TRUE;
    desc.SwapEffect = DXGI_SWAP_EFFECT_DISCARD;
    const D3D_FEATURE_LEVEL levels[] = {D3D_FEATURE_LEVEL_11_0, D3D_FEATURE_LEVEL_10_1, D3D_FEATURE_LEVEL_10_0};
    D3D_FEATURE_LEVEL reached = D3D_FEATURE_LEVEL_10_0;
    HRESULT hr = D3D11CreateDeviceAndSwapChain(
        nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, D3D11_CREATE_DEVICE_BGRA_SUPPORT | D3D11_CREATE_DEVICE_VIDEO_SUPPORT,
        levels, 3, D3D11_SDK_VERSION, &desc, &swapChain_, &device, &reached, &context);
    if (FAILED(hr)) {
        KIV_LOG("D3D11CreateDeviceAndSwapChain failed hr=0x%08X", Hr(hr));
        ReleaseAll();
        return KIV_ERROR_FAILED;
    }
    // The GPU recorder's video processor and sink writer share this device.
    ID3D10Multithread* multithread = nullptr;
    if (SUCCEEDED(device->QueryInterface(IID_PPV_ARGS(&multithread)))) {
        multithread->SetMultithreadProtected(TRUE);
        multithread->Release();
    }
    int32_t result = CompileShaders();
    if (result == KIV_OK) result = CreateSamplersAndBuffers();
    if (result != KIV_OK) {
        ReleaseAll();
        return result;
    }
    KIV_LOG("D3D11 video renderer initialized, featureLevel=0x%X", static_cast<unsigned>(reached));
    return KIV_OK;
}

int32_t KivD3D11Pipeline::CompileShaders() {
    ID3DBlob* vs = Compile(kKivRenderVertexShader, "vs_4_0", "D3D vertex shader compile failed: %s");
    if (!vs) return KIV_ERROR_FAILED;
    ID3DBlob* ps = Compile(kKivRenderPixelShader, "ps_4_0", "D3D pixel shader compile failed: %s");
    if (!ps) {
        vs->Release();
        return KIV_ERROR_FAILED;
    }
    int32_t result = KIV_OK;
    HRESULT hr = device->CreateVertexShader(vs->GetBufferPointer(), vs->GetBufferSize(), nullptr, &vertexShader);
    if (FAILED(hr)) {
        KIV_LOG("CreateVertexShader failed hr=0x%08X", Hr(hr));
        result = KIV_ERROR_FAILED;
    } else {
        hr = device->CreatePixelShader(ps->GetBufferPointer(), ps->GetBufferSize(), nullptr, &pixelShader_);
        if (FAILED(hr)) {
            KIV_LOG("CreatePixelShader failed hr=0x%08X", Hr(hr));
            result = KIV_ERROR_FAILED;
        }
    }
    vs->Release();
    ps->Release();
    return result;
}

int32_t KivD3D11Pipeline::CreateSamplersAndBuffers() {
    D3D11_SAMPLER_DESC sd{};
    sd.AddressU = sd.AddressV = sd.AddressW = D3D11_TEXTURE_ADDRESS_CLAMP;
    sd.ComparisonFunc = D3D11_COMPARISON_NEVER;
    sd.MinLOD = 0;
    sd.MaxLOD = FLT_MAX;
    sd.MaxAnisotropy = 1;
    sd.Filter = D3D11_FILTER_MIN_MAG_MIP_LINEAR;
    HRESULT hr = device->CreateSamplerState(&sd, &linearSampler);
    if (FAILED(hr)) {
        KIV_LOG("Create linear sampler state failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    sd.Filter = D3D11_FILTER_MIN_MAG_MIP_POINT;
    hr = device->CreateSamplerState(&sd, &pointSampler_);
    if (FAILED(hr)) {
        KIV_LOG("Create point sampler state failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    sd.Filter = D3D11_FILTER_MIN_MAG_MIP_LINEAR;
    hr = device->CreateSamplerState(&sd, &lutSampler_);
    if (FAILED(hr)) {
        KIV_LOG("Create LUT sampler state failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    D3D11_BUFFER_DESC bd{};
    bd.ByteWidth = sizeof(KivRenderParams);
    bd.Usage = D3D11_USAGE_DEFAULT;
    bd.BindFlags = D3D11_BIND_CONSTANT_BUFFER;
    hr = device->CreateBuffer(&bd, nullptr, &params_);
    if (SUCCEEDED(hr)) {
        bd.ByteWidth = sizeof(KivRenderFrameSize);
        hr = device->CreateBuffer(&bd, nullptr, &frameSize_);
    }
    if (FAILED(hr)) {
        KIV_LOG("Create render constant buffer failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    return KIV_OK;
}

int32_t KivD3D11Pipeline::EnsureBackBuffer() {
    if (!device || !context || !swapChain_) return KIV_ERROR_FAILED;
    int32_t width = 1, height = 1;
    if (!ClientSize(&width, &height)) return KIV_ERROR_INVALID_ARG;
    if (backTarget_ && width == backWidth_ && height == backHeight_) return KIV_OK;
    KivRelease(backTarget_);
    context->OMSetRenderTargets(0, nullptr, nullptr);
    HRESULT hr = swapChain_->ResizeBuffers(0, static_cast<UINT>(width), static_cast<UINT>(height),
                                           DXGI_FORMAT_UNKNOWN, 0);
    if (FAILED(hr)) {
        KIV_LOG("ResizeBuffers failed hr=0x%08X", Hr(hr));
        ReleaseAll();
        return KIV_ERROR_FAILED;
    }
    ID3D11Texture2D* buffer = nullptr;
    hr = swapChain_->GetBuffer(0, IID_PPV_ARGS(&buffer));
    if (FAILED(hr)) {
        KIV_LOG("GetBuffer failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = device->CreateRenderTargetView(buffer, nullptr, &backTarget_);
    buffer->Release();
    if (FAILED(hr)) {
        KIV_LOG("CreateRenderTargetView failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    backWidth_ = width;
    backHeight_ = height;
    return KIV_OK;
}

void KivD3D11Pipeline::ReleaseFrameTextures() {
    KivRelease(frameView_);
    KivRelease(frameTexture_);
    KivRelease(chromaView_);
    KivRelease(chromaTexture_);
    frameWidth = frameHeight = frameFormat = 0;
}

int32_t KivD3D11Pipeline::EnsureFrameTextures(int32_t width, int32_t height, int32_t format) {
    if (format < KIV_PIXEL_FORMAT_YUY2 || format > KIV_PIXEL_FORMAT_RGB32) {
        KIV_LOG("VideoRender unsupported pixel format=%d", format);
        return KIV_ERROR_UNSUPPORTED;
    }
    const bool nv12 = format == KIV_PIXEL_FORMAT_NV12;
    if (frameTexture_ && frameView_ && width == frameWidth && height == frameHeight && format == frameFormat &&
        (!nv12 || (chromaTexture_ && chromaView_))) {
        return KIV_OK;
    }
    ReleaseFrameTextures();
    if (!device) return KIV_ERROR_FAILED;
    D3D11_TEXTURE2D_DESC td{};
    td.Width = static_cast<UINT>(width);
    td.Height = static_cast<UINT>(height);
    td.MipLevels = 1;
    td.ArraySize = 1;
    td.SampleDesc.Count = 1;
    td.Usage = D3D11_USAGE_DEFAULT;
    td.BindFlags = D3D11_BIND_SHADER_RESOURCE;
    td.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    if (nv12) td.Format = DXGI_FORMAT_R8_UNORM;
    if (format == KIV_PIXEL_FORMAT_YUY2) {
        td.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
        td.Width = static_cast<UINT>((width + 1) / 2);
    }
    HRESULT hr = device->CreateTexture2D(&td, nullptr, &frameTexture_);
    if (FAILED(hr)) {
        KIV_LOG("CreateTexture2D frame failed hr=0x%08X size=%dx%d fmt=%d", Hr(hr), width, height, format);
        return KIV_ERROR_FAILED;
    }
    hr = device->CreateShaderResourceView(frameTexture_, nullptr, &frameView_);
    if (FAILED(hr)) {
        KIV_LOG("CreateShaderResourceView frame failed hr=0x%08X", Hr(hr));
        ReleaseFrameTextures();
        return KIV_ERROR_FAILED;
    }
    if (nv12) {
        td.Format = DXGI_FORMAT_R8G8_UNORM;
        td.Width = static_cast<UINT>((width + 1) / 2);
        td.Height = static_cast<UINT>((height + 1) / 2);
        hr = device->CreateTexture2D(&td, nullptr, &chromaTexture_);
        if (FAILED(hr)) {
            KIV_LOG("CreateTexture2D NV12 UV failed hr=0x%08X size=%dx%d", Hr(hr), static_cast<int>(td.Width),
                    static_cast<int>(td.Height));
            ReleaseFrameTextures();
            return KIV_ERROR_FAILED;
        }
        hr = device->CreateShaderResourceView(chromaTexture_, nullptr, &chromaView_);
        if (FAILED(hr)) {
            KIV_LOG("CreateShaderResourceView NV12 UV failed hr=0x%08X", Hr(hr));
            ReleaseFrameTextures();
            return KIV_ERROR_FAILED;
        }
    }
    frameWidth = width;
    frameHeight = height;
    frameFormat = format;
    KIV_LOG("D3D frame texture created size=%dx%d fmt=%d", width, height, format);
    return KIV_OK;
}

int32_t KivD3D11Pipeline::Upload(const KivVideoFrame& f) {
    if (!context || !frameTexture_) return KIV_ERROR_FAILED;
    const int32_t w = f.width;
    switch (f.format) {
    case KIV_PIXEL_FORMAT_RGB32: {
        const UINT pitch = static_cast<UINT>(f.strides[0] < 1 ? w * 4 : f.strides[0]);
        context->UpdateSubresource(frameTexture_, 0, nullptr, f.planes[0], pitch, 0);
        KivRenderExpandToBgra(f, &bgra_);
        return KIV_OK;
    }
    case KIV_PIXEL_FORMAT_RGB24: {
        const int32_t result = KivRenderExpandToBgra(f, &bgra_);
        if (result != KIV_OK) return result;
        context->UpdateSubresource(frameTexture_, 0, nullptr, bgra_.data(), static_cast<UINT>(w * 4), 0);
        return KIV_OK;
    }
    case KIV_PIXEL_FORMAT_YUY2: {
        const UINT pitch = static_cast<UINT>(f.strides[0] < 1 ? w * 2 : f.strides[0]);
        context->UpdateSubresource(frameTexture_, 0, nullptr, f.planes[0], pitch, 0);
        return KIV_OK;
    }
    case KIV_PIXEL_FORMAT_NV12: {
        if (!chromaTexture_) return KIV_ERROR_FAILED;
        const int32_t lumaStride = f.strides[0] < 1 ? w : f.strides[0];
        const int32_t chromaStride = f.strides[1] < 1 ? w : f.strides[1];
        const uint8_t* chroma = f.planes[1] ? f.planes[1] : f.planes[0] + static_cast<size_t>(lumaStride) * f.height;
        context->UpdateSubresource(frameTexture_, 0, nullptr, f.planes[0], static_cast<UINT>(lumaStride), 0);
        context->UpdateSubresource(chromaTexture_, 0, nullptr, chroma, static_cast<UINT>(chromaStride), 0);
        return KIV_OK;
    }
    default:
        KIV_LOG("VideoRender upload unsupported pixel format=%d", f.format);
        return KIV_ERROR_UNSUPPORTED;
    }
}

int32_t KivD3D11Pipeline::DrawPass(ID3D11RenderTargetView* target, int32_t width, int32_t height, bool nearest) {
    if (!context || !target || !frameView_ || width < 1 || height < 1) return KIV_ERROR_FAILED;
    context->ClearRenderTargetView(target, kClearColour);
    context->OMSetRenderTargets(1, &target, nullptr);
    D3D11_VIEWPORT vp{0.0f, 0.0f, static_cast<FLOAT>(width), static_cast<FLOAT>(height), 0.0f, 1.0f};
    context->RSSetViewports(1, &vp);
    context->IASetInputLayout(nullptr);
    context->IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    context->VSSetShader(vertexShader, nullptr, 0);
    context->PSSetShader(pixelShader_, nullptr, 0);

    KivRenderParams params =
        KivRenderBaseParams(frameFormat, nearest, stages_->ColorSettings(), frameWidth, frameHeight);
    ID3D11ShaderResourceView* lutView = stages_->PrepareLut(*this, &params);
    if (!lutView) params.lutEnable = params.lutDim = 0;
    const int32_t texWidth = frameFormat == KIV_PIXEL_FORMAT_YUY2 ? (frameWidth + 1) / 2 : frameWidth;
    const KivRenderFrameSize size{static_cast<float>(texWidth), static_cast<float>(frameHeight), {0.0f, 0.0f}};
    context->UpdateSubresource(params_, 0, nullptr, &params, 0, 0);
    context->UpdateSubresource(frameSize_, 0, nullptr, &size, 0, 0);
    ID3D11Buffer* buffers[2] = {params_, frameSize_};
    context->PSSetConstantBuffers(0, 2, buffers);
    ID3D11ShaderResourceView* views[3] = {frameView_, frameFormat == KIV_PIXEL_FORMAT_NV12 ? chromaView_ : nullptr,
                                          lutView};
    context->PSSetShaderResources(0, 3, views);
    ID3D11SamplerState* samplers[2] = {nearest ? pointSampler_ : linearSampler,
                                       lutSampler_ ? lutSampler_ : linearSampler};
    context->PSSetSamplers(0, 2, samplers);
    context->Draw(4, 0);
    ID3D11ShaderResourceView* none[3] = {nullptr, nullptr, nullptr};
    context->PSSetShaderResources(0, 3, none);
    return KIV_OK;
}

int32_t KivD3D11Pipeline::EnsureFinalTexture(int32_t width, int32_t height) {
    if (!device) return KIV_ERROR_FAILED;
    if (finalTexture && finalTarget && finalView && width == finalWidth && height == finalHeight) return KIV_OK;
    ReleaseFinalTexture();
    D3D11_TEXTURE2D_DESC td{};
    td.Width = static_cast<UINT>(width);
    td.Height = static_cast<UINT>(height);
    td.MipLevels = 1;
    td.ArraySize = 1;
    td.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    td.SampleDesc.Count = 1;
    td.Usage = D3D11_USAGE_DEFAULT;
    td.BindFlags = D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE;
    HRESULT hr = device->CreateTexture2D(&td, nullptr, &finalTexture);
    if (FAILED(hr)) {
        KIV_LOG("Create final texture failed hr=0x%08X size=%dx%d", Hr(hr), width, height);
        return KIV_ERROR_FAILED;
    }
    hr = device->CreateRenderTargetView(finalTexture, nullptr, &finalTarget);
    if (FAILED(hr)) {
        KIV_LOG("Create final RTV failed hr=0x%08X", Hr(hr));
        ReleaseFinalTexture();
        return KIV_ERROR_FAILED;
    }
    hr = device->CreateShaderResourceView(finalTexture, nullptr, &finalView);
    if (FAILED(hr)) {
        KIV_LOG("Create final SRV failed hr=0x%08X", Hr(hr));
        ReleaseFinalTexture();
        return KIV_ERROR_FAILED;
    }
    finalWidth = width;
    finalHeight = height;
    KIV_LOG("GPU final texture created size=%dx%d", width, height);
    return KIV_OK;
}

int32_t KivD3D11Pipeline::FinalPass() {
    int32_t result = EnsureFinalTexture(frameWidth, frameHeight);
    if (result == KIV_OK) result = DrawPass(finalTarget, frameWidth, frameHeight, true);
    if (result != KIV_OK) return result;
    stages_->DrawOverlay(*this, finalTarget, frameWidth, frameHeight);
    stages_->SubmitFinalTexture(*this);
    return KIV_OK;
}

int32_t KivD3D11Pipeline::DrawAndPresent(const KivRenderDrawSettings& settings) {
    if (!context || !swapChain_ || !backTarget_ || !frameView_) return KIV_ERROR_FAILED;
    const bool nearest = KivRenderUseNearest(settings.interpolation, backWidth_, backHeight_, frameWidth, frameHeight);
    const bool gpuPipeline = settings.pipelineMode == 1;
    bool finalDone = false;
    if (gpuPipeline && stages_->LutActive()) {
        const int32_t result = FinalPass();
        if (result != KIV_OK) KIV_LOG("GPU final texture pass failed result=%d", result);
        finalDone = true;
    }
    int32_t result = DrawPass(backTarget_, backWidth_, backHeight_, nearest);
    if (result != KIV_OK) return result;
    if (gpuPipeline) stages_->DrawOverlay(*this, backTarget_, backWidth_, backHeight_);
    if (!finalDone && stages_->RecorderArmed()) FinalPass();

    const HRESULT hr = swapChain_->Present(0, DXGI_PRESENT_DO_NOT_WAIT);
    if (hr == DXGI_ERROR_WAS_STILL_DRAWING) return KIV_OK;
    if (hr == DXGI_ERROR_DEVICE_REMOVED || hr == DXGI_ERROR_DEVICE_RESET) {
        KIV_LOG("D3D device lost on Present hr=0x%08X", Hr(hr));
        ReleaseAll();
        return KIV_ERROR_FAILED;
    }
    if (FAILED(hr)) {
        KIV_LOG("SwapChain Present failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    return KIV_OK;
}

void KivD3D11Pipeline::ReleaseFinalTexture() {
    KivRelease(finalView);
    KivRelease(finalTarget);
    KivRelease(finalTexture);
    finalWidth = finalHeight = 0;
}

void KivD3D11Pipeline::ReleaseAll() {
    if (stages_) stages_->ReleaseGpuObjects();
    if (context) {
        context->ClearState();
        context->Flush();
    }
    ReleaseFinalTexture();
    ReleaseFrameTextures();
    KivRelease(frameSize_);
    KivRelease(params_);
    KivRelease(lutSampler_);
    KivRelease(pointSampler_);
    KivRelease(linearSampler);
    KivRelease(pixelShader_);
    KivRelease(vertexShader);
    KivRelease(backTarget_);
    backWidth_ = backHeight_ = 0;
    KivRelease(swapChain_);
    KivRelease(context);
    KivRelease(device);
}
