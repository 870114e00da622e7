// The recorder's stored configuration and the rules that turn a
// KivRecorderConfig into it.
#pragma once
#include <cstdint>
#include <string>

#include "kivcapture.h"

namespace kiv {

using RecorderPath = std::basic_string<KivWChar>;

constexpr int32_t kDefaultRecordFps = 30;
constexpr int32_t kDefaultBitrate = 8000000;
constexpr uint64_t kDefaultSegmentBytes = 1073741824ull;  // 1 GiB
constexpr int32_t kDefaultSegmentSeconds = 1800;

struct RecorderSettings {
    RecorderPath path;
    int32_t reserved0 = 1;
    int32_t reserved1 = 1;
    int32_t width = 0;
    int32_t height = 0;
    int32_t inputFps = 0;
    int32_t recordFps = 0;
    int32_t bitrate = kDefaultBitrate;
    int32_t audio = 0;
    int32_t inputMode = KIV_RECORD_INPUT_AUTO;
    int32_t split = KIV_RECORD_SPLIT_NONE;
    uint64_t maxBytes = 0;
    int32_t seconds = 0;

    // recordFps when set, else inputFps when set, else 30.
    int32_t TargetFps() const;
    // "custom" when the file has a frame rate of its own, else "follow-input".
    const char* ModeName() const;
};

// Stores `config` over `settings`: an empty path keeps the stored one, and
// the bit rate and the split limits get their defaults.
void ApplyRecorderConfig(const KivRecorderConfig& config, RecorderSettings* settings);

// 10000000 / fps in 100 ns units, with 30 for rates below 1.
int64_t FrameDuration100ns(int32_t fps);

}  // namespace kiv
