// Shared helpers of the overlay tests (the GDI+ timing program writes its picture with WriteBmp24).
#pragma once
#include <fstream>
#include <iterator>

#include "test_support.h"

namespace osdtest {

inline KivVideoOsdItem Item(int32_t x, int32_t y, int32_t width, int32_t height) {
    KivVideoOsdItem item{};
    item.visible = 1, item.x = x, item.y = y, item.width = width, item.height = height, item.opacity = 1.0f;
    return item;
}

template <size_t N>
void SetText(KivWChar (&field)[N], const char* ascii) {
    size_t i = 0;
    for (; ascii[i] && i + 1 < N; ++i) field[i] = static_cast<KivWChar>(ascii[i]);
    field[i] = 0;
}

// Writes a bottom-up 24-bit BMP whose pixel (x, y), counted from the top, is colour(x, y) as 0xRRGGBB.
template <class Colour>
void WriteBmp24(const std::string& path, int w, int h, Colour colour) {
    const int rowBytes = (w * 3 + 3) & ~3;
    std::vector<uint8_t> file(54 + size_t(rowBytes) * h, 0);
    // Little-endian from offset 2: file size, reserved, pixel offset, header size, width, height, planes and bits, compression, pixel bytes.
    const uint32_t fields[] = {uint32_t(file.size()), 0, 54, 40, uint32_t(w), uint32_t(h), 1 | 24 << 16, 0, uint32_t(rowBytes * h)};
    for (size_t i = 0; i < 4 * std::size(fields); ++i) file[2 + i] = uint8_t(fields[i / 4] >> (8 * (i % 4)));
    file[0] = 'B', file[1] = 'M';
    for (int y = 0; y < h; ++y)  // rows run bottom-up
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) file[54 + size_t(h - 1 - y) * rowBytes + size_t(x) * 3 + c] = uint8_t(colour(x, y) >> (8 * c));
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
}

}  // namespace osdtest
