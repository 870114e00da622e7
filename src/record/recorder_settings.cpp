#include "recorder_settings.h"

namespace kiv {

int32_t RecorderSettings::TargetFps() const {
    if (recordFps >= 1) return recordFps;
    if (inputFps >= 1) return inputFps;
    return kDefaultRecordFps;
}

const char* RecorderSettings::ModeName() const { return recordFps >= 1 ? "custom" : "follow-input"; }

void ApplyRecorderConfig(const KivRecorderConfig& config, RecorderSettings* s) {
    size_t length = 0;
    const size_t capacity = sizeof(config.filePath) / sizeof(config.filePath[0]);
    while (length < capacity && config.filePath[length] != 0) ++length;
    if (length > 0) s->path.assign(config.filePath, length);

    s->reserved0 = config.reserved0 == 0 ? 1 : config.reserved0;
    s->reserved1 = config.reserved1 == 0 ? 1 : config.reserved1;
    s->width = config.width;
    s->height = config.height;
    s->inputFps = config.inputFps;
    s->recordFps = config.recordFps;
    s->bitrate = config.bitrate <= 0 ? kDefaultBitrate : config.bitrate;
    s->audio = config.audio;
    s->inputMode = config.inputMode;
    s->split = config.split;
    s->maxBytes = (static_cast<uint64_t>(config.maxBytesHigh) << 32) | config.maxBytesLow;
    s->seconds = config.seconds;
    if (s->split == KIV_RECORD_SPLIT_SIZE && s->maxBytes == 0) s->maxBytes = kDefaultSegmentBytes;
    if (s->split == KIV_RECORD_SPLIT_TIME && s->seconds < 1) s->seconds = kDefaultSegmentSeconds;
}

int64_t FrameDuration100ns(int32_t fps) { return 10000000 / (fps < 1 ? kDefaultRecordFps : fps); }

}  // namespace kiv
