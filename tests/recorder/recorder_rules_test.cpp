// The recorder's rules that need no thread: configuration defaults, the
// split rule, segment names, the pacing grid and NV12 conversion.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "record/nv12_convert.h"
#include "record/recorder_pacing.h"
#include "record/recorder_settings.h"
#include "record/segment_names.h"
#include "test_support.h"

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

TEST(RecorderSettings, DefaultsAndDerivedValues) {
    kiv::RecorderSettings s;
    EXPECT_EQ(s.TargetFps(), 30);
    EXPECT_EQ(kiv::FrameDuration100ns(s.TargetFps()), 333333);
    EXPECT_EQ(kiv::FrameDuration100ns(0), 333333);
    EXPECT_EQ(kiv::FrameDuration100ns(25), 400000);

    KivRecorderConfig c = Config(KIV_RECORD_SPLIT_SIZE, 0, 0);
    c.bitrate = -5;
    c.inputFps = 25;
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(s.maxBytes, 1073741824ull);
    EXPECT_EQ(s.bitrate, 8000000);
    EXPECT_EQ(s.TargetFps(), 25);
    EXPECT_STREQ(s.ModeName(), "follow-input");
    EXPECT_EQ(s.reserved0, 1);

    c = Config(KIV_RECORD_SPLIT_TIME, 0, 0);
    c.recordFps = 60;
    c.inputFps = 25;
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(s.seconds, 1800);
    EXPECT_EQ(s.TargetFps(), 60);
    EXPECT_STREQ(s.ModeName(), "custom");

    // Split off leaves both limits as given.
    kiv::ApplyRecorderConfig(Config(KIV_RECORD_SPLIT_NONE, 0, 0), &s);
    EXPECT_EQ(s.maxBytes, 0u);
    EXPECT_EQ(s.seconds, 0);
    EXPECT_EQ(s.TargetFps(), 30);
}

TEST(RecorderSettings, PathAndSizeLimitFields) {
    kiv::RecorderSettings s;
    s.path = Wide("C:\\old.mp4");
    KivRecorderConfig c = Config(KIV_RECORD_SPLIT_SIZE, 0x123456789ull, 0);
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(Narrow(s.path), "C:\\old.mp4") << "an empty path keeps the stored one";
    EXPECT_EQ(s.maxBytes, 0x123456789ull) << "low 32 bits first";

    const auto wide = Wide("D:\\new.mp4");
    std::copy(wide.begin(), wide.end(), c.filePath);
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(Narrow(s.path), "D:\\new.mp4");

    // A path filling the whole field without a terminator stays inside it.
    for (KivWChar& ch : c.filePath) ch = 'a';
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(s.path.size(), 260u);
}

TEST(SegmentNames, StemExtensionAndNumbering) {
    const kiv::SegmentClock t{2024, 3, 7, 9, 5, 4, 32};
    EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide("C:\\rec\\a.mp4"), 0, t, 3)), "C:\\rec\\a.mp4");
    EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide("C:\\rec\\a.mp4"), 1, t, 0)), "C:\\rec\\a_20240307_090504_032_0001.mp4");
    EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide("C:\\rec\\a.b.mov"), 2, t, 11)),
              "C:\\rec\\a.b_20240307_090504_032_0012.mov");
    // The last dot belongs to a folder: the whole path is the stem.
    EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide("C:\\cap.d\\clip"), 2, t, 0)), "C:\\cap.d\\clip_20240307_090504_032_0001.mp4");
    EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide("/tmp/cap.d/clip"), 1, t, 1)), "/tmp/cap.d/clip_20240307_090504_032_0002.mp4");
    EXPECT_EQ(Narrow(kiv::SegmentFileName(Wide("clip"), 1, t, 0)), "clip_20240307_090504_032_0001.mp4");
}

// Whether a segment of `elapsed` 100-ns units is full, at the exact edges of
// each rule: 8 Mbit/s is 0.1 byte per 100 ns, audio adds 16000 bytes a second.
TEST(SplitRule, SplitsAtTheExactFrameTheEstimateReachesTheLimit) {
    const struct {
        const char* what;
        int32_t split;
        uint64_t maxBytes;
        int32_t seconds, bitrate, audio;
        uint64_t writerBytes;  // 0: the writer does not count its bytes
        int64_t elapsed;
        bool expected;
    } cases[] = {
        {"time: one unit short", KIV_RECORD_SPLIT_TIME, 0, 2, 0, 0, 0, 19999999, false},
        {"time: reached", KIV_RECORD_SPLIT_TIME, 0, 2, 0, 0, 0, 20000000, true},
        {"no split never splits", KIV_RECORD_SPLIT_NONE, 1, 1, 8000000, 1, 0, 50000000, false},
        {"bit rate: one unit short", KIV_RECORD_SPLIT_SIZE, 1000000, 0, 8000000, 0, 0, 9999999, false},
        {"bit rate: exactly the limit", KIV_RECORD_SPLIT_SIZE, 1000000, 0, 8000000, 0, 0, 10000000, true},
        {"bit rate and audio", KIV_RECORD_SPLIT_SIZE, 1016000, 0, 8000000, 1, 0, 10000000, true},
        {"bit rate and audio: one unit short", KIV_RECORD_SPLIT_SIZE, 1016000, 0, 8000000, 1, 0, 9999999, false},
        {"counted bytes are believed over the bit rate", KIV_RECORD_SPLIT_SIZE, 100000, 0, 8000000, 0, 99999, 50000000, false},
        {"counted bytes reach the limit", KIV_RECORD_SPLIT_SIZE, 100000, 0, 8000000, 0, 100000, 1, true},
        {"counted bytes and audio: exactly", KIV_RECORD_SPLIT_SIZE, 16001, 0, 8000000, 1, 1, 10000000, true},
        {"counted bytes and audio: one unit short", KIV_RECORD_SPLIT_SIZE, 16001, 0, 8000000, 1, 1, 9999999, false},
    };
    for (const auto& c : cases) {
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
        EXPECT_EQ(kiv::ShouldSplit(s, p), c.expected) << c.what;
    }
}

