// The recorder: its rules, the worker against a scripted encoder, the exported functions, and recordings
// through a frame source of hand-made and ffmpeg-made access units, read back with ffprobe and ffmpeg.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include "record/kiv_recorder.h"
#include "record/nv12_convert.h"
#include "record/recorder_pacing.h"
#include "record/segment_names.h"
#include "record/video_encoder.h"
#include "stream_test_util.h"

using namespace streamtest;
using kivtest::Wide;

namespace {

// Every packet (data cleared) and payload byte the callback got; `statsCalls`: statistics read from inside it.
struct PacketLog {
    void* recorder = nullptr;
    std::vector<KivEncodedVideoPacket> packets;
    std::vector<uint8_t> bytes;
    int statsCalls = 0;
    static void KIV_CALL OnPacket(const KivEncodedVideoPacket* packet, void* user) {
        auto* log = static_cast<PacketLog*>(user);
        log->bytes.insert(log->bytes.end(), packet->data, packet->data + packet->size);
        log->packets.push_back(*packet);
        log->packets.back().data = nullptr;
        KivRecorderStats s{};
        if (log->recorder && KIV_GetRecorderStats(log->recorder, &s) == KIV_OK) log->statsCalls++;
    }
};

bool WaitUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
}

KivRecorderStats Stats(void* recorder) {
    KivRecorderStats s{};
    KIV_GetRecorderStats(recorder, &s);
    return s;
}

struct SilentPcm {  // 16-bit
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    SilentPcm(int32_t sampleRate, int32_t channels, size_t sampleFrames)
        : bytes(sampleFrames * size_t(channels) * 2, 0), frame{bytes.data(), uint32_t(bytes.size()), sampleRate, channels, 16, 0, 0} {}
};

KivRecorderConfig Config(const std::string& path, int32_t width = 0, int32_t height = 0, int32_t recordFps = 0, int32_t split = 0,
                         uint64_t maxBytes = 0, int32_t seconds = 0, int32_t audio = 0) {
    KivRecorderConfig c{{}, 0, 0, width, height, 0, recordFps, 0, audio, 0, split, uint32_t(maxBytes), uint32_t(maxBytes >> 32), seconds};
    const auto wide = Wide(path);
    std::copy(wide.begin(), wide.end(), c.filePath);
    return c;
}

// A key access unit starts with a Baseline SPS (10 bytes) and a PPS (4); the slice has 4 bytes, none zero.
std::vector<uint8_t> AccessUnit(bool key) {
    std::vector<uint8_t> au;
    if (key) au = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84, 0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
    for (uint8_t b : {0, 0, 1, key ? 0x65 : 0x41}) au.push_back(b);
    au.insert(au.end(), 4, 0x21);
    return au;
}

TEST(RecorderSettings, PathsLimitsAndDefaults) {
    kiv::RecorderSettings s;
    s.path = Wide("C:\\old.mp4");
    kiv::ApplyRecorderConfig(Config("", 0, 0, 0, KIV_RECORD_SPLIT_SIZE), &s);
    EXPECT_EQ(s.path, Wide("C:\\old.mp4")) << "an empty path keeps the stored one";
    EXPECT_EQ(std::vector<int64_t>({int64_t(s.maxBytes), s.bitrate, s.TargetFps()}), std::vector<int64_t>({1073741824, 8000000, 30}));
    EXPECT_STREQ(s.ModeName(), "follow-input");
    KivRecorderConfig c = Config("", 0, 0, 60, KIV_RECORD_SPLIT_TIME, 0x123456789ull);
    c.inputFps = 25;
    for (KivWChar& ch : c.filePath) ch = 'a';  // no terminator: the path stays inside the field
    kiv::ApplyRecorderConfig(c, &s);
    EXPECT_EQ(std::vector<int64_t>({int64_t(s.maxBytes), s.seconds, s.TargetFps()}), std::vector<int64_t>({0x123456789, 1800, 60}))
        << "low 32 bits first";
    EXPECT_STREQ(s.ModeName(), "custom");
    EXPECT_EQ(s.path, kiv::RecorderPath(260, 'a'));
    kiv::ApplyRecorderConfig(Config(""), &s);  // split off leaves limits as given
    EXPECT_EQ(std::vector<int64_t>({int64_t(s.maxBytes), s.seconds, s.TargetFps(), kiv::FrameDuration100ns(0)}),
              std::vector<int64_t>({0, 0, 30, 333333}));
}

