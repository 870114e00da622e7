// The video device functions: natively over format blocks given as bytes, under Wine over installed test cameras.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/kiv_device_record.h"
#include "core/kiv_video_caps.h"
#include "test_support.h"
#ifdef _WIN32
#include <atomic>
#include <thread>

#include "testcam_install.h"
#endif

namespace {

using Fields = std::vector<int32_t>;  // width, height, fps, valid, format
Fields Of(const KivVideoCapability& c) { return {c.width, c.height, c.fps, c.valid, c.format}; }
std::string Euros(int n) { return n ? "\xE2\x82\xAC" + Euros(n - 1) : ""; }  // three UTF-8 bytes each

#ifndef _WIN32

// GUID bytes in memory order from the registry spelling (the first three fields little-endian).
std::vector<uint8_t> GuidBytes(const std::string& text) {
    std::vector<uint8_t> out;
    for (size_t at : {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34})
        out.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    return out;
}
template <class T> void Put(std::vector<uint8_t>& bytes, size_t at, T value) { std::memcpy(bytes.data() + at, &value, sizeof value); }

TEST(VideoCapabilityEntry, ReadFromFormatBlockAndStreamCaps) {
    const std::string yuy2 = "32595559-0000-0010-8000-00aa00389b71", nv12 = "3231564e-0000-0010-8000-00aa00389b71",
                      rgb24 = "e436eb7d-524f-11ce-9f53-0020af0ba770", rgb32 = "e436eb7e-524f-11ce-9f53-0020af0ba770",
                      mjpg = "47504a4d-0000-0010-8000-00aa00389b71", h264 = "34363248-0000-0010-8000-00aa00389b71",
                      vih = "05589f80-c356-11ce-bf01-00aa0055595a", vih2 = "f72a76a0-eb0a-11d0-ace4-0000c0cc16ba",
                      mpeg2 = "e06d80e3-db46-11cf-b4d1-00805f6cbbea", wave = "05589f81-c356-11ce-bf01-00aa0055595a";
    const struct {
        const char* what;
        std::string subtype, formatType;
        size_t blockSize, capsSize;
        int32_t width, height;
        int64_t avg, minInterval, maxInterval;
        Fields expected;  // empty: left out
    } cases[] = {
        {"60 fps", nv12, vih, 88, 128, 1280, 720, 166666, 0, 0, {1280, 720, 60, 1, 2}},
        {"faster minimum wins", yuy2, vih, 88, 128, 640, 480, 333333, 166666, 333333, {640, 480, 60, 1, 1}},
        {"slower minimum loses", yuy2, vih, 88, 128, 640, 480, 166666, 333333, 0, {640, 480, 60, 1, 1}},
        {"maximum when no minimum", rgb24, vih, 88, 128, 320, 240, 0, 0, 666666, {320, 240, 15, 1, 3}},
        {"short caps structure ignored", yuy2, vih, 88, 127, 640, 480, 333333, 166666, 0, {640, 480, 30, 1, 1}},
        {"half a frame rounds up", yuy2, vih, 88, 128, 640, 480, 20000000, 0, 0, {640, 480, 1, 1, 1}},
        {"just under 1.5 fps rounds down", yuy2, vih, 88, 128, 640, 480, 6666667, 0, 0, {640, 480, 1, 1, 1}},
        {"no interval anywhere", mjpg, vih, 88, 128, 640, 480, 0, 0, 0, {640, 480, 0, 1, 5}},
        {"bottom-up height", rgb32, vih, 88, 128, 64, -48, 333333, 0, 0, {64, 48, 30, 1, 4}},
        {"second header version", h264, vih2, 112, 128, 1920, 1080, 400000, 0, 0, {1920, 1080, 25, 1, 6}},
        {"MPEG-2 video block", h264, mpeg2, 136, 128, 1920, -1080, 333333, 0, 0, {1920, 1080, 30, 1, 6}},
        {"h264", "34363268-0000-0010-8000-00aa00389b71", vih, 88, 128, 64, 48, 333333, 0, 0, {64, 48, 30, 1, 6}},
        {"AVC1", "31435641-0000-0010-8000-00aa00389b71", vih, 88, 128, 64, 48, 333333, 0, 0, {64, 48, 30, 1, 6}},
        {"avc1", "31637661-0000-0010-8000-00aa00389b71", vih, 88, 128, 64, 48, 333333, 0, 0, {64, 48, 30, 1, 6}},
        {"YUY2 but the last byte", "32595559-0000-0010-8000-00aa00389b72", vih, 88, 128, 64, 48, 333333, 0, 0, {}},
        {"short VIDEOINFOHEADER", yuy2, vih, 87, 128, 640, 480, 333333, 0, 0, {}},
        {"short VIDEOINFOHEADER2", yuy2, vih2, 111, 128, 640, 480, 333333, 0, 0, {}},
        {"short MPEG-2 block", h264, mpeg2, 135, 128, 640, 480, 333333, 0, 0, {}},
        {"other format block", yuy2, wave, 88, 128, 640, 480, 333333, 0, 0, {}},
        {"one pixel wide", yuy2, vih, 88, 128, 1, 480, 333333, 0, 0, {1, 480, 30, 1, 1}},
        {"zero width", yuy2, vih, 88, 128, 0, 480, 333333, 0, 0, {}},
        {"zero height", yuy2, vih, 88, 128, 640, 0, 333333, 0, 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::vector<uint8_t> subtype = GuidBytes(c.subtype), formatType = GuidBytes(c.formatType);
        // The bitmap header sits at 48 in a VIDEOINFOHEADER, at 72 in the second version and the MPEG-2 block.
        const size_t bmi = c.formatType == vih ? 48 : 72;
        std::vector<uint8_t> block(200, 0), caps(128, 0);
        Put(block, 40, c.avg), Put(block, bmi + 4, c.width), Put(block, bmi + 8, c.height);
        Put(caps, 104, c.minInterval), Put(caps, 112, c.maxInterval);
        block.resize(c.blockSize), caps.resize(c.capsSize);
        KivVideoCapability got{-1, -1, -1, -1, -1};
        const kiv::RawVideoCapability raw{subtype.data(), formatType.data(), block.data(), block.size(), caps.data(), caps.size()};
        EXPECT_EQ(kiv::CapabilityFromRaw(raw, &got) ? Of(got) : Fields{}, c.expected);
    }
}

TEST(VideoDeviceRecord, NamesCutToTheirFieldsAndUnknownDevice) {
    const std::string euros = Euros(100), n255(255, 'n');
    const std::string cases[][4] = {  // friendly name, display name, listed name, path
        {"", "@device:sw:y", "Unknown Device", "@device:sw:y"},
        {euros, std::string(600, 'p'), euros.substr(0, 255), std::string(511, 'p')},
        {"a" + euros, "p", ("a" + euros).substr(0, 255), "p"},  // the cut splits a character
        {n255 + "n", "p", n255, "p"},
    };
    for (const auto& [friendly, display, name, path] : cases) {
        SCOPED_TRACE(name);
        const KivDeviceInfo r = kiv::MakeVideoDeviceRecord(7, display, friendly);
        // The strings, and nothing but zeros after them.
        EXPECT_EQ(std::make_tuple(r.index, std::string(r.name, sizeof(r.name)), std::string(r.path, sizeof(r.path))),
                  std::make_tuple(7, name + std::string(sizeof(r.name) - name.size(), '\0'),
                                  path + std::string(sizeof(r.path) - path.size(), '\0')));
    }
}

// Without devices: before KIV_Init, while initialised and after KIV_Shutdown (the list's own functions are checked
// with the library's start-up).
TEST(VideoDeviceFunctions, AnswerWithTheirCodesWhenNoDeviceIsListed) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    for (int phase = 0; phase < 3; ++phase) {
        ASSERT_EQ(phase == 1 ? KIV_Init() : phase == 2 ? KIV_Shutdown() : KIV_OK, KIV_OK);
        const int32_t noInit = phase == 1 ? KIV_ERROR_INVALID_ARG : KIV_ERROR_NOT_INITIALIZED;
        KivVideoCapability cap{9, 9, 9, 9, 9};
        EXPECT_EQ(std::vector<int32_t>({KIV_GetVideoCapabilityCount(0), KIV_GetVideoFormatCount(0), KIV_GetVideoCapability(0, 0, &cap),
                                        KIV_GetVideoFormatInfo(0, 0, &cap), KIV_GetVideoCapability(0, 0, nullptr),
                                        KIV_ShowVideoDevicePropertyPage(0, nullptr), KIV_ShowVideoCrossbarPropertyPage(-1, nullptr)}),
                  std::vector<int32_t>({0, 0, noInit, noInit, noInit, KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG}))
            << "phase " << phase;
        EXPECT_EQ(Of(cap), Fields(5, 9));
    }
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "Video capability count device=0 count=0"), 2u);  // looked up only while initialised
    KIV_EnableLog(0);
}

