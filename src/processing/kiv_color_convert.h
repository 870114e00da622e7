// Whole-frame loops of the colour engine: conversion between the four
// uncompressed formats with an optional 3D table on the way.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kivcapture.h"

struct Kiv3DLutData;

namespace kiv::color {

struct FrameJob {
    const KivVideoFrame* in = nullptr;  // uncompressed, width and height >= 1
    int32_t cs = 1;                     // resolved colour space, 1..3
    int32_t range = 2;                  // resolved range, 1 or 2
    const Kiv3DLutData* lut = nullptr;  // null: conversion only
    float strength = 1.0f;
    std::vector<uint8_t>* scratch = nullptr;  // row buffers, reused between frames
};

// 24- or 32-bit RGB (blue, green, red[, 255]) with stride width * bpp.
void ConvertToRgb(const FrameJob& job, int32_t bpp, uint8_t* out);
// YUY2 with stride ((width + 1) & ~1) * 2.
void ConvertToYuy2(const FrameJob& job, uint8_t* out);
// NV12: luma with stride width, chroma with stride (width + 1) & ~1.
void ConvertToNv12(const FrameJob& job, uint8_t* luma, uint8_t* chroma);

// Red, green, blue in [0, 1] of pixel (x, y) through the float conversion;
// false when the frame has no data or the pixel lies outside it.
bool ReadPixelFloat(const FrameJob& job, int32_t x, int32_t y, float rgb[3]);

}  // namespace kiv::color
