#include "kiv_audio_input.h"

#include <cstdlib>
#include <utility>

#include "../core/kiv_log.h"

namespace {

using kiv::AudioCaptureEndpoint;
using kiv::AudioMixFormat;
using kiv::CaptureOpenStep;

constexpr uint32_t kWaitMs = 100;
constexpr uint64_t kStatsIntervalMs = 5000;

unsigned long long ULL(uint64_t v) { return static_cast<unsigned long long>(v); }

}  // namespace

KivAudioInput::KivAudioInput() : KivAudioInput(kiv::MakeSystemCaptureEndpoint) {}

KivAudioInput::KivAudioInput(kiv::CaptureEndpointFactory factory)
    : KivPortBase(KIV_PORT_AUDIO_INPUT), factory_(std::move(factory)) {}

KivAudioInput::~KivAudioInput() { Stop(); }

int32_t KivAudioInput::SetDevice(int32_t index) {
    if (index < 0) return KIV_ERROR_INVALID_ARG;
    deviceIndex_.store(index);
    KIV_LOG("Set audio input device index=%d", index);
    return KIV_OK;
}

int32_t KivAudioInput::SetPcm(int32_t rate, int32_t channels, int32_t bits) {
    if (rate < 1 || channels < 1 || bits != 16) return KIV_ERROR_INVALID_ARG;
    requestedRate_.store(rate);
    requestedChannels_.store(channels);
    requestedBits_.store(bits);
    KIV_LOG("Set audio PCM %d Hz %d ch %d bits", rate, channels, bits);
    return KIV_OK;
}

int32_t KivAudioInput::Start() {
    if (running_.exchange(1) == 1) return KIV_OK;
    if (thread_.joinable()) thread_.join();
    thread_ = std::thread([this] { CaptureMain(); });
    KIV_LOG("Audio input start device=%d request=%d Hz %d ch %d bits", deviceIndex_.load(), requestedRate_.load(),
            requestedChannels_.load(), requestedBits_.load());
    return KIV_OK;
}

int32_t KivAudioInput::Stop() {
    if (running_.exchange(0) == 0) return KIV_OK;
    if (std::this_thread::get_id() == thread_.get_id()) {
        // The capture thread cannot wait for itself: a callback must not stop its own input.
        KIV_LOG("Audio input stop called from its own capture thread");
        std::abort();
    }
    if (thread_.joinable()) thread_.join();
    KIV_LOG("Audio input stop device=%d", deviceIndex_.load());
    return KIV_OK;
}

void KivAudioInput::CaptureMain() {
    std::unique_ptr<AudioCaptureEndpoint> endpoint = factory_();
    KIV_LOG("Audio input thread enter CoInitializeEx hr=0x%08X", endpoint->EnterThread());
    const int32_t deviceIndex = deviceIndex_.load();
    const int32_t channels = requestedChannels_.load();
    AudioMixFormat mix;
    Counters counters;
    if (OpenClient(*endpoint, deviceIndex, channels, &mix)) {
        CaptureLoop(*endpoint, mix, channels, &counters);
        KIV_LOG("Audio capture client stopped hr=0x%08X", endpoint->StopClient());
        KIV_LOG("Audio input thread exit packets=%llu frames=%llu bytes=%llu silentPackets=%llu errors=%llu",
                ULL(counters.packets), ULL(counters.frames), ULL(counters.bytes), ULL(counters.silentPackets),
                ULL(counters.errors));
    }
    endpoint->Close();
    endpoint->LeaveThread();
}

bool KivAudioInput::OpenClient(AudioCaptureEndpoint& endpoint, int32_t deviceIndex, int32_t channels,
                               AudioMixFormat* mix) {
    const kiv::CaptureOpenReport open = endpoint.Open(deviceIndex);
    switch (open.failedStep) {
        case CaptureOpenStep::kCreateEnumerator:
            KIV_LOG("Audio input CoCreateInstance(MMDeviceEnumerator) failed hr=0x%08X", open.hr);
            break;
        case CaptureOpenStep::kEnumEndpoints: KIV_LOG("Audio input EnumAudioEndpoints failed hr=0x%08X", open.hr); break;
        case CaptureOpenStep::kGetCount: KIV_LOG("Audio input GetCount failed hr=0x%08X", open.hr); break;
        default: KIV_LOG("Audio input active endpoint count=%u selectedIndex=%d", open.count, deviceIndex); break;
    }
    if (open.failedStep == CaptureOpenStep::kIndexInvalid) {
        KIV_LOG("Audio input device index invalid index=%d count=%u", deviceIndex, open.count);
    } else if (open.failedStep == CaptureOpenStep::kItem) {
        KIV_LOG("Audio input collection Item failed index=%d hr=0x%08X", deviceIndex, open.hr);
    }
    if (open.failedStep != CaptureOpenStep::kNone) {
        KIV_LOG("Audio OpenDevice failed index=%d", deviceIndex);
        return false;
    }
    uint32_t hr = endpoint.Activate();
    if (hr != 0) {
        KIV_LOG("Audio Activate IAudioClient failed hr=0x%08X", hr);
        return false;
    }
    if ((hr = endpoint.GetMixFormat(mix)) != 0) {
        KIV_LOG("Audio GetMixFormat failed hr=0x%08X", hr);
        return false;
    }
    if ((hr = endpoint.MakeEvent()) != 0) {
        KIV_LOG("Audio CreateEvent failed winerr=%lu", static_cast<unsigned long>(hr));
        return false;
    }
    if ((hr = endpoint.Initialize()) != 0) {
        KIV_LOG("Audio Initialize failed hr=0x%08X", hr);
        return false;
    }
    if ((hr = endpoint.SetEventHandle()) != 0) KIV_LOG("Audio SetEventHandle failed hr=0x%08X", hr);
    if ((hr = endpoint.GetCaptureService()) != 0) {
        KIV_LOG("Audio GetService IAudioCaptureClient failed hr=0x%08X", hr);
        return false;
    }
    KIV_LOG("Audio capture ready mix=%u Hz ch=%u bits=%u block=%u tag=0x%X -> SDK PCM=%u Hz ch=%d bits=16",
            mix->sampleRate, mix->channels, mix->bitsPerSample, mix->blockAlign, mix->formatTag, mix->sampleRate,
            channels);
    if ((hr = endpoint.StartClient()) != 0) {
        KIV_LOG("Audio capture client Start failed hr=0x%08X", hr);
    } else {
        KIV_LOG("Audio capture client started");
    }
    return true;
}

