// Core Audio playback endpoint for the audio render port: the default
// console endpoint in shared mode, fed 16-bit PCM that the audio engine
// converts to its mix format.
#include <windows.h>
#include <objbase.h>

#include "../core/kiv_core_audio_win.h"
#include "kiv_audio_endpoint.h"

namespace kiv {

namespace {

using coreaudio::Release;

constexpr REFERENCE_TIME kBufferDuration = 10000000;  // one second
constexpr DWORD kAutoConvertFlags = 0x80000000 | 0x08000000;  // AUTOCONVERTPCM | SRC_DEFAULT_QUALITY

uint32_t Hr(HRESULT hr) { return static_cast<uint32_t>(hr); }

class WasapiRenderEndpoint : public AudioRenderEndpoint {
public:
    ~WasapiRenderEndpoint() override {
        uint32_t ignored = 0;
        Close(&ignored);
    }

    RenderOpenReport OpenDevice() override {
        RenderOpenReport r;
        IMMDeviceEnumerator* enumerator = nullptr;
        HRESULT hr = CoCreateInstance(coreaudio::kClsidDeviceEnumerator, nullptr, CLSCTX_ALL,
                                      coreaudio::kIidDeviceEnumerator, reinterpret_cast<void**>(&enumerator));
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kCreateEnumerator, hr);
        hr = enumerator->GetDefaultAudioEndpoint(eRender, eConsole, &device_);
        enumerator->Release();
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kDefaultEndpoint, hr);
        hr = device_->Activate(coreaudio::kIidAudioClient, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(&client_));
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kActivate, hr);
        WAVEFORMATEX* mix = nullptr;
        hr = client_->GetMixFormat(&mix);
        if (SUCCEEDED(hr) && mix) {
            r.mixKnown = true;
            r.mix.sampleRate = mix->nSamplesPerSec;
            r.mix.channels = mix->nChannels;
            r.mix.bitsPerSample = mix->wBitsPerSample;
            r.mix.blockAlign = mix->nBlockAlign;
            r.mix.formatTag = mix->wFormatTag;
            CoTaskMemFree(mix);
        } else {
            r.mixHr = Hr(hr);
        }
        return r;
    }

    RenderOpenReport OpenClient(const RenderSourceFormat& s) override {
        RenderOpenReport r;
        r.initializeFlags = kAutoConvertFlags;
        source_ = static_cast<WAVEFORMATEX*>(CoTaskMemAlloc(sizeof(WAVEFORMATEX)));
        if (!source_) return Fail(&r, RenderOpenStep::kAllocFormat, E_OUTOFMEMORY);
        source_->wFormatTag = static_cast<WORD>(s.formatTag);
        source_->nChannels = static_cast<WORD>(s.channels);
        source_->nSamplesPerSec = s.sampleRate;
        source_->wBitsPerSample = static_cast<WORD>(s.bitsPerSample);
        source_->nBlockAlign = static_cast<WORD>(s.blockAlign);
        source_->nAvgBytesPerSec = s.sampleRate * s.blockAlign;
        source_->cbSize = 0;
        HRESULT hr = client_->Initialize(AUDCLNT_SHAREMODE_SHARED, kAutoConvertFlags, kBufferDuration, 0, source_, nullptr);
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kInitialize, hr);
        UINT32 frames = 0;
        hr = client_->GetBufferSize(&frames);
        r.bufferFrames = frames;
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kGetBufferSize, hr);
        hr = client_->GetService(coreaudio::kIidAudioRenderClient, reinterpret_cast<void**>(&render_));
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kGetService, hr);
        hr = client_->Start();
        if (FAILED(hr)) return Fail(&r, RenderOpenStep::kStart, hr);
        started_ = true;
        return r;
    }

    uint32_t GetCurrentPadding(uint32_t* frames) override {
        UINT32 n = 0;
        const HRESULT hr = client_->GetCurrentPadding(&n);
        *frames = n;
        return Hr(hr);
    }

    uint32_t GetBuffer(uint32_t frames, uint8_t** data) override {
        BYTE* p = nullptr;
        const HRESULT hr = render_->GetBuffer(frames, &p);
        *data = p;
        return Hr(hr);
    }

    uint32_t ReleaseBuffer(uint32_t frames, bool silent) override {
        return Hr(render_->ReleaseBuffer(frames, silent ? AUDCLNT_BUFFERFLAGS_SILENT : 0));
    }

    bool Close(uint32_t* stopHr) override {
        const bool wasStarted = started_;
        if (started_) *stopHr = Hr(client_->Stop());
        started_ = false;
        Release(render_);
        Release(client_);
        Release(device_);
        if (source_) CoTaskMemFree(source_);
        source_ = nullptr;
        return wasStarted;
    }

    uint64_t TickMs() override { return GetTickCount64(); }

private:
    static RenderOpenReport Fail(RenderOpenReport* r, RenderOpenStep step, HRESULT hr) {
        r->failedStep = step;
        r->hr = Hr(hr);
        return *r;
    }

    IMMDevice* device_ = nullptr;
    IAudioClient* client_ = nullptr;
    IAudioRenderClient* render_ = nullptr;
    WAVEFORMATEX* source_ = nullptr;
    bool started_ = false;
};

}  // namespace

std::unique_ptr<AudioRenderEndpoint> MakeSystemRenderEndpoint() { return std::make_unique<WasapiRenderEndpoint>(); }

}  // namespace kiv
