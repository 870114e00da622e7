// The recorder's bounded frame queue between the upstream thread and the
// worker. When full it drops the oldest frame, so the file always follows
// the newest input and latency stays bounded. Frame copies circulate through
// a free list, so a warmed-up queue allocates nothing.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ports/kiv_frame.h"

namespace kiv {

class RecorderQueue {
public:
    static constexpr int32_t kDefaultLimit = 8;

    explicit RecorderQueue(int32_t limit = kDefaultLimit);

    // Empties the queue, accepts frames and restarts the drop count.
    void Open();
    // Refuses frames, discards the queued ones and wakes the worker so that
    // it leaves.
    void BeginStop();
    // Back to the idle state once the worker has left.
    void FinishStop();

    // A frame copy to fill, from the free list when it has one.
    std::unique_ptr<FrameCopy> Acquire();
    // Returns a copy to the free list.
    void Recycle(std::unique_ptr<FrameCopy> copy);

    struct PushResult {
        bool accepted = false;
        int32_t droppedNow = 0;     // oldest frames this push pushed out
        int64_t droppedTotal = 0;   // since Open
    };
    // Appends the copy at the back; while the queue is closed the copy goes
    // straight back to the free list.
    PushResult Push(std::unique_ptr<FrameCopy> copy);

    // Blocks until a frame is queued (returned) or a stop empties the queue
    // (null: the worker leaves).
    std::unique_ptr<FrameCopy> WaitPop();

    int64_t Dropped();
    int32_t Size();
    int32_t Limit() const { return limit_; }

private:
    std::unique_ptr<FrameCopy> PopFrontLocked();
    void DiscardAllLocked();

    const int32_t limit_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<std::unique_ptr<FrameCopy>> ring_;  // `limit_` slots
    int32_t head_ = 0;
    int32_t count_ = 0;
    std::vector<std::unique_ptr<FrameCopy>> free_;
    bool asyncEnabled_ = false;
    bool stopping_ = false;
    int64_t dropped_ = 0;
};

}  // namespace kiv
