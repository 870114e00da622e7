#include "recorder_test_util.h"

#include <cstdio>
#include <thread>

#include "test_support.h"

namespace rectest {

void EncoderScript::Release() {
    std::lock_guard<std::mutex> lock(mutex);
    hold = false;
    changed.notify_all();
}

bool EncoderScript::WaitHolding() {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(5), [this] { return holding; });
}

namespace {

class ScriptedEncoder : public kiv::VideoEncoder {
public:
    explicit ScriptedEncoder(std::shared_ptr<EncoderScript> script) : s_(std::move(script)) {}

    kiv::EncoderOpenReport Open(const kiv::VideoEncoderSettings& settings) override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        kiv::EncoderOpenReport report;
        if (s_->failOpens > 0) {
            --s_->failOpens;
            report.failedStep = kiv::EncoderOpenStep::kBeginWriting;
            report.hr = 0x80004005u;
            return report;
        }
        s_->files.emplace_back(settings.file);
        s_->opens.push_back(settings);
        s_->opens.back().file = nullptr;
        report.audioReady = settings.audio;
        open_ = true;
        return report;
    }
    bool IsOpen() const override { return open_; }
    uint32_t WriteVideo(const uint8_t* nv12, size_t, int64_t time, int64_t duration) override {
        std::unique_lock<std::mutex> lock(s_->mutex);
        if (s_->hold) {
            s_->holding = true;
            s_->changed.notify_all();
            s_->changed.wait(lock, [this] { return !s_->hold; });
            s_->holding = false;
        }
        s_->video.push_back({static_cast<int>(s_->files.size()) - 1, time, duration, nv12[0]});
        s_->changed.notify_all();
        return 0;
    }
    uint32_t WriteAudio(const uint8_t*, size_t bytes, int64_t time, int64_t duration) override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        s_->audio.push_back({time, duration, bytes});
        return 0;
    }
    kiv::EncoderFinalizeReport Finalize() override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        ++s_->finalizes;
        open_ = false;
        return {};
    }

private:
    std::shared_ptr<EncoderScript> s_;
    bool open_ = false;
};

}  // namespace

std::unique_ptr<kiv::VideoEncoder> MakeScriptedEncoder(std::shared_ptr<EncoderScript> script) {
    return std::make_unique<ScriptedEncoder>(std::move(script));
}

void KIV_CALL PacketLog::OnPacket(const KivEncodedVideoPacket* packet, void* user) {
    auto* log = static_cast<PacketLog*>(user);
    log->bytes.insert(log->bytes.end(), packet->data, packet->data + packet->size);
    log->packets.push_back(*packet);
    log->packets.back().data = nullptr;
    KivRecorderStats s{};
    if (log->recorder && KIV_GetRecorderStats(log->recorder, &s) == KIV_OK) log->statsCalls++;
}

bool WaitUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

KivRecorderStats Stats(void* recorder) {
    KivRecorderStats s{};
    KIV_GetRecorderStats(recorder, &s);
    return s;
}

Nv12Frame::Nv12Frame(int32_t width, int32_t height, uint8_t luma, int64_t timestamp) {
    bytes.assign(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2, 128);
    std::fill(bytes.begin(), bytes.begin() + width * height, luma);
    frame.format = KIV_PIXEL_FORMAT_NV12;
    frame.width = width;
    frame.height = height;
    frame.planes[0] = bytes.data();
    frame.planes[1] = bytes.data() + width * height;
    frame.strides[0] = width;
    frame.strides[1] = width;
    frame.timestamp = timestamp;
}

SilentPcm::SilentPcm(int32_t sampleRate, int32_t channels, size_t samples)
    : bytes(samples * static_cast<size_t>(channels) * 2, 0) {
    frame.data = bytes.data();
    frame.bytes = static_cast<uint32_t>(bytes.size());
    frame.sampleRate = sampleRate;
    frame.channels = channels;
    frame.bitsPerSample = 16;
}

KivRecorderConfig Config(const std::string& path) {
    KivRecorderConfig c{};
    const auto wide = kivtest::Wide(path);
    std::copy(wide.begin(), wide.end(), c.filePath);
    return c;
}

}  // namespace rectest
