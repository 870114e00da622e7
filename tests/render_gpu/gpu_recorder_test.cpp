// The GPU recorder's rules against a stand-in sink: defaults, times, the
// zero-copy fallback, retries, audio checks and their log lines.
#include <gtest/gtest.h>

#include <memory>

#include "render/gpu_recorder.h"
#include "test_support.h"

namespace {

// Everything one recording's sink was asked to do.
struct SinkLog {
    int finalized = 0;
    kiv::GpuRecordSettings settings;
    int32_t width = 0, height = 0;
    void* device = nullptr;
    std::vector<void*> converted;
    // (time, duration, copied) per video sample; (time, duration, bytes) audio.
    std::vector<std::vector<int64_t>> video, audio;
};

struct SinkScript {
    int32_t openResult = KIV_OK;
    bool audioReady = true;
    int zeroCopyFailsFrom = -1;  // sample index from which zero-copy fails
    uint32_t audioResult = 0;
    std::vector<std::shared_ptr<SinkLog>> sinks;  // one per sink made
};

class FakeSink : public kiv::GpuRecordSink {
public:
    FakeSink(SinkScript* script, std::shared_ptr<SinkLog> log) : script_(script), log_(std::move(log)) {}
    int32_t Open(void* device, const kiv::GpuRecordSettings& settings, int32_t width, int32_t height,
                 bool* audioReady) override {
        log_->device = device, log_->settings = settings, log_->width = width, log_->height = height;
        *audioReady = script_->audioReady;
        return script_->openResult;
    }
    int32_t Convert(void* texture) override {
        log_->converted.push_back(texture);
        return KIV_OK;
    }
    uint32_t WriteVideoZeroCopy(int64_t time, int64_t duration) override {
        const int index = static_cast<int>(log_->video.size());
        if (script_->zeroCopyFailsFrom >= 0 && index >= script_->zeroCopyFailsFrom) return 0x887A0001u;
        log_->video.push_back({time, duration, 0});
        return 0;
    }
    int32_t WriteVideoCopied(int64_t time, int64_t duration) override {
        log_->video.push_back({time, duration, 1});
        return KIV_OK;
    }
    uint32_t WriteAudio(const uint8_t*, uint32_t bytes, int64_t time, int64_t duration) override {
        if (script_->audioResult == 0) log_->audio.push_back({time, duration, bytes});
        return script_->audioResult;
    }
    void Finalize() override { ++log_->finalized; }

private:
    SinkScript* script_;
    std::shared_ptr<SinkLog> log_;
};

KivGpuRecordConfig Request(const char* file, int32_t fps, int32_t audio, int32_t rate = 0, int32_t channels = 0,
                           int32_t audioBitrate = 0) {
    KivGpuRecordConfig r{};
    const auto wide = kivtest::Wide(file);
    std::copy(wide.begin(), wide.end(), r.file);
    r.fps = fps, r.bitrate = 4000000, r.audio = audio, r.sampleRate = rate, r.channels = channels;
    r.audioBitrate = audioBitrate;
    return r;
}

class GpuRecorderTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override { KIV_EnableLog(0); }
    kiv::GpuRecordSinkFactory Factory() {
        return [this] {
            script.sinks.push_back(std::make_shared<SinkLog>());
            return std::make_unique<FakeSink>(&script, script.sinks.back());
        };
    }
    KivAudioFrame Audio(int32_t rate, int32_t channels, uint32_t bytes, int32_t bits = 16) {
        return KivAudioFrame{pcm.data(), bytes, rate, channels, bits, 0, 0};
    }
    SinkScript script;
    std::vector<uint8_t> pcm = std::vector<uint8_t>(4096);  // no frame is longer
    int device = 0, texture = 0;
};

