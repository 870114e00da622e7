// Frame utilities shared by every port: size rules, owning frame copies and
// the capture media-subtype mapping.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

// Bytes a frame of this format and size needs in its buffer; for compressed
// formats the payload length (strides[0]) is the size, so -1 is returned.
int64_t RequiredFrameBytes(int32_t format, int32_t width, int32_t height);

// Strides and second plane a producer sets for a tightly packed buffer.
void FillPackedLayout(KivVideoFrame* frame, uint8_t* buffer);

bool IsUncompressed(int32_t format);

// Largest buffer a port makes for one frame. A frame that would need more
// passes a processing port unchanged and is refused by a copy: far above any
// real picture (16384 x 16384 RGB32 is 1 GiB), it keeps a made-up size from
// turning into an allocation that fails or exhausts the process.
constexpr int64_t kMaxFrameBufferBytes = int64_t{1} << 30;

// Bytes of one row of plane 0 under the size rules (W x 2, W, W x 3, W x 4);
// 0 for compressed formats and widths below 1.
int64_t PackedRowBytes(int32_t format, int32_t width);

// Whether rows `stride` bytes apart (either direction) can hold `rowBytes`.
inline bool StrideHoldsRow(int64_t stride, int64_t rowBytes) { return (stride < 0 ? -stride : stride) >= rowBytes; }

// Sizes a frame buffer to `bytes`, keeping its capacity; false, with the
// buffer unchanged, for a size beyond kMaxFrameBufferBytes or memory the
// process cannot have.
bool SizeFrameBuffer(std::vector<uint8_t>& buffer, int64_t bytes);

// A frame that owns its planes. Copy() reuses the buffers, so a warmed-up
// copy allocates nothing. A negative stride means the rows run upwards in
// memory from planes[i]; the copy is always top-down with positive strides.
// NV12 takes both of its planes (a zero stride meaning W), compressed
// formats take strides[0] bytes of payload, the rest plane 0 only.
class FrameCopy {
public:
    // Returns true when plane 0 was copied.
    bool Copy(const KivVideoFrame& source);
    const KivVideoFrame& Frame() const { return frame_; }
    KivVideoFrame& Frame() { return frame_; }
    bool Empty() const { return frame_.planes[0] == nullptr; }
    void Clear();

private:
    KivVideoFrame frame_{};
    std::vector<uint8_t> planes_[2];
};

// Windows GUID layout, so the mapping is testable without Windows headers.
struct Guid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
};

// Maps a capture media subtype to a pixel format; 0 when unknown.
int32_t PixelFormatFromSubtype(const Guid& subtype);

// Steady clock in 100 ns units, the time base of frame timestamps.
int64_t SteadyNow100ns();

}  // namespace kiv
