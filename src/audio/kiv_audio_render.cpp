#include "kiv_audio_render.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "../core/kiv_log.h"
#include "kiv_audio_convert.h"

namespace {

using kiv::RenderOpenStep;

constexpr uint64_t kStatsIntervalMs = 5000;

unsigned long long ULL(uint64_t v) { return static_cast<unsigned long long>(v); }

}  // namespace

KivAudioRender::KivAudioRender() : KivAudioRender(kiv::MakeSystemRenderEndpoint) {}

KivAudioRender::KivAudioRender(kiv::RenderEndpointFactory factory)
    : KivPortBase(KIV_PORT_AUDIO_RENDER), factory_(std::move(factory)) {}

KivAudioRender::~KivAudioRender() { Stop(); }

int32_t KivAudioRender::UseDefaultDevice() {
    std::lock_guard<std::mutex> lock(lock_);
    KIV_LOG("Audio render use default playback device");
    return KIV_OK;
}

KivAudioRender::Counters KivAudioRender::GetCounters() {
    std::lock_guard<std::mutex> lock(lock_);
    return counters_;
}

int32_t KivAudioRender::Start() {
    std::lock_guard<std::mutex> lock(lock_);
    if (running_) return KIV_OK;
    counters_ = Counters();
    // The tick source belongs to the endpoint; a throwaway one reads it while closed.
    lastStatsTick_ = endpoint_ ? endpoint_->TickMs() : factory_()->TickMs();
    configured_ = false;
    running_ = true;
    KIV_LOG("Audio render start");
    return KIV_OK;
}

int32_t KivAudioRender::Stop() {
    std::lock_guard<std::mutex> lock(lock_);
    if (!running_) return KIV_OK;
    running_ = false;
    KIV_LOG("Audio render stop receivedFrames=%llu writtenFrames=%llu droppedFrames=%llu silenceFrames=%llu",
            ULL(counters_.receivedFrames), ULL(counters_.writtenFrames), ULL(counters_.droppedFrames),
            ULL(counters_.silenceFrames));
    CloseLocked();
    return KIV_OK;
}

void KivAudioRender::CloseLocked() {
    if (!endpoint_) return;
    uint32_t hr = 0;
    if (endpoint_->Close(&hr)) KIV_LOG("Audio render client Stop hr=0x%08X", hr);
    endpoint_.reset();
    bufferFrames_ = 0;
}

int32_t KivAudioRender::EnsureFormatLocked(const KivAudioFrame& frame) {
    if (endpoint_ && configured_ && sourceRate_ == frame.sampleRate && sourceChannels_ == frame.channels &&
        sourceBits_ == frame.bitsPerSample) {
        return KIV_OK;
    }
    KIV_LOG("Audio render configure from input=%d Hz ch=%d bits=%d dataSize=%d", frame.sampleRate, frame.channels,
            frame.bitsPerSample, static_cast<int>(frame.bytes));
    CloseLocked();
    sourceRate_ = frame.sampleRate > 0 ? frame.sampleRate : 48000;
    sourceChannels_ = frame.channels > 0 ? frame.channels : 2;
    sourceBits_ = 16;  // whatever the frame says: the endpoint always takes 16-bit PCM
    configured_ = false;
    return OpenLocked();
}

