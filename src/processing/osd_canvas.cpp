#include "osd_canvas.h"

#include <algorithm>
#include <cstring>

#include "ports/kiv_frame.h"

namespace kiv {


void OsdYccToBgr(uint8_t y, uint8_t cb, uint8_t cr, uint8_t* bgr) {
    const int32_t c = (static_cast<int32_t>(y) - 16) * 298;
    const int32_t d = static_cast<int32_t>(cb) - 128;
    const int32_t e = static_cast<int32_t>(cr) - 128;
    bgr[0] = OsdClamp255((c + 516 * d + 128) >> 8);
    bgr[1] = OsdClamp255((c - 100 * d - 208 * e + 128) >> 8);
    bgr[2] = OsdClamp255((c + 409 * e + 128) >> 8);
}

KivResult OsdCanvas::Build(const KivVideoFrame& frame) {
    if (!frame.planes[0] || frame.width < 1 || frame.height < 1) return KIV_ERROR_INVALID_ARG;
    // A positive stride shorter than the row is copied only as far as it
    // goes; a negative one would be read as packed rows, past its buffer.
    const int64_t row = PackedRowBytes(frame.format, frame.width);
    if (frame.strides[0] < 0 && !StrideHoldsRow(frame.strides[0], row)) return KIV_ERROR_FAILED;
    if (frame.format == KIV_PIXEL_FORMAT_NV12 && frame.strides[1] < 0 && !StrideHoldsRow(frame.strides[1], frame.width)) {
        return KIV_ERROR_FAILED;
    }
    if (frame.format == KIV_PIXEL_FORMAT_YUY2) return BuildYuy2(frame);
    if (frame.format == KIV_PIXEL_FORMAT_NV12) return BuildNv12(frame);
    return BuildRgb32(frame);
}

KivResult OsdCanvas::BuildYuy2(const KivVideoFrame& frame) {
    const size_t rowBytes = static_cast<size_t>((int64_t{frame.width} + 1) & ~int64_t{1}) * 2;
    if (!SizeFrameBuffer(plane0_, static_cast<int64_t>(rowBytes) * frame.height)) return KIV_ERROR_FAILED;
    width_ = frame.width;
    height_ = frame.height;
    format_ = KIV_PIXEL_FORMAT_YUY2;
    const int64_t stride = frame.strides[0] >= 1 ? frame.strides[0] : int64_t{frame.width} * 2;
    const size_t copy = static_cast<size_t>(std::min<int64_t>(stride, static_cast<int64_t>(rowBytes)));
    plane1_.clear();
    for (int32_t row = 0; row < height_; ++row) {
        uint8_t* dst = plane0_.data() + rowBytes * static_cast<size_t>(row);
        std::memcpy(dst, frame.planes[0] + stride * row, copy);
        std::memset(dst + copy, 128, rowBytes - copy);
    }
    return KIV_OK;
}

KivResult OsdCanvas::BuildNv12(const KivVideoFrame& frame) {
    const size_t lumaRow = static_cast<size_t>(frame.width);
    const size_t chromaRow = static_cast<size_t>((int64_t{frame.width} + 1) & ~int64_t{1});
    const size_t chromaRows = static_cast<size_t>((int64_t{frame.height} + 1) / 2);
    if (!SizeFrameBuffer(plane0_, static_cast<int64_t>(lumaRow) * frame.height) ||
        !SizeFrameBuffer(plane1_, static_cast<int64_t>(chromaRow * chromaRows))) {
        return KIV_ERROR_FAILED;
    }
    width_ = frame.width;
    height_ = frame.height;
    format_ = KIV_PIXEL_FORMAT_NV12;
    const int64_t lumaStride = frame.strides[0] >= 1 ? frame.strides[0] : int64_t{width_};
    const int64_t chromaStride = frame.strides[1] >= 1 ? frame.strides[1] : static_cast<int64_t>(chromaRow);
    const uint8_t* chroma = frame.planes[1] ? frame.planes[1] : frame.planes[0] + lumaStride * height_;

    const size_t lumaCopy = static_cast<size_t>(std::min<int64_t>(lumaStride, static_cast<int64_t>(lumaRow)));
    for (int32_t row = 0; row < height_; ++row) {
        uint8_t* dst = plane0_.data() + lumaRow * static_cast<size_t>(row);
        std::memcpy(dst, frame.planes[0] + lumaStride * row, lumaCopy);
        std::memset(dst + lumaCopy, 16, lumaRow - lumaCopy);
    }
    const size_t chromaCopy = static_cast<size_t>(std::min<int64_t>(chromaStride, static_cast<int64_t>(chromaRow)));
    for (size_t row = 0; row < chromaRows; ++row) {
        uint8_t* dst = plane1_.data() + chromaRow * row;
        std::memcpy(dst, chroma + chromaStride * static_cast<int64_t>(row), chromaCopy);
        std::memset(dst + chromaCopy, 128, chromaRow - chromaCopy);
    }
    return KIV_OK;
}

KivResult OsdCanvas::BuildRgb32(const KivVideoFrame& frame) {
    if (!frame.planes[0] || frame.width < 1 || frame.height < 1) return KIV_ERROR_INVALID_ARG;
    const int32_t format = frame.format;
    if (format != KIV_PIXEL_FORMAT_RGB32 && format != KIV_PIXEL_FORMAT_RGB24 && format != KIV_PIXEL_FORMAT_YUY2 &&
        format != KIV_PIXEL_FORMAT_NV12) {
        return KIV_ERROR_UNSUPPORTED;
    }
    if (format == KIV_PIXEL_FORMAT_NV12 && !frame.planes[1]) return KIV_ERROR_UNSUPPORTED;

    const int32_t w = frame.width;
    const int32_t h = frame.height;
    const int64_t stride0 = frame.strides[0];
    // Rows the source buffer cannot hold are not followed.
    if (!StrideHoldsRow(stride0, PackedRowBytes(format, w))) return KIV_ERROR_FAILED;
    const size_t rowBytes = static_cast<size_t>(w) * 4;
    if (!SizeFrameBuffer(bgra_, static_cast<int64_t>(rowBytes) * h)) return KIV_ERROR_FAILED;
    width_ = w;
    height_ = h;
    format_ = KIV_PIXEL_FORMAT_RGB32;

    for (int32_t row = 0; row < h; ++row) {
        uint8_t* dst = bgra_.data() + rowBytes * static_cast<size_t>(row);
        const uint8_t* src = frame.planes[0] + stride0 * row;
        switch (format) {
        case KIV_PIXEL_FORMAT_RGB32:
            std::memcpy(dst, src, rowBytes);
            break;
        case KIV_PIXEL_FORMAT_RGB24:
            for (int32_t x = 0; x < w; ++x, dst += 4, src += 3) {
                dst[0] = src[0];
                dst[1] = src[1];
                dst[2] = src[2];
                dst[3] = 255;
            }
            break;
        case KIV_PIXEL_FORMAT_YUY2:
            for (int32_t x = 0; x < w; x += 2, src += 4) {
                // A lone last pixel of an odd-width row may have no Cr byte in the buffer.
                const bool pairInRow = x + 1 < w || int64_t{x} * 2 + 4 <= (stride0 < 0 ? -stride0 : stride0);
                OsdYccToBgr(src[0], src[1], pairInRow ? src[3] : 128, dst + x * 4);
                dst[x * 4 + 3] = 255;
                if (x + 1 < w) {
                    OsdYccToBgr(src[2], src[1], src[3], dst + (x + 1) * 4);
                    dst[(x + 1) * 4 + 3] = 255;
                }
            }
            break;
        default: {  // NV12
            const int64_t chromaStride = frame.strides[1] >= 1 ? frame.strides[1] : int64_t{w};
            const uint8_t* chroma = frame.planes[1] + chromaStride * (row / 2);
            for (int32_t x = 0; x < w; ++x) {
                const uint8_t* pair = chroma + (x & ~1);
                OsdYccToBgr(src[x], pair[0], pair[1], dst + x * 4);
                dst[x * 4 + 3] = 255;
            }
            break;
        }
        }
    }
    return KIV_OK;
}

void OsdCanvas::BlendPixel(int32_t x, int32_t y, uint8_t blue, uint8_t green, uint8_t red, uint8_t alpha,
                           float opacity) {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
    float a = static_cast<float>(alpha) / 255.0f * opacity;
    if (!(a > 0.0f)) return;
    if (a > 1.0f) a = 1.0f;

    if (format_ == KIV_PIXEL_FORMAT_RGB32) {
        uint8_t* p = bgra_.data() + (static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x)) * 4;
        p[0] = OsdBlendByte(p[0], blue, a);
        p[1] = OsdBlendByte(p[1], green, a);
        p[2] = OsdBlendByte(p[2], red, a);
        p[3] = 255;
        return;
    }
    const OsdYcc c = OsdRgbToYcc(red, green, blue);
    const size_t even = static_cast<size_t>(EvenWidth());
    const size_t pairX = static_cast<size_t>(x & ~1);
    if (format_ == KIV_PIXEL_FORMAT_YUY2) {
        if (plane0_.empty()) return;
        uint8_t* group = plane0_.data() + static_cast<size_t>(y) * even * 2 + pairX * 2;
        uint8_t& luma = (x & 1) ? group[2] : group[0];
        luma = OsdBlendByte(luma, c.y, a);
        group[1] = OsdBlendByte(group[1], c.cb, a);
        group[3] = OsdBlendByte(group[3], c.cr, a);
    } else if (format_ == KIV_PIXEL_FORMAT_NV12) {
        if (plane0_.empty() || plane1_.empty()) return;
        uint8_t& luma = plane0_[static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x)];
        luma = OsdBlendByte(luma, c.y, a);
        uint8_t* pair = plane1_.data() + static_cast<size_t>(y / 2) * even + pairX;
        pair[0] = OsdBlendByte(pair[0], c.cb, a);
        pair[1] = OsdBlendByte(pair[1], c.cr, a);
    }
}

