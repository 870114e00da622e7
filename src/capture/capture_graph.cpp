#include "capture_graph.h"

#include <atomic>

#include "kiv_state.h"

namespace kiv::capture {

namespace {
std::atomic<CaptureGraphFactory> g_factory{nullptr};
std::atomic<int32_t> g_deviceCountOverride{-1};
}  // namespace

std::unique_ptr<CaptureGraph> CreateCaptureGraph() {
    const CaptureGraphFactory factory = g_factory.load();
    return factory ? factory() : CreatePlatformCaptureGraph();
}

void SetCaptureGraphFactory(CaptureGraphFactory factory) { g_factory.store(factory); }

int32_t CaptureDeviceCount() {
    const int32_t forced = g_deviceCountOverride.load();
    return forced >= 0 ? forced : static_cast<int32_t>(kiv::VideoDevices().size());
}

void SetCaptureDeviceCountOverride(int32_t count) { g_deviceCountOverride.store(count); }

}  // namespace kiv::capture