#else

const struct Camera {
    const wchar_t* key;
    std::wstring friendly;  // empty: no FriendlyName value
    const wchar_t* config;
    std::string listedName;
    std::vector<Fields> table;
} kCameras[] = {
    {L"cam0", L"Test Camera",
     L"cap=YUY2:640:480:vih:333333:333333:333333;cap=YUY2:1280:720:vih:333333:166666:333333;"
     L"cap=P010:640:480:vih:333333:0:0;cap=NV12:320:240:vih2:166666:0:0;page=1",
     "Test Camera", {{640, 480, 30, 1, 1}, {1280, 720, 60, 1, 1}, {320, 240, 60, 1, 2}}},
    // "Kamera " and 130 euro signs: the list keeps 255 bytes, two of them from the 83rd sign.
    {L"cam1", L"Kamera " + std::wstring(130, L'\x20AC'),
     L"cap=RGB32:320:-240:vih2:333333:0:0", ("Kamera " + Euros(83)).substr(0, 255), {{320, 240, 30, 1, 4}}},
    {L"cam2", L"", L"cap=H264:1920:1080:vih2:400000:0:0", "Unknown Device", {{1920, 1080, 25, 1, 6}}},
    {L"cam3", L"Broken Camera", L"nocfg=1;cap=YUY2:640:480:vih:333333:0:0", "Broken Camera", {}},
};