TEST(SegmentNames, StemExtensionAndNumbering) {
    const kiv::SegmentClock t{2024, 3, 7, 9, 5, 4, 32};
    const struct { const char *path, *expected; int32_t split, index; } cases[] = {
        {"C:\\rec\\a.mp4", "C:\\rec\\a.mp4", 0, 3},
        {"C:\\rec\\a.mp4", "C:\\rec\\a_20240307_090504_032_0001.mp4", 1, 0},
        {"C:\\rec\\a.b.mov", "C:\\rec\\a.b_20240307_090504_032_0012.mov", 2, 11},
        {"C:\\cap.d\\clip", "C:\\cap.d\\clip_20240307_090504_032_0001.mp4", 2, 0},  // the dot is a folder's
        {"/tmp/cap.d/clip", "/tmp/cap.d/clip_20240307_090504_032_0002.mp4", 1, 1},
        {"clip", "clip_20240307_090504_032_0001.mp4", 1, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(kiv::SegmentFileName(Wide(c.path), c.split, t, c.index), Wide(c.expected)) << c.expected;
}

// At the exact edges of each rule: 8 Mbit/s is 0.1 byte per 100 ns, audio adds 16000 bytes a second; bytes
// the writer counts (writerBytes > 0) beat the estimate.
TEST(SplitRule, SplitsAtTheExactFrameTheEstimateReachesTheLimit) {
    const struct { int32_t split; uint64_t maxBytes; int32_t seconds, audio; uint64_t writerBytes; int64_t elapsed; bool expected; } cases[] = {
        {KIV_RECORD_SPLIT_TIME, 0, 2, 0, 0, 19999999, false},      {KIV_RECORD_SPLIT_TIME, 0, 2, 0, 0, 20000000, true},
        {KIV_RECORD_SPLIT_NONE, 1, 1, 1, 0, 50000000, false},      {KIV_RECORD_SPLIT_SIZE, 1000000, 0, 0, 0, 9999999, false},
        {KIV_RECORD_SPLIT_SIZE, 1000000, 0, 0, 0, 10000000, true}, {KIV_RECORD_SPLIT_SIZE, 1016000, 0, 1, 0, 10000000, true},
        {KIV_RECORD_SPLIT_SIZE, 1016000, 0, 1, 0, 9999999, false}, {KIV_RECORD_SPLIT_SIZE, 100000, 0, 0, 99999, 50000000, false},
        {KIV_RECORD_SPLIT_SIZE, 100000, 0, 0, 100000, 1, true},    {KIV_RECORD_SPLIT_SIZE, 16001, 0, 1, 1, 10000000, true},
        {KIV_RECORD_SPLIT_SIZE, 16001, 0, 1, 1, 9999999, false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        kiv::RecorderSettings s;  // the default bit rate: 8 Mbit/s
        kiv::ApplyRecorderConfig(Config("", 0, 0, 0, c.split, c.maxBytes, c.seconds, c.audio), &s);
        EXPECT_EQ(kiv::ShouldSplit(s, {10000000 + c.elapsed, 10000000, c.writerBytes > 0, c.writerBytes}), c.expected) << "case " << i;
    }
}

// What the worker cannot show: times before the base and a fresh Reset.
TEST(PacingGrid, TimesBeforeTheBaseAndAFreshReset) {
    kiv::PacingGrid grid;
    grid.Reset(400000);
    EXPECT_EQ(std::vector<int64_t>({grid.Relative(9000000), grid.Relative(9000000), grid.Relative(8999999), grid.Relative(9000001)}),
              std::vector<int64_t>({0, 0, 0, 1}));
    grid.AdvanceFrom(800000);
    grid.Reset(400000);
    EXPECT_EQ(std::vector<int64_t>({grid.NextDue(), grid.Relative(5), grid.NextDue()}), std::vector<int64_t>({0, 0, 0}));
}

// Nearest-neighbour source pixel: its Y for every output pixel, its Cb/Cr for
// the top-left pixel of each 2 x 2 block (odd widths: no Cr for the last
// column); RGB to BT.601 limited range with rounding, in floating point.
std::vector<uint8_t> ReferenceNv12(const KivVideoFrame& f, int w, int h) {
    std::vector<uint8_t> out(size_t(w) * h + size_t(w) * (h / 2), 128);
    auto fromRgb = [](const uint8_t* p, double cr, double cg, double cb, int offset) {
        return int(std::floor((cr * p[2] + cg * p[1] + cb * p[0] + 128) / 256)) + offset;
    };
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int sx = x * f.width / w, sy = y * f.height / h;
            int Y, Cb, Cr;
            const uint8_t* row = f.planes[0] + sy * f.strides[0];
            if (f.format == KIV_PIXEL_FORMAT_YUY2) {
                Y = row[sx * 2], Cb = row[(sx / 2) * 4 + 1];
                Cr = (sx / 2) * 4 + 3 < f.strides[0] ? row[(sx / 2) * 4 + 3] : 128;
            } else if (f.format == KIV_PIXEL_FORMAT_NV12) {
                const uint8_t* c = f.planes[1] + (sy / 2) * f.strides[1] + (sx / 2) * 2;
                Y = row[sx], Cb = c[0], Cr = (sx / 2) * 2 + 1 < f.strides[1] ? c[1] : 128;
            } else {
                const uint8_t* p = row + sx * (f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4);
                Y = fromRgb(p, 66, 129, 25, 16), Cb = fromRgb(p, -38, -74, 112, 128), Cr = fromRgb(p, 112, -94, -18, 128);
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
    // {source w, h, output w, h}: same size, up, down, odd both ways.
    const std::array<int, 4> sizes[] = {{16, 8, 16, 8}, {16, 8, 16, 13}, {16, 8, 7, 5}, {10, 6, 33, 17}, {9, 7, 9, 7}, {3, 3, 5, 3}};
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
    // Same-size NV12 is copied row by row from padded strides.
    std::vector<uint8_t> padded = {10, 11, 12, 13, 0, 0, 0, 0, 20, 21, 22, 23, 0, 0, 0, 0, 30, 31, 32, 33, 0, 0, 0, 0};
    std::vector<uint8_t> out;
    ASSERT_EQ(kiv::ConvertToNv12(kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 4, 2, padded.data(), 8), 4, 2, &out), KIV_OK);
    EXPECT_EQ(out, (std::vector<uint8_t>{10, 11, 12, 13, 20, 21, 22, 23, 30, 31, 32, 33}));

    kivtest::OwnedFrame rgb(KIV_PIXEL_FORMAT_RGB32, 4, 4);
    auto refused = [&](int32_t width, void (*edit)(KivVideoFrame&)) {
        KivVideoFrame f = rgb.frame;
        edit(f);
        out.clear();
        const int32_t result = kiv::ConvertToNv12(f, width, 4, &out);
        return out.empty() ? result : KIV_OK;
    };
    EXPECT_EQ(std::vector<int32_t>({refused(0, [](KivVideoFrame&) {}), refused(4, [](KivVideoFrame& f) { f.width = 0; }),
                                    refused(4, [](KivVideoFrame& f) { f.strides[0] = 8; }),  // shorter than a row
                                    refused(4, [](KivVideoFrame& f) { f.format = KIV_PIXEL_FORMAT_MJPG; })}),
              std::vector<int32_t>({KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG, KIV_ERROR_UNSUPPORTED}));
}

// Records what the recorder asked for; WriteVideo waits while `hold` is set.
struct ScriptedEncoder : kiv::VideoEncoder {
    struct Video { size_t file; int64_t time, duration; int luma; };  // file: index into `opens`
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<kiv::VideoEncoderSettings> opens;  // file names cleared
    std::vector<Video> video;
    std::vector<std::pair<int64_t, int64_t>> audio;  // time, duration
    int finalizes = 0, failOpens = 0;                // the next `failOpens` opens fail
    bool hold = false, holding = false, open = false;

    kiv::EncoderOpenReport Open(const kiv::VideoEncoderSettings& settings) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (failOpens > 0 && failOpens--) return {kiv::EncoderOpenStep::kBeginWriting, 0x80004005u, false, 0};
        opens.push_back(settings);
        opens.back().file = nullptr;
        open = true;
        return {kiv::EncoderOpenStep::kNone, 0, settings.audio, 0};
    }
    bool IsOpen() const override { return open; }
    uint32_t WriteVideo(const uint8_t* nv12, size_t, int64_t time, int64_t duration) override {
        std::unique_lock<std::mutex> lock(mutex);
        holding = hold;
        changed.notify_all();
        changed.wait(lock, [this] { return !hold; });
        holding = false;
        video.push_back({opens.size() - 1, time, duration, nv12[0]});
        return 0;
    }
    uint32_t WriteAudio(const uint8_t*, size_t, int64_t time, int64_t duration) override {
        std::lock_guard<std::mutex> lock(mutex);
        audio.emplace_back(time, duration);
        return 0;
    }
    kiv::EncoderFinalizeReport Finalize() override {
        std::lock_guard<std::mutex> lock(mutex);
        ++finalizes;
        open = false;
        return {};
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        hold = false;
        changed.notify_all();
    }
    bool WaitHolding() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), [this] { return holding; });
    }
    std::vector<Video> Written() {
        std::lock_guard<std::mutex> lock(mutex);
        return video;
    }
};

