// The recorder port driven with a scripted encoder: the worker's pacing,
// the queue that drops the oldest frame, segments, audio timing and the
// input-mode checks.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "record/kiv_recorder.h"
#include "recorder_test_util.h"
#include "test_support.h"

using rectest::EncoderScript;
using rectest::Nv12Frame;
using rectest::Stats;
using rectest::WaitUntil;

namespace {

constexpr int64_t kFrame30 = 333333;
constexpr int64_t kStart = 50000000;  // any positive time: frames carry their own timestamps

class RecorderPort : public ::testing::Test {
protected:
    void SetUp() override {
        script_ = std::make_shared<EncoderScript>();
        recorder_ = new KivRecorder("/tmp/kivtest_recorder_port/out.mp4", rectest::MakeScriptedEncoder(script_));
    }
    void TearDown() override { EXPECT_EQ(KIV_DestroyPort(static_cast<KivPortBase*>(recorder_)), KIV_OK); }

    void* Handle() { return static_cast<KivPortBase*>(recorder_); }

    void Configure(int32_t recordFps, int32_t split = 0, int32_t seconds = 0) {
        KivRecorderConfig c = rectest::Config("/tmp/kivtest_recorder_port/out.mp4");
        c.width = 64;
        c.height = 32;
        c.recordFps = recordFps;
        c.split = split;
        c.seconds = seconds;
        ASSERT_EQ(KIV_SetRecorderConfig(Handle(), &c), KIV_OK);
    }

    // Pushes a frame and waits until the worker took it, so the queue never
    // overflows and the outcome depends on timestamps only.
    void PushAndWait(uint8_t luma, int64_t timestamp) {
        Nv12Frame f(64, 32, luma, timestamp);
        const int64_t before = Stats(Handle()).inputFrames;
        ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
        ASSERT_TRUE(WaitUntil([&] { return Stats(Handle()).inputFrames == before + 1; }));
    }

    std::vector<EncoderScript::Video> Written() {
        std::lock_guard<std::mutex> lock(script_->mutex);
        return script_->video;
    }