struct VideoDevices : ::testing::Test {
    void SetUp() override {
        ASSERT_TRUE(installer.Loaded());
        ASSERT_EQ(installer.RemoveAll(), S_OK);
        for (const Camera& c : kCameras)
            ASSERT_EQ(installer.Install(c.key, c.friendly.empty() ? nullptr : c.friendly.c_str(), c.config), S_OK);
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        ASSERT_EQ(KIV_Init(), KIV_OK);
    }
    void TearDown() override { KIV_Shutdown(), KIV_EnableLog(0), installer.RemoveAll(); }
    testcam::CameraInstaller installer;
};

// Every table through both function names, probed once per device; out-of-range and null arguments change nothing.
TEST_F(VideoDevices, ListsTheInstalledCamerasTheirTablesUntilShutdownAndRefreshes) {
    ASSERT_EQ(KIV_GetVideoDeviceCount(), 4);
    KivDeviceInfo info;
    for (int32_t d = 0; d < 4; ++d) {
        std::memset(&info, 0x5a, sizeof(info));
        ASSERT_EQ(KIV_GetVideoDeviceInfo(d, &info), KIV_OK);
        EXPECT_EQ(std::make_tuple(info.index, std::string(info.name), std::string(info.path)),
                  std::make_tuple(d, kCameras[d].listedName,
                                  "@device:sw:{860BB310-5D01-11D0-BD3B-00A0C911CE86}\\cam" + std::to_string(d)));
        const std::vector<Fields>& table = kCameras[d].table;
        ASSERT_EQ(std::make_pair(KIV_GetVideoCapabilityCount(d), KIV_GetVideoFormatCount(d)),
                  std::make_pair(int32_t(table.size()), int32_t(table.size())));
        for (int32_t i = 0; i < static_cast<int32_t>(table.size()); ++i) {
            KivVideoCapability cap{}, twin{};
            ASSERT_EQ(KIV_GetVideoCapability(d, i, &cap) + KIV_GetVideoFormatInfo(d, i, &twin), KIV_OK);
            EXPECT_EQ(std::make_pair(Of(cap), Of(twin)), std::make_pair(table[i], table[i])) << d << " entry " << i;
        }
    }
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "Video capability cached device=0 count=3"), 1u);
    // Device, index, null record: below 0, at the count, the camera whose probe failed, past the list.
    const int32_t bad[][3] = {{0, -1, 0}, {0, 3, 0}, {0, 0, 1}, {-1, 0, 0}, {4, 0, 0}, {3, 0, 0}};
    KivVideoCapability cap{7, 7, 7, 7, 7};
    for (const auto& [device, index, null] : bad)
        EXPECT_EQ(std::make_pair(KIV_GetVideoCapability(device, index, null ? nullptr : &cap),
                                 KIV_GetVideoFormatInfo(device, index, null ? nullptr : &cap)),
                  std::make_pair(KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG))
            << device << "/" << index << "/" << null;
    EXPECT_EQ(std::make_pair(Of(cap), KIV_GetVideoCapabilityCount(-1)), std::make_pair(Fields(5, 7), 0));

    // A failed probe is not retried, and a camera plugged in later is not seen, until the next refresh.
    ASSERT_EQ(installer.Install(L"cam3", L"Broken Camera", L"cap=YUY2:640:480:vih:333333:0:0"), S_OK);
    ASSERT_EQ(installer.Install(L"cam4", L"Late Camera", L"cap=YUY2:640:480:vih:333333:0:0"), S_OK);
    EXPECT_EQ(std::make_pair(KIV_GetVideoCapabilityCount(3), KIV_GetVideoDeviceCount()), std::make_pair(0, 4));
    ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    ASSERT_EQ(std::make_pair(KIV_GetVideoDeviceCount(), KIV_GetVideoDeviceInfo(4, &info)), std::make_pair(5, KIV_OK));
    EXPECT_STREQ(info.name, "Late Camera");
    EXPECT_EQ(std::make_pair(KIV_GetVideoCapabilityCount(4), KIV_GetVideoCapabilityCount(3)), std::make_pair(1, 1));
    ASSERT_EQ(KIV_GetVideoCapability(3, 0, &cap), KIV_OK);
    EXPECT_EQ(Of(cap), (Fields{640, 480, 30, 1, 1}));
    KIV_Shutdown();
    EXPECT_EQ(std::vector<int>({KIV_GetVideoDeviceCount(), KIV_GetVideoDeviceInfo(0, &info), KIV_GetVideoCapabilityCount(4)}),
              std::vector<int>({0, KIV_ERROR_NOT_INITIALIZED, 0}));
    ASSERT_EQ(KIV_Init(), KIV_OK);
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 5);
}

