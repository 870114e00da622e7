#include "audio_fakes.h"

#include <chrono>
#include <thread>

#include "test_support.h"

namespace audiotest {

using kiv::CaptureOpenReport;
using kiv::RenderOpenReport;

void FreshLog() {
    KIV_EnableLog(0);
    KIV_EnableLog(1);
}

std::vector<std::string> LogTexts() {
    std::vector<std::string> texts;
    for (const kivtest::LogMessage& m : kivtest::LogMessages(kivtest::LibraryLog())) texts.push_back(m.text);
    return texts;
}

std::vector<std::string> LogLinesStartingWith(const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& t : LogTexts())
        if (t.compare(0, prefix.size(), prefix) == 0) found.push_back(t);
    return found;
}

bool CaptureScript::WaitDrained() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (bursts.empty()) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // The capture thread waits again only once the last burst is handled.
    const int seen = waits.load();
    while (std::chrono::steady_clock::now() < deadline) {
        if (waits.load() > seen) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

namespace {

class ScriptedCaptureEndpoint : public kiv::AudioCaptureEndpoint {
public:
    explicit ScriptedCaptureEndpoint(std::shared_ptr<CaptureScript> s) : s_(std::move(s)) {}
    uint32_t EnterThread() override { return 0; }
    void LeaveThread() override {}
    CaptureOpenReport Open(int32_t) override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        return s_->open;
    }
    uint32_t Activate() override { return Result("Activate"); }
    uint32_t GetMixFormat(kiv::AudioMixFormat* out) override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        *out = s_->mix;
        return s_->failAt == "GetMixFormat" ? s_->failHr : 0;
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
        packet->data = p.bytes.empty() ? nullptr : p.bytes.data();
        packet->frames = p.frames;
        packet->silent = p.silent;
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
    uint64_t TickMs() override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        return s_->tick += s_->tickStep;
    }

private:
    uint32_t Result(const char* call) {
        std::lock_guard<std::mutex> lock(s_->mutex);
        return s_->failAt == call ? s_->failHr : 0;
    }
    std::shared_ptr<CaptureScript> s_;
    std::vector<CaptureScript::Packet> current_;
};

class StandInRenderEndpoint : public kiv::AudioRenderEndpoint {
public:
    explicit StandInRenderEndpoint(std::shared_ptr<RenderScript> s) : s_(std::move(s)) {}
    RenderOpenReport OpenDevice() override {
        RenderOpenReport r;
        if (s_->failStep >= kiv::RenderOpenStep::kCreateEnumerator && s_->failStep <= kiv::RenderOpenStep::kActivate) {
            r.failedStep = s_->failStep;
            r.hr = s_->failHr;
            return r;
        }
        r.mixKnown = !s_->mixFails;
        r.mixHr = s_->mixFails ? 0x80004005 : 0;
        r.mix = kiv::AudioMixFormat{44100, 2, 32, 8, 0xFFFE, kiv::AudioSampleKind::kFloat};
        return r;
    }
    RenderOpenReport OpenClient(const kiv::RenderSourceFormat& source) override {
        RenderOpenReport r;
        r.initializeFlags = 0x88000000;
        r.bufferFrames = s_->bufferFrames;
        if (s_->failStep > kiv::RenderOpenStep::kActivate) {
            r.failedStep = s_->failStep;
            r.hr = s_->failHr;
            return r;
        }
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
        const bool was = started_;
        started_ = false;
        return was;
    }
    uint64_t TickMs() override { return s_->tick; }

private:
    std::shared_ptr<RenderScript> s_;
    kiv::RenderSourceFormat format_;
    std::vector<uint8_t> buffer_;
    bool started_ = false;
};

}  // namespace

kiv::CaptureEndpointFactory ScriptedCapture(std::shared_ptr<CaptureScript> script) {
    script->open.count = 1;
    return [script] { return std::make_unique<ScriptedCaptureEndpoint>(script); };
}

kiv::RenderEndpointFactory StandInRender(std::shared_ptr<RenderScript> script) {
    return [script] { return std::make_unique<StandInRenderEndpoint>(script); };
}

}  // namespace audiotest
