// The capture port over a scripted endpoint: packets become frames with
// cursor time stamps, silent packets become zeros, every failing call logs
// its line, and the statistics and exit lines count what was seen.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "audio/kiv_audio_input.h"
#include "audio_fakes.h"
#include "test_support.h"

using audiotest::CaptureScript;

namespace {

struct Caught {
    std::mutex mutex;
    std::vector<KivAudioFrame> frames;  // data pointers cleared
    std::vector<std::vector<int16_t>> samples;
    static void KIV_CALL On(const KivAudioFrame* f, void* user) {
        Caught* c = static_cast<Caught*>(user);
        std::lock_guard<std::mutex> lock(c->mutex);
        KivAudioFrame meta = *f;
        meta.data = nullptr;
        c->frames.push_back(meta);
        std::vector<int16_t> s(f->bytes / 2);
        std::memcpy(s.data(), f->data, s.size() * 2);
        c->samples.push_back(s);
    }
};

kiv::AudioMixFormat Stereo16(uint32_t rate) {
    return kiv::AudioMixFormat{rate, 2, 16, 4, 1, kiv::AudioSampleKind::kInteger};
}

CaptureScript::Packet Pcm(std::vector<int16_t> interleaved, bool silent = false) {
    CaptureScript::Packet p;
    p.bytes.resize(interleaved.size() * 2);
    std::memcpy(p.bytes.data(), interleaved.data(), p.bytes.size());
    p.frames = static_cast<uint32_t>(interleaved.size() / 2);
    p.silent = silent;
    return p;
}

class AudioInputPort : public ::testing::Test {
protected:
    void SetUp() override { audiotest::FreshLog(); }
    void TearDown() override { KIV_EnableLog(0); }

    std::shared_ptr<CaptureScript> script_ = std::make_shared<CaptureScript>();
};

TEST_F(AudioInputPort, PacketsBecomeFramesTimedByTheSampleCursor) {
    script_->mix = Stereo16(44100);
    script_->bursts.push_back({Pcm({1, -2, 3, -4}), Pcm({5, 6, 7, 8, 9, 10}, true)});
    script_->bursts.push_back({Pcm({-300, 300})});
    KivAudioInput input(audiotest::ScriptedCapture(script_));
    ASSERT_EQ(input.SetPcm(8000, 1, 16), KIV_OK);  // the rate is kept but not applied
    Caught caught;
    input.SetAudioFrameCallback(Caught::On, &caught);
    ASSERT_EQ(input.Start(), KIV_OK);
    ASSERT_TRUE(script_->WaitDrained());
    ASSERT_EQ(input.Stop(), KIV_OK);

    ASSERT_EQ(caught.frames.size(), 3u);
    const int64_t expectedTime[] = {0, 2 * 10000000 / 44100, 5 * 10000000 / 44100};
    const std::vector<int16_t> expectedSamples[] = {{1, 3}, {0, 0, 0}, {-300}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(caught.frames[i].sampleRate, 44100);
        EXPECT_EQ(caught.frames[i].channels, 1);
        EXPECT_EQ(caught.frames[i].bitsPerSample, 16);
        EXPECT_EQ(caught.frames[i].reserved, 0);
        EXPECT_EQ(caught.frames[i].timestamp, expectedTime[i]);
        EXPECT_EQ(caught.samples[i], expectedSamples[i]);
    }
    EXPECT_EQ(input.SampleCursor(), 6u);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio input thread exit"),
              std::vector<std::string>{"Audio input thread exit packets=3 frames=6 bytes=24 silentPackets=1 errors=0"});
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio capture ready"),
              std::vector<std::string>{"Audio capture ready mix=44100 Hz ch=2 bits=16 block=4 tag=0x1 -> SDK PCM=44100 Hz ch=1 bits=16"});

    // A restart goes on from the cursor, and a null data pointer skips the frame but not the count.
    script_->bursts.push_back({Pcm({1, 1}), CaptureScript::Packet{{}, 7, false}});
    ASSERT_EQ(input.Start(), KIV_OK);
    ASSERT_TRUE(script_->WaitDrained());
    ASSERT_EQ(input.Stop(), KIV_OK);
    ASSERT_EQ(caught.frames.size(), 4u);
    EXPECT_EQ(caught.frames[3].timestamp, 6 * 10000000 / 44100);
    EXPECT_EQ(input.SampleCursor(), 14u);
}

