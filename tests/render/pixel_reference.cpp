#include "pixel_reference.h"

#include <algorithm>
#include <cmath>

namespace rendertest {

PatternFrame::PatternFrame(int32_t format, int32_t width, int32_t height, bool nv12ChromaPointer) {
    const int32_t pairs = (width + 1) / 2;
    int32_t stride = width * 4;
    size_t size = static_cast<size_t>(stride) * height;
    if (format == KIV_PIXEL_FORMAT_RGB24) stride = width * 3, size = static_cast<size_t>(stride) * height;
    if (format == KIV_PIXEL_FORMAT_YUY2) stride = pairs * 4, size = static_cast<size_t>(stride) * height;
    if (format == KIV_PIXEL_FORMAT_NV12) {
        stride = pairs * 2;  // the luma stride doubles as the chroma stride
        size = static_cast<size_t>(stride) * (height + (height + 1) / 2);
    }
    bytes.resize(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i * 37 + (i / 7) * 11 + 16) % 256);
    if (format == KIV_PIXEL_FORMAT_YUY2 || format == KIV_PIXEL_FORMAT_NV12) {
        // Keep luma inside the limited range's span so both ranges show it.
        for (int32_t y = 0; y < height; ++y) {
            uint8_t* row = bytes.data() + static_cast<size_t>(stride) * y;
            if (format == KIV_PIXEL_FORMAT_NV12) {
                for (int32_t x = 0; x < width; ++x) row[x] = static_cast<uint8_t>(16 + (x * 23 + y * 41) % 220);
            } else {
                for (int32_t x = 0; x < pairs * 2; ++x) row[x * 2] = static_cast<uint8_t>(16 + (x * 23 + y * 41) % 220);
            }
        }
    }
    frame.planes[0] = bytes.data();
    frame.strides[0] = stride;
    frame.width = width;
    frame.height = height;
    frame.format = format;
    if (format == KIV_PIXEL_FORMAT_NV12) {
        frame.strides[1] = stride;
        if (nv12ChromaPointer) frame.planes[1] = bytes.data() + static_cast<size_t>(stride) * height;
    }
}

namespace {

struct Coefficients {
    double a, b, c, f;
};

Coefficients Pick(const ColourCase& colour) {
    static const Coefficients full[3] = {
        {1.4020, 0.344136, 0.714136, 1.7720}, {1.5748, 0.187324, 0.468124, 1.8556}, {1.4746, 0.16455, 0.57135, 1.8814}};
    static const Coefficients limited[3] = {{1.596027, 0.391762, 0.812968, 2.017232},
                                            {1.792741, 0.213249, 0.532909, 2.112402},
                                            {1.678674, 0.187326, 0.650424, 2.141772}};
    const int i = colour.colorSpace - 1;
    return colour.colorRange == 1 ? full[i] : limited[i];
}

uint8_t ToByte(double v) { return static_cast<uint8_t>(std::lround(std::min(std::max(v, 0.0), 1.0) * 255.0)); }

void YuvToBgr(int y8, int u8, int v8, const ColourCase& colour, uint8_t* out) {
    const Coefficients k = Pick(colour);
    const double y = y8 / 255.0, d = u8 / 255.0 - 0.5, e = v8 / 255.0 - 0.5;
    const double base = colour.colorRange == 1 ? y : 1.164383 * (y - 16.0 / 255.0);
    out[2] = ToByte(base + k.a * e);
    out[1] = ToByte(base - k.b * d - k.c * e);
    out[0] = ToByte(base + k.f * d);
}

int Texel(double uv, int size) { return std::min(static_cast<int>(std::floor(uv * size)), size - 1); }

}  // namespace

std::vector<uint8_t> ExpectedWindow(const KivVideoFrame& f, int ww, int wh, const ColourCase& colour,
                                    double nudge) {
    std::vector<uint8_t> out(static_cast<size_t>(ww) * wh * 3);
    const int w = f.width, h = f.height, pairs = (w + 1) / 2;
    const uint8_t* p0 = f.planes[0];
    const uint8_t* chroma = f.planes[1] ? f.planes[1] : p0 + static_cast<size_t>(f.strides[0]) * h;
    for (int y = 0; y < wh; ++y) {
        for (int x = 0; x < ww; ++x) {
            const double u = (x + 0.5) / ww + nudge, v = (y + 0.5) / wh + nudge;
            uint8_t* px = &out[(static_cast<size_t>(y) * ww + x) * 3];
            const int ty = Texel(v, h);
            const uint8_t* row = p0 + static_cast<size_t>(f.strides[0]) * ty;
            switch (f.format) {
            case KIV_PIXEL_FORMAT_RGB32:
            case KIV_PIXEL_FORMAT_RGB24: {
                const uint8_t* s = row + Texel(u, w) * (f.format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 3);
                px[0] = s[0], px[1] = s[1], px[2] = s[2];
                break;
            }
            case KIV_PIXEL_FORMAT_NV12: {
                const uint8_t* c =
                    chroma + static_cast<size_t>(f.strides[1]) * Texel(v, (h + 1) / 2) + 2 * Texel(u, pairs);
                YuvToBgr(row[Texel(u, w)], c[0], c[1], colour, px);
                break;
            }
            case KIV_PIXEL_FORMAT_YUY2: {
                const int sx = Texel(u, pairs * 2);
                const uint8_t* pair = row + 4 * std::min(sx / 2, pairs - 1);
                YuvToBgr((sx & 1) ? pair[2] : pair[0], pair[1], pair[3], colour, px);
                break;
            }
            default: break;
            }
        }
    }
    return out;
}

}  // namespace rendertest
