// AudioSpecificConfig rules and the encoder's behaviour where no AAC
// transform exists (native builds, Wine).
#include <gtest/gtest.h>

#include <cmath>
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

// Reads the fields back the way a decoder does.
void DecodeAsc(const std::vector<uint8_t>& b, int* objectType, int* index, int* channels) {
    const int v = (b[0] << 8) | b[1];
    *objectType = v >> 11;
    *index = (v >> 7) & 0xF;
    *channels = (v >> 3) & 0xF;
}

struct Collector : kiv::AacSink {
    std::vector<std::vector<uint8_t>> units;
    std::vector<int64_t> times;
    void OnAccessUnit(const uint8_t* data, size_t size, int64_t time, int64_t) override {
        units.emplace_back(data, data + size);
        times.push_back(time);
    }
};

}  // namespace

TEST(AacConfig, KnownRatesAndChannelLayouts) {
    EXPECT_EQ(Asc(48000, 2), (std::vector<uint8_t>{0x11, 0x90}));
    EXPECT_EQ(Asc(44100, 2), (std::vector<uint8_t>{0x12, 0x10}));
    EXPECT_EQ(Asc(22050, 1), (std::vector<uint8_t>{0x13, 0x88}));

    const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
    for (int i = 0; i < 13; ++i) {
        for (int channels = 1; channels <= 8; ++channels) {
            int objectType, index, decodedChannels;
            DecodeAsc(Asc(rates[i], channels), &objectType, &index, &decodedChannels);
            EXPECT_EQ(objectType, 2);
            EXPECT_EQ(index, i) << rates[i];
            EXPECT_EQ(decodedChannels, channels);
            EXPECT_EQ(Asc(rates[i], channels)[1] & 7, 0);
        }
    }
}

TEST(AacConfig, UnlistedRatesUseThe48000EntryAndChannelsAreNotMasked) {
    EXPECT_EQ(kiv::AacSampleRateIndex(50000), 3);
    EXPECT_EQ(kiv::AacSampleRateIndex(0), 3);
    EXPECT_EQ(Asc(50000, 2), Asc(48000, 2));
    // 17 channels: the fifth channel bit lands in the frequency index.
    int objectType, index, channels;
    DecodeAsc(Asc(44100, 17), &objectType, &index, &channels);
    EXPECT_EQ(index, 4 | 1);
    EXPECT_EQ(channels, 1);
}

TEST(AacConfig, OutputBuffersAreNeverSmallerThan16K) {
    EXPECT_EQ(kiv::AacEncoder::OutputBufferSize(0), 16384u);
    EXPECT_EQ(kiv::AacEncoder::OutputBufferSize(4096), 16384u);
    EXPECT_EQ(kiv::AacEncoder::OutputBufferSize(65536), 65536u);
}

TEST(AacEncoderTest, RefusesBadFormatsBeforeLookingForATransform) {
    kivtest::LibraryScope library;
    kiv::AacEncoder encoder;
    EXPECT_FALSE(encoder.Initialize(0, 2));
    EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kBadFormat);
    EXPECT_FALSE(encoder.Initialize(48000, 0));
    EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kBadFormat);
    EXPECT_FALSE(encoder.Ready());
}

// Where the platform has an AAC encoder, it must produce access units; where
// it has none (native builds, Wine) the search must fail cleanly and leave an
// encoder that refuses work.
TEST(AacEncoderTest, EncodesOrReportsThatNoEncoderExists) {
    kivtest::LibraryScope library;
    kiv::AacEncoder encoder;
    const bool ready = encoder.Initialize(48000, 2);
    EXPECT_EQ(encoder.SampleRate(), 48000);
    EXPECT_EQ(encoder.Channels(), 2);
    EXPECT_EQ(encoder.BitRate(), 128000);
    EXPECT_EQ(encoder.AudioSpecificConfig()[0], 0x11);
    EXPECT_EQ(encoder.AudioSpecificConfig()[1], 0x90);

    std::vector<uint8_t> pcm(4800 * 4);  // 100 ms of a 1 kHz tone
    for (size_t i = 0; i < 4800; ++i) {
        const int16_t s = int16_t(8000 * std::sin(2 * 3.14159265 * 1000 * double(i) / 48000));
        for (int c = 0; c < 2; ++c) {
            pcm[i * 4 + size_t(c) * 2] = uint8_t(s);
            pcm[i * 4 + size_t(c) * 2 + 1] = uint8_t(uint16_t(s) >> 8);
        }
    }
    Collector sink;
    if (!ready) {
        std::printf("no AAC encoder transform on this system: hr=0x%08X\n", encoder.InitReport().hr);
        EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kEnumFailed);
        EXPECT_EQ(encoder.InitReport().count, 0u);
        EXPECT_NE(encoder.Encode(pcm.data(), pcm.size(), 0, &sink), 0u);
        EXPECT_NE(encoder.Drain(&sink), 0u);
        EXPECT_TRUE(sink.units.empty());
        encoder.Release();
        encoder.Release();
        return;
    }
    EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kReady);
    EXPECT_GE(encoder.InitReport().outputBufferSize, 16384u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(encoder.Encode(pcm.data(), pcm.size(), int64_t(i) * 1000000, &sink), 0u);
    }
    EXPECT_EQ(encoder.Drain(&sink), 0u);
    // One second of audio is about 47 frames of 1024 samples.
    EXPECT_GE(sink.units.size(), 40u);
    EXPECT_LE(sink.units.size(), 50u);
    encoder.Release();
    EXPECT_FALSE(encoder.Ready());
}
