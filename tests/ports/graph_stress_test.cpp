// Threads pushing frames while others rewire the graph and swap callbacks (also under the thread sanitizer).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace {

struct Counter : KivPortBase {  // forwards video, as a crop would (a mux may not feed a mux)
    explicit Counter(int32_t type = KIV_PORT_VIDEO_RENDER) : KivPortBase(type) {}
    int32_t OnVideoFrame(const KivVideoFrame* f) override { return video++, EmitVideo(f), 0; }
    int32_t OnAudioFrame(const KivAudioFrame*) override { return audio++, 0; }
    std::atomic<int> video{0}, audio{0};
};
std::atomic<int> g_calls[2];
void KIV_CALL First(const KivVideoFrame*, void*) { g_calls[0]++; }
void KIV_CALL Second(const KivVideoFrame*, void*) { g_calls[1]++; }

TEST(GraphStress, PushingWhileRewiringLosesNothingThatStaysConnected) {
    constexpr int kPushers = 3, kFrames = 3000, kTransient = 20;  // 20 crosses the stack snapshot's width
    kivtest::LibraryScope library;
    void *sources[2] = {KIV_CreateVideoFrameSource(), KIV_CreateVideoFrameSource()}, *mux = KIV_CreateVideoMux(), *audioMux = KIV_CreateAudioMux();
    Counter audio(KIV_PORT_AUDIO_RENDER), audioTransient(KIV_PORT_AUDIO_RENDER), steady, transient[kTransient], filter(KIV_PORT_VIDEO_CROP);
    for (auto link : {std::make_pair(sources[0], mux), {sources[1], mux}, {mux, &filter}, {&filter, &steady}, {audioMux, &audio}})
        ASSERT_EQ(KIV_Connect(link.first, link.second), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, First, nullptr), KIV_OK);
    std::atomic<int> done{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int p = 0; p <= kPushers; ++p)  // the last one sends audio packets through a mux whose sinks come and go
        threads.emplace_back([&, p] {
            kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 4, 2);
            int16_t samples[8] = {};
            KivAudioFrame packet{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
            while (!go) std::this_thread::yield();
            for (int i = 0; i < kFrames; ++i)
                EXPECT_EQ(p < kPushers ? KIV_PushVideoFrame(sources[p % 2], &frame.frame)
                                       : static_cast<KivPortBase*>(audioMux)->OnAudioFrame(&packet), KIV_OK);
            done++;
        });
    threads.emplace_back([&] {  // transient sinks come and go on the mux and the filter
        go = true;
        for (int round = 0; done < kPushers + 1; ++round) {
            void* port = (round & 1) ? mux : static_cast<void*>(&filter);
            for (auto& sink : transient) EXPECT_EQ(KIV_Connect(port, &sink), KIV_OK);
            for (auto& sink : transient) EXPECT_EQ(KIV_Disconnect(port, &sink), KIV_OK);
            EXPECT_EQ(KIV_Connect(audioMux, &audioTransient), KIV_OK);
            EXPECT_EQ(KIV_Disconnect(audioMux, &audioTransient), KIV_OK);
        }
    });
    threads.emplace_back([&] {  // callbacks swapped on a delivering port
        for (int round = 0; done < kPushers + 1; ++round, std::this_thread::yield())
            KIV_SetVideoFrameCallback(mux, (round & 1) ? First : Second, nullptr);
    });
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::make_pair(steady.video.load(), audio.audio.load()), std::make_pair(kPushers * kFrames, kFrames));
    EXPECT_EQ(g_calls[0] + g_calls[1], kPushers * kFrames);  // exactly one callback per frame
    EXPECT_LE(audioTransient.audio.load(), kFrames);
    for (auto& sink : transient) EXPECT_LE(sink.video.load(), 2 * kPushers * kFrames);
    for (void* port : {sources[0], sources[1], mux, audioMux}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
}

}  // namespace
