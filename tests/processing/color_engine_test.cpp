#include <gtest/gtest.h>

#include "processing_test_helpers.h"

namespace {

using proctest::CaughtFrame;

void Identity(float r, float g, float b, float* o) { o[0] = r, o[1] = g, o[2] = b; }
void Constant(float, float, float, float* o) { o[0] = 1.0f, o[1] = 0.5f, o[2] = 0.0f; }

class ColorEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        handle = KIV_CreateVideoColorEngine();
        ASSERT_NE(handle, nullptr);
        port = static_cast<KivPortBase*>(handle);
        catcher = std::make_unique<proctest::FrameCatcher>(port);
        dir = kivtest::TempDir("color_engine");
    }
    void TearDown() override {
        KIV_DestroyPort(handle);
        KIV_EnableLog(0);
    }
    std::string WriteCube(const std::string& name, const std::string& text) {
        const std::string path = dir + "/" + name;
        proctest::WriteTextFile(path, text);
        return path;
    }
    int32_t Load(const std::string& path) {
        return KIV_LoadVideoColorEngineCubeFile(handle, kivtest::Wide(path).c_str());
    }
    void Configure(int enable, int outFmt, float strength = 1.0f, int cs = 0, int range = 0, int processor = 0) {
        const KivVideoColorEngineConfig config{processor, enable, outFmt, cs, range, strength};
        ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
    }
    const CaughtFrame& Run(const kivtest::OwnedFrame& in) {
        EXPECT_EQ(port->OnVideoFrame(&in.frame), KIV_OK);
        return catcher->frames.back();
    }

    kivtest::LibraryScope library;
    void* handle = nullptr;
    KivPortBase* port = nullptr;
    std::unique_ptr<proctest::FrameCatcher> catcher;
    std::string dir;
};

TEST_F(ColorEngineTest, ConfigurationIsCheckedInOrderAndStoredWhole) {
    KivVideoColorEngineConfig initial{};
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(handle, &initial), KIV_OK);
    EXPECT_EQ(initial.processor, 0);
    EXPECT_EQ(initial.enable, 0);
    EXPECT_EQ(initial.outFmt, 0);
    EXPECT_FLOAT_EQ(initial.strength, 1.0f);

    // outFmt is checked first (-4), then processor and strength (-2).
    KivVideoColorEngineConfig bad{9, 1, 5, 0, 0, 7.0f};
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &bad), KIV_ERROR_UNSUPPORTED);
    bad.outFmt = -1;
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &bad), KIV_ERROR_UNSUPPORTED);
    bad.outFmt = 4;
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &bad), KIV_ERROR_INVALID_ARG);
    bad.processor = 4;
    bad.strength = 0.5f;
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &bad), KIV_ERROR_INVALID_ARG);
    bad.processor = 3;
    bad.strength = 1.5f;
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &bad), KIV_ERROR_INVALID_ARG);
    bad.strength = -0.01f;
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, &bad), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(handle, nullptr), KIV_ERROR_INVALID_ARG);
    KivVideoColorEngineConfig after{};
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(handle, &after), KIV_OK);
    EXPECT_EQ(after.outFmt, 0);
    EXPECT_EQ(after.processor, 0);

    const KivVideoColorEngineConfig good{2, 1, 3, 17, -5, 0.25f};
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &good), KIV_OK);
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(handle, &after), KIV_OK);
    EXPECT_EQ(after.processor, 2);
    EXPECT_EQ(after.enable, 1);
    EXPECT_EQ(after.outFmt, 3);
    EXPECT_EQ(after.cs, 17);  // colour space and range are resolved per frame
    EXPECT_EQ(after.range, -5);
    EXPECT_FLOAT_EQ(after.strength, 0.25f);
    EXPECT_EQ(KIV_GetVideoColorEngineConfig(handle, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_NE(kivtest::LibraryLog().find("ColorEngine config processor=2 enable=1 outFmt=3 strength=0.250 cs=17 range=-5"),
              std::string::npos);
}

TEST_F(ColorEngineTest, FramesPassUnchangedWhenThereIsNothingToDo) {
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 8, 4, 77);
    // Enabled without a table and the same format out.
    Configure(1, 0);
    EXPECT_EQ(Run(in).originalPlane0, in.bytes.data());
    // A loaded table left to the render port.
    ASSERT_EQ(Load(WriteCube("c.cube", proctest::CubeText(2, Constant))), KIV_OK);
    Configure(1, 3, 1.0f, 0, 0, 1);
    EXPECT_EQ(Run(in).originalPlane0, in.bytes.data());
    Configure(1, 3, 1.0f, 0, 0, 3);
    EXPECT_EQ(Run(in).originalPlane0, in.bytes.data());
    // Compressed frames.
    Configure(1, 4);
    uint8_t payload[16] = {};
    const KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 8, 4, payload, sizeof payload);
    ASSERT_EQ(port->OnVideoFrame(&h264), KIV_OK);
    EXPECT_EQ(catcher->frames.back().originalPlane0, payload);
    EXPECT_EQ(catcher->frames.back().meta.format, KIV_PIXEL_FORMAT_H264);
}

