// Helpers of the recorder tests: hand-made PCM and access units, the
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

// Every packet record (data cleared) and payload byte the encoded-video callback
// got; `statsCalls` counts statistics read from inside it (outside the lock).
struct PacketLog {
    void* recorder = nullptr;
    std::vector<KivEncodedVideoPacket> packets;
    std::vector<uint8_t> bytes;
    int statsCalls = 0;
    static void KIV_CALL OnPacket(const KivEncodedVideoPacket* packet, void* user) {
        auto* log = static_cast<PacketLog*>(user);
        log->bytes.insert(log->bytes.end(), packet->data, packet->data + packet->size);
        log->packets.push_back(*packet);
        log->packets.back().data = nullptr;
        KivRecorderStats s{};
        if (log->recorder && KIV_GetRecorderStats(log->recorder, &s) == KIV_OK) log->statsCalls++;
    }
};

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

// `samples` sample frames of silent 16-bit PCM.
struct SilentPcm {
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    SilentPcm(int32_t sampleRate, int32_t channels, size_t samples) : bytes(samples * size_t(channels) * 2, 0) {
        frame = {bytes.data(), uint32_t(bytes.size()), sampleRate, channels, 16, 0, 0};
    }
};

inline KivRecorderConfig Config(const std::string& path, int32_t width = 0, int32_t height = 0, int32_t recordFps = 0,
                                int32_t split = 0, uint64_t maxBytes = 0, int32_t seconds = 0, int32_t audio = 0) {
    KivRecorderConfig c{{}, 0, 0, width, height, 0, recordFps, 0, audio, 0, split, uint32_t(maxBytes), uint32_t(maxBytes >> 32), seconds};
    const auto wide = kivtest::Wide(path);
    std::copy(wide.begin(), wide.end(), c.filePath);
    return c;
}

// A key access unit starts with a Baseline SPS (10 bytes) and a PPS (4); the
// slice has `body` bytes, none zero, so no stray start codes.
inline std::vector<uint8_t> AccessUnit(bool key, size_t body = 4, uint8_t fill = 0x21) {
    std::vector<uint8_t> au;
    if (key) au = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84, 0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
    for (uint8_t b : {0, 0, 1, key ? 0x65 : 0x41}) au.push_back(b);
    au.insert(au.end(), body, fill);
    return au;
}

}  // namespace rectest