void KivAudioInput::CaptureLoop(AudioCaptureEndpoint& endpoint, const AudioMixFormat& mix, int32_t channels,
                                Counters* counters) {
    uint64_t lastReport = endpoint.TickMs();
    int32_t reportPeak = 0;
    while (running_.load()) {
        uint32_t error = 0;
        const kiv::WaitResult waited = endpoint.Wait(kWaitMs, &error);
        if (waited == kiv::WaitResult::kFailed) {
            KIV_LOG("Audio capture WaitForSingleObject failed winerr=%lu", static_cast<unsigned long>(error));
            ++counters->errors;
            break;
        }
        if (waited == kiv::WaitResult::kSignalled) Drain(endpoint, mix, channels, counters, &reportPeak);
        const uint64_t now = endpoint.TickMs();
        if (now - lastReport >= kStatsIntervalMs) {
            KIV_LOG("Audio capture stats packets=%llu frames=%llu bytes=%llu silentPackets=%llu errors=%llu peak=%d "
                    "sampleCursor=%lld",
                    ULL(counters->packets), ULL(counters->frames), ULL(counters->bytes), ULL(counters->silentPackets),
                    ULL(counters->errors), reportPeak, static_cast<long long>(sampleCursor_.load()));
            reportPeak = 0;
            lastReport = now;
        }
    }
}

bool KivAudioInput::Drain(AudioCaptureEndpoint& endpoint, const AudioMixFormat& mix, int32_t channels,
                          Counters* counters, int32_t* reportPeak) {
    while (running_.load()) {
        uint32_t size = 0;
        uint32_t hr = endpoint.NextPacketSize(&size);
        if (hr != 0) {
            KIV_LOG("Audio GetNextPacketSize failed hr=0x%08X", hr);
            ++counters->errors;
            return false;
        }
        if (size == 0) return true;
        kiv::CapturePacket packet;
        if ((hr = endpoint.GetBuffer(&packet)) != 0) {
            KIV_LOG("Audio capture GetBuffer failed hr=0x%08X packetFrames=%u", hr, size);
            ++counters->errors;
            return false;
        }
        HandlePacket(packet, mix, channels, counters, reportPeak);
        if ((hr = endpoint.ReleaseBuffer(packet.frames)) != 0) {
            KIV_LOG("Audio capture ReleaseBuffer failed hr=0x%08X frames=%u", hr, packet.frames);
            ++counters->errors;
            return false;
        }
    }
    return true;
}

void KivAudioInput::HandlePacket(const kiv::CapturePacket& packet, const AudioMixFormat& mix, int32_t channels,
                                 Counters* counters, int32_t* reportPeak) {
    const uint64_t cursor = sampleCursor_.load(std::memory_order_relaxed);
    const int64_t timestamp =
        mix.sampleRate > 0 ? static_cast<int64_t>(cursor * 10000000ull / mix.sampleRate) : 0;
    const size_t packetBytes = static_cast<size_t>(packet.frames) * mix.blockAlign;
    const uint8_t* source = packet.data;
    if (packet.silent) {
        if (silence_.size() < packetBytes) silence_.resize(packetBytes, 0);
        source = silence_.data();
        ++counters->silentPackets;
    }
    if (source && kiv::ConvertToPcm16(source, packet.frames, mix, channels, &convertBuffer_, &peak_)) {
        KivAudioFrame frame{};
        frame.data = convertBuffer_.data();
        frame.bytes = static_cast<uint32_t>(convertBuffer_.size());
        frame.sampleRate = static_cast<int32_t>(mix.sampleRate);
        frame.channels = channels;
        frame.bitsPerSample = 16;
        frame.reserved = 0;
        frame.timestamp = timestamp;
        EmitAudio(&frame);
        if (peak_ > *reportPeak) *reportPeak = peak_;
    }
    sampleCursor_.store(cursor + packet.frames, std::memory_order_release);
    ++counters->packets;
    counters->frames += packet.frames;
    counters->bytes += packetBytes;
}
