// The recorder's rules that need no thread: configuration, the split rule,
// segment names, the pacing grid and NV12 conversion.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "record/nv12_convert.h"
#include "record/recorder_pacing.h"
#include "record/segment_names.h"
#include "recorder_test_util.h"

using kivtest::Wide;

namespace {

std::string Narrow(const kiv::RecorderPath& path) { return std::string(path.begin(), path.end()); }

KivRecorderConfig Config(int32_t split, uint64_t maxBytes, int32_t seconds) {
    KivRecorderConfig c{};
    c.split = split;
    c.maxBytesLow = static_cast<uint32_t>(maxBytes);
    c.maxBytesHigh = static_cast<uint32_t>(maxBytes >> 32);
    c.seconds = seconds;
    return c;
}

TEST(RecorderSettings, DefaultsPathsAndLimits) {
    kiv::RecorderSettings s;
    EXPECT_EQ(kiv::FrameDuration100ns(s.TargetFps()), 333333);
    EXPECT_EQ(kiv::FrameDuration100ns(0), 333333);
    EXPECT_EQ(kiv::FrameDuration100ns(25), 400000);
    s.path = Wide("C:\\old.mp4");
    KivRecorderConfig c = Config(KIV_RECORD_SPLIT_SIZE, 0, 0);
    c.bitrate = -5;
    c.inputFps = 25;
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(Narrow(s.path), "C:\\old.mp4") << "an empty path keeps the stored one";
    EXPECT_EQ(s.maxBytes, 1073741824ull);
    EXPECT_EQ(s.bitrate, 8000000);
    EXPECT_EQ(s.TargetFps(), 25);
    EXPECT_STREQ(s.ModeName(), "follow-input");
    EXPECT_EQ(s.reserved0, 1);

    c = Config(KIV_RECORD_SPLIT_TIME, 0x123456789ull, 0);
    c.recordFps = 60;
    c.inputFps = 25;
    for (KivWChar& ch : c.filePath) ch = 'a';  // no terminator: the path stays inside the field
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(s.seconds, 1800);
    EXPECT_EQ(s.maxBytes, 0x123456789ull) << "low 32 bits first";
    EXPECT_EQ(s.TargetFps(), 60);
    EXPECT_STREQ(s.ModeName(), "custom");
    EXPECT_EQ(s.path, kiv::RecorderPath(260, 'a'));

    kiv::ApplyRecorderConfig(Config(KIV_RECORD_SPLIT_NONE, 0, 0), &s);  // split off leaves limits as given
    EXPECT_EQ(std::vector<int64_t>({int64_t(s.maxBytes), s.seconds, s.TargetFps()}), std::vector<int64_t>({0, 0, 30}));
}

TEST(SegmentNames, StemExtensionAndNumbering) {
    const kiv::SegmentClock t{2024, 3, 7, 9, 5, 4, 32};
    const struct {
        const char* path;
        int32_t split, index;
        const char* expected;
    } cases[] = {
        {"C:\\rec\\a.mp4", 0, 3, "C:\\rec\\a.mp4"},
        {"C:\\rec\\a.mp4", 1, 0, "C:\\rec\\a_20240307_090504_032_0001.mp4"},
        {"C:\\rec\\a.b.mov", 2, 11, "C:\\rec\\a.b_20240307_090504_032_0012.mov"},
        {"C:\\cap.d\\clip", 2, 0, "C:\\cap.d\\clip_20240307_090504_032_0001.mp4"},  // the dot is a folder's
        {"/tmp/cap.d/clip", 1, 1, "/tmp/cap.d/clip_20240307_090504_032_0002.mp4"},
        {"clip", 1, 0, "clip_20240307_090504_032_0001.mp4"},
    };
    for (const auto& c : cases) EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide(c.path), c.split, t, c.index)), c.expected);
}