TEST_F(GpuRecorderTest, DefaultsAndCountedVideoTimes) {
    const struct {
        int32_t fps;
        int64_t duration;
    } cases[] = {{0, 333333}, {-5, 333333}, {25, 400000}, {60, 166666}};
    for (const auto& c : cases) {
        script = SinkScript{};
        kiv::GpuRecorder recorder(Factory());
        ASSERT_EQ(recorder.Arm(Request("a.mp4", c.fps, 1)), KIV_OK);
        for (int i = 0; i < 3; ++i) ASSERT_EQ(recorder.SubmitFrame(&device, &texture, 641, 359), KIV_OK);
        ASSERT_EQ(script.sinks.size(), 1u);
        const SinkLog& log = *script.sinks[0];
        // Odd sizes go to the writer as they are.
        EXPECT_EQ(std::vector<int32_t>({log.width, log.height, log.settings.fps}),
                  std::vector<int32_t>({641, 359, c.fps < 1 ? 30 : c.fps}));
        EXPECT_EQ(log.settings.file, kivtest::Wide("a.mp4"));
        EXPECT_EQ(std::vector<int32_t>({log.settings.sampleRate, log.settings.channels, log.settings.audioBitrate}),
                  std::vector<int32_t>({48000, 2, 128000}));
        EXPECT_EQ(log.video, (std::vector<std::vector<int64_t>>{
                                 {0, c.duration, 0}, {c.duration, c.duration, 0}, {2 * c.duration, c.duration, 0}}));
        EXPECT_EQ(log.converted, std::vector<void*>(3, &texture));
    }
}

TEST_F(GpuRecorderTest, ZeroCopyFailureSwitchesToCopiesForTheRestOfTheRecording) {
    script.zeroCopyFailsFrom = 1;
    kiv::GpuRecorder recorder(Factory());
    ASSERT_EQ(recorder.Arm(Request("b.mp4", 50, 0)), KIV_OK);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(recorder.SubmitFrame(&device, &texture, 64, 48), KIV_OK);
    EXPECT_EQ(script.sinks[0]->video, (std::vector<std::vector<int64_t>>{
                                          {0, 200000, 0}, {200000, 200000, 1}, {400000, 200000, 1}, {600000, 200000, 1}}));
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(),
                               "GPU recorder DXGI WriteSample failed hr=0x887A0001, switch to NV12 staging fallback"),
              1u);

    // A new recording starts over: new writer, times from 0, zero-copy tried.
    recorder.Stop();
    EXPECT_EQ(script.sinks[0]->finalized, 1);
    script.zeroCopyFailsFrom = -1;
    ASSERT_EQ(recorder.Arm(Request("c.mp4", 50, 0)), KIV_OK);
    ASSERT_EQ(recorder.SubmitFrame(&device, &texture, 64, 48), KIV_OK);
    ASSERT_EQ(script.sinks.size(), 2u);
    EXPECT_EQ(script.sinks[1]->video, (std::vector<std::vector<int64_t>>{{0, 200000, 0}}));
}

TEST_F(GpuRecorderTest, ArmingStoppingAndRetries) {
    kiv::GpuRecorder recorder(Factory());
    EXPECT_EQ(recorder.SubmitFrame(&device, &texture, 8, 8), KIV_OK);  // idle: nothing made
    recorder.Stop();                                                    // stop without start
    EXPECT_TRUE(script.sinks.empty());
    EXPECT_EQ(recorder.Arm(Request("", 30, 0)), KIV_ERROR_INVALID_ARG);
    EXPECT_FALSE(recorder.Armed());
    kiv::GpuRecorder oneLetter(Factory());
    EXPECT_EQ(oneLetter.Arm(Request("x", 30, 0)), KIV_OK);  // a one-character name is a name
    KivGpuRecordConfig full = Request("", 30, 0);  // a name filling the field ends with it
    std::fill(std::begin(full.file), std::end(full.file), 'a');
    full.reserved0 = 0x62;
    EXPECT_EQ(kiv::GpuRecordSettingsFrom(full).file.size(), 260u);

    ASSERT_EQ(recorder.Arm(Request("first.mp4", 24, 0)), KIV_OK);
    ASSERT_EQ(recorder.Arm(Request("second.mp4", 60, 1)), KIV_OK);  // keeps the first request
    EXPECT_TRUE(recorder.Armed());
    EXPECT_EQ(recorder.FrameDuration(), 416666);

    // A failed setup is dropped and tried again with the next frame.
    script.openResult = KIV_ERROR_FAILED;
    EXPECT_EQ(recorder.SubmitFrame(&device, &texture, 8, 8), KIV_ERROR_FAILED);
    script.openResult = KIV_OK;
    EXPECT_EQ(recorder.SubmitFrame(&device, &texture, 8, 8), KIV_OK);
    ASSERT_EQ(script.sinks.size(), 2u);
    EXPECT_EQ(script.sinks[1]->settings.file, kivtest::Wide("first.mp4"));
    EXPECT_EQ(script.sinks[1]->video.size(), 1u);

    // A new render device after a loss closes this writer and opens another.
    int otherDevice = 0;
    EXPECT_EQ(recorder.SubmitFrame(&otherDevice, &texture, 8, 8), KIV_OK);
    ASSERT_EQ(script.sinks.size(), 3u);
    EXPECT_EQ(script.sinks[1]->finalized, 1);
    EXPECT_EQ(script.sinks[2]->device, &otherDevice);

    recorder.Stop();
    EXPECT_FALSE(recorder.Armed());
    EXPECT_EQ(script.sinks[2]->finalized, 1);
    recorder.Stop();
    EXPECT_EQ(script.sinks[2]->finalized, 1);
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "GPU FinalFrame recorder armed file=first.mp4 fps=24 bitrate=4000000 audio=0 sr=48000 ch=2"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "second.mp4"), 0u);
    EXPECT_NE(log.find("GPU recorder initialized FinalTexture->NV12->MF H264 size=8x8 fps=24 bitrate=4000000 audio=0 "
                       "dxgi_zero_copy=1"),
              std::string::npos);
}

