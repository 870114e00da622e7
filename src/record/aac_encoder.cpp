// The parts of the AAC encoder that do not depend on the platform.
#include "aac_config.h"
#include "aac_encoder.h"

namespace kiv {

// Shared first steps of both builds: tear down, check and store the format,
// compute the AudioSpecificConfig.
bool AacEncoder::BeginInitialize(int32_t sampleRate, int32_t channels) {
    Release();
    report_ = AacInitReport();
    if (sampleRate < 1 || channels < 1) {
        report_.stage = AacInitStage::kBadFormat;
        return false;
    }
    sampleRate_ = sampleRate;
    channels_ = channels;
    AacAudioSpecificConfig(sampleRate, channels, asc_);
    return true;
}

uint32_t AacEncoder::OutputBufferSize(uint32_t reported) {
    return reported < kMinOutputBuffer ? kMinOutputBuffer : reported;
}

}  // namespace kiv
