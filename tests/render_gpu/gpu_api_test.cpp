// The GPU stages through the exported interface, as an application drives
// them; no window, so nothing is drawn and the rules show in the state.
#include <gtest/gtest.h>

#include <functional>

#include "render/kiv_video_render.h"
#include "render/render_gpu_stages.h"
#include "render/snapshot_image.h"
#include "test_support.h"

namespace {

class GpuApiTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        render = KIV_CreateVideoRender(nullptr);
        ASSERT_NE(render, nullptr);
        stages = dynamic_cast<KivRenderGpuStages*>(&static_cast<KivVideoRender*>(static_cast<KivPortBase*>(render))->Stages());
        ASSERT_NE(stages, nullptr);
    }
    void TearDown() override {
        KIV_DestroyPort(render);
        KIV_EnableLog(0);
    }
    kivtest::LibraryScope library;
    void* render = nullptr;
    KivRenderGpuStages* stages = nullptr;
    std::string dir = kivtest::TempDir("gpu_api");
};

TEST_F(GpuApiTest, GpuRequestsMoveThePortToTheGpuPipelineAndLeavingItTearsThemDown) {
    KivVideoRenderLutConfig config{1, 1, 0, 0, 0, 1.5f};
    EXPECT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), 0);  // a refused request changes nothing
    EXPECT_EQ(KIV_ClearVideoRenderGpuOsd(render), KIV_OK);
    EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), 0);  // clear leaves the mode

    using Request = std::function<int32_t()>;
    KivVideoOsdItem item{};
    item.id = 7, item.visible = 1;
    KivGpuRecordConfig record{};
    const auto file = kivtest::Wide(dir + "/r.mp4");
    std::copy(file.begin(), file.end(), record.file);
    const std::vector<Request> requests = {
        [&] {
            config.strength = 0.5f;
            return KIV_SetVideoRenderLutConfig(render, &config);
        },
        [&] { return KIV_AddVideoRenderGpuOsdText(render, &item); },
        [&] { return KIV_AddVideoRenderGpuOsdImage(render, &item); },
        [&] { return KIV_AddVideoRenderGpuOsdRect(render, &item); },
        [&] { return KIV_UpdateVideoRenderGpuOsdText(render, 7, nullptr); },
        [&] { return KIV_RemoveVideoRenderGpuOsdItem(render, 7); },
        [&] { return KIV_StartVideoRenderGpuRecord(render, &record); },
    };
    for (size_t i = 0; i < requests.size(); ++i) {
        ASSERT_EQ(KIV_SetVideoRenderPipelineMode(render, 0), KIV_OK);
        EXPECT_EQ(requests[i](), KIV_OK);
        EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), 1) << i;
    }
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 1);
    EXPECT_EQ(KIV_StartVideoRenderGpuRecord(render, &record), KIV_OK);  // already armed

    // Leaving the GPU pipeline stops the recorder and resets the LUT.
    ASSERT_EQ(KIV_SetVideoRenderPipelineMode(render, 0), KIV_OK);
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 0);
    EXPECT_FALSE(stages->LutActive());
    EXPECT_EQ(stages->ColorSettings().strength, 1.0f);
    EXPECT_EQ(KIV_StopVideoRenderGpuRecord(render), KIV_OK);  // stop without start
}

TEST_F(GpuApiTest, LutConfigurationAppliesAtOnceWhenTheRenderSideIsFree) {
    std::string cube = "LUT_3D_SIZE 2\n";
    for (int i = 0; i < 8; ++i) cube += "0 1 0\n";
    ASSERT_TRUE(kivtest::WriteFile(dir + "/g.cube", cube));
    ASSERT_EQ(KIV_LoadVideoRenderCubeFile(render, kivtest::Wide(dir + "/g.cube").c_str()), KIV_OK);
    EXPECT_FALSE(stages->LutActive());  // a cube waits for the render side
    KivVideoRenderLutConfig config{3, 1, 9, 2, 1, 0.25f};
    ASSERT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_OK);
    EXPECT_TRUE(stages->LutActive());  // applied together with the configuration
    const KivRenderColorSettings c = stages->ColorSettings();
    EXPECT_EQ(std::vector<float>({float(c.colorSpace), float(c.colorRange), c.strength}), std::vector<float>({2, 1, 0.25f}));
    EXPECT_EQ(KIV_ClearVideoRenderLut(render), KIV_OK);
    EXPECT_FALSE(stages->LutActive());
    const std::string log = kivtest::LibraryLog();
    EXPECT_NE(log.find("Render GPU LUT config queued processor=3 enable=1 strength=0.250"), std::string::npos);
    EXPECT_NE(log.find("Render GPU LUT clear applied on render thread"), std::string::npos);
}