TEST_F(ColorEngineTest, TableTurnsColoursAndStrengthBlends) {
    ASSERT_EQ(Load(WriteCube("c.cube", proctest::CubeText(2, Constant))), KIV_OK);
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 6, 2, 0);
    for (size_t i = 0; i < in.bytes.size(); i += 4) {
        in.bytes[i] = 200;      // blue
        in.bytes[i + 1] = 100;  // green
        in.bytes[i + 2] = 0;    // red
    }
    Configure(1, 0);
    const CaughtFrame& full = Run(in);
    EXPECT_EQ(full.plane0[0], 0);    // blue of the table
    EXPECT_EQ(full.plane0[1], 128);  // 0.5 * 255 + 0.5
    EXPECT_EQ(full.plane0[2], 255);
    EXPECT_EQ(full.plane0[3], 255);  // alpha
    Configure(1, 0, 0.5f);
    const CaughtFrame& half = Run(in);
    EXPECT_NEAR(half.plane0[0], 100, 1);
    EXPECT_NEAR(half.plane0[1], 114, 1);
    EXPECT_NEAR(half.plane0[2], 128, 1);
    Configure(1, 0, 0.0f);
    const CaughtFrame& none = Run(in);
    EXPECT_EQ(none.plane0[0], 200);
    EXPECT_EQ(none.plane0[1], 100);
    EXPECT_EQ(none.plane0[2], 0);
    // Loading does not switch the table on, clearing switches it off.
    Configure(0, 0);
    EXPECT_EQ(Run(in).originalPlane0, in.bytes.data());
    Configure(1, 0);
    ASSERT_EQ(KIV_ClearVideoColorEngineLut(handle), KIV_OK);
    EXPECT_EQ(Run(in).originalPlane0, in.bytes.data());
    const std::string log = kivtest::LibraryLog();
    EXPECT_NE(log.find("ColorEngine cube loaded path=" + dir + "/c.cube dim=2"), std::string::npos);
    EXPECT_NE(log.find("ColorEngine LUT cleared"), std::string::npos);
}

// Every format pair and odd size is compared with the reference rendering in
// the frame tests; these few pixels are worked out by hand.
TEST_F(ColorEngineTest, ConversionOnlyGivesHandWorkedPixels) {
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_YUY2, 4, 1, 0);
    const uint8_t pixels[8] = {235, 128, 16, 128, 81, 90, 81, 240};  // white, black, red, red (BT.601)
    std::copy(pixels, pixels + 8, in.bytes.begin());
    Configure(0, KIV_PIXEL_FORMAT_RGB32, 1.0f, 1, 2);
    const CaughtFrame& out = Run(in);
    ASSERT_EQ(out.meta.format, KIV_PIXEL_FORMAT_RGB32);
    ASSERT_EQ(out.meta.strides[0], 16);
    const uint8_t expectedBgra[16] = {255, 255, 255, 255, 0, 0, 0, 255, 0, 0, 255, 255, 0, 0, 255, 255};
    for (int i = 0; i < 16; ++i) EXPECT_NEAR(out.plane0[i], expectedBgra[i], 2) << i;

    // YUY2 output of an odd width repeats the last pixel into a full group.
    kivtest::OwnedFrame odd(KIV_PIXEL_FORMAT_RGB32, 3, 1, 0);
    const uint8_t bgra[12] = {0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0, 0};  // red, green, blue
    std::copy(bgra, bgra + 12, odd.bytes.begin());
    Configure(0, KIV_PIXEL_FORMAT_YUY2, 1.0f, 1, 2);
    const CaughtFrame& yuy2 = Run(odd);
    ASSERT_EQ(yuy2.meta.strides[0], 8);
    EXPECT_EQ(yuy2.plane0[4], yuy2.plane0[6]);  // both lumas are the blue pixel's
    EXPECT_NEAR(yuy2.plane0[4], 41, 1);         // 16 + 219 * 0.114
    EXPECT_NEAR(yuy2.plane0[5], 240, 1);        // blue's Cb
}

