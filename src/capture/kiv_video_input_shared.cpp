// Several ports on one device: the first owns the graph, later ones attach to
// it as clients through shared-owned slots, and the source restarts only when
// the merged request asks more than it delivers.
#include "capture_log.h"
#include "capture_registry.h"
#include "kiv_platform.h"
#include "kiv_video_input.h"

using namespace kiv::capture;

namespace {
constexpr uint32_t kSlotWaitStepMs = 20;
constexpr uint64_t kSlotReportEveryMs = 2000;
constexpr uint64_t kSlotQuietWaitMs = 50;
}  // namespace

KivVideoInput::Slot KivVideoInput::RegisterSlotLocked(KivVideoInput* client) {
    const bool running = running_.load();
    const bool shared = sharedClient_.load();
    if (!running || shared) {
        KIV_VIN_LOG("Register shared client rejected source=%p client=%p running=%d sharedSource=%d",
                    static_cast<void*>(this), static_cast<void*>(client), running ? 1 : 0, shared ? 1 : 0);
        return nullptr;
    }
    Slot slot = std::make_shared<SharedClientSlot>();
    slot->client = client;
    {
        std::lock_guard<std::mutex> lock(slotsLock_);
        slots_.push_back(slot);
    }
    KIV_VIN_LOG("Shared client slot registered device=%d source=%p client=%p slot=%p", device_.load(),
                static_cast<void*>(this), static_cast<void*>(client), static_cast<void*>(slot.get()));
    return slot;
}

int32_t KivVideoInput::AttachAsClient() {
    const int32_t device = device_.load();
    KivVideoInput* source;
    Slot slot;
    {
        std::lock_guard<std::mutex> lock(DeviceLock());
        source = ActiveSourceLocked(device);
        if (!source || source == this) {
            KIV_VIN_LOG("No active shared source for device index=%d", device);
            return KIV_ERROR_FAILED;
        }
        slot = source->RegisterSlotLocked(this);
    }
    if (!slot) return KIV_ERROR_FAILED;
    {
        std::lock_guard<std::mutex> lock(graphLock_);
        sharedSource_ = source;
        slot_ = slot;
    }
    sharedClient_.store(true);
    KIV_VIN_LOG("Video device index=%d attached to existing source=%p as shared client=%p slot=%p", device,
                static_cast<void*>(source), static_cast<void*>(this), static_cast<void*>(slot.get()));
    return KIV_OK;
}

void KivVideoInput::CheckSharedRequests() {
    if (sharedClient_.load()) return;
    const int32_t device = device_.load();
    std::lock_guard<std::mutex> lock(graphLock_);
    MergedRequest wanted;
    {
        std::lock_guard<std::mutex> devices(DeviceLock());
        // A source that stopped meanwhile has closed its clients' slots; it
        // must not come back to life for them.
        if (ActiveSourceLocked(device) != this) return;
        wanted = MergeDeviceRequestsLocked(device);
    }
    const MergedRequest actual{actWidth_.load(), actHeight_.load(), actFps_.load(), actFormat_.load()};
    if (SourceSatisfies(running_.load(), actual, wanted)) {
        KIV_VIN_LOG("Shared source already satisfies requests device=%d actual=%dx%d fps=%d fmt=%d "
                    "requested=%dx%d fps=%d fmt=%d",
                    device, actual.width, actual.height, actual.fps, actual.format, wanted.width, wanted.height,
                    wanted.fps, wanted.format);
        return;
    }
    KIV_VIN_LOG("Restart shared source for new requests device=%d actual=%dx%d fps=%d fmt=%d "
                "requested=%dx%d fps=%d fmt=%d",
                device, actual.width, actual.height, actual.fps, actual.format, wanted.width, wanted.height,
                wanted.fps, wanted.format);
    const int32_t result = OpenGraph();
    if (result != KIV_OK) {
        KIV_VIN_LOG("Restart shared source failed device=%d result=%d", device, result);
        return;
    }
    KIV_VIN_LOG("Restart shared source OK device=%d actual=%dx%d fps=%d fmt=%d", device, actWidth_.load(),
                actHeight_.load(), actFps_.load(), actFormat_.load());
}