constexpr int64_t kFrame30 = 333333;
constexpr int64_t kStart = 50000000;  // any positive time: frames carry their own timestamps
const char* const kPath = "/tmp/kivtest_recorder_port/out.mp4";

struct Nv12Frame : kivtest::OwnedFrame {
    Nv12Frame(uint8_t luma, int64_t timestamp) : OwnedFrame(KIV_PIXEL_FORMAT_NV12, 64, 32, luma) { frame.timestamp = timestamp; }
};

class RecorderPort : public ::testing::Test {
protected:
    ScriptedEncoder* script_ = nullptr;  // owned by the recorder
    KivRecorder* recorder_ = nullptr;
    void* handle_ = nullptr;

    void SetUp() override { Renew(); }
    void TearDown() override { EXPECT_EQ(KIV_DestroyPort(handle_), KIV_OK); }
    void Renew() {
        if (handle_) TearDown();
        recorder_ = new KivRecorder(kPath, std::unique_ptr<kiv::VideoEncoder>(script_ = new ScriptedEncoder));
        handle_ = static_cast<KivPortBase*>(recorder_);
    }
    void Start(int32_t split = 0, int32_t seconds = 0, int32_t audio = 0) {
        const KivRecorderConfig c = Config(kPath, audio ? 0 : 64, audio ? 0 : 32, audio ? 0 : 30, split, 0, seconds, audio);
        ASSERT_EQ(KIV_SetRecorderConfig(handle_, &c), KIV_OK);
        ASSERT_EQ(recorder_->Start(), KIV_OK);
    }
    // Waits for the worker: the queue never overflows and the outcome depends on timestamps only.
    void PushAndWait(uint8_t luma, int64_t timestamp) {
        Nv12Frame f(luma, timestamp);
        const int64_t before = Stats(handle_).inputFrames;
        ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
        ASSERT_TRUE(WaitUntil([&] { return Stats(handle_).inputFrames == before + 1; }));
    }
    std::vector<int> Lumas() {
        std::vector<int> out;
        for (const auto& w : script_->Written()) out.push_back(w.luma);
        return out;
    }
};

