// Snapshot files: a 32-bit BGRA picture written as a BMP or JPEG with 24-bit
// rows (Windows Imaging Component on Windows).
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

enum SnapshotFormat : int32_t { kSnapshotBmp = 1, kSnapshotJpeg = 2 };

// Packs height rows of width BGRA pixels (source stride in bytes) into tight
// blue, green, red rows of width * 3 bytes.
void PackBgr24Rows(const uint8_t* bgra, int32_t width, int32_t height, int32_t stride, std::vector<uint8_t>* out);

// Writes the picture. 0 on success; -2 for a null or empty path, a null
// picture, a size or stride below 1 or a format other than 1 and 2; -1 for a
// platform failure (logged with its result).
int32_t SaveSnapshotImage(const KivWChar* path, int32_t format, const uint8_t* bgra, int32_t width, int32_t height,
                          int32_t stride);

// The platform's encoder over tight 24-bit rows; 0 or -1.
int32_t WriteSnapshotFile(const KivWChar* path, int32_t format, const uint8_t* bgr24, int32_t width, int32_t height);

}  // namespace kiv
