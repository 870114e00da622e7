#include "color_reference.h"

#include "kiv_color_math.h"

namespace proctest {

namespace {

using namespace kiv::color;

const uint8_t* Row(const KivVideoFrame& f, int y) {
    int stride = f.strides[0];
    if (stride < 1) {
        const int bpp = f.format == KIV_PIXEL_FORMAT_YUY2 ? 2 : f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : f.format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 1;
        stride = f.width * bpp;
    }
    return f.planes[0] + static_cast<ptrdiff_t>(stride) * y;
}

const uint8_t* ChromaRow(const KivVideoFrame& f, int y) {
    const int lumaStride = f.strides[0] >= 1 ? f.strides[0] : f.width;
    const int stride = f.strides[1] >= 1 ? f.strides[1] : f.width;
    const uint8_t* base = f.planes[1] ? f.planes[1] : f.planes[0] + static_cast<ptrdiff_t>(lumaStride) * f.height;
    return base + static_cast<ptrdiff_t>(stride) * (y / 2);
}

// 8-bit RGB of a pixel as the RGB and YUY2 outputs read it.
void Pixel8(const KivVideoFrame& f, int x, int y, int cs, int range, uint8_t rgb[3]) {
    const uint8_t* row = Row(f, y);
    switch (f.format) {
        case KIV_PIXEL_FORMAT_RGB24:
        case KIV_PIXEL_FORMAT_RGB32: {
            const uint8_t* p = row + x * (f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4);
            rgb[0] = p[2];
            rgb[1] = p[1];
            rgb[2] = p[0];
            return;
        }
        case KIV_PIXEL_FORMAT_YUY2: {
            const uint8_t* g = row + (x / 2) * 4;
            const bool unpaired = (x % 2 == 0) && x + 1 == f.width;
            YuvToRgb8(x % 2 ? g[2] : g[0], g[1], unpaired ? 128 : g[3], cs, range, rgb);
            return;
        }
        default: {
            const uint8_t* uv = ChromaRow(f, y) + (x / 2) * 2;
            YuvToRgb8(row[x], uv[0], uv[1], cs, range, rgb);
            return;
        }
    }
}

void PixelFloat(const KivVideoFrame& f, int x, int y, int cs, int range, float rgb[3]) {
    const uint8_t* row = Row(f, y);
    switch (f.format) {
        case KIV_PIXEL_FORMAT_RGB24:
        case KIV_PIXEL_FORMAT_RGB32: {
            const uint8_t* p = row + x * (f.format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4);
            rgb[0] = p[2] / 255.0f;
            rgb[1] = p[1] / 255.0f;
            rgb[2] = p[0] / 255.0f;
            return;
        }
        case KIV_PIXEL_FORMAT_YUY2: {
            const uint8_t* g = row + (x / 2) * 4;
            const bool unpaired = (x % 2 == 0) && x + 1 == f.width;
            YuvToRgbFloat(x % 2 ? g[2] : g[0], g[1], unpaired ? g[1] : g[3], cs, range, rgb);
            return;
        }
        default: {
            const uint8_t* uv = ChromaRow(f, y) + (x / 2) * 2;
            YuvToRgbFloat(row[x], uv[0], uv[1], cs, range, rgb);
            return;
        }
    }
}

}  // namespace

ReferenceOutput ReferenceConvert(const KivVideoFrame& in, int32_t outFmt, int32_t cs, int32_t range,
                                 const Kiv3DLutData* lut, float strength) {
    ReferenceOutput out;
    const int w = in.width, h = in.height;
    const int weight = StrengthWeight(strength);
    auto graded8 = [&](int x, int y, uint8_t rgb[3]) {
        if (in.format == KIV_PIXEL_FORMAT_NV12 && outFmt == KIV_PIXEL_FORMAT_YUY2) {
            float f[3];
            PixelFloat(in, x, y, cs, range, f);
            for (int c = 0; c < 3; ++c) rgb[c] = FloatToByte(f[c]);
        } else {
            Pixel8(in, x, y, cs, range, rgb);
        }
        if (lut) ApplyLut8(*lut, weight, rgb);
    };
    auto gradedYuvFloat = [&](int x, int y, uint8_t yuv[3]) {
        float f[3];
        PixelFloat(in, x, y, cs, range, f);
        if (lut) ApplyLutFloat(*lut, strength, f);
        RgbToYuvFloat(f, cs, range, yuv);
    };
    if (outFmt == KIV_PIXEL_FORMAT_RGB24 || outFmt == KIV_PIXEL_FORMAT_RGB32) {
        const int bpp = outFmt == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t rgb[3];
                graded8(x, y, rgb);
                out.plane0.push_back(rgb[2]);
                out.plane0.push_back(rgb[1]);
                out.plane0.push_back(rgb[0]);
                if (bpp == 4) out.plane0.push_back(255);
            }
    } else if (outFmt == KIV_PIXEL_FORMAT_YUY2) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; x += 2) {
                uint8_t a[3], b[3], ya[3], yb[3];
                graded8(x, y, a);
                if (x + 1 < w) graded8(x + 1, y, b);
                else for (int c = 0; c < 3; ++c) b[c] = a[c];
                RgbToYuv8(a, cs, range, ya);
                RgbToYuv8(b, cs, range, yb);
                out.plane0.push_back(ya[0]);
                out.plane0.push_back(static_cast<uint8_t>((ya[1] + yb[1] + 1) >> 1));
                out.plane0.push_back(yb[0]);
                out.plane0.push_back(static_cast<uint8_t>((ya[2] + yb[2] + 1) >> 1));
            }
    } else {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t yuv[3];
                gradedYuvFloat(x, y, yuv);
                out.plane0.push_back(yuv[0]);
            }
        const int cw = (w + 1) & ~1;
        out.plane1.assign(static_cast<size_t>(cw) * ((h + 1) / 2), 0);
        for (int by = 0; by < h; by += 2)
            for (int bx = 0; bx < w; bx += 2) {
                int su = 0, sv = 0, n = 0;
                for (int y = by; y < by + 2 && y < h; ++y)
                    for (int x = bx; x < bx + 2 && x < w; ++x) {
                        uint8_t yuv[3];
                        gradedYuvFloat(x, y, yuv);
                        su += yuv[1];
                        sv += yuv[2];
                        ++n;
                    }
                out.plane1[static_cast<size_t>(by / 2) * cw + bx] = static_cast<uint8_t>((su + n / 2) / n);
                out.plane1[static_cast<size_t>(by / 2) * cw + bx + 1] = static_cast<uint8_t>((sv + n / 2) / n);
            }
    }
    return out;
}

}  // namespace proctest
