// The CPU copy of the last frame the render port drew, kept for snapshots.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

struct KivRenderStoredFrame {
    std::vector<uint8_t> plane0;
    std::vector<uint8_t> chroma;  // NV12 only, else empty
    int32_t stride = 0;
    int32_t chromaStride = 0;     // 0 unless NV12
    int32_t width = 0;
    int32_t height = 0;
    int32_t format = KIV_PIXEL_FORMAT_NONE;
    int64_t timestamp = 0;
    uint64_t frameIndex = 0;

    // Copies an uncompressed frame (formats 1 to 4 with size and first
    // plane); any other frame leaves the copy as it was. Buffers only grow.
    void Store(const KivVideoFrame& frame);
    bool Empty() const { return plane0.empty() || width < 1 || height < 1 || format == 0; }
    // A frame record over the stored bytes.
    KivVideoFrame View() const;
};
