// Helpers of the recorder tests: PCM and access units made by hand, the
// encoded-packet log and waiting for the worker.
#pragma once
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "test_support.h"

namespace rectest {

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
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
}

inline KivRecorderStats Stats(void* recorder) {
    KivRecorderStats s{};
    KIV_GetRecorderStats(recorder, &s);
    return s;
}

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
