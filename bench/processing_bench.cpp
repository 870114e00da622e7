// Per-frame cost of the crop port and the colour engine at 1920x1080, and
// the allocations of a warm processing chain.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "support/counting_allocator.h"
#include "kivcapture.h"
#include "processing/kiv_video_color.h"
#include "processing/kiv_video_crop.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

struct BenchFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    explicit BenchFrame(int32_t format) {
        frame.format = format;
        frame.width = kWidth;
        frame.height = kHeight;
        const size_t bpp = format == KIV_PIXEL_FORMAT_YUY2 ? 2 : format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 1;
        const size_t size = format == KIV_PIXEL_FORMAT_NV12 ? size_t{kWidth} * kHeight * 3 / 2 : size_t{kWidth} * kHeight * bpp;
        bytes.resize(size);
        // A smooth gradient with noise, like camera pictures.
        std::mt19937 rng(1);
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>((i / 7 + (i / (kWidth * bpp)) + (rng() & 15)) & 255);
        frame.planes[0] = bytes.data();
        frame.strides[0] = static_cast<int32_t>(format == KIV_PIXEL_FORMAT_NV12 ? kWidth : kWidth * bpp);
        if (format == KIV_PIXEL_FORMAT_NV12) {
            frame.planes[1] = bytes.data() + size_t{kWidth} * kHeight;
            frame.strides[1] = kWidth;
        }
    }
};

// A warm grade on a 33-point lattice.
std::string WriteWarmCube() {
    const std::filesystem::path path = std::filesystem::temp_directory_path() / "kiv_bench_warm33.cube";
    std::ofstream out(path, std::ios::binary);
    out << "LUT_3D_SIZE 33\n";
    char line[96];
    for (int b = 0; b < 33; ++b)
        for (int g = 0; g < 33; ++g)
            for (int r = 0; r < 33; ++r) {
                const float rf = r / 32.0f, gf = g / 32.0f, bf = b / 32.0f;
                std::snprintf(line, sizeof line, "%.6f %.6f %.6f\n", std::min(1.0f, rf * 1.08f + 0.02f), gf * 0.98f + 0.01f,
                              bf * 0.85f);
                out << line;
            }
    return path.string();
}

std::basic_string<KivWChar> ToWide(const std::string& s) { return std::basic_string<KivWChar>(s.begin(), s.end()); }

void BM_CropCopy(benchmark::State& state) {
    const int32_t format = static_cast<int32_t>(state.range(0));
    BenchFrame in(format);
    KivVideoCrop crop;
    const KivVideoCropRect rect{160, 90, 1600, 900};
    crop.SetRect(rect);
    crop.Enable(1);
    for (auto _ : state) crop.OnVideoFrame(&in.frame);
    state.SetLabel(format == KIV_PIXEL_FORMAT_YUY2 ? "YUY2" : format == KIV_PIXEL_FORMAT_NV12 ? "NV12" : "RGB32");
}
BENCHMARK(BM_CropCopy)->Arg(KIV_PIXEL_FORMAT_YUY2)->Arg(KIV_PIXEL_FORMAT_NV12)->Arg(KIV_PIXEL_FORMAT_RGB32)->Unit(benchmark::kMillisecond);

// The floor for a crop: one memcpy of the output bytes.
void BM_MemcpyOfCropOutput(benchmark::State& state) {
    const size_t bytes = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> src(bytes, 1), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MemcpyOfCropOutput)
    ->Arg(1600 * 900 * 2)
    ->Arg(1600 * 900 * 3 / 2)
    ->Arg(1600 * 900 * 4)
    ->Unit(benchmark::kMillisecond);

