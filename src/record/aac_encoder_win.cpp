// AAC encoding through a Media Foundation audio encoder transform found at
// run time. Systems without one (Wine ships none) fail Initialize cleanly.
#include <windows.h>
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>
#include <mftransform.h>

#include <cstring>

#include "aac_config.h"
#include "aac_encoder.h"

namespace kiv {

namespace {

template <typename T>
void SafeRelease(T** p) {
    if (*p) {
        (*p)->Release();
        *p = nullptr;
    }
}

HRESULT ConfigureTypes(IMFTransform* transform, DWORD inputId, DWORD outputId, int32_t sampleRate,
                       int32_t channels, int32_t bitRate) {
    IMFMediaType* input = nullptr;
    IMFMediaType* output = nullptr;
    HRESULT hr = MFCreateMediaType(&input);
    if (SUCCEEDED(hr)) hr = input->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio);
    if (SUCCEEDED(hr)) hr = input->SetGUID(MF_MT_SUBTYPE, MFAudioFormat_PCM);
    if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_BITS_PER_SAMPLE, 16);
    if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, UINT32(sampleRate));
    if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_NUM_CHANNELS, UINT32(channels));
    if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_BLOCK_ALIGNMENT, UINT32(channels * 2));
    if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, UINT32(channels * sampleRate * 2));
    if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_ALL_SAMPLES_INDEPENDENT, 1);
    if (SUCCEEDED(hr)) hr = MFCreateMediaType(&output);
    if (SUCCEEDED(hr)) hr = output->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio);
    if (SUCCEEDED(hr)) hr = output->SetGUID(MF_MT_SUBTYPE, MFAudioFormat_AAC);
    if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_BITS_PER_SAMPLE, 16);
    if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, UINT32(sampleRate));
    if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_NUM_CHANNELS, UINT32(channels));
    if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, UINT32(bitRate / 8));
    if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_BLOCK_ALIGNMENT, 1);
    if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AAC_AUDIO_PROFILE_LEVEL_INDICATION, 0x29);
    if (SUCCEEDED(hr)) hr = transform->SetInputType(inputId, input, 0);
    if (SUCCEEDED(hr)) hr = transform->SetOutputType(outputId, output, 0);
    SafeRelease(&input);
    SafeRelease(&output);
    return hr;
}

}  // namespace

struct AacEncoder::Platform {
    IMFTransform* transform = nullptr;
    DWORD inputId = 0;
    DWORD outputId = 0;
    uint32_t outputBufferSize = kMinOutputBuffer;
    bool providesSamples = false;
    // Output sample and buffer reused across calls when the transform wants
    // the caller to supply them.
    IMFSample* outputSample = nullptr;
    IMFMediaBuffer* outputBuffer = nullptr;
    int64_t nextOutputTime = 0;

    void TearDown() {
        if (transform) transform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_OF_STREAM, 0);
        SafeRelease(&outputSample);
        SafeRelease(&outputBuffer);
        SafeRelease(&transform);
    }

    HRESULT EnsureOutputSample() {
        if (outputSample) return outputBuffer->SetCurrentLength(0);
        HRESULT hr = MFCreateMemoryBuffer(outputBufferSize, &outputBuffer);
        if (SUCCEEDED(hr)) hr = MFCreateSample(&outputSample);
        if (SUCCEEDED(hr)) hr = outputSample->AddBuffer(outputBuffer);
        if (FAILED(hr)) {
            SafeRelease(&outputSample);
            SafeRelease(&outputBuffer);
        }
        return hr;
    }

    // Pulls access units until the transform needs more input.
    HRESULT Collect(int32_t sampleRate, AacSink* sink) {
        const int64_t frameDuration = int64_t(1024) * 10000000 / (sampleRate > 0 ? sampleRate : 48000);
        int streamChanges = 0;
        for (int round = 0; round < 256; ++round) {
            if (!providesSamples) {
                const HRESULT hr = EnsureOutputSample();
                if (FAILED(hr)) return hr;
            }
            MFT_OUTPUT_DATA_BUFFER out;
            std::memset(&out, 0, sizeof(out));
            out.dwStreamID = outputId;
            out.pSample = providesSamples ? nullptr : outputSample;
            DWORD status = 0;
            HRESULT hr = transform->ProcessOutput(0, 1, &out, &status);
            if (out.pEvents) out.pEvents->Release();
            if (hr == MF_E_TRANSFORM_NEED_MORE_INPUT) return S_OK;
            if (hr == MF_E_TRANSFORM_STREAM_CHANGE) {
                // The transform wants its output type confirmed again.
                if (providesSamples) SafeRelease(&out.pSample);
                IMFMediaType* type = nullptr;
                hr = transform->GetOutputAvailableType(outputId, 0, &type);
                if (SUCCEEDED(hr)) hr = transform->SetOutputType(outputId, type, 0);
                SafeRelease(&type);
                if (FAILED(hr) || ++streamChanges > 4) return FAILED(hr) ? hr : MF_E_TRANSFORM_STREAM_CHANGE;
                continue;
            }
            if (FAILED(hr)) {
                if (providesSamples) SafeRelease(&out.pSample);
                return hr;
            }
            IMFSample* sample = out.pSample;
            if (!sample) continue;
            LONGLONG time = 0;
            LONGLONG duration = 0;
            if (FAILED(sample->GetSampleTime(&time))) time = nextOutputTime;
            if (FAILED(sample->GetSampleDuration(&duration)) || duration <= 0) duration = frameDuration;
            IMFMediaBuffer* buffer = nullptr;
            hr = sample->ConvertToContiguousBuffer(&buffer);
            if (SUCCEEDED(hr)) {
                BYTE* data = nullptr;
                DWORD length = 0;
                hr = buffer->Lock(&data, nullptr, &length);
                if (SUCCEEDED(hr)) {
                    if (length > 0 && sink) sink->OnAccessUnit(data, length, time, duration);
                    buffer->Unlock();
                }
                buffer->Release();
            }
            nextOutputTime = time + duration;
            if (providesSamples) sample->Release();
            if (FAILED(hr)) return hr;
        }
        return S_OK;
    }
};

