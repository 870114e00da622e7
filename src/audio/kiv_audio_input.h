// The audio capture port: one capture thread per started port reads an
// endpoint in shared mode, converts each packet to 16-bit PCM and emits it.
#pragma once
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "../ports/kiv_port_base.h"
#include "kiv_audio_endpoint.h"

class KivAudioInput : public KivPortBase {
public:
    KivAudioInput();
    // Tests hand in a scripted endpoint.
    explicit KivAudioInput(kiv::CaptureEndpointFactory factory);
    ~KivAudioInput() override;

    int32_t Start() override;
    int32_t Stop() override;

    int32_t SetDevice(int32_t index);
    int32_t SetPcm(int32_t rate, int32_t channels, int32_t bits);

    uint64_t SampleCursor() const { return sampleCursor_.load(std::memory_order_acquire); }

private:
    struct Counters {
        uint64_t packets = 0, frames = 0, bytes = 0, silentPackets = 0, errors = 0;
    };

    void CaptureMain();
    // Opens the client; false when a step failed (already logged).
    bool OpenClient(kiv::AudioCaptureEndpoint& endpoint, int32_t deviceIndex, int32_t channels,
                    kiv::AudioMixFormat* mix);
    void CaptureLoop(kiv::AudioCaptureEndpoint& endpoint, const kiv::AudioMixFormat& mix, int32_t channels,
                     Counters* counters);
    // False ends the drain.
    bool Drain(kiv::AudioCaptureEndpoint& endpoint, const kiv::AudioMixFormat& mix, int32_t channels,
               Counters* counters, int32_t* reportPeak);
    void HandlePacket(const kiv::CapturePacket& packet, const kiv::AudioMixFormat& mix, int32_t channels,
                      Counters* counters, int32_t* reportPeak);

    kiv::CaptureEndpointFactory factory_;
    std::atomic<int32_t> deviceIndex_{0};
    std::atomic<int32_t> requestedRate_{48000};
    std::atomic<int32_t> requestedChannels_{2};
    std::atomic<int32_t> requestedBits_{16};
    std::atomic<int32_t> running_{0};
    std::thread thread_;
    std::atomic<uint64_t> sampleCursor_{0};  // written by the capture thread only
    int32_t peak_ = 0;
    std::vector<uint8_t> convertBuffer_;
    std::vector<uint8_t> silence_;  // zeros standing in for silent packets
};
