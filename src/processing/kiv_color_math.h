// Per-pixel colour arithmetic of the colour engine: the fixed-point 8-bit
// conversions and table lookup, and the float ones used for NV12 output.
// These are the reference rules; the frame loops may be faster but must give
// the same bytes.
#pragma once
#include <cstdint>

struct Kiv3DLutData;

namespace kiv::color {

// Colour space 1, 2 or 3 as given; anything else BT.601 for frames narrower
// than 1280 and at most 576 lines high, BT.709 otherwise.
int32_t ResolveColorSpace(int32_t cs, int32_t width, int32_t height);
// 1 (full) or 2 (limited); anything else limited.
int32_t ResolveRange(int32_t range);

// 8-bit conversions. Colour space 1 is BT.601; 2 and 3 both use BT.709.
void YuvToRgb8(int y, int u, int v, int32_t cs, int32_t range, uint8_t rgb[3]);
void RgbToYuv8(const uint8_t rgb[3], int32_t cs, int32_t range, uint8_t yuv[3]);

// Float conversions with BT.601, BT.709 and BT.2020 coefficients:
// R = Y + a Cr, G = Y - b Cb - c Cr, B = Y + d Cb.
struct FloatYuvToRgb {
    float a, b, c, d;
};
FloatYuvToRgb FloatDecodeCoefficients(int32_t cs);
// Y = kr R + kg G + kb B.
struct FloatRgbToYuv {
    float kr, kg, kb;
};
FloatRgbToYuv FloatEncodeCoefficients(int32_t cs);
void YuvToRgbFloat(int y, int u, int v, int32_t cs, int32_t range, float rgb[3]);
void RgbToYuvFloat(const float rgb[3], int32_t cs, int32_t range, uint8_t yuv[3]);

// Strength as a weight of 0..256.
int32_t StrengthWeight(float strength);

// Trilinear 8-bit lookup blended by the weight; unchanged when the table is
// unusable or the weight is below 1. Ignores the table's domain.
void ApplyLut8(const Kiv3DLutData& lut, int32_t weight, uint8_t rgb[3]);

// Float lookup through the table's domain, blended by strength.
void ApplyLutFloat(const Kiv3DLutData& lut, float strength, float rgb[3]);

// 255 * v + 0.5 truncated, v clamped to [0, 1].
uint8_t FloatToByte(float v);

}  // namespace kiv::color
