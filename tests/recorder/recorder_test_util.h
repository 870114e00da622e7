// Helpers of the recorder tests: a scripted encoder, hand-made access units,
// frames and waiting for the worker.
#pragma once
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "record/recorder_settings.h"
#include "record/video_encoder.h"
#include "test_support.h"

namespace rectest {

// What the scripted encoder was asked to do; shared with the test.
struct EncoderScript {
    struct Video {
        int file;  // index into `files`
        int64_t time, duration;
        uint8_t firstLuma;
    };
    struct Audio {
        int64_t time, duration;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<kiv::RecorderPath> files;
    std::vector<kiv::VideoEncoderSettings> opens;
    std::vector<Video> video;
    std::vector<Audio> audio;
    int finalizes = 0;
    int failOpens = 0;     // the next this many opens fail
    bool hold = false;     // WriteVideo waits while set
    bool holding = false;  // a write is waiting

    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        hold = false;
        changed.notify_all();
    }
    bool WaitHolding() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), [this] { return holding; });
    }
    std::vector<Video> Written() {
        std::lock_guard<std::mutex> lock(mutex);
        return video;
    }
};

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
        return 0;
    }
    uint32_t WriteAudio(const uint8_t*, size_t, int64_t time, int64_t duration) override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        s_->audio.push_back({time, duration});
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

// What the encoded-video callback reports: each packet record (data pointer
// cleared) and all payload bytes in order. Read it once the recorder stopped.
struct PacketLog {
    void* recorder = nullptr;  // when set, asked for its statistics from inside the callback
    std::vector<KivEncodedVideoPacket> packets;
    std::vector<uint8_t> bytes;
    int statsCalls = 0;  // successful ones: the callback runs outside the recorder's lock
    static void KIV_CALL OnPacket(const KivEncodedVideoPacket* packet, void* user) {
        auto* log = static_cast<PacketLog*>(user);
        log->bytes.insert(log->bytes.end(), packet->data, packet->data + packet->size);
        log->packets.push_back(*packet);
        log->packets.back().data = nullptr;
        KivRecorderStats s{};
        if (log->recorder && KIV_GetRecorderStats(log->recorder, &s) == KIV_OK) log->statsCalls++;
    }
};

// Polls `done` until it is true or five seconds have passed.
inline bool WaitUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline KivRecorderStats Stats(void* recorder) {
    KivRecorderStats s{};
    KIV_GetRecorderStats(recorder, &s);
    return s;
}

// An NV12 frame whose every luma byte is `luma`.
struct Nv12Frame {
    kivtest::OwnedFrame f;
    KivVideoFrame& frame = f.frame;
    Nv12Frame(int32_t width, int32_t height, uint8_t luma, int64_t timestamp)
        : f(KIV_PIXEL_FORMAT_NV12, width, height, luma) {
        frame.timestamp = timestamp;
    }
};

// Silent 16-bit PCM: `samples` sample frames of `channels` channels.
struct SilentPcm {
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    SilentPcm(int32_t sampleRate, int32_t channels, size_t samples)
        : bytes(samples * static_cast<size_t>(channels) * 2, 0) {
        frame.data = bytes.data();
        frame.bytes = static_cast<uint32_t>(bytes.size());
        frame.sampleRate = sampleRate;
        frame.channels = channels;
        frame.bitsPerSample = 16;
    }
};

inline KivRecorderConfig Config(const std::string& path) {
    KivRecorderConfig c{};
    const auto wide = kivtest::Wide(path);
    std::copy(wide.begin(), wide.end(), c.filePath);
    return c;
}

// An access unit the writer takes (it does not decode): a key one starts with
// a Baseline SPS (10 bytes) and a PPS (4 bytes); the slice has `body` bytes.
inline std::vector<uint8_t> AccessUnit(bool key, size_t body = 4, uint8_t fill = 0x21) {
    std::vector<uint8_t> au;
    if (key) au = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84, 0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
    for (uint8_t b : {0, 0, 1, key ? 0x65 : 0x41}) au.push_back(b);
    au.insert(au.end(), body, fill);  // no zero bytes: no stray start codes
    return au;
}

}  // namespace rectest