BOOL CALLBACK OwnVisibleWindow(HWND w, LPARAM found) {  // stops at the first visible window of this process
    DWORD pid = 0;
    GetWindowThreadProcessId(w, &pid);
    return pid != GetCurrentProcessId() || !IsWindowVisible(w) || (*reinterpret_cast<HWND*>(found) = w, false);
}

TEST_F(VideoDevices, PropertyPages) {
    // No crossbar, no page, no device.
    EXPECT_EQ(std::vector<int>({KIV_ShowVideoCrossbarPropertyPage(0, nullptr), KIV_ShowVideoDevicePropertyPage(1, nullptr),
                                KIV_ShowVideoDevicePropertyPage(4, nullptr)}),
              std::vector<int>({KIV_ERROR_UNSUPPORTED, KIV_ERROR_UNSUPPORTED, KIV_ERROR_INVALID_ARG}));
    // Closes the first visible window of this process that appears and keeps its title.
    std::atomic<bool> stop{false};
    std::string title;
    std::thread closer([&] {
        for (int i = 0; i < 2000 && !stop; ++i, Sleep(10)) {
            HWND found = nullptr;
            EnumWindows(&OwnVisibleWindow, reinterpret_cast<LPARAM>(&found));
            if (!found) continue;
            if (char text[256] = {}; title.empty()) GetWindowTextA(found, text, sizeof(text)), title = text;
            PostMessageW(found, WM_COMMAND, IDCANCEL, 0), PostMessageW(found, WM_CLOSE, 0, 0);
        }
    });
    EXPECT_EQ(KIV_ShowVideoDevicePropertyPage(0, nullptr), KIV_OK);
    stop = true, closer.join();
    EXPECT_NE(title.find("KIV Video Device"), std::string::npos);
}

#endif

}  // namespace