int32_t KivAudioRender::OpenLocked() {
    std::unique_ptr<kiv::AudioRenderEndpoint> endpoint = factory_();
    kiv::RenderOpenReport r = endpoint->OpenDevice();
    switch (r.failedStep) {
        case RenderOpenStep::kNone: break;
        case RenderOpenStep::kCreateEnumerator:
            KIV_LOG("Audio render CoCreateInstance(MMDeviceEnumerator) failed hr=0x%08X", r.hr);
            break;
        case RenderOpenStep::kDefaultEndpoint:
            KIV_LOG("Audio render GetDefaultAudioEndpoint failed hr=0x%08X", r.hr);
            break;
        default: KIV_LOG("Audio render Activate IAudioClient failed hr=0x%08X", r.hr); break;
    }
    if (r.failedStep != RenderOpenStep::kNone) {
        uint32_t ignored = 0;
        endpoint->Close(&ignored);
        return KIV_ERROR_FAILED;
    }
    if (r.mixKnown) {
        KIV_LOG("Audio render endpoint mix=%u Hz ch=%u bits=%u block=%u tag=0x%X", r.mix.sampleRate, r.mix.channels,
                r.mix.bitsPerSample, r.mix.blockAlign, r.mix.formatTag);
    } else {
        KIV_LOG("Audio render GetMixFormat failed hr=0x%08X; continue with shared-mode auto conversion", r.mixHr);
    }
    kiv::RenderSourceFormat s;
    s.formatTag = kiv::kWaveFormatPcm;
    s.channels = static_cast<uint32_t>(sourceChannels_);
    s.sampleRate = static_cast<uint32_t>(sourceRate_);
    s.bitsPerSample = 16;
    s.blockAlign = s.channels * 16 / 8;
    r = endpoint->OpenClient(s);
    if (r.failedStep == RenderOpenStep::kAllocFormat) {
        KIV_LOG("Audio render CoTaskMemAlloc source format failed");
    } else {
        KIV_LOG("Audio render source format=%u Hz ch=%u bits=%u block=%u tag=0x%X", s.sampleRate, s.channels,
                s.bitsPerSample, s.blockAlign, s.formatTag);
    }
    switch (r.failedStep) {
        case RenderOpenStep::kInitialize:
            KIV_LOG("Audio render Initialize auto-convert failed hr=0x%08X source=%u Hz ch=%u bits=%u tag=0x%X "
                    "flags=0x%08X",
                    r.hr, s.sampleRate, s.channels, s.bitsPerSample, s.formatTag, r.initializeFlags);
            break;
        case RenderOpenStep::kGetBufferSize:
            KIV_LOG("Audio render GetBufferSize failed hr=0x%08X frames=%u", r.hr, r.bufferFrames);
            break;
        case RenderOpenStep::kGetService: KIV_LOG("Audio render GetService IAudioRenderClient failed hr=0x%08X", r.hr); break;
        case RenderOpenStep::kStart: KIV_LOG("Audio render client Start failed hr=0x%08X", r.hr); break;
        default: break;
    }
    if (r.failedStep != RenderOpenStep::kNone) {
        uint32_t ignored = 0;
        endpoint->Close(&ignored);
        return KIV_ERROR_FAILED;
    }
    endpoint_ = std::move(endpoint);
    source_ = s;
    bufferFrames_ = r.bufferFrames;
    configured_ = true;
    KIV_LOG("Audio render ready source=%u Hz ch=%u bits=%u block=%u bufferFrames=%u autoConvert=1", s.sampleRate,
            s.channels, s.bitsPerSample, s.blockAlign, bufferFrames_);
    return KIV_OK;
}

