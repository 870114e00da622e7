// Several threads deliver into one processing chain at once, as cameras on
// their own dispatch threads feeding one crop would: every composited frame
// must be wholly one thread's picture, byte for byte what that thread's frame
// gives when it runs alone.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "hardening_util.h"
#include "test_support.h"

namespace {

constexpr int kThreads = 6;
constexpr int kFramesPerThread = 40;

// Thread t's picture: its own size and a gradient of its own.
kivtest::OwnedFrame Picture(int t) {
    kivtest::OwnedFrame f(KIV_PIXEL_FORMAT_RGB32, 40 + 6 * t, 24 + 2 * t);
    for (size_t i = 0; i < f.bytes.size(); ++i) f.bytes[i] = static_cast<uint8_t>(t * 41 + i * 3 + (i / 160) * 5);
    f.frame.timestamp = t;
    return f;
}

struct Expected {
    KivVideoFrame meta{};
    std::vector<uint8_t> bytes;
};

struct Tap {
    void* crop = nullptr;
    void* color = nullptr;
    std::vector<Expected> expected;  // read-only while threads run
    std::atomic<int> good{0}, bad{0};

    static void KIV_CALL Record(const KivVideoFrame* f, void* user) {
        auto* tap = static_cast<Tap*>(user);
        Expected e;
        e.meta = *f;
        e.bytes.assign(f->planes[0], f->planes[0] + static_cast<size_t>(f->strides[0]) * static_cast<size_t>(f->height));
        tap->expected.push_back(std::move(e));
    }
    static void KIV_CALL Check(const KivVideoFrame* f, void* user) {
        auto* tap = static_cast<Tap*>(user);
        // Settings calls from inside the delivery would deadlock if a port
        // held its lock while downstream ports and callbacks run.
        KivVideoColorEngineConfig config{};
        KIV_GetVideoColorEngineConfig(tap->color, &config);
        KIV_EnableVideoCrop(tap->crop, 1);
        const size_t t = static_cast<size_t>(f->timestamp);
        const Expected* e = t < tap->expected.size() ? &tap->expected[t] : nullptr;
        const bool same = e && f->width == e->meta.width && f->height == e->meta.height &&
                          f->format == e->meta.format && f->strides[0] == e->meta.strides[0] &&
                          std::memcmp(f->planes[0], e->bytes.data(), e->bytes.size()) == 0;
        (same ? tap->good : tap->bad).fetch_add(1);
    }
};

TEST(ConcurrentDelivery, EveryFrameIsOneThreadsPictureThroughCropColourAndOverlay) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_concurrency");
    {
        hardening::Chain chain(hardening::WriteSwapCube(dir));
        // The recorder copies frames on the delivering thread too.
        void* recorder = KIV_CreateRecorder((dir + "/out.mp4").c_str());
        ASSERT_EQ(KIV_Connect(chain.crop, recorder), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder), KIV_OK);

        Tap tap;
        tap.crop = chain.crop;
        tap.color = chain.color;
        std::vector<kivtest::OwnedFrame> pictures;
        for (int t = 0; t < kThreads; ++t) pictures.push_back(Picture(t));
        ASSERT_EQ(KIV_SetVideoFrameCallback(chain.tap, Tap::Record, &tap), KIV_OK);
        for (const auto& p : pictures) ASSERT_EQ(KIV_PushVideoFrame(chain.source, &p.frame), KIV_OK);
        ASSERT_EQ(tap.expected.size(), static_cast<size_t>(kThreads));
        // The pictures differ after processing too, so a mixed frame cannot pass.
        EXPECT_NE(tap.expected[0].bytes, tap.expected[1].bytes);
        EXPECT_EQ(tap.expected[0].meta.format, KIV_PIXEL_FORMAT_YUY2);

        ASSERT_EQ(KIV_SetVideoFrameCallback(chain.tap, Tap::Check, &tap), KIV_OK);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                // Each thread pushes a private copy, as a camera delivers its own buffers.
                kivtest::OwnedFrame mine = Picture(t);
                for (int i = 0; i < kFramesPerThread; ++i) KIV_PushVideoFrame(chain.source, &mine.frame);
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(tap.bad.load(), 0);
        EXPECT_EQ(tap.good.load(), kThreads * kFramesPerThread);

        EXPECT_EQ(KIV_Stop(recorder), KIV_OK);
        KIV_Disconnect(chain.crop, recorder);
        EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
