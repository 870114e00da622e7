// Records what the render port draws: its final texture, frame by frame, with
// counted time stamps, plus an optional PCM track. Everything except Armed()
// runs under the render lock.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "gpu_record_sink.h"

namespace kiv {

using GpuRecordSinkFactory = std::function<std::unique_ptr<GpuRecordSink>()>;

class GpuRecorder {
public:
    // Null factory: the platform's sink.
    explicit GpuRecorder(GpuRecordSinkFactory factory = nullptr);
    ~GpuRecorder();

    // -2 for an empty file name. Already armed: nothing changes. The writer
    // is made with the first submitted frame, when the size is known.
    int32_t Arm(const KivGpuRecordConfig& request);
    // Finalises and releases the recording, back to idle.
    void Stop();
    bool Armed() const { return armed_.load(std::memory_order_acquire); }

    // One final frame; 0 when written (or when not armed), -1 on failure.
    int32_t SubmitFrame(void* device, void* finalTexture, int32_t width, int32_t height);
    // One PCM frame; dropped (0) unless it can go into the audio stream.
    int32_t WriteAudio(const KivAudioFrame& frame);

    int64_t FrameDuration() const { return frameDuration_; }

private:
    void Release();

    GpuRecordSinkFactory factory_;
    std::atomic<bool> armed_{false};
    GpuRecordSettings settings_;
    int64_t frameDuration_ = 333333;
    int64_t nextVideoTime_ = 0;
    int64_t nextAudioTime_ = 0;
    int64_t audioFrames_ = 0;
    bool copyFallback_ = false;
    bool mismatchLogged_ = false;
    bool audioReady_ = false;
    std::unique_ptr<GpuRecordSink> sink_;
    void* device_ = nullptr;
};

}  // namespace kiv
