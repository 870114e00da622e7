// The audio ports against real Core Audio endpoints (PulseAudio null sinks
// under Wine). run_endpoint_tests.sh plays a 1 kHz tone at a quarter of full
// scale into kiv_sink_a, makes kiv_sink_b the default playback device and
// records its monitor; the tests needing them skip without the script.
#include <gtest/gtest.h>

#include <windows.h>
#include <tlhelp32.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "audio_fakes.h"
#include "core/kiv_core_audio_win.h"
#include "stream_test_util.h"

namespace {

using Clock = std::chrono::steady_clock;
using audiotest::Lines;
constexpr double kToneHz = 1000.0, kToneAmplitude = 0.25 * 32768.0, kPi = 3.14159265358979323846;

bool HaveTone() { return std::getenv("KIV_AUDIO_TONE") != nullptr; }

// Every frame the port delivers, with its arrival time.
struct Capture {
    std::mutex mutex;
    std::vector<int16_t> samples;
    std::vector<KivAudioFrame> frames;  // data cleared
    std::vector<Clock::time_point> arrivals;
    static void KIV_CALL On(const KivAudioFrame* f, void* user) {
        Capture* c = static_cast<Capture*>(user);
        std::lock_guard<std::mutex> lock(c->mutex);
        const int16_t* s = reinterpret_cast<const int16_t*>(f->data);
        c->samples.insert(c->samples.end(), s, s + f->bytes / 2);
        c->frames.push_back(*f);
        c->frames.back().data = nullptr;
        c->arrivals.push_back(Clock::now());
    }
};

struct Endpoint {
    std::string name, id;
    uint32_t mixRate = 0;
};

// What Core Audio itself lists, independently of the library.
std::vector<Endpoint> CoreAudioCaptureEndpoints() {
    using namespace kiv::coreaudio;
    std::vector<Endpoint> out;
    IMMDeviceEnumerator* enumerator = nullptr;
    IMMDeviceCollection* all = nullptr;
    UINT count = 0;
    if (FAILED(CoCreateInstance(kClsidDeviceEnumerator, nullptr, CLSCTX_ALL, kIidDeviceEnumerator,
                                reinterpret_cast<void**>(&enumerator))))
        return out;
    if (SUCCEEDED(enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, &all)) && SUCCEEDED(all->GetCount(&count))) {
        IMMDevice* device = nullptr;
        for (UINT i = 0; i < count && SUCCEEDED(all->Item(i, &device)); ++i) {
            Endpoint e;
            LPWSTR id = nullptr;
            if (SUCCEEDED(device->GetId(&id))) e.id = Utf8(id);
            CoTaskMemFree(id);
            IPropertyStore* store = nullptr;
            PROPVARIANT v;
            PropVariantInit(&v);
            if (SUCCEEDED(device->OpenPropertyStore(STGM_READ, &store))) {
                if (SUCCEEDED(store->GetValue(kKeyFriendlyName, &v)) && v.vt == VT_LPWSTR) e.name = Utf8(v.pwszVal);
                PropVariantClear(&v);
                store->Release();
            }
            IAudioClient* client = nullptr;
            WAVEFORMATEX* mix = nullptr;
            if (SUCCEEDED(device->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(&client)))) {
                if (SUCCEEDED(client->GetMixFormat(&mix))) e.mixRate = mix->nSamplesPerSec;
                CoTaskMemFree(mix);
                client->Release();
            }
            out.push_back(e);
            device->Release();
        }
        all->Release();
    }
    enumerator->Release();
    return out;
}

int32_t IndexOf(const std::string& part) {
    KivDeviceInfo info;
    for (int32_t i = 0; i < KIV_GetAudioInputDeviceCount(); ++i)
        if (KIV_GetAudioInputDeviceInfo(i, &info) == KIV_OK && std::strstr(info.name, part.c_str())) return i;
    return -1;
}

std::vector<double> Channel(const std::vector<int16_t>& interleaved, size_t channel) {
    std::vector<double> x;
    for (size_t i = channel; i < interleaved.size(); i += 2) x.push_back(interleaved[i]);
    return x;
}

