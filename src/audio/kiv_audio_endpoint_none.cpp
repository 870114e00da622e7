// The native build has no audio endpoints: capture finds an empty list and
// playback finds no default device.
#include <chrono>

#include "kiv_audio_endpoint.h"

namespace kiv {

namespace {

constexpr uint32_t kNotFound = 0x80070490;  // what the system reports without a device

uint64_t SteadyMs() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

class NoCaptureEndpoint : public AudioCaptureEndpoint {
public:
    uint32_t EnterThread() override { return 0; }
    void LeaveThread() override {}
    CaptureOpenReport Open(int32_t) override {
        CaptureOpenReport r;
        r.failedStep = CaptureOpenStep::kIndexInvalid;
        return r;
    }
    uint32_t Activate() override { return kNotFound; }
    uint32_t GetMixFormat(AudioMixFormat*) override { return kNotFound; }
    uint32_t MakeEvent() override { return 1; }
    uint32_t Initialize() override { return kNotFound; }
    uint32_t SetEventHandle() override { return kNotFound; }
    uint32_t GetCaptureService() override { return kNotFound; }
    uint32_t StartClient() override { return kNotFound; }
    WaitResult Wait(uint32_t, uint32_t* error) override {
        *error = 1;
        return WaitResult::kFailed;
    }
    uint32_t NextPacketSize(uint32_t*) override { return kNotFound; }
    uint32_t GetBuffer(CapturePacket*) override { return kNotFound; }
    uint32_t ReleaseBuffer(uint32_t) override { return kNotFound; }
    uint32_t StopClient() override { return 0; }
    void Close() override {}
    uint64_t TickMs() override { return SteadyMs(); }
};

class NoRenderEndpoint : public AudioRenderEndpoint {
public:
    RenderOpenReport OpenDevice() override {
        RenderOpenReport r;
        r.failedStep = RenderOpenStep::kDefaultEndpoint;
        r.hr = kNotFound;
        return r;
    }
    RenderOpenReport OpenClient(const RenderSourceFormat&) override { return OpenDevice(); }
    uint32_t GetCurrentPadding(uint32_t*) override { return kNotFound; }
    uint32_t GetBuffer(uint32_t, uint8_t**) override { return kNotFound; }
    uint32_t ReleaseBuffer(uint32_t, bool) override { return kNotFound; }
    bool Close(uint32_t*) override { return false; }
    uint64_t TickMs() override { return SteadyMs(); }
};

}  // namespace

std::unique_ptr<AudioCaptureEndpoint> MakeSystemCaptureEndpoint() { return std::make_unique<NoCaptureEndpoint>(); }
std::unique_ptr<AudioRenderEndpoint> MakeSystemRenderEndpoint() { return std::make_unique<NoRenderEndpoint>(); }

}  // namespace kiv
