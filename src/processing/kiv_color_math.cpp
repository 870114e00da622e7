#include "kiv_color_math.h"

#include <algorithm>
#include <cmath>

#include "kiv_cube_lut.h"

namespace kiv::color {

namespace {

int Clamp255(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }
float Clamp01(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }  // NaN becomes 0
int Lerp8(int a, int b, int f) { return a + (((b - a) * f + 128) >> 8); }

}  // namespace

FloatYuvToRgb FloatDecodeCoefficients(int32_t cs) {
    if (cs == 2) return {1.5748f, 0.187324f, 0.468124f, 1.8556f};
    if (cs == 3) return {1.4746f, 0.16455f, 0.57135f, 1.8814f};
    return {1.402f, 0.344136f, 0.714136f, 1.772f};
}

FloatRgbToYuv FloatEncodeCoefficients(int32_t cs) {
    if (cs == 2) return {0.2126f, 0.7152f, 0.0722f};
    if (cs == 3) return {0.2627f, 0.678f, 0.0593f};
    return {0.299f, 0.587f, 0.114f};
}

int32_t ResolveColorSpace(int32_t cs, int32_t width, int32_t height) {
    if (cs >= 1 && cs <= 3) return cs;
    return (width < 1280 && height <= 576) ? 1 : 2;
}

int32_t ResolveRange(int32_t range) { return range == 1 ? 1 : 2; }

void YuvToRgb8(int y, int u, int v, int32_t cs, int32_t range, uint8_t rgb[3]) {
    const bool bt601 = cs == 1;
    int r, g, b;
    if (range == 1) {
        if (bt601) {
            r = y + ((359 * v - 45824) >> 8);
            g = y - ((88 * u + 183 * v - 34560) >> 8);
            b = y + ((454 * u - 57984) >> 8);
        } else {
            r = y + ((403 * v - 51456) >> 8);
            g = y - ((48 * u + 120 * v - 21376) >> 8);
            b = y + ((475 * u - 60672) >> 8);
        }
    } else {
        const int yc = Clamp255(y - 16) * 298;
        if (bt601) {
            r = (yc + 409 * v - 52224) >> 8;
            g = (yc - 100 * u - 208 * v + 39552) >> 8;
            b = (yc + 516 * u - 65920) >> 8;
        } else {
            r = (yc + 459 * v - 58624) >> 8;
            g = (yc - 55 * u - 136 * v + 24576) >> 8;
            b = (yc + 541 * u - 69120) >> 8;
        }
    }
    rgb[0] = static_cast<uint8_t>(Clamp255(r));
    rgb[1] = static_cast<uint8_t>(Clamp255(g));
    rgb[2] = static_cast<uint8_t>(Clamp255(b));
}

void RgbToYuv8(const uint8_t rgb[3], int32_t cs, int32_t range, uint8_t yuv[3]) {
    const int r = rgb[0], g = rgb[1], b = rgb[2];
    const bool bt601 = cs == 1;
    int y, u, v;
    if (range == 1) {
        if (bt601) {
            y = (77 * r + 150 * g + 29 * b + 128) >> 8;
            u = ((-43 * r - 85 * g + 128 * b + 128) >> 8) + 128;
            v = ((128 * r - 107 * g - 21 * b + 128) >> 8) + 128;
        } else {
            y = (54 * r + 183 * g + 18 * b + 128) >> 8;
            u = ((-29 * r - 99 * g + 128 * b + 128) >> 8) + 128;
            v = ((128 * r - 116 * g - 12 * b + 128) >> 8) + 128;
        }
    } else {
        if (bt601) {
            y = ((66 * r + 129 * g + 25 * b + 128) >> 8) + 16;
            u = ((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128;
            v = ((112 * r - 94 * g - 18 * b + 128) >> 8) + 128;
        } else {
            y = ((47 * r + 157 * g + 16 * b + 128) >> 8) + 16;
            u = ((-26 * r - 87 * g + 112 * b + 128) >> 8) + 128;
            v = ((112 * r - 102 * g - 10 * b + 128) >> 8) + 128;
        }
    }
    yuv[0] = static_cast<uint8_t>(Clamp255(y));
    yuv[1] = static_cast<uint8_t>(Clamp255(u));
    yuv[2] = static_cast<uint8_t>(Clamp255(v));
}

void YuvToRgbFloat(int y, int u, int v, int32_t cs, int32_t range, float rgb[3]) {
    float yn, cb, cr;
    if (range == 1) {
        yn = static_cast<float>(y) / 255.0f;
        cb = static_cast<float>(u - 128) / 255.0f;
        cr = static_cast<float>(v - 128) / 255.0f;
    } else {
        yn = static_cast<float>(y - 16) / 219.0f;
        cb = static_cast<float>(u - 128) / 224.0f;
        cr = static_cast<float>(v - 128) / 224.0f;
    }
    yn = Clamp01(yn);
    const FloatYuvToRgb k = FloatDecodeCoefficients(cs);
    rgb[0] = Clamp01(yn + k.a * cr);
    rgb[1] = Clamp01(yn - k.b * cb - k.c * cr);
    rgb[2] = Clamp01(yn + k.d * cb);
}

void RgbToYuvFloat(const float rgb[3], int32_t cs, int32_t range, uint8_t yuv[3]) {
    const FloatRgbToYuv k = FloatEncodeCoefficients(cs);
    const float r = Clamp01(rgb[0]), g = Clamp01(rgb[1]), b = Clamp01(rgb[2]);
    const float y = k.kr * r + k.kg * g + k.kb * b;
    const float cb = (b - y) / (2.0f * (1.0f - k.kb));
    const float cr = (r - y) / (2.0f * (1.0f - k.kr));
    float y8, u8, v8;
    if (range == 1) {
        y8 = y * 255.0f;
        u8 = cb * 255.0f + 128.0f;
        v8 = cr * 255.0f + 128.0f;
    } else {
        y8 = y * 219.0f + 16.0f;
        u8 = cb * 224.0f + 128.0f;
        v8 = cr * 224.0f + 128.0f;
    }
    yuv[0] = static_cast<uint8_t>(Clamp255(static_cast<int>(y8 + 0.5f)));
    yuv[1] = static_cast<uint8_t>(Clamp255(static_cast<int>(u8 + 0.5f)));
    yuv[2] = static_cast<uint8_t>(Clamp255(static_cast<int>(v8 + 0.5f)));
}

int32_t StrengthWeight(float strength) {
    const int32_t s = static_cast<int32_t>(strength * 256.0f + 0.5f);
    return s < 0 ? 0 : (s > 256 ? 256 : s);
}

void ApplyLut8(const Kiv3DLutData& lut, int32_t weight, uint8_t rgb[3]) {
    const int n = lut.dim;
    if (n < 2 || lut.bytes.empty() || weight < 1) return;
    int lo[3], hi[3], f[3];
    for (int c = 0; c < 3; ++c) {
        const int p = (rgb[c] * (n - 1) * 256 + 127) / 255;
        const int i = p >> 8;
        if (i < n - 1) {
            lo[c] = i;
            hi[c] = i + 1;
            f[c] = p & 255;
        } else {
            lo[c] = hi[c] = n - 1;
            f[c] = 0;
        }
    }
    auto at = [&](int r, int g, int b, int ch) {
        return static_cast<int>(lut.bytes[static_cast<size_t>(r + n * (g + n * b)) * 3 + static_cast<size_t>(ch)]);
    };
    for (int ch = 0; ch < 3; ++ch) {
        const int x00 = Lerp8(at(lo[0], lo[1], lo[2], ch), at(hi[0], lo[1], lo[2], ch), f[0]);
        const int x10 = Lerp8(at(lo[0], hi[1], lo[2], ch), at(hi[0], hi[1], lo[2], ch), f[0]);
        const int x01 = Lerp8(at(lo[0], lo[1], hi[2], ch), at(hi[0], lo[1], hi[2], ch), f[0]);
        const int x11 = Lerp8(at(lo[0], hi[1], hi[2], ch), at(hi[0], hi[1], hi[2], ch), f[0]);
        const int y0 = Lerp8(x00, x10, f[1]);
        const int y1 = Lerp8(x01, x11, f[1]);
        int out = Lerp8(y0, y1, f[2]);
        if (weight < 256) out = rgb[ch] + (((out - rgb[ch]) * weight + 128) >> 8);
        rgb[ch] = static_cast<uint8_t>(Clamp255(out));
    }
}

void ApplyLutFloat(const Kiv3DLutData& lut, float strength, float rgb[3]) {
    const int n = lut.dim;
    if (n < 2 || lut.values.empty()) return;
    int lo[3], hi[3];
    float f[3];
    for (int c = 0; c < 3; ++c) {
        const float x = Clamp01((rgb[c] - lut.domainMin[c]) / (lut.domainMax[c] - lut.domainMin[c])) *
                        static_cast<float>(n - 1);
        lo[c] = static_cast<int>(std::floor(x));
        hi[c] = std::min(lo[c] + 1, n - 1);
        f[c] = x - static_cast<float>(lo[c]);
    }
    // Corner c = red bit 0, green bit 1, blue bit 2 of the upper indices.
    float weight[8];
    size_t offset[8];
    for (int corner = 0; corner < 8; ++corner) {
        const int br = corner & 1, bg = (corner >> 1) & 1, bb = (corner >> 2) & 1;
        weight[corner] = (br ? f[0] : 1.0f - f[0]) * (bg ? f[1] : 1.0f - f[1]) * (bb ? f[2] : 1.0f - f[2]);
        offset[corner] = static_cast<size_t>((br ? hi[0] : lo[0]) + n * ((bg ? hi[1] : lo[1]) + n * (bb ? hi[2] : lo[2]))) * 3;
    }
    const float s = Clamp01(strength);
    for (int ch = 0; ch < 3; ++ch) {
        float acc = 0.0f;
        for (int corner = 0; corner < 8; ++corner) acc += weight[corner] * lut.values[offset[corner] + static_cast<size_t>(ch)];
        rgb[ch] = Clamp01(rgb[ch] + (acc - rgb[ch]) * s);
    }
}

uint8_t FloatToByte(float v) { return static_cast<uint8_t>(Clamp01(v) * 255.0f + 0.5f); }

}  // namespace kiv::color
