// Tables loaded and cleared while frames flow on another thread: every frame is graded wholly by one table (or
// none), and nothing races.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "processing/kiv_video_color.h"
#include "processing_test_helpers.h"

namespace {

struct Tally {
    std::atomic<int> delivered{0}, mixed{0};
    static void KIV_CALL Check(const KivVideoFrame* f, void* user) {
        const uint8_t first = f->planes[0][0];  // 51 or 204 from a table, 90 without
        bool same = first == 51 || first == 204 || first == 90;
        for (int y = 0; y < f->height; ++y)
            for (int x = 0; x < f->width * 4; ++x) same = same && (x % 4 == 3 || f->planes[0][ptrdiff_t(f->strides[0]) * y + x] == first);
        static_cast<Tally*>(user)->mixed += !same;
        static_cast<Tally*>(user)->delivered++;
    }
};

TEST(ColorEngineConcurrency, TablesSwapWhileFramesFlow) {
    std::basic_string<KivWChar> paths[2];
    for (int i = 0; i < 2; ++i) {
        const std::string path = kivtest::TempDir(std::string("color_swap_") + char('a' + i)) + "/t.cube";
        kivtest::WriteFile(path, proctest::CubeText(2, [i](float, float, float, float* o) { o[0] = o[1] = o[2] = i ? 0.8f : 0.2f; }));
        paths[i] = kivtest::Wide(path);
    }
    // Made directly, without KIV_Init: under Wine a process that started Media Foundation and ran these threads
    // now and then crashed on exit.
    void* engine = static_cast<KivPortBase*>(new KivVideoColorEngine());
    Tally tally;
    const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_RGB32, 0, 0, 1.0f};
    ASSERT_EQ(std::vector<int>({KIV_SetVideoFrameCallback(engine, &Tally::Check, &tally), KIV_SetVideoColorEngineConfig(engine, &config),
                                KIV_LoadVideoColorEngineCubeFile(engine, paths[0].c_str())}),
              std::vector<int>(3, KIV_OK));
    std::atomic<bool> stop{false};
    std::thread frames([&] {
        for (kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48, 90); !stop;) static_cast<KivPortBase*>(engine)->OnVideoFrame(&in.frame);
    });
    for (int i = 0; i < 60; ++i, std::this_thread::yield()) {
        ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(engine, paths[(i + 1) % 2].c_str()), KIV_OK);
        ASSERT_EQ(i % 10 == 9 ? KIV_ClearVideoColorEngineLut(engine) : KIV_OK, KIV_OK);
        const KivVideoColorEngineConfig changed{0, 1, KIV_PIXEL_FORMAT_RGB32, 0, 0, i % 3 ? 1.0f : 0.999f};  // weight stays 256
        ASSERT_EQ(KIV_SetVideoColorEngineConfig(engine, &changed), KIV_OK);
    }
    for (const int seen = tally.delivered; tally.delivered < seen + 3;) std::this_thread::yield();  // some frames after the last swap
    stop = true;
    frames.join();
    EXPECT_EQ(tally.mixed.load(), 0);
    KIV_DestroyPort(engine);
}

}  // namespace
