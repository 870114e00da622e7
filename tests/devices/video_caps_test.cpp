// The pure parts of the video device side: capability entries read from
// DirectShow format blocks given as bytes, the frame-rate rule, the device
// records with their cut names; natively, every device function's code.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/kiv_device_record.h"
#include "core/kiv_video_caps.h"
#include "kivcapture.h"

namespace {

// GUID bytes in memory order from the registry spelling.
std::vector<uint8_t> GuidBytes(const std::string& text) {
    auto hex = [&](size_t pos, size_t digits) { return std::stoull(text.substr(pos, digits), nullptr, 16); };
    std::vector<uint8_t> out;
    for (auto [pos, bytes] : {std::make_pair(0, 4), std::make_pair(9, 2), std::make_pair(14, 2)})
        for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(hex(pos, 2 * bytes) >> (8 * i)));
    for (size_t pos : {19u, 21u, 24u, 26u, 28u, 30u, 32u, 34u}) out.push_back(static_cast<uint8_t>(hex(pos, 2)));
    return out;
}

const std::string kYuy2 = "32595559-0000-0010-8000-00aa00389b71", kNv12 = "3231564e-0000-0010-8000-00aa00389b71",
                  kRgb24 = "e436eb7d-524f-11ce-9f53-0020af0ba770", kRgb32 = "e436eb7e-524f-11ce-9f53-0020af0ba770",
                  kMjpg = "47504a4d-0000-0010-8000-00aa00389b71", kH264 = "34363248-0000-0010-8000-00aa00389b71",
                  kP010 = "30313050-0000-0010-8000-00aa00389b71";
const std::string kVih = "05589f80-c356-11ce-bf01-00aa0055595a", kVih2 = "f72a76a0-eb0a-11d0-ace4-0000c0cc16ba",
                  kMpeg2 = "e06d80e3-db46-11cf-b4d1-00805f6cbbea", kWave = "05589f81-c356-11ce-bf01-00aa0055595a";

