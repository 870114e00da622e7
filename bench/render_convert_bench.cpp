// CPU cost of the render port's conversion to a target configuration for a
// 1920x1080 frame: nearest-neighbour scaling with the integer BT.601 forms.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "render/render_convert.h"

namespace {

constexpr int32_t kW = 1920, kH = 1080;

struct Source {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    explicit Source(int32_t format) {
        const int32_t stride = format == KIV_PIXEL_FORMAT_YUY2 ? kW * 2 : (format == KIV_PIXEL_FORMAT_NV12 ? kW : kW * 4);
        const size_t size = format == KIV_PIXEL_FORMAT_NV12 ? size_t(kW) * kH * 3 / 2 : size_t(stride) * kH;
        bytes.resize(size);
        for (size_t i = 0; i < size; ++i) bytes[i] = uint8_t(i * 31 + i / 4099);
        frame.planes[0] = bytes.data();
        frame.strides[0] = stride;
        if (format == KIV_PIXEL_FORMAT_NV12) {
            frame.planes[1] = bytes.data() + size_t(kW) * kH;
            frame.strides[1] = kW;
        }
        frame.width = kW;
        frame.height = kH;
        frame.format = format;
    }
};

void BM_RenderConvert(benchmark::State& state) {
    const Source src(static_cast<int32_t>(state.range(0)));
    const KivVideoRenderConfig config{static_cast<int32_t>(state.range(1)), static_cast<int32_t>(state.range(2)),
                                      static_cast<int32_t>(state.range(3))};
    KivRenderConverter converter;
    KivVideoFrame out{};
    for (auto _ : state) {
        converter.Convert(src.frame, config, &out);
        benchmark::DoNotOptimize(out.planes[0][0]);
    }
}
// {source format, target width, target height, target format}
BENCHMARK(BM_RenderConvert)
    ->ArgNames({"src", "w", "h", "dst"})
    ->Args({KIV_PIXEL_FORMAT_NV12, 0, 0, KIV_PIXEL_FORMAT_RGB32})
    ->Args({KIV_PIXEL_FORMAT_NV12, 1280, 720, KIV_PIXEL_FORMAT_RGB32})
    ->Args({KIV_PIXEL_FORMAT_YUY2, 1280, 720, KIV_PIXEL_FORMAT_RGB32})
    ->Args({KIV_PIXEL_FORMAT_RGB32, 1280, 720, KIV_PIXEL_FORMAT_NV12})
    ->Args({KIV_PIXEL_FORMAT_RGB32, 1280, 720, KIV_PIXEL_FORMAT_RGB32})
    ->Unit(benchmark::kMillisecond);

void BM_RenderExpandToBgra(benchmark::State& state) {
    const Source src(static_cast<int32_t>(state.range(0)));
    std::vector<uint8_t> out;
    for (auto _ : state) {
        KivRenderExpandToBgra(src.frame, &out);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_RenderExpandToBgra)->Arg(KIV_PIXEL_FORMAT_NV12)->Arg(KIV_PIXEL_FORMAT_RGB32)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
