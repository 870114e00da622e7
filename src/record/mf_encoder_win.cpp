// The Media Foundation sink writer behind the recorder's encoder seam: NV12
// in, H.264 out, with an optional PCM-in/AAC-out audio stream.
#include <windows.h>

#include <mfapi.h>
#include <mfidl.h>
#include <mfreadwrite.h>

#include <cstring>
#include <string>

#include "mf_sink_writer_hook_win.h"
#include "video_encoder.h"

namespace kiv {

namespace {

SinkWriterFactory g_sinkWriterFactory = nullptr;

HRESULT CreateSinkWriter(const wchar_t* url, IMFAttributes* attributes, IMFSinkWriter** writer) {
    if (g_sinkWriterFactory) return g_sinkWriterFactory(url, attributes, writer);
    return MFCreateSinkWriterFromURL(url, nullptr, attributes, writer);
}

template <class T>
void SafeRelease(T*& p) {
    if (p) {
        p->Release();
        p = nullptr;
    }
}

uint32_t Hr(HRESULT hr) { return static_cast<uint32_t>(hr); }

UINT64 PackPair(uint32_t high, uint32_t low) { return (static_cast<UINT64>(high) << 32) | low; }

HRESULT MakeVideoType(const VideoEncoderSettings& s, bool encoded, IMFMediaType** out) {
    IMFMediaType* type = nullptr;
    HRESULT hr = MFCreateMediaType(&type);
    if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
    if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_SUBTYPE, encoded ? MFVideoFormat_H264 : MFVideoFormat_NV12);
    if (SUCCEEDED(hr) && encoded) hr = type->SetUINT32(MF_MT_AVG_BITRATE, static_cast<UINT32>(s.bitrate));
    if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_INTERLACE_MODE, 2);  // progressive
    if (SUCCEEDED(hr)) {
        hr = type->SetUINT64(MF_MT_FRAME_SIZE, PackPair(static_cast<uint32_t>(s.width), static_cast<uint32_t>(s.height)));
    }
    if (SUCCEEDED(hr)) hr = type->SetUINT64(MF_MT_FRAME_RATE, PackPair(static_cast<uint32_t>(s.fps), 1));
    if (SUCCEEDED(hr)) hr = type->SetUINT64(MF_MT_PIXEL_ASPECT_RATIO, PackPair(1, 1));
    if (FAILED(hr)) SafeRelease(type);
    *out = type;
    return hr;
}

HRESULT MakeAudioType(const VideoEncoderSettings& s, bool encoded, IMFMediaType** out) {
    IMFMediaType* type = nullptr;
    HRESULT hr = MFCreateMediaType(&type);
    const UINT32 rate = static_cast<UINT32>(s.sampleRate);
    const UINT32 channels = static_cast<UINT32>(s.channels);
    if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio);
    if (SUCCEEDED(hr)) hr = type->SetGUID(MF_MT_SUBTYPE, encoded ? MFAudioFormat_AAC : MFAudioFormat_PCM);
    if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_AUDIO_BITS_PER_SAMPLE, 16);
    if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, rate);
    if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_AUDIO_NUM_CHANNELS, channels);
    if (encoded) {
        if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, 16000);
    } else {
        if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_AUDIO_BLOCK_ALIGNMENT, channels * 2);
        if (SUCCEEDED(hr)) hr = type->SetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, channels * rate * 2);
    }
    if (FAILED(hr)) SafeRelease(type);
    *out = type;
    return hr;
}

class SinkWriterEncoder : public VideoEncoder {
public:
    ~SinkWriterEncoder() override {
        if (writer_) Finalize();
    }

