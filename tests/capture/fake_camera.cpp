#include "fake_camera.h"

#include <cstring>

#include "../../src/capture/capture_intake.h"
#include "../../src/capture/capture_registry.h"

using namespace kiv::capture;

FakeCamera* FakeCamera::current_ = nullptr;

class FakeGraph final : public CaptureGraph {
public:
    int32_t Build(int32_t device, const void*, MergedRequest* actual, ConnectedFormat* connected,
                  SampleSink* sink) override {
        FakeCamera* cam = FakeCamera::current_;
        std::lock_guard<std::mutex> lock(cam->mutex_);
        ++cam->builds_;
        if (device == cam->failingDevice || device >= static_cast<int32_t>(cam->devices_.size())) return -1;
        const MergedRequest wanted = MergeDeviceRequests(device);
        *actual = wanted;
        connected->width = wanted.width;
        connected->height = wanted.height;
        connected->format = cam->fixedFormat ? cam->fixedFormat : wanted.format;
        connected->bottomUp = cam->bottomUp;
        device_ = device;
        sink_ = sink;
        cam->devices_[device].connected = *connected;
        return 0;
    }
    int32_t Run() override {
        FakeCamera* cam = FakeCamera::current_;
        std::lock_guard<std::mutex> lock(cam->mutex_);
        cam->devices_[device_].sink = sink_;
        return 0;
    }
    void DetachCallback(int32_t, const void*) override {
        FakeCamera* cam = FakeCamera::current_;
        if (!cam) return;
        std::lock_guard<std::mutex> lock(cam->mutex_);
        if (device_ >= 0 && cam->devices_[device_].sink == sink_) cam->devices_[device_].sink = nullptr;
    }
    void StopAndRelease(int32_t, const void*, uint32_t) override {}

private:
    int32_t device_ = -1;
    SampleSink* sink_ = nullptr;
};

FakeCamera::FakeCamera(int32_t devices) : devices_(static_cast<size_t>(devices)) {
    current_ = this;
    SetCaptureGraphFactory([]() -> std::unique_ptr<CaptureGraph> { return std::make_unique<FakeGraph>(); });
    SetCaptureDeviceCountOverride(devices);
}

FakeCamera::~FakeCamera() {
    SetCaptureGraphFactory(nullptr);
    SetCaptureDeviceCountOverride(-1);
    current_ = nullptr;
}

// The lock is held through the hand-over, as a grabber that is detached
// lets its callback finish before the graph is taken apart.
bool FakeCamera::Feed(int32_t device, const uint8_t* data, long length) {
    std::lock_guard<std::mutex> lock(mutex_);
    SampleSink* sink = devices_[static_cast<size_t>(device)].sink;
    if (!sink) return false;
    sink->OnCapturedBuffer(data, length);
    return true;
}

int FakeCamera::Builds() {
    std::lock_guard<std::mutex> lock(mutex_);
    return builds_;
}

ConnectedFormat FakeCamera::Connected(int32_t device) {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_[static_cast<size_t>(device)].connected;
}

std::vector<uint8_t> NumberedFrame(int32_t format, int32_t width, int32_t height, uint64_t index) {
    IntakeLayout layout;
    CheckCapturedBuffer(format, width, height, 0, &layout);
    std::vector<uint8_t> bytes(static_cast<size_t>(layout.required > 8 ? layout.required : 64),
                               static_cast<uint8_t>(index));
    std::memcpy(bytes.data(), &index, sizeof index);
    return bytes;
}

uint64_t FrameNumberOf(const uint8_t* plane0) {
    uint64_t index;
    std::memcpy(&index, plane0, sizeof index);
    return index;
}
