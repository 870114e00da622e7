// Mix-format packets to 16-bit PCM, bit for bit: every sample type, the
// channel mapping and the clamping edges, in one table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "audio/kiv_audio_convert.h"

using kiv::AudioMixFormat;
using kiv::AudioSampleKind;

namespace {

std::vector<uint8_t> FloatBytes(const std::vector<float>& v) {
    std::vector<uint8_t> b(v.size() * 4);
    std::memcpy(b.data(), v.data(), b.size());
    return b;
}

std::vector<uint8_t> Int16Bytes(const std::vector<int>& v) {
    std::vector<uint8_t> b;
    for (int s : v) {
        b.push_back(static_cast<uint8_t>(s & 0xFF));
        b.push_back(static_cast<uint8_t>((s >> 8) & 0xFF));
    }
    return b;
}

std::vector<uint8_t> Int32Bytes(const std::vector<int64_t>& v) {
    std::vector<uint8_t> b;
    for (int64_t s : v)
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>((s >> (8 * i)) & 0xFF));
    return b;
}

AudioMixFormat Format(AudioSampleKind kind, uint32_t channels, uint32_t bits, uint32_t tag = 1) {
    AudioMixFormat f;
    f.sampleRate = 48000;
    f.channels = channels;
    f.bitsPerSample = bits;
    f.blockAlign = channels * (kind == AudioSampleKind::kFloat ? 4 : bits / 8);
    f.formatTag = tag;
    f.kind = kind;
    return f;
}

struct Case {
    const char* name;
    AudioMixFormat format;
    std::vector<uint8_t> source;
    uint32_t frames;
    int32_t outChannels;
    std::vector<int> expected;  // output samples, interleaved
    int32_t peak;
};

TEST(AudioConvert, MixFormatsBecomeInterleaved16Bit) {
    const AudioSampleKind I = AudioSampleKind::kInteger, F = AudioSampleKind::kFloat;
    const Case cases[] = {
        {"float clamps and truncates toward zero", Format(F, 1, 32, 3),
         FloatBytes({1.5f, -1.5f, 0.5f, -0.5f, 1e-5f, -1.0f}), 6, 1, {32767, -32767, 16383, -16383, 0, -32767}, 32767},
        {"float NaN is silence", Format(F, 1, 32, 3), FloatBytes({std::numeric_limits<float>::quiet_NaN(), 0.25f}), 2, 1, {0, 8191}, 8191},
        {"8-bit is offset and scaled", Format(I, 1, 8), {0, 128, 255, 1}, 4, 1, {-32768, 0, 32512, -32512}, 32768},
        {"16-bit passes unchanged", Format(I, 2, 16), Int16Bytes({-32768, 32767, 1, -1}), 2, 2, {-32768, 32767, 1, -1},
         32768},
        {"32-bit keeps its upper half", Format(I, 1, 32), Int32Bytes({0x7FFFFFFF, -0x80000000LL, 0x0001FFFF, -1}), 4, 1,
         {32767, -32768, 1, -1}, 32768},
        {"24-bit packed gives zeros", Format(I, 2, 24), std::vector<uint8_t>(12, 0x7F), 2, 2, {0, 0, 0, 0}, 0},
        {"mono fills every output channel", Format(I, 1, 16), Int16Bytes({100, -200}), 2, 3, {100, 100, 100, -200, -200, -200},
         200},
        {"six channels keep the first two", Format(I, 6, 16), Int16Bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), 2, 2,
         {1, 2, 7, 8}, 8},
        {"stereo to three takes channel 0 for the third", Format(F, 2, 32, 3), FloatBytes({0.5f, -0.25f}), 1, 3,
         {16383, -8191, 16383}, 16383},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> out;
        int32_t peak = -1;
        ASSERT_TRUE(kiv::ConvertToPcm16(c.source.data(), c.frames, c.format, c.outChannels, &out, &peak));
        EXPECT_EQ(out, Int16Bytes(c.expected));
        EXPECT_EQ(peak, c.peak);
    }
}

TEST(AudioConvert, UnconvertibleFormatsLeaveTheBufferAlone) {
    const uint8_t data[16] = {};
    AudioMixFormat zeroChannels = Format(AudioSampleKind::kInteger, 0, 16);
    AudioMixFormat narrow = Format(AudioSampleKind::kInteger, 1, 4);
    AudioMixFormat unknown = Format(AudioSampleKind::kUnsupported, 2, 16, 2);
    const struct {
        AudioMixFormat format;
        int32_t outChannels;
    } cases[] = {{zeroChannels, 2}, {narrow, 2}, {unknown, 2}, {Format(AudioSampleKind::kInteger, 2, 16), 0}};
    for (const auto& c : cases) {
        std::vector<uint8_t> out(3, 0xAB);
        int32_t peak = 7;
        EXPECT_FALSE(kiv::ConvertToPcm16(data, 2, c.format, c.outChannels, &out, &peak));
        EXPECT_EQ(out, std::vector<uint8_t>(3, 0xAB));
    }
}

TEST(AudioConvert, SampleKindFollowsTagAndSubFormat) {
    // Sub-format GUIDs as they lie in memory.
    uint8_t pcm[16] = {0x01, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    uint8_t ieee[16];
    std::memcpy(ieee, pcm, 16);
    ieee[0] = 0x03;
    uint8_t other[16];
    std::memcpy(other, pcm, 16);
    other[15] = 0x72;
    const struct {
        uint32_t tag;
        const uint8_t* sub;
        AudioSampleKind kind;
    } cases[] = {
        {1, nullptr, AudioSampleKind::kInteger},     {3, nullptr, AudioSampleKind::kFloat},
        {0xFFFE, pcm, AudioSampleKind::kInteger},    {0xFFFE, ieee, AudioSampleKind::kFloat},
        {0xFFFE, other, AudioSampleKind::kUnsupported}, {0xFFFE, nullptr, AudioSampleKind::kUnsupported},
        {2, nullptr, AudioSampleKind::kUnsupported},
    };
    for (const auto& c : cases) EXPECT_EQ(kiv::SampleKindOf(c.tag, c.sub), c.kind) << "tag " << c.tag;
}

}  // namespace