    EncoderOpenReport Open(const VideoEncoderSettings& s) override {
        EncoderOpenReport report;
        if (writer_) return report;
        if (!s.file) return Fail(&report, EncoderOpenStep::kCreateWriter, E_INVALIDARG);

        IMFAttributes* attributes = nullptr;
        HRESULT hr = MFCreateAttributes(&attributes, 4);
        if (SUCCEEDED(hr)) hr = attributes->SetUINT32(MF_READWRITE_ENABLE_HARDWARE_TRANSFORMS, TRUE);
        if (SUCCEEDED(hr)) hr = attributes->SetUINT32(MF_SINK_WRITER_DISABLE_THROTTLING, TRUE);
        if (SUCCEEDED(hr)) hr = CreateSinkWriter(s.file, attributes, &writer_);
        SafeRelease(attributes);
        if (FAILED(hr)) return Fail(&report, EncoderOpenStep::kCreateWriter, hr);

        IMFMediaType* type = nullptr;
        hr = MakeVideoType(s, true, &type);
        if (SUCCEEDED(hr)) hr = writer_->AddStream(type, &videoStream_);
        SafeRelease(type);
        if (FAILED(hr)) return Fail(&report, EncoderOpenStep::kAddStream, hr);

        hr = MakeVideoType(s, false, &type);
        if (SUCCEEDED(hr)) hr = writer_->SetInputMediaType(videoStream_, type, nullptr);
        SafeRelease(type);
        if (FAILED(hr)) return Fail(&report, EncoderOpenStep::kSetInputType, hr);

        if (s.audio) {
            // A refused audio stream leaves a video-only file.
            hr = MakeAudioType(s, true, &type);
            if (SUCCEEDED(hr)) hr = writer_->AddStream(type, &audioStream_);
            SafeRelease(type);
            if (SUCCEEDED(hr)) hr = MakeAudioType(s, false, &type);
            if (SUCCEEDED(hr)) hr = writer_->SetInputMediaType(audioStream_, type, nullptr);
            SafeRelease(type);
            report.audioReady = SUCCEEDED(hr);
            report.audioHr = Hr(hr);
        }
        audioReady_ = report.audioReady;

        hr = writer_->BeginWriting();
        if (FAILED(hr)) return Fail(&report, EncoderOpenStep::kBeginWriting, hr);
        file_ = s.file;
        return report;
    }

    bool IsOpen() const override { return writer_ != nullptr; }

    uint32_t WriteVideo(const uint8_t* nv12, size_t bytes, int64_t time, int64_t duration) override {
        if (!writer_) return Hr(E_UNEXPECTED);
        return Hr(WriteBytes(videoStream_, nv12, bytes, time, duration));
    }

    uint32_t WriteAudio(const uint8_t* pcm, size_t bytes, int64_t time, int64_t duration) override {
        if (!writer_ || !audioReady_) return Hr(E_UNEXPECTED);
        return Hr(WriteBytes(audioStream_, pcm, bytes, time, duration));
    }

    EncoderFinalizeReport Finalize() override {
        EncoderFinalizeReport report;
        if (!writer_) return report;
        report.hr = Hr(writer_->Finalize());
        SafeRelease(writer_);
        audioReady_ = false;
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!file_.empty() && GetFileAttributesExW(file_.c_str(), GetFileExInfoStandard, &data)) {
            report.fileBytes = (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
        }
        file_.clear();
        return report;
    }

private:
    EncoderOpenReport Fail(EncoderOpenReport* report, EncoderOpenStep step, HRESULT hr) {
        SafeRelease(writer_);
        audioReady_ = false;
        report->failedStep = step;
        report->hr = Hr(hr);
        report->audioReady = false;
        return *report;
    }

    HRESULT WriteBytes(DWORD stream, const uint8_t* data, size_t bytes, int64_t time, int64_t duration) {
        IMFMediaBuffer* buffer = nullptr;
        IMFSample* sample = nullptr;
        HRESULT hr = MFCreateMemoryBuffer(static_cast<DWORD>(bytes), &buffer);
        BYTE* dst = nullptr;
        if (SUCCEEDED(hr)) hr = buffer->Lock(&dst, nullptr, nullptr);
        if (SUCCEEDED(hr)) {
            std::memcpy(dst, data, bytes);
            buffer->Unlock();
            hr = buffer->SetCurrentLength(static_cast<DWORD>(bytes));
        }
        if (SUCCEEDED(hr)) hr = MFCreateSample(&sample);
        if (SUCCEEDED(hr)) hr = sample->AddBuffer(buffer);
        if (SUCCEEDED(hr)) hr = sample->SetSampleTime(time);
        if (SUCCEEDED(hr)) hr = sample->SetSampleDuration(duration);
        if (SUCCEEDED(hr)) hr = writer_->WriteSample(stream, sample);
        SafeRelease(sample);
        SafeRelease(buffer);
        return hr;
    }

    IMFSinkWriter* writer_ = nullptr;
    DWORD videoStream_ = 0;
    DWORD audioStream_ = 0;
    bool audioReady_ = false;
    std::wstring file_;
};

}  // namespace

void SetSinkWriterFactory(SinkWriterFactory factory) { g_sinkWriterFactory = factory; }

std::unique_ptr<VideoEncoder> CreatePlatformVideoEncoder() { return std::make_unique<SinkWriterEncoder>(); }

}  // namespace kiv
