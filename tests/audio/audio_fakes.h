// Scripted stand-ins for the audio endpoints and log helpers of the audio port tests.
#pragma once
#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "audio/kiv_audio_endpoint.h"
#include "test_support.h"

namespace audiotest {

// Restarts the library log so a test sees only its own lines.
inline void FreshLog() {
    KIV_EnableLog(0);
    KIV_EnableLog(1);
}
inline std::vector<std::string> LogTexts() {
    std::vector<std::string> texts;
    for (const kivtest::LogMessage& m : kivtest::LogMessages(kivtest::LibraryLog())) texts.push_back(m.text);
    return texts;
}
inline std::vector<std::string> Lines(const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& t : LogTexts())
        if (t.compare(0, prefix.size(), prefix) == 0) found.push_back(t);
    return found;
}
template <class Pred> bool WaitFor(Pred done, int seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// What a scripted capture endpoint does: the test fills it before Start, the
// capture thread reads it under `mutex`.
struct CaptureScript {
    struct Packet {
        std::vector<uint8_t> bytes;  // empty: a null data pointer
        uint32_t frames;
        bool silent;
    };
    std::mutex mutex;
    kiv::CaptureOpenReport open;
    std::string failAt;  // name of the call that fails with failHr
    uint32_t failHr = 0x88890004;
    kiv::AudioMixFormat mix{48000, 2, 16, 4, 1, kiv::AudioSampleKind::kInteger};
    std::deque<std::vector<Packet>> bursts;  // one per signalled wait
    uint64_t tick = 0, tickStep = 0;         // tickStep is added at every TickMs call
    std::atomic<int> closes{0}, waits{0};
    bool Empty() {
        std::lock_guard<std::mutex> lock(mutex);
        return bursts.empty();
    }
    // Every burst handled and the thread back in its wait.
    bool WaitDrained() {
        if (!WaitFor([&] { return Empty(); })) return false;
        const int seen = waits.load();
        return WaitFor([&] { return waits.load() > seen; });
    }
};

class ScriptedCapture : public kiv::AudioCaptureEndpoint {
public:
    explicit ScriptedCapture(std::shared_ptr<CaptureScript> s) : s_(std::move(s)) {}
    static kiv::CaptureEndpointFactory Factory(std::shared_ptr<CaptureScript> s) {
        s->open.count = 1;
        return [s] { return std::make_unique<ScriptedCapture>(s); };
    }
    uint32_t EnterThread() override { return 0; }
    void LeaveThread() override {}
    kiv::CaptureOpenReport Open(int32_t) override { return Locked([&] { return s_->open; }); }
    uint32_t Activate() override { return Result("Activate"); }
    uint32_t GetMixFormat(kiv::AudioMixFormat* out) override {
        *out = Locked([&] { return s_->mix; });
        return Result("GetMixFormat");
    }
    uint32_t MakeEvent() override { return Result("MakeEvent"); }
    uint32_t Initialize() override { return Result("Initialize"); }
    uint32_t SetEventHandle() override { return Result("SetEventHandle"); }
    uint32_t GetCaptureService() override { return Result("GetCaptureService"); }
    uint32_t StartClient() override { return Result("StartClient"); }
    kiv::WaitResult Wait(uint32_t, uint32_t* error) override {
        ++s_->waits;
        {
            std::lock_guard<std::mutex> lock(s_->mutex);
            if (s_->failAt == "Wait") {
                *error = s_->failHr;
                return kiv::WaitResult::kFailed;
            }
            if (!s_->bursts.empty()) {
                current_ = s_->bursts.front();
                s_->bursts.pop_front();
                return kiv::WaitResult::kSignalled;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return kiv::WaitResult::kTimeout;
    }
    uint32_t NextPacketSize(uint32_t* frames) override {
        *frames = current_.empty() ? 0 : current_.front().frames;
        return Result("NextPacketSize");
    }
    uint32_t GetBuffer(kiv::CapturePacket* packet) override {
        const uint32_t hr = Result("GetBuffer");
        if (hr != 0) {
            current_.clear();
            return hr;
        }
        const CaptureScript::Packet& p = current_.front();
        *packet = {p.bytes.empty() ? nullptr : p.bytes.data(), p.frames, p.silent};
        return 0;
    }
    uint32_t ReleaseBuffer(uint32_t) override {
        current_.erase(current_.begin());
        const uint32_t hr = Result("ReleaseBuffer");
        if (hr != 0) current_.clear();
        return hr;
    }
    uint32_t StopClient() override { return 0; }
    void Close() override { ++s_->closes; }
    uint64_t TickMs() override { return Locked([&] { return s_->tick += s_->tickStep; }); }

private:
    template <class F> auto Locked(F f) -> decltype(f()) {
        std::lock_guard<std::mutex> lock(s_->mutex);
        return f();
    }
    uint32_t Result(const char* call) { return Locked([&] { return s_->failAt == call ? s_->failHr : 0u; }); }
    std::shared_ptr<CaptureScript> s_;
    std::vector<CaptureScript::Packet> current_;
};

// What a stand-in render endpoint reports and what was written into it.
struct RenderScript {
    kiv::RenderOpenStep failStep = kiv::RenderOpenStep::kNone;
    uint32_t failHr = 0x88890008;
    bool mixFails = false;
    uint32_t bufferFrames = 4800, padding = 0, paddingHr = 0, getBufferHr = 0, releaseHr = 0;
    std::vector<kiv::RenderSourceFormat> opens;  // successful ones
    std::vector<uint8_t> written;                // bytes released, in order
    uint32_t silentFrames = 0;                   // frames released flagged silent
    int closes = 0;
    uint64_t tick = 0;
};

class StandInRender : public kiv::AudioRenderEndpoint {
public:
    explicit StandInRender(std::shared_ptr<RenderScript> s) : s_(std::move(s)) {}
    static kiv::RenderEndpointFactory Factory(std::shared_ptr<RenderScript> s) {
        return [s] { return std::make_unique<StandInRender>(s); };
    }
    // Steps up to Activate fail in OpenDevice, the later ones in OpenClient.
    kiv::RenderOpenReport OpenDevice() override {
        kiv::RenderOpenReport r;
        if (s_->failStep >= kiv::RenderOpenStep::kCreateEnumerator && s_->failStep <= kiv::RenderOpenStep::kActivate)
            return Failed(r);
        r.mixKnown = !s_->mixFails;
        r.mixHr = s_->mixFails ? 0x80004005 : 0;
        r.mix = kiv::AudioMixFormat{44100, 2, 32, 8, 0xFFFE, kiv::AudioSampleKind::kFloat};
        return r;
    }
    kiv::RenderOpenReport OpenClient(const kiv::RenderSourceFormat& source) override {
        kiv::RenderOpenReport r;
        r.initializeFlags = 0x88000000;
        r.bufferFrames = s_->bufferFrames;
        if (s_->failStep > kiv::RenderOpenStep::kActivate) return Failed(r);
        s_->opens.push_back(source);
        format_ = source;
        started_ = true;
        return r;
    }
    uint32_t GetCurrentPadding(uint32_t* frames) override {
        *frames = s_->padding;
        return s_->paddingHr;
    }
    uint32_t GetBuffer(uint32_t frames, uint8_t** data) override {
        buffer_.assign(static_cast<size_t>(frames) * format_.blockAlign, 0xEE);
        *data = s_->getBufferHr ? nullptr : buffer_.data();
        return s_->getBufferHr;
    }
    uint32_t ReleaseBuffer(uint32_t frames, bool silent) override {
        if (silent) s_->silentFrames += frames;
        s_->written.insert(s_->written.end(), buffer_.begin(), buffer_.begin() + frames * format_.blockAlign);
        return s_->releaseHr;
    }
    bool Close(uint32_t* stopHr) override {
        ++s_->closes;
        *stopHr = 0;
        return std::exchange(started_, false);
    }
    uint64_t TickMs() override { return s_->tick; }

private:
    kiv::RenderOpenReport Failed(kiv::RenderOpenReport r) {
        r.failedStep = s_->failStep;
        r.hr = s_->failHr;
        return r;
    }
    std::shared_ptr<RenderScript> s_;
    kiv::RenderSourceFormat format_;
    std::vector<uint8_t> buffer_;
    bool started_ = false;
};

}  // namespace audiotest
