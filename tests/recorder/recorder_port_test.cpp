// The recorder port with a scripted encoder (the worker's pacing, the queue
// that drops the oldest frame, segments, audio timing, input modes) and its
// exported functions as an application calls them.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>

#include "record/kiv_recorder.h"
#include "recorder_test_util.h"

using rectest::EncoderScript;
using rectest::Nv12Frame;
using rectest::Stats;
using rectest::WaitUntil;

namespace {

constexpr int64_t kFrame30 = 333333;
constexpr int64_t kStart = 50000000;  // any positive time: frames carry their own timestamps
const char* const kPath = "/tmp/kivtest_recorder_port/out.mp4";

class RecorderPort : public ::testing::Test {
protected:
    std::shared_ptr<EncoderScript> script_ = std::make_shared<EncoderScript>();
    KivRecorder* recorder_ = new KivRecorder(kPath, std::make_unique<rectest::ScriptedEncoder>(script_));
    void* handle_ = static_cast<KivPortBase*>(recorder_);

    void TearDown() override { EXPECT_EQ(KIV_DestroyPort(handle_), KIV_OK); }
    void Renew() {
        TearDown();
        script_ = std::make_shared<EncoderScript>();
        recorder_ = new KivRecorder(kPath, std::make_unique<rectest::ScriptedEncoder>(script_));
        handle_ = static_cast<KivPortBase*>(recorder_);
    }