template <class T>
void Put(std::vector<uint8_t>& bytes, size_t offset, T value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

TEST(VideoCapabilityEntry, ReadFromFormatBlockAndStreamCaps) {
    const struct {
        const char* what;
        std::string subtype, formatType;
        size_t blockSize;
        int32_t width, height;
        int64_t avg;
        size_t capsSize;
        int64_t minInterval, maxInterval;
        std::vector<int32_t> expected;  // width, height, fps, valid, format; empty: left out
    } cases[] = {
        {"30 fps", kYuy2, kVih, 88, 640, 480, 333333, 128, 0, 0, {640, 480, 30, 1, 1}},
        {"60 fps", kNv12, kVih, 88, 1280, 720, 166666, 128, 0, 0, {1280, 720, 60, 1, 2}},
        {"faster minimum wins", kYuy2, kVih, 88, 640, 480, 333333, 128, 166666, 333333, {640, 480, 60, 1, 1}},
        {"slower minimum loses", kYuy2, kVih, 88, 640, 480, 166666, 128, 333333, 0, {640, 480, 60, 1, 1}},
        {"maximum when no minimum", kRgb24, kVih, 88, 320, 240, 0, 128, 0, 666666, {320, 240, 15, 1, 3}},
        {"short caps structure ignored", kYuy2, kVih, 88, 640, 480, 333333, 127, 166666, 0, {640, 480, 30, 1, 1}},
        {"half a frame rounds up", kYuy2, kVih, 88, 640, 480, 20000000, 128, 0, 0, {640, 480, 1, 1, 1}},
        {"no interval anywhere", kMjpg, kVih, 88, 640, 480, 0, 128, 0, 0, {640, 480, 0, 1, 5}},
        {"bottom-up height", kRgb32, kVih, 88, 64, -48, 333333, 128, 0, 0, {64, 48, 30, 1, 4}},
        {"second header version", kH264, kVih2, 112, 1920, 1080, 400000, 128, 0, 0, {1920, 1080, 25, 1, 6}},
        {"MPEG-2 video block", kH264, kMpeg2, 136, 1920, -1080, 333333, 128, 0, 0, {1920, 1080, 30, 1, 6}},
        {"short VIDEOINFOHEADER", kYuy2, kVih, 87, 640, 480, 333333, 128, 0, 0, {}},
        {"short VIDEOINFOHEADER2", kYuy2, kVih2, 111, 640, 480, 333333, 128, 0, 0, {}},
        {"short MPEG-2 block", kH264, kMpeg2, 135, 640, 480, 333333, 128, 0, 0, {}},
        {"other format block", kYuy2, kWave, 88, 640, 480, 333333, 128, 0, 0, {}},
        {"unknown 10-bit subtype", kP010, kVih, 88, 640, 480, 333333, 128, 0, 0, {}},
        {"zero width", kYuy2, kVih, 88, 0, 480, 333333, 128, 0, 0, {}},
        {"zero height", kYuy2, kVih, 88, 640, 0, 333333, 128, 0, 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::vector<uint8_t> subtype = GuidBytes(c.subtype), formatType = GuidBytes(c.formatType);
        // The bitmap header sits at 48 in a VIDEOINFOHEADER, at 72 in the
        // second version and the MPEG-2 block.
        std::vector<uint8_t> block(200, 0), caps(128, 0);
        const size_t bmi = c.formatType == kVih ? 48 : 72;
        Put(block, 40, c.avg);
        Put(block, bmi + 4, c.width);
        Put(block, bmi + 8, c.height);
        block.resize(c.blockSize);
        Put(caps, 104, c.minInterval);
        Put(caps, 112, c.maxInterval);
        caps.resize(c.capsSize);
        const kiv::RawVideoCapability raw{subtype.data(), formatType.data(), block.data(),
                                          block.size(),   caps.data(),       caps.size()};
        KivVideoCapability got{-1, -1, -1, -1, -1};
        ASSERT_EQ(kiv::CapabilityFromRaw(raw, &got), !c.expected.empty());
        if (!c.expected.empty()) {
            EXPECT_EQ((std::vector<int32_t>{got.width, got.height, got.fps, got.valid, got.format}), c.expected);
        }
    }
}

TEST(VideoCapabilityEntry, SubtypesMapByAllSixteenBytes) {
    const std::pair<std::string, int32_t> cases[] = {
        {kYuy2, 1}, {kNv12, 2}, {kRgb24, 3}, {kRgb32, 4}, {kMjpg, 5}, {kH264, 6},
        {"34363268-0000-0010-8000-00aa00389b71", 6},  // h264
        {"31435641-0000-0010-8000-00aa00389b71", 6},  // AVC1
        {"31637661-0000-0010-8000-00aa00389b71", 6},  // avc1
        {kP010, 0},
        {"32595559-0000-0010-8000-00aa00389b72", 0},  // YUY2 with a different last byte
        {"e436eb7d-524f-11ce-9f53-0020af0ba771", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(kiv::PixelFormatFromSubtype(GuidBytes(c.first).data()), c.second) << c.first;
}

TEST(VideoDeviceRecord, NamesCutToTheirFieldsAndUnknownDevice) {
    std::string longName;  // euro signs, three bytes each in UTF-8
    while (longName.size() < 300) longName += "\xE2\x82\xAC";
    const std::string longPath(600, 'p');
    const struct {
        const char* what;
        std::string friendly, display, name, path;
    } cases[] = {
        {"plain", "Cam", "@device:sw:x", "Cam", "@device:sw:x"},
        {"no friendly name", "", "@device:sw:y", "Unknown Device", "@device:sw:y"},
        {"cut", longName, longPath, longName.substr(0, 255), longPath.substr(0, 511)},
        {"multibyte split", "a" + longName, "p", ("a" + longName).substr(0, 255), "p"},
        {"one byte over", std::string(256, 'n'), "p", std::string(255, 'n'), "p"},
        {"exactly the field", std::string(255, 'n'), std::string(511, 'p'), std::string(255, 'n'),
         std::string(511, 'p')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const KivDeviceInfo record = kiv::MakeVideoDeviceRecord(7, c.display, c.friendly);
        EXPECT_EQ(record.index, 7);
        // The strings, and nothing but zeros after them.
        const std::string name(record.name, sizeof(record.name)), path(record.path, sizeof(record.path));
        EXPECT_EQ(name, c.name + std::string(name.size() - c.name.size(), '\0'));
        EXPECT_EQ(path, c.path + std::string(path.size() - c.path.size(), '\0'));
    }
}

#ifndef _WIN32
// Without devices every function answers with its code, before KIV_Init,
// while initialised and after KIV_Shutdown.
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
#endif

}  // namespace
