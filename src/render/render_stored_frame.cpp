#include "render_stored_frame.h"

#include <cstring>

namespace {

int32_t TightStride(int32_t format, int32_t width) {
    switch (format) {
    case KIV_PIXEL_FORMAT_YUY2: return width * 2;
    case KIV_PIXEL_FORMAT_NV12: return width;
    case KIV_PIXEL_FORMAT_RGB24: return width * 3;
    default: return width * 4;
    }
}

}  // namespace

void KivRenderStoredFrame::Store(const KivVideoFrame& f) {
    if (f.format < KIV_PIXEL_FORMAT_YUY2 || f.format > KIV_PIXEL_FORMAT_RGB32) return;
    if (f.width < 1 || f.height < 1 || !f.planes[0]) return;
    const int32_t s0 = f.strides[0] < 1 ? TightStride(f.format, f.width) : f.strides[0];
    plane0.assign(f.planes[0], f.planes[0] + static_cast<size_t>(s0) * f.height);
    if (f.format == KIV_PIXEL_FORMAT_NV12) {
        const int32_t s1 = f.strides[1] < 1 ? f.width : f.strides[1];
        const uint8_t* src = f.planes[1] ? f.planes[1] : f.planes[0] + static_cast<size_t>(s0) * f.height;
        chroma.assign(src, src + static_cast<size_t>(s1) * ((f.height + 1) / 2));
        chromaStride = s1;
    } else {
        chroma.clear();
        chromaStride = 0;
    }
    stride = s0;
    width = f.width;
    height = f.height;
    format = f.format;
    timestamp = f.timestamp;
    frameIndex = f.frameIndex;
}

KivVideoFrame KivRenderStoredFrame::View() const {
    KivVideoFrame f{};
    f.planes[0] = const_cast<uint8_t*>(plane0.data());
    f.strides[0] = stride;
    if (format == KIV_PIXEL_FORMAT_NV12) {
        f.planes[1] = const_cast<uint8_t*>(chroma.data());
        f.strides[1] = chromaStride;
    }
    f.width = width;
    f.height = height;
    f.format = format;
    f.timestamp = timestamp;
    f.frameIndex = frameIndex;
    return f;
}
