// Several threads deliver into one processing chain at once, as cameras on
// their own dispatch threads feeding one crop would: every composited frame
// must be wholly one thread's picture, byte for byte what that thread's frame
// gives alone. Also a thread-sanitizer test.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "hardening_util.h"
#include "test_support.h"

namespace {

constexpr int kThreads = 6, kFramesPerThread = 40;

// Thread t's picture: its own size and a gradient of its own.
kivtest::OwnedFrame Picture(int t) {
    kivtest::OwnedFrame f(KIV_PIXEL_FORMAT_RGB32, 40 + 6 * t, 24 + 2 * t);
    for (size_t i = 0; i < f.bytes.size(); ++i) f.bytes[i] = uint8_t(t * 41 + i * 3 + (i / 160) * 5);
    f.frame.timestamp = t;
    return f;
}

struct Tap {
    void *crop, *color;
    std::vector<kivtest::CaughtFrame> expected;  // read-only while threads run
    std::atomic<int> good{0}, bad{0};
    static void KIV_CALL Check(const KivVideoFrame* f, void* user) {
        auto* tap = static_cast<Tap*>(user);
        // Settings calls from inside the delivery deadlock if a port holds
        // its lock while downstream ports and callbacks run.
        KivVideoColorEngineConfig config{};
        KIV_GetVideoColorEngineConfig(tap->color, &config);
        KIV_EnableVideoCrop(tap->crop, 1);
        const size_t t = size_t(f->timestamp);
        const kivtest::CaughtFrame* e = t < tap->expected.size() ? &tap->expected[t] : nullptr;
        const bool same = e && f->width == e->meta.width && f->height == e->meta.height && f->format == e->meta.format &&
                          f->strides[0] == e->meta.strides[0] &&
                          std::memcmp(f->planes[0], e->plane0.data(), e->plane0.size()) == 0;
        (same ? tap->good : tap->bad)++;
    }
};

TEST(ConcurrentDelivery, EveryFrameIsOneThreadsPictureThroughCropColourAndOverlay) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_concurrency");
    hardening::Chain chain(hardening::WriteSwapCube(dir));
    void* recorder = KIV_CreateRecorder((dir + "/out.mp4").c_str());  // copies on the delivering thread too
    ASSERT_EQ(KIV_Connect(chain.crop, recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(recorder), KIV_OK);
    Tap tap{chain.crop, chain.color, {}};
    {
        kivtest::FrameCatcher alone(chain.tap);
        for (int t = 0; t < kThreads; ++t) {
            const kivtest::OwnedFrame picture = Picture(t);
            ASSERT_EQ(KIV_PushVideoFrame(chain.source, &picture.frame), KIV_OK);
        }
        tap.expected = alone.frames;
    }
    ASSERT_EQ(tap.expected.size(), size_t(kThreads));
    EXPECT_NE(tap.expected[0].plane0, tap.expected[1].plane0);  // different after processing too
    EXPECT_EQ(tap.expected[0].meta.format, KIV_PIXEL_FORMAT_YUY2);

    ASSERT_EQ(KIV_SetVideoFrameCallback(chain.tap, Tap::Check, &tap), KIV_OK);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            kivtest::OwnedFrame mine = Picture(t);  // a private copy, as a camera delivers its own buffers
            for (int i = 0; i < kFramesPerThread; ++i) KIV_PushVideoFrame(chain.source, &mine.frame);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(tap.bad.load(), 0);
    EXPECT_EQ(tap.good.load(), kThreads * kFramesPerThread);
    EXPECT_EQ(KIV_Stop(recorder), KIV_OK);
    KIV_Disconnect(chain.crop, recorder);
    EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
}

}  // namespace
