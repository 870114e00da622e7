#include "kiv_audio_convert.h"

#include <cmath>
#include <cstring>

namespace kiv {

namespace {

// {00000001-0000-0010-8000-00AA00389B71} and {00000003-...}: the PCM and IEEE
// float sub-formats, as their bytes lie in memory.
const uint8_t kSubFormatTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                    0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

bool IsSubFormat(const uint8_t* guid, uint8_t first) {
    return guid[0] == first && guid[1] == 0 && std::memcmp(guid + 2, kSubFormatTail, sizeof(kSubFormatTail)) == 0;
}

int32_t Clamp16(int32_t v) { return v > 32767 ? 32767 : (v < -32768 ? -32768 : v); }

int32_t FloatSample(const uint8_t* p) {
    float f;
    std::memcpy(&f, p, sizeof f);
    if (std::isnan(f)) return 0;
    if (f > 1.0f) f = 1.0f;
    if (f < -1.0f) f = -1.0f;
    return static_cast<int32_t>(static_cast<double>(f) * 32767.0);  // truncates toward zero
}

int32_t IntegerSample(const uint8_t* p, uint32_t size) {
    switch (size) {
        case 1: return (static_cast<int32_t>(p[0]) - 128) * 256;
        case 2: return static_cast<int16_t>(static_cast<uint16_t>(p[0] | (p[1] << 8)));
        case 4: return static_cast<int16_t>(static_cast<uint16_t>(p[2] | (p[3] << 8)));
        default: return 0;  // 24-bit packed and other widths are not read
    }
}

}  // namespace

AudioSampleKind SampleKindOf(uint32_t formatTag, const uint8_t* subFormat) {
    if (formatTag == kWaveFormatPcm) return AudioSampleKind::kInteger;
    if (formatTag == kWaveFormatFloat) return AudioSampleKind::kFloat;
    if (formatTag == kWaveFormatExtensible && subFormat) {
        if (IsSubFormat(subFormat, 1)) return AudioSampleKind::kInteger;
        if (IsSubFormat(subFormat, 3)) return AudioSampleKind::kFloat;
    }
    return AudioSampleKind::kUnsupported;
}

bool ConvertToPcm16(const uint8_t* src, uint32_t frames, const AudioMixFormat& format, int32_t outChannels,
                    std::vector<uint8_t>* out, int32_t* peak) {
    const bool isFloat = format.kind == AudioSampleKind::kFloat;
    const uint32_t sampleSize = isFloat ? 4 : format.bitsPerSample / 8;
    if (format.kind == AudioSampleKind::kUnsupported || format.channels == 0 || sampleSize == 0 || outChannels < 1) {
        return false;
    }
    const size_t frameStride = format.blockAlign ? format.blockAlign : static_cast<size_t>(format.channels) * sampleSize;
    const size_t outCount = static_cast<size_t>(frames) * static_cast<size_t>(outChannels);
    out->resize(outCount * 2);  // never gives back capacity
    uint8_t* dst = out->data();
    int32_t largest = 0;
    for (uint32_t f = 0; f < frames; ++f) {
        const uint8_t* frame = src + f * frameStride;
        for (int32_t c = 0; c < outChannels; ++c) {
            const uint32_t sourceChannel = static_cast<uint32_t>(c) < format.channels ? static_cast<uint32_t>(c) : 0;
            const uint8_t* sample = frame + sourceChannel * sampleSize;
            const int32_t v = Clamp16(isFloat ? FloatSample(sample) : IntegerSample(sample, sampleSize));
            const int32_t magnitude = v < 0 ? -v : v;
            if (magnitude > largest) largest = magnitude;
            *dst++ = static_cast<uint8_t>(v & 0xFF);
            *dst++ = static_cast<uint8_t>((v >> 8) & 0xFF);
        }
    }
    *peak = largest;
    return true;
}

int32_t PeakOfPcm16(const uint8_t* data, uint32_t bytes) {
    int32_t largest = 0;
    for (uint32_t i = 0; i + 1 < bytes; i += 2) {
        const int32_t v = static_cast<int16_t>(static_cast<uint16_t>(data[i] | (data[i + 1] << 8)));
        const int32_t magnitude = v < 0 ? -v : v;
        if (magnitude > largest) largest = magnitude;
    }
    return largest;
}

}  // namespace kiv
