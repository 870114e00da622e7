#include "recorder_queue.h"

namespace kiv {

RecorderQueue::RecorderQueue(int32_t limit) : limit_(limit < 1 ? 1 : limit) {
    ring_.resize(static_cast<size_t>(limit_));
    // The worker holds one copy and each producer one more while it fills it.
    free_.reserve(static_cast<size_t>(limit_) + 4);
}

void RecorderQueue::Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    DiscardAllLocked();
    asyncEnabled_ = true;
    stopping_ = false;
    dropped_ = 0;
}

void RecorderQueue::BeginStop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        DiscardAllLocked();
    }
    wake_.notify_all();
}

void RecorderQueue::FinishStop() {
    std::lock_guard<std::mutex> lock(mutex_);
    asyncEnabled_ = false;
    stopping_ = false;
}

std::unique_ptr<FrameCopy> RecorderQueue::Acquire() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!free_.empty()) {
            std::unique_ptr<FrameCopy> copy = std::move(free_.back());
            free_.pop_back();
            return copy;
        }
    }
    return std::make_unique<FrameCopy>();
}

void RecorderQueue::Recycle(std::unique_ptr<FrameCopy> copy) {
    if (!copy) return;
    std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(std::move(copy));
}

RecorderQueue::PushResult RecorderQueue::Push(std::unique_ptr<FrameCopy> copy) {
    PushResult result;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!asyncEnabled_ || stopping_) {
            free_.push_back(std::move(copy));
            return result;
        }
        while (count_ >= limit_) {
            free_.push_back(PopFrontLocked());
            ++dropped_;
            ++result.droppedNow;
        }
        ring_[static_cast<size_t>((head_ + count_) % limit_)] = std::move(copy);
        ++count_;
        result.accepted = true;
        result.droppedTotal = dropped_;
    }
    wake_.notify_one();
    return result;
}

std::unique_ptr<FrameCopy> RecorderQueue::WaitPop() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return count_ > 0 || stopping_; });
    if (count_ == 0) return nullptr;
    return PopFrontLocked();
}

int64_t RecorderQueue::Dropped() {
    std::lock_guard<std::mutex> lock(mutex_);
    return dropped_;
}

int32_t RecorderQueue::Size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

std::unique_ptr<FrameCopy> RecorderQueue::PopFrontLocked() {
    std::unique_ptr<FrameCopy> front = std::move(ring_[static_cast<size_t>(head_)]);
    head_ = (head_ + 1) % limit_;
    --count_;
    return front;
}

void RecorderQueue::DiscardAllLocked() {
    while (count_ > 0) free_.push_back(PopFrontLocked());
    head_ = 0;
}

}  // namespace kiv
