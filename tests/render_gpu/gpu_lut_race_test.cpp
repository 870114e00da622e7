// Requests from two application threads while a render thread applies them
// under its lock, as frames would; meant for the thread sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "render/gpu_lut_state.h"
#include "test_support.h"

TEST(GpuLutRace, RequestsAndApplyingRunTogether) {
    const std::string dir = kivtest::TempDir("gpu_lut_race");
    std::string body = "LUT_3D_SIZE 2\n";
    for (int i = 0; i < 8; ++i) body += "0 0.5 1\n";
    ASSERT_TRUE(kivtest::WriteFile(dir + "/x.cube", body) && kivtest::WriteFile(dir + "/y.cube", body));
    const auto x = kivtest::Wide(dir + "/x.cube"), y = kivtest::Wide(dir + "/y.cube");
    kiv::GpuLutState lut;
    std::recursive_mutex renderLock;
    std::atomic<bool> stop{false};
    std::thread render([&] {
        while (!stop.load()) {
            std::lock_guard<std::recursive_mutex> lock(renderLock);
            lut.ApplyPending();
            if (lut.Usable()) { EXPECT_EQ(lut.ActiveData()->texels.size(), 32u); }
        }
    });
    std::thread loader([&] {
        for (int i = 0; i < 200; ++i) EXPECT_EQ(lut.LoadCubeFile((i % 2 ? x : y).c_str(), renderLock), KIV_OK);
    });
    KivVideoRenderLutConfig config{1, 1, 0, 0, 0, 1.0f};
    for (int i = 0; i < 200; ++i) {
        config.enable = i % 3 != 0;
        EXPECT_EQ(lut.QueueConfig(config), KIV_OK);
        if (i % 7 == 0) lut.QueueClear();
    }
    loader.join();
    stop = true;
    render.join();
}