AacEncoder::AacEncoder() = default;

AacEncoder::~AacEncoder() {
    Release();
    delete platform_;
}

bool AacEncoder::Initialize(int32_t sampleRate, int32_t channels) {
    if (!BeginInitialize(sampleRate, channels)) return false;
    if (!platform_) platform_ = new Platform();

    MFT_REGISTER_TYPE_INFO inputInfo = {MFMediaType_Audio, MFAudioFormat_PCM};
    MFT_REGISTER_TYPE_INFO outputInfo = {MFMediaType_Audio, MFAudioFormat_AAC};
    IMFActivate** activates = nullptr;
    UINT32 count = 0;
    HRESULT hr = MFTEnumEx(MFT_CATEGORY_AUDIO_ENCODER, 0x3F, &inputInfo, &outputInfo, &activates, &count);
    if (FAILED(hr) || count == 0) {
        report_.stage = AacInitStage::kEnumFailed;
        report_.hr = uint32_t(hr);
        report_.count = count;
        for (UINT32 i = 0; activates && i < count; ++i) activates[i]->Release();
        CoTaskMemFree(activates);
        return false;
    }
    IMFTransform* transform = nullptr;
    hr = activates[0]->ActivateObject(IID_PPV_ARGS(&transform));
    for (UINT32 i = 0; i < count; ++i) activates[i]->Release();
    CoTaskMemFree(activates);
    if (FAILED(hr) || !transform) {
        report_.stage = AacInitStage::kActivateFailed;
        report_.hr = uint32_t(FAILED(hr) ? hr : E_NOINTERFACE);
        return false;
    }
    platform_->transform = transform;
    return FinishInitialize();
}

bool AacEncoder::InitializeWithTransform(void* transform, int32_t sampleRate, int32_t channels) {
    if (!BeginInitialize(sampleRate, channels)) return false;
    if (!transform) {
        report_.stage = AacInitStage::kActivateFailed;
        report_.hr = uint32_t(E_POINTER);
        return false;
    }
    if (!platform_) platform_ = new Platform();
    platform_->transform = static_cast<IMFTransform*>(transform);
    platform_->transform->AddRef();
    return FinishInitialize();
}

