// AAC-LC encoder for the audio track of the pass-through MP4 writer: wraps a
// Media Foundation audio encoder transform found at run time. Builds without
// such a transform (the native build) report that no encoder exists, and the
// recording goes on without audio.
//
// The encoder does not log. Its caller (the recorder, under its port lock)
// logs from the reports below:
//   kEnumFailed      -> "AAC encoder MFTEnumEx failed hr=0x%08X count=%u"          (hr, count)
//   kActivateFailed  -> "AAC encoder ActivateObject failed hr=0x%08X"              (hr)
//   kConfigureFailed -> "AAC encoder ConfigureTypes failed hr=0x%08X sr=%d ch=%d bitrate=%d"
//   kReady           -> "AAC encoder ready sr=%d ch=%d bitrate=%d asc=%02X%02X outBuf=%u provides=%d"
// and on any failure "Raw H264 custom MP4 AAC encoder init failed sr=%d ch=%d".
#pragma once
#include <cstddef>
#include <cstdint>

namespace kiv {

// Receives each encoded access unit; the bytes are valid during the call.
class AacSink {
public:
    virtual ~AacSink() = default;
    virtual void OnAccessUnit(const uint8_t* data, size_t size, int64_t time100ns, int64_t duration100ns) = 0;
};

enum class AacInitStage {
    kNone,             // Initialize not called yet
    kBadFormat,        // sample rate or channels below 1
    kEnumFailed,       // no transform found (or the search failed)
    kActivateFailed,
    kConfigureFailed,
    kStreamStartFailed,
    kReady,
};

struct AacInitReport {
    AacInitStage stage = AacInitStage::kNone;
    uint32_t hr = 0;     // platform result of the failed call
    uint32_t count = 0;  // transforms found by the search
    uint32_t outputBufferSize = 0;
    bool providesSamples = false;
};

class AacEncoder {
public:
    static constexpr int32_t kBitRate = 128000;
    static constexpr uint32_t kMinOutputBuffer = 16384;
    static constexpr uint32_t kNeedMoreInput = 0xC00D6D72u;  // MF_E_TRANSFORM_NEED_MORE_INPUT
    static constexpr uint32_t kStreamChange = 0xC00D6D61u;   // MF_E_TRANSFORM_STREAM_CHANGE

    AacEncoder();
    ~AacEncoder();  // Release()
    AacEncoder(const AacEncoder&) = delete;
    AacEncoder& operator=(const AacEncoder&) = delete;

    // Tears down a previous transform, then finds, activates and configures
    // one for 16-bit PCM at this rate and channel count. True when ready.
    bool Initialize(int32_t sampleRate, int32_t channels);
    // The same with a given transform (an IMFTransform*, which the encoder
    // references) instead of the search: lets tests drive the set-up and the
    // sample pump with a stand-in. Builds without Media Foundation return false.
    bool InitializeWithTransform(void* transform, int32_t sampleRate, int32_t channels);
    bool Ready() const { return ready_; }
    const AacInitReport& InitReport() const { return report_; }

    // Feeds one buffer of interleaved 16-bit PCM stamped `time100ns` and hands
    // every access unit that comes out to `sink`. Returns 0 or the failing
    // platform result (for "Raw H264 custom MP4 AAC encode failed hr=0x%08X bytes=%d").
    uint32_t Encode(const uint8_t* pcm, size_t bytes, int64_t time100ns, AacSink* sink);
    // Asks the transform for what it still holds (end of a file). Returns 0 or
    // the failing result (for "Raw H264 custom MP4 AAC drain failed hr=0x%08X").
    uint32_t Drain(AacSink* sink);
    // Ends the stream and releases the transform. Safe to call repeatedly.
    void Release();

    int32_t SampleRate() const { return sampleRate_; }
    int32_t Channels() const { return channels_; }
    int32_t BitRate() const { return kBitRate; }
    const uint8_t* AudioSpecificConfig() const { return asc_; }

    // Output buffer size rule: the reported size, never under 16384.
    static uint32_t OutputBufferSize(uint32_t reported);

private:
    bool BeginInitialize(int32_t sampleRate, int32_t channels);
    bool FinishInitialize();

    struct Platform;  // the transform and its stream ids; per build
    Platform* platform_ = nullptr;
    bool ready_ = false;
    int32_t sampleRate_ = 0;
    int32_t channels_ = 0;
    uint8_t asc_[2] = {0, 0};
    AacInitReport report_;
};

}  // namespace kiv
