// The 8-bit trilinear table lookup prepared for whole rows, with results
// identical to the fixed-point rule (ApplyLut8 in kiv_color_math). Lattice
// indices and fractions of every input byte are worked out once per frame;
// with SSE2 the table's ready-made red and green steps leave only the blue
// step and the strength blend per pixel.
#pragma once
#include <cstdint>

struct Kiv3DLutData;

namespace kiv::color {

class Lut8Fast {
public:
    // Inactive (rows pass unchanged) for a null or unusable table or a
    // strength whose weight is below 1.
    Lut8Fast(const Kiv3DLutData* lut, float strength);

    bool Active() const { return bytes_ != nullptr; }
    // rgbx: `count` pixels of red, green, blue and a fourth byte, changed in
    // place; the fourth byte is left undefined.
    void ApplyRow(uint8_t* rgbx, int32_t count) const;
    // Without vectors: all three steps per pixel from the table's bytes.
    void ApplyRowScalar(uint8_t* rgbx, int32_t count) const;

private:
    const uint8_t* bytes_ = nullptr;
    const uint32_t* redGreenSteps_ = nullptr;  // null: no vector path
    uint32_t dim_ = 0;
    int32_t weight_ = 256;
    // Per input byte and channel: entry index of the lower lattice point and
    // the step to the upper one (0 at the last lattice point).
    uint32_t lower_[3][256];
    uint32_t step_[3][256];
    // Blue lattice index of each input byte.
    uint32_t blueIndex_[256];
    uint8_t frac_[256];
    // Weights of the blue step for the vector path: 256 - frac four times,
    // then frac four times.
    uint16_t blueWeights_[256][8];
};

}  // namespace kiv::color
