// The constant-frame-rate grid a recording is written on: frames of any
// timing are placed on 0, d, 2d, ... by dropping frames the grid has passed
// and repeating the last frame while the grid lags behind.
#pragma once
#include <cstdint>

namespace kiv {

class PacingGrid {
public:
    // Forgets the base time and the previous frame; the grid restarts at 0.
    void Reset(int64_t duration);

    // Time of a frame relative to the first frame since Reset (which becomes
    // the base, at 0); times before the base count as 0.
    int64_t Relative(int64_t frameTime);

    // The grid is more than half a duration ahead of the frame.
    bool ShouldDrop(int64_t rel) const { return rel + duration_ / 2 < nextDue_; }
    // A frame was written before and the grid lags more than half a
    // duration behind this one: the previous frame is repeated at NextDue().
    bool NeedsDuplicate(int64_t rel) const { return hasPrevious_ && nextDue_ + duration_ / 2 < rel; }

    // A sample was written at NextDue().
    void Advance() {
        nextDue_ += duration_;
        hasPrevious_ = true;
    }

    // Pass-through timing: the frame's own relative time, unless that would
    // run backwards or come closer than one duration; then the grid time.
    int64_t PassThroughTime(int64_t rel) const { return rel > 0 && rel >= nextDue_ ? rel : nextDue_; }
    // A pass-through sample was written at `time`.
    void AdvanceFrom(int64_t time) { nextDue_ = time + duration_; }

    bool HasBase() const { return base_ >= 0; }
    int64_t Base() const { return base_; }
    int64_t NextDue() const { return nextDue_; }
    int64_t Duration() const { return duration_; }

private:
    int64_t base_ = -1;
    int64_t duration_ = 333333;
    int64_t nextDue_ = 0;
    bool hasPrevious_ = false;
};

// Frame time in 100 ns units: the frame's timestamp when it has one, else
// the steady clock.
int64_t FrameTime100ns(int64_t timestamp);

}  // namespace kiv
