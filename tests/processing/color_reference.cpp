#include "kiv_color_math.h"
#include "processing_test_helpers.h"

namespace proctest {
namespace {

using namespace kiv::color;

// RGB of pixel (x, y), 8-bit (RGB and YUY2 outputs) or float (the float reader).
template <class T>
void ReadPixel(const KivVideoFrame& f, int x, int y, int cs, int range, T rgb[3]) {
    constexpr bool kFloat = sizeof(T) == sizeof(float);
    const int stride = f.strides[0] >= 1 ? f.strides[0] : f.width * BytesPerPixel(f.format);
    const uint8_t* row = f.planes[0] + ptrdiff_t(stride) * y;
    int Y, u, v;
    if (f.format == KIV_PIXEL_FORMAT_RGB24 || f.format == KIV_PIXEL_FORMAT_RGB32) {
        const uint8_t* p = row + x * BytesPerPixel(f.format);
        for (int c = 0; c < 3; ++c) rgb[c] = kFloat ? T(p[2 - c] / 255.0f) : T(p[2 - c]);
        return;
    }
    if (f.format == KIV_PIXEL_FORMAT_YUY2) {
        const uint8_t* g = row + (x / 2) * 4;
        const bool unpaired = x % 2 == 0 && x + 1 == f.width;  // the last pixel of an odd row
        Y = x % 2 ? g[2] : g[0], u = g[1], v = unpaired ? (kFloat ? g[1] : 128) : g[3];
    } else {
        const int chromaStride = f.strides[1] >= 1 ? f.strides[1] : f.width;
        const uint8_t* base = f.planes[1] ? f.planes[1] : f.planes[0] + ptrdiff_t(stride) * f.height;
        const uint8_t* uv = base + ptrdiff_t(chromaStride) * (y / 2) + (x / 2) * 2;
        Y = row[x], u = uv[0], v = uv[1];
    }
    if constexpr (kFloat) YuvToRgbFloat(Y, u, v, cs, range, rgb);
    else YuvToRgb8(Y, u, v, cs, range, rgb);
}

}  // namespace

ReferenceOutput ReferenceConvert(const KivVideoFrame& in, int32_t outFmt, int32_t cs, int32_t range, const Kiv3DLutData* lut,
                                 float strength) {
    ReferenceOutput out;
    const int w = in.width, h = in.height;
    auto graded8 = [&](int x, int y, uint8_t rgb[3]) {
        if (in.format == KIV_PIXEL_FORMAT_NV12 && outFmt == KIV_PIXEL_FORMAT_YUY2) {
            float f[3];
            ReadPixel(in, x, y, cs, range, f);
            for (int c = 0; c < 3; ++c) rgb[c] = FloatToByte(f[c]);
        } else {
            ReadPixel(in, x, y, cs, range, rgb);
        }
        if (lut) ApplyLut8(*lut, StrengthWeight(strength), rgb);
    };
    auto gradedYuv = [&](int x, int y, uint8_t yuv[3]) {
        float f[3];
        ReadPixel(in, x, y, cs, range, f);
        if (lut) ApplyLutFloat(*lut, strength, f);
        RgbToYuvFloat(f, cs, range, yuv);
    };
    if (outFmt == KIV_PIXEL_FORMAT_RGB24 || outFmt == KIV_PIXEL_FORMAT_RGB32) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t rgb[3];
                graded8(x, y, rgb);
                out.plane0.insert(out.plane0.end(), {rgb[2], rgb[1], rgb[0]});
                if (outFmt == KIV_PIXEL_FORMAT_RGB32) out.plane0.push_back(255);
            }
    } else if (outFmt == KIV_PIXEL_FORMAT_YUY2) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; x += 2) {
                uint8_t a[3], b[3], ya[3], yb[3];
                graded8(x, y, a);
                if (x + 1 < w) graded8(x + 1, y, b);
                else std::copy(a, a + 3, b);
                RgbToYuv8(a, cs, range, ya);
                RgbToYuv8(b, cs, range, yb);
                out.plane0.insert(out.plane0.end(), {ya[0], uint8_t((ya[1] + yb[1] + 1) >> 1), yb[0],
                                                     uint8_t((ya[2] + yb[2] + 1) >> 1)});
            }
    } else {
        uint8_t yuv[3];
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) gradedYuv(x, y, yuv), out.plane0.push_back(yuv[0]);
        const int cw = (w + 1) & ~1;
        out.plane1.assign(size_t(cw) * ((h + 1) / 2), 0);
        for (int by = 0; by < h; by += 2)
            for (int bx = 0; bx < w; bx += 2) {
                int su = 0, sv = 0, n = 0;
                for (int y = by; y < by + 2 && y < h; ++y)
                    for (int x = bx; x < bx + 2 && x < w; ++x, ++n) gradedYuv(x, y, yuv), su += yuv[1], sv += yuv[2];
                out.plane1[size_t(by / 2) * cw + bx] = uint8_t((su + n / 2) / n);
                out.plane1[size_t(by / 2) * cw + bx + 1] = uint8_t((sv + n / 2) / n);
            }
    }
    return out;
}

}  // namespace proctest
