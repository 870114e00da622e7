#include "render_convert.h"

#include <algorithm>
#include <cstring>

namespace {

uint8_t Clamp255(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

int32_t StrideOr(int32_t stride, int32_t fallback) { return stride < 1 ? fallback : stride; }

// Reads pixels of a source frame as BGR. Strides below 1 take the tight
// value; bytes that would lie past a row's stride (the last chroma pair of an
// odd width) read as neutral chroma.
class SourceReader {
public:
    explicit SourceReader(const KivVideoFrame& f) : f_(f) {
        const int32_t w = f.width;
        switch (f.format) {
        case KIV_PIXEL_FORMAT_YUY2: stride_ = StrideOr(f.strides[0], w * 2); break;
        case KIV_PIXEL_FORMAT_RGB24: stride_ = StrideOr(f.strides[0], w * 3); break;
        case KIV_PIXEL_FORMAT_RGB32: stride_ = StrideOr(f.strides[0], w * 4); break;
        case KIV_PIXEL_FORMAT_NV12:
            stride_ = StrideOr(f.strides[0], w);
            chromaStride_ = StrideOr(f.strides[1], w);
            chroma_ = f.planes[1] ? f.planes[1]
                                  : (f.planes[0] ? f.planes[0] + static_cast<size_t>(stride_) * f.height : nullptr);
            break;
        default: break;
        }
    }

    // Fills count pixels of row y at the given source columns.
    void Row(int32_t y, const int32_t* columns, int32_t count, KivBgr* out) const {
        const uint8_t* base = f_.planes[0];
        if (!base || stride_ == 0) {
            std::memset(out, 0, sizeof(KivBgr) * static_cast<size_t>(count));
            return;
        }
        const uint8_t* row = base + static_cast<size_t>(stride_) * y;
        switch (f_.format) {
        case KIV_PIXEL_FORMAT_RGB32:
            for (int32_t i = 0; i < count; ++i) {
                const uint8_t* p = row + static_cast<size_t>(columns[i]) * 4;
                out[i] = {p[0], p[1], p[2]};
            }
            break;
        case KIV_PIXEL_FORMAT_RGB24:
            for (int32_t i = 0; i < count; ++i) {
                const uint8_t* p = row + static_cast<size_t>(columns[i]) * 3;
                out[i] = {p[0], p[1], p[2]};
            }
            break;
        case KIV_PIXEL_FORMAT_YUY2:
            for (int32_t i = 0; i < count; ++i) {
                const int32_t x = columns[i];
                const int32_t pair = (x & ~1) * 2;
                const uint8_t* p = row + pair;
                const int32_t v = pair + 3 < stride_ ? p[3] : 128;
                out[i] = KivRenderYuvToBgr((x & 1) ? p[2] : p[0], p[1], v);
            }
            break;
        case KIV_PIXEL_FORMAT_NV12: {
            const uint8_t* uv = chroma_ + static_cast<size_t>(chromaStride_) * (y / 2);
            for (int32_t i = 0; i < count; ++i) {
                const int32_t x = columns[i];
                const int32_t cx = x & ~1;
                const int32_t v = cx + 1 < chromaStride_ ? uv[cx + 1] : 128;
                out[i] = KivRenderYuvToBgr(row[x], uv[cx], v);
            }
            break;
        }
        default: std::memset(out, 0, sizeof(KivBgr) * static_cast<size_t>(count)); break;
        }
    }

private:
    const KivVideoFrame& f_;
    int32_t stride_ = 0;
    int32_t chromaStride_ = 0;
    const uint8_t* chroma_ = nullptr;
};

}  // namespace

KivBgr KivRenderYuvToBgr(int32_t y, int32_t u, int32_t v) {
    const int32_t c = y < 16 ? 0 : 298 * (y - 16);
    return {Clamp255((c + 516 * u - 65920) >> 8), Clamp255((c - 100 * u - 208 * v + 39552) >> 8),
            Clamp255((c + 409 * v - 52224) >> 8)};
}

void KivRenderBgrToYuv(const KivBgr& c, uint8_t* y, uint8_t* u, uint8_t* v) {
    const int32_t r = c.r, g = c.g, b = c.b;
    *y = static_cast<uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
    *u = static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
    *v = static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
}

int32_t KivRenderConverter::Convert(const KivVideoFrame& in, const KivVideoRenderConfig& config, KivVideoFrame* out) {
    const int32_t w = config.targetWidth < 1 ? in.width : config.targetWidth;
    const int32_t h = config.targetHeight < 1 ? in.height : config.targetHeight;
    const int32_t fmt =
        (config.targetFormat == 0 || config.targetFormat == KIV_PIXEL_FORMAT_MJPG) ? in.format : config.targetFormat;
    if (w == in.width && h == in.height && fmt == in.format) {
        *out = in;
        return KIV_OK;
    }
    if (fmt < KIV_PIXEL_FORMAT_YUY2 || fmt > KIV_PIXEL_FORMAT_RGB32) return KIV_ERROR_UNSUPPORTED;

    // Odd widths keep whole YUY2 pairs and whole NV12 chroma pairs per row.
    const int32_t evenW = w + (w & 1);
    int32_t stride0 = w * 4, stride1 = 0;
    size_t bytes = static_cast<size_t>(stride0) * h;
    if (fmt == KIV_PIXEL_FORMAT_RGB24) {
        stride0 = w * 3;
        bytes = static_cast<size_t>(stride0) * h;
    } else if (fmt == KIV_PIXEL_FORMAT_YUY2) {
        stride0 = evenW * 2;
        bytes = static_cast<size_t>(stride0) * h;
    } else if (fmt == KIV_PIXEL_FORMAT_NV12) {
        stride0 = w;
        stride1 = evenW;
        bytes = static_cast<size_t>(w) * h + static_cast<size_t>(evenW) * ((h + 1) / 2);
    }
    if (buffer_.size() < bytes) buffer_.resize(bytes);
    if (columns_.size() < static_cast<size_t>(evenW)) {
        columns_.resize(evenW);
        rowA_.resize(evenW);
        rowB_.resize(evenW);
    }
    for (int32_t x = 0; x < w; ++x) {
        columns_[x] = static_cast<int32_t>(static_cast<int64_t>(x) * in.width / w);
    }
    if (w & 1) columns_[w] = columns_[w - 1];  // padding pixel of the last pair

    *out = in;
    for (int i = 0; i < 4; ++i) {
        out->planes[i] = nullptr;
        out->strides[i] = 0;
    }
    out->width = w;
    out->height = h;
    out->format = fmt;
    out->planes[0] = buffer_.data();
    out->strides[0] = stride0;
    if (fmt == KIV_PIXEL_FORMAT_NV12) {
        out->planes[1] = buffer_.data() + static_cast<size_t>(w) * h;
        out->strides[1] = stride1;
    }

    SourceReader reader(in);
    auto sourceRow = [&](int32_t y) { return static_cast<int32_t>(static_cast<int64_t>(y) * in.height / h); };
    const int32_t rowPixels = fmt == KIV_PIXEL_FORMAT_RGB32 || fmt == KIV_PIXEL_FORMAT_RGB24 ? w : evenW;
    for (int32_t y = 0; y < h; ++y) {
        KivBgr* px = rowA_.data();
        reader.Row(sourceRow(y), columns_.data(), rowPixels, px);
        uint8_t* dst = buffer_.data() + static_cast<size_t>(stride0) * y;
        switch (fmt) {
        case KIV_PIXEL_FORMAT_RGB32:
            for (int32_t x = 0; x < w; ++x, dst += 4) {
                dst[0] = px[x].b;
                dst[1] = px[x].g;
                dst[2] = px[x].r;
                dst[3] = 255;
            }
            break;
        case KIV_PIXEL_FORMAT_RGB24:
            for (int32_t x = 0; x < w; ++x, dst += 3) {
                dst[0] = px[x].b;
                dst[1] = px[x].g;
                dst[2] = px[x].r;
            }
            break;
        case KIV_PIXEL_FORMAT_YUY2:
            for (int32_t x = 0; x < evenW; x += 2, dst += 4) {
                uint8_t u, v, y1, ignoredU, ignoredV;
                KivRenderBgrToYuv(px[x], &dst[0], &u, &v);
                KivRenderBgrToYuv(px[x + 1], &y1, &ignoredU, &ignoredV);
                dst[1] = u;
                dst[2] = y1;
                dst[3] = v;
            }
            break;
        default: {  // NV12: rows in pairs, chroma from the even row and column
            uint8_t* chroma = out->planes[1] + static_cast<size_t>(stride1) * (y / 2);
            uint8_t ignoredU, ignoredV;
            for (int32_t x = 0; x < w; ++x) {
                uint8_t u, v;
                KivRenderBgrToYuv(px[x], &dst[x], &u, &v);
                if ((x & 1) == 0) {
                    chroma[x] = u;
                    chroma[x + 1] = v;
                }
            }
            if (y + 1 < h) {
                ++y;
                reader.Row(sourceRow(y), columns_.data(), w, rowB_.data());
                uint8_t* next = buffer_.data() + static_cast<size_t>(stride0) * y;
                for (int32_t x = 0; x < w; ++x) KivRenderBgrToYuv(rowB_[x], &next[x], &ignoredU, &ignoredV);
            }
            break;
        }
        }
    }
    return KIV_OK;
}

int32_t KivRenderExpandToBgra(const KivVideoFrame& frame, std::vector<uint8_t>* out) {
    const int32_t w = frame.width, h = frame.height;
    if (w < 1 || h < 1 || !frame.planes[0]) return KIV_ERROR_INVALID_ARG;
    if (frame.format < KIV_PIXEL_FORMAT_YUY2 || frame.format > KIV_PIXEL_FORMAT_RGB32) return KIV_ERROR_UNSUPPORTED;
    const size_t rowBytes = static_cast<size_t>(w) * 4;
    if (out->size() != rowBytes * h) out->resize(rowBytes * h);
    if (frame.format == KIV_PIXEL_FORMAT_RGB32) {
        const int32_t stride = StrideOr(frame.strides[0], w * 4);
        for (int32_t y = 0; y < h; ++y) {
            std::memcpy(out->data() + rowBytes * y, frame.planes[0] + static_cast<size_t>(stride) * y, rowBytes);
        }
        return KIV_OK;
    }
    SourceReader reader(frame);
    // Scratch kept per thread so that expanding every frame allocates nothing.
    thread_local std::vector<int32_t> columns;
    thread_local std::vector<KivBgr> row;
    if (columns.size() < static_cast<size_t>(w)) {
        columns.resize(w);
        row.resize(w);
    }
    for (int32_t x = 0; x < w; ++x) columns[x] = x;
    for (int32_t y = 0; y < h; ++y) {
        reader.Row(y, columns.data(), w, row.data());
        uint8_t* dst = out->data() + rowBytes * y;
        for (int32_t x = 0; x < w; ++x, dst += 4) {
            dst[0] = row[x].b;
            dst[1] = row[x].g;
            dst[2] = row[x].r;
            dst[3] = 255;
        }
    }
    return KIV_OK;
}
