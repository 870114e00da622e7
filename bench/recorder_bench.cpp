// Pass-through recording of a 1080p H.264 stream made by ffmpeg, through the
// public interface: a frame source feeding a recorder, timed from the first
// push until Stop returns (the worker's analysis, MP4 writing and
// finalisation included). scripts/bench-recorder-ffmpeg.sh times
// `ffmpeg -c copy` on the same stream for comparison.
// Heap allocations are counted to show that the warm upstream path makes
// none.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "kivcapture.h"
#include "support/counting_allocator.h"
#include "record/kiv_recorder.h"
#include "record/nv12_convert.h"

namespace {

// Keep in step with scripts/bench-recorder-ffmpeg.sh, which makes the same file.
const char* const kStreamPath = "/tmp/kiv_recorder_bench_1080p.h264";
const char* const kMakeStream =
    "ffmpeg -v error -y -f lavfi -i testsrc2=s=1920x1080:r=30 -frames:v 300 -pix_fmt yuv420p -c:v libx264 "
    "-preset veryfast -b:v 8M -g 60 -bsf:v h264_metadata=aud=insert -f h264 /tmp/kiv_recorder_bench_1080p.h264";
const char* const kOutput = "/tmp/kiv_recorder_bench_out.mp4";

std::vector<uint8_t> ReadAll(const char* path) {
    std::vector<uint8_t> bytes;
    FILE* f = std::fopen(path, "rb");
    if (!f) return bytes;
    uint8_t buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    std::fclose(f);
    return bytes;
}

// Access units of the stream, cut at its access-unit delimiters.
struct Stream {
    std::vector<std::vector<uint8_t>> units;
    size_t bytes = 0;
};

const Stream& BenchStream() {
    static const Stream stream = [] {
        Stream s;
        std::vector<uint8_t> b = ReadAll(kStreamPath);
        if (b.empty() && std::system(kMakeStream) == 0) b = ReadAll(kStreamPath);
        std::vector<size_t> cuts;
        for (size_t i = 0; i + 4 < b.size(); ++i) {
            if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1 && (b[i + 3] & 0x1F) == 9) {
                cuts.push_back(i > 0 && b[i - 1] == 0 ? i - 1 : i);
            }
        }
        for (size_t k = 0; k < cuts.size(); ++k) {
            const size_t end = k + 1 < cuts.size() ? cuts[k + 1] : b.size();
            s.units.emplace_back(b.begin() + static_cast<ptrdiff_t>(cuts[k]), b.begin() + static_cast<ptrdiff_t>(end));
        }
        s.bytes = b.size();
        return s;
    }();
    return stream;
}

KivVideoFrame H264Frame(const std::vector<uint8_t>& au, int64_t index) {
    KivVideoFrame f{};
    f.format = KIV_PIXEL_FORMAT_H264;
    f.width = 1920;
    f.height = 1080;
    f.planes[0] = const_cast<uint8_t*>(au.data());
    f.strides[0] = static_cast<int32_t>(au.size());
    f.timestamp = 10000000 + index * 333333;
    return f;
}

struct Graph {
    void* source = nullptr;
    void* recorder = nullptr;
    Graph() {
        source = KIV_CreateVideoFrameSource();
        recorder = KIV_CreateRecorder(kOutput);
        KivRecorderConfig c{};
        c.recordFps = 30;
        KIV_SetRecorderConfig(recorder, &c);
        KIV_Connect(source, recorder);
    }
    ~Graph() {
        KIV_Disconnect(source, recorder);
        KIV_DestroyPort(recorder);
        KIV_DestroyPort(source);
    }
    KivRecorder* Port() { return static_cast<KivRecorder*>(static_cast<KivPortBase*>(recorder)); }
};

