#include "segment_names.h"

#include <cstdio>

namespace kiv {

namespace {

void AppendAscii(RecorderPath* out, const char* text) {
    for (; *text; ++text) out->push_back(static_cast<KivWChar>(static_cast<unsigned char>(*text)));
}

}  // namespace

RecorderPath SegmentFileName(const RecorderPath& path, int32_t split, const SegmentClock& now, int32_t segmentIndex) {
    if (split == KIV_RECORD_SPLIT_NONE) return path;

    const size_t dot = path.rfind(static_cast<KivWChar>('.'));
    size_t slash = path.find_last_of(RecorderPath{static_cast<KivWChar>('\\'), static_cast<KivWChar>('/')});
    const bool dotInName = dot != RecorderPath::npos && (slash == RecorderPath::npos || dot > slash);

    RecorderPath name = dotInName ? path.substr(0, dot) : path;
    char suffix[64];
    std::snprintf(suffix, sizeof(suffix), "_%04u%02u%02u_%02u%02u%02u_%03u_%04d", now.year, now.month, now.day,
                  now.hour, now.minute, now.second, now.millisecond, segmentIndex + 1);
    AppendAscii(&name, suffix);
    if (dotInName) {
        name.append(path, dot, RecorderPath::npos);
    } else {
        AppendAscii(&name, ".mp4");
    }
    return name;
}

bool ShouldSplit(const RecorderSettings& s, const SegmentProgress& p) {
    const int64_t elapsed = p.time - p.segmentStart;
    if (s.split == KIV_RECORD_SPLIT_TIME) {
        return s.seconds > 0 && elapsed >= static_cast<int64_t>(s.seconds) * 10000000;
    }
    if (s.split != KIV_RECORD_SPLIT_SIZE || s.maxBytes == 0) return false;

    uint64_t estimate = 0;
    if (p.writerCountsBytes && p.writerBytes > 0) {
        estimate = p.writerBytes;
    } else if (elapsed > 0 && s.bitrate >= 1) {
        estimate = static_cast<uint64_t>(s.bitrate) * static_cast<uint64_t>(elapsed) / 80000000u;
    }
    // The audio track is reckoned at 16000 bytes a second.
    if (s.audio && elapsed >= 0) estimate += static_cast<uint64_t>(elapsed) * 16000u / 10000000u;
    return estimate >= s.maxBytes;
}

}  // namespace kiv