    void Start(int32_t split = 0, int32_t seconds = 0, int32_t audio = 0, int32_t recordFps = 30) {
        KivRecorderConfig c = rectest::Config(kPath);
        c.width = audio ? 0 : 64;
        c.height = audio ? 0 : 32;
        c.recordFps = audio ? 0 : recordFps;
        c.split = split;
        c.seconds = seconds;
        c.audio = audio;
        ASSERT_EQ(KIV_SetRecorderConfig(handle_, &c), KIV_OK);
        ASSERT_EQ(recorder_->Start(), KIV_OK);
    }
    // Pushes a frame and waits until the worker took it, so the queue never
    // overflows and the outcome depends on timestamps only.
    void PushAndWait(uint8_t luma, int64_t timestamp) {
        Nv12Frame f(64, 32, luma, timestamp);
        const int64_t before = Stats(handle_).inputFrames;
        ASSERT_EQ(recorder_->OnVideoFrame(&f.frame), KIV_OK);
        ASSERT_TRUE(WaitUntil([&] { return Stats(handle_).inputFrames == before + 1; }));
    }
    std::vector<int> Lumas() {
        std::vector<int> out;
        for (const auto& w : script_->Written()) out.push_back(w.firstLuma);
        return out;
    }
};

TEST_F(RecorderPort, RatesAreFittedToTheGrid) {
    const struct {
        int frames;
        int64_t step;
        std::vector<int64_t> counts;  // input, encoded, dropped, duplicated
        int slots;
    } cases[] = {{60, 166666, {60, 30, 30, 0}, 30}, {10, 2 * kFrame30, {10, 10, 0, 9}, 19}};
    for (const auto& c : cases) {
        Renew();
        Start();
        for (int i = 0; i < c.frames; ++i) PushAndWait(uint8_t(i), kStart + i * c.step);
        const KivRecorderStats s = Stats(handle_);
        EXPECT_EQ(std::vector<int64_t>({s.inputFrames, s.encodedFrames, s.droppedFrames, s.duplicatedFrames}), c.counts);
        const auto written = script_->Written();
        ASSERT_EQ(written.size(), size_t(c.slots));
        for (size_t k = 0; k < written.size(); ++k) {
            EXPECT_EQ(written[k].time, int64_t(k) * kFrame30);
            EXPECT_EQ(written[k].duration, kFrame30);
            EXPECT_EQ(written[k].firstLuma, c.step < kFrame30 ? 2 * k : k / 2) << "slot " << k;  // every 2nd, or each twice
        }
        ASSERT_EQ(recorder_->Stop(), KIV_OK);
        EXPECT_EQ(script_->finalizes, 1);
    }
    // Frames without a timestamp are timed by the steady clock: 100 ms at 30
    // frames a second repeats the first picture at least twice.
    Start();
    PushAndWait(1, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    PushAndWait(2, 0);
    EXPECT_GE(Stats(handle_).duplicatedFrames, 2);
}

TEST_F(RecorderPort, FullQueueDropsTheOldestAndStopDiscardsTheQueue) {
    Start();
    script_->hold = true;
    Nv12Frame first(64, 32, 0, kStart);
    ASSERT_EQ(recorder_->OnVideoFrame(&first.frame), KIV_OK);
    ASSERT_TRUE(script_->WaitHolding());
    for (int i = 1; i <= 10; ++i) {
        Nv12Frame f(64, 32, uint8_t(i), kStart + i * kFrame30);
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

TEST_F(RecorderPort, TimeSplitOpensNumberedSegmentsOnTheGrid) {
    Start(KIV_RECORD_SPLIT_TIME, 1);
    for (int i = 0; i < 75; ++i) PushAndWait(uint8_t(i), kStart + i * kFrame30);
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
    for (const auto& w : script_->video) ++perFile[size_t(w.file)];
    // 30 slots of 333333 are 10 ns short of a second, so each file holds 31.
    EXPECT_EQ(perFile, (std::vector<int>{31, 31, 13}));
    EXPECT_EQ(script_->video[31].time, 31 * kFrame30) << "the grid runs on across segments";
    EXPECT_EQ(script_->opens[1].width, 64);
}

TEST_F(RecorderPort, FailedOpenIsRetriedByTheNextFrame) {
    script_->failOpens = 2;
    Start();
    for (int i = 0; i < 4; ++i) PushAndWait(uint8_t(i), kStart + i * kFrame30);
    EXPECT_EQ(Stats(handle_).encodedFrames, 2);
    EXPECT_EQ(script_->Written().front().firstLuma, 2);
    EXPECT_EQ(script_->Written().front().time, 0) << "the grid starts with the first frame written";
}

TEST_F(RecorderPort, AudioTakesTheFrameFormatAndCountsWrittenSamples) {
    Start(0, 0, 1);
    rectest::SilentPcm pcm(44100, 2, 4410);  // 100 ms
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);  // before any file: only the format is kept
    PushAndWait(1, kStart);
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);
    pcm.frame.bytes = 441 * 4;  // 10 ms
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);
    ASSERT_EQ(recorder_->OnAudioFrame(&pcm.frame), KIV_OK);
    std::lock_guard<std::mutex> lock(script_->mutex);
    ASSERT_EQ(script_->opens.size(), 1u);
    EXPECT_EQ(script_->opens[0].sampleRate, 44100);
    EXPECT_EQ(script_->opens[0].width, 64) << "no configured size: the frame's";
    std::vector<std::pair<int64_t, int64_t>> audio;  // time, duration
    for (const auto& a : script_->audio) audio.emplace_back(a.time, a.duration);
    EXPECT_EQ(audio, (std::vector<std::pair<int64_t, int64_t>>{{0, 1000000}, {1000000, 100000}, {1100000, 100000}}));
}

TEST_F(RecorderPort, InputModesRefuseTheOtherKindOfFrame) {
    KivRecorderConfig c = rectest::Config(kPath);
    c.inputMode = KIV_RECORD_INPUT_DIRECT_H264;
    ASSERT_EQ(KIV_SetRecorderConfig(handle_, &c), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    PushAndWait(1, kStart);
    EXPECT_EQ(Stats(handle_).encodedFrames, 0);
    ASSERT_EQ(recorder_->Stop(), KIV_OK);

    c.inputMode = KIV_RECORD_INPUT_ENCODE;
    ASSERT_EQ(KIV_SetRecorderConfig(handle_, &c), KIV_OK);
    ASSERT_EQ(recorder_->Start(), KIV_OK);
    const std::vector<uint8_t> idr = rectest::AccessUnit(true);
    const KivVideoFrame h = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 64, 32, idr.data(), int32_t(idr.size()));
    ASSERT_EQ(recorder_->OnVideoFrame(&h), KIV_OK);
    ASSERT_TRUE(WaitUntil([&] { return Stats(handle_).inputFrames == 1; }));
    EXPECT_EQ(Stats(handle_).encodedFrames + Stats(handle_).droppedFrames, 0);
    EXPECT_TRUE(script_->Written().empty());
    EXPECT_EQ(script_->opens.size(), 0u);
}

struct StopFromCallback {
    void* recorder = nullptr;
    std::atomic<int> result{1};
    static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
        auto* ctx = static_cast<StopFromCallback*>(user);
        ctx->result = KIV_Stop(ctx->recorder);
    }
};