std::vector<int> Seq(int n, int (*f)(int)) {
    std::vector<int> v(size_t(n), 0);
    for (int i = 0; i < n; ++i) v[size_t(i)] = f(i);
    return v;
}

// Frame i has luma i; the written slots are 0, d, 2d, ... whatever the input timing.
TEST_F(RecorderPort, FramesAreFittedToTheGrid) {
    std::vector<int64_t> jitter, fast, slow;  // jitter within half a frame: every frame once
    for (int i = 0; i < 40; ++i) jitter.push_back(kStart + i * kFrame30 + (i % 2) * (i % 3 == 0 ? 120000 : -120000));
    for (int i = 0; i < 60; ++i) fast.push_back(kStart + i * kFrame30 / 2);
    for (int i = 0; i < 10; ++i) slow.push_back(kStart + i * 2 * kFrame30);
    std::vector<int> gapLumas(33, 2);
    gapLumas[0] = 0, gapLumas[1] = 1, gapLumas[32] = 3;
    const struct { const char* what; std::vector<int64_t> times; std::vector<int> lumas; int64_t dropped, duplicated; } cases[] = {
        {"60 to 30", fast, Seq(30, [](int i) { return 2 * i; }), 30, 0},
        {"15 to 30", slow, Seq(19, [](int i) { return i / 2; }), 0, 9},
        {"jitter", jitter, Seq(40, [](int i) { return i; }), 0, 0},
        {"gap filled", {kStart, kStart + kFrame30, kStart + 2 * kFrame30, kStart + 32 * kFrame30}, gapLumas, 0, 29},
        {"same or older: dropped", {kStart, kStart, kStart - 1000000}, {0}, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Renew();
        Start();
        for (size_t i = 0; i < c.times.size(); ++i) PushAndWait(uint8_t(i), c.times[i]);
        const KivRecorderStats s = Stats(handle_);
        const int64_t n = int64_t(c.times.size());
        EXPECT_EQ(std::vector<int64_t>({s.inputFrames, s.encodedFrames, s.droppedFrames, s.duplicatedFrames}),
                  std::vector<int64_t>({n, n - c.dropped, c.dropped, c.duplicated}));
        EXPECT_EQ(Lumas(), c.lumas);
        const auto written = script_->Written();
        for (size_t k = 0; k < written.size(); ++k)
            EXPECT_EQ(std::make_pair(written[k].time, written[k].duration), std::make_pair(int64_t(k) * kFrame30, kFrame30));
        ASSERT_EQ(recorder_->Stop(), KIV_OK);
        EXPECT_EQ(script_->finalizes, 1);
    }
    // Without timestamps the steady clock times frames: 100 ms repeats the first picture at least twice.
    Start();
    PushAndWait(1, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    PushAndWait(2, 0);
    EXPECT_GE(Stats(handle_).duplicatedFrames, 2);
}

TEST_F(RecorderPort, FullQueueDropsTheOldestAndStopDiscardsTheQueue) {
    Start();
    script_->hold = true;
    Nv12Frame first(0, kStart);
    ASSERT_EQ(recorder_->OnVideoFrame(&first.frame), KIV_OK);
    ASSERT_TRUE(script_->WaitHolding());
    for (int i = 1; i <= 10; ++i) {
        Nv12Frame f(uint8_t(i), kStart + i * kFrame30);
        ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
    }
    EXPECT_EQ(recorder_->AsyncDropped(), 2);
    script_->Release();
    ASSERT_TRUE(WaitUntil([&] { return Stats(handle_).inputFrames == 9; }));
    // Frames 1 and 2 were pushed out; the grid repeats frame 0 in their slots.
    EXPECT_EQ(Lumas(), (std::vector<int>{0, 0, 0, 3, 4, 5, 6, 7, 8, 9, 10}));
    ASSERT_EQ(recorder_->Stop(), KIV_OK);

    ASSERT_EQ(recorder_->Start(), KIV_OK);
    EXPECT_EQ(Stats(handle_).inputFrames, 0) << "a new start counts from zero";
    script_->hold = true;
    ASSERT_EQ(recorder_->OnVideoFrame(&first.frame), KIV_OK);
    ASSERT_TRUE(script_->WaitHolding());
    for (int i = 1; i <= 5; ++i) ASSERT_EQ(recorder_->OnVideoFrame(&first.frame), KIV_OK);
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        script_->Release();
    });
    ASSERT_EQ(recorder_->Stop(), KIV_OK);
    release.join();
    EXPECT_EQ(Stats(handle_).inputFrames, 1) << "queued frames are not written after a stop";
    EXPECT_EQ(script_->finalizes, 2);
    ASSERT_EQ(recorder_->OnVideoFrame(&first.frame), KIV_OK);  // ignored while stopped
    EXPECT_EQ(Stats(handle_).inputFrames, 1);
}

