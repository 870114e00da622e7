// The video device functions against test cameras installed in the Wine
// prefix, exactly where the system device enumerator finds real cameras.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "test_support.h"
#include "testcam_install.h"

namespace {

using Fields = std::vector<int32_t>;  // width, height, fps, valid, format
Fields Of(const KivVideoCapability& c) { return {c.width, c.height, c.fps, c.valid, c.format}; }

struct Camera {
    const wchar_t* key;
    std::wstring friendly;  // empty: no FriendlyName value
    const wchar_t* config;
    std::string listedName;
    std::vector<Fields> table;
};

// "Kamera " and 130 euro signs (three UTF-8 bytes each): the name keeps 255
// bytes, two of them from the 83rd sign.
const std::vector<Camera>& Cameras() {
    static const std::vector<Camera> cameras = {
        {L"cam0", L"Test Camera",
         L"cap=YUY2:640:480:vih:333333:333333:333333;cap=YUY2:1280:720:vih:333333:166666:333333;"
         L"cap=P010:640:480:vih:333333:0:0;cap=NV12:320:240:vih2:166666:0:0;page=1",
         "Test Camera",
         {{640, 480, 30, 1, 1}, {1280, 720, 60, 1, 1}, {320, 240, 60, 1, 2}}},
        {L"cam1", L"Kamera " + std::wstring(130, L'\x20AC'),
         L"cap=RGB24:320:240:vih:666666:0:0;cap=RGB32:640:480:vih:333333:0:0;cap=RGB32:320:-240:vih2:333333:0:0",
         [] {
             std::string name = "Kamera ";
             for (int i = 0; i < 83; ++i) name += "\xE2\x82\xAC";
             return name.substr(0, 255);
         }(),
         {{320, 240, 15, 1, 3}, {640, 480, 30, 1, 4}, {320, 240, 30, 1, 4}}},
        {L"cam2", L"", L"cap=MJPG:1920:1080:vih:333333:0:0;cap=H264:1920:1080:vih2:400000:0:0", "Unknown Device",
         {{1920, 1080, 30, 1, 5}, {1920, 1080, 25, 1, 6}}},
        {L"cam3", L"Broken Camera", L"nocfg=1;cap=YUY2:640:480:vih:333333:0:0", "Broken Camera", {}},
    };
    return cameras;
}

class VideoDevices : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(installer.Loaded());
        ASSERT_EQ(installer.RemoveAll(), S_OK);
        for (const Camera& c : Cameras())
            ASSERT_EQ(installer.Install(c.key, c.friendly.empty() ? nullptr : c.friendly.c_str(), c.config), S_OK);
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        ASSERT_EQ(KIV_Init(), KIV_OK);
    }
    void TearDown() override {
        KIV_Shutdown();
        KIV_EnableLog(0);
        installer.RemoveAll();
    }
    testcam::CameraInstaller installer;
};

TEST_F(VideoDevices, ListsTheInstalledCamerasUntilShutdownAndRefreshes) {
    ASSERT_EQ(KIV_GetVideoDeviceCount(), 4);
    for (int32_t i = 0; i < 4; ++i) {
        KivDeviceInfo info;
        std::memset(&info, 0x5a, sizeof(info));
        ASSERT_EQ(KIV_GetVideoDeviceInfo(i, &info), KIV_OK);
        EXPECT_EQ(info.index, i);
        EXPECT_EQ(std::string(info.name), Cameras()[i].listedName);
        const std::wstring key = Cameras()[i].key;
        EXPECT_EQ(std::string(info.path),
                  "@device:sw:{860BB310-5D01-11D0-BD3B-00A0C911CE86}\\" + std::string(key.begin(), key.end()));
    }
    EXPECT_NE(kivtest::LibraryLog().find("Device enum completed video=4 audio="), std::string::npos);
    // A failed probe is not retried, and a camera plugged in later is not
    // seen, until the next refresh.
    KivVideoCapability cap{};
    EXPECT_EQ(KIV_GetVideoCapabilityCount(3), 0);
    EXPECT_EQ(KIV_GetVideoCapability(3, 0, &cap), KIV_ERROR_INVALID_ARG);
    ASSERT_EQ(installer.Install(L"cam3", L"Broken Camera", L"cap=YUY2:640:480:vih:333333:0:0"), S_OK);
    ASSERT_EQ(installer.Install(L"cam4", L"Late Camera", L"cap=YUY2:640:480:vih:333333:0:0"), S_OK);
    EXPECT_EQ(KIV_GetVideoCapabilityCount(3), 0);
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 4);
    ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 5);
    KivDeviceInfo info{};
    ASSERT_EQ(KIV_GetVideoDeviceInfo(4, &info), KIV_OK);
    EXPECT_STREQ(info.name, "Late Camera");
    EXPECT_EQ(KIV_GetVideoCapabilityCount(4), 1);
    ASSERT_EQ(KIV_GetVideoCapabilityCount(3), 1);
    ASSERT_EQ(KIV_GetVideoCapability(3, 0, &cap), KIV_OK);
    EXPECT_EQ(Of(cap), (Fields{640, 480, 30, 1, 1}));
    EXPECT_NE(kivtest::LibraryLog().find("Device refresh completed video=5 audio="), std::string::npos);
    KIV_Shutdown();
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 0);
    EXPECT_EQ(KIV_GetVideoDeviceInfo(0, &info), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(KIV_GetVideoCapabilityCount(4), 0);
    ASSERT_EQ(KIV_Init(), KIV_OK);
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 5);
}

