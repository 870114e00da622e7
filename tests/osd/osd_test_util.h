// Shared helpers of the overlay tests: a scripted rasteriser, an item record
// builder and a BMP writer.
#pragma once
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "processing/osd_rasterizer.h"

namespace osdtest {

// Draws nothing itself: it records what it was asked and hands back a
// prepared solid BGRA colour for the requested region.
class FakeRasterizer : public kiv::OsdRasterizer {
public:
    struct Calls {
        int text = 0;
        int picture = 0;
        kiv::OsdTextJob lastText{};
        kiv::OsdRect lastRegion{};
        kiv::OsdRect lastDest{};
    };
    // The log outlives the rasteriser, which the port owns.
    explicit FakeRasterizer(std::shared_ptr<Calls> calls, uint32_t bgra = 0xFFFF0000u)
        : calls_(std::move(calls)), bgra_(bgra) {}

    // Pictures the fake "loads": any non-empty path gives this size.
    int32_t pictureWidth = 16;
    int32_t pictureHeight = 8;
    // When set, LoadPicture fails as for a missing file.
    bool missingFile = false;

    bool DrawText(const kiv::OsdTextJob& job, int32_t, int32_t, const kiv::OsdRect& region,
                  kiv::OsdBgraView* out) override {
        calls_->text++;
        calls_->lastText = job;
        calls_->lastRegion = region;
        return Fill(region, out);
    }
    std::unique_ptr<kiv::OsdPicture> LoadPicture(const kiv::OsdString&) override {
        if (missingFile) return nullptr;
        return std::make_unique<Picture>(pictureWidth, pictureHeight);
    }
    bool DrawPicture(const kiv::OsdPicture&, int32_t, int32_t, const kiv::OsdRect& dest, const kiv::OsdRect& region,
                     kiv::OsdBgraView* out) override {
        calls_->picture++;
        calls_->lastDest = dest;
        calls_->lastRegion = region;
        return Fill(region, out);
    }

private:
    struct Picture : kiv::OsdPicture {
        Picture(int32_t w, int32_t h) : w_(w), h_(h) {}
        int32_t Width() const override { return w_; }
        int32_t Height() const override { return h_; }
        int32_t w_, h_;
    };
    bool Fill(const kiv::OsdRect& region, kiv::OsdBgraView* out) {
        pixels_.resize(static_cast<size_t>(region.width) * static_cast<size_t>(region.height));
        for (uint32_t& p : pixels_) p = bgra_;  // read as 0xAARRGGBB: little-endian bytes B, G, R, A
        out->pixels = reinterpret_cast<const uint8_t*>(pixels_.data());
        out->stride = region.width * 4;
        return true;
    }
    std::shared_ptr<Calls> calls_;
    uint32_t bgra_;
    std::vector<uint32_t> pixels_;
};

// Writes a bottom-up 24-bit BMP whose pixel (x, y), counted from the top,
// is colour(x, y) as 0xRRGGBB.
template <class Colour>
void WriteBmp24(const std::string& path, int w, int h, Colour colour) {
    const int rowBytes = (w * 3 + 3) & ~3;
    std::vector<uint8_t> file(54 + size_t(rowBytes) * h, 0);
    // Little-endian fields from offset 2: file size, reserved, pixel offset,
    // header size, width, height, planes and bits per pixel, compression, pixel bytes.
    const uint32_t fields[] = {uint32_t(file.size()), 0, 54, 40, uint32_t(w), uint32_t(h), 1 | 24 << 16, 0,
                               uint32_t(rowBytes * h)};
    for (size_t i = 0; i < 4 * std::size(fields); ++i) file[2 + i] = uint8_t(fields[i / 4] >> (8 * (i % 4)));
    file[0] = 'B';
    file[1] = 'M';
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const uint32_t rgb = colour(x, y);
            uint8_t* p = &file[54 + size_t(h - 1 - y) * rowBytes + size_t(x) * 3];  // rows run bottom-up
            p[0] = uint8_t(rgb), p[1] = uint8_t(rgb >> 8), p[2] = uint8_t(rgb >> 16);
        }
    }
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
}

inline KivVideoOsdItem Item(int32_t x, int32_t y, int32_t width, int32_t height) {
    KivVideoOsdItem item;
    std::memset(&item, 0, sizeof item);
    item.visible = 1;
    item.x = x;
    item.y = y;
    item.width = width;
    item.height = height;
    item.opacity = 1.0f;
    return item;
}

template <size_t N>
void SetText(KivWChar (&field)[N], const char* ascii) {
    size_t i = 0;
    for (; ascii[i] && i + 1 < N; ++i) field[i] = static_cast<KivWChar>(ascii[i]);
    field[i] = 0;
}

}  // namespace osdtest
