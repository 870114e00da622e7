// Base class of every port: type, downstream list, frame callbacks and the
// emit operations through which producers deliver frames.
#pragma once
#include <atomic>
#include <cstdint>
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
    // connection order. The lock is held only while the list is copied.
    void EmitVideo(const KivVideoFrame* frame);
    void EmitAudio(const KivAudioFrame* frame);

    int32_t Type() const { return type_; }
    bool IsClosing() const { return closing_.load(std::memory_order_acquire) != 0; }
    size_t DownstreamCount();

protected:
    const int32_t type_;
    std::mutex mutex_;  // guards downstream_ only

private:
    // Copies the downstream list into `local` (or `overflow` when it holds
    // more than fits on the stack) and returns the number of entries.
    static constexpr size_t kInlineSnapshot = 16;
    size_t SnapshotDownstream(KivPortBase** local, std::vector<KivPortBase*>& overflow, KivPortBase*** out);

    std::vector<KivPortBase*> downstream_;
    // Callbacks are set by the application before frames flow; relaxed atomics
    // keep the unsynchronised stores well-defined.
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