TEST_F(VideoDevices, CapabilityTablesThroughBothNames) {
    for (int32_t d = 0; d < 4; ++d) {
        const std::vector<Fields>& table = Cameras()[d].table;
        const int32_t n = static_cast<int32_t>(table.size());
        ASSERT_EQ(KIV_GetVideoCapabilityCount(d), n) << d;
        ASSERT_EQ(KIV_GetVideoFormatCount(d), n) << d;
        for (int32_t i = 0; i < n; ++i) {
            KivVideoCapability cap{}, twin{};
            ASSERT_EQ(KIV_GetVideoCapability(d, i, &cap), KIV_OK);
            ASSERT_EQ(KIV_GetVideoFormatInfo(d, i, &twin), KIV_OK);
            EXPECT_EQ(Of(cap), table[i]) << d << " entry " << i;
            EXPECT_EQ(Of(twin), table[i]) << d << " entry " << i;
        }
    }
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "Video capability cached device=0 count=3"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "Video capability count device=0 count=3"), 2u);
    EXPECT_EQ(kivtest::CountOf(log, "Video capability cached device=3"), 0u);
}

// Out-of-range and null arguments with cameras listed (the codes without
// devices or before KIV_Init are pinned natively).
TEST_F(VideoDevices, BadArgumentsChangeNothing) {
    const struct {
        const char* what;
        int32_t device, index;
        bool nullOut;
    } cases[] = {{"index below 0", 0, -1, false}, {"index at the count", 0, 3, false},
                 {"null record", 0, 0, true},     {"device below 0", -1, 0, false},
                 {"device at the count", 4, 0, false}};
    for (const auto& c : cases) {
        KivVideoCapability cap{7, 7, 7, 7, 7};
        EXPECT_EQ(KIV_GetVideoCapability(c.device, c.index, c.nullOut ? nullptr : &cap), KIV_ERROR_INVALID_ARG)
            << c.what;
        EXPECT_EQ(KIV_GetVideoFormatInfo(c.device, c.index, c.nullOut ? nullptr : &cap), KIV_ERROR_INVALID_ARG)
            << c.what;
        EXPECT_EQ(Of(cap), Fields(5, 7)) << c.what;
    }
    EXPECT_EQ(KIV_GetVideoCapabilityCount(-1), 0);
}

BOOL CALLBACK OwnVisibleWindow(HWND w, LPARAM found) {
    DWORD pid = 0;
    GetWindowThreadProcessId(w, &pid);
    if (pid != GetCurrentProcessId() || !IsWindowVisible(w)) return TRUE;
    *reinterpret_cast<HWND*>(found) = w;
    return FALSE;
}

TEST_F(VideoDevices, PropertyPages) {
    EXPECT_EQ(KIV_ShowVideoCrossbarPropertyPage(0, nullptr), KIV_ERROR_UNSUPPORTED);  // no crossbar
    EXPECT_EQ(KIV_ShowVideoDevicePropertyPage(1, nullptr), KIV_ERROR_UNSUPPORTED);    // no page
    EXPECT_EQ(KIV_ShowVideoDevicePropertyPage(4, nullptr), KIV_ERROR_INVALID_ARG);
    // Closes the first visible window of this process that appears and keeps
    // its title.
    std::atomic<bool> stop{false};
    std::string title;
    std::thread closer([&] {
        for (int i = 0; i < 2000 && !stop; ++i, Sleep(10)) {
            HWND found = nullptr;
            EnumWindows(&OwnVisibleWindow, reinterpret_cast<LPARAM>(&found));
            if (!found) continue;
            char text[256] = {};
            GetWindowTextA(found, text, sizeof(text));
            if (title.empty()) title = text;
            PostMessageW(found, WM_COMMAND, IDCANCEL, 0);
            PostMessageW(found, WM_CLOSE, 0, 0);
        }
    });
    EXPECT_EQ(KIV_ShowVideoDevicePropertyPage(0, nullptr), KIV_OK);
    stop = true;
    closer.join();
    EXPECT_NE(title.find("KIV Video Device"), std::string::npos);
}

}  // namespace
