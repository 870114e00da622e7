#include <gtest/gtest.h>

#include <filesystem>
#include <cmath>
#include <future>
#include <thread>

#include "processing_test_helpers.h"
#include "render/gpu_lut_state.h"

namespace {

std::string Entries(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "0.25 0.5 1\n";
    return text;
}

class GpuLutTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        dir = kivtest::TempDir("gpu_lut");
    }
    void TearDown() override {
        KIV_EnableLog(0);
        std::filesystem::remove_all(std::filesystem::u8path(dir));
    }
    std::basic_string<KivWChar> Cube(const std::string& name, const std::string& body) {
        const std::string path = dir + "/" + name;
        kivtest::WriteFile(path, body);
        return kivtest::Wide(path);
    }
    void Remove(const std::string& name) { std::filesystem::remove(std::filesystem::u8path(dir + "/" + name)); }
    // Loads while another thread holds the render lock.
    int32_t LoadWhileRenderBusy(const KivWChar* path) {
        std::promise<void> held, done;
        std::thread holder([&] {
            std::lock_guard<std::recursive_mutex> lock(renderLock);
            held.set_value();
            done.get_future().wait();
        });
        held.get_future().wait();
        const int32_t result = lut.LoadCubeFile(path, renderLock);
        done.set_value();
        holder.join();
        return result;
    }

    std::string dir;
    std::recursive_mutex renderLock;
    kiv::GpuLutState lut;
};

TEST_F(GpuLutTest, EdgeLengthFromTheEntryCountAndSixteenBitTexels) {
    const auto good = Cube("n33.cube", Entries(35937));
    ASSERT_EQ(lut.LoadCubeFile(good.c_str(), renderLock), KIV_OK);
    ASSERT_TRUE(lut.ApplyPending());
    const auto& data = lut.ActiveData();
    ASSERT_TRUE(data);
    EXPECT_EQ(data->dim, 33);
    ASSERT_EQ(data->texels.size(), 35937u * 4);
    // 0.25 * 65535 + 0.5 = 16384.25, 0.5 gives 32768, alpha is opaque.
    EXPECT_EQ(std::vector<uint16_t>(data->texels.end() - 4, data->texels.end()),
              (std::vector<uint16_t>{16384, 32768, 65535, 65535}));

    const auto bad = Cube("n33plus1.cube", Entries(35938));
    EXPECT_EQ(lut.LoadCubeFile(bad.c_str(), renderLock), KIV_ERROR_FAILED);
    const auto missing = kivtest::Wide(dir + "/missing.cube");
    EXPECT_EQ(lut.LoadCubeFile(missing.c_str(), renderLock), KIV_ERROR_FAILED);
    EXPECT_FALSE(lut.ApplyPending());  // failures queue nothing
    EXPECT_EQ(lut.ActiveData()->dim, 33);
    const std::string log = kivtest::LibraryLog();
    EXPECT_NE(log.find("Render GPU LUT load cube failed: parse error path=" + dir + "/n33plus1.cube"), std::string::npos);
    EXPECT_NE(log.find("Render GPU LUT load cube failed: open file failed path=" + dir + "/missing.cube"),
              std::string::npos);
    const KivWChar empty[1] = {0};
    EXPECT_EQ(lut.LoadCubeFile(empty, renderLock), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(lut.LoadCubeFile(nullptr, renderLock), KIV_ERROR_INVALID_ARG);
}

TEST_F(GpuLutTest, PendingAndActivePathsAreReusedWithoutReadingTheFileAgain) {
    const std::string body = "LUT_3D_SIZE 2\n" + Entries(8);
    const auto path = Cube("a.cube", body);
    ASSERT_EQ(lut.LoadCubeFile(path.c_str(), renderLock), KIV_OK);
    Remove("a.cube");  // a second read would now fail
    EXPECT_EQ(lut.LoadCubeFile(path.c_str(), renderLock), KIV_OK);
    EXPECT_NE(kivtest::LibraryLog().find("Render GPU LUT cube already pending, reuse path=" + dir + "/a.cube dim=2"),
              std::string::npos);

    ASSERT_TRUE(lut.ApplyPending());
    EXPECT_EQ(lut.LoadCubeFile(path.c_str(), renderLock), KIV_OK);
    EXPECT_FALSE(lut.ApplyPending());
    EXPECT_NE(kivtest::LibraryLog().find("Render GPU LUT cube already loaded, reuse path=" + dir + "/a.cube dim=2"),
              std::string::npos);

    // With the render side busy the active path is not looked at: the file
    // is read again (and here it is gone).
    EXPECT_EQ(LoadWhileRenderBusy(path.c_str()), KIV_ERROR_FAILED);
    Cube("a.cube", body);
    EXPECT_EQ(LoadWhileRenderBusy(path.c_str()), KIV_OK);
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

    const struct {
        int32_t given, stored;
    } processors[] = {{3, 3}, {0, 1}, {2, 1}, {7, 1}};
    for (const auto& p : processors) {
        config.processor = p.given;
        config.strength = 0.5f;
        ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
        lut.ApplyPending();
        EXPECT_EQ(lut.ActiveConfig().processor, p.stored) << p.given;
    }
    EXPECT_FALSE(lut.Usable());  // enabled but no table

    // One batch: clear, cube, configuration, in that order, so the cube
    // survives a clear queued before it and the enable set with it stays.
    const auto path = Cube("b.cube", Entries(8));
    lut.QueueClear();
    ASSERT_EQ(lut.LoadCubeFile(path.c_str(), renderLock), KIV_OK);
    ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_TRUE(lut.Usable());

    // A clear drops a pending cube and disables the stage.
    ASSERT_EQ(lut.LoadCubeFile(Cube("c.cube", Entries(27)).c_str(), renderLock), KIV_OK);
    lut.QueueClear();
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_FALSE(lut.ActiveData());
    EXPECT_EQ(lut.ActiveConfig().enable, 0);
}

TEST_F(GpuLutTest, ResetToIdleClearsAndQueuesTheIdleConfiguration) {
    KivVideoRenderLutConfig config{3, 1, 5, 2, 1, 0.25f};
    ASSERT_EQ(lut.LoadCubeFile(Cube("d.cube", Entries(8)).c_str(), renderLock), KIV_OK);
    ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
    lut.ApplyPending();
    ASSERT_TRUE(lut.Usable());
    ASSERT_EQ(lut.LoadCubeFile(Cube("e.cube", Entries(27)).c_str(), renderLock), KIV_OK);
    lut.ResetToIdle();
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_FALSE(lut.ActiveData());
    const KivVideoRenderLutConfig& c = lut.ActiveConfig();
    EXPECT_EQ(std::vector<int32_t>({c.processor, c.enable, c.reserved, c.cs, c.range}),
              std::vector<int32_t>({1, 0, 0, 0, 0}));
    EXPECT_EQ(c.strength, 1.0f);
}

}  // namespace
