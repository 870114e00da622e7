// Cost of the CPU overlay per 1080p frame: canvas copy alone, one full-frame
// rectangle outline, a 64-pixel text item whose box covers a third of the
// frame, and a 256x256 picture, in NV12 and RGB32. Text and pictures come from
// a rasteriser that hands back prepared BGRA pixels, so what is measured is
// the portable part: canvas copy plus the per-pixel blend of the item's box.
// Heap allocations per frame are counted to show the warm path makes none.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "kivcapture.h"
#include "support/counting_allocator.h"
#include "processing/kiv_video_osd.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

// Stands in for GDI+: the prepared pixels of a text box are half-transparent
// black with a quarter of the pixels opaque white (glyphs); a picture is opaque.
class PreparedRasterizer : public kiv::OsdRasterizer {
public:
    PreparedRasterizer() : pixels_(static_cast<size_t>(kWidth) * kHeight) {
        for (size_t i = 0; i < pixels_.size(); ++i) pixels_[i] = (i % 4 == 0) ? 0xFFFFFFFFu : 0x80000000u;
    }
    bool DrawText(const kiv::OsdTextJob&, int32_t, int32_t, const kiv::OsdRect& region, kiv::OsdBgraView* out) override {
        return View(region, out);
    }
    std::unique_ptr<kiv::OsdPicture> LoadPicture(const kiv::OsdString&) override {
        return std::make_unique<Picture>();  // one small allocation, as a decoded file would be
    }
    bool DrawPicture(const kiv::OsdPicture&, int32_t, int32_t, const kiv::OsdRect&, const kiv::OsdRect& region,
                     kiv::OsdBgraView* out) override {
        for (int32_t row = 0; row < region.height; ++row) {
            std::fill_n(pixels_.begin() + static_cast<ptrdiff_t>(row) * region.width, region.width, 0xFF2080C0u);
        }
        return View(region, out);
    }

private:
    struct Picture : kiv::OsdPicture {
        int32_t Width() const override { return 256; }
        int32_t Height() const override { return 256; }
    };
    bool View(const kiv::OsdRect& region, kiv::OsdBgraView* out) {
        out->pixels = reinterpret_cast<const uint8_t*>(pixels_.data());
        out->stride = region.width * 4;
        return true;
    }
    std::vector<uint32_t> pixels_;
};

enum Scene { kCanvasOnly, kRectangle, kText, kPicture };

void OverlayFrame(benchmark::State& state) {
    const int32_t format = static_cast<int32_t>(state.range(0));
    const Scene scene = static_cast<Scene>(state.range(1));
    KivVideoOsd osd(std::make_unique<PreparedRasterizer>());
    KivPortBase sink(KIV_PORT_VIDEO_SINK_RESERVED);
    osd.AddOverlayOutput(&sink);

    KivVideoOsdItem item{};
    item.visible = 1;
    item.opacity = 1.0f;
    switch (scene) {
    case kCanvasOnly:  // a visible rectangle wholly off the frame: copy, draw nothing
        item.x = -100;
        item.width = 10;
        item.height = 10;
        osd.AddItem(&item, kiv::kOsdRect);
        break;
    case kRectangle:
        item.width = kWidth - 1;
        item.height = kHeight - 1;
        item.size = 3;
        osd.AddItem(&item, kiv::kOsdRect);
        break;
    case kText:
        item.size = 64;
        item.y = kHeight / 3;
        item.height = kHeight / 3;  // full width (automatic), a third of the height
        item.text[0] = 'A';
        osd.AddItem(&item, kiv::kOsdText);
        break;
    case kPicture:
        item.x = 100;
        item.y = 100;
        item.imagePath[0] = 'p';
        osd.AddItem(&item, kiv::kOsdPicture);
        break;
    }

    const size_t bytes = format == KIV_PIXEL_FORMAT_NV12 ? size_t{kWidth} * kHeight * 3 / 2 : size_t{kWidth} * kHeight * 4;
    std::vector<uint8_t> pixels(bytes, 0x50);
    KivVideoFrame frame{};
    frame.planes[0] = pixels.data();
    frame.width = kWidth;
    frame.height = kHeight;
    frame.format = format;
    if (format == KIV_PIXEL_FORMAT_NV12) {
        frame.strides[0] = kWidth;
        frame.strides[1] = kWidth;
        frame.planes[1] = pixels.data() + size_t{kWidth} * kHeight;
    } else {
        frame.strides[0] = kWidth * 4;
    }

    osd.OnVideoFrame(&frame);  // grows the canvas
    const long long before = kivbench::AllocationCount();
    for (auto _ : state) benchmark::DoNotOptimize(osd.OnVideoFrame(&frame));
    state.counters["allocs/frame"] =
        static_cast<double>(kivbench::AllocationCount() - before) / static_cast<double>(state.iterations());
}

void Scenes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"fmt", "scene"});
    for (int format : {KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB32}) {
        for (int scene : {kCanvasOnly, kRectangle, kText, kPicture}) b->Args({format, scene});
    }
    b->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(OverlayFrame)->Apply(Scenes);

BENCHMARK_MAIN();
