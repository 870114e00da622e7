// Cost of moving one pushed frame through the port graph, and proof that the
// warm path allocates nothing: every heap allocation in the process is
// counted and reported per frame.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "kivcapture.h"
#include "support/counting_allocator.h"
#include "ports/kiv_port_base.h"
#include "ports/kiv_video_mux.h"

namespace {

void KIV_CALL CountFrame(const KivVideoFrame* frame, void* user) {
    ++*static_cast<uint64_t*>(user);
    benchmark::DoNotOptimize(frame);
}

struct Library {
    Library() { KIV_Init(); }
    ~Library() { KIV_Shutdown(); }
};

// A frame source feeding ports that the benchmark wires up, and a pushed
// 640x480 RGB32 frame (nothing is copied, so the size does not matter).
struct Graph {
    Library library;
    std::vector<uint8_t> pixels = std::vector<uint8_t>(640 * 480 * 4, 0x40);
    KivVideoFrame frame{};
    void* source = KIV_CreateVideoFrameSource();
    std::vector<void*> ports;
    uint64_t delivered = 0;

    Graph() {
        frame.planes[0] = pixels.data();
        frame.strides[0] = 640 * 4;
        frame.width = 640;
        frame.height = 480;
        frame.format = KIV_PIXEL_FORMAT_RGB32;
    }
    ~Graph() {
        for (void* p : ports) KIV_DestroyPort(p);
        KIV_DestroyPort(source);
    }
    void* AddMux() {
        ports.push_back(KIV_CreateVideoMux());
        return ports.back();
    }
};

KivPortBase* Port(void* handle) { return static_cast<KivPortBase*>(handle); }

// Runs the push loop and reports time per hop and heap allocations per frame.
void RunPushes(benchmark::State& state, Graph& graph, int hops, uint64_t callbacksPerFrame) {
    // Creating the ports went through operator new, so a zero here would mean
    // the counting operators are not in use and the figure below is void.
    if (kivbench::AllocationCount() == 0) state.SkipWithError("allocation counter not hooked");
    for (int warm = 0; warm < 16; ++warm) KIV_PushVideoFrame(graph.source, &graph.frame);
    graph.delivered = 0;
    const long long allocationsBefore = kivbench::AllocationCount();
    for (auto _ : state) {
        ++graph.frame.frameIndex;
        KIV_PushVideoFrame(graph.source, &graph.frame);
    }
    const long long allocations = kivbench::AllocationCount() - allocationsBefore;
    const double frames = double(state.iterations());
    state.counters["allocs_per_frame"] = double(allocations) / frames;
    state.counters["per_hop"] = benchmark::Counter(frames * hops, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    if (graph.delivered != state.iterations() * callbacksPerFrame) state.SkipWithError("frames went missing");
}

// source -> mux 1 -> ... -> mux 8 -> callback. Muxes do not feed muxes
// through KIV_Connect, so the chain is wired with AddDownstream directly.
void BM_MuxChain(benchmark::State& state) {
    const int muxes = int(state.range(0));
    Graph graph;
    void* previous = graph.source;
    for (int i = 0; i < muxes; ++i) {
        void* mux = graph.AddMux();
        Port(previous)->AddDownstream(Port(mux));
        previous = mux;
    }
    KIV_SetVideoFrameCallback(previous, CountFrame, &graph.delivered);
    RunPushes(state, graph, muxes + 1, 1);  // each mux plus the final callback
}
BENCHMARK(BM_MuxChain)->Arg(1)->Arg(8);

// source -> one mux -> N muxes, each with a callback.
void BM_FanOut(benchmark::State& state) {
    const int width = int(state.range(0));
    Graph graph;
    void* hub = graph.AddMux();
    KIV_Connect(graph.source, hub);
    for (int i = 0; i < width; ++i) {
        void* leaf = graph.AddMux();
        Port(hub)->AddDownstream(Port(leaf));
        KIV_SetVideoFrameCallback(leaf, CountFrame, &graph.delivered);
    }
    RunPushes(state, graph, width + 1, uint64_t(width));  // the hub plus each leaf
}
BENCHMARK(BM_FanOut)->Arg(8)->Arg(32);

// The floor: a push that reaches only the source's own callback.
void BM_PushToCallbackOnly(benchmark::State& state) {
    Graph graph;
    KIV_SetVideoFrameCallback(graph.source, CountFrame, &graph.delivered);
    RunPushes(state, graph, 1, 1);
}
BENCHMARK(BM_PushToCallbackOnly);

}  // namespace

BENCHMARK_MAIN();
