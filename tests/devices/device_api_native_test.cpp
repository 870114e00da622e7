// Without devices (the native build) every device function answers with its
// code, before KIV_Init, while initialised and after KIV_Shutdown.
#include <gtest/gtest.h>

#include <cstring>

#include "kivcapture.h"

TEST(VideoDeviceFunctions, AnswerWithTheirCodesWhenNoDeviceIsListed) {
    for (int phase = 0; phase < 3; ++phase) {
        SCOPED_TRACE(phase == 0 ? "before KIV_Init" : phase == 1 ? "initialised" : "after KIV_Shutdown");
        if (phase == 1) {
            ASSERT_EQ(KIV_Init(), KIV_OK);
        }
        if (phase == 2) KIV_Shutdown();
        const int32_t noInit = phase == 1 ? KIV_ERROR_INVALID_ARG : KIV_ERROR_NOT_INITIALIZED;
        KivDeviceInfo info;
        std::memset(&info, 0x5a, sizeof(info));
        KivVideoCapability cap{9, 9, 9, 9, 9};
        EXPECT_EQ(KIV_RefreshDeviceList(), phase == 1 ? KIV_OK : KIV_ERROR_NOT_INITIALIZED);
        // Each call's result less the code it must give.
        const int32_t off[] = {KIV_GetVideoDeviceCount(), KIV_GetVideoCapabilityCount(0), KIV_GetVideoFormatCount(0),
                               KIV_GetVideoDeviceInfo(0, &info) - noInit, KIV_GetVideoCapability(0, 0, &cap) - noInit,
                               KIV_GetVideoFormatInfo(0, 0, &cap) - noInit,
                               KIV_GetVideoCapability(0, 0, nullptr) - noInit,
                               KIV_ShowVideoDevicePropertyPage(0, nullptr) - KIV_ERROR_INVALID_ARG,
                               KIV_ShowVideoCrossbarPropertyPage(-1, nullptr) - KIV_ERROR_INVALID_ARG};
        for (size_t i = 0; i < std::size(off); ++i) EXPECT_EQ(off[i], 0) << "call " << i;
        EXPECT_EQ(info.index, 0x5a5a5a5a);
        EXPECT_EQ((std::vector<int32_t>{cap.width, cap.height, cap.fps, cap.valid, cap.format}),
                  std::vector<int32_t>(5, 9));
    }
}