int32_t KivVideoInput::StopSharedClient() {
    const int32_t device = device_.load();
    sharedClient_.store(false);
    Slot slot;
    KivVideoInput* source;
    {
        std::lock_guard<std::mutex> lock(graphLock_);
        slot.swap(slot_);
        source = sharedSource_;
        sharedSource_ = nullptr;
    }
    if (slot) {
        bool stillActive = false;
        {
            std::lock_guard<std::mutex> lock(DeviceLock());
            stillActive = source && ActiveSourceLocked(device) == source;
            KivVideoInput* active = ActiveSourceLocked(device);
            if (stillActive) {
                std::lock_guard<std::mutex> slots(source->slotsLock_);
                auto& list = source->slots_;
                for (auto it = list.begin(); it != list.end(); ++it) {
                    if (*it == slot) {
                        list.erase(it);
                        break;
                    }
                }
            }
            {
                std::lock_guard<std::mutex> slotLock(slot->mutex);
                slot->closed = true;
                slot->client = nullptr;
            }
            if (!stillActive) {
                KIV_VIN_LOG("Video device index=%d closed stale shared slot source=%p client=%p slot=%p active=%p",
                            device, static_cast<void*>(source), static_cast<void*>(this),
                            static_cast<void*>(slot.get()), static_cast<void*>(active));
            }
        }
        // While a delivery is in flight the source cannot finish stopping, so
        // its diagnostics stay readable during the wait.
        WaitSlotIdle(*slot, stillActive ? "close" : "stale-detach", stillActive ? source : nullptr);
        if (stillActive) {
            KIV_VIN_LOG("Shared client slot unregistered device=%d source=%p slot=%p", device,
                        static_cast<void*>(source), static_cast<void*>(slot.get()));
            KIV_VIN_LOG("Video device index=%d detached from shared source=%p client=%p slot=%p", device,
                        static_cast<void*>(source), static_cast<void*>(this), static_cast<void*>(slot.get()));
            KIV_VIN_LOG("Video input stop shared client complete device=%d input=%p", device,
                        static_cast<void*>(this));
        }
    }
    RemoveOwnRequest();
    return KIV_OK;
}

// Waits, delivering sent messages, until no delivery to the slot's client is
// in flight. A delivery on the calling thread itself (a client stopped from
// inside its own frame path) cannot end while we wait, so it is not waited for.
void KivVideoInput::WaitSlotIdle(SharedClientSlot& slot, const char* reason, KivVideoInput* source) {
    if (!reason) reason = "unknown";
    const int32_t device = device_.load();
    const unsigned long self = kiv::platform::CurrentThreadId();
    const unsigned long dispatchTid = source ? source->dispatchThread_.Id() : 0;
    const uint64_t start = TickMs();
    uint64_t lastReport = start;
    unsigned wakeups = 0;
    while (slot.inFlight.load() != 0) {
        if (dispatchTid == self) return;
        const WaitResult r = PumpedSleep(kSlotWaitStepMs);
        if (r == WaitResult::kSentMessage) ++wakeups;
        const uint64_t now = TickMs();
        if (now - lastReport >= kSlotReportEveryMs) {
            lastReport = now;
            const uint64_t began = source ? source->dispatchTick_.load() : 0;
            KIV_VIN_LOG("Shared client slot wait reason=%s device=%d source=%p slot=%p count=%u stage=%d "
                        "dispatchTid=%lu dispatchMs=%llu sentMsgWakeups=%u",
                        reason, device, static_cast<void*>(source), static_cast<void*>(&slot), slot.inFlight.load(),
                        source ? source->dispatchStage_.load() : 0, dispatchTid,
                        static_cast<unsigned long long>(began ? now - began : 0), wakeups);
        }
    }
    const uint64_t waited = TickMs() - start;
    if (waited >= kSlotQuietWaitMs) {
        KIV_VIN_LOG("Shared client slot idle reason=%s device=%d source=%p slot=%p waitedMs=%llu sentMsgWakeups=%u",
                    reason, device, static_cast<void*>(source), static_cast<void*>(&slot),
                    static_cast<unsigned long long>(waited), wakeups);
    }
}
