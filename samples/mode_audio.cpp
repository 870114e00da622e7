// Audio mode: lists the microphones, captures a few seconds from one and
// plays it through the audio render port on the default playback device.
//   kivsample audio [seconds] [name-part]   picks the first endpoint whose
//                                           name holds name-part (default: 0)
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

struct Meter {
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> sampleFrames{0};
    std::atomic<int32_t> peak{0};
    std::atomic<int32_t> rate{0};
    std::atomic<int32_t> channels{0};
};

void KIV_CALL OnAudio(const KivAudioFrame* frame, void* user) {
    Meter* m = static_cast<Meter*>(user);
    const int16_t* s = reinterpret_cast<const int16_t*>(frame->data);
    int32_t peak = m->peak.load();
    for (uint32_t i = 0; i < frame->bytes / 2; ++i) {
        const int32_t v = s[i] < 0 ? -s[i] : s[i];
        if (v > peak) peak = v;
    }
    m->peak.store(peak);
    m->frames.fetch_add(1);
    m->sampleFrames.fetch_add(frame->bytes / 2 / static_cast<uint32_t>(frame->channels));
    m->rate.store(frame->sampleRate);
    m->channels.store(frame->channels);
}

}  // namespace

int RunAudioMode(int argc, char** argv) {
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 3;
    const char* wanted = argc > 3 ? argv[3] : nullptr;
    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    const int32_t count = KIV_GetAudioInputDeviceCount();
    std::printf("%d audio capture endpoint(s)\n", count);
    int32_t chosen = count > 0 ? 0 : -1;
    for (int32_t i = 0; i < count; ++i) {
        KivDeviceInfo info;
        if (KIV_GetAudioInputDeviceInfo(i, &info) != KIV_OK) continue;
        std::printf("  [%d] %s\n       %s\n", info.index, info.name, info.path);
        if (wanted && std::strstr(info.name, wanted)) {
            chosen = i;
            wanted = nullptr;  // the first match wins
        }
    }
    if (chosen < 0) {
        std::printf("no microphone to capture from (see kivcapture.log)\n");
        KIV_Shutdown();
        return 0;
    }
    void* input = KIV_CreateAudioInput();
    void* mux = KIV_CreateAudioMux();
    void* render = KIV_CreateAudioRender();
    Meter meter;
    KIV_SetAudioInputDevice(input, chosen);
    KIV_SetAudioInputPCM(input, 48000, 2, 16);
    KIV_SetAudioRenderDefaultDevice(render);
    KIV_SetAudioFrameCallback(input, OnAudio, &meter);
    KIV_Connect(input, mux);
    KIV_Connect(mux, render);
    KIV_Start(render);
    KIV_Start(input);
    std::printf("capturing endpoint %d for %d s and playing it on the default device...\n", chosen, seconds);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    KIV_Stop(input);
    KIV_Stop(render);
    KIV_Disconnect(input, mux);
    KIV_Disconnect(mux, render);
    KIV_DestroyPort(input);
    KIV_DestroyPort(mux);
    KIV_DestroyPort(render);
    KIV_Shutdown();
    std::printf("frames=%llu sampleFrames=%llu rate=%d ch=%d peak=%d (%.1f dBFS)\n",
                static_cast<unsigned long long>(meter.frames.load()),
                static_cast<unsigned long long>(meter.sampleFrames.load()), meter.rate.load(), meter.channels.load(),
                meter.peak.load(), meter.peak.load() > 0 ? 20.0 * std::log10(meter.peak.load() / 32768.0) : -999.0);
    std::printf("playback counts: see \"Audio render stop\" in kivcapture.log\n");
    return meter.frames.load() > 0 ? 0 : 1;
}
