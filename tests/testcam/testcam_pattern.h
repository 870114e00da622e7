// The frame number in the test camera's pictures: the top display row carries it as 32 cells of width / 32
// pixels (at least 1; cameras need a width of at least 32), most significant bit first, a set bit bright
// (luma 235, RGB 255), a clear bit dark (16, 0); every other row is grey (100).
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace testcam {

enum class PatternFormat { YUY2, NV12, RGB24, RGB32 };

inline int PatternCellWidth(int width) { return width / 32 > 0 ? width / 32 : 1; }
// Where pixel x of a row of the luma (or packed RGB) plane starts: 2, 1, 3, 4 bytes a pixel.
inline size_t PatternPixelOffset(PatternFormat f, int x) { return size_t(x) * size_t("\2\1\3\4"[int(f)]); }

// Fills a whole buffer of `stride` bytes a row (NV12 chroma follows the luma
// with the same stride); bottomUp stores the display rows in reverse order.
inline void WritePattern(PatternFormat f, int width, int height, size_t stride, bool bottomUp, uint32_t number, uint8_t* data) {
    const bool rgb = f == PatternFormat::RGB24 || f == PatternFormat::RGB32;
    const size_t plane = stride * size_t(height);
    std::memset(data, 100, plane);
    for (size_t i = 1; f == PatternFormat::YUY2 && i < plane; i += 2) data[i] = 128;
    if (f == PatternFormat::NV12) std::memset(data + plane, 128, stride * size_t((height + 1) / 2));
    uint8_t* row = data + (bottomUp ? stride * size_t(height - 1) : 0);
    for (int x = 0; x < width; ++x) {
        const int bit = x / PatternCellWidth(width);
        const bool set = bit < 32 && ((number >> (31 - bit)) & 1u) != 0;
        std::memset(row + PatternPixelOffset(f, x), rgb ? (set ? 255 : 0) : (set ? 235 : 16), rgb ? 3 : 1);
    }
}

// The frame number in the top display row, read at the middle of each cell.
inline uint32_t ReadPattern(PatternFormat f, int width, const uint8_t* topRow) {
    const int cell = PatternCellWidth(width);
    uint32_t number = 0;
    for (int bit = 0, x = cell / 2; bit < 32; ++bit, x += cell)
        number = (number << 1) | (x < width && topRow[PatternPixelOffset(f, x)] >= 128 ? 1u : 0u);
    return number;
}

}  // namespace testcam
