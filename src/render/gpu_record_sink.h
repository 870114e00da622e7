// The seam between the GPU recorder's rules and the platform objects of one
// recording (on Windows: the sink writer on a DXGI device manager and the
// Direct3D 11 video processor that turns the final texture into NV12).
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "kivcapture.h"

namespace kiv {

// A record request with its defaults applied.
struct GpuRecordSettings {
    std::basic_string<KivWChar> file;
    int32_t fps = 30;
    int32_t bitrate = 0;
    bool audio = false;
    int32_t sampleRate = 48000;
    int32_t channels = 2;
    int32_t audioBitrate = 128000;
};

GpuRecordSettings GpuRecordSettingsFrom(const KivGpuRecordConfig& request);

class GpuRecordSink {
public:
    virtual ~GpuRecordSink() = default;
    // Makes the writer with its H.264 stream (and the AAC stream when
    // settings.audio is set), starts writing and prepares the NV12 conversion
    // for width x height on the render device. An audio stream that cannot be
    // set up leaves *audioReady false without failing. 0, or -1 after logging
    // the failed call; the caller then destroys the sink.
    virtual int32_t Open(void* device, const GpuRecordSettings& settings, int32_t width, int32_t height,
                         bool* audioReady) = 0;
    // The final texture into the NV12 texture; 0 or -1 (logged).
    virtual int32_t Convert(void* finalTexture) = 0;
    // Writes the NV12 texture as a sample without copying it; the platform
    // result (0 for success).
    virtual uint32_t WriteVideoZeroCopy(int64_t time, int64_t duration) = 0;
    // Writes it through a CPU copy; 0 or -1 (logged).
    virtual int32_t WriteVideoCopied(int64_t time, int64_t duration) = 0;
    // One PCM sample on the audio stream; the platform result.
    virtual uint32_t WriteAudio(const uint8_t* data, uint32_t bytes, int64_t time, int64_t duration) = 0;
    // Closes the file properly.
    virtual void Finalize() = 0;
};

// The platform's sink; null where recording is not possible.
std::unique_ptr<GpuRecordSink> CreateGpuRecordSink();

}  // namespace kiv