// Level, frequency (Goertzel power, 25 Hz steps) and continuity of the tone in
// x[begin, end). A break is where the sine recurrence x[n+1] - 2cos(w)x[n] +
// x[n-1] = 0 misses by more than 5 % of the amplitude: a lost or repeated
// sample. A capture must have none; playback may break where the endpoint
// ran dry between packets.
void ExpectTone(const std::vector<double>& x, size_t begin, size_t end, double rate, const char* what, bool continuous) {
    SCOPED_TRACE(what);
    ASSERT_GT(end, begin + static_cast<size_t>(rate));
    double best = 0, bestPower = -1, sum = 0;
    for (double f = 100; f <= 5000; f += 25) {
        const double k = 2.0 * std::cos(2.0 * kPi * f / rate);
        double s1 = 0, s2 = 0;
        for (size_t i = begin; i < end; ++i) s2 = std::exchange(s1, x[i] + k * s1 - s2);
        const double power = s1 * s1 + s2 * s2 - k * s1 * s2;
        if (power > bestPower) bestPower = power, best = f;
    }
    EXPECT_EQ(best, kToneHz);
    for (size_t i = begin; i < end; ++i) sum += x[i] * x[i];
    const double rmsDb = 20 * std::log10(std::sqrt(sum / (end - begin)) / (kToneAmplitude / std::sqrt(2.0)));
    EXPECT_NEAR(rmsDb, 0.0, continuous ? 0.5 : 1.0);
    const double k = 2.0 * std::cos(2.0 * kPi * kToneHz / rate);
    size_t breaks = 0;
    bool inBreak = false;
    for (size_t n = begin + 1; n + 1 < end; ++n) {
        const bool off = std::fabs(x[n + 1] - k * x[n] + x[n - 1]) > 0.05 * kToneAmplitude;
        breaks += off && !inBreak;
        inBreak = off;
    }
    std::printf("%s: %.2f s, level %+.2f dB, %zu breaks\n", what, (end - begin) / rate, rmsDb, breaks);
    if (continuous) { EXPECT_EQ(breaks, 0u); }
}

class AudioEndpoints : public ::testing::Test {
protected:
    void SetUp() override { audiotest::FreshLog(); }
    void TearDown() override { KIV_EnableLog(0); }
    kivtest::LibraryScope library_;
};

TEST_F(AudioEndpoints, TheListIsWhatCoreAudioEnumerates) {
    const std::vector<Endpoint> expected = CoreAudioCaptureEndpoints();
    ASSERT_EQ(KIV_GetAudioInputDeviceCount(), static_cast<int32_t>(expected.size()));
    for (int32_t i = 0; i < static_cast<int32_t>(expected.size()); ++i) {
        KivDeviceInfo info;
        ASSERT_EQ(KIV_GetAudioInputDeviceInfo(i, &info), KIV_OK);
        EXPECT_EQ(info.index, i);
        EXPECT_EQ(info.name, expected[i].name.empty() ? "Unknown Audio Device" : expected[i].name.substr(0, 255));
        EXPECT_EQ(info.path, expected[i].id.substr(0, 511));
    }
    for (const char* part : {"kiv_sink_a", "kiv_sink_b"}) EXPECT_GE(IndexOf(part), 0) << part;
    // The script adds one whose name is cut inside a two-byte character.
    if (HaveTone()) {
        const int32_t longest = IndexOf("kiv_long_");
        ASSERT_GE(longest, 0);
        EXPECT_GT(expected[static_cast<size_t>(longest)].name.size(), 255u);
    }
}