// 30 slots of 333333 are 10 ns short of a second, so each file holds 31.
TEST_F(RecorderPort, TimeSplitOpensSegmentsOnTheGrid) {
    Start(KIV_RECORD_SPLIT_TIME, 1);
    for (int i = 0; i < 75; ++i) PushAndWait(uint8_t(i), kStart + i * kFrame30);
    ASSERT_EQ(recorder_->Stop(), KIV_OK);
    std::lock_guard<std::mutex> lock(script_->mutex);
    ASSERT_EQ(std::make_pair(script_->opens.size(), script_->finalizes), std::make_pair(size_t(3), 3));
    std::vector<int> perFile(3);
    for (const auto& w : script_->video) ++perFile[w.file];
    EXPECT_EQ(perFile, (std::vector<int>{31, 31, 13}));
    EXPECT_EQ(script_->video[31].time, 31 * kFrame30) << "the grid runs on across segments";
    EXPECT_EQ(script_->opens[1].width, 64);
}

std::atomic<int> g_stopResult{1};
void KIV_CALL StopFromCallback(const KivVideoFrame*, void* recorder) { g_stopResult = KIV_Stop(recorder); }

// The first written frame starts the grid; it reaches the frame callback, which cannot stop the worker.
TEST_F(RecorderPort, FailedOpenIsRetriedByTheNextFrame) {
    ASSERT_EQ(KIV_SetVideoFrameCallback(handle_, StopFromCallback, handle_), KIV_OK);
    script_->failOpens = 2;
    Start();
    for (int i = 0; i < 4; ++i) PushAndWait(uint8_t(i), kStart + i * kFrame30);
    EXPECT_EQ(Stats(handle_).encodedFrames, 2);
    EXPECT_EQ(std::make_pair(script_->Written().front().luma, script_->Written().front().time), std::make_pair(2, int64_t(0)));
    ASSERT_TRUE(WaitUntil([&] { return g_stopResult.load() != 1; }));
    EXPECT_EQ(g_stopResult.load(), KIV_ERROR_FAILED);
}

TEST_F(RecorderPort, AudioTakesTheFrameFormatAndCountsWrittenSamples) {
    Start(0, 0, 1);
    SilentPcm pcm(44100, 2, 4410);                  // 100 ms
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);  // before any file: only the format is kept
    PushAndWait(1, kStart);
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);
    pcm.frame.bytes = 441 * 4;  // 10 ms
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);
    std::lock_guard<std::mutex> lock(script_->mutex);
    ASSERT_EQ(script_->opens.size(), 1u);
    EXPECT_EQ(std::make_pair(script_->opens[0].sampleRate, script_->opens[0].width), std::make_pair(44100, 64)) << "no size set: the frame's";
    EXPECT_EQ(script_->audio, (std::vector<std::pair<int64_t, int64_t>>{{0, 1000000}, {1000000, 100000}, {1100000, 100000}}));
}

TEST_F(RecorderPort, InputModesRefuseTheOtherKindOfFrame) {
    const std::vector<uint8_t> idr = AccessUnit(true);
    const KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 64, 32, idr.data(), int32_t(idr.size()));
    Nv12Frame nv12(1, kStart);
    for (int32_t mode : {KIV_RECORD_INPUT_DIRECT_H264, KIV_RECORD_INPUT_ENCODE}) {
        KivRecorderConfig c = Config(kPath);
        c.inputMode = mode;
        ASSERT_EQ(KIV_SetRecorderConfig(handle_, &c), KIV_OK);
        ASSERT_EQ(recorder_->Start(), KIV_OK);
        ASSERT_EQ(recorder_->OnVideoFrame(mode == KIV_RECORD_INPUT_ENCODE ? &h264 : &nv12.frame), KIV_OK);
        ASSERT_TRUE(WaitUntil([&] { return Stats(handle_).inputFrames == 1; }));
        EXPECT_EQ(Stats(handle_).encodedFrames + Stats(handle_).droppedFrames, 0) << mode;
        ASSERT_EQ(recorder_->Stop(), KIV_OK);
    }
    EXPECT_EQ(script_->Written().size() + script_->opens.size(), 0u);
}

void KIV_CALL IgnoreAudio(const KivEncodedAudioPacket*, void*) {}