void OsdCanvas::BlendBgraSpan(int32_t x, int32_t y, const uint8_t* bgra, int32_t count, float opacity, bool keyed,
                              uint32_t keyArgb) {
    const uint8_t keyB = static_cast<uint8_t>(keyArgb), keyG = static_cast<uint8_t>(keyArgb >> 8),
                  keyR = static_cast<uint8_t>(keyArgb >> 16);
    for (int32_t i = 0; i < count; ++i, bgra += 4) {
        uint8_t alpha = bgra[3];
        if (keyed && bgra[0] == keyB && bgra[1] == keyG && bgra[2] == keyR) alpha = 0;
        BlendPixel(x + i, y, bgra[0], bgra[1], bgra[2], alpha, opacity);
    }
}

KivVideoFrame OsdCanvas::Frame(const KivVideoFrame& source) {
    KivVideoFrame out{};
    out.width = width_;
    out.height = height_;
    out.format = format_;
    if (format_ == KIV_PIXEL_FORMAT_YUY2) {
        out.planes[0] = plane0_.data();
        out.strides[0] = ((width_ + 1) / 2) * 4;
    } else if (format_ == KIV_PIXEL_FORMAT_NV12) {
        out.planes[0] = plane0_.data();
        out.strides[0] = width_;
        out.planes[1] = plane1_.data();
        out.strides[1] = EvenWidth();
    } else {
        out.planes[0] = bgra_.data();
        out.strides[0] = width_ * 4;
    }
    out.timestamp = source.timestamp;
    out.frameIndex = source.frameIndex;
    return out;
}

}  // namespace kiv
