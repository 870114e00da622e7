// The playback port over a stand-in endpoint buffer: what is written, cut
// and dropped, the lazy (re)opening, and the failure lines.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "audio/kiv_audio_render.h"
#include "audio_fakes.h"
#include "test_support.h"

using audiotest::RenderScript;

namespace {

struct Pcm {
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    Pcm(uint32_t frames, int32_t rate = 48000, int32_t channels = 2, int32_t bits = 16) {
        const uint32_t block = static_cast<uint32_t>(channels > 0 ? channels * bits / 8 : 2);
        bytes.resize(frames * block);
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
        frame.data = bytes.data();
        frame.bytes = static_cast<uint32_t>(bytes.size());
        frame.sampleRate = rate;
        frame.channels = channels;
        frame.bitsPerSample = bits;
    }
};

class AudioRenderPort : public ::testing::Test {
protected:
    void SetUp() override { audiotest::FreshLog(); }
    void TearDown() override { KIV_EnableLog(0); }

    std::shared_ptr<RenderScript> script_ = std::make_shared<RenderScript>();
    KivAudioRender render_{audiotest::StandInRender(script_)};
};

TEST_F(AudioRenderPort, WritesAsFarAsTheBufferHasRoomAndDropsTheRest) {
    struct Case {
        const char* name;
        uint32_t padding;
        uint32_t paddingHr;
        uint32_t frames;
        uint64_t written, dropped;
    };
    const Case cases[] = {
        {"100 free frames take the head of 480", 4700, 0, 480, 100, 380},
        {"a full buffer drops the whole frame", 4800, 0, 480, 0, 480},
        {"room for everything", 0, 0, 480, 480, 0},
        {"a failed padding query counts as empty", 4790, 0x80004005, 480, 480, 0},
        {"padding beyond the buffer is full", 5000, 0, 10, 0, 10},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto script = std::make_shared<RenderScript>();
        script->padding = c.padding;
        script->paddingHr = c.paddingHr;
        KivAudioRender render(audiotest::StandInRender(script));
        ASSERT_EQ(render.Start(), KIV_OK);
        Pcm pcm(c.frames);
        EXPECT_EQ(render.OnAudioFrame(&pcm.frame), KIV_OK);
        const KivAudioRender::Counters n = render.GetCounters();
        EXPECT_EQ(n.receivedFrames, c.frames);
        EXPECT_EQ(n.writtenFrames, c.written);
        EXPECT_EQ(n.droppedFrames, c.dropped);
        EXPECT_EQ(n.silenceFrames, 0u);
        // The head of the frame, byte for byte, and nothing else.
        EXPECT_EQ(script->written, std::vector<uint8_t>(pcm.bytes.begin(), pcm.bytes.begin() + c.written * 4));
    }
}

TEST_F(AudioRenderPort, OpensLazilyAndReopensWhenTheFormatChanges) {
    Pcm early(10);
    EXPECT_EQ(render_.OnAudioFrame(&early.frame), KIV_OK);  // before Start: ignored
    EXPECT_TRUE(script_->opens.empty());
    ASSERT_EQ(render_.Start(), KIV_OK);
    EXPECT_TRUE(script_->opens.empty());  // nothing opens before the first frame
    Pcm a(10), b(10), c(10, 44100, 1);
    ASSERT_EQ(render_.OnAudioFrame(&a.frame), KIV_OK);
    ASSERT_EQ(render_.OnAudioFrame(&b.frame), KIV_OK);
    ASSERT_EQ(render_.OnAudioFrame(&c.frame), KIV_OK);
    ASSERT_EQ(script_->opens.size(), 2u);
    EXPECT_EQ(script_->opens[1].sampleRate, 44100u);
    EXPECT_EQ(script_->opens[1].channels, 1u);
    EXPECT_EQ(script_->opens[1].blockAlign, 2u);
    EXPECT_EQ(script_->opens[1].formatTag, 1u);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render configure"),
              (std::vector<std::string>{"Audio render configure from input=48000 Hz ch=2 bits=16 dataSize=40",
                                        "Audio render configure from input=44100 Hz ch=1 bits=16 dataSize=20"}));
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render ready").back(),
              "Audio render ready source=44100 Hz ch=1 bits=16 block=2 bufferFrames=4800 autoConvert=1");
    EXPECT_EQ(render_.GetCounters().writtenFrames, 30u);
    ASSERT_EQ(render_.Stop(), KIV_OK);
    EXPECT_EQ(script_->closes, 2);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render stop"),
              std::vector<std::string>{"Audio render stop receivedFrames=30 writtenFrames=30 droppedFrames=0 silenceFrames=0"});
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render client Stop").size(), 2u);
    EXPECT_EQ(render_.OnAudioFrame(&a.frame), KIV_OK);  // after Stop: ignored
    EXPECT_EQ(script_->opens.size(), 2u);
}

