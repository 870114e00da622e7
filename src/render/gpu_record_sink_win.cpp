// The GPU recorder's platform side: the final texture goes through the
// Direct3D 11 video processor into NV12 and from there, without leaving the
// GPU, into a Media Foundation sink writer that shares the render device.
#include <windows.h>

#include <d3d11.h>
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>
#include <mfreadwrite.h>

#include <cstring>
#include <vector>

#include "gpu_com_win.h"
#include "gpu_record_sink.h"
#include "kiv_log.h"

namespace kiv {

namespace {

UINT64 Pair(UINT32 high, UINT32 low) { return (static_cast<UINT64>(high) << 32) | low; }

// Looked up at run time: these arrived with Windows 8, and the library must
// still load where they are missing.
using CreateDeviceManagerFn = HRESULT(WINAPI*)(UINT*, IMFDXGIDeviceManager**);
using CreateSurfaceBufferFn = HRESULT(WINAPI*)(REFIID, IUnknown*, UINT, BOOL, IMFMediaBuffer**);

template <typename Fn>
Fn MfPlatFunction(const char* name) {
    HMODULE module = GetModuleHandleW(L"mfplat.dll");
    FARPROC address = module ? GetProcAddress(module, name) : nullptr;
    Fn fn = nullptr;
    static_assert(sizeof fn == sizeof address, "function pointers differ in size");
    std::memcpy(&fn, &address, sizeof fn);
    return fn;
}

class MfGpuRecordSink : public GpuRecordSink {
public:
    ~MfGpuRecordSink() override { ReleaseAll(); }