// The grid as an application sees it: which input frame lands in each slot.
struct PacedOutput {
    std::vector<int> slots;  // input index written at slot k
    int dropped = 0;
    int duplicated = 0;
};

PacedOutput Pace(const std::vector<int64_t>& times, int64_t duration) {
    kiv::PacingGrid grid;
    grid.Reset(duration);
    PacedOutput out;
    for (size_t i = 0; i < times.size(); ++i) {
        const int64_t rel = grid.Relative(times[i]);
        if (grid.ShouldDrop(rel)) {
            ++out.dropped;
            continue;
        }
        while (grid.NeedsDuplicate(rel)) {
            out.slots.push_back(out.slots.back());
            ++out.duplicated;
            grid.Advance();
        }
        out.slots.push_back(static_cast<int>(i));
        grid.Advance();
    }
    return out;
}

std::vector<int64_t> Times(int count, int64_t start, int64_t step) {
    std::vector<int64_t> t;
    for (int i = 0; i < count; ++i) t.push_back(start + i * step);
    return t;
}

// 60 -> 30 and 15 -> 30 are checked through the worker in recorder_port_test.
TEST(PacingGrid, JitterWithinHalfAFrameKeepsEveryFrameOnce) {
    std::vector<int64_t> t = Times(40, 1000, 333333);
    for (size_t i = 0; i < t.size(); ++i) t[i] += (i % 3 == 0 ? 1 : -1) * 120000 * static_cast<int64_t>(i % 2);
    const PacedOutput out = Pace(t, 333333);
    ASSERT_EQ(out.slots.size(), 40u);
    EXPECT_EQ(out.dropped + out.duplicated, 0);
}

TEST(PacingGrid, GapIsFilledWithTheLastFrameAndEarlyTimesCountAsBase) {
    std::vector<int64_t> t = {9000000, 9333333, 9666666, 9666666 + 333333 * 30};
    PacedOutput out = Pace(t, 333333);
    ASSERT_EQ(out.slots.size(), 33u);
    EXPECT_EQ(out.duplicated, 29);
    for (size_t k = 2; k < 32; ++k) EXPECT_EQ(out.slots[k], 2);
    EXPECT_EQ(out.slots[32], 3);

    // A frame older than the first counts as time 0 and is dropped.
    out = Pace({9000000, 8000000}, 333333);
    EXPECT_EQ(out.dropped, 1);
}

// A repeated or earlier timestamp is time 0 after the base, never negative.
TEST(PacingGrid, RepeatedAndEarlierTimesCountAsTheBase) {
    kiv::PacingGrid grid;
    grid.Reset(333333);
    EXPECT_EQ(grid.Relative(9000000), 0);
    EXPECT_EQ(grid.Relative(9000000), 0);
    EXPECT_EQ(grid.Relative(8999999), 0);
    EXPECT_EQ(grid.Relative(9000001), 1);
    grid.Reset(333333);
    EXPECT_EQ(grid.NextDue(), 0);
    EXPECT_EQ(grid.Relative(5), 0) << "a new base after Reset";
}

TEST(PacingGrid, PassThroughTimesNeverRunBackwards) {
    kiv::PacingGrid grid;
    grid.Reset(400000);
    EXPECT_EQ(grid.PassThroughTime(grid.Relative(7000000)), 0);
    grid.AdvanceFrom(0);
    EXPECT_EQ(grid.PassThroughTime(grid.Relative(7500000)), 500000);
    grid.AdvanceFrom(500000);
    EXPECT_EQ(grid.PassThroughTime(grid.Relative(7600000)), 900000) << "closer than a frame: the grid time";
    grid.AdvanceFrom(900000);
    EXPECT_EQ(grid.PassThroughTime(grid.Relative(6000000)), 1300000) << "before the base: the grid time";
}

// ---- NV12 conversion -----------------------------------------------------------

