// AudioSpecificConfig of the AAC-LC track.
#pragma once
#include <cstdint>

namespace kiv {

// Sampling frequency index of the MPEG-4 audio table; rates not in the table
// map to the 48000 entry (3) rather than an escape code.
int32_t AacSampleRateIndex(int32_t sampleRate);

// The two config bytes, most significant first: object type 2 (AAC LC),
// frequency index, channel configuration, three zero bits. The channel count
// is not masked, so a count above 15 spills into the index bits.
void AacAudioSpecificConfig(int32_t sampleRate, int32_t channels, uint8_t out[2]);

}  // namespace kiv
