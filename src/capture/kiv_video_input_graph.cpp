// Opening and stopping a source's capture graph. The stop order matters:
// callback off, queue closed, dispatch thread gone, capture callbacks
// drained, and only then the graph stopped and taken apart. The waits
// deliver sent messages, so a dispatch thread blocked in a SendMessage to the
// stopping thread can finish.
#include <chrono>
#include <thread>

#include "capture_log.h"
#include "capture_registry.h"
#include "kiv_platform.h"
#include "kiv_video_input.h"

using namespace kiv::capture;

namespace {
constexpr uint32_t kDispatchWaitStepMs = 20;
constexpr uint32_t kCallbackWaitStepMs = 10;
constexpr uint64_t kReportEveryMs = 2000;
}  // namespace

int32_t KivVideoInput::OpenGraph() {
    const int32_t device = device_.load();
    if (StopDirectShow() == StopOutcome::kRejected) return KIV_ERROR_FAILED;
    graph_ = CreateCaptureGraph();
    MergedRequest actual{actWidth_.load(), actHeight_.load(), actFps_.load(), actFormat_.load()};
    ConnectedFormat connected;
    int32_t result = graph_->Build(device, this, &actual, &connected, this);
    if (result == KIV_OK) {
        actWidth_.store(connected.width);
        actHeight_.store(connected.height);
        actFps_.store(actual.fps);
        actFormat_.store(connected.format);
        {
            std::lock_guard<std::mutex> lock(captureLock_);
            connWidth_ = connected.width;
            connHeight_ = connected.height;
            connFormat_ = connected.format;
            bottomUp_ = connected.bottomUp;
        }
        queue_.Open();
        if (!dispatchThread_.Start(&KivVideoInput::DispatchMain, this)) result = KIV_ERROR_FAILED;
    }
    if (result == KIV_OK) result = graph_->Run();
    if (result != KIV_OK) {
        StopDirectShow();
        return result < 0 ? result : KIV_ERROR_FAILED;
    }
    running_.store(true);
    KIV_VIN_LOG("DirectShow capture graph started");
    return KIV_OK;
}

KivVideoInput::StopOutcome KivVideoInput::StopDirectShow() {
    const int32_t device = device_.load();
    void* self = static_cast<void*>(this);
    KIV_VIN_LOG("StopDirectShow begin device=%d input=%p threadJoinable=%d", device, self,
                dispatchThread_.Joinable() ? 1 : 0);
    running_.store(false);
    if (graph_) graph_->DetachCallback(device, this);
    queue_.Close();
    if (dispatchThread_.Joinable()) {
        KIV_VIN_LOG("StopDirectShow waiting dispatch thread device=%d input=%p", device, self);
        if (!WaitDispatchThread()) {
            KIV_VIN_LOG("StopDirectShow dispatch thread wait rejected device=%d input=%p", device, self);
            return StopOutcome::kRejected;
        }
    }
    WaitCaptureCallbacks();
    if (graph_) graph_->StopAndRelease(device, this, callbacksInFlight_.load());
    graph_.reset();
    KIV_VIN_LOG("StopDirectShow complete device=%d input=%p", device, self);
    return StopOutcome::kStopped;
}

bool KivVideoInput::WaitDispatchThread() {
    const int32_t device = device_.load();
    void* self = static_cast<void*>(this);
    if (!dispatchThread_.HandleValid()) {
        KIV_VIN_LOG("Dispatch thread native handle invalid device=%d input=%p; fallback join", device, self);
        dispatchThread_.Join();
        return true;
    }
    const unsigned long dispatchTid = dispatchThread_.Id();
    if (dispatchTid == kiv::platform::CurrentThreadId()) {
        KIV_VIN_LOG("StopDirectShow rejected self-join device=%d input=%p dispatchTid=%lu", device, self,
                    dispatchTid);
        return false;
    }
    const uint64_t start = TickMs();
    uint64_t lastReport = start;
    unsigned wakeups = 0;
    for (;;) {
        const WaitResult r = dispatchThread_.WaitPumped(kDispatchWaitStepMs);
        if (r == WaitResult::kDone) break;
        if (r == WaitResult::kSentMessage) ++wakeups;
        if (r == WaitResult::kFailed) {
            KIV_VIN_LOG("StopDirectShow dispatch wait failed device=%d input=%p error=%lu; fallback join", device,
                        self, 0ul);
            break;
        }
        const uint64_t now = TickMs();
        if (now - lastReport >= kReportEveryMs) {
            lastReport = now;
            const uint64_t began = dispatchTick_.load();
            KIV_VIN_LOG("StopDirectShow dispatch still running device=%d input=%p stage=%d dispatchTid=%lu target=%p "
                        "targetType=%d dispatchMs=%llu sentMsgWakeups=%u queue=%llu",
                        device, self, dispatchStage_.load(), dispatchTid_.load(),
                        static_cast<void*>(dispatchTarget_.load()), dispatchTargetType_.load(),
                        static_cast<unsigned long long>(began ? now - began : 0), wakeups,
                        static_cast<unsigned long long>(queue_.Size()));
        }
    }
    dispatchThread_.Join();
    KIV_VIN_LOG("StopDirectShow dispatch thread joined device=%d input=%p waitedMs=%llu sentMsgWakeups=%u", device,
                self, static_cast<unsigned long long>(TickMs() - start), wakeups);
    return true;
}

void KivVideoInput::WaitCaptureCallbacks() {
    const uint32_t inFlight = callbacksInFlight_.load();
    if (inFlight == 0) return;
    const int32_t device = device_.load();
    void* self = static_cast<void*>(this);
    KIV_VIN_LOG("StopDirectShow waiting capture callbacks device=%d input=%p count=%u callbackTid=%lu", device, self,
                inFlight, callbackTid_.load());
    const uint64_t start = TickMs();
    uint64_t lastReport = start;
    unsigned wakeups = 0;
    while (callbacksInFlight_.load() != 0) {
        const WaitResult r = PumpedSleep(kCallbackWaitStepMs);
        if (r == WaitResult::kSentMessage) ++wakeups;
        if (r == WaitResult::kFailed) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const uint64_t now = TickMs();
        if (now - lastReport >= kReportEveryMs) {
            lastReport = now;
            const uint64_t began = callbackTick_.load();
            KIV_VIN_LOG("StopDirectShow capture callback still running device=%d input=%p count=%u callbackTid=%lu "
                        "callbackMs=%llu sentMsgWakeups=%u",
                        device, self, callbacksInFlight_.load(), callbackTid_.load(),
                        static_cast<unsigned long long>(began ? now - began : 0), wakeups);
        }
    }
    KIV_VIN_LOG("StopDirectShow capture callbacks idle device=%d input=%p waitedMs=%llu sentMsgWakeups=%u", device,
                self, static_cast<unsigned long long>(TickMs() - start), wakeups);
}
