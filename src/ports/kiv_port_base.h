// Base class of every port: type, downstream list, frame callbacks and the
// emit operations through which producers deliver frames.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "kivcapture.h"

class KivPortBase {
public:
    explicit KivPortBase(int32_t type);
    virtual ~KivPortBase();
    KivPortBase(const KivPortBase&) = delete;
    KivPortBase& operator=(const KivPortBase&) = delete;

    // Virtual operations in their fixed slot order.
    virtual int32_t Start();
    virtual int32_t Stop();
    virtual int32_t OnVideoFrame(const KivVideoFrame* frame);
    virtual int32_t OnAudioFrame(const KivAudioFrame* frame);
    virtual int32_t SetVideoFrameCallback(KivVideoFrameCallback fn, void* userData);
    virtual int32_t SetAudioFrameCallback(KivAudioFrameCallback fn, void* userData);

    // -2 for null, -1 while the port is being destroyed, 0 otherwise; a
    // repeated connection adds nothing.
    int32_t AddDownstream(KivPortBase* dst);
    // Removes every occurrence of dst, keeping the order of the rest.
    void RemoveDownstream(KivPortBase* dst);

    // Deliver to the callback first, then to each downstream port in
    // connection order. The lock is held only while the list is copied, so a
    // downstream port or callback may connect, disconnect or emit meanwhile.
    void EmitVideo(const KivVideoFrame* frame);
    void EmitAudio(const KivAudioFrame* frame);

    int32_t Type() const { return type_; }
    bool IsClosing() const { return closing_.load(std::memory_order_acquire) != 0; }
    size_t DownstreamCount();

protected:
    // Calls visit for each downstream port of one snapshot of the list, with
    // the lock released, for producers that watch each delivery on its own.
    void VisitDownstream(void (*visit)(KivPortBase* target, void* context), void* context);

    const int32_t type_;
    std::mutex mutex_;  // guards downstream_ and wideDownstream_ only

private:
    // Fan-outs up to this width are copied onto the emitting thread's stack.
    static constexpr size_t kInlineSnapshot = 16;

    // The downstream list as one emit sees it.
    struct Snapshot {
        KivPortBase* inlineTargets[kInlineSnapshot];
        std::shared_ptr<const std::vector<KivPortBase*>> wide;
        KivPortBase* const* targets = nullptr;
        size_t count = 0;
    };
    void TakeSnapshot(Snapshot& out);
    void RebuildWideSnapshotLocked();

    std::vector<KivPortBase*> downstream_;
    // Immutable copy of a list wider than kInlineSnapshot, rebuilt whenever
    // the list changes, so that emitting never allocates.
    std::shared_ptr<const std::vector<KivPortBase*>> wideDownstream_;
    // Callbacks are set by the application before frames flow; the atomics
    // only keep those unsynchronised stores well-defined.
    std::atomic<KivVideoFrameCallback> videoCallback_{nullptr};
    std::atomic<void*> videoCallbackUser_{nullptr};
    std::atomic<KivAudioFrameCallback> audioCallback_{nullptr};
    std::atomic<void*> audioCallbackUser_{nullptr};
    std::atomic<uint8_t> closing_{0};
};

// Checked down-cast used by the family functions: null for a null handle or
// a port of another class.
template <class T>
T* KivPortCast(void* handle) {
    return handle ? dynamic_cast<T*>(static_cast<KivPortBase*>(handle)) : nullptr;
}
