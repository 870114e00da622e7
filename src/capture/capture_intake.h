// Checks a captured buffer against the connected format and lays it out as a
// frame: row stride, required size and the second plane of NV12.
#pragma once
#include <cstdint>

namespace kiv::capture {

enum class IntakeVerdict {
    kAccept,
    kUnsupported,  // a format the capture path does not carry
    kEmpty,        // the format needs no bytes at this size: skipped quietly
    kShort,        // the buffer is shorter than one frame
};

struct IntakeLayout {
    int32_t stride = 0;          // bytes per row of the first plane (compressed: the length)
    int64_t required = 0;        // bytes one frame needs (compressed: the length)
    int64_t chromaOffset = 0;    // NV12: where the chroma plane starts, else 0
};

// Longer buffers are accepted: uncompressed tails are ignored, compressed
// payloads are kept whole.
IntakeVerdict CheckCapturedBuffer(int32_t format, int32_t width, int32_t height, int64_t length,
                                  IntakeLayout* layout);

// Copies `rows` rows of `stride` bytes in reverse order, so a bottom-up RGB
// picture becomes top-down.
void CopyRowsFlipped(const uint8_t* source, int32_t stride, int32_t rows, uint8_t* target);

}  // namespace kiv::capture