TEST(RecorderApi, RefusalsStatsAndConfigWhileRunning) {
    kivtest::LibraryScope library;
    void *rec = KIV_CreateRecorder("first.mp4"), *mux = KIV_CreateVideoMux();
    ASSERT_NE(rec, nullptr);
    KivRecorderConfig c = Config(kivtest::TempDir("recorder_api") + "/c.mp4", 640, 360);
    c.inputFps = 25;
    KivRecorderStats s{};
    auto* port = static_cast<KivPortBase*>(rec);
    for (void* bad : {static_cast<void*>(nullptr), mux})
        EXPECT_EQ(std::vector<int32_t>({KIV_SetRecorderConfig(bad, &c), KIV_GetRecorderStats(bad, &s),
                                        KIV_SetRecorderVideoCallback(bad, PacketLog::OnPacket, nullptr),
                                        KIV_SetRecorderAudioCallback(bad, IgnoreAudio, nullptr),
                                        KIV_SetRecorderConfig(rec, nullptr), KIV_GetRecorderStats(rec, nullptr),
                                        port->OnVideoFrame(nullptr), port->OnAudioFrame(nullptr)}),
                  std::vector<int32_t>(8, KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(std::make_pair(Stats(rec).width, Stats(rec).fps), std::make_pair(0, 30)) << "no refused call stored anything";
    EXPECT_EQ(KIV_SetRecorderVideoCallback(rec, nullptr, nullptr) + KIV_SetRecorderAudioCallback(rec, nullptr, nullptr), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);

    ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
    std::memset(&s, 0xAB, sizeof(s));
    ASSERT_EQ(KIV_GetRecorderStats(rec, &s), KIV_OK);  // every field written, counters zero
    EXPECT_EQ((std::vector<int64_t>{s.inputFrames, s.audioPackets, s.fps, s.width, s.height, s.reserved}), (std::vector<int64_t>{0, 0, 25, 640, 360, 0}));
    c.width = 1280, c.recordFps = 50;  // refused while running, taken once stopped
    EXPECT_EQ(std::vector<int64_t>({KIV_Start(rec), KIV_SetRecorderConfig(rec, &c), Stats(rec).width, KIV_Stop(rec),
                                    KIV_SetRecorderConfig(rec, &c), Stats(rec).fps, KIV_DestroyPort(rec)}),
              std::vector<int64_t>({KIV_OK, KIV_ERROR_FAILED, 640, KIV_OK, KIV_OK, 50, KIV_OK}));

    // Start needs a path; destroying a running recorder stops it.
    void* none = KIV_CreateRecorder(nullptr);
    EXPECT_EQ(std::vector<int32_t>({KIV_Start(none), KIV_Stop(none), KIV_SetRecorderConfig(none, &c), KIV_Start(none), KIV_DestroyPort(none)}),
              std::vector<int32_t>({KIV_ERROR_INVALID_ARG, KIV_OK, KIV_OK, KIV_OK, KIV_OK}));
#if !defined(_WIN32)
    rec = KIV_CreateRecorder("caf\xC3\xA9-\xF0\x9F\x8E\xA5.mp4");  // UTF-8 is the system code page here
    const kiv::RecorderPath expected = {'c', 'a', 'f', 0xE9, '-', 0xD83C, 0xDFA5, '.', 'm', 'p', '4'};
    EXPECT_EQ(static_cast<KivRecorder*>(static_cast<KivPortBase*>(rec))->Settings().path, expected);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
#endif
}

class RecorderFlow : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        ASSERT_EQ(KIV_Connect(source_, recorder_), KIV_OK);
    }
    void TearDown() override {
        KIV_EnableLog(0);
        EXPECT_EQ(KIV_Disconnect(source_, recorder_) + KIV_DestroyPort(recorder_) + KIV_DestroyPort(source_), KIV_OK);
    }
    void Start(const std::string& file, int32_t split = 0, bool audio = false) {
        const KivRecorderConfig c = Config(file, 320, 240, 25, split, 300000, 1, audio);
        ASSERT_EQ(KIV_SetRecorderConfig(recorder_, &c), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder_), KIV_OK);
        pushed_ = 0;
    }
    // Waits for the worker (no queue drops); frames say 640x480 (the configured size wins), 25 a second unless timed.
    void Push(const std::vector<uint8_t>& au, int64_t timestamp = 0) {
        KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, au.data(), int32_t(au.size()));
        f.timestamp = timestamp ? timestamp : 10000000 + pushed_ * 400000;
        ASSERT_EQ(KIV_PushVideoFrame(source_, &f), KIV_OK);
        ++pushed_;
        ASSERT_TRUE(WaitUntil([&] { return Stats(recorder_).inputFrames == pushed_; }));
    }

    kivtest::LibraryScope library_;
    void* source_ = KIV_CreateVideoFrameSource();
    void* recorder_ = KIV_CreateRecorder(nullptr);
    int64_t pushed_ = 0;
    const std::string dir_ = kivtest::TempDir("recorder_flow");
};

