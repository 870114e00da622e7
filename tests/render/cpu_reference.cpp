#include "cpu_reference.h"

#include <algorithm>
#include <cmath>

namespace rendertest {

namespace {

int FloorDiv256(int v) { return static_cast<int>(std::floor(v / 256.0)); }
int Clamp(int v) { return std::min(255, std::max(0, v)); }

Bgr FromYuv(int y, int u, int v) {
    const int c = y < 16 ? 0 : 298 * (y - 16);
    return {Clamp(FloorDiv256(c + 516 * u - 65920)), Clamp(FloorDiv256(c - 100 * u - 208 * v + 39552)),
            Clamp(FloorDiv256(c + 409 * v - 52224))};
}

void ToYuv(const Bgr& p, uint8_t* y, uint8_t* u, uint8_t* v) {
    *y = static_cast<uint8_t>(FloorDiv256(66 * p.r + 129 * p.g + 25 * p.b + 128) + 16);
    *u = static_cast<uint8_t>(FloorDiv256(-38 * p.r - 74 * p.g + 112 * p.b + 128) + 128);
    *v = static_cast<uint8_t>(FloorDiv256(112 * p.r - 94 * p.g - 18 * p.b + 128) + 128);
}

}  // namespace

Bgr ReferencePixel(const KivVideoFrame& f, int x, int y) {
    const int w = f.width;
    auto stride = [&](int i, int tight) { return f.strides[i] < 1 ? tight : f.strides[i]; };
    switch (f.format) {
    case KIV_PIXEL_FORMAT_RGB32:
    case KIV_PIXEL_FORMAT_RGB24: {
        const int bpp = f.format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 3;
        const uint8_t* p = f.planes[0] + stride(0, w * bpp) * y + bpp * x;
        return {p[0], p[1], p[2]};
    }
    case KIV_PIXEL_FORMAT_YUY2: {
        const int s = stride(0, w * 2);
        const uint8_t* pair = f.planes[0] + s * y + (x / 2) * 4;
        const int v = (x / 2) * 4 + 3 < s ? pair[3] : 128;
        return FromYuv(x % 2 ? pair[2] : pair[0], pair[1], v);
    }
    case KIV_PIXEL_FORMAT_NV12: {
        const int ls = stride(0, w), cs = stride(1, w);
        const uint8_t* chroma = f.planes[1] ? f.planes[1] : f.planes[0] + ls * f.height;
        const uint8_t* uv = chroma + cs * (y / 2) + (x / 2) * 2;
        const int v = (x / 2) * 2 + 1 < cs ? uv[1] : 128;
        return FromYuv(f.planes[0][ls * y + x], uv[0], v);
    }
    default: return {0, 0, 0};
    }
}

ReferencePlanes ReferenceConvert(const KivVideoFrame& f, int w, int h, int format) {
    ReferencePlanes out;
    const int pairs = (w + 1) / 2;
    // Output pixel (x, y) shows source pixel (x * W / w, y * H / h); the
    // padding pixel of an odd width repeats the last one.
    auto at = [&](int x, int y) {
        x = std::min(x, w - 1);
        return ReferencePixel(f, static_cast<int>(int64_t(x) * f.width / w), static_cast<int>(int64_t(y) * f.height / h));
    };
    switch (format) {
    case KIV_PIXEL_FORMAT_RGB32:
    case KIV_PIXEL_FORMAT_RGB24: {
        const int bpp = format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 3;
        out.stride0 = w * bpp;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const Bgr p = at(x, y);
                out.plane0.insert(out.plane0.end(), {uint8_t(p.b), uint8_t(p.g), uint8_t(p.r)});
                if (bpp == 4) out.plane0.push_back(255);
            }
        }
        break;
    }
    case KIV_PIXEL_FORMAT_YUY2:
        out.stride0 = pairs * 4;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < pairs * 2; x += 2) {
                uint8_t y0, u, v, y1, u1, v1;
                ToYuv(at(x, y), &y0, &u, &v);
                ToYuv(at(x + 1, y), &y1, &u1, &v1);
                out.plane0.insert(out.plane0.end(), {y0, u, y1, v});
            }
        }
        break;
    case KIV_PIXEL_FORMAT_NV12:
        out.stride0 = w;
        out.stride1 = pairs * 2;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                uint8_t luma, u, v;
                ToYuv(at(x, y), &luma, &u, &v);
                out.plane0.push_back(luma);
            }
        }
        for (int y = 0; y < h; y += 2) {
            for (int x = 0; x < pairs * 2; x += 2) {
                uint8_t luma, u, v;
                ToYuv(at(x, y), &luma, &u, &v);
                out.plane1.insert(out.plane1.end(), {u, v});
            }
        }
        break;
    default: break;
    }
    return out;
}

}  // namespace rendertest
