// Handles the application no longer owns: a destroyed port, or an address
// that never was a port. Every function refuses them with
// KIV_ERROR_INVALID_ARG instead of following the pointer, and the live ports
// around them are untouched.
#include <gtest/gtest.h>

#include <vector>

#include "kivcapture.h"
#include "test_support.h"

namespace {

TEST(StaleHandles, AreRefusedByEveryKindOfFunction) {
    kivtest::LibraryScope library;
    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();
    void* gone = KIV_CreateVideoMux();
    ASSERT_EQ(KIV_DestroyPort(gone), KIV_OK);
    int notAPort = 0;
    const std::vector<void*> stale = {gone, &notAPort};

    for (void* h : stale) {
        EXPECT_EQ(KIV_DestroyPort(h), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_Start(h), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_Stop(h), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_Connect(source, h), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_Connect(h, mux), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_Disconnect(source, h), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_SetVideoFrameCallback(h, nullptr, nullptr), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_SetAudioFrameCallback(h, nullptr, nullptr), KIV_ERROR_INVALID_ARG);
        KivVideoFrame frame{};
        EXPECT_EQ(KIV_PushVideoFrame(h, &frame), KIV_ERROR_INVALID_ARG);
        KivRecorderStats stats{};
        EXPECT_EQ(KIV_GetRecorderStats(h, &stats), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_ClearVideoOsd(h), KIV_ERROR_INVALID_ARG);
        void* osd = KIV_CreateVideoOsd();
        EXPECT_EQ(KIV_ConnectVideoOsdOutput(osd, 0, h), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_DestroyPort(osd), KIV_OK);
    }

    // The live ones still work.
    EXPECT_EQ(KIV_Connect(source, mux), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(source, mux), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
}

}  // namespace
