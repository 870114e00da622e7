// The queue between the capture thread and the dispatch thread. It keeps at
// most kDepth frames so latency stays low; a full queue drops its oldest
// frame, so under overload the newest frames survive. The frame buffers are
// recycled through a fixed pool, so a warmed-up queue allocates nothing.
#pragma once
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "kivcapture.h"

namespace kiv::capture {

struct QueuedFrame {
    KivVideoFrame frame{};
    std::unique_ptr<uint8_t[]> bytes;
    size_t capacity = 0;
    size_t size = 0;
    // Makes room for n bytes, keeping the buffer when it is big enough.
    uint8_t* Reserve(size_t n);
};

class FrameQueue {
public:
    static constexpr size_t kDepth = 4;

    FrameQueue();

    // A free item to fill, or null when the pool is empty (cannot happen while
    // one producer fills one item at a time).
    QueuedFrame* Acquire();
    // Hands a filled item to the dispatch thread. Returns false, recycling
    // the item, when the queue is closed.
    bool Push(QueuedFrame* item);
    // Waits for the oldest item; null once the queue is closed and empty.
    QueuedFrame* Pop();
    // Returns an item taken by Acquire or Pop to the pool.
    void Recycle(QueuedFrame* item);

    // Empties the queue and opens it for a new run.
    void Open();
    // Discards every waiting item, closes the queue and wakes all waiters.
    void Close();

    size_t Size();
    uint64_t OverflowDrops();

private:
    // Queued items plus the one being filled and the one being dispatched.
    static constexpr size_t kPool = kDepth + 2;

    void RecycleLocked(QueuedFrame* item);
    QueuedFrame* PopFrontLocked();

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    QueuedFrame items_[kPool];
    QueuedFrame* free_[kPool];
    size_t freeCount_ = 0;
    QueuedFrame* ring_[kDepth];
    size_t head_ = 0;
    size_t count_ = 0;
    uint64_t overflowDrops_ = 0;
};

}  // namespace kiv::capture
