// SSE2 row kernels of the 8-bit conversions. Each handles the leading whole
// blocks of 8 pixels of a row and returns how many pixels it did; the caller
// finishes the rest with the plain code, and the bytes are the same either
// way. Without SSE2 they do nothing and return 0.
#pragma once
#include <cstdint>

struct Kiv3DLutData;

namespace kiv::color {

// YUY2 (pairs of pixels) to red, green, blue, x.
int32_t Yuy2RowToRgbx(const uint8_t* yuy2, int32_t pixels, int32_t cs, int32_t range, uint8_t* rgbx);
// NV12 luma row and its chroma row (U, V pairs) to red, green, blue, x.
int32_t Nv12RowToRgbx(const uint8_t* luma, const uint8_t* uv, int32_t pixels, int32_t cs, int32_t range,
                      uint8_t* rgbx);
// NV12 through the float conversion (YuvToRgbFloat), each channel then
// clamped and scaled as FloatToByte does, to red, green, blue, x. The same
// single-precision operations in the same order, so the same bytes.
int32_t Nv12RowToRgbxViaFloat(const uint8_t* luma, const uint8_t* uv, int32_t pixels, int32_t cs, int32_t range,
                              uint8_t* rgbx);
// Planar Y, U, V bytes to planar red, green, blue floats as YuvToRgbFloat,
// and planar floats to Y, U, V bytes as RgbToYuvFloat, four pixels at a time.
int32_t YuvBytesToFloatRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, int32_t pixels, int32_t cs,
                           int32_t range, float* r, float* g, float* b);
int32_t FloatRowToYuvBytes(const float* r, const float* g, const float* b, int32_t pixels, int32_t cs, int32_t range,
                           uint8_t* y, uint8_t* u, uint8_t* v);
// ApplyLutFloat over planar float rows: the lattice positions and corner
// weights of four pixels at a time, then the same per-pixel sums over whole
// table entries (paddedValues; without them it does nothing and returns 0).
int32_t ApplyLutFloatRow(const Kiv3DLutData& lut, float strength, float* r, float* g, float* b, int32_t pixels);
// Red, green, blue, x to blue, green, red, 255.
int32_t RgbxRowToBgra(const uint8_t* rgbx, int32_t pixels, uint8_t* bgra);
// Blue, green, red, a to red, green, blue, x.
int32_t BgraRowToRgbx(const uint8_t* bgra, int32_t pixels, uint8_t* rgbx);
// Pixel pairs of red, green, blue, x to YUY2 groups.
int32_t RgbxRowToYuy2(const uint8_t* rgbx, int32_t pixels, int32_t cs, int32_t range, uint8_t* yuy2);

}  // namespace kiv::color
