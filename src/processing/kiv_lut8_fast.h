// The 8-bit trilinear table lookup prepared for whole rows: lattice offsets
// and fractions of every input byte are worked out once per frame, so each
// pixel costs only the eight corner reads and the interpolation steps of the
// fixed-point rule (ApplyLut8 in kiv_color_math), with identical results.
#pragma once
#include <cstdint>

struct Kiv3DLutData;

namespace kiv::color {

class Lut8Fast {
public:
    // Inactive (rows pass unchanged) for a null or unusable table or a
    // strength whose weight is below 1.
    Lut8Fast(const Kiv3DLutData* lut, float strength);

    bool Active() const { return table_ != nullptr; }
    // rgb: `count` pixels of red, green, blue bytes, changed in place.
    void ApplyRow(uint8_t* rgb, int32_t count) const;

private:
    void ApplyRowScalar(uint8_t* rgb, int32_t count) const;

    const uint8_t* table_ = nullptr;
    int32_t weight_ = 256;
    // Per input byte and channel: byte offset of the lower lattice entry and
    // the step to the upper one (0 at the last lattice point).
    uint32_t lower_[3][256];
    uint32_t step_[3][256];
    uint8_t frac_[256];
};

}  // namespace kiv::color