TEST_F(AudioRenderPort, BadFramesAreRefusedWithTheirLines) {
    ASSERT_EQ(render_.Start(), KIV_OK);
    Pcm empty(0), noChannels(4, 48000, 0), eightBit(6, 48000, 1, 8), ok(3), partial(1);
    KivAudioFrame noData = ok.frame;
    noData.data = nullptr;
    EXPECT_EQ(render_.OnAudioFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(render_.OnAudioFrame(&noData), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(render_.OnAudioFrame(&empty.frame), KIV_ERROR_INVALID_ARG);
    noChannels.frame.bytes = 8;
    EXPECT_EQ(render_.OnAudioFrame(&noChannels.frame), KIV_ERROR_FAILED);
    partial.frame.bytes = 3;  // less than one sample frame: nothing to do
    EXPECT_EQ(render_.OnAudioFrame(&partial.frame), KIV_OK);
    EXPECT_TRUE(script_->opens.empty());
    // 8-bit frames (here mono, one byte a frame) reopen every time and are written as silence.
    EXPECT_EQ(render_.OnAudioFrame(&eightBit.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(render_.OnAudioFrame(&eightBit.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(script_->opens.size(), 2u);
    EXPECT_EQ(script_->silentFrames, 12u);
    const KivAudioRender::Counters n = render_.GetCounters();
    EXPECT_EQ(n.receivedFrames, 12u);
    EXPECT_EQ(n.silenceFrames, 12u);
    EXPECT_EQ(n.droppedFrames, 12u);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render received invalid audio frame").size(), 3u);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render invalid input block align"),
              std::vector<std::string>{"Audio render invalid input block align channels=0 bits=16"});
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render internal source mismatch").back(),
              "Audio render internal source mismatch input=48000Hz/1ch/8bit/block1 client=48000Hz/1ch/16bit/block2 "
              "hr=0x00000000");
}

TEST_F(AudioRenderPort, OpenFailuresDropTheFrameAndAreRetried) {
    struct Case {
        kiv::RenderOpenStep step;
        std::string line;
    };
    const Case cases[] = {
        {kiv::RenderOpenStep::kCreateEnumerator, "Audio render CoCreateInstance(MMDeviceEnumerator) failed hr=0x88890008"},
        {kiv::RenderOpenStep::kDefaultEndpoint, "Audio render GetDefaultAudioEndpoint failed hr=0x88890008"},
        {kiv::RenderOpenStep::kActivate, "Audio render Activate IAudioClient failed hr=0x88890008"},
        {kiv::RenderOpenStep::kAllocFormat, "Audio render CoTaskMemAlloc source format failed"},
        {kiv::RenderOpenStep::kInitialize,
         "Audio render Initialize auto-convert failed hr=0x88890008 source=48000 Hz ch=2 bits=16 tag=0x1 flags=0x88000000"},
        {kiv::RenderOpenStep::kGetBufferSize, "Audio render GetBufferSize failed hr=0x88890008 frames=4800"},
        {kiv::RenderOpenStep::kGetService, "Audio render GetService IAudioRenderClient failed hr=0x88890008"},
        {kiv::RenderOpenStep::kStart, "Audio render client Start failed hr=0x88890008"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        audiotest::FreshLog();
        auto script = std::make_shared<RenderScript>();
        script->failStep = c.step;
        KivAudioRender render(audiotest::StandInRender(script));
        ASSERT_EQ(render.Start(), KIV_OK);
        Pcm pcm(480);
        EXPECT_EQ(render.OnAudioFrame(&pcm.frame), KIV_ERROR_FAILED);
        EXPECT_EQ(render.GetCounters().droppedFrames, 480u);
        EXPECT_EQ(audiotest::LogLinesStartingWith(c.line), std::vector<std::string>{c.line});
        size_t failures = 0;  // this step's line and the EnsureFormat line, no other
        for (const std::string& t : audiotest::LogTexts()) failures += t.find("failed") != std::string::npos;
        EXPECT_EQ(failures, 2u);
        EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render EnsureFormat failed"),
                  std::vector<std::string>{"Audio render EnsureFormat failed input=48000 Hz ch=2 bits=16 frames=480"});
        script->failStep = kiv::RenderOpenStep::kNone;
        EXPECT_EQ(render.OnAudioFrame(&pcm.frame), KIV_OK);
        EXPECT_EQ(render.GetCounters().writtenFrames, 480u);
    }
    // A mix format that cannot be read is only logged.
    audiotest::FreshLog();
    script_->mixFails = true;
    ASSERT_EQ(render_.Start(), KIV_OK);
    Pcm pcm(5);
    EXPECT_EQ(render_.OnAudioFrame(&pcm.frame), KIV_OK);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render GetMixFormat failed"),
              std::vector<std::string>{"Audio render GetMixFormat failed hr=0x80004005; continue with shared-mode auto conversion"});
}

TEST_F(AudioRenderPort, WriteFailuresAndStatisticsAreCounted) {
    ASSERT_EQ(render_.Start(), KIV_OK);
    Pcm pcm(100);
    script_->padding = 4750;  // 50 free
    script_->getBufferHr = 0x88890006;
    EXPECT_EQ(render_.OnAudioFrame(&pcm.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(render_.GetCounters().droppedFrames, 100u);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render GetBuffer failed"),
              std::vector<std::string>{"Audio render GetBuffer failed hr=0x88890006 writeFrames=50 available=50 padding=4750"});
    script_->getBufferHr = 0;
    script_->releaseHr = 0x88890007;
    EXPECT_EQ(render_.OnAudioFrame(&pcm.frame), KIV_OK);
    EXPECT_EQ(render_.GetCounters().writtenFrames, 0u);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render ReleaseBuffer failed"),
              std::vector<std::string>{"Audio render ReleaseBuffer failed hr=0x88890007 writeFrames=50"});
    script_->releaseHr = 0;
    EXPECT_TRUE(audiotest::LogLinesStartingWith("Audio render stats").empty());
    script_->tick = 5000;
    Pcm loud(2);
    loud.bytes = {0x00, 0x80, 0xFF, 0x7F, 0x10, 0x00, 0x20, 0x00};  // -32768, 32767, 16, 32
    loud.frame.data = loud.bytes.data();
    EXPECT_EQ(render_.OnAudioFrame(&loud.frame), KIV_OK);
    EXPECT_EQ(render_.OnAudioFrame(&loud.frame), KIV_OK);  // within the interval: no second line
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio render stats"),
              std::vector<std::string>{"Audio render stats receivedFrames=202 writtenFrames=2 droppedFrames=150 "
                                       "silenceFrames=0 peak=32768 input=48000Hz/2ch/16bit client=48000Hz/2ch/16bit/"
                                       "tag0x1 buffer=4800 padding=4750"});
}

}  // namespace