// Frames wait for the parameter sets; the written ones are timed by their own
// timestamps unless those run backwards or come closer than a frame.
TEST_F(RecorderFlow, PassThroughWaitsForParameterSetsAndDescribesEachWrittenFrame) {
    PacketLog seen;
    ASSERT_EQ(KIV_SetRecorderVideoCallback(recorder_, PacketLog::OnPacket, &seen), KIV_OK);
    Start(dir_ + "/wait.mp4");
    for (int i = 0; i < 2; ++i) Push(AccessUnit(false));
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/wait.mp4")) << "no file before the parameter sets";
    const int64_t t0 = 70000000;
    Push(AccessUnit(true), t0);
    for (int64_t t : {t0 + 500000, t0 + 600000, t0 - 1000000}) Push(AccessUnit(false), t);
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_TRUE(std::filesystem::exists(dir_ + "/wait.mp4"));
    const KivRecorderStats s = Stats(recorder_);
    EXPECT_EQ(std::vector<int64_t>({s.droppedFrames, s.encodedFrames, s.videoPackets}), std::vector<int64_t>({2, 4, 4}));
    ASSERT_EQ(seen.packets.size(), 4u);
    const int64_t times[] = {0, 500000, 900000, 1300000};
    for (size_t i = 0; i < 4; ++i) {
        const KivEncodedVideoPacket& p = seen.packets[i];
        // Times start at the first written frame; sizes with 4-byte start codes.
        EXPECT_EQ(std::vector<int64_t>({p.kind, p.frameIndex, p.key, p.pts, p.dts, p.width, p.height, p.size}),
                  std::vector<int64_t>({1, int64_t(i), i == 0, times[i], times[i], 320, 240, i == 0 ? 4 + 10 + 4 + 4 + 4 + 5 : 4 + 5}));
    }
}

// The first frame fails to open the file; the rest are dropped, with a line on the 1st, 241st, ... drop.
TEST_F(RecorderFlow, AWriterThatCannotOpenDisablesThePassThroughUntilTheNextStart) {
    Start(dir_ + "/missing-folder/x.mp4");
    for (int i = 0; i < 242; ++i) Push(AccessUnit(true));
    EXPECT_EQ(std::make_pair(Stats(recorder_).droppedFrames, Stats(recorder_).encodedFrames), std::make_pair(int64_t(242), int64_t(0)));
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), " dropped=241 input=241\r\n"), 1u);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/missing-folder"));
    Start(dir_ + "/good.mp4");
    Push(AccessUnit(true));
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Stats(recorder_).encodedFrames, 1);
    EXPECT_TRUE(std::filesystem::exists(dir_ + "/good.mp4"));
}

struct Stream { std::vector<Bytes> units; std::vector<std::string> hashes; };  // Annex B access units, decoded pictures

// ffmpeg-made H.264 recorded unit by unit; ffprobe and ffmpeg check counts, rates, durations and pictures.
class RecorderFfmpeg : public RecorderFlow {
protected:
    static constexpr int kFrames = 75;
    static void SetUpTestSuite() {
        if (!HaveFfmpegTools()) return;
        const std::string dir = kivtest::TempDir("recorder_ffmpeg_streams");
        // Noise keeps every NAL unit long, so no 4-byte length looks like a
        // start code (lengths 256..511 begin 00 00 01).
        for (const std::string name : {"baseline", "high"}) {
            const std::string path = dir + "/" + name + ".h264";
            if (streamtest::Run("ffmpeg -v error -y -f lavfi -i 'testsrc=size=320x240:rate=25,noise=alls=40:allf=t' -frames:v " +
                                std::to_string(kFrames) + " -pix_fmt yuv420p -c:v libx264 -preset veryfast -threads 1 " +
                                (name == "high" ? "-profile:v high -bf 3" : "-profile:v baseline") +
                                " -crf 20 -g 25 -x264-params scenecut=0 -bsf:v h264_metadata=aud=insert -f h264 '" + path + "'") == 0)
                streams_[name] = Stream{SplitAccessUnits(ReadAll(path)), DecodedFrameHashes(path)};
        }
    }
    void SetUp() override {
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not found (native build only)";
        RecorderFlow::SetUp();
    }
    // `audio`, when given, follows every video frame.
    KivRecorderStats Record(const std::vector<Bytes>& units, const std::string& file, int32_t split = 0,
                            bool lengthPrefixed = false, const KivAudioFrame* audio = nullptr) {
        Start(file, split, audio != nullptr);
        for (size_t i = 0; i < units.size() && !HasFatalFailure(); ++i) {
            Push(lengthPrefixed ? LengthPrefixed(NalUnits(units[i])) : units[i]);
            EXPECT_EQ(audio ? static_cast<KivPortBase*>(recorder_)->OnAudioFrame(audio) : KIV_OK, KIV_OK);
        }
        EXPECT_EQ(KIV_Stop(recorder_), KIV_OK);
        return Stats(recorder_);
    }
    static std::map<std::string, std::string> ProbeVideo(const std::string& file) {
        return Probe("-select_streams v:0 -count_frames -count_packets -show_entries stream=codec_name,avg_frame_rate,"
                     "nb_read_frames,nb_read_packets:format=duration,nb_streams '" + file + "'");
    }