// Args: input format, output format, table on (1) or off (0), strength in percent.
void BM_ColorEngine(benchmark::State& state) {
    static const std::string cube = WriteWarmCube();
    const int32_t inFmt = static_cast<int32_t>(state.range(0));
    const int32_t outFmt = static_cast<int32_t>(state.range(1));
    const bool table = state.range(2) != 0;
    const float strength = static_cast<float>(state.range(3)) / 100.0f;
    BenchFrame in(inFmt);
    KivVideoColorEngine engine;
    if (engine.LoadCubeFile(ToWide(cube).c_str()) != KIV_OK) {
        state.SkipWithError("cube load failed");
        return;
    }
    const KivVideoColorEngineConfig config{0, table ? 1 : 0, outFmt, 2, 2, strength};
    engine.SetConfig(&config);
    for (auto _ : state) engine.OnVideoFrame(&in.frame);
}
constexpr int64_t Y = KIV_PIXEL_FORMAT_YUY2, N = KIV_PIXEL_FORMAT_NV12, R24 = KIV_PIXEL_FORMAT_RGB24,
                  R32 = KIV_PIXEL_FORMAT_RGB32;
BENCHMARK(BM_ColorEngine)
    ->ArgNames({"in", "out", "lut", "strength%"})
    // Table of 33 points at strength 1.0 and 0.6.
    ->Args({Y, R32, 1, 100})->Args({Y, R32, 1, 60})
    ->Args({R32, R32, 1, 100})->Args({R32, R32, 1, 60})
    ->Args({Y, Y, 1, 100})->Args({Y, Y, 1, 60})
    ->Args({N, N, 1, 100})->Args({N, N, 1, 60})
    // Conversions alone.
    ->Args({Y, R32, 0, 100})->Args({N, R32, 0, 100})->Args({R32, Y, 0, 100})->Args({R32, R24, 0, 100})
    ->Args({Y, N, 0, 100})->Args({N, Y, 0, 100})
    ->Unit(benchmark::kMillisecond);

// A whole chain as an application wires it (frame source, crop, colour
// engine, overlay with a rectangle) fed from one thread. The output buffers
// come from each port's work pool; once warm the frame path allocates
// nothing, which the "allocs/frame" counter shows.
void BM_WarmChainAllocations(benchmark::State& state) {
    static const std::string cube = WriteWarmCube();
    if (KIV_Init() != KIV_OK) {
        state.SkipWithError("KIV_Init failed");
        return;
    }
    void* source = KIV_CreateVideoFrameSource();
    void* crop = KIV_CreateVideoCrop();
    void* color = KIV_CreateVideoColorEngine();
    void* osd = KIV_CreateVideoOsd();
    const KivVideoCropRect rect{160, 90, 1600, 900};
    KIV_SetVideoCropRect(crop, &rect);
    KIV_EnableVideoCrop(crop, 1);
    KIV_LoadVideoColorEngineCubeFile(color, ToWide(cube).c_str());
    const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_NV12, 2, 2, 1.0f};
    KIV_SetVideoColorEngineConfig(color, &config);
    KivVideoOsdItem box{};
    box.visible = 1;
    box.x = box.y = 20;
    box.width = 400;
    box.height = 200;
    box.opacity = 0.5f;
    box.color = 0xFFFF0000;
    KIV_AddVideoOsdRect(osd, &box);
    void* tap = KIV_CreateVideoMux();
    KIV_Connect(source, crop);
    KIV_Connect(crop, color);
    KIV_Connect(color, osd);
    KIV_ConnectVideoOsdOutput(osd, 1, tap);

    BenchFrame in(KIV_PIXEL_FORMAT_YUY2);
    for (int i = 0; i < 3; ++i) KIV_PushVideoFrame(source, &in.frame);  // warm-up
    const long long before = kivbench::AllocationCount();
    int64_t frames = 0;
    for (auto _ : state) {
        KIV_PushVideoFrame(source, &in.frame);
        ++frames;
    }
    state.counters["allocs/frame"] =
        static_cast<double>(kivbench::AllocationCount() - before) / static_cast<double>(frames > 0 ? frames : 1);

    KIV_Disconnect(source, crop);
    KIV_Disconnect(crop, color);
    KIV_Disconnect(color, osd);
    KIV_Disconnect(osd, tap);
    for (void* port : {source, crop, color, osd, tap}) KIV_DestroyPort(port);
    KIV_Shutdown();
}
BENCHMARK(BM_WarmChainAllocations)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