// Whether a segment of `elapsed` 100-ns units is full, at the exact edges of
// each rule: 8 Mbit/s is 0.1 byte per 100 ns, audio adds 16000 bytes a second.
TEST(SplitRule, SplitsAtTheExactFrameTheEstimateReachesTheLimit) {
    const struct {
        int32_t split;
        uint64_t maxBytes;
        int32_t seconds, bitrate, audio;
        uint64_t writerBytes;  // 0: the writer does not count its bytes
        int64_t elapsed;
        bool expected;
    } cases[] = {
        {KIV_RECORD_SPLIT_TIME, 0, 2, 0, 0, 0, 19999999, false},
        {KIV_RECORD_SPLIT_TIME, 0, 2, 0, 0, 0, 20000000, true},
        {KIV_RECORD_SPLIT_NONE, 1, 1, 8000000, 1, 0, 50000000, false},
        {KIV_RECORD_SPLIT_SIZE, 1000000, 0, 8000000, 0, 0, 9999999, false},
        {KIV_RECORD_SPLIT_SIZE, 1000000, 0, 8000000, 0, 0, 10000000, true},
        {KIV_RECORD_SPLIT_SIZE, 1016000, 0, 8000000, 1, 0, 10000000, true},
        {KIV_RECORD_SPLIT_SIZE, 1016000, 0, 8000000, 1, 0, 9999999, false},
        {KIV_RECORD_SPLIT_SIZE, 100000, 0, 8000000, 0, 99999, 50000000, false},  // counted bytes beat the bit rate
        {KIV_RECORD_SPLIT_SIZE, 100000, 0, 8000000, 0, 100000, 1, true},
        {KIV_RECORD_SPLIT_SIZE, 16001, 0, 8000000, 1, 1, 10000000, true},
        {KIV_RECORD_SPLIT_SIZE, 16001, 0, 8000000, 1, 1, 9999999, false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        kiv::RecorderSettings s;
        KivRecorderConfig config = Config(c.split, c.maxBytes, c.seconds);
        config.bitrate = c.bitrate;
        config.audio = c.audio;
        kiv::ApplyRecorderConfig(config, &s);
        kiv::SegmentProgress p;
        p.segmentStart = 10000000;
        p.time = p.segmentStart + c.elapsed;
        p.writerCountsBytes = c.writerBytes > 0;
        p.writerBytes = c.writerBytes;
        EXPECT_EQ(kiv::ShouldSplit(s, p), c.expected) << "case " << i;
    }
}

// Which input frame lands in each slot of the grid, as the worker uses it.
std::vector<int> Pace(const std::vector<int64_t>& times, int* dropped) {
    kiv::PacingGrid grid;
    grid.Reset(333333);
    std::vector<int> slots;
    for (size_t i = 0; i < times.size(); ++i) {
        const int64_t rel = grid.Relative(times[i]);
        if (grid.ShouldDrop(rel)) {
            ++*dropped;
            continue;
        }
        for (; grid.NeedsDuplicate(rel); grid.Advance()) slots.push_back(slots.back());
        slots.push_back(static_cast<int>(i));
        grid.Advance();
    }
    return slots;
}

// 60 -> 30 and 15 -> 30 are checked through the worker in recorder_port_test.
TEST(PacingGrid, JitterGapsAndTimesBeforeTheBase) {
    std::vector<int64_t> t;
    for (int i = 0; i < 40; ++i) t.push_back(1000 + i * 333333 + (i % 2) * (i % 3 == 0 ? 120000 : -120000));
    int dropped = 0;
    std::vector<int> expected(40);
    for (int i = 0; i < 40; ++i) expected[size_t(i)] = i;
    EXPECT_EQ(Pace(t, &dropped), expected) << "jitter within half a frame keeps every frame once";
    EXPECT_EQ(dropped, 0);

    expected.assign(33, 2);
    expected[0] = 0, expected[1] = 1, expected[32] = 3;
    EXPECT_EQ(Pace({9000000, 9333333, 9666666, 9666666 + 333333 * 30}, &dropped), expected) << "gap filled";
    EXPECT_EQ(Pace({9000000, 9000000, 8000000}, &dropped), std::vector<int>{0}) << "same or older: dropped";
    EXPECT_EQ(dropped, 2);

    kiv::PacingGrid grid;
    grid.Reset(333333);
    EXPECT_EQ(std::vector<int64_t>({grid.Relative(9000000), grid.Relative(9000000), grid.Relative(8999999),
                                    grid.Relative(9000001)}),
              std::vector<int64_t>({0, 0, 0, 1}));
    grid.Reset(333333);
    EXPECT_EQ(grid.Relative(5), 0) << "a new base after Reset";
}

TEST(PacingGrid, PassThroughTimesNeverRunBackwards) {
    kiv::PacingGrid grid;
    grid.Reset(400000);
    // {frame time, written at}: closer than a frame or before the base, the grid time.
    const int64_t cases[][2] = {{7000000, 0}, {7500000, 500000}, {7600000, 900000}, {6000000, 1300000}};
    for (const auto& c : cases) {
        const int64_t at = grid.PassThroughTime(grid.Relative(c[0]));
        EXPECT_EQ(at, c[1]) << c[0];
        grid.AdvanceFrom(at);
    }
}

// BT.601 limited range from RGB with rounding, in floating point.
int RefY(int r, int g, int b) { return int(std::floor((66.0 * r + 129 * g + 25 * b + 128) / 256)) + 16; }
int RefCb(int r, int g, int b) { return int(std::floor((-38.0 * r - 74 * g + 112 * b + 128) / 256)) + 128; }
int RefCr(int r, int g, int b) { return int(std::floor((112.0 * r - 94 * g - 18 * b + 128) / 256)) + 128; }

// Nearest-neighbour source pixel: its Y for every output pixel, its Cb/Cr for
// the top-left pixel of each 2 x 2 block; odd widths have no Cr for the last column.
std::vector<uint8_t> ReferenceNv12(const KivVideoFrame& f, int w, int h) {
    std::vector<uint8_t> out(size_t(w) * h + size_t(w) * (h / 2), 128);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int sx = x * f.width / w, sy = y * f.height / h;
            int Y, Cb, Cr;
            const uint8_t* row = f.planes[0] + sy * f.strides[0];
            if (f.format == KIV_PIXEL_FORMAT_YUY2) {
                Y = row[sx * 2];
                Cb = row[(sx / 2) * 4 + 1];
                Cr = (sx / 2) * 4 + 3 < f.strides[0] ? row[(sx / 2) * 4 + 3] : 128;
            } else if (f.format == KIV_PIXEL_FORMAT_NV12) {
                Y = row[sx];
                const uint8_t* c = f.planes[1] + (sy / 2) * f.strides[1] + (sx / 2) * 2;
                Cb = c[0];
                Cr = (sx / 2) * 2 + 1 < f.strides[1] ? c[1] : 128;
            } else {
                const uint8_t* p = row + sx * (f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4);
                Y = RefY(p[2], p[1], p[0]), Cb = RefCb(p[2], p[1], p[0]), Cr = RefCr(p[2], p[1], p[0]);
            }
            out[size_t(y * w + x)] = uint8_t(std::min(Y, 255));
            if (y % 2 == 0 && x % 2 == 0 && y / 2 < h / 2 && x + 1 < w) {
                out[size_t(w * h + (y / 2) * w + x)] = uint8_t(Cb);
                out[size_t(w * h + (y / 2) * w + x + 1)] = uint8_t(Cr);
            }
        }
    }
    return out;
}