TEST_F(RecorderPort, WrittenFramesReachTheFrameCallbackWhichCannotStopTheWorker) {
    StopFromCallback ctx;
    ctx.recorder = handle_;
    ASSERT_EQ(KIV_SetVideoFrameCallback(handle_, StopFromCallback::OnFrame, &ctx), KIV_OK);
    Start();
    PushAndWait(1, kStart);
    ASSERT_TRUE(WaitUntil([&] { return ctx.result.load() != 1; }));
    EXPECT_EQ(ctx.result.load(), KIV_ERROR_FAILED);
    EXPECT_EQ(recorder_->Stop(), KIV_OK);
}

void KIV_CALL IgnoreVideo(const KivEncodedVideoPacket*, void*) {}
void KIV_CALL IgnoreAudio(const KivEncodedAudioPacket*, void*) {}

class RecorderApi : public ::testing::Test {
protected:
    kivtest::LibraryScope library_;
};

TEST_F(RecorderApi, BadHandlesAndRecordsAreRefusedAndChangeNothing) {
    void* rec = KIV_CreateRecorder("first.mp4");
    void* mux = KIV_CreateVideoMux();
    ASSERT_NE(rec, nullptr);
    KivRecorderConfig c = rectest::Config("other.mp4");
    c.width = 320;
    KivRecorderStats s{};
    for (void* bad : {static_cast<void*>(nullptr), mux}) {
        EXPECT_EQ(std::vector<KivResult>({KIV_SetRecorderConfig(bad, &c), KIV_GetRecorderStats(bad, &s),
                                          KIV_SetRecorderVideoCallback(bad, IgnoreVideo, nullptr),
                                          KIV_SetRecorderAudioCallback(bad, IgnoreAudio, nullptr)}),
                  std::vector<KivResult>(4, KIV_ERROR_INVALID_ARG));
    }
    EXPECT_EQ(KIV_SetRecorderConfig(rec, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_GetRecorderStats(rec, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(Stats(rec).width, 0) << "no refused call stored anything";
    EXPECT_EQ(Stats(rec).fps, 30);
    EXPECT_EQ(KIV_SetRecorderVideoCallback(rec, nullptr, nullptr), KIV_OK);
    EXPECT_EQ(KIV_SetRecorderAudioCallback(rec, nullptr, nullptr), KIV_OK);
    EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);

    void* none = KIV_CreateRecorder(nullptr);
    EXPECT_EQ(KIV_Start(none), KIV_ERROR_INVALID_ARG) << "start needs a path";
    EXPECT_EQ(KIV_Stop(none), KIV_OK);
    c = rectest::Config(kivtest::TempDir("recorder_api_start") + "/b.mp4");
    ASSERT_EQ(KIV_SetRecorderConfig(none, &c), KIV_OK);
    EXPECT_EQ(KIV_Start(none), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(none), KIV_OK) << "destroying a running recorder stops it";
#if !defined(_WIN32)
    rec = KIV_CreateRecorder("caf\xC3\xA9-\xF0\x9F\x8E\xA5.mp4");  // UTF-8 is the system code page here
    const kiv::RecorderPath expected = {'c', 'a', 'f', 0xE9, '-', 0xD83C, 0xDFA5, '.', 'm', 'p', '4'};
    EXPECT_EQ(static_cast<KivRecorder*>(static_cast<KivPortBase*>(rec))->Settings().path, expected);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
#endif
}

// Statistics, configuration while running and the log lines of a
// configuration, start and stop.
TEST_F(RecorderApi, StatsConfigWhileRunningAndLogLines) {
    const std::string dir = kivtest::TempDir("recorder_api");
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* rec = KIV_CreateRecorder((dir + "/c.mp4").c_str());
    KivRecorderConfig c = rectest::Config("");
    c.width = 640;
    c.height = 360;
    c.inputFps = 25;
    c.split = KIV_RECORD_SPLIT_SIZE;
    ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
    KivRecorderStats s;
    std::memset(&s, 0xAB, sizeof(s));
    ASSERT_EQ(KIV_GetRecorderStats(rec, &s), KIV_OK);  // every field written, counters zero
    EXPECT_EQ((std::vector<int64_t>{s.inputFrames, s.audioPackets, s.fps, s.width, s.height, s.reserved}),
              (std::vector<int64_t>{0, 0, 25, 640, 360, 0}));
    ASSERT_EQ(KIV_SetRecorderVideoCallback(rec, IgnoreVideo, nullptr), KIV_OK);
    ASSERT_EQ(KIV_SetRecorderAudioCallback(rec, nullptr, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Start(rec), KIV_OK);
    KivRecorderConfig changed = c;
    changed.width = 1280;
    changed.recordFps = 50;
    EXPECT_EQ(KIV_SetRecorderConfig(rec, &changed), KIV_ERROR_FAILED);
    EXPECT_EQ(Stats(rec).width, 640);
    ASSERT_EQ(KIV_Stop(rec), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    KIV_EnableLog(0);
    EXPECT_EQ(KIV_SetRecorderConfig(rec, &changed), KIV_OK);
    EXPECT_EQ(Stats(rec).fps, 50);
    EXPECT_NE(log.find("[kiv_recorder.cpp:"), std::string::npos);
    const std::string file = dir + "/c.mp4";
    for (const std::string& line :
         {"] Recorder config file=" + file + " size=640x360 inputFps=25 recordFps=0 mode=follow-input targetFps=25 "
          "bitrate=8000000 audio=0 inputMode=0 split=1 maxBytes=1073741824 seconds=0\r\n",
          std::string("] Recorder encoded video callback enabled\r\n"), std::string("] Recorder encoded audio callback disabled\r\n"),
          "] Recorder start file=" + file + " targetFps=25 asyncQueue=8\r\n", std::string("] Recorder stop asyncDropped=0\r\n")})
        EXPECT_NE(log.find(line), std::string::npos) << line << log;
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
}

// The native build has no platform encoder: uncompressed frames are taken,
// counted, and refused by the writer without leaving a file behind.
TEST_F(RecorderApi, EncodePathWithoutAPlatformEncoderFailsCleanly) {
    const std::string file = kivtest::TempDir("recorder_noencoder") + "/clip.mp4";
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* source = KIV_CreateVideoFrameSource();
    void* rec = KIV_CreateRecorder(file.c_str());
    ASSERT_EQ(KIV_Connect(source, rec), KIV_OK);
    ASSERT_EQ(KIV_Start(rec), KIV_OK);
    kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 32, 16, 200);
    for (int i = 0; i < 3; ++i) {
        frame.frame.timestamp = 1000000 + i * 333333;
        ASSERT_EQ(KIV_PushVideoFrame(source, &frame.frame), KIV_OK);
        ASSERT_TRUE(WaitUntil([&] { return Stats(rec).inputFrames == i + 1; }));
    }
    EXPECT_EQ(Stats(rec).encodedFrames, 0);
    EXPECT_EQ(KIV_Stop(rec), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    KIV_EnableLog(0);
#if defined(_WIN32)
    const std::string failure = "] MFCreateSinkWriterFromURL failed hr=0x";  // refused at its creation
#else
    const std::string failure = "] MFCreateSinkWriterFromURL failed hr=0x80004001 file=" + file + "\r\n";
#endif
    if (kivtest::CountOf(log, failure) > 0) {
        EXPECT_EQ(kivtest::CountOf(log, failure), 3u) << "every frame tries to open the file again";
        EXPECT_FALSE(std::filesystem::exists(file));
    } else {  // a system that has the sink writer records the three frames
        EXPECT_NE(log.find("] Recorder writer ready file="), std::string::npos) << log;
    }
    EXPECT_EQ(KIV_Disconnect(source, rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
}

}  // namespace
