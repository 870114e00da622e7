// The colour engine and crop ports as an application drives them: wrong
// handles, configuration checks, loading tables and frames left alone.
// Pixel accuracy is in color_frame_test.cpp.
#include <gtest/gtest.h>

#include "processing_test_helpers.h"

namespace {

void Constant(float, float, float, float* o) { o[0] = 1.0f, o[1] = 0.5f, o[2] = 0.0f; }

class ColorEngineTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override {
        KIV_DestroyPort(handle);
        KIV_EnableLog(0);
    }
    std::string WriteCube(const std::string& name, const std::string& text) {
        kivtest::WriteFile(dir + "/" + name, text);
        return dir + "/" + name;
    }
    int32_t Load(const std::string& path) { return KIV_LoadVideoColorEngineCubeFile(handle, kivtest::Wide(path).c_str()); }
    void Configure(int enable, int outFmt, float strength = 1.0f, int cs = 0, int range = 0, int processor = 0) {
        const KivVideoColorEngineConfig config{processor, enable, outFmt, cs, range, strength};
        ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
    }
    const kivtest::CaughtFrame& Run(const kivtest::OwnedFrame& in) {
        EXPECT_EQ(port->OnVideoFrame(&in.frame), KIV_OK);
        return catcher.frames.back();
    }

    kivtest::LibraryScope library;
    void* handle = KIV_CreateVideoColorEngine();
    KivPortBase* port = static_cast<KivPortBase*>(handle);
    kivtest::FrameCatcher catcher{handle};
    std::string dir = kivtest::TempDir("color_engine");
};

TEST_F(ColorEngineTest, WrongHandlesAndBadConfigurationsAreRefusedAndChangeNothing) {
    void* crop = KIV_CreateVideoCrop();
    void* mux = KIV_CreateVideoMux();
    const KivVideoCropRect rect{1, 2, 3, 4};
    KivVideoColorEngineConfig config{0, 1, 4, 1, 1, 0.5f};
    const auto path = kivtest::Wide("nothing.cube");
    for (void* wrong : {static_cast<void*>(nullptr), mux, handle}) {
        EXPECT_EQ(KIV_SetVideoCropRect(wrong, &rect), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_EnableVideoCrop(wrong, 1), KIV_ERROR_INVALID_ARG);
    }
    for (void* wrong : {static_cast<void*>(nullptr), mux, crop}) {
        EXPECT_EQ(KIV_SetVideoColorEngineConfig(wrong, &config), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_GetVideoColorEngineConfig(wrong, &config), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(wrong, path.c_str()), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_ClearVideoColorEngineLut(wrong), KIV_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(KIV_SetVideoCropRect(crop, nullptr), KIV_ERROR_INVALID_ARG);
    kivtest::FrameCatcher cropped(crop);  // the crop is still disabled: frames pass
    kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 8, 8, 1);
    ASSERT_EQ(static_cast<KivPortBase*>(crop)->OnVideoFrame(&frame.frame), KIV_OK);
    EXPECT_EQ(cropped.frames.back().record, &frame.frame);
    KIV_DestroyPort(mux);
    KIV_DestroyPort(crop);

    const struct {
        KivVideoColorEngineConfig config;
        KivResult expected;
    } cases[] = {
        {{9, 1, 5, 0, 0, 7.0f}, KIV_ERROR_UNSUPPORTED},  // the format is checked first
        {{9, 1, -1, 0, 0, 7.0f}, KIV_ERROR_UNSUPPORTED}, {{9, 1, 4, 0, 0, 7.0f}, KIV_ERROR_INVALID_ARG},
        {{4, 1, 4, 0, 0, 0.5f}, KIV_ERROR_INVALID_ARG},  {{-1, 1, 4, 0, 0, 0.5f}, KIV_ERROR_INVALID_ARG},
        {{3, 1, 4, 0, 0, 1.5f}, KIV_ERROR_INVALID_ARG},  {{3, 1, 4, 0, 0, -0.01f}, KIV_ERROR_INVALID_ARG},
    };
    for (const auto& c : cases) EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &c.config), c.expected);
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_GetVideoColorEngineConfig(handle, nullptr), KIV_ERROR_INVALID_ARG);
    KivVideoColorEngineConfig after{};
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(handle, &after), KIV_OK);
    EXPECT_EQ(std::vector<int>({after.processor, after.enable, after.outFmt}), std::vector<int>({0, 0, 0}));
    EXPECT_FLOAT_EQ(after.strength, 1.0f);
    Configure(1, 3, 0.25f, 17, -5, 2);  // colour space and range are resolved per frame: stored as given
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(handle, &after), KIV_OK);
    EXPECT_EQ(std::vector<int>({after.processor, after.enable, after.outFmt, after.cs, after.range}),
              std::vector<int>({2, 1, 3, 17, -5}));
    EXPECT_NE(kivtest::LibraryLog().find("ColorEngine config processor=2 enable=1 outFmt=3 strength=0.250 cs=17 range=-5"),
              std::string::npos);
}

