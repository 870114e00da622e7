#include "kiv_lut8_fast.h"

#include "kiv_color_math.h"
#include "kiv_cube_lut.h"

namespace kiv::color {

namespace {
inline int Lerp8(int a, int b, int f) { return a + (((b - a) * f + 128) >> 8); }
}  // namespace

Lut8Fast::Lut8Fast(const Kiv3DLutData* lut, float strength) {
    if (!lut || lut->dim < 2 || lut->bytes.empty()) return;
    const int32_t weight = StrengthWeight(strength);
    if (weight < 1) return;
    const int n = lut->dim;
    const uint32_t stride[3] = {3u, 3u * static_cast<uint32_t>(n), 3u * static_cast<uint32_t>(n) * static_cast<uint32_t>(n)};
    for (int c = 0; c < 256; ++c) {
        const int p = (c * (n - 1) * 256 + 127) / 255;
        const int i = p >> 8;
        const bool inside = i < n - 1;
        const uint32_t index = static_cast<uint32_t>(inside ? i : n - 1);
        frac_[c] = static_cast<uint8_t>(inside ? (p & 255) : 0);
        for (int ch = 0; ch < 3; ++ch) {
            lower_[ch][c] = index * stride[ch];
            step_[ch][c] = inside ? stride[ch] : 0;
        }
    }
    weight_ = weight;
    table_ = lut->bytes.data();
}

void Lut8Fast::ApplyRow(uint8_t* rgb, int32_t count) const {
    if (!table_) return;
    ApplyRowScalar(rgb, count);
}

void Lut8Fast::ApplyRowScalar(uint8_t* rgb, int32_t count) const {
    for (int32_t i = 0; i < count; ++i, rgb += 3) {
        const int r = rgb[0], g = rgb[1], b = rgb[2];
        const uint8_t* c000 = table_ + lower_[0][r] + lower_[1][g] + lower_[2][b];
        const uint32_t dr = step_[0][r], dg = step_[1][g], db = step_[2][b];
        const int fr = frac_[r], fg = frac_[g], fb = frac_[b];
        const uint8_t* c010 = c000 + dg;
        const uint8_t* c001 = c000 + db;
        const uint8_t* c011 = c001 + dg;
        for (int ch = 0; ch < 3; ++ch) {
            const int x00 = Lerp8(c000[ch], c000[dr + ch], fr);
            const int x10 = Lerp8(c010[ch], c010[dr + ch], fr);
            const int x01 = Lerp8(c001[ch], c001[dr + ch], fr);
            const int x11 = Lerp8(c011[ch], c011[dr + ch], fr);
            int out = Lerp8(Lerp8(x00, x10, fg), Lerp8(x01, x11, fg), fb);
            if (weight_ < 256) {
                const int in = rgb[ch];
                out = in + (((out - in) * weight_ + 128) >> 8);
            }
            rgb[ch] = static_cast<uint8_t>(out < 0 ? 0 : (out > 255 ? 255 : out));
        }
    }
}

}  // namespace kiv::color
