// The recorder port: copies incoming frames into a bounded queue, and its
// worker thread paces them onto a constant-frame-rate grid and writes MP4
// files, passing H.264 frames through into our own MP4 writer and encoding
// uncompressed frames through the platform encoder.
//
// Locks: `lock_` guards the settings, statistics, callbacks, the running
// flag and all writing; the queue has a lock of its own. No thread holds
// both, and neither is held while callbacks or downstream ports run.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "aac_encoder.h"
#include "h264_stream.h"
#include "mp4_writer.h"
#include "ports/kiv_port_base.h"
#include "recorder_pacing.h"
#include "recorder_queue.h"
#include "recorder_settings.h"
#include "video_encoder.h"

class KivRecorder : public KivPortBase {
public:
    // `text`: the output path in the system code page; null for none.
    explicit KivRecorder(const char* text);
    // With an encoder of the caller's choosing for uncompressed frames.
    KivRecorder(const char* text, std::unique_ptr<kiv::VideoEncoder> encoder);
    ~KivRecorder() override;

    int32_t Start() override;
    int32_t Stop() override;
    int32_t OnVideoFrame(const KivVideoFrame* frame) override;
    int32_t OnAudioFrame(const KivAudioFrame* frame) override;

    int32_t SetConfig(const KivRecorderConfig* config);
    int32_t GetStats(KivRecorderStats* out);
    int32_t SetEncodedVideoCallback(KivEncodedVideoCallback fn, void* userData);
    int32_t SetEncodedAudioCallback(KivEncodedAudioCallback fn, void* userData);

    kiv::RecorderSettings Settings();
    int32_t QueueLimit() const { return queue_.Limit(); }
    int64_t AsyncDropped() { return queue_.Dropped(); }
    int32_t QueuedFrames() { return queue_.Size(); }

private:
    struct Counters {
        int64_t input = 0;
        int64_t encoded = 0;
        int64_t dropped = 0;
        int64_t duplicated = 0;
        int64_t videoPackets = 0;
        int64_t audioPackets = 0;
        int64_t audioFrames = 0;
        int64_t bytesWritten = 0;
    };

    // Encoded audio units waiting for the application callback, which runs
    // once the port lock is released.
    struct PendingAudio {
        struct Entry {
            size_t offset;
            KivEncodedAudioPacket packet;
        };
        KivEncodedAudioCallback fn = nullptr;
        void* user = nullptr;
        std::vector<uint8_t> bytes;
        std::vector<Entry> entries;
        void Deliver();
    };

    // What the worker hands on after it released the port lock.
    struct Delivery {
        bool emitFrame = false;
        KivEncodedVideoCallback videoFn = nullptr;
        void* videoUser = nullptr;
        KivEncodedVideoPacket packet{};
        PendingAudio audio;
    };

    class AacToMp4;

    void WorkerMain();
    void Deliver(Delivery* delivery, const KivVideoFrame& frame);

    int32_t ProcessFrameLocked(const KivVideoFrame& frame, Delivery* out);
    kiv::RecorderPath NextSegmentNameLocked() const;
    void FinalizeLocked(PendingAudio* audio);

    // Pass-through of H.264 frames into our MP4 writer.
    int32_t PassThroughLocked(const KivVideoFrame& frame, Delivery* out);
    bool OpenMp4Locked(const kiv::RecorderPath& file, int32_t frameWidth, int32_t frameHeight, int64_t startTime);
    void FinalizeMp4Locked(PendingAudio* audio);
    void Mp4AudioLocked(const KivAudioFrame& frame, PendingAudio* audio);
    void WriteAacUnitLocked(const uint8_t* data, size_t size, int64_t time, int64_t duration, PendingAudio* audio);

    // Encoding of uncompressed frames through the platform encoder.
    int32_t EncodeLocked(const KivVideoFrame& frame, Delivery* out);
    int32_t OpenEncoderLocked(const kiv::RecorderPath& file, const KivVideoFrame& frame);
    int32_t WriteEncoderVideoLocked(const std::vector<uint8_t>& picture, bool duplicate);
    void FinalizeEncoderLocked();
    void EncoderAudioLocked(const KivAudioFrame& frame);

    std::mutex controlMutex_;  // serialises Start and Stop
    std::mutex lock_;
    kiv::RecorderSettings settings_;
    int32_t sampleRate_ = 48000;
    int32_t channels_ = 2;
    int32_t bitsPerSample_ = 16;
    // Written under lock_; the upstream thread reads it without the lock so
    // that it never waits for a frame being encoded.
    std::atomic<bool> running_{false};

    kiv::RecorderQueue queue_;
    std::thread worker_;
    std::atomic<std::thread::id> workerId_{};

    kiv::PacingGrid grid_;
    Counters counters_;
    int32_t segmentIndex_ = 0;
    int64_t segmentStart_ = 0;
    int64_t segmentFrames_ = 0;

    KivEncodedVideoCallback videoCallback_ = nullptr;
    void* videoCallbackUser_ = nullptr;
    KivEncodedAudioCallback audioCallback_ = nullptr;
    void* audioCallbackUser_ = nullptr;

    // Pass-through writer state.
    kiv::H264StreamAnalyzer analyzer_;
    kiv::Mp4Writer mp4_;
    kiv::RecorderPath mp4File_;
    kiv::AacEncoder aac_;
    bool rawDisabled_ = false;
    bool rawFirstLogged_ = false;
    bool aacAttempted_ = false;
    int64_t aacPcmSamples_ = 0;

    // Encoder writer state.
    std::unique_ptr<kiv::VideoEncoder> encoder_;
    kiv::RecorderPath encoderFile_;
    int32_t encoderWidth_ = 0;
    int32_t encoderHeight_ = 0;
    bool encoderAudio_ = false;
    int64_t audioClock_ = 0;
    int64_t audioSampleFrames_ = 0;
    std::vector<uint8_t> picture_;          // the frame being written, NV12
    std::vector<uint8_t> previousPicture_;  // the last written frame, for duplicates
};
