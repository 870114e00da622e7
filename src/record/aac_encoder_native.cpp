// Builds without Media Foundation have no AAC encoder: Initialize reports
// that none was found, and recordings go on without audio.
#include "aac_config.h"
#include "aac_encoder.h"

namespace kiv {

struct AacEncoder::Platform {};

AacEncoder::AacEncoder() = default;

AacEncoder::~AacEncoder() { Release(); }

bool AacEncoder::Initialize(int32_t sampleRate, int32_t channels) {
    if (!BeginInitialize(sampleRate, channels)) return false;
    report_.stage = AacInitStage::kEnumFailed;
    return false;
}

bool AacEncoder::InitializeWithTransform(void*, int32_t sampleRate, int32_t channels) {
    return Initialize(sampleRate, channels);
}

bool AacEncoder::FinishInitialize() { return false; }

uint32_t AacEncoder::Encode(const uint8_t*, size_t, int64_t, AacSink*) { return 0x8000FFFFu; }  // E_UNEXPECTED

uint32_t AacEncoder::Drain(AacSink*) { return ready_ ? 0 : 0x8000FFFFu; }

void AacEncoder::Release() { ready_ = false; }

}  // namespace kiv
