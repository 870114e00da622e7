// Core Audio capture endpoint for the audio input port: shared mode,
// event-driven, in the endpoint's mix format.
#include <windows.h>
#include <objbase.h>

#include "../core/kiv_core_audio_win.h"
#include "kiv_audio_endpoint.h"

namespace kiv {

namespace {

using coreaudio::Release;

constexpr REFERENCE_TIME kBufferDuration = 10000000;  // one second

uint32_t Hr(HRESULT hr) { return static_cast<uint32_t>(hr); }

AudioMixFormat ToMixFormat(const WAVEFORMATEX& w) {
    AudioMixFormat f;
    f.sampleRate = w.nSamplesPerSec;
    f.channels = w.nChannels;
    f.bitsPerSample = w.wBitsPerSample;
    f.blockAlign = w.nBlockAlign;
    f.formatTag = w.wFormatTag;
    const uint8_t* subFormat = nullptr;
    if (w.wFormatTag == WAVE_FORMAT_EXTENSIBLE && w.cbSize >= 22) {
        subFormat = reinterpret_cast<const uint8_t*>(&reinterpret_cast<const WAVEFORMATEXTENSIBLE&>(w).SubFormat);
    }
    f.kind = SampleKindOf(w.wFormatTag, subFormat);
    return f;
}

class WasapiCaptureEndpoint : public AudioCaptureEndpoint {
public:
    ~WasapiCaptureEndpoint() override { Close(); }

    uint32_t EnterThread() override {
        const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        comHere_ = SUCCEEDED(hr);
        return Hr(hr);
    }
    void LeaveThread() override {
        if (comHere_) CoUninitialize();
        comHere_ = false;
    }

    CaptureOpenReport Open(int32_t index) override {
        CaptureOpenReport r;
        IMMDeviceEnumerator* enumerator = nullptr;
        HRESULT hr = CoCreateInstance(coreaudio::kClsidDeviceEnumerator, nullptr, CLSCTX_ALL,
                                      coreaudio::kIidDeviceEnumerator, reinterpret_cast<void**>(&enumerator));
        if (FAILED(hr)) return Fail(&r, CaptureOpenStep::kCreateEnumerator, hr);
        IMMDeviceCollection* collection = nullptr;
        hr = enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, &collection);
        enumerator->Release();
        if (FAILED(hr)) return Fail(&r, CaptureOpenStep::kEnumEndpoints, hr);
        UINT count = 0;
        hr = collection->GetCount(&count);
        if (FAILED(hr)) {
            collection->Release();
            return Fail(&r, CaptureOpenStep::kGetCount, hr);
        }
        r.count = count;
        if (index < 0 || static_cast<UINT>(index) >= count) {
            collection->Release();
            r.failedStep = CaptureOpenStep::kIndexInvalid;
            return r;
        }
        hr = collection->Item(static_cast<UINT>(index), &device_);
        collection->Release();
        if (FAILED(hr)) return Fail(&r, CaptureOpenStep::kItem, hr);
        return r;
    }

    uint32_t Activate() override {
        return Hr(device_->Activate(coreaudio::kIidAudioClient, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(&client_)));
    }

    uint32_t GetMixFormat(AudioMixFormat* out) override {
        const HRESULT hr = client_->GetMixFormat(&mix_);
        if (FAILED(hr)) return Hr(hr);
        *out = ToMixFormat(*mix_);
        return 0;
    }

    uint32_t MakeEvent() override {
        event_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        return event_ ? 0 : static_cast<uint32_t>(GetLastError());
    }

    uint32_t Initialize() override {
        return Hr(client_->Initialize(AUDCLNT_SHAREMODE_SHARED, AUDCLNT_STREAMFLAGS_EVENTCALLBACK, kBufferDuration, 0,
                                      mix_, nullptr));
    }
    uint32_t SetEventHandle() override { return Hr(client_->SetEventHandle(event_)); }
    uint32_t GetCaptureService() override {
        return Hr(client_->GetService(coreaudio::kIidAudioCaptureClient, reinterpret_cast<void**>(&capture_)));
    }
    uint32_t StartClient() override { return Hr(client_->Start()); }
    uint32_t StopClient() override { return Hr(client_->Stop()); }

    WaitResult Wait(uint32_t milliseconds, uint32_t* error) override {
        const DWORD w = WaitForSingleObject(event_, milliseconds);
        if (w == WAIT_OBJECT_0) return WaitResult::kSignalled;
        if (w == WAIT_TIMEOUT) return WaitResult::kTimeout;
        *error = static_cast<uint32_t>(GetLastError());
        return WaitResult::kFailed;
    }

    uint32_t NextPacketSize(uint32_t* frames) override {
        UINT32 n = 0;
        const HRESULT hr = capture_->GetNextPacketSize(&n);
        *frames = n;
        return Hr(hr);
    }

    uint32_t GetBuffer(CapturePacket* packet) override {
        BYTE* data = nullptr;
        UINT32 frames = 0;
        DWORD flags = 0;
        const HRESULT hr = capture_->GetBuffer(&data, &frames, &flags, nullptr, nullptr);
        if (FAILED(hr)) return Hr(hr);
        packet->data = data;
        packet->frames = frames;
        packet->silent = (flags & AUDCLNT_BUFFERFLAGS_SILENT) != 0;
        return 0;
    }

    uint32_t ReleaseBuffer(uint32_t frames) override { return Hr(capture_->ReleaseBuffer(frames)); }

    void Close() override {
        Release(capture_);
        Release(client_);
        Release(device_);
        if (mix_) CoTaskMemFree(mix_);
        mix_ = nullptr;
        if (event_) CloseHandle(event_);
        event_ = nullptr;
    }

    uint64_t TickMs() override { return GetTickCount64(); }

private:
    static CaptureOpenReport Fail(CaptureOpenReport* r, CaptureOpenStep step, HRESULT hr) {
        r->failedStep = step;
        r->hr = Hr(hr);
        return *r;
    }

    bool comHere_ = false;
    IMMDevice* device_ = nullptr;
    IAudioClient* client_ = nullptr;
    IAudioCaptureClient* capture_ = nullptr;
    WAVEFORMATEX* mix_ = nullptr;
    HANDLE event_ = nullptr;
};

}  // namespace

std::unique_ptr<AudioCaptureEndpoint> MakeSystemCaptureEndpoint() { return std::make_unique<WasapiCaptureEndpoint>(); }

}  // namespace kiv
