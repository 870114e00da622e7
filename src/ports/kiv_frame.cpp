#include "kiv_frame.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "../core/kiv_platform.h"

namespace kiv {

int64_t RequiredFrameBytes(int32_t format, int32_t width, int32_t height) {
    const int64_t w = width, h = height;
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: return w * 2 * h;
        case KIV_PIXEL_FORMAT_NV12: return w * (h + (h + 1) / 2);
        case KIV_PIXEL_FORMAT_RGB24: return w * 3 * h;
        case KIV_PIXEL_FORMAT_RGB32: return w * 4 * h;
        default: return -1;
    }
}

void FillPackedLayout(KivVideoFrame* frame, uint8_t* buffer) {
    const int32_t w = frame->width;
    for (int i = 0; i < 4; ++i) {
        frame->planes[i] = nullptr;
        frame->strides[i] = 0;
    }
    frame->planes[0] = buffer;
    switch (frame->format) {
        case KIV_PIXEL_FORMAT_YUY2: frame->strides[0] = w * 2; break;
        case KIV_PIXEL_FORMAT_NV12:
            frame->strides[0] = w;
            frame->strides[1] = w;
            frame->planes[1] = buffer + static_cast<size_t>(frame->height) * static_cast<size_t>(w);
            break;
        case KIV_PIXEL_FORMAT_RGB24: frame->strides[0] = w * 3; break;
        case KIV_PIXEL_FORMAT_RGB32: frame->strides[0] = w * 4; break;
        default: break;
    }
}

bool IsUncompressed(int32_t format) {
    return format >= KIV_PIXEL_FORMAT_YUY2 && format <= KIV_PIXEL_FORMAT_RGB32;
}

int64_t PackedRowBytes(int32_t format, int32_t width) {
    if (width < 1) return 0;
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: return int64_t{width} * 2;
        case KIV_PIXEL_FORMAT_NV12: return width;
        case KIV_PIXEL_FORMAT_RGB24: return int64_t{width} * 3;
        case KIV_PIXEL_FORMAT_RGB32: return int64_t{width} * 4;
        default: return 0;
    }
}

bool SizeFrameBuffer(std::vector<uint8_t>& buffer, int64_t bytes) {
    if (bytes < 0 || bytes > kMaxFrameBufferBytes) return false;
    try {
        buffer.resize(static_cast<size_t>(bytes));
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    return true;
}

namespace {

// Copies `rows` rows of |stride| bytes into `out`, turning a negative stride
// into top-down order; false when the rows would not fit a frame buffer.
bool CopyRows(const uint8_t* src, int32_t stride, int32_t rows, std::vector<uint8_t>& out) {
    const int64_t rowBytes64 = std::abs(static_cast<int64_t>(stride));
    if (!SizeFrameBuffer(out, rowBytes64 * rows)) return false;
    const size_t rowBytes = static_cast<size_t>(rowBytes64);
    if (stride > 0) {
        std::memcpy(out.data(), src, out.size());
        return true;
    }
    for (int32_t r = 0; r < rows; ++r) {
        std::memcpy(out.data() + rowBytes * static_cast<size_t>(r), src + static_cast<ptrdiff_t>(stride) * r, rowBytes);
    }
    return true;
}

}  // namespace

void FrameCopy::Clear() { frame_ = KivVideoFrame{}; }

bool FrameCopy::Copy(const KivVideoFrame& source) {
    frame_ = source;
    for (int i = 0; i < 4; ++i) frame_.planes[i] = nullptr;
    for (int i = 1; i < 4; ++i) frame_.strides[i] = 0;
    if (source.width < 1 || source.height < 1 || !source.planes[0]) {
        frame_.planes[0] = nullptr;
        return false;
    }
    const int32_t w = source.width, h = source.height;
    switch (source.format) {
        case KIV_PIXEL_FORMAT_NV12: {
            // A zero NV12 stride means a tightly packed plane of width W; the
            // chroma plane has (H + 1) / 2 rows, so odd heights keep their last row.
            const int32_t luma = source.strides[0] == 0 ? w : source.strides[0];
            if (!CopyRows(source.planes[0], luma, h, planes_[0])) return false;
            frame_.strides[0] = std::abs(luma);
            if (source.planes[1]) {
                const int32_t chroma = source.strides[1] == 0 ? w : source.strides[1];
                if (!CopyRows(source.planes[1], chroma, (h + 1) / 2, planes_[1])) return false;
                frame_.strides[1] = std::abs(chroma);
                frame_.planes[1] = planes_[1].data();
            }
            break;
        }
        case KIV_PIXEL_FORMAT_MJPG:
        case KIV_PIXEL_FORMAT_H264: {
            if (source.strides[0] <= 0 || !SizeFrameBuffer(planes_[0], source.strides[0])) return false;
            std::memcpy(planes_[0].data(), source.planes[0], planes_[0].size());
            break;
        }
        default: {
            if (source.strides[0] == 0 || !CopyRows(source.planes[0], source.strides[0], h, planes_[0])) return false;
            frame_.strides[0] = std::abs(source.strides[0]);
            break;
        }
    }
    frame_.planes[0] = planes_[0].data();
    return true;
}

int32_t PixelFormatFromSubtype(const Guid& subtype) {
    // FOURCC subtypes share the tail {0000-0010-8000-00aa00389b71}; the two RGB
    // subtypes are the classic e436eb7x-524f-11ce-9f53-0020af0ba770.
    static const uint8_t kFourccTail[8] = {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};
    static const uint8_t kRgbTail[8] = {0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70};
    struct Entry {
        uint32_t data1;
        uint16_t data2, data3;
        const uint8_t* tail;
        int32_t format;
    };
    static const Entry kTable[] = {
        {0x32595559, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_YUY2},
        {0xe436eb7d, 0x524f, 0x11ce, kRgbTail, KIV_PIXEL_FORMAT_RGB24},
        {0xe436eb7e, 0x524f, 0x11ce, kRgbTail, KIV_PIXEL_FORMAT_RGB32},
        {0x47504a4d, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_MJPG},
        {0x3231564e, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_NV12},
        {0x34363248, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_H264},  // "H264"
        {0x34363268, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_H264},  // "h264"
        {0x31435641, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_H264},  // "AVC1"
        {0x31637661, 0x0000, 0x0010, kFourccTail, KIV_PIXEL_FORMAT_H264},  // "avc1"
    };
    for (const Entry& e : kTable) {
        if (subtype.data1 == e.data1 && subtype.data2 == e.data2 && subtype.data3 == e.data3 &&
            std::memcmp(subtype.data4, e.tail, 8) == 0) {
            return e.format;
        }
    }
    return KIV_PIXEL_FORMAT_NONE;
}

int64_t SteadyNow100ns() { return platform::SteadyNow100ns(); }

}  // namespace kiv
