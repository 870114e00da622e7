// Builds without Media Foundation have no AAC encoder: Initialize reports
// that none was found, and recordings go on without audio.
#include "aac_config.h"
#include "aac_encoder.h"

namespace kiv {

struct AacEncoder::Platform {};

AacEncoder::AacEncoder() = default;

AacEncoder::~AacEncoder() { Release(); }

bool AacEncoder::Initialize(int32_t sampleRate, int32_t channels) {
    Release();
    report_ = AacInitReport();
    if (sampleRate < 1 || channels < 1) {
        report_.stage = AacInitStage::kBadFormat;
        return false;
    }
    sampleRate_ = sampleRate;
    channels_ = channels;
    AacAudioSpecificConfig(sampleRate, channels, asc_);
    report_.stage = AacInitStage::kEnumFailed;
    report_.hr = 0;
    report_.count = 0;
    return false;
}

uint32_t AacEncoder::Encode(const uint8_t*, size_t, int64_t, AacSink*) { return 0x8000FFFFu; }  // E_UNEXPECTED

uint32_t AacEncoder::Drain(AacSink*) { return ready_ ? 0 : 0x8000FFFFu; }

void AacEncoder::Release() { ready_ = false; }

}  // namespace kiv
