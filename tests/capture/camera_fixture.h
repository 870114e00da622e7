// Capture tests against the test camera under Wine: the camera is installed
// in the prefix for each test and removed afterwards.
#pragma once
#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "test_support.h"
#include "testcam_install.h"
#include "testcam_pattern.h"

namespace camtest {

template <class Cond>
bool WaitFor(Cond cond, int ms = 10000) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms); !cond(); Sleep(5))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

// The number the camera drew into the top row of a caught frame (0 for the
// formats without the pattern).
inline int64_t Number(const kivtest::CaughtFrame& f) {
    const int32_t i = f.meta.format - KIV_PIXEL_FORMAT_YUY2;  // YUY2, NV12, RGB24, RGB32 in pattern order
    if (i < 0 || i > 3 || f.meta.width < 32) return 0;
    return testcam::ReadPattern(static_cast<testcam::PatternFormat>(i), f.meta.width, f.plane0.data());
}

class CameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(installer.Loaded());
        ASSERT_EQ(installer.RemoveAll(), S_OK);
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    }
    void TearDown() override {
        for (void* p : ports) KIV_DestroyPort(p);
        installer.RemoveAll();
        KIV_EnableLog(0);
    }
    // The camera joins the list as a newly plugged-in one does: by a refresh.
    void Install(const std::wstring& config) {
        ASSERT_EQ(installer.Install(L"cam0", L"KIV Test Camera", config.c_str()), S_OK);
        ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
        ASSERT_EQ(KIV_GetVideoDeviceCount(), 1);
    }
    void* Port(int32_t w, int32_t h, int32_t fps, int32_t fmt, kivtest::FrameCatcher* catcher = nullptr) {
        void* p = Add(KIV_CreateVideoInput());
        EXPECT_EQ(KIV_SetVideoInputFormat(p, w, h, fps, fmt), KIV_OK);
        if (catcher) {
            EXPECT_EQ(KIV_SetVideoFrameCallback(p, &kivtest::FrameCatcher::OnFrame, catcher), KIV_OK);
        }
        return p;
    }
    void* Add(void* port) { return ports.insert(ports.begin(), port), port; }  // later ports go first

    kivtest::LibraryScope library;
    testcam::CameraInstaller installer;
    std::vector<void*> ports;
};

}  // namespace camtest