    int32_t Open(void* device, const GpuRecordSettings& settings, int32_t width, int32_t height,
                 bool* audioReady) override {
        *audioReady = false;
        device_ = static_cast<ID3D11Device*>(device);
        if (!device_) return KIV_ERROR_FAILED;
        device_->AddRef();
        device_->GetImmediateContext(&context_);
        width_ = width;
        height_ = height;
        HRESULT hr = CreateWriter(settings);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder create sink writer failed hr=0x%08X", static_cast<unsigned>(hr));
            return Fail();
        }
        hr = AddVideoStream(settings);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder media type failed hr=0x%08X", static_cast<unsigned>(hr));
            return Fail();
        }
        if (settings.audio) {
            hr = AddAudioStream(settings);
            if (SUCCEEDED(hr)) {
                *audioReady = true;
                KIV_LOG("GPU recorder AAC audio stream ready sr=%d ch=%d bitrate=%d", settings.sampleRate,
                        settings.channels, settings.audioBitrate);
            } else {
                // A file without sound is better than no file.
                KIV_LOG("GPU recorder AAC audio stream disabled, setup failed hr=0x%08X", static_cast<unsigned>(hr));
            }
        }
        hr = writer_->BeginWriting();
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder create sink writer failed hr=0x%08X", static_cast<unsigned>(hr));
            return Fail();
        }
        writing_ = true;
        return CreateProcessor() ? KIV_OK : Fail();
    }

    int32_t Convert(void* finalTexture) override {
        ID3D11Texture2D* source = static_cast<ID3D11Texture2D*>(finalTexture);
        D3D11_VIDEO_PROCESSOR_INPUT_VIEW_DESC desc{};
        desc.ViewDimension = D3D11_VPIV_DIMENSION_TEXTURE2D;
        ID3D11VideoProcessorInputView* input = nullptr;
        HRESULT hr = videoDevice_->CreateVideoProcessorInputView(source, enumerator_, &desc, &input);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder input view create failed hr=0x%08X", static_cast<unsigned>(hr));
            return KIV_ERROR_FAILED;
        }
        D3D11_VIDEO_PROCESSOR_STREAM stream{};
        stream.Enable = TRUE;
        stream.pInputSurface = input;
        hr = videoContext_->VideoProcessorBlt(processor_, outputView_, 0, 1, &stream);
        ReleaseCom(input);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder VideoProcessorBlt failed hr=0x%08X", static_cast<unsigned>(hr));
            return KIV_ERROR_FAILED;
        }
        return KIV_OK;
    }

    uint32_t WriteVideoZeroCopy(int64_t time, int64_t duration) override {
        auto create = MfPlatFunction<CreateSurfaceBufferFn>("MFCreateDXGISurfaceBuffer");
        if (!create) return static_cast<uint32_t>(E_NOTIMPL);
        IMFMediaBuffer* buffer = nullptr;
        HRESULT hr = create(IID_ID3D11Texture2D, nv12_, 0, FALSE, &buffer);
        if (SUCCEEDED(hr)) hr = buffer->SetCurrentLength(Nv12Bytes());
        if (SUCCEEDED(hr)) hr = WriteBuffer(videoStream_, buffer, time, duration);
        ReleaseCom(buffer);
        return static_cast<uint32_t>(hr);
    }

    int32_t WriteVideoCopied(int64_t time, int64_t duration) override {
        if (!staging_) {
            D3D11_TEXTURE2D_DESC desc{};
            nv12_->GetDesc(&desc);
            desc.Usage = D3D11_USAGE_STAGING;
            desc.BindFlags = 0;
            desc.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
            desc.MiscFlags = 0;
            const HRESULT hr = device_->CreateTexture2D(&desc, nullptr, &staging_);
            if (FAILED(hr)) {
                KIV_LOG("GPU recorder NV12 staging texture create failed hr=0x%08X", static_cast<unsigned>(hr));
                return KIV_ERROR_FAILED;
            }
        }
        context_->CopyResource(staging_, nv12_);
        D3D11_MAPPED_SUBRESOURCE mapped{};
        HRESULT hr = context_->Map(staging_, 0, D3D11_MAP_READ, 0, &mapped);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder NV12 staging Map failed hr=0x%08X", static_cast<unsigned>(hr));
            return KIV_ERROR_FAILED;
        }
        // Luma rows, then the interleaved chroma rows below them.
        const size_t w = static_cast<size_t>(width_);
        const size_t chromaRows = static_cast<size_t>(height_) / 2;
        tight_.resize(Nv12Bytes());
        const uint8_t* src = static_cast<const uint8_t*>(mapped.pData);
        for (size_t row = 0; row < static_cast<size_t>(height_) + chromaRows; ++row) {
            std::memcpy(tight_.data() + row * w, src + row * mapped.RowPitch, w);
        }
        context_->Unmap(staging_, 0);
        IMFMediaBuffer* buffer = nullptr;
        hr = MFCreateMemoryBuffer(static_cast<DWORD>(tight_.size()), &buffer);
        BYTE* dst = nullptr;
        if (SUCCEEDED(hr)) hr = buffer->Lock(&dst, nullptr, nullptr);
        if (SUCCEEDED(hr)) {
            std::memcpy(dst, tight_.data(), tight_.size());
            buffer->Unlock();
            hr = buffer->SetCurrentLength(static_cast<DWORD>(tight_.size()));
        }
        if (SUCCEEDED(hr)) hr = WriteBuffer(videoStream_, buffer, time, duration);
        ReleaseCom(buffer);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder NV12 fallback WriteSample failed hr=0x%08X", static_cast<unsigned>(hr));
            return KIV_ERROR_FAILED;
        }
        return KIV_OK;
    }

    uint32_t WriteAudio(const uint8_t* data, uint32_t bytes, int64_t time, int64_t duration) override {
        IMFMediaBuffer* buffer = nullptr;
        HRESULT hr = MFCreateMemoryBuffer(bytes, &buffer);
        BYTE* dst = nullptr;
        if (SUCCEEDED(hr)) hr = buffer->Lock(&dst, nullptr, nullptr);
        if (SUCCEEDED(hr)) {
            std::memcpy(dst, data, bytes);
            buffer->Unlock();
            hr = buffer->SetCurrentLength(bytes);
        }
        if (SUCCEEDED(hr)) hr = WriteBuffer(audioStream_, buffer, time, duration);
        ReleaseCom(buffer);
        return static_cast<uint32_t>(hr);
    }

    void Finalize() override {
        if (writer_ && writing_) writer_->Finalize();
        writing_ = false;
    }

