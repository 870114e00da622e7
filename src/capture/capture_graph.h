// The seam between a capture source and the platform's capture graph. The
// Windows build drives DirectShow; the native build has no devices; tests
// install a stand-in camera through SetCaptureGraphFactory.
#pragma once
#include <cstdint>
#include <memory>

#include "capture_negotiation.h"

namespace kiv::capture {

// The media type the sample grabber ended up connected with.
struct ConnectedFormat {
    int32_t width = 0, height = 0, format = 0;
    bool bottomUp = false;
};

// Receives the buffers the graph captures, on the graph's own thread.
class SampleSink {
public:
    virtual void OnCapturedBuffer(const uint8_t* data, long length) = 0;

protected:
    ~SampleSink() = default;
};

class CaptureGraph {
public:
    virtual ~CaptureGraph() = default;
    // Builds the graph for a device up to, not including, running it:
    // negotiates against the merged request (storing the chosen format in
    // *actual when the device accepts it), connects the pins, reads the
    // connected type and hands buffers to sink. Logs its own failures.
    virtual int32_t Build(int32_t device, const void* input, MergedRequest* actual, ConnectedFormat* connected,
                          SampleSink* sink) = 0;
    virtual int32_t Run() = 0;
    // Stops new buffers from reaching the sink (buffers being handed over may
    // still finish).
    virtual void DetachCallback(int32_t device, const void* input) = 0;
    // Stops the running graph, then disconnects and releases everything.
    virtual void StopAndRelease(int32_t device, const void* input, uint32_t captureInFlight) = 0;
};

using CaptureGraphFactory = std::unique_ptr<CaptureGraph> (*)();

std::unique_ptr<CaptureGraph> CreateCaptureGraph();
// Null restores the platform's graph.
void SetCaptureGraphFactory(CaptureGraphFactory factory);

// Number of video devices a port may open; a negative override restores the
// platform's device list.
int32_t CaptureDeviceCount();
void SetCaptureDeviceCountOverride(int32_t count);

// The platform's own graph.
std::unique_ptr<CaptureGraph> CreatePlatformCaptureGraph();

}  // namespace kiv::capture
