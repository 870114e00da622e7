// The recorder's own MP4 writer for H.264 frames recorded without
// re-encoding: one video track (avc1/avcC) and an optional AAC track.
// Layout: ftyp, one mdat with a 64-bit size (patched at the end), then moov
// built in memory at Finalize, with co64 chunk offsets. Times and durations
// are in 100 ns units. The writer does not log; its callers do, from the
// results and counters below.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "file_writer.h"
#include "h264_stream.h"
#include "kivcapture.h"

namespace kiv {

// Why Open failed, so the caller can log the matching line:
//   kBadSize           -> "Raw H264 custom MP4 writer missing valid frame size cfg=%dx%d frame=%dx%d"
//   kMissingParameters -> "Raw H264 custom MP4 writer needs SPS/PPS before open sps=%u pps=%u"
//   any failure        -> "Raw H264 custom MP4 open failed file=%S"
enum class Mp4OpenResult {
    kOk,
    kBadPath,
    kBadSize,
    kMissingParameters,
    kBadAvcC,      // SPS shorter than 4 bytes or empty PPS
    kFileFailed,   // the file could not be created or its header written
};

// AVCDecoderConfigurationRecord with 4-byte NAL lengths, one SPS and one PPS;
// High-profile family streams get the chroma/bit-depth extension. False when
// the SPS has fewer than 4 bytes or the PPS is empty.
bool BuildAvcC(const uint8_t* sps, size_t spsSize, const uint8_t* pps, size_t ppsSize,
               const H264SpsInfo& info, std::vector<uint8_t>* out);

class Mp4Writer {
public:
    explicit Mp4Writer(size_t writeBufferBytes = FileWriter::kDefaultBufferSize);
    ~Mp4Writer();  // closes an open file as Finalize would
    Mp4Writer(const Mp4Writer&) = delete;
    Mp4Writer& operator=(const Mp4Writer&) = delete;

    // Closes a file left open (finalising it), clears the tracks, builds
    // avcC and writes ftyp and the mdat header. `spsInfo` is the parsed SPS
    // (a default value when it could not be parsed).
    Mp4OpenResult Open(const KivWChar* path, int32_t width, int32_t height, const std::vector<uint8_t>& sps,
                       const std::vector<uint8_t>& pps, const H264SpsInfo& spsInfo);
    bool IsOpen() const { return open_; }

    // Adds the AAC track (before or after the first video sample, once per
    // file). `audioSpecificConfig` is the 2-byte config of the encoder.
    bool EnableAudio(int32_t sampleRate, int32_t channels, const uint8_t audioSpecificConfig[2],
                     int32_t bitRate);
    bool AudioEnabled() const { return audioEnabled_; }

    // Appends one video sample given in Annex B form; it is stored as 4-byte
    // length-prefixed NAL units. The duration of a sample in the file is the
    // gap to the next sample's time; the last sample keeps `duration`.
    // False when the file is not open, the sample holds no NAL unit, or the
    // write failed.
    bool WriteVideoSample(const uint8_t* annexB, size_t size, int64_t time, uint32_t duration, bool key);

    // Appends one raw AAC access unit. A duration of 0 means 1024 samples.
    bool WriteAudioSample(const uint8_t* accessUnit, size_t size, int64_t time, uint32_t duration = 0);

    // Patches the mdat size, appends moov and closes the file. A file without
    // video samples is closed as it is (mdat size 0, no moov). Writes stop
    // short of filling the disk, leaving room for the moov; after a failed
    // write the file is closed with the samples that reached the disk, so it
    // still plays. Safe to call again; returns false when the file was not
    // open or anything failed to reach the disk.
    bool Finalize();

    // Counters for log lines and the size-based split rule.
    uint64_t VideoPayloadBytes() const { return videoBytes_; }
    uint64_t AudioPayloadBytes() const { return audioBytes_; }
    uint64_t FileBytes() const { return file_.Size(); }
    uint32_t VideoSampleCount() const { return static_cast<uint32_t>(video_.size()); }
    uint32_t AudioSampleCount() const { return static_cast<uint32_t>(audio_.size()); }
    uint64_t FinalFileBytes() const { return finalFileBytes_; }  // size after the last Finalize

private:
    struct Sample {
        uint64_t offset;
        uint32_t size;
        int64_t time;
        uint32_t duration;
        bool key;
    };

    void BuildMoov(std::vector<uint8_t>* moov) const;
    uint64_t IndexReserve() const;
    void KeepSamplesOnDisk();

    FileWriter file_;
    bool open_ = false;
    int32_t width_ = 0;
    int32_t height_ = 0;
    std::vector<uint8_t> sps_;
    std::vector<uint8_t> pps_;
    std::vector<uint8_t> avcC_;
    std::vector<Sample> video_;
    std::vector<Sample> audio_;
    bool audioEnabled_ = false;
    int32_t sampleRate_ = 48000;
    int32_t channels_ = 2;
    int32_t audioBitRate_ = 128000;
    uint8_t asc_[2] = {0x11, 0x90};
    uint64_t mdatHeaderPos_ = 0;
    uint64_t videoBytes_ = 0;
    uint64_t audioBytes_ = 0;
    uint64_t finalFileBytes_ = 0;
};

}  // namespace kiv
