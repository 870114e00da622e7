#include "kiv_color_convert.h"

#include <cstring>

#include "kiv_color_math.h"
#include "kiv_color_rows_sse2.h"
#include "kiv_cube_lut.h"
#include "kiv_lut8_fast.h"

namespace kiv::color {

namespace {

inline int Clamp255(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// Where the planes of the input frame are, with the stride fallbacks for
// frames that leave their strides at zero.
struct SourceLayout {
    const uint8_t* plane0 = nullptr;
    ptrdiff_t stride0 = 0;
    const uint8_t* chroma = nullptr;  // NV12
    ptrdiff_t chromaStride = 0;
};

SourceLayout Layout(const KivVideoFrame& f) {
    SourceLayout s;
    const int32_t w = f.width;
    s.plane0 = f.planes[0];
    switch (f.format) {
        case KIV_PIXEL_FORMAT_YUY2: s.stride0 = f.strides[0] >= 1 ? f.strides[0] : w * 2; break;
        case KIV_PIXEL_FORMAT_RGB24: s.stride0 = f.strides[0] >= 1 ? f.strides[0] : w * 3; break;
        case KIV_PIXEL_FORMAT_RGB32: s.stride0 = f.strides[0] >= 1 ? f.strides[0] : w * 4; break;
        case KIV_PIXEL_FORMAT_NV12:
            s.stride0 = f.strides[0] >= 1 ? f.strides[0] : w;
            s.chromaStride = f.strides[1] >= 1 ? f.strides[1] : w;
            s.chroma = f.planes[1] ? f.planes[1] : (s.plane0 ? s.plane0 + s.stride0 * f.height : nullptr);
            break;
        default: break;
    }
    return s;
}

// The 8-bit YUV-to-RGB conversion split into per-component tables; the sums
// and shifts are those of the fixed-point rule, so the bytes are identical.
class YuvToRgbTables {
public:
    YuvToRgbTables(int32_t cs, int32_t range) : full_(range == 1) {
        const bool bt601 = cs == 1;
        for (int i = 0; i < 256; ++i) {
            if (full_) {
                y_[i] = i;
                rv_[i] = ((bt601 ? 359 : 403) * i - (bt601 ? 45824 : 51456)) >> 8;
                bu_[i] = ((bt601 ? 454 : 475) * i - (bt601 ? 57984 : 60672)) >> 8;
                gu_[i] = (bt601 ? 88 : 48) * i;
                gv_[i] = (bt601 ? 183 : 120) * i - (bt601 ? 34560 : 21376);
            } else {
                y_[i] = Clamp255(i - 16) * 298;
                rv_[i] = (bt601 ? 409 : 459) * i - (bt601 ? 52224 : 58624);
                bu_[i] = (bt601 ? 516 : 541) * i - (bt601 ? 65920 : 69120);
                gu_[i] = -(bt601 ? 100 : 55) * i;
                gv_[i] = -(bt601 ? 208 : 136) * i + (bt601 ? 39552 : 24576);
            }
        }
    }

    // rgb in red, green, blue order.
    inline void Convert(int y, int u, int v, uint8_t rgb[3]) const {
        int r, g, b;
        if (full_) {
            r = y + rv_[v];
            g = y - ((gu_[u] + gv_[v]) >> 8);
            b = y + bu_[u];
        } else {
            const int yc = y_[y];
            r = (yc + rv_[v]) >> 8;
            g = (yc + gu_[u] + gv_[v]) >> 8;
            b = (yc + bu_[u]) >> 8;
        }
        rgb[0] = static_cast<uint8_t>(Clamp255(r));
        rgb[1] = static_cast<uint8_t>(Clamp255(g));
        rgb[2] = static_cast<uint8_t>(Clamp255(b));
    }

private:
    bool full_;
    int y_[256], rv_[256], bu_[256], gu_[256], gv_[256];
};

// Brings row `row` of the input to 8-bit RGB, four bytes a pixel (red, green,
// blue and an unused byte).
void ReadRowRgb8(const FrameJob& job, const SourceLayout& src, const YuvToRgbTables& yuv, int32_t row,
                 uint8_t* rgb) {
    const KivVideoFrame& f = *job.in;
    const int32_t w = f.width;
    const uint8_t* line = src.plane0 + src.stride0 * row;
    switch (f.format) {
        case KIV_PIXEL_FORMAT_RGB24:
        case KIV_PIXEL_FORMAT_RGB32: {
            const int bpp = f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4;
            const int32_t done = bpp == 4 ? BgraRowToRgbx(line, w, rgb) : 0;
            line += done * bpp;
            rgb += done * 4;
            for (int32_t x = done; x < w; ++x, line += bpp, rgb += 4) {
                rgb[0] = line[2];
                rgb[1] = line[1];
                rgb[2] = line[0];
            }
            break;
        }
        case KIV_PIXEL_FORMAT_YUY2: {
            int32_t x = Yuy2RowToRgbx(line, w & ~1, job.cs, job.range, rgb);
            line += x * 2;
            rgb += x * 4;
            for (; x + 1 < w; x += 2, line += 4, rgb += 8) {
                yuv.Convert(line[0], line[1], line[3], rgb);
                yuv.Convert(line[2], line[1], line[3], rgb + 4);
            }
            if (x < w) yuv.Convert(line[0], line[1], 128, rgb);
            break;
        }
        case KIV_PIXEL_FORMAT_NV12: {
            const uint8_t* uv = src.chroma + src.chromaStride * (row / 2);
            int32_t x = Nv12RowToRgbx(line, uv, w & ~1, job.cs, job.range, rgb);
            rgb += x * 4;
            for (; x + 1 < w; x += 2, rgb += 8) {
                yuv.Convert(line[x], uv[x], uv[x + 1], rgb);
                yuv.Convert(line[x + 1], uv[x], uv[x + 1], rgb + 4);
            }
            if (x < w) yuv.Convert(line[x], uv[x], uv[x + 1], rgb);
            break;
        }
        default: break;
    }
}

// Row scratch owned by the caller; it grows only for a wider frame than any
// before, so a warmed-up frame path allocates nothing.
uint8_t* Scratch(const FrameJob& job, size_t bytes) {
    if (job.scratch->size() < bytes) job.scratch->resize(bytes);
    return job.scratch->data();
}

}  // namespace

namespace {

// The three bytes the float reader works from at (x, y): red, green, blue for
// RGB input, or Y, U and the V in use for YUV input.
bool PixelBytes(const FrameJob& job, const SourceLayout& src, int32_t x, int32_t y, uint8_t in[3]) {
    const KivVideoFrame& f = *job.in;
    if (!f.planes[0] || x < 0 || y < 0 || x >= f.width || y >= f.height) return false;
    const uint8_t* line = src.plane0 + src.stride0 * y;
    switch (f.format) {
        case KIV_PIXEL_FORMAT_RGB24:
        case KIV_PIXEL_FORMAT_RGB32: {
            const uint8_t* p = line + x * (f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4);
            in[0] = p[2];
            in[1] = p[1];
            in[2] = p[0];
            return true;
        }
        case KIV_PIXEL_FORMAT_YUY2: {
            const uint8_t* group = line + (x / 2) * 4;
            in[0] = (x & 1) ? group[2] : group[0];
            in[1] = group[1];
            // An unpaired last pixel of an odd-width row has no V of its own.
            in[2] = ((x & 1) == 0 && x == f.width - 1 && (f.width & 1)) ? group[1] : group[3];
            return true;
        }
        case KIV_PIXEL_FORMAT_NV12: {
            const uint8_t* uv = src.chroma + src.chromaStride * (y / 2) + (x & ~1);
            in[0] = line[x];
            in[1] = uv[0];
            in[2] = uv[1];
            return true;
        }
        default: return false;
    }
}

// PixelBytes for every pixel of row y, into three planar rows.
void RowBytes(const FrameJob& job, const SourceLayout& src, int32_t y, uint8_t* in0, uint8_t* in1, uint8_t* in2) {
    const KivVideoFrame& f = *job.in;
    const int32_t w = f.width;
    const uint8_t* line = src.plane0 + src.stride0 * y;
    int32_t x = 0;
    if (f.format == KIV_PIXEL_FORMAT_NV12) {
        const uint8_t* uv = src.chroma + src.chromaStride * (y / 2);
        std::memcpy(in0, line, static_cast<size_t>(w));
        for (; x < w; ++x) {
            in1[x] = uv[x & ~1];
            in2[x] = uv[(x & ~1) + 1];
        }
        return;
    }
    if (f.format == KIV_PIXEL_FORMAT_YUY2) {
        for (; x + 1 < w; x += 2) {
            const uint8_t* group = line + x * 2;
            in0[x] = group[0];
            in0[x + 1] = group[2];
            in1[x] = in1[x + 1] = group[1];
            in2[x] = in2[x + 1] = group[3];
        }
    }
    for (; x < w; ++x) {
        uint8_t px[3] = {0, 0, 0};
        PixelBytes(job, src, x, y, px);
        in0[x] = px[0];
        in1[x] = px[1];
        in2[x] = px[2];
    }
}

void BytesToFloat(const FrameJob& job, const uint8_t in[3], float rgb[3]) {
    if (job.in->format == KIV_PIXEL_FORMAT_RGB24 || job.in->format == KIV_PIXEL_FORMAT_RGB32) {
        for (int c = 0; c < 3; ++c) rgb[c] = in[c] / 255.0f;
    } else {
        YuvToRgbFloat(in[0], in[1], in[2], job.cs, job.range, rgb);
    }
}

bool ReadPixelFloatAt(const FrameJob& job, const SourceLayout& src, int32_t x, int32_t y, float rgb[3]) {
    uint8_t in[3];
    if (!PixelBytes(job, src, x, y, in)) return false;
    BytesToFloat(job, in, rgb);
    return true;
}

}  // namespace

bool ReadPixelFloat(const FrameJob& job, int32_t x, int32_t y, float rgb[3]) {
    return ReadPixelFloatAt(job, Layout(*job.in), x, y, rgb);
}

void ConvertToRgb(const FrameJob& job, int32_t bpp, uint8_t* out) {
    const KivVideoFrame& f = *job.in;
    const int32_t w = f.width, h = f.height;
    const SourceLayout src = Layout(f);
    const YuvToRgbTables yuv(job.cs, job.range);
    const Lut8Fast lut(job.lut, job.strength);
    uint8_t* rgb = Scratch(job, static_cast<size_t>(w) * 4);
    for (int32_t row = 0; row < h; ++row) {
        ReadRowRgb8(job, src, yuv, row, rgb);
        lut.ApplyRow(rgb, w);
        uint8_t* dst = out + static_cast<size_t>(row) * static_cast<size_t>(w) * static_cast<size_t>(bpp);
        const uint8_t* p = rgb;
        if (bpp == 4) {
            const int32_t done = RgbxRowToBgra(p, w, dst);
            p += done * 4;
            dst += done * 4;
            for (int32_t x = done; x < w; ++x, p += 4, dst += 4) {
                dst[0] = p[2];
                dst[1] = p[1];
                dst[2] = p[0];
                dst[3] = 255;
            }
        } else {
            for (int32_t x = 0; x < w; ++x, p += 4, dst += 3) {
                dst[0] = p[2];
                dst[1] = p[1];
                dst[2] = p[0];
            }
        }
    }
}

void ConvertToYuy2(const FrameJob& job, uint8_t* out) {
    const KivVideoFrame& f = *job.in;
    const int32_t w = f.width, h = f.height;
    const size_t stride = static_cast<size_t>((w + 1) & ~1) * 2;
    const SourceLayout src = Layout(f);
    const YuvToRgbTables yuv(job.cs, job.range);
    const Lut8Fast lut(job.lut, job.strength);
    // One spare pixel so an odd row can repeat its last pixel.
    uint8_t* rgb = Scratch(job, static_cast<size_t>(w + 1) * 4);
    for (int32_t row = 0; row < h; ++row) {
        if (f.format == KIV_PIXEL_FORMAT_NV12) {
            // NV12 input is brought to RGB through the float conversion.
            const uint8_t* uv = src.chroma + src.chromaStride * (row / 2);
            const int32_t done =
                Nv12RowToRgbxViaFloat(src.plane0 + src.stride0 * row, uv, w & ~1, job.cs, job.range, rgb);
            for (int32_t x = done; x < w; ++x) {
                float px[3] = {0.0f, 0.0f, 0.0f};
                ReadPixelFloatAt(job, src, x, row, px);
                for (int c = 0; c < 3; ++c) rgb[x * 4 + c] = FloatToByte(px[c]);
            }
        } else {
            ReadRowRgb8(job, src, yuv, row, rgb);
        }
        lut.ApplyRow(rgb, w);
        if (w & 1) std::memcpy(rgb + w * 4, rgb + (w - 1) * 4, 4);
        uint8_t* dst = out + stride * static_cast<size_t>(row);
        const int32_t done = RgbxRowToYuy2(rgb, (w + 1) & ~1, job.cs, job.range, dst);
        const uint8_t* p = rgb + done * 4;
        dst += done * 2;
        for (int32_t x = done; x < w; x += 2, p += 8, dst += 4) {
            uint8_t a[3], b[3];
            RgbToYuv8(p, job.cs, job.range, a);
            RgbToYuv8(p + 4, job.cs, job.range, b);
            dst[0] = a[0];
            dst[1] = static_cast<uint8_t>((a[1] + b[1] + 1) >> 1);
            dst[2] = b[0];
            dst[3] = static_cast<uint8_t>((a[2] + b[2] + 1) >> 1);
        }
    }
}

void ConvertToNv12(const FrameJob& job, uint8_t* luma, uint8_t* chroma) {
    const KivVideoFrame& f = *job.in;
    const int32_t w = f.width, h = f.height;
    const size_t cw = static_cast<size_t>((w + 1) & ~1);
    const SourceLayout src = Layout(f);
    const bool rgbInput = f.format == KIV_PIXEL_FORMAT_RGB24 || f.format == KIV_PIXEL_FORMAT_RGB32;
    // Row buffers, planar: the input bytes, the float colour, and the U and V
    // of two rows. Each pixel's conversion is a pure function of the pixel,
    // so evaluating it once and keeping its U and V for the block average
    // gives the same bytes as evaluating the block's pixels again.
    const size_t n = (static_cast<size_t>(w) + 3) & ~size_t{3};
    uint8_t* base = Scratch(job, n * (3 + 4 + 3 * sizeof(float)));
    uint8_t* in[3] = {base, base + n, base + 2 * n};
    uint8_t* uv[2][2] = {{base + 3 * n, base + 4 * n}, {base + 5 * n, base + 6 * n}};
    float* rgb[3];
    for (int c = 0; c < 3; ++c) rgb[c] = reinterpret_cast<float*>(base + 7 * n) + c * n;
    for (int32_t by = 0; by < h; by += 2) {
        const int32_t rows = by + 1 < h ? 2 : 1;
        for (int32_t dy = 0; dy < rows; ++dy) {
            const int32_t y = by + dy;
            RowBytes(job, src, y, in[0], in[1], in[2]);
            int32_t x = rgbInput ? 0 : YuvBytesToFloatRow(in[0], in[1], in[2], w, job.cs, job.range, rgb[0], rgb[1], rgb[2]);
            for (; x < w; ++x) {
                const uint8_t px[3] = {in[0][x], in[1][x], in[2][x]};
                float out[3];
                BytesToFloat(job, px, out);
                rgb[0][x] = out[0];
                rgb[1][x] = out[1];
                rgb[2][x] = out[2];
            }
            if (job.lut) {
                for (x = ApplyLutFloatRow(*job.lut, job.strength, rgb[0], rgb[1], rgb[2], w); x < w; ++x) {
                    float c[3] = {rgb[0][x], rgb[1][x], rgb[2][x]};
                    ApplyLutFloat(*job.lut, job.strength, c);
                    rgb[0][x] = c[0];
                    rgb[1][x] = c[1];
                    rgb[2][x] = c[2];
                }
            }
            uint8_t* lumaRow = luma + static_cast<size_t>(y) * static_cast<size_t>(w);
            x = FloatRowToYuvBytes(rgb[0], rgb[1], rgb[2], w, job.cs, job.range, lumaRow, uv[dy][0], uv[dy][1]);
            for (; x < w; ++x) {
                const float c[3] = {rgb[0][x], rgb[1][x], rgb[2][x]};
                uint8_t yuv[3];
                RgbToYuvFloat(c, job.cs, job.range, yuv);
                lumaRow[x] = yuv[0];
                uv[dy][0][x] = yuv[1];
                uv[dy][1][x] = yuv[2];
            }
        }
        uint8_t* dst = chroma + cw * static_cast<size_t>(by / 2);
        for (int32_t bx = 0; bx < w; bx += 2) {
            int sumU = 0, sumV = 0, count = 0;
            for (int32_t dy = 0; dy < rows; ++dy) {
                for (int32_t dx = 0; dx < 2 && bx + dx < w; ++dx) {
                    sumU += uv[dy][0][bx + dx];
                    sumV += uv[dy][1][bx + dx];
                    ++count;
                }
            }
            dst[bx] = static_cast<uint8_t>((sumU + count / 2) / count);
            dst[bx + 1] = static_cast<uint8_t>((sumV + count / 2) / count);
        }
    }
}

}  // namespace kiv::color