    static std::map<std::string, Stream> streams_;
};

std::map<std::string, Stream> RecorderFfmpeg::streams_;

// Baseline in Annex B form with audio, which this build cannot encode (the
// file keeps its video track only); High with B-frames, length-prefixed.
TEST_F(RecorderFfmpeg, EveryProfileAndFramingRecordsTheSamePictures) {
    SilentPcm pcm(48000, 2, 1920);  // 40 ms
    for (const std::string name : {"baseline", "high"}) {
        SCOPED_TRACE(name);
        const Stream& s = streams_[name];
        const bool high = name == "high";
        const std::string out = dir_ + "/" + name + ".mp4";
        PacketLog packets;
        packets.recorder = recorder_;
        ASSERT_EQ(KIV_SetRecorderVideoCallback(recorder_, PacketLog::OnPacket, &packets), KIV_OK);
        const KivRecorderStats stats = Record(s.units, out, 0, high, high ? nullptr : &pcm.frame);
        EXPECT_EQ(std::vector<int64_t>({stats.inputFrames, stats.encodedFrames, stats.droppedFrames, stats.videoPackets, stats.audioPackets}),
                  std::vector<int64_t>({kFrames, kFrames, 0, kFrames, 0}));
        auto p = ProbeVideo(out);
        EXPECT_EQ(std::vector<std::string>({p["codec_name"], p["nb_read_frames"], p["avg_frame_rate"], p["nb_streams"]}),
                  std::vector<std::string>({"h264", std::to_string(kFrames), "25/1", "1"}));
        EXPECT_NEAR(std::atof(p["duration"].c_str()), kFrames / 25.0, 0.001);
        EXPECT_EQ(DecodedFrameHashes(out), s.hashes);
        // The packet callback saw every frame, could read statistics, and its bytes alone decode the same.
        ASSERT_EQ(packets.packets.size(), size_t(kFrames));
        EXPECT_EQ(packets.statsCalls, kFrames);
        EXPECT_EQ(std::count_if(packets.packets.begin(), packets.packets.end(), [](const KivEncodedVideoPacket& p) { return p.key; }), 3);
        ASSERT_TRUE(kivtest::WriteFile(dir_ + "/callback.h264", std::string(packets.bytes.begin(), packets.bytes.end())));
        EXPECT_EQ(DecodedFrameHashes(dir_ + "/callback.h264"), s.hashes);
    }
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "AAC encoder init failed sr=48000 ch=2\r\n"), 1u);
}

// One-second segments begin on the key frames of this 25-frame group structure, so each decodes on its own;
// 300 KB segments start anywhere, so only the first decodes, and each is over the limit by at most a frame.
TEST_F(RecorderFfmpeg, SplitSegmentsAreCompleteFilesHoldingEveryFrame) {
    for (int32_t split : {KIV_RECORD_SPLIT_TIME, KIV_RECORD_SPLIT_SIZE}) {
        SCOPED_TRACE(split);
        const Stream& s = streams_[split == KIV_RECORD_SPLIT_TIME ? "high" : "baseline"];
        const std::string dir = kivtest::TempDir("recorder_ffmpeg_split" + std::to_string(split));
        EXPECT_EQ(Record(s.units, dir + "/part.mp4", split).encodedFrames, kFrames);
        std::vector<std::string> files, joined;
        for (const auto& e : std::filesystem::directory_iterator(dir)) files.push_back(e.path().string());
        std::sort(files.begin(), files.end());  // names end in the segment number
        ASSERT_GE(files.size(), 3u);
        EXPECT_TRUE(split == KIV_RECORD_SPLIT_SIZE || files.size() == 3u) << files.size();
        int packets = 0;
        for (size_t i = 0; i < files.size(); ++i) {
            EXPECT_NE(files[i].find("_000" + std::to_string(i + 1) + ".mp4"), std::string::npos) << files[i];
            auto p = ProbeVideo(files[i]);
            packets += std::atoi(p["nb_read_packets"].c_str());
            if (split == KIV_RECORD_SPLIT_SIZE) {
                EXPECT_LT(std::filesystem::file_size(files[i]), 500000u) << files[i];
                if (i > 0) continue;
            } else {
                EXPECT_EQ(p["nb_read_frames"], "25") << files[i];
                EXPECT_NEAR(std::atof(p["duration"].c_str()), 1.0, 0.001);
            }
            for (const std::string& h : DecodedFrameHashes(files[i])) joined.push_back(h);
        }
        EXPECT_EQ(packets, kFrames);
        EXPECT_EQ(joined, std::vector<std::string>(s.hashes.begin(), s.hashes.begin() + ptrdiff_t(joined.size())));
        EXPECT_GE(joined.size(), split == KIV_RECORD_SPLIT_TIME ? size_t(kFrames) : 1u);
    }
}

}  // namespace
