// Direct3D 11 pipeline of the render port: device and swap chain on the
// window, frame textures, the full-screen draw, the final texture and present.
// Every call runs under the render port's lock.
#pragma once
#include <windows.h>
#include <d3d11.h>

#include <vector>

#include "render_gpu.h"

// Releases a COM pointer and nulls it.
template <class T>
void KivRelease(T*& p) {
    if (p) {
        p->Release();
        p = nullptr;
    }
}

class KivD3D11Pipeline : public KivRenderGpu {
public:
    explicit KivD3D11Pipeline(HWND window);
    ~KivD3D11Pipeline() override;

    bool WindowAlive() override;
    int32_t EnsureDevice() override;
    int32_t EnsureBackBuffer() override;
    int32_t EnsureFrameTextures(int32_t width, int32_t height, int32_t format) override;
    int32_t Upload(const KivVideoFrame& frame) override;
    int32_t DrawAndPresent(const KivRenderDrawSettings& settings) override;
    void ReleaseFinalTexture() override;
    void ReleaseAll() override;

    // The frame at its own size into the final texture (snapshots, recorder).
    int32_t EnsureFinalTexture(int32_t width, int32_t height);
    // One full-screen draw of the frame texture into a target.
    int32_t DrawPass(ID3D11RenderTargetView* target, int32_t width, int32_t height, bool nearest);

    // Objects the GPU stages work with (null until the first frame).
    ID3D11Device* device = nullptr;
    ID3D11DeviceContext* context = nullptr;
    ID3D11VertexShader* vertexShader = nullptr;
    ID3D11SamplerState* linearSampler = nullptr;
    ID3D11Texture2D* finalTexture = nullptr;
    ID3D11RenderTargetView* finalTarget = nullptr;
    ID3D11ShaderResourceView* finalView = nullptr;
    int32_t finalWidth = 0, finalHeight = 0;
    int32_t frameWidth = 0, frameHeight = 0, frameFormat = 0;

private:
    bool ClientSize(int32_t* width, int32_t* height);
    int32_t CompileShaders();
    int32_t CreateSamplersAndBuffers();
    void ReleaseFrameTextures();
    // The final-texture pass with its overlay and recorder hand-off.
    int32_t FinalPass();

    HWND window_;
    IDXGISwapChain* swapChain_ = nullptr;
    ID3D11RenderTargetView* backTarget_ = nullptr;
    ID3D11PixelShader* pixelShader_ = nullptr;
    ID3D11SamplerState* pointSampler_ = nullptr;
    ID3D11SamplerState* lutSampler_ = nullptr;
    ID3D11Buffer* params_ = nullptr;
    ID3D11Buffer* frameSize_ = nullptr;
    ID3D11Texture2D* frameTexture_ = nullptr;
    ID3D11ShaderResourceView* frameView_ = nullptr;
    ID3D11Texture2D* chromaTexture_ = nullptr;
    ID3D11ShaderResourceView* chromaView_ = nullptr;
    int32_t backWidth_ = 0, backHeight_ = 0;
    std::vector<uint8_t> bgra_;  // tight 32-bit copy of RGB frames
};