TEST_F(AudioEndpoints, CapturesTheToneWithoutGaps) {
    if (!HaveTone()) GTEST_SKIP() << "needs run_endpoint_tests.sh";
    const int32_t index = IndexOf("kiv_sink_a");
    ASSERT_GE(index, 0);
    const uint32_t mixRate = CoreAudioCaptureEndpoints()[static_cast<size_t>(index)].mixRate;
    void* input = KIV_CreateAudioInput();
    ASSERT_EQ(KIV_SetAudioInputDevice(input, index), KIV_OK);
    ASSERT_EQ(KIV_SetAudioInputPCM(input, 44100, 2, 16), KIV_OK);  // the rate is not applied
    Capture capture;
    ASSERT_EQ(KIV_SetAudioFrameCallback(input, Capture::On, &capture), KIV_OK);
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);

    std::lock_guard<std::mutex> lock(capture.mutex);
    ASSERT_GT(capture.frames.size(), 10u);
    uint64_t cursor = 0;
    for (const KivAudioFrame& f : capture.frames) {
        ASSERT_EQ(std::vector<int64_t>({f.sampleRate, f.channels, f.bitsPerSample, f.timestamp}),
                  std::vector<int64_t>({mixRate, 2, 16, static_cast<int64_t>(cursor * 10000000 / mixRate)}));
        cursor += f.bytes / 4;
    }
    // From the first to the last frame the cursor kept pace with the wall clock: no packet went missing.
    const double audioSeconds = static_cast<double>(cursor - capture.frames.back().bytes / 4) / mixRate;
    const double arrivalSeconds = std::chrono::duration<double>(capture.arrivals.back() - capture.arrivals.front()).count();
    std::printf("%zu frames, %.3f s of audio over %.3f s of arrivals\n", capture.frames.size(), audioSeconds, arrivalSeconds);
    EXPECT_GT(audioSeconds, 8.0);
    EXPECT_NEAR(audioSeconds, arrivalSeconds, 0.2);
    for (size_t channel : {0, 1}) {
        const std::vector<double> x = Channel(capture.samples, channel);
        ExpectTone(x, mixRate / 2, x.size() - mixRate / 10, mixRate, channel ? "right" : "left", true);
    }
}

std::vector<int16_t> ReadPcm(const std::string& path) {
    const std::vector<uint8_t> bytes = streamtest::ReadAll(path);
    std::vector<int16_t> s(bytes.size() / 2);
    if (!s.empty()) std::memcpy(s.data(), bytes.data(), s.size() * 2);
    return s;
}

TEST_F(AudioEndpoints, TheLoopPlaysTheToneIntoTheDefaultDevice) {
    const char* recording = std::getenv("KIV_AUDIO_SINK_B_RECORDING");
    if (!HaveTone() || !recording) GTEST_SKIP() << "needs run_endpoint_tests.sh";
    const size_t before = ReadPcm(recording).size();
    void* input = KIV_CreateAudioInput();
    void* mux = KIV_CreateAudioMux();
    void* render = KIV_CreateAudioRender();
    ASSERT_EQ(KIV_SetAudioInputDevice(input, IndexOf("kiv_sink_a")), KIV_OK);
    ASSERT_EQ(KIV_SetAudioRenderDefaultDevice(render), KIV_OK);
    ASSERT_EQ(KIV_Connect(input, mux), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, render), KIV_OK);
    ASSERT_EQ(KIV_Start(render), KIV_OK);
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::seconds(6));
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the endpoint plays out its buffer
    ASSERT_EQ(KIV_Stop(render), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(input, mux), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(mux, render), KIV_OK);
    for (void* p : {input, mux, render}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // parec writes out what it has
    ASSERT_EQ(Lines("Audio render stop").size(), 1u);
    std::printf("%s\n", Lines("Audio render stop")[0].c_str());

    // The recording of kiv_sink_b's monitor (48 kHz stereo) since the loop
    // started; the tone is where the samples are louder than half its amplitude.
    const std::vector<int16_t> all = ReadPcm(recording);
    ASSERT_GT(all.size(), before + 48000 * 3 * 2);
    const std::vector<double> left = Channel(std::vector<int16_t>(all.begin() + before, all.end()), 0);
    size_t first = left.size(), last = 0;
    for (size_t i = 0; i < left.size(); ++i) {
        if (std::fabs(left[i]) > kToneAmplitude / 2) first = std::min(first, i), last = i;
    }
    ASSERT_LT(first, last);
    std::printf("tone in sink B: %.2f s from %.2f s\n", (last - first) / 48000.0, first / 48000.0);
    EXPECT_GT(last - first, 48000u * 3);  // of the 6 s loop; opening the endpoints takes a while under Wine
    ExpectTone(left, first + 24000, last - 24000, 48000, "kiv_sink_b monitor", false);
}

