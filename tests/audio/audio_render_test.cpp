// The playback port over a stand-in endpoint buffer (what is written, cut and
// dropped, lazy opening, failure lines) and the audio ports' exported setters.
#include <gtest/gtest.h>

#include <atomic>

#include "audio/kiv_audio_render.h"
#include "audio_fakes.h"

using audiotest::Lines;
using audiotest::RenderScript;
using Strings = std::vector<std::string>;

namespace {

struct Pcm {
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    Pcm(uint32_t frames, int32_t rate = 48000, int32_t channels = 2, int32_t bits = 16)
        : bytes(frames * static_cast<uint32_t>(channels > 0 ? channels * bits / 8 : 2)) {
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
        frame = {bytes.data(), static_cast<uint32_t>(bytes.size()), rate, channels, bits, 0, 0};
    }
};

class AudioRenderPort : public ::testing::Test {
protected:
    void SetUp() override { audiotest::FreshLog(); }
    void TearDown() override { KIV_EnableLog(0); }
    std::shared_ptr<RenderScript> script_ = std::make_shared<RenderScript>();
    KivAudioRender render_{audiotest::StandInRender::Factory(script_)};
};

TEST_F(AudioRenderPort, WritesAsFarAsTheBufferHasRoomAndDropsTheRest) {
    const struct {
        const char* name;
        uint32_t padding, paddingHr, frames;
        uint64_t written, dropped;
    } cases[] = {
        {"100 free frames take the head of 480", 4700, 0, 480, 100, 380},
        {"a full buffer drops the whole frame", 4800, 0, 480, 0, 480},
        {"room for everything", 0, 0, 480, 480, 0},
        {"a failed padding query counts as empty", 4790, 0x80004005, 480, 480, 0},
        {"padding beyond the buffer is full", 5000, 0, 10, 0, 10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto script = std::make_shared<RenderScript>();
        script->padding = c.padding;
        script->paddingHr = c.paddingHr;
        KivAudioRender render(audiotest::StandInRender::Factory(script));
        ASSERT_EQ(render.Start(), KIV_OK);
        Pcm pcm(c.frames);
        EXPECT_EQ(render.OnAudioFrame(&pcm.frame), KIV_OK);
        const KivAudioRender::Counters n = render.GetCounters();
        EXPECT_EQ(std::vector<uint64_t>({n.receivedFrames, n.writtenFrames, n.droppedFrames, n.silenceFrames}),
                  std::vector<uint64_t>({c.frames, c.written, c.dropped, 0}));
        // The head of the frame, byte for byte, and nothing else.
        EXPECT_EQ(script->written, std::vector<uint8_t>(pcm.bytes.begin(), pcm.bytes.begin() + c.written * 4));
    }
}

TEST_F(AudioRenderPort, OpensLazilyAndReopensWhenTheFormatChanges) {
    Pcm a(10), c(10, 44100, 1);
    EXPECT_EQ(render_.OnAudioFrame(&a.frame), KIV_OK);  // before Start: ignored
    ASSERT_EQ(render_.Start(), KIV_OK);
    EXPECT_TRUE(script_->opens.empty());  // nothing opens before the first frame
    for (Pcm* p : {&a, &a, &c}) ASSERT_EQ(render_.OnAudioFrame(&p->frame), KIV_OK);
    ASSERT_EQ(script_->opens.size(), 2u);
    const kiv::RenderSourceFormat& o = script_->opens[1];
    EXPECT_EQ(std::vector<uint32_t>({o.sampleRate, o.channels, o.blockAlign, o.formatTag}),
              std::vector<uint32_t>({44100, 1, 2, 1}));
    EXPECT_EQ(Lines("Audio render configure"), Strings({"Audio render configure from input=48000 Hz ch=2 bits=16 dataSize=40",
                                                        "Audio render configure from input=44100 Hz ch=1 bits=16 dataSize=20"}));
    EXPECT_EQ(Lines("Audio render ready").back(),
              "Audio render ready source=44100 Hz ch=1 bits=16 block=2 bufferFrames=4800 autoConvert=1");
    ASSERT_EQ(render_.Stop(), KIV_OK);
    EXPECT_EQ(script_->closes, 2);
    EXPECT_EQ(Lines("Audio render stop"),
              Strings{"Audio render stop receivedFrames=30 writtenFrames=30 droppedFrames=0 silenceFrames=0"});
    EXPECT_EQ(Lines("Audio render client Stop").size(), 2u);
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
    // 8-bit frames (one byte a frame here) reopen every time and are written as silence.
    EXPECT_EQ(render_.OnAudioFrame(&eightBit.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(render_.OnAudioFrame(&eightBit.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(script_->opens.size(), 2u);
    EXPECT_EQ(script_->silentFrames, 12u);
    const KivAudioRender::Counters n = render_.GetCounters();
    EXPECT_EQ(std::vector<uint64_t>({n.receivedFrames, n.silenceFrames, n.droppedFrames}), std::vector<uint64_t>(3, 12));
    EXPECT_EQ(Lines("Audio render received invalid audio frame").size(), 3u);
    EXPECT_EQ(Lines("Audio render invalid input block align"),
              Strings{"Audio render invalid input block align channels=0 bits=16"});
    EXPECT_EQ(Lines("Audio render internal source mismatch").back(),
              "Audio render internal source mismatch input=48000Hz/1ch/8bit/block1 client=48000Hz/1ch/16bit/block2 "
              "hr=0x00000000");
}

TEST_F(AudioRenderPort, OpenFailuresDropTheFrameAndAreRetried) {
    using S = kiv::RenderOpenStep;
    const std::pair<S, std::string> cases[] = {
        {S::kCreateEnumerator, "Audio render CoCreateInstance(MMDeviceEnumerator) failed hr=0x88890008"},
        {S::kDefaultEndpoint, "Audio render GetDefaultAudioEndpoint failed hr=0x88890008"},
        {S::kActivate, "Audio render Activate IAudioClient failed hr=0x88890008"},
        {S::kAllocFormat, "Audio render CoTaskMemAlloc source format failed"},
        {S::kInitialize,
         "Audio render Initialize auto-convert failed hr=0x88890008 source=48000 Hz ch=2 bits=16 tag=0x1 flags=0x88000000"},
        {S::kGetBufferSize, "Audio render GetBufferSize failed hr=0x88890008 frames=4800"},
        {S::kGetService, "Audio render GetService IAudioRenderClient failed hr=0x88890008"},
        {S::kStart, "Audio render client Start failed hr=0x88890008"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        audiotest::FreshLog();
        auto script = std::make_shared<RenderScript>();
        script->failStep = c.first;
        KivAudioRender render(audiotest::StandInRender::Factory(script));
        ASSERT_EQ(render.Start(), KIV_OK);
        Pcm pcm(480);
        EXPECT_EQ(render.OnAudioFrame(&pcm.frame), KIV_ERROR_FAILED);
        EXPECT_EQ(render.GetCounters().droppedFrames, 480u);
        EXPECT_EQ(Lines(c.second), Strings{c.second});
        size_t failures = 0;  // this step's line and the EnsureFormat line, no other
        for (const std::string& t : audiotest::LogTexts()) failures += t.find("failed") != std::string::npos;
        EXPECT_EQ(failures, 2u);
        EXPECT_EQ(Lines("Audio render EnsureFormat failed"),
                  Strings{"Audio render EnsureFormat failed input=48000 Hz ch=2 bits=16 frames=480"});
        script->failStep = S::kNone;
        EXPECT_EQ(render.OnAudioFrame(&pcm.frame), KIV_OK);
        EXPECT_EQ(render.GetCounters().writtenFrames, 480u);
    }
    // A mix format that cannot be read is only logged.
    audiotest::FreshLog();
    script_->mixFails = true;
    ASSERT_EQ(render_.Start(), KIV_OK);
    Pcm pcm(5);
    EXPECT_EQ(render_.OnAudioFrame(&pcm.frame), KIV_OK);
    EXPECT_EQ(Lines("Audio render GetMixFormat failed"),
              Strings{"Audio render GetMixFormat failed hr=0x80004005; continue with shared-mode auto conversion"});
}

TEST_F(AudioRenderPort, WriteFailuresAndStatisticsAreCounted) {
    ASSERT_EQ(render_.Start(), KIV_OK);
    Pcm pcm(100);
    script_->padding = 4750;  // 50 free
    script_->getBufferHr = 0x88890006;
    EXPECT_EQ(render_.OnAudioFrame(&pcm.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(render_.GetCounters().droppedFrames, 100u);
    EXPECT_EQ(Lines("Audio render GetBuffer failed"),
              Strings{"Audio render GetBuffer failed hr=0x88890006 writeFrames=50 available=50 padding=4750"});
    script_->getBufferHr = 0;
    script_->releaseHr = 0x88890007;
    EXPECT_EQ(render_.OnAudioFrame(&pcm.frame), KIV_OK);
    EXPECT_EQ(render_.GetCounters().writtenFrames, 0u);
    EXPECT_EQ(Lines("Audio render ReleaseBuffer failed"),
              Strings{"Audio render ReleaseBuffer failed hr=0x88890007 writeFrames=50"});
    script_->releaseHr = 0;
    EXPECT_TRUE(Lines("Audio render stats").empty());
    script_->tick = 5000;
    Pcm loud(2);
    loud.bytes = {0x00, 0x80, 0xFF, 0x7F, 0x10, 0x00, 0x20, 0x00};  // -32768, 32767, 16, 32
    loud.frame.data = loud.bytes.data();
    EXPECT_EQ(render_.OnAudioFrame(&loud.frame), KIV_OK);
    EXPECT_EQ(render_.OnAudioFrame(&loud.frame), KIV_OK);  // within the interval: no second line
    EXPECT_EQ(Lines("Audio render stats"), Strings{"Audio render stats receivedFrames=202 writtenFrames=2 droppedFrames=150 "
                                                   "silenceFrames=0 peak=32768 input=48000Hz/2ch/16bit client=48000Hz/2ch/"
                                                   "16bit/tag0x1 buffer=4800 padding=4750"});
}

TEST(AudioApi, SettersRefuseBadArgumentsAndLogGoodOnes) {
    EXPECT_EQ(KIV_CreateAudioInput(), nullptr);  // the library is not initialised yet
    EXPECT_EQ(KIV_CreateAudioRender(), nullptr);
    kivtest::LibraryScope library;
    audiotest::FreshLog();
    void* input = KIV_CreateAudioInput();
    void* render = KIV_CreateAudioRender();
    void* mux = KIV_CreateAudioMux();
    ASSERT_NE(input, nullptr);
    ASSERT_NE(render, nullptr);
    const KivResult refused[] = {
        KIV_SetAudioInputDevice(input, -1),           KIV_SetAudioInputDevice(render, 0),
        KIV_SetAudioInputDevice(nullptr, 0),          KIV_SetAudioInputPCM(input, 0, 2, 16),
        KIV_SetAudioInputPCM(input, 48000, 0, 16),    KIV_SetAudioInputPCM(input, 48000, 2, 24),
        KIV_SetAudioInputPCM(mux, 48000, 2, 16),      KIV_SetAudioInputPCM(nullptr, 48000, 2, 16),
        KIV_SetAudioRenderDefaultDevice(input),       KIV_SetAudioRenderDefaultDevice(nullptr)};
    for (KivResult r : refused) EXPECT_EQ(r, KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetAudioInputDevice(input, 2), KIV_OK);
    EXPECT_EQ(KIV_SetAudioInputPCM(input, 44100, 1, 16), KIV_OK);
    EXPECT_EQ(KIV_SetAudioRenderDefaultDevice(render), KIV_OK);
    EXPECT_EQ(audiotest::LogTexts(), Strings({"Set audio input device index=2", "Set audio PCM 44100 Hz 1 ch 16 bits",
                                             "Audio render use default playback device"}));
    KIV_EnableLog(0);
    for (void* p : {input, render, mux}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);
}

void KIV_CALL CountFrame(const KivAudioFrame*, void* user) { ++*static_cast<std::atomic<int>*>(user); }

// Natively there is no endpoint; under Wine these are Core Audio's.
TEST(AudioApi, AnIndexPastTheEndpointsStartsButDeliversNothing) {
    kivtest::LibraryScope library;
    audiotest::FreshLog();
    void* input = KIV_CreateAudioInput();
    const std::string count = std::to_string(KIV_GetAudioInputDeviceCount());
    ASSERT_EQ(KIV_SetAudioInputDevice(input, std::stoi(count)), KIV_OK);
    std::atomic<int> frames{0};
    ASSERT_EQ(KIV_SetAudioFrameCallback(input, CountFrame, &frames), KIV_OK);
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    audiotest::WaitFor([] { return !Lines("Audio OpenDevice failed").empty(); }, 20);
    EXPECT_EQ(KIV_Stop(input), KIV_OK);
    EXPECT_EQ(Lines("Audio input device index invalid"),
              Strings{"Audio input device index invalid index=" + count + " count=" + count});
    EXPECT_EQ(Lines("Audio OpenDevice failed"), Strings{"Audio OpenDevice failed index=" + count});
    EXPECT_EQ(frames.load(), 0);
    KIV_EnableLog(0);
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);
}

}  // namespace
