#include "nv12_convert.h"

#include <cstring>
#include <new>

#include "ports/kiv_frame.h"

namespace kiv {

namespace {

uint8_t ClampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

int LumaFromRgb(int b, int g, int r) { return ((66 * r + 129 * g + 25 * b + 128) >> 8) + 16; }
int CbFromRgb(int b, int g, int r) { return ((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128; }
int CrFromRgb(int b, int g, int r) { return ((112 * r - 94 * g - 18 * b + 128) >> 8) + 128; }

// One source row of each format: the luma of a pixel, and its Cb/Cr.
struct Yuy2Row {
    const uint8_t* row;
    int stride;
    int Luma(int x) const { return row[2 * x]; }  // Y0 and Y1 sit at bytes 0 and 2 of each 4-byte group
    // An odd-width row of 2 x width bytes ends in half a group: no Cr there.
    void Chroma(int x, uint8_t* out) const {
        const int group = (x / 2) * 4;
        out[0] = row[group + 1];
        out[1] = group + 3 < stride ? row[group + 3] : 128;
    }
};

struct Nv12Row {
    const uint8_t* row;
    const uint8_t* chromaRow;
    int chromaStride;
    int Luma(int x) const { return row[x]; }
    // An odd-width frame whose chroma rows are only `width` bytes has no Cr
    // for its last column: that one is neutral.
    void Chroma(int x, uint8_t* out) const {
        const int even = x & ~1;
        out[0] = chromaRow[even];
        out[1] = even + 1 < chromaStride ? chromaRow[even + 1] : 128;
    }
};

template <int BytesPerPixel>
struct RgbRow {
    const uint8_t* row;  // blue, green, red (and a fourth byte for RGB32)
    int Luma(int x) const {
        const uint8_t* p = row + static_cast<size_t>(x) * BytesPerPixel;
        return LumaFromRgb(p[0], p[1], p[2]);
    }
    void Chroma(int x, uint8_t* out) const {
        const uint8_t* p = row + static_cast<size_t>(x) * BytesPerPixel;
        out[0] = ClampByte(CbFromRgb(p[0], p[1], p[2]));
        out[1] = ClampByte(CrFromRgb(p[0], p[1], p[2]));
    }
};

struct Source {
    const uint8_t* plane;
    int32_t stride;
    const uint8_t* chroma;  // NV12 only
    int32_t chromaStride;
};

Yuy2Row MakeRow(const Source& s, int sy, Yuy2Row*) { return {s.plane + static_cast<size_t>(s.stride) * sy, s.stride}; }
Nv12Row MakeRow(const Source& s, int sy, Nv12Row*) {
    return {s.plane + static_cast<size_t>(s.stride) * sy, s.chroma + static_cast<size_t>(s.chromaStride) * (sy / 2),
            s.chromaStride};
}
template <int N>
RgbRow<N> MakeRow(const Source& s, int sy, RgbRow<N>*) {
    return {s.plane + static_cast<size_t>(s.stride) * sy};
}

// Nearest-neighbour scaling: output (x, y) takes source (xmap[x], y * sourceHeight / height).
// Chroma comes from the top-left pixel of each 2 x 2 block, and only where
// the plane has a row and a Cr byte for it (odd sizes leave the last
// row/column out).
template <class Row, bool kSameWidth>
void Scale(const Source& src, int32_t sourceHeight, const int32_t* xmap, int32_t width, int32_t height,
           uint8_t* luma, uint8_t* chroma) {
    const size_t w = static_cast<size_t>(width);
    const int32_t chromaRows = height / 2;
    for (int32_t y = 0; y < height; ++y) {
        const int sy = static_cast<int>(static_cast<int64_t>(y) * sourceHeight / height);
        const Row row = MakeRow(src, sy, static_cast<Row*>(nullptr));
        uint8_t* lumaRow = luma + w * static_cast<size_t>(y);
        // Without horizontal scaling the row is read straight, which the
        // compiler can vectorise.
        for (int32_t x = 0; x < width; ++x) lumaRow[x] = ClampByte(row.Luma(kSameWidth ? x : xmap[x]));
        if ((y & 1) != 0 || y / 2 >= chromaRows) continue;
        uint8_t* chromaLine = chroma + w * static_cast<size_t>(y / 2);
        for (int32_t x = 0; x + 1 < width; x += 2) row.Chroma(kSameWidth ? x : xmap[x], chromaLine + x);
    }
}

template <bool kSameWidth>
void ScaleFormat(int32_t format, const Source& src, int32_t sourceHeight, const int32_t* xmap, int32_t width,
                 int32_t height, uint8_t* luma, uint8_t* chroma) {
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2:
            Scale<Yuy2Row, kSameWidth>(src, sourceHeight, xmap, width, height, luma, chroma);
            break;
        case KIV_PIXEL_FORMAT_NV12:
            Scale<Nv12Row, kSameWidth>(src, sourceHeight, xmap, width, height, luma, chroma);
            break;
        case KIV_PIXEL_FORMAT_RGB24:
            Scale<RgbRow<3>, kSameWidth>(src, sourceHeight, xmap, width, height, luma, chroma);
            break;
        default: Scale<RgbRow<4>, kSameWidth>(src, sourceHeight, xmap, width, height, luma, chroma); break;
    }
}

int32_t BytesPerPixelRow(int32_t format, int32_t width) {
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: return width * 2;
        case KIV_PIXEL_FORMAT_NV12: return width;
        case KIV_PIXEL_FORMAT_RGB24: return width * 3;
        case KIV_PIXEL_FORMAT_RGB32: return width * 4;
        default: return -1;
    }
}

// False when a configured size asks for more than a frame buffer may hold.
bool ResizeNv12(std::vector<uint8_t>* out, int32_t width, int32_t height) {
    const int64_t bytes = int64_t{width} * height + int64_t{width} * (height / 2);
    if (bytes > kMaxFrameBufferBytes) return false;
    try {
        out->resize(static_cast<size_t>(bytes), 128);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

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
        if (!ResizeNv12(out, width, height)) return KIV_ERROR_FAILED;
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

    if (!ResizeNv12(out, width, height)) return KIV_ERROR_FAILED;
    uint8_t* luma = out->data();
    uint8_t* chroma = luma + w * static_cast<size_t>(height);
    // Source column of each output column, kept per thread so that a warm
    // converter allocates nothing.
    thread_local std::vector<int32_t> xmap;
    try {
        xmap.resize(w);
    } catch (const std::bad_alloc&) {
        return KIV_ERROR_FAILED;
    }
    for (int32_t x = 0; x < width; ++x) {
        xmap[static_cast<size_t>(x)] = static_cast<int32_t>(static_cast<int64_t>(x) * frame.width / width);
    }
    Source src{frame.planes[0], frame.strides[0], frame.planes[1], frame.strides[1]};
    if (frame.format == KIV_PIXEL_FORMAT_NV12 && !src.chroma) {
        src.chroma = frame.planes[0] + static_cast<size_t>(frame.strides[0]) * static_cast<size_t>(frame.height);
        src.chromaStride = frame.strides[0];
    }
    if (frame.width == width) {
        ScaleFormat<true>(frame.format, src, frame.height, xmap.data(), width, height, luma, chroma);
    } else {
        ScaleFormat<false>(frame.format, src, frame.height, xmap.data(), width, height, luma, chroma);
    }
    return KIV_OK;
}

}  // namespace kiv
