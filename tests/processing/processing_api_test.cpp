// The crop and colour engine functions as an application calls them, with
// bad handles and records.
#include <gtest/gtest.h>

#include "processing_test_helpers.h"

namespace {

TEST(ProcessingApi, WrongHandlesAreRejectedAndChangeNothing) {
    kivtest::LibraryScope library;
    void* crop = KIV_CreateVideoCrop();
    void* engine = KIV_CreateVideoColorEngine();
    void* mux = KIV_CreateVideoMux();
    ASSERT_NE(mux, nullptr);
    const KivVideoCropRect rect{1, 2, 3, 4};
    KivVideoColorEngineConfig config{0, 1, 4, 1, 1, 0.5f};
    const std::basic_string<KivWChar> path = kivtest::Wide("nothing.cube");

    for (void* wrong : {static_cast<void*>(nullptr), mux, engine}) {
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

    // The crop port is still disabled with an empty rectangle: frames pass.
    proctest::FrameCatcher catcher(static_cast<KivPortBase*>(crop));
    kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 8, 8, 1);
    ASSERT_EQ(static_cast<KivPortBase*>(crop)->OnVideoFrame(&frame.frame), KIV_OK);
    EXPECT_EQ(catcher.frames.back().originalPlane0, frame.bytes.data());
    // And the engine kept its defaults.
    KivVideoColorEngineConfig stored{};
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(engine, &stored), KIV_OK);
    EXPECT_EQ(stored.enable, 0);
    EXPECT_EQ(stored.outFmt, 0);
    EXPECT_FLOAT_EQ(stored.strength, 1.0f);

    KIV_DestroyPort(mux);
    KIV_DestroyPort(crop);
    KIV_DestroyPort(engine);
}

TEST(ProcessingApi, ChainOfSourceCropAndEngineDeliversGradedCrops) {
    kivtest::LibraryScope library;
    void* source = KIV_CreateVideoFrameSource();
    void* crop = KIV_CreateVideoCrop();
    void* engine = KIV_CreateVideoColorEngine();
    ASSERT_EQ(KIV_Connect(source, crop), KIV_OK);
    ASSERT_EQ(KIV_Connect(crop, engine), KIV_OK);
    proctest::FrameCatcher catcher(static_cast<KivPortBase*>(engine));
    const KivVideoCropRect rect{2, 2, 4, 2};
    ASSERT_EQ(KIV_SetVideoCropRect(crop, &rect), KIV_OK);
    ASSERT_EQ(KIV_EnableVideoCrop(crop, 1), KIV_OK);
    const KivVideoColorEngineConfig config{0, 0, KIV_PIXEL_FORMAT_RGB24, 1, 1, 1.0f};
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(engine, &config), KIV_OK);
    kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_YUY2, 16, 8, 0);
    for (size_t i = 0; i < frame.bytes.size(); i += 2) {
        frame.bytes[i] = 255;  // full-range white
        frame.bytes[i + 1] = 128;
    }
    ASSERT_EQ(KIV_PushVideoFrame(source, &frame.frame), KIV_OK);
    ASSERT_EQ(catcher.frames.size(), 1u);
    const proctest::CaughtFrame& out = catcher.frames[0];
    EXPECT_EQ(out.meta.width, 4);
    EXPECT_EQ(out.meta.height, 2);
    EXPECT_EQ(out.meta.format, KIV_PIXEL_FORMAT_RGB24);
    ASSERT_EQ(out.plane0.size(), 24u);
    for (uint8_t b : out.plane0) EXPECT_EQ(b, 255);
    KIV_Disconnect(crop, engine);
    KIV_Disconnect(source, crop);
    KIV_DestroyPort(engine);
    KIV_DestroyPort(crop);
    KIV_DestroyPort(source);
}

}  // namespace
