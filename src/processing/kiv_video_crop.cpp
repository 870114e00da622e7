#include "kiv_video_crop.h"

#include <algorithm>
#include <cstring>

#include "kiv_log.h"
#include "ports/kiv_frame.h"

namespace {

void CopyRows(uint8_t* dst, const uint8_t* src, ptrdiff_t srcStride, size_t rowBytes, int32_t rows) {
    for (int32_t i = 0; i < rows; ++i) {
        std::memcpy(dst + rowBytes * static_cast<size_t>(i), src + srcStride * i, rowBytes);
    }
}

}  // namespace

KivVideoCrop::KivVideoCrop() : KivPortBase(KIV_PORT_VIDEO_CROP) {}

KivVideoCrop::~KivVideoCrop() = default;

void KivVideoCrop::SetRect(const KivVideoCropRect& rect) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    rect_ = rect;
    KIV_LOG("VideoCrop set rect x=%d y=%d w=%d h=%d", rect_.x, rect_.y, rect_.w, rect_.h);
}

void KivVideoCrop::Enable(int32_t enable) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    enabled_ = enable != 0 ? 1 : 0;
    KIV_LOG("VideoCrop enable=%d", static_cast<int>(enabled_));
}

int32_t KivVideoCrop::OnVideoFrame(const KivVideoFrame* frame) {
    if (!frame) return KIV_ERROR_INVALID_ARG;
    KivVideoCropRect rect;
    uint8_t enabled;
    {
        std::lock_guard<std::mutex> lock(settingsMutex_);
        rect = rect_;
        enabled = enabled_;
    }
    if (!enabled) {
        EmitVideo(frame);
        return KIV_OK;
    }

    const int32_t width = frame->width;
    const int32_t height = frame->height;
    const int32_t format = frame->format;
    auto bypassInvalid = [&] {
        KIV_LOG("VideoCrop invalid rect, bypass frame %dx%d fmt=%d", width, height, format);
        EmitVideo(frame);
        return KIV_OK;
    };
    if (width < 1 || height < 1) return bypassInvalid();

    int32_t x = std::max(rect.x, 0);
    int32_t y = std::max(rect.y, 0);
    if (x >= width || y >= height) return bypassInvalid();
    // An oversized or non-positive size reaches to the frame's edge.
    int32_t w = (rect.w > 0 && static_cast<int64_t>(x) + rect.w <= width) ? rect.w : width - x;
    int32_t h = (rect.h > 0 && static_cast<int64_t>(y) + rect.h <= height) ? rect.h : height - y;
    // Chroma is shared by pixel pairs (and by row pairs in NV12), so the
    // rectangle must start and span on those boundaries.
    if (format == KIV_PIXEL_FORMAT_YUY2) {
        x &= ~1;
        w &= ~1;
    } else if (format == KIV_PIXEL_FORMAT_NV12) {
        x &= ~1;
        y &= ~1;
        w &= ~1;
        h &= ~1;
    }
    if (w < 1 || h < 1) return bypassInvalid();

    if (!kiv::IsUncompressed(format)) {
        KIV_LOG("VideoCrop unsupported format=%d, bypass", format);
        EmitVideo(frame);
        return KIV_OK;
    }
    // Nothing to copy from, or rows the frame's buffer cannot hold: the frame
    // passes untouched rather than have its pixels read past their end.
    const ptrdiff_t stride0 = frame->strides[0];
    const ptrdiff_t chromaStride = frame->strides[1] != 0 ? frame->strides[1] : stride0;
    const bool rowsFit = kiv::StrideHoldsRow(stride0, kiv::PackedRowBytes(format, width)) &&
                         (format != KIV_PIXEL_FORMAT_NV12 || kiv::StrideHoldsRow(chromaStride, width));
    if (!frame->planes[0] || !rowsFit) {
        EmitVideo(frame);
        return KIV_OK;
    }

    const int32_t bpp = format == KIV_PIXEL_FORMAT_YUY2    ? 2
                        : format == KIV_PIXEL_FORMAT_RGB24 ? 3
                        : format == KIV_PIXEL_FORMAT_RGB32 ? 4
                                                           : 1;
    const size_t rowBytes = static_cast<size_t>(w) * static_cast<size_t>(bpp);
    KivWorkPool<Buffers>::Lease buffers = buffers_.Acquire();
    if (!buffers || !kiv::SizeFrameBuffer(buffers->plane0, static_cast<int64_t>(rowBytes) * h) ||
        (format == KIV_PIXEL_FORMAT_NV12 && !kiv::SizeFrameBuffer(buffers->plane1, static_cast<int64_t>(w) * (h / 2)))) {
        EmitVideo(frame);  // no memory for the copy
        return KIV_OK;
    }

    KivVideoFrame out = *frame;
    for (int i = 1; i < 4; ++i) {
        out.planes[i] = nullptr;
        out.strides[i] = 0;
    }
    CopyRows(buffers->plane0.data(), frame->planes[0] + y * stride0 + static_cast<ptrdiff_t>(x) * bpp, stride0,
             rowBytes, h);
    if (format == KIV_PIXEL_FORMAT_NV12) {
        const uint8_t* chromaBase =
            frame->planes[1] ? frame->planes[1] : frame->planes[0] + static_cast<ptrdiff_t>(height) * stride0;
        CopyRows(buffers->plane1.data(), chromaBase + (y / 2) * chromaStride + x, chromaStride, rowBytes, h / 2);
        out.planes[1] = buffers->plane1.data();
        out.strides[1] = w;
    }
    out.planes[0] = buffers->plane0.data();
    out.strides[0] = static_cast<int32_t>(rowBytes);
    out.width = w;
    out.height = h;
    EmitVideo(&out);
    return KIV_OK;
}
