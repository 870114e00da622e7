#include "aac_config.h"

namespace kiv {

int32_t AacSampleRateIndex(int32_t sampleRate) {
    static const int32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};
    for (int32_t i = 0; i < int32_t(sizeof(kRates) / sizeof(kRates[0])); ++i) {
        if (kRates[i] == sampleRate) return i;
    }
    return 3;
}

void AacAudioSpecificConfig(int32_t sampleRate, int32_t channels, uint8_t out[2]) {
    const uint32_t index = uint32_t(AacSampleRateIndex(sampleRate));
    // 5 bits object type 2 (AAC LC), 4 bits frequency index, 4 bits channels,
    // 3 zero bits; channels deliberately unmasked.
    const uint32_t value = ((0x200u | (index << 4) | uint32_t(channels)) << 3) & 0xFFFFu;
    out[0] = uint8_t(value >> 8);
    out[1] = uint8_t(value);
}

}  // namespace kiv