TEST_F(ColorEngineTest, ColourSpaceFollowsTheFrameSizeWhenAutomatic) {
    // Pure red in BT.601 limited decodes to red with BT.601 and to a
    // different colour with BT.709.
    auto redFrom = [&](int w, int h, int cs) {
        kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_YUY2, w, h, 0);
        for (size_t i = 0; i < in.bytes.size(); i += 4) {
            in.bytes[i] = in.bytes[i + 2] = 81;
            in.bytes[i + 1] = 90;
            in.bytes[i + 3] = 240;
        }
        Configure(0, KIV_PIXEL_FORMAT_RGB32, 1.0f, cs, 2);
        return Run(in).plane0[1];  // green of the first pixel
    };
    EXPECT_LE(redFrom(720, 576, 0), 2);
    EXPECT_GT(redFrom(720, 578, 0), 20);
    EXPECT_GT(redFrom(1280, 720, 0), 20);
    EXPECT_LE(redFrom(1280, 720, 1), 2);
    EXPECT_EQ(redFrom(64, 64, 3), redFrom(64, 64, 2));  // the 8-bit rules treat BT.2020 as BT.709
}

TEST_F(ColorEngineTest, ZeroSizedFramesAreDropped) {
    Configure(0, KIV_PIXEL_FORMAT_RGB24);
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 4, 4, 0);
    in.frame.width = 0;
    const size_t before = catcher->frames.size();
    EXPECT_EQ(port->OnVideoFrame(&in.frame), KIV_ERROR_INVALID_ARG);
    in.frame.width = 4;
    in.frame.height = -1;
    EXPECT_EQ(port->OnVideoFrame(&in.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(catcher->frames.size(), before);
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
}

TEST_F(ColorEngineTest, FailedLoadsKeepThePreviousTable) {
    ASSERT_EQ(Load(WriteCube("good.cube", proctest::CubeText(2, Constant))), KIV_OK);
    EXPECT_EQ(Load(dir + "/missing.cube"), KIV_ERROR_FAILED);
    EXPECT_EQ(Load(WriteCube("bad.cube", "LUT_3D_SIZE 1\n")), KIV_ERROR_FAILED);
    EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(handle, nullptr), KIV_ERROR_INVALID_ARG);
    const KivWChar empty[] = {0};
    EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(handle, empty), KIV_ERROR_INVALID_ARG);
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB24, 2, 2, 40);
    Configure(1, 0);
    EXPECT_EQ(Run(in).plane0[2], 255);  // red from the good table
    const std::string log = kivtest::LibraryLog();
    EXPECT_NE(log.find("ColorEngine load cube failed: open file failed path=" + dir + "/missing.cube"), std::string::npos);
    EXPECT_NE(log.find("ColorEngine load cube failed: parse error path=" + dir + "/bad.cube"), std::string::npos);
    EXPECT_NE(log.find("kiv_video_color.cpp:"), std::string::npos);
}

TEST_F(ColorEngineTest, CubeFilesLoadFromNonAsciiFolders) {
    const std::string folder = dir + "/Grün ñ 色彩";
    std::filesystem::create_directories(std::filesystem::u8path(folder));
    const std::string path = folder + "/identität.cube";
    proctest::WriteTextFile(path, proctest::CubeText(5, Identity));
    ASSERT_EQ(Load(path), KIV_OK);
    EXPECT_NE(kivtest::LibraryLog().find("ColorEngine cube loaded path=" + path + " dim=5"), std::string::npos);
}

TEST_F(ColorEngineTest, OutputBuffersAreReusedFromFrameToFrame) {
    Configure(0, KIV_PIXEL_FORMAT_RGB32);
    kivtest::OwnedFrame big(KIV_PIXEL_FORMAT_YUY2, 64, 32, 128);
    kivtest::OwnedFrame small(KIV_PIXEL_FORMAT_YUY2, 16, 8, 128);
    const uint8_t* first = Run(big).meta.planes[0];
    EXPECT_EQ(Run(small).meta.planes[0], first);
    EXPECT_EQ(Run(big).meta.planes[0], first);
}

}  // namespace