int32_t KivAudioRender::OnAudioFrame(const KivAudioFrame* frame) {
    if (!frame || !frame->data || frame->bytes < 1) {
        KIV_LOG("Audio render received invalid audio frame");
        return KIV_ERROR_INVALID_ARG;
    }
    std::lock_guard<std::mutex> lock(lock_);
    if (!running_ || IsClosing()) return KIV_OK;
    const int32_t blockAlign = frame->channels * frame->bitsPerSample / 8;
    if (blockAlign < 1) {
        KIV_LOG("Audio render invalid input block align channels=%d bits=%d", frame->channels, frame->bitsPerSample);
        return KIV_ERROR_FAILED;
    }
    const uint32_t frames = frame->bytes / static_cast<uint32_t>(blockAlign);
    if (frames == 0) return KIV_OK;
    counters_.receivedFrames += frames;
    if (EnsureFormatLocked(*frame) != KIV_OK) {
        counters_.droppedFrames += frames;
        KIV_LOG("Audio render EnsureFormat failed input=%d Hz ch=%d bits=%d frames=%u", frame->sampleRate,
                frame->channels, frame->bitsPerSample, frames);
        return KIV_ERROR_FAILED;
    }
    uint32_t padding = 0;
    const int32_t result = WriteLocked(*frame, frames, static_cast<uint32_t>(blockAlign), &padding);
    if (result != KIV_OK) return result;
    const uint64_t now = endpoint_->TickMs();
    if (now - lastStatsTick_ >= kStatsIntervalMs) {
        const int32_t peak = frame->bitsPerSample == 16 ? kiv::PeakOfPcm16(frame->data, frame->bytes) : 0;
        KIV_LOG("Audio render stats receivedFrames=%llu writtenFrames=%llu droppedFrames=%llu silenceFrames=%llu "
                "peak=%d input=%dHz/%dch/%dbit client=%uHz/%uch/%ubit/tag0x%X buffer=%u padding=%u",
                ULL(counters_.receivedFrames), ULL(counters_.writtenFrames), ULL(counters_.droppedFrames),
                ULL(counters_.silenceFrames), peak, frame->sampleRate, frame->channels, frame->bitsPerSample,
                source_.sampleRate, source_.channels, source_.bitsPerSample, source_.formatTag, bufferFrames_,
                padding);
        lastStatsTick_ = now;
    }
    return KIV_OK;
}

int32_t KivAudioRender::WriteLocked(const KivAudioFrame& frame, uint32_t frames, uint32_t blockAlign,
                                    uint32_t* padding) {
    const uint32_t hr = endpoint_->GetCurrentPadding(padding);
    if (hr != 0) {
        KIV_LOG("Audio render GetCurrentPadding failed hr=0x%08X", hr);
        *padding = 0;
    }
    const uint32_t available = *padding < bufferFrames_ ? bufferFrames_ - *padding : 0;
    if (available == 0) {
        counters_.droppedFrames += frames;  // buffer full: the whole frame goes
        return KIV_OK;
    }
    const uint32_t write = std::min(frames, available);
    counters_.droppedFrames += frames - write;  // the tail is cut, never queued
    uint8_t* target = nullptr;
    const uint32_t bufferHr = endpoint_->GetBuffer(write, &target);
    if (bufferHr != 0 || !target) {
        counters_.droppedFrames += write;
        KIV_LOG("Audio render GetBuffer failed hr=0x%08X writeFrames=%u available=%u padding=%u", bufferHr, write,
                available, *padding);
        return KIV_ERROR_FAILED;
    }
    const bool matches = source_.formatTag == kiv::kWaveFormatPcm && source_.bitsPerSample == 16 &&
                         static_cast<int32_t>(source_.channels) == frame.channels &&
                         static_cast<int32_t>(source_.sampleRate) == frame.sampleRate && source_.blockAlign == blockAlign;
    if (!matches) {
        std::memset(target, 0, static_cast<size_t>(write) * source_.blockAlign);
        const uint32_t releaseHr = endpoint_->ReleaseBuffer(write, true);
        counters_.silenceFrames += write;
        counters_.droppedFrames += write;
        KIV_LOG("Audio render internal source mismatch input=%dHz/%dch/%dbit/block%d client=%uHz/%uch/%ubit/block%u "
                "hr=0x%08X",
                frame.sampleRate, frame.channels, frame.bitsPerSample, static_cast<int>(blockAlign), source_.sampleRate,
                source_.channels, source_.bitsPerSample, source_.blockAlign, releaseHr);
        return KIV_ERROR_FAILED;
    }
    std::memcpy(target, frame.data, static_cast<size_t>(write) * blockAlign);
    const uint32_t releaseHr = endpoint_->ReleaseBuffer(write, false);
    if (releaseHr != 0) {
        KIV_LOG("Audio render ReleaseBuffer failed hr=0x%08X writeFrames=%u", releaseHr, write);
    } else {
        counters_.writtenFrames += write;
    }
    return KIV_OK;
}
