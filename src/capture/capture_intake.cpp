#include "capture_intake.h"

#include <cstring>

#include "kivcapture.h"

namespace kiv::capture {

IntakeVerdict CheckCapturedBuffer(int32_t format, int32_t width, int32_t height, int64_t length,
                                  IntakeLayout* layout) {
    const int64_t w = width, h = height;
    *layout = IntakeLayout{};
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: layout->stride = static_cast<int32_t>(w * 2); break;
        case KIV_PIXEL_FORMAT_NV12:
            layout->stride = width;
            layout->required = (h + (h + 1) / 2) * w;
            layout->chromaOffset = w * h;
            break;
        case KIV_PIXEL_FORMAT_RGB24: layout->stride = static_cast<int32_t>(w * 3); break;
        case KIV_PIXEL_FORMAT_RGB32: layout->stride = static_cast<int32_t>(w * 4); break;
        case KIV_PIXEL_FORMAT_MJPG:
        case KIV_PIXEL_FORMAT_H264:
            layout->stride = static_cast<int32_t>(length);
            layout->required = length;
            break;
        default: return IntakeVerdict::kUnsupported;
    }
    if (format != KIV_PIXEL_FORMAT_NV12 && format != KIV_PIXEL_FORMAT_MJPG && format != KIV_PIXEL_FORMAT_H264) {
        layout->required = static_cast<int64_t>(layout->stride) * h;
    }
    if (layout->required < 1) return IntakeVerdict::kEmpty;
    if (length < layout->required) return IntakeVerdict::kShort;
    return IntakeVerdict::kAccept;
}

void CopyRowsFlipped(const uint8_t* source, int32_t stride, int32_t rows, uint8_t* target) {
    for (int32_t i = 0; i < rows; ++i) {
        std::memcpy(target + static_cast<size_t>(i) * stride, source + static_cast<size_t>(rows - 1 - i) * stride,
                    static_cast<size_t>(stride));
    }
}

}  // namespace kiv::capture
