#include "kiv_lut8_fast.h"

#include <cstring>

#include "kiv_color_math.h"
#include "kiv_cube_lut.h"

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#define KIV_LUT8_SSE2 1
#endif

namespace kiv::color {

namespace {
inline int Lerp8(int a, int b, int f) { return a + (((b - a) * f + 128) >> 8); }
}  // namespace

Lut8Fast::Lut8Fast(const Kiv3DLutData* lut, float strength) {
    if (!lut || lut->dim < 2 || lut->bytes.empty()) return;
    const int32_t weight = StrengthWeight(strength);
    if (weight < 1) return;
    const uint32_t n = static_cast<uint32_t>(lut->dim);
    const uint32_t stride[3] = {1u, n, n * n};
    for (int c = 0; c < 256; ++c) {
        const int p = (c * static_cast<int>(n - 1) * 256 + 127) / 255;
        const uint32_t i = static_cast<uint32_t>(p >> 8);
        const bool inside = i < n - 1;
        frac_[c] = static_cast<uint8_t>(inside ? (p & 255) : 0);
        for (int k = 0; k < 4; ++k) {
            blueWeights_[c][k] = static_cast<uint16_t>(256 - frac_[c]);
            blueWeights_[c][k + 4] = frac_[c];
        }
        for (int ch = 0; ch < 3; ++ch) {
            lower_[ch][c] = (inside ? i : n - 1) * stride[ch];
            step_[ch][c] = inside ? stride[ch] : 0;
        }
        blueIndex_[c] = inside ? i : n - 1;
    }
    weight_ = weight;
    bytes_ = lut->bytes.data();
    dim_ = n;
    if (lut->redGreenSteps.size() == 256 * 256 * static_cast<size_t>(n) + 1) redGreenSteps_ = lut->redGreenSteps.data();
}

void Lut8Fast::ApplyRowScalar(uint8_t* rgbx, int32_t count) const {
    if (!bytes_) return;
    for (int32_t i = 0; i < count; ++i, rgbx += 4) {
        const int r = rgbx[0], g = rgbx[1], b = rgbx[2];
        const uint8_t* c000 = bytes_ + 3 * (lower_[0][r] + lower_[1][g] + lower_[2][b]);
        const uint32_t dr = 3 * step_[0][r], dg = 3 * step_[1][g], db = 3 * step_[2][b];
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
                const int in = rgbx[ch];
                out = in + (((out - in) * weight_ + 128) >> 8);
            }
            rgbx[ch] = static_cast<uint8_t>(out < 0 ? 0 : (out > 255 ? 255 : out));
        }
    }
}

// Each step a + (((b - a) * f + 128) >> 8) equals (a * (256 - f) + b * f + 128)
// >> 8, because a * 256 is a whole multiple of 256 and the shift floors. With
// a and b within 0..255 that sum stays below 65536, so it is computed exactly
// in unsigned 16-bit lanes, and the results are those of the scalar rule.
// The steps along red and green come ready-made from the table's
// redGreenSteps, whose two blue neighbours sit side by side (at the last blue
// index the upper one has weight 0).
void Lut8Fast::ApplyRow(uint8_t* rgbx, int32_t count) const {
    if (!bytes_) return;
#if defined(KIV_LUT8_SSE2)
    if (redGreenSteps_) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i round = _mm_set1_epi16(128);
        const bool partial = weight_ < 256;
        const __m128i keep = _mm_set1_epi16(static_cast<int16_t>(256 - weight_));
        const __m128i take = _mm_set1_epi16(static_cast<int16_t>(weight_));
        // Lanes 0-3 hold y0's channels times (256 - f), lanes 4-7 y1's times f.
        auto weighted = [&](const uint8_t* px) {
            const uint32_t* y = redGreenSteps_ + (px[0] * 256u + px[1]) * dim_ + blueIndex_[px[2]];
            const __m128i both = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(y)), zero);
            return _mm_mullo_epi16(both, _mm_loadu_si128(reinterpret_cast<const __m128i*>(blueWeights_[px[2]])));
        };
        // Two pixels at a time: lanes 0-3 the first, lanes 4-7 the second.
        int32_t i = 0;
        for (; i + 2 <= count; i += 2, rgbx += 8) {
            const __m128i a = weighted(rgbx);
            const __m128i b = weighted(rgbx + 4);
            __m128i z = _mm_add_epi16(_mm_unpacklo_epi64(a, b), _mm_unpackhi_epi64(a, b));
            z = _mm_srli_epi16(_mm_add_epi16(z, round), 8);
            if (partial) {
                const __m128i in = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(rgbx)), zero);
                z = _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(in, keep), _mm_mullo_epi16(z, take)), round);
                z = _mm_srli_epi16(z, 8);
            }
            _mm_storel_epi64(reinterpret_cast<__m128i*>(rgbx), _mm_packus_epi16(z, zero));
        }
        if (i < count) {
            const __m128i a = weighted(rgbx);
            __m128i z = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(a, _mm_srli_si128(a, 8)), round), 8);
            if (partial) {
                int32_t in;
                std::memcpy(&in, rgbx, 4);
                const __m128i pixel = _mm_unpacklo_epi8(_mm_cvtsi32_si128(in), zero);
                z = _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(pixel, keep), _mm_mullo_epi16(z, take)), round);
                z = _mm_srli_epi16(z, 8);
            }
            const int32_t value = _mm_cvtsi128_si32(_mm_packus_epi16(z, zero));
            std::memcpy(rgbx, &value, 4);
        }
        return;
    }
#endif
    ApplyRowScalar(rgbx, count);
}

}  // namespace kiv::color
