// Library start-up and shutdown seen through the exported functions: what
// works before KIV_Init, what it unlocks, and what KIV_Shutdown takes away.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "ports/kiv_port_base.h"

namespace {

// Read before any test changes it.
const int32_t kModeAtLoad = KIV_GetDefaultPipelineMode();

class LifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }
    static void Reset() {
        KIV_Shutdown();
        KIV_SetDefaultPipelineMode(0);
    }
};

// The exported functions use the interface's calling convention (stdcall on
// 32-bit Windows), and so do these pointers.
using CreateFn = void*(KIV_CALL*)();
void* KIV_CALL CreateRecorderWithoutText() { return KIV_CreateRecorder(nullptr); }
void* KIV_CALL CreateRecorderWithText() { return KIV_CreateRecorder("kivcapture"); }

struct Creator {
    const char* name;
    CreateFn create;
    int32_t type;
};

const Creator kCreators[] = {
    {"KIV_CreateVideoFrameSource", KIV_CreateVideoFrameSource, KIV_PORT_VIDEO_FRAME_SOURCE},
    {"KIV_CreateVideoMux", KIV_CreateVideoMux, KIV_PORT_VIDEO_MUX},
    {"KIV_CreateAudioMux", KIV_CreateAudioMux, KIV_PORT_AUDIO_MUX},
    {"KIV_CreateVideoOsd", KIV_CreateVideoOsd, KIV_PORT_VIDEO_OSD},
    {"KIV_CreateVideoCrop", KIV_CreateVideoCrop, KIV_PORT_VIDEO_CROP},
    {"KIV_CreateVideoColorEngine", KIV_CreateVideoColorEngine, KIV_PORT_VIDEO_COLOR_ENGINE},
    {"KIV_CreateRecorder(null)", CreateRecorderWithoutText, KIV_PORT_RECORDER},
    {"KIV_CreateRecorder(text)", CreateRecorderWithText, KIV_PORT_RECORDER},
};

TEST(Version, ExtendedVersionFillsTheCallersRecord) {
    KivVersionInfo v{};
    EXPECT_EQ(KIV_GetVersionEx(&v), &v);
    EXPECT_EQ(std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch), KIV_GetVersion());
    EXPECT_EQ(KIV_GetApiVersion(), v.major * 10000 + v.minor * 100 + v.patch);
    EXPECT_EQ(KIV_GetVersionEx(nullptr), nullptr);
}

// The default mode takes only 0 or 1, before, during and after KIV_Init.
TEST_F(LifecycleTest, DefaultPipelineModeTakesOnlyZeroOrOneInEveryState) {
    EXPECT_EQ(kModeAtLoad, 0);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(1), KIV_OK);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(2), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(-1), KIV_ERROR_INVALID_ARG);
    ASSERT_EQ(KIV_Init(), KIV_OK);
    EXPECT_EQ(KIV_GetDefaultPipelineMode(), 1);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(0), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(KIV_GetDefaultPipelineMode(), 0);
}

TEST_F(LifecycleTest, CreationNeedsInit) {
    EXPECT_EQ(KIV_Shutdown(), KIV_OK);  // never initialised
    for (const Creator& c : kCreators) EXPECT_EQ(c.create(), nullptr) << c.name << " before KIV_Init";

    ASSERT_EQ(KIV_Init(), KIV_OK);
    ASSERT_EQ(KIV_Init(), KIV_OK);  // repeated
    for (const Creator& c : kCreators) {
        void* port = c.create();
        ASSERT_NE(port, nullptr) << c.name;
        EXPECT_EQ(static_cast<KivPortBase*>(port)->Type(), c.type) << c.name;
        EXPECT_EQ(KIV_DestroyPort(port), KIV_OK) << c.name;
    }
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(KIV_Shutdown(), KIV_OK);
    for (const Creator& c : kCreators) EXPECT_EQ(c.create(), nullptr) << c.name << " after KIV_Shutdown";
}

TEST_F(LifecycleTest, DeviceQueriesNeedInit) {
    KivDeviceInfo info{};
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 0);
    EXPECT_EQ(KIV_GetAudioInputDeviceCount(), 0);
    EXPECT_EQ(KIV_GetVideoDeviceInfo(0, &info), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(KIV_GetAudioInputDeviceInfo(0, &info), KIV_ERROR_NOT_INITIALIZED);
    // not initialised wins over a bad argument
    EXPECT_EQ(KIV_GetVideoDeviceInfo(-1, nullptr), KIV_ERROR_NOT_INITIALIZED);

    ASSERT_EQ(KIV_Init(), KIV_OK);
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(KIV_GetAudioInputDeviceCount(), 0);
}

using CountFn = int32_t(KIV_CALL*)();
using InfoFn = KivResult(KIV_CALL*)(int32_t, KivDeviceInfo*);

void CheckDeviceList(const char* what, CountFn count, InfoFn info) {
    const int32_t n = count();
    ASSERT_GE(n, 0) << what;
    KivDeviceInfo sentinel;
    std::memset(&sentinel, 0x5A, sizeof(sentinel));
    KivDeviceInfo out = sentinel;
    EXPECT_EQ(info(0, nullptr), KIV_ERROR_INVALID_ARG) << what;
    EXPECT_EQ(info(-1, &out), KIV_ERROR_INVALID_ARG) << what;
    EXPECT_EQ(info(n, &out), KIV_ERROR_INVALID_ARG) << what;
    EXPECT_EQ(std::memcmp(&out, &sentinel, sizeof(out)), 0) << what << ": a rejected query wrote the record";
    for (int32_t i = 0; i < n; ++i) {
        out = sentinel;
        ASSERT_EQ(info(i, &out), KIV_OK) << what << " " << i;
        EXPECT_NE(std::memchr(out.name, '\0', sizeof(out.name)), nullptr) << what << ": name not terminated";
        EXPECT_GT(std::strlen(out.name), 0u) << what << " " << i;
    }
}

TEST_F(LifecycleTest, DeviceInfoChecksIndexAndRecord) {
    ASSERT_EQ(KIV_Init(), KIV_OK);
    CheckDeviceList("video", KIV_GetVideoDeviceCount, KIV_GetVideoDeviceInfo);
    CheckDeviceList("audio", KIV_GetAudioInputDeviceCount, KIV_GetAudioInputDeviceInfo);
#ifndef _WIN32
    // the native build has no platform layer and so no devices
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 0);
    EXPECT_EQ(KIV_GetAudioInputDeviceCount(), 0);
#endif
}

}  // namespace
