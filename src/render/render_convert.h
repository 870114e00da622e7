// CPU side of the render port: the conversion of each frame to the target
// size and format, and the expansion of a frame into tight 32-bit rows.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

// Integer BT.601 limited-range conversions used on the CPU.
struct KivBgr {
    uint8_t b, g, r;
};
KivBgr KivRenderYuvToBgr(int32_t y, int32_t u, int32_t v);
void KivRenderBgrToYuv(const KivBgr& c, uint8_t* y, uint8_t* u, uint8_t* v);

class KivRenderConverter {
public:
    // Converts a frame (width and height at least 1) to the configured size
    // and format. Width or height < 1 keeps the frame's own; format 0 or 5
    // keeps the frame's. A frame already matching is passed through as the
    // same record with no pixel work. The output points into buffers owned
    // by the converter, valid until the next call. Returns 0 or -4 for a
    // target format outside 1 to 4.
    int32_t Convert(const KivVideoFrame& in, const KivVideoRenderConfig& config, KivVideoFrame* out);

private:
    std::vector<uint8_t> buffer_;
    std::vector<int32_t> columns_;  // source column of each output column
    std::vector<KivBgr> rowA_, rowB_;
};

// Tight rows of width * 4 bytes (blue, green, red, alpha): 32-bit RGB copied,
// 24-bit RGB with alpha 255, YUY2 and NV12 through the BT.601 integer form.
// Returns 0, -2 for a frame without size or first plane, -4 for another format.
int32_t KivRenderExpandToBgra(const KivVideoFrame& frame, std::vector<uint8_t>* out);
