// The audio ports against real Core Audio endpoints (PulseAudio null sinks
// under Wine). run_endpoint_tests.sh plays a 1 kHz tone at a quarter of full
// scale into kiv_sink_a, makes kiv_sink_b the default playback device and
// records its monitor; the tests that need the tone or that recording skip
// when the script did not provide them.
#include <gtest/gtest.h>

#include <windows.h>
#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "audio_fakes.h"
#include "core/kiv_core_audio_win.h"
#include "signal_analysis.h"
#include "stream_test_util.h"
#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kToneHz = 1000.0;
constexpr double kToneAmplitude = 0.25 * 32768.0;

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
        KivAudioFrame meta = *f;
        meta.data = nullptr;
        c->frames.push_back(meta);
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
    if (FAILED(CoCreateInstance(kClsidDeviceEnumerator, nullptr, CLSCTX_ALL, kIidDeviceEnumerator,
                                reinterpret_cast<void**>(&enumerator))))
        return out;
    IMMDeviceCollection* all = nullptr;
    UINT count = 0;
    if (SUCCEEDED(enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, &all)) && SUCCEEDED(all->GetCount(&count))) {
        for (UINT i = 0; i < count; ++i) {
            IMMDevice* device = nullptr;
            if (FAILED(all->Item(i, &device))) break;
            Endpoint e;
            LPWSTR id = nullptr;
            if (SUCCEEDED(device->GetId(&id))) {
                e.id = Utf8(id);
                CoTaskMemFree(id);
            }
            IPropertyStore* store = nullptr;
            if (SUCCEEDED(device->OpenPropertyStore(STGM_READ, &store))) {
                PROPVARIANT v;
                PropVariantInit(&v);
                if (SUCCEEDED(store->GetValue(kKeyFriendlyName, &v)) && v.vt == VT_LPWSTR) e.name = Utf8(v.pwszVal);
                PropVariantClear(&v);
                store->Release();
            }
            IAudioClient* client = nullptr;
            if (SUCCEEDED(device->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(&client)))) {
                WAVEFORMATEX* mix = nullptr;
                if (SUCCEEDED(client->GetMixFormat(&mix))) {
                    e.mixRate = mix->nSamplesPerSec;
                    CoTaskMemFree(mix);
                }
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
    for (int32_t i = 0; i < KIV_GetAudioInputDeviceCount(); ++i) {
        if (KIV_GetAudioInputDeviceInfo(i, &info) == KIV_OK && std::strstr(info.name, part.c_str())) return i;
    }
    return -1;
}

// Level, frequency and continuity of the tone in one channel.
// `continuous`: the tone must not break anywhere (a capture that loses no
// sample); playback may break where the endpoint ran dry between packets.
void ExpectTone(const std::vector<double>& x, size_t begin, size_t end, double rate, const char* what, bool continuous) {
    SCOPED_TRACE(what);
    ASSERT_GT(end, begin + static_cast<size_t>(rate));
    EXPECT_EQ(audiotest::DominantFrequency(x, begin, end, rate, 100, 5000, 25), kToneHz);
    const double rmsDb = 20 * std::log10(audiotest::Rms(x, begin, end) / (kToneAmplitude / std::sqrt(2.0)));
    EXPECT_NEAR(rmsDb, 0.0, continuous ? 0.5 : 1.0);
    const size_t breaks = audiotest::SineBreaks(x, begin, end, kToneHz, rate, kToneAmplitude, 0.05);
    std::printf("%s: %.2f s, level %+.2f dB, %zu breaks\n", what, (end - begin) / rate, rmsDb, breaks);
    if (continuous) {
        EXPECT_EQ(breaks, 0u);
    }
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
    for (size_t i = 0; i < expected.size(); ++i) {
        KivDeviceInfo info;
        ASSERT_EQ(KIV_GetAudioInputDeviceInfo(static_cast<int32_t>(i), &info), KIV_OK);
        EXPECT_EQ(info.index, static_cast<int32_t>(i));
        EXPECT_EQ(info.name, expected[i].name.empty() ? "Unknown Audio Device" : expected[i].name.substr(0, 255));
        EXPECT_EQ(info.path, expected[i].id.substr(0, 511));
        std::printf("audio endpoint %zu: %zu-byte name %.40s | %s | mix %u Hz\n", i, expected[i].name.size(), info.name,
                    info.path, expected[i].mixRate);
    }
    // The harness's PulseAudio devices are there; the script adds one whose
    // name is cut (inside a two-byte character).
    for (const char* part : {"kiv_sink_a", "kiv_sink_b"}) EXPECT_GE(IndexOf(part), 0) << part;
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
    const Clock::time_point started = Clock::now();
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    const double wallSeconds = std::chrono::duration<double>(Clock::now() - started).count();
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);

    std::lock_guard<std::mutex> lock(capture.mutex);
    ASSERT_GT(capture.frames.size(), 10u);
    uint64_t cursor = 0;
    for (const KivAudioFrame& f : capture.frames) {
        ASSERT_EQ(f.sampleRate, static_cast<int32_t>(mixRate));
        ASSERT_EQ(f.channels, 2);
        ASSERT_EQ(f.bitsPerSample, 16);
        ASSERT_EQ(f.timestamp, static_cast<int64_t>(cursor * 10000000 / mixRate));
        cursor += f.bytes / 4;
    }
    // Between the first and the last frame the cursor kept pace with the wall
    // clock: no packet went missing.
    const uint64_t lastFrames = capture.frames.back().bytes / 4;
    const double audioSeconds = static_cast<double>(cursor - lastFrames) / mixRate;
    const double arrivalSeconds = std::chrono::duration<double>(capture.arrivals.back() - capture.arrivals.front()).count();
    std::printf("%zu frames, %.3f s of audio over %.3f s of arrivals (%.3f s from start to stop)\n",
                capture.frames.size(), audioSeconds, arrivalSeconds, wallSeconds);
    EXPECT_GT(audioSeconds, 8.0);
    EXPECT_NEAR(audioSeconds, arrivalSeconds, 0.2);
    const double rate = mixRate;
    for (int channel = 0; channel < 2; ++channel) {
        const std::vector<double> x = audiotest::Channel(capture.samples, 2, channel);
        ExpectTone(x, static_cast<size_t>(rate / 2), x.size() - static_cast<size_t>(rate / 10), rate,
                   channel ? "right" : "left", true);
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
    const size_t before = ReadPcm(recording).size() / 2;
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

    const std::vector<std::string> stop = audiotest::LogLinesStartingWith("Audio render stop");
    ASSERT_EQ(stop.size(), 1u);
    std::printf("%s\n", stop[0].c_str());
    // The recording of kiv_sink_b's monitor since the loop started (48 kHz stereo).
    const std::vector<int16_t> all = ReadPcm(recording);
    ASSERT_GT(all.size() / 2, before + 48000 * 3);
    const std::vector<int16_t> tail(all.begin() + static_cast<std::ptrdiff_t>(before * 2), all.end());
    const std::vector<double> left = audiotest::Channel(tail, 2, 0);
    // Where the tone is: the samples louder than half its amplitude, first to last.
    size_t first = left.size(), last = 0;
    for (size_t i = 0; i < left.size(); ++i) {
        if (std::fabs(left[i]) > kToneAmplitude / 2) {
            if (first == left.size()) first = i;
            last = i;
        }
    }
    ASSERT_LT(first, last);
    std::printf("tone in sink B: %.2f s from %.2f s\n", (last - first) / 48000.0, first / 48000.0);
    EXPECT_GT(last - first, 48000u * 3);  // of the 6 s loop; opening the endpoints takes a while under Wine
    // The middle of it, away from the start and the stop.
    ExpectTone(left, first + 24000, last - 24000, 48000, "kiv_sink_b monitor", false);
}

TEST_F(AudioEndpoints, TheRecorderGoesOnWithoutAnAacEncoder) {
    const int32_t index = IndexOf("kiv_sink_a");
    ASSERT_GE(index, 0);
    const std::string dir = kivtest::TempDir("audio_recorder");
    const std::string file = dir + "/with_audio.mp4";
    void* input = KIV_CreateAudioInput();
    void* source = KIV_CreateVideoFrameSource();
    void* recorder = KIV_CreateRecorder(nullptr);
    ASSERT_EQ(KIV_SetAudioInputDevice(input, index), KIV_OK);
    KivRecorderConfig config{};
    const std::basic_string<KivWChar> wide = streamtest::WidePath(file);
    std::memcpy(config.filePath, wide.c_str(), (wide.size() + 1) * sizeof(KivWChar));
    config.width = 320;
    config.height = 240;
    config.recordFps = 25;
    config.audio = 1;
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
        KivVideoFrame f = i == 0 ? kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, kKey, sizeof kKey)
                                 : kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, kSlice, sizeof kSlice);
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

    const std::vector<std::string> ready = audiotest::LogLinesStartingWith("Audio capture ready");
    ASSERT_EQ(ready.size(), 1u);
    const std::string rate = ready[0].substr(ready[0].find("mix=") + 4, ready[0].find(" Hz") - ready[0].find("mix=") - 4);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Raw H264 custom MP4 AAC encoder init failed"),
              std::vector<std::string>{"Raw H264 custom MP4 AAC encoder init failed sr=" + rate + " ch=2"});
    const streamtest::Bytes mp4 = streamtest::ReadAll(file);
    streamtest::Box box;
    EXPECT_TRUE(streamtest::FindBox(mp4, "moov/trak", &box, 0));
    EXPECT_FALSE(streamtest::FindBox(mp4, "moov/trak", &box, 1));  // video only
    std::remove(file.c_str());
    std::filesystem::remove_all(dir);
}

