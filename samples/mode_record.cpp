// Record mode: an H.264 elementary stream (Annex B) cut into access units
// and pushed through a frame source into a recorder, which writes it into
// MP4 without re-encoding, optionally split into segments of N seconds.
//   kivsample record IN.h264 OUT.mp4 [split-seconds]
// The stream is timed at 30 frames a second.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

constexpr int32_t kFps = 30;

struct Nal {
    size_t begin;  // first byte after the start code
    size_t end;
    int type;
};

std::vector<Nal> FindNals(const std::vector<uint8_t>& b) {
    std::vector<Nal> nals;
    size_t i = 0;
    while (i + 3 <= b.size()) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
            if (!nals.empty()) {
                size_t end = i;
                while (end > nals.back().begin && b[end - 1] == 0) --end;
                nals.back().end = end;
            }
            if (i + 3 < b.size()) nals.push_back({i + 3, b.size(), b[i + 3] & 0x1F});
            i += 3;
        } else {
            ++i;
        }
    }
    return nals;
}

// Cuts the stream into access units: a new one begins with a delimiter,
// parameter set or SEI that follows a slice, or with a slice whose
// first_mb_in_slice is 0 (its first bit after the header is 1).
std::vector<std::pair<size_t, size_t>> AccessUnits(const std::vector<uint8_t>& b) {
    std::vector<std::pair<size_t, size_t>> units;
    size_t unitStart = 0;
    bool haveSlice = false;
    for (const Nal& n : FindNals(b)) {
        const size_t startCode = n.begin >= 4 && b[n.begin - 4] == 0 ? n.begin - 4 : n.begin - 3;
        const bool slice = n.type == 1 || n.type == 5;
        const bool firstSlice = slice && n.begin + 1 < n.end && (b[n.begin + 1] & 0x80) != 0;
        const bool opensUnit = (n.type >= 6 && n.type <= 9) || (n.type >= 14 && n.type <= 18);
        if (haveSlice && (opensUnit || firstSlice)) {
            units.emplace_back(unitStart, startCode);
            unitStart = startCode;
            haveSlice = false;
        }
        haveSlice = haveSlice || slice;
    }
    if (haveSlice) units.emplace_back(unitStart, b.size());
    return units;
}

// Reads the picture size out of a sequence parameter set.
class BitReader {
public:
    BitReader(const uint8_t* data, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            if (i >= 2 && data[i] == 3 && data[i - 1] == 0 && data[i - 2] == 0) continue;  // emulation prevention
            bytes_.push_back(data[i]);
        }
    }
    uint32_t Bit() {
        if (pos_ >= bytes_.size() * 8) return 0;
        const uint32_t bit = (bytes_[pos_ / 8] >> (7 - pos_ % 8)) & 1;
        ++pos_;
        return bit;
    }
    uint32_t Bits(int n) {
        uint32_t v = 0;
        while (n-- > 0) v = (v << 1) | Bit();
        return v;
    }
    uint32_t Ue() {
        int zeros = 0;
        while (Bit() == 0 && zeros < 32) ++zeros;
        return (1u << zeros) - 1 + Bits(zeros);
    }
    int32_t Se() {
        const uint32_t v = Ue();
        return (v & 1) ? static_cast<int32_t>((v + 1) / 2) : -static_cast<int32_t>(v / 2);
    }

private:
    std::vector<uint8_t> bytes_;
    size_t pos_ = 0;
};

bool SpsSize(const uint8_t* sps, size_t size, int32_t* width, int32_t* height) {
    BitReader r(sps + 1, size - 1);  // past the NAL header
    const uint32_t profile = r.Bits(8);
    r.Bits(16);  // constraint flags, level
    r.Ue();      // seq_parameter_set_id
    uint32_t chroma = 1;
    if (profile == 100 || profile == 110 || profile == 122 || profile == 244 || profile == 44 || profile == 83 ||
        profile == 86 || profile == 118 || profile == 128 || profile == 138 || profile == 139 || profile == 134) {
        chroma = r.Ue();
        if (chroma == 3) r.Bit();
        r.Ue();
        r.Ue();
        r.Bit();
        if (r.Bit()) {  // scaling matrices present
            for (int i = 0; i < (chroma == 3 ? 12 : 8); ++i) {
                if (!r.Bit()) continue;
                int last = 8, next = 8;
                for (int j = 0; j < (i < 6 ? 16 : 64) && next != 0; ++j) {
                    next = (last + r.Se() + 256) % 256;
                    last = next == 0 ? last : next;
                }
            }
        }
    }
    r.Ue();  // log2_max_frame_num
    const uint32_t pocType = r.Ue();
    if (pocType == 0) {
        r.Ue();
    } else if (pocType == 1) {
        r.Bit();
        r.Se();
        r.Se();
        const uint32_t cycle = r.Ue();
        for (uint32_t i = 0; i < cycle && i < 256; ++i) r.Se();
    }
    r.Ue();  // max_num_ref_frames
    r.Bit();
    const uint32_t mbWidth = r.Ue() + 1;
    const uint32_t mapHeight = r.Ue() + 1;
    const uint32_t frameMbsOnly = r.Bit();
    if (!frameMbsOnly) r.Bit();
    r.Bit();
    uint32_t cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
    if (r.Bit()) {
        cropLeft = r.Ue();
        cropRight = r.Ue();
        cropTop = r.Ue();
        cropBottom = r.Ue();
    }
    const uint32_t unitX = chroma == 1 || chroma == 2 ? 2 : 1;
    const uint32_t unitY = (chroma == 1 ? 2 : 1) * (2 - frameMbsOnly);
    *width = static_cast<int32_t>(mbWidth * 16 - unitX * (cropLeft + cropRight));
    *height = static_cast<int32_t>(mapHeight * 16 * (2 - frameMbsOnly) - unitY * (cropTop + cropBottom));
    return *width > 0 && *height > 0;
}

