// The audio ports. Natively, their logic over a scripted endpoint; under Wine, Core Audio endpoints (PulseAudio null
// sinks) fed by run_endpoint_tests.sh, which plays a 1 kHz tone into kiv_sink_a and records kiv_sink_b, the default
// playback device (the tests needing the recording skip without the script).
#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#include <tlhelp32.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <thread>

#include "audio/kiv_audio_input.h"
#include "audio/kiv_audio_render.h"
#include "test_support.h"
#ifdef _WIN32
#include "core/kiv_core_audio_win.h"
#include "stream_test_util.h"
#endif

namespace {

using Strings = std::vector<std::string>;

void FreshLog() { KIV_EnableLog(0), KIV_EnableLog(1); }
size_t Count(const std::string& part) { return kivtest::CountOf(kivtest::LibraryLog(), part); }
template <class Pred> bool WaitFor(Pred done, int seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
}

// Every frame a port delivers (data pointers cleared), its samples and its arrival time; read once the port stopped.
struct Capture {
    std::vector<KivAudioFrame> frames;
    std::vector<int16_t> samples;
    std::vector<std::chrono::steady_clock::time_point> arrivals;
    static void KIV_CALL On(const KivAudioFrame* f, void* user) {
        Capture* c = static_cast<Capture*>(user);
        const int16_t* s = reinterpret_cast<const int16_t*>(f->data);
        c->samples.insert(c->samples.end(), s, s + f->bytes / 2);
        c->frames.push_back(*f), c->frames.back().data = nullptr;
        c->arrivals.push_back(std::chrono::steady_clock::now());
    }
};

#ifndef _WIN32

void ExpectInOrder(const Strings& parts) {
    const std::string log = kivtest::LibraryLog();
    size_t at = 0;
    for (const std::string& part : parts) ASSERT_NE(at = log.find(part, at), log.npos) << "missing or out of order: " << part;
}

using kiv::AudioMixFormat;
using U64s = std::vector<uint64_t>;
const kiv::AudioSampleKind I = kiv::AudioSampleKind::kInteger, F = kiv::AudioSampleKind::kFloat,
                           U = kiv::AudioSampleKind::kUnsupported;

template <class T> std::vector<uint8_t> Bytes(const std::vector<T>& v) {
    return {reinterpret_cast<const uint8_t*>(v.data()), reinterpret_cast<const uint8_t*>(v.data() + v.size())};
}
AudioMixFormat Format(kiv::AudioSampleKind kind, uint32_t channels, uint32_t bits, uint32_t tag = 1) {
    return AudioMixFormat{48000, channels, bits, channels * (kind == F ? 4 : bits / 8), tag, kind};
}

TEST(AudioConvert, MixFormatsBecomeInterleaved16Bit) {
    const std::tuple<const char*, AudioMixFormat, std::vector<uint8_t>, int32_t, std::vector<int16_t>, int32_t> cases[] = {
        {"float clamps, truncates", Format(F, 1, 32, 3), Bytes<float>({1.5f, -1.5f, 0.5f, -0.5f, 1e-5f, -1}), 1,
         {32767, -32767, 16383, -16383, 0, -32767}, 32767},
        {"float NaN", Format(F, 1, 32, 3), Bytes<float>({std::nanf(""), 0.25f}), 1, {0, 8191}, 8191},
        {"8-bit", Format(I, 1, 8), {0, 128, 255, 1}, 1, {-32768, 0, 32512, -32512}, 32768},
        {"16-bit", Format(I, 2, 16), Bytes<int16_t>({-32768, 32767, 1, -1}), 2, {-32768, 32767, 1, -1}, 32768},
        {"32-bit", Format(I, 1, 32), Bytes<int32_t>({0x7FFFFFFF, INT32_MIN, 0x0001FFFF, -1}), 1, {32767, -32768, 1, -1}, 32768},
        {"24-bit packed gives zeros", Format(I, 2, 24), std::vector<uint8_t>(12, 0x7F), 2, {0, 0, 0, 0}, 0},
        {"mono to three", Format(I, 1, 16), Bytes<int16_t>({100, -200}), 3, {100, 100, 100, -200, -200, -200}, 200},
        {"six to two", Format(I, 6, 16), Bytes<int16_t>({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), 2, {1, 2, 7, 8}, 8},
        {"float stereo to three", Format(F, 2, 32, 0xFFFE), Bytes<float>({0.5f, -0.25f}), 3, {16383, -8191, 16383}, 16383},
    };
    for (const auto& [name, format, source, outChannels, expected, expectedPeak] : cases) {
        SCOPED_TRACE(name);
        std::vector<uint8_t> out;
        int32_t peak = -1;
        const uint32_t frames = static_cast<uint32_t>(source.size() / format.blockAlign);
        ASSERT_TRUE(kiv::ConvertToPcm16(source.data(), frames, format, outChannels, &out, &peak));
        EXPECT_EQ(std::make_pair(out, peak), std::make_pair(Bytes(expected), expectedPeak));
    }
    // Unconvertible formats leave the buffer alone.
    const uint8_t data[16] = {};
    const std::pair<AudioMixFormat, int32_t> bad[] = {
        {Format(I, 0, 16), 2}, {Format(I, 1, 4), 2}, {Format(U, 2, 16, 2), 2}, {Format(I, 2, 16), 0}};
    for (const auto& [format, channels] : bad) {
        std::vector<uint8_t> out(3, 0xAB);
        int32_t peak = 7;
        EXPECT_FALSE(kiv::ConvertToPcm16(data, 2, format, channels, &out, &peak));
        EXPECT_EQ(out, std::vector<uint8_t>(3, 0xAB));
    }
    // Sub-format GUIDs as they lie in memory: PCM, IEEE float, something else.
    uint8_t pcm[16] = {0x01, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}, ieee[16], other[16];
    std::memcpy(ieee, pcm, 16), std::memcpy(other, pcm, 16);
    ieee[0] = 0x03, other[15] = 0x72;
    const std::tuple<uint32_t, const uint8_t*, kiv::AudioSampleKind> kinds[] = {
        {1, nullptr, I},    {3, nullptr, F},      {0xFFFE, pcm, I},      {0xFFFE, ieee, F},
        {0xFFFE, other, U}, {0xFFFE, nullptr, U}, {2, nullptr, U}};
    for (const auto& [tag, sub, kind] : kinds) EXPECT_EQ(kiv::SampleKindOf(tag, sub), kind) << "tag " << tag;
}

// A scripted endpoint, for capture and for playback: the test sets it up before Start (while the capture thread
// runs, `bursts` is guarded by `mutex`). Calls named in `failAt` fail with 0x88890004.
struct Script {
    struct Packet {
        std::vector<uint8_t> bytes;  // empty: a null data pointer
        uint32_t frames;
        bool silent;
    };
    std::mutex mutex;
    std::string failAt;
    kiv::CaptureOpenReport open{kiv::CaptureOpenStep::kNone, 0x88890004, 1};
    kiv::RenderOpenStep renderFailStep = kiv::RenderOpenStep::kNone;
    AudioMixFormat mix = Format(I, 2, 16);
    std::deque<std::vector<Packet>> bursts;      // one per signalled wait
    std::atomic<uint64_t> tick{0}, tickStep{0};  // tickStep is added at every TickMs call
    std::atomic<int> closes{0}, waits{0};
    uint32_t padding = 0, silentFrames = 0;
    std::vector<AudioMixFormat> opens;  // successful render opens
    std::vector<uint8_t> written;       // bytes released for playback, in order
};

class ScriptedEndpoint : public kiv::AudioCaptureEndpoint, public kiv::AudioRenderEndpoint {
public:
    explicit ScriptedEndpoint(Script& s) : s_(s) {}
    uint32_t EnterThread() override { return 0; }
    void LeaveThread() override {}
    kiv::CaptureOpenReport Open(int32_t) override { return s_.open; }
    uint32_t Activate() override { return Result("Activate"); }
    uint32_t GetMixFormat(AudioMixFormat* out) override { return *out = s_.mix, Result("GetMixFormat"); }
    uint32_t MakeEvent() override { return Result("MakeEvent"); }
    uint32_t Initialize() override { return Result("Initialize"); }
    uint32_t SetEventHandle() override { return Result("SetEventHandle"); }
    uint32_t GetCaptureService() override { return Result("GetCaptureService"); }
    uint32_t StartClient() override { return Result("StartClient"); }
    kiv::WaitResult Wait(uint32_t, uint32_t* error) override {
        ++s_.waits;
        if ((*error = Result("Wait"))) return kiv::WaitResult::kFailed;
        std::lock_guard<std::mutex> lock(s_.mutex);
        if (s_.bursts.empty()) return kiv::WaitResult::kTimeout;
        return packets_ = s_.bursts.front(), s_.bursts.pop_front(), kiv::WaitResult::kSignalled;
    }
    uint32_t NextPacketSize(uint32_t* n) override { return *n = packets_.empty() ? 0 : packets_[0].frames, Result("NextPacketSize"); }
    uint32_t GetBuffer(kiv::CapturePacket* packet) override {
        if (Result("GetBuffer")) return packets_.clear(), Result("GetBuffer");
        return *packet = {packets_[0].bytes.empty() ? nullptr : packets_[0].bytes.data(), packets_[0].frames, packets_[0].silent}, 0;
    }
    uint32_t ReleaseBuffer(uint32_t) override {
        packets_.erase(packets_.begin());
        return Result("ReleaseBuffer") ? packets_.clear(), Result("ReleaseBuffer") : 0;
    }
    uint32_t StopClient() override { return 0; }
    void Close() override { ++s_.closes; }
    uint64_t TickMs() override { return s_.tick += s_.tickStep; }

    // Steps up to Activate fail in OpenDevice, the later ones in OpenClient.
    kiv::RenderOpenReport OpenDevice() override {
        return Report(s_.renderFailStep != kiv::RenderOpenStep::kNone && s_.renderFailStep <= kiv::RenderOpenStep::kActivate);
    }
    kiv::RenderOpenReport OpenClient(const AudioMixFormat& source) override {
        if (s_.renderFailStep > kiv::RenderOpenStep::kActivate) return Report(true);
        s_.opens.push_back(format_ = source);
        return started_ = true, Report(false);
    }
    uint32_t GetCurrentPadding(uint32_t* frames) override { return *frames = s_.padding, Result("GetCurrentPadding"); }
    uint32_t GetBuffer(uint32_t frames, uint8_t** data) override {
        buffer_.assign(static_cast<size_t>(frames) * format_.blockAlign, 0xEE);
        return *data = Result("GetBuffer") ? nullptr : buffer_.data(), Result("GetBuffer");
    }
    uint32_t ReleaseBuffer(uint32_t frames, bool silent) override {
        s_.silentFrames += silent ? frames : 0;
        s_.written.insert(s_.written.end(), buffer_.begin(), buffer_.begin() + frames * format_.blockAlign);
        return Result("ReleaseBuffer");
    }
    bool Close(uint32_t* stopHr) override { return ++s_.closes, *stopHr = 0, std::exchange(started_, false); }

private:
    uint32_t Result(const char* call) { return s_.failAt == call ? 0x88890004 : 0; }
    kiv::RenderOpenReport Report(bool failed) {
        return {failed ? s_.renderFailStep : kiv::RenderOpenStep::kNone, failed ? 0x88890004 : 0, true, 0,
                Format(F, 2, 32, 0xFFFE), 4800};
    }
    Script& s_;
    std::vector<Script::Packet> packets_;
    AudioMixFormat format_;
    std::vector<uint8_t> buffer_;
    bool started_ = false;
};

struct Render : Script {
    KivAudioRender port{[this] { return std::make_unique<ScriptedEndpoint>(*this); }};
    Render() { FreshLog(); }
    U64s Counts() {
        const KivAudioRender::Counters n = port.GetCounters();
        return {n.receivedFrames, n.writtenFrames, n.droppedFrames, n.silenceFrames};
    }
};

struct Pcm {
    std::vector<uint8_t> bytes;
    KivAudioFrame frame{};
    Pcm(uint32_t frames, int32_t rate = 48000, int32_t channels = 2, int32_t bits = 16)
        : bytes(frames * static_cast<uint32_t>(channels > 0 ? channels * bits / 8 : 2)) {
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
        frame = {bytes.data(), static_cast<uint32_t>(bytes.size()), rate, channels, bits, 0, 0};
    }
};

// 480 frames into a buffer of 4800 with `padding` queued: what is written and dropped, and which step failed; the
// next frame, with nothing failing and an empty buffer, is written whole.
TEST(AudioRender, WritesWhatFitsAndDropsTheRestOrTheFrameOnFailure) {
    using S = kiv::RenderOpenStep;
    // Open step, call failing, result, padding, frames written and dropped, what each line saying "failed" names.
    std::vector<std::tuple<S, std::string, int32_t, uint32_t, uint32_t, uint32_t, Strings>> cases = {
        {S::kNone, "", KIV_OK, 4700, 100, 380, {}},
        {S::kNone, "", KIV_OK, 4800, 0, 480, {}},
        {S::kNone, "", KIV_OK, 5000, 0, 480, {}},
        {S::kNone, "", KIV_OK, 0, 480, 0, {}},
        {S::kNone, "GetCurrentPadding", KIV_OK, 4790, 480, 0, {"GetCurrentPadding"}},
        {S::kNone, "GetBuffer", KIV_ERROR_FAILED, 4750, 0, 480, {"GetBuffer failed hr=0x88890004 writeFrames=50 available=50"}},
        {S::kNone, "ReleaseBuffer", KIV_OK, 4750, 0, 430, {"ReleaseBuffer failed hr=0x88890004 writeFrames=50"}},
    };
    // An endpoint that does not open drops the frame.
    for (auto [step, part] : std::initializer_list<std::pair<S, const char*>>{
             {S::kCreateEnumerator, "CoCreateInstance"}, {S::kDefaultEndpoint, "GetDefaultAudioEndpoint"},
             {S::kActivate, "Activate"}, {S::kAllocFormat, "CoTaskMemAlloc"}, {S::kInitialize, "Initialize"},
             {S::kGetBufferSize, "GetBufferSize"}, {S::kGetService, "GetService"}, {S::kStart, "client Start"}})
        cases.push_back({step, "", KIV_ERROR_FAILED, 0, 0, 480, {part, "EnsureFormat failed input=48000 Hz ch=2 bits=16 frames=480"}});
    for (const auto& [step, failAt, result, padding, written, dropped, failures] : cases) {
        SCOPED_TRACE(testing::Message() << "step " << static_cast<int>(step) << " " << failAt << " " << padding);
        Render r;
        r.renderFailStep = step, r.failAt = failAt, r.padding = padding;
        ASSERT_EQ(r.port.Start(), KIV_OK);
        Pcm pcm(480);
        EXPECT_EQ(r.port.OnAudioFrame(&pcm.frame), result);
        EXPECT_EQ(r.Counts(), U64s({480, written, dropped, 0}));
        EXPECT_EQ(r.closes, step == S::kNone ? 0 : 1);  // an endpoint that did not open is closed at once
        const size_t copied = (failAt == "ReleaseBuffer" ? 50 : written) * 4;  // a failed release still had the bytes
        EXPECT_EQ(r.written, std::vector<uint8_t>(pcm.bytes.begin(), pcm.bytes.begin() + copied));
        EXPECT_EQ(Count("failed"), failures.size());
        ExpectInOrder(failures);
        r.renderFailStep = S::kNone, r.failAt = "", r.padding = 0;
        EXPECT_EQ(r.port.OnAudioFrame(&pcm.frame), KIV_OK);
        EXPECT_EQ(r.Counts(), U64s({960, written + 480u, dropped, 0}));
    }
}

TEST(AudioRender, OpensLazilyReopensOnAFormatChangeAndRefusesBadFrames) {
    Render r;
    Pcm a(10), b(10, 44100, 1), empty(0), noChannels(4, 48000, 0), eightBit(6, 48000, 1, 8), partial(1), loud(2);
    EXPECT_EQ(r.port.OnAudioFrame(&a.frame), KIV_OK);  // before Start: ignored
    ASSERT_EQ(r.port.Start(), KIV_OK);
    KivAudioFrame noData = a.frame;
    noData.data = nullptr, noChannels.frame.bytes = 8, partial.frame.bytes = 3;  // less than one sample frame: ignored
    for (const KivAudioFrame* f : {static_cast<KivAudioFrame*>(nullptr), &noData, &empty.frame})
        EXPECT_EQ(r.port.OnAudioFrame(f), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(r.port.OnAudioFrame(&noChannels.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(r.port.OnAudioFrame(&partial.frame), KIV_OK);
    EXPECT_TRUE(r.opens.empty());
    loud.bytes = {0x10, 0x00, 0x20, 0x00, 0x00, 0x80, 0xFF, 0x7F};  // 16, 32, -32768, 32767
    loud.frame.data = loud.bytes.data();
    for (Pcm* p : {&a, &a, &loud, &loud, &b}) {
        r.tick = p == &a ? 0 : 5000;  // one statistics line, at the first loud frame
        ASSERT_EQ(r.port.OnAudioFrame(&p->frame), KIV_OK);
    }
    ASSERT_EQ(r.opens.size(), 2u);
    EXPECT_EQ(std::vector<uint32_t>({r.opens[1].sampleRate, r.opens[1].channels, r.opens[1].blockAlign, r.opens[1].formatTag}),
              std::vector<uint32_t>({44100, 1, 2, 1}));
    // 8-bit frames (one byte a frame here) reopen every time and are written as silence.
    for (int i = 0; i < 2; ++i) EXPECT_EQ(r.port.OnAudioFrame(&eightBit.frame), KIV_ERROR_FAILED);
    EXPECT_EQ(r.opens.size(), 4u);
    EXPECT_EQ(r.silentFrames, 12u);
    ASSERT_EQ(r.port.Stop(), KIV_OK);
    EXPECT_EQ(r.closes, 4);
    EXPECT_EQ(r.port.OnAudioFrame(&a.frame), KIV_OK);  // after Stop: ignored
    EXPECT_EQ(r.Counts(), U64s({46, 34, 12, 12}));
    EXPECT_EQ(Count("Audio render stats"), 1u);
    EXPECT_EQ(Count("stats receivedFrames=22 writtenFrames=22 droppedFrames=0 silenceFrames=0 peak=32768"), 1u);
}

Script::Packet Packet(std::vector<int16_t> interleaved, bool silent = false) {
    return {Bytes(interleaved), static_cast<uint32_t>(interleaved.size() / 2), silent};
}

struct Input : Script {
    Capture caught;
    KivAudioInput port{[this] { return std::make_unique<ScriptedEndpoint>(*this); }};
    Input() { FreshLog(), port.SetAudioFrameCallback(Capture::On, &caught); }
    // Starts, waits until every burst was handled and the thread is back in its wait, stops.
    void Run() {
        ASSERT_EQ(port.Start(), KIV_OK);
        ASSERT_TRUE(WaitFor([&] { std::lock_guard<std::mutex> lock(mutex); return bursts.empty(); }));
        const int seen = waits;
        ASSERT_TRUE(WaitFor([&] { return waits > seen; }));
        ASSERT_EQ(port.Stop(), KIV_OK);
    }
};

// With the clock 5 s further at every reading, each wait ends with a statistics line.
TEST(AudioInput, PacketsBecomeFramesTimedByTheSampleCursor) {
    Input in;
    in.mix.sampleRate = 44100, in.tickStep = 5000;
    in.bursts = {{Packet({1, -2, 3, -4}), Packet({5, 6, 7, 8, 9, 10}, true)}, {Packet({-300, 300})}};
    ASSERT_EQ(in.port.SetPcm(8000, 1, 16), KIV_OK);  // the rate is kept but not applied
    in.Run();
    // A restart goes on from the cursor; a null data pointer skips the frame but not the count.
    in.bursts.push_back({Packet({1, 1}), Script::Packet{{}, 7, false}});
    in.Run();
    ASSERT_EQ(in.caught.frames.size(), 4u);
    const int64_t cursor[] = {0, 2, 5, 6}, bytes[] = {4, 6, 2, 2};
    for (size_t i = 0; i < 4; ++i) {
        const KivAudioFrame& f = in.caught.frames[i];
        EXPECT_EQ(std::vector<int64_t>({f.sampleRate, f.channels, f.bitsPerSample, f.reserved, f.timestamp, f.bytes}),
                  std::vector<int64_t>({44100, 1, 16, 0, cursor[i] * 10000000 / 44100, bytes[i]}));
    }
    EXPECT_EQ(in.caught.samples, std::vector<int16_t>({1, 3, 0, 0, 0, -300, 1}));
    EXPECT_EQ(in.port.SampleCursor(), 14u);
    ExpectInOrder({"exit packets=3 frames=6 bytes=24 silentPackets=1 errors=0", "exit packets=2 frames=8 bytes=32 silentPackets=0"});
    ExpectInOrder({"peak=3 sampleCursor=5", "peak=300 sampleCursor=6", "peak=0 sampleCursor=6"});
}

// Which call failed shows only in the log; the opening failures end the thread before any frame.
TEST(AudioInput, LogsEveryFailingCall) {
    using S = kiv::CaptureOpenStep;
    const std::string noPackets = "packets=0 frames=0 bytes=0 silentPackets=0 errors=1";  // the thread's exit line
    // Call failing, open step failing, the lines expected in order, whether the client opened.
    const std::tuple<std::string, S, Strings, bool> cases[] = {
        {"", S::kCreateEnumerator, {"CoCreateInstance(MMDeviceEnumerator) failed"}, false},
        {"", S::kEnumEndpoints, {"EnumAudioEndpoints failed"}, false},
        {"", S::kGetCount, {"GetCount failed"}, false},
        {"", S::kIndexInvalid, {"index invalid index=0 count=1"}, false},
        {"", S::kItem, {"Item failed index=0"}, false},
        {"Activate", S::kNone, {"Activate IAudioClient failed"}, false},
        {"GetMixFormat", S::kNone, {"GetMixFormat failed"}, false},
        {"MakeEvent", S::kNone, {"CreateEvent failed"}, false},
        {"Initialize", S::kNone, {"Initialize failed"}, false},
        {"GetCaptureService", S::kNone, {"GetService IAudioCaptureClient failed"}, false},
        {"SetEventHandle", S::kNone, {"SetEventHandle failed", "client started"}, true},
        {"StartClient", S::kNone, {"client Start failed"}, true},
        {"Wait", S::kNone, {"WaitForSingleObject failed", noPackets}, true},
        {"NextPacketSize", S::kNone, {"GetNextPacketSize failed", noPackets}, true},
        {"GetBuffer", S::kNone, {"GetBuffer failed hr=0x88890004 packetFrames=1", noPackets}, true},
        {"ReleaseBuffer", S::kNone, {"ReleaseBuffer failed", "packets=1 frames=1 bytes=4 silentPackets=0 errors=1"}, true},
    };
    for (const auto& [failAt, openStep, lines, opened] : cases) {
        const std::string first = lines[0];  // a lambda cannot capture a structured binding
        SCOPED_TRACE(first);
        Input in;
        in.open.failedStep = openStep, in.failAt = failAt, in.bursts.push_back({Packet({7, 7})});
        ASSERT_EQ(in.port.Start(), KIV_OK);
        ASSERT_TRUE(WaitFor([&] { return Count(first) > 0; }));
        ASSERT_EQ(in.port.Stop(), KIV_OK);
        ExpectInOrder(lines);
        EXPECT_TRUE(opened || in.caught.frames.size() + Count("Audio input thread exit") == 0);
        EXPECT_EQ(in.closes, 1);
    }
}

TEST(AudioApi, SettersRefuseBadArgumentsAndStartAndStopAreIdempotent) {
    for (void* p : {KIV_CreateAudioInput(), KIV_CreateAudioRender()}) EXPECT_EQ(p, nullptr);  // not initialised yet
    kivtest::LibraryScope library;
    FreshLog();
    void *input = KIV_CreateAudioInput(), *render = KIV_CreateAudioRender(), *mux = KIV_CreateAudioMux();
    for (KivResult r : {KIV_SetAudioInputDevice(input, -1), KIV_SetAudioInputDevice(render, 0),
                        KIV_SetAudioInputDevice(nullptr, 0), KIV_SetAudioInputPCM(input, 0, 2, 16),
                        KIV_SetAudioInputPCM(input, 48000, 0, 16), KIV_SetAudioInputPCM(input, 48000, 2, 24),
                        KIV_SetAudioInputPCM(mux, 48000, 2, 16), KIV_SetAudioInputPCM(nullptr, 48000, 2, 16),
                        KIV_SetAudioRenderDefaultDevice(input), KIV_SetAudioRenderDefaultDevice(nullptr)})
        EXPECT_EQ(r, KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(std::vector<int>({KIV_SetAudioInputDevice(input, 2), KIV_SetAudioInputPCM(input, 1, 1, 16),
                                KIV_SetAudioInputPCM(input, 44100, 1, 16), KIV_SetAudioRenderDefaultDevice(render)}),
              std::vector<int>(4, KIV_OK));
    for (auto call : {KIV_Stop, KIV_Start, KIV_Start, KIV_Stop, KIV_Stop}) EXPECT_EQ(call(input), KIV_OK);
    EXPECT_EQ(std::make_pair(Count("Audio input start device=2 request=44100 Hz 1 ch"), Count("Audio input stop")),
              std::make_pair(size_t{1}, size_t{1}));
    for (void* p : {input, render, mux}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);
}

#else

constexpr double kAmplitude = 0.25 * 32768.0, kPi = 3.14159265358979323846;
const char* const kRecording = std::getenv("KIV_AUDIO_SINK_B_RECORDING");

// Names and ids of what Core Audio itself lists, independently of the library.
std::vector<std::pair<std::string, std::string>> CoreAudioCaptureEndpoints() {
    using namespace kiv::coreaudio;
    std::vector<std::pair<std::string, std::string>> out;
    IMMDeviceEnumerator* enumerator = nullptr;
    IMMDeviceCollection* all = nullptr;
    IMMDevice* device = nullptr;
    IPropertyStore* store = nullptr;
    UINT count = 0;
    if (FAILED(CoCreateInstance(kClsidDeviceEnumerator, nullptr, CLSCTX_ALL, kIidDeviceEnumerator,
                                reinterpret_cast<void**>(&enumerator))) ||
        FAILED(enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, &all)) || FAILED(all->GetCount(&count)))
        return out;  // the count then differs from the library's
    for (UINT i = 0; i < count && SUCCEEDED(all->Item(i, &device)); ++i, device->Release()) {
        auto& [name, path] = out.emplace_back();
        LPWSTR id = nullptr;
        PROPVARIANT v{};
        if (SUCCEEDED(device->GetId(&id))) path = Utf8(id);
        CoTaskMemFree(id);
        if (FAILED(device->OpenPropertyStore(STGM_READ, &store))) continue;
        if (SUCCEEDED(store->GetValue(kKeyFriendlyName, &v)) && v.vt == VT_LPWSTR) name = Utf8(v.pwszVal);
        PropVariantClear(&v), store->Release();
    }
    all->Release(), enumerator->Release();
    return out;
}

int32_t IndexOf(const std::string& part) {
    KivDeviceInfo info;
    for (int32_t i = 0; i < KIV_GetAudioInputDeviceCount(); ++i)
        if (KIV_GetAudioInputDeviceInfo(i, &info) == KIV_OK && std::strstr(info.name, part.c_str())) return i;
    return ADD_FAILURE() << part << " is not listed", -1;
}

// Frequency (Goertzel, 25 Hz steps), level and continuity of the 1 kHz tone in one channel of interleaved stereo. A break
// (a lost or repeated sample, none in a capture) misses the sine recurrence x[n+1] - 2cos(w)x[n] + x[n-1] by over 5 %
// of the amplitude; playback may run dry on a loaded machine, so its level counts only the 10 ms blocks holding the tone.
void ExpectTone(const std::vector<int16_t>& pcm, int channel, size_t begin, size_t end, double rate, bool continuous) {
    SCOPED_TRACE(testing::Message() << "channel " << channel << (continuous ? " captured" : " played"));
    ASSERT_GT(end, begin + static_cast<size_t>(rate));
    auto x = [&](size_t n) { return static_cast<double>(pcm[2 * n + channel]); };
    double best = 0, bestPower = -1, sum = 0;
    for (double f = 100; f <= 5000; f += 25) {
        const double k = 2.0 * std::cos(2.0 * kPi * f / rate);
        double s1 = 0, s2 = 0;
        for (size_t i = begin; i < end; ++i) s2 = std::exchange(s1, x(i) + k * s1 - s2);
        if (const double power = s1 * s1 + s2 * s2 - k * s1 * s2; power > bestPower) bestPower = power, best = f;
    }
    EXPECT_EQ(best, 1000.0);
    const size_t block = static_cast<size_t>(rate) / 100;
    size_t used = 0, breaks = 0;
    for (size_t b = begin, i; b + block <= end; b += block) {
        double s = 0;
        for (i = b; i < b + block; ++i) s += x(i) * x(i);
        if (continuous || s / block > kAmplitude * kAmplitude / 8) sum += s, used += block;
    }
    ASSERT_GT(used, (end - begin) / 2);
    const double rmsDb = 20 * std::log10(std::sqrt(sum / used) / (kAmplitude / std::sqrt(2.0)));
    EXPECT_NEAR(rmsDb, 0.0, continuous ? 0.5 : 1.0);
    const double k = 2.0 * std::cos(2.0 * kPi * 1000.0 / rate);
    for (size_t n = begin + 1, off = 0; n + 1 < end; ++n) {
        const bool now = std::fabs(x(n + 1) - k * x(n) + x(n - 1)) > 0.05 * kAmplitude;
        breaks += now && !off, off = now;
    }
    EXPECT_TRUE(!continuous || breaks == 0) << breaks << " breaks, level " << rmsDb << " dB";
}

struct AudioEndpoints : ::testing::Test {
    void SetUp() override { FreshLog(); }
    kivtest::LibraryScope library_;
};

TEST_F(AudioEndpoints, TheListIsWhatCoreAudioEnumerates) {
    const auto expected = CoreAudioCaptureEndpoints();
    ASSERT_EQ(KIV_GetAudioInputDeviceCount(), static_cast<int32_t>(expected.size()));
    for (int32_t i = 0; i < KIV_GetAudioInputDeviceCount(); ++i) {
        KivDeviceInfo info;
        ASSERT_EQ(KIV_GetAudioInputDeviceInfo(i, &info), KIV_OK);
        EXPECT_EQ(info.index, i);
        EXPECT_EQ(info.name, expected[i].first.empty() ? "Unknown Audio Device" : expected[i].first.substr(0, 255));
        EXPECT_EQ(info.path, expected[i].second.substr(0, 511));
    }
    for (const char* part : {"kiv_sink_a", "kiv_sink_b"}) IndexOf(part);
    // The script adds one whose name is cut inside a two-byte character.
    EXPECT_TRUE(!kRecording || expected.at(IndexOf("kiv_long_")).first.size() > 255);
}

// Input from kiv_sink_a's monitor, with a callback and through a mux into the default playback device.
TEST_F(AudioEndpoints, TheToneIsCapturedWithoutGapsAndPlayedIntoTheDefaultDevice) {
    if (!kRecording) GTEST_SKIP() << "needs run_endpoint_tests.sh";
    const size_t before = kivtest::ReadFile(kRecording).size() / 2;
    void *input = KIV_CreateAudioInput(), *mux = KIV_CreateAudioMux(), *render = KIV_CreateAudioRender();
    Capture capture;
    ASSERT_EQ(std::vector<int>({KIV_SetAudioInputDevice(input, IndexOf("kiv_sink_a")), KIV_SetAudioInputPCM(input, 44100, 2, 16),
                                KIV_SetAudioFrameCallback(input, Capture::On, &capture),
                                KIV_SetAudioRenderDefaultDevice(render), KIV_Connect(input, mux), KIV_Connect(mux, render),
                                KIV_Start(render), KIV_Start(input)}),
              std::vector<int>(8, KIV_OK));  // the rate asked for is not applied
    std::this_thread::sleep_for(std::chrono::seconds(10));
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the endpoint plays out its buffer
    for (void* p : {input, mux, render}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // parec writes out what it has

    // Frames at the monitor's mix rate (the pace and the tone's frequency prove it); from the first to the last frame
    // the audio kept pace with the wall clock: no packet went missing.
    ASSERT_GT(capture.frames.size(), 10u);
    const uint32_t mixRate = capture.frames[0].sampleRate;
    const uint64_t cursor = capture.samples.size() / 2;
    const double audioSeconds = static_cast<double>(cursor - capture.frames.back().bytes / 4) / mixRate;
    const double arrivalSeconds = std::chrono::duration<double>(capture.arrivals.back() - capture.arrivals.front()).count();
    EXPECT_GT(audioSeconds, 6.0);  // of the 10 s run; opening the endpoint takes a while on a loaded machine
    EXPECT_NEAR(audioSeconds, arrivalSeconds, 0.2) << capture.frames.size() << " frames";
    for (int channel : {0, 1}) ExpectTone(capture.samples, channel, mixRate / 2, cursor - mixRate / 10, mixRate, true);

    // kiv_sink_b's monitor (48 kHz stereo) since the loop started: the tone is where samples pass half its amplitude.
    const std::string all = kivtest::ReadFile(kRecording);
    const int16_t* pcm = reinterpret_cast<const int16_t*>(all.data());
    const std::vector<int16_t> played(pcm + before, pcm + all.size() / 2);
    size_t first = played.size(), last = 0;
    for (size_t i = 0; i < played.size() / 2; ++i)
        if (std::abs(played[2 * i]) > kAmplitude / 2) first = std::min(first, i), last = i;
    ASSERT_LT(first, last);
    EXPECT_GT(last - first, 48000u * 6) << "from " << first;  // of the 10 s loop
    ExpectTone(played, 0, first + 24000, last - 24000, 48000, false);
}

TEST_F(AudioEndpoints, TheRecorderGoesOnWithoutAnAacEncoder) {
    const std::string file = kivtest::TempDir("audio_recorder") + "/with_audio.mp4";
    void *input = KIV_CreateAudioInput(), *source = KIV_CreateVideoFrameSource(), *recorder = KIV_CreateRecorder(nullptr);
    KivRecorderConfig config{};
    streamtest::WidePath(file).copy(config.filePath, std::size(config.filePath) - 1);
    config.width = 320, config.height = 240, config.recordFps = 25, config.audio = 1;
    ASSERT_EQ(std::vector<int>({KIV_SetAudioInputDevice(input, IndexOf("kiv_sink_a")), KIV_SetRecorderConfig(recorder, &config),
                                KIV_Connect(input, recorder), KIV_Connect(source, recorder), KIV_Start(recorder),
                                KIV_Start(input)}),
              std::vector<int>(6, KIV_OK));
    // Hand-made H.264 access units: parameter sets and a key slice, then plain slices.
    static const uint8_t kKey[] = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84, 0, 0, 0, 1,
                                   0x68, 0xCE, 0x3C, 0x80, 0, 0, 1, 0x65, 0x88, 0x84, 0x21, 0x43};
    static const uint8_t kSlice[] = {0, 0, 1, 0x41, 0x88, 0x84, 0x21, 0x43};
    for (int i = 0; i < 50; ++i) {
        KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, i ? kSlice : kKey, i ? sizeof kSlice : sizeof kKey);
        f.timestamp = 10000000 + i * 400000;
        ASSERT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    ASSERT_EQ(KIV_Stop(recorder), KIV_OK);
    KivRecorderStats stats{};
    ASSERT_EQ(KIV_GetRecorderStats(recorder, &stats), KIV_OK);
    EXPECT_GT(stats.encodedFrames, 0);
    for (void* p : {input, source, recorder}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);
    EXPECT_EQ(Count("AAC encoder init failed sr="), 1u);  // with the input's mix rate, logged
    const streamtest::Bytes mp4 = streamtest::ReadAll(file);
    streamtest::Box box;  // one track, the video
    EXPECT_EQ(std::make_pair(streamtest::FindBox(mp4, "moov/trak", &box, 0), streamtest::FindBox(mp4, "moov/trak", &box, 1)),
              std::make_pair(true, false));
}

// The process's threads, and the value a new handle gets: the lowest free slot of the handle table, so it climbs only
// while handles pile up (Wine's handle count reads 0).
std::pair<size_t, size_t> ThreadsAndNextHandle() {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0), probe = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    THREADENTRY32 entry{sizeof(THREADENTRY32), 0, 0, 0, 0, 0, 0};
    size_t n = 0;
    for (BOOL ok = Thread32First(snapshot, &entry); ok; ok = Thread32Next(snapshot, &entry))
        n += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(snapshot), CloseHandle(probe);
    return {n, reinterpret_cast<uintptr_t>(probe)};
}

TEST_F(AudioEndpoints, TwoHundredStartsAndStopsLeakNothing) {
    KIV_EnableLog(0);  // 200 runs of lines would only slow it down
    void* input = KIV_CreateAudioInput();
    ASSERT_EQ(KIV_SetAudioInputDevice(input, IndexOf("kiv_sink_a")), KIV_OK);
    std::pair<size_t, size_t> before;
    for (int i = -1; i < 200; ++i) {
        ASSERT_EQ(KIV_Start(input), KIV_OK);
        // The first, a warm-up, loads the audio driver and its threads; some others reach the capture loop.
        if (i % 10 == 0 || i < 0) std::this_thread::sleep_for(std::chrono::milliseconds(i < 0 ? 200 : 30));
        ASSERT_EQ(KIV_Stop(input), KIV_OK);
        if (i < 0) std::this_thread::sleep_for(std::chrono::milliseconds(200)), before = ThreadsAndNextHandle();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto [threads, handle] = ThreadsAndNextHandle();
    EXPECT_LE(threads, before.first + 1);
    EXPECT_LE(handle, before.second + 10 * 4);  // a few may be the audio driver's own, never one per run
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);
}

#endif

}  // namespace