TEST(Nv12Convert, MatchesAPlainReferenceForEveryFormatAndScale) {
    // Same size, up, down, odd both ways; {source w, h, output w, h}.
    const std::array<int, 4> sizes[] = {{16, 8, 16, 8}, {16, 8, 16, 13}, {16, 8, 7, 5}, {10, 6, 33, 17},
                                        {9, 7, 9, 7},   {4, 2, 8, 4},    {3, 3, 5, 3}};
    uint32_t seed = 12345;
    for (int32_t format : {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32}) {
        for (const auto& size : sizes) {
            if (format == KIV_PIXEL_FORMAT_NV12 && size[0] == size[2] && size[1] == size[3]) continue;  // a copy
            kivtest::OwnedFrame src(format, size[0], size[1]);
            for (uint8_t& b : src.bytes) b = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
            std::vector<uint8_t> out;
            ASSERT_EQ(kiv::ConvertToNv12(src.frame, size[2], size[3], &out), KIV_OK) << "format " << format;
            EXPECT_EQ(out, ReferenceNv12(src.frame, size[2], size[3]))
                << "format " << format << " " << size[0] << "x" << size[1] << " -> " << size[2] << "x" << size[3];
        }
    }
    // Same-size NV12 is copied row by row from padded strides; chroma follows the luma rows.
    std::vector<uint8_t> padded = {10, 11, 12, 13, 0, 0, 0, 0, 20, 21, 22, 23, 0, 0, 0, 0, 30, 31, 32, 33, 0, 0, 0, 0};
    const KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 4, 2, padded.data(), 8);
    std::vector<uint8_t> out;
    ASSERT_EQ(kiv::ConvertToNv12(f, 4, 2, &out), KIV_OK);
    EXPECT_EQ(out, (std::vector<uint8_t>{10, 11, 12, 13, 20, 21, 22, 23, 30, 31, 32, 33}));
}

TEST(Nv12Convert, BadInput) {
    std::vector<uint8_t> out;
    kivtest::OwnedFrame rgb(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    EXPECT_EQ(kiv::ConvertToNv12(rgb.frame, 0, 4, &out), KIV_ERROR_INVALID_ARG);
    KivVideoFrame f = rgb.frame;
    f.width = 0;
    EXPECT_EQ(kiv::ConvertToNv12(f, 4, 4, &out), KIV_ERROR_INVALID_ARG);
    f = rgb.frame;
    f.strides[0] = 8;  // shorter than a row
    EXPECT_EQ(kiv::ConvertToNv12(f, 4, 4, &out), KIV_ERROR_INVALID_ARG);
    f = rgb.frame;
    f.format = KIV_PIXEL_FORMAT_MJPG;
    EXPECT_EQ(kiv::ConvertToNv12(f, 4, 4, &out), KIV_ERROR_UNSUPPORTED);
    EXPECT_TRUE(out.empty());
}

}  // namespace
