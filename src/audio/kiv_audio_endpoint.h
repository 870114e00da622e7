// The seam between the audio ports and the system's audio endpoints. The
// ports keep all logic and every log line; an endpoint object only makes the
// platform calls and reports their results (hr values, or Win32 error codes
// where the call reports one). Windows implements it with Core Audio; the
// native build has no endpoints.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>

#include "kiv_audio_convert.h"

namespace kiv {

// Where opening a capture endpoint stopped, in the order of the steps.
enum class CaptureOpenStep {
    kNone,
    kCreateEnumerator,
    kEnumEndpoints,
    kGetCount,
    kIndexInvalid,
    kItem,
};

struct CaptureOpenReport {
    CaptureOpenStep failedStep = CaptureOpenStep::kNone;
    uint32_t hr = 0;
    uint32_t count = 0;  // valid once the count was had
};

enum class WaitResult { kSignalled, kTimeout, kFailed };

struct CapturePacket {
    const uint8_t* data = nullptr;
    uint32_t frames = 0;
    bool silent = false;
};

// One capture endpoint, used by the capture thread only.
class AudioCaptureEndpoint {
public:
    virtual ~AudioCaptureEndpoint() = default;
    // Joins the multithreaded apartment; returns the result to log.
    virtual uint32_t EnterThread() = 0;
    virtual void LeaveThread() = 0;
    virtual CaptureOpenReport Open(int32_t index) = 0;
    virtual uint32_t Activate() = 0;
    virtual uint32_t GetMixFormat(AudioMixFormat* out) = 0;
    virtual uint32_t MakeEvent() = 0;  // a Win32 error code
    // Shared mode, event callback, one second of buffer, the mix format.
    virtual uint32_t Initialize() = 0;
    virtual uint32_t SetEventHandle() = 0;
    virtual uint32_t GetCaptureService() = 0;
    virtual uint32_t StartClient() = 0;
    virtual WaitResult Wait(uint32_t milliseconds, uint32_t* error) = 0;
    virtual uint32_t NextPacketSize(uint32_t* frames) = 0;
    virtual uint32_t GetBuffer(CapturePacket* packet) = 0;
    virtual uint32_t ReleaseBuffer(uint32_t frames) = 0;
    virtual uint32_t StopClient() = 0;
    // Releases everything opened so far.
    virtual void Close() = 0;
    // Millisecond tick count for the statistics interval.
    virtual uint64_t TickMs() = 0;
};

using CaptureEndpointFactory = std::function<std::unique_ptr<AudioCaptureEndpoint>()>;
std::unique_ptr<AudioCaptureEndpoint> MakeSystemCaptureEndpoint();

// The format a render endpoint is opened with (16-bit PCM; kind unused).
using RenderSourceFormat = AudioMixFormat;

enum class RenderOpenStep {
    kNone,
    kCreateEnumerator,
    kDefaultEndpoint,
    kActivate,
    kAllocFormat,
    kInitialize,
    kGetBufferSize,
    kGetService,
    kStart,
};

struct RenderOpenReport {
    RenderOpenStep failedStep = RenderOpenStep::kNone;
    uint32_t hr = 0;
    bool mixKnown = false;  // false: GetMixFormat failed with mixHr
    uint32_t mixHr = 0;
    AudioMixFormat mix;
    uint32_t bufferFrames = 0;
    uint32_t initializeFlags = 0;
};

// The default playback endpoint, opened with a 16-bit PCM source format that
// the audio engine converts to its mix format.
class AudioRenderEndpoint {
public:
    virtual ~AudioRenderEndpoint() = default;
    // Steps up to the format block, then the rest; a failure stops there and
    // leaves what was opened for Close.
    virtual RenderOpenReport OpenDevice() = 0;
    virtual RenderOpenReport OpenClient(const RenderSourceFormat& source) = 0;
    virtual uint32_t GetCurrentPadding(uint32_t* frames) = 0;
    virtual uint32_t GetBuffer(uint32_t frames, uint8_t** data) = 0;
    virtual uint32_t ReleaseBuffer(uint32_t frames, bool silent) = 0;
    // Stops a started client (its result in *stopHr, returns false when it
    // was not started) and releases everything.
    virtual bool Close(uint32_t* stopHr) = 0;
    virtual uint64_t TickMs() = 0;
};

using RenderEndpointFactory = std::function<std::unique_ptr<AudioRenderEndpoint>()>;
std::unique_ptr<AudioRenderEndpoint> MakeSystemRenderEndpoint();

}  // namespace kiv