std::vector<uint8_t> ReadAll(const char* path) {
    std::vector<uint8_t> bytes;
    FILE* f = std::fopen(path, "rb");
    if (!f) return bytes;
    uint8_t buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    std::fclose(f);
    return bytes;
}

KivRecorderStats Stats(void* recorder) {
    KivRecorderStats s{};
    KIV_GetRecorderStats(recorder, &s);
    return s;
}

}  // namespace

int RunRecordMode(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: kivsample record IN.h264 OUT.mp4 [split-seconds]\n");
        return 2;
    }
    const int splitSeconds = argc > 4 ? std::atoi(argv[4]) : 0;
    const std::vector<uint8_t> stream = ReadAll(argv[2]);
    const std::vector<std::pair<size_t, size_t>> units = AccessUnits(stream);
    if (units.empty()) {
        std::fprintf(stderr, "no H.264 access units in %s\n", argv[2]);
        return 1;
    }
    int32_t width = 0, height = 0;
    for (const Nal& n : FindNals(stream)) {
        if (n.type == 7 && SpsSize(stream.data() + n.begin, n.end - n.begin, &width, &height)) break;
    }
    if (width <= 0) {
        std::fprintf(stderr, "no readable sequence parameter set in %s\n", argv[2]);
        return 1;
    }

    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) return 1;
    void* source = KIV_CreateVideoFrameSource();
    void* recorder = KIV_CreateRecorder(argv[3]);  // the path in the system code page
    KivRecorderConfig config{};
    config.width = width;
    config.height = height;
    config.inputFps = kFps;
    config.recordFps = kFps;
    config.inputMode = KIV_RECORD_INPUT_DIRECT_H264;
    if (splitSeconds > 0) {
        config.split = KIV_RECORD_SPLIT_TIME;
        config.seconds = splitSeconds;
    }
    KIV_SetRecorderConfig(recorder, &config);
    KIV_Connect(source, recorder);
    const KivResult started = KIV_Start(recorder);
    if (started != KIV_OK) {
        std::fprintf(stderr, "the recorder did not start (%d)\n", started);
    } else {
        std::printf("recording %zu access units of %dx%d from %s into %s\n", units.size(), width, height, argv[2], argv[3]);
        for (size_t i = 0; i < units.size(); ++i) {
            KivVideoFrame frame{};
            frame.format = KIV_PIXEL_FORMAT_H264;
            frame.width = width;
            frame.height = height;
            frame.planes[0] = const_cast<uint8_t*>(stream.data() + units[i].first);
            frame.strides[0] = static_cast<int32_t>(units[i].second - units[i].first);
            frame.timestamp = 10000000 + static_cast<int64_t>(i) * (10000000 / kFps);
            frame.frameIndex = i;
            KIV_PushVideoFrame(source, &frame);
            // The recorder keeps the newest 8 frames when its writer falls
            // behind; a file converter waits instead so that nothing is lost.
            while (Stats(recorder).inputFrames + 6 < static_cast<int64_t>(i + 1)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        while (Stats(recorder).inputFrames < static_cast<int64_t>(units.size())) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        KIV_Stop(recorder);
    }
    const KivRecorderStats s = Stats(recorder);
    std::printf("input=%lld written=%lld dropped=%lld duplicated=%lld fps=%d size=%dx%d\n",
                static_cast<long long>(s.inputFrames), static_cast<long long>(s.encodedFrames),
                static_cast<long long>(s.droppedFrames), static_cast<long long>(s.duplicatedFrames), s.fps, s.width,
                s.height);
    KIV_Disconnect(source, recorder);
    KIV_DestroyPort(recorder);
    KIV_DestroyPort(source);
    KIV_Shutdown();
    return started == KIV_OK && s.encodedFrames > 0 ? 0 : 1;
}
