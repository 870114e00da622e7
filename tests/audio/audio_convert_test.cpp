// Mix-format packets to 16-bit PCM, bit for bit, and the sample kind of a format tag.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <vector>

#include "audio/kiv_audio_convert.h"

namespace {

using kiv::AudioMixFormat;
const kiv::AudioSampleKind I = kiv::AudioSampleKind::kInteger, F = kiv::AudioSampleKind::kFloat;

template <class T> std::vector<uint8_t> Bytes(const std::vector<T>& v) {
    std::vector<uint8_t> b(v.size() * sizeof(T));
    std::memcpy(b.data(), v.data(), b.size());
    return b;
}

AudioMixFormat Format(kiv::AudioSampleKind kind, uint32_t channels, uint32_t bits, uint32_t tag = 1) {
    return AudioMixFormat{48000, channels, bits, channels * (kind == F ? 4 : bits / 8), tag, kind};
}

TEST(AudioConvert, MixFormatsBecomeInterleaved16Bit) {
    const struct {
        const char* name;
        AudioMixFormat format;
        std::vector<uint8_t> source;
        uint32_t frames;
        int32_t outChannels;
        std::vector<int16_t> expected;  // interleaved
        int32_t peak;
    } cases[] = {
        {"float clamps and truncates toward zero", Format(F, 1, 32, 3), Bytes<float>({1.5f, -1.5f, 0.5f, -0.5f, 1e-5f, -1.0f}),
         6, 1, {32767, -32767, 16383, -16383, 0, -32767}, 32767},
        {"float NaN is silence", Format(F, 1, 32, 3), Bytes<float>({std::numeric_limits<float>::quiet_NaN(), 0.25f}), 2, 1,
         {0, 8191}, 8191},
        {"8-bit is offset and scaled", Format(I, 1, 8), {0, 128, 255, 1}, 4, 1, {-32768, 0, 32512, -32512}, 32768},
        {"16-bit passes unchanged", Format(I, 2, 16), Bytes<int16_t>({-32768, 32767, 1, -1}), 2, 2, {-32768, 32767, 1, -1}, 32768},
        {"32-bit keeps its upper half", Format(I, 1, 32), Bytes<int32_t>({0x7FFFFFFF, INT32_MIN, 0x0001FFFF, -1}), 4, 1,
         {32767, -32768, 1, -1}, 32768},
        {"24-bit packed gives zeros", Format(I, 2, 24), std::vector<uint8_t>(12, 0x7F), 2, 2, {0, 0, 0, 0}, 0},
        {"mono fills every output channel", Format(I, 1, 16), Bytes<int16_t>({100, -200}), 2, 3, {100, 100, 100, -200, -200, -200}, 200},
        {"six channels keep the first two", Format(I, 6, 16), Bytes<int16_t>({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), 2, 2,
         {1, 2, 7, 8}, 8},
        {"extensible float stereo to three takes channel 0 for the third", Format(F, 2, 32, 0xFFFE), Bytes<float>({0.5f, -0.25f}),
         1, 3, {16383, -8191, 16383}, 16383},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> out;
        int32_t peak = -1;
        ASSERT_TRUE(kiv::ConvertToPcm16(c.source.data(), c.frames, c.format, c.outChannels, &out, &peak));
        EXPECT_EQ(out, Bytes(c.expected));
        EXPECT_EQ(peak, c.peak);
    }
    // Unconvertible formats leave the buffer alone.
    const uint8_t data[16] = {};
    const std::pair<AudioMixFormat, int32_t> bad[] = {{Format(I, 0, 16), 2},
                                                      {Format(I, 1, 4), 2},
                                                      {Format(kiv::AudioSampleKind::kUnsupported, 2, 16, 2), 2},
                                                      {Format(I, 2, 16), 0}};
    for (const auto& c : bad) {
        std::vector<uint8_t> out(3, 0xAB);
        int32_t peak = 7;
        EXPECT_FALSE(kiv::ConvertToPcm16(data, 2, c.first, c.second, &out, &peak));
        EXPECT_EQ(out, std::vector<uint8_t>(3, 0xAB));
    }
}

TEST(AudioConvert, SampleKindFollowsTagAndSubFormat) {
    // Sub-format GUIDs as they lie in memory: PCM, IEEE float, something else.
    uint8_t pcm[16] = {0x01, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}, ieee[16], other[16];
    std::memcpy(ieee, pcm, 16);
    std::memcpy(other, pcm, 16);
    ieee[0] = 0x03;
    other[15] = 0x72;
    const kiv::AudioSampleKind U = kiv::AudioSampleKind::kUnsupported;
    const struct {
        uint32_t tag;
        const uint8_t* sub;
        kiv::AudioSampleKind kind;
    } cases[] = {{1, nullptr, I},     {3, nullptr, F},       {0xFFFE, pcm, I}, {0xFFFE, ieee, F},
                 {0xFFFE, other, U}, {0xFFFE, nullptr, U}, {2, nullptr, U}};
    for (const auto& c : cases) EXPECT_EQ(kiv::SampleKindOf(c.tag, c.sub), c.kind) << "tag " << c.tag;
}

}  // namespace
