// Sample intake on the capture thread and the dispatch thread that delivers
// the queued frames. The capture thread only checks and copies; callbacks and
// downstream ports run on the dispatch thread with no lock held.
#include <cstring>

#include "capture_intake.h"
#include "capture_log.h"
#include "ports/kiv_frame.h"
#include "kiv_platform.h"
#include "kiv_video_input.h"

using namespace kiv::capture;

namespace {
constexpr int64_t kSlowDeliveryMs = 500;

struct DownstreamVisit {
    const KivVideoFrame* frame;
    KivVideoInput* diagnostics;
    void (*deliver)(KivPortBase* target, const KivVideoFrame* frame, KivVideoInput* diagnostics);
};
}  // namespace

void KivVideoInput::OnCapturedBuffer(const uint8_t* data, long length) {
    if (callbacksInFlight_.fetch_add(1) == 0) {
        callbackTid_.store(kiv::platform::CurrentThreadId());
        callbackTick_.store(TickMs());
    }
    if (data && length >= 1 && running_.load()) {
        std::lock_guard<std::mutex> lock(captureLock_);
        IntakeLayout layout;
        const IntakeVerdict verdict =
            running_.load() && connWidth_ >= 1 && connHeight_ >= 1
                ? CheckCapturedBuffer(connFormat_, connWidth_, connHeight_, length, &layout)
                : IntakeVerdict::kEmpty;
        if (verdict == IntakeVerdict::kUnsupported) {
            KIV_VIN_LOG("Drop unsupported captured format=%d", connFormat_);
        } else if (verdict == IntakeVerdict::kShort) {
            KIV_VIN_LOG("Drop short video buffer len=%ld required=%ld fmt=%d", length,
                        static_cast<long>(layout.required), connFormat_);
        } else if (verdict == IntakeVerdict::kAccept) {
            if (QueuedFrame* item = queue_.Acquire()) {
                const bool flip = bottomUp_ && (connFormat_ == KIV_PIXEL_FORMAT_RGB24 ||
                                                connFormat_ == KIV_PIXEL_FORMAT_RGB32);
                uint8_t* copy = item->Reserve(static_cast<size_t>(length));
                if (flip) {
                    CopyRowsFlipped(data, layout.stride, connHeight_, copy);
                } else {
                    std::memcpy(copy, data, static_cast<size_t>(length));
                }
                KivVideoFrame& f = item->frame;
                f = KivVideoFrame{};
                f.planes[0] = copy;
                f.strides[0] = layout.stride;
                if (connFormat_ == KIV_PIXEL_FORMAT_NV12) {
                    f.planes[1] = copy + layout.chromaOffset;
                    f.strides[1] = connWidth_;
                }
                f.width = connWidth_;
                f.height = connHeight_;
                f.format = connFormat_;
                f.timestamp = kiv::SteadyNow100ns();
                f.frameIndex = frameCounter_++;
                queue_.Push(item);
            }
        }
    }
    if (callbacksInFlight_.fetch_sub(1) == 1) {
        callbackTid_.store(0);
        callbackTick_.store(0);
    }
}

void KivVideoInput::DispatchMain(void* self) { static_cast<KivVideoInput*>(self)->DispatchLoop(); }

void KivVideoInput::DispatchLoop() {
    const int32_t device = device_.load();
    KIV_VIN_LOG("Video dispatch thread enter device=%d input=%p", device, static_cast<void*>(this));
    while (QueuedFrame* item = queue_.Pop()) {
        if (running_.load()) {
            const uint64_t start = TickMs();
            KivVideoFrameCallback fn;
            void* user;
            {
                std::lock_guard<std::mutex> lock(captureLock_);
                fn = callback_;
                user = callbackUser_;
            }
            if (fn) fn(&item->frame, user);
            DeliverDownstream(&item->frame, this);
            DeliverToClients(&item->frame);
            const int64_t elapsed = static_cast<int64_t>(TickMs() - start);
            if (elapsed >= kSlowDeliveryMs) {
                KIV_VIN_LOG("Slow video dispatch chain device=%d source=%p elapsed=%lldms", device,
                            static_cast<void*>(this), static_cast<long long>(elapsed));
            }
        }
        queue_.Recycle(item);
    }
    KIV_VIN_LOG("Video dispatch thread exit device=%d input=%p", device, static_cast<void*>(this));
}

// Each call is published in the source's diagnostics, so a stop that waits
// for this thread can say which port it is stuck in.
void KivVideoInput::DeliverDownstream(const KivVideoFrame* frame, KivVideoInput* diagnostics) {
    if (!frame || IsClosing()) return;
    DownstreamVisit visit{frame, diagnostics, [](KivPortBase* target, const KivVideoFrame* f, KivVideoInput* d) {
                              const uint64_t start = TickMs();
                              d->dispatchTid_.store(kiv::platform::CurrentThreadId());
                              d->dispatchTick_.store(start);
                              d->dispatchTarget_.store(target);
                              d->dispatchTargetType_.store(target->Type());
                              d->dispatchStage_.store(1);
                              target->OnVideoFrame(f);
                              d->dispatchStage_.store(0);
                              d->dispatchTarget_.store(nullptr);
                              d->dispatchTargetType_.store(0);
                              d->dispatchTick_.store(0);
                              const uint64_t elapsed = TickMs() - start;
                              if (elapsed >= static_cast<uint64_t>(kSlowDeliveryMs)) {
                                  KIV_VIN_LOG("Slow source downstream dispatch device=%d source=%p target=%p "
                                              "type=%d elapsed=%llums",
                                              d->device_.load(), static_cast<void*>(d), static_cast<void*>(target),
                                              target->Type(), static_cast<unsigned long long>(elapsed));
                              }
                          }};
    VisitDownstream(
        [](KivPortBase* target, void* context) {
            auto* v = static_cast<DownstreamVisit*>(context);
            v->deliver(target, v->frame, v->diagnostics);
        },
        &visit);
}

void KivVideoInput::DeliverToClients(const KivVideoFrame* frame) {
    {
        std::lock_guard<std::mutex> lock(slotsLock_);
        if (slots_.empty()) return;
        dispatchSlots_.assign(slots_.begin(), slots_.end());
    }
    const int32_t device = device_.load();
    for (const Slot& slot : dispatchSlots_) {
        KivVideoInput* client;
        {
            std::lock_guard<std::mutex> lock(slot->mutex);
            client = slot->closed ? nullptr : slot->client;
            if (client) slot->inFlight.fetch_add(1);
        }
        if (!client) continue;
        const uint64_t start = TickMs();
        client->DeliverDownstream(frame, this);
        const int64_t elapsed = static_cast<int64_t>(TickMs() - start);
        slot->inFlight.fetch_sub(1);
        if (elapsed >= kSlowDeliveryMs) {
            KIV_VIN_LOG("Slow shared video dispatch device=%d source=%p client=%p slot=%p elapsed=%lldms", device,
                        static_cast<void*>(this), static_cast<void*>(client), static_cast<void*>(slot.get()),
                        static_cast<long long>(elapsed));
        }
    }
    dispatchSlots_.clear();
}
