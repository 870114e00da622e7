// Tables loaded and cleared while frames flow on another thread: every frame
// is graded wholly by one table (or none), and nothing races.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "processing_test_helpers.h"
#include "processing/kiv_video_color.h"

namespace {

std::string ConstantCube(float value) {
    return proctest::CubeText(2, [value](float, float, float, float* o) { o[0] = o[1] = o[2] = value; });
}

struct Tally {
    std::atomic<int> delivered{0};
    std::atomic<int> frames{0};
    std::atomic<int> mixed{0};
    std::atomic<int> unexpected{0};
};

void KIV_CALL Check(const KivVideoFrame* f, void* user) {
    Tally* tally = static_cast<Tally*>(user);
    tally->delivered++;
    const uint8_t first = f->planes[0][0];
    if (first != 51 && first != 204 && first != 90) tally->unexpected++;
    for (int y = 0; y < f->height; ++y) {
        const uint8_t* row = f->planes[0] + static_cast<ptrdiff_t>(f->strides[0]) * y;
        for (int x = 0; x < f->width * 4; x += 4) {
            if (row[x] != first || row[x + 1] != first || row[x + 2] != first) {
                tally->mixed++;
                return;
            }
        }
    }
    tally->frames++;
}

TEST(ColorEngineConcurrency, TablesSwapWhileFramesFlow) {
    const std::string dir = kivtest::TempDir("color_swap");
    kivtest::WriteFile(dir + "/a.cube", ConstantCube(0.2f));   // 51
    kivtest::WriteFile(dir + "/b.cube", ConstantCube(0.8f));   // 204
    const auto pathA = kivtest::Wide(dir + "/a.cube");
    const auto pathB = kivtest::Wide(dir + "/b.cube");

    // The engine is made directly instead of through KIV_Init and
    // KIV_CreateVideoColorEngine: nothing here needs the platform start-up,
    // and under Wine a process that started Media Foundation and ran these
    // threads now and then crashed inside Wine while exiting.
    void* engine = static_cast<KivPortBase*>(new KivVideoColorEngine());
    ASSERT_NE(engine, nullptr);
    Tally tally;
    ASSERT_EQ(KIV_SetVideoFrameCallback(engine, &Check, &tally), KIV_OK);
    const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_RGB32, 0, 0, 1.0f};
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(engine, &config), KIV_OK);
    ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(engine, pathA.c_str()), KIV_OK);

    std::atomic<bool> stop{false};
    std::thread frames([&] {
        kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48, 90);  // grey 90 when no table applies
        while (!stop.load()) {
            static_cast<KivPortBase*>(engine)->OnVideoFrame(&in.frame);
        }
    });
    for (int i = 0; i < 60; ++i) {
        ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(engine, (i % 2 ? pathA : pathB).c_str()), KIV_OK);
        if (i % 10 == 9) {
            ASSERT_EQ(KIV_ClearVideoColorEngineLut(engine), KIV_OK);
        }
        KivVideoColorEngineConfig changed = config;
        changed.strength = i % 3 ? 1.0f : 0.999f;  // weight stays 256
        ASSERT_EQ(KIV_SetVideoColorEngineConfig(engine, &changed), KIV_OK);
        std::this_thread::yield();
    }
    // Let some frames through after the last swap.
    const int seen = tally.delivered.load();
    while (tally.delivered.load() < seen + 3) std::this_thread::yield();
    stop = true;
    frames.join();
    EXPECT_EQ(tally.mixed.load(), 0);
    EXPECT_EQ(tally.unexpected.load(), 0);
    EXPECT_GT(tally.frames.load(), 0);
    KIV_DestroyPort(engine);
}

}  // namespace