size_t ThreadCount() {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    size_t n = 0;
    for (BOOL ok = Thread32First(snapshot, &entry); ok; ok = Thread32Next(snapshot, &entry)) {
        if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++n;
    }
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
    // One warm-up run loads the audio driver and its helper threads.
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const size_t threads = ThreadCount();
    const uintptr_t handles = NextHandleSlot();
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(KIV_Start(input), KIV_OK);
        if (i % 10 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(30));  // some reach the capture loop
        ASSERT_EQ(KIV_Stop(input), KIV_OK);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::printf("threads %zu -> %zu, next handle 0x%zx -> 0x%zx\n", threads, ThreadCount(), static_cast<size_t>(handles),
                static_cast<size_t>(NextHandleSlot()));
    EXPECT_LE(ThreadCount(), threads + 1);
    EXPECT_LE(NextHandleSlot(), handles + 10 * 4);  // a few may be the audio driver's own, never one per run
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);
}

double ProcessCpuSeconds() {
    FILETIME created, exited, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
    const auto seconds = [](const FILETIME& t) {
        return static_cast<double>((static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 1e7;
    };
    return seconds(kernel) + seconds(user);
}

// Not a check: figures for the notes. KIV_AUDIO_MEASURE=SECONDS runs it,
// through run_endpoint_tests.sh so the tone plays.
TEST_F(AudioEndpoints, MeasureLatencyCpuAndDrift) {
    const char* measure = std::getenv("KIV_AUDIO_MEASURE");
    if (!measure || !HaveTone()) GTEST_SKIP() << "set KIV_AUDIO_MEASURE=seconds and use run_endpoint_tests.sh";
    const int seconds = std::atoi(measure) > 0 ? std::atoi(measure) : 60;
    void* input = KIV_CreateAudioInput();
    ASSERT_EQ(KIV_SetAudioInputDevice(input, IndexOf("kiv_sink_a")), KIV_OK);
    Capture capture;
    ASSERT_EQ(KIV_SetAudioFrameCallback(input, Capture::On, &capture), KIV_OK);
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    std::this_thread::sleep_for(std::chrono::seconds(2));  // past the opening
    const double cpuBefore = ProcessCpuSeconds();
    size_t firstFrame = 0;
    {
        std::lock_guard<std::mutex> lock(capture.mutex);
        firstFrame = capture.frames.size();
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double cpu = ProcessCpuSeconds() - cpuBefore;
    ASSERT_EQ(KIV_Stop(input), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);

    std::lock_guard<std::mutex> lock(capture.mutex);
    ASSERT_GT(capture.frames.size(), firstFrame + 100);
    // Lag: arrival time minus the audio time of the frame's end, both from the
    // first measured frame. Its least value is the earliest a packet arrived;
    // the rest is extra delay. Drift compares that least value in the first
    // and the last ten seconds, which load spikes do not move.
    const double rate = capture.frames[0].sampleRate;
    const KivAudioFrame& first = capture.frames[firstFrame];
    const Clock::time_point t0 = capture.arrivals[firstFrame];
    std::vector<double> lags, wall;
    double packetMs = 0;
    for (size_t i = firstFrame; i < capture.frames.size(); ++i) {
        const KivAudioFrame& f = capture.frames[i];
        const double audio = (f.timestamp - first.timestamp) / 1e7 + (double(f.bytes) - first.bytes) / 4 / rate;
        wall.push_back(std::chrono::duration<double>(capture.arrivals[i] - t0).count());
        lags.push_back(wall.back() - audio);
        packetMs += f.bytes / 4 / rate * 1000;
    }
    const size_t n = lags.size();
    double earlyMin = 1e9, lateMin = 1e9;
    for (size_t i = 0; i < n; ++i) {
        if (wall[i] < 10) earlyMin = std::min(earlyMin, lags[i]);
        if (wall[i] > wall.back() - 10) lateMin = std::min(lateMin, lags[i]);
    }
    const double least = *std::min_element(lags.begin(), lags.end());
    std::vector<double> extra;
    for (double l : lags) extra.push_back((l - least) * 1000);
    std::sort(extra.begin(), extra.end());
    std::printf("measured over %d s: %zu packets of %.2f ms on average (rate %.0f Hz)\n", seconds, n, packetMs / n, rate);
    std::printf("delay beyond the earliest arrival: median %.2f ms, 99th percentile %.2f ms, max %.2f ms\n",
                extra[n / 2], extra[n * 99 / 100], extra.back());
    std::printf("drift of the cursor against the wall clock: %.1f ppm (least lag %.3f ms at the start, %.3f ms at the end, "
                "%.1f s apart)\n",
                (lateMin - earlyMin) / (wall.back() - 10) * 1e6, earlyMin * 1000, lateMin * 1000, wall.back() - 10);
    const double audioSpan = (capture.frames.back().timestamp - first.timestamp) / 1e7;
    std::printf("process CPU: %.4f s over %.1f s of audio = %.2f ms per second of audio\n", cpu, audioSpan,
                cpu / audioSpan * 1000);
}

}  // namespace
