// Frames of a known pattern and two independent references: the CPU conversion rules pixel by pixel, and a
// window's picture by the pixel shader's sampling and floating-point colour rules.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace rendertest {

// Changes from pixel to pixel, so a sample from the wrong place shows; YUV luma stays in the limited range.
struct PatternFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    PatternFrame(int32_t format, int32_t width, int32_t height, bool nv12ChromaPointer = true) {
        const int32_t pairs = (width + 1) / 2;
        const bool nv12 = format == KIV_PIXEL_FORMAT_NV12, yuy2 = format == KIV_PIXEL_FORMAT_YUY2;
        // NV12: the luma stride doubles as the chroma stride.
        const int32_t stride = nv12 ? pairs * 2 : yuy2 ? pairs * 4 : width * (format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4);
        bytes.resize(static_cast<size_t>(stride) * (nv12 ? height + (height + 1) / 2 : height));
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>((i * 37 + (i / 7) * 11 + 16) % 256);
        for (int32_t y = 0; (nv12 || yuy2) && y < height; ++y)
            for (int32_t x = 0; x < (nv12 ? width : pairs * 2); ++x)
                bytes[static_cast<size_t>(stride) * y + x * (nv12 ? 1 : 2)] = static_cast<uint8_t>(16 + (x * 23 + y * 41) % 220);
        frame.planes[0] = bytes.data();
        frame.strides[0] = stride;
        frame.width = width, frame.height = height, frame.format = format;
        if (nv12) frame.strides[1] = stride, frame.planes[1] = nv12ChromaPointer ? bytes.data() + static_cast<size_t>(stride) * height : nullptr;
    }
};

inline int FloorDiv256(int v) { return static_cast<int>(std::floor(v / 256.0)); }

struct Bgr { int b, g, r; };
// Source pixel (x, y) by the integer BT.601 limited-range rules, with floating floor division instead of shifts.
inline Bgr ReferencePixel(const KivVideoFrame& f, int x, int y) {
    auto stride = [&](int i, int tight) { return f.strides[i] < 1 ? tight : f.strides[i]; };
    auto yuv = [](int l, int u, int v) {
        const int c = l < 16 ? 0 : 298 * (l - 16);
        auto clamp = [](int value) { return std::min(255, std::max(0, FloorDiv256(value))); };
        return Bgr{clamp(c + 516 * u - 65920), clamp(c - 100 * u - 208 * v + 39552), clamp(c + 409 * v - 52224)};
    };
    if (f.format == KIV_PIXEL_FORMAT_RGB32 || f.format == KIV_PIXEL_FORMAT_RGB24) {
        const int bpp = f.format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 3;
        const uint8_t* p = f.planes[0] + stride(0, f.width * bpp) * y + bpp * x;
        return {p[0], p[1], p[2]};
    }
    if (f.format == KIV_PIXEL_FORMAT_YUY2) {
        const int s = stride(0, f.width * 2);
        const uint8_t* pair = f.planes[0] + s * y + (x / 2) * 4;
        return yuv(x % 2 ? pair[2] : pair[0], pair[1], (x / 2) * 4 + 3 < s ? pair[3] : 128);
    }
    const int ls = stride(0, f.width), cs = stride(1, f.width);  // NV12
    const uint8_t* uv = (f.planes[1] ? f.planes[1] : f.planes[0] + ls * f.height) + cs * (y / 2) + (x / 2) * 2;
    return yuv(f.planes[0][ls * y + x], uv[0], (x / 2) * 2 + 1 < cs ? uv[1] : 128);
}

