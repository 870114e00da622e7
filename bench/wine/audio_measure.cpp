// Capture lag, drift and CPU cost of the audio input on a real Core Audio
// endpoint. Run through tests/audio/run_endpoint_tests.sh, which plays a tone
// into kiv_sink_a:
//   run_endpoint_tests.sh audio_measure.exe [seconds, default 60]
// Lag is the arrival time minus the audio time of a frame's end, both from the
// first measured frame; its least value is the earliest a packet arrived and
// the rest is extra delay. Drift compares that least value in the first and
// the last ten seconds, which load spikes do not move.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "kivcapture.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Capture {
    std::mutex mutex;
    std::vector<KivAudioFrame> frames;  // data cleared
    std::vector<Clock::time_point> arrivals;
    static void KIV_CALL On(const KivAudioFrame* f, void* user) {
        Capture* c = static_cast<Capture*>(user);
        std::lock_guard<std::mutex> lock(c->mutex);
        KivAudioFrame meta = *f;
        meta.data = nullptr;
        c->frames.push_back(meta);
        c->arrivals.push_back(Clock::now());
    }
};

int32_t IndexOf(const char* part) {
    KivDeviceInfo info;
    for (int32_t i = 0; i < KIV_GetAudioInputDeviceCount(); ++i) {
        if (KIV_GetAudioInputDeviceInfo(i, &info) == KIV_OK && std::strstr(info.name, part)) return i;
    }
    return -1;
}

double ProcessCpuSeconds() {
    FILETIME created, exited, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user);
    const auto seconds = [](const FILETIME& t) {
        return static_cast<double>((static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 1e7;
    };
    return seconds(kernel) + seconds(user);
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 && std::atoi(argv[1]) > 0 ? std::atoi(argv[1]) : 60;
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    const int32_t index = IndexOf("kiv_sink_a");
    void* input = KIV_CreateAudioInput();
    Capture capture;
    if (index < 0 || KIV_SetAudioInputDevice(input, index) != KIV_OK ||
        KIV_SetAudioFrameCallback(input, Capture::On, &capture) != KIV_OK || KIV_Start(input) != KIV_OK) {
        std::printf("no capture from kiv_sink_a (device index %d); run through run_endpoint_tests.sh\n", index);
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));  // past the opening
    const double cpuBefore = ProcessCpuSeconds();
    size_t firstFrame = 0;
    {
        std::lock_guard<std::mutex> lock(capture.mutex);
        firstFrame = capture.frames.size();
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double cpu = ProcessCpuSeconds() - cpuBefore;
    KIV_Stop(input);
    KIV_DestroyPort(input);
    KIV_Shutdown();

    std::lock_guard<std::mutex> lock(capture.mutex);
    if (capture.frames.size() < firstFrame + 100) {
        std::printf("only %zu frames arrived\n", capture.frames.size());
        return 1;
    }
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
    const double window = std::min(10.0, wall.back() / 2);
    double earlyMin = 1e9, lateMin = 1e9;
    for (size_t i = 0; i < n; ++i) {
        if (wall[i] < window) earlyMin = std::min(earlyMin, lags[i]);
        if (wall[i] > wall.back() - window) lateMin = std::min(lateMin, lags[i]);
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
                (lateMin - earlyMin) / (wall.back() - window) * 1e6, earlyMin * 1000, lateMin * 1000, wall.back() - window);
    const double audioSpan = (capture.frames.back().timestamp - first.timestamp) / 1e7;
    std::printf("process CPU: %.4f s over %.1f s of audio = %.2f ms per second of audio\n", cpu, audioSpan,
                cpu / audioSpan * 1000);
    return 0;
}
