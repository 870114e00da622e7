// Names of the files of a recording and the rule that starts a new one.
#pragma once
#include <cstdint>

#include "recorder_settings.h"

namespace kiv {

struct SegmentClock {
    unsigned year, month, day, hour, minute, second, millisecond;
};

// With split off the configured path itself; otherwise
// stem + "_YYYYMMDD_HHMMSS_mmm_NNNN" + extension, numbered from 0001, where
// a path without an extension in its file name gets ".mp4".
RecorderPath SegmentFileName(const RecorderPath& path, int32_t split, const SegmentClock& now, int32_t segmentIndex);

// What the split rule needs to know about the file being written.
struct SegmentProgress {
    int64_t time = 0;          // grid time of the next sample
    int64_t segmentStart = 0;  // grid time the file was opened at
    bool writerCountsBytes = false;
    uint64_t writerBytes = 0;
};

// True when the next sample belongs in a new file.
bool ShouldSplit(const RecorderSettings& settings, const SegmentProgress& progress);

}  // namespace kiv
