// Helpers shared by the recorder tests: a scripted encoder, waiting for the
// worker.
#pragma once
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "record/recorder_settings.h"
#include "record/video_encoder.h"

namespace rectest {

// What the scripted encoder was asked to do; shared with the test.
struct EncoderScript {
    struct Video {
        int file;  // index into `files`
        int64_t time;
        int64_t duration;
        uint8_t firstLuma;
    };
    struct Audio {
        int64_t time;
        int64_t duration;
        size_t bytes;
    };

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<kiv::RecorderPath> files;
    std::vector<kiv::VideoEncoderSettings> opens;
    std::vector<Video> video;
    std::vector<Audio> audio;
    int finalizes = 0;
    int failOpens = 0;      // the next this many opens fail
    bool hold = false;      // WriteVideo waits while set
    bool holding = false;   // a write is waiting

    void Release();
    // Waits until a WriteVideo call is held.
    bool WaitHolding();
};

std::unique_ptr<kiv::VideoEncoder> MakeScriptedEncoder(std::shared_ptr<EncoderScript> script);

// What the encoded-video callback reports: each packet record (data pointer
// cleared) and all payload bytes in order. Read it once the recorder stopped.
struct PacketLog {
    void* recorder = nullptr;  // when set, asked for its statistics from inside the callback
    std::vector<KivEncodedVideoPacket> packets;
    std::vector<uint8_t> bytes;
    int statsCalls = 0;  // successful ones: the callback runs outside the recorder's lock
    static void KIV_CALL OnPacket(const KivEncodedVideoPacket* packet, void* user);
};

// Polls `done` until it is true or five seconds have passed.
bool WaitUntil(const std::function<bool()>& done);

KivRecorderStats Stats(void* recorder);

// An NV12 frame whose every luma byte is `luma`.
struct Nv12Frame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    Nv12Frame(int32_t width, int32_t height, uint8_t luma, int64_t timestamp);
};

// Silent 16-bit PCM: `samples` sample frames of `channels` channels.
struct SilentPcm {
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    SilentPcm(int32_t sampleRate, int32_t channels, size_t samples);
};

KivRecorderConfig Config(const std::string& path);

}  // namespace rectest
