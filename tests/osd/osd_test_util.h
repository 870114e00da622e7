// Shared helpers of the overlay tests: a scripted rasteriser and item records.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "kivcapture.h"
#include "processing/osd_rasterizer.h"

namespace osdtest {

// Draws nothing itself: records what it was asked and hands back a solid BGRA colour for the requested region.
class FakeRasterizer : public kiv::OsdRasterizer {
public:
    struct Calls {  // outlives the rasteriser, which the port owns
        int text = 0, picture = 0;
        kiv::OsdTextJob lastText{};
        kiv::OsdRect lastRegion{}, lastDest{};
    };
    explicit FakeRasterizer(std::shared_ptr<Calls> calls, uint32_t bgra = 0xFFFF0000u) : calls_(std::move(calls)), bgra_(bgra) {}
    bool missingFile = false;  // LoadPicture fails as for a missing file; otherwise pictures are 16 x 8

    bool DrawText(const kiv::OsdTextJob& job, int32_t, int32_t, const kiv::OsdRect& region, kiv::OsdBgraView* out) override {
        calls_->text++, calls_->lastText = job, calls_->lastRegion = region;
        return Fill(region, out);
    }
    std::unique_ptr<kiv::OsdPicture> LoadPicture(const kiv::OsdString&) override {
        return missingFile ? nullptr : std::make_unique<Picture>();
    }
    bool DrawPicture(const kiv::OsdPicture&, int32_t, int32_t, const kiv::OsdRect& dest, const kiv::OsdRect& region,
                     kiv::OsdBgraView* out) override {
        calls_->picture++, calls_->lastDest = dest, calls_->lastRegion = region;
        return Fill(region, out);
    }

private:
    struct Picture : kiv::OsdPicture {
        int32_t Width() const override { return 16; }
        int32_t Height() const override { return 8; }
    };
    bool Fill(const kiv::OsdRect& region, kiv::OsdBgraView* out) {
        pixels_.assign(size_t(region.width) * size_t(region.height), bgra_);  // 0xAARRGGBB: bytes B, G, R, A
        out->pixels = reinterpret_cast<const uint8_t*>(pixels_.data());
        out->stride = region.width * 4;
        return true;
    }
    std::shared_ptr<Calls> calls_;
    uint32_t bgra_;
    std::vector<uint32_t> pixels_;
};

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

}  // namespace osdtest
