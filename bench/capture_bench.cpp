// Cost of the capture path per 1080p frame: the grabber's buffer checked and
// copied into the queue, handed to the dispatch thread and delivered to a
// callback, beside a plain copy of the same bytes. Heap allocations per warm
// frame are counted process-wide.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "capture/capture_registry.h"
#include "capture/kiv_video_input.h"
#include "kivcapture.h"
#include "support/counting_allocator.h"

namespace {

using namespace kiv::capture;

// A graph that connects at the merged request and lets the benchmark play
// the sample grabber by calling the port's intake directly.
class BenchGraph final : public CaptureGraph {
public:
    int32_t Build(int32_t device, const void*, MergedRequest* actual, ConnectedFormat* connected,
                  SampleSink*) override {
        *actual = MergeDeviceRequests(device);
        connected->width = actual->width;
        connected->height = actual->height;
        connected->format = actual->format;
        return 0;
    }
    int32_t Run() override { return 0; }
    void DetachCallback(int32_t, const void*) override {}
    void StopAndRelease(int32_t, const void*, uint32_t) override {}
};

void KIV_CALL CountFrame(const KivVideoFrame* frame, void* user) {
    static_cast<std::atomic<uint64_t>*>(user)->fetch_add(1, std::memory_order_release);
    benchmark::DoNotOptimize(frame);
}

size_t FrameBytes(int32_t format) { return format == KIV_PIXEL_FORMAT_NV12 ? 1920 * 1080 * 3 / 2 : 1920 * 1080 * 2; }

// One frame at a time: fed, then waited for until the callback has it, so
// the figure is the whole hand-over from capture thread to consumer.
void BM_CaptureIntakeAndDispatch(benchmark::State& state) {
    const int32_t format = static_cast<int32_t>(state.range(0));
    KIV_Init();
    SetCaptureGraphFactory([]() -> std::unique_ptr<CaptureGraph> { return std::make_unique<BenchGraph>(); });
    SetCaptureDeviceCountOverride(1);
    std::vector<uint8_t> buffer(FrameBytes(format), 0x5a);
    std::atomic<uint64_t> delivered{0};
    void* port = KIV_CreateVideoInput();
    KIV_SetVideoInputFormat(port, 1920, 1080, 30, format);
    KIV_SetVideoFrameCallback(port, &CountFrame, &delivered);
    KIV_Start(port);
    auto* input = static_cast<KivVideoInput*>(static_cast<KivPortBase*>(port));
    uint64_t fed = 0;
    auto feedOne = [&] {
        input->OnCapturedBuffer(buffer.data(), static_cast<long>(buffer.size()));
        ++fed;
        while (delivered.load(std::memory_order_acquire) < fed) std::this_thread::yield();
    };
    for (int i = 0; i < 8; ++i) feedOne();  // warm the queue's buffers
    const long long allocsBefore = kivbench::AllocationCount();
    for (auto _ : state) feedOne();
    const long long allocs = kivbench::AllocationCount() - allocsBefore;
    state.counters["allocs_per_frame"] =
        benchmark::Counter(static_cast<double>(allocs) / static_cast<double>(state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
    KIV_DestroyPort(port);
    SetCaptureGraphFactory(nullptr);
    SetCaptureDeviceCountOverride(-1);
    KIV_Shutdown();
}
BENCHMARK(BM_CaptureIntakeAndDispatch)->Arg(KIV_PIXEL_FORMAT_YUY2)->Arg(KIV_PIXEL_FORMAT_NV12)->UseRealTime();

// The floor: one copy of the same frame.
void BM_PlainFrameCopy(benchmark::State& state) {
    const size_t bytes = FrameBytes(static_cast<int32_t>(state.range(0)));
    std::vector<uint8_t> from(bytes, 0x5a), to(bytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_PlainFrameCopy)->Arg(KIV_PIXEL_FORMAT_YUY2)->Arg(KIV_PIXEL_FORMAT_NV12);

}  // namespace

BENCHMARK_MAIN();
