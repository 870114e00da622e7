// The pure parts of the video device side: capability entries read from
// DirectShow format blocks given as bytes, the frame-rate rule, and the
// device records with their cut names.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/kiv_device_record.h"
#include "core/kiv_video_caps.h"

namespace {

// GUID bytes in memory order from the registry spelling
// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx".
std::vector<uint8_t> GuidBytes(const std::string& text) {
    auto hex = [&](size_t pos, size_t digits) { return std::stoull(text.substr(pos, digits), nullptr, 16); };
    std::vector<uint8_t> out;
    const unsigned long long a = hex(0, 8), b = hex(9, 4), c = hex(14, 4);
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(a >> (8 * i)));
    for (int i = 0; i < 2; ++i) out.push_back(static_cast<uint8_t>(b >> (8 * i)));
    for (int i = 0; i < 2; ++i) out.push_back(static_cast<uint8_t>(c >> (8 * i)));
    for (size_t pos : {19u, 21u, 24u, 26u, 28u, 30u, 32u, 34u}) out.push_back(static_cast<uint8_t>(hex(pos, 2)));
    return out;
}

const std::string kYuy2 = "32595559-0000-0010-8000-00aa00389b71";
const std::string kNv12 = "3231564e-0000-0010-8000-00aa00389b71";
const std::string kRgb24 = "e436eb7d-524f-11ce-9f53-0020af0ba770";
const std::string kRgb32 = "e436eb7e-524f-11ce-9f53-0020af0ba770";
const std::string kMjpg = "47504a4d-0000-0010-8000-00aa00389b71";
const std::string kH264 = "34363248-0000-0010-8000-00aa00389b71";
const std::string kP010 = "30313050-0000-0010-8000-00aa00389b71";
const std::string kVideoInfo = "05589f80-c356-11ce-bf01-00aa0055595a";
const std::string kVideoInfo2 = "f72a76a0-eb0a-11d0-ace4-0000c0cc16ba";
const std::string kMpeg2Video = "e06d80e3-db46-11cf-b4d1-00805f6cbbea";
const std::string kWaveFormat = "05589f81-c356-11ce-bf01-00aa0055595a";

