// How the test camera writes the frame number into its pictures and how a
// test reads it back: the top display row carries the 32-bit number, most
// significant bit first, in 32 cells of width / 32 pixels (at least 1), a set
// bit bright (luma 235, RGB 255), a clear bit dark (16, 0); every other row is
// grey (100). Cameras need a width of at least 32 pixels.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace testcam {

enum class PatternFormat { YUY2, NV12, RGB24, RGB32 };

inline int PatternCellWidth(int width) { return width / 32 > 0 ? width / 32 : 1; }

// Where pixel x of a row of the luma (or packed RGB) plane starts.
inline size_t PatternPixelOffset(PatternFormat f, int x) {
    const size_t bytes[] = {2, 1, 3, 4};  // YUY2, NV12, RGB24, RGB32
    return static_cast<size_t>(x) * bytes[static_cast<int>(f)];
}

// Fills a whole buffer of `stride` bytes a row (NV12 chroma follows the luma
// with the same stride); bottomUp stores the display rows in reverse order.
inline void WritePattern(PatternFormat f, int width, int height, size_t stride, bool bottomUp, uint32_t number,
                         uint8_t* data) {
    const bool rgb = f == PatternFormat::RGB24 || f == PatternFormat::RGB32;
    const size_t plane = stride * static_cast<size_t>(height);
    std::memset(data, 100, plane);
    for (size_t i = 1; f == PatternFormat::YUY2 && i < plane; i += 2) data[i] = 128;
    if (f == PatternFormat::NV12) std::memset(data + plane, 128, stride * static_cast<size_t>((height + 1) / 2));
    uint8_t* row = data + (bottomUp ? stride * static_cast<size_t>(height - 1) : 0);
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
    for (int bit = 0; bit < 32; ++bit) {
        const int x = bit * cell + cell / 2;
        number = (number << 1) | (x < width && topRow[PatternPixelOffset(f, x)] >= 128 ? 1u : 0u);
    }
    return number;
}

}  // namespace testcam
