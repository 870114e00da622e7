// Capture tests against the test camera under Wine: the camera is installed
// in the prefix for each test and removed afterwards.
#pragma once
#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "test_support.h"
#include "testcam_install.h"
#include "testcam_pattern.h"

namespace camtest {

template <class Cond>
bool WaitFor(Cond cond, int ms = 10000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline testcam::PatternFormat PatternOf(int32_t format) {
    switch (format) {
        case KIV_PIXEL_FORMAT_NV12: return testcam::PatternFormat::NV12;
        case KIV_PIXEL_FORMAT_RGB24: return testcam::PatternFormat::RGB24;
        case KIV_PIXEL_FORMAT_RGB32: return testcam::PatternFormat::RGB32;
        default: return testcam::PatternFormat::YUY2;
    }
}

// What a port delivered: the record and the number the camera drew into the
// top row of each frame.
struct Delivered {
    KivVideoFrame meta{};
    uint32_t number = 0;
};

class NumberCatcher {
public:
    static void KIV_CALL OnFrame(const KivVideoFrame* f, void* user) {
        auto* self = static_cast<NumberCatcher*>(user);
        Delivered d;
        d.meta = *f;
        if (f->format >= KIV_PIXEL_FORMAT_YUY2 && f->format <= KIV_PIXEL_FORMAT_RGB32 && f->width >= 32) {
            d.number = testcam::ReadPattern(PatternOf(f->format), f->width, f->planes[0]);
        }
        std::lock_guard<std::mutex> lock(self->mutex);
        self->frames.push_back(d);
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return frames.size();
    }
    std::vector<Delivered> Frames() {
        std::lock_guard<std::mutex> lock(mutex);
        return frames;
    }
    std::mutex mutex;
    std::vector<Delivered> frames;
};

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
    // The camera joins the library's device list as an application would see
    // a newly plugged-in one: through a refresh.
    void Install(const std::wstring& config) {
        ASSERT_EQ(installer.Install(L"cam0", L"KIV Test Camera", config.c_str()), S_OK);
        ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
        ASSERT_EQ(KIV_GetVideoDeviceCount(), 1);
    }
    void* Port(int32_t w, int32_t h, int32_t fps, int32_t fmt) {
        void* p = KIV_CreateVideoInput();
        EXPECT_EQ(KIV_SetVideoInputFormat(p, w, h, fps, fmt), KIV_OK);
        ports.push_back(p);
        return p;
    }
    void* Add(void* port) {
        ports.insert(ports.begin(), port);
        return port;
    }

    kivtest::LibraryScope library;
    testcam::CameraInstaller installer;
    std::vector<void*> ports;
};

}  // namespace camtest
