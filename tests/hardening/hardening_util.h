// The processing chain an application builds, shared by the hardening tests.
#pragma once
#include <string>

#include "kivcapture.h"

namespace hardening {

// A 2-point cube table that swaps red and blue and darkens green, written into `dir`.
std::string WriteSwapCube(const std::string& dir);

// source -> crop (from (4, 2) to the edges) -> colour engine (the swap table
// at 0.75, YUY2 out) -> overlay (a rectangle outline), whose composited
// output feeds the mux `tap`, so the mux's callback sees the final frames.
struct Chain {
    void *source, *crop, *color, *osd, *tap;
    explicit Chain(const std::string& cubePath);
    ~Chain();
};

}  // namespace hardening
