// Several threads pushing frames while others rewire the graph and swap
// callbacks. Run under the thread sanitizer too: it must find no race, and
// every frame must reach the ports that stay connected.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "port_test_helpers.h"
#include "test_support.h"

using porttest::CountingSink;

namespace {

constexpr int kPushers = 3;
constexpr int kFramesPerPusher = 3000;
constexpr int kTransientSinks = 20;  // crosses the width of the stack snapshot

std::atomic<int> g_firstCallback{0};
std::atomic<int> g_secondCallback{0};
void KIV_CALL FirstCallback(const KivVideoFrame*, void*) { g_firstCallback.fetch_add(1, std::memory_order_relaxed); }
void KIV_CALL SecondCallback(const KivVideoFrame*, void*) { g_secondCallback.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

TEST(GraphStress, PushingWhileRewiringLosesNothingThatStaysConnected) {
    kivtest::LibraryScope library;
    void* sources[2] = {KIV_CreateVideoFrameSource(), KIV_CreateVideoFrameSource()};
    void* muxA = KIV_CreateVideoMux();
    porttest::ForwardingPort filter;  // stands in for a crop: a mux may not feed a mux
    CountingSink steady;
    std::vector<std::unique_ptr<CountingSink>> transient;
    for (int i = 0; i < kTransientSinks; ++i) transient.push_back(std::make_unique<CountingSink>());

    for (void* source : sources) ASSERT_EQ(KIV_Connect(source, muxA), KIV_OK);
    ASSERT_EQ(KIV_Connect(muxA, &filter), KIV_OK);
    ASSERT_EQ(KIV_Connect(&filter, &steady), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(muxA, FirstCallback, nullptr), KIV_OK);

    std::atomic<int> pushersDone{0};
    std::atomic<bool> rewiring{false};
    std::vector<std::thread> threads;
    for (int p = 0; p < kPushers; ++p) {
        threads.emplace_back([&, p] {
            kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 4, 2);
            while (!rewiring.load()) std::this_thread::yield();
            for (int i = 0; i < kFramesPerPusher; ++i) {
                frame.frame.frameIndex = uint64_t(i);
                EXPECT_EQ(KIV_PushVideoFrame(sources[p % 2], &frame.frame), KIV_OK);
            }
            pushersDone.fetch_add(1);
        });
    }
    // Rewiring: transient sinks come and go on the mux and the filter, so
    // their lists keep crossing the snapshot width while frames flow.
    threads.emplace_back([&] {
        int round = 0;
        rewiring.store(true);
        while (pushersDone.load() < kPushers) {
            void* port = (round & 1) ? muxA : static_cast<void*>(&filter);
            for (auto& sink : transient) EXPECT_EQ(KIV_Connect(port, sink.get()), KIV_OK);
            for (auto& sink : transient) EXPECT_EQ(KIV_Disconnect(port, sink.get()), KIV_OK);
            ++round;
        }
    });
    // Callback swapping on a port that is delivering.
    threads.emplace_back([&] {
        int round = 0;
        while (pushersDone.load() < kPushers) {
            KIV_SetVideoFrameCallback(muxA, (round++ & 1) ? FirstCallback : SecondCallback, nullptr);
            std::this_thread::yield();
        }
    });
    for (auto& t : threads) t.join();

    const int total = kPushers * kFramesPerPusher;
    EXPECT_EQ(steady.video.load(), total);
    EXPECT_EQ(g_firstCallback.load() + g_secondCallback.load(), total);  // exactly one callback per frame
    for (auto& sink : transient) EXPECT_LE(sink->video.load(), 2 * total);

    for (void* source : sources) EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(muxA), KIV_OK);
}

TEST(GraphStress, AudioMuxDeliversWhileSinksComeAndGo) {
    kivtest::LibraryScope library;
    void* mux = KIV_CreateAudioMux();
    CountingSink steady(KIV_PORT_AUDIO_RENDER), coming(KIV_PORT_AUDIO_RENDER);
    ASSERT_EQ(KIV_Connect(mux, &steady), KIV_OK);
    constexpr int kPackets = 20000;
    std::atomic<bool> started{false}, done{false};
    std::thread rewire([&] {
        while (!done.load()) {
            started.store(true);
            EXPECT_EQ(KIV_Connect(mux, &coming), KIV_OK);
            EXPECT_EQ(KIV_Disconnect(mux, &coming), KIV_OK);
        }
    });
    std::thread producer([&] {
        int16_t samples[8] = {};
        KivAudioFrame packet{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
        while (!started.load()) std::this_thread::yield();
        for (int i = 0; i < kPackets; ++i) static_cast<KivPortBase*>(mux)->OnAudioFrame(&packet);
        done.store(true);
    });
    producer.join();
    rewire.join();
    EXPECT_EQ(steady.audio.load(), kPackets);
    EXPECT_LE(coming.audio.load(), kPackets);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);
}
