// Scripted stand-ins for the audio endpoints, and log helpers, shared by the
// audio port tests.
#pragma once
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "audio/kiv_audio_endpoint.h"

namespace audiotest {

// Restarts the library log so a test sees only its own lines.
void FreshLog();
// Message texts of the log, in order.
std::vector<std::string> LogTexts();
// Texts that start with `prefix`.
std::vector<std::string> LogLinesStartingWith(const std::string& prefix);

// What a scripted capture endpoint does; the capture thread reads it under
// `mutex`, the test fills it before Start.
struct CaptureScript {
    struct Packet {
        std::vector<uint8_t> bytes;  // empty: a null data pointer
        uint32_t frames;
        bool silent;
    };
    std::mutex mutex;
    kiv::CaptureOpenReport open;  // count defaults to 1
    std::string failAt;           // name of the call that fails with failHr
    uint32_t failHr = 0x88890004;
    kiv::AudioMixFormat mix;
    std::deque<std::vector<Packet>> bursts;  // one per signalled wait
    uint64_t tick = 0;
    uint64_t tickStep = 0;  // added at every TickMs call
    std::atomic<int> closes{0};
    std::atomic<int> waits{0};
    // Bounded wait until every burst was handled.
    bool WaitDrained();
};

kiv::CaptureEndpointFactory ScriptedCapture(std::shared_ptr<CaptureScript> script);

// What a stand-in render endpoint reports and what was written into it.
struct RenderScript {
    kiv::RenderOpenStep failStep = kiv::RenderOpenStep::kNone;
    uint32_t failHr = 0x88890008;
    bool mixFails = false;
    uint32_t bufferFrames = 4800;
    uint32_t padding = 0;
    uint32_t paddingHr = 0;
    uint32_t getBufferHr = 0;
    uint32_t releaseHr = 0;
    std::vector<kiv::RenderSourceFormat> opens;  // successful ones
    std::vector<uint8_t> written;                // bytes released, in order
    uint32_t silentFrames = 0;                   // frames released flagged silent
    int closes = 0;
    uint64_t tick = 0;
};

kiv::RenderEndpointFactory StandInRender(std::shared_ptr<RenderScript> script);

}  // namespace audiotest
