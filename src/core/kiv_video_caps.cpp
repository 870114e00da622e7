#include "kiv_video_caps.h"

#include <array>
#include <cstring>

#include "kiv_log.h"
#include "kiv_state.h"
#include "kiv_video_devices.h"

namespace kiv {
namespace {

using GuidBytes = std::array<uint8_t, 16>;

// A GUID as it lies in memory: the first three fields little-endian.
constexpr GuidBytes Guid(uint32_t a, uint16_t b, uint16_t c, uint8_t d0, uint8_t d1, uint8_t d2, uint8_t d3,
                         uint8_t d4, uint8_t d5, uint8_t d6, uint8_t d7) {
    return {static_cast<uint8_t>(a), static_cast<uint8_t>(a >> 8), static_cast<uint8_t>(a >> 16),
            static_cast<uint8_t>(a >> 24), static_cast<uint8_t>(b), static_cast<uint8_t>(b >> 8),
            static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8), d0, d1, d2, d3, d4, d5, d6, d7};
}

// Four-character-code subtypes share the tail 0000-0010-8000-00AA00389B71.
constexpr GuidBytes Fourcc(uint32_t code) { return Guid(code, 0, 0x10, 0x80, 0, 0, 0xaa, 0, 0x38, 0x9b, 0x71); }

struct SubtypeFormat {
    GuidBytes subtype;
    int32_t format;
};

constexpr SubtypeFormat kSubtypes[] = {
    {Fourcc(0x32595559), KIV_PIXEL_FORMAT_YUY2},
    {Guid(0xe436eb7d, 0x524f, 0x11ce, 0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70), KIV_PIXEL_FORMAT_RGB24},
    {Guid(0xe436eb7e, 0x524f, 0x11ce, 0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70), KIV_PIXEL_FORMAT_RGB32},
    {Fourcc(0x47504a4d), KIV_PIXEL_FORMAT_MJPG},
    {Fourcc(0x3231564e), KIV_PIXEL_FORMAT_NV12},
    {Fourcc(0x34363248), KIV_PIXEL_FORMAT_H264},  // H264
    {Fourcc(0x34363268), KIV_PIXEL_FORMAT_H264},  // h264
    {Fourcc(0x31435641), KIV_PIXEL_FORMAT_H264},  // AVC1
    {Fourcc(0x31637661), KIV_PIXEL_FORMAT_H264},  // avc1
};

constexpr GuidBytes kFormatVideoInfo = Guid(0x05589f80, 0xc356, 0x11ce, 0xbf, 0x01, 0x00, 0xaa, 0x00, 0x55, 0x59, 0x5a);
constexpr GuidBytes kFormatVideoInfo2 =
    Guid(0xf72a76a0, 0xeb0a, 0x11d0, 0xac, 0xe4, 0x00, 0x00, 0xc0, 0xcc, 0x16, 0xba);
constexpr GuidBytes kFormatMpeg2Video =
    Guid(0xe06d80e3, 0xdb46, 0x11cf, 0xb4, 0xd1, 0x00, 0x80, 0x5f, 0x6c, 0xbb, 0xea);

// Byte offsets inside the DirectShow structures (checked against the real
// declarations in the Windows build).
constexpr size_t kVihAvgTimePerFrame = 40;  // both header versions
constexpr size_t kVihBitmapHeader = 48;
constexpr size_t kVih2BitmapHeader = 72;
constexpr size_t kBitmapWidth = 4, kBitmapHeight = 8;
constexpr size_t kVihSize = 88, kVih2Size = 112, kMpeg2Size = 136;
constexpr size_t kCapsMinFrameInterval = 104, kCapsMaxFrameInterval = 112, kCapsSize = 128;

bool Equal(const uint8_t* bytes, const GuidBytes& guid) { return std::memcmp(bytes, guid.data(), 16) == 0; }

template <class T>
T Read(const uint8_t* p) {
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

struct Cache {
    std::vector<std::vector<KivVideoCapability>> tables;
    std::vector<bool> probed;
};

Cache& TheCache() {
    static Cache cache;
    return cache;
}

const std::vector<KivVideoCapability> kNoCapabilities;

}  // namespace

int32_t PixelFormatFromSubtype(const uint8_t subtype[16]) {
    for (const SubtypeFormat& entry : kSubtypes)
        if (Equal(subtype, entry.subtype)) return entry.format;
    return KIV_PIXEL_FORMAT_NONE;
}

int32_t FramesPerSecond(int64_t interval) {
    if (interval <= 0) return 0;
    return static_cast<int32_t>((10000000 + interval / 2) / interval);
}

bool ReadVideoFormatBlock(const uint8_t formatType[16], const uint8_t* block, size_t size, VideoFormatBlock* out) {
    if (!block) return false;
    size_t header;
    if (Equal(formatType, kFormatVideoInfo) && size >= kVihSize) header = kVihBitmapHeader;
    else if (Equal(formatType, kFormatVideoInfo2) && size >= kVih2Size) header = kVih2BitmapHeader;
    else if (Equal(formatType, kFormatMpeg2Video) && size >= kMpeg2Size) header = kVih2BitmapHeader;
    else return false;
    out->width = Read<int32_t>(block + header + kBitmapWidth);
    const int32_t height = Read<int32_t>(block + header + kBitmapHeight);
    out->height = height < 0 ? -height : height;
    out->avgTimePerFrame = Read<int64_t>(block + kVihAvgTimePerFrame);
    return true;
}

int32_t StreamCapsFramesPerSecond(const uint8_t* caps, size_t size) {
    if (!caps || size < kCapsSize) return 0;
    const int64_t minInterval = Read<int64_t>(caps + kCapsMinFrameInterval);
    const int64_t maxInterval = Read<int64_t>(caps + kCapsMaxFrameInterval);
    return FramesPerSecond(minInterval > 0 ? minInterval : maxInterval);
}

bool CapabilityFromRaw(const RawVideoCapability& raw, KivVideoCapability* out) {
    VideoFormatBlock block;
    if (!ReadVideoFormatBlock(raw.formatType, raw.format, raw.formatSize, &block)) return false;
    const int32_t format = PixelFormatFromSubtype(raw.subtype);
    if (block.width <= 0 || block.height <= 0 || format < 1 || format > 6) return false;
    // A device that can go faster than its default interval reports its
    // fastest rate.
    const int32_t typeRate = FramesPerSecond(block.avgTimePerFrame);
    const int32_t capsRate = StreamCapsFramesPerSecond(raw.caps, raw.capsSize);
    out->width = block.width;
    out->height = block.height;
    out->fps = capsRate > 0 && capsRate > typeRate ? capsRate : typeRate;
    out->valid = 1;
    out->format = format;
    return true;
}

void ResetVideoCapabilityCache(size_t deviceCount) {
    Cache& cache = TheCache();
    cache.tables.assign(deviceCount, {});
    cache.probed.assign(deviceCount, false);
}

void ClearVideoCapabilityCache() {
    Cache& cache = TheCache();
    cache.tables.clear();
    cache.tables.shrink_to_fit();
    cache.probed.clear();
    cache.probed.shrink_to_fit();
}

bool EnsureVideoCapabilities(int32_t device) {
    const std::vector<KivDeviceInfo>& devices = VideoDevices();
    if (!LibraryInitialized() || device < 0 || device >= static_cast<int32_t>(devices.size())) return false;
    Cache& cache = TheCache();
    if (cache.tables.size() != devices.size() || cache.probed.size() != devices.size())
        ResetVideoCapabilityCache(devices.size());
    const size_t slot = static_cast<size_t>(device);
    if (cache.probed[slot]) return true;
    std::vector<KivVideoCapability> table;
    const bool ok = platform::ProbeVideoCapabilities(devices[slot].path, &table);
    cache.probed[slot] = true;
    if (!ok) {
        cache.tables[slot].clear();
        return false;
    }
    cache.tables[slot] = std::move(table);
    KIV_LOG("Video capability cached device=%d count=%d", device, static_cast<int>(cache.tables[slot].size()));
    return true;
}

const std::vector<KivVideoCapability>& VideoCapabilities(int32_t device) {
    const Cache& cache = TheCache();
    if (device < 0 || static_cast<size_t>(device) >= cache.tables.size()) return kNoCapabilities;
    return cache.tables[static_cast<size_t>(device)];
}

}  // namespace kiv