TEST_F(GpuRecorderTest, AudioIsTimedByItsLengthAndMismatchesAreLoggedOncePerRecording) {
    kiv::GpuRecorder recorder(Factory());
    ASSERT_EQ(recorder.WriteAudio(Audio(48000, 2, 1920)), KIV_OK);  // not armed
    ASSERT_EQ(recorder.Arm(Request("d.mp4", 30, 1, 48000, 2)), KIV_OK);
    ASSERT_EQ(recorder.WriteAudio(Audio(48000, 2, 1920)), KIV_OK);  // no writer yet
    ASSERT_EQ(recorder.SubmitFrame(&device, &texture, 8, 8), KIV_OK);

    const KivAudioFrame frames[] = {
        Audio(48000, 2, 1920),      // 480 sample frames: 100000
        Audio(44100, 2, 1764),      // wrong rate: dropped
        Audio(48000, 1, 960),       // wrong channel count: dropped
        Audio(48000, 2, 1920, 24),  // wrong depth: dropped
        Audio(48000, 2, 4),         // 1 sample frame: 208
        Audio(48000, 2, 0),         // empty: ignored
        Audio(48000, 2, 3840),      // 960: 200000
    };
    for (const KivAudioFrame& f : frames) EXPECT_EQ(recorder.WriteAudio(f), KIV_OK);
    EXPECT_EQ(script.sinks[0]->audio, (std::vector<std::vector<int64_t>>{
                                          {0, 100000, 1920}, {100000, 208, 4}, {100208, 200000, 3840}}));
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "GPU recorder audio frame mismatch"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "GPU recorder audio frame mismatch, expect 48000 Hz 2 ch 16-bit, got 44100 Hz 2 ch "
                                    "16-bit"),
              1u);

    script.audioResult = 0x80004005u;
    EXPECT_EQ(recorder.WriteAudio(Audio(48000, 2, 1920)), KIV_ERROR_FAILED);
    EXPECT_NE(kivtest::LibraryLog().find("GPU recorder WriteAudioSample failed hr=0x80004005"), std::string::npos);

    // The next recording logs its first mismatch again; an audio stream the
    // platform could not set up turns sound off for that recording.
    recorder.Stop();
    script.audioResult = 0;
    script.audioReady = false;
    ASSERT_EQ(recorder.Arm(Request("e.mp4", 30, 1, 48000, 2)), KIV_OK);
    ASSERT_EQ(recorder.SubmitFrame(&device, &texture, 8, 8), KIV_OK);
    EXPECT_EQ(recorder.WriteAudio(Audio(48000, 2, 1920)), KIV_OK);
    EXPECT_TRUE(script.sinks[1]->audio.empty());
    script.audioReady = true;
    recorder.Stop();
    ASSERT_EQ(recorder.Arm(Request("f.mp4", 30, 1, 48000, 2)), KIV_OK);
    ASSERT_EQ(recorder.SubmitFrame(&device, &texture, 8, 8), KIV_OK);
    EXPECT_EQ(recorder.WriteAudio(Audio(44100, 2, 1764)), KIV_OK);
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "GPU recorder audio frame mismatch"), 2u);
}

}  // namespace
