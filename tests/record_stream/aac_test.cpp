// AudioSpecificConfig rules and the encoder's behaviour where no AAC
// transform exists (native builds, Wine).
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "aac_config.h"
#include "aac_encoder.h"
#include "test_support.h"

namespace {

std::vector<uint8_t> Asc(int32_t rate, int32_t channels) {
    uint8_t b[2];
    kiv::AacAudioSpecificConfig(rate, channels, b);
    return {b[0], b[1]};
}

// The fields read back the way a decoder does: object type, rate index, channels, padding.
std::vector<int> DecodeAsc(const std::vector<uint8_t>& b) {
    const int v = (b[0] << 8) | b[1];
    return {v >> 11, (v >> 7) & 0xF, (v >> 3) & 0xF, v & 7};
}

struct Collector : kiv::AacSink {
    int units = 0;
    void OnAccessUnit(const uint8_t*, size_t, int64_t, int64_t) override { ++units; }
};

TEST(AacConfig, RatesChannelsAndBufferSizes) {
    EXPECT_EQ(Asc(48000, 2), (std::vector<uint8_t>{0x11, 0x90}));
    EXPECT_EQ(Asc(44100, 2), (std::vector<uint8_t>{0x12, 0x10}));
    EXPECT_EQ(Asc(22050, 1), (std::vector<uint8_t>{0x13, 0x88}));
    const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
    for (int i = 0; i < 13; ++i)
        for (int channels = 1; channels <= 8; ++channels)
            EXPECT_EQ(DecodeAsc(Asc(rates[i], channels)), (std::vector<int>{2, i, channels, 0})) << rates[i];
    // Unlisted rates use the 48000 entry; channels are not masked: the fifth
    // channel bit of 17 lands in the frequency index.
    EXPECT_EQ(kiv::AacSampleRateIndex(50000), 3);
    EXPECT_EQ(kiv::AacSampleRateIndex(0), 3);
    EXPECT_EQ(DecodeAsc(Asc(44100, 17)), (std::vector<int>{2, 4 | 1, 1, 0}));
    // Output buffers are never smaller than 16K.
    EXPECT_EQ(kiv::AacEncoder::OutputBufferSize(0), 16384u);
    EXPECT_EQ(kiv::AacEncoder::OutputBufferSize(4096), 16384u);
    EXPECT_EQ(kiv::AacEncoder::OutputBufferSize(65536), 65536u);
}

// Bad formats are refused before any search. Where the platform has an AAC
// encoder it must produce access units; where it has none (native builds,
// Wine) the search fails cleanly and leaves an encoder that refuses work.
TEST(AacEncoderTest, EncodesOrReportsThatNoEncoderExists) {
    kivtest::LibraryScope library;
    kiv::AacEncoder encoder;
    for (const auto& bad : {std::make_pair(0, 2), std::make_pair(48000, 0)}) {
        EXPECT_FALSE(encoder.Initialize(bad.first, bad.second));
        EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kBadFormat);
        EXPECT_FALSE(encoder.Ready());
    }
    const bool ready = encoder.Initialize(48000, 2);
    EXPECT_EQ(std::vector<int>({encoder.SampleRate(), encoder.Channels(), encoder.BitRate()}),
              std::vector<int>({48000, 2, 128000}));
    EXPECT_EQ(std::vector<uint8_t>(encoder.AudioSpecificConfig(), encoder.AudioSpecificConfig() + 2), Asc(48000, 2));
    std::vector<uint8_t> pcm(4800 * 4, 0x11);  // 100 ms
    Collector sink;
    if (!ready) {
        std::printf("no AAC encoder transform on this system: hr=0x%08X\n", encoder.InitReport().hr);
        EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kEnumFailed);
        EXPECT_EQ(encoder.InitReport().count, 0u);
        EXPECT_NE(encoder.Encode(pcm.data(), pcm.size(), 0, &sink), 0u);
        EXPECT_NE(encoder.Drain(&sink), 0u);
        EXPECT_EQ(sink.units, 0);
        encoder.Release();
        encoder.Release();
        return;
    }
    EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kReady);
    EXPECT_GE(encoder.InitReport().outputBufferSize, 16384u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(encoder.Encode(pcm.data(), pcm.size(), int64_t(i) * 1000000, &sink), 0u);
    EXPECT_EQ(encoder.Drain(&sink), 0u);
    EXPECT_GE(sink.units, 40);  // one second is about 47 frames of 1024 samples
    EXPECT_LE(sink.units, 50);
    encoder.Release();
    EXPECT_FALSE(encoder.Ready());
}

}  // namespace