// The converted frame's tight planes (YUY2 rows and NV12 chroma rows of whole pairs).
struct ReferencePlanes { std::vector<uint8_t> plane0, plane1; int stride0 = 0, stride1 = 0; };
inline ReferencePlanes ReferenceConvert(const KivVideoFrame& f, int w, int h, int format) {
    ReferencePlanes out;
    const int pairs = (w + 1) / 2;
    // Output pixel (x, y) shows source pixel (x * W / w, y * H / h); an odd width's padding pixel repeats the last.
    auto src = [&](int x, int y) {
        return ReferencePixel(f, static_cast<int>(int64_t(std::min(x, w - 1)) * f.width / w), static_cast<int>(int64_t(y) * f.height / h));
    };
    auto yuv = [&](int x, int y, int i) {
        const Bgr p = src(x, y);
        const int k[3][3] = {{66, 129, 25}, {-38, -74, 112}, {112, -94, -18}};
        return static_cast<uint8_t>(FloorDiv256(k[i][0] * p.r + k[i][1] * p.g + k[i][2] * p.b + 128) + (i ? 128 : 16));
    };
    if (format == KIV_PIXEL_FORMAT_RGB32 || format == KIV_PIXEL_FORMAT_RGB24) {
        const bool alpha = format == KIV_PIXEL_FORMAT_RGB32;
        out.stride0 = w * (alpha ? 4 : 3);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const Bgr p = src(x, y);
                out.plane0.insert(out.plane0.end(), {uint8_t(p.b), uint8_t(p.g), uint8_t(p.r)});
                if (alpha) out.plane0.push_back(255);
            }
    } else if (format == KIV_PIXEL_FORMAT_YUY2) {
        out.stride0 = pairs * 4;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < pairs * 2; x += 2) out.plane0.insert(out.plane0.end(), {yuv(x, y, 0), yuv(x, y, 1), yuv(x + 1, y, 0), yuv(x, y, 2)});
    } else if (format == KIV_PIXEL_FORMAT_NV12) {
        out.stride0 = w, out.stride1 = pairs * 2;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) out.plane0.push_back(yuv(x, y, 0));
        for (int y = 0; y < h; y += 2)
            for (int x = 0; x < pairs * 2; x += 2) out.plane1.insert(out.plane1.end(), {yuv(x, y, 1), yuv(x, y, 2)});
    }
    return out;
}

struct ColourCase { int32_t colorSpace, colorRange; };  // 1 BT.601, 2 BT.709, 3 BT.2020; 1 full, 2 limited
// Tight BGR of a window showing the frame as the pixel shader does (floating-point YUV), nearest sampling at pixel
// centres nudged by `nudge` texture units: a centre on a texel edge may land on either side.
inline std::vector<uint8_t> ExpectedWindow(const KivVideoFrame& f, int ww, int wh, const ColourCase& colour, double nudge) {
    static const double full[3][4] = {{1.4020, 0.344136, 0.714136, 1.7720}, {1.5748, 0.187324, 0.468124, 1.8556},
                                      {1.4746, 0.16455, 0.57135, 1.8814}};
    static const double limited[3][4] = {{1.596027, 0.391762, 0.812968, 2.017232}, {1.792741, 0.213249, 0.532909, 2.112402},
                                         {1.678674, 0.187326, 0.650424, 2.141772}};
    const double* k = (colour.colorRange == 1 ? full : limited)[colour.colorSpace - 1];
    auto toBgr = [&](int y8, int u8, int v8, uint8_t* out) {
        const double y = y8 / 255.0, d = u8 / 255.0 - 0.5, e = v8 / 255.0 - 0.5;
        const double base = colour.colorRange == 1 ? y : 1.164383 * (y - 16.0 / 255.0);
        const double bgr[3] = {base + k[3] * d, base - k[1] * d - k[2] * e, base + k[0] * e};
        for (int c = 0; c < 3; ++c) out[c] = static_cast<uint8_t>(std::lround(std::min(std::max(bgr[c], 0.0), 1.0) * 255.0));
    };
    auto texel = [](double uv, int size) { return std::min(static_cast<int>(std::floor(uv * size)), size - 1); };
    std::vector<uint8_t> out(static_cast<size_t>(ww) * wh * 3);
    const int w = f.width, h = f.height, pairs = (w + 1) / 2;
    const uint8_t* chroma = f.planes[1] ? f.planes[1] : f.planes[0] + static_cast<size_t>(f.strides[0]) * h;
    for (int y = 0; y < wh; ++y) {
        for (int x = 0; x < ww; ++x) {
            const double u = (x + 0.5) / ww + nudge, v = (y + 0.5) / wh + nudge;
            uint8_t* px = &out[(static_cast<size_t>(y) * ww + x) * 3];
            const uint8_t* row = f.planes[0] + static_cast<size_t>(f.strides[0]) * texel(v, h);
            if (f.format == KIV_PIXEL_FORMAT_RGB32 || f.format == KIV_PIXEL_FORMAT_RGB24) {
                std::copy_n(row + texel(u, w) * (f.format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 3), 3, px);
            } else if (f.format == KIV_PIXEL_FORMAT_NV12) {
                const uint8_t* c = chroma + static_cast<size_t>(f.strides[1]) * texel(v, (h + 1) / 2) + 2 * texel(u, pairs);
                toBgr(row[texel(u, w)], c[0], c[1], px);
            } else if (f.format == KIV_PIXEL_FORMAT_YUY2) {
                const int sx = texel(u, pairs * 2);
                const uint8_t* pair = row + 4 * std::min(sx / 2, pairs - 1);
                toBgr((sx & 1) ? pair[2] : pair[0], pair[1], pair[3], px);
            }
        }
    }
    return out;
}

}  // namespace rendertest