TEST_F(AudioEndpoints, TheRecorderGoesOnWithoutAnAacEncoder) {
    const int32_t index = IndexOf("kiv_sink_a");
    ASSERT_GE(index, 0);
    const std::string file = kivtest::TempDir("audio_recorder") + "/with_audio.mp4";
    void* input = KIV_CreateAudioInput();
    void* source = KIV_CreateVideoFrameSource();
    void* recorder = KIV_CreateRecorder(nullptr);
    ASSERT_EQ(KIV_SetAudioInputDevice(input, index), KIV_OK);
    KivRecorderConfig config{};
    const std::basic_string<KivWChar> wide = streamtest::WidePath(file);
    std::memcpy(config.filePath, wide.c_str(), (wide.size() + 1) * sizeof(KivWChar));
    config.width = 320, config.height = 240, config.recordFps = 25, config.audio = 1;
    ASSERT_EQ(KIV_SetRecorderConfig(recorder, &config), KIV_OK);
    ASSERT_EQ(KIV_Connect(input, recorder), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(input), KIV_OK);
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
    EXPECT_EQ(KIV_Disconnect(input, recorder), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(source, recorder), KIV_OK);
    for (void* p : {input, source, recorder}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);

    const std::vector<std::string> ready = Lines("Audio capture ready mix=");
    ASSERT_EQ(ready.size(), 1u);
    const std::string rate = ready[0].substr(24, ready[0].find(" Hz") - 24);
    EXPECT_EQ(Lines("Raw H264 custom MP4 AAC encoder init failed"),
              std::vector<std::string>{"Raw H264 custom MP4 AAC encoder init failed sr=" + rate + " ch=2"});
    const streamtest::Bytes mp4 = streamtest::ReadAll(file);
    streamtest::Box box;
    EXPECT_TRUE(streamtest::FindBox(mp4, "moov/trak", &box, 0));
    EXPECT_FALSE(streamtest::FindBox(mp4, "moov/trak", &box, 1));  // video only
}

size_t ThreadCount() {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    size_t n = 0;
    for (BOOL ok = Thread32First(snapshot, &entry); ok; ok = Thread32Next(snapshot, &entry))
        n += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(snapshot);
    return n;
}

// The value a new handle gets: the lowest free slot of the handle table, so
// it climbs only while handles pile up (Wine's handle count reads 0).
uintptr_t NextHandleSlot() {
    HANDLE probe = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    CloseHandle(probe);
    return reinterpret_cast<uintptr_t>(probe);
}

TEST_F(AudioEndpoints, TwoHundredStartsAndStopsLeakNothing) {
    KIV_EnableLog(0);  // 200 runs of lines would only slow it down
    const int32_t index = IndexOf("kiv_sink_a");
    ASSERT_GE(index, 0);
    void* input = KIV_CreateAudioInput();
    ASSERT_EQ(KIV_SetAudioInputDevice(input, index), KIV_OK);
    size_t threads = 0;
    uintptr_t handles = 0;
    for (int i = -1; i < 200; ++i) {
        ASSERT_EQ(KIV_Start(input), KIV_OK);
        // The first, a warm-up, loads the audio driver and its threads; some others reach the capture loop.
        if (i % 10 == 0 || i < 0) std::this_thread::sleep_for(std::chrono::milliseconds(i < 0 ? 200 : 30));
        ASSERT_EQ(KIV_Stop(input), KIV_OK);
        if (i >= 0) continue;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        threads = ThreadCount();
        handles = NextHandleSlot();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::printf("threads %zu -> %zu, next handle 0x%zx -> 0x%zx\n", threads, ThreadCount(), static_cast<size_t>(handles),
                static_cast<size_t>(NextHandleSlot()));
    EXPECT_LE(ThreadCount(), threads + 1);
    EXPECT_LE(NextHandleSlot(), handles + 10 * 4);  // a few may be the audio driver's own, never one per run
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);
}

}  // namespace
