// A stand-in capture graph for the native build: every Build connects at the
// merged request of the device (or at a fixed format), and the test feeds
// buffers as the sample grabber would.
#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "../../src/capture/capture_graph.h"

class FakeCamera {
public:
    // Installs the stand-in with `devices` devices; the destructor restores
    // the platform graph.
    explicit FakeCamera(int32_t devices = 1);
    ~FakeCamera();

    // Format the next builds connect with; 0 keeps the merged request's.
    int32_t fixedFormat = 0;
    bool bottomUp = false;
    // A build of this device fails (for the fallback paths).
    int32_t failingDevice = -1;

    // Hands one buffer to the sink of the device's running graph; false when
    // there is none.
    bool Feed(int32_t device, const uint8_t* data, long length);
    bool Feed(int32_t device, const std::vector<uint8_t>& bytes) {
        return Feed(device, bytes.data(), static_cast<long>(bytes.size()));
    }
    int Builds();
    kiv::capture::ConnectedFormat Connected(int32_t device);

private:
    friend class FakeGraph;
    static FakeCamera* current_;
    std::mutex mutex_;
    struct Device {
        kiv::capture::SampleSink* sink = nullptr;
        kiv::capture::ConnectedFormat connected;
    };
    std::vector<Device> devices_;
    int builds_ = 0;
};

// A packed frame of the format whose every byte is `index`'s low byte and
// whose first eight bytes hold the index itself.
std::vector<uint8_t> NumberedFrame(int32_t format, int32_t width, int32_t height, uint64_t index);
// The index NumberedFrame wrote.
uint64_t FrameNumberOf(const uint8_t* plane0);