private:
    DWORD Nv12Bytes() const { return static_cast<DWORD>(static_cast<size_t>(width_) * height_ * 3 / 2); }

    int32_t Fail() {
        Finalize();
        ReleaseAll();
        return KIV_ERROR_FAILED;
    }

    HRESULT CreateWriter(const GpuRecordSettings& settings) {
        auto createManager = MfPlatFunction<CreateDeviceManagerFn>("MFCreateDXGIDeviceManager");
        if (!createManager) return E_NOTIMPL;
        HRESULT hr = createManager(&resetToken_, &manager_);
        if (SUCCEEDED(hr)) hr = manager_->ResetDevice(device_, resetToken_);
        IMFAttributes* attributes = nullptr;
        if (SUCCEEDED(hr)) hr = MFCreateAttributes(&attributes, 8);
        if (SUCCEEDED(hr)) hr = attributes->SetUnknown(MF_SINK_WRITER_D3D_MANAGER, manager_);
        if (SUCCEEDED(hr)) hr = attributes->SetUINT32(MF_READWRITE_ENABLE_HARDWARE_TRANSFORMS, 1);
        if (SUCCEEDED(hr)) {
            hr = MFCreateSinkWriterFromURL(reinterpret_cast<const wchar_t*>(settings.file.c_str()), nullptr, attributes,
                                           &writer_);
        }
        ReleaseCom(attributes);
        return hr;
    }

    HRESULT VideoType(const GpuRecordSettings& s, bool encoded, IMFMediaType** out) {
        HRESULT hr = MFCreateMediaType(out);
        IMFMediaType* type = *out;
        if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
        if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_SUBTYPE, encoded ? MFVideoFormat_H264 : MFVideoFormat_NV12);
        if (SUCCEEDED(hr) && encoded) hr = type->SetUINT32(MF_MT_AVG_BITRATE, static_cast<UINT32>(s.bitrate));
        if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_INTERLACE_MODE, MFVideoInterlace_Progressive);
        if (SUCCEEDED(hr)) hr = type->SetUINT64(MF_MT_FRAME_SIZE, Pair(width_, height_));
        if (SUCCEEDED(hr)) hr = type->SetUINT64(MF_MT_FRAME_RATE, Pair(static_cast<UINT32>(s.fps), 1));
        if (SUCCEEDED(hr)) hr = type->SetUINT64(MF_MT_PIXEL_ASPECT_RATIO, Pair(1, 1));
        return hr;
    }

    HRESULT AddVideoStream(const GpuRecordSettings& s) {
        IMFMediaType* output = nullptr;
        IMFMediaType* input = nullptr;
        HRESULT hr = VideoType(s, true, &output);
        if (SUCCEEDED(hr)) hr = writer_->AddStream(output, &videoStream_);
        if (SUCCEEDED(hr)) hr = VideoType(s, false, &input);
        if (SUCCEEDED(hr)) hr = writer_->SetInputMediaType(videoStream_, input, nullptr);
        ReleaseCom(output);
        ReleaseCom(input);
        return hr;
    }

    HRESULT AddAudioStream(const GpuRecordSettings& s) {
        IMFMediaType* output = nullptr;
        IMFMediaType* input = nullptr;
        const UINT32 rate = static_cast<UINT32>(s.sampleRate), channels = static_cast<UINT32>(s.channels);
        HRESULT hr = MFCreateMediaType(&output);
        if (SUCCEEDED(hr)) hr = output->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio);
        if (SUCCEEDED(hr)) hr = output->SetGUID(MF_MT_SUBTYPE, MFAudioFormat_AAC);
        if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, rate);
        if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_NUM_CHANNELS, channels);
        if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, static_cast<UINT32>(s.audioBitrate / 8));
        if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_BITS_PER_SAMPLE, 16);
        if (SUCCEEDED(hr)) hr = output->SetUINT32(MF_MT_AUDIO_BLOCK_ALIGNMENT, 1);
        if (SUCCEEDED(hr)) hr = writer_->AddStream(output, &audioStream_);
        if (SUCCEEDED(hr)) hr = MFCreateMediaType(&input);
        if (SUCCEEDED(hr)) hr = input->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio);
        if (SUCCEEDED(hr)) hr = input->SetGUID(MF_MT_SUBTYPE, MFAudioFormat_PCM);
        if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_BITS_PER_SAMPLE, 16);
        if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, rate);
        if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_NUM_CHANNELS, channels);
        if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_BLOCK_ALIGNMENT, channels * 2);
        if (SUCCEEDED(hr)) hr = input->SetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, rate * channels * 2);
        if (SUCCEEDED(hr)) hr = writer_->SetInputMediaType(audioStream_, input, nullptr);
        ReleaseCom(output);
        ReleaseCom(input);
        return hr;
    }

    bool CreateProcessor() {
        HRESULT hr = device_->QueryInterface(IID_ID3D11VideoDevice, reinterpret_cast<void**>(&videoDevice_));
        if (SUCCEEDED(hr)) {
            hr = context_->QueryInterface(IID_ID3D11VideoContext, reinterpret_cast<void**>(&videoContext_));
        }
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder video device/context query failed hr=0x%08X", static_cast<unsigned>(hr));
            return false;
        }
        D3D11_VIDEO_PROCESSOR_CONTENT_DESC content{};
        content.InputFrameFormat = D3D11_VIDEO_FRAME_FORMAT_PROGRESSIVE;
        content.InputWidth = content.OutputWidth = static_cast<UINT>(width_);
        content.InputHeight = content.OutputHeight = static_cast<UINT>(height_);
        content.Usage = D3D11_VIDEO_USAGE_PLAYBACK_NORMAL;
        hr = videoDevice_->CreateVideoProcessorEnumerator(&content, &enumerator_);
        if (SUCCEEDED(hr)) hr = videoDevice_->CreateVideoProcessor(enumerator_, 0, &processor_);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder VideoProcessor create failed hr=0x%08X", static_cast<unsigned>(hr));
            return false;
        }
        D3D11_TEXTURE2D_DESC desc{};
        desc.Width = static_cast<UINT>(width_);
        desc.Height = static_cast<UINT>(height_);
        desc.MipLevels = desc.ArraySize = 1;
        desc.Format = DXGI_FORMAT_NV12;
        desc.SampleDesc.Count = 1;
        desc.Usage = D3D11_USAGE_DEFAULT;
        desc.BindFlags = D3D11_BIND_RENDER_TARGET;
        hr = device_->CreateTexture2D(&desc, nullptr, &nv12_);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder NV12 texture create failed hr=0x%08X", static_cast<unsigned>(hr));
            return false;
        }
        D3D11_VIDEO_PROCESSOR_OUTPUT_VIEW_DESC view{};
        view.ViewDimension = D3D11_VPOV_DIMENSION_TEXTURE2D;
        hr = videoDevice_->CreateVideoProcessorOutputView(nv12_, enumerator_, &view, &outputView_);
        if (FAILED(hr)) {
            KIV_LOG("GPU recorder NV12 output view create failed hr=0x%08X", static_cast<unsigned>(hr));
            return false;
        }
        return true;
    }

    HRESULT WriteBuffer(DWORD stream, IMFMediaBuffer* buffer, int64_t time, int64_t duration) {
        IMFSample* sample = nullptr;
        HRESULT hr = MFCreateSample(&sample);
        if (SUCCEEDED(hr)) hr = sample->AddBuffer(buffer);
        if (SUCCEEDED(hr)) hr = sample->SetSampleTime(time);
        if (SUCCEEDED(hr)) hr = sample->SetSampleDuration(duration);
        if (SUCCEEDED(hr)) hr = writer_->WriteSample(stream, sample);
        ReleaseCom(sample);
        return hr;
    }

    void ReleaseAll() {
        ReleaseCom(staging_);
        ReleaseCom(outputView_);
        ReleaseCom(nv12_);
        ReleaseCom(processor_);
        ReleaseCom(enumerator_);
        ReleaseCom(videoContext_);
        ReleaseCom(videoDevice_);
        ReleaseCom(writer_);
        ReleaseCom(manager_);
        ReleaseCom(context_);
        ReleaseCom(device_);
    }

    ID3D11Device* device_ = nullptr;
    ID3D11DeviceContext* context_ = nullptr;
    IMFDXGIDeviceManager* manager_ = nullptr;
    UINT resetToken_ = 0;
    IMFSinkWriter* writer_ = nullptr;
    bool writing_ = false;
    DWORD videoStream_ = 0;
    DWORD audioStream_ = 0;
    ID3D11VideoDevice* videoDevice_ = nullptr;
    ID3D11VideoContext* videoContext_ = nullptr;
    ID3D11VideoProcessorEnumerator* enumerator_ = nullptr;
    ID3D11VideoProcessor* processor_ = nullptr;
    ID3D11Texture2D* nv12_ = nullptr;
    ID3D11VideoProcessorOutputView* outputView_ = nullptr;
    ID3D11Texture2D* staging_ = nullptr;
    int32_t width_ = 0;
    int32_t height_ = 0;
    std::vector<uint8_t> tight_;
};

}  // namespace

std::unique_ptr<GpuRecordSink> CreateGpuRecordSink() { return std::make_unique<MfGpuRecordSink>(); }

}  // namespace kiv
