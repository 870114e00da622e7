#include "gpu_recorder.h"

#include "kiv_log.h"
#include "processing/kiv_wide_path.h"

namespace kiv {

namespace {
constexpr int64_t kUnitsPerSecond = 10000000;
}

GpuRecordSettings GpuRecordSettingsFrom(const KivGpuRecordConfig& request) {
    GpuRecordSettings s;
    size_t n = 0;
    while (n < sizeof(request.file) / sizeof(request.file[0]) && request.file[n] != 0) ++n;
    s.file.assign(request.file, n);
    s.fps = request.fps < 1 ? 30 : request.fps;
    s.bitrate = request.bitrate;
    s.audio = request.audio != 0;
    s.sampleRate = request.sampleRate < 1 ? 48000 : request.sampleRate;
    s.channels = request.channels < 1 ? 2 : request.channels;
    s.audioBitrate = request.audioBitrate < 1 ? 128000 : request.audioBitrate;
    return s;
}

GpuRecorder::GpuRecorder(GpuRecordSinkFactory factory) : factory_(std::move(factory)) {
    if (!factory_) factory_ = [] { return CreateGpuRecordSink(); };
}

GpuRecorder::~GpuRecorder() { Release(); }

int32_t GpuRecorder::Arm(const KivGpuRecordConfig& request) {
    if (request.file[0] == 0) return KIV_ERROR_INVALID_ARG;
    if (Armed()) return KIV_OK;
    settings_ = GpuRecordSettingsFrom(request);
    frameDuration_ = kUnitsPerSecond / settings_.fps;
    nextVideoTime_ = nextAudioTime_ = audioFrames_ = 0;
    copyFallback_ = mismatchLogged_ = audioReady_ = false;
    armed_.store(true, std::memory_order_release);
    KIV_LOG("GPU FinalFrame recorder armed file=%s fps=%d bitrate=%d audio=%d sr=%d ch=%d",
            Utf16ToUtf8(settings_.file.c_str()).c_str(), settings_.fps, settings_.bitrate, settings_.audio ? 1 : 0,
            settings_.sampleRate, settings_.channels);
    return KIV_OK;
}

void GpuRecorder::Release() {
    if (sink_) sink_->Finalize();
    sink_.reset();
    device_ = nullptr;
    audioReady_ = false;
}

void GpuRecorder::Stop() {
    Release();
    armed_.store(false, std::memory_order_release);
    nextVideoTime_ = nextAudioTime_ = audioFrames_ = 0;
    copyFallback_ = mismatchLogged_ = false;
}

int32_t GpuRecorder::SubmitFrame(void* device, void* finalTexture, int32_t width, int32_t height) {
    if (!Armed()) return KIV_OK;
    if (sink_ && device != device_) {
        // The render device was made anew after a loss: the writer is bound to
        // the old one, so this recording is closed and a new one begins.
        KIV_LOG("GPU recorder render device changed, restart writer");
        Release();
    }
    if (!sink_) {
        std::unique_ptr<GpuRecordSink> sink = factory_();
        if (!sink) return KIV_ERROR_FAILED;
        bool audioReady = false;
        if (sink->Open(device, settings_, width, height, &audioReady) != KIV_OK) return KIV_ERROR_FAILED;
        sink_ = std::move(sink);
        device_ = device;
        audioReady_ = settings_.audio && audioReady;
        if (settings_.audio && !audioReady) settings_.audio = false;
        KIV_LOG("GPU recorder initialized FinalTexture->NV12->MF H264 size=%dx%d fps=%d bitrate=%d audio=%d "
                "dxgi_zero_copy=1",
                width, height, settings_.fps, settings_.bitrate, settings_.audio ? 1 : 0);
    }
    if (sink_->Convert(finalTexture) != KIV_OK) return KIV_ERROR_FAILED;
    if (!copyFallback_) {
        const uint32_t hr = sink_->WriteVideoZeroCopy(nextVideoTime_, frameDuration_);
        if (hr == 0) {
            nextVideoTime_ += frameDuration_;
            return KIV_OK;
        }
        KIV_LOG("GPU recorder DXGI WriteSample failed hr=0x%08X, switch to NV12 staging fallback", hr);
        copyFallback_ = true;
    }
    if (sink_->WriteVideoCopied(nextVideoTime_, frameDuration_) != KIV_OK) return KIV_ERROR_FAILED;
    nextVideoTime_ += frameDuration_;
    return KIV_OK;
}

int32_t GpuRecorder::WriteAudio(const KivAudioFrame& frame) {
    if (!Armed() || !settings_.audio || !audioReady_ || !sink_ || !frame.data || frame.bytes == 0) return KIV_OK;
    ++audioFrames_;
    if (frame.bitsPerSample != 16 || frame.sampleRate != settings_.sampleRate || frame.channels != settings_.channels) {
        if (!mismatchLogged_) {
            KIV_LOG("GPU recorder audio frame mismatch, expect %d Hz %d ch 16-bit, got %d Hz %d ch %d-bit",
                    settings_.sampleRate, settings_.channels, frame.sampleRate, frame.channels, frame.bitsPerSample);
            mismatchLogged_ = true;
        }
        return KIV_OK;
    }
    const int64_t sampleFrames = frame.bytes / (static_cast<uint32_t>(settings_.channels) * 2);
    const int64_t duration = sampleFrames * kUnitsPerSecond / settings_.sampleRate;
    const uint32_t hr = sink_->WriteAudio(frame.data, frame.bytes, nextAudioTime_, duration);
    if (hr != 0) {
        KIV_LOG("GPU recorder WriteAudioSample failed hr=0x%08X", hr);
        return KIV_ERROR_FAILED;
    }
    nextAudioTime_ += duration;
    return KIV_OK;
}

}  // namespace kiv
