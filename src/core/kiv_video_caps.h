// Capability tables of the video devices: reading DirectShow format blocks
// and stream capability structures as plain bytes, the frame-rate rule, and
// the process-wide cache filled by one probe a device.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

// KivPixelFormat of a media subtype GUID (its 16 bytes in memory order);
// 0 for a subtype the library does not handle.
int32_t PixelFormatFromSubtype(const uint8_t subtype[16]);

// Rounded frames a second of a 100 ns frame interval; 0 for an interval of 0
// or less.
int32_t FramesPerSecond(int64_t interval);

// Size and default frame interval from a format block: VIDEOINFOHEADER (at
// least 88 bytes), VIDEOINFOHEADER2 (112) or MPEG-2 video (136, read through
// its leading VIDEOINFOHEADER2). The height is made positive.
struct VideoFormatBlock {
    int32_t width = 0;
    int32_t height = 0;
    int64_t avgTimePerFrame = 0;
};
bool ReadVideoFormatBlock(const uint8_t formatType[16], const uint8_t* block, size_t size, VideoFormatBlock* out);

// Rate from a VIDEO_STREAM_CONFIG_CAPS of `size` bytes (128 or more to be
// read): its minimum interval if set, else its maximum; 0 when neither.
int32_t StreamCapsFramesPerSecond(const uint8_t* caps, size_t size);

// One entry of IAMStreamConfig::GetStreamCaps, as bytes.
struct RawVideoCapability {
    const uint8_t* subtype;     // 16 bytes
    const uint8_t* formatType;  // 16 bytes
    const uint8_t* format;
    size_t formatSize;
    const uint8_t* caps;
    size_t capsSize;
};
// False when the entry is not listed (unknown block or subtype, no size).
bool CapabilityFromRaw(const RawVideoCapability& raw, KivVideoCapability* out);

// The cache: one table and one probed bit a device, reset when the device
// list is built. A failed probe is remembered as an empty table until then.
void ResetVideoCapabilityCache(size_t deviceCount);
void ClearVideoCapabilityCache();
bool EnsureVideoCapabilities(int32_t device);
// The cached table of a device (empty unless EnsureVideoCapabilities ran).
const std::vector<KivVideoCapability>& VideoCapabilities(int32_t device);

}  // namespace kiv
