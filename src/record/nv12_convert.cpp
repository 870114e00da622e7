#include "nv12_convert.h"

#include <cstring>

namespace kiv {

namespace {

struct Yuv {
    int y, cb, cr;
};

uint8_t ClampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

Yuv FromRgb(int b, int g, int r) {
    return {((66 * r + 129 * g + 25 * b + 128) >> 8) + 16, ((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128,
            ((112 * r - 94 * g - 18 * b + 128) >> 8) + 128};
}

// Reads one source pixel of a validated frame.
class PixelReader {
public:
    explicit PixelReader(const KivVideoFrame& f) : f_(f) {
        stride_ = f.strides[0];
        chroma_ = f.planes[1];
        chromaStride_ = f.strides[1];
        if (f.format == KIV_PIXEL_FORMAT_NV12 && !chroma_) {
            chroma_ = f.planes[0] + static_cast<size_t>(stride_) * static_cast<size_t>(f.height);
            chromaStride_ = stride_;
        }
    }

    Yuv At(int x, int y) const {
        const uint8_t* row = f_.planes[0] + static_cast<size_t>(stride_) * static_cast<size_t>(y);
        switch (f_.format) {
            case KIV_PIXEL_FORMAT_YUY2: {
                const uint8_t* group = row + static_cast<size_t>(x / 2) * 4;
                return {group[(x & 1) ? 2 : 0], group[1], group[3]};
            }
            case KIV_PIXEL_FORMAT_NV12: {
                const uint8_t* pair =
                    chroma_ + static_cast<size_t>(chromaStride_) * static_cast<size_t>(y / 2) + static_cast<size_t>(x & ~1);
                return {row[x], pair[0], pair[1]};
            }
            case KIV_PIXEL_FORMAT_RGB24: {
                const uint8_t* p = row + static_cast<size_t>(x) * 3;
                return FromRgb(p[0], p[1], p[2]);
            }
            default: {
                const uint8_t* p = row + static_cast<size_t>(x) * 4;
                return FromRgb(p[0], p[1], p[2]);
            }
        }
    }

private:
    const KivVideoFrame& f_;
    int32_t stride_;
    const uint8_t* chroma_;
    int32_t chromaStride_;
};

int32_t BytesPerPixelRow(int32_t format, int32_t width) {
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: return ((width + 1) / 2) * 4;
        case KIV_PIXEL_FORMAT_NV12: return width;
        case KIV_PIXEL_FORMAT_RGB24: return width * 3;
        case KIV_PIXEL_FORMAT_RGB32: return width * 4;
        default: return -1;
    }
}

void Resize(std::vector<uint8_t>* out, size_t bytes) { out->resize(bytes, 128); }

}  // namespace

size_t Nv12Bytes(int32_t width, int32_t height) {
    const size_t w = static_cast<size_t>(width);
    return w * static_cast<size_t>(height) + w * static_cast<size_t>(height / 2);
}

int32_t ConvertToNv12(const KivVideoFrame& frame, int32_t width, int32_t height, std::vector<uint8_t>* out) {
    if (width < 1 || height < 1 || !out) return KIV_ERROR_INVALID_ARG;
    const size_t w = static_cast<size_t>(width);
    const int32_t chromaRows = height / 2;

    if (frame.format == KIV_PIXEL_FORMAT_NV12 && frame.width == width && frame.height == height) {
        if (!frame.planes[0] || frame.strides[0] < width) return KIV_ERROR_INVALID_ARG;
        const uint8_t* chroma = frame.planes[1];
        int32_t chromaStride = frame.strides[1];
        if (!chroma) {
            chroma = frame.planes[0] + static_cast<size_t>(frame.strides[0]) * static_cast<size_t>(height);
            chromaStride = frame.strides[0];
        }
        if (chromaStride < width) return KIV_ERROR_INVALID_ARG;
        Resize(out, Nv12Bytes(width, height));
        uint8_t* dst = out->data();
        for (int32_t y = 0; y < height; ++y, dst += w) {
            std::memcpy(dst, frame.planes[0] + static_cast<size_t>(frame.strides[0]) * static_cast<size_t>(y), w);
        }
        for (int32_t y = 0; y < chromaRows; ++y, dst += w) {
            std::memcpy(dst, chroma + static_cast<size_t>(chromaStride) * static_cast<size_t>(y), w);
        }
        return KIV_OK;
    }

    if (frame.width < 1 || frame.height < 1 || !frame.planes[0]) return KIV_ERROR_INVALID_ARG;
    const int32_t rowBytes = BytesPerPixelRow(frame.format, frame.width);
    if (rowBytes < 0) return KIV_ERROR_UNSUPPORTED;
    if (frame.strides[0] < rowBytes) return KIV_ERROR_INVALID_ARG;
    if (frame.format == KIV_PIXEL_FORMAT_NV12 && frame.planes[1] && frame.strides[1] < frame.width) {
        return KIV_ERROR_INVALID_ARG;
    }

    Resize(out, Nv12Bytes(width, height));
    uint8_t* luma = out->data();
    uint8_t* chroma = luma + w * static_cast<size_t>(height);
    const PixelReader reader(frame);
    for (int32_t y = 0; y < height; ++y) {
        const int sy = static_cast<int>(static_cast<int64_t>(y) * frame.height / height);
        // Chroma comes from even rows only, and only where the plane has a
        // row and a Cr byte for it (odd sizes leave the last row/column out).
        const bool chromaRow = (y & 1) == 0 && y / 2 < chromaRows;
        uint8_t* lumaRow = luma + w * static_cast<size_t>(y);
        uint8_t* chromaLine = chroma + w * static_cast<size_t>(y / 2);
        for (int32_t x = 0; x < width; ++x) {
            const int sx = static_cast<int>(static_cast<int64_t>(x) * frame.width / width);
            const Yuv p = reader.At(sx, sy);
            lumaRow[x] = ClampByte(p.y);
            if (chromaRow && (x & 1) == 0 && x + 1 < width) {
                chromaLine[x] = ClampByte(p.cb);
                chromaLine[x + 1] = ClampByte(p.cr);
            }
        }
    }
    return KIV_OK;
}

}  // namespace kiv
