// Without DirectShow there is no device to open.
#include "capture_graph.h"
#include "capture_log.h"

namespace kiv::capture {

namespace {

class NoCaptureGraph final : public CaptureGraph {
public:
    int32_t Build(int32_t device, const void*, MergedRequest*, ConnectedFormat*, SampleSink*) override {
        KIV_VIN_LOG("Video device moniker not found index=%d", device);
        return -1;
    }
    int32_t Run() override { return -1; }
    void DetachCallback(int32_t, const void*) override {}
    void StopAndRelease(int32_t, const void*, uint32_t) override {}
};

}  // namespace

std::unique_ptr<CaptureGraph> CreatePlatformCaptureGraph() { return std::make_unique<NoCaptureGraph>(); }

}  // namespace kiv::capture