TEST_F(GpuApiTest, SnapshotAndHandleChecks) {
    const auto path = kivtest::Wide(dir + "/s.bmp");
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, path.c_str(), 1), KIV_ERROR_FAILED);
    EXPECT_NE(kivtest::LibraryLog().find("Snapshot failed: no rendered frame is available"), std::string::npos);
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(dir + "/s.png").c_str(), 3), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, nullptr, 1), KIV_ERROR_INVALID_ARG);

    void* mux = KIV_CreateVideoMux();
    KivVideoOsdItem item{};
    KivVideoRenderLutConfig config{};
    KivGpuRecordConfig record{};
    record.file[0] = 'x';
    const std::vector<int32_t> results = {
        KIV_SetVideoRenderLutConfig(mux, &config), KIV_LoadVideoRenderCubeFile(mux, path.c_str()),
        KIV_ClearVideoRenderLut(mux), KIV_SaveVideoRenderSnapshot(mux, path.c_str(), 1),
        KIV_AddVideoRenderGpuOsdText(mux, &item), KIV_AddVideoRenderGpuOsdImage(mux, &item),
        KIV_AddVideoRenderGpuOsdRect(mux, &item), KIV_UpdateVideoRenderGpuOsdText(mux, 1, path.c_str()),
        KIV_RemoveVideoRenderGpuOsdItem(mux, 1), KIV_ClearVideoRenderGpuOsd(mux),
        KIV_StartVideoRenderGpuRecord(mux, &record), KIV_StopVideoRenderGpuRecord(mux),
        KIV_AddVideoRenderGpuOsdRect(render, nullptr), KIV_SetVideoRenderLutConfig(render, nullptr),
        KIV_StartVideoRenderGpuRecord(render, nullptr)};
    EXPECT_EQ(results, std::vector<int32_t>(results.size(), KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(mux), 0);
    record.file[0] = 0;
    EXPECT_EQ(KIV_StartVideoRenderGpuRecord(render, &record), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), 0);
    KIV_DestroyPort(mux);
}

TEST(SnapshotImage, RowsArePackedToTightBgrAndBadArgumentsTouchNoFile) {
    // Two rows of three pixels with a stride of 16 bytes (4 bytes of padding); alpha is dropped.
    std::vector<uint8_t> bgra(32, 0xEE), rows;
    for (int i = 0; i < 12; ++i) bgra[i] = static_cast<uint8_t>(i + 1), bgra[16 + i] = static_cast<uint8_t>(101 + i);
    kiv::PackBgr24Rows(bgra.data(), 3, 2, 16, &rows);
    EXPECT_EQ(rows, (std::vector<uint8_t>{1, 2, 3, 5, 6, 7, 9, 10, 11, 101, 102, 103, 105, 106, 107, 109, 110, 111}));
    const auto path = kivtest::Wide("never_written.bmp");
    const KivWChar empty[1] = {0};
    const uint8_t pixel[4] = {1, 2, 3, 4};
    const struct {
        const KivWChar* path;
        int32_t format;
        const uint8_t* pixels;
        int32_t w, h, stride;
    } cases[] = {
        {nullptr, 1, pixel, 1, 1, 4},       {empty, 1, pixel, 1, 1, 4},          {path.c_str(), 3, pixel, 1, 1, 4},
        {path.c_str(), 0, pixel, 1, 1, 4},  {path.c_str(), 1, nullptr, 1, 1, 4}, {path.c_str(), 2, pixel, 0, 1, 4},
        {path.c_str(), 2, pixel, 1, -1, 4}, {path.c_str(), 2, pixel, 1, 1, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(kiv::SaveSnapshotImage(c.path, c.format, c.pixels, c.w, c.h, c.stride), KIV_ERROR_INVALID_ARG);
    EXPECT_TRUE(kivtest::ReadFile("never_written.bmp").empty());
}

}  // namespace