    std::shared_ptr<EncoderScript> script_;
    KivRecorder* recorder_ = nullptr;
};

TEST_F(RecorderPort, SixtyFramesASecondIntoThirtyWritesEverySecondFrameOnTheGrid) {
    Configure(30);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    for (int i = 0; i < 60; ++i) PushAndWait(static_cast<uint8_t>(i), kStart + i * 166666);
    const KivRecorderStats s = Stats(Handle());
    EXPECT_EQ(s.inputFrames, 60);
    EXPECT_EQ(s.encodedFrames, 30);
    EXPECT_EQ(s.droppedFrames, 30);
    EXPECT_EQ(s.duplicatedFrames, 0);
    const auto written = Written();
    ASSERT_EQ(written.size(), 30u);
    for (size_t k = 0; k < written.size(); ++k) {
        EXPECT_EQ(written[k].time, static_cast<int64_t>(k) * kFrame30);
        EXPECT_EQ(written[k].duration, kFrame30);
        EXPECT_EQ(written[k].firstLuma, 2 * k);
    }
    ASSERT_EQ(recorder_->Stop(), KIV_OK);
    EXPECT_EQ(script_->finalizes, 1);
}

TEST_F(RecorderPort, FifteenIntoThirtyRepeatsThePreviousPicture) {
    Configure(30);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    for (int i = 0; i < 10; ++i) PushAndWait(static_cast<uint8_t>(100 + i), kStart + i * 2 * kFrame30);
    const KivRecorderStats s = Stats(Handle());
    EXPECT_EQ(s.encodedFrames, 10);
    EXPECT_EQ(s.duplicatedFrames, 9);
    const auto written = Written();
    ASSERT_EQ(written.size(), 19u);
    for (size_t k = 0; k < written.size(); ++k) {
        EXPECT_EQ(written[k].time, static_cast<int64_t>(k) * kFrame30);
        EXPECT_EQ(written[k].firstLuma, 100 + k / 2) << "slot " << k;
    }
}

TEST_F(RecorderPort, FramesWithoutTimestampAreTimedByTheSteadyClock) {
    Configure(30);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    PushAndWait(1, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    PushAndWait(2, 0);
    // 100 ms or more at 30 frames a second: the first picture fills at
    // least two more slots before the second is written.
    EXPECT_GE(Stats(Handle()).duplicatedFrames, 2);
}

TEST_F(RecorderPort, FullQueueDropsTheOldestFrames) {
    Configure(30);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    script_->hold = true;
    Nv12Frame first(64, 32, 0, kStart);
    ASSERT_EQ(recorder_->OnVideoFrame(&first.frame), KIV_OK);
    ASSERT_TRUE(script_->WaitHolding());
    for (int i = 1; i <= 10; ++i) {
        Nv12Frame f(64, 32, static_cast<uint8_t>(i), kStart + i * kFrame30);
        ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
    }
    EXPECT_EQ(recorder_->AsyncDropped(), 2);
    script_->Release();
    ASSERT_TRUE(WaitUntil([&] { return Stats(Handle()).inputFrames == 9; }));
    std::vector<int> lumas;
    for (const auto& w : Written()) lumas.push_back(w.firstLuma);
    // Frames 1 and 2 were pushed out; the grid repeats frame 0 in their slots.
    EXPECT_EQ(lumas, (std::vector<int>{0, 0, 0, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(recorder_->Stop(), KIV_OK);
}

TEST_F(RecorderPort, TimeSplitOpensNumberedSegmentsOnTheGrid) {
    Configure(30, KIV_RECORD_SPLIT_TIME, 1);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    for (int i = 0; i < 75; ++i) PushAndWait(static_cast<uint8_t>(i), kStart + i * kFrame30);
    ASSERT_EQ(recorder_->Stop(), KIV_OK);

    std::lock_guard<std::mutex> lock(script_->mutex);
    ASSERT_EQ(script_->files.size(), 3u);
    EXPECT_EQ(script_->finalizes, 3);
    for (size_t i = 0; i < 3; ++i) {
        const std::string name(script_->files[i].begin(), script_->files[i].end());
        EXPECT_EQ(name.rfind("/tmp/kivtest_recorder_port/out_", 0), 0u) << name;
        EXPECT_EQ(name.substr(name.size() - 9), "_000" + std::to_string(i + 1) + ".mp4") << name;
        EXPECT_EQ(name.size(), std::string("/tmp/kivtest_recorder_port/out_20240101_000000_000_0001.mp4").size());
    }
    std::vector<int> perFile(3);
    for (const auto& w : script_->video) ++perFile[static_cast<size_t>(w.file)];
    // 30 slots of 333333 are 10 ns short of a second, so each file holds 31.
    EXPECT_EQ(perFile, (std::vector<int>{31, 31, 13}));
    EXPECT_EQ(script_->video[31].file, 1);
    EXPECT_EQ(script_->video[31].time, 31 * kFrame30) << "the grid runs on across segments";
    EXPECT_EQ(script_->opens[1].width, 64);
}

TEST_F(RecorderPort, FailedOpenIsRetriedByTheNextFrame) {
    Configure(30);
    script_->failOpens = 2;
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    for (int i = 0; i < 4; ++i) PushAndWait(static_cast<uint8_t>(i), kStart + i * kFrame30);
    const KivRecorderStats s = Stats(Handle());
    EXPECT_EQ(s.inputFrames, 4);
    EXPECT_EQ(s.encodedFrames, 2);
    EXPECT_EQ(Written().front().firstLuma, 2);
    EXPECT_EQ(Written().front().time, 0) << "the grid starts with the first frame written";
}

TEST_F(RecorderPort, AudioTakesTheFrameFormatAndCountsWrittenSamples) {
    KivRecorderConfig c = rectest::Config("/tmp/kivtest_recorder_port/out.mp4");
    c.audio = 1;
    ASSERT_EQ(KIV_SetRecorderConfig(Handle(), &c), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    rectest::SilentPcm pcm(44100, 2, 4410);  // 100 ms
    KivAudioFrame& a = pcm.frame;
    ASSERT_EQ(recorder_->OnAudioFrame(&a), KIV_OK);  // before any file: only the format is kept
    PushAndWait(1, kStart);
    ASSERT_EQ(recorder_->OnAudioFrame(&a), KIV_OK);
    a.bytes = 441 * 4;  // 10 ms
    ASSERT_EQ(recorder_->OnAudioFrame(&a), KIV_OK);
    ASSERT_EQ(recorder_->OnAudioFrame(&a), KIV_OK);

    std::lock_guard<std::mutex> lock(script_->mutex);
    ASSERT_EQ(script_->opens.size(), 1u);
    EXPECT_EQ(script_->opens[0].sampleRate, 44100);
    EXPECT_EQ(script_->opens[0].width, 64) << "no configured size: the frame's";
    std::vector<std::pair<int64_t, int64_t>> audio;  // time, duration
    for (const auto& a : script_->audio) audio.emplace_back(a.time, a.duration);
    EXPECT_EQ(audio, (std::vector<std::pair<int64_t, int64_t>>{{0, 1000000}, {1000000, 100000}, {1100000, 100000}}));
}

TEST_F(RecorderPort, InputModesRefuseTheOtherKindOfFrame) {
    KivRecorderConfig c = rectest::Config("/tmp/kivtest_recorder_port/out.mp4");
    c.inputMode = KIV_RECORD_INPUT_DIRECT_H264;
    ASSERT_EQ(KIV_SetRecorderConfig(Handle(), &c), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    PushAndWait(1, kStart);
    EXPECT_EQ(Stats(Handle()).encodedFrames, 0);
    ASSERT_EQ(recorder_->Stop(), KIV_OK);

    c.inputMode = KIV_RECORD_INPUT_ENCODE;
    ASSERT_EQ(KIV_SetRecorderConfig(Handle(), &c), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    uint8_t idr[] = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x00};
    const KivVideoFrame h = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 64, 32, idr, sizeof idr);
    ASSERT_EQ(recorder_->OnVideoFrame(&h), KIV_OK);
    ASSERT_TRUE(WaitUntil([&] { return Stats(Handle()).inputFrames == 1; }));
    EXPECT_EQ(Stats(Handle()).encodedFrames, 0);
    EXPECT_EQ(Stats(Handle()).droppedFrames, 0);
    EXPECT_TRUE(Written().empty());
    EXPECT_EQ(script_->opens.size(), 0u);
}

TEST_F(RecorderPort, StopDiscardsQueuedFramesAndCountersRestartAtStart) {
    Configure(30);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    script_->hold = true;
    Nv12Frame f(64, 32, 0, kStart);
    ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
    ASSERT_TRUE(script_->WaitHolding());
    for (int i = 1; i <= 5; ++i) {
        f.frame.timestamp = kStart + i * kFrame30;
        ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
    }
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        script_->Release();
    });
    ASSERT_EQ(recorder_->Stop(), KIV_OK);
    release.join();
    EXPECT_EQ(Stats(Handle()).inputFrames, 1) << "queued frames are not written after a stop";
    EXPECT_EQ(script_->finalizes, 1);

    // Frames while stopped are ignored; a new start counts from zero.
    ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    EXPECT_EQ(Stats(Handle()).inputFrames, 0);
    PushAndWait(1, kStart);
    EXPECT_EQ(Stats(Handle()).encodedFrames, 1);
}

struct StopFromCallback {
    void* recorder = nullptr;
    std::atomic<int> result{1};
};

void KIV_CALL StopInsideCallback(const KivVideoFrame*, void* user) {
    auto* ctx = static_cast<StopFromCallback*>(user);
    ctx->result = KIV_Stop(ctx->recorder);
}

TEST_F(RecorderPort, WrittenFramesReachTheFrameCallbackWhichCannotStopTheWorker) {
    Configure(30);
    StopFromCallback ctx;
    ctx.recorder = Handle();
    ASSERT_EQ(KIV_SetVideoFrameCallback(Handle(), StopInsideCallback, &ctx), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    PushAndWait(1, kStart);
    ASSERT_TRUE(WaitUntil([&] { return ctx.result.load() != 1; }));
    EXPECT_EQ(ctx.result.load(), KIV_ERROR_FAILED);
    EXPECT_EQ(recorder_->Stop(), KIV_OK);
}

}  // namespace
