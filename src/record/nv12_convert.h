// Converts YUY2, NV12, RGB24 and RGB32 frames into an NV12 picture of the
// recording size for the encoder.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

// Fills `out` with width x height luma bytes followed by height / 2 rows of
// width interleaved Cb/Cr bytes. An NV12 frame of the recording size is
// copied; anything else is scaled by nearest neighbour, with chroma taken
// from the top-left pixel of each 2 x 2 block (no averaging). Bytes the
// buffer newly grows by start at 128.
// Returns KIV_OK, KIV_ERROR_INVALID_ARG (bad sizes or strides) or
// KIV_ERROR_UNSUPPORTED (another pixel format).
int32_t ConvertToNv12(const KivVideoFrame& frame, int32_t width, int32_t height, std::vector<uint8_t>* out);

// Bytes of an NV12 picture as laid out above.
size_t Nv12Bytes(int32_t width, int32_t height);

}  // namespace kiv
