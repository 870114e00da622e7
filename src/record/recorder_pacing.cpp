#include "recorder_pacing.h"

#include "ports/kiv_frame.h"

namespace kiv {

void PacingGrid::Reset(int64_t duration) {
    base_ = -1;
    duration_ = duration;
    nextDue_ = 0;
    hasPrevious_ = false;
}

int64_t PacingGrid::Relative(int64_t frameTime) {
    if (base_ < 0) {
        base_ = frameTime;
        nextDue_ = 0;
        return 0;
    }
    return frameTime > base_ ? frameTime - base_ : 0;
}

int64_t FrameTime100ns(int64_t timestamp) { return timestamp > 0 ? timestamp : SteadyNow100ns(); }

}  // namespace kiv