TEST_F(ColorEngineTest, TablesLoadBlendAndFramesPassWhenThereIsNothingToDo) {
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 6, 2, 0);
    for (size_t i = 0; i < in.bytes.size(); i += 4) in.bytes[i] = 200, in.bytes[i + 1] = 100;
    Configure(1, 0);  // enabled without a table, same format out
    EXPECT_EQ(Run(in).record, &in.frame);
    ASSERT_EQ(Load(WriteCube("c.cube", proctest::CubeText(2, Constant))), KIV_OK);
    EXPECT_EQ(Load(dir + "/missing.cube"), KIV_ERROR_FAILED);
    EXPECT_EQ(Load(WriteCube("bad.cube", "LUT_3D_SIZE 1\n")), KIV_ERROR_FAILED);
    EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(handle, nullptr), KIV_ERROR_INVALID_ARG);
    const KivWChar empty[] = {0};
    EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(handle, empty), KIV_ERROR_INVALID_ARG);
    for (int gpuProcessor : {1, 3}) {  // tables left to the render port
        Configure(1, 3, 1.0f, 0, 0, gpuProcessor);
        EXPECT_EQ(Run(in).record, &in.frame);
    }
    Configure(1, 0);  // blending at every strength is checked against the reference in color_frame_test.cpp
    const std::vector<uint8_t>& graded = Run(in).plane0;
    EXPECT_EQ(std::vector<uint8_t>(graded.begin(), graded.begin() + 4), std::vector<uint8_t>({0, 128, 255, 255}));
    kivtest::OwnedFrame small(KIV_PIXEL_FORMAT_RGB32, 2, 2, 0);  // output buffers are reused
    const uint8_t* first = Run(in).meta.planes[0];
    EXPECT_EQ(Run(small).meta.planes[0], first);
    Configure(0, 0);  // loading does not switch the table on; clearing switches it off
    EXPECT_EQ(Run(in).record, &in.frame);
    Configure(1, 4);
    uint8_t payload[16] = {};
    const KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 8, 4, payload, sizeof payload);
    ASSERT_EQ(port->OnVideoFrame(&h264), KIV_OK);
    EXPECT_EQ(catcher.frames.back().record, &h264);
    const size_t before = catcher.frames.size();  // empty frames are refused, not passed on
    for (auto size : {std::make_pair(0, 4), std::make_pair(4, -1)}) {
        in.frame.width = size.first, in.frame.height = size.second;
        EXPECT_EQ(port->OnVideoFrame(&in.frame), KIV_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(catcher.frames.size(), before);
    in.frame.width = 6, in.frame.height = 2;
    Configure(1, 0);
    ASSERT_EQ(KIV_ClearVideoColorEngineLut(handle), KIV_OK);
    EXPECT_EQ(Run(in).record, &in.frame);

    const std::string log = kivtest::LibraryLog();
    for (const std::string& line : {"ColorEngine cube loaded path=" + dir + "/c.cube dim=2",
                                   "ColorEngine load cube failed: open file failed path=" + dir + "/missing.cube",
                                   "ColorEngine load cube failed: parse error path=" + dir + "/bad.cube",
                                   std::string("ColorEngine LUT cleared")})
        EXPECT_NE(log.find(line), std::string::npos) << line;
}

}  // namespace