// Every frame written: the producer waits while the queue is full instead of
// letting the recorder drop the oldest frame.
void BM_PassThrough1080p(benchmark::State& state) {
    const Stream& stream = BenchStream();
    if (stream.units.empty()) {
        state.SkipWithError("ffmpeg could not make the 1080p stream");
        return;
    }
    KIV_Init();
    long long allocations = 0;
    int64_t written = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Graph graph;
        state.ResumeTiming();
        KIV_Start(graph.recorder);
        const long long before = kivbench::AllocationCount();
        for (size_t i = 0; i < stream.units.size(); ++i) {
            // Seven queued frames keep the worker busy for far longer than
            // this nap, and napping leaves the worker its core.
            while (graph.Port()->QueuedFrames() >= graph.Port()->QueueLimit() - 1) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
            const KivVideoFrame f = H264Frame(stream.units[i], static_cast<int64_t>(i));
            KIV_PushVideoFrame(graph.source, &f);
        }
        // Stop discards what the worker has not taken yet: wait for the last frame.
        const int64_t total = static_cast<int64_t>(stream.units.size());
        for (KivRecorderStats s{}; KIV_GetRecorderStats(graph.recorder, &s) == KIV_OK && s.inputFrames < total;) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        KIV_Stop(graph.recorder);
        allocations += kivbench::AllocationCount() - before;
        state.PauseTiming();
        KivRecorderStats s{};
        KIV_GetRecorderStats(graph.recorder, &s);
        written += s.encodedFrames;
        state.ResumeTiming();
    }
    const double frames = static_cast<double>(stream.units.size());
    if (written != static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frames)) {
        state.SkipWithError("frames were lost");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(stream.bytes));
    state.counters["fps"] = benchmark::Counter(frames, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["allocs/frame"] = static_cast<double>(allocations) / (frames * static_cast<double>(state.iterations()));
    KIV_Shutdown();
}
BENCHMARK(BM_PassThrough1080p)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

// The upstream thread's cost per frame: one copy into the queue. The worker
// runs meanwhile; when it falls behind the queue drops its oldest frame.
void BM_UpstreamPush1080p(benchmark::State& state) {
    const Stream& stream = BenchStream();
    if (stream.units.empty()) {
        state.SkipWithError("ffmpeg could not make the 1080p stream");
        return;
    }
    KIV_Init();
    {
        Graph graph;
        KIV_Start(graph.recorder);
        int64_t index = 0;
        size_t bytes = 0;
        // Warm up: every queue buffer grown to the largest frame.
        for (const auto& au : stream.units) {
            const KivVideoFrame f = H264Frame(au, index++);
            KIV_PushVideoFrame(graph.source, &f);
        }
        const long long before = kivbench::AllocationCount();
        for (auto _ : state) {
            const auto& au = stream.units[static_cast<size_t>(index) % stream.units.size()];
            const KivVideoFrame f = H264Frame(au, index++);
            KIV_PushVideoFrame(graph.source, &f);
            bytes += au.size();
        }
        state.counters["allocs/frame"] =
            static_cast<double>(kivbench::AllocationCount() - before) / static_cast<double>(state.iterations());
        state.SetBytesProcessed(static_cast<int64_t>(bytes));
        KIV_Stop(graph.recorder);
    }
    KIV_Shutdown();
}
BENCHMARK(BM_UpstreamPush1080p)->Unit(benchmark::kMicrosecond)->Iterations(3000);

// Conversion of an uncompressed 1080p frame to the encoder's NV12 picture,
// the worker's per-frame cost on the encode path before the platform encoder.
void BM_ConvertToNv12_1080p(benchmark::State& state) {
    const int32_t format = static_cast<int32_t>(state.range(0));
    const int32_t bytesPerPixel = format == KIV_PIXEL_FORMAT_RGB32 ? 4 : format == KIV_PIXEL_FORMAT_RGB24 ? 3 : 2;
    std::vector<uint8_t> pixels(static_cast<size_t>(1920) * 1080 * 2 * 2, 0x5A);
    KivVideoFrame f{};
    f.format = format;
    f.width = 1920;
    f.height = 1080;
    f.planes[0] = pixels.data();
    f.strides[0] = format == KIV_PIXEL_FORMAT_NV12 ? 1920 : 1920 * bytesPerPixel;
    const int32_t outWidth = static_cast<int32_t>(state.range(1));
    const int32_t outHeight = outWidth * 9 / 16;
    std::vector<uint8_t> out;
    for (auto _ : state) {
        kiv::ConvertToNv12(f, outWidth, outHeight, &out);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_ConvertToNv12_1080p)
    ->ArgNames({"format", "outWidth"})
    ->Args({KIV_PIXEL_FORMAT_NV12, 1920})
    ->Args({KIV_PIXEL_FORMAT_YUY2, 1920})
    ->Args({KIV_PIXEL_FORMAT_RGB32, 1920})
    ->Args({KIV_PIXEL_FORMAT_RGB24, 1920})
    ->Args({KIV_PIXEL_FORMAT_RGB32, 1280})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
