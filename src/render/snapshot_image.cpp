#include "snapshot_image.h"

#include <cstring>

namespace kiv {

void PackBgr24Rows(const uint8_t* bgra, int32_t width, int32_t height, int32_t stride, std::vector<uint8_t>* out) {
    const size_t rowBytes = static_cast<size_t>(width) * 3;
    out->resize(rowBytes * height);
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* s = bgra + static_cast<size_t>(y) * stride;
        uint8_t* d = out->data() + rowBytes * y;
        for (int32_t x = 0; x < width; ++x, s += 4, d += 3) std::memcpy(d, s, 3);
    }
}

int32_t SaveSnapshotImage(const KivWChar* path, int32_t format, const uint8_t* bgra, int32_t width, int32_t height,
                          int32_t stride) {
    if (!path || path[0] == 0 || !bgra || width < 1 || height < 1 || stride < 1) return KIV_ERROR_INVALID_ARG;
    if (format != kSnapshotBmp && format != kSnapshotJpeg) return KIV_ERROR_INVALID_ARG;
    std::vector<uint8_t> rows;
    PackBgr24Rows(bgra, width, height, stride, &rows);
    return WriteSnapshotFile(path, format, rows.data(), width, height);
}

}  // namespace kiv