// Reference conversion written independently of the library: BT.601 limited
// range from RGB with rounding, in floating point.
int RefY(int r, int g, int b) { return static_cast<int>(std::floor((66.0 * r + 129 * g + 25 * b + 128) / 256)) + 16; }
int RefCb(int r, int g, int b) { return static_cast<int>(std::floor((-38.0 * r - 74 * g + 112 * b + 128) / 256)) + 128; }
int RefCr(int r, int g, int b) { return static_cast<int>(std::floor((112.0 * r - 94 * g - 18 * b + 128) / 256)) + 128; }

TEST(Nv12Convert, SameSizeNv12IsCopiedRowByRow) {
    // Padded strides; the chroma follows the luma rows with the same stride.
    kivtest::OwnedFrame nv12(KIV_PIXEL_FORMAT_NV12, 4, 2);
    std::vector<uint8_t> padded(8 * 2 + 8, 0);
    for (int i = 0; i < 4; ++i) {
        padded[static_cast<size_t>(i)] = static_cast<uint8_t>(10 + i);
        padded[static_cast<size_t>(8 + i)] = static_cast<uint8_t>(20 + i);
        padded[static_cast<size_t>(16 + i)] = static_cast<uint8_t>(30 + i);
    }
    KivVideoFrame f = nv12.frame;
    f.planes[0] = padded.data();
    f.planes[1] = nullptr;
    f.strides[0] = 8;
    std::vector<uint8_t> out;
    ASSERT_EQ(kiv::ConvertToNv12(f, 4, 2, &out), KIV_OK);
    EXPECT_EQ(out, (std::vector<uint8_t>{10, 11, 12, 13, 20, 21, 22, 23, 30, 31, 32, 33}));
}

// A plain per-pixel reference: nearest-neighbour source pixel, its Y for
// every output pixel, its Cb/Cr for the top-left pixel of each 2 x 2 block.
std::vector<uint8_t> ReferenceNv12(const kivtest::OwnedFrame& src, int w, int h) {
    std::vector<uint8_t> out(static_cast<size_t>(w) * h + static_cast<size_t>(w) * (h / 2), 128);
    const KivVideoFrame& f = src.frame;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int sx = x * f.width / w, sy = y * f.height / h;
            int Y, Cb, Cr;
            const uint8_t* row = f.planes[0] + sy * f.strides[0];
            if (f.format == KIV_PIXEL_FORMAT_YUY2) {
                Y = row[sx * 2];
                Cb = row[(sx / 2) * 4 + 1];
                Cr = (sx / 2) * 4 + 3 < f.strides[0] ? row[(sx / 2) * 4 + 3] : 128;  // odd width: no Cr for the last column
            } else if (f.format == KIV_PIXEL_FORMAT_NV12) {
                Y = row[sx];
                const uint8_t* c = f.planes[1] + (sy / 2) * f.strides[1] + (sx / 2) * 2;
                Cb = c[0];
                Cr = (sx / 2) * 2 + 1 < f.strides[1] ? c[1] : 128;  // odd width: no Cr for the last column
            } else {
                const int bpp = f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4;
                const uint8_t* p = row + sx * bpp;
                Y = RefY(p[2], p[1], p[0]);
                Cb = RefCb(p[2], p[1], p[0]);
                Cr = RefCr(p[2], p[1], p[0]);
            }
            out[static_cast<size_t>(y * w + x)] = static_cast<uint8_t>(std::min(Y, 255));
            if (y % 2 == 0 && x % 2 == 0 && y / 2 < h / 2 && x + 1 < w) {
                out[static_cast<size_t>(w * h + (y / 2) * w + x)] = static_cast<uint8_t>(Cb);
                out[static_cast<size_t>(w * h + (y / 2) * w + x + 1)] = static_cast<uint8_t>(Cr);
            }
        }
    }
    return out;
}

TEST(Nv12Convert, MatchesAPlainReferenceForEveryFormatAndScale) {
    const int32_t formats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24,
                               KIV_PIXEL_FORMAT_RGB32};
    // Same size, up, down, odd both ways; {source w, h, output w, h}.
    const std::array<int, 4> sizes[] = {{16, 8, 16, 8}, {16, 8, 16, 13}, {16, 8, 7, 5},
                                        {10, 6, 33, 17}, {9, 7, 9, 7},   {4, 2, 8, 4}, {3, 3, 5, 3}};
    uint32_t seed = 12345;
    for (int32_t format : formats) {
        for (const auto& size : sizes) {
            if (format == KIV_PIXEL_FORMAT_NV12 && size[0] == size[2] && size[1] == size[3]) continue;  // the copy
            kivtest::OwnedFrame src(format, size[0], size[1]);
            for (uint8_t& b : src.bytes) b = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
            std::vector<uint8_t> out;
            ASSERT_EQ(kiv::ConvertToNv12(src.frame, size[2], size[3], &out), KIV_OK) << "format " << format;
            EXPECT_EQ(out, ReferenceNv12(src, size[2], size[3]))
                << "format " << format << " " << size[0] << "x" << size[1] << " -> " << size[2] << "x" << size[3];
        }
    }
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
