// The overlay's drawing surface: a copy of the frame in YUY2, NV12 or 32-bit
// BGRA, the single blend primitive every item goes through, and the frame
// record that hands the result on. Buffers only grow, so a warmed-up canvas
// allocates nothing.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

class OsdCanvas {
public:
    // Copies the frame onto the canvas: YUY2 and NV12 keep their format, every
    // other uncompressed format becomes RGB32. -2 for an empty frame, -4 for a
    // format the canvas cannot hold, -1 for a frame it must not read (RGB rows
    // longer than their stride) or too large for its buffers; the canvas is
    // then unchanged.
    KivResult Build(const KivVideoFrame& frame);

    // The RGB32 builder on its own; it also converts YUY2 and NV12 (BT.601,
    // studio range), which Build never asks of it.
    KivResult BuildRgb32(const KivVideoFrame& frame);

    // Blends one colour into the pixel at (x, y) with weight alpha/255 x
    // opacity; pixels outside the canvas are ignored.
    void BlendPixel(int32_t x, int32_t y, uint8_t blue, uint8_t green, uint8_t red, uint8_t alpha, float opacity);

    // Blends `count` rasteriser pixels (blue, green, red, alpha bytes) into row
    // y from column x on, each through BlendPixel. With a colour key, pixels
    // whose red, green and blue match keyArgb's count as fully transparent.
    void BlendBgraSpan(int32_t x, int32_t y, const uint8_t* bgra, int32_t count, float opacity, bool keyed,
                       uint32_t keyArgb);

    // The canvas as a frame; timing fields come from the frame it was built from.
    KivVideoFrame Frame(const KivVideoFrame& source);

    int32_t Width() const { return width_; }
    int32_t Height() const { return height_; }
    int32_t Format() const { return format_; }
    bool Empty() const { return width_ < 1 || height_ < 1; }

private:
    KivResult BuildYuy2(const KivVideoFrame& frame);
    KivResult BuildNv12(const KivVideoFrame& frame);
    int32_t EvenWidth() const { return (width_ + 1) & ~1; }

    std::vector<uint8_t> bgra_;
    std::vector<uint8_t> plane0_;  // YUY2 packed picture or NV12 luma
    std::vector<uint8_t> plane1_;  // NV12 interleaved Cb/Cr
    int32_t width_ = 0;
    int32_t height_ = 0;
    int32_t format_ = 0;
};

// BT.601 studio-range conversions with the integer rounding the canvas uses.
struct OsdYcc {
    uint8_t y, cb, cr;
};
inline uint8_t OsdClamp255(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }
inline OsdYcc OsdRgbToYcc(uint8_t red, uint8_t green, uint8_t blue) {
    const int32_t r = red, g = green, b = blue;
    return OsdYcc{OsdClamp255(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16),
                  OsdClamp255(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128),
                  OsdClamp255(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128)};
}
void OsdYccToBgr(uint8_t y, uint8_t cb, uint8_t cr, uint8_t* bgr);

// old x (1 - a) + new x a, rounded half up, for a in (0, 1].
inline uint8_t OsdBlendByte(uint8_t old, uint8_t value, float a) {
    return static_cast<uint8_t>(static_cast<float>(old) * (1.0f - a) + static_cast<float>(value) * a + 0.5f);
}

}  // namespace kiv
