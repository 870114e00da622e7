// The seam between the recorder and the platform encoder that turns NV12
// frames and 16-bit PCM into an H.264/AAC MP4 file (the Media Foundation
// sink writer on Windows). The encoder does not log: it reports which step
// failed with the platform result and the recorder writes the log line.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>

#include "kivcapture.h"

namespace kiv {

struct VideoEncoderSettings {
    const KivWChar* file = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t fps = 30;
    int32_t bitrate = 8000000;
    bool audio = false;
    int32_t sampleRate = 48000;
    int32_t channels = 2;
};

enum class EncoderOpenStep {
    kNone,           // opened
    kCreateWriter,   // the writer for the file could not be made
    kAddStream,      // the H.264 output stream was refused
    kSetInputType,   // the NV12 input type was refused
    kBeginWriting,
};

struct EncoderOpenReport {
    EncoderOpenStep failedStep = EncoderOpenStep::kNone;
    uint32_t hr = 0;
    // Audio is optional: a refused audio stream leaves the file without it.
    bool audioReady = false;
    uint32_t audioHr = 0;
};

struct EncoderFinalizeReport {
    uint32_t hr = 0;
    uint64_t fileBytes = 0;  // size of the finished file, 0 when unknown
};

class VideoEncoder {
public:
    virtual ~VideoEncoder() = default;

    // Creates the file and its streams. On failure everything made so far
    // is released and the encoder stays closed.
    virtual EncoderOpenReport Open(const VideoEncoderSettings& settings) = 0;
    virtual bool IsOpen() const = 0;

    // One NV12 picture of the opened size at `time` for `duration` (100 ns
    // units). Returns 0 or the platform result.
    virtual uint32_t WriteVideo(const uint8_t* nv12, size_t bytes, int64_t time, int64_t duration) = 0;
    // Interleaved 16-bit PCM. Returns 0 or the platform result.
    virtual uint32_t WriteAudio(const uint8_t* pcm, size_t bytes, int64_t time, int64_t duration) = 0;

    // Finishes and closes the file; the encoder can be opened again.
    virtual EncoderFinalizeReport Finalize() = 0;
};

// The platform's encoder. Builds without one return an encoder whose Open
// fails at the writer-creation step.
std::unique_ptr<VideoEncoder> CreatePlatformVideoEncoder();

}  // namespace kiv
