// Conversion of captured endpoint packets (the endpoint's mix format) into
// the interleaved signed 16-bit samples every audio frame carries.
#pragma once
#include <cstdint>
#include <vector>

namespace kiv {

enum class AudioSampleKind { kUnsupported, kInteger, kFloat };

// The parts of a wave format block the converter and the log lines use.
struct AudioMixFormat {
    uint32_t sampleRate = 0;
    uint32_t channels = 0;
    uint32_t bitsPerSample = 0;
    uint32_t blockAlign = 0;
    uint32_t formatTag = 0;
    AudioSampleKind kind = AudioSampleKind::kUnsupported;
};

constexpr uint32_t kWaveFormatPcm = 1;
constexpr uint32_t kWaveFormatFloat = 3;
constexpr uint32_t kWaveFormatExtensible = 0xFFFE;

// Sample kind of a format tag; `subFormat` (16 bytes in GUID memory order,
// may be null) decides for the extensible tag.
AudioSampleKind SampleKindOf(uint32_t formatTag, const uint8_t* subFormat);

// Converts `frames` frames of `src` into `out` (resized to frames x
// outChannels x 2 bytes; its capacity only grows). Output channel c takes
// source channel c, or channel 0 where the source has fewer channels; no
// mixing. Integer widths other than 1, 2 and 4 bytes give zeros. Returns
// false, leaving `out` alone, when the format cannot be converted.
// *peak receives the largest absolute output sample.
bool ConvertToPcm16(const uint8_t* src, uint32_t frames, const AudioMixFormat& format, int32_t outChannels,
                    std::vector<uint8_t>* out, int32_t* peak);

// Largest absolute sample of interleaved 16-bit little-endian PCM.
int32_t PeakOfPcm16(const uint8_t* data, uint32_t bytes);

}  // namespace kiv
