#include "capture_frame_queue.h"

namespace kiv::capture {

uint8_t* QueuedFrame::Reserve(size_t n) {
    if (n > capacity) {
        bytes.reset(new uint8_t[n]);
        capacity = n;
    }
    size = n;
    return bytes.get();
}

FrameQueue::FrameQueue() {
    for (QueuedFrame& item : items_) free_[freeCount_++] = &item;
}

QueuedFrame* FrameQueue::Acquire() {
    std::lock_guard<std::mutex> lock(mutex_);
    return freeCount_ ? free_[--freeCount_] : nullptr;
}

bool FrameQueue::Push(QueuedFrame* item) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            RecycleLocked(item);
            return false;
        }
        if (count_ >= kDepth) {
            RecycleLocked(PopFrontLocked());
            ++overflowDrops_;
        }
        ring_[(head_ + count_) % kDepth] = item;
        ++count_;
    }
    wake_.notify_one();
    return true;
}

QueuedFrame* FrameQueue::Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return count_ > 0 || stopping_; });
    return count_ ? PopFrontLocked() : nullptr;
}

void FrameQueue::Recycle(QueuedFrame* item) {
    std::lock_guard<std::mutex> lock(mutex_);
    RecycleLocked(item);
}

void FrameQueue::Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    while (count_) RecycleLocked(PopFrontLocked());
    stopping_ = false;
}

void FrameQueue::Close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        while (count_) RecycleLocked(PopFrontLocked());
    }
    wake_.notify_all();
}

size_t FrameQueue::Size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

uint64_t FrameQueue::OverflowDrops() {
    std::lock_guard<std::mutex> lock(mutex_);
    return overflowDrops_;
}

void FrameQueue::RecycleLocked(QueuedFrame* item) {
    if (item && freeCount_ < kPool) free_[freeCount_++] = item;
}

QueuedFrame* FrameQueue::PopFrontLocked() {
    QueuedFrame* item = ring_[head_];
    head_ = (head_ + 1) % kDepth;
    --count_;
    return item;
}

}  // namespace kiv::capture