template <class T>
void Put(std::vector<uint8_t>& bytes, size_t offset, T value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

// A format block of `size` bytes with the bitmap header where the format
// type puts it (48 in a VIDEOINFOHEADER, 72 in the second version).
std::vector<uint8_t> Block(const std::string& formatType, size_t size, int32_t width, int32_t height, int64_t avg) {
    std::vector<uint8_t> bytes(size + 64, 0);
    const size_t bmi = formatType == kVideoInfo ? 48 : 72;
    Put(bytes, 40, avg);
    Put(bytes, bmi + 4, width);
    Put(bytes, bmi + 8, height);
    bytes.resize(size);
    return bytes;
}

std::vector<uint8_t> StreamCaps(size_t size, int64_t minInterval, int64_t maxInterval) {
    std::vector<uint8_t> bytes(128, 0);
    Put(bytes, 104, minInterval);
    Put(bytes, 112, maxInterval);
    bytes.resize(size);
    return bytes;
}

struct CapCase {
    const char* what;
    std::string subtype, formatType;
    size_t blockSize;
    int32_t width, height;
    int64_t avg;
    size_t capsSize;
    int64_t minInterval, maxInterval;
    bool listed;
    KivVideoCapability expected;
};

TEST(VideoCapabilityEntry, ReadFromFormatBlockAndStreamCaps) {
    const CapCase cases[] = {
        {"30 fps", kYuy2, kVideoInfo, 88, 640, 480, 333333, 128, 0, 0, true, {640, 480, 30, 1, 1}},
        {"60 fps", kNv12, kVideoInfo, 88, 1280, 720, 166666, 128, 0, 0, true, {1280, 720, 60, 1, 2}},
        {"faster minimum wins", kYuy2, kVideoInfo, 88, 640, 480, 333333, 128, 166666, 333333, true,
         {640, 480, 60, 1, 1}},
        {"slower minimum loses", kYuy2, kVideoInfo, 88, 640, 480, 166666, 128, 333333, 0, true,
         {640, 480, 60, 1, 1}},
        {"maximum when no minimum", kRgb24, kVideoInfo, 88, 320, 240, 0, 128, 0, 666666, true,
         {320, 240, 15, 1, 3}},
        {"short caps structure ignored", kYuy2, kVideoInfo, 88, 640, 480, 333333, 127, 166666, 0, true,
         {640, 480, 30, 1, 1}},
        {"half a frame rounds up", kYuy2, kVideoInfo, 88, 640, 480, 20000000, 128, 0, 0, true, {640, 480, 1, 1, 1}},
        {"no interval anywhere", kMjpg, kVideoInfo, 88, 640, 480, 0, 128, 0, 0, true, {640, 480, 0, 1, 5}},
        {"bottom-up height", kRgb32, kVideoInfo, 88, 64, -48, 333333, 128, 0, 0, true, {64, 48, 30, 1, 4}},
        {"second header version", kH264, kVideoInfo2, 112, 1920, 1080, 400000, 128, 0, 0, true,
         {1920, 1080, 25, 1, 6}},
        {"MPEG-2 video block", kH264, kMpeg2Video, 136, 1920, -1080, 333333, 128, 0, 0, true,
         {1920, 1080, 30, 1, 6}},
        {"short VIDEOINFOHEADER", kYuy2, kVideoInfo, 87, 640, 480, 333333, 128, 0, 0, false, {}},
        {"short VIDEOINFOHEADER2", kYuy2, kVideoInfo2, 111, 640, 480, 333333, 128, 0, 0, false, {}},
        {"short MPEG-2 block", kH264, kMpeg2Video, 135, 640, 480, 333333, 128, 0, 0, false, {}},
        {"other format block", kYuy2, kWaveFormat, 88, 640, 480, 333333, 128, 0, 0, false, {}},
        {"unknown 10-bit subtype", kP010, kVideoInfo, 88, 640, 480, 333333, 128, 0, 0, false, {}},
        {"zero width", kYuy2, kVideoInfo, 88, 0, 480, 333333, 128, 0, 0, false, {}},
        {"zero height", kYuy2, kVideoInfo, 88, 640, 0, 333333, 128, 0, 0, false, {}},
    };
    for (const CapCase& c : cases) {
        SCOPED_TRACE(c.what);
        const std::vector<uint8_t> subtype = GuidBytes(c.subtype), formatType = GuidBytes(c.formatType);
        const std::vector<uint8_t> block = Block(c.formatType, c.blockSize, c.width, c.height, c.avg);
        const std::vector<uint8_t> caps = StreamCaps(c.capsSize, c.minInterval, c.maxInterval);
        const kiv::RawVideoCapability raw{subtype.data(), formatType.data(), block.data(),
                                          block.size(),   caps.data(),       caps.size()};
        KivVideoCapability got{-1, -1, -1, -1, -1};
        ASSERT_EQ(kiv::CapabilityFromRaw(raw, &got), c.listed);
        if (!c.listed) continue;
        EXPECT_EQ((std::vector<int32_t>{got.width, got.height, got.fps, got.valid, got.format}),
                  (std::vector<int32_t>{c.expected.width, c.expected.height, c.expected.fps, c.expected.valid,
                                        c.expected.format}));
    }
}

TEST(VideoCapabilityEntry, SubtypesMapByAllSixteenBytes) {
    const struct {
        std::string guid;
        int32_t format;
    } cases[] = {
        {kYuy2, 1}, {kNv12, 2}, {kRgb24, 3}, {kRgb32, 4}, {kMjpg, 5}, {kH264, 6},
        {"34363268-0000-0010-8000-00aa00389b71", 6},  // h264
        {"31435641-0000-0010-8000-00aa00389b71", 6},  // AVC1
        {"31637661-0000-0010-8000-00aa00389b71", 6},  // avc1
        {kP010, 0},
        {"32595559-0000-0010-8000-00aa00389b72", 0},  // YUY2 with a different last byte
        {"e436eb7d-524f-11ce-9f53-0020af0ba771", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.guid);
        EXPECT_EQ(kiv::PixelFormatFromSubtype(GuidBytes(c.guid).data()), c.format);
    }
}

TEST(VideoDeviceRecord, NamesCutToTheirFieldsAndUnknownDevice) {
    const std::string euro = "\xE2\x82\xAC";  // three bytes in UTF-8
    std::string longName;
    while (longName.size() < 300) longName += euro;
    const std::string longPath(600, 'p');

    struct Case {
        const char* what;
        std::string friendly, display, name, path;
    } cases[] = {
        {"plain", "Cam", "@device:sw:x", "Cam", "@device:sw:x"},
        {"no friendly name", "", "@device:sw:y", "Unknown Device", "@device:sw:y"},
        // 255 bytes = 85 whole euro signs; the path keeps 511 bytes.
        {"cut", longName, longPath, longName.substr(0, 255), longPath.substr(0, 511)},
        {"multibyte split", "a" + longName, "p", ("a" + longName).substr(0, 255), "p"},
        {"one byte over", std::string(256, 'n'), "p", std::string(255, 'n'), "p"},
        {"exactly the field", std::string(255, 'n'), std::string(511, 'p'), std::string(255, 'n'), std::string(511, 'p')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KivDeviceInfo record = kiv::MakeVideoDeviceRecord(7, c.display, c.friendly);
        EXPECT_EQ(record.index, 7);
        EXPECT_EQ(std::string(record.name), c.name);
        EXPECT_EQ(std::string(record.path), c.path);
        // Everything after the strings is zero.
        const std::string nameTail(record.name + c.name.size(), sizeof(record.name) - c.name.size());
        const std::string pathTail(record.path + c.path.size(), sizeof(record.path) - c.path.size());
        EXPECT_EQ(nameTail, std::string(nameTail.size(), '\0'));
        EXPECT_EQ(pathTail, std::string(pathTail.size(), '\0'));
    }
}

}  // namespace
