// The audio ports through the exported functions, as an application uses
// them: argument checks, and a start on a device index past the endpoint
// list, which logs and delivers nothing but still succeeds.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "audio_fakes.h"
#include "test_support.h"

namespace {

TEST(AudioApi, PortsNeedTheLibrary) {
    EXPECT_EQ(KIV_CreateAudioInput(), nullptr);
    EXPECT_EQ(KIV_CreateAudioRender(), nullptr);
}

TEST(AudioApi, SettersRefuseBadArgumentsAndLogGoodOnes) {
    kivtest::LibraryScope library;
    audiotest::FreshLog();
    void* input = KIV_CreateAudioInput();
    void* render = KIV_CreateAudioRender();
    void* mux = KIV_CreateAudioMux();
    ASSERT_NE(input, nullptr);
    ASSERT_NE(render, nullptr);
    EXPECT_EQ(KIV_SetAudioInputDevice(input, -1), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetAudioInputDevice(render, 0), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetAudioInputDevice(nullptr, 0), KIV_ERROR_INVALID_ARG);
    const struct {
        void* port;
        int32_t rate, channels, bits;
    } badPcm[] = {{input, 0, 2, 16}, {input, 48000, 0, 16}, {input, 48000, 2, 24}, {mux, 48000, 2, 16}, {nullptr, 48000, 2, 16}};
    for (const auto& c : badPcm) {
        EXPECT_EQ(KIV_SetAudioInputPCM(c.port, c.rate, c.channels, c.bits), KIV_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(KIV_SetAudioRenderDefaultDevice(input), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetAudioRenderDefaultDevice(nullptr), KIV_ERROR_INVALID_ARG);

    EXPECT_EQ(KIV_SetAudioInputDevice(input, 2), KIV_OK);
    EXPECT_EQ(KIV_SetAudioInputPCM(input, 44100, 1, 16), KIV_OK);
    EXPECT_EQ(KIV_SetAudioRenderDefaultDevice(render), KIV_OK);
    const std::vector<std::string> expected = {"Set audio input device index=2", "Set audio PCM 44100 Hz 1 ch 16 bits",
                                               "Audio render use default playback device"};
    EXPECT_EQ(audiotest::LogTexts(), expected);
    KIV_EnableLog(0);
    for (void* p : {input, render, mux}) EXPECT_EQ(KIV_DestroyPort(p), KIV_OK);
}

void KIV_CALL CountFrame(const KivAudioFrame*, void* user) { ++*static_cast<std::atomic<int>*>(user); }

TEST(AudioApi, AnIndexPastTheEndpointsStartsButDeliversNothing) {
    kivtest::LibraryScope library;
    audiotest::FreshLog();
    void* input = KIV_CreateAudioInput();
    const int32_t count = KIV_GetAudioInputDeviceCount();
    ASSERT_EQ(KIV_SetAudioInputDevice(input, count), KIV_OK);
    std::atomic<int> frames{0};
    ASSERT_EQ(KIV_SetAudioFrameCallback(input, CountFrame, &frames), KIV_OK);
    ASSERT_EQ(KIV_Start(input), KIV_OK);
    const std::string invalid =
        "Audio input device index invalid index=" + std::to_string(count) + " count=" + std::to_string(count);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (audiotest::LogLinesStartingWith("Audio OpenDevice failed").empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(KIV_Stop(input), KIV_OK);
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio input device index invalid"), std::vector<std::string>{invalid});
    EXPECT_EQ(audiotest::LogLinesStartingWith("Audio OpenDevice failed"),
              std::vector<std::string>{"Audio OpenDevice failed index=" + std::to_string(count)});
    EXPECT_EQ(frames.load(), 0);
    KIV_EnableLog(0);
    EXPECT_EQ(KIV_DestroyPort(input), KIV_OK);
}

}  // namespace
