// The GPU LUT state: cube reading, reuse of a loaded path, and the order in
// which queued requests are applied by the render side.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <future>
#include <thread>

#include "render/gpu_lut_state.h"
#include "test_support.h"

namespace {

std::string Entries(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "0.25 0.5 1\n";
    return text;
}

class GpuLutTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override { KIV_EnableLog(0); }
    std::basic_string<KivWChar> Cube(const std::string& name, const std::string& body) {
        kivtest::WriteFile(dir + "/" + name, body);
        return kivtest::Wide(dir + "/" + name);
    }
    int32_t Load(const std::basic_string<KivWChar>& path) { return lut.LoadCubeFile(path.c_str(), renderLock); }
    // Loads while another thread holds the render lock.
    int32_t LoadWhileRenderBusy(const std::basic_string<KivWChar>& path) {
        std::promise<void> held, done;
        std::thread holder([&] {
            std::lock_guard<std::recursive_mutex> lock(renderLock);
            held.set_value();
            done.get_future().wait();
        });
        held.get_future().wait();
        const int32_t result = Load(path);
        done.set_value();
        holder.join();
        return result;
    }
    bool Logged(const std::string& line) { return kivtest::LibraryLog().find(line) != std::string::npos; }

    std::string dir = kivtest::TempDir("gpu_lut");
    std::recursive_mutex renderLock;
    kiv::GpuLutState lut;
};

TEST_F(GpuLutTest, EdgeLengthFromTheEntryCountAndSixteenBitTexels) {
    ASSERT_EQ(Load(Cube("n33.cube", Entries(35937))), KIV_OK);  // no size line: 33 from the count
    ASSERT_TRUE(lut.ApplyPending());
    const auto& data = lut.ActiveData();
    ASSERT_TRUE(data);
    EXPECT_EQ(data->dim, 33);
    ASSERT_EQ(data->texels.size(), 35937u * 4);
    // 0.25 * 65535 + 0.5 = 16384.25, 0.5 gives 32768, alpha is opaque.
    EXPECT_EQ(std::vector<uint16_t>(data->texels.end() - 4, data->texels.end()),
              (std::vector<uint16_t>{16384, 32768, 65535, 65535}));
    EXPECT_EQ(Load(Cube("n33plus1.cube", Entries(35938))), KIV_ERROR_FAILED);
    EXPECT_EQ(Load(kivtest::Wide(dir + "/missing.cube")), KIV_ERROR_FAILED);
    EXPECT_FALSE(lut.ApplyPending());  // failures queue nothing
    EXPECT_EQ(lut.ActiveData()->dim, 33);
    EXPECT_TRUE(Logged("Render GPU LUT load cube failed: parse error path=" + dir + "/n33plus1.cube"));
    EXPECT_TRUE(Logged("Render GPU LUT load cube failed: open file failed path=" + dir + "/missing.cube"));
    EXPECT_EQ(Load(kivtest::Wide("")), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(Load(kivtest::Wide("x")), KIV_ERROR_FAILED);  // a one-character name is a path, just not there
    EXPECT_EQ(lut.LoadCubeFile(nullptr, renderLock), KIV_ERROR_INVALID_ARG);
}

TEST_F(GpuLutTest, PendingAndActivePathsAreReusedWithoutReadingTheFileAgain) {
    const std::string body = "LUT_3D_SIZE 2\n" + Entries(8);
    const auto path = Cube("a.cube", body);
    ASSERT_EQ(Load(path), KIV_OK);
    std::remove((dir + "/a.cube").c_str());  // a second read would now fail
    EXPECT_EQ(Load(path), KIV_OK);
    EXPECT_TRUE(Logged("Render GPU LUT cube already pending, reuse path=" + dir + "/a.cube dim=2"));
    ASSERT_TRUE(lut.ApplyPending());
    EXPECT_EQ(Load(path), KIV_OK);
    EXPECT_FALSE(lut.ApplyPending());
    EXPECT_TRUE(Logged("Render GPU LUT cube already loaded, reuse path=" + dir + "/a.cube dim=2"));
    // With the render side busy the active path is not looked at: the file is read again (and here it is gone).
    EXPECT_EQ(LoadWhileRenderBusy(path), KIV_ERROR_FAILED);
    Cube("a.cube", body);
    EXPECT_EQ(LoadWhileRenderBusy(path), KIV_OK);
    EXPECT_TRUE(lut.ApplyPending());  // the same file makes a new texture
}

TEST_F(GpuLutTest, ConfigurationIsCheckedNormalisedAndAppliedLast) {
    KivVideoRenderLutConfig config{};
    config.enable = 1;
    for (float strength : {1.5f, -0.1f, std::nanf("")}) {
        config.strength = strength;
        EXPECT_EQ(lut.QueueConfig(config), KIV_ERROR_INVALID_ARG);
    }
    lut.ApplyPending();
    EXPECT_EQ(lut.ActiveConfig().enable, 0);
    EXPECT_EQ(lut.ActiveConfig().strength, 1.0f);
    for (const auto& p : {std::make_pair(3, 3), std::make_pair(0, 1), std::make_pair(2, 1), std::make_pair(7, 1)}) {
        config.processor = p.first;
        config.strength = 0.5f;
        ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
        lut.ApplyPending();
        EXPECT_EQ(lut.ActiveConfig().processor, p.second) << p.first;
    }
    EXPECT_FALSE(lut.Usable());  // enabled but no table
    // One batch: clear, cube, configuration, in that order, so the cube
    // survives a clear queued before it and the enable set with it stays.
    lut.QueueClear();
    ASSERT_EQ(Load(Cube("b.cube", Entries(8))), KIV_OK);
    ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_TRUE(lut.Usable());
    // A clear drops a pending cube and disables the stage.
    ASSERT_EQ(Load(Cube("c.cube", Entries(27))), KIV_OK);
    lut.QueueClear();
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_FALSE(lut.ActiveData());
    EXPECT_EQ(lut.ActiveConfig().enable, 0);
    // Reset to idle clears too and queues the idle configuration.
    config = {3, 1, 5, 2, 1, 0.25f};
    ASSERT_EQ(Load(Cube("d.cube", Entries(8))), KIV_OK);
    ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
    lut.ApplyPending();
    ASSERT_TRUE(lut.Usable());
    ASSERT_EQ(Load(Cube("e.cube", Entries(27))), KIV_OK);
    lut.ResetToIdle();
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_FALSE(lut.ActiveData());
    const KivVideoRenderLutConfig& c = lut.ActiveConfig();
    EXPECT_EQ(std::vector<float>({float(c.processor), float(c.enable), float(c.reserved), float(c.cs), float(c.range), c.strength}),
              std::vector<float>({1, 0, 0, 0, 0, 1.0f}));
}

}  // namespace
