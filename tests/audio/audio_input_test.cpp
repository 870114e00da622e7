// The capture port over a scripted endpoint: packets become frames with
// cursor time stamps, silent packets zeros; failing calls, statistics and
// exit lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "audio/kiv_audio_input.h"
#include "audio_fakes.h"

using audiotest::CaptureScript;
using audiotest::Lines;
using Strings = std::vector<std::string>;

namespace {

struct Caught {
    std::mutex mutex;
    std::vector<KivAudioFrame> frames;  // data pointers cleared
    std::vector<std::vector<int16_t>> samples;
    static void KIV_CALL On(const KivAudioFrame* f, void* user) {
        Caught* c = static_cast<Caught*>(user);
        std::lock_guard<std::mutex> lock(c->mutex);
        c->frames.push_back(*f);
        c->frames.back().data = nullptr;
        c->samples.emplace_back(f->bytes / 2);
        std::memcpy(c->samples.back().data(), f->data, f->bytes / 2 * 2);
    }
};

CaptureScript::Packet Pcm(std::vector<int16_t> interleaved, bool silent = false) {
    CaptureScript::Packet p{std::vector<uint8_t>(interleaved.size() * 2), static_cast<uint32_t>(interleaved.size() / 2), silent};
    std::memcpy(p.bytes.data(), interleaved.data(), p.bytes.size());
    return p;
}

class AudioInputPort : public ::testing::Test {
protected:
    void SetUp() override { audiotest::FreshLog(); }
    void TearDown() override { KIV_EnableLog(0); }
    // Starts, waits until every scripted burst was handled, stops.
    void Run() {
        ASSERT_EQ(input_.Start(), KIV_OK);
        ASSERT_TRUE(script_->WaitDrained());
        ASSERT_EQ(input_.Stop(), KIV_OK);
    }
    std::shared_ptr<CaptureScript> script_ = std::make_shared<CaptureScript>();
    Caught caught_;
    KivAudioInput input_{audiotest::ScriptedCapture::Factory(script_)};
};

TEST_F(AudioInputPort, PacketsBecomeFramesTimedByTheSampleCursor) {
    script_->mix = {44100, 2, 16, 4, 1, kiv::AudioSampleKind::kInteger};
    script_->bursts = {{Pcm({1, -2, 3, -4}), Pcm({5, 6, 7, 8, 9, 10}, true)}, {Pcm({-300, 300})}};
    ASSERT_EQ(input_.SetPcm(8000, 1, 16), KIV_OK);  // the rate is kept but not applied
    input_.SetAudioFrameCallback(Caught::On, &caught_);
    Run();
    ASSERT_EQ(caught_.frames.size(), 3u);
    const int64_t expectedTime[] = {0, 2 * 10000000 / 44100, 5 * 10000000 / 44100};
    const std::vector<int16_t> expectedSamples[] = {{1, 3}, {0, 0, 0}, {-300}};
    for (size_t i = 0; i < 3; ++i) {
        const KivAudioFrame& f = caught_.frames[i];
        EXPECT_EQ(std::vector<int64_t>({f.sampleRate, f.channels, f.bitsPerSample, f.reserved, f.timestamp}),
                  std::vector<int64_t>({44100, 1, 16, 0, expectedTime[i]}));
        EXPECT_EQ(caught_.samples[i], expectedSamples[i]);
    }
    EXPECT_EQ(input_.SampleCursor(), 6u);
    EXPECT_EQ(Lines("Audio input thread exit"),
              Strings{"Audio input thread exit packets=3 frames=6 bytes=24 silentPackets=1 errors=0"});
    EXPECT_EQ(Lines("Audio capture ready"),
              Strings{"Audio capture ready mix=44100 Hz ch=2 bits=16 block=4 tag=0x1 -> SDK PCM=44100 Hz ch=1 bits=16"});

    // A restart goes on from the cursor; a null data pointer skips the frame but not the count.
    script_->bursts.push_back({Pcm({1, 1}), CaptureScript::Packet{{}, 7, false}});
    Run();
    ASSERT_EQ(caught_.frames.size(), 4u);
    EXPECT_EQ(caught_.frames[3].timestamp, 6 * 10000000 / 44100);
    EXPECT_EQ(input_.SampleCursor(), 14u);
}

TEST_F(AudioInputPort, StatisticsLinesReportTheLastPeakOnce) {
    script_->bursts.push_back({Pcm({1000, -2000, 30, 40}), Pcm({-5, 6})});
    ASSERT_EQ(input_.Start(), KIV_OK);
    ASSERT_TRUE(script_->WaitDrained());
    EXPECT_TRUE(Lines("Audio capture stats").empty());  // the clock has not moved
    {
        std::lock_guard<std::mutex> lock(script_->mutex);
        script_->tickStep = 5000;
    }
    const int seen = script_->waits.load();
    audiotest::WaitFor([&] { return script_->waits.load() >= seen + 3; });
    ASSERT_EQ(input_.Stop(), KIV_OK);
    const Strings stats = Lines("Audio capture stats");
    ASSERT_GE(stats.size(), 2u);
    EXPECT_EQ(stats[0], "Audio capture stats packets=2 frames=3 bytes=12 silentPackets=0 errors=0 peak=2000 sampleCursor=3");
    EXPECT_EQ(stats[1], "Audio capture stats packets=2 frames=3 bytes=12 silentPackets=0 errors=0 peak=0 sampleCursor=3");
}

// Each failing call logs its line; the opening failures end the thread before any frame.
TEST_F(AudioInputPort, EveryFailingCallLogsItsLine) {
    using S = kiv::CaptureOpenStep;
    const std::string openFailed = "Audio OpenDevice failed index=0", counted = "Audio input active endpoint count=1 selectedIndex=0",
                      noPackets = "Audio input thread exit packets=0 frames=0 bytes=0 silentPackets=0 errors=1";
    const struct {
        const char* failAt;
        S openStep;
        Strings lines;  // in order, among the thread's lines
        bool opened;
    } cases[] = {
        {"", S::kCreateEnumerator, {"Audio input CoCreateInstance(MMDeviceEnumerator) failed hr=0x88890004", openFailed}, false},
        {"", S::kEnumEndpoints, {"Audio input EnumAudioEndpoints failed hr=0x88890004", openFailed}, false},
        {"", S::kGetCount, {"Audio input GetCount failed hr=0x88890004", openFailed}, false},
        {"", S::kIndexInvalid, {counted, "Audio input device index invalid index=0 count=1", openFailed}, false},
        {"", S::kItem, {counted, "Audio input collection Item failed index=0 hr=0x88890004", openFailed}, false},
        {"Activate", S::kNone, {"Audio Activate IAudioClient failed hr=0x88890004"}, false},
        {"GetMixFormat", S::kNone, {"Audio GetMixFormat failed hr=0x88890004"}, false},
        {"MakeEvent", S::kNone, {"Audio CreateEvent failed winerr=2290679812"}, false},
        {"Initialize", S::kNone, {"Audio Initialize failed hr=0x88890004"}, false},
        {"GetCaptureService", S::kNone, {"Audio GetService IAudioCaptureClient failed hr=0x88890004"}, false},
        {"SetEventHandle", S::kNone, {"Audio SetEventHandle failed hr=0x88890004", "Audio capture client started"}, true},
        {"StartClient", S::kNone, {"Audio capture client Start failed hr=0x88890004"}, true},
        {"Wait", S::kNone,
         {"Audio capture WaitForSingleObject failed winerr=2290679812", "Audio capture client stopped hr=0x00000000", noPackets},
         true},
        {"NextPacketSize", S::kNone, {"Audio GetNextPacketSize failed hr=0x88890004", noPackets}, true},
        {"GetBuffer", S::kNone, {"Audio capture GetBuffer failed hr=0x88890004 packetFrames=1", noPackets}, true},
        {"ReleaseBuffer", S::kNone,
         {"Audio capture ReleaseBuffer failed hr=0x88890004 frames=1",
          "Audio input thread exit packets=1 frames=1 bytes=4 silentPackets=0 errors=1"},
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lines[0]);
        audiotest::FreshLog();
        auto script = std::make_shared<CaptureScript>();
        KivAudioInput input(audiotest::ScriptedCapture::Factory(script));
        script->open.failedStep = c.openStep;
        script->open.hr = script->failHr;
        script->failAt = c.failAt;
        script->bursts.push_back({Pcm({7, 7})});
        Caught caught;
        input.SetAudioFrameCallback(Caught::On, &caught);
        ASSERT_EQ(input.Start(), KIV_OK);
        if (!c.opened || std::string(c.failAt) == "Wait") {
            audiotest::WaitFor([&] { return script->closes.load() > 0; });
        } else {
            ASSERT_TRUE(script->WaitDrained());
        }
        ASSERT_EQ(input.Stop(), KIV_OK);
        const Strings log = audiotest::LogTexts();
        auto at = log.begin();
        for (const std::string& line : c.lines) {
            at = std::find(at, log.end(), line);
            EXPECT_NE(at, log.end()) << "missing or out of order: " << line;
        }
        if (!c.opened) {
            EXPECT_TRUE(caught.frames.empty());
            EXPECT_TRUE(Lines("Audio input thread exit").empty());
        }
        EXPECT_EQ(script->closes.load(), 1);
    }
}

TEST_F(AudioInputPort, StartAndStopAreIdempotentAndLogged) {
    ASSERT_EQ(input_.SetDevice(3), KIV_OK);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(input_.Stop(), KIV_OK);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(input_.Start(), KIV_OK);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(input_.Stop(), KIV_OK);
    EXPECT_EQ(Lines("Audio input st"),
              Strings({"Audio input start device=3 request=48000 Hz 2 ch 16 bits", "Audio input stop device=3"}));
    EXPECT_EQ(script_->closes.load(), 1);
}

}  // namespace
