#include "kiv_video_input.h"

#include "capture_log.h"
#include "capture_registry.h"
#include "kiv_platform.h"

using namespace kiv::capture;

KivVideoInput::KivVideoInput() : KivPortBase(KIV_PORT_VIDEO_INPUT) { dispatchSlots_.reserve(8); }

KivVideoInput::~KivVideoInput() { Stop(); }

int32_t KivVideoInput::SetVideoFrameCallback(KivVideoFrameCallback fn, void* userData) {
    {
        std::lock_guard<std::mutex> lock(captureLock_);
        callback_ = fn;
        callbackUser_ = userData;
    }
    KIV_VIN_LOG("Set video callback input=%p enabled=%d user=%p dispatchThreadOnly=1", static_cast<void*>(this),
                fn ? 1 : 0, userData);
    return KIV_OK;
}

int32_t KivVideoInput::SetDevice(int32_t index) {
    if (index < 0) return KIV_ERROR_INVALID_ARG;
    device_.store(index);
    KIV_VIN_LOG("Set video device index=%d", index);
    return KIV_OK;
}

int32_t KivVideoInput::SetFormat(int32_t width, int32_t height, int32_t fps, int32_t format) {
    if (width < 1 || height < 1 || fps < 1 || format == 0) return KIV_ERROR_INVALID_ARG;
    reqWidth_.store(width);
    reqHeight_.store(height);
    reqFps_.store(fps);
    reqFormat_.store(format);
    actWidth_.store(width);
    actHeight_.store(height);
    actFps_.store(fps);
    actFormat_.store(format);
    KIV_VIN_LOG("Set video format %dx%d fps=%d fmt=%d", width, height, fps, format);
    return KIV_OK;
}

// Fields are applied in order without rollback: a bad format after a good
// device index leaves the new index in place.
int32_t KivVideoInput::SetConfig(const KivVideoInputConfig* config) {
    if (!config) return KIV_ERROR_INVALID_ARG;
    int32_t result = SetDevice(config->deviceIndex);
    if (result != KIV_OK) return result;
    result = SetFormat(config->width, config->height, config->fps, config->pixelFormat);
    if (result != KIV_OK) return result;
    colorSpace_.store(config->colorSpace);
    colorRange_.store(config->colorRange);
    bufferCount_.store(config->bufferCount <= 0 ? 4 : config->bufferCount);
    KIV_VIN_LOG("Set video config device=%d %dx%d fps=%d fmt=%d cs=%d range=%d buffers=%d", config->deviceIndex,
                config->width, config->height, config->fps, config->pixelFormat, config->colorSpace,
                config->colorRange, bufferCount_.load());
    return KIV_OK;
}

int32_t KivVideoInput::Start() {
    const int32_t device = device_.load();
    const int32_t count = CaptureDeviceCount();
    if (device < 0 || device >= count) {
        KIV_VIN_LOG("Invalid video device index=%d deviceCount=%d", device, count);
        return KIV_ERROR_INVALID_ARG;
    }
    // A port starting again first lets go of whatever it had.
    if (sharedClient_.load() || running_.load()) Stop();

    KIV_VIN_LOG("Video input start device=%d target=%dx%d fps=%d fmt=%d", device, reqWidth_.load(),
                reqHeight_.load(), reqFps_.load(), reqFormat_.load());
    KivVideoInput* active = nullptr;
    {
        std::lock_guard<std::mutex> lock(DeviceLock());
        active = ActiveSourceLocked(device);
    }
    if (active && active != this) {
        KIV_VIN_LOG("Video device index=%d is already active. Force shared mux path for stable multi-preview.",
                    device);
        RegisterOwnRequest();
        const int32_t attached = AttachAsClient();
        if (attached != KIV_OK) {
            RemoveOwnRequest();
            return attached;
        }
        active->CheckSharedRequests();
        return KIV_OK;
    }

    RegisterOwnRequest();
    int32_t result;
    {
        std::lock_guard<std::mutex> lock(graphLock_);
        result = OpenGraph();
    }
    if (result != KIV_OK) {
        RemoveOwnRequest();
        KIV_VIN_LOG("Independent open failed for device index=%d, try shared mux path", device);
        return AttachAsClient();
    }
    sharedClient_.store(false);
    {
        std::lock_guard<std::mutex> lock(DeviceLock());
        SetActiveSourceLocked(device, this);
    }
    KIV_VIN_LOG("Register active video device index=%d source=%p", device, static_cast<void*>(this));
    KIV_VIN_LOG("Video device index=%d opened as independent DirectShow graph", device);
    return KIV_OK;
}

int32_t KivVideoInput::Stop() {
    const int32_t device = device_.load();
    KIV_VIN_LOG("Video input stop begin device=%d input=%p sharedClient=%d running=%d", device,
                static_cast<void*>(this), sharedClient_.load() ? 1 : 0, running_.load() ? 1 : 0);
    if (sharedClient_.load()) return StopSharedClient();

    // A stop from inside this port's own frame callback cannot wait for the
    // dispatch thread it runs on; the graph keeps running.
    if (dispatchThread_.Joinable() && dispatchThread_.Id() == kiv::platform::CurrentThreadId()) {
        StopDirectShow();
        KIV_VIN_LOG("Video input stop source complete device=%d input=%p result=%d", device,
                    static_cast<void*>(this), KIV_ERROR_FAILED);
        return KIV_ERROR_FAILED;
    }

    std::vector<Slot> closing;
    {
        std::lock_guard<std::mutex> lock(graphLock_);
        StopDirectShow();
        std::lock_guard<std::mutex> devices(DeviceLock());
        {
            std::lock_guard<std::mutex> slots(slotsLock_);
            closing.swap(slots_);
        }
        for (const Slot& slot : closing) {
            std::lock_guard<std::mutex> slotLock(slot->mutex);
            slot->closed = true;
            slot->client = nullptr;
        }
        if (RemoveActiveSourceLocked(device, this)) {
            KIV_VIN_LOG("Unregister active video device index=%d source=%p", device, static_cast<void*>(this));
        }
        RemoveRequestLocked(device, this);
    }
    for (const Slot& slot : closing) {
        WaitSlotIdle(*slot, "close", this);
        KIV_VIN_LOG("Shared client slot unregistered device=%d source=%p slot=%p", device, static_cast<void*>(this),
                    static_cast<void*>(slot.get()));
    }
    if (!closing.empty()) {
        KIV_VIN_LOG("All shared client slots closed device=%d source=%p count=%u", device, static_cast<void*>(this),
                    static_cast<unsigned>(closing.size()));
    }
    KIV_VIN_LOG("Video input stop source complete device=%d input=%p result=%d", device, static_cast<void*>(this),
                KIV_OK);
    return KIV_OK;
}

void KivVideoInput::RegisterOwnRequest() {
    const int32_t device = device_.load();
    ClientRequest request{this, reqWidth_.load(), reqHeight_.load(), reqFps_.load(), reqFormat_.load()};
    {
        std::lock_guard<std::mutex> lock(DeviceLock());
        RegisterRequestLocked(device, request);
    }
    KIV_VIN_LOG("Register shared request device=%d input=%p request=%dx%d fps=%d fmt=%d", device,
                static_cast<void*>(this), request.width, request.height, request.fps, request.format);
}

void KivVideoInput::RemoveOwnRequest() {
    std::lock_guard<std::mutex> lock(DeviceLock());
    RemoveRequestLocked(device_.load(), this);
}
