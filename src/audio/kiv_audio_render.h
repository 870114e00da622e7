// The audio playback port: writes each frame it receives into the default
// playback endpoint's buffer, opened lazily with the format of the frames.
// It has no thread: everything runs on the delivering thread.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>

#include "../ports/kiv_port_base.h"
#include "kiv_audio_endpoint.h"

class KivAudioRender : public KivPortBase {
public:
    KivAudioRender();
    // Tests hand in a stand-in endpoint.
    explicit KivAudioRender(kiv::RenderEndpointFactory factory);
    ~KivAudioRender() override;

    int32_t Start() override;
    int32_t Stop() override;
    int32_t OnAudioFrame(const KivAudioFrame* frame) override;

    int32_t UseDefaultDevice();

    struct Counters {
        uint64_t receivedFrames = 0, writtenFrames = 0, droppedFrames = 0, silenceFrames = 0;
    };
    Counters GetCounters();

private:
    int32_t EnsureFormatLocked(const KivAudioFrame& frame);
    int32_t OpenLocked();
    void CloseLocked();
    // Writes up to the free space; returns the frame's result.
    int32_t WriteLocked(const KivAudioFrame& frame, uint32_t frames, uint32_t blockAlign, uint32_t* padding);

    std::mutex lock_;  // every member below
    kiv::RenderEndpointFactory factory_;
    std::unique_ptr<kiv::AudioRenderEndpoint> endpoint_;  // present while open
    kiv::RenderSourceFormat source_;
    int32_t sourceRate_ = 48000;
    int32_t sourceChannels_ = 2;
    int32_t sourceBits_ = 16;
    uint32_t bufferFrames_ = 0;
    bool running_ = false;
    bool configured_ = false;
    uint64_t lastStatsTick_ = 0;
    Counters counters_;
};