TEST_F(AudioInputPort, StatisticsLinesReportTheLastPeakOnce) {
    script_->mix = Stereo16(48000);
    script_->bursts.push_back({Pcm({1000, -2000, 30, 40}), Pcm({-5, 6})});
    KivAudioInput input(audiotest::ScriptedCapture(script_));
    ASSERT_EQ(input.Start(), KIV_OK);
    ASSERT_TRUE(script_->WaitDrained());
    EXPECT_TRUE(audiotest::LogLinesStartingWith("Audio capture stats").empty());  // the clock has not moved
    {
        std::lock_guard<std::mutex> lock(script_->mutex);
        script_->tickStep = 5000;
    }
    const int seen = script_->waits.load();
    while (script_->waits.load() < seen + 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(input.Stop(), KIV_OK);
    const std::vector<std::string> stats = audiotest::LogLinesStartingWith("Audio capture stats");
    ASSERT_GE(stats.size(), 2u);
    EXPECT_EQ(stats[0], "Audio capture stats packets=2 frames=3 bytes=12 silentPackets=0 errors=0 peak=2000 sampleCursor=3");
    EXPECT_EQ(stats[1], "Audio capture stats packets=2 frames=3 bytes=12 silentPackets=0 errors=0 peak=0 sampleCursor=3");
}

// Each failing call logs its line; the opening failures end the thread before any frame.
TEST_F(AudioInputPort, EveryFailingCallLogsItsLine) {
    struct Case {
        const char* failAt;
        kiv::CaptureOpenStep openStep;
        std::vector<std::string> lines;  // in order, among the thread's lines
        bool opened;
    };
    const Case cases[] = {
        {"", kiv::CaptureOpenStep::kCreateEnumerator,
         {"Audio input CoCreateInstance(MMDeviceEnumerator) failed hr=0x88890004", "Audio OpenDevice failed index=0"}, false},
        {"", kiv::CaptureOpenStep::kEnumEndpoints,
         {"Audio input EnumAudioEndpoints failed hr=0x88890004", "Audio OpenDevice failed index=0"}, false},
        {"", kiv::CaptureOpenStep::kGetCount, {"Audio input GetCount failed hr=0x88890004", "Audio OpenDevice failed index=0"}, false},
        {"", kiv::CaptureOpenStep::kIndexInvalid,
         {"Audio input active endpoint count=1 selectedIndex=0", "Audio input device index invalid index=0 count=1",
          "Audio OpenDevice failed index=0"}, false},
        {"", kiv::CaptureOpenStep::kItem,
         {"Audio input active endpoint count=1 selectedIndex=0", "Audio input collection Item failed index=0 hr=0x88890004",
          "Audio OpenDevice failed index=0"}, false},
        {"Activate", kiv::CaptureOpenStep::kNone, {"Audio Activate IAudioClient failed hr=0x88890004"}, false},
        {"GetMixFormat", kiv::CaptureOpenStep::kNone, {"Audio GetMixFormat failed hr=0x88890004"}, false},
        {"MakeEvent", kiv::CaptureOpenStep::kNone, {"Audio CreateEvent failed winerr=2290679812"}, false},
        {"Initialize", kiv::CaptureOpenStep::kNone, {"Audio Initialize failed hr=0x88890004"}, false},
        {"GetCaptureService", kiv::CaptureOpenStep::kNone, {"Audio GetService IAudioCaptureClient failed hr=0x88890004"}, false},
        {"SetEventHandle", kiv::CaptureOpenStep::kNone,
         {"Audio SetEventHandle failed hr=0x88890004", "Audio capture client started"}, true},
        {"StartClient", kiv::CaptureOpenStep::kNone, {"Audio capture client Start failed hr=0x88890004"}, true},
        {"Wait", kiv::CaptureOpenStep::kNone,
         {"Audio capture WaitForSingleObject failed winerr=2290679812", "Audio capture client stopped hr=0x00000000",
          "Audio input thread exit packets=0 frames=0 bytes=0 silentPackets=0 errors=1"}, true},
        {"NextPacketSize", kiv::CaptureOpenStep::kNone,
         {"Audio GetNextPacketSize failed hr=0x88890004", "Audio input thread exit packets=0 frames=0 bytes=0 silentPackets=0 errors=1"},
         true},
        {"GetBuffer", kiv::CaptureOpenStep::kNone,
         {"Audio capture GetBuffer failed hr=0x88890004 packetFrames=1",
          "Audio input thread exit packets=0 frames=0 bytes=0 silentPackets=0 errors=1"}, true},
        {"ReleaseBuffer", kiv::CaptureOpenStep::kNone,
         {"Audio capture ReleaseBuffer failed hr=0x88890004 frames=1",
          "Audio input thread exit packets=1 frames=1 bytes=4 silentPackets=0 errors=1"}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failAt[0] ? c.failAt : c.lines[0].c_str());
        audiotest::FreshLog();
        auto script = std::make_shared<CaptureScript>();
        KivAudioInput input(audiotest::ScriptedCapture(script));
        script->open.failedStep = c.openStep;
        script->open.hr = script->failHr;
        script->failAt = c.failAt;
        script->mix = Stereo16(48000);
        script->bursts.push_back({Pcm({7, 7})});
        Caught caught;
        input.SetAudioFrameCallback(Caught::On, &caught);
        ASSERT_EQ(input.Start(), KIV_OK);
        if (!c.opened || std::string(c.failAt) == "Wait") {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (script->closes.load() == 0 && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        } else {
            ASSERT_TRUE(script->WaitDrained());
        }
        ASSERT_EQ(input.Stop(), KIV_OK);
        const std::vector<std::string> log = audiotest::LogTexts();
        size_t at = 0;
        for (const std::string& line : c.lines) {
            while (at < log.size() && log[at] != line) ++at;
            EXPECT_LT(at, log.size()) << "missing or out of order: " << line;
        }
        if (!c.opened) {
            EXPECT_TRUE(caught.frames.empty());
            EXPECT_TRUE(audiotest::LogLinesStartingWith("Audio input thread exit").empty());
        }
        EXPECT_EQ(script->closes.load(), 1);
    }
}

TEST_F(AudioInputPort, StartAndStopAreIdempotentAndLogged) {
    script_->mix = Stereo16(48000);
    KivAudioInput input(audiotest::ScriptedCapture(script_));
    ASSERT_EQ(input.SetDevice(3), KIV_OK);
    EXPECT_EQ(input.Stop(), KIV_OK);
    ASSERT_EQ(input.Start(), KIV_OK);
    ASSERT_EQ(input.Start(), KIV_OK);
    ASSERT_EQ(input.Stop(), KIV_OK);
    ASSERT_EQ(input.Stop(), KIV_OK);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio input st"),
              (std::vector<std::string>{"Audio input start device=3 request=48000 Hz 2 ch 16 bits",
                                        "Audio input stop device=3"}));
    EXPECT_EQ(script_->closes.load(), 1);
}

}  // namespace