// Stream ids, media types, output buffers and the start of streaming, for
// the transform in platform_.
bool AacEncoder::FinishInitialize() {
    Platform& p = *platform_;
    p.inputId = 0;
    p.outputId = 0;
    DWORD inputs = 0;
    DWORD outputs = 0;
    if (SUCCEEDED(p.transform->GetStreamCount(&inputs, &outputs)) && inputs == 1 && outputs == 1) {
        DWORD inputId = 0;
        DWORD outputId = 0;
        if (SUCCEEDED(p.transform->GetStreamIDs(1, &inputId, 1, &outputId))) {
            p.inputId = inputId;
            p.outputId = outputId;
        }
    }

    HRESULT hr = ConfigureTypes(p.transform, p.inputId, p.outputId, sampleRate_, channels_, kBitRate);
    if (FAILED(hr)) {
        report_.stage = AacInitStage::kConfigureFailed;
        report_.hr = uint32_t(hr);
        p.TearDown();
        return false;
    }

    MFT_OUTPUT_STREAM_INFO info;
    std::memset(&info, 0, sizeof(info));
    if (SUCCEEDED(p.transform->GetOutputStreamInfo(p.outputId, &info))) {
        p.providesSamples = (info.dwFlags & MFT_OUTPUT_STREAM_PROVIDES_SAMPLES) != 0;
        p.outputBufferSize = OutputBufferSize(info.cbSize);
    } else {
        p.providesSamples = false;
        p.outputBufferSize = kMinOutputBuffer;
    }

    hr = p.transform->ProcessMessage(MFT_MESSAGE_NOTIFY_BEGIN_STREAMING, 0);
    if (SUCCEEDED(hr)) hr = p.transform->ProcessMessage(MFT_MESSAGE_NOTIFY_START_OF_STREAM, 0);
    if (FAILED(hr)) {
        report_.stage = AacInitStage::kStreamStartFailed;
        report_.hr = uint32_t(hr);
        p.TearDown();
        return false;
    }
    p.nextOutputTime = 0;
    report_.stage = AacInitStage::kReady;
    report_.outputBufferSize = p.outputBufferSize;
    report_.providesSamples = p.providesSamples;
    ready_ = true;
    return true;
}

uint32_t AacEncoder::Encode(const uint8_t* pcm, size_t bytes, int64_t time100ns, AacSink* sink) {
    if (!ready_ || !platform_ || !platform_->transform) return uint32_t(MF_E_NOT_INITIALIZED);
    if (pcm == nullptr || bytes == 0 || bytes > 0x7FFFFFFF) return uint32_t(E_INVALIDARG);
    Platform& p = *platform_;
    IMFMediaBuffer* buffer = nullptr;
    IMFSample* sample = nullptr;
    HRESULT hr = MFCreateMemoryBuffer(DWORD(bytes), &buffer);
    if (SUCCEEDED(hr)) {
        BYTE* data = nullptr;
        hr = buffer->Lock(&data, nullptr, nullptr);
        if (SUCCEEDED(hr)) {
            std::memcpy(data, pcm, bytes);
            buffer->Unlock();
            hr = buffer->SetCurrentLength(DWORD(bytes));
        }
    }
    if (SUCCEEDED(hr)) hr = MFCreateSample(&sample);
    if (SUCCEEDED(hr)) hr = sample->AddBuffer(buffer);
    if (SUCCEEDED(hr)) {
        const int64_t frames = int64_t(bytes) / (int64_t(channels_) * 2);
        sample->SetSampleTime(time100ns);
        sample->SetSampleDuration(frames * 10000000 / sampleRate_);
        hr = p.transform->ProcessInput(p.inputId, sample, 0);
        if (hr == MF_E_NOTACCEPTING) {
            // Output is pending: take it, then offer the input again.
            hr = p.Collect(sampleRate_, sink);
            if (SUCCEEDED(hr)) hr = p.transform->ProcessInput(p.inputId, sample, 0);
        }
    }
    SafeRelease(&sample);
    SafeRelease(&buffer);
    if (SUCCEEDED(hr)) hr = p.Collect(sampleRate_, sink);
    return SUCCEEDED(hr) ? 0 : uint32_t(hr);
}

uint32_t AacEncoder::Drain(AacSink* sink) {
    if (!ready_ || !platform_ || !platform_->transform) return uint32_t(MF_E_NOT_INITIALIZED);
    Platform& p = *platform_;
    HRESULT hr = p.transform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_OF_STREAM, 0);
    if (SUCCEEDED(hr)) hr = p.transform->ProcessMessage(MFT_MESSAGE_COMMAND_DRAIN, 0);
    if (SUCCEEDED(hr)) hr = p.Collect(sampleRate_, sink);
    // The next file goes on with the same transform.
    const HRESULT restart = p.transform->ProcessMessage(MFT_MESSAGE_NOTIFY_START_OF_STREAM, 0);
    if (SUCCEEDED(hr)) hr = restart;
    return SUCCEEDED(hr) ? 0 : uint32_t(hr);
}

void AacEncoder::Release() {
    ready_ = false;
    if (platform_) platform_->TearDown();
}

}  // namespace kiv
